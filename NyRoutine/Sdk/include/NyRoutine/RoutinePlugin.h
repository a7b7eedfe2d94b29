// `NyRoutine::RoutinePlugin`: the plug-in object through which a plug-in library contributes routine
// types (plug-in type "NyRoutine.RoutinePlugin").
//
// A plug-in library's entry point makes one with `Create()`, adds its routine types and hands it to the
// plug-in framework:
//
//     NY_PLUGIN_ENTRY(sink) {
//         auto plugin = NyRoutine::RoutinePlugin::Create();
//         plugin->AddRoutineType<Calibration>(
//             NyRoutine::RoutineInfo("Calibration", false).SetDisplayName("Sensor calibration"));
//         sink.Add(plugin);
//     }
//
// AddRoutineType and AddRoutineInfo with a factory give the factory to the record: the plug-in and
// every copy of the record (the engine keeps copies while the library is loaded and while routines of
// the type exist) own it together, so nothing else has to keep it alive. The engine reads the records
// when the library is loaded and unloaded. Not thread-safe: fill it before handing it over; afterwards
// it is only read.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "NyPlugin/IPlugin.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/RoutineFactory.h"
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

    // Adds a routine type (a copy of `info`; copies share its creation parameter group). The record's
    // factory must already be set and kept alive by the plug-in (see AddOwnedObject).
    RoutinePlugin& AddRoutineInfo(const RoutineInfo& info);
    // Adds a routine type made by `factory`, which the record then owns (it replaces any factory `info`
    // had). Throws Ny::Exception NoFactory (-992) when `factory` is null.
    RoutinePlugin& AddRoutineInfo(RoutineInfo info, std::shared_ptr<IRoutineFactory> factory);
    // Adds a routine type whose routines are `Routine` objects made by std::make_shared<Routine>().
    template <typename Routine>
    RoutinePlugin& AddRoutineType(RoutineInfo info) {
        return AddRoutineInfo(std::move(info), std::make_shared<RoutineFactory<Routine>>());
    }
    // Keeps `object` alive as long as the plug-in lives (for example the factories its records use).
    RoutinePlugin& AddOwnedObject(std::shared_ptr<void> object);

  protected:
    RoutinePlugin();
    ~RoutinePlugin() override;

    std::vector<RoutineInfo> routineInfos;
    std::vector<std::shared_ptr<void>> ownedObjects;  // released before the records
};

}  // namespace NyRoutine
