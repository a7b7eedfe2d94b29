// `RoutineManager`: owns the live routines. Creates a routine of a registered type (refused while the
// system runs or at the limit), gives it its id ("<type>-<n>", n counting from 0 for the manager's
// life), starts it, lists, finds and removes routines, clears them all (also on a factory restore), and
// announces creation and deletion.
//
// Owned by the module. Thread-safe: REST requests call it in parallel, a factory restore arrives on the
// core's thread. A request may keep an instance alive across a parallel removal (AcquireInstance); a
// removal ends the routine before it announces the deletion all the same.
//
// Lifetime rules that hold by construction:
//   - each routine counts once toward the limit: as a reservation while its factory runs, then as an
//     entry; a clear keeps admissions out until it has ended, and a creation whose factory was still
//     running when a clear began is cleared too (it fails with -999 and is never announced);
//   - a routine that leaves the map (removal or clear) still counts toward the limit until its code is
//     over (its end, its completion callback, its jobs). The removal or the clear waits for that and
//     gives the place back before it returns, whoever still holds the entry (the creating call it
//     released, a request). Called on the routine's own runner thread (a handler there), it cannot wait
//     for the code it is part of: that routine keeps its place until its entry is destroyed;
//   - no entry is destroyed on its own routine's runner thread (a notification handler there may remove
//     the routine): that last release hands the entry to the manager's reaper thread instead;
//   - per id, the created event comes before the deleted event, and nothing of the manager follows it;
//   - `Close` (and the destructor, which calls it) refuses new creations, fails the ones still in their
//     factory or start and never waits for a continue; the destructor then waits only for those calls
//     to leave the manager's code.
//
// Locks, in the order they may be taken:
//   1. `announceMutex` serializes a change of the map with the event that announces it (created, and
//      the deletion of all), so that the two cannot be reordered between threads. Held while those
//      events are raised, on purpose; their handlers may call the manager's readers (ListIds,
//      AcquireInstance) but must not create, remove or clear. The deleted event of one routine is
//      raised without it (the routine left the map under it), so its handlers may remove routines.
//   2. `mutex` guards the map, the id counter, the reservations, the clear and closing state. It is never
//      held while routine code runs, while an instance starts or while an event is raised.
//   3. `Reaper::mutex` (a leaf) guards the reaper's queue and state.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyCommon/IRoutineController.h"
#include "NyCore/Core.h"
#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/Engine/RoutineRegistry.h"

namespace NyRoutine::Internal {

class RoutineManager : public NyCommon::IRoutineController {
  public:
    // `maxRunning` 0 means no limit. With a core, follows its factory-restore event.
    RoutineManager(RoutineRegistry& registry, NyCore::Core* core, size_t maxRunning);
    // Closes the manager (see Close), waits for the calls still inside it to leave (they leave without
    // waiting for a continue: only a factory still running is waited for), then destroys every routine
    // without aborting it first and without raising deleted events.
    ~RoutineManager() override;
    RoutineManager(const RoutineManager&) = delete;
    RoutineManager& operator=(const RoutineManager&) = delete;

    // Throws -999 (unknown type), -1000 (system running, limit reached), -992 (no factory, or the
    // factory made nothing), what the start throws, and -999 when the routine was removed or cleared
    // before its first continue. Waits for the first continue unless the type skips start parameters.
    std::string Create(const std::string& typeName, std::shared_ptr<Ny::Params::Group> params) override;
    // Throws -999 for an unknown id. Returns once the routine's code is over and its place is free (see
    // above for a call on its own runner thread). The instance is destroyed here unless a request or its
    // creating call still holds it.
    void Remove(const std::string& id) override;
    std::vector<std::string> ListIds() const override;
    // Throws -999 "Routine %s not found!". The reference is only safe while nobody removes the routine;
    // request handlers use AcquireInstance.
    RoutineInstance& GetInstance(const std::string& id) override;
    Ny::Event<std::string>& CreatedEvent() override { return createdEvent; }
    Ny::Event<std::string>& DeletedEvent() override { return deletedEvent; }
    void ClearAllRoutines() override;
    std::unique_ptr<Ny::Params::Group> GetCreateParams(const std::string& typeName) override;
    std::shared_ptr<RoutineInstance> AcquireInstance(const std::string& id) override;

    // How many routines may exist at once (a finished one counts until it is removed); 0: no limit.
    size_t Limit() const { return maxRunning; }

    // Throws -1000 (with a log line) when a routine of the type cannot be created now.
    void CheckCanCreate(const std::string& typeName);

    // Shuts the door before teardown: refuses every later creation (-1000), fails a creation that is
    // still in its factory when it returns, and lets every creation waiting for its first continue go
    // (it fails with -999). Returns at once; idempotent. The routines stay until the destructor.
    void Close();

  private:
    struct RoutineEntry {
        RoutineEntry(std::shared_ptr<const RoutineInfo> typeIn, std::shared_ptr<IRoutine> routineIn,
                     NyCore::Core* core, const std::string& id)
            : type(std::move(typeIn)),
              routine(std::move(routineIn)),
              instance(routine, core, id, type.get()) {}
        // Keeps the record and the plug-in object that owns its factory alive while the routine lives,
        // also after its plug-in library was unloaded.
        std::shared_ptr<const RoutineInfo> type;
        std::shared_ptr<IRoutine> routine;
        RoutineInstance instance;  // destroyed first, then the routine reference
        // Set under the manager's `mutex` when the entry leaves the map and counts in `Reaper::leaving`.
        bool countedAsLeaving = false;
    };
    using EntryMap = std::map<std::string, std::shared_ptr<RoutineEntry>>;

    // Destroys entries whose last owner let go on their own runner thread, and counts the entries that
    // left the map but are not destroyed yet. Shared with the deleter of every entry, which may run
    // after the manager is gone (a request may still hold an instance).
    struct Reaper {
        Ny::Mutex mutex;
        Ny::CondVar wake;  // an entry was handed over, or the manager stopped the reaper
        std::vector<RoutineEntry*> handedOver NY_GUARDED_BY(mutex);
        bool stopped NY_GUARDED_BY(mutex) = false;
        // Entries out of the map and not destroyed yet; read by admissions under the manager's mutex.
        std::atomic<size_t> leaving{0};
    };
    // The entries' deleter: destroys the entry here, or hands it to the reaper when called on the
    // entry's own runner thread; then gives its place back if it still counted.
    static void DestroyEntry(const std::shared_ptr<Reaper>& reaper, RoutineEntry* entry);
    void ReaperLoop();
    // Marks an entry as out of the map but still counted toward the limit.
    void CountLeavingLocked(RoutineEntry& entry) NY_REQUIRES(mutex);
    // For an entry out of the map and ended: waits until its code is over, then gives its place back.
    // On the routine's own runner thread the place stays taken until the entry is destroyed.
    void GiveBackPlace(RoutineEntry& entry) NY_EXCLUDES(mutex);

    // Counts a call as inside the manager for its scope; the destructor waits for none to be left.
    class CallScope;

    bool SystemIsRunning() const;
    // Refusal text for a creation now, or empty.
    std::string RefusalLocked(bool& limit) const NY_REQUIRES(mutex);
    [[noreturn]] void Refuse(const std::string& typeName, bool limit);
    // Waits for an admission; returns the clear generation it was admitted in.
    std::uint64_t AdmitLocked(const std::string& typeName, bool& refused, bool& limit) NY_REQUIRES(mutex);
    std::shared_ptr<RoutineEntry> MakeEntry(const std::string& typeName,
                                            const std::shared_ptr<const RoutineInfo>& type,
                                            std::shared_ptr<Ny::Params::Group> params);
    // Enters the entry into the map and announces it, unless a clear or the close came first.
    void RegisterAndAnnounce(const std::shared_ptr<RoutineEntry>& entry, std::uint64_t generation)
        NY_EXCLUDES(announceMutex, mutex);
    // Ends a routine that leaves the map; an abort that fails is logged (the routine has ended).
    static void EndRemoved(const std::string& id, RoutineEntry& entry);

    RoutineRegistry& registry;
    NyCore::Core* core;
    const size_t maxRunning;

    Ny::Mutex announceMutex NY_ACQUIRED_BEFORE(mutex);
    mutable Ny::Mutex mutex;
    Ny::CondVar changed;  // a reservation, a clear or a call in progress ended, or the manager closed
    EntryMap routines NY_GUARDED_BY(mutex);
    std::uint64_t nextIdNumber NY_GUARDED_BY(mutex) = 0;
    size_t reserved NY_GUARDED_BY(mutex) = 0;        // admitted creations whose entry is not in the map yet
    bool clearRunning NY_GUARDED_BY(mutex) = false;  // a clear is between taking out and announcing
    std::uint64_t clearGeneration NY_GUARDED_BY(mutex) = 0;  // clears begun so far
    bool closed NY_GUARDED_BY(mutex) = false;
    size_t callsInside NY_GUARDED_BY(mutex) = 0;  // creations between their call and their return
    Ny::Event<std::string> createdEvent;
    Ny::Event<std::string> deletedEvent;
    const std::shared_ptr<Reaper> reaper = std::make_shared<Reaper>();
    std::thread reaperThread;                     // started by the constructor, joined by the destructor
    Ny::Subscription factoryRestoreSubscription;  // first to go: no clear can start once it is reset
};

}  // namespace NyRoutine::Internal
