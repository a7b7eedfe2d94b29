// Routine types for the test kit's own tests, written against the public SDK only, as a plug-in author
// would: a routine whose Run is the test's function, its factory, and small parameter and result groups.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"

namespace NyTest {

struct KitParams : Ny::Params::Group {
    KitParams() {
        AddParameter("volume", volume, "Volume");
        volume.Minimum(0).Maximum(100);
        volume = 10;
    }
    Ny::Params::Value<unsigned int> volume;
};

struct KitResults : Ny::Params::Group {
    KitResults() { AddParameter("volume", volume, "Volume"); }
    Ny::Params::Value<unsigned int> volume;
};

class KitRoutine : public NyRoutine::IRoutine {
  public:
    using RunFx = std::function<void(KitRoutine&, NyRoutine::IRoutineHost&)>;

    explicit KitRoutine(RunFx runIn) : run(std::move(runIn)) {}
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(NyRoutine::IRoutineHost& host) override { run(*this, host); }
    void FreeResults(const Ny::Properties::Structure* results) override {
        delete static_cast<const KitResults*>(results);
    }

    KitParams params;  // published by routines that take parameters; lives as long as the routine

  private:
    RunFx run;
};

// Makes a KitRoutine per creation; with `refusals` > 0 it first refuses that many creations (null).
class KitFactory : public NyRoutine::IRoutineFactory {
  public:
    explicit KitFactory(KitRoutine::RunFx runIn, int refusalsIn = 0)
        : run(std::move(runIn)), refusals(refusalsIn) {}
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override {
        if (refusals > 0) {
            --refusals;
            return nullptr;
        }
        return std::make_shared<KitRoutine>(run);
    }

  private:
    KitRoutine::RunFx run;
    int refusals;  // the factory is called on the driver's creation thread, one creation at a time
};

}  // namespace NyTest
