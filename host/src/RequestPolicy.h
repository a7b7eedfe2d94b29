// `RequestPolicy`: who may ask this host anything, decided before a request reaches the router.
//
// What it guards against: a client that reaches the port but names another server in its Host (a web
// page that rebinds a foreign name to this address), a web page of another origin in the operator's
// browser, and a client without the token, guessing it. In order, a request must
//   1. name this server in Host: the listen address, a bound socket's address, a loopback name
//      ("localhost", "127.0.0.1", "[::1]") or a name given with --allow-host, with the port of any socket
//      the server listens on (several when the service manager hands over more than one) (421 otherwise);
//   2. come from no browser origin, the same origin (scheme + an allowed Host), or an origin given with
//      --allow-origin (403 otherwise); a CORS preflight from an allowed origin is answered here (204)
//      without a token, since browsers never send one with it;
//   3. carry "Authorization: Bearer <token>" (scheme in any case) when a token is set, unless it reads
//      the console's own files (401 otherwise). An address that presented a wrong token
//      `kFailuresBeforeSlowdown` times within `kFailureWindow` gets 429 with Retry-After until that window
//      has passed; a request with no Authorization at all is not a guess and never counts.
// Refusals and state-changing requests are logged: refusals at most once per address per
// `kRefusalLogPeriod` (with a count), each state change as one audit line.
//
// Threads: `Check` runs on the transport's I/O threads, `Decorate` and `Audit` on its workers, all at
// once; the failure table has its own lock, taken briefly and never around a call out. Owned by the host
// service; the endpoints function must stay callable while the policy is used.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "HttpServer.h"
#include "LogBudget.h"
#include "NyApi/Mutex.h"

namespace NyHost {

class RequestPolicy {
  public:
    struct Settings {
        std::string address;                    // the listen address, as given
        std::vector<std::string> allowHosts;    // extra Host names, each with or without a port
        std::vector<std::string> allowOrigins;  // origins allowed cross-origin, e.g. "https://a.example"
        std::string token;                      // empty: no token required
    };
    // Names for the numbers of the slow-down and the log.
    static constexpr unsigned kFailuresBeforeSlowdown = 10;
    static constexpr std::chrono::seconds kFailureWindow{60};
    static constexpr std::chrono::seconds kRefusalLogPeriod{10};
    // Addresses remembered at once; the oldest is forgotten first, so that many addresses or ports
    // cannot grow the table.
    static constexpr std::size_t kMaxTrackedAddresses = 4096;
    static constexpr int kPreflightMaxAgeSeconds = 600;

    // `endpoints` tells every bound address and port (known only once the server listens).
    RequestPolicy(Settings settings, std::function<std::vector<BoundEndpoint>()> endpoints);

    // The refusal (or the preflight's answer) for this request, or nothing to let it on. Never throws.
    std::optional<HttpResponse> Check(const HttpRequest& request);
    // Adds what every reply to this request carries: CORS headers for an allowed foreign origin, and
    // "Cache-Control: no-store" on API replies (`api`).
    void Decorate(const HttpRequest& request, HttpResponse& response, bool api) const;
    // One audit line for a state-changing request (POST, PUT, PATCH, DELETE); nothing for others.
    // `heldBack`: audit lines of refused requests not written since the last one (see LogBudget).
    void Audit(const HttpRequest& request, int status, bool authenticated, std::size_t heldBack = 0) const;
    bool TokenRequired() const { return !settings.token.empty(); }

    static bool ChangesState(const std::string& method);
    // The client's address without its port.
    static std::string PeerAddress(const HttpRequest& request);

  private:
    using Clock = std::chrono::steady_clock;
    struct Failures {
        Clock::time_point windowStart;
        unsigned count = 0;          // refusals within the window
        Clock::time_point lastLine;  // when a refusal was last logged
        unsigned unlogged = 0;       // refusals since that line
        bool everLogged = false;
    };

    std::optional<HttpResponse> Decide(const HttpRequest& request);
    bool HostAllowed(const std::string& host) const;
    bool OriginAllowed(const std::string& origin, const std::string& host) const;
    bool ListedOrigin(const std::string& origin) const;
    bool TokenMatches(const std::string* authorization) const;
    // Seconds the address must still wait, or 0.
    long SlowedFor(const std::string& peer) NY_EXCLUDES(failuresMutex);
    void RecordFailure(const std::string& peer) NY_EXCLUDES(failuresMutex);

    const Settings settings;
    const std::function<std::vector<BoundEndpoint>()> endpoints;

    // Lines that clients without the token can cause: audit lines of refused requests and refusal
    // summaries. A client rotating its address would otherwise get a line per address.
    LogBudget refusalLines{20};
    Ny::Mutex failuresMutex;  // guards failures; a leaf lock (nothing is called under it)
    std::unordered_map<std::string, Failures> failures NY_GUARDED_BY(failuresMutex);
};

}  // namespace NyHost
