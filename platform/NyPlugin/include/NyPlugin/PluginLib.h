// `NyPlugin::PluginLib`: one plug-in shared library that the `PluginManager` loaded, with the plug-in
// objects its entry point handed over, the time it was loaded and the SHA-256 of the bytes it was
// loaded from.
//
// Ownership and lifetime: only the manager makes libraries. It shares them with whoever asks
// (`Libraries()`), and keeps every library it ever loaded until the manager itself is destroyed, so
// that a `const PluginLib&` from `PluginManager::At()` or `Load()` never dangles, also when another
// thread unloads that library meanwhile. An unload "retires" the library: `Loaded()` turns false, the
// library drops its references to its plug-in objects (`Plugins()` and `PluginsByType()` are empty from
// then on) and closes its handle. Objects still held elsewhere live on: the library's code stays mapped
// until the process ends (see PluginManager.h). A reload of the same file is a new `PluginLib`.
//
// Threading: every method is thread-safe. Path, file name, load time and hash never change; the object
// list is guarded by a mutex of the library's own, which is never held while plug-in code (a
// destructor) runs.
#pragma once

#include <atomic>
#include <chrono>
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
    // The absolute path of the plug-in file, with symbolic links resolved. The code was loaded from a
    // private copy of that file (see PluginManager.h), but this is the path the library is known by.
    const std::filesystem::path& Path() const { return path; }
    // When the manager loaded the library (wall-clock time).
    std::chrono::system_clock::time_point LoadTime() const { return loadTime; }
    // The SHA-256 of the bytes the library was loaded from, as 64 lower-case hex digits: what the file
    // held when it was copied, which the file on disk may no longer hold.
    const std::string& ContentHash() const { return contentHash; }
    // False once the manager has unloaded the library. Thread-safe.
    bool Loaded() const { return loaded.load(std::memory_order_acquire); }

  private:
    friend class PluginManager;

    PluginLib(std::filesystem::path pathIn, void* handleIn, std::vector<std::shared_ptr<IPlugin>> pluginsIn,
              std::string contentHashIn, std::chrono::system_clock::time_point loadTimeIn);
    // Drops the object list and closes the handle. Called once by the manager, after the unloading event.
    void Retire();

    const std::filesystem::path path;
    const std::string fileName;
    const std::string contentHash;
    const std::chrono::system_clock::time_point loadTime;
    std::atomic<bool> loaded{true};  // written once by Retire (release), read by anyone (acquire)
    bool unloading = false;          // guarded by the manager's changeMutex: its Unloading event is raised

    mutable Ny::Mutex mutex;  // guards plugins and handle; leaf lock
    std::vector<std::shared_ptr<IPlugin>> plugins NY_GUARDED_BY(mutex);
    void* handle NY_GUARDED_BY(mutex);  // null once closed
};

}  // namespace NyPlugin
