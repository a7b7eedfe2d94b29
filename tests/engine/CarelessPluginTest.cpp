// The manager driven as a careless plug-in or host would drive it: a routine that is slow to end when
// removed, and an abort from another request in the moment between a routine's announcement and its
// start. Each case is driven by gates, never by timing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "TestRoutines.h"

namespace {

using NyTest::Generous;
using NyTest::StatusOf;

using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutineRegistry;
using NyTest::Gate;
using NyTest::ScriptedFactory;
using NyTest::ScriptedRoutine;

class CarelessPluginTest : public ::testing::Test {
  protected:
    CarelessPluginTest() {
        registry.Add(RoutineInfo("Slow", slow, true));
        registry.Add(RoutineInfo("Other", other, true));
        registry.Add(RoutineInfo("Asks", asks, false));
    }

    NyTest::LogCapture log;
    ScriptedFactory slow;
    ScriptedFactory other;
    ScriptedFactory asks{[](ScriptedRoutine&, IRoutineHost& host) { host.WaitForContinue({}); }};
    RoutineRegistry registry;
    NyCore::Core core;
};

// A removed routine still runs plug-in code until its end is over, exactly like one taken by a clear,
// which keeps its place until then. A removal must not free the place any earlier.
TEST_F(CarelessPluginTest, RemovedRoutineKeepsItsPlaceWhileItsCompletionRuns) {
    Gate ran;
    Gate inCompletion;
    Gate finishCompletion;
    slow.run = [&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) {
            if (aborted) {
                inCompletion.Open();
                finishCompletion.Wait(Generous);
            }
        });
        ran.Open();
    };
    RoutineManager manager(registry, &core, 1);
    const std::string first = manager.Create("Slow", nullptr);
    ASSERT_TRUE(ran.Wait());
    auto removal = std::async(std::launch::async, [&] { manager.Remove(first); });
    ASSERT_TRUE(inCompletion.Wait());
    const int status = StatusOf([&] { manager.Create("Other", nullptr); });
    finishCompletion.Open();
    removal.get();
    EXPECT_EQ(status, -1000) << "a second routine was created under a limit of 1 while the first one's "
                                "completion callback still ran";
}

TEST_F(CarelessPluginTest, RemovedRoutineKeepsItsPlaceUntilItsCodeNoticesTheAbort) {
    Gate running;
    Gate sawAbort;
    Gate letGo;
    slow.run = [&](ScriptedRoutine&, IRoutineHost& host) {
        running.Open();
        // Ignores the abort for a while, as routine code between two checks does.
        while (!host.IsAborted()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        sawAbort.Open();
        letGo.Wait(Generous);
    };
    RoutineManager manager(registry, &core, 1);
    const std::string first = manager.Create("Slow", nullptr);
    // A removal that comes before the code has begun drops it unrun: there would be nothing to notice.
    ASSERT_TRUE(running.Wait());
    auto removal = std::async(std::launch::async, [&] { manager.Remove(first); });
    ASSERT_TRUE(sawAbort.Wait());
    const int status = StatusOf([&] { manager.Create("Other", nullptr); });
    letGo.Open();
    removal.get();
    EXPECT_EQ(status, -1000) << "a second routine was created under a limit of 1 while the first one's "
                                "code still ran";
}

// Another request can see a new routine as soon as it is announced, and abort it before the creating
// call has started it. The creator and the collection must then agree: either the creation succeeded
// (an aborted routine is there) or it failed and nothing is left behind.
TEST_F(CarelessPluginTest, AbortBetweenAnnouncementAndStartLeavesCreatorAndListInAgreement) {
    RoutineManager manager(registry, &core, 1);
    Gate announced;
    Gate abortDone;
    std::string announcedId;
    auto watch = manager.CreatedEvent().SubscribeScoped([&](const std::string& id) {
        announcedId = id;
        announced.Open();
        abortDone.Wait(Generous);
    });
    auto creation = std::async(std::launch::async, [&] { return manager.Create("Slow", nullptr); });
    ASSERT_TRUE(announced.Wait());
    manager.AcquireInstance(announcedId)->Abort();
    abortDone.Open();
    std::string id;
    const int status = StatusOf([&] { id = creation.get(); });
    const auto listed = manager.ListIds();
    if (status == 1) {
        EXPECT_NE(std::find(listed.begin(), listed.end(), id), listed.end());
    } else {
        EXPECT_TRUE(listed.empty()) << "the creator was told " << status << " but " << listed.front()
                                    << " stays and holds the only place";
        EXPECT_EQ(status, -999) << "a routine that was there and ended is no refusal";
    }
}

// The ordinary flow for a type with start parameters: the client learns of the new routine from its
// created notification and continues it while its creating request still blocks. The continue may come
// before the creating call has reached its start.
TEST_F(CarelessPluginTest, ContinueBetweenAnnouncementAndStartStartsTheRoutine) {
    RoutineManager manager(registry, &core, 1);
    Gate announced;
    Gate continued;
    std::string announcedId;
    auto watch = manager.CreatedEvent().SubscribeScoped([&](const std::string& id) {
        announcedId = id;
        announced.Open();
        continued.Wait(Generous);
    });
    auto creation = std::async(std::launch::async, [&] { return manager.Create("Asks", nullptr); });
    ASSERT_TRUE(announced.Wait());
    manager.AcquireInstance(announcedId)->Continue();
    continued.Open();
    ASSERT_EQ(creation.wait_for(Generous), std::future_status::ready);
    std::string id;
    const int status = StatusOf([&] { id = creation.get(); });
    EXPECT_EQ(status, 1) << "the user's continue made the creation fail";
    EXPECT_TRUE(NyTest::Eventually([&] { return asks.Last() && asks.Last()->runs == 1; }))
        << "the routine is listed as " << static_cast<int>(manager.GetInstance(announcedId).State())
        << " but its code never ran";
}

}  // namespace

// Routine code that throws something that is not a std::exception, in Run or in a continue callback:
// the routine must still end (Failed), so that its creation, its removal and the limit are not held by a
// routine that stays Running forever.
class ForeignExceptionTest : public CarelessPluginTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ForeignExceptionTest, RoutineEndsFailedAndGivesItsPlaceBack) {
    const bool inContinue = GetParam();
    slow.run = [inContinue](ScriptedRoutine&, IRoutineHost& host) {
        if (inContinue) {
            host.WaitForContinue([](IRoutineHost&) { throw 42; });
            return;
        }
        throw 42;
    };
    RoutineManager manager(registry, &core, 1);
    const std::string first = manager.Create("Slow", nullptr);
    if (inContinue) {
        ASSERT_TRUE(NyTest::Eventually([&] {
            return manager.GetInstance(first).State() == NyCommon::RoutineState::WaitingForFeedback;
        }));
        manager.AcquireInstance(first)->Continue();
    }
    ASSERT_TRUE(NyTest::Eventually([&] {
        return manager.GetInstance(first).State() == NyCommon::RoutineState::Failed;
    })) << "the routine stays "
        << static_cast<int>(manager.GetInstance(first).State());
    EXPECT_TRUE(log.WaitFor("Routine [" + first + "] threw an exception that is not a std::exception."));
    auto removal = std::async(std::launch::async, [&] { manager.Remove(first); });
    ASSERT_EQ(removal.wait_for(Generous), std::future_status::ready) << "the removal waits for an end";
    removal.get();
    EXPECT_EQ(StatusOf([&] { manager.Create("Other", nullptr); }), 1);
}

INSTANTIATE_TEST_SUITE_P(Where, ForeignExceptionTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "InContinue" : "InRun"; });

namespace {

// The same from a completion callback run by a removal: the removal still gives the place back and
// announces the deletion, as it does after a std::exception.
TEST_F(CarelessPluginTest, RemovalWhoseCompletionThrowsForeignExceptionStillFreesThePlace) {
    Gate ran;
    slow.run = [&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([](IRoutineHost&, bool aborted) {
            if (aborted) {
                throw 42;
            }
        });
        host.WaitForContinue([](IRoutineHost&) {});
        ran.Open();
    };
    RoutineManager manager(registry, &core, 1);
    std::atomic<int> deleted{0};
    auto watch = manager.DeletedEvent().SubscribeScoped([&](const std::string&) { ++deleted; });
    const std::string first = manager.Create("Slow", nullptr);
    ASSERT_TRUE(ran.Wait());
    EXPECT_NO_THROW(manager.Remove(first));
    EXPECT_EQ(deleted.load(), 1);
    EXPECT_TRUE(log.Contains("Routine [" + first + "] threw an exception that is not a std::exception."));
    EXPECT_EQ(StatusOf([&] { manager.Create("Other", nullptr); }), 1) << "the removed routine kept its place";
}

}  // namespace
