#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "LogCapture.h"
#include "NyApi/Locker.h"
#include "NyApi/Object.h"
#include "NyRuntime/Runtime.h"

namespace {

TEST(RuntimeLock, HolderMayEnterAgainAndOthersWaitUntilFullyReleased) {
    Ny::Object<NyRt::Lock> lock;
    ASSERT_EQ(NyRt::LockCreate(lock.Out()), NyRt::Ok);
    ASSERT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
    ASSERT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);  // re-entry

    std::atomic<bool> entered{false};
    std::thread other([&] {
        EXPECT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
        entered = true;
        EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    });
    // Another thread cannot get in while we hold it: a timed enter from a third thread expires.
    std::thread probe([&] { EXPECT_EQ(NyRt::LockEnter(lock.Get(), 1000), NyRt::TimedOut); });
    probe.join();
    ASSERT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    EXPECT_FALSE(entered.load());  // still held once
    ASSERT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    other.join();
    EXPECT_TRUE(entered.load());
}

TEST(RuntimeBoundedWaits, AThreadThatMustNotBlockGivesUpOnEveryEndlessWaitAndSaysSo) {
    Ny::Object<NyRt::Lock> lock;
    Ny::Object<NyRt::Semaphore> semaphore;
    ASSERT_EQ(NyRt::LockCreate(lock.Out()), NyRt::Ok);
    ASSERT_EQ(NyRt::SemaphoreCreate(semaphore.Out(), 0), NyRt::Ok);
    std::atomic<bool> release{false};
    std::atomic<bool> held{false};
    std::thread holder([&] {
        EXPECT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
        held = true;
        while (!release) {
            std::this_thread::yield();
        }
        EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    });
    while (!held) {
        std::this_thread::yield();
    }
    {
        const NyRt::BoundedWaits bounded(1000);
        EXPECT_FALSE(bounded.GaveUp());
        EXPECT_EQ(NyRt::LockEnter(lock.Get()), NyRt::TimedOut);  // asked without a time-out
        EXPECT_TRUE(bounded.GaveUp());
        {
            const NyRt::BoundedWaits inner(1000);
            EXPECT_FALSE(inner.GaveUp());
            EXPECT_EQ(NyRt::SemaphoreWait(semaphore.Get()), NyRt::TimedOut);
            EXPECT_TRUE(inner.GaveUp());
        }
        EXPECT_TRUE(bounded.GaveUp());
    }
    {
        // A wait with its own time-out keeps it, and a scope whose waits succeed did not give up.
        const NyRt::BoundedWaits bounded(1000);
        EXPECT_EQ(NyRt::SemaphorePost(semaphore.Get()), NyRt::Ok);
        EXPECT_EQ(NyRt::SemaphoreWait(semaphore.Get()), NyRt::Ok);
        EXPECT_FALSE(bounded.GaveUp());
    }
    // Outside any scope the wait is endless again: it returns once the holder lets go.
    std::thread releaser([&] { release = true; });
    EXPECT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
    EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    releaser.join();
    holder.join();
    // Bounds belong to their thread: another thread's endless wait is not bounded by ours.
    const NyRt::BoundedWaits bounded(1);
    std::thread other([&] {
        EXPECT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
        EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    });
    other.join();
    EXPECT_FALSE(bounded.GaveUp());
}

TEST(RuntimeLock, ExitByNonOwnerIsRefused) {
    Ny::Object<NyRt::Lock> lock;
    ASSERT_EQ(NyRt::LockCreate(lock.Out()), NyRt::Ok);
    EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::NotOwner);
    ASSERT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
    std::thread([&] { EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::NotOwner); }).join();
    EXPECT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
}

TEST(RuntimeSemaphore, WaitReturnsAfterPostAndTimesOutWithout) {
    Ny::Object<NyRt::Semaphore> semaphore;
    ASSERT_EQ(NyRt::SemaphoreCreate(semaphore.Out(), 0), NyRt::Ok);
    EXPECT_EQ(NyRt::SemaphoreWait(semaphore.Get(), 1000), NyRt::TimedOut);
    std::thread poster([&] { EXPECT_EQ(NyRt::SemaphorePost(semaphore.Get()), NyRt::Ok); });
    EXPECT_EQ(NyRt::SemaphoreWait(semaphore.Get()), NyRt::Ok);
    poster.join();
    EXPECT_EQ(NyRt::SemaphoreWait(semaphore.Get(), 0), NyRt::TimedOut);
}

NyRt::Status ReturnArgument(void* argument) {
    return *static_cast<int*>(argument);
}

TEST(RuntimeThread, JoinOfUnstartedThreadReturnsAtOnceAndRestartAfterReturnWorks) {
    Ny::Object<NyRt::Thread> thread;
    ASSERT_EQ(NyRt::ThreadCreate(thread.Out()), NyRt::Ok);
    NyRt::Status exit = 42;
    EXPECT_EQ(NyRt::ThreadJoin(thread.Get(), NyRt::NoTimeout, &exit), NyRt::Ok);
    EXPECT_EQ(exit, 0);

    int value = 7;
    ASSERT_EQ(NyRt::ThreadSetName(thread.Get(), "NyTest.Worker"), NyRt::Ok);
    ASSERT_EQ(NyRt::ThreadStart(thread.Get(), ReturnArgument, &value), NyRt::Ok);
    EXPECT_EQ(NyRt::ThreadJoin(thread.Get(), NyRt::NoTimeout, &exit), NyRt::Ok);
    EXPECT_EQ(exit, 7);

    value = -988;
    ASSERT_EQ(NyRt::ThreadStart(thread.Get(), ReturnArgument, &value), NyRt::Ok);
    EXPECT_EQ(NyRt::ThreadJoin(thread.Get(), NyRt::NoTimeout, &exit), NyRt::Ok);
    EXPECT_EQ(exit, -988);
}

TEST(RuntimeThread, StartWhileRunningIsBusy) {
    Ny::Object<NyRt::Semaphore> release;
    ASSERT_EQ(NyRt::SemaphoreCreate(release.Out(), 0), NyRt::Ok);
    Ny::Object<NyRt::Thread> thread;
    ASSERT_EQ(NyRt::ThreadCreate(thread.Out()), NyRt::Ok);
    auto waitForRelease = [](void* semaphore) {
        return NyRt::SemaphoreWait(static_cast<NyRt::Semaphore*>(semaphore));
    };
    ASSERT_EQ(NyRt::ThreadStart(thread.Get(), waitForRelease, release.Get()), NyRt::Ok);
    EXPECT_EQ(NyRt::ThreadStart(thread.Get(), waitForRelease, release.Get()), NyRt::Busy);
    EXPECT_EQ(NyRt::ThreadJoin(thread.Get(), 1000), NyRt::TimedOut);
    ASSERT_EQ(NyRt::SemaphorePost(release.Get()), NyRt::Ok);
    EXPECT_EQ(NyRt::ThreadJoin(thread.Get()), NyRt::Ok);
}

TEST(Locker, FailedEnterThrowsRuntimeStatusAndFailedExitIsLoggedNotThrown) {
    NyTest::LogCapture log;
    Ny::Object<NyRt::Lock> lock;
    ASSERT_EQ(NyRt::LockCreate(lock.Out()), NyRt::Ok);
    ASSERT_EQ(NyRt::LockEnter(lock.Get()), NyRt::Ok);
    std::thread([&] {
        try {
            Ny::Locker locker(lock.Get(), 1000);
            ADD_FAILURE() << "entered a lock held elsewhere";
        } catch (const Ny::Exception& e) {
            EXPECT_EQ(e.Status(), NyRt::TimedOut);
        }
    }).join();
    {
        Ny::Locker nested(lock.Get());  // re-entry, then a normal exit
    }
    ASSERT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);
    {
        Ny::Locker locker(lock.Get());
        ASSERT_EQ(NyRt::LockExit(lock.Get()), NyRt::Ok);  // leaves the Locker's exit to fail
    }
    const auto lines = log.Texts(Ny::Logging::Level::CaughtFailure);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Exception thrown in destructor");
}

TEST(RuntimeLog, LinesReachTheSinkFormatted) {
    NyTest::LogCapture log;
    NyRt::Log("RoutinesResource::SetRoutineParams: %s", "not updating parameters");
    EXPECT_EQ(log.RuntimeLines(),
              std::vector<std::string>{"RoutinesResource::SetRoutineParams: not updating parameters"});
}

}  // namespace
