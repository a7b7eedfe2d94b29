#include "RequestPolicy.h"

#include <algorithm>
#include <cctype>

#include "HostReplies.h"
#include "NyApi/Logging.h"
#include "StaticFiles.h"

namespace NyHost {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// True when `name` ends in ":<digits>" after any bracketed IPv6 literal.
bool HasPort(const std::string& name) {
    const size_t colon = name.rfind(':');
    const size_t bracket = name.rfind(']');
    if (colon == std::string::npos || (bracket != std::string::npos && colon < bracket) ||
        colon + 1 == name.size()) {
        return false;
    }
    if (bracket == std::string::npos && name.find(':') != colon) {
        return false;  // a bare IPv6 literal: its colons are not a port
    }
    return std::all_of(name.begin() + static_cast<long>(colon) + 1, name.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

// An address as it appears in a Host header: lower case, an IPv6 literal in brackets.
std::string HostForm(std::string address) {
    address = Lower(std::move(address));
    if (address.find(':') != std::string::npos && address.front() != '[') {
        address = "[" + address + "]";
    }
    return address;
}

RequestPolicy::Settings Normalized(RequestPolicy::Settings settings) {
    for (auto& host : settings.allowHosts) {
        host = Lower(host);
    }
    for (auto& origin : settings.allowOrigins) {
        origin = Lower(origin);
    }
    settings.address = HostForm(std::move(settings.address));
    return settings;
}

// Takes time that depends only on the expected text's length, so a caller cannot find the token byte by
// byte.
bool ConstantTimeEquals(std::string_view given, std::string_view expected) {
    unsigned char difference = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < expected.size(); ++i) {
        const char byte = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(byte ^ expected[i]);
    }
    return difference == 0;
}

HttpResponse TokenRefusal() {
    HttpResponse refusal = ErrorReply(401, "A valid bearer token is required.");
    refusal.headers.emplace_back("WWW-Authenticate", "Bearer");
    return refusal;
}

std::string RequestPath(const HttpRequest& request) {
    return request.target.substr(0, request.target.find('?'));
}

}  // namespace

RequestPolicy::RequestPolicy(Settings settingsIn, std::function<std::vector<BoundEndpoint>()> endpointsIn)
    : settings(Normalized(std::move(settingsIn))), endpoints(std::move(endpointsIn)) {}

bool RequestPolicy::ChangesState(const std::string& method) {
    return method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE";
}

std::string RequestPolicy::PeerAddress(const HttpRequest& request) {
    const size_t colon = request.remote.rfind(':');
    return colon == std::string::npos ? request.remote : request.remote.substr(0, colon);
}

std::optional<HttpResponse> RequestPolicy::Check(const HttpRequest& request) {
    // Runs on an I/O thread where nothing catches: whatever fails here becomes a reply.
    try {
        auto refusal = Decide(request);
        if (refusal) {
            Decorate(request, *refusal, true);
            if (const auto held = refusalLines.Take()) {
                Audit(request, refusal->status, false, *held);
            }
        }
        return refusal;
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Checking a request failed: %s", ForLog(e.what()).c_str());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Checking a request failed with an unknown error.");
    }
    return ErrorReply(500, "The request could not be checked.");
}

std::optional<HttpResponse> RequestPolicy::Decide(const HttpRequest& request) {
    const std::string* host = request.Header("Host");
    if (host == nullptr) {
        return ErrorReply(400, "A Host header is required.");
    }
    if (!HostAllowed(Lower(*host))) {
        // Not echoed: the reply is never built from what the client sent.
        return ErrorReply(421, "The Host header does not name this server.");
    }
    const std::string* origin = request.Header("Origin");
    if (origin != nullptr && !OriginAllowed(Lower(*origin), Lower(*host))) {
        return ErrorReply(403, "Cross-origin requests are not allowed from this origin.");
    }
    if (origin != nullptr && request.method == "OPTIONS" &&
        request.Header("Access-Control-Request-Method") != nullptr) {
        HttpResponse preflight;
        preflight.status = 204;
        preflight.headers.emplace_back("Access-Control-Allow-Methods", "GET, HEAD, POST, PUT, PATCH, DELETE");
        preflight.headers.emplace_back("Access-Control-Allow-Headers",
                                       "Authorization, Content-Type, Prefer, If-None-Match, Last-Event-ID");
        preflight.headers.emplace_back("Access-Control-Max-Age", std::to_string(kPreflightMaxAgeSeconds));
        return preflight;
    }
    const bool consoleFile =
        (request.method == "GET" || request.method == "HEAD") && StaticFiles::Handles(RequestPath(request));
    if (settings.token.empty() || consoleFile) {
        return std::nullopt;
    }
    const std::string* authorization = request.Header("Authorization");
    if (authorization == nullptr) {
        // Not a guess, and not counted as one: a page in the operator's browser can make it send such
        // requests at will (an image), from the operator's own address, and would lock the operator out.
        return TokenRefusal();
    }
    const std::string peer = PeerAddress(request);
    if (const long wait = SlowedFor(peer); wait > 0) {
        RecordFailure(peer);
        HttpResponse slowed =
            ErrorReply(429, "Too many refused attempts from this address; try again later.");
        slowed.headers.emplace_back("Retry-After", std::to_string(wait));
        return slowed;
    }
    if (!TokenMatches(authorization)) {
        RecordFailure(peer);
        return TokenRefusal();
    }
    return std::nullopt;
}

bool RequestPolicy::HostAllowed(const std::string& host) const {
    // A name given with its port stands for itself alone, whichever socket the request came in on.
    if (std::find(settings.allowHosts.begin(), settings.allowHosts.end(), host) !=
        settings.allowHosts.end()) {
        return true;
    }
    if (!HasPort(host)) {
        return false;
    }
    // Every name of ours goes with every port we listen on: a client may reach any of the sockets by any
    // of the names, and none of them is another server's.
    const size_t colon = host.rfind(':');
    const std::string_view name = std::string_view(host).substr(0, colon);
    const std::string_view portText = std::string_view(host).substr(colon + 1);
    const auto bound = endpoints();
    const bool ourPort = std::any_of(bound.begin(), bound.end(), [&](const BoundEndpoint& endpoint) {
        return portText == std::to_string(endpoint.port);
    });
    if (!ourPort) {
        return false;
    }
    for (const char* loopback : {"localhost", "127.0.0.1", "[::1]"}) {
        if (name == loopback) {
            return true;
        }
    }
    if (name == settings.address) {
        return true;
    }
    if (std::any_of(bound.begin(), bound.end(),
                    [&](const BoundEndpoint& endpoint) { return name == HostForm(endpoint.address); })) {
        return true;
    }
    // A name given without a port stands for itself on our ports and on the scheme's default port (the
    // form a client uses through a forwarding proxy).
    return std::any_of(settings.allowHosts.begin(), settings.allowHosts.end(),
                       [&](const std::string& allowed) { return !HasPort(allowed) && name == allowed; });
}

bool RequestPolicy::ListedOrigin(const std::string& origin) const {
    return std::find(settings.allowOrigins.begin(), settings.allowOrigins.end(), origin) !=
           settings.allowOrigins.end();
}

bool RequestPolicy::OriginAllowed(const std::string& origin, const std::string& host) const {
    // `host` has passed HostAllowed: an origin naming it is this server's own page.
    return origin == "http://" + host || origin == "https://" + host || ListedOrigin(origin);
}

bool RequestPolicy::TokenMatches(const std::string* authorization) const {
    constexpr std::string_view scheme = "bearer";
    if (authorization == nullptr || authorization->size() <= scheme.size() ||
        Lower(authorization->substr(0, scheme.size())) != scheme || (*authorization)[scheme.size()] != ' ') {
        return false;
    }
    std::string_view credentials = std::string_view(*authorization).substr(scheme.size());
    credentials.remove_prefix(std::min(credentials.find_first_not_of(' '), credentials.size()));
    return ConstantTimeEquals(credentials, settings.token);
}

long RequestPolicy::SlowedFor(const std::string& peer) {
    Ny::MutexLock lock(failuresMutex);
    const auto found = failures.find(peer);
    if (found == failures.end()) {
        return 0;
    }
    const auto now = Clock::now();
    const auto windowEnd = found->second.windowStart + kFailureWindow;
    if (now >= windowEnd || found->second.count < kFailuresBeforeSlowdown) {
        return 0;
    }
    return std::max<long>(1, std::chrono::ceil<std::chrono::seconds>(windowEnd - now).count());
}

void RequestPolicy::RecordFailure(const std::string& peer) {
    const auto now = Clock::now();
    unsigned toLog = 0;
    {
        Ny::MutexLock lock(failuresMutex);
        auto found = failures.find(peer);
        if (found == failures.end()) {
            if (failures.size() >= kMaxTrackedAddresses) {
                const auto oldest = std::min_element(
                    failures.begin(), failures.end(),
                    [](const auto& a, const auto& b) { return a.second.windowStart < b.second.windowStart; });
                failures.erase(oldest);
            }
            found = failures.emplace(peer, Failures{}).first;
            found->second.windowStart = now;
        }
        Failures& entry = found->second;
        if (now >= entry.windowStart + kFailureWindow) {
            entry.windowStart = now;
            entry.count = 0;
        }
        ++entry.count;
        ++entry.unlogged;
        if (!entry.everLogged || now >= entry.lastLine + kRefusalLogPeriod) {
            toLog = entry.unlogged;
            entry.unlogged = 0;
            entry.lastLine = now;
            entry.everLogged = true;
        }
    }
    if (toLog > 0 && refusalLines.Take()) {
        NY_LOG(Ny::Logging::Level::Notice,
               "Authentication refused for %1$s: %2$u attempt(s) since the last line.", ForLog(peer).c_str(),
               toLog);
    }
}

void RequestPolicy::Decorate(const HttpRequest& request, HttpResponse& response, bool api) const {
    if (const std::string* origin = request.Header("Origin"); origin != nullptr) {
        // The configured text, not the client's: no reply header is built from request bytes.
        const std::string lower = Lower(*origin);
        const auto listed = std::find(settings.allowOrigins.begin(), settings.allowOrigins.end(), lower);
        if (listed != settings.allowOrigins.end()) {
            response.headers.emplace_back("Access-Control-Allow-Origin", *listed);
            // A script reads only the reply headers it is allowed to: these carry the API's answers.
            response.headers.emplace_back("Access-Control-Expose-Headers",
                                          "ETag, Location, Preference-Applied, Retry-After");
        }
        // The reply depends on Origin whether it was allowed or not: caches must key on it.
        response.headers.emplace_back("Vary", "Origin");
    }
    if (api) {
        // Nothing a token protects is written to a cache's disk. Conditional reads stay open to clients
        // that keep the document and its ETag themselves (the console does).
        response.headers.emplace_back("Cache-Control", "no-store");
    }
}

void RequestPolicy::Audit(const HttpRequest& request, int status, bool authenticated,
                          std::size_t heldBack) const {
    if (!ChangesState(request.method)) {
        return;
    }
    const std::string held =
        heldBack == 0 ? std::string() : " (" + std::to_string(heldBack) + " refusals held back)";
    NY_LOG(Ny::Logging::Level::Notice, "audit: %1$s %2$s %3$s %4$s -> %5$d%6$s",
           ForLog(PeerAddress(request)).c_str(), authenticated ? "authenticated" : "unauthenticated",
           ForLog(request.method, 16).c_str(), ForLog(request.target).c_str(), status, held.c_str());
}

}  // namespace NyHost
