// `NyRoutine::RoutineFactory<Routine>`: the factory of a routine type whose routine class is `Routine`.
//
// Each routine a client creates gets its own routine object, made by the type's factory; this template
// is that factory, so a plug-in does not write one:
//
//     plugin->AddRoutineType<Calibration>(NyRoutine::RoutineInfo("Calibration", false));
//
// registers the type with a `RoutineFactory<Calibration>` that the plug-in then owns (see
// RoutinePlugin::AddRoutineType). A routine class without a default constructor, or one that needs
// something from the plug-in, is made by a function instead:
//
//     auto factory = std::make_shared<NyRoutine::RoutineFactory<Probe>>(
//         [device] { return std::make_shared<Probe>(device); });
//     plugin->AddRoutineInfo(NyRoutine::RoutineInfo("Probe", false), factory);
//
// Ownership: shared (std::shared_ptr) by the plug-in and every copy of the record it was added with;
// it lives as long as the longest of them. Each call of CreateRoutine makes a new object; the engine
// shares it between the routine's entry and its instance until the routine is deleted.
//
// Threading: CreateRoutine is called on the thread of the request that creates a routine, and two
// creations may call it at the same time. The default maker is thread-safe; a maker function given to
// the constructor must be too (it runs with no lock of the factory held).
#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "NyApi/Exception.h"
#include "NyApi/Status.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"

namespace NyRoutine {

template <typename Routine>
class RoutineFactory final : public IRoutineFactory {
    static_assert(std::is_base_of_v<IRoutine, Routine>, "a routine class derives from NyRoutine::IRoutine");

  public:
    using MakeFx = std::function<std::shared_ptr<Routine>()>;

    // Makes each routine with std::make_shared<Routine>() (Routine needs a default constructor).
    RoutineFactory() : make([] { return std::make_shared<Routine>(); }) {}

    // Makes each routine by calling `makeFx`. A null result refuses that creation (the client sees
    // status NoFactory, -992); an empty `makeFx` throws Ny::Exception InvalidValue (-997) here, at
    // registration, rather than later at every creation.
    explicit RoutineFactory(MakeFx makeFx) : make(std::move(makeFx)) {
        if (!make) {
            throw NY_EXCEPTION(Ny::Status::InvalidValue,
                               "A routine factory needs a function that makes routines.");
        }
    }

    // A new routine object. Thread-safe as far as the maker is.
    std::shared_ptr<IRoutine> CreateRoutine() override { return make(); }

  private:
    const MakeFx make;
};

}  // namespace NyRoutine
