// Lifecycle of routines under the manager when calls meet at awkward moments: the limit while a
// creation is held or a clear runs, a creation inside its factory when a clear or the teardown comes,
// a plug-in unloaded under a running factory, a removal while a request holds the routine, and a clear
// whose abort fails. Each case is driven by gates, never by timing.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/RoutinePlugin.h"
#include "TestRoutines.h"

namespace {

using NyTest::Generous;
using NyTest::StatusOf;

using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutineRegistry;
using NyTest::Eventually;
using NyTest::Gate;
using NyTest::ScriptedFactory;
using NyTest::ScriptedRoutine;

// How long a test lets a call that should stay blocked try to get through before it goes on.
constexpr auto Chance = std::chrono::milliseconds(200);

// A factory that stops inside CreateRoutine until its gate opens, and counts live routine objects.
class HeldFactory : public NyRoutine::IRoutineFactory {
  public:
    explicit HeldFactory(ScriptedRoutine::RunFx runIn = {}) : inner(std::move(runIn)) {}
    ~HeldFactory() override { *destroyed = true; }
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override {
        const auto destroyedFlag = destroyed;  // read without touching `this` after the gate
        entered.Open();
        if (hold) {
            release.Wait(Generous);
        }
        if (*destroyedFlag) {
            usedAfterFree = true;
            return nullptr;
        }
        return inner.CreateRoutine();
    }
    bool hold = true;
    Gate entered;
    Gate release;
    ScriptedFactory inner;
    std::shared_ptr<std::atomic<bool>> destroyed = std::make_shared<std::atomic<bool>>(false);
    static inline std::atomic<bool> usedAfterFree{false};
};

void WaitForUser(ScriptedRoutine&, IRoutineHost& host) {
    host.WaitForContinue([](IRoutineHost&) {});
}

class LifecycleTest : public ::testing::Test {
  protected:
    LifecycleTest() : waits(WaitForUser) {
        registry.Add(RoutineInfo("Calib", waits, false));
        registry.Add(RoutineInfo("Quick", quick, true));
        registry.Add(RoutineInfo("Held", held, true));
    }

    NyTest::LogCapture log;
    ScriptedFactory waits;
    ScriptedFactory quick;
    HeldFactory held;
    RoutineRegistry registry;
    NyCore::Core core;
};

TEST_F(LifecycleTest, HeldCreationCountsOnceTowardTheLimit) {
    RoutineManager manager(registry, &core, 2);
    auto first = std::async(std::launch::async, [&] { return manager.Create("Calib", nullptr); });
    ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 1; }));
    EXPECT_EQ(manager.Create("Quick", nullptr), "Quick-1");
    EXPECT_EQ(StatusOf([&] { manager.Create("Quick", nullptr); }), -1000);
    manager.GetInstance("Calib-0").Continue();
    EXPECT_EQ(first.get(), "Calib-0");
}

TEST_F(LifecycleTest, CreationDuringAClearNeitherPassesTheLimitNorSurvivesIt) {
    // The first routine's abort stops in its completion callback, so the clear stays in its aborts.
    Gate ran;
    Gate inAbort;
    Gate finishAbort;
    quick.run = [&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) {
            if (aborted) {
                inAbort.Open();
                finishAbort.Wait(Generous);
            }
        });
        ran.Open();
    };
    RoutineManager manager(registry, &core, 1);
    const std::string first = manager.Create("Quick", nullptr);
    ASSERT_TRUE(ran.Wait());
    auto clear = std::async(std::launch::async, [&] { manager.ClearAllRoutines(); });
    ASSERT_TRUE(inAbort.Wait());
    held.hold = false;
    auto second = std::async(std::launch::async, [&] { return manager.Create("Held", nullptr); });
    // Given the chance, a creation that got past the limit would now be in its factory.
    const bool passed = held.entered.Wait(Chance);
    finishAbort.Open();
    clear.get();
    EXPECT_FALSE(passed) << "a creation passed the limit while the clear aborted the routine before it";
    EXPECT_EQ(second.get(), "Held-1");
    EXPECT_EQ(manager.ListIds(), std::vector<std::string>{"Held-1"});
}

TEST_F(LifecycleTest, CreationInItsFactoryWhenAClearBeginsIsClearedToo) {
    RoutineManager manager(registry, &core, 0);
    int created = 0;
    auto counting = manager.CreatedEvent().SubscribeScoped([&](const std::string&) { ++created; });
    auto creation = std::async(std::launch::async, [&] { return manager.Create("Held", nullptr); });
    ASSERT_TRUE(held.entered.Wait());
    manager.ClearAllRoutines();
    held.release.Open();
    EXPECT_EQ(StatusOf([&] { creation.get(); }), -999);
    EXPECT_TRUE(manager.ListIds().empty());
    EXPECT_EQ(created, 0);
}

TEST_F(LifecycleTest, DestroyingTheManagerFailsCreationsInTheirFactoryOrStart) {
    auto manager = std::make_unique<RoutineManager>(registry, &core, 0);
    auto waiting = std::async(std::launch::async, [&] { return manager->Create("Calib", nullptr); });
    ASSERT_TRUE(Eventually([&] { return manager->ListIds().size() == 1; }));
    auto inFactory = std::async(std::launch::async, [&] { return manager->Create("Held", nullptr); });
    ASSERT_TRUE(held.entered.Wait());
    auto destroy = std::async(std::launch::async, [&] { manager.reset(); });
    // The creation waiting for its continue is let go without one.
    ASSERT_EQ(waiting.wait_for(Generous), std::future_status::ready);
    EXPECT_EQ(StatusOf([&] { waiting.get(); }), -999);
    held.release.Open();
    ASSERT_EQ(destroy.wait_for(Generous), std::future_status::ready) << "destruction hangs";
    EXPECT_NE(StatusOf([&] { inFactory.get(); }), 1);
}

TEST_F(LifecycleTest, UnloadingThePluginDuringItsFactoryKeepsTheFactoryAlive) {
    RoutineRegistry pluginTypes;
    std::weak_ptr<HeldFactory> factoryAlive;
    {
        auto factory = std::make_shared<HeldFactory>();
        factoryAlive = factory;
        auto plugin = NyRoutine::RoutinePlugin::Create();
        plugin->AddOwnedObject(factory).AddRoutineInfo(RoutineInfo("Plugged", *factory, true));
        pluginTypes.Add(plugin->RoutineInfoAt(0), plugin);
    }
    auto manager = std::make_unique<RoutineManager>(pluginTypes, &core, 0);
    auto creation = std::async(std::launch::async, [&] { return manager->Create("Plugged", nullptr); });
    auto factory = factoryAlive.lock();
    ASSERT_TRUE(factory);
    ASSERT_TRUE(factory->entered.Wait());
    const auto destroyed = factory->destroyed;
    factory->release.Open();
    // The unload: the registry forgets the type while the factory still runs.
    pluginTypes.Remove("Plugged");
    factory.reset();
    EXPECT_EQ(creation.get(), "Plugged-0");
    EXPECT_FALSE(HeldFactory::usedAfterFree);
    EXPECT_FALSE(*destroyed) << "the live routine's plug-in was released";
    manager.reset();
    EXPECT_TRUE(*destroyed) << "the plug-in outlived its last routine";
}

TEST_F(LifecycleTest, RemovalEndsTheRoutineBeforeItsDeletionAlsoWhenARequestHoldsIt) {
    quick.run = [](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([](IRoutineHost&, bool) {});
    };
    RoutineManager manager(registry, &core, 0);
    const std::string id = manager.Create("Quick", nullptr);
    const auto request = manager.AcquireInstance(id);
    RoutineState stateAtDeletion = RoutineState::Ready;
    auto deletion = manager.DeletedEvent().SubscribeScoped(
        [&](const std::string&) { stateAtDeletion = request->State(); });
    manager.Remove(id);
    EXPECT_EQ(stateAtDeletion, RoutineState::Aborted);
    EXPECT_EQ(request->State(), RoutineState::Aborted);
}

// The limit keeps two routines' code from running at once, so a removal or a clear that has returned
// has given its place back, whoever still holds the routine: the creating call its removal released
// (it returns only after), a request that reads the routine meanwhile. The request is what holds it
// here, so that the creating call's late return cannot hide the fault.
TEST_F(LifecycleTest, RemovalAndClearGiveThePlaceBackBeforeTheyReturnWhoeverHoldsTheRoutine) {
    enum class Removal { Remove, Clear };
    for (const Removal how : {Removal::Remove, Removal::Clear}) {
        SCOPED_TRACE(how == Removal::Remove ? "remove" : "clear");
        RoutineManager manager(registry, &core, 1);
        auto creation = std::async(std::launch::async, [&] { return manager.Create("Calib", nullptr); });
        ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 1; }));
        const std::string id = manager.ListIds().front();
        const auto request = manager.AcquireInstance(id);
        ASSERT_TRUE(Eventually([&] { return request->State() == RoutineState::WaitingForFeedback; }));
        if (how == Removal::Remove) {
            manager.Remove(id);
        } else {
            manager.ClearAllRoutines();
        }
        std::string next;
        EXPECT_EQ(StatusOf([&] { next = manager.Create("Quick", nullptr); }), 1)
            << "the removed routine still held the only place";
        EXPECT_EQ(request->State(), RoutineState::Aborted);
        ASSERT_EQ(creation.wait_for(Generous), std::future_status::ready);
        EXPECT_EQ(StatusOf([&] { creation.get(); }), -999);
        if (!next.empty()) {
            manager.Remove(next);
        }
    }
}

// A request that still holds a removed routine cannot make its code run: a parameter write reaches no
// change callback of the routine.
TEST_F(LifecycleTest, RequestHoldingARemovedRoutineRunsNoneOfItsCode) {
    std::atomic<int> changed{0};
    waits.run = [&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [&](Ny::Properties::Structure&) { ++changed; });
        host.WaitForContinue([](IRoutineHost&) {});
    };
    RoutineManager manager(registry, &core, 1);
    auto creation = std::async(std::launch::async, [&] { return manager.Create("Calib", nullptr); });
    ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 1; }));
    const auto request = manager.AcquireInstance(manager.ListIds().front());
    ASSERT_TRUE(Eventually([&] { return request->State() == RoutineState::WaitingForFeedback; }));
    manager.Remove(request->Id());
    {
        NyRoutine::Internal::ParamsAccess access(*request, true);
        EXPECT_EQ(access.Get(), nullptr) << "the parameters of a removed routine are open for writing";
    }
    EXPECT_EQ(changed.load(), 0);
    EXPECT_EQ(StatusOf([&] { creation.get(); }), -999);
}

TEST_F(LifecycleTest, ClearWhoseAbortFailsTellsTheHeldCreationTheTruth) {
    Gate ran;
    std::future<std::string> waiting;
    quick.run = [&](ScriptedRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&](IRoutineHost&, bool aborted) {
            if (aborted) {
                // The released creation gets its chance to answer before the clear decides.
                waiting.wait_for(Chance);
                throw Ny::Exception(__LINE__, __FILE__, -1, "completion", "refused");
            }
        });
        ran.Open();
    };
    RoutineManager manager(registry, &core, 0);
    ASSERT_EQ(manager.Create("Quick", nullptr), "Quick-0");
    ASSERT_TRUE(ran.Wait());
    waiting = std::async(std::launch::async, [&] { return manager.Create("Calib", nullptr); });
    ASSERT_TRUE(Eventually([&] { return manager.ListIds().size() == 2; }));
    // "Calib-1" is aborted (and its creation let go) before "Quick-0", whose abort throws.
    EXPECT_NE(StatusOf([&] { manager.ClearAllRoutines(); }), 1);
    const auto ids = manager.ListIds();
    const bool kept = std::find(ids.begin(), ids.end(), "Calib-1") != ids.end();
    const int status = StatusOf([&] { waiting.get(); });
    EXPECT_EQ(status == 1, kept) << "the creation was told " << status << " while the routine "
                                 << (kept ? "stayed" : "went");
}

TEST_F(LifecycleTest, RefusedParameterWriteStillReleasesTheRoutine) {
    Gate published;
    quick.run = [&](ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [](Ny::Properties::Structure&) {
            throw Ny::Exception(__LINE__, __FILE__, -997, "onChanged", "refused");
        });
        published.Open();
    };
    RoutineManager manager(registry, &core, 0);
    const auto instance = manager.AcquireInstance(manager.Create("Quick", nullptr));
    ASSERT_TRUE(published.Wait());
    {
        NyRoutine::Internal::ParamsAccess access(*instance, true);
        ASSERT_NE(access.Get(), nullptr);
        EXPECT_EQ(StatusOf([&] { access.Release(); }), -997);
    }
    // Another request gets the parameters: the refused write left nothing locked.
    auto reader = std::async(std::launch::async, [&] {
        NyRoutine::Internal::ResultsAccess results(*instance);
        return results.Get() == nullptr;
    });
    ASSERT_EQ(reader.wait_for(Generous), std::future_status::ready) << "the routine stayed locked";
    EXPECT_TRUE(reader.get());
}

}  // namespace
