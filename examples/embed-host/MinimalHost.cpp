// The smallest host that embeds the routine module: it loads the plug-ins of a folder, lists their
// routine types, and runs one routine of a type that needs no user input ("SelfTest" of the sample
// plug-in) while printing the notifications. EmbedHost.cpp drives a routine that waits for the user.
//
//     minimal-host [PLUGIN_FOLDER]   (default: the installed routine-host's plug-in folder)
#include <cstdio>
#include <string>

#include "NyApi/Event.h"
#include "NyApi/Logging.h"
#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"

int main(int argc, char** argv) {
    // Log lines of the library and the plug-ins reach one process-wide sink, from any thread; without
    // one they are dropped. Set it first and reset it last.
    Ny::Logging::SetSink([](const Ny::Logging::LogRecord& record) {
        std::fprintf(stderr, "log [%s] %s\n", record.context.c_str(), record.text.c_str());
    });

    // The router, the plug-in manager and the core outlive the module: declared before it.
    NyCore::Core core;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    for (const std::string& refusal : plugins.LoadDirectory(argc > 1 ? argv[1] : MINIMAL_PLUGIN_DIR)) {
        std::fprintf(stderr, "refused: %s\n", refusal.c_str());
    }

    int exitCode = 1;
    {
        NyRoutine::RoutineModule module(router, plugins, &core);  // registers /routines, /routineTypes

        // Removed when it goes out of scope, before the module: no handler outlives what it uses.
        Ny::Subscription subscription =
            router.NotificationEvent().SubscribeScoped([](NyRest::EventType type, std::string path) {
                static const char* const words[] = {"", "created", "updated", "deleted"};
                std::printf("notification: %s %s\n", words[static_cast<int>(type)], path.c_str());
            });

        const NyRest::Response types = router.Dispatch("GET", "/routineTypes", nullptr);
        std::printf("GET /routineTypes -> %d %s\n", types.status, types.body.dump().c_str());
        // A type that skips its start parameters: the creation returns as soon as the routine runs.
        const NyRest::Response created = router.Dispatch("POST", "/routines", {{"type", "SelfTest"}});
        std::printf("POST /routines -> %d %s\n", created.status, created.body.dump().c_str());
        exitCode = created.status == 201 ? 0 : 1;
    }  // the module goes first: it aborts the routine that still runs and returns once its code returned

    Ny::Logging::SetSink({});
    return exitCode;
}
