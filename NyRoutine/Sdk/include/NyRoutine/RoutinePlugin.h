// `NyRoutine::RoutinePlugin`: the plug-in object through which a plug-in library contributes routine
// types (plug-in type "NyRoutine.RoutinePlugin").
//
// A plug-in library's entry point makes one with `Create()`, adds its routine types and the objects
// they need kept alive (their factories), and hands it to the plug-in framework. The engine reads the
// records when the library is loaded and unloaded. Not thread-safe: fill it before handing it over.
#pragma once

#include <memory>
#include <vector>

#include "NyPlugin/IPlugin.h"
#include "NyRoutine/RoutineInfo.h"

namespace NyRoutine {

class RoutinePlugin : public NyPlugin::IPlugin {
  public:
    static constexpr const char* PluginType = "NyRoutine.RoutinePlugin";

    RoutinePlugin(const RoutinePlugin& other);
    RoutinePlugin& operator=(const RoutinePlugin& other);

    // A plug-in with no routine types, in one shared allocation.
    static std::shared_ptr<RoutinePlugin> Create();

    const char* Type() const override;
    const void* GetObject() const override;

    size_t RoutineInfoCount() const;
    // Throws std::out_of_range at or past RoutineInfoCount().
    const RoutineInfo& RoutineInfoAt(size_t index) const;

    // Adds a routine type (a copy of `info`; copies share its creation parameter group).
    RoutinePlugin& AddRoutineInfo(const RoutineInfo& info);
    // Keeps `object` alive as long as the plug-in lives (for example the factories its records use).
    RoutinePlugin& AddOwnedObject(std::shared_ptr<void> object);

  protected:
    RoutinePlugin();
    ~RoutinePlugin() override;

    std::vector<RoutineInfo> routineInfos;
    std::vector<std::shared_ptr<void>> ownedObjects;  // released before the records
};

}  // namespace NyRoutine
