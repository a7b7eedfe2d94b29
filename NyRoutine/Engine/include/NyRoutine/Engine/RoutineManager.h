// `RoutineManager`: owns the live routines. Creates a routine of a registered type (refused while the
// system runs or at the limit), gives it its id ("<type>-<n>", n counting from 0 for the manager's
// life), starts it, lists, finds and removes routines, clears them all (also on a factory restore), and
// announces creation and deletion.
//
// Owned by the module. Thread-safe: REST requests call it in parallel, a factory restore arrives on the
// core's thread. `mutex` guards the map, the id counter and the creations in progress; it is never held
// while routine code runs, while an instance starts (which may wait for a continue) or while an event
// is raised. A request may keep an instance alive across a parallel removal (AcquireInstance).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "NyApi/Event.h"
#include "NyCommon/IRoutineController.h"
#include "NyCore/Core.h"
#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/Engine/RoutineRegistry.h"

namespace NyRoutine::Internal {

class RoutineManager : public NyCommon::IRoutineController {
  public:
    // `maxRunning` 0 means no limit. With a core, follows its factory-restore event.
    RoutineManager(RoutineRegistry& registry, NyCore::Core* core, size_t maxRunning);
    // Destroys every routine without aborting it first; waits for creations still in progress (it lets
    // the ones waiting for a continue go first).
    ~RoutineManager() override;
    RoutineManager(const RoutineManager&) = delete;
    RoutineManager& operator=(const RoutineManager&) = delete;

    // Throws -999 (unknown type), -1000 (system running, limit reached), -992 (no factory, or the
    // factory made nothing), what the start throws, and -999 when the routine was removed or cleared
    // before its first continue. Waits for the first continue unless the type skips start parameters.
    std::string Create(const std::string& typeName, std::shared_ptr<Ny::Params::Group> params) override;
    // Throws -999 for an unknown id. The instance is destroyed here unless a request still holds it.
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

    // Throws -1000 (with a log line) when a routine of the type cannot be created now.
    void CheckCanCreate(const std::string& typeName);

  private:
    struct RoutineEntry {
        RoutineEntry(std::shared_ptr<const RoutineInfo> typeIn, std::shared_ptr<IRoutine> routineIn,
                     NyCore::Core* core, const std::string& id)
            : type(std::move(typeIn)),
              routine(std::move(routineIn)),
              instance(routine, core, id, type.get()) {}
        std::shared_ptr<const RoutineInfo> type;  // keeps the record alive after its plug-in is unloaded
        std::shared_ptr<IRoutine> routine;
        RoutineInstance instance;  // destroyed first, then the routine reference
    };

    std::string CreateId(const std::string& typeName);
    bool SystemIsRunning() const;
    // Refusal text for a creation now, or empty. `mutex` held.
    std::string RefusalLocked(const std::string& typeName, bool& limit) const;
    [[noreturn]] void Refuse(const std::string& typeName, bool limit);

    RoutineRegistry& registry;
    NyCore::Core* core;
    mutable std::mutex mutex;
    std::condition_variable creationsDone;                          // creationsInProgress dropped
    std::map<std::string, std::shared_ptr<RoutineEntry>> routines;  // guarded by mutex
    std::uint64_t nextIdNumber = 0;                                 // guarded by mutex
    size_t creationsInProgress = 0;  // guarded by mutex: admitted creations not yet in the map or started
    size_t maxRunning;
    Ny::Event<std::string> createdEvent;
    Ny::Event<std::string> deletedEvent;
    Ny::Event<>::Handle factoryRestoreSubscription = 0;
    bool factoryRestoreSubscribed = false;
};

}  // namespace NyRoutine::Internal
