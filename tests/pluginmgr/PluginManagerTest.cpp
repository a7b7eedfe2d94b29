// The plug-in manager against real shared libraries: folder loads and refusals, load and unload events,
// objects that outlive their library's unload, private copies, rescans and reloads, and readers racing
// changes.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "LogCapture.h"
#include "NyApi/Exception.h"
#include "NyApi/Mutex.h"
#include "NyPlugin/PluginExport.h"
#include "NyPlugin/PluginManager.h"
#include "TestObjects.h"

namespace {

namespace fs = std::filesystem;
using NyPlugin::PluginEvent;
using NyPlugin::PluginLib;
using NyPlugin::PluginManager;

const fs::path Libs = fs::canonical(NYR_PLUGINMGR_LIBS);

std::string Greet(const NyPlugin::IPlugin& plugin) {
    return static_cast<const PluginTest::IGreeter*>(plugin.GetObject())->Greet("host");
}

bool Mentions(const std::vector<std::string>& lines, const std::string& part) {
    for (const auto& line : lines) {
        if (line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The status and message of what `call` throws; status 1 when it throws nothing.
template <typename Call>
std::pair<int, std::string> Failure(Call&& call) {
    try {
        call();
    } catch (const Ny::Exception& e) {
        return {e.Status(), e.what()};
    }
    return {1, ""};
}

// Records each event as "<Loaded|Unloading> <file> <Count() seen by the handler>".
class EventLog {
  public:
    explicit EventLog(PluginManager& pluginsIn) : plugins(pluginsIn) {
        subscription = plugins.LoadEvent().SubscribeScoped([this](const PluginLib& lib, PluginEvent event) {
            const std::string line = std::string(event == PluginEvent::Loaded ? "Loaded " : "Unloading ") +
                                     lib.FileName() + " " + std::to_string(plugins.Count());
            std::lock_guard guard(mutex);
            lines.push_back(line);
        });
    }
    std::vector<std::string> Take() {
        std::lock_guard guard(mutex);
        return std::exchange(lines, {});
    }

  private:
    PluginManager& plugins;
    std::mutex mutex;
    std::vector<std::string> lines;  // guarded by mutex
    Ny::Subscription subscription;   // last: withdrawn before the lines go
};

// A plug-in folder of the test's own, removed at the end.
class ScratchFolder {
  public:
    ScratchFolder()
        : path(fs::temp_directory_path() /
               ("nyr-pluginmgr-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
        fs::remove_all(path);
        fs::create_directories(path);
        path = fs::canonical(path);
    }
    ~ScratchFolder() { fs::remove_all(path); }
    // A copy, not a link: a distinct file is a distinct library to the dynamic loader.
    void Add(const std::string& from, const std::string& as) const { fs::copy_file(Libs / from, path / as); }
    // Writes `from` over the file `as` in place (same inode, truncated and rewritten), as `cp` or a
    // linker does: the harshest way to change a library under a process that maps it.
    void Overwrite(const fs::path& from, const std::string& as) const {
        std::ifstream in(from, std::ios::binary);
        std::ofstream out(path / as, std::ios::binary | std::ios::trunc);
        out << in.rdbuf();
    }

    fs::path path;
};

// The two builds of one plug-in (libs/ReloadPlugin.cpp): their first greeter says "version N, entry call
// K", K counting the entry point's calls in that mapping of the library.
const fs::path ReloadV1 = fs::canonical(NYR_RELOAD_PLUGIN_DIR) / "reload_v1.so";
const fs::path ReloadV2 = fs::canonical(NYR_RELOAD_PLUGIN_DIR) / "reload_v2.so";

std::string FirstGreeting(const PluginLib& lib) {
    return Greet(*lib.PluginsByType(PluginTest::GreeterType).at(0));
}

std::shared_ptr<PluginTest::IGreeter> MadeBy(const PluginLib& lib) {
    const auto factory = lib.PluginsByType(PluginTest::FactoryType).at(0);
    return static_cast<const PluginTest::IGreeterFactory*>(factory->GetObject())->Make();
}

// The file the loader mapped the library of `object` from.
fs::path MappedFrom(const void* object) {
    // The first word of a polymorphic object points into its class's vtable, which lies in the library.
    const void* vtable = *static_cast<const void* const*>(object);
    Dl_info info{};
    return dladdr(vtable, &info) != 0 && info.dli_fname != nullptr ? fs::path(info.dli_fname) : fs::path();
}

TEST(PluginManager, LoadsAFolderInNameOrderAndRefusesEachBrokenFileByName) {
    NyTest::LogCapture log;
    PluginManager plugins;
    EventLog events(plugins);

    const auto refused = plugins.LoadDirectory(Libs);

    ASSERT_EQ(plugins.Count(), 2u);
    EXPECT_EQ(plugins.At(0).FileName(), "a_greeters.so");
    EXPECT_EQ(plugins.At(1).FileName(), "e_greeters.so");
    EXPECT_EQ(events.Take(), (std::vector<std::string>{"Loaded a_greeters.so 1", "Loaded e_greeters.so 2"}));
    ASSERT_EQ(refused.size(), 3u);
    const std::string version = "b_other_version.so was built for plug-in API version " +
                                std::to_string(NyPlugin::ApiVersion + 1) + ", this host offers " +
                                std::to_string(NyPlugin::ApiVersion) + ".";
    EXPECT_NE(refused[0].find(version), std::string::npos) << refused[0];
    EXPECT_NE(refused[1].find("c_not_a_library.so cannot be loaded: "), std::string::npos) << refused[1];
    EXPECT_NE(refused[2].find("d_no_entry.so has no plug-in entry point"), std::string::npos) << refused[2];

    const auto failures = log.Texts(Ny::Logging::Level::CaughtFailure);
    for (const char* file : {"b_other_version.so", "c_not_a_library.so", "d_no_entry.so"}) {
        EXPECT_TRUE(Mentions(failures, "Plug-in " + (Libs / file).string() + " refused.")) << file;
    }
    EXPECT_TRUE(log.Contains("Plug-in " + (Libs / "a_greeters.so").string() +
                             " loaded (3 plug-in objects, SHA-256 " +
                             NyTest::Sha256Of(Libs / "a_greeters.so") + ")."));

    // Loading the folder again loads nothing twice; the broken files are refused again.
    EXPECT_EQ(plugins.LoadDirectory(Libs).size(), 3u);
    EXPECT_EQ(plugins.Count(), 2u);
    EXPECT_TRUE(events.Take().empty());
}

TEST(PluginManager, RefusesWithAStatusAndLeavesTheListAsItWas) {
    PluginManager plugins;
    plugins.Load(Libs / "a_greeters.so");
    EventLog events(plugins);
    const struct {
        fs::path file;
        int status;
        std::string message;
    } cases[] = {
        {Libs / "c_not_a_library.so", -997, (Libs / "c_not_a_library.so").string() + " cannot be loaded"},
        {Libs / "d_no_entry.so", -997,
         "d_no_entry.so has no plug-in entry point (NyPlugin_ApiVersion, "
         "NyPlugin_GetPlugins)."},
        {Libs / "b_other_version.so", -997, "b_other_version.so was built for plug-in API version"},
        {Libs / "missing.so", -999, (Libs / "missing.so").string() + " does not exist."},
        // Another spelling of a loaded file is the same library.
        {Libs / "." / ".." / Libs.filename() / "a_greeters.so", -1000,
         (Libs / "a_greeters.so").string() + " is loaded already."},
    };
    for (const auto& refusal : cases) {
        const auto [status, message] = Failure([&] { plugins.Load(refusal.file); });
        EXPECT_EQ(status, refusal.status) << refusal.file;
        EXPECT_NE(message.find(refusal.message), std::string::npos) << message;
    }
    EXPECT_EQ(plugins.Count(), 1u);
    EXPECT_TRUE(events.Take().empty());
    EXPECT_EQ(plugins.LoadDirectory(Libs / "none").size(), 1u);  // a missing folder is one refusal
}

TEST(PluginManager, PluginsByTypeKeepsTheLibrarysOrder) {
    PluginManager plugins;
    const PluginLib& lib = plugins.Load(Libs / "a_greeters.so");
    EXPECT_EQ(lib.Path(), Libs / "a_greeters.so");

    const auto greeters = lib.PluginsByType(PluginTest::GreeterType);
    ASSERT_EQ(greeters.size(), 2u);
    EXPECT_EQ(Greet(*greeters[0]), "a_greeters first greets host");
    EXPECT_EQ(Greet(*greeters[1]), "a_greeters second greets host");
    EXPECT_EQ(lib.PluginsByType(PluginTest::FactoryType).size(), 1u);
    EXPECT_TRUE(lib.PluginsByType("PluginTest.Nothing").empty());

    std::vector<std::string> types;
    for (const auto& plugin : lib.Plugins()) {
        types.emplace_back(plugin->Type());
    }
    EXPECT_EQ(types, (std::vector<std::string>{PluginTest::GreeterType, PluginTest::FactoryType,
                                               PluginTest::GreeterType}));
}

TEST(PluginManager, AnnouncesAnUnloadWhileTheLibraryIsStillListed) {
    NyTest::LogCapture log;
    PluginManager plugins;
    plugins.LoadDirectory(Libs);
    EventLog events(plugins);

    plugins.Unload(Libs / "a_greeters.so");
    ASSERT_EQ(plugins.Count(), 1u);
    EXPECT_EQ(plugins.At(0).FileName(), "e_greeters.so");
    plugins.Unload(0);
    EXPECT_EQ(plugins.Count(), 0u);
    EXPECT_EQ(events.Take(),
              (std::vector<std::string>{"Unloading a_greeters.so 2", "Unloading e_greeters.so 1"}));
    EXPECT_TRUE(log.Contains("Plug-in " + (Libs / "e_greeters.so").string() + " unloaded."));

    EXPECT_EQ(Failure([&] { plugins.Unload(Libs / "a_greeters.so"); }).first, -999);
    EXPECT_EQ(Failure([&] { plugins.Unload(0); }).first, -999);
    EXPECT_EQ(Failure([&] { plugins.At(0); }).first, -999);
}

TEST(PluginManager, ObjectsOfAnUnloadedLibraryStayUsable) {
    std::shared_ptr<NyPlugin::IPlugin> greeter;
    std::shared_ptr<PluginTest::IGreeter> made;
    {
        PluginManager plugins;
        const PluginLib& lib = plugins.Load(Libs / "a_greeters.so");
        greeter = lib.PluginsByType(PluginTest::GreeterType).at(0);
        const auto factory = lib.PluginsByType(PluginTest::FactoryType).at(0);
        made = static_cast<const PluginTest::IGreeterFactory*>(factory->GetObject())->Make();

        plugins.Unload(0);
        // The reference from Load() outlives the unload, as an empty shell.
        EXPECT_FALSE(lib.Loaded());
        EXPECT_EQ(lib.FileName(), "a_greeters.so");
        EXPECT_TRUE(lib.Plugins().empty());
        EXPECT_EQ(Greet(*greeter), "a_greeters first greets host");

        // The same path loads again, with objects of its own.
        const PluginLib& again = plugins.Load(Libs / "a_greeters.so");
        EXPECT_NE(&again, &lib);
        EXPECT_EQ(Greet(*again.PluginsByType(PluginTest::GreeterType).at(1)),
                  "a_greeters second greets host");
    }
    // The manager is gone: the library's code still runs, and its destructors run when the last holder
    // lets go (at the end of this test).
    EXPECT_EQ(Greet(*greeter), "a_greeters first greets host");
    EXPECT_EQ(made->Greet("host"), "a_greeters made greets host");
}

TEST(PluginManager, RescanLoadsNewFilesAndUnloadsRemovedOnesOfThatFolderOnly) {
    ScratchFolder folder;
    PluginManager plugins;
    plugins.Load(Libs / "e_greeters.so");  // from another folder: a rescan leaves it alone
    folder.Add("a_greeters.so", "m.so");
    folder.Add("e_greeters.so", "n.so");
    EventLog events(plugins);

    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 2 (m.so, n.so), reloaded 0, unloaded 0, refused 0");
    EXPECT_EQ(events.Take(), (std::vector<std::string>{"Loaded m.so 2", "Loaded n.so 3"}));

    fs::remove(folder.path / "m.so");
    folder.Add("a_greeters.so", "k.so");
    const auto changed = plugins.Rescan(folder.path);
    EXPECT_EQ(changed.Text(), "loaded 1 (k.so), reloaded 0, unloaded 1 (m.so), refused 0");
    EXPECT_EQ(changed.files, 2u);
    EXPECT_EQ(changed.libraries, 2u);
    EXPECT_EQ(events.Take(), (std::vector<std::string>{"Unloading m.so 3", "Loaded k.so 3"}));
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 0, reloaded 0, unloaded 0, refused 0");
    EXPECT_TRUE(events.Take().empty());

    // A folder that cannot be read changes nothing.
    fs::remove_all(folder.path);
    const auto unreadable = plugins.Rescan(folder.path);
    ASSERT_EQ(unreadable.refused.size(), 1u);
    EXPECT_EQ(unreadable.refused[0].file, folder.path);
    EXPECT_NE(unreadable.refused[0].cause.find(folder.path.string() + " cannot be read"), std::string::npos)
        << unreadable.refused[0].cause;
    EXPECT_EQ(unreadable.libraries, 2u);
    std::vector<std::string> names;
    for (const auto& lib : plugins.Libraries()) {
        names.push_back(lib->FileName());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"e_greeters.so", "n.so", "k.so"}));
    EXPECT_TRUE(events.Take().empty());
}

TEST(PluginManager, AFailingHandlerDoesNotUndoTheChange) {
    PluginManager plugins;
    const auto failing = plugins.LoadEvent().SubscribeScoped([](const PluginLib& lib, PluginEvent) {
        if (lib.FileName() == "e_greeters.so") {
            throw std::runtime_error("handler failed");
        }
    });

    const auto refused = plugins.LoadDirectory(Libs);
    EXPECT_EQ(plugins.Count(), 2u);  // loaded all the same
    EXPECT_TRUE(Mentions(refused, "e_greeters.so is loaded, but a load handler failed: handler failed"));

    const auto [status, message] = Failure([&] { plugins.Unload(Libs / "e_greeters.so"); });
    EXPECT_EQ(status, 0);
    EXPECT_NE(message.find("e_greeters.so is unloaded, but an unload handler failed: handler failed"),
              std::string::npos)
        << message;
    EXPECT_EQ(plugins.Count(), 1u);
}

// Readers on other threads see whole libraries (or a not-found at an index that just went away) while
// one thread loads and unloads, and handlers read the list without deadlocking.
TEST(PluginManager, ReadersSeeWholeLibrariesWhileAnotherThreadLoadsAndUnloads) {
    PluginManager plugins;
    std::atomic<bool> done{false};  // written by the test thread at the end
    std::atomic<unsigned> handlerMismatches{0};
    const auto checking = plugins.LoadEvent().SubscribeScoped(
        [&plugins, &handlerMismatches](const PluginLib& lib, PluginEvent event) {
            // One change at a time: a new library is last, an unloading one is still listed.
            if (event == PluginEvent::Loaded && &plugins.At(plugins.Count() - 1) != &lib) {
                ++handlerMismatches;
            }
        });

    auto reader = [&plugins, &done] {
        unsigned unexpected = 0;
        while (!done.load()) {
            for (size_t i = 0; i < plugins.Count(); ++i) {
                try {
                    const PluginLib& lib = plugins.At(i);
                    const size_t greeters = lib.PluginsByType(PluginTest::GreeterType).size();
                    unexpected += (greeters != 2 && greeters != 0) || lib.FileName().empty();
                } catch (const Ny::Exception& e) {
                    unexpected += e.Status() != -999;
                }
            }
            for (const auto& lib : plugins.Libraries()) {
                unexpected += lib->FileName().empty();
            }
        }
        return unexpected;
    };
    std::vector<unsigned> unexpected(2, 0);
    std::vector<std::thread> readers;
    for (size_t r = 0; r < unexpected.size(); ++r) {
        readers.emplace_back([&reader, &unexpected, r] { unexpected[r] = reader(); });
    }
    for (int cycle = 0; cycle < 50; ++cycle) {
        plugins.Load(Libs / "a_greeters.so");
        plugins.Load(Libs / "e_greeters.so");
        plugins.Unload(Libs / (cycle % 2 ? "a_greeters.so" : "e_greeters.so"));
        plugins.Unload(0);
    }
    done = true;
    for (auto& thread : readers) {
        thread.join();
    }
    EXPECT_EQ(unexpected, (std::vector<unsigned>{0, 0}));
    EXPECT_EQ(handlerMismatches.load(), 0u);
}

TEST(PluginManager, OfTwoThreadsLoadingOneFileOneWins) {
    PluginManager plugins;
    for (int round = 0; round < 20; ++round) {
        std::latch start(2);
        std::atomic<int> loaded{0};
        std::atomic<int> refusedAsLoaded{0};
        auto load = [&plugins, &start, &loaded, &refusedAsLoaded] {
            start.arrive_and_wait();
            const int status = Failure([&plugins] { plugins.Load(Libs / "a_greeters.so"); }).first;
            if (status == 1) {
                ++loaded;
            } else if (status == -1000) {
                ++refusedAsLoaded;
            }
        };
        std::thread first(load);
        std::thread second(load);
        first.join();
        second.join();
        ASSERT_EQ(loaded.load(), 1) << "round " << round;
        ASSERT_EQ(refusedAsLoaded.load(), 1) << "round " << round;
        ASSERT_EQ(plugins.Count(), 1u);
        plugins.Unload(0);
    }
}

// A rebuilt plug-in written over the loaded file in place: the rescan loads it as a new library, with
// static state of its own, while what the old one made runs on in the old code.
TEST(PluginReload, RescanReloadsAChangedFileAndObjectsOfTheOldLibraryRunOn) {
    ScratchFolder folder;
    PluginManager plugins;
    fs::copy_file(ReloadV1, folder.path / "r.so");
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 1 (r.so), reloaded 0, unloaded 0, refused 0");
    const PluginLib& old = plugins.At(0);
    const auto oldGreeter = old.PluginsByType(PluginTest::GreeterType).at(0);
    const auto oldMade = MadeBy(old);
    EventLog events(plugins);

    folder.Overwrite(ReloadV2, "r.so");
    const auto summary = plugins.Rescan(folder.path);
    EXPECT_EQ(summary.Text(), "loaded 0, reloaded 1 (r.so), unloaded 0, refused 0");
    EXPECT_EQ(summary.reloaded, std::vector<fs::path>{folder.path / "r.so"});
    EXPECT_EQ(events.Take(), (std::vector<std::string>{"Unloading r.so 1", "Loaded r.so 1"}));

    ASSERT_EQ(plugins.Count(), 1u);
    const PluginLib& reloaded = plugins.At(0);
    EXPECT_NE(&reloaded, &old);
    EXPECT_FALSE(old.Loaded());
    EXPECT_EQ(reloaded.Path(), folder.path / "r.so");
    EXPECT_EQ(FirstGreeting(reloaded), "version 2, entry call 1 greets host");
    EXPECT_EQ(MadeBy(reloaded)->Greet("host"), "version 2 made greets host");
    EXPECT_EQ(Greet(*oldGreeter), "version 1, entry call 1 greets host");
    EXPECT_EQ(oldMade->Greet("host"), "version 1 made greets host");
    EXPECT_EQ(old.ContentHash(), NyTest::Sha256Of(ReloadV1));
    EXPECT_EQ(reloaded.ContentHash(), NyTest::Sha256Of(ReloadV2));
    EXPECT_GE(reloaded.LoadTime(), old.LoadTime());

    // An unchanged file is left alone, however often the folder is rescanned.
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 0, reloaded 0, unloaded 0, refused 0");
    EXPECT_EQ(&plugins.At(0), &reloaded);
    EXPECT_TRUE(events.Take().empty());
}

// Removed and added again, the same path is a new library each time, also with content loaded before:
// the loader must never hand back a mapping it kept.
TEST(PluginReload, AFileRemovedAndAddedAgainLoadsAsANewLibrary) {
    ScratchFolder folder;
    PluginManager plugins;
    const fs::path file = folder.path / "r.so";
    fs::copy_file(ReloadV1, file);
    EXPECT_EQ(FirstGreeting(plugins.Load(file)), "version 1, entry call 1 greets host");
    plugins.Unload(file);
    fs::remove(file);
    fs::copy_file(ReloadV2, file);
    EXPECT_EQ(FirstGreeting(plugins.Load(file)), "version 2, entry call 1 greets host");

    fs::remove(file);
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 0, reloaded 0, unloaded 1 (r.so), refused 0");
    fs::copy_file(ReloadV1, file);
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 1 (r.so), reloaded 0, unloaded 0, refused 0");
    EXPECT_EQ(FirstGreeting(plugins.At(0)), "version 1, entry call 1 greets host");
}

// A changed file that does not load (half copied, or built wrongly) is refused and the library loaded
// before stays in service: an operator keeps the routine types instead of losing them to a bad copy.
// Each rescan tries again, until the file loads.
TEST(PluginReload, AChangedFileThatDoesNotLoadLeavesTheLoadedLibraryInService) {
    ScratchFolder folder;
    PluginManager plugins;
    fs::copy_file(ReloadV1, folder.path / "r.so");
    plugins.Rescan(folder.path);
    const PluginLib& loaded = plugins.At(0);
    EventLog events(plugins);

    std::ofstream(folder.path / "r.so", std::ios::trunc) << "garbage, not a library\n";
    for (int attempt = 0; attempt < 2; ++attempt) {
        const auto summary = plugins.Rescan(folder.path);
        EXPECT_TRUE(summary.reloaded.empty());
        ASSERT_EQ(summary.refused.size(), 1u);
        EXPECT_EQ(summary.refused[0].file, folder.path / "r.so");
        const std::string& cause = summary.refused[0].cause;
        EXPECT_EQ(cause.rfind("Plug-in " + (folder.path / "r.so").string() + " cannot be loaded: ", 0), 0u)
            << cause;
        // The loader's message names the file the operator knows, not the private copy.
        EXPECT_EQ(cause.find("nyr-plugins-"), std::string::npos) << cause;
        // The loader's words end without a full stop: the sentence that follows still starts as one.
        EXPECT_NE(cause.find("file too short. The library loaded before stays in service."),
                  std::string::npos)
            << cause;
        EXPECT_EQ(summary.libraries, 1u);
    }
    EXPECT_TRUE(events.Take().empty());
    ASSERT_EQ(plugins.Count(), 1u);
    EXPECT_EQ(&plugins.At(0), &loaded);
    EXPECT_TRUE(loaded.Loaded());
    EXPECT_EQ(FirstGreeting(loaded), "version 1, entry call 1 greets host");
    EXPECT_EQ(loaded.ContentHash(), NyTest::Sha256Of(ReloadV1));

    folder.Overwrite(ReloadV2, "r.so");
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 0, reloaded 1 (r.so), unloaded 0, refused 0");
    EXPECT_EQ(FirstGreeting(plugins.At(0)), "version 2, entry call 1 greets host");
}

// Sets TMPDIR for one test and puts the previous value back.
class ScopedTmpDir {
  public:
    explicit ScopedTmpDir(const fs::path& dir) {
        if (const char* old = std::getenv("TMPDIR"); old != nullptr) {
            previous = old;
        }
        ::setenv("TMPDIR", dir.c_str(), 1);
    }
    ~ScopedTmpDir() {
        if (previous) {
            ::setenv("TMPDIR", previous->c_str(), 1);
        } else {
            ::unsetenv("TMPDIR");
        }
    }
    ScopedTmpDir(const ScopedTmpDir&) = delete;
    ScopedTmpDir& operator=(const ScopedTmpDir&) = delete;

  private:
    std::optional<std::string> previous;
};

// The code runs from a copy in a folder only this user can read; a refused file leaves no copy
// behind; the folder goes with the manager, and the mapped code outlives it.
TEST(PluginReload, LoadsFromAPrivateCopyThatGoesWithTheManager) {
    ScratchFolder folder;
    const fs::path temporary = folder.path / "tmp";
    fs::create_directory(temporary);
    ScopedTmpDir tmpdir(temporary);
    folder.Add("a_greeters.so", "a.so");
    folder.Add("c_not_a_library.so", "c.so");

    std::shared_ptr<NyPlugin::IPlugin> greeter;
    fs::path copy;
    {
        PluginManager plugins;
        const PluginLib& lib = plugins.Load(folder.path / "a.so");
        EXPECT_EQ(lib.Path(), folder.path / "a.so");
        EXPECT_EQ(lib.ContentHash(), NyTest::Sha256Of(folder.path / "a.so"));
        greeter = lib.PluginsByType(PluginTest::GreeterType).at(0);
        copy = MappedFrom(greeter->GetObject());
        ASSERT_EQ(copy.parent_path().parent_path(), temporary) << copy;
        EXPECT_EQ(copy.parent_path().filename().string().rfind("nyr-plugins-", 0), 0u) << copy;
        EXPECT_EQ(fs::status(copy.parent_path()).permissions(), fs::perms::owner_all);
        EXPECT_TRUE(fs::exists(copy));

        EXPECT_THROW(plugins.Load(folder.path / "c.so"), Ny::Exception);
        EXPECT_EQ(std::distance(fs::directory_iterator(copy.parent_path()), fs::directory_iterator()), 1);

        // The operator's file may go: the library runs from its copy.
        fs::remove(folder.path / "a.so");
        EXPECT_EQ(Greet(*greeter), "a_greeters first greets host");
    }
    EXPECT_FALSE(fs::exists(copy.parent_path()));
    EXPECT_EQ(Greet(*greeter), "a_greeters first greets host");
}

// Without a folder for its copies the manager loads nothing, says why, and tries again on the next load.
TEST(PluginReload, NoFolderForCopiesRefusesTheLoadUntilThereIsOne) {
    ScratchFolder folder;
    PluginManager plugins;
    {
        ScopedTmpDir tmpdir(folder.path / "missing");
        const auto [status, message] = Failure([&] { plugins.Load(Libs / "a_greeters.so"); });
        EXPECT_EQ(status, Ny::Status::Refused);
        EXPECT_NE(
            message.find("No private folder for plug-in copies under " + (folder.path / "missing").string()),
            std::string::npos)
            << message;
        EXPECT_EQ(plugins.Count(), 0u);
    }
    ScopedTmpDir tmpdir(folder.path);
    EXPECT_EQ(plugins.Load(Libs / "a_greeters.so").FileName(), "a_greeters.so");
}

// Readers on other threads see whole libraries while rescans reload a file back and forth: one version
// or the other, never a half-listed library.
TEST(PluginReload, ReadersSeeWholeLibrariesWhileRescansReload) {
    ScratchFolder folder;
    PluginManager plugins;
    fs::copy_file(ReloadV1, folder.path / "r.so");
    plugins.Rescan(folder.path);
    std::atomic<bool> done{false};  // written by the test thread at the end
    std::latch readersStarted(2);
    auto reader = [&plugins, &done, &readersStarted] {
        readersStarted.count_down();
        unsigned unexpected = 0;
        while (!done.load()) {
            for (const auto& lib : plugins.Libraries()) {
                const auto greeters = lib->PluginsByType(PluginTest::GreeterType);
                if (greeters.empty()) {
                    continue;  // unloaded since the snapshot
                }
                const std::string greeting = Greet(*greeters[0]);
                unexpected += greeting != "version 1, entry call 1 greets host" &&
                              greeting != "version 2, entry call 1 greets host";
            }
        }
        return unexpected;
    };
    std::vector<unsigned> unexpected(2, 0);
    std::vector<std::thread> readers;
    for (size_t r = 0; r < unexpected.size(); ++r) {
        readers.emplace_back([&reader, &unexpected, r] { unexpected[r] = reader(); });
    }
    readersStarted.wait();
    unsigned reloads = 0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        folder.Overwrite(cycle % 2 == 0 ? ReloadV2 : ReloadV1, "r.so");
        reloads += static_cast<unsigned>(plugins.Rescan(folder.path).reloaded.size());
    }
    done = true;
    for (auto& thread : readers) {
        thread.join();
    }
    EXPECT_EQ(reloads, 20u);
    EXPECT_EQ(unexpected, (std::vector<unsigned>{0, 0}));
    EXPECT_EQ(plugins.Count(), 1u);
}

// Where a real library may be cut short, read from its own headers: inside the identification and
// the ELF header, inside the program headers, inside and at the end of each loadable segment, just
// short of the end (the section headers), and at the round sizes seen in the field.
std::vector<size_t> CutsOf(const std::string& library) {
    ElfW(Ehdr) header{};
    std::memcpy(&header, library.data(), sizeof header);
    std::vector<size_t> cuts{10, sizeof header - 1, header.e_phoff + header.e_phentsize / 2,
                             header.e_phoff + size_t{header.e_phnum} * header.e_phentsize - 1};
    for (size_t i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment{};
        std::memcpy(&segment, library.data() + header.e_phoff + i * header.e_phentsize, sizeof segment);
        if (segment.p_type == PT_LOAD && segment.p_filesz > 1) {
            cuts.push_back(segment.p_offset + segment.p_filesz / 2);
            cuts.push_back(segment.p_offset + segment.p_filesz - 1);
        }
    }
    for (size_t size : {size_t{1000}, size_t{5000}, size_t{100000}, library.size() - 1}) {
        cuts.push_back(size);
    }
    std::erase_if(cuts, [&library](size_t cut) { return cut >= library.size(); });
    return cuts;
}

// A library cut short (a half-written copy, a full disk) would make the loader map pages past the end
// of the file and the process die of SIGBUS; it is refused by name instead, at a load and at a rescan,
// and a library loaded before stays in service.
TEST(PluginFile, ALibraryCutShortIsRefusedAndTheProcessLivesOn) {
    ScratchFolder folder;
    PluginManager plugins;
    const std::string whole = NyTest::ReadAll(ReloadV2);
    const auto cuts = CutsOf(whole);
    ASSERT_GE(cuts.size(), 8u);

    const fs::path loose = folder.path / "cut.so";
    for (const size_t cut : cuts) {
        NyTest::WriteInPlace(loose, whole.substr(0, cut));
        const auto [status, message] = Failure([&] { plugins.Load(loose); });
        EXPECT_EQ(status, Ny::Status::InvalidValue) << cut;
        EXPECT_EQ(message.rfind("Plug-in " + loose.string() + " is not a complete shared library: ", 0), 0u)
            << cut << ": " << message;
    }
    // Shorter than the ELF magic: the loader refuses it from its own read, mapping nothing.
    NyTest::WriteInPlace(loose, whole.substr(0, 2));
    EXPECT_EQ(Failure([&] { plugins.Load(loose); }).first, Ny::Status::InvalidValue);
    EXPECT_EQ(plugins.Count(), 0u);
    fs::remove(loose);

    fs::copy_file(ReloadV1, folder.path / "r.so");
    plugins.Rescan(folder.path);
    const PluginLib& loaded = plugins.At(0);
    for (const size_t cut : cuts) {
        NyTest::WriteInPlace(folder.path / "r.so", whole.substr(0, cut));
        const auto summary = plugins.Rescan(folder.path);
        ASSERT_EQ(summary.refused.size(), 1u) << cut;
        const std::string& cause = summary.refused[0].cause;
        EXPECT_NE(cause.find((folder.path / "r.so").string() + " is not a complete shared library: "),
                  std::string::npos)
            << cut << ": " << cause;
        EXPECT_NE(cause.find(". The library loaded before stays in service."), std::string::npos) << cause;
        EXPECT_TRUE(summary.reloaded.empty()) << cut;
    }
    ASSERT_EQ(plugins.Count(), 1u);
    EXPECT_EQ(&plugins.At(0), &loaded);
    EXPECT_EQ(FirstGreeting(loaded), "version 1, entry call 1 greets host");

    NyTest::WriteInPlace(folder.path / "r.so", whole);
    EXPECT_EQ(plugins.Rescan(folder.path).Text(), "loaded 0, reloaded 1 (r.so), unloaded 0, refused 0");
    EXPECT_EQ(FirstGreeting(plugins.At(0)), "version 2, entry call 1 greets host");
}

// A slow writer overwrites the library in place while rescans run (an operator's `cp` and a SIGHUP):
// after each chunk it waits for one rescan, so that every prefix of the new file is rescanned. Each
// rescan refuses it and keeps the old library, until the whole file reloads; the process lives on.
TEST(PluginFile, RescansWhileTheLibraryIsRewrittenInPlaceNeverCrash) {
    ScratchFolder folder;
    PluginManager plugins;
    fs::copy_file(ReloadV1, folder.path / "r.so");
    plugins.Rescan(folder.path);
    const PluginLib& old = plugins.At(0);
    const std::string whole = NyTest::ReadAll(ReloadV2);
    constexpr size_t kChunkBytes = 64 * 1024;
    constexpr auto kGenerousWait = std::chrono::seconds(60);
    struct {
        Ny::Mutex mutex;
        Ny::CondVar changed;
        size_t chunks NY_GUARDED_BY(mutex) = 0;   // chunks written, each flushed
        size_t rescans NY_GUARDED_BY(mutex) = 0;  // rescans done
        bool writerDone NY_GUARDED_BY(mutex) = false;
    } turn;
    std::thread writer([&] {
        std::ofstream out(folder.path / "r.so", std::ios::binary | std::ios::trunc);
        for (size_t at = 0; at < whole.size(); at += kChunkBytes) {
            out.write(whole.data() + at,
                      static_cast<std::streamsize>(std::min(kChunkBytes, whole.size() - at)));
            out.flush();
            Ny::MutexLock guard(turn.mutex);
            const size_t written = ++turn.chunks;
            turn.changed.NotifyAll();
            while (turn.rescans < written && turn.changed.WaitFor(turn.mutex, kGenerousWait)) {
            }
        }
        Ny::MutexLock guard(turn.mutex);
        turn.writerDone = true;
        turn.changed.NotifyAll();
    });
    size_t refusedPrefixes = 0;
    size_t reloads = 0;
    for (size_t seen = 0;;) {
        {
            Ny::MutexLock guard(turn.mutex);
            while (turn.chunks == seen && !turn.writerDone &&
                   turn.changed.WaitFor(turn.mutex, kGenerousWait)) {
            }
            if (turn.chunks == seen) {
                break;  // the writer is done (or stuck: the counts below tell)
            }
            seen = turn.chunks;
        }
        const auto summary = plugins.Rescan(folder.path);
        reloads += summary.reloaded.size();
        for (const auto& refusal : summary.refused) {
            ++refusedPrefixes;
            EXPECT_NE(refusal.cause.find(" is not a complete shared library: "), std::string::npos)
                << refusal.cause;
        }
        ASSERT_EQ(plugins.Count(), 1u);
        Ny::MutexLock guard(turn.mutex);
        ++turn.rescans;
        turn.changed.NotifyAll();
    }
    writer.join();
    const size_t chunks = (whole.size() + kChunkBytes - 1) / kChunkBytes;
    EXPECT_EQ(refusedPrefixes, chunks - 1);  // every prefix but the whole file
    EXPECT_EQ(reloads, 1u);
    EXPECT_FALSE(old.Loaded());
    EXPECT_EQ(FirstGreeting(plugins.At(0)), "version 2, entry call 1 greets host");
}

// The last line before the loader runs a library's static constructors names the file: if one of them
// aborts the process, that line names the culprit.
TEST(PluginFile, NamesEachFileBeforeTheLoaderRunsIt) {
    NyTest::LogCapture log;
    PluginManager plugins;
    plugins.Load(Libs / "a_greeters.so");
    EXPECT_THROW(plugins.Load(Libs / "c_not_a_library.so"), Ny::Exception);
    const auto lines = log.Texts(Ny::Logging::Level::Progress);
    const std::string loading = "Loading plug-in " + (Libs / "a_greeters.so").string();
    const auto first = std::find(lines.begin(), lines.end(), loading);
    ASSERT_NE(first, lines.end()) << ::testing::PrintToString(lines);
    const auto loaded = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("a_greeters.so loaded (") != std::string::npos;
    });
    EXPECT_LT(first, loaded);
    EXPECT_TRUE(Mentions(lines, "Loading plug-in " + (Libs / "c_not_a_library.so").string()));
}

// Entries named like libraries that are no library file: a folder, a dangling symbolic link, a named
// pipe (whose opening would block the loading thread for good). Each is refused by name, counted and
// logged like any other refusal, and the libraries beside them load.
TEST(PluginFile, AnEntryThatIsNoFileIsRefusedByName) {
    NyTest::LogCapture log;
    ScratchFolder folder;
    folder.Add("a_greeters.so", "a.so");
    fs::create_directory(folder.path / "x.so");
    fs::create_symlink(folder.path / "gone.so", folder.path / "y.so");
    ASSERT_EQ(::mkfifo((folder.path / "z.so").c_str(), 0600), 0);
    PluginManager plugins;

    const auto refused = plugins.LoadDirectory(folder.path);
    EXPECT_EQ(plugins.Count(), 1u);
    ASSERT_EQ(refused.size(), 3u) << ::testing::PrintToString(refused);
    EXPECT_NE(refused[0].find((folder.path / "x.so").string() + " is a folder"), std::string::npos)
        << refused[0];
    EXPECT_NE(refused[1].find((folder.path / "y.so").string() + " is a symbolic link to "), std::string::npos)
        << refused[1];
    EXPECT_NE(refused[2].find((folder.path / "z.so").string() + " is not a regular file"), std::string::npos)
        << refused[2];
    const auto failures = log.Texts(Ny::Logging::Level::CaughtFailure);
    for (const char* name : {"x.so", "y.so", "z.so"}) {
        EXPECT_TRUE(Mentions(failures, "Plug-in " + (folder.path / name).string() + " refused.")) << name;
    }

    const auto summary = plugins.Rescan(folder.path);
    EXPECT_EQ(summary.refused.size(), 3u) << summary.Text();
    EXPECT_EQ(summary.files, 4u);  // a host whose folder holds only such entries warns of each refused
    EXPECT_EQ(summary.libraries, 1u);

    // Named directly, none of them is opened as a library either (the dangling link names a file that
    // does not exist).
    EXPECT_EQ(Failure([&] { plugins.Load(folder.path / "y.so"); }).first, Ny::Status::NotFound);
    for (const char* name : {"x.so", "z.so"}) {
        EXPECT_EQ(Failure([&] { plugins.Load(folder.path / name); }).first, Ny::Status::InvalidValue) << name;
    }
}

TEST(PluginBuild, ExportsOnlyTheEntryPoints) {
    void* handle = dlopen((Libs / "a_greeters.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    EXPECT_NE(dlsym(handle, NyPlugin::ApiVersionSymbol), nullptr);
    EXPECT_NE(dlsym(handle, NyPlugin::GetPluginsSymbol), nullptr);
    EXPECT_EQ(dlsym(handle, "PluginTest_Hidden"), nullptr);
    dlclose(handle);
}

}  // namespace
