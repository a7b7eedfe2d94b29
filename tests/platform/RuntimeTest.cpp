#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "NyApi/Locker.h"
#include "NyApi/Logging.h"
#include "NyApi/Object.h"
#include "NyApi/Properties/Structure.h"
#include "NyRuntime/Runtime.h"

// Call sites for the log context test, outside the anonymous namespace so that their names are plain.
namespace LogSites {
template <typename T>
void Measured(T value) {
    NY_LOG(Ny::Logging::Level::Progress, "measured %d", static_cast<int>(value));
}
struct Step {
    void Report() { NY_LOG(Ny::Logging::Level::Notice, "%s", "step"); }
};
}  // namespace LogSites

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
        EXPECT_TRUE(NyRt::WaitsGaveUp());
    }
    EXPECT_FALSE(NyRt::WaitsGaveUp());  // outside every scope nothing has given up
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

// Each call site names its own function, for every instantiation of a template, whether its first line
// was logged with a sink or without one; the name is the enclosing function's, not the macro's helper.
TEST(RuntimeLog, ContextIsTheQualifiedNameOfEachCallSite) {
    LogSites::Measured(1.5);  // no sink yet: the first use of this call site's context
    NyTest::LogCapture log;
    LogSites::Measured(1.5);
    LogSites::Measured(2);
    LogSites::Step().Report();
    LogSites::Measured(3);
    std::vector<std::string> contexts;
    for (const auto& record : log.Records()) {
        contexts.push_back(record.context);
    }
    EXPECT_EQ(contexts, (std::vector<std::string>{"LogSites::Measured", "LogSites::Measured",
                                                  "LogSites::Step::Report", "LogSites::Measured"}));
}

// Schema entries are kept in place for the first and in a vector from the second on; both forms of
// RegisterSchema must behave the same on either side of that switch and of the vector's first growth.
TEST(SchemaRegistration, EntriesAreReplacedOrKeptByKeyInOrderAtAnyCount) {
    constexpr int EntryCount = 12;  // past the in-place entry and the vector's first capacity
    Ny::Properties::Structure node;
    std::vector<std::unique_ptr<Ny::Properties::Structure>> children;
    for (int i = 0; i <= EntryCount; ++i) {
        children.push_back(std::make_unique<Ny::Properties::Structure>(false));
    }
    Ny::Properties::Structure& spare = *children.back();

    // An empty key is a key like any other.
    EXPECT_EQ(&node.RegisterSchema("", spare), &spare);
    EXPECT_EQ(&node.RegisterSchema("", spare, false), &spare);
    ASSERT_EQ(node.SchemaEntries().size(), 1u);
    for (int i = 1; i < EntryCount; ++i) {
        // Keys of one length and first letter, told apart only by the rest.
        EXPECT_EQ(&node.RegisterSchema("key" + std::to_string(i % 10) + std::to_string(i), *children[i]),
                  children[i].get());
    }
    ASSERT_EQ(node.SchemaEntries().size(), static_cast<size_t>(EntryCount));
    EXPECT_EQ(node.Schema()->Find("key55"), children[5].get());

    // Kept: the entry turned on before stays and is what the call returns.
    EXPECT_EQ(&node.RegisterSchema("key33", spare, false), children[3].get());
    EXPECT_EQ(&node.RegisterSchema("", *children[0], false), &spare);
    // Replaced in its place, and the schema view follows.
    EXPECT_EQ(&node.RegisterSchema("key55", spare), &spare);
    EXPECT_EQ(&node.RegisterSchema("", *children[0]), children[0].get());
    ASSERT_EQ(node.SchemaEntries().size(), static_cast<size_t>(EntryCount));
    EXPECT_EQ(node.SchemaEntries()[0].child, children[0].get());
    EXPECT_EQ(node.SchemaEntries()[3].key, "key33");
    EXPECT_EQ(node.SchemaEntries()[3].child, children[3].get());
    EXPECT_EQ(node.SchemaEntries()[5].child, &spare);
    EXPECT_EQ(node.Schema()->Find("key55"), &spare);
    EXPECT_EQ(node.Schema()->Children().size(), static_cast<size_t>(EntryCount));
}

TEST(SchemaRegistration, StructureReplacesChildrenInPlaceWithOrWithoutReserving) {
    constexpr int ChildCount = 10;  // past the first and second growth of the children
    for (const bool reserve : {false, true}) {
        Ny::Properties::Structure node;
        if (reserve) {
            node.Reserve(ChildCount);
        }
        Ny::Properties::Structure children[ChildCount];
        Ny::Properties::Structure replacement;
        for (int i = 0; i < ChildCount; ++i) {
            node.Register("c" + std::to_string(i), children[i]);
        }
        EXPECT_EQ(&node.Register("c7", replacement), &replacement);
        ASSERT_EQ(node.Children().size(), static_cast<size_t>(ChildCount));
        for (int i = 0; i < ChildCount; ++i) {
            EXPECT_EQ(node.Children()[i].key, "c" + std::to_string(i));
            EXPECT_EQ(node.Find("c" + std::to_string(i)), i == 7 ? &replacement : &children[i]);
        }
        EXPECT_EQ(node.Find("c"), nullptr);
        EXPECT_EQ(node.Find("c10"), nullptr);
    }
}

}  // namespace
