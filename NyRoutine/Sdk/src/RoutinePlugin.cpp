#include "NyRoutine/RoutinePlugin.h"

namespace NyRoutine {

RoutinePlugin::RoutinePlugin() = default;

RoutinePlugin::RoutinePlugin(const RoutinePlugin& other) = default;

RoutinePlugin& RoutinePlugin::operator=(const RoutinePlugin& other) = default;

RoutinePlugin::~RoutinePlugin() = default;

std::shared_ptr<RoutinePlugin> RoutinePlugin::Create() {
    // Gives make_shared access to the protected constructor and destructor.
    struct make_shared_enabler : RoutinePlugin {};
    return std::make_shared<make_shared_enabler>();
}

const char* RoutinePlugin::Type() const {
    return PluginType;
}

const void* RoutinePlugin::GetObject() const {
    return this;
}

size_t RoutinePlugin::RoutineInfoCount() const {
    return routineInfos.size();
}

const RoutineInfo& RoutinePlugin::RoutineInfoAt(size_t index) const {
    return routineInfos.at(index);
}

RoutinePlugin& RoutinePlugin::AddRoutineInfo(const RoutineInfo& info) {
    routineInfos.push_back(info);
    return *this;
}

RoutinePlugin& RoutinePlugin::AddRoutineInfo(RoutineInfo info, std::shared_ptr<IRoutineFactory> factory) {
    routineInfos.push_back(std::move(info.SetFactory(std::move(factory))));
    return *this;
}

RoutinePlugin& RoutinePlugin::AddOwnedObject(std::shared_ptr<void> object) {
    ownedObjects.push_back(std::move(object));
    return *this;
}

}  // namespace NyRoutine
