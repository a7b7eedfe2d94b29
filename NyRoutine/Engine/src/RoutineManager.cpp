#include "NyRoutine/Engine/RoutineManager.h"

#include <exception>
#include <utility>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyValues/Params/Group.h"

namespace NyRoutine::Internal {

namespace {
constexpr const char* RunningMessage = "Routine [%1$s] cannot be created while system is running.";
constexpr const char* LimitMessage =
    "Routine [%1$s] cannot be created; maximum number of [%2$u] concurrently running routines reached.";
// What a client reads: says which limit, and how to make room.
constexpr const char* LimitRefusal =
    "Routine [%1$s] cannot be created: the routine limit of [%2$u] is reached (a finished routine counts "
    "until it is deleted).";
constexpr const char* ClosedMessage = "Routine [%1$s] cannot be created; the routine manager is closing.";
}  // namespace

// Counts a creation as inside the manager from its admission to its return, and holds its place
// toward the limit until its entry is in the map (or the creation fails).
class RoutineManager::CallScope {
  public:
    explicit CallScope(RoutineManager& managerIn) : manager(managerIn) {
        Ny::MutexLock guard(manager.mutex);
        ++manager.callsInside;
    }
    ~CallScope() {
        // Notified with the lock held: the destructor may be waiting for this very call to leave, and
        // must not destroy the condition variable while the notification is still in progress.
        Ny::MutexLock guard(manager.mutex);
        if (holdsReservation) {
            --manager.reserved;
        }
        --manager.callsInside;
        manager.changed.NotifyAll();
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

    // Changed under `manager.mutex`: set on admission, cleared when the entry takes the place.
    bool holdsReservation = false;

  private:
    RoutineManager& manager;
};

RoutineManager::RoutineManager(RoutineRegistry& registryIn, NyCore::Core* coreIn, size_t maxRunningIn)
    : registry(registryIn), core(coreIn), maxRunning(maxRunningIn) {
    reaperThread = std::thread([this] { ReaperLoop(); });
    if (core != nullptr) {
        factoryRestoreSubscription =
            core->FactoryRestoreEvent().SubscribeScoped([this] { ClearAllRoutines(); });
    }
}

RoutineManager::~RoutineManager() {
    // No clear may start any more; one in progress on the core's thread is waited for.
    factoryRestoreSubscription.Reset();
    Close();
    {
        // Calls still inside were released by Close: only a factory that is still running is waited for.
        Ny::MutexLock guard(mutex);
        while (callsInside > 0) {
            changed.Wait(mutex);
        }
    }
    EntryMap remaining;
    {
        Ny::MutexLock guard(mutex);
        remaining.swap(routines);
    }
    remaining.clear();
    {
        // The reaper destroys what was handed over before it leaves; a later release on a runner thread
        // (a request held an instance past the manager) gets a thread of its own (see DestroyEntry).
        Ny::MutexLock guard(reaper->mutex);
        reaper->stopped = true;
        reaper->wake.NotifyAll();
    }
    reaperThread.join();
}

void RoutineManager::ReaperLoop() {
    Ny::MutexLock guard(reaper->mutex);
    for (;;) {
        while (reaper->handedOver.empty() && !reaper->stopped) {
            reaper->wake.Wait(reaper->mutex);
        }
        if (reaper->handedOver.empty()) {
            return;
        }
        std::vector<RoutineEntry*> batch;
        batch.swap(reaper->handedOver);
        guard.Unlock();
        for (RoutineEntry* entry : batch) {
            DestroyEntry(reaper, entry);  // not on the entry's runner thread: destroyed here
        }
        guard.Lock();
    }
}

void RoutineManager::DestroyEntry(const std::shared_ptr<Reaper>& reaperIn, RoutineEntry* entry) {
    if (entry->instance.IsOwnThread()) {
        // Destroying the instance here would join this very thread, and free the routine whose code is
        // still on this stack: the runner job that raised the event which released it.
        {
            Ny::MutexLock guard(reaperIn->mutex);
            if (!reaperIn->stopped) {
                reaperIn->handedOver.push_back(entry);
                reaperIn->wake.NotifyAll();
                return;
            }
        }
        // The manager is gone (a request held the instance past it): a thread of its own destroys it.
        std::thread([reaperIn, entry] { DestroyEntry(reaperIn, entry); }).detach();
        return;
    }
    const bool counted = entry->countedAsLeaving;
    delete entry;
    if (counted) {
        --reaperIn->leaving;
    }
}

void RoutineManager::CountLeavingLocked(RoutineEntry& entry) {
    if (!entry.countedAsLeaving) {
        entry.countedAsLeaving = true;
        ++reaper->leaving;
    }
}

void RoutineManager::GiveBackPlace(RoutineEntry& entry) {
    if (!entry.instance.StopCode()) {
        return;
    }
    // Given back here rather than when the entry is destroyed: whoever still holds the entry (the
    // creating call this removal released, a request) may let go only after the caller has moved on.
    Ny::MutexLock guard(mutex);
    if (entry.countedAsLeaving) {
        entry.countedAsLeaving = false;
        --reaper->leaving;
    }
}

void RoutineManager::Close() {
    EntryMap waiting;
    {
        Ny::MutexLock guard(mutex);
        closed = true;
        waiting = routines;
        changed.NotifyAll();
    }
    for (auto& entry : waiting) {
        entry.second->instance.ReleaseStartWaiter();
    }
}

bool RoutineManager::SystemIsRunning() const {
    return core != nullptr && core->GetRunState() == NyCore::Core::Running;
}

std::string RoutineManager::RefusalLocked(bool& limit) const {
    limit = false;
    if (SystemIsRunning()) {
        return RunningMessage;
    }
    // Every routine counts once: an entry in the map, one taken out (removed or cleared) that is not
    // destroyed yet, or a reservation of a creation whose entry does not exist yet.
    if (maxRunning != 0 && routines.size() + reaper->leaving.load() + reserved >= maxRunning) {
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
        throw NY_EXCEPTION(Ny::Status::Refused, LimitRefusal, typeName.c_str(), max);
    }
    Ny::Logging::Ny_Debug_Log(__LINE__, __FILE__, Ny::Logging::Level::ManagerRefusal, "RoutineManager",
                              RunningMessage, typeName.c_str());
    throw NY_EXCEPTION(Ny::Status::Refused, RunningMessage, typeName.c_str());
}

void RoutineManager::CheckCanCreate(const std::string& typeName) {
    bool limit = false;
    std::string refusal;
    {
        Ny::MutexLock guard(mutex);
        refusal = RefusalLocked(limit);
    }
    if (!refusal.empty()) {
        Refuse(typeName, limit);
    }
}

std::uint64_t RoutineManager::AdmitLocked(const std::string&, bool& refused, bool& limit) {
    refused = false;
    limit = false;
    // A creation that arrives during a clear waits for it to end: the routines being aborted still
    // count, and the new routine must not be dropped by a clear it never belonged to.
    while (clearRunning && !closed) {
        changed.Wait(mutex);
    }
    if (closed) {
        refused = true;
        return 0;
    }
    refused = !RefusalLocked(limit).empty();
    return clearGeneration;
}

std::string RoutineManager::Create(const std::string& typeName, std::shared_ptr<Ny::Params::Group> params) {
    // Holds the record and, through it, the plug-in object that owns the factory: an unload during the
    // factory call cannot free the factory under it.
    std::shared_ptr<const RoutineInfo> type = registry.FindShared(typeName);
    if (!type) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    // The check and the reservation of a place are one step, so parallel creations cannot pass the
    // limit together; the place is held while plug-in code makes the routine outside the lock.
    CallScope scope(*this);
    std::uint64_t generation = 0;
    {
        bool refused = false;
        bool limit = false;
        Ny::MutexLock guard(mutex);
        generation = AdmitLocked(typeName, refused, limit);
        if (refused) {
            const bool isClosed = closed;
            guard.Unlock();
            if (isClosed) {
                throw NY_EXCEPTION(Ny::Status::Refused, ClosedMessage, typeName.c_str());
            }
            Refuse(typeName, limit);
        }
        ++reserved;
        scope.holdsReservation = true;
    }

    const std::shared_ptr<RoutineEntry> entry = MakeEntry(typeName, type, std::move(params));
    const std::string id = entry->instance.Id();
    {
        Ny::MutexLock announce(announceMutex);
        bool cleared = false;
        {
            Ny::MutexLock guard(mutex);
            cleared = closed || clearGeneration != generation;
            if (!cleared) {
                routines.emplace(id, entry);
                --reserved;
                scope.holdsReservation = false;
            }
        }
        if (cleared) {
            // A clear began (or the manager closed) while the factory ran: the new routine belongs to
            // it, and it never existed for anyone else.
            announce.Unlock();
            throw NY_EXCEPTION(Ny::Status::NotFound, "Routine %s was deleted before it started.", id.c_str());
        }
        createdEvent.Raise(id);
    }
    try {
        entry->instance.Start();
    } catch (const Ny::Exception&) {
        // Aborted by another request between its announcement and this start: the creation succeeds
        // with the aborted routine, listed like any routine, so that the creator and the list agree.
        if (!entry->instance.EndedBeforeStart()) {
            throw;
        }
    }
    // Removed, cleared or closed while the start waited for its continue: the caller learns the routine
    // is gone. A clear decides first whether it drops the routine or (when an abort fails) keeps it.
    bool stillThere = false;
    {
        Ny::MutexLock guard(mutex);
        while (clearRunning && !closed) {
            changed.Wait(mutex);
        }
        const auto it = routines.find(id);
        stillThere = !closed && it != routines.end() && it->second == entry;
    }
    if (!stillThere) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Routine %s was deleted before it started.", id.c_str());
    }
    return id;
}

std::shared_ptr<RoutineManager::RoutineEntry> RoutineManager::MakeEntry(
    const std::string& typeName, const std::shared_ptr<const RoutineInfo>& type,
    std::shared_ptr<Ny::Params::Group> params) {
    std::shared_ptr<IRoutine> routine = type->Factory().CreateRoutine();
    if (!routine) {
        // Nothing is registered and no id is used for a factory that made nothing.
        throw NY_EXCEPTION(Ny::Status::NoFactory, "Routine type [%s] made no routine object.",
                           typeName.c_str());
    }
    if (params) {
        routine->SetCreateParams(params);
    }
    std::string id;
    {
        Ny::MutexLock guard(mutex);
        id = typeName + "-" + std::to_string(nextIdNumber++);
    }
    const std::shared_ptr<Reaper> entryReaper = reaper;
    return std::shared_ptr<RoutineEntry>(
        new RoutineEntry(type, routine, core, id),
        [entryReaper](RoutineEntry* entry) { DestroyEntry(entryReaper, entry); });
}

void RoutineManager::EndRemoved(const std::string& id, RoutineEntry& entry) {
    try {
        entry.instance.EndForRemoval();
    } catch (const std::exception& e) {
        // The routine has ended all the same (failed); the removal goes on.
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Ending removed routine %s failed (%s).", id.c_str(),
               e.what());
    } catch (...) {
        // Routine code threw something else (the routine logged it and ended Failed): the same.
        NY_LOG(Ny::Logging::Level::CaughtFailure,
               "Ending removed routine %s failed (an exception that is not a std::exception).", id.c_str());
    }
}

void RoutineManager::Remove(const std::string& id) {
    std::shared_ptr<RoutineEntry> entry;
    {
        // Under the announcement lock: the routine's created event has been raised before it leaves.
        Ny::MutexLock announce(announceMutex);
        Ny::MutexLock guard(mutex);
        const auto it = routines.find(id);
        if (it != routines.end()) {
            entry = std::move(it->second);
            routines.erase(it);
            CountLeavingLocked(*entry);
        }
    }
    if (!entry) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    // Ended before the deleted event, also when a request still holds the instance: nothing of the
    // routine may run on after its deletion was announced.
    EndRemoved(id, *entry);
    GiveBackPlace(*entry);
    entry.reset();
    // Not under the announcement lock: the routine left the map under it, after its created event had
    // been raised, so the per-id order holds already. Holding it here would make a deleted handler that
    // waits for another thread (the resource's flush of this routine) wait for a removal made by that
    // thread's own handler.
    deletedEvent.Raise(id);
}

std::vector<std::string> RoutineManager::ListIds() const {
    Ny::MutexLock guard(mutex);
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
        Ny::MutexLock guard(mutex);
        const auto it = routines.find(id);
        if (it != routines.end()) {
            entry = it->second;
        }
    }
    if (!entry) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Routine %s not found!", id.c_str());
    }
    return std::shared_ptr<RoutineInstance>(entry, &entry->instance);
}

void RoutineManager::ClearAllRoutines() {
    NY_LOG(Ny::Logging::Level::Notice, "Routine(s) are going to abort.");
    {
        // One clear at a time; from here on admissions wait and creations in their factory are cleared.
        Ny::MutexLock guard(mutex);
        while (clearRunning) {
            changed.Wait(mutex);
        }
        clearRunning = true;
        ++clearGeneration;
    }
    // The routines leave the map before they are aborted: a creation that an abort releases must find
    // its routine gone (it was cleared). They still count toward the limit until the clear has ended.
    EntryMap dropped;
    {
        Ny::MutexLock announce(announceMutex);
        Ny::MutexLock guard(mutex);
        dropped.swap(routines);
        for (auto& entry : dropped) {
            CountLeavingLocked(*entry.second);
        }
    }
    try {
        for (auto& [id, entry] : dropped) {
            NY_LOG(Ny::Logging::Level::Notice, "Aborting routine %s", id.c_str());
            entry->instance.Abort();
        }
    } catch (...) {
        // An abort failed: no routine is dropped, as if the clear had stopped there. The held creations
        // wait for this decision, so they learn that their routine is still there.
        {
            Ny::MutexLock guard(mutex);
            for (auto& entry : dropped) {
                entry.second->countedAsLeaving = false;
                --reaper->leaving;
            }
            routines.merge(dropped);
            clearRunning = false;
            changed.NotifyAll();  // under the lock, like every notification of it (see CallScope)
        }
        throw;
    }
    for (auto& entry : dropped) {
        entry.second->instance.ReleaseStartWaiter();
    }
    // Admissions still wait for this clear, and its routines count until their code is over.
    for (auto& entry : dropped) {
        GiveBackPlace(*entry.second);
    }
    dropped.clear();
    {
        Ny::MutexLock announce(announceMutex);
        {
            Ny::MutexLock guard(mutex);
            clearRunning = false;
            changed.NotifyAll();
        }
        deletedEvent.Raise("*");
    }
}

std::unique_ptr<Ny::Params::Group> RoutineManager::GetCreateParams(const std::string& typeName) {
    const auto type = registry.FindShared(typeName);
    if (!type) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    return type->CreationParams();
}

}  // namespace NyRoutine::Internal
