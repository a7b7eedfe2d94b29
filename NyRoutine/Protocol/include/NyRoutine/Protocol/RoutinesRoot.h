// `RoutinesRoot`: the REST resource at "/routines/:routine".
//
// Reads of "/routines" (the collection, as embedded "item" entries) and of one routine (its document
// with "parameters", "results" and, when asked, "_schema"); creation of a routine of a named type;
// updates of a routine's "parameters"; deletion of one routine or of all ("*"). It also turns the
// manager's and the instances' events into resource notifications: created, updated and deleted at
// once, step and progress reports coalesced per routine and flushed every 500 ms in ascending id order.
//
// Owned by `RoutinesDir`; must be destroyed before the manager it was given. Its operations run on
// REST request threads in parallel; a creation may block until another request continues the new
// routine. Notifications are raised on the thread of the triggering event (request threads, routine
// threads, the flush timer's thread). Per routine path they come in the order created, updated...,
// deleted, and nothing after: each instance it follows is tracked by id until that routine's deletion
// (or the clear that dropped it), and dropping its subscriptions waits for a handler in progress.
// A notification handler may therefore remove or clear routines on its own thread, but must not wait
// for another thread that does.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/AsyncTimer.h"
#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyCommon/IRoutineController.h"
#include "NyRest/DocumentResourceBase.h"
#include "NyRest/IParentResource.h"

namespace NyRoutine::Internal {

class RoutineInstance;

class RoutinesRoot : public NyRest::DocumentResourceBase, public NyRest::IParentResource {
  public:
    static constexpr std::uint64_t FlushPeriodUs = 500000;

    explicit RoutinesRoot(NyCommon::IRoutineController& manager);
    ~RoutinesRoot();
    RoutinesRoot(const RoutinesRoot&) = delete;
    RoutinesRoot& operator=(const RoutinesRoot&) = delete;

    NyRest::IParentResource* ParentProvider() override { return this; }

    // "/routines": null with one embedded "item" per routine. "/routines/<id>": the routine's document.
    // Throws -999 for an unknown routine, and the wrapped failures of reading parameters or results.
    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;
    // Writes the body's "parameters" into the routine's parameters when they are open for writing.
    // Throws -997 without a routine, -999 for an unknown one, "Set routine params failed." (wrapping
    // the refusal, with every refused parameter in its fields) for a refused value: no value of the
    // request is stored then. With the preference "handling=strict" (see SetRoutineParamsStrictly)
    // a write that would not apply fully is refused instead of skipped.
    void UpdateDocument(const NyRest::RequestInfo& request, const nlohmann::json& body) override;
    // Creates a routine of the body's "type". Blocks until the routine's first continue unless the type
    // skips its start parameters. Throws -997 for a body without "type", the JSON type error for a
    // non-string "type", and the manager's refusals.
    NyRest::CreateResult Create(const NyRest::RequestInfo& request, const nlohmann::json& body) override;
    // Removes one routine, or all of them for the id "*". Throws -997 without a routine, -999 for an
    // unknown one.
    void Delete(const NyRest::RequestInfo& request) override;

  private:
    struct Document {
        nlohmann::json document;
        nlohmann::json schema;
    };

    // The subscriptions to one instance, removed when the routine is deleted, cleared, or this resource
    // is destroyed: no instance event may reach a destroyed resource or follow a deleted notification.
    struct Tracked {
        Ny::Subscription updated;
        Ny::Subscription stepsUpdated;
        // Until the created notification has gone out, updates wait: one that came meanwhile is sent
        // right after it.
        bool announced = false;
        bool missed = false;
    };
    using TrackedMap = std::map<std::string, Tracked>;

    Document BuildRoutineDocument(const std::string& id, RoutineInstance& instance, bool withSchema);
    nlohmann::json BuildCollectionDocument(const NyRest::RequestInfo& request,
                                           NyRest::ResponseInfo& response);
    void AppendParams(RoutineInstance& instance, nlohmann::json& document, nlohmann::json* schema);
    void AppendResults(RoutineInstance& instance, nlohmann::json& document, nlohmann::json* schema);
    void SetRoutineParams(const std::string& id, RoutineInstance& instance, const nlohmann::json& body);
    // Checks, in order, and applies nothing unless all pass: the body is {"parameters": {...}} and no
    // more (-997); the routine waits for parameters (-1000); every key under "parameters", at every
    // depth, names a parameter (-997, each unknown key in the fields); the values pass validation
    // (-997 "Set routine params failed.", as the lenient write).
    void SetRoutineParamsStrictly(RoutineInstance& instance, const nlohmann::json& body);

    void OnRoutineCreated(const std::string& id);
    void OnRoutineDeleted(const std::string& id);
    void OnRoutineUpdated(const std::string& id);
    void OnRoutineStepsUpdated(const std::string& id);
    void FlushStepUpdates();
    void Notify(NyRest::EventType type, const std::string& path);
    // Takes the tracking of the given ids (all not in `keep` when `keep` is given) out of the map.
    TrackedMap UntrackLocked(const std::string& id, const std::vector<std::string>* keep)
        NY_REQUIRES(pendingMutex);

    NyCommon::IRoutineController& manager;
    std::unique_ptr<Ny::AsyncTimer> timer;

    // Guards the pending set, the tracked instances and the flush in progress. Never held while
    // notifying or while calling the manager or an instance; taken last. A deletion waits (on
    // `flushDone`) while the flush notifies that same routine on another thread, so that a step update
    // can never follow its deleted notification; a handler of that very notification may still delete.
    Ny::Mutex pendingMutex;
    Ny::CondVar flushDone;
    std::string flushing NY_GUARDED_BY(pendingMutex);           // the id the flush notifies now, or empty
    std::thread::id flushThread NY_GUARDED_BY(pendingMutex);    // the thread that notifies it
    std::set<std::string> pending NY_GUARDED_BY(pendingMutex);  // ids with an unsent step notification
    TrackedMap tracked NY_GUARDED_BY(pendingMutex);             // live routines we listen to

    Ny::Subscription createdSubscription;
    Ny::Subscription deletedSubscription;
};

}  // namespace NyRoutine::Internal
