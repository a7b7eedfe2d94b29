#include "NyRoutine/Protocol/RoutineProperties.h"

#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyValues/Properties/SchemaKey.h"

namespace NyRoutine::Internal {

namespace {

using Ny::Properties::Internal::Key;

// Fields are titled by their keys (an empty title). Keys and title are strings made once, not per read.
const std::string& NoTitle() {
    static const std::string none;
    return none;
}

// The document's fields below, registered in one allocation: a document is built on every read.
constexpr size_t FieldCount = 12;

}  // namespace

RoutineProperties::RoutineProperties() {
    Reserve(FieldCount);
    AddParameter(Key<"id">(), id, NoTitle());
    AddParameter(Key<"state">(), state, NoTitle());
    AddParameter(Key<"stateDetails">(), stateDetails, NoTitle());
    AddParameter(Key<"type">(), type, NoTitle());
    AddParameter(Key<"displayName">(), displayName, NoTitle());
    AddParameter(Key<"description">(), description, NoTitle());
    AddParameter(Key<"helpHtml">(), helpHtml, NoTitle());
    AddParameter(Key<"helpUrl">(), helpUrl, NoTitle());
    AddParameter(Key<"totalSteps">(), totalSteps, NoTitle());
    AddParameter(Key<"currentStep">(), currentStep, NoTitle());
    AddParameter(Key<"currentStepInfo">(), currentStepInfo, NoTitle());
    AddParameter(Key<"currentProgress">(), currentProgress, NoTitle());

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
