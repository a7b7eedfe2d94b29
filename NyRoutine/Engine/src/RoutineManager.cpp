#include "NyRoutine/Engine/RoutineManager.h"

#include <exception>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyValues/Params/Group.h"

namespace NyRoutine::Internal {

namespace {
constexpr const char* RunningMessage = "Routine [%1$s] cannot be created while system is running.";
constexpr const char* LimitMessage =
    "Routine [%1$s] cannot be created; maximum number of [%2$u] concurrently running routines reached.";
}  // namespace

RoutineManager::RoutineManager(RoutineRegistry& registryIn, NyCore::Core* coreIn, size_t maxRunningIn)
    : registry(registryIn), core(coreIn), maxRunning(maxRunningIn) {
    if (core != nullptr) {
        factoryRestoreSubscription = core->FactoryRestoreEvent().Subscribe([this] { ClearAllRoutines(); });
        factoryRestoreSubscribed = true;
    }
}

RoutineManager::~RoutineManager() {
    if (core != nullptr && factoryRestoreSubscribed) {
        try {
            core->FactoryRestoreEvent().Unsubscribe(factoryRestoreSubscription);
        } catch (const std::exception& e) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "Exception during RoutineManager destruction (%s).",
                   e.what());
            Ny::Exception::LogException(e, 0);
            Ny::Exception::LogBackTrace(e);
        }
    }
    std::map<std::string, std::shared_ptr<RoutineEntry>> remaining;
    {
        std::unique_lock guard(mutex);
        remaining.swap(routines);
    }
    // A creation waiting for its first continue would never return, and would then reach into this
    // manager: let it go and wait until every creation has left.
    for (auto& entry : remaining) {
        entry.second->instance.ReleaseStartWaiter();
    }
    {
        std::unique_lock guard(mutex);
        creationsDone.wait(guard, [this] { return creationsInProgress == 0; });
    }
    remaining.clear();
}

bool RoutineManager::SystemIsRunning() const {
    return core != nullptr && core->GetRunState() == NyCore::Core::Running;
}

std::string RoutineManager::RefusalLocked(const std::string&, bool& limit) const {
    limit = false;
    if (SystemIsRunning()) {
        return RunningMessage;
    }
    if (maxRunning != 0 && routines.size() + creationsInProgress >= maxRunning) {
        limit = true;
        return LimitMessage;
    }
    return {};
}

void RoutineManager::Refuse(const std::string& typeName, bool limit) {
    const auto max = static_cast<unsigned>(maxRunning);
    if (limit) {
        Ny::Logging::Ny_Debug_Log(__LINE__, __FILE__, Ny::Logging::Level::ManagerRefusal, "RoutineManager",
                                  LimitMessage, typeName.c_str(), max);
        throw NY_EXCEPTION(-1000, LimitMessage, typeName.c_str(), max);
    }
    Ny::Logging::Ny_Debug_Log(__LINE__, __FILE__, Ny::Logging::Level::ManagerRefusal, "RoutineManager",
                              RunningMessage, typeName.c_str());
    throw NY_EXCEPTION(-1000, RunningMessage, typeName.c_str());
}

void RoutineManager::CheckCanCreate(const std::string& typeName) {
    bool limit = false;
    std::string refusal;
    {
        std::lock_guard guard(mutex);
        refusal = RefusalLocked(typeName, limit);
    }
    if (!refusal.empty()) {
        Refuse(typeName, limit);
    }
}

std::string RoutineManager::CreateId(const std::string& typeName) {
    return typeName + "-" + std::to_string(nextIdNumber++);
}

std::string RoutineManager::Create(const std::string& typeName, std::shared_ptr<Ny::Params::Group> params) {
    std::shared_ptr<const RoutineInfo> type = registry.FindShared(typeName);
    if (!type) {
        throw NY_EXCEPTION(-999);
    }
    // The check and the reservation of a place are one step, so parallel creations cannot pass the
    // limit together; the place is held while plug-in code makes the routine outside the lock.
    {
        bool limit = false;
        std::unique_lock guard(mutex);
        if (!RefusalLocked(typeName, limit).empty()) {
            guard.unlock();
            Refuse(typeName, limit);
        }
        ++creationsInProgress;
    }
    struct Reservation {
        RoutineManager& manager;
        ~Reservation() {
            {
                std::lock_guard guard(manager.mutex);
                --manager.creationsInProgress;
            }
            manager.creationsDone.notify_all();
        }
    } reservation{*this};

    std::shared_ptr<IRoutine> routine = type->Factory().CreateRoutine();
    if (!routine) {
        // Nothing is registered and no id is used for a factory that made nothing.
        throw NY_EXCEPTION(-992, "Routine type [%s] made no routine object.", typeName.c_str());
    }
    if (params) {
        routine->SetCreateParams(params);
    }
    std::string id;
    {
        std::lock_guard guard(mutex);
        id = CreateId(typeName);
    }
    auto entry = std::make_shared<RoutineEntry>(type, routine, core, id);
    {
        std::lock_guard guard(mutex);
        routines.emplace(id, entry);
    }
    createdEvent.Raise(id);
    entry->instance.Start();
    // Removed or cleared while the start waited for its continue: the caller learns the routine is gone.
    bool stillThere = false;
    {
        std::lock_guard guard(mutex);
        const auto it = routines.find(id);
        stillThere = it != routines.end() && it->second == entry;
    }
    if (!stillThere) {
        throw NY_EXCEPTION(-999, "Routine %s was deleted before it started.", id.c_str());
    }
    return id;
}

void RoutineManager::Remove(const std::string& id) {
    std::shared_ptr<RoutineEntry> entry;
    {
        std::lock_guard guard(mutex);
        const auto it = routines.find(id);
        if (it != routines.end()) {
            entry = std::move(it->second);
            routines.erase(it);
        }
    }
    if (!entry) {
        throw NY_EXCEPTION(-999);
    }
    entry->instance.ReleaseStartWaiter();
    entry.reset();
    deletedEvent.Raise(id);
}

std::vector<std::string> RoutineManager::ListIds() const {
    std::lock_guard guard(mutex);
    std::vector<std::string> ids;
    ids.reserve(routines.size());
    for (const auto& entry : routines) {
        ids.push_back(entry.first);
    }
    return ids;
}

RoutineInstance& RoutineManager::GetInstance(const std::string& id) {
    return *AcquireInstance(id);
}

std::shared_ptr<RoutineInstance> RoutineManager::AcquireInstance(const std::string& id) {
    std::shared_ptr<RoutineEntry> entry;
    {
        std::lock_guard guard(mutex);
        const auto it = routines.find(id);
        if (it != routines.end()) {
            entry = it->second;
        }
    }
    if (!entry) {
        throw Ny::Exception(__LINE__, __FILE__, -999, "NyRoutine::Internal::RoutineManager::GetInstance",
                            "Routine %s not found!", id.c_str());
    }
    return std::shared_ptr<RoutineInstance>(entry, &entry->instance);
}

void RoutineManager::ClearAllRoutines() {
    NY_LOG(Ny::Logging::Level::Notice, "Routine(s) are going to abort.");
    // The routines leave the map before they are aborted: a creation that an abort releases must find
    // its routine gone (it was cleared), whichever thread runs first.
    std::map<std::string, std::shared_ptr<RoutineEntry>> dropped;
    {
        std::lock_guard guard(mutex);
        dropped.swap(routines);
    }
    try {
        for (auto& [id, entry] : dropped) {
            NY_LOG(Ny::Logging::Level::Notice, "Aborting routine %s", id.c_str());
            entry->instance.Abort();
        }
    } catch (...) {
        // An abort failed: no routine is dropped, as if the clear had stopped there.
        std::lock_guard guard(mutex);
        routines.merge(dropped);
        throw;
    }
    for (auto& entry : dropped) {
        entry.second->instance.ReleaseStartWaiter();
    }
    dropped.clear();
    deletedEvent.Raise("*");
}

std::unique_ptr<Ny::Params::Group> RoutineManager::GetCreateParams(const std::string& typeName) {
    const auto type = registry.FindShared(typeName);
    if (!type) {
        throw NY_EXCEPTION(-999);
    }
    return type->CreationParams();
}

}  // namespace NyRoutine::Internal
