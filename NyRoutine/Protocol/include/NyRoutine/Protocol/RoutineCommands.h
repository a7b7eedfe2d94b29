// The command resources of one routine: "/routines/:routine/commands/continue" and ".../abort".
//
// Owned by `RoutinesDir`. `Call` runs on a REST request thread, ignores its arguments and replies with
// a null JSON value; what a continue or abort does in the routine's current state is the instance's
// business (no state check here).
#pragma once

#include <memory>

#include <nlohmann/json.hpp>

#include "NyCommon/IRoutineController.h"
#include "NyRest/CommandResourceBase.h"

namespace NyRoutine::Internal {

class RoutineInstance;

class RoutineCommandBase : public NyRest::CommandResourceBase {
  public:
    explicit RoutineCommandBase(NyCommon::IRoutineController& manager);

  protected:
    // The routine that the path parameter "routine" names, kept alive while the caller holds it (a
    // delete may run beside the command). Throws -999 without the parameter or for an unknown id.
    std::shared_ptr<RoutineInstance> GetInstance(const NyRest::RequestInfo& request);

  private:
    NyCommon::IRoutineController& manager;
};

class ContinueCmd : public RoutineCommandBase {
  public:
    using RoutineCommandBase::RoutineCommandBase;
    nlohmann::json Call(const NyRest::RequestInfo& request, const nlohmann::json& arguments) override;
};

class AbortCmd : public RoutineCommandBase {
  public:
    using RoutineCommandBase::RoutineCommandBase;
    nlohmann::json Call(const NyRest::RequestInfo& request, const nlohmann::json& arguments) override;
};

}  // namespace NyRoutine::Internal
