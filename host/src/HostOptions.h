// Command-line options of `routine-host`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace NyHost {

struct HostOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;
    std::string pluginDir;  // empty: the "plugins" folder beside the executable's "bin"
    std::string webDir;     // empty: the console shipped with the build or the installation
    std::string logLevel = "info";
    std::string token;                      // bearer token; from --token or NYR_TOKEN
    bool insecureRemote = false;            // allow a non-loopback listener without a token
    std::vector<std::string> allowOrigins;  // cross-origin requests allowed from these origins
    unsigned maxEventClients = 64;
    unsigned workerThreads = 16;
    unsigned fixedReplyBytes = 0;  // > 0: "/bench/fixed" answers a fixed reply of this size (benchmarks)
    bool help = false;
};

// Parses argv. Returns the options, or an error text for the user.
std::optional<HostOptions> ParseOptions(int argc, char** argv, std::string& error);
std::string Usage();

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopback(const std::string& address);

}  // namespace NyHost
