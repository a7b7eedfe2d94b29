#include "NyRoutine/Engine/RoutineRegistry.h"

#include <mutex>

#include "NyApi/Exception.h"

namespace NyRoutine::Internal {

RoutineRegistry::RoutineRegistry() = default;

RoutineRegistry::RoutineRegistry(const RoutineRegistry& other) {
    std::shared_lock guard(other.mutex);
    for (const auto& [name, info] : other.entries) {
        entries.emplace(name, std::make_shared<const RoutineInfo>(*info));
    }
}

RoutineRegistry& RoutineRegistry::operator=(const RoutineRegistry& other) {
    if (this != &other) {
        RoutineRegistry copy(other);
        *this = std::move(copy);
    }
    return *this;
}

RoutineRegistry::RoutineRegistry(RoutineRegistry&& other) noexcept {
    std::unique_lock guard(other.mutex);
    entries.swap(other.entries);
}

RoutineRegistry& RoutineRegistry::operator=(RoutineRegistry&& other) noexcept {
    if (this != &other) {
        std::scoped_lock guard(mutex, other.mutex);
        entries.clear();
        entries.swap(other.entries);
    }
    return *this;
}

RoutineRegistry::~RoutineRegistry() = default;

std::shared_ptr<const RoutineInfo> RoutineRegistry::MakeRecord(const RoutineInfo& info,
                                                               std::shared_ptr<const void> owner) {
    auto record = std::make_shared<const Record>(Record{info, std::move(owner)});
    return std::shared_ptr<const RoutineInfo>(record, &record->info);
}

void RoutineRegistry::Add(const RoutineInfo& info, std::shared_ptr<const void> owner) {
    auto copy = MakeRecord(info, std::move(owner));
    std::unique_lock guard(mutex);
    if (!entries.emplace(copy->TypeName(), std::move(copy)).second) {
        guard.unlock();
        throw NY_EXCEPTION(-987);
    }
}

void RoutineRegistry::Remove(const std::string& typeName) {
    std::shared_ptr<const RoutineInfo> removed;  // released after the lock: its last owner may be here
    {
        std::unique_lock guard(mutex);
        const auto it = entries.find(typeName);
        if (it == entries.end()) {
            guard.unlock();
            throw NY_EXCEPTION(-999);
        }
        removed = std::move(it->second);
        entries.erase(it);
    }
}

const RoutineInfo* RoutineRegistry::FindByTypeName(const std::string& typeName) const {
    std::shared_lock guard(mutex);
    const auto it = entries.find(typeName);
    return it == entries.end() ? nullptr : it->second.get();
}

std::vector<const RoutineInfo*> RoutineRegistry::List() const {
    std::shared_lock guard(mutex);
    std::vector<const RoutineInfo*> list;
    list.reserve(entries.size());
    for (const auto& entry : entries) {
        list.push_back(entry.second.get());
    }
    return list;
}

std::shared_ptr<const RoutineInfo> RoutineRegistry::FindShared(const std::string& typeName) const {
    std::shared_lock guard(mutex);
    const auto it = entries.find(typeName);
    return it == entries.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<const RoutineInfo>> RoutineRegistry::ListShared() const {
    std::shared_lock guard(mutex);
    std::vector<std::shared_ptr<const RoutineInfo>> list;
    list.reserve(entries.size());
    for (const auto& entry : entries) {
        list.push_back(entry.second);
    }
    return list;
}

}  // namespace NyRoutine::Internal
