#include "NyPlugin/PluginManager.h"

#include <dlfcn.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyPlugin/PluginExport.h"

namespace NyPlugin {

namespace {

class CollectingSink final : public PluginSink {
  public:
    void Add(std::shared_ptr<IPlugin> plugin) override {
        if (plugin) {
            plugins.push_back(std::move(plugin));
        }
    }
    std::vector<std::shared_ptr<IPlugin>> plugins;
};

std::filesystem::path Normalized(const std::filesystem::path& path) {
    std::error_code error;
    auto absolute = std::filesystem::weakly_canonical(path, error);
    return error ? path : absolute;
}

}  // namespace

PluginLib::PluginLib(std::filesystem::path pathIn, void* handleIn,
                     std::vector<std::shared_ptr<IPlugin>> pluginsIn)
    : path(std::move(pathIn)), handle(handleIn), plugins(std::move(pluginsIn)) {}

PluginLib::~PluginLib() {
    plugins.clear();
    if (handle != nullptr) {
        dlclose(handle);  // opened with RTLD_NODELETE: the code stays mapped for objects still alive
    }
}

std::vector<std::shared_ptr<IPlugin>> PluginLib::PluginsByType(const std::string& type) const {
    std::vector<std::shared_ptr<IPlugin>> found;
    for (const auto& plugin : plugins) {
        if (type == plugin->Type()) {
            found.push_back(plugin);
        }
    }
    return found;
}

PluginManager::PluginManager() = default;

PluginManager::~PluginManager() = default;

const PluginLib& PluginManager::Load(const std::filesystem::path& requested) {
    const std::filesystem::path path = Normalized(requested);
    const std::string file = path.string();
    {
        std::lock_guard guard(mutex);
        for (const auto& lib : libraries) {
            if (lib->Path() == path) {
                throw NY_EXCEPTION(-987, "Plug-in %s is loaded already.", file.c_str());
            }
        }
    }
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        const char* reason = dlerror();
        throw NY_EXCEPTION(-997, "Plug-in %s cannot be loaded: %s", file.c_str(),
                           reason ? reason : "unknown error");
    }
    auto version = reinterpret_cast<ApiVersionFx>(dlsym(handle, ApiVersionSymbol));
    auto getPlugins = reinterpret_cast<GetPluginsFx>(dlsym(handle, GetPluginsSymbol));
    if (version == nullptr || getPlugins == nullptr) {
        dlclose(handle);
        throw NY_EXCEPTION(-997, "Plug-in %s has no plug-in entry point (%s, %s).", file.c_str(),
                           ApiVersionSymbol, GetPluginsSymbol);
    }
    if (const int built = version(); built != ApiVersion) {
        dlclose(handle);
        throw NY_EXCEPTION(-997, "Plug-in %s was built for plug-in API version %d, this host offers %d.",
                           file.c_str(), built, ApiVersion);
    }
    CollectingSink sink;
    try {
        getPlugins(sink);
    } catch (const std::exception& e) {
        throw NY_EXCEPTION(-997, "Plug-in %s failed in its entry point: %s", file.c_str(), e.what());
    }
    auto lib = std::make_shared<PluginLib>(path, handle, std::move(sink.plugins));
    {
        std::lock_guard guard(mutex);
        libraries.push_back(lib);
    }
    NY_LOG(Ny::Logging::Level::Notice, "Plug-in %s loaded (%zu plug-in objects).", file.c_str(),
           lib->Plugins().size());
    loadEvent.Raise(*lib, PluginEvent::Loaded);
    return *lib;
}

void PluginManager::Unload(const std::filesystem::path& requested) {
    const std::filesystem::path path = Normalized(requested);
    std::shared_ptr<PluginLib> lib;
    {
        std::lock_guard guard(mutex);
        const auto it = std::find_if(libraries.begin(), libraries.end(),
                                     [&](const auto& loaded) { return loaded->Path() == path; });
        if (it != libraries.end()) {
            lib = *it;
        }
    }
    if (!lib) {
        throw NY_EXCEPTION(-999, "Plug-in %s is not loaded.", path.string().c_str());
    }
    loadEvent.Raise(*lib, PluginEvent::Unloading);
    {
        std::lock_guard guard(mutex);
        libraries.erase(std::remove(libraries.begin(), libraries.end(), lib), libraries.end());
    }
    NY_LOG(Ny::Logging::Level::Notice, "Plug-in %s unloaded.", path.string().c_str());
}

std::vector<std::filesystem::path> PluginManager::LibraryFiles(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.path().extension() == ".so" && entry.is_regular_file(error)) {
            files.push_back(Normalized(entry.path()));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void PluginManager::LoadEach(const std::vector<std::filesystem::path>& files,
                             std::vector<std::string>& refused) {
    for (const auto& file : files) {
        try {
            Load(file);
        } catch (const std::exception& e) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "%s", e.what());
            refused.emplace_back(e.what());
        }
    }
}

std::vector<std::string> PluginManager::LoadDirectory(const std::filesystem::path& folder) {
    std::vector<std::string> refused;
    if (!std::filesystem::is_directory(folder)) {
        refused.push_back("Plug-in folder " + folder.string() + " does not exist.");
    }
    LoadEach(LibraryFiles(folder), refused);
    return refused;
}

std::vector<std::string> PluginManager::Rescan(const std::filesystem::path& folder) {
    const auto present = LibraryFiles(folder);
    const std::filesystem::path root = Normalized(folder);
    for (const auto& lib : Libraries()) {
        if (lib->Path().parent_path() == root &&
            std::find(present.begin(), present.end(), lib->Path()) == present.end()) {
            Unload(lib->Path());
        }
    }
    std::vector<std::filesystem::path> added;
    const auto loaded = Libraries();
    for (const auto& file : present) {
        if (std::none_of(loaded.begin(), loaded.end(),
                         [&](const auto& lib) { return lib->Path() == file; })) {
            added.push_back(file);
        }
    }
    std::vector<std::string> refused;
    LoadEach(added, refused);
    return refused;
}

size_t PluginManager::Count() const {
    std::lock_guard guard(mutex);
    return libraries.size();
}

const PluginLib& PluginManager::At(size_t index) const {
    std::lock_guard guard(mutex);
    return *libraries.at(index);
}

std::vector<std::shared_ptr<const PluginLib>> PluginManager::Libraries() const {
    std::lock_guard guard(mutex);
    return {libraries.begin(), libraries.end()};
}

}  // namespace NyPlugin
