// Compiles the plug-in interface and export headers on their own, so that a plug-in author can include
// either first.
#include "NyPlugin/IPlugin.h"
#include "NyPlugin/PluginExport.h"
