#include "NyPlugin/PluginManager.h"

#include <dlfcn.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyPlugin/PluginExport.h"
#include "PrivateCopies.h"

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

// Appends the sentence `next` to `text`. Messages from elsewhere (the loader's, the system's) may end
// without a full stop; the one that follows must still read as a sentence of its own.
std::string JoinSentences(std::string text, const std::string& next) {
    if (next.empty()) {
        return text;
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) {
        text.pop_back();
    }
    if (!text.empty() && text.back() != '.' && text.back() != '!' && text.back() != '?') {
        text += '.';
    }
    return text.empty() ? next : text + " " + next;
}

// A failure that LoadDirectory or Rescan catches to go on with the other files: logged and collected.
// `addendum` is a sentence that follows the failure's message.
void Refuse(RescanSummary& summary, const char* what, const fs::path& file, const std::exception& e,
            const std::string& addendum = {}) {
    NY_LOG(Ny::Logging::Level::CaughtFailure, "Plug-in %1$s %2$s.", file.string().c_str(), what);
    Ny::Exception::LogException(e, 0);
    Ny::Exception::LogBackTrace(e);
    summary.refused.push_back({file, JoinSentences(e.what(), addendum)});
}

constexpr const char* kOldStays = "The library loaded before stays in service.";

// "2 (a.so, b.so)", or "0".
std::string CountAndNames(const std::vector<fs::path>& files) {
    std::string text = std::to_string(files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        text += (i == 0 ? " (" : ", ") + files[i].filename().string();
    }
    return files.empty() ? text : text + ")";
}

// The loader's message names the private copy; the operator knows the file by its own path.
std::string NamingTheFile(std::string reason, const std::string& copy, const std::string& file) {
    for (size_t at = reason.find(copy); at != std::string::npos; at = reason.find(copy, at + file.size())) {
        reason.replace(at, copy.size(), file);
    }
    return reason;
}

}  // namespace

std::string RescanSummary::Text() const {
    std::string text = "loaded " + CountAndNames(loaded) + ", reloaded " + CountAndNames(reloaded) +
                       ", unloaded " + CountAndNames(unloaded) + ", refused " +
                       std::to_string(refused.size());
    for (size_t i = 0; i < refused.size(); ++i) {
        text += (i == 0 ? " (" : "; ") + refused[i].file.filename().string() + ": " + refused[i].cause;
    }
    return refused.empty() ? text : text + ")";
}

// A library between its entry point and its listing. Until it is published, dropping it undoes it:
// the objects go first (their destructors are the library's code), then the handle, then the copy.
class PluginManager::Prepared {
  public:
    Prepared(fs::path pathIn, fs::path copyIn) : path(std::move(pathIn)), copy(std::move(copyIn)) {}
    // The moved-from one is left with nothing to undo.
    Prepared(Prepared&& other) noexcept
        : path(std::move(other.path)),
          copy(std::exchange(other.copy, {})),
          contentHash(std::move(other.contentHash)),
          handle(std::move(other.handle)),
          plugins(std::exchange(other.plugins, {})) {}
    Prepared& operator=(Prepared&&) = delete;
    ~Prepared() {
        plugins.clear();
        handle.reset();
        if (!copy.empty()) {
            std::error_code ignored;
            fs::remove(copy, ignored);
        }
    }

    fs::path path;  // the plug-in file
    fs::path copy;  // the private copy; empty once published (it then stays with the manager's folder)
    std::string contentHash;
    HandleGuard handle;
    std::vector<std::shared_ptr<IPlugin>> plugins;
};

PluginLib::PluginLib(fs::path pathIn, void* handleIn, std::vector<std::shared_ptr<IPlugin>> pluginsIn,
                     std::string contentHashIn, std::chrono::system_clock::time_point loadTimeIn)
    : path(std::move(pathIn)),
      fileName(path.filename().string()),
      contentHash(std::move(contentHashIn)),
      loadTime(loadTimeIn),
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

PluginManager::~PluginManager() {
    // Only the files go: the copies stay mapped (RTLD_NODELETE), and a mapping outlives its file.
    if (!privateFolder.empty()) {
        std::error_code ignored;
        fs::remove_all(privateFolder, ignored);
    }
}

const PluginLib& PluginManager::Load(const fs::path& path) {
    Ny::RecursiveLock change(changeMutex);
    return LoadLocked(Normalized(path));
}

const PluginLib& PluginManager::LoadLocked(const fs::path& path) {
    if (FindLocked(path)) {
        throw NY_EXCEPTION(Ny::Status::Refused, "Plug-in %s is loaded already.", path.string().c_str());
    }
    return PublishLocked(PrepareLocked(path));
}

PluginManager::Prepared PluginManager::PrepareLocked(const fs::path& path) {
    const std::string file = path.string();
    std::error_code error;
    if (!fs::exists(path, error)) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Plug-in %s does not exist.", file.c_str());
    }
    if (privateFolder.empty()) {
        privateFolder = Internal::MakePrivateFolder();
    }
    // Numbered, so that each load of one file is a new file to the loader (see PluginManager.h).
    Prepared prepared(path, privateFolder / (std::to_string(++copiesMade) + "-" + path.filename().string()));
    try {
        prepared.contentHash = Internal::CopyHashed(path, prepared.copy);
    } catch (...) {
        prepared.copy.clear();  // nothing of it is left to remove
        throw;
    }
    // Before the loader maps anything: a file cut short would kill the process with SIGBUS in there.
    Internal::CheckComplete(prepared.copy, file);
    // The loader runs the library's static constructors, which may abort the process: the last line
    // before that names the file.
    NY_LOG(Ny::Logging::Level::Progress, "Loading plug-in %s", file.c_str());
    // RTLD_NOW: a missing symbol refuses the library here instead of crashing a routine later.
    // RTLD_LOCAL: plug-ins do not see each other's symbols. RTLD_NODELETE: see PluginManager.h.
    prepared.handle.reset(dlopen(prepared.copy.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    if (!prepared.handle) {
        const char* reason = dlerror();
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be loaded: %2$s", file.c_str(),
                           reason != nullptr ? NamingTheFile(reason, prepared.copy.string(), file).c_str()
                                             : "unknown error");
    }
    const auto version = reinterpret_cast<ApiVersionFx>(dlsym(prepared.handle.get(), ApiVersionSymbol));
    const auto getPlugins = reinterpret_cast<GetPluginsFx>(dlsym(prepared.handle.get(), GetPluginsSymbol));
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
        sink.plugins.clear();  // before the handle closes: these are the library's objects
        ThrowNamingFile(std::current_exception(), "failed in its entry point", file);
    }
    prepared.plugins = std::move(sink.plugins);
    return prepared;
}

const PluginLib& PluginManager::PublishLocked(Prepared prepared) {
    const std::string file = prepared.path.string();
    std::shared_ptr<PluginLib> lib(new PluginLib(prepared.path, prepared.handle.release(),
                                                 std::move(prepared.plugins), prepared.contentHash,
                                                 std::chrono::system_clock::now()));
    prepared.copy.clear();  // the library's code is mapped from it: it stays until the manager goes
    {
        Ny::MutexLock guard(listMutex);
        libraries.push_back(lib);
    }
    NY_LOG(Ny::Logging::Level::Progress, "Plug-in %1$s loaded (%2$zu plug-in objects, SHA-256 %3$s).",
           file.c_str(), lib->Plugins().size(), lib->ContentHash().c_str());
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
        if (entries->path().extension() != ".so") {
            continue;
        }
        // status() follows symbolic links: a link to a library in another folder counts as a file of
        // this one (Normalized resolves it afterwards, and the library is named by its target).
        std::error_code typeError;
        const fs::file_status status = entries->status(typeError);
        if (fs::is_regular_file(status)) {
            listing.files.push_back(entries->path());
            continue;
        }
        // Named like a library but none: the operator hears of it like of any other refusal, instead
        // of wondering why the plug-in is missing.
        const fs::path& entry = entries->path();
        std::string why;
        if (entries->is_symlink(typeError) && !fs::exists(status)) {
            std::error_code linkError;
            why = "is a symbolic link to " + fs::read_symlink(entry, linkError).string() +
                  ", which does not exist";
        } else if (fs::is_directory(status)) {
            why = "is a folder, not a library file";
        } else {
            why = "is not a regular file";
        }
        listing.skipped.push_back({entry, "Plug-in " + entry.string() + " " + why + "."});
    }
    if (error) {
        listing.files.clear();
        listing.skipped.clear();
        listing.refusal = "Plug-in folder " + folder.string() + " cannot be read: " + error.message();
        return listing;
    }
    std::sort(listing.files.begin(), listing.files.end(), [](const fs::path& a, const fs::path& b) {
        return a.filename().string() < b.filename().string();
    });
    std::sort(listing.skipped.begin(), listing.skipped.end(), [](const auto& a, const auto& b) {
        return a.first.filename().string() < b.first.filename().string();
    });
    return listing;
}

void PluginManager::RefuseSkipped(const FolderFiles& listing, RescanSummary& summary) {
    for (const auto& [entry, reason] : listing.skipped) {
        Refuse(summary, "refused", entry, NY_EXCEPTION(Ny::Status::InvalidValue, "%s", reason.c_str()));
    }
}

void PluginManager::LoadNewLocked(const fs::path& path, RescanSummary& summary) {
    try {
        LoadLocked(path);
        summary.loaded.push_back(path);
    } catch (const std::exception& e) {
        if (FindLocked(path)) {
            summary.loaded.push_back(path);  // loaded; a handler failed
        }
        Refuse(summary, "refused", path, e);
    }
}

void PluginManager::ReloadLocked(const std::shared_ptr<PluginLib>& lib, RescanSummary& summary) {
    const fs::path& path = lib->Path();
    // Prepared first, so that a file that does not load (half copied, built wrongly) leaves the library
    // that works in service: an operator would rather keep the old code than lose the routine types.
    std::optional<Prepared> next;
    try {
        next.emplace(PrepareLocked(path));
    } catch (const std::exception& e) {
        Refuse(summary, "changed but is refused; the library loaded before stays", path, e, kOldStays);
        return;
    }
    // The old library goes before the new one comes: both offer the same routine types, and a type
    // name can be registered once.
    try {
        UnloadLocked(lib);
    } catch (const std::exception& e) {
        Refuse(summary, "unloaded for its reload with a failure", path, e);
    }
    summary.reloaded.push_back(path);
    if (FindLocked(path)) {
        return;  // never list one file twice, whatever an unload handler did
    }
    try {
        PublishLocked(std::move(*next));
    } catch (const std::exception& e) {
        Refuse(summary, "reloaded with a failure", path, e);
    }
}

std::vector<std::string> PluginManager::LoadDirectory(const fs::path& folder) {
    Ny::RecursiveLock change(changeMutex);
    const FolderFiles listing = ListFolder(folder);
    if (!listing.refusal.empty()) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%s", listing.refusal.c_str());
        return {listing.refusal};
    }
    RescanSummary summary;
    RefuseSkipped(listing, summary);
    for (const auto& file : listing.files) {
        const fs::path normal = Normalized(file);
        if (!FindLocked(normal)) {
            LoadNewLocked(normal, summary);
        }
    }
    std::vector<std::string> refused;
    for (const auto& refusal : summary.refused) {
        refused.push_back(refusal.cause);
    }
    return refused;
}

RescanSummary PluginManager::Rescan(const fs::path& folder) {
    Ny::RecursiveLock change(changeMutex);
    RescanSummary summary;
    const fs::path root = Normalized(folder);
    auto countFolderLibraries = [this, &root] {
        const auto loaded = Libraries();
        return static_cast<size_t>(std::count_if(loaded.begin(), loaded.end(), [&root](const auto& lib) {
            return lib->Path().parent_path() == root;
        }));
    };
    const FolderFiles listing = ListFolder(folder);
    if (!listing.refusal.empty()) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%s; no plug-in changed.", listing.refusal.c_str());
        summary.refused.push_back({folder, listing.refusal});
        summary.libraries = countFolderLibraries();
        return summary;
    }
    // Entries refused as no library file count as files: a host whose folder holds only such entries
    // warns that every one was refused, instead of that the folder holds none.
    summary.files = listing.files.size() + listing.skipped.size();
    RefuseSkipped(listing, summary);
    std::vector<fs::path> present;
    for (const auto& file : listing.files) {
        present.push_back(Normalized(file));
    }
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
        summary.unloaded.push_back(lib->Path());
        try {
            UnloadLocked(stillLoaded);
        } catch (const std::exception& e) {
            Refuse(summary, "unloaded with a failure", lib->Path(), e);
        }
    }
    for (const auto& path : present) {
        const auto lib = FindLocked(path);
        if (!lib) {
            LoadNewLocked(path, summary);
            continue;
        }
        if (lib->unloading) {
            continue;  // a handler of this library's unload rescans: that unload goes on
        }
        try {
            if (Internal::HashOf(path) == lib->ContentHash()) {
                continue;
            }
        } catch (const std::exception& e) {
            Refuse(summary, "cannot be read; the library loaded before stays", path, e, kOldStays);
            continue;
        }
        ReloadLocked(lib, summary);
    }
    summary.libraries = countFolderLibraries();
    return summary;
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
