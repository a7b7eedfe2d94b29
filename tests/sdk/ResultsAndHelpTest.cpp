// Results handed over from a unique_ptr are given back exactly once, whichever way SetResults ends,
// and the named help modes reach the int slot of the host.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/Routine.h"
#include "Sync.h"

namespace {

using NyCommon::RoutineState;
using NyRoutine::HelpMode;
using NyRoutine::IRoutineHost;
using NyRoutine::Internal::RoutineInstance;

struct CountedResults : Ny::Params::Group {
    explicit CountedResults(std::atomic<int>& destroyedIn) : destroyed(destroyedIn) {
        AddParameter("value", value, "Value");
    }
    ~CountedResults() override { ++destroyed; }
    std::atomic<int>& destroyed;
    Ny::Params::Value<unsigned int> value;
};

// A RoutineBase routine whose Run is the test's; HandOverResults made reachable from the test's code.
class Scripted : public NyRoutine::RoutineBase<CountedResults> {
  public:
    using RunFx = std::function<void(IRoutineHost&)>;
    explicit Scripted(RunFx runIn) : run(std::move(runIn)) {}
    void Run(IRoutineHost& host) override { run(host); }
    using RoutineBase::HandOverResults;

  private:
    RunFx run;
};

class ResultsTest : public ::testing::Test {
  protected:
    // Starts a routine that runs `run` and completes when it returns.
    std::unique_ptr<RoutineInstance> Start(std::shared_ptr<NyRoutine::IRoutine> routine) {
        auto instance = std::make_unique<RoutineInstance>(std::move(routine), nullptr, "Sdk-0", &info);
        instance->Start();
        return instance;
    }
    std::unique_ptr<RoutineInstance> Start(Scripted::RunFx run) {
        return Start(std::make_shared<Scripted>(std::move(run)));
    }
    static bool Ended(const RoutineInstance& instance) {
        return NyTest::Eventually([&] {
            const RoutineState state = instance.State();
            return state == RoutineState::Completed || state == RoutineState::Failed;
        });
    }
    std::unique_ptr<CountedResults> Make(unsigned int value) {
        auto results = std::make_unique<CountedResults>(destroyed);
        results->value = value;
        return results;
    }

    NyTest::LogCapture log;
    NyRoutine::RoutineInfo info{"Sdk", true};
    std::atomic<int> destroyed{0};
};

TEST_F(ResultsTest, HandedOverResultsAreReplacedAndFreedExactlyOnce) {
    std::atomic<int> afterReplace{-1};
    auto instance = Start([&](IRoutineHost& host) {
        Scripted::HandOverResults(host, Make(1));
        Scripted::HandOverResults(host, Make(2));
        afterReplace = destroyed.load();
    });
    ASSERT_TRUE(Ended(*instance));
    EXPECT_EQ(afterReplace.load(), 1);  // the first, given back when the second replaced it
    {
        const auto* held = dynamic_cast<const CountedResults*>(instance->LockResults());
        EXPECT_EQ(held != nullptr ? held->value.Get() : 0u, 2u);
        instance->UnlockResults();
    }
    instance.reset();
    EXPECT_EQ(destroyed.load(), 2);
}

// An update handler that throws makes SetResults throw after the engine took the results: the
// unique_ptr must not free them too.
TEST_F(ResultsTest, ResultsOfAHandOverWhoseUpdateHandlerThrowsAreFreedOnce) {
    std::atomic<bool> threw{false};
    std::atomic<int> afterThrow{-1};
    auto routine = std::make_shared<Scripted>([&](IRoutineHost& host) {
        try {
            Scripted::HandOverResults(host, Make(7));
        } catch (const std::runtime_error&) {
            threw = true;
        }
        afterThrow = destroyed.load();
    });
    auto instance = std::make_unique<RoutineInstance>(routine, nullptr, "Sdk-0", &info);
    auto failing = instance->UpdatedEvent().SubscribeScoped(
        [](const std::string&) { throw std::runtime_error("handler failed"); });
    instance->Start();
    ASSERT_TRUE(Ended(*instance));
    EXPECT_TRUE(threw.load());
    EXPECT_EQ(afterThrow.load(), 0);  // still held by the engine
    EXPECT_NE(instance->LockResults(), nullptr);
    instance->UnlockResults();
    failing.Reset();
    instance.reset();
    EXPECT_EQ(destroyed.load(), 1);
}

// The same structure handed over twice (first raw, then from a unique_ptr) is refused, and the
// structure the engine already holds stays its own: freed once, by the engine.
TEST_F(ResultsTest, ResultsHandedOverTwiceAreRefusedAndFreedOnce) {
    std::atomic<int> refusal{0};
    auto instance = Start([&](IRoutineHost& host) {
        auto results = Make(3);
        host.SetResults(results.get());
        try {
            Scripted::HandOverResults(host, std::move(results));
        } catch (const Ny::Exception& e) {
            refusal = e.Status();
        }
    });
    ASSERT_TRUE(Ended(*instance));
    EXPECT_EQ(refusal.load(), Ny::Status::InvalidValue);
    EXPECT_EQ(destroyed.load(), 0);
    instance.reset();
    EXPECT_EQ(destroyed.load(), 1);
}

// A routine of its own (not RoutineBase) whose FreeResults deletes and then throws the first time:
// the structure it was given must not come back a second time, and the new results must be kept.
class ThrowingFree : public NyRoutine::IRoutine {
  public:
    explicit ThrowingFree(std::atomic<int>& destroyedIn) : destroyed(destroyedIn) {}
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(IRoutineHost& host) override {
        first = new CountedResults(destroyed);
        host.SetResults(first);
        try {
            host.SetResults(new CountedResults(destroyed));
        } catch (const std::runtime_error&) {
            replaceThrew = true;
        }
        afterReplace();
    }
    void FreeResults(const Ny::Properties::Structure* results) override {
        const bool firstCall = [&] {
            std::lock_guard guard(mutex);
            given.push_back(results);
            return given.size() == 1;
        }();
        delete results;
        if (firstCall) {
            throw std::runtime_error("free failed");
        }
    }
    std::vector<const Ny::Properties::Structure*> Given() {
        std::lock_guard guard(mutex);
        return given;
    }

    std::atomic<int>& destroyed;
    const Ny::Properties::Structure* first = nullptr;  // written by Run before the instance ends
    std::atomic<bool> replaceThrew{false};
    std::function<void()> afterReplace;  // set before the routine starts

  private:
    std::mutex mutex;
    std::vector<const Ny::Properties::Structure*> given;
};

TEST_F(ResultsTest, FreeResultsThatThrowsGetsEachStructureOnceAndTheNewResultsAreKept) {
    auto routine = std::make_shared<ThrowingFree>(destroyed);
    std::atomic<int> updates{0};
    std::atomic<int> updatesAfterReplace{-1};
    routine->afterReplace = [&] { updatesAfterReplace = updates.load(); };
    auto instance = std::make_unique<RoutineInstance>(routine, nullptr, "Sdk-0", &info);
    auto counting = instance->UpdatedEvent().SubscribeScoped([&](const std::string&) { ++updates; });
    instance->Start();
    ASSERT_TRUE(Ended(*instance));
    EXPECT_TRUE(routine->replaceThrew.load());  // the failure reaches the routine code
    EXPECT_EQ(updatesAfterReplace.load(), 2);   // the replacement was announced all the same
    EXPECT_NE(instance->LockResults(), nullptr);
    instance->UnlockResults();
    counting.Reset();
    instance.reset();
    const auto given = routine->Given();
    ASSERT_EQ(given.size(), 2u);
    EXPECT_EQ(given.front(), routine->first);
    EXPECT_NE(given.back(), routine->first);
    EXPECT_EQ(destroyed.load(), 2);
}

// ---------------------------------------------------------------------------------------------------
// Help modes

// Records the int mode each SetHelpHtml call reaches.
class RecordingHost : public IRoutineHost {
  public:
    using IRoutineHost::SetHelpHtml;
    bool GetParams(Ny::Properties::Structure&, std::function<void(Ny::Properties::Structure&)>) override {
        return true;
    }
    void SetResults(const Ny::Properties::Structure* results) override { delete results; }
    void SetTotalSteps(unsigned int) override {}
    void SetCurrentStep(unsigned int, const std::string&) override {}
    void SetCurrentProgress(unsigned int) override {}
    void SetHelpHtml(const std::string&, int mode) override { modes.push_back(mode); }
    void SetHelpUrl(const std::string&) override {}
    bool WaitForContinue(std::function<void(IRoutineHost&)>) override { return true; }
    bool IsAborted() override { return false; }
    bool IsFailed() override { return false; }
    void SetFailedState(std::string) override {}
    void SetCompletionFx(std::function<void(IRoutineHost&, bool)>) override {}
    void ReadyForCompletion() override {}
    NyCore::Core* Core() override { return nullptr; }

    std::vector<int> modes;
};

TEST(HelpMode, EachNamedModeReachesTheIntSlotWithItsValue) {
    RecordingHost recording;
    IRoutineHost& host = recording;
    host.SetHelpHtml("a", HelpMode::Prepend);
    host.SetHelpHtml("b", HelpMode::Replace);
    recording.SetHelpHtml("c", HelpMode::Append);  // through the implementation's own type
    EXPECT_EQ(recording.modes, (std::vector<int>{-1, 0, 1}));
}

TEST_F(ResultsTest, NamedHelpModesPrependReplaceAndAppendOnARealRoutine) {
    auto instance = Start([](IRoutineHost& host) {
        host.SetHelpHtml("old", HelpMode::Replace);
        host.SetHelpHtml("B", HelpMode::Replace);
        // The engine's own host type keeps the named overload visible beside its override.
        auto& engineHost = dynamic_cast<NyRoutine::Internal::RoutineInstanceHost&>(host);
        engineHost.SetHelpHtml("A", HelpMode::Prepend);
        engineHost.SetHelpHtml("C", HelpMode::Append);
    });
    ASSERT_TRUE(Ended(*instance));
    EXPECT_EQ(instance->State(), RoutineState::Completed);
    EXPECT_EQ(instance->HelpHtml(), "ABC");
}

}  // namespace
