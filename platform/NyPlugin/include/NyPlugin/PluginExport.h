// What a plug-in library exports: the plug-in API version it was built for and one entry point that
// hands the host its plug-in objects. This is the only header of the framework a plug-in author needs.
//
// A plug-in library is built with `nyr_add_plugin(<name> SOURCES ...)` (cmake/NyRoutinePlugin.cmake):
// hidden visibility by default, so it exports exactly the two C symbols that NY_PLUGIN_ENTRY defines,
//
//     extern "C" NY_PLUGIN_EXPORT int NyPlugin_ApiVersion();
//     extern "C" NY_PLUGIN_EXPORT void NyPlugin_GetPlugins(NyPlugin::PluginSink& sink);
//
// and is written as
//
//     NY_PLUGIN_ENTRY(sink) {
//         auto plugin = NyRoutine::RoutinePlugin::Create();
//         ...
//         sink.Add(plugin);
//     }
//
// The manager opens the library, checks `NyPlugin_ApiVersion()` against its own `ApiVersion` (another
// version is refused before any other code of the library is called; static constructors have run by
// then, as dlopen runs them) and then calls `NyPlugin_GetPlugins` once, on the loading thread. The
// entry point may throw: the library is then refused and the objects it added are dropped. Plug-in
// objects cross the boundary as `std::shared_ptr`, so host and plug-ins must be built with the same
// compiler and standard library.
#pragma once

#include <memory>

#include "NyPlugin/IPlugin.h"

namespace NyPlugin {

// The plug-in API version. Bump it when `IPlugin`, `PluginSink` or the entry points change
// incompatibly: the manager refuses libraries built for any other version.
inline constexpr int ApiVersion = 1;

// Receives the plug-in objects of a library while its entry point runs. Owned by the manager and valid
// only during that call: the entry point must not keep it.
class PluginSink {
  public:
    // Appends one object to the library's list (in call order). A null pointer is ignored.
    virtual void Add(std::shared_ptr<IPlugin> plugin) = 0;

  protected:
    virtual ~PluginSink() = default;
};

using ApiVersionFx = int (*)();
using GetPluginsFx = void (*)(PluginSink&);

inline constexpr const char* ApiVersionSymbol = "NyPlugin_ApiVersion";
inline constexpr const char* GetPluginsSymbol = "NyPlugin_GetPlugins";

}  // namespace NyPlugin

#define NY_PLUGIN_EXPORT __attribute__((visibility("default")))

// Defines both entry points; the braces that follow are the body of NyPlugin_GetPlugins.
#define NY_PLUGIN_ENTRY(sinkName)                           \
    extern "C" NY_PLUGIN_EXPORT int NyPlugin_ApiVersion() { \
        return NyPlugin::ApiVersion;                        \
    }                                                       \
    extern "C" NY_PLUGIN_EXPORT void NyPlugin_GetPlugins(NyPlugin::PluginSink& sinkName)
