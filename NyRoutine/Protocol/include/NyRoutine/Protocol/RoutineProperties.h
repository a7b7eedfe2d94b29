// `RoutineProperties`: the document of one live routine, as a parameter group of twelve read-only
// fields with titles, sort orders and the state enumeration.
//
// Built afresh for every read of a routine on the request's thread, filled from the instance, serialized
// (with its schema when asked) and dropped; never shared between threads.
#pragma once

#include <string>

#include "NyCommon/RoutineState.h"
#include "NyValues/Params/Enum.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"

namespace NyRoutine::Internal {

class RoutineInstance;

struct RoutineProperties : Ny::Params::Group {
    RoutineProperties();
    ~RoutineProperties() override;

    // Sets every field, in declaration order, from the routine's id and instance.
    void Fill(const std::string& routineId, const RoutineInstance& instance);

    Ny::Params::Value<std::string> id;
    Ny::Params::Enum<NyCommon::RoutineState> state;
    Ny::Params::Value<std::string> stateDetails;
    Ny::Params::Value<std::string> type;
    Ny::Params::Value<std::string> displayName;
    Ny::Params::Value<std::string> description;
    Ny::Params::Value<std::string> helpHtml;
    Ny::Params::Value<std::string> helpUrl;
    Ny::Params::Value<unsigned int> totalSteps;
    Ny::Params::Value<unsigned int> currentStep;
    Ny::Params::Value<std::string> currentStepInfo;
    Ny::Params::Value<unsigned int> currentProgress;
};

}  // namespace NyRoutine::Internal
