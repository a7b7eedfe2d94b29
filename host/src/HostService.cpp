#include "HostService.h"

#include <chrono>
#include <thread>

#include <nlohmann/json.hpp>

#include "NyApi/Logging.h"

namespace NyHost {

namespace {

const char* EventWord(NyRest::EventType type) {
    switch (type) {
        case NyRest::EventType::Created:
            return "created";
        case NyRest::EventType::Updated:
            return "updated";
        case NyRest::EventType::Deleted:
            return "deleted";
    }
    return "updated";
}

// Takes time that depends only on the expected text's length, so a caller cannot find the token byte by byte.
bool ConstantTimeEquals(const std::string& given, const std::string& expected) {
    unsigned char difference = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < expected.size(); ++i) {
        const char byte = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(byte ^ expected[i]);
    }
    return difference == 0;
}

}  // namespace

HostService::HostService(HostOptions optionsIn, std::filesystem::path pluginDirIn,
                         std::filesystem::path webDir)
    : options(std::move(optionsIn)), pluginDir(std::move(pluginDirIn)), webFiles(webDir) {}

HostService::~HostService() {
    Shutdown();
}

void HostService::Start() {
    std::lock_guard guard(lifecycleMutex);
    for (const auto& refused : plugins.LoadDirectory(pluginDir)) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Plug-in refused: %s", refused.c_str());
    }
    module = std::make_unique<NyRoutine::RoutineModule>(router, plugins, &core);
    operatorResources = std::make_unique<OperatorResources>(router, core, plugins, options.fixedReplyBytes);

    HttpServerOptions serverOptions;
    serverOptions.address = options.address;
    serverOptions.port = options.port;
    serverOptions.workerThreads = options.workerThreads;
    serverOptions.maxEventClients = options.maxEventClients;
    server = std::make_unique<HttpServer>(
        serverOptions, [this](const HttpRequest& request) { return Handle(request); },
        [this](const HttpRequest& request) { return Filter(request); });
    // Notifications come from request, routine and timer threads; PublishEvent only queues.
    notificationHandle =
        router.NotificationEvent().Subscribe([this](NyRest::EventType type, std::string path) {
            // Written by hand so that "type" comes first, as clients read it.
            const std::string word = EventWord(type);
            server->PublishEvent(word,
                                 "{\"type\":\"" + word + "\",\"path\":" + nlohmann::json(path).dump() + "}");
        });
    server->Start();
}

std::uint16_t HostService::Port() const {
    return server->Port();
}

std::string HostService::Address() const {
    return server->Address();
}

void HostService::Rescan() {
    std::lock_guard guard(lifecycleMutex);
    if (shutDown || !module) {
        return;
    }
    for (const auto& refused : plugins.Rescan(pluginDir)) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Plug-in refused: %s", refused.c_str());
    }
}

std::optional<HttpResponse> HostService::Filter(const HttpRequest& request) const {
    // The console's own files hold no data: a browser must load them before it can ask for the token.
    const std::string path = request.target.substr(0, request.target.find('?'));
    const bool consoleFile = request.method == "GET" && StaticFiles::Handles(path);
    if (!options.token.empty() && !consoleFile) {
        const std::string* authorization = request.Header("Authorization");
        const std::string expected = "Bearer " + options.token;
        if (authorization == nullptr || !ConstantTimeEquals(*authorization, expected)) {
            HttpResponse refusal = JsonErrorReply(401, "A valid bearer token is required.");
            refusal.headers.emplace_back("WWW-Authenticate", "Bearer");
            return refusal;
        }
    }
    // Browsers send Origin on cross-origin requests; the console itself is same-origin.
    if (const std::string* origin = request.Header("Origin"); origin != nullptr) {
        const std::string* host = request.Header("Host");
        const bool sameOrigin =
            host != nullptr && (*origin == "http://" + *host || *origin == "https://" + *host);
        bool allowed = sameOrigin;
        for (const auto& allowedOrigin : options.allowOrigins) {
            allowed = allowed || *origin == allowedOrigin;
        }
        if (!allowed) {
            return JsonErrorReply(403, "Cross-origin requests are not allowed from " + *origin + ".");
        }
    }
    return std::nullopt;
}

HttpResponse HostService::Handle(const HttpRequest& request) {
    const std::string path = request.target.substr(0, request.target.find('?'));
    if (StaticFiles::Handles(path)) {
        return webFiles.Serve(request.method, path);
    }
    ++requestsInProgress;
    struct Done {
        std::atomic<int>& count;
        ~Done() { --count; }
    } done{requestsInProgress};
    if (stopping.load()) {
        return JsonErrorReply(503, "The service is shutting down.");
    }
    const NyRest::Response reply = router.DispatchRaw(request.method, request.target, request.body);
    HttpResponse response;
    response.status = reply.status;
    response.headers = reply.headers;
    response.headers.emplace_back("Content-Type", "application/json");
    if (reply.status != 204) {
        response.body = reply.body.dump();
    }
    return response;
}

void HostService::ReleaseRequestsInProgress() {
    // A creation may be waiting for a continue that will never come now: clearing every routine
    // releases it. A request that slipped in just before `stopping` was set may start another
    // creation, so repeat until no dispatch is left, within a bound.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    do {
        try {
            module->RoutineManager().ClearAllRoutines();
        } catch (const std::exception& e) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "Clearing routines at shut-down failed: %s", e.what());
        }
        if (requestsInProgress.load() == 0) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
}

void HostService::Shutdown() {
    std::lock_guard guard(lifecycleMutex);
    if (shutDown) {
        return;
    }
    shutDown = true;
    stopping = true;
    if (module) {
        ReleaseRequestsInProgress();
    }
    if (server) {
        server->Stop();
        router.NotificationEvent().Unsubscribe(notificationHandle);
    }
    operatorResources.reset();
    module.reset();
    server.reset();
}

}  // namespace NyHost
