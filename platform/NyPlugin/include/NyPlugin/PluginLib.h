// `NyPlugin::PluginLib`: one plug-in shared library that the `PluginManager` loaded, with the plug-in
// objects its entry point handed over.
//
// Ownership and lifetime: only the manager makes libraries. It shares them with whoever asks
// (`Libraries()`), and keeps every library it ever loaded until the manager itself is destroyed, so
// that a `const PluginLib&` from `PluginManager::At()` or `Load()` never dangles, also when another
// thread unloads that library meanwhile. An unload "retires" the library: `Loaded()` turns false, the
// library drops its references to its plug-in objects (`Plugins()` and `PluginsByType()` are empty from
// then on) and closes its handle. Objects still held elsewhere live on: the library's code stays mapped
// until the process ends (see PluginManager.h).
//
// Threading: every method is thread-safe. Path and file name never change; the object list is guarded
// by a mutex of the library's own, which is never held while plug-in code (a destructor) runs.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "NyApi/Mutex.h"
#include "NyPlugin/IPlugin.h"

namespace NyPlugin {

class PluginManager;

class PluginLib {
  public:
    ~PluginLib();
    PluginLib(const PluginLib&) = delete;
    PluginLib& operator=(const PluginLib&) = delete;

    // The plug-in objects whose `Type()` equals `type`, in the order the library gave them; empty once
    // the library is unloaded. An object whose `Type()` is null matches no type. Thread-safe.
    std::vector<std::shared_ptr<IPlugin>> PluginsByType(const std::string& type) const;
    // All plug-in objects, in the order the library gave them; empty once the library is unloaded.
    // Thread-safe.
    std::vector<std::shared_ptr<IPlugin>> Plugins() const;
    // The file name without its folder, e.g. "sample_routines.so".
    const std::string& FileName() const { return fileName; }
    // The absolute path the library was loaded from, with symbolic links resolved.
    const std::filesystem::path& Path() const { return path; }
    // False once the manager has unloaded the library. Thread-safe.
    bool Loaded() const { return loaded.load(std::memory_order_acquire); }

  private:
    friend class PluginManager;

    PluginLib(std::filesystem::path pathIn, void* handleIn, std::vector<std::shared_ptr<IPlugin>> pluginsIn);
    // Drops the object list and closes the handle. Called once by the manager, after the unloading event.
    void Retire();

    const std::filesystem::path path;
    const std::string fileName;
    std::atomic<bool> loaded{true};  // written once by Retire (release), read by anyone (acquire)
    bool unloading = false;          // guarded by the manager's changeMutex: its Unloading event is raised

    mutable Ny::Mutex mutex;  // guards plugins and handle; leaf lock
    std::vector<std::shared_ptr<IPlugin>> plugins NY_GUARDED_BY(mutex);
    void* handle NY_GUARDED_BY(mutex);  // null once closed
};

}  // namespace NyPlugin
