// `NyRoutine::RoutineModule`: the routine engine's top object, the host's entry point into it.
//
// The host constructs one module with its REST router, its plug-in manager and its core (which may be
// null). The module builds the routine registry, the routine manager (limit: one routine), the
// "/routines" and "/routineTypes" REST fronts, takes in the routine types of the plug-in libraries
// already loaded and follows later loads and unloads. Destruction takes everything down in reverse.
//
// Threading: construction and destruction on the host's thread. Plug-in load events may arrive on any
// thread. Before destroying the module the host stops serving requests and releases requests blocked
// in a creation (ClearAllRoutines through the manager, or a factory restore): the REST fronts wait for
// requests in progress when they withdraw their paths.
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
    Ny::Event<const NyPlugin::PluginLib&, NyPlugin::PluginEvent>::Handle loadSubscription = 0;
    bool loadSubscribed = false;
};

}  // namespace NyRoutine
