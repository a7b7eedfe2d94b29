// Notifications of the routines resource per routine path: created, updated..., deleted and nothing
// after, also when a flush, a removal, a clear and the resource's destruction meet; and a model-based
// stress of six threads of random operations against the manager and the resource.
#include <gtest/gtest.h>

#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "TestRoutines.h"

namespace {

using nlohmann::json;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutinesDir;
using NyTest::Eventually;
using NyTest::Gate;
using NyTest::ScriptedRoutine;

// Records notifications per path and checks their order as they come.
class OrderChecker {
  public:
    void Record(NyRest::EventType type, const std::string& path) {
        std::lock_guard guard(mutex);
        if (path == "/routines") {
            return;
        }
        auto& state = paths[path];
        switch (type) {
            case NyRest::EventType::Created:
                if (state != 0) {
                    violations.push_back("created twice or late: " + path);
                }
                state = 1;
                break;
            case NyRest::EventType::Deleted:
                if (state != 1) {
                    violations.push_back("deleted without created or twice: " + path);
                }
                state = 2;
                break;
            default:
                if (state != 1) {
                    violations.push_back("updated outside created..deleted: " + path);
                }
                ++updates[path];
                break;
        }
    }
    std::vector<std::string> Violations() {
        std::lock_guard guard(mutex);
        return violations;
    }
    int Updates(const std::string& path) {
        std::lock_guard guard(mutex);
        return updates[path];
    }

  private:
    std::mutex mutex;
    std::map<std::string, int> paths;  // 0 unknown, 1 created, 2 deleted
    std::map<std::string, int> updates;
    std::vector<std::string> violations;
};

void ReportsSteps(ScriptedRoutine&, IRoutineHost& host) {
    host.SetTotalSteps(3);
    host.SetCurrentStep(1, "one");
}

TEST(NotificationOrder, FlushNeverUpdatesARoutineDeletedDuringIt) {
    NyTest::LogCapture log;
    NyTest::ScriptedFactory steps(ReportsSteps);
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("Steps", steps, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    RoutineManager manager(registry, &core, 0);
    RoutinesDir dir(router, manager);
    OrderChecker order;
    // The flush's update of the first routine removes the second, whose update is due in the same flush.
    std::once_flag removed;
    auto recording = router.NotificationEvent().SubscribeScoped([&](NyRest::EventType type,
                                                                    std::string path) {
        order.Record(type, path);
        if (type == NyRest::EventType::Updated && path == "/routines/Steps-0" && order.Updates(path) > 1) {
            std::call_once(removed, [&] { manager.Remove("Steps-1"); });
        }
    });
    manager.Create("Steps", nullptr);
    manager.Create("Steps", nullptr);
    for (const char* id : {"Steps-0", "Steps-1"}) {
        manager.GetInstance(id).SetTotalSteps(3);
    }
    manager.GetInstance("Steps-0").SetCurrentStep(2, "two");
    manager.GetInstance("Steps-1").SetCurrentStep(2, "two");
    ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 1; }));
    EXPECT_EQ(order.Violations(), std::vector<std::string>{});
}

TEST(NotificationOrder, RoutineCreatedDuringAClearIsFollowedAndLetGoWithTheResource) {
    NyTest::LogCapture log;
    Gate ran;
    Gate inAbort;
    Gate finishAbort;
    NyTest::ScriptedFactory slow([&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) {
            if (aborted) {
                inAbort.Open();
                finishAbort.Wait();
            }
        });
        ran.Open();
    });
    Gate lateRunning;
    Gate report;
    NyTest::ScriptedFactory late([&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetTotalSteps(2);
        lateRunning.Open();
        report.Wait();
        host.SetCurrentStep(1, "late");
        host.SetResults(new NyTest::TestResults());
    });
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("Slow", slow, true));
    registry.Add(RoutineInfo("Late", late, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    RoutineManager manager(registry, &core, 0);
    std::atomic<int> afterDestruction{0};
    std::atomic<bool> destroyed{false};
    auto counting = router.NotificationEvent().SubscribeScoped([&](NyRest::EventType, std::string) {
        if (destroyed) {
            ++afterDestruction;
        }
    });
    {
        RoutinesDir dir(router, manager);
        manager.Create("Slow", nullptr);
        ASSERT_TRUE(ran.Wait());
        auto clear = std::async(std::launch::async, [&] { manager.ClearAllRoutines(); });
        ASSERT_TRUE(inAbort.Wait());
        auto creation = std::async(std::launch::async, [&] { return manager.Create("Late", nullptr); });
        // Given the chance, a creation that does not wait for the clear is running by now.
        lateRunning.Wait(std::chrono::milliseconds(200));
        finishAbort.Open();
        clear.get();
        EXPECT_EQ(creation.get(), "Late-1");
        ASSERT_TRUE(lateRunning.Wait());
    }
    destroyed = true;
    report.Open();
    ASSERT_TRUE(Eventually([&] { return manager.GetInstance("Late-1").CurrentStep() == 1; }));
    EXPECT_EQ(afterDestruction, 0);
}

// Six threads of random operations; every notification order, the limit at every sample, every call's
// return and every routine's single end and destruction are checked.
void Stress(size_t limit, unsigned seed) {
    NyTest::LogCapture log;
    std::atomic<int> alive{0};
    std::atomic<int> made{0};
    std::atomic<int> maxAlive{0};
    struct Counted : ScriptedRoutine {
        Counted(std::atomic<int>& aliveIn, RunFx run) : ScriptedRoutine(std::move(run)), count(aliveIn) {}
        ~Counted() override { --count; }
        std::atomic<int>& count;
    };
    struct CountingFactory : NyRoutine::IRoutineFactory {
        CountingFactory(std::atomic<int>* aliveIn, std::atomic<int>* madeIn, std::atomic<int>* maxIn,
                        bool waitsIn)
            : alive(aliveIn), made(madeIn), maxAlive(maxIn), waits(waitsIn) {}
        std::atomic<int>* alive;
        std::atomic<int>* made;
        std::atomic<int>* maxAlive;
        bool waits;
        std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override {
            ++*made;
            const int now = ++*alive;
            int seen = maxAlive->load();
            while (now > seen && !maxAlive->compare_exchange_weak(seen, now)) {
            }
            const bool wait = waits;
            return std::make_shared<Counted>(*alive, [wait](ScriptedRoutine&, IRoutineHost& host) {
                host.SetTotalSteps(5);
                host.SetCurrentStep(1, "x");
                if (wait) {
                    host.WaitForContinue([](IRoutineHost& h) { h.SetCurrentStep(2, "y"); });
                }
            });
        }
    };
    CountingFactory waiting(&alive, &made, &maxAlive, true);
    CountingFactory quick(&alive, &made, &maxAlive, false);
    NyRoutine::Internal::RoutineRegistry registry;
    registry.Add(RoutineInfo("W", waiting, false));
    registry.Add(RoutineInfo("Q", quick, true));
    NyCore::Core core;
    NyRest::ResourceRouter router;
    OrderChecker order;
    auto recording = router.NotificationEvent().SubscribeScoped(
        [&](NyRest::EventType type, std::string path) { order.Record(type, path); });
    auto manager = std::make_unique<RoutineManager>(registry, &core, limit);
    auto dir = std::make_unique<RoutinesDir>(router, *manager);
    std::atomic<int> returned{0};
    std::atomic<int> settled{0};  // threads that finished or wait in a creation for a continue
    constexpr int Threads = 6;
    constexpr int Operations = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(seed + t);
            for (int i = 0; i < Operations; ++i) {
                const auto ids = manager->ListIds();
                const std::string some = ids.empty() ? "W-0" : ids[random() % ids.size()];
                try {
                    switch (random() % 8) {
                        case 0: {
                            ++settled;
                            struct Unsettle {
                                std::atomic<int>& count;
                                ~Unsettle() { --count; }
                            } unsettle{settled};
                            router.Dispatch("POST", "/routines", json{{"type", "W"}});
                            break;
                        }
                        case 1:
                            manager->Create("Q", nullptr);
                            break;
                        case 2:
                            manager->AcquireInstance(some)->Continue();
                            break;
                        case 3:
                            manager->AcquireInstance(some)->Abort();
                            break;
                        case 4:
                            router.Dispatch("PUT", "/routines/" + some, json{{"parameters", json::object()}});
                            break;
                        case 5:
                            manager->Remove(some);
                            break;
                        case 6:
                            router.Dispatch("DELETE", "/routines/*", nullptr);
                            break;
                        default:
                            core.FactoryRestoreEvent().Raise();
                            break;
                    }
                } catch (const std::exception&) {
                }
                if (limit != 0 && manager->ListIds().size() > limit) {
                    ADD_FAILURE() << "limit passed";
                }
            }
            ++returned;
            ++settled;
        });
    }
    // The teardown's first step lets go the creations still waiting for a continue that no thread will
    // give any more; the threads then finish, and the rest of the teardown follows.
    EXPECT_TRUE(Eventually([&] { return settled == Threads; }, std::chrono::seconds(60)));
    manager->Close();
    for (auto& thread : threads) {
        thread.join();
    }
    dir.reset();
    manager.reset();
    EXPECT_EQ(returned, Threads);
    EXPECT_EQ(alive, 0) << "a routine object was never destroyed";
    if (limit != 0) {
        // A factory may make one object beyond the limit only for a creation the clear then drops.
        EXPECT_LE(maxAlive, static_cast<int>(limit) + Threads);
    }
    EXPECT_EQ(order.Violations(), std::vector<std::string>{});
}

TEST(NotificationOrder, RandomOperationsKeepOrderLimitAndLifetimes) {
    for (unsigned seed = 1; seed <= 2; ++seed) {
        Stress(0, seed);
        Stress(1, seed * 7);
    }
}

}  // namespace
