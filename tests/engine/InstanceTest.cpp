// The life of one routine instance: its state machine, the ways it ends, the start-parameters wait,
// steps and progress, parameter and result locks.
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "LogCapture.h"
#include "NyRoutine/Engine/RoutineInstance.h"
#include "TestRoutines.h"

namespace {

using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::Internal::RoutineInstance;
using NyTest::Eventually;
using NyTest::Gate;
using NyTest::ScriptedRoutine;

class InstanceTest : public ::testing::Test {
  protected:
    std::unique_ptr<RoutineInstance> Make(ScriptedRoutine::RunFx run, bool skipStartParams = true) {
        routine = std::make_shared<ScriptedRoutine>(std::move(run));
        info = NyRoutine::RoutineInfo("Calib", factory, skipStartParams);
        auto instance = std::make_unique<RoutineInstance>(routine, nullptr, "Calib-0", &info);
        instance->UpdatedEvent().Subscribe([this](const std::string&) { ++updates; });
        instance->StepsUpdatedEvent().Subscribe([this](const std::string&) { ++stepUpdates; });
        return instance;
    }

    NyTest::LogCapture log;
    NyTest::ScriptedFactory factory;
    NyRoutine::RoutineInfo info;
    std::shared_ptr<ScriptedRoutine> routine;
    std::atomic<int> updates{0};
    std::atomic<int> stepUpdates{0};
};

TEST_F(InstanceTest, OneUserStepWithCompletionCallbackWalksThroughEveryState) {
    std::atomic<int> completions{0};
    std::atomic<bool> completedAborted{true};
    Gate continued;
    auto instance = Make(
        [&](ScriptedRoutine& self, IRoutineHost& host) {
            EXPECT_TRUE(host.GetParams(self.parameters, nullptr));
            host.SetCompletionFx([&](IRoutineHost&, bool aborted) {
                completedAborted = aborted;
                ++completions;
            });
            EXPECT_TRUE(host.WaitForContinue([&](IRoutineHost& again) {
                continued.Open();
                auto results = std::make_unique<NyTest::TestResults>();
                results->value = 42;
                again.SetResults(results.release());
                again.ReadyForCompletion();
            }));
        },
        false);

    auto started = std::async(std::launch::async, [&] { instance->Start(); });
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
    // The creating caller is still held: the routine waits for its start parameters.
    EXPECT_EQ(started.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);

    instance->Continue();
    started.get();
    ASSERT_TRUE(continued.Wait());
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::Completed; }));
    EXPECT_EQ(completions.load(), 1);
    EXPECT_FALSE(completedAborted.load());
    EXPECT_TRUE(log.WaitFor("Routine [Calib-0] completed successfully -- ending routine."));
    EXPECT_TRUE(log.Contains("Ending routine [Calib-0]."));
    EXPECT_TRUE(log.WaitFor("Routine [Calib-0] completed."));  // logged just after the state changes

    log.Clear();
    instance.reset();
    EXPECT_TRUE(log.Contains("Attempted to end routine [Calib-0], but it already ended."));
    EXPECT_TRUE(log.Contains("Routine [Calib-0] deleted -- freeing results."));
    EXPECT_EQ(routine->Freed().size(), 1u);
    EXPECT_EQ(completions.load(), 1);
}

TEST_F(InstanceTest, RunWithoutCallbacksCompletesOnceAndSecondStartIsRefused) {
    auto instance = Make([](ScriptedRoutine&, IRoutineHost&) {});
    instance->Start();
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::Completed; }));
    EXPECT_TRUE(log.WaitFor("Routine [Calib-0] completed."));
    EXPECT_EQ(updates.load(), 1);
    EXPECT_FALSE(log.Contains("Ending routine [Calib-0]."));
    try {
        instance->Start();
        FAIL() << "a second start was accepted";
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -1000);
        EXPECT_EQ(e.Message(), "Routine must be in READY state to start.");
    }
    EXPECT_EQ(instance->State(), RoutineState::Completed);
}

struct FailureCase {
    const char* name;
    bool inContinueCallback;
    bool bySetFailedState;
    bool foreignException = false;  // throws something that is not a std::exception
};

class FailureTest : public InstanceTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(FailureTest, RoutineEndsFailedWithTheDetails) {
    const FailureCase failure = GetParam();
    auto fail = [failure](IRoutineHost& host) {
        if (failure.bySetFailedState) {
            host.SetFailedState("sensor missing");
        } else if (failure.foreignException) {
            throw 42;
        } else {
            throw std::runtime_error("sensor missing");
        }
    };
    auto instance = Make([&](ScriptedRoutine&, IRoutineHost& host) {
        if (failure.inContinueCallback) {
            host.WaitForContinue(fail);
        } else {
            fail(host);
        }
    });
    instance->Start();
    if (failure.inContinueCallback) {
        ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
        instance->Continue();
    }
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::Failed; }));
    if (failure.foreignException) {
        EXPECT_EQ(instance->StateDetails(), "Routine code threw an exception that is not a std::exception.");
        // The routine is named, and the exception still reaches the runner, which reports it too.
        ASSERT_TRUE(log.WaitFor("Routine [Calib-0] threw an exception that is not a std::exception."));
        EXPECT_TRUE(log.WaitFor("AsyncRunner job exception of unknown type"));
        // Its end is over: the completion was posted, so the destruction does not wait forever.
        EXPECT_TRUE(log.WaitFor("Routine [Calib-0] completed."));
        return;
    }
    EXPECT_EQ(instance->StateDetails(), "sensor missing");
    if (!failure.bySetFailedState) {
        const char* line = failure.inContinueCallback
                               ? "RoutineInstance::ContinueCallbackWrapper callback exception: sensor missing"
                               : "RoutineInstance::RunCallbackWrapper run exception: sensor missing";
        ASSERT_TRUE(log.WaitFor(line));
        const auto failures = log.Texts(Ny::Logging::Level::CaughtFailure);
        EXPECT_NE(std::find(failures.begin(), failures.end(), line), failures.end());
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, FailureTest,
                         ::testing::Values(FailureCase{"RunThrows", false, false},
                                           FailureCase{"CallbackThrows", true, false},
                                           FailureCase{"RunSetsFailed", false, true},
                                           FailureCase{"CallbackSetsFailed", true, true},
                                           FailureCase{"RunThrowsForeign", false, false, true},
                                           FailureCase{"CallbackThrowsForeign", true, false, true}),
                         [](const auto& info) { return info.param.name; });

TEST_F(InstanceTest, AbortWhileWaitingRunsCompletionWithTrueAndNeverTheContinueCallback) {
    std::atomic<int> callbackRuns{0};
    std::atomic<int> abortedCompletions{0};
    auto instance = Make([&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) { abortedCompletions += aborted ? 1 : 0; });
        host.WaitForContinue([&](IRoutineHost&) { ++callbackRuns; });
    });
    instance->Start();
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
    instance->Abort();
    EXPECT_EQ(instance->State(), RoutineState::Aborted);
    EXPECT_EQ(abortedCompletions.load(), 1);
    instance->Continue();  // the pending callback must not run after an abort
    instance.reset();
    EXPECT_EQ(callbackRuns.load(), 0);
    EXPECT_EQ(abortedCompletions.load(), 1);
}

TEST_F(InstanceTest, AbortWhileRunningEndsAtOnceAndRoutineCodeSeesIt) {
    Gate inRun;
    std::atomic<bool> sawAbort{false};
    auto instance = Make([&](ScriptedRoutine& self, IRoutineHost& host) {
        inRun.Open();
        ASSERT_TRUE(Eventually([&] { return host.IsAborted(); }));
        sawAbort = !host.WaitForContinue([](IRoutineHost&) {}) && !host.GetParams(self.parameters, nullptr);
    });
    instance->Start();
    ASSERT_TRUE(inRun.Wait());
    instance->Abort();
    EXPECT_EQ(instance->State(), RoutineState::Aborted);  // set by the aborting thread, while Run still runs
    ASSERT_TRUE(Eventually([&] { return sawAbort.load(); }));
    instance.reset();
    EXPECT_EQ(routine->runs.load(), 1);
}

TEST_F(InstanceTest, StartWaitIsReleasedByAbortAndByRemoval) {
    for (const bool byAbort : {true, false}) {
        auto instance = Make(
            [](ScriptedRoutine&, IRoutineHost& host) { host.WaitForContinue([](IRoutineHost&) {}); }, false);
        auto started = std::async(std::launch::async, [&] { instance->Start(); });
        ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
        if (byAbort) {
            instance->Abort();
        } else {
            instance->ReleaseStartWaiter();
        }
        EXPECT_EQ(started.wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << "byAbort " << byAbort;
        started.get();
        instance.reset();
    }
}

TEST_F(InstanceTest, DeletingWhileRunWaitsForItAndRaisesDeletedOnce) {
    Gate inRun;
    Gate release;
    std::atomic<int> completions{0};
    auto instance = Make([&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) { completions += aborted ? 1 : 100; });
        inRun.Open();
        release.Wait();
        auto results = std::make_unique<NyTest::TestResults>();
        host.SetResults(results.release());
    });
    int deleted = 0;
    instance->DeletedEvent().Subscribe([&](const std::string& id) {
        EXPECT_EQ(id, "Calib-0");
        ++deleted;
    });
    instance->Start();
    ASSERT_TRUE(inRun.Wait());
    auto deleting = std::async(std::launch::async, [&] { instance.reset(); });
    EXPECT_EQ(deleting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    release.Open();
    deleting.get();
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(completions.load(), 1);
    EXPECT_TRUE(log.Contains("Routine [Calib-0] is being deleted, so skip OnUpdated()"));
    EXPECT_EQ(routine->Freed().size(), 1u);
}

TEST_F(InstanceTest, ThrowingCompletionCallbackStillEndsTheRoutine) {
    auto instance = Make([](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([](IRoutineHost&, bool) { throw std::runtime_error("cleanup failed"); });
        host.WaitForContinue([](IRoutineHost&) {});
    });
    instance->Start();
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
    EXPECT_THROW(instance->Abort(), std::runtime_error);
    EXPECT_EQ(instance->State(), RoutineState::Failed);
    EXPECT_EQ(instance->StateDetails(), "Completion callback failed: cleanup failed");
    instance.reset();  // must not wait forever for an end that never came
}

TEST_F(InstanceTest, CompletionCallbackThrowingForeignExceptionStillEndsTheRoutine) {
    auto instance = Make([](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([](IRoutineHost&, bool) { throw 42; });
        host.WaitForContinue([](IRoutineHost&) {});
    });
    instance->Start();
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
    EXPECT_THROW(instance->Abort(), int);
    EXPECT_EQ(instance->State(), RoutineState::Failed);
    EXPECT_EQ(instance->StateDetails(),
              "Completion callback failed: Routine code threw an exception that is not a std::exception.");
    EXPECT_TRUE(log.Contains("Routine [Calib-0] threw an exception that is not a std::exception."));
    instance.reset();
}

// A client's write runs the routine's change callback when the access is released; a callback that
// throws something that is not a std::exception must neither end the process nor keep the lock.
TEST_F(InstanceTest, ChangeCallbackThrowingForeignExceptionLeavesTheLockAndTheProcessAlone) {
    Gate published;
    auto instance = Make([&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [](Ny::Properties::Structure&) { throw 42; });
        host.WaitForContinue([](IRoutineHost&) {});
        published.Open();
    });
    instance->Start();
    ASSERT_TRUE(published.Wait());
    {
        NyRoutine::Internal::ParamsAccess access(*instance, true);
        ASSERT_NE(access.Get(), nullptr);
        EXPECT_THROW(access.Release(), int);
    }
    {
        // Released by the destructor this time, which must not let the exception out.
        NyRoutine::Internal::ParamsAccess access(*instance, true);
        ASSERT_NE(access.Get(), nullptr);
    }
    EXPECT_TRUE(log.Contains("Releasing routine params failed (an exception that is not a std::exception)."));
    auto other = std::async(std::launch::async, [&] { return instance->AcceptsParams(); });
    ASSERT_EQ(other.wait_for(NyTest::Generous), std::future_status::ready) << "the lock was kept";
    EXPECT_TRUE(other.get());
}

TEST_F(InstanceTest, StepsAndProgressKeepTheirLimitsAndCoalesceNothing) {
    std::promise<void> done;
    auto instance = Make([&](ScriptedRoutine&, IRoutineHost& host) {
        try {
            host.SetCurrentStep(1, "one");
            ADD_FAILURE() << "a step beyond the total (0) was accepted";
        } catch (const Ny::Exception& e) {
            EXPECT_EQ(e.Status(), -997);
            EXPECT_EQ(e.Message(), "Routine step (1) exceeds total steps (0).");
        }
        host.SetTotalSteps(3);
        host.SetCurrentStep(3, "last");  // equal to the total is fine
        host.SetCurrentProgress(100);
        try {
            host.SetCurrentProgress(101);
            ADD_FAILURE() << "progress 101 was accepted";
        } catch (const Ny::Exception& e) {
            EXPECT_EQ(e.Message(), "Routine progress (101) exceeds max (100).");
        }
        host.SetCurrentProgress(100);     // unchanged: no event
        host.SetCurrentStep(3, "again");  // same step, new text: no event
        host.SetCurrentStep(2, "back");   // new step: progress back to 0, one event
        host.SetHelpHtml("B", 0);
        host.SetHelpHtml("A", -1);
        host.SetHelpHtml("C", 1);
        done.set_value();
        host.WaitForContinue([](IRoutineHost&) {});
    });
    instance->Start();
    done.get_future().wait();
    EXPECT_EQ(stepUpdates.load(), 3);
    EXPECT_EQ(instance->CurrentStep(), 2u);
    EXPECT_EQ(instance->CurrentProgress(), 0u);
    EXPECT_EQ(instance->CurrentStepInfo(), "back");
    EXPECT_EQ(instance->HelpHtml(), "ABC");
}

TEST_F(InstanceTest, ParametersAreWritableOnlyBetweenGetParamsAndContinue) {
    std::atomic<int> changes{0};
    Gate published;
    auto instance = Make([&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [&](Ny::Properties::Structure&) { ++changes; });
        published.Open();
        host.WaitForContinue([](IRoutineHost&) {});
    });

    // Before anything is published: null, but the lock is held and released.
    EXPECT_EQ(instance->LockParams(false), nullptr);
    instance->UnlockParams();

    instance->Start();
    ASSERT_TRUE(published.Wait());
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
    const int updatesBefore = updates.load();
    Ny::Properties::Structure* params = instance->LockParams(true);
    ASSERT_EQ(params, &routine->parameters);
    instance->UnlockParams();
    instance->UnlockParams();  // a second unlock does nothing
    EXPECT_EQ(changes.load(), 1);
    EXPECT_EQ(updates.load(), updatesBefore + 1);

    EXPECT_EQ(instance->LockParams(false), &routine->parameters);  // reading never reports a change
    instance->UnlockParams();
    EXPECT_EQ(changes.load(), 1);

    instance->Continue();
    EXPECT_EQ(instance->LockParams(true), nullptr);
    instance->UnlockParams();
    EXPECT_EQ(changes.load(), 1);
    EXPECT_TRUE(log.Contains("<" + std::to_string(NyRt::CurrentThreadId()) +
                             "> Routine params locked, but not forWriting."));
}

// Whether a routine waits for parameters, in each of the ways it can stop waiting; the parameters stay
// open for writing after an abort (the lenient write still takes them), but the routine no longer waits.
class AcceptsParamsTest : public InstanceTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(AcceptsParamsTest, OnlyWhilePublishedOpenAndNotStopped) {
    const std::string way = GetParam();
    std::atomic<int> changes{0};
    Gate published;
    auto instance = Make([&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [&](Ny::Properties::Structure&) { ++changes; });
        published.Open();
        if (way == "fail") {
            host.SetFailedState("broken");
            return;
        }
        host.WaitForContinue([](IRoutineHost&) {});
    });
    EXPECT_FALSE(instance->AcceptsParams());  // nothing published
    instance->Start();
    ASSERT_TRUE(published.Wait());
    if (way == "fail") {
        ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::Failed; }));
    } else {
        ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));
        EXPECT_TRUE(instance->AcceptsParams());
        if (way == "continue") {
            instance->Continue();
        } else {
            instance->Abort();
        }
    }
    EXPECT_FALSE(instance->AcceptsParams());
    // The end's own update comes from the runner after a continue or a failure: it must not be counted
    // as the writer's below.
    ASSERT_TRUE(log.WaitFor("Routine [Calib-0] completed."));

    // A writer that refuses releases without telling the routine or anyone: nothing was written. Only
    // updates raised on this thread count, should the end's update still be on its way.
    const auto testThread = std::this_thread::get_id();
    std::atomic<int> updatesHere{0};
    auto counting = instance->UpdatedEvent().SubscribeScoped([&](const std::string&) {
        if (std::this_thread::get_id() == testThread) {
            ++updatesHere;
        }
    });
    instance->LockParams(true);
    instance->UnlockParamsUnwritten();
    instance->UnlockParamsUnwritten();  // a second release does nothing
    EXPECT_EQ(changes.load(), 0);
    EXPECT_EQ(updatesHere.load(), 0);
    EXPECT_EQ(instance->LockParams(false), &routine->parameters);  // the lock was released
    instance->UnlockParams();
}

INSTANTIATE_TEST_SUITE_P(Ways, AcceptsParamsTest, ::testing::Values("continue", "abort", "fail"));

TEST_F(InstanceTest, ClientLockHoldsOffStateChangesAndUpdatedHandlersMayReadParameters) {
    Gate published;
    auto instance = Make([&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, nullptr);
        published.Open();
        host.WaitForContinue([](IRoutineHost&) {});
    });
    // A handler of the updated event reads the same routine's parameters on the same thread.
    std::atomic<int> nestedReads{0};
    instance->UpdatedEvent().Subscribe([&](const std::string&) {
        if (instance->LockParams(false) != nullptr) {
            ++nestedReads;
        }
        instance->UnlockParams();
    });
    instance->Start();
    ASSERT_TRUE(published.Wait());
    ASSERT_TRUE(Eventually([&] { return instance->State() == RoutineState::WaitingForFeedback; }));

    ASSERT_NE(instance->LockParams(true), nullptr);
    auto continued = std::async(std::launch::async, [&] { instance->Continue(); });
    EXPECT_EQ(continued.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    instance->UnlockParams();  // raises the updated event with the lock held: the handler re-enters
    continued.get();
    EXPECT_GE(nestedReads.load(), 1);
}

TEST_F(InstanceTest, ResultsAreReplacedAndFreedAndTheSameResultsTwiceAreRefused) {
    std::promise<void> done;
    NyTest::TestResults* first = nullptr;
    auto instance = Make([&](ScriptedRoutine&, IRoutineHost& host) {
        first = new NyTest::TestResults;
        host.SetResults(first);
        EXPECT_THROW(host.SetResults(first), Ny::Exception);
        host.SetResults(new NyTest::TestResults);
        host.SetResults(nullptr);
        done.set_value();
        host.WaitForContinue([](IRoutineHost&) {});
    });
    instance->Start();
    done.get_future().wait();
    EXPECT_EQ(routine->Freed().size(), 2u);
    EXPECT_EQ(routine->Freed().front(), first);
    EXPECT_EQ(instance->LockResults(), nullptr);
    instance->UnlockResults();
    EXPECT_EQ(updates.load(), 3);
}

}  // namespace

namespace {

// Another request may abort a routine between its creation and its start; deleting it later must
// not wait for an end that happened before there was anything to wait on.
TEST_F(InstanceTest, AbortBeforeStartStillLetsTheInstanceBeDestroyed) {
    auto instance =
        Make([](ScriptedRoutine&, IRoutineHost& host) { host.WaitForContinue([](IRoutineHost&) {}); });
    instance->Abort();
    EXPECT_THROW(instance->Start(), Ny::Exception);  // aborted: no longer Ready
    auto destroyed = std::async(std::launch::async, [&] { instance.reset(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

}  // namespace
