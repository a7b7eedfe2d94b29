#include "NyRoutine/Protocol/RoutinesRoot.h"

#include <exception>
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

// Runs `body` while the caller holds a parameter or result lock; on any failure releases that lock
// first and rethrows with the operation's context and message nested around the cause.
template <typename Body, typename Unlock>
void WithLockHeld(const char* context, const char* message, int line, Body&& body, Unlock&& unlock) {
    try {
        body();
    } catch (const Ny::Exception& e) {
        unlock();
        std::throw_with_nested(Ny::Exception(line, __FILE__, e.Status(), context, "%s", message));
    } catch (const std::exception&) {
        unlock();
        std::throw_with_nested(Ny::Exception(line, __FILE__, 0, context, "%s", message));
    } catch (...) {
        unlock();
        throw;
    }
    unlock();
}

}  // namespace

RoutinesRoot::RoutinesRoot(NyCommon::IRoutineController& managerIn) : manager(managerIn) {
    createdHandle = manager.CreatedEvent().Subscribe([this](const std::string& id) { OnRoutineCreated(id); });
    deletedHandle = manager.DeletedEvent().Subscribe([this](const std::string& id) { OnRoutineDeleted(id); });
    timer = std::make_unique<Ny::AsyncTimer>([this](Ny::AsyncTimer&) { FlushStepUpdates(); });
    timer->Start(FlushPeriodUs, false);
}

RoutinesRoot::~RoutinesRoot() {
    manager.CreatedEvent().Unsubscribe(createdHandle);
    manager.DeletedEvent().Unsubscribe(deletedHandle);
    std::map<std::string, Subscription> remaining;
    {
        std::lock_guard guard(pendingMutex);
        remaining.swap(subscriptions);
    }
    // Unsubscribing waits for a handler running on a routine thread, so no event can reach us later.
    for (auto& [id, subscription] : remaining) {
        if (auto instance = subscription.instance.lock()) {
            instance->UpdatedEvent().Unsubscribe(subscription.updated);
            instance->StepsUpdatedEvent().Unsubscribe(subscription.stepsUpdated);
        }
    }
    timer->Stop();
    timer.reset();
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
    Ny::Properties::Structure* params = instance.LockParams(false);
    WithLockHeld(
        "NyRoutine::Internal::RoutinesRoot::AppendParams", "Append routine params failed.", __LINE__,
        [&] {
            const Ny::Properties::Structure empty(true);
            const Ny::Properties::Structure& shown = params != nullptr ? *params : empty;
            document["parameters"] = Ny::Properties::JsonSerializer::Serialize(shown);
            if (schema != nullptr) {
                (*schema)["properties"]["parameters"] =
                    Ny::Properties::JsonSerializer::SerializeSchema(shown);
            }
        },
        [&] { instance.UnlockParams(); });
}

void RoutinesRoot::AppendResults(RoutineInstance& instance, nlohmann::json& document,
                                 nlohmann::json* schema) {
    const Ny::Properties::Structure* results = instance.LockResults();
    WithLockHeld(
        "NyRoutine::Internal::RoutinesRoot::AppendResults", "Append routine results failed.", __LINE__,
        [&] {
            const Ny::Properties::Structure empty(true);
            const Ny::Properties::Structure& shown = results != nullptr ? *results : empty;
            document["results"] = Ny::Properties::JsonSerializer::Serialize(shown);
            if (schema != nullptr) {
                (*schema)["properties"]["results"] = Ny::Properties::JsonSerializer::SerializeSchema(shown);
            }
        },
        [&] { instance.UnlockResults(); });
}

void RoutinesRoot::UpdateDocument(const NyRest::RequestInfo& request, const nlohmann::json& body) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        throw Ny::Exception(__LINE__, __FILE__, -997, "NyRoutine::Internal::RoutinesRoot::UpdateDocument");
    }
    const auto instance = manager.AcquireInstance(*id);
    SetRoutineParams(*id, *instance, body);
}

void RoutinesRoot::SetRoutineParams(const std::string&, RoutineInstance& instance,
                                    const nlohmann::json& body) {
    if (!body.is_object() || !body.contains("parameters")) {
        return;
    }
    Ny::Properties::Structure* params = instance.LockParams(true);
    if (params == nullptr) {
        NyRt::Log("RoutinesResource::SetRoutineParams: not updating parameters");
        instance.UnlockParams();
        return;
    }
    // UnlockParams reports the write to the routine and raises its updated event before releasing.
    WithLockHeld(
        "NyRoutine::Internal::RoutinesRoot::SetRoutineParams", "Set routine params failed.", __LINE__,
        [&] { Ny::Properties::JsonSerializer::Deserialize(*params, body["parameters"]); },
        [&] { instance.UnlockParams(); });
}

NyRest::CreateResult RoutinesRoot::Create(const NyRest::RequestInfo&, const nlohmann::json& body) {
    if (!body.is_object() || !body.contains("type")) {
        throw Ny::Exception(__LINE__, __FILE__, -997, "NyRoutine::Internal::RoutinesRoot::Create");
    }
    const auto type = body["type"].get<std::string>();
    std::string id = manager.Create(type, nullptr);
    std::string path = "/routines/" + id;
    return {std::move(id), std::move(path)};
}

void RoutinesRoot::Delete(const NyRest::RequestInfo& request) {
    const std::string* id = request.Param("routine");
    if (id == nullptr) {
        throw Ny::Exception(__LINE__, __FILE__, -997, "NyRoutine::Internal::RoutinesRoot::Delete");
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
    const auto instance = manager.AcquireInstance(id);
    Subscription subscription;
    subscription.instance = instance;
    subscription.updated = instance->UpdatedEvent().Subscribe(
        [this](const std::string& routineId) { OnRoutineUpdated(routineId); });
    subscription.stepsUpdated = instance->StepsUpdatedEvent().Subscribe(
        [this](const std::string& routineId) { OnRoutineStepsUpdated(routineId); });
    {
        std::lock_guard guard(pendingMutex);
        subscriptions[id] = subscription;
    }
    Notify(NyRest::EventType::Created, NyRest::Path::Format(RoutinePattern, {id}));
}

void RoutinesRoot::OnRoutineUpdated(const std::string& id) {
    Notify(NyRest::EventType::Updated, NyRest::Path::Format(RoutinePattern, {id}));
}

void RoutinesRoot::OnRoutineStepsUpdated(const std::string& id) {
    std::lock_guard guard(pendingMutex);
    // A routine that is already deleted (a request may still hold it while its code reports a step)
    // must not get an update after its deleted notification.
    if (subscriptions.count(id) != 0) {
        pending.insert(id);
    }
}

void RoutinesRoot::OnRoutineDeleted(const std::string& id) {
    {
        std::lock_guard guard(pendingMutex);
        if (id == "*") {
            pending.clear();
            subscriptions.clear();
        } else {
            pending.erase(id);
            subscriptions.erase(id);
        }
    }
    if (id == "*") {
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
        std::lock_guard guard(pendingMutex);
        due.swap(pending);
    }
    for (auto it = due.begin(); it != due.end(); ++it) {
        try {
            Notify(NyRest::EventType::Updated, NyRest::Path::Format(RoutinePattern, {*it}));
        } catch (...) {
            // The failed id and every larger one stay pending for the next period.
            std::lock_guard guard(pendingMutex);
            for (auto rest = it; rest != due.end(); ++rest) {
                if (subscriptions.count(*rest) != 0) {
                    pending.insert(*rest);
                }
            }
            throw;
        }
    }
}

}  // namespace NyRoutine::Internal
