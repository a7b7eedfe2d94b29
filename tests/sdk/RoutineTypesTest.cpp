// Registering routine types the short way: RoutineFactory<T>, a record that owns its factory, and
// AddRoutineType, down to routines that a real manager creates and runs.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "LogCapture.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Engine/RoutineRegistry.h"
#include "NyRoutine/Routine.h"
#include "Sync.h"

namespace {

using NyCommon::RoutineState;
using NyRoutine::IRoutineFactory;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineFactory;
using NyRoutine::RoutineInfo;
using NyRoutine::RoutinePlugin;

int StatusOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Ny::Exception& e) {
        return e.Status();
    }
    return Ny::Status::Success;
}

std::atomic<int> made{0};   // Tally constructions
std::atomic<int> freed{0};  // Tally results destructions

struct TallyResults : Ny::Params::Group {
    TallyResults() { AddParameter("number", number, "Number"); }
    ~TallyResults() override { ++freed; }
    Ny::Params::Value<unsigned int> number;
};

// Numbers itself, reports one step and hands its number over as results.
class Tally : public NyRoutine::RoutineBase<TallyResults> {
  public:
    Tally() : number(static_cast<unsigned int>(++made)) {}
    explicit Tally(unsigned int numberIn) : number(numberIn) {}

    void Run(IRoutineHost& host) override {
        host.SetTotalSteps(1);
        host.SetCurrentStep(1, "Counting");
        host.SetHelpHtml("<p>counted</p>", NyRoutine::HelpMode::Replace);
        auto results = std::make_unique<TallyResults>();
        results->number = number;
        HandOverResults(host, std::move(results));
    }

    const unsigned int number;
};

class RoutineTypesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        made = 0;
        freed = 0;
    }
    NyTest::LogCapture log;  // keeps the engine's log lines out of the test output
};

TEST_F(RoutineTypesTest, FactoryMakesADistinctObjectOnEveryCall) {
    RoutineFactory<Tally> byDefault;
    const auto first = byDefault.CreateRoutine();
    const auto second = byDefault.CreateRoutine();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(made.load(), 2);
    EXPECT_NE(dynamic_cast<Tally*>(first.get()), nullptr);

    unsigned int calls = 0;
    RoutineFactory<Tally> withArguments([&calls] { return std::make_shared<Tally>(100 + calls++); });
    const auto a = withArguments.CreateRoutine();
    const auto b = withArguments.CreateRoutine();
    EXPECT_EQ(dynamic_cast<Tally&>(*a).number, 100u);
    EXPECT_EQ(dynamic_cast<Tally&>(*b).number, 101u);

    // An empty maker is refused when the type is registered, not at every creation.
    EXPECT_EQ(StatusOf([] { RoutineFactory<Tally> none(nullptr); }), Ny::Status::InvalidValue);
}

TEST_F(RoutineTypesTest, OwnedFactoryLivesAsLongAsThePluginOrAnyRecordCopiedOutOfIt) {
    auto factory = std::make_shared<RoutineFactory<Tally>>();
    const std::weak_ptr<IRoutineFactory> watch = factory;
    auto plugin = RoutinePlugin::Create();
    plugin->AddRoutineInfo(RoutineInfo("Tally", true), std::move(factory));
    ASSERT_FALSE(watch.expired());  // the plug-in alone keeps it

    std::optional<RoutineInfo> copy(plugin->RoutineInfoAt(0));
    plugin.reset();
    ASSERT_FALSE(watch.expired());  // the copy keeps it after the plug-in is gone
    EXPECT_NE(copy->Factory().CreateRoutine(), nullptr);

    copy.reset();
    EXPECT_TRUE(watch.expired());  // and nothing keeps it longer
}

TEST_F(RoutineTypesTest, RegistryCopyKeepsTheFactoryAfterThePluginIsGoneUntilTheTypeIsRemoved) {
    NyRoutine::Internal::RoutineRegistry registry;
    std::weak_ptr<IRoutineFactory> watch;
    {
        auto plugin = RoutinePlugin::Create();
        auto factory = std::make_shared<RoutineFactory<Tally>>();
        watch = factory;
        plugin->AddRoutineInfo(RoutineInfo("Tally", true), factory);
        registry.Add(plugin->RoutineInfoAt(0));  // no owner given: the record is enough
    }
    ASSERT_FALSE(watch.expired());
    EXPECT_NE(registry.FindByTypeName("Tally")->Factory().CreateRoutine(), nullptr);
    registry.Remove("Tally");
    EXPECT_TRUE(watch.expired());
}

TEST_F(RoutineTypesTest, ReplacingAnOwnedFactoryByAReferenceLetsTheOwnedOneGo) {
    auto owned = std::make_shared<RoutineFactory<Tally>>();
    const std::weak_ptr<IRoutineFactory> watch = owned;
    RoutineFactory<Tally> borrowed;
    RoutineInfo info("Tally", true);
    info.SetFactory(std::move(owned));
    ASSERT_FALSE(watch.expired());
    info.SetFactory(borrowed);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(&info.Factory(), &borrowed);
}

// A factory's address where the flag belongs would be read as `true`.
static_assert(std::is_constructible_v<RoutineInfo, const char*, bool>);
static_assert(!std::is_constructible_v<RoutineInfo, const char*, IRoutineFactory*>);
static_assert(!std::is_constructible_v<RoutineInfo, const char*, int>);

TEST_F(RoutineTypesTest, RecordWithoutFactoryOrWithANullOneIsRefusedLoudly) {
    const RoutineInfo bare("Tally", false);
    EXPECT_EQ(StatusOf([&] { bare.Factory(); }), Ny::Status::NoFactory);
    ASSERT_TRUE(bare.HasCreationParams());  // the types resource reads it for every registered type
    EXPECT_FALSE(bare.SkipStartParams());

    auto plugin = RoutinePlugin::Create();
    EXPECT_EQ(StatusOf([&] { plugin->AddRoutineInfo(RoutineInfo("Tally", true), nullptr); }),
              Ny::Status::NoFactory);
    EXPECT_EQ(plugin->RoutineInfoCount(), 0u);
}

TEST_F(RoutineTypesTest, TypeAddedWithAddRoutineTypeRunsThroughARealManager) {
    NyRoutine::Internal::RoutineRegistry registry;
    {
        auto plugin = RoutinePlugin::Create();
        plugin->AddRoutineType<Tally>(
            RoutineInfo("Tally", true).SetDisplayName("Tally").SetDescription("Counts itself."));
        ASSERT_EQ(plugin->RoutineInfoCount(), 1u);
        EXPECT_STREQ(plugin->RoutineInfoAt(0).DisplayName(), "Tally");
        registry.Add(plugin->RoutineInfoAt(0), plugin);  // as the module registers a loaded plug-in
    }
    NyRoutine::Internal::RoutineManager manager(registry, nullptr, 2);
    const std::string first = manager.Create("Tally", nullptr);
    const std::string second = manager.Create("Tally", nullptr);
    EXPECT_EQ(first, "Tally-0");
    EXPECT_EQ(second, "Tally-1");
    EXPECT_EQ(made.load(), 2);  // one routine object per routine

    for (const std::string& id : {first, second}) {
        auto& instance = manager.GetInstance(id);
        ASSERT_TRUE(NyTest::Eventually([&] { return instance.State() == RoutineState::Completed; }))
            << id << " ended in state " << static_cast<int>(instance.State());
        EXPECT_EQ(instance.CurrentStep(), 1u);
        EXPECT_EQ(instance.HelpHtml(), "<p>counted</p>");
        const auto* results = dynamic_cast<const TallyResults*>(instance.LockResults());
        const unsigned int number = results != nullptr ? results->number.Get() : 0;
        instance.UnlockResults();
        EXPECT_GE(number, 1u);
    }
    EXPECT_EQ(freed.load(), 0);
    manager.Remove(first);
    manager.Remove(second);
    EXPECT_TRUE(NyTest::Eventually([] { return freed.load() == 2; }));
}

}  // namespace
