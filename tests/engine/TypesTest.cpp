// Routine types: records, their copies, the registry and the routine plug-in object.
#include <gtest/gtest.h>

#include <stdexcept>

#include "LogCapture.h"
#include "NyRoutine/Engine/RoutineRegistry.h"
#include "NyRoutine/RoutinePlugin.h"
#include "TestRoutines.h"

namespace {

using NyTest::StatusOf;

using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineRegistry;

TEST(RoutineRegistry, OrdersByteWiseAndRefusesDuplicates) {
    NyTest::ScriptedFactory factory;
    RoutineRegistry registry;
    for (const char* name : {"alpha", "Beta", "Alpha", ""}) {
        registry.Add(RoutineInfo(name, factory, true));
    }
    std::vector<std::string> names;
    for (const RoutineInfo* info : registry.List()) {
        names.emplace_back(info->TypeName());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"", "Alpha", "Beta", "alpha"}));
    EXPECT_EQ(StatusOf([&] { registry.Add(RoutineInfo("Beta", factory, false)); }), -987);
    EXPECT_TRUE(registry.FindByTypeName("Beta")->SkipStartParams());  // the first record stays
    EXPECT_EQ(StatusOf([&] { registry.Remove("Gamma"); }), -999);
    EXPECT_EQ(registry.FindByTypeName("Gamma"), nullptr);
    registry.Remove("Beta");
    registry.Add(RoutineInfo("Beta", factory, false));
    EXPECT_FALSE(registry.FindByTypeName("Beta")->SkipStartParams());
}

TEST(RoutineInfo, CopiesShareTheCreationGroupButNotLaterChanges) {
    NyTest::ScriptedFactory factory;
    RoutineInfo record("Calib", factory, false);
    RoutineRegistry registry;
    registry.Add(record);
    const RoutineInfo& copy = *registry.FindByTypeName("Calib");
    EXPECT_EQ(&copy.CreationParamsReadOnly(), &record.CreationParamsReadOnly());
    record.SetDisplayName("Changed later");
    EXPECT_STREQ(copy.DisplayName(), "");
    EXPECT_EQ(copy.CreationParams(), nullptr);

    record.SetCreationParamsFactory([] { return std::make_unique<NyTest::TestParams>(); });
    const auto first = record.CreationParams();
    const auto second = record.CreationParams();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(&copy.CreationParamsReadOnly(), &record.CreationParamsReadOnly());
    EXPECT_THROW(record.SetCreationParamsFactory(nullptr), std::bad_function_call);
    EXPECT_EQ(StatusOf([] { RoutineInfo().Factory(); }), -992);
}

TEST(RoutinePlugin, CreatedPluginCarriesCopiesOfItsRecords) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    EXPECT_STREQ(plugin->Type(), "NyRoutine.RoutinePlugin");
    EXPECT_EQ(plugin->GetObject(), plugin.get());
    EXPECT_EQ(plugin->RoutineInfoCount(), 0u);
    auto factory = std::make_shared<NyTest::ScriptedFactory>();
    plugin->AddRoutineInfo(RoutineInfo("B", *factory, true)).AddRoutineInfo(RoutineInfo("A", *factory, true));
    plugin->AddOwnedObject(factory);
    struct Copy : NyRoutine::RoutinePlugin {
        explicit Copy(const RoutinePlugin& other) : RoutinePlugin(other) {}
    } copy(*plugin);
    ASSERT_EQ(copy.RoutineInfoCount(), 2u);
    EXPECT_STREQ(copy.RoutineInfoAt(0).TypeName(), "B");
    EXPECT_EQ(&copy.RoutineInfoAt(1).CreationParamsReadOnly(),
              &plugin->RoutineInfoAt(1).CreationParamsReadOnly());
    EXPECT_THROW(plugin->RoutineInfoAt(2), std::out_of_range);
}

}  // namespace
