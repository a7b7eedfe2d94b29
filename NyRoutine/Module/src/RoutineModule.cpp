#include "NyRoutine/RoutineModule.h"

#include <exception>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyRoutine/RoutinePlugin.h"

namespace NyRoutine {

namespace {
constexpr const char* RoutinePluginType = "NyRoutine.RoutinePlugin";
}

RoutineModule::RoutineModule(NyRest::ResourceRouter& router, NyPlugin::PluginManager& pluginsIn,
                             NyCore::Core* core)
    : plugins(pluginsIn),
      manager(registry, core, 1),
      routinesFront(router, manager),
      routineTypesFront(router, registry) {
    AttachPlugins();
}

RoutineModule::~RoutineModule() {
    DetachPlugins();
    // Every creation waiting for its first continue (or still in its factory) is let go before any
    // route is withdrawn: withdrawing waits for the requests in progress, and a creation blocked there
    // could otherwise only be released by the manager, which dies after the routes.
    manager.Close();
}

void RoutineModule::AttachPlugins() {
    NY_LOG(Ny::Logging::Level::Progress, "RoutineModule loading plugins...");
    for (size_t index = 0; index < plugins.Count(); ++index) {
        ProcessPluginLoad(plugins.At(index), NyPlugin::PluginEvent::Loaded);
    }
    loadSubscription = plugins.LoadEvent().SubscribeScoped(
        [this](const NyPlugin::PluginLib& lib, NyPlugin::PluginEvent event) {
            ProcessPluginLoad(lib, event);
        });
}

void RoutineModule::DetachPlugins() {
    loadSubscription.Reset();
}

void RoutineModule::ProcessPluginLoad(const NyPlugin::PluginLib& lib, NyPlugin::PluginEvent event) {
    for (const std::shared_ptr<NyPlugin::IPlugin>& plugin : lib.PluginsByType(RoutinePluginType)) {
        const auto& routines = *static_cast<const RoutinePlugin*>(plugin->GetObject());
        for (size_t index = 0; index < routines.RoutineInfoCount(); ++index) {
            const RoutineInfo& info = routines.RoutineInfoAt(index);
            if (event == NyPlugin::PluginEvent::Loaded) {
                try {
                    // The plug-in object owns the type's factory: the record keeps it alive.
                    registry.Add(info, plugin);
                } catch (const std::exception& e) {
                    NY_LOG(Ny::Logging::Level::CaughtFailure, "Failed to load routine \"%s\" (%s)",
                           info.TypeName(), e.what());
                    Ny::Exception::LogException(e, 0);
                    Ny::Exception::LogBackTrace(e);
                }
            } else if (event == NyPlugin::PluginEvent::Unloading) {
                // Live routines of the type keep running: their entries share the record.
                try {
                    registry.Remove(info.TypeName());
                } catch (const std::exception& e) {
                    NY_LOG(Ny::Logging::Level::CaughtFailure, "Failed to unload routine \"%s\" (%s)",
                           info.TypeName(), e.what());
                    Ny::Exception::LogException(e, 0);
                    Ny::Exception::LogBackTrace(e);
                }
            }
        }
    }
}

}  // namespace NyRoutine
