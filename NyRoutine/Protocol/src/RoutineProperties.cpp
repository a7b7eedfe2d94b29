#include "NyRoutine/Protocol/RoutineProperties.h"

#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/RoutineInfo.h"

namespace NyRoutine::Internal {

RoutineProperties::RoutineProperties() {
    AddParameter("id", id, "");
    AddParameter("state", state, "");
    AddParameter("stateDetails", stateDetails, "");
    AddParameter("type", type, "");
    AddParameter("displayName", displayName, "");
    AddParameter("description", description, "");
    AddParameter("helpHtml", helpHtml, "");
    AddParameter("helpUrl", helpUrl, "");
    AddParameter("totalSteps", totalSteps, "");
    AddParameter("currentStep", currentStep, "");
    AddParameter("currentStepInfo", currentStepInfo, "");
    AddParameter("currentProgress", currentProgress, "");

    // Clients change a routine only through its parameters and commands: every field is read-only.
    id.ReadOnly(true);
    state.ReadOnly(true);
    stateDetails.ReadOnly(true);
    type.ReadOnly(true);
    displayName.ReadOnly(true);
    description.ReadOnly(true);
    helpHtml.ReadOnly(true);
    helpUrl.ReadOnly(true);
    totalSteps.ReadOnly(true);
    currentStep.ReadOnly(true);
    currentStepInfo.ReadOnly(true);
    currentProgress.ReadOnly(true);

    using NyCommon::RoutineState;
    state.AddOption(RoutineState::Ready, "Ready to start");
    state.AddOption(RoutineState::Running, "Running");
    state.AddOption(RoutineState::WaitingForFeedback, "Waiting for user feedback");
    state.AddOption(RoutineState::Completed, "Stopped due to completion");
    state.AddOption(RoutineState::Aborted, "Stopped due to abort");
    state.AddOption(RoutineState::Failed, "Stopped due to failure");
}

RoutineProperties::~RoutineProperties() = default;

void RoutineProperties::Fill(const std::string& routineId, const RoutineInstance& instance) {
    // Each accessor is read once, in field order; the fields are each as of their own read.
    const RoutineInfo& info = *instance.TypeInfo();
    id = routineId;
    state = instance.State();
    stateDetails = instance.StateDetails();
    type = std::string(info.TypeName());
    displayName = std::string(info.DisplayName());
    description = std::string(info.Description());
    helpHtml = instance.HelpHtml();
    helpUrl = instance.HelpUrl();
    totalSteps = instance.TotalSteps();
    currentStep = instance.CurrentStep();
    currentStepInfo = instance.CurrentStepInfo();
    currentProgress = instance.CurrentProgress();
}

}  // namespace NyRoutine::Internal
