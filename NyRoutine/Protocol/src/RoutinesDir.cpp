#include "NyRoutine/Protocol/RoutinesDir.h"

#include "NyRoutine/Protocol/RoutineCommands.h"
#include "NyRoutine/Protocol/RoutinesRoot.h"

namespace NyRoutine::Internal {

// Created together, destroyed together in reverse order: abort, continue, then the root.
struct RoutinesDir::Resources {
    explicit Resources(NyCommon::IRoutineController& manager)
        : root(manager), continueCmd(manager), abortCmd(manager) {}
    RoutinesRoot root;
    ContinueCmd continueCmd;
    AbortCmd abortCmd;
};

RoutinesDir::RoutinesDir(NyRest::ResourceRouter& routerIn, RoutineManager& manager)
    : router(routerIn), resources(std::make_unique<Resources>(manager)) {
    router.Register("/routines/:routine", resources->root);
    try {
        router.Register("/routines/:routine/commands/continue", resources->continueCmd);
        router.Register("/routines/:routine/commands/abort", resources->abortCmd);
    } catch (...) {
        // Never leave a route to resources that die with this failed construction.
        router.Deregister("/routines/:routine", true);
        throw;
    }
}

RoutinesDir::~RoutinesDir() {
    // Withdrawing the routine path withdraws the two command paths beneath it.
    router.Deregister("/routines/:routine", true);
}

}  // namespace NyRoutine::Internal
