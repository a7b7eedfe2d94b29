// `HostService`: the reference host. Wires, in this order, the core, the REST router, the plug-in
// manager (every plug-in library of the folder, in name order), the routine module and the host's
// operator resources, and serves them over HTTP with live events and the web console.
//
// Lifetime: `Start` once, then `Rescan` any number of times, then `Shutdown` (also run by the
// destructor). Shut-down refuses new requests, releases creations that wait for a continue by
// clearing every routine, closes the event streams, waits for requests in progress, and takes the
// parts down in reverse order of construction. `Rescan` and `Shutdown` come from the signal thread.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "HostOptions.h"
#include "HttpServer.h"
#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"
#include "OperatorResources.h"
#include "StaticFiles.h"

namespace NyHost {

class HostService {
  public:
    HostService(HostOptions options, std::filesystem::path pluginDir, std::filesystem::path webDir);
    ~HostService();
    HostService(const HostService&) = delete;
    HostService& operator=(const HostService&) = delete;

    // Loads the plug-ins, builds the module and starts serving. Throws when the address cannot be bound.
    void Start();
    std::uint16_t Port() const;
    std::string Address() const;
    // Loads new plug-in files of the folder and unloads removed ones.
    void Rescan();
    void Shutdown();

  private:
    HttpResponse Handle(const HttpRequest& request);
    std::optional<HttpResponse> Filter(const HttpRequest& request) const;
    void ReleaseRequestsInProgress();

    HostOptions options;
    std::filesystem::path pluginDir;
    StaticFiles webFiles;

    NyCore::Core core;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    std::unique_ptr<NyRoutine::RoutineModule> module;
    std::unique_ptr<OperatorResources> operatorResources;
    std::unique_ptr<HttpServer> server;
    Ny::Event<NyRest::EventType, std::string>::Handle notificationHandle = 0;

    std::atomic<bool> stopping{false};       // set once by Shutdown; read by request threads
    std::atomic<int> requestsInProgress{0};  // router dispatches running now
    std::mutex lifecycleMutex;               // serializes Start, Rescan and Shutdown
    bool shutDown = false;                   // guarded by lifecycleMutex
};

}  // namespace NyHost
