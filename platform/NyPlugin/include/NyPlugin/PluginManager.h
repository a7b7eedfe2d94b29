// The host's plug-in framework: `PluginManager` loads plug-in shared libraries (dlopen), keeps them in
// load order and announces every load and unload; `PluginLib` is one loaded library with its plug-in
// objects.
//
// Code of a loaded library stays mapped until the process ends, also after its unload: objects the
// library made (plug-in objects, and routine objects its factories made) may outlive the unload, and
// the host knows them only as shared pointers whose destructors live in that code. Unloading removes
// the library from the manager and drops the manager's references. A changed file at the same path
// therefore needs a process restart to take effect.
//
// Threading: loads and unloads may run on a signal-handling thread while requests read the list.
// `mutex` guards the list and is never held while LoadEvent() is raised; handlers may call back into
// Count(), At() and Libraries(). A library handed to handlers stays valid during the raise.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "NyApi/Event.h"
#include "NyPlugin/IPlugin.h"

namespace NyPlugin {

class PluginLib {
  public:
    PluginLib(std::filesystem::path path, void* handle, std::vector<std::shared_ptr<IPlugin>> plugins);
    ~PluginLib();
    PluginLib(const PluginLib&) = delete;
    PluginLib& operator=(const PluginLib&) = delete;

    // The library's plug-in objects whose Type() equals `type`, in the order the library gave them.
    std::vector<std::shared_ptr<IPlugin>> PluginsByType(const std::string& type) const;
    const std::vector<std::shared_ptr<IPlugin>>& Plugins() const { return plugins; }
    std::string FileName() const { return path.filename().string(); }
    const std::filesystem::path& Path() const { return path; }

  private:
    std::filesystem::path path;
    void* handle;
    std::vector<std::shared_ptr<IPlugin>> plugins;
};

class PluginManager {
  public:
    using LoadEventType = Ny::Event<const PluginLib&, PluginEvent>;

    PluginManager();
    // Drops every library without raising events (the host has detached its modules by then).
    ~PluginManager();
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    // Loads one library and raises LoadEvent(lib, Loaded). Throws Ny::Exception -997 naming the file when
    // it is not a shared library, lacks the entry point or was built for another API version, and -987
    // when a library of that path is loaded already.
    const PluginLib& Load(const std::filesystem::path& path);
    // Raises LoadEvent(lib, Unloading), then removes the library. Throws -999 when it is not loaded.
    void Unload(const std::filesystem::path& path);
    // Loads every "*.so" file of `folder` in name order; returns the reasons of the refused ones (each
    // also logged) and goes on with the others.
    std::vector<std::string> LoadDirectory(const std::filesystem::path& folder);
    // Loads the files of `folder` not loaded yet and unloads the loaded libraries of that folder whose
    // files are gone. Returns the refusals.
    std::vector<std::string> Rescan(const std::filesystem::path& folder);

    size_t Count() const;
    // Throws std::out_of_range at or past Count(). The reference stays valid while the library is loaded;
    // beside unloads prefer Libraries().
    const PluginLib& At(size_t index) const;
    // The loaded libraries, in load order, each kept alive by the returned references.
    std::vector<std::shared_ptr<const PluginLib>> Libraries() const;

    LoadEventType& LoadEvent() { return loadEvent; }

  private:
    static std::vector<std::filesystem::path> LibraryFiles(const std::filesystem::path& folder);
    // Loads each file; a refusal is logged, collected and does not stop the others.
    void LoadEach(const std::vector<std::filesystem::path>& files, std::vector<std::string>& refused);

    mutable std::mutex mutex;                           // guards libraries
    std::vector<std::shared_ptr<PluginLib>> libraries;  // guarded by mutex
    LoadEventType loadEvent;
};

}  // namespace NyPlugin
