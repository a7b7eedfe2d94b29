// `NyRoutine::RoutineBase<Results>`: a base class for routine classes that supplies the IRoutine
// operations most routines write the same way, so a routine class writes only `Run`.
//
//     struct CalibrationResults : Ny::Params::Group { ... };
//
//     class Calibration : public NyRoutine::RoutineBase<CalibrationResults> {
//       public:
//         void Run(NyRoutine::IRoutineHost& host) override {
//             ...
//             auto results = std::make_unique<CalibrationResults>();
//             results->gain = 1.02;
//             HandOverResults(host, std::move(results));
//         }
//     };
//
// `RoutineBase<>` (Results = void) is the base of routines that hand over no results.
//
// What it supplies:
//   - SetCreateParams ignores the type's creation parameters; override it to keep them (it is called
//     once, right after the factory made the object, before Run, and only when the type has them).
//   - FreeResults (final) deletes the results the engine gives back. Results reach the engine only
//     through HandOverResults (or IRoutineHost::SetResults with a structure made by `new`), so
//     deleting through the structure's virtual destructor deletes each as the type it was made as.
//   - HandOverResults (only with a results type) hands a results structure over from a unique_ptr.
//
// Ownership: results belong to the engine from the moment HandOverResults is called, also when it
// throws (see IRoutineHost::SetResults); the engine gives each back exactly once, through
// FreeResults, when the next results replace it or when the routine is deleted. The routine object
// itself is shared by the engine until the routine is deleted; keep the parameter group a routine
// publishes with IRoutineHost::GetParams in a member, so that it outlives its publication.
//
// Threading: Run and the continue callbacks run on the routine's own thread, one at a time.
// FreeResults runs on whichever thread replaces the results or deletes the routine; it touches
// nothing but the structure it deletes.
#pragma once

#include <memory>
#include <type_traits>

#include "NyApi/Properties/Structure.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineHost.h"

namespace Ny::Params {
class Group;
}

namespace NyRoutine {

template <typename Results = void>
class RoutineBase : public IRoutine {
    static_assert(std::is_void_v<Results> || std::is_base_of_v<Ny::Properties::Structure, Results>,
                  "a results type derives from Ny::Properties::Structure (e.g. Ny::Params::Group)");

  public:
    // Ignores the creation parameters; override to use them.
    void SetCreateParams(std::shared_ptr<Ny::Params::Group> /*params*/) override {}

    // Deletes results the engine gives back (deleting null does nothing).
    void FreeResults(const Ny::Properties::Structure* results) final {
        static_assert(std::has_virtual_destructor_v<Ny::Properties::Structure>);
        delete results;
    }

  protected:
    // Hands `results` over to the engine, which shows it in the routine's document and gives it back
    // through FreeResults; null drops the current results. The engine owns `results` from this call
    // on, also when it throws (an update handler failed, or the structure was handed over before):
    // it is then freed exactly once all the same. Thread-safe; waits while a client reads the results.
    // Only for a routine with a results type.
    static void HandOverResults(IRoutineHost& host,
                                std::unique_ptr<Results> results) requires(!std::is_void_v<Results>) {
        host.SetResults(results.release());
    }
};

}  // namespace NyRoutine
