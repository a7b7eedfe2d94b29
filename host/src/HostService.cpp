#include "HostService.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>

#include <nlohmann/json.hpp>

#include "HostReplies.h"
#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyApi/Status.h"
#include "NyRuntime/Runtime.h"

namespace NyHost {

namespace {

std::string RequestPath(const HttpRequest& request) {
    return request.target.substr(0, request.target.find('?'));
}

HttpResponse FromRouter(const NyRest::Response& reply) {
    HttpResponse response;
    response.status = reply.status;
    response.headers = reply.headers;
    response.headers.emplace_back("Content-Type", "application/json");
    if (reply.status != 204) {
        // The body may quote the client's path or body, which need not be UTF-8.
        response.body = SafeDump(reply.body);
    }
    return response;
}

// The address a socket handed over is bound to, as text ("0.0.0.0", "::1"); empty when it has none.
std::string BoundAddress(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return {};
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
    } else if (address.ss_family == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text, sizeof text);
    }
    return text;
}

// A socket handed over is held to the same rule as --listen: reachable from other machines only with TLS
// and a token. Its real address counts, not the options', so that a socket unit listening on every
// address cannot bypass the rule. Throws Ny::Exception InvalidValue (a setting to correct) naming what
// is missing.
void CheckHandedOverExposure(const HostOptions& options, const std::vector<int>& fds) {
    const bool tls = !options.tlsCertFile.empty();
    const bool token = !options.token.empty();
    if (options.insecureRemote || (tls && token)) {
        return;
    }
    for (const int fd : fds) {
        const std::string address = BoundAddress(fd);
        if (!IsLoopback(address)) {
            throw NY_EXCEPTION(
                Ny::Status::InvalidValue,
                "The socket handed over on %1$s needs TLS (--tls-cert and --tls-key) and a token "
                "(--token-file or NYR_TOKEN); missing: %2$s (--insecure-remote serves without "
                "them).",
                address.empty() ? "an unknown address" : address.c_str(),
                !tls && !token ? "TLS and token"
                : tls          ? "token"
                               : "TLS");
        }
    }
}

struct CountedDispatch {
    explicit CountedDispatch(std::atomic<int>& countIn) : count(countIn) { ++count; }
    ~CountedDispatch() { --count; }
    CountedDispatch(const CountedDispatch&) = delete;
    CountedDispatch& operator=(const CountedDispatch&) = delete;
    std::atomic<int>& count;
};

}  // namespace

HostService::HostService(HostOptions optionsIn, std::filesystem::path pluginDirIn,
                         std::filesystem::path webDir)
    : options(std::move(optionsIn)), pluginDir(std::move(pluginDirIn)), webFiles(webDir) {}

HostService::~HostService() {
    Shutdown();
}

void HostService::Start(ServiceBinding binding) {
    Ny::MutexLock lock(lifecycleMutex);
    if (!binding.listenFds.empty()) {
        try {
            CheckHandedOverExposure(options, binding.listenFds);
        } catch (...) {
            for (const int fd : binding.listenFds) {
                ::close(fd);
            }
            throw;
        }
        // The Host header names the address really listened on.
        options.address = BoundAddress(binding.listenFds.front());
    }
    // Nothing is loaded yet, so a rescan loads the folder; it also says what it did.
    const NyPlugin::RescanSummary loaded = plugins.Rescan(pluginDir);
    metrics.CountPluginRefusals(loaded.refused.size());
    LogPluginScan("Plug-ins loaded from", loaded);
    module = std::make_unique<NyRoutine::RoutineModule>(router, plugins, &core);
    routineTally = std::make_unique<RoutineTally>(metrics, module->RoutineManager());
    operatorResources =
        std::make_unique<OperatorResources>(router, core, plugins, options.fixedReplyBytes,
                                            static_cast<unsigned>(module->RoutineManager().Limit()));
    apiDescription = std::make_unique<ApiDescription>(router);

    HttpServerOptions serverOptions;
    serverOptions.address = options.address;
    serverOptions.port = options.port;
    serverOptions.workerThreads = options.workerThreads;
    serverOptions.maxEventClients = options.maxEventClients;
    serverOptions.maxConnections = options.maxConnections;
    serverOptions.tlsCertFile = options.tlsCertFile;
    serverOptions.tlsKeyFile = options.tlsKeyFile;
    serverOptions.mayWait = [](const HttpRequest& request) { return MayWait(request); };
    serverOptions.runsInline = [](const HttpRequest& request) { return RunsInline(request); };
    // One routine at a time may wait for its continue, but deletions and factory restores of several
    // clients can overlap for a moment: room for a few dozen, each a thread, before 503.
    serverOptions.maxWaitingRequests = kMaxWaitingRequests;
    serverOptions.listenFds = std::move(binding.listenFds);  // the server owns them from here on
    serverOptions.watchdogInterval = binding.watchdogInterval;
    serverOptions.watchdogPing = std::move(binding.watchdogPing);
    // On an I/O thread for every reply: lock-free counting only. The metrics outlive the server.
    serverOptions.onRequestDone = [this](const RequestOutcome& outcome) {
        metrics.CountRequest(outcome.method, outcome.status, outcome.duration);
        // A creation the transport turned away before the handler saw it (every waiting thread taken,
        // the worker queue full, or the server stopping) is refused as surely as one the engine refuses.
        // The filter's refusals (token, Host, Origin) are no creation asked for and stay uncounted.
        if (!outcome.handled && outcome.status == 503 &&
            IsCreation(outcome.method, std::string(outcome.target))) {
            metrics.CountRefusal(stopping.load() ? RefusalCause::ShuttingDown : RefusalCause::Busy);
        }
    };
    // The transport answers "/health" (its default) itself, before the policy: see the class comment.
    // The policy asks the server for every socket it listens on (a service manager may hand over
    // several); the server is set before it can take a request.
    policy = std::make_unique<RequestPolicy>(
        RequestPolicy::Settings{options.address, options.allowHosts, options.allowOrigins, options.token},
        [this] { return server->Endpoints(); });
    server = std::make_unique<HttpServer>(
        serverOptions, [this](const HttpRequest& request) { return Handle(request); },
        [this](const HttpRequest& request) { return policy->Check(request); });
    // Notifications come from request, routine and timer threads; PublishEvent only queues.
    notifications =
        router.NotificationEvent().SubscribeScoped([this](NyRest::EventType type, std::string path) {
            // Written by hand so that "type" comes first, as clients read it. A path is the client's text.
            const std::string word = NyRest::EventTypeName(type);
            server->PublishEvent(word, "{\"type\":\"" + word + "\",\"path\":" + SafeDump(path) + "}");
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
    Ny::MutexLock lock(lifecycleMutex);
    if (shutDown || !module) {
        return;
    }
    const NyPlugin::RescanSummary rescanned = plugins.Rescan(pluginDir);
    metrics.CountPluginRefusals(rescanned.refused.size());
    LogPluginScan("Plug-in rescan of", rescanned);
}

void HostService::LogPluginScan(const char* what, const NyPlugin::RescanSummary& summary) const {
    for (const auto& refusal : summary.refused) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Plug-in refused: %s", refusal.cause.c_str());
    }
    // Notice, not progress: an operator who sends SIGHUP reads what it did at the default log level.
    NY_LOG(Ny::Logging::Level::Notice, "%1$s %2$s: %3$s.", what, pluginDir.string().c_str(),
           summary.Text().c_str());
    // A host without plug-ins serves no routine type; most likely --plugins names the wrong folder.
    if (summary.libraries > 0) {
        return;
    }
    if (summary.files == 0 && summary.refused.empty()) {
        NY_LOG(Ny::Logging::Level::Notice, "Warning: plug-in folder %s holds no plug-in (no \"*.so\" file).",
               pluginDir.string().c_str());
    } else if (summary.files > 0) {
        NY_LOG(Ny::Logging::Level::Notice,
               "Warning: no plug-in of folder %1$s is loaded (%2$zu \"*.so\" file%3$s, every one refused).",
               pluginDir.string().c_str(), summary.files, summary.files == 1 ? "" : "s");
    }
}

bool HostService::MayWait(const HttpRequest& request) {
    // A creation waits for its continue, a deletion for the routine's code to stop, a factory restore
    // clears every routine (and so waits for each).
    // Classified by the segments the router matches, so that no spelling of these paths reaches them on
    // a worker.
    using Segments = std::vector<std::string>;
    const Segments segments = NyRest::ResourceRouter::PathSegments(request.target);
    return (request.method == "POST" && segments == Segments{"routines"}) ||
           (request.method == "DELETE" && !segments.empty() && segments.front() == "routines") ||
           (request.method == "POST" && segments == Segments{"system", "commands", "factoryRestore"});
}

bool HostService::RunsInline(const HttpRequest& request) {
    // HEAD reaches here as the GET it asks about. Anything but a read may write a routine, whose change
    // callbacks are plug-in code.
    return request.method == "GET" && !StaticFiles::Handles(RequestPath(request));
}

bool HostService::IsCreation(std::string_view method, const std::string& target) {
    return method == "POST" &&
           NyRest::ResourceRouter::PathSegments(target) == std::vector<std::string>{"routines"};
}

HttpResponse HostService::Handle(const HttpRequest& request) {
    // On an I/O thread a read must not wait for what routine code holds (a routine's lock during its
    // change callback): every client of that thread would wait with it. Its waits give up after a
    // moment, and the transport runs the request again on a worker, where it may wait.
    std::optional<NyRt::BoundedWaits> bounded;
    if (request.onIoThread) {
        bounded.emplace(kIoThreadWaitLimitUs);
    }
    HttpResponse response;
    try {
        response = Serve(request);
    } catch (const std::exception& e) {
        if (!bounded || !bounded->GaveUp()) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "%1$s %2$s failed: %3$s",
                   ForLog(request.method, 16).c_str(), ForLog(request.target).c_str(),
                   ForLog(e.what()).c_str());
        }
        response = ErrorReply(500, "The request failed.");
    } catch (...) {
        response = ErrorReply(500, "The request failed with an unknown error.");
    }
    if (bounded && bounded->GaveUp()) {
        HttpResponse retry;
        retry.retryOnWorker = true;
        return retry;
    }
    try {
        const bool api = !StaticFiles::Handles(RequestPath(request));
        policy->Decorate(request, response, api);
        policy->Audit(request, response.status, policy->TokenRequired());
    } catch (...) {
        // Only an allocation can fail here; the reply stands without its extras.
    }
    return response;
}

HttpResponse HostService::Serve(const HttpRequest& request) {
    const std::string path = RequestPath(request);
    if (StaticFiles::Handles(path)) {
        return webFiles.Serve(request.method, path);
    }
    if (path == "/metrics") {
        return ServeMetrics(request);
    }
    const CountedDispatch counted(requestsInProgress);
    const bool creation = IsCreation(request.method, request.target);
    if (stopping.load()) {
        if (creation) {
            metrics.CountRefusal(RefusalCause::ShuttingDown);
        }
        return ErrorReply(503, "The service is shutting down.");
    }
    if (!IsValidUtf8(request.body)) {
        if (creation) {
            metrics.CountRefusal(RefusalCause::InvalidRequest);
        }
        return ErrorReply(400, "The request body is not valid UTF-8.", Ny::Status::InvalidValue);
    }
    NyRest::DispatchOptions options;
    options.prefer = request.HeaderList("Prefer");  // a client may split its preferences
    if (creation &&
        NyRest::RequestInfo("POST", "/routines", {}, {}, options.prefer).Prefers("respond-async")) {
        return ServeAsyncCreation(request, options);
    }
    if (!creation) {
        return FromRouter(router.DispatchRaw(request.method, request.target, request.body, options));
    }
    // Whether a routine was announced tells a refusal from a routine that went before its first continue.
    bool created = false;
    options.onCreated = [&created](const NyRest::CreateResult&) { created = true; };
    const NyRest::Response reply = router.DispatchRaw(request.method, request.target, request.body, options);
    CountCreationReply(reply, created);
    return FromRouter(reply);
}

HttpResponse HostService::ServeMetrics(const HttpRequest& request) {
    if (request.method != "GET" && request.method != "HEAD") {
        HttpResponse refused = ErrorReply(405, "Only GET and HEAD are allowed here.");
        refused.headers.emplace_back("Allow", "GET, HEAD");
        return refused;
    }
    Metrics::Sampled sampled;
    sampled.eventClients = server->EventClientCount();
    sampled.eventClientsDropped = server->EventClientsDropped();
    sampled.pluginLibraries = plugins.Count();
    HttpResponse response;
    response.headers.emplace_back("Content-Type", std::string(Metrics::kContentType));
    response.body = metrics.Render(sampled);
    return response;
}

void HostService::CountCreationReply(const NyRest::Response& reply, bool created) {
    const int engineStatus =
        reply.body.is_object() && reply.body.contains("status") && reply.body["status"].is_number_integer()
            ? reply.body["status"].get<int>()
            : Ny::Status::Wrapped;
    const bool systemRunning = core.GetRunState() == NyCore::Core::Running;
    if (const auto cause = Metrics::CreationRefusal(reply.status, engineStatus, created, systemRunning)) {
        metrics.CountRefusal(*cause);
    }
}

HttpResponse HostService::ServeAsyncCreation(const HttpRequest& request,
                                             const NyRest::DispatchOptions& options) {
    // The creation thread counts as a dispatch in progress, so that shut-down keeps clearing routines
    // until it has returned; it starts counting before this request stops counting.
    auto outcome = asyncCreations.Run([this, request, options](const AsyncCreations::CreatedFx& onCreated) {
        const CountedDispatch counted(requestsInProgress);
        NyRest::DispatchOptions withHook = options;
        withHook.onCreated = onCreated;
        return router.DispatchRaw(request.method, request.target, request.body, withHook);
    });
    if (!outcome) {
        metrics.CountRefusal(RefusalCause::Busy);
        HttpResponse busy = ErrorReply(503, "Too many creations are in progress.");
        busy.headers.emplace_back("Retry-After", "1");
        return busy;
    }
    if (!outcome->created) {
        CountCreationReply(outcome->finished, false);
        return FromRouter(outcome->finished);
    }
    NyRest::Response accepted;
    accepted.status = 202;
    accepted.headers.emplace_back("Location", outcome->created->path);
    accepted.headers.emplace_back("Preference-Applied", "respond-async");
    accepted.body = {{"id", outcome->created->id}, {"path", outcome->created->path}};
    return FromRouter(accepted);
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
    Ny::MutexLock lock(lifecycleMutex);
    if (shutDown) {
        return;
    }
    shutDown = true;
    stopping = true;
    if (module) {
        ReleaseRequestsInProgress();
    }
    if (server) {
        // Drains: every request received gets its reply (503 from here on) before the connections close.
        server->Stop();
    }
    // Every creation thread was released by the clearing above; none can start now (`stopping`).
    asyncCreations.JoinAll();
    notifications.Reset();
    apiDescription.reset();
    operatorResources.reset();
    routineTally.reset();
    module.reset();
    server.reset();
}

}  // namespace NyHost
