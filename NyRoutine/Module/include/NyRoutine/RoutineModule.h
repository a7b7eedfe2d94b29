// `NyRoutine::RoutineModule`: the routine engine's top object, the host's entry point into it.
//
// The host constructs one module with its REST router, its plug-in manager and its core (which may be
// null). The module builds the routine registry, the routine manager (limit: one routine), the
// "/routines" and "/routineTypes" REST fronts, takes in the routine types of the plug-in libraries
// already loaded and follows later loads and unloads. Destruction takes everything down in reverse.
//
// Threading: construction and destruction on the host's thread. Plug-in load events may arrive on any
// thread.
//
// Teardown: a host need not do anything before destroying the module; in particular it need not clear
// the routines, nor release requests blocked in a creation. The destructor first stops following
// plug-in loads, then closes the manager (refuses new creations, lets every creation that waits for its
// first continue go, fails one whose factory is still running as soon as that returns), then withdraws
// the routes (waiting for the requests still in progress, which no longer wait for a continue), then
// destroys the manager and its routines (each aborted if still active). It returns once every routine's
// code has noticed `IsAborted()` and returned. What the host must do is only what any owner must: keep
// the router, the plug-in manager and the core alive until the module is gone, and not call the module
// from its own event handlers while destroying it.
#pragma once

#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Engine/RoutineRegistry.h"
#include "NyRoutine/Protocol/RoutineTypes.h"
#include "NyRoutine/Protocol/RoutinesDir.h"

namespace NyRoutine {

class RoutineModule {
  public:
    // Builds everything and takes in the plug-ins already loaded. Throws what a part's construction
    // throws; the parts already built are destroyed again.
    RoutineModule(NyRest::ResourceRouter& router, NyPlugin::PluginManager& plugins, NyCore::Core* core);
    ~RoutineModule();
    RoutineModule(const RoutineModule&) = delete;
    RoutineModule& operator=(const RoutineModule&) = delete;

    // The module's routine manager, for the host (for example to clear all routines at shut-down).
    Internal::RoutineManager& RoutineManager() { return manager; }

  private:
    void AttachPlugins();
    void DetachPlugins();
    void ProcessPluginLoad(const NyPlugin::PluginLib& lib, NyPlugin::PluginEvent event);

    NyPlugin::PluginManager& plugins;
    Internal::RoutineRegistry registry;
    Internal::RoutineManager manager;
    Internal::RoutinesDir routinesFront;
    Internal::RoutineTypes routineTypesFront;
    Ny::Subscription loadSubscription;
};

}  // namespace NyRoutine
