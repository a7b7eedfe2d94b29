// `HostService`: the reference host. Wires, in this order, the core, the REST router, the plug-in
// manager (every plug-in library of the folder, in name order), the routine module and the host's
// operator resources, and serves them over HTTP with live events and the web console. It counts what
// happens into its `Metrics` (routines through a `RoutineTally`, refused creations where it answers them,
// plug-in scans) and serves them at "/metrics", text rather than JSON, so beside the router.
//
// Every request passes the host's `RequestPolicy` (Host, Origin, token) on the transport's I/O thread
// before it reaches the router; every reply is written so that no byte a client sent can make writing
// it fail. Where a request runs:
// - Reads of the API (GET, and HEAD as its GET) cannot wait: they run on the I/O thread that read them,
//   with no hand-off. They run no plug-in code; they copy what the engine holds and at most wait for a
//   routine's lock while routine code holds it briefly (a parameter change callback, handing over
//   results), as the plug-in interface asks of it.
// - Requests that may wait for a person or for routine code (creations, deletions, a factory restore)
//   run on the transport's waiting lane, so that they never hold a worker that the request releasing
//   them needs.
// - Everything else (writes, commands, the console's files, read from disk) runs on a worker. An abort
//   runs the routine's completion callback, plug-in code that may take its time, on its thread; it stays
//   on a worker all the same: the routine limit leaves one routine to complete, so it holds one worker of
//   many, and a pool held that way is what the health probe is there to report.
//
// "/health" is answered by the transport before the policy (no token, no Host check): it tells only
// whether the network thread and the workers answer, which any client could learn by trying a request.
//
// Lifetime: `Start` once, then `Rescan` any number of times, then `Shutdown` (also run by the
// destructor). Shut-down answers new requests 503, releases creations that wait for a continue by
// clearing every routine, and then relies on the server's drain: every request it received gets a
// whole reply before the connections close. The parts go down in reverse order of construction.
// `Rescan` and `Shutdown` come from the signal thread.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ApiDescription.h"
#include "AsyncCreations.h"
#include "HostOptions.h"
#include "HttpServer.h"
#include "Metrics.h"
#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"
#include "OperatorResources.h"
#include "RequestPolicy.h"
#include "StaticFiles.h"

namespace NyHost {

// What a service manager hands the host (see ServiceManager): listening sockets to serve instead of
// binding the listen address, and a watchdog to ping while the network thread and the workers answer.
struct ServiceBinding {
    std::vector<int> listenFds;  // owned by the service from Start() on, closed even when it throws
    std::chrono::milliseconds watchdogInterval{0};
    std::function<void()> watchdogPing;  // on the transport's I/O thread; quick
};

class HostService {
  public:
    HostService(HostOptions options, std::filesystem::path pluginDir, std::filesystem::path webDir);
    ~HostService();
    HostService(const HostService&) = delete;
    HostService& operator=(const HostService&) = delete;

    // Loads the plug-ins, builds the module and starts serving, on the address of the options or on the
    // sockets handed over. Throws Ny::Exception when the address cannot be bound, or when a socket handed
    // over listens on an address other than loopback without TLS and a token (unless the options allow
    // it), as the options' check refuses such an address given on the command line.
    void Start(ServiceBinding binding = {}) NY_EXCLUDES(lifecycleMutex);
    std::uint16_t Port() const;
    std::string Address() const;
    // Loads new plug-in files of the folder, reloads changed ones and unloads removed ones (see
    // NyPlugin::PluginManager::Rescan). Logs what it did as one line, each refusal with its cause, and a
    // warning when no plug-in of the folder is loaded, as Start does.
    void Rescan() NY_EXCLUDES(lifecycleMutex);
    void Shutdown() NY_EXCLUDES(lifecycleMutex);

  private:
    static constexpr std::size_t kMaxWaitingRequests = 32;
    // How long a read on an I/O thread may wait for a lock before it moves to a worker: longer than the
    // engine's own brief holds, far shorter than anything a client would notice.
    static constexpr std::uint64_t kIoThreadWaitLimitUs = 2000;
    // Creations that answered 202 and wait on for their continue. The routine limit keeps the ones that
    // really wait to one; the others are refusals that end at once.
    static constexpr std::size_t kMaxAsyncCreations = 8;

    // Runs on an I/O, worker or waiting thread; never throws.
    HttpResponse Handle(const HttpRequest& request);
    HttpResponse Serve(const HttpRequest& request);
    // A creation that asked not to be held: 202 as soon as the routine exists (see AsyncCreations).
    HttpResponse ServeAsyncCreation(const HttpRequest& request, const NyRest::DispatchOptions& options);
    // True for requests that may block for a person or for routine code; see the class comment.
    static bool MayWait(const HttpRequest& request);
    // True for the reads that run on the I/O thread; see the class comment.
    static bool RunsInline(const HttpRequest& request);
    // "POST /routines", however the path is spelled.
    static bool IsCreation(std::string_view method, const std::string& target);
    void ReleaseRequestsInProgress() NY_REQUIRES(lifecycleMutex);
    // `what` leads the summary line: "Plug-ins loaded from" at start, "Plug-in rescan of" on SIGHUP.
    void LogPluginScan(const char* what, const NyPlugin::RescanSummary& summary) const;
    // "/metrics": GET and HEAD only.
    HttpResponse ServeMetrics(const HttpRequest& request);
    // Counts the refusal a failed creation's reply stands for (see Metrics::CreationRefusal).
    void CountCreationReply(const NyRest::Response& reply, bool created);

    HostOptions options;
    std::filesystem::path pluginDir;
    Metrics metrics;  // counted into by the tally and the transport, so it outlives both
    StaticFiles webFiles;

    NyCore::Core core;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    std::unique_ptr<NyRoutine::RoutineModule> module;
    std::unique_ptr<RoutineTally> routineTally;  // follows the module's routines; reset before it
    std::unique_ptr<OperatorResources> operatorResources;
    std::unique_ptr<ApiDescription> apiDescription;
    std::unique_ptr<RequestPolicy> policy;
    std::unique_ptr<HttpServer> server;
    AsyncCreations asyncCreations{kMaxAsyncCreations};  // joined before the module goes
    Ny::Subscription notifications;  // router notifications to event clients; reset before the server goes

    std::atomic<bool> stopping{false};       // set once by Shutdown; read by request threads
    std::atomic<int> requestsInProgress{0};  // router dispatches running now, async creations included
    // Serializes Start, Rescan and Shutdown; taken by nothing else, so it has no order with other locks.
    Ny::Mutex lifecycleMutex;
    bool shutDown NY_GUARDED_BY(lifecycleMutex) = false;
};

}  // namespace NyHost
