#include "NyRoutine/Engine/RoutineRegistry.h"

#include <utility>

#include "NyApi/Exception.h"

namespace NyRoutine::Internal {

RoutineRegistry::RoutineRegistry() = default;

RoutineRegistry::RoutineRegistry(const RoutineRegistry& other) {
    // Records are immutable: the copy shares them, and with them what keeps their factories alive.
    std::map<std::string, std::shared_ptr<const RoutineInfo>> copied;
    {
        Ny::ReaderLock guard(other.mutex);
        copied = other.entries;
    }
    Ny::WriterLock mine(mutex);  // not shared yet; taken for the analysis' sake
    entries = std::move(copied);
}

RoutineRegistry& RoutineRegistry::operator=(const RoutineRegistry& other) {
    if (this != &other) {
        RoutineRegistry copy(other);
        *this = std::move(copy);
    }
    return *this;
}

RoutineRegistry::RoutineRegistry(RoutineRegistry&& other) noexcept {
    Ny::WriterLock guard(other.mutex);
    auto taken = std::move(other.entries);
    other.entries.clear();
    Ny::WriterLock mine(mutex);  // not shared yet; taken for the analysis' sake
    entries = std::move(taken);
}

RoutineRegistry& RoutineRegistry::operator=(RoutineRegistry&& other) noexcept {
    if (this != &other) {
        // One lock at a time, so that two registries assigned to each other cannot deadlock.
        std::map<std::string, std::shared_ptr<const RoutineInfo>> taken;
        {
            Ny::WriterLock guard(other.mutex);
            taken.swap(other.entries);
        }
        std::map<std::string, std::shared_ptr<const RoutineInfo>> dropped;
        {
            Ny::WriterLock guard(mutex);
            dropped.swap(entries);
            entries.swap(taken);
        }
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
    bool added = false;
    {
        Ny::WriterLock guard(mutex);
        added = entries.emplace(copy->TypeName(), copy).second;
    }
    if (!added) {
        throw NY_EXCEPTION(Ny::Status::AlreadyRegistered);
    }
}

void RoutineRegistry::Remove(const std::string& typeName) {
    std::shared_ptr<const RoutineInfo> removed;  // released after the lock: its last owner may be here
    {
        Ny::WriterLock guard(mutex);
        const auto it = entries.find(typeName);
        if (it != entries.end()) {
            removed = std::move(it->second);
            entries.erase(it);
        }
    }
    if (!removed) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
}

const RoutineInfo* RoutineRegistry::FindByTypeName(const std::string& typeName) const {
    Ny::ReaderLock guard(mutex);
    const auto it = entries.find(typeName);
    return it == entries.end() ? nullptr : it->second.get();
}

std::vector<const RoutineInfo*> RoutineRegistry::List() const {
    Ny::ReaderLock guard(mutex);
    std::vector<const RoutineInfo*> list;
    list.reserve(entries.size());
    for (const auto& entry : entries) {
        list.push_back(entry.second.get());
    }
    return list;
}

std::shared_ptr<const RoutineInfo> RoutineRegistry::FindShared(const std::string& typeName) const {
    Ny::ReaderLock guard(mutex);
    const auto it = entries.find(typeName);
    return it == entries.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<const RoutineInfo>> RoutineRegistry::ListShared() const {
    Ny::ReaderLock guard(mutex);
    std::vector<std::shared_ptr<const RoutineInfo>> list;
    list.reserve(entries.size());
    for (const auto& entry : entries) {
        list.push_back(entry.second);
    }
    return list;
}

}  // namespace NyRoutine::Internal
