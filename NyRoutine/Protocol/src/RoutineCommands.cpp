#include "NyRoutine/Protocol/RoutineCommands.h"

#include "NyApi/Exception.h"
#include "NyRoutine/Engine/RoutineInstance.h"

namespace NyRoutine::Internal {

RoutineCommandBase::RoutineCommandBase(NyCommon::IRoutineController& managerIn) : manager(managerIn) {}

std::shared_ptr<RoutineInstance> RoutineCommandBase::GetInstance(const NyRest::RequestInfo& request) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    return manager.AcquireInstance(*id);
}

nlohmann::json ContinueCmd::Call(const NyRest::RequestInfo& request, const nlohmann::json&) {
    GetInstance(request)->Continue();
    return nlohmann::json();
}

nlohmann::json AbortCmd::Call(const NyRest::RequestInfo& request, const nlohmann::json&) {
    GetInstance(request)->Abort();
    return nlohmann::json();
}

}  // namespace NyRoutine::Internal
