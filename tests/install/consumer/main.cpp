// A host project built against the installed package: it embeds the routine module as a host would.
#include <cstdio>

#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"

int main() {
    NyCore::Core core;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    NyRoutine::RoutineModule module(router, plugins, &core);
    const NyRest::Response types = router.Dispatch("GET", "/routineTypes", nullptr);
    const NyRest::Response missing = router.Dispatch("POST", "/routines", {{"type", "Nothing"}});
    std::printf("%d %s / %d %s\n", types.status, types.body.dump().c_str(), missing.status,
                missing.body.dump().c_str());
    return types.status == 200 && types.body["routineTypes"].empty() && missing.status == 404 ? 0 : 1;
}
