// The state of a routine. The numbers are published in routine documents and never change.
#pragma once

#include <cstdint>

namespace NyCommon {

enum class RoutineState : std::int32_t {
    Ready = 0,               // "Ready to start"
    Running = 1,             // "Running"
    WaitingForFeedback = 2,  // "Waiting for user feedback"
    Completed = 3,           // "Stopped due to completion"
    Aborted = 4,             // "Stopped due to abort"
    Failed = 5,              // "Stopped due to failure"
};

// True for the three stopped states, which are final.
constexpr bool IsStopped(RoutineState state) {
    return state == RoutineState::Completed || state == RoutineState::Aborted ||
           state == RoutineState::Failed;
}

}  // namespace NyCommon
