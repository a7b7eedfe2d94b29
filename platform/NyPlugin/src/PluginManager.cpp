#include "NyPlugin/PluginManager.h"

#include <dlfcn.h>

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyPlugin/PluginExport.h"

namespace NyPlugin {

namespace {

namespace fs = std::filesystem;

class CollectingSink final : public PluginSink {
  public:
    void Add(std::shared_ptr<IPlugin> plugin) override {
        if (plugin) {
            plugins.push_back(std::move(plugin));
        }
    }
    std::vector<std::shared_ptr<IPlugin>> plugins;
};

// Closes a handle on every refusal path. With RTLD_NODELETE closing never unmaps, it only balances
// dlopen's reference count.
struct HandleCloser {
    void operator()(void* handle) const { dlclose(handle); }
};
using HandleGuard = std::unique_ptr<void, HandleCloser>;

// One spelling per file, so that "plugins/a.so", "./plugins/a.so" and a symbolic link to it are the
// same library for the duplicate check and for Rescan.
fs::path Normalized(const fs::path& path) {
    std::error_code error;
    fs::path normal = fs::weakly_canonical(fs::absolute(path, error), error);
    return error ? path.lexically_normal() : normal;
}

// Re-throws the exception in flight with the library named, keeping the original nested.
[[noreturn]] void ThrowNamingFile(const std::exception_ptr& failure, const char* what,
                                  const std::string& file) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& e) {
        std::throw_with_nested(
            NY_EXCEPTION(Ny::StatusOf(e), "Plug-in %1$s %2$s: %3$s", file.c_str(), what, e.what()));
    } catch (...) {
        std::throw_with_nested(NY_EXCEPTION(0, "Plug-in %1$s %2$s: unknown exception", file.c_str(), what));
    }
}

// A failure that LoadDirectory or Rescan catches to go on with the other files.
void LogCaught(const char* what, const fs::path& file, const std::exception& e) {
    NY_LOG(Ny::Logging::Level::CaughtFailure, "Plug-in %1$s %2$s.", file.string().c_str(), what);
    Ny::Exception::LogException(e, 0);
    Ny::Exception::LogBackTrace(e);
}

}  // namespace

PluginLib::PluginLib(fs::path pathIn, void* handleIn, std::vector<std::shared_ptr<IPlugin>> pluginsIn)
    : path(std::move(pathIn)),
      fileName(path.filename().string()),
      plugins(std::move(pluginsIn)),
      handle(handleIn) {}

PluginLib::~PluginLib() {
    Retire();
}

void PluginLib::Retire() {
    std::vector<std::shared_ptr<IPlugin>> dropped;
    void* closing = nullptr;
    {
        Ny::MutexLock guard(mutex);
        dropped.swap(plugins);
        std::swap(closing, handle);
    }
    loaded.store(false, std::memory_order_release);
    // Plug-in destructors run outside the lock: they are foreign code and may ask this library again.
    dropped.clear();
    if (closing != nullptr) {
        dlclose(closing);
    }
}

std::vector<std::shared_ptr<IPlugin>> PluginLib::PluginsByType(const std::string& type) const {
    std::vector<std::shared_ptr<IPlugin>> found;
    Ny::MutexLock guard(mutex);
    for (const auto& plugin : plugins) {
        const char* own = plugin->Type();
        if (own != nullptr && type == own) {
            found.push_back(plugin);
        }
    }
    return found;
}

std::vector<std::shared_ptr<IPlugin>> PluginLib::Plugins() const {
    Ny::MutexLock guard(mutex);
    return plugins;
}

PluginManager::PluginManager() = default;

PluginManager::~PluginManager() = default;

const PluginLib& PluginManager::Load(const fs::path& path) {
    Ny::RecursiveLock change(changeMutex);
    return LoadLocked(Normalized(path));
}

const PluginLib& PluginManager::LoadLocked(const fs::path& path) {
    const std::string file = path.string();
    if (FindLocked(path)) {
        throw NY_EXCEPTION(Ny::Status::Refused, "Plug-in %s is loaded already.", file.c_str());
    }
    std::error_code error;
    if (!fs::exists(path, error)) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Plug-in %s does not exist.", file.c_str());
    }
    // RTLD_NOW: a missing symbol refuses the library here instead of crashing a routine later.
    // RTLD_LOCAL: plug-ins do not see each other's symbols. RTLD_NODELETE: see PluginManager.h.
    HandleGuard handle(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    if (!handle) {
        const char* reason = dlerror();
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be loaded: %2$s", file.c_str(),
                           reason != nullptr ? reason : "unknown error");
    }
    const auto version = reinterpret_cast<ApiVersionFx>(dlsym(handle.get(), ApiVersionSymbol));
    const auto getPlugins = reinterpret_cast<GetPluginsFx>(dlsym(handle.get(), GetPluginsSymbol));
    if (version == nullptr || getPlugins == nullptr) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s has no plug-in entry point (%2$s, %3$s).",
                           file.c_str(), ApiVersionSymbol, GetPluginsSymbol);
    }
    if (const int built = version(); built != ApiVersion) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue,
                           "Plug-in %1$s was built for plug-in API version %2$d, this host offers %3$d.",
                           file.c_str(), built, ApiVersion);
    }
    CollectingSink sink;
    try {
        getPlugins(sink);
    } catch (...) {
        sink.plugins.clear();  // before the handle guard closes: these are the library's objects
        ThrowNamingFile(std::current_exception(), "failed in its entry point", file);
    }

    std::shared_ptr<PluginLib> lib(new PluginLib(path, handle.release(), std::move(sink.plugins)));
    {
        Ny::MutexLock guard(listMutex);
        libraries.push_back(lib);
    }
    NY_LOG(Ny::Logging::Level::Progress, "Plug-in %1$s loaded (%2$zu plug-in objects).", file.c_str(),
           lib->Plugins().size());
    try {
        loadEvent.Raise(*lib, PluginEvent::Loaded);
    } catch (...) {
        // Handlers before the failing one have taken the library in; taking it out again behind their
        // backs would leave them inconsistent, so it stays loaded and the caller hears of the failure.
        ThrowNamingFile(std::current_exception(), "is loaded, but a load handler failed", file);
    }
    return *lib;
}

void PluginManager::Unload(const fs::path& path) {
    Ny::RecursiveLock change(changeMutex);
    const fs::path normal = Normalized(path);
    const auto lib = FindLocked(normal);
    if (!lib) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Plug-in %s is not loaded.", normal.string().c_str());
    }
    UnloadLocked(lib);
}

void PluginManager::Unload(size_t index) {
    Ny::RecursiveLock change(changeMutex);
    std::shared_ptr<PluginLib> lib;
    size_t count = 0;
    {
        Ny::MutexLock guard(listMutex);
        count = libraries.size();
        if (index < count) {
            lib = libraries[index];
        }
    }
    if (!lib) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "No plug-in library at index %1$zu (%2$zu loaded).", index,
                           count);
    }
    UnloadLocked(lib);
}

void PluginManager::UnloadLocked(const std::shared_ptr<PluginLib>& lib) {
    // Only a handler of this very unload, on this thread, can get here with the flag set.
    if (lib->unloading) {
        throw NY_EXCEPTION(Ny::Status::Refused, "Plug-in %s is being unloaded already.",
                           lib->Path().string().c_str());
    }
    lib->unloading = true;
    std::exception_ptr handlerFailure;
    try {
        loadEvent.Raise(*lib, PluginEvent::Unloading);
    } catch (...) {
        // The unload goes on: a library that some handlers already let go of must not stay listed.
        handlerFailure = std::current_exception();
    }
    {
        Ny::MutexLock guard(listMutex);
        libraries.erase(std::remove(libraries.begin(), libraries.end(), lib), libraries.end());
        retired.push_back(lib);
    }
    lib->Retire();
    NY_LOG(Ny::Logging::Level::Progress, "Plug-in %s unloaded.", lib->Path().string().c_str());
    if (handlerFailure) {
        ThrowNamingFile(handlerFailure, "is unloaded, but an unload handler failed", lib->Path().string());
    }
}

std::shared_ptr<PluginLib> PluginManager::FindLocked(const fs::path& path) const {
    Ny::MutexLock guard(listMutex);
    const auto it = std::find_if(libraries.begin(), libraries.end(),
                                 [&path](const auto& loaded) { return loaded->Path() == path; });
    return it != libraries.end() ? *it : nullptr;
}

PluginManager::FolderFiles PluginManager::ListFolder(const fs::path& folder) {
    FolderFiles listing;
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        std::error_code typeError;
        // is_regular_file follows symbolic links: a link to a library in another folder counts as a file
        // of this one (Normalized resolves it afterwards, and the library is named by its target).
        if (entries->path().extension() == ".so" && entries->is_regular_file(typeError)) {
            listing.files.push_back(entries->path());
        }
    }
    if (error) {
        listing.files.clear();
        listing.refusal = "Plug-in folder " + folder.string() + " cannot be read: " + error.message();
        return listing;
    }
    std::sort(listing.files.begin(), listing.files.end(), [](const fs::path& a, const fs::path& b) {
        return a.filename().string() < b.filename().string();
    });
    return listing;
}

void PluginManager::LoadNewLocked(const std::vector<fs::path>& files, std::vector<std::string>& refused) {
    for (const auto& file : files) {
        const fs::path normal = Normalized(file);
        if (FindLocked(normal)) {
            continue;
        }
        try {
            LoadLocked(normal);
        } catch (const std::exception& e) {
            LogCaught("refused", normal, e);
            refused.emplace_back(e.what());
        }
    }
}

std::vector<std::string> PluginManager::LoadDirectory(const fs::path& folder) {
    Ny::RecursiveLock change(changeMutex);
    const FolderFiles listing = ListFolder(folder);
    if (!listing.refusal.empty()) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%s", listing.refusal.c_str());
        return {listing.refusal};
    }
    std::vector<std::string> refused;
    LoadNewLocked(listing.files, refused);
    return refused;
}

std::vector<std::string> PluginManager::Rescan(const fs::path& folder) {
    Ny::RecursiveLock change(changeMutex);
    const FolderFiles listing = ListFolder(folder);
    if (!listing.refusal.empty()) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%s; no plug-in changed.", listing.refusal.c_str());
        return {listing.refusal};
    }
    std::vector<fs::path> present;
    for (const auto& file : listing.files) {
        present.push_back(Normalized(file));
    }
    const fs::path root = Normalized(folder);
    std::vector<std::string> refused;
    for (const auto& lib : Libraries()) {
        if (lib->Path().parent_path() != root ||
            std::find(present.begin(), present.end(), lib->Path()) != present.end()) {
            continue;
        }
        // A handler of an earlier unload may have unloaded this one already.
        const auto stillLoaded = FindLocked(lib->Path());
        if (stillLoaded != lib || stillLoaded->unloading) {
            continue;
        }
        try {
            UnloadLocked(stillLoaded);
        } catch (const std::exception& e) {
            LogCaught("unloaded with a failure", lib->Path(), e);
            refused.emplace_back(e.what());
        }
    }
    LoadNewLocked(listing.files, refused);
    return refused;
}

size_t PluginManager::Count() const {
    Ny::MutexLock guard(listMutex);
    return libraries.size();
}

const PluginLib& PluginManager::At(size_t index) const {
    Ny::MutexLock guard(listMutex);
    if (index >= libraries.size()) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "No plug-in library at index %1$zu (%2$zu loaded).", index,
                           libraries.size());
    }
    return *libraries[index];
}

std::vector<std::shared_ptr<const PluginLib>> PluginManager::Libraries() const {
    Ny::MutexLock guard(listMutex);
    return {libraries.begin(), libraries.end()};
}

}  // namespace NyPlugin
