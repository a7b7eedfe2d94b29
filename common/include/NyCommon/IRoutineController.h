// `NyCommon::IRoutineController`: the routine manager as the REST layer sees it.
//
// Creates routines of a registered type, lists, finds and removes them, and announces creation and
// deletion. Implemented by the engine's `RoutineManager`. Thread-safe; events are raised on the
// calling thread with no lock of the manager held.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "NyApi/Event.h"

namespace Ny::Params {
class Group;
}
namespace NyRoutine::Internal {
class RoutineInstance;
}

namespace NyCommon {

class IRoutineController {
  public:
    virtual ~IRoutineController() = default;

    // Creates and starts a routine of `typeName`; returns its id. Waits inside the start for the
    // first continue unless the type skips start parameters. Throws -999 (unknown type), -1000
    // (system running, limit reached), -992 (type without factory).
    virtual std::string Create(const std::string& typeName, std::shared_ptr<Ny::Params::Group> params) = 0;
    // Destroys the routine (ending it first if it is still active). Throws -999 for an unknown id.
    virtual void Remove(const std::string& id) = 0;
    // All ids in ascending byte-wise order.
    virtual std::vector<std::string> ListIds() const = 0;
    // Throws -999 "Routine %s not found!" for an unknown id.
    virtual NyRoutine::Internal::RoutineInstance& GetInstance(const std::string& id) = 0;
    virtual Ny::Event<std::string>& CreatedEvent() = 0;
    // Raised with the id of each removed routine, or once with "*" when all were dropped together.
    virtual Ny::Event<std::string>& DeletedEvent() = 0;
    // Aborts every routine, then drops them all.
    virtual void ClearAllRoutines() = 0;
    // A new creation parameter group of the type, or empty. Throws -999 for an unknown type.
    virtual std::unique_ptr<Ny::Params::Group> GetCreateParams(const std::string& typeName) = 0;
    // Like GetInstance, but keeps the routine alive while the result is held, also when another
    // request removes it meanwhile. Request handlers use this.
    virtual std::shared_ptr<NyRoutine::Internal::RoutineInstance> AcquireInstance(const std::string& id) = 0;
};

}  // namespace NyCommon
