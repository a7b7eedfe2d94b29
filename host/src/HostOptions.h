// Command-line options of `routine-host`, read and checked in named steps (arguments, token, TLS,
// exposure) so that each refusal names what to change. Plain data; no threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace NyHost {

struct HostOptions {
    // A shorter token is guessed too easily, even slowed down.
    static constexpr std::size_t kMinTokenLength = 16;

    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;
    std::string pluginDir;  // empty: the "plugins" folder beside the executable's "bin"
    std::string webDir;     // empty: the console shipped with the build or the installation
    std::string logLevel = "info";
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
    std::vector<std::string> warnings;  // for the operator, printed at start
};

// Parses argv and the environment. Returns the options, or an error text for the user.
std::optional<HostOptions> ParseOptions(int argc, char** argv, std::string& error);
std::string Usage();

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopback(const std::string& address);

}  // namespace NyHost
