// routine-host: serves the routine engine's REST API over HTTP with live events and the web console.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "HostOptions.h"
#include "HostService.h"
#include "LogSinks.h"
#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyApi/Status.h"
#include "ServiceManager.h"

namespace {

// Exit statuses the service unit tells apart: a refused setting (a bad option or variable, an unusable
// TLS file, a socket handed over that may not be served) is not retried, since starting again cannot
// mend it; any other failure to start (a port still in use) may pass, and is.
constexpr int kExitRefusedSetting = 2;
constexpr int kExitFailed = 1;

std::filesystem::path ExecutableDir() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::current_path() : self.parent_path();
}

// The folders of this build, from its configuration (host/CMakeLists.txt).
NyHost::DefaultPaths DefaultPaths() {
    const NyHost::PathLayout layout{NYR_BUILD_BIN_DIR, NYR_BUILD_PLUGIN_DIR, NYR_SOURCE_WEB_DIR,
                                    NYR_INSTALLED_PLUGIN_DIR, NYR_INSTALLED_WEB_DIR};
    return NyHost::ResolveDefaultPaths(ExecutableDir(), layout);
}

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    const auto options = NyHost::ParseOptions(argc, argv, error);
    const NyHost::DefaultPaths defaults = DefaultPaths();
    if (!options) {
        std::cerr << "routine-host: " << error << "\n\n" << NyHost::Usage(defaults);
        return kExitRefusedSetting;
    }
    if (options->help) {
        std::cout << NyHost::Usage(defaults);
        return 0;
    }
    if (options->version) {
        std::cout << "routine-host " NYR_VERSION "\n";
        return 0;
    }

    // Every thread started from here on inherits the blocked signals; only the main thread takes them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // What main writes itself goes to the log's streams in the log's form (see ProcessLine). stdout is
    // read by a person or a parent waiting for the port, so it keeps its plain line unless the journal
    // reads it.
    const char* journalStream = std::getenv("JOURNAL_STREAM");
    const NyHost::LogForm stderrForm =
        NyHost::ChooseLogForm(options->logFormat, journalStream, fileno(stderr));
    const NyHost::LogForm stdoutForm =
        NyHost::IsJournalStream(journalStream, fileno(stdout))
            ? NyHost::ChooseLogForm(options->logFormat, journalStream, fileno(stdout))
            : NyHost::LogForm::Text;
    const auto say = [](std::ostream& stream, NyHost::LogForm form, std::uint64_t levelWord,
                        const std::string& text) {
        stream << NyHost::ProcessLine(form, levelWord, text, std::chrono::system_clock::now()) << std::flush;
    };
    for (const auto& warning : options->warnings) {
        say(std::cerr, stderrForm, Ny::Logging::Level::Notice, "routine-host: warning: " + warning);
    }
    NyHost::InstallLogSinks(options->logLevel, options->logFormat);
    const std::filesystem::path pluginDir =
        options->pluginDir.empty() ? defaults.pluginDir : std::filesystem::path(options->pluginDir);
    const std::filesystem::path webDir =
        options->webDir.empty() ? defaults.webDir : std::filesystem::path(options->webDir);
    NY_LOG(Ny::Logging::Level::Notice, "Plug-ins from %1$s, console from %2$s", pluginDir.c_str(),
           webDir.c_str());

    // Under a service manager: its sockets instead of --listen, its watchdog pinged from the network
    // thread. Outside one, both are empty and the host binds and runs as by hand.
    const NyHost::ServiceManager serviceManager;
    NyHost::ServiceBinding binding;
    binding.listenFds = serviceManager.ListenFds();
    if (!binding.listenFds.empty()) {
        NY_LOG(Ny::Logging::Level::Notice,
               "Serving %zu listening socket(s) handed over by the service manager; --listen is ignored.",
               binding.listenFds.size());
    }
    binding.watchdogInterval = serviceManager.WatchdogInterval();
    if (binding.watchdogInterval.count() > 0) {
        binding.watchdogPing = [&serviceManager] { serviceManager.Ping(); };
    }

    NyHost::HostService service(*options, pluginDir, webDir);
    try {
        service.Start(std::move(binding));
    } catch (const std::exception& e) {
        say(std::cerr, stderrForm, Ny::Logging::Level::CaughtFailure,
            std::string("routine-host: cannot start: ") + e.what());
        return Ny::StatusOf(e) == Ny::Status::InvalidValue ? kExitRefusedSetting : kExitFailed;
    }
    const std::string address = service.Address();
    const bool ipv6 = address.find(':') != std::string::npos;
    const char* scheme = options->tlsCertFile.empty() ? "http" : "https";
    const std::string listening = std::string("listening on ") + scheme + "://" +
                                  (ipv6 ? "[" + address + "]" : address) + ":" +
                                  std::to_string(service.Port());
    say(std::cout, stdoutForm, Ny::Logging::Level::Notice, listening);
    // Ready once clients can connect: the listening socket accepts from here on.
    serviceManager.Ready(listening);

    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) {
            continue;
        }
        if (signal == SIGHUP) {
            service.Rescan();
            continue;
        }
        break;
    }
    // Before the drain, so that the service manager waits for it rather than taking the host for hung.
    serviceManager.Stopping();
    service.Shutdown();
    return 0;
}
