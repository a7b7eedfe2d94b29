// `NyRoutine::IRoutineFactory`: makes the routine objects of one routine type.
//
// Implemented by plug-ins, which own their factories and keep them alive as long as the type is
// registered (for example as an owned object of their RoutinePlugin). Called on a REST request thread.
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
