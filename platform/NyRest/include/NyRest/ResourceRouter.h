// `NyRest::ResourceRouter`: the transport-neutral REST dispatcher. Resources are registered at path
// patterns ("/routines/:routine"); a request (method, target, body) is dispatched to the resource whose
// pattern matches and answered with a status, headers and a JSON body. The HTTP host is a thin adapter
// over `DispatchRaw`.
//
// Matching: segments compare literally, ":name" segments match any one segment and give the parameter
// "name"; literal segments win over parameters. A path equal to a pattern without its trailing
// parameter segment reaches that pattern's resource with no such parameter ("/routines" reaches
// "/routines/:routine"). Segments are percent-decoded; the query string gives query parameters.
//
// Verbs: GET reads a document (200); PUT and PATCH update it (204); POST on a parent creates a child
// (201, a Location header and {"id", "path"}); POST on a callable calls it (200 with its value); DELETE
// on a parent deletes (204). A verb the resource does not take is 405 with an Allow header; an unknown
// path 404. Embedded entries are laid out HAL-style under "_embedded".
//
// Errors: every failure becomes {"status": <Ny status>, "message": <text>, "causes": [<nested texts>]}
// (plus "fields" when it carries field refusals) with the HTTP status from `HttpStatusFor`. Nothing
// thrown by a resource escapes a dispatch.
//
// Threading: dispatches run on many threads at once and may block inside a resource for a long time.
// The route table has a reader-writer lock held only for lookups, never while a resource runs.
// Deregister waits until dispatches into the withdrawn resources have returned, so the owner must
// first release requests blocked inside them. `NotificationEvent` forwards every registered
// resource's notifications (type, path) on the thread that raised them.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyRest/Resource.h"

namespace NyRest {

struct Response {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    nlohmann::json body;  // not sent for 204
};

// What a transport adds to a dispatch beyond method, target and body.
struct DispatchOptions {
    // The request's Prefer header values joined by ", " (see RequestInfo::Prefers).
    std::string prefer;
    // Called once, on the dispatching thread, with the id and path of the first Created notification
    // raised on that thread while it is inside this dispatch (a creation announces its routine
    // synchronously, before it may block waiting for the routine). The id is the path's last segment.
    // It runs inside the creation while the engine announces the new resource (other creations and
    // clears wait meanwhile): it must return quickly (hand the result to another thread) and must not
    // dispatch into the router. What it throws is logged and dropped: it must not fail the creation.
    std::function<void(const CreateResult&)> onCreated;
};

// The HTTP status for a failure: -999 404, -997 400, -1000 and -987 409, a read-only document 405,
// a JSON type, parse or out-of-range error (a resource failing to read the body) 400 as -997, anything
// else 500. The one place statuses meet HTTP.
int HttpStatusFor(const std::exception& error);
// The JSON error body for a failure: {"status", "message", "causes"}, its status the one HttpStatusFor
// reads (-997 for a JSON error), and "fields" (a field's path -> its messages) when the failure or one
// nested in it carries field refusals.
nlohmann::json ErrorBody(const std::exception& error);

class ResourceRouter {
  public:
    static constexpr int MaxBodyDepth = 64;

    ResourceRouter();
    // Every resource must be deregistered before it or the router is destroyed.
    ~ResourceRouter();
    ResourceRouter(const ResourceRouter&) = delete;
    ResourceRouter& operator=(const ResourceRouter&) = delete;

    // Throws Ny::Exception -997 for a malformed pattern and -987 for a pattern registered already.
    void Register(const std::string& pattern, IResource& resource);
    // Withdraws the pattern, and with `recursive` every pattern beneath it. Unknown patterns are ignored.
    // Waits for dispatches into the withdrawn resources to return.
    void Deregister(const std::string& pattern, bool recursive);

    Response Dispatch(const std::string& method, const std::string& target, const nlohmann::json& body,
                      const DispatchOptions& options = {});
    // Parses `body` first (empty means null); malformed or nested deeper than MaxBodyDepth gives 400.
    Response DispatchRaw(const std::string& method, const std::string& target, std::string_view body,
                         const DispatchOptions& options = {});

    // The segments a target is matched by: its path without the query, split at "/", empty segments
    // dropped, each percent-decoded. A caller that classifies requests by path must use these, or a
    // spelling such as "//a" or "/%61" would reach the same resource past its classification.
    static std::vector<std::string> PathSegments(std::string_view target);

    Ny::Event<EventType, std::string>& NotificationEvent() { return notificationEvent; }

  private:
    struct Route;
    struct Match;

    std::shared_ptr<Route> Find(const std::vector<std::string>& segments, Match& match) const;
    // Forwards a resource's notification, and hands a Created one to the created hook of the dispatch
    // running on this thread, if any.
    void Forward(EventType type, const std::string& path);
    Response Invoke(Route& route, const std::string& method, const RequestInfo& request,
                    const nlohmann::json& body);

    // `mutex` guards the route list and is taken before `inFlightMutex`, which guards every route's
    // in-flight count; neither is held while a resource runs or an event is raised.
    mutable Ny::SharedMutex mutex NY_ACQUIRED_BEFORE(inFlightMutex);
    std::vector<std::shared_ptr<Route>> routes NY_GUARDED_BY(mutex);
    mutable Ny::Mutex inFlightMutex;
    Ny::CondVar inFlightDone;  // a dispatch returned
    Ny::Event<EventType, std::string> notificationEvent;
};

}  // namespace NyRest
