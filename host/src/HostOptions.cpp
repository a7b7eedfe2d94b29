#include "HostOptions.h"

#include <cstdlib>
#include <string_view>

namespace NyHost {

namespace {

bool ParseListen(const std::string& value, HostOptions& options, std::string& error) {
    const auto colon = value.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == value.size()) {
        error = "--listen expects HOST:PORT, got \"" + value + "\"";
        return false;
    }
    std::string host = value.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);  // [::1]:8080
    }
    char* end = nullptr;
    const unsigned long port = std::strtoul(value.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port > 65535) {
        error = "--listen: invalid port in \"" + value + "\"";
        return false;
    }
    options.address = host;
    options.port = static_cast<std::uint16_t>(port);
    return true;
}

bool ParseCount(const std::string& name, const std::string& value, unsigned& out, std::string& error) {
    char* end = nullptr;
    const unsigned long n = std::strtoul(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || n == 0 || n > 100000) {
        error = name + " expects a positive number, got \"" + value + "\"";
        return false;
    }
    out = static_cast<unsigned>(n);
    return true;
}

}  // namespace

std::string Usage() {
    return "Usage: routine-host [options]\n"
           "Serves the routine engine's REST API, its live events (/events) and the web console (/).\n\n"
           "  --listen HOST:PORT       address to listen on (default 127.0.0.1:8080; port 0 picks a free "
           "port)\n"
           "  --plugins DIR            plug-in folder (default: ../plugins beside the executable's folder)\n"
           "  --web DIR                folder of the web console\n"
           "  --log-level LEVEL        none, error, info (default) or debug\n"
           "  --token TOKEN            require \"Authorization: Bearer TOKEN\" (or set NYR_TOKEN)\n"
           "  --insecure-remote        allow a non-loopback address without a token\n"
           "  --allow-origin ORIGIN    allow cross-origin requests from ORIGIN (repeatable)\n"
           "  --max-event-clients N    event-stream clients at most (default 64)\n"
           "  --workers N              request worker threads (default 16)\n"
           "  --bench-fixed-reply N    serve a fixed reply of N bytes at /bench/fixed (for benchmarks)\n"
           "  --help                   this text\n\n"
           "Signals: SIGHUP rescans the plug-in folder; SIGINT and SIGTERM shut down cleanly.\n";
}

std::optional<HostOptions> ParseOptions(int argc, char** argv, std::string& error) {
    HostOptions options;
    if (const char* token = std::getenv("NYR_TOKEN"); token != nullptr) {
        options.token = token;
    }
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                error = std::string(arg) + " expects a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string text;
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--listen") {
            if (!value(text) || !ParseListen(text, options, error)) {
                return std::nullopt;
            }
        } else if (arg == "--plugins") {
            if (!value(options.pluginDir)) {
                return std::nullopt;
            }
        } else if (arg == "--web") {
            if (!value(options.webDir)) {
                return std::nullopt;
            }
        } else if (arg == "--log-level") {
            if (!value(options.logLevel)) {
                return std::nullopt;
            }
            if (options.logLevel != "none" && options.logLevel != "error" && options.logLevel != "info" &&
                options.logLevel != "debug") {
                error = "--log-level expects none, error, info or debug";
                return std::nullopt;
            }
        } else if (arg == "--token") {
            if (!value(options.token)) {
                return std::nullopt;
            }
        } else if (arg == "--insecure-remote") {
            options.insecureRemote = true;
        } else if (arg == "--allow-origin") {
            if (!value(text)) {
                return std::nullopt;
            }
            options.allowOrigins.push_back(text);
        } else if (arg == "--max-event-clients") {
            if (!value(text) || !ParseCount("--max-event-clients", text, options.maxEventClients, error)) {
                return std::nullopt;
            }
        } else if (arg == "--bench-fixed-reply") {
            if (!value(text) || !ParseCount("--bench-fixed-reply", text, options.fixedReplyBytes, error)) {
                return std::nullopt;
            }
        } else if (arg == "--workers") {
            if (!value(text) || !ParseCount("--workers", text, options.workerThreads, error)) {
                return std::nullopt;
            }
        } else {
            error = "unknown option " + std::string(arg);
            return std::nullopt;
        }
    }
    if (!options.help && !IsLoopback(options.address) && options.token.empty() && !options.insecureRemote) {
        error = "listening on " + options.address +
                " needs a token (--token or NYR_TOKEN), or --insecure-remote to serve without one";
        return std::nullopt;
    }
    return options;
}

bool IsLoopback(const std::string& address) {
    return address == "localhost" || address == "::1" || address.rfind("127.", 0) == 0;
}

}  // namespace NyHost
