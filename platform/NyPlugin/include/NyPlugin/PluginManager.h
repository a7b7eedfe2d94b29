// `NyPlugin::PluginManager`: the host's plug-in framework. It loads plug-in shared libraries with
// dlopen, keeps them in load order and announces every load and unload through `LoadEvent()`.
//
// The host owns one manager and destroys it after everything that subscribed to its event (the
// destructor raises nothing). A plug-in library is built with `nyr_add_plugin` (cmake/NyRoutinePlugin.cmake)
// and exports the entry points of NyPlugin/PluginExport.h; anything else is refused with a
// `Ny::Exception` that names the file.
//
// Private copies. The manager never opens a plug-in file where it lies: each load copies the file into
// a folder of the manager's own (made with mode 0700 under $TMPDIR, or /tmp, when the first library
// loads; removed with the manager) and opens the copy, hashing the bytes as it copies them. A copy is
// a new file, so the dynamic loader maps it anew: it hands back a mapping it already has for the same
// path or the same file, so a rebuilt plug-in opened where it lies would run its old code. And the
// operator may overwrite the file in place while the process runs (as `cp` or a linker does) without
// changing the code that is mapped. Copies stay on disk until the manager is destroyed: their blocks
// stay allocated while they are mapped anyway, and debuggers and symbolizers read a library's symbols
// from its file. A copy that is refused is removed at once. The copies' folder must allow executable
// mappings: where /tmp is mounted noexec, set TMPDIR to a folder that does.
//
// Unloading never unmaps code. Libraries are opened with RTLD_NODELETE: objects a library made (its
// plug-in objects, and routine objects its factories made, which the host knows only as shared
// pointers whose destructors live in that library) may outlive the unload, so the code has to stay
// mapped until the process ends. An unload takes the library out of the list and drops the manager's
// references to its objects. Loading the same file again, changed or not, maps a new copy with static
// state of its own; each reload so keeps one more mapping for the life of the process.
//
// Reload. `Rescan` loads a file whose content changed (its SHA-256 differs from the loaded library's)
// as a new library: the old one is unloaded first (routines and other objects it made keep running its
// code), then the new one is listed; between the two the routine types it offers are unknown for a
// moment, since a type name can be registered once. A changed file that cannot be loaded (checked
// before the old library goes) leaves the old library loaded.
//
// Threading: every method is thread-safe. Loads and unloads may come from a signal-handling thread
// while request threads read `Count()`, `At()` and `Libraries()`.
// - `changeMutex` serializes the changes (Load, Unload, LoadDirectory, Rescan) and is held while
//   `LoadEvent()` is raised, on purpose: subscribers see one change at a time and in order (a library's
//   Loaded before its Unloading, never interleaved with another thread's change). It is re-entrant, so a
//   handler may itself load or unload on the raising thread; a handler must not wait for another thread
//   that loads or unloads.
// - `listMutex` guards the list only, is taken after `changeMutex` and is never held while plug-in code
//   or a handler runs, so handlers (and readers on any thread) may call Count(), At() and Libraries().
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyPlugin/IPlugin.h"
#include "NyPlugin/PluginLib.h"

namespace NyPlugin {

// What a `PluginManager::Rescan` did, for the host to log as one line (`Text()`).
struct RescanSummary {
    struct Refusal {
        std::filesystem::path file;  // the plug-in file, or the folder when it could not be read
        std::string cause;           // the refusal's message; it names the file
    };
    std::vector<std::filesystem::path> loaded;    // new files, loaded
    std::vector<std::filesystem::path> reloaded;  // changed files, loaded again as new libraries
    std::vector<std::filesystem::path> unloaded;  // files gone, their libraries unloaded
    // Files that could not be loaded or reloaded, and changes whose event handlers failed (the change
    // itself stands, and the file is listed above as well).
    std::vector<Refusal> refused;
    std::size_t files = 0;      // the "*.so" entries the folder holds, also those that are no file
    std::size_t libraries = 0;  // the libraries of the folder loaded once the rescan is over

    // "loaded 1 (b.so), reloaded 0, unloaded 1 (a.so), refused 1 (c.so: <cause>)", file names only.
    std::string Text() const;
};

class PluginManager {
  public:
    using LoadEventType = Ny::Event<const PluginLib&, PluginEvent>;

    PluginManager();
    // Drops every library without raising events; their code stays mapped. Removes the private copies.
    ~PluginManager();
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    // Loads one library, appends it to the list and raises LoadEvent(lib, Loaded). The returned
    // reference stays valid for the manager's lifetime. Waits for a change in progress on another thread.
    // Throws Ny::Exception naming the file: -999 when it does not exist; -997 when it is no regular
    // file, is not a shared library, is one cut short (checked before the loader maps it: see
    // PrivateCopies.h), lacks the entry points, was built for another plug-in API version or its entry
    // point threw; -1000 when a library of that path is loaded already (the list is unchanged) or no private
    // copy can be made (see above). A library
    // whose Loaded handler threw stays loaded, and the handler's exception passes nested in one naming
    // the file. Thread-safe.
    const PluginLib& Load(const std::filesystem::path& path);
    // Raises LoadEvent(lib, Unloading) while the library is still listed, then takes it out of the list
    // and retires it (see PluginLib.h). Throws -999 when no library of that path, or at that index, is
    // loaded, and -1000 when a handler asks to unload the library whose Unloading it is handling. A
    // handler's exception does not stop the unload; it passes afterwards, nested in one naming the file.
    // Waits for a change in progress on another thread. Thread-safe.
    void Unload(const std::filesystem::path& path);
    void Unload(size_t index);
    // Loads every "*.so" file of `folder` that is not loaded yet, in name order. A refusal is logged and
    // the others still load; a "*.so" entry that is no regular file (a folder, a dangling symbolic link)
    // is a refusal too. Returns the messages of the refusals (each names its file); a folder that
    // cannot be read is one refusal. Thread-safe.
    std::vector<std::string> LoadDirectory(const std::filesystem::path& folder);
    // Brings the libraries of `folder` in step with its files (the host calls it on SIGHUP): first
    // unloads, in load order, the loaded libraries of that folder whose files are gone; then, in name
    // order, loads the new files as LoadDirectory does and reloads (see above) each file whose content
    // differs from its loaded library's. Libraries of other folders are left alone. A folder that cannot
    // be read changes nothing (one refusal): an unmounted or unreadable folder must not unload every
    // plug-in. Every refusal is logged and does not stop the others. Hashes every file of the folder
    // that is loaded. Thread-safe.
    RescanSummary Rescan(const std::filesystem::path& folder);

    // The number of loaded libraries. Thread-safe; another thread may change it right after.
    size_t Count() const;
    // The library at `index` in load order. The reference stays valid for the manager's lifetime, also
    // after that library is unloaded. Throws -999 at or past Count(). Thread-safe.
    const PluginLib& At(size_t index) const;
    // A consistent snapshot of the loaded libraries, in load order. Thread-safe.
    std::vector<std::shared_ptr<const PluginLib>> Libraries() const;

    // Raised after a library is loaded (`Loaded`) and before it is unloaded (`Unloading`), on the
    // thread that loads or unloads, with `changeMutex` held (see above).
    LoadEventType& LoadEvent() { return loadEvent; }

  private:
    // A library opened from its private copy whose entry point has run, not listed yet (see the .cpp).
    class Prepared;

    // Folder listing for LoadDirectory and Rescan: the "*.so" regular files in name order, the "*.so"
    // entries that are no regular file (a folder, a dangling link) with why, or a refusal.
    struct FolderFiles {
        std::vector<std::filesystem::path> files;
        std::vector<std::pair<std::filesystem::path, std::string>> skipped;
        std::string refusal;  // empty when the folder could be read
    };
    static FolderFiles ListFolder(const std::filesystem::path& folder);
    // Logs and collects a refusal for each skipped entry of `listing`.
    static void RefuseSkipped(const FolderFiles& listing, RescanSummary& summary);

    const PluginLib& LoadLocked(const std::filesystem::path& path) NY_REQUIRES(changeMutex);
    // Copies, opens and checks the library and runs its entry point; lists nothing and raises nothing.
    // Throws as Load does; whatever it made is undone.
    Prepared PrepareLocked(const std::filesystem::path& path) NY_REQUIRES(changeMutex);
    // Lists a prepared library and raises its Loaded event.
    const PluginLib& PublishLocked(Prepared prepared) NY_REQUIRES(changeMutex);
    void UnloadLocked(const std::shared_ptr<PluginLib>& lib) NY_REQUIRES(changeMutex);
    // Loads `path` (known not to be loaded) for a folder load; a refusal is logged and collected.
    void LoadNewLocked(const std::filesystem::path& path, RescanSummary& summary) NY_REQUIRES(changeMutex);
    // Loads a changed file in place of `lib` (see Reload above); a refusal is logged and collected.
    void ReloadLocked(const std::shared_ptr<PluginLib>& lib, RescanSummary& summary) NY_REQUIRES(changeMutex);
    std::shared_ptr<PluginLib> FindLocked(const std::filesystem::path& path) const NY_REQUIRES(changeMutex);

    // Serializes changes and their events; taken before listMutex.
    mutable Ny::RecursiveMutex changeMutex NY_ACQUIRED_BEFORE(listMutex);

    mutable Ny::Mutex listMutex;  // guards libraries and retired; leaf lock
    std::vector<std::shared_ptr<PluginLib>> libraries NY_GUARDED_BY(listMutex);  // load order
    // Unloaded libraries, kept so that references from At() and Load() never dangle (each is a retired
    // shell: path and name, no objects, handle closed).
    std::vector<std::shared_ptr<PluginLib>> retired NY_GUARDED_BY(listMutex);

    // The folder of private copies (empty until the first load) and the number of copies made, which
    // names the next one.
    std::filesystem::path privateFolder NY_GUARDED_BY(changeMutex);
    unsigned long copiesMade NY_GUARDED_BY(changeMutex) = 0;

    LoadEventType loadEvent;
};

}  // namespace NyPlugin
