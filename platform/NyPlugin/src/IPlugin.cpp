// Anchors the plug-in interface's type information in this library, so that the host and every
// plug-in library agree on one `NyPlugin::IPlugin`.
#include "NyPlugin/IPlugin.h"
