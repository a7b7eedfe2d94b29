// A test plug-in library built for the next plug-in API version. Its entry point must never run: the
// version is checked first.
#include <cstdlib>

#include "NyPlugin/PluginExport.h"

extern "C" NY_PLUGIN_EXPORT int NyPlugin_ApiVersion() {
    return NyPlugin::ApiVersion + 1;
}

extern "C" NY_PLUGIN_EXPORT void NyPlugin_GetPlugins(NyPlugin::PluginSink&) {
    std::abort();
}
