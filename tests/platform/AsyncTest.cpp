#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "NyApi/AsyncRunner.h"
#include "NyApi/AsyncTimer.h"
#include "NyCore/Core.h"

namespace {

TEST(AsyncRunner, RunsJobsInOrderOnAnotherThread) {
    std::vector<int> order;
    std::promise<void> done;
    const auto caller = std::this_thread::get_id();
    {
        Ny::AsyncRunner runner;
        for (int i = 0; i < 50; ++i) {
            runner.Run([&, i] {
                EXPECT_NE(std::this_thread::get_id(), caller);
                order.push_back(i);
                if (i == 49) {
                    done.set_value();
                }
            });
        }
        done.get_future().wait();
    }
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

TEST(AsyncRunner, DestructionWaitsForTheJobInProgressAndDropsQueuedJobs) {
    std::promise<void> started;
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<bool> firstFinished{false};
    std::atomic<bool> queuedRan{false};
    auto runner = std::make_unique<Ny::AsyncRunner>();
    runner->Run([&] {
        started.set_value();
        released.wait();
        firstFinished = true;
    });
    runner->Run([&] { queuedRan = true; });
    started.get_future().wait();

    auto destroyed = std::async(std::launch::async, [&] { runner.reset(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    destroyed.get();
    EXPECT_TRUE(firstFinished.load());
    EXPECT_FALSE(queuedRan.load());
}

TEST(AsyncRunner, AJobThatThrowsIsLoggedAndTheNextOneStillRuns) {
    NyTest::LogCapture log;
    std::promise<void> next;
    Ny::AsyncRunner runner;
    runner.Run([] { throw std::runtime_error("job failed"); });
    runner.Run([] { throw 42; });
    runner.Run([&] { next.set_value(); });
    EXPECT_EQ(next.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(log.Contains("AsyncRunner job exception: job failed"));
    EXPECT_TRUE(log.Contains("AsyncRunner job exception of unknown type"));
}

TEST(AsyncRunner, StartsAThreadAgainAfterAnIdleSpell) {
    Ny::AsyncRunner runner;
    for (int round = 0; round < 2; ++round) {
        std::promise<bool> ran;
        runner.Run([&] { ran.set_value(runner.IsRunnerThread()); });
        auto result = ran.get_future();
        ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_TRUE(result.get());
        // Let the thread end for lack of work; the next job must start a new one.
        std::this_thread::sleep_for(Ny::AsyncRunner::IdleTimeout + std::chrono::milliseconds(100));
    }
}

TEST(AsyncTimer, StopWaitsForTheRunningCallbackAndNoneStartsAfterwards) {
    std::promise<void> inCallback;
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> calls{0};
    std::atomic<bool> callbackRunning{false};
    Ny::AsyncTimer timer([&](Ny::AsyncTimer&) {
        callbackRunning = true;
        if (++calls == 1) {
            inCallback.set_value();
            released.wait();
        }
        callbackRunning = false;
    });
    timer.Start(1000, false);
    inCallback.get_future().wait();
    auto stopped = std::async(std::launch::async, [&] { timer.Stop(); });
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    stopped.get();
    EXPECT_FALSE(callbackRunning.load());
    const int afterStop = calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a running timer would fire ~20 times here
    EXPECT_EQ(calls.load(), afterStop);
}

TEST(AsyncTimer, PeriodicCallbacksKeepComingUntilStopped) {
    std::atomic<int> calls{0};
    std::promise<void> three;
    Ny::AsyncTimer timer([&](Ny::AsyncTimer&) {
        if (++calls == 3) {
            three.set_value();
        }
    });
    timer.Start(1000, false);
    EXPECT_EQ(three.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    timer.Stop();
}

TEST(Core, FactoryRestoreRaisesTheEventAndRunStateIsKept) {
    NyCore::Core core;
    EXPECT_EQ(core.GetRunState(), 0);
    core.SetRunState(NyCore::Core::Running);
    EXPECT_EQ(core.GetRunState(), 1);
    int restores = 0;
    core.FactoryRestoreEvent().Subscribe([&] { ++restores; });
    core.AnnounceFactoryRestore();
    EXPECT_EQ(restores, 1);
}

}  // namespace
