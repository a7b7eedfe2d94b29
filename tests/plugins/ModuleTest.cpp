// The module with real plug-in libraries: loading, duplicate types, unloading with live routines, and
// a full Calibration run of the sample plug-in through the router.
#include <gtest/gtest.h>

#include <filesystem>
#include <future>

#include "LogCapture.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"
#include "Sync.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using NyTest::Eventually;

std::vector<std::string> TypeNames(NyRest::ResourceRouter& router) {
    std::vector<std::string> names;
    const json list = router.Dispatch("GET", "/routineTypes", nullptr).body;
    for (const auto& type : list["routineTypes"]) {
        names.push_back(type["type"]);
    }
    return names;
}

TEST(RoutineModule, FirstLibraryKeepsADuplicateTypeAndUnloadsGoByTypeName) {
    NyTest::LogCapture log;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    plugins.Load(NYR_SAMPLE_PLUGIN);
    {
        NyRoutine::RoutineModule module(router, plugins, nullptr);
        EXPECT_TRUE(log.Contains("RoutineModule loading plugins..."));
        plugins.Load(fs::path(NYR_TEST_PLUGINS) / "dup_routines.so");
        EXPECT_EQ(TypeNames(router), (std::vector<std::string>{"Calibration", "Extra", "SelfTest"}));
        const auto failures = log.Texts(Ny::Logging::Level::CaughtFailure);
        ASSERT_FALSE(failures.empty());
        EXPECT_EQ(failures[0].rfind("Failed to load routine \"Calibration\" (", 0), 0u) << failures[0];
        // The sample's Calibration still answers (it waits for its start parameters).
        EXPECT_EQ(router.Dispatch("GET", "/routineTypes", nullptr).body["routineTypes"][0]["displayName"],
                  "Sensor calibration");

        plugins.Unload(fs::path(NYR_TEST_PLUGINS) / "dup_routines.so");
        EXPECT_EQ(TypeNames(router), std::vector<std::string>{"SelfTest"});
        log.Clear();
        plugins.Unload(NYR_SAMPLE_PLUGIN);
        EXPECT_TRUE(TypeNames(router).empty());
        EXPECT_EQ(log.Texts(Ny::Logging::Level::CaughtFailure)
                      .at(0)
                      .rfind("Failed to unload routine \"Calibration\" (", 0),
                  0u);
    }
    // Destroyed: the paths are withdrawn and later loads reach nobody.
    EXPECT_EQ(router.Dispatch("GET", "/routines", nullptr).status, 404);
    EXPECT_EQ(router.Dispatch("GET", "/routineTypes", nullptr).status, 404);
    plugins.Load(NYR_SAMPLE_PLUGIN);
}

TEST(RoutineModule, RoutineOfAnUnloadedTypeKeepsWorkingAndCanBeDeleted) {
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    NyRoutine::RoutineModule module(router, plugins, nullptr);
    plugins.Load(NYR_SAMPLE_PLUGIN);
    ASSERT_EQ(router.Dispatch("POST", "/routines", {{"type", "SelfTest"}}).status, 201);
    plugins.Unload(NYR_SAMPLE_PLUGIN);
    EXPECT_EQ(router.Dispatch("POST", "/routines", {{"type", "SelfTest"}}).status, 404);
    ASSERT_TRUE(Eventually(
        [&] { return router.Dispatch("GET", "/routines/SelfTest-0", nullptr).body["state"] == 3; }));
    EXPECT_EQ(router.Dispatch("GET", "/routines/SelfTest-0", nullptr).body["results"]["passedChecks"], 3);
    EXPECT_EQ(router.Dispatch("DELETE", "/routines/SelfTest-0", nullptr).status, 204);
}

TEST(RoutineModule, SampleCalibrationRunsThroughTheRouter) {
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    plugins.Load(NYR_SAMPLE_PLUGIN);
    NyCore::Core core;
    NyRoutine::RoutineModule module(router, plugins, &core);
    auto creation = std::async(std::launch::async, [&] {
        return router.Dispatch("POST", "/routines", {{"type", "Calibration"}});
    });
    ASSERT_TRUE(Eventually(
        [&] { return router.Dispatch("GET", "/routines/Calibration-0", nullptr).body["state"] == 2; }));
    const json document = router.Dispatch("GET", "/routines/Calibration-0?schema=true", nullptr).body;
    EXPECT_EQ(document["parameters"], json({{"samples", 10}, {"label", "default"}, {"mode", 0}}));
    EXPECT_EQ(document["_schema"]["properties"]["parameters"]["properties"]["mode"]["enumText"],
              json({"Fast", "Precise"}));
    EXPECT_FALSE(document["helpHtml"].get<std::string>().empty());

    const auto refused =
        router.Dispatch("PATCH", "/routines/Calibration-0", {{"parameters", {{"samples", 0}}}});
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.body["causes"], json({"samples was set to be less than its minimum."}));
    EXPECT_EQ(router
                  .Dispatch("PATCH", "/routines/Calibration-0",
                            {{"parameters", {{"samples", 20}, {"label", "L1"}}}})
                  .status,
              204);
    EXPECT_EQ(router.Dispatch("POST", "/routines/Calibration-0/commands/continue", nullptr).status, 200);
    ASSERT_EQ(creation.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(creation.get().status, 201);
    ASSERT_TRUE(Eventually(
        [&] { return router.Dispatch("GET", "/routines/Calibration-0", nullptr).body["state"] == 3; }));
    const json results = router.Dispatch("GET", "/routines/Calibration-0", nullptr).body["results"];
    EXPECT_EQ(results["label"], "L1");
    EXPECT_TRUE(results["offset"].is_number());
    EXPECT_TRUE(results["gain"].is_number());
    module.RoutineManager().ClearAllRoutines();
}

TEST(RoutineModule, DestructionReleasesACreationWaitingForItsFirstContinue) {
    // Nothing is done before the destruction: no clear, no factory restore.
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    plugins.Load(NYR_SAMPLE_PLUGIN);
    auto module = std::make_unique<NyRoutine::RoutineModule>(router, plugins, nullptr);
    auto creation = std::async(std::launch::async, [&] {
        return router.Dispatch("POST", "/routines", json{{"type", "Calibration"}}).status;
    });
    ASSERT_TRUE(Eventually([&] { return module->RoutineManager().ListIds().size() == 1; }));
    auto destruction = std::async(std::launch::async, [&] { module.reset(); });
    ASSERT_EQ(destruction.wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the module's destruction waits for a continue that cannot come";
    EXPECT_EQ(creation.get(), 404);
    EXPECT_EQ(router.Dispatch("GET", "/routines", nullptr).status, 404);
}

}  // namespace
