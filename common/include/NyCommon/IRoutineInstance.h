// `NyCommon::IRoutineInstance`: one live routine as the REST layer and the manager see it.
//
// Implemented by the engine's `RoutineInstance`; owned by the routine manager. `Continue` and `Abort`
// may be called from any thread in any state; the getters take no lock and return copies. Events are
// raised with the routine id on the thread that caused them.
#pragma once

#include <string>

#include "NyApi/Event.h"
#include "NyCommon/RoutineState.h"

namespace NyCommon {

class IRoutineInstance {
  public:
    virtual ~IRoutineInstance() = default;

    // Starts the routine. Unless its type skips start parameters, returns only after the first
    // Continue. Throws status -1000 when the routine is not Ready.
    virtual void Start() = 0;
    virtual void Continue() = 0;
    virtual void Abort() = 0;

    virtual RoutineState State() const = 0;
    virtual std::string StateDetails() const = 0;
    virtual std::string HelpHtml() const = 0;
    virtual std::string HelpUrl() const = 0;
    virtual unsigned int TotalSteps() const = 0;
    virtual unsigned int CurrentStep() const = 0;
    virtual std::string CurrentStepInfo() const = 0;
    virtual unsigned int CurrentProgress() const = 0;

    // Continue, completion, new results, written parameters.
    virtual Ny::Event<std::string>& UpdatedEvent() = 0;
    // A new current step or progress value.
    virtual Ny::Event<std::string>& StepsUpdatedEvent() = 0;
    // Once, when the instance is destroyed, after its runner has stopped.
    virtual Ny::Event<std::string>& DeletedEvent() = 0;
};

}  // namespace NyCommon
