// A test plug-in built for another plug-in API version.
#include "NyPlugin/PluginExport.h"

extern "C" NY_PLUGIN_EXPORT int NyPlugin_ApiVersion() {
    return NyPlugin::ApiVersion + 98;
}
extern "C" NY_PLUGIN_EXPORT void NyPlugin_GetPlugins(NyPlugin::PluginSink&) {}
