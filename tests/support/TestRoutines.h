// Routine types written for the tests: a routine whose Run is a lambda and a factory around it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "NyApi/Exception.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"
#include "Sync.h"

namespace NyTest {

// The status a call throws as Ny::Exception, or 1 when it returns.
inline int StatusOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Ny::Exception& e) {
        return e.Status();
    }
    return 1;
}

struct TestResults : Ny::Params::Group {
    TestResults() { AddParameter("value", value, ""); }
    Ny::Params::Value<unsigned int> value;
};

struct TestParams : Ny::Params::Group {
    TestParams() {
        AddParameter("count", count, "");
        AddParameter("name", name, "");
        count.Minimum(1).Maximum(10);
        count = 5;
    }
    Ny::Params::Value<unsigned int> count;
    Ny::Params::Value<std::string> name;
};

// A routine whose Run is given by the test. Results handed over are TestResults and freed here.
class ScriptedRoutine : public NyRoutine::IRoutine {
  public:
    using RunFx = std::function<void(ScriptedRoutine&, NyRoutine::IRoutineHost&)>;

    explicit ScriptedRoutine(RunFx runIn) : run(std::move(runIn)) {}
    ~ScriptedRoutine() override { destroyed = true; }

    void SetCreateParams(std::shared_ptr<Ny::Params::Group> createParams) override {
        params = std::move(createParams);
    }
    void Run(NyRoutine::IRoutineHost& host) override {
        ++runs;
        if (run) {
            run(*this, host);
        }
    }
    void FreeResults(const Ny::Properties::Structure* results) override {
        {
            std::lock_guard guard(mutex);
            freed.push_back(results);
        }
        delete static_cast<const TestResults*>(results);
    }
    std::vector<const Ny::Properties::Structure*> Freed() {
        std::lock_guard guard(mutex);
        return freed;
    }

    RunFx run;
    TestParams parameters;
    std::shared_ptr<Ny::Params::Group> params;
    std::atomic<int> runs{0};
    std::atomic<bool> destroyed{false};

  private:
    std::mutex mutex;
    std::vector<const Ny::Properties::Structure*> freed;
};

// Makes ScriptedRoutines; remembers the last one made.
class ScriptedFactory : public NyRoutine::IRoutineFactory {
  public:
    explicit ScriptedFactory(ScriptedRoutine::RunFx runIn = {}) : run(std::move(runIn)) {}
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override {
        auto routine = std::make_shared<ScriptedRoutine>(run);
        std::lock_guard guard(mutex);
        last = routine;
        return routine;
    }
    std::shared_ptr<ScriptedRoutine> Last() {
        std::lock_guard guard(mutex);
        return last;
    }

    ScriptedRoutine::RunFx run;

  private:
    std::mutex mutex;
    std::shared_ptr<ScriptedRoutine> last;
};

}  // namespace NyTest
