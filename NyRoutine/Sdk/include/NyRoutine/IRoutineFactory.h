// `NyRoutine::IRoutineFactory`: makes the routine objects of one routine type.
//
// RoutineFactory<Routine> (NyRoutine/RoutineFactory.h) implements it for any routine class; write one
// only for something it cannot do. A factory given to RoutinePlugin::AddRoutineType or to
// AddRoutineInfo(info, factory) is owned by the record; a factory given by reference must be kept alive
// by the plug-in as long as the type is registered. Called on a REST request thread, possibly by two
// creations at once.
#pragma once

#include <memory>

#include "NyRoutine/IRoutine.h"

namespace NyRoutine {

class IRoutineFactory {
  public:
    virtual ~IRoutineFactory() = default;
    // A new routine object for one routine. Returning null refuses the creation.
    virtual std::shared_ptr<IRoutine> CreateRoutine() = 0;
};

}  // namespace NyRoutine
