// A minimal host that embeds the routine module: it loads plug-ins, builds the module on its own router,
// plug-in manager and core, and drives one routine through the router in-process (create, read,
// continue, read the results, delete), printing each reply and every notification. A real host puts an
// HTTP server in front of `router.Dispatch`; nothing else changes.
//
//     embed-host [PLUGIN_FILE_OR_FOLDER [TYPE [PARAMETERS]]]
//
// Defaults: the installed plug-in folder, the type "Calibration", no parameters written. PARAMETERS is
// a JSON object written to the routine before it is continued, e.g. '{"samples":20}'.
//
// Lifetimes, in the order of the declarations in main():
//   log sink > core, router, plug-in manager > notification log > module > subscription > request threads
// Each object outlives everything that uses it, so plain declaration order destroys them safely.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/Event.h"
#include "NyApi/Logging.h"
#include "NyApi/Mutex.h"
#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/RoutineModule.h"

namespace {

constexpr auto kWaitLimit = std::chrono::seconds(30);  // for a routine's next notification, generous
// The document's "state": 2 waits for the user's continue; 3, 4 and 5 end the routine.
constexpr int kWaitingForFeedback = 2;
constexpr int kCompleted = 3;
constexpr int kFailed = 5;

// The notifications the router forwards, kept for main(), which waits for them. The router raises them
// on request and routine threads, so the list has a lock.
class NotificationLog {
  public:
    void Add(NyRest::EventType type, const std::string& path) {
        static const char* const words[] = {"", "created", "updated", "deleted"};
        std::printf("  notification: %s %s\n", words[static_cast<int>(type)], path.c_str());
        Ny::MutexLock lock(mutex);
        entries.emplace_back(type, path);
        added.NotifyAll();
    }

    // Waits until a notification of `type` arrives after the first `seen` ones (and counts it seen);
    // returns its path, or an empty text when none came within the limit.
    std::string WaitFor(NyRest::EventType type, size_t& seen) {
        const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
        Ny::MutexLock lock(mutex);
        for (;;) {
            for (; seen < entries.size(); ++seen) {
                if (entries[seen].first == type) {
                    return entries[seen++].second;
                }
            }
            if (!added.WaitUntil(mutex, deadline)) {
                return std::string();
            }
        }
    }

  private:
    Ny::Mutex mutex;
    std::vector<std::pair<NyRest::EventType, std::string>> entries NY_GUARDED_BY(mutex);
    Ny::CondVar added;
};

// A routine document's state; -1 for a reply that is not a document (an error, a missing routine).
int StateOf(const NyRest::Response& reply) {
    const auto state = reply.body.is_object() ? reply.body.find("state") : reply.body.end();
    return reply.status == 200 && state != reply.body.end() && state->is_number_integer() ? state->get<int>()
                                                                                          : -1;
}

void Print(const char* request, const NyRest::Response& response) {
    std::printf("%s -> %d %s\n", request, response.status, response.body.dump().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path pluginPath = argc > 1 ? argv[1] : EMBED_DEFAULT_PLUGIN_DIR;
    const std::string type = argc > 2 ? argv[2] : "Calibration";
    const std::string parameters = argc > 3 ? argv[3] : "";

    // The library's log lines (and those of the plug-ins) go to one process-wide sink; without one they
    // are dropped. Set it first, and reset it last: it is called from every thread of the library.
    Ny::Logging::SetSink([](const Ny::Logging::LogRecord& record) {
        std::fprintf(stderr, "  log 0x%016llx [%s] %s\n", static_cast<unsigned long long>(record.levelWord),
                     record.context.c_str(), record.text.c_str());
    });

    // What the module is built on. They must outlive the module: declare them before it.
    NyCore::Core core;
    NyRest::ResourceRouter router;
    NyPlugin::PluginManager plugins;
    NotificationLog notifications;  // outlives the subscription that fills it

    // Plug-ins may be loaded before the module (it takes in what is loaded) or after (it follows the
    // plug-in manager's load event). A refused file is reported and the others still load.
    try {
        if (std::filesystem::is_directory(pluginPath)) {
            for (const auto& refusal : plugins.LoadDirectory(pluginPath)) {
                std::fprintf(stderr, "plug-in refused: %s\n", refusal.c_str());
            }
        } else {
            plugins.Load(pluginPath);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cannot load %s: %s\n", pluginPath.c_str(), e.what());
        return 1;
    }

    int exitCode = 1;
    {
        // The module registers "/routines" and "/routineTypes" on the router and follows plug-in loads.
        NyRoutine::RoutineModule module(router, plugins, &core);

        // Every resource's change notifications, as an event stream would send them. The subscription
        // is a handle: it unsubscribes when it goes, so the handler can never run on a dead log. Declared
        // after the module, it goes before it (a host that keeps it longer may: it also survives the
        // router).
        Ny::Subscription subscription = router.NotificationEvent().SubscribeScoped(
            [&notifications](NyRest::EventType eventType, std::string path) {
                notifications.Add(eventType, path);
            });

        Print("GET /routineTypes", router.Dispatch("GET", "/routineTypes", nullptr));

        // A creation waits for the routine's first continue (unless its type skips its start
        // parameters), so it runs on a thread of its own, as on an HTTP server's worker: the router
        // needs a thread per waiting request. The created hook tells this thread the new routine's path
        // as soon as it exists; a refused creation returns without it.
        NyRest::Response created;
        std::promise<std::string> createdPath;
        std::future<std::string> createdFuture = createdPath.get_future();
        std::thread creation([&router, &created, &type, &createdPath] {
            bool announced = false;  // the hook runs on this thread, inside the dispatch
            NyRest::DispatchOptions options;
            options.onCreated = [&createdPath, &announced](const NyRest::CreateResult& result) {
                announced = true;
                createdPath.set_value(result.path);
            };
            created = router.Dispatch("POST", "/routines", {{"type", type}}, options);
            if (!announced) {
                createdPath.set_value(std::string());
            }
        });
        const std::string path = createdFuture.get();
        size_t seen = 0;

        // Reads the routine's document until its state passes `done`, re-reading after each update
        // (steps and progress are announced at most every 500 ms, an end at once).
        auto readUntil = [&router, &notifications, &seen, &path](auto done) {
            NyRest::Response document = router.Dispatch("GET", path, nullptr);
            while (!done(StateOf(document))) {
                if (notifications.WaitFor(NyRest::EventType::Updated, seen).empty()) {
                    std::fprintf(stderr, "%s did not change in time\n", path.c_str());
                    break;
                }
                document = router.Dispatch("GET", path, nullptr);
            }
            return document;
        };
        int state = -1;
        if (!path.empty()) {
            // A client continues a routine once it waits for the user (a continue that comes earlier
            // releases the creation, but the routine then still waits for its own).
            Print(("GET " + path).c_str(), readUntil([](int s) { return s >= kWaitingForFeedback; }));
            if (!parameters.empty()) {
                // As a client's PATCH: the body is parsed (a malformed one is a 400), then every value
                // is checked before any is stored.
                Print(("PATCH " + path).c_str(),
                      router.DispatchRaw("PATCH", path, "{\"parameters\":" + parameters + "}"));
            }
            Print(("POST " + path + "/commands/continue").c_str(),
                  router.Dispatch("POST", path + "/commands/continue", nullptr));
        }
        creation.join();  // released by the continue (or at once when the type was unknown)
        Print("POST /routines", created);

        if (!path.empty()) {
            const NyRest::Response document = readUntil([](int s) { return s >= kCompleted; });
            Print(("GET " + path).c_str(), document);
            state = StateOf(document);
            std::printf("%s ended in state %d (%s)\n", path.c_str(), state,
                        state == kCompleted ? "completed"
                        : state == kFailed  ? "failed"
                                            : "aborted");
            Print(("DELETE " + path).c_str(), router.Dispatch("DELETE", path, nullptr));
        }
        exitCode = state == kCompleted ? 0 : 1;

        // Before the module goes: join every thread that may still be inside router.Dispatch (done
        // above). Nothing else is needed: its destructor stops following plug-ins, releases creations
        // that wait, withdraws its routes and ends every routine that still runs.
    }
    // The plug-ins are dropped with the manager (their code stays mapped: objects they made may live on).
    Ny::Logging::SetSink({});
    return exitCode;
}
