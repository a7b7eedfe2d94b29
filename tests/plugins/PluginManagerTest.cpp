// The plug-in manager loads real shared libraries, refuses broken ones and announces loads and unloads.
#include <gtest/gtest.h>

#include <filesystem>

#include "LogCapture.h"
#include "NyApi/Exception.h"
#include "NyPlugin/PluginManager.h"

namespace {

namespace fs = std::filesystem;

TEST(PluginManager, LoadsAFolderInNameOrderAndRefusesBrokenFilesNamingThem) {
    NyTest::LogCapture log;
    NyPlugin::PluginManager plugins;
    std::vector<std::string> events;
    plugins.LoadEvent().Subscribe([&](const NyPlugin::PluginLib& lib, NyPlugin::PluginEvent event) {
        events.push_back(std::to_string(static_cast<int>(event)) + " " + lib.FileName() + " " +
                         std::to_string(plugins.Count()));
    });
    const auto refused = plugins.LoadDirectory(NYR_TEST_PLUGINS);
    ASSERT_EQ(plugins.Count(), 1u);
    EXPECT_EQ(plugins.At(0).FileName(), "dup_routines.so");
    EXPECT_EQ(plugins.At(0).PluginsByType("NyRoutine.RoutinePlugin").size(), 1u);
    EXPECT_TRUE(plugins.At(0).PluginsByType("Other.Type").empty());
    ASSERT_EQ(refused.size(), 3u);
    EXPECT_NE(refused[0].find("no_entry.so has no plug-in entry point"), std::string::npos) << refused[0];
    EXPECT_NE(refused[1].find("not_a_library.so cannot be loaded"), std::string::npos) << refused[1];
    EXPECT_NE(refused[2].find("old_version.so was built for plug-in API version 99"), std::string::npos)
        << refused[2];
    EXPECT_EQ(events, std::vector<std::string>{"0 dup_routines.so 1"});
    EXPECT_THROW(plugins.Load(fs::path(NYR_TEST_PLUGINS) / "dup_routines.so"), Ny::Exception);

    plugins.Unload(fs::path(NYR_TEST_PLUGINS) / "dup_routines.so");
    EXPECT_EQ(events.back(), "1 dup_routines.so 1");  // announced before it leaves the list
    EXPECT_EQ(plugins.Count(), 0u);
}

TEST(PluginManager, RescanLoadsNewFilesAndUnloadsRemovedOnes) {
    const fs::path folder = fs::temp_directory_path() / ("nyr-rescan-" + std::to_string(::getpid()));
    fs::remove_all(folder);
    fs::create_directories(folder);
    NyPlugin::PluginManager plugins;
    EXPECT_TRUE(plugins.Rescan(folder).refused.empty());
    fs::copy_file(NYR_SAMPLE_PLUGIN, folder / "a.so");
    fs::copy_file(fs::path(NYR_TEST_PLUGINS) / "dup_routines.so", folder / "b.so");
    EXPECT_TRUE(plugins.Rescan(folder).refused.empty());
    EXPECT_EQ(plugins.Count(), 2u);
    fs::remove(folder / "a.so");
    plugins.Rescan(folder);
    ASSERT_EQ(plugins.Count(), 1u);
    EXPECT_EQ(plugins.At(0).FileName(), "b.so");
    fs::remove_all(folder);
}

}  // namespace
