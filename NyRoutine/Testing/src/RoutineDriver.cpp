#include "NyRoutine/Testing/RoutineDriver.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

#include "NyApi/Event.h"
#include "NyApi/Exception.h"
#include "NyApi/Mutex.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Engine/RoutineRegistry.h"
#include "NyRoutine/Protocol/RoutineTypes.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "NyRoutine/RoutinePlugin.h"

namespace NyRoutine::Testing {

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using Clock = std::chrono::steady_clock;

constexpr const char* RoutinesPath = "/routines";
constexpr int FirstFailureHttpStatus = 400;
constexpr int UnknownFailureHttpStatus = 500;

// The engine raises no notification when a routine begins to wait for feedback (or starts running
// after its creation): those changes show only in the next read. A wait therefore re-reads at least this
// often besides after every notification, so that it never sleeps through a state it waits for. Short,
// because every test waits for that state before its first continue; a read in-process costs
// microseconds.
constexpr auto RecheckPeriod = std::chrono::milliseconds(10);

// `timeout` from now; Timeout::max() (a caller's "no bound") saturates instead of overflowing the clock.
Clock::time_point DeadlineAfter(RoutineDriver::Timeout timeout) {
    const Clock::time_point now = Clock::now();
    const auto room = std::chrono::duration_cast<RoutineDriver::Timeout>(Clock::time_point::max() - now);
    return timeout >= room ? Clock::time_point::max() : now + timeout;
}

// A routine id as one path segment: ids are "<type>-<n>" and a type name may hold any text, so every
// byte outside the unreserved set is escaped (the router decodes it again).
std::string PathSegment(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
            byte == '-' || byte == '_' || byte == '.' || byte == '~') {
            out.push_back(c);
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
            out += escaped;
        }
    }
    return out;
}

// A client serializes its request as JSON text, which cannot hold strings that are not UTF-8, and the
// host refuses a body that is not UTF-8; the driver hands JSON values to the router directly, so it
// refuses such a value itself, as the host would answer it, before anything reaches the routine.
void CheckSendable(const json& body) {
    try {
        static_cast<void>(body.dump());
    } catch (const json::type_error&) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "The request body is not valid UTF-8.");
    }
}

// Throws the innermost cause first, each outer one with the inner nested, so that the chain reads like
// the reply's "causes".
[[noreturn]] void ThrowCauses(const std::vector<std::string>& causes, size_t index) {
    Ny::Exception cause(__LINE__, __FILE__, Ny::Status::Wrapped, NY_CONTEXT().c_str(), "%s",
                        causes[index].c_str());
    if (index + 1 == causes.size()) {
        throw cause;
    }
    try {
        ThrowCauses(causes, index + 1);
    } catch (...) {
        std::throw_with_nested(cause);
    }
}

// Turns a refused reply back into the failure the resource threw: the body's status, message, field
// refusals and causes. `what` names the request for a reply without an error body.
[[noreturn]] void ThrowRefusal(const NyRest::Response& reply, const std::string& what) {
    const json& body = reply.body;
    int status = Ny::Status::Wrapped;
    std::string message = what + " failed with HTTP status " + std::to_string(reply.status) + ".";
    std::vector<std::string> causes;
    if (body.is_object()) {
        if (const auto it = body.find("status"); it != body.end() && it->is_number_integer()) {
            status = it->get<int>();
        }
        if (const auto it = body.find("message"); it != body.end() && it->is_string()) {
            message = it->get<std::string>();
        }
        if (const auto it = body.find("causes"); it != body.end() && it->is_array()) {
            for (const json& cause : *it) {
                if (cause.is_string()) {
                    causes.push_back(cause.get<std::string>());
                }
            }
        }
    }
    Ny::Exception refusal(__LINE__, __FILE__, status, NY_CONTEXT().c_str(), "%s", message.c_str());
    if (body.is_object()) {
        if (const auto fields = body.find("fields"); fields != body.end() && fields->is_object()) {
            for (const auto& [path, messages] : fields->items()) {
                for (const json& text : messages) {
                    refusal.AddField(path, text.is_string()
                                               ? text.get<std::string>()
                                               : text.dump(-1, ' ', false, json::error_handler_t::replace));
                }
            }
        }
    }
    if (causes.empty()) {
        throw refusal;
    }
    try {
        ThrowCauses(causes, 0);
    } catch (...) {
        std::throw_with_nested(refusal);
    }
}

// What one driver recorded. Shared between the driver and the log chain, which may still deliver a line
// that started before the driver detached.
class Recorder {
  public:
    void Add(Notification notification) {
        Ny::MutexLock guard(mutex);
        notifications.push_back(std::move(notification));
        recorded.NotifyAll();
    }
    void Add(const Ny::Logging::LogRecord& line) {
        Ny::MutexLock guard(mutex);
        lines.push_back(line);
    }
    size_t NotificationCount() const {
        Ny::MutexLock guard(mutex);
        return notifications.size();
    }
    // Waits until more than `seen` notifications were recorded, or until `until`.
    void WaitBeyond(size_t seen, Clock::time_point until) {
        Ny::MutexLock guard(mutex);
        while (notifications.size() <= seen) {
            if (!recorded.WaitUntil(mutex, until)) {
                return;
            }
        }
    }
    std::vector<Notification> Notifications() const {
        Ny::MutexLock guard(mutex);
        return notifications;
    }
    std::vector<Ny::Logging::LogRecord> Lines() const {
        Ny::MutexLock guard(mutex);
        return lines;
    }

  private:
    mutable Ny::Mutex mutex;  // guards both lists; a leaf, never held while calling out
    Ny::CondVar recorded;     // a notification was added
    std::vector<Notification> notifications NY_GUARDED_BY(mutex);
    std::vector<Ny::Logging::LogRecord> lines NY_GUARDED_BY(mutex);
};

// The process has one log sink. Every live driver records every line, and the sink that was set before
// the first of them keeps receiving them all: one fan-out sink is installed for as long as any driver
// lives and set back when the last one goes, in whatever order they are destroyed (each driver setting
// and restoring its own sink would lose a later driver's sink when an earlier one restores).
class LogChain {
  public:
    // Never destroyed: a routine thread may still log while the process exits.
    static LogChain& Instance() {
        static LogChain* const chain = new LogChain;
        return *chain;
    }

    void Attach(std::shared_ptr<Recorder> recorder) {
        Ny::MutexLock guard(mutex);
        recorders.push_back(std::move(recorder));
        if (!installed) {
            // The logging library delivers lines outside its own lock, so setting the sink under ours
            // cannot wait on a delivery that waits for us.
            previous = Ny::Logging::SetSink(FanOut{});
            installed = true;
        }
    }

    void Detach(const Recorder* recorder) {
        Ny::MutexLock guard(mutex);
        std::erase_if(recorders, [recorder](const auto& held) { return held.get() == recorder; });
        if (!recorders.empty() || !installed) {
            return;
        }
        Ny::Logging::LogSink current = Ny::Logging::SetSink(previous);
        if (current.target<FanOut>() == nullptr) {
            // Someone set a sink over ours that forwards to ours (a test's own capture): theirs goes back
            // and ours stays below it, forwarding to the sink before us.
            Ny::Logging::SetSink(std::move(current));
            return;
        }
        previous = nullptr;
        installed = false;
    }

  private:
    struct FanOut {
        void operator()(const Ny::Logging::LogRecord& line) const { Instance().Deliver(line); }
    };

    void Deliver(const Ny::Logging::LogRecord& line) {
        std::vector<std::shared_ptr<Recorder>> targets;
        Ny::Logging::LogSink next;
        {
            Ny::MutexLock guard(mutex);
            targets = recorders;
            next = previous;
        }
        // The sink before ours first: it is the host's own. A recorder may get a line after its driver
        // is gone (a slow sink held it); the shared recorder is still there for it.
        if (next) {
            next(line);
        }
        for (const auto& recorder : targets) {
            recorder->Add(line);
        }
    }

    Ny::Mutex mutex;  // guards the fields below; never held while a line is delivered
    std::vector<std::shared_ptr<Recorder>> recorders NY_GUARDED_BY(mutex);
    Ny::Logging::LogSink previous NY_GUARDED_BY(mutex);  // the sink set before ours
    bool installed NY_GUARDED_BY(mutex) = false;         // FanOut is in the process's sink chain
};

}  // namespace

// Records for the driver's lifetime: attached to the log chain on construction, detached on destruction.
struct RoutineDriver::Recording {
    Recording() : recorder(std::make_shared<Recorder>()) { LogChain::Instance().Attach(recorder); }
    ~Recording() { LogChain::Instance().Detach(recorder.get()); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    const std::shared_ptr<Recorder> recorder;
};

// What a host builds around the engine, on a private router. Members are destroyed bottom-up: the
// fronts withdraw their routes before the manager and its routines go, the router after everything
// registered on it, and the plug-in library's objects last of all.
struct RoutineDriver::Engine {
    Engine(std::shared_ptr<Recorder> recorder, std::unique_ptr<NyPlugin::PluginManager> pluginsIn)
        : plugins(std::move(pluginsIn)) {
        notifications = router.NotificationEvent().SubscribeScoped(
            [recorder](NyRest::EventType type, const std::string& path) {
                recorder->Add(Notification{NyRest::EventTypeName(type), path});
            });
    }

    // Builds the manager and the fronts once the registry holds the type.
    void Start() {
        // No limit: the driver makes one routine, and a limit would only make a routine that was just
        // deleted count for a moment longer.
        manager = std::make_unique<Internal::RoutineManager>(registry, nullptr, 0);
        routinesFront = std::make_unique<Internal::RoutinesDir>(router, *manager);
        typesFront = std::make_unique<Internal::RoutineTypes>(router, registry);
    }

    ~Engine() {
        if (manager) {
            manager->Close();
        }
        typesFront.reset();
        routinesFront.reset();
        manager.reset();
        notifications.Reset();
    }

    std::unique_ptr<NyPlugin::PluginManager> plugins;  // with a plug-in file only
    NyRest::ResourceRouter router;
    Ny::Subscription notifications;
    Internal::RoutineRegistry registry;
    std::string typeName;
    std::unique_ptr<Internal::RoutineManager> manager;
    std::unique_ptr<Internal::RoutinesDir> routinesFront;
    std::unique_ptr<Internal::RoutineTypes> typesFront;
};

// The creation request, which runs on the driver's thread because it may wait for the first continue.
struct RoutineDriver::Creation {
    Ny::Mutex mutex;       // guards the outcome below
    Ny::CondVar progress;  // the routine was announced, or the request returned
    bool announced NY_GUARDED_BY(mutex) = false;
    std::string announcedId NY_GUARDED_BY(mutex);
    bool returned NY_GUARDED_BY(mutex) = false;
    NyRest::Response reply NY_GUARDED_BY(mutex);
    std::thread thread;  // started by Create, joined by the driver's destructor or a refused Create
};

RoutineDriver::RoutineDriver(const RoutineInfo& type) : recording(std::make_unique<Recording>()) {
    engine = std::make_unique<Engine>(recording->recorder, nullptr);
    engine->typeName = type.TypeName();
    engine->registry.Add(type);
    engine->Start();
}

RoutineDriver::RoutineDriver(const std::filesystem::path& pluginFile, const std::string& typeName)
    : recording(std::make_unique<Recording>()) {
    engine = std::make_unique<Engine>(recording->recorder, std::make_unique<NyPlugin::PluginManager>());
    const NyPlugin::PluginLib& lib = engine->plugins->Load(pluginFile);
    for (const std::shared_ptr<NyPlugin::IPlugin>& plugin : lib.PluginsByType(RoutinePlugin::PluginType)) {
        const auto& routines = *static_cast<const RoutinePlugin*>(plugin->GetObject());
        for (size_t index = 0; index < routines.RoutineInfoCount(); ++index) {
            const RoutineInfo& info = routines.RoutineInfoAt(index);
            if (typeName == info.TypeName()) {
                // The plug-in object owns the type's factory: the registered record keeps it alive.
                engine->registry.Add(info, plugin);
                engine->typeName = typeName;
                engine->Start();
                return;
            }
        }
    }
    throw NY_EXCEPTION(Ny::Status::NotFound, "The plug-in %s has no routine type \"%s\".",
                       pluginFile.string().c_str(), typeName.c_str());
}

RoutineDriver::~RoutineDriver() {
    // The deletion aborts the routine and lets a creation that waits for its first continue go; closing
    // the manager lets it go also when the deletion failed, so that the join below cannot wait forever.
    if (!id.empty()) {
        try {
            engine->router.Dispatch("DELETE", std::string(RoutinesPath) + "/" + PathSegment(id), nullptr);
        } catch (...) {
            // Dispatch answers every failure; only memory can run out here, and the close still follows.
        }
    }
    try {
        engine->manager->Close();
        if (creation && creation->thread.joinable()) {
            creation->thread.join();
        }
    } catch (...) {
        // Close throws nothing of its own and join fails only for a thread that is not joinable.
    }
    creation.reset();
    engine.reset();
}

std::string RoutineDriver::Create(const json& creationParams) {
    if (creation) {
        throw NY_EXCEPTION(Ny::Status::Refused, "This driver created its routine already (%s).",
                           id.empty() ? "refused" : id.c_str());
    }
    json body = {{"type", engine->typeName}};
    if (!creationParams.is_null()) {
        body["parameters"] = creationParams;
    }
    CheckSendable(body);
    // Kept only once its thread runs: a thread that cannot start leaves the driver free to try again.
    auto pending = std::make_unique<Creation>();
    Creation* const state = pending.get();
    NyRest::ResourceRouter* const router = &engine->router;
    state->thread = std::thread([state, router, body] {
        NyRest::DispatchOptions options;
        // Runs inside the creation while the engine announces the routine: only hands the id over.
        options.onCreated = [state](const NyRest::CreateResult& created) {
            Ny::MutexLock guard(state->mutex);
            state->announcedId = created.id;
            state->announced = true;
            state->progress.NotifyAll();
        };
        NyRest::Response reply;
        try {
            reply = router->Dispatch("POST", RoutinesPath, body, options);
        } catch (const std::exception& e) {
            reply.status = UnknownFailureHttpStatus;
            reply.body = NyRest::ErrorBody(e);
        } catch (...) {
            // Nothing may leave the thread: it would end the process.
            reply.status = UnknownFailureHttpStatus;
        }
        Ny::MutexLock guard(state->mutex);
        state->reply = std::move(reply);
        state->returned = true;
        state->progress.NotifyAll();
    });
    creation = std::move(pending);

    NyRest::Response refused;
    {
        Ny::MutexLock guard(state->mutex);
        while (!state->announced && !state->returned) {
            state->progress.Wait(state->mutex);
        }
        if (state->announced) {
            id = state->announcedId;
            return id;
        }
        if (state->reply.status < FirstFailureHttpStatus && state->reply.body.contains("id")) {
            id = state->reply.body["id"].get<std::string>();
            return id;
        }
        refused = state->reply;
    }
    // Refused before the routine existed: the thread has returned, and a later Create may try again.
    state->thread.join();
    creation.reset();
    ThrowRefusal(refused, "POST /routines");
}

void RoutineDriver::SetParams(const json& parameters, bool strict) {
    if (id.empty()) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "No routine was created yet.");
    }
    NyRest::DispatchOptions options;
    if (strict) {
        options.prefer = "handling=strict";
    }
    json body{{"parameters", parameters}};
    CheckSendable(body);
    const std::string target = std::string(RoutinesPath) + "/" + PathSegment(id);
    const NyRest::Response reply = engine->router.Dispatch("PATCH", target, body, options);
    if (reply.status >= FirstFailureHttpStatus) {
        ThrowRefusal(reply, "PATCH " + target);
    }
}

void RoutineDriver::Continue() {
    Command("continue");
}

void RoutineDriver::Abort() {
    Command("abort");
}

void RoutineDriver::Command(const std::string& name) {
    if (id.empty()) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "No routine was created yet.");
    }
    const std::string target = std::string(RoutinesPath) + "/" + PathSegment(id) + "/commands/" + name;
    const NyRest::Response reply = engine->router.Dispatch("POST", target, nullptr);
    if (reply.status >= FirstFailureHttpStatus) {
        ThrowRefusal(reply, "POST " + target);
    }
}

json RoutineDriver::Read(bool withSchema) const {
    if (id.empty()) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "No routine was created yet.");
    }
    const std::string target =
        std::string(RoutinesPath) + "/" + PathSegment(id) + (withSchema ? "?schema=true" : "");
    NyRest::Response reply = engine->router.Dispatch("GET", target, nullptr);
    if (reply.status >= FirstFailureHttpStatus) {
        ThrowRefusal(reply, "GET " + target);
    }
    return std::move(reply.body);
}

json RoutineDriver::Document(bool withSchema) const {
    return Read(withSchema);
}

json RoutineDriver::Parameters() const {
    return Read(false).value("parameters", json());
}

json RoutineDriver::Results() const {
    return Read(false).value("results", json());
}

RoutineState RoutineDriver::State() const {
    return static_cast<RoutineState>(Read(false).at("state").get<int>());
}

const std::string& RoutineDriver::Id() const {
    return id;
}

namespace {
enum class Progress { Reached, Pending, Never };
}

template <typename Reached>
bool RoutineDriver::WaitFor(Reached reached, Timeout timeout) {
    const Clock::time_point deadline = DeadlineAfter(timeout);
    for (;;) {
        // Counted before the read: a notification raised after it ends the wait below at once.
        const size_t seen = recording->recorder->NotificationCount();
        Progress progress = Progress::Never;
        try {
            const json document = Read(false);
            progress = reached(static_cast<RoutineState>(document.at("state").get<int>()),
                               document.at("currentStep").get<unsigned int>());
        } catch (const std::exception&) {
            return false;  // not created, or deleted: nothing more can come
        }
        if (progress != Progress::Pending) {
            return progress == Progress::Reached;
        }
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            return false;
        }
        recording->recorder->WaitBeyond(seen, std::min(deadline, now + RecheckPeriod));
    }
}

bool RoutineDriver::WaitForState(RoutineState wanted, Timeout timeout) {
    return WaitFor(
        [wanted](RoutineState state, unsigned int) {
            if (state == wanted) {
                return Progress::Reached;
            }
            // An ended routine stays as it ended.
            return NyCommon::IsStopped(state) ? Progress::Never : Progress::Pending;
        },
        timeout);
}

bool RoutineDriver::WaitForStep(unsigned int step, Timeout timeout) {
    return WaitFor(
        [step](RoutineState state, unsigned int current) {
            if (current >= step) {
                return Progress::Reached;
            }
            return NyCommon::IsStopped(state) ? Progress::Never : Progress::Pending;
        },
        timeout);
}

bool RoutineDriver::WaitUntilEnded(Timeout timeout) {
    return WaitFor(
        [](RoutineState state, unsigned int) {
            return NyCommon::IsStopped(state) ? Progress::Reached : Progress::Pending;
        },
        timeout);
}

std::vector<Notification> RoutineDriver::Notifications() const {
    return recording->recorder->Notifications();
}

std::vector<Ny::Logging::LogRecord> RoutineDriver::LogLines() const {
    return recording->recorder->Lines();
}

}  // namespace NyRoutine::Testing
