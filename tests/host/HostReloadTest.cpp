// Plug-in reload as an operator does it: a plug-in file rebuilt (overwritten in place) under a running
// routine-host, then SIGHUP. The test plug-in comes in two builds that say which version they are
// (tests/pluginmgr/libs/ReloadPlugin.cpp).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "Files.h"
#include "HostProcess.h"
#include "Sync.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using NyTest::Eventually;
using NyTest::HostProcess;

const fs::path V1 = fs::path(NYR_RELOAD_PLUGIN_DIR) / "reload_v1.so";
const fs::path V2 = fs::path(NYR_RELOAD_PLUGIN_DIR) / "reload_v2.so";

// The pid of the one routine-host this test process runs now (HostProcess keeps its own to itself).
pid_t HostPid() {
    const fs::path host = fs::canonical(NYR_HOST);
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) {
            continue;
        }
        // "pid (comm) state ppid ...": the name may hold spaces, so read after its closing parenthesis.
        char state = 0;
        int parent = 0;
        if (std::sscanf(line.c_str() + line.rfind(')') + 1, " %c %d", &state, &parent) != 2 ||
            parent != ::getpid()) {
            continue;
        }
        std::error_code error;
        if (fs::read_symlink(entry.path() / "exe", error) == host) {
            return std::stoi(entry.path().filename().string());
        }
    }
    return -1;
}

// A plug-in folder of the test's own, removed at the end.
struct ScratchFolder {
    ScratchFolder()
        : path(fs::temp_directory_path() /
               ("nyr-host-reload-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
        fs::remove_all(path);
        fs::create_directories(path);
        path = fs::canonical(path);
    }
    ~ScratchFolder() { fs::remove_all(path); }
    fs::path path;
};

json PluginEntry(HostProcess& host) {
    const json plugins = host.Request("GET", "/plugins").Json()["plugins"];
    return plugins.size() == 1 ? plugins[0] : json();
}

json ContinuedResults(HostProcess& host, const std::string& id) {
    EXPECT_EQ(host.Request("POST", "/routines/" + id + "/commands/continue").status, 200);
    EXPECT_TRUE(Eventually([&] { return host.RoutineState(id) == 3; })) << id;
    return host.Request("GET", "/routines/" + id).Json()["results"];
}

TEST(HostReload, SighupReloadsARebuiltPluginWhileARoutineOfTheOldCodeRunsOn) {
    ScratchFolder folder;
    fs::copy_file(V1, folder.path / "reload.so");
    const fs::path temporary = folder.path / "tmp";  // where the host keeps its private copies
    fs::create_directory(temporary);
    HostProcess host({"--plugins", folder.path.string(), "--log-level", "info"},
                     {"TMPDIR=" + temporary.string()});
    const pid_t pid = HostPid();
    ASSERT_GT(pid, 0);

    const json before = PluginEntry(host);
    EXPECT_EQ(before["file"], "reload.so");
    EXPECT_EQ(before["sha256"], NyTest::Sha256Of(V1));
    EXPECT_EQ(before["routineTypes"], json({"Reloadable"}));
    const std::regex iso8601(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    ASSERT_TRUE(std::regex_match(before["loadedAt"].get<std::string>(), iso8601)) << before;
    EXPECT_TRUE(host.Log().find("Plug-ins loaded from " + folder.path.string() +
                                ": loaded 1 (reload.so), reloaded 0, unloaded 0, refused 0.") !=
                std::string::npos)
        << host.Log();

    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "Reloadable"}}).status, 201);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Reloadable-0") == 2; }));

    NyTest::WriteInPlace(folder.path / "reload.so", NyTest::ReadAll(V2));
    ASSERT_EQ(::kill(pid, SIGHUP), 0);
    const std::string summary = "Plug-in rescan of " + folder.path.string() +
                                ": loaded 0, reloaded 1 (reload.so), unloaded 0, refused 0.";
    ASSERT_TRUE(Eventually([&] { return host.Log().find(summary) != std::string::npos; })) << host.Log();

    const json after = PluginEntry(host);
    EXPECT_EQ(after["file"], "reload.so");
    EXPECT_EQ(after["sha256"], NyTest::Sha256Of(V2));
    ASSERT_TRUE(std::regex_match(after["loadedAt"].get<std::string>(), iso8601)) << after;
    EXPECT_GE(after["loadedAt"].get<std::string>(), before["loadedAt"].get<std::string>());
    EXPECT_EQ(host.Request("GET", "/routineTypes").Json()["routineTypes"][0]["description"],
              "The reloadable test routine, version 2.");

    // The routine made before the reload still waits, and its continue runs version 1's code.
    EXPECT_EQ(host.RoutineState("Reloadable-0"), 2);
    EXPECT_EQ(ContinuedResults(host, "Reloadable-0"), json({{"version", 1}}));
    EXPECT_EQ(host.Request("DELETE", "/routines/Reloadable-0").status, 204);
    // A new one is version 2's.
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "Reloadable"}}).status, 201);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Reloadable-1") == 2; }));
    EXPECT_EQ(ContinuedResults(host, "Reloadable-1"), json({{"version", 2}}));

    // Nothing changed since: a rescan says so and reloads nothing.
    ASSERT_EQ(::kill(pid, SIGHUP), 0);
    const std::string unchanged =
        "Plug-in rescan of " + folder.path.string() + ": loaded 0, reloaded 0, unloaded 0, refused 0.";
    ASSERT_TRUE(Eventually([&] { return host.Log().find(unchanged) != std::string::npos; })) << host.Log();
    EXPECT_EQ(PluginEntry(host)["loadedAt"], after["loadedAt"]);
    // Both builds were loaded from copies of the host's own, which go with it. A clean exit: in
    // sanitizer builds, no leak or error of the reloads either.
    ASSERT_EQ(std::distance(fs::directory_iterator(temporary), fs::directory_iterator()), 1);
    const fs::path copies = fs::directory_iterator(temporary)->path();
    EXPECT_EQ(std::distance(fs::directory_iterator(copies), fs::directory_iterator()), 2);
    EXPECT_EQ(host.Terminate(NyTest::Generous), 0) << host.Log();
    EXPECT_TRUE(fs::is_empty(temporary));
}

TEST(HostReload, WarnsWhenTheFolderHoldsNoPluginAtStartAndOnRescan) {
    ScratchFolder folder;
    std::ofstream(folder.path / "notes.txt") << "not a plug-in\n";
    HostProcess host({"--plugins", folder.path.string(), "--log-level", "info"});
    const pid_t pid = HostPid();
    ASSERT_GT(pid, 0);
    const std::string warning =
        "Warning: plug-in folder " + folder.path.string() + " holds no plug-in (no \"*.so\" file).";
    auto count = [&host](const std::string& text) {
        const std::string log = host.Log();
        size_t found = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++found;
        }
        return found;
    };
    EXPECT_EQ(count(warning), 1u) << host.Log();
    EXPECT_EQ(host.Request("GET", "/plugins").Json(), json({{"plugins", json::array()}}));

    ASSERT_EQ(::kill(pid, SIGHUP), 0);
    ASSERT_TRUE(Eventually([&] { return count(warning) == 2; })) << host.Log();

    // A file that is refused leaves the folder without a plug-in all the same, and says why.
    std::ofstream(folder.path / "broken.so") << "not a library\n";
    ASSERT_EQ(::kill(pid, SIGHUP), 0);
    const std::string noneLoaded = "Warning: no plug-in of folder " + folder.path.string() +
                                   " is loaded (1 \"*.so\" file, every one refused).";
    ASSERT_TRUE(Eventually([&] { return count(noneLoaded) == 1; })) << host.Log();
    EXPECT_NE(host.Log().find("refused 1 (broken.so: Plug-in " + (folder.path / "broken.so").string() +
                              " cannot be loaded: "),
              std::string::npos)
        << host.Log();

    fs::copy_file(V1, folder.path / "reload.so");
    ASSERT_EQ(::kill(pid, SIGHUP), 0);
    ASSERT_TRUE(Eventually([&] { return count("loaded 1 (reload.so)") == 1; })) << host.Log();
    EXPECT_EQ(count(warning), 2u);
    EXPECT_EQ(count(noneLoaded), 1u);
    EXPECT_EQ(PluginEntry(host)["file"], "reload.so");
    EXPECT_EQ(host.Terminate(NyTest::Generous), 0) << host.Log();
}

}  // namespace
