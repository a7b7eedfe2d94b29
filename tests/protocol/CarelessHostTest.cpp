// The routines resource driven as a careless host would drive it: a notification handler that removes
// a routine while another request removes the very routine being notified. A hang cannot be undone from
// inside the process, so the case runs in a child process under an alarm: a hang fails the test
// instead of stalling the whole binary.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <stdexcept>
#include <thread>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "TestRoutines.h"

namespace {

using NyTest::Generous;

using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutinesDir;
using NyTest::Gate;
using NyTest::ScriptedRoutine;

// Seconds the child has for a scenario that takes well under one when nothing hangs.
constexpr unsigned HangAlarmSeconds = 20;

// Waits for a continue without reporting anything: the only updates of such a routine are the step
// reports the test makes, and those reach the resource's notifications through its periodic flush.
void WaitsQuietly(ScriptedRoutine&, IRoutineHost& host) {
    host.SetTotalSteps(3);
    host.WaitForContinue([](IRoutineHost&) {});
}

// The flush notifies routine A; its handler removes routine B. Meanwhile another request removes A and
// waits, holding the manager's announcement lock, for the flush to finish A's notification.
void RemoveFromFlushHandlerWhileTheNotifiedRoutineIsRemoved() {
    NyTest::LogCapture log;
    NyTest::ScriptedFactory quiet(WaitsQuietly);
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("Quiet", quiet, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    RoutineManager manager(registry, &core, 0);
    Gate inFlush;
    Gate deletingA;
    // Subscribed before the resource, so it runs just before the resource's own deletion handler.
    auto deletions = manager.DeletedEvent().SubscribeScoped([&](const std::string& id) {
        if (id == "Quiet-0") {
            deletingA.Open();
        }
    });
    RoutinesDir dir(router, manager);
    std::promise<int> handlerRemoval;
    std::atomic<bool> handled{false};
    auto handler = router.NotificationEvent().SubscribeScoped([&](NyRest::EventType type, std::string path) {
        if (type != NyRest::EventType::Updated || path != "/routines/Quiet-0") {
            return;
        }
        if (!handled.exchange(true)) {
            inFlush.Open();
            // Only forces the moment: without it the same meeting happens whenever the handler is slower
            // than the other request.
            deletingA.Wait(Generous);
            try {
                manager.Remove("Quiet-1");
                handlerRemoval.set_value(1);
            } catch (const Ny::Exception& e) {
                handlerRemoval.set_value(e.Status());
            }
        }
    });
    const std::string a = manager.Create("Quiet", nullptr);
    const std::string b = manager.Create("Quiet", nullptr);
    ASSERT_EQ(a, "Quiet-0");
    ASSERT_EQ(b, "Quiet-1");
    manager.GetInstance(a).SetTotalSteps(3);  // the run may not have set it yet
    manager.GetInstance(a).SetCurrentStep(1, "one");
    ASSERT_TRUE(inFlush.Wait());
    auto removal = std::async(std::launch::async, [&] { manager.Remove(a); });
    auto handlerDone = handlerRemoval.get_future();
    if (handlerDone.wait_for(Generous) != std::future_status::ready) {
        // The parent sees only this stream; the teardown that follows hangs on the same locks.
        std::fputs("the handler's removal hangs behind the other request's removal\n", stderr);
        FAIL();
    }
    EXPECT_EQ(handlerDone.get(), 1);
    ASSERT_EQ(removal.wait_for(Generous), std::future_status::ready);
    removal.get();
    EXPECT_TRUE(manager.ListIds().empty());
}

// A routine's own code reports results; the handler of that update, on the routine's thread, deletes
// the routine (or all of them), which the resource allows a handler to do on its own thread.
void RemoveFromHandlerOfTheRoutinesOwnUpdate(const char* deletion) {
    NyTest::LogCapture log;
    Gate go;
    NyTest::ScriptedFactory reporting([&](ScriptedRoutine&, IRoutineHost& host) {
        go.Wait(Generous);
        host.SetResults(new NyTest::TestResults());
    });
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("Reporting", reporting, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    RoutineManager manager(registry, &core, 0);
    RoutinesDir dir(router, manager);
    const auto testThread = std::this_thread::get_id();
    std::promise<int> handlerRemoval;
    std::atomic<bool> handled{false};  // the handler's own deletion raises updates on this thread again
    auto handler =
        router.NotificationEvent().SubscribeScoped([&](NyRest::EventType type, const std::string& path) {
            if (type != NyRest::EventType::Updated || path != "/routines/Reporting-0" ||
                std::this_thread::get_id() == testThread) {
                return;
            }
            if (!handled.exchange(true)) {
                handlerRemoval.set_value(router.Dispatch("DELETE", deletion, nullptr).status);
            }
        });
    ASSERT_EQ(manager.Create("Reporting", nullptr), "Reporting-0");
    go.Open();
    auto handlerDone = handlerRemoval.get_future();
    if (handlerDone.wait_for(Generous) != std::future_status::ready) {
        std::fputs("the handler's deletion of its own routine hangs\n", stderr);
        FAIL();
    }
    EXPECT_EQ(handlerDone.get(), 204);
    EXPECT_TRUE(NyTest::Eventually([&] { return manager.ListIds().empty(); }));
}

TEST(CarelessHostDeathTest, HandlerOnTheRoutinesThreadMayDeleteThatRoutine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(HangAlarmSeconds);
            RemoveFromHandlerOfTheRoutinesOwnUpdate("/routines/Reporting-0");
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            alarm(HangAlarmSeconds);
            RemoveFromHandlerOfTheRoutinesOwnUpdate("/routines/*");
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "")
        << "deleting them all";
}

// Plug-in code that throws anything at all out of its factory or its creation parameters must cost
// the request only, and give the place back.
TEST(CarelessHost, FactoryThrowingAnythingFailsTheRequestAndFreesThePlace) {
    NyTest::LogCapture log;
    struct Throwing : NyRoutine::IRoutineFactory {
        std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override {
            ++calls;
            if (calls == 1) {
                throw std::runtime_error("careless factory");
            }
            if (calls == 2) {
                throw 42;  // not even an exception class
            }
            return std::make_shared<ScriptedRoutine>(nullptr);
        }
        int calls = 0;
    } throwing;
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("Throwing", throwing, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    RoutineManager manager(registry, &core, 1);
    RoutinesDir dir(router, manager);
    const nlohmann::json body{{"type", "Throwing"}};
    EXPECT_GE(router.Dispatch("POST", "/routines", body).status, 400);
    EXPECT_GE(router.Dispatch("POST", "/routines", body).status, 400);
    EXPECT_EQ(router.Dispatch("POST", "/routines", body).status, 201) << "a failed factory kept its place";
    EXPECT_EQ(manager.ListIds(), std::vector<std::string>{"Throwing-0"});
}

TEST(CarelessHostDeathTest, FlushHandlerMayRemoveWhileTheNotifiedRoutineIsRemoved) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(HangAlarmSeconds);
            RemoveFromFlushHandlerWhileTheNotifiedRoutineIsRemoved();
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
