// `RoutinesDir`: publishes the live routines on the REST router.
//
// Owns the `RoutinesRoot` and the two command resources and registers them at "/routines/:routine",
// "/routines/:routine/commands/continue" and "/routines/:routine/commands/abort"; the destructor
// withdraws all three at once and then destroys them. Built and destroyed on the host's thread by the
// module, after and before the manager respectively.
#pragma once

#include <memory>

#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"

namespace NyRoutine::Internal {

class RoutinesDir {
  public:
    RoutinesDir(NyRest::ResourceRouter& router, RoutineManager& manager);
    ~RoutinesDir();
    RoutinesDir(const RoutinesDir&) = delete;
    RoutinesDir& operator=(const RoutinesDir&) = delete;

  private:
    struct Resources;

    NyRest::ResourceRouter& router;
    std::unique_ptr<Resources> resources;
};

}  // namespace NyRoutine::Internal
