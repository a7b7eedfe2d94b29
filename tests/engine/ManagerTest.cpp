// The routine manager: ids, the limit, the running-system refusal, removal, clearing, factory restore,
// the release of waiting creations, and parallel use.
#include <gtest/gtest.h>

#include <future>
#include <random>
#include <set>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "TestRoutines.h"

namespace {

using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutineRegistry;
using NyTest::Eventually;
using NyTest::ScriptedFactory;
using NyTest::ScriptedRoutine;

void WaitForUser(ScriptedRoutine&, IRoutineHost& host) {
    host.WaitForContinue([](IRoutineHost&) {});
}

class ManagerTest : public ::testing::Test {
  protected:
    ManagerTest() : waits(WaitForUser), quick() {
        registry.Add(RoutineInfo("Calib", waits, false));
        registry.Add(RoutineInfo("Quick", quick, true));
    }

    int ErrorStatus(const std::function<void()>& call) {
        try {
            call();
        } catch (const Ny::Exception& e) {
            return e.Status();
        }
        return 1;
    }

    NyTest::LogCapture log;
    ScriptedFactory waits;
    ScriptedFactory quick;
    RoutineRegistry registry;
    NyCore::Core core;
};

TEST_F(ManagerTest, IdsCountAcrossTypesRemovalsAndClears) {
    RoutineManager manager(registry, &core, 0);
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-0");
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-1");
    manager.Remove("Quick-0");
    manager.ClearAllRoutines();
    for (int i = 2; i < 10; ++i) {
        manager.Create("Quick", nullptr);
    }
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-10");
    const auto ids = manager.ListIds();
    ASSERT_EQ(ids.size(), 9u);
    EXPECT_EQ(ids.front(), "Quick-10");  // byte-wise order: "-10" before "-2"
}

TEST_F(ManagerTest, LimitCountsStoppedRoutinesUntilRemoved) {
    RoutineManager manager(registry, &core, 1);
    const std::string first = manager.Create("Quick", nullptr);
    ASSERT_TRUE(Eventually([&] { return manager.GetInstance(first).State() == RoutineState::Completed; }));
    try {
        manager.Create("Quick", nullptr);
        FAIL() << "second routine admitted at the limit";
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -1000);
        EXPECT_EQ(
            e.Message(),
            "Routine [Quick] cannot be created: the routine limit of [1] is reached (a finished routine "
            "counts until it is deleted).");
    }
    EXPECT_EQ(manager.Limit(), 1u);
    const auto refusals = log.Records();
    EXPECT_TRUE(std::any_of(refusals.begin(), refusals.end(), [](const auto& record) {
        return record.levelWord == Ny::Logging::Level::ManagerRefusal && record.context == "RoutineManager" &&
               record.text ==
                   "Routine [Quick] cannot be created; maximum number of [1] concurrently running routines "
                   "reached.";
    }));
    manager.Remove(first);
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-1");
}

TEST_F(ManagerTest, RunningSystemRefusesKnownTypesAndUnknownTypesAreNotFound) {
    RoutineManager manager(registry, &core, 0);
    core.SetRunState(NyCore::Core::Running);
    EXPECT_EQ(ErrorStatus([&] { manager.Create("Quick", nullptr); }), -1000);
    EXPECT_TRUE(log.Contains("Routine [Quick] cannot be created while system is running."));
    EXPECT_EQ(ErrorStatus([&] { manager.Create("Nope", nullptr); }), -999);
    core.SetRunState(0);
    EXPECT_EQ(ErrorStatus([&] { manager.Create("Quick", nullptr); }), 1);
    EXPECT_EQ(ErrorStatus([&] { manager.Remove("Quick-99"); }), -999);
    EXPECT_EQ(ErrorStatus([&] { manager.GetInstance("Quick-99"); }), -999);
}

TEST_F(ManagerTest, FactoryThatMakesNothingIsRefusedBeforeAnythingIsRegistered) {
    struct NullFactory : NyRoutine::IRoutineFactory {
        std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return nullptr; }
    } nothing;
    registry.Add(RoutineInfo("Broken", nothing, true));
    RoutineManager manager(registry, nullptr, 1);
    EXPECT_EQ(ErrorStatus([&] { manager.Create("Broken", nullptr); }), -992);
    EXPECT_TRUE(manager.ListIds().empty());
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-0");  // no id was used, the place is free again
}

TEST_F(ManagerTest, EventsComeBeforeStartAndAfterRemoval) {
    RoutineManager manager(registry, &core, 0);
    std::vector<std::string> events;
    manager.CreatedEvent().Subscribe([&](const std::string& id) {
        events.push_back("created " + id + " " +
                         std::to_string(static_cast<int>(manager.GetInstance(id).State())));
    });
    manager.DeletedEvent().Subscribe([&](const std::string& id) { events.push_back("deleted " + id); });
    const std::string id = manager.Create("Quick", nullptr);
    manager.Remove(id);
    manager.ClearAllRoutines();
    EXPECT_EQ(events, (std::vector<std::string>{"created Quick-0 0", "deleted Quick-0", "deleted *"}));
    EXPECT_EQ(log.Texts(Ny::Logging::Level::Notice),
              std::vector<std::string>{"Routine(s) are going to abort."});
}

TEST_F(ManagerTest, WaitingCreationIsReleasedByRemoveClearAndFactoryRestore) {
    enum class Release { Remove, Clear, FactoryRestore, Abort };
    for (const Release how : {Release::Remove, Release::Clear, Release::FactoryRestore, Release::Abort}) {
        RoutineManager manager(registry, &core, 1);
        auto creation = std::async(std::launch::async, [&] { return manager.Create("Calib", nullptr); });
        ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 1; }));
        const std::string id = manager.ListIds().front();
        ASSERT_TRUE(
            Eventually([&] { return manager.GetInstance(id).State() == RoutineState::WaitingForFeedback; }));
        switch (how) {
            case Release::Remove:
                manager.Remove(id);
                break;
            case Release::Clear:
                manager.ClearAllRoutines();
                break;
            case Release::FactoryRestore:
                core.AnnounceFactoryRestore();
                break;
            case Release::Abort:
                manager.GetInstance(id).Abort();
                break;
        }
        ASSERT_EQ(creation.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        if (how == Release::Abort) {
            EXPECT_EQ(creation.get(), id);  // the routine exists, aborted
            EXPECT_EQ(manager.GetInstance(id).State(), RoutineState::Aborted);
        } else {
            EXPECT_EQ(ErrorStatus([&] { creation.get(); }), -999);
            EXPECT_TRUE(manager.ListIds().empty());
        }
    }
}

TEST_F(ManagerTest, AcquiredInstanceOutlivesItsRemoval) {
    RoutineManager manager(registry, &core, 0);
    const std::string id = manager.Create("Quick", nullptr);
    auto held = manager.AcquireInstance(id);
    int deleted = 0;
    held->DeletedEvent().Subscribe([&](const std::string&) { ++deleted; });
    manager.Remove(id);
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(held->TypeInfo()->TypeName(), std::string("Quick"));
    held.reset();
    EXPECT_EQ(deleted, 1);
}

TEST_F(ManagerTest, RecordOfAnUnloadedTypeLivesAsLongAsItsRoutines) {
    RoutineManager manager(registry, &core, 0);
    const std::string id = manager.Create("Quick", nullptr);
    registry.Remove("Quick");
    EXPECT_EQ(ErrorStatus([&] { manager.Create("Quick", nullptr); }), -999);
    EXPECT_STREQ(manager.GetInstance(id).TypeInfo()->TypeName(), "Quick");
    manager.Remove(id);
}

// Many threads continue, abort, remove, lock and read random routines while others create them.
// Every call must return and every instance must end exactly once.
TEST_F(ManagerTest, ParallelOperationsOnRandomRoutinesAllReturn) {
    std::atomic<int> deletedEvents{0};
    std::atomic<int> createdEvents{0};
    {
        RoutineManager manager(registry, &core, 0);
        manager.CreatedEvent().Subscribe([&](const std::string& id) {
            try {
                manager.AcquireInstance(id)->DeletedEvent().Subscribe(
                    [&](const std::string&) { ++deletedEvents; });
                ++createdEvents;
            } catch (const Ny::Exception&) {
                // Another worker removed it between its creation and this handler: not followed.
            }
        });
        std::atomic<bool> stop{false};
        std::atomic<int> calls{0};
        auto worker = [&](unsigned seed) {
            std::mt19937 random(seed);
            while (!stop) {
                const auto ids = manager.ListIds();
                const std::string id = ids.empty() ? "none" : ids[random() % ids.size()];
                try {
                    switch (random() % 8) {
                        case 0:
                            manager.Create(random() % 2 ? "Quick" : "Calib", nullptr);
                            break;
                        case 1:
                            manager.AcquireInstance(id)->Continue();
                            break;
                        case 2:
                            manager.AcquireInstance(id)->Abort();
                            break;
                        case 3:
                            manager.Remove(id);
                            break;
                        case 4: {
                            auto instance = manager.AcquireInstance(id);
                            instance->LockParams(random() % 2 == 0);
                            instance->UnlockParams();
                            instance->LockResults();
                            instance->UnlockResults();
                            break;
                        }
                        case 5:
                            if (random() % 50 == 0) {
                                manager.ClearAllRoutines();
                            }
                            break;
                        default:
                            static_cast<void>(manager.AcquireInstance(id)->State());
                            break;
                    }
                } catch (const Ny::Exception& e) {
                    EXPECT_TRUE(e.Status() == -999 || e.Status() == -1000) << e.what();
                }
                ++calls;
            }
        };
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 6; ++i) {
            threads.emplace_back(worker, i + 1);
        }
        // A creation may wait for a continue that a worker sends; stopping releases the rest by clearing.
        std::this_thread::sleep_for(std::chrono::seconds(2));
        stop = true;
        for (int round = 0;
             round < 50 && std::any_of(threads.begin(), threads.end(), [](auto& t) { return t.joinable(); });
             ++round) {
            manager.ClearAllRoutines();
            for (auto& thread : threads) {
                if (thread.joinable()) {
                    thread.join();
                }
            }
        }
        EXPECT_GT(calls.load(), 100);
    }
    // Every instance was destroyed once (removed, cleared or dropped with the manager) and ended once.
    EXPECT_EQ(deletedEvents.load(), createdEvents.load());
    std::set<std::string> ended;
    for (const std::string& text : log.Texts()) {
        if (text.rfind("Ending routine [", 0) == 0) {
            EXPECT_TRUE(ended.insert(text).second) << text;
        }
    }
    EXPECT_EQ(log.Count("Exception thrown in destructor"), 0u);
}

}  // namespace
