// What a plug-in library exports: its plug-in API version and one entry point that hands the host its
// plug-in objects. Plug-in libraries are built with hidden visibility (see cmake/NyRoutinePlugin.cmake)
// and export only these two symbols:
//
//     NY_PLUGIN_ENTRY(sink) {
//         auto plugin = NyRoutine::RoutinePlugin::Create();
//         ...
//         sink.Add(plugin);
//     }
//
// The host refuses a library built for another API version.
#pragma once

#include <memory>

#include "NyPlugin/IPlugin.h"

namespace NyPlugin {

// Bump when the plug-in interfaces change incompatibly.
inline constexpr int ApiVersion = 1;

// Receives the plug-in objects of a library while its entry point runs.
class PluginSink {
  public:
    virtual void Add(std::shared_ptr<IPlugin> plugin) = 0;

  protected:
    ~PluginSink() = default;
};

using ApiVersionFx = int (*)();
using GetPluginsFx = void (*)(PluginSink&);

inline constexpr const char* ApiVersionSymbol = "NyPlugin_ApiVersion";
inline constexpr const char* GetPluginsSymbol = "NyPlugin_GetPlugins";

}  // namespace NyPlugin

#define NY_PLUGIN_EXPORT __attribute__((visibility("default")))

#define NY_PLUGIN_ENTRY(sinkName)                           \
    extern "C" NY_PLUGIN_EXPORT int NyPlugin_ApiVersion() { \
        return NyPlugin::ApiVersion;                        \
    }                                                       \
    extern "C" NY_PLUGIN_EXPORT void NyPlugin_GetPlugins(NyPlugin::PluginSink& sinkName)
