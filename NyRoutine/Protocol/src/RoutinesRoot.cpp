#include "NyRoutine/Protocol/RoutinesRoot.h"

#include <exception>
#include <iterator>
#include <utility>
#include <vector>

#include "NyApi/Exception.h"
#include "NyApi/Properties/JsonSerializer.h"
#include "NyApi/Properties/Structure.h"
#include "NyRest/Path.h"
#include "NyRoutine/Engine/RoutineInstance.h"
#include "NyRoutine/Protocol/RoutineProperties.h"
#include "NyRuntime/Runtime.h"

namespace NyRoutine::Internal {

namespace {

constexpr const char* RoutinePattern = "/routines/:routine";

// Runs `body`; a failure passes with the operation's message nested around the cause. A holder in the
// caller's scope releases the routine's lock on every path. `function` is the caller's
// __PRETTY_FUNCTION__: its qualified name is only worked out when there is a failure to name it in, not
// on every read of a document.
template <typename Body>
void WithContext(const char* function, const char* message, int line, Body&& body) {
    try {
        body();
    } catch (const Ny::Exception& e) {
        std::throw_with_nested(
            Ny::Exception(line, __FILE__, e.Status(), Ny::QualifiedName(function).c_str(), "%s", message));
    } catch (const std::exception&) {
        std::throw_with_nested(
            Ny::Exception(line, __FILE__, 0, Ny::QualifiedName(function).c_str(), "%s", message));
    }
}

// A refusal names at most this many keys, each cut to this many bytes, and counts the rest: a request
// with thousands of unknown or huge keys must not get a reply message of the same size.
constexpr size_t MaxNamedKeys = 20;
constexpr size_t MaxNamedKeyBytes = 64;

// `"a", "b" and 3 more`
// A key as a message shows it: control bytes escaped, so that a NUL cannot end the message early (it
// is formatted as a C string) and no byte can break a log line.
std::string Shown(const std::string& key) {
    std::string shown;
    shown.reserve(key.size());
    for (const char c : key) {
        if (static_cast<unsigned char>(c) < 0x20) {
            constexpr const char* kHex = "0123456789abcdef";
            shown += "\\u00";
            shown += kHex[(static_cast<unsigned char>(c) >> 4) & 0xF];
            shown += kHex[static_cast<unsigned char>(c) & 0xF];
        } else {
            shown += c;
        }
    }
    return shown;
}

std::string NameKeys(const std::vector<std::string>& keys) {
    std::string text;
    for (size_t i = 0; i < keys.size() && i < MaxNamedKeys; ++i) {
        text += i == 0 ? "\"" : ", \"";
        const std::string key = Shown(keys[i]);
        if (key.size() <= MaxNamedKeyBytes) {
            text += key;
        } else {
            // Cut before a UTF-8 continuation byte, so that no character is split.
            size_t cut = MaxNamedKeyBytes;
            while (cut > 0 && (static_cast<unsigned char>(key[cut]) & 0xC0) == 0x80) {
                --cut;
            }
            text += key.substr(0, cut) + "...";
        }
        text += "\"";
    }
    if (keys.size() > MaxNamedKeys) {
        text += " and " + std::to_string(keys.size() - MaxNamedKeys) + " more";
    }
    return text;
}

// A strict write's body: an object with an object member "parameters" and nothing else.
void CheckStrictBody(const nlohmann::json& body) {
    if (!body.is_object()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "The request body must be a JSON object.");
    }
    const auto parameters = body.find("parameters");
    if (parameters == body.end()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "The request body must have a member \"parameters\".");
    }
    if (!parameters->is_object()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Member \"parameters\" must be an object.");
    }
    std::vector<std::string> others;
    for (const auto& [key, value] : body.items()) {
        if (key != "parameters") {
            others.push_back(key);
        }
    }
    if (!others.empty()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "%s %s; only \"parameters\" may be given.",
                           others.size() == 1 ? "Unknown member" : "Unknown members",
                           NameKeys(others).c_str());
    }
}

[[noreturn]] void RefuseUnknownParameters(const std::vector<std::string>& unknown) {
    Ny::Exception refusal = NY_EXCEPTION(Ny::Status::InvalidValue, "%s %s.",
                                         unknown.size() == 1 ? "Unknown parameter" : "Unknown parameters",
                                         NameKeys(unknown).c_str());
    for (const std::string& path : unknown) {
        refusal.AddField(path, "Unknown parameter.");
    }
    throw refusal;
}

}  // namespace

RoutinesRoot::RoutinesRoot(NyCommon::IRoutineController& managerIn) : manager(managerIn) {
    createdSubscription =
        manager.CreatedEvent().SubscribeScoped([this](const std::string& id) { OnRoutineCreated(id); });
    deletedSubscription =
        manager.DeletedEvent().SubscribeScoped([this](const std::string& id) { OnRoutineDeleted(id); });
    timer = std::make_unique<Ny::AsyncTimer>([this](Ny::AsyncTimer&) { FlushStepUpdates(); });
    timer->Start(FlushPeriodUs, false);
}

RoutinesRoot::~RoutinesRoot() {
    createdSubscription.Reset();
    deletedSubscription.Reset();
    timer->Stop();
    timer.reset();
    TrackedMap remaining;
    {
        Ny::MutexLock guard(pendingMutex);
        remaining.swap(tracked);
    }
    // Each reset waits for a handler running on a routine thread, so no event can reach us later.
    remaining.clear();
}

nlohmann::json RoutinesRoot::GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        return BuildCollectionDocument(request, response);
    }
    const auto instance = manager.AcquireInstance(*id);
    Document built = BuildRoutineDocument(*id, *instance, request.Schema());
    if (request.Schema()) {
        built.document["_schema"] = std::move(built.schema);
    }
    return std::move(built.document);
}

RoutinesRoot::Document RoutinesRoot::BuildRoutineDocument(const std::string& id, RoutineInstance& instance,
                                                          bool withSchema) {
    RoutineProperties properties;
    properties.Fill(id, instance);
    Document built;
    built.document = Ny::Properties::JsonSerializer::Serialize(properties);
    // The schema is only built when the client asks for it: it costs more than the document.
    nlohmann::json* schema = nullptr;
    if (withSchema) {
        built.schema = Ny::Properties::JsonSerializer::SerializeSchema(properties);
        schema = &built.schema;
    }
    AppendParams(instance, built.document, schema);
    AppendResults(instance, built.document, schema);
    return built;
}

nlohmann::json RoutinesRoot::BuildCollectionDocument(const NyRest::RequestInfo&,
                                                     NyRest::ResponseInfo& response) {
    for (const std::string& id : manager.ListIds()) {
        response.Embed("item", "/routines/" + id, true, nlohmann::json());
    }
    return nlohmann::json();
}

void RoutinesRoot::AppendParams(RoutineInstance& instance, nlohmann::json& document, nlohmann::json* schema) {
    const ParamsAccess access(instance, false);
    WithContext(__PRETTY_FUNCTION__, "Append routine params failed.", __LINE__, [&] {
        const Ny::Properties::Structure empty(true);
        const Ny::Properties::Structure& shown = access.Get() != nullptr ? *access.Get() : empty;
        document["parameters"] = Ny::Properties::JsonSerializer::Serialize(shown);
        if (schema != nullptr) {
            nlohmann::json& parametersSchema = (*schema)["properties"]["parameters"];
            parametersSchema = Ny::Properties::JsonSerializer::SerializeSchema(shown);
            // Asked while the lock is held (it is re-entrant): the mark matches the values shown.
            if (!instance.AcceptsParams()) {
                parametersSchema["readOnly"] = true;
            }
        }
    });
}

void RoutinesRoot::AppendResults(RoutineInstance& instance, nlohmann::json& document,
                                 nlohmann::json* schema) {
    const ResultsAccess access(instance);
    WithContext(__PRETTY_FUNCTION__, "Append routine results failed.", __LINE__, [&] {
        const Ny::Properties::Structure empty(true);
        const Ny::Properties::Structure& shown = access.Get() != nullptr ? *access.Get() : empty;
        document["results"] = Ny::Properties::JsonSerializer::Serialize(shown);
        if (schema != nullptr) {
            (*schema)["properties"]["results"] = Ny::Properties::JsonSerializer::SerializeSchema(shown);
        }
    });
}

void RoutinesRoot::UpdateDocument(const NyRest::RequestInfo& request, const nlohmann::json& body) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue);
    }
    const auto instance = manager.AcquireInstance(*id);
    if (request.Prefers("handling=strict")) {
        SetRoutineParamsStrictly(*instance, body);
        return;
    }
    SetRoutineParams(*id, *instance, body);
}

void RoutinesRoot::SetRoutineParamsStrictly(RoutineInstance& instance, const nlohmann::json& body) {
    CheckStrictBody(body);
    const nlohmann::json& incoming = body["parameters"];
    ParamsAccess access(instance, true);
    // From here to the release the instance lock is held: a continue, an abort or the routine's next
    // parameters wait for it, so the routine still waits for exactly what was checked when it is
    // applied. Every refusal releases without reporting a write: nothing was stored.
    try {
        if (access.Get() == nullptr || !instance.AcceptsParams()) {
            throw NY_EXCEPTION(Ny::Status::Refused,
                               "The routine does not wait for parameters; nothing was applied.");
        }
        const std::vector<std::string> unknown =
            Ny::Properties::JsonSerializer::UnknownMembers(*access.Get(), incoming);
        if (!unknown.empty()) {
            RefuseUnknownParameters(unknown);
        }
        WithContext(__PRETTY_FUNCTION__, "Set routine params failed.", __LINE__,
                    [&] { Ny::Properties::JsonSerializer::Deserialize(*access.Get(), incoming); });
    } catch (...) {
        access.ReleaseUnwritten();
        throw;
    }
    // The release reports the write to the routine; a refusal there is the request's failure too.
    WithContext(__PRETTY_FUNCTION__, "Set routine params failed.", __LINE__, [&] { access.Release(); });
}

void RoutinesRoot::SetRoutineParams(const std::string&, RoutineInstance& instance,
                                    const nlohmann::json& body) {
    if (!body.is_object() || !body.contains("parameters")) {
        return;
    }
    ParamsAccess access(instance, true);
    if (access.Get() == nullptr) {
        NyRt::Log("RoutinesResource::SetRoutineParams: not updating parameters");
        return;
    }
    // The release reports the write to the routine and raises its updated event before unlocking; a
    // refusal there is the request's failure too.
    WithContext(__PRETTY_FUNCTION__, "Set routine params failed.", __LINE__, [&] {
        Ny::Properties::JsonSerializer::Deserialize(*access.Get(), body["parameters"]);
        access.Release();
    });
}

NyRest::CreateResult RoutinesRoot::Create(const NyRest::RequestInfo&, const nlohmann::json& body) {
    if (!body.is_object() || !body.contains("type")) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue);
    }
    const auto type = body["type"].get<std::string>();
    std::string id = manager.Create(type, nullptr);
    std::string path = "/routines/" + id;
    return {std::move(id), std::move(path)};
}

void RoutinesRoot::Delete(const NyRest::RequestInfo& request) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue);
    }
    if (*id == "*") {
        manager.ClearAllRoutines();
    } else {
        manager.Remove(*id);
    }
}

void RoutinesRoot::Notify(NyRest::EventType type, const std::string& path) {
    NotificationEvent().Raise(*this, type, path);
}

void RoutinesRoot::OnRoutineCreated(const std::string& id) {
    // Raised by the manager before anything can remove the routine, so the instance is there. It is
    // tracked before it is subscribed to, so that no update of it can slip past the tracking.
    const auto instance = manager.AcquireInstance(id);
    {
        Ny::MutexLock guard(pendingMutex);
        tracked[id];
    }
    auto updated = instance->UpdatedEvent().SubscribeScoped(
        [this](const std::string& routineId) { OnRoutineUpdated(routineId); });
    auto stepsUpdated = instance->StepsUpdatedEvent().SubscribeScoped(
        [this](const std::string& routineId) { OnRoutineStepsUpdated(routineId); });
    {
        Ny::MutexLock guard(pendingMutex);
        const auto it = tracked.find(id);
        if (it == tracked.end()) {
            // Deleted already (the manager orders its events, so only a foreign controller gets here):
            // no created notification after the deleted one; the subscriptions end with this scope.
            return;
        }
        it->second.updated = std::move(updated);
        it->second.stepsUpdated = std::move(stepsUpdated);
    }
    Notify(NyRest::EventType::Created, NyRest::Path::Format(RoutinePattern, {id}));
    bool missed = false;
    {
        Ny::MutexLock guard(pendingMutex);
        const auto it = tracked.find(id);
        if (it != tracked.end()) {
            it->second.announced = true;
            missed = std::exchange(it->second.missed, false);
        }
    }
    if (missed) {
        Notify(NyRest::EventType::Updated, NyRest::Path::Format(RoutinePattern, {id}));
    }
}

void RoutinesRoot::OnRoutineUpdated(const std::string& id) {
    {
        Ny::MutexLock guard(pendingMutex);
        const auto it = tracked.find(id);
        if (it == tracked.end()) {
            return;  // deleted, or never announced: nothing may follow or precede its notifications
        }
        if (!it->second.announced) {
            it->second.missed = true;
            return;
        }
    }
    Notify(NyRest::EventType::Updated, NyRest::Path::Format(RoutinePattern, {id}));
}

void RoutinesRoot::OnRoutineStepsUpdated(const std::string& id) {
    Ny::MutexLock guard(pendingMutex);
    // A routine that is already deleted (a request may still hold it while its code reports a step)
    // must not get an update after its deleted notification.
    if (tracked.count(id) != 0) {
        pending.insert(id);
    }
}

RoutinesRoot::TrackedMap RoutinesRoot::UntrackLocked(const std::string& id,
                                                     const std::vector<std::string>* keep) {
    TrackedMap dropped;
    if (keep == nullptr) {
        pending.erase(id);
        if (auto node = tracked.extract(id)) {
            dropped.insert(std::move(node));
        }
        return dropped;
    }
    const std::set<std::string> alive(keep->begin(), keep->end());
    for (auto it = tracked.begin(); it != tracked.end();) {
        if (alive.count(it->first) != 0) {
            ++it;
            continue;
        }
        pending.erase(it->first);
        auto next = std::next(it);
        dropped.insert(tracked.extract(it));
        it = next;
    }
    return dropped;
}

void RoutinesRoot::OnRoutineDeleted(const std::string& id) {
    const bool all = id == "*";
    // A clear drops the routines it took, not one created meanwhile: the manager raises this under the
    // lock that also orders creations, so its list is exactly the survivors.
    std::vector<std::string> survivors;
    if (all) {
        survivors = manager.ListIds();
    }
    TrackedMap dropped;
    {
        Ny::MutexLock guard(pendingMutex);
        dropped = UntrackLocked(id, all ? &survivors : nullptr);
        // The flush may have checked this routine just before: let its notification go out first.
        while (!flushing.empty() && flushThread != std::this_thread::get_id() && (all || flushing == id)) {
            flushDone.Wait(pendingMutex);
        }
    }
    // Waits for an updated handler in progress: its notification goes out before the deletion's.
    dropped.clear();
    if (all) {
        Notify(NyRest::EventType::Updated, "/routines");
    } else {
        Notify(NyRest::EventType::Deleted, NyRest::Path::Format(RoutinePattern, {id}));
    }
}

void RoutinesRoot::FlushStepUpdates() {
    // Take the whole set at once so reports arriving during the notifications wait for the next period
    // instead of being erased unsent.
    std::set<std::string> due;
    {
        Ny::MutexLock guard(pendingMutex);
        due.swap(pending);
    }
    struct Flushing {
        RoutinesRoot& root;
        ~Flushing() {
            Ny::MutexLock guard(root.pendingMutex);
            root.flushing.clear();
            root.flushDone.NotifyAll();
        }
    };
    for (auto it = due.begin(); it != due.end(); ++it) {
        {
            // Membership is checked where a deletion would wait for us: a routine deleted before this
            // point is skipped, one deleted after it is announced after this notification.
            Ny::MutexLock guard(pendingMutex);
            const auto entry = tracked.find(*it);
            if (entry == tracked.end()) {
                continue;
            }
            if (!entry->second.announced) {
                pending.insert(*it);  // after the created notification, in the next period
                continue;
            }
            flushing = *it;
            flushThread = std::this_thread::get_id();
        }
        const Flushing done{*this};
        try {
            Notify(NyRest::EventType::Updated, NyRest::Path::Format(RoutinePattern, {*it}));
        } catch (...) {
            // The failed id and every larger one stay pending for the next period.
            Ny::MutexLock guard(pendingMutex);
            for (auto rest = it; rest != due.end(); ++rest) {
                if (tracked.count(*rest) != 0) {
                    pending.insert(*rest);
                }
            }
            throw;
        }
    }
}

}  // namespace NyRoutine::Internal
