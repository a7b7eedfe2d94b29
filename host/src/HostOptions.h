// Command-line options of `routine-host`, read and checked in named steps (arguments, token, TLS,
// exposure) so that each refusal names what to change, and the default folders of plug-ins and console.
// Plain data and pure functions; no threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace NyHost {

struct HostOptions {
    // A shorter token is guessed too easily, even slowed down.
    static constexpr std::size_t kMinTokenLength = 16;

    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;
    std::string pluginDir;  // empty: DefaultPaths::pluginDir
    std::string webDir;     // empty: DefaultPaths::webDir
    std::string logLevel = "info";
    std::string logFormat = "text";         // "text" or "json" (one object per line)
    std::string token;                      // bearer token; from --token-file, --token or NYR_TOKEN
    std::string tokenFile;                  // where the token was read from, if from a file
    bool insecureRemote = false;            // allow a non-loopback listener without TLS and a token
    std::vector<std::string> allowHosts;    // Host names besides the listen address and loopback names
    std::vector<std::string> allowOrigins;  // cross-origin requests allowed from these origins
    std::string tlsCertFile;                // both set: serve HTTPS
    std::string tlsKeyFile;
    unsigned maxConnections = 512;
    unsigned maxEventClients = 64;
    unsigned workerThreads = 16;
    unsigned fixedReplyBytes = 0;  // > 0: "/bench/fixed" answers a fixed reply of this size (benchmarks)
    bool help = false;
    bool version = false;               // print the version and exit
    std::vector<std::string> warnings;  // for the operator, printed at start
};

// Where one build of the host puts its plug-ins and console, fixed when the build is configured.
struct PathLayout {
    // In the build tree: the executable's folder, the plug-ins it builds, the console's sources.
    std::filesystem::path buildBinDir;
    std::filesystem::path buildPluginDir;
    std::filesystem::path sourceWebDir;
    // Installed: relative to the installed executable's folder (e.g. "../lib/routine-host/plugins"), so
    // that a prefix chosen at install time, and a distribution's library folder, still work.
    std::filesystem::path installedPluginDir;
    std::filesystem::path installedWebDir;
};

// The folders used when --plugins or --web is not given.
struct DefaultPaths {
    std::filesystem::path pluginDir;
    std::filesystem::path webDir;
};

// The default folders for an executable that runs from `executableDir`: the build tree's when it is the
// build tree's executable folder (the same folder, not merely the same name), else the installed ones
// relative to it. Decided by where the executable is, never by which folder happens to exist, so that an
// installed host never serves a build tree's files. The results are normalized (no "..").
DefaultPaths ResolveDefaultPaths(const std::filesystem::path& executableDir, const PathLayout& layout);

// The environment variables that give an option's default (a service's settings file sets them); an
// empty variable counts as unset, and the command line wins over each. A list variable holds names
// separated by blanks, each given as one repeatable option, to which the command line's add.
struct EnvironmentOption {
    const char* variable;  // e.g. "ROUTINE_HOST_LISTEN"
    const char* option;    // e.g. "--listen"
    bool list = false;
};
extern const EnvironmentOption kEnvironmentOptions[9];

// Parses the environment (kEnvironmentOptions, NYR_TOKEN) and argv. Returns the options, or an error
// text for the user.
std::optional<HostOptions> ParseOptions(int argc, char** argv, std::string& error);
// The usage text, naming the default folders.
std::string Usage(const DefaultPaths& defaults);

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopback(const std::string& address);

}  // namespace NyHost
