// `RoutineRegistry`: the registered routine types, by type name in ascending byte-wise order.
//
// Owned by the module. Plug-in loads and unloads change it while REST requests read it, so it has a
// reader-writer lock; each entry is a shared, immutable copy of the plug-in's record, so a record stays
// alive as long as any routine of its type (or any reader) holds it, also after the type is removed.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "NyApi/Mutex.h"
#include "NyRoutine/RoutineInfo.h"

namespace NyRoutine::Internal {

class RoutineRegistry {
  public:
    RoutineRegistry();
    RoutineRegistry(const RoutineRegistry& other);
    RoutineRegistry& operator=(const RoutineRegistry& other);
    RoutineRegistry(RoutineRegistry&& other) noexcept;
    RoutineRegistry& operator=(RoutineRegistry&& other) noexcept;
    ~RoutineRegistry();

    // Registers a copy of `info` under its type name. Throws -987 when the name is taken. `owner` is
    // whatever keeps the record's factory alive (the plug-in object that owns it); every reference to
    // the record returned by FindShared and ListShared holds it too.
    void Add(const RoutineInfo& info, std::shared_ptr<const void> owner = nullptr);
    // Throws -999 when no type of that name is registered.
    void Remove(const std::string& typeName);
    // The record, or null. Valid until the type is removed; prefer FindShared beside plug-in unloads.
    const RoutineInfo* FindByTypeName(const std::string& typeName) const;
    // All records in type-name order; valid until removed (see FindByTypeName).
    std::vector<const RoutineInfo*> List() const;

    // The record, kept alive by the returned reference; null when unknown.
    std::shared_ptr<const RoutineInfo> FindShared(const std::string& typeName) const;
    std::vector<std::shared_ptr<const RoutineInfo>> ListShared() const;

  private:
    struct Record {
        RoutineInfo info;
        std::shared_ptr<const void> owner;  // released after the copy of the record
    };
    static std::shared_ptr<const RoutineInfo> MakeRecord(const RoutineInfo& info,
                                                         std::shared_ptr<const void> owner);

    mutable Ny::SharedMutex mutex;  // guards entries; taken alone, never while calling out
    std::map<std::string, std::shared_ptr<const RoutineInfo>> entries NY_GUARDED_BY(mutex);
};

}  // namespace NyRoutine::Internal
