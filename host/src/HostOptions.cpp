#include "HostOptions.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

namespace NyHost {

namespace {

// Digits only, at most `maximum`: no sign, no blanks, nothing that strtoul would wrap or skip.
bool ParseNumber(const std::string& text, unsigned long maximum, unsigned long& out) {
    if (text.empty() || text.size() > 10 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    out = std::stoul(text);
    return out <= maximum;
}

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
    unsigned long port = 0;
    if (!ParseNumber(value.substr(colon + 1), 65535, port)) {
        error = "--listen: invalid port in \"" + value + "\"";
        return false;
    }
    options.address = host;
    options.port = static_cast<std::uint16_t>(port);
    return true;
}

bool ParseCount(const std::string& name, const std::string& value, unsigned& out, std::string& error) {
    unsigned long n = 0;
    if (!ParseNumber(value, 100000, n) || n == 0) {
        error = name + " expects a number from 1 to 100000, got \"" + value + "\"";
        return false;
    }
    out = static_cast<unsigned>(n);
    return true;
}

// Step 1: the command line, each option into its field; nothing is checked against another option yet.
bool ReadArguments(int argc, char** argv, HostOptions& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                error = arg + " expects a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        auto nonEmpty = [&](std::vector<std::string>& list) {
            std::string text;
            if (!value(text)) {
                return false;
            }
            if (text.empty()) {
                error = arg + " expects a name, got an empty text";
                return false;
            }
            list.push_back(text);
            return true;
        };
        std::string text;
        bool ok = true;
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--listen") {
            ok = value(text) && ParseListen(text, options, error);
        } else if (arg == "--plugins") {
            ok = value(options.pluginDir);
        } else if (arg == "--web") {
            ok = value(options.webDir);
        } else if (arg == "--log-level") {
            ok = value(options.logLevel);
            if (ok && options.logLevel != "none" && options.logLevel != "error" &&
                options.logLevel != "info" && options.logLevel != "debug") {
                error = "--log-level expects none, error, info or debug";
                ok = false;
            }
        } else if (arg == "--log-format") {
            ok = value(options.logFormat);
            if (ok && options.logFormat != "text" && options.logFormat != "json") {
                error = "--log-format expects text or json";
                ok = false;
            }
        } else if (arg == "--token") {
            ok = value(options.token);
            options.warnings.push_back(
                "--token puts the token on the command line, which is visible to local users; prefer "
                "--token-file or NYR_TOKEN");
        } else if (arg == "--token-file") {
            ok = value(options.tokenFile);
        } else if (arg == "--insecure-remote") {
            options.insecureRemote = true;
        } else if (arg == "--allow-host") {
            ok = nonEmpty(options.allowHosts);
        } else if (arg == "--allow-origin") {
            ok = nonEmpty(options.allowOrigins);
        } else if (arg == "--tls-cert") {
            ok = value(options.tlsCertFile);
        } else if (arg == "--tls-key") {
            ok = value(options.tlsKeyFile);
        } else if (arg == "--max-connections") {
            ok = value(text) && ParseCount(arg, text, options.maxConnections, error);
        } else if (arg == "--max-event-clients") {
            ok = value(text) && ParseCount(arg, text, options.maxEventClients, error);
        } else if (arg == "--bench-fixed-reply") {
            ok = value(text) && ParseCount(arg, text, options.fixedReplyBytes, error);
        } else if (arg == "--workers") {
            ok = value(text) && ParseCount(arg, text, options.workerThreads, error);
        } else {
            error = "unknown option " + arg;
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

// Step 2: the token, from --token-file, --token or NYR_TOKEN (in that order of precedence; a file and
// --token together are a mistake), checked for length.
bool ReadToken(HostOptions& options, std::string& error) {
    if (!options.tokenFile.empty()) {
        if (!options.token.empty()) {
            error = "--token and --token-file both give a token; use one";
            return false;
        }
        std::ifstream file(options.tokenFile, std::ios::binary);
        std::ostringstream content;
        if (!file || !(content << file.rdbuf())) {
            error = "--token-file: cannot read \"" + options.tokenFile + "\"";
            return false;
        }
        options.token = content.str();
        while (!options.token.empty() && (options.token.back() == '\n' || options.token.back() == '\r')) {
            options.token.pop_back();
        }
        if (options.token.empty()) {
            error = "--token-file: \"" + options.tokenFile + "\" is empty";
            return false;
        }
    } else if (options.token.empty()) {
        if (const char* token = std::getenv("NYR_TOKEN"); token != nullptr) {
            options.token = token;
        }
    }
    if (options.token.empty()) {
        return true;
    }
    if (options.token.size() < HostOptions::kMinTokenLength) {
        error = "the token must have at least 16 characters";
        return false;
    }
    // A header cannot carry these, so such a token could never be presented.
    if (std::any_of(options.token.begin(), options.token.end(),
                    [](unsigned char c) { return c <= ' ' || c == 0x7F; })) {
        error = "the token must not contain blanks or control characters";
        return false;
    }
    return true;
}

// Step 3: TLS needs both files.
bool CheckTls(const HostOptions& options, std::string& error) {
    if (options.tlsCertFile.empty() != options.tlsKeyFile.empty()) {
        error = options.tlsCertFile.empty() ? "--tls-key needs --tls-cert" : "--tls-cert needs --tls-key";
        return false;
    }
    return true;
}

// Step 4: a port reachable from other machines gets TLS and a token, unless the operator says otherwise.
bool CheckExposure(const HostOptions& options, std::string& error) {
    if (options.help || IsLoopback(options.address) || options.insecureRemote) {
        return true;
    }
    const bool tls = !options.tlsCertFile.empty();
    const bool token = !options.token.empty();
    if (!tls || !token) {
        error = "listening on " + options.address + " needs TLS (--tls-cert and --tls-key) and a token " +
                "(--token-file or NYR_TOKEN); missing: " + (tls ? "" : "TLS") +
                (!tls && !token ? " and " : "") + (token ? "" : "token") +
                " (--insecure-remote serves without them)";
        return false;
    }
    return true;
}

// "bin/../lib/x" -> "lib/x", symbolic links of the existing part resolved; as written when that fails.
std::filesystem::path Normalized(const std::filesystem::path& path) {
    std::error_code error;
    auto resolved = std::filesystem::weakly_canonical(path, error);
    return error ? path.lexically_normal() : resolved;
}

// Step 0: the environment's defaults, read as if they led the command line. Only the options of
// kEnvironmentOptions can come from there, so a variable cannot switch on anything the table omits.
bool ReadEnvironment(HostOptions& options, std::string& error) {
    std::vector<std::string> args{"routine-host"};
    std::vector<const char*> variables;  // the variable of each option/value pair in `args`
    for (const auto& entry : kEnvironmentOptions) {
        const char* value = std::getenv(entry.variable);
        if (value == nullptr || *value == '\0') {
            continue;
        }
        std::vector<std::string> values;
        if (entry.list) {
            std::istringstream words(value);
            for (std::string word; words >> word;) {
                values.push_back(word);
            }
        } else {
            values.emplace_back(value);
        }
        for (auto& each : values) {
            args.emplace_back(entry.option);
            args.push_back(std::move(each));
            variables.push_back(entry.variable);
        }
    }
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    if (!ReadArguments(static_cast<int>(args.size()), argv.data(), options, error)) {
        // Name the variable, not only the option it stands for.
        for (std::size_t i = 0; i < variables.size(); ++i) {
            if (error.find(args[1 + 2 * i]) != std::string::npos) {
                error = std::string(variables[i]) + ": " + error;
                break;
            }
        }
        return false;
    }
    return true;
}

}  // namespace

const EnvironmentOption kEnvironmentOptions[9] = {
    {"ROUTINE_HOST_LISTEN", "--listen"},
    {"ROUTINE_HOST_PLUGINS", "--plugins"},
    {"ROUTINE_HOST_WEB", "--web"},
    {"ROUTINE_HOST_TOKEN_FILE", "--token-file"},
    {"ROUTINE_HOST_TLS_CERT", "--tls-cert"},
    {"ROUTINE_HOST_TLS_KEY", "--tls-key"},
    {"ROUTINE_HOST_LOG_LEVEL", "--log-level"},
    {"ROUTINE_HOST_LOG_FORMAT", "--log-format"},
    // The names clients reach a host on the network by: without them every request by name is refused.
    {"ROUTINE_HOST_ALLOW_HOSTS", "--allow-host", true},
};

DefaultPaths ResolveDefaultPaths(const std::filesystem::path& executableDir, const PathLayout& layout) {
    std::error_code error;
    // equivalent() compares the files themselves, so a symbolic link to the build folder still counts;
    // a build folder that no longer exists is an error here, and then the executable is an installed one.
    const bool inBuildTree = !layout.buildBinDir.empty() &&
                             std::filesystem::equivalent(executableDir, layout.buildBinDir, error) && !error;
    if (inBuildTree) {
        return {Normalized(layout.buildPluginDir), Normalized(layout.sourceWebDir)};
    }
    return {Normalized(executableDir / layout.installedPluginDir),
            Normalized(executableDir / layout.installedWebDir)};
}

std::string Usage(const DefaultPaths& defaults) {
    return "Usage: routine-host [options]\n"
           "Serves the routine engine's REST API, its live events (/events) and the web console (/).\n\n"
           "  --listen HOST:PORT       address to listen on (default 127.0.0.1:8080; port 0 picks a free "
           "port)\n"
           "  --plugins DIR            plug-in folder (default: " +
           defaults.pluginDir.string() +
           ")\n"
           "  --web DIR                folder of the web console (default: " +
           defaults.webDir.string() +
           ")\n"
           "  --log-level LEVEL        none, error, info (default) or debug\n"
           "  --log-format FORMAT      text (default) or json (one object per line)\n"
           "  --token-file PATH        require \"Authorization: Bearer TOKEN\", TOKEN read from PATH (or "
           "set\n"
           "                           NYR_TOKEN); at least 16 characters\n"
           "  --token TOKEN            the same, from the command line (visible to local users)\n"
           "  --allow-host NAME        also accept Host: NAME (with or without :PORT; repeatable)\n"
           "  --allow-origin ORIGIN    allow cross-origin requests from ORIGIN (repeatable)\n"
           "  --tls-cert PEM           serve HTTPS with this certificate chain (with --tls-key)\n"
           "  --tls-key PEM            the certificate's private key\n"
           "  --insecure-remote        allow a non-loopback address without TLS and a token\n"
           "  --max-connections N      connections open at once (default 512)\n"
           "  --max-event-clients N    event-stream clients at most (default 64)\n"
           "  --workers N              request worker threads (default 16)\n"
           "  --bench-fixed-reply N    serve a fixed reply of N bytes at /bench/fixed (for benchmarks)\n"
           "  --version                the version\n"
           "  --help                   this text\n\n"
           "Environment:\n"
           "  ROUTINE_HOST_LISTEN, ROUTINE_HOST_PLUGINS, ROUTINE_HOST_WEB, ROUTINE_HOST_TOKEN_FILE,\n"
           "  ROUTINE_HOST_TLS_CERT, ROUTINE_HOST_TLS_KEY, ROUTINE_HOST_LOG_LEVEL, ROUTINE_HOST_LOG_FORMAT\n"
           "                           the defaults of --listen, --plugins, --web, --token-file, "
           "--tls-cert,\n"
           "                           --tls-key, --log-level and --log-format (empty: unset); the command\n"
           "                           line wins\n"
           "  ROUTINE_HOST_ALLOW_HOSTS names separated by blanks, each an --allow-host (the command line's\n"
           "                           add to them)\n"
           "  NYR_TOKEN                the token, when no token file is given\n\n"
           "Signals: SIGHUP rescans the plug-in folder; SIGINT and SIGTERM shut down cleanly.\n";
}

std::optional<HostOptions> ParseOptions(int argc, char** argv, std::string& error) {
    HostOptions options;
    if (!ReadEnvironment(options, error)) {
        return std::nullopt;
    }
    const std::string environmentTokenFile = options.tokenFile;
    if (!ReadArguments(argc, argv, options, error)) {
        return std::nullopt;
    }
    // --token on the command line wins over a token file named by the environment.
    if (!options.token.empty() && options.tokenFile == environmentTokenFile) {
        options.tokenFile.clear();
    }
    if (options.help || options.version) {
        return options;
    }
    if (!ReadToken(options, error) || !CheckTls(options, error) || !CheckExposure(options, error)) {
        return std::nullopt;
    }
    return options;
}

bool IsLoopback(const std::string& address) {
    return address == "localhost" || address == "::1" || address.rfind("127.", 0) == 0;
}

}  // namespace NyHost
