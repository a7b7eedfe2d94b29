// `NyPlugin::PluginManager`: the host's plug-in framework. It loads plug-in shared libraries with
// dlopen, keeps them in load order and announces every load and unload through `LoadEvent()`.
//
// The host owns one manager and destroys it after everything that subscribed to its event (the
// destructor raises nothing). A plug-in library is built with `nyr_add_plugin` (cmake/NyRoutinePlugin.cmake)
// and exports the entry points of NyPlugin/PluginExport.h; anything else is refused with a
// `Ny::Exception` that names the file.
//
// Unloading never unmaps code. Libraries are opened with RTLD_NODELETE: objects a library made (its
// plug-in objects, and routine objects its factories made, which the host knows only as shared
// pointers whose destructors live in that library) may outlive the unload, so the code has to stay
// mapped until the process ends. An unload takes the library out of the list and drops the manager's
// references to its objects. Loading the same path again later reuses the mapping that is still there:
// the library's static state carries over and a changed file takes effect only after a process restart.
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

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyPlugin/IPlugin.h"
#include "NyPlugin/PluginLib.h"

namespace NyPlugin {

class PluginManager {
  public:
    using LoadEventType = Ny::Event<const PluginLib&, PluginEvent>;

    PluginManager();
    // Drops every library without raising events; their code stays mapped.
    ~PluginManager();
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    // Loads one library, appends it to the list and raises LoadEvent(lib, Loaded). The returned
    // reference stays valid for the manager's lifetime. Waits for a change in progress on another thread.
    // Throws Ny::Exception naming the file: -999 when it does not exist; -997 when it is not a shared
    // library, lacks the entry points, was built for another plug-in API version or its entry point
    // threw; -1000 when a library of that path is loaded already (the list is unchanged). A library
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
    // the others still load. Returns the messages of the refusals (each names its file); a folder that
    // cannot be read is one refusal. Thread-safe.
    std::vector<std::string> LoadDirectory(const std::filesystem::path& folder);
    // Brings the libraries of `folder` in step with its files (the host calls it on SIGHUP): first
    // unloads, in load order, the loaded libraries of that folder whose files are gone, then loads the
    // new files as LoadDirectory does. Libraries of other folders are left alone; a file that changed
    // under a loaded name is not reloaded. A folder that cannot be read changes nothing (one refusal):
    // an unmounted or unreadable folder must not unload every plug-in. Returns the refusals. Thread-safe.
    std::vector<std::string> Rescan(const std::filesystem::path& folder);

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
    // Folder listing for LoadDirectory and Rescan: the "*.so" regular files in name order, or a refusal.
    struct FolderFiles {
        std::vector<std::filesystem::path> files;
        std::string refusal;  // empty when the folder could be read
    };
    static FolderFiles ListFolder(const std::filesystem::path& folder);

    const PluginLib& LoadLocked(const std::filesystem::path& path) NY_REQUIRES(changeMutex);
    void UnloadLocked(const std::shared_ptr<PluginLib>& lib) NY_REQUIRES(changeMutex);
    // Loads each file not loaded yet; a refusal is logged, collected and does not stop the others.
    void LoadNewLocked(const std::vector<std::filesystem::path>& files, std::vector<std::string>& refused)
        NY_REQUIRES(changeMutex);
    std::shared_ptr<PluginLib> FindLocked(const std::filesystem::path& path) const NY_REQUIRES(changeMutex);

    // Serializes changes and their events; taken before listMutex.
    mutable Ny::RecursiveMutex changeMutex NY_ACQUIRED_BEFORE(listMutex);

    mutable Ny::Mutex listMutex;  // guards libraries and retired; leaf lock
    std::vector<std::shared_ptr<PluginLib>> libraries NY_GUARDED_BY(listMutex);  // load order
    // Unloaded libraries, kept so that references from At() and Load() never dangle (each is a retired
    // shell: path and name, no objects, handle closed).
    std::vector<std::shared_ptr<PluginLib>> retired NY_GUARDED_BY(listMutex);

    LoadEventType loadEvent;
};

}  // namespace NyPlugin
