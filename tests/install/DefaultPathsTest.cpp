// Where routine-host looks for plug-ins and the console when no option names them: the build tree's
// folders only for the build tree's own executable, the installed folders (relative to the executable)
// everywhere else, whatever exists on disk.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "HostOptions.h"

namespace {

namespace fs = std::filesystem;
using NyHost::PathLayout;
using NyHost::ResolveDefaultPaths;

// A scratch tree: <root>/build/{bin,plugins}, <root>/source/web, and an installed prefix
// <root>/prefix/{bin,lib/x86_64-linux-gnu/routine-host/plugins,share/routine-host/web}.
class DefaultPaths : public ::testing::Test {
  protected:
    void SetUp() override {
        root = fs::temp_directory_path() / ("nyr-default-paths-" + std::to_string(::getpid()));
        fs::remove_all(root);
        for (const char* dir :
             {"build/bin", "build/plugins", "source/web", "prefix/bin",
              "prefix/lib/x86_64-linux-gnu/routine-host/plugins", "prefix/share/routine-host/web"}) {
            fs::create_directories(root / dir);
        }
        layout = PathLayout{root / "build/bin", root / "build/plugins", root / "source/web",
                            "../lib/x86_64-linux-gnu/routine-host/plugins", "../share/routine-host/web"};
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path root;
    PathLayout layout;
};

TEST_F(DefaultPaths, TheBuildTreesExecutableUsesTheBuildAndSourceFolders) {
    const auto paths = ResolveDefaultPaths(root / "build/bin", layout);
    EXPECT_EQ(paths.pluginDir, root / "build/plugins");
    EXPECT_EQ(paths.webDir, root / "source/web");
    // The same folder reached through a link or with a trailing "." is still the build tree's.
    fs::create_directory_symlink(root / "build/bin", root / "bin-link");
    EXPECT_EQ(ResolveDefaultPaths(root / "bin-link", layout).pluginDir, root / "build/plugins");
    EXPECT_EQ(ResolveDefaultPaths(root / "build/bin/.", layout).pluginDir, root / "build/plugins");
}

TEST_F(DefaultPaths, AnInstalledExecutableUsesTheInstalledFoldersEvenWhenTheBuildTreeExists) {
    const auto paths = ResolveDefaultPaths(root / "prefix/bin", layout);
    EXPECT_EQ(paths.pluginDir, root / "prefix/lib/x86_64-linux-gnu/routine-host/plugins");
    EXPECT_EQ(paths.webDir, root / "prefix/share/routine-host/web");
}

TEST_F(DefaultPaths, AnInstalledTreeThatWasMovedOrWhoseBuildIsGoneStillFindsItsOwnFolders) {
    fs::rename(root / "prefix", root / "moved");
    fs::remove_all(root / "build");
    const auto paths = ResolveDefaultPaths(root / "moved/bin", layout);
    EXPECT_EQ(paths.pluginDir, root / "moved/lib/x86_64-linux-gnu/routine-host/plugins");
    EXPECT_EQ(paths.webDir, root / "moved/share/routine-host/web");
}

TEST_F(DefaultPaths, MissingInstalledFoldersAreNamedAsTheyWouldBeNotReplacedByOthers) {
    fs::remove_all(root / "prefix/lib");
    fs::remove_all(root / "prefix/share");
    const auto paths = ResolveDefaultPaths(root / "prefix/bin", layout);
    // Named, without "..", so that --help and the start-up line tell the operator what to create.
    EXPECT_EQ(paths.pluginDir, root / "prefix/lib/x86_64-linux-gnu/routine-host/plugins");
    EXPECT_EQ(paths.webDir, root / "prefix/share/routine-host/web");
}

TEST(HostUsage, NamesTheDefaultFolders) {
    const std::string usage =
        NyHost::Usage({"/opt/p/lib/routine-host/plugins", "/opt/p/share/routine-host/web"});
    EXPECT_NE(usage.find("(default: /opt/p/lib/routine-host/plugins)"), std::string::npos) << usage;
    EXPECT_NE(usage.find("(default: /opt/p/share/routine-host/web)"), std::string::npos) << usage;
}

}  // namespace
