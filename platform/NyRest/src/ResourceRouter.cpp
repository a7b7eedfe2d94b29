#include "NyRest/ResourceRouter.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <map>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyRest/Path.h"
#include "NyRest/ResourceBase.h"
#include "NyRuntime/Runtime.h"

namespace NyRest {

namespace {

using nlohmann::json;

std::vector<std::string> SplitPath(std::string_view path) {
    std::vector<std::string> segments;
    size_t start = 0;
    while (start <= path.size()) {
        const size_t slash = path.find('/', start);
        const size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (end > start) {
            segments.emplace_back(path.substr(start, end - start));
        }
        if (slash == std::string_view::npos) {
            break;
        }
        start = slash + 1;
    }
    return segments;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Percent-decoding; a malformed escape is kept as it stands. `plusIsSpace` for query strings.
std::string Decode(std::string_view text, bool plusIsSpace) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = HexValue(text[i + 1]);
            const int low = HexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out.push_back(plusIsSpace && text[i] == '+' ? ' ' : text[i]);
    }
    return out;
}

std::map<std::string, std::string> ParseQuery(std::string_view query) {
    std::map<std::string, std::string> values;
    size_t start = 0;
    while (start < query.size()) {
        size_t end = query.find('&', start);
        if (end == std::string_view::npos) {
            end = query.size();
        }
        const std::string_view pair = query.substr(start, end - start);
        const size_t equals = pair.find('=');
        if (!pair.empty()) {
            values[Decode(pair.substr(0, equals), true)] =
                equals == std::string_view::npos ? std::string() : Decode(pair.substr(equals + 1), true);
        }
        start = end + 1;
    }
    return values;
}

Response ErrorResponse(int status, int nyStatus, const std::string& message) {
    Response response;
    response.status = status;
    response.body = {{"status", nyStatus}, {"message", message}, {"causes", json::array()}};
    return response;
}

// nlohmann's texts start with "[json.exception.type_error.302] "; clients want the sentence.
std::string WithoutJsonPrefix(const char* text) {
    const std::string_view view(text);
    if (view.rfind("[json.exception.", 0) == 0) {
        const size_t close = view.find("] ");
        if (close != std::string_view::npos) {
            return std::string(view.substr(close + 2));
        }
    }
    return std::string(view);
}

std::string_view Trim(std::string_view text) {
    const auto space = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && space(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && space(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// A trimmed value without the quotes of a quoted-string (its backslash escapes are taken as they are).
std::string_view Unquote(std::string_view text) {
    text = Trim(text);
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        text = text.substr(1, text.size() - 2);
    }
    return text;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// Splits `text` at each `separator` that is not inside a quoted-string.
std::vector<std::string_view> SplitOutsideQuotes(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    bool quoted = false;
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (quoted && text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (!quoted && text[i] == separator) {
            parts.push_back(text.substr(start, i - start));
            start = i + 1;
        }
    }
    parts.push_back(text.substr(std::min(start, text.size())));
    return parts;
}

// The created hook of the dispatch running on this thread, or null. Thread-local because a creation's
// notification reaches the router through the engine's own events (manager, resource, router) with no
// request context to carry it; the creation raises it synchronously on the dispatching thread, so the
// thread tells which dispatch it belongs to. A Created raised on another thread meets that thread's
// hook (or none), never this one.
struct CreatedHook {
    const std::function<void(const CreateResult&)>* onCreated;
    bool fired = false;
};
thread_local CreatedHook* currentCreatedHook = nullptr;

// Installs a dispatch's hook for its scope. A dispatch nested in another on the same thread has its own
// (or none): what it creates is its own request's.
class CreatedHookScope {
  public:
    explicit CreatedHookScope(const DispatchOptions& options)
        : hook{options.onCreated ? &options.onCreated : nullptr}, previous(currentCreatedHook) {
        currentCreatedHook = hook.onCreated != nullptr ? &hook : nullptr;
    }
    ~CreatedHookScope() { currentCreatedHook = previous; }
    CreatedHookScope(const CreatedHookScope&) = delete;
    CreatedHookScope& operator=(const CreatedHookScope&) = delete;

  private:
    CreatedHook hook;
    CreatedHook* previous;
};

}  // namespace

bool RequestInfo::Prefers(std::string_view token) const {
    const size_t equals = token.find('=');
    const std::string_view name = Trim(token.substr(0, equals));
    const bool withValue = equals != std::string_view::npos;
    const std::string_view value = withValue ? Unquote(token.substr(equals + 1)) : std::string_view();
    for (const std::string_view preference : SplitOutsideQuotes(prefer, ',')) {
        const std::string_view head = SplitOutsideQuotes(preference, ';').front();
        const size_t split = head.find('=');
        if (!EqualsIgnoringCase(Trim(head.substr(0, split)), name)) {
            continue;
        }
        // The first occurrence of a preference decides; later ones are ignored.
        if (!withValue) {
            return true;
        }
        return split != std::string_view::npos && EqualsIgnoringCase(Unquote(head.substr(split + 1)), value);
    }
    return false;
}

namespace {

// A JSON error out of a resource is its reading of the request body failing (a member missing or of
// the wrong type): the client's bad value.
bool IsBodyReadError(const std::exception& error) {
    return dynamic_cast<const json::type_error*>(&error) != nullptr ||
           dynamic_cast<const json::parse_error*>(&error) != nullptr ||
           dynamic_cast<const json::out_of_range*>(&error) != nullptr;
}

// The status the error body reports; one with the HTTP status HttpStatusFor gives.
int NyStatusFor(const std::exception& error) {
    return IsBodyReadError(error) ? Ny::Status::InvalidValue : Ny::StatusOf(error);
}

}  // namespace

int HttpStatusFor(const std::exception& error) {
    switch (NyStatusFor(error)) {
        case Ny::Status::NotFound:
            return 404;
        case Ny::Status::InvalidValue:
            return 400;
        case Ny::Status::Refused:
        case Ny::Status::AlreadyRegistered:
            return 409;
        case ReadOnlyDocumentStatus:
            return 405;
        default:
            return 500;
    }
}

json ErrorBody(const std::exception& error) {
    json causes = json::array();
    for (const std::string& cause : Ny::Exception::NestedMessages(error)) {
        causes.push_back(WithoutJsonPrefix(cause.c_str()));
    }
    json body = {{"status", NyStatusFor(error)},
                 {"message", WithoutJsonPrefix(error.what())},
                 {"causes", std::move(causes)}};
    json fields = json::object();
    for (const auto& refusal : Ny::Exception::FieldsOf(error)) {
        fields[refusal.path].push_back(refusal.message);
    }
    if (!fields.empty()) {
        body["fields"] = std::move(fields);
    }
    return body;
}

void DocumentResourceBase::UpdateDocument(const RequestInfo&, const nlohmann::json&) {
    throw NY_EXCEPTION(ReadOnlyDocumentStatus, "The document is read-only.");
}

std::string Path::Format(const std::string& pattern, std::initializer_list<std::string> values) {
    std::string out;
    out.reserve(pattern.size() + 16);
    auto value = values.begin();
    size_t i = 0;
    while (i < pattern.size()) {
        if (pattern[i] == ':' && (i == 0 || pattern[i - 1] == '/') && value != values.end()) {
            size_t end = pattern.find('/', i);
            if (end == std::string::npos) {
                end = pattern.size();
            }
            out += *value++;
            i = end;
            continue;
        }
        out.push_back(pattern[i++]);
    }
    return out;
}

struct ResourceRouter::Route {
    std::string pattern;
    std::vector<std::string> segments;
    IResource* resource;
    Ny::Subscription notification;  // forwards the resource's notifications while it is registered
    unsigned inFlight = 0;          // guarded by the router's inFlightMutex
};

struct ResourceRouter::Match {
    std::map<std::string, std::string> params;
};

ResourceRouter::ResourceRouter() = default;

// Resources still registered here are not touched: they may be gone already. Their owners deregister
// them while both live (the REST fronts do so in their destructors).
ResourceRouter::~ResourceRouter() = default;

void ResourceRouter::Register(const std::string& pattern, IResource& resource) {
    auto route = std::make_shared<Route>();
    route->pattern = pattern;
    route->segments = SplitPath(pattern);
    route->resource = &resource;
    if (pattern.empty() || pattern.front() != '/' || pattern.find("//") != std::string::npos ||
        (pattern.size() > 1 && pattern.back() == '/') ||
        std::any_of(route->segments.begin(), route->segments.end(),
                    [](const std::string& s) { return s == ":"; })) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Malformed path pattern \"%s\".", pattern.c_str());
    }
    {
        Ny::WriterLock guard(mutex);
        for (const auto& existing : routes) {
            if (existing->pattern == pattern) {
                throw NY_EXCEPTION(Ny::Status::AlreadyRegistered,
                                   "Path pattern \"%s\" is registered already.", pattern.c_str());
            }
        }
        routes.push_back(route);
    }
    route->notification = resource.NotificationEvent().SubscribeScoped(
        [this](IResource&, EventType type, const std::string& path) { Forward(type, path); });
}

void ResourceRouter::Deregister(const std::string& pattern, bool recursive) {
    std::vector<std::shared_ptr<Route>> withdrawn;
    {
        Ny::WriterLock guard(mutex);
        const std::string prefix = pattern == "/" ? "/" : pattern + "/";
        for (auto it = routes.begin(); it != routes.end();) {
            const bool beneath = recursive && (*it)->pattern.rfind(prefix, 0) == 0;
            if ((*it)->pattern == pattern || beneath) {
                withdrawn.push_back(*it);
                it = routes.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& route : withdrawn) {
        route->notification.Reset();
    }
    Ny::MutexLock guard(inFlightMutex);
    for (const auto& route : withdrawn) {
        while (route->inFlight != 0) {
            inFlightDone.Wait(inFlightMutex);
        }
    }
}

std::shared_ptr<ResourceRouter::Route> ResourceRouter::Find(const std::vector<std::string>& segments,
                                                            Match& match) const {
    Ny::ReaderLock guard(mutex);
    std::shared_ptr<Route> best;
    int bestScore = -1;
    std::map<std::string, std::string> bestParams;
    for (const auto& route : routes) {
        const auto& pattern = route->segments;
        // The full pattern, or the pattern without its trailing parameter segment (a collection).
        const bool exact = pattern.size() == segments.size();
        const bool collection =
            pattern.size() == segments.size() + 1 && !pattern.back().empty() && pattern.back().front() == ':';
        if (!exact && !collection) {
            continue;
        }
        std::map<std::string, std::string> params;
        int score = exact ? 1 : 0;  // a full match beats a collection match
        bool matches = true;
        for (size_t i = 0; i < segments.size(); ++i) {
            if (pattern[i].front() == ':') {
                params[pattern[i].substr(1)] = segments[i];
            } else if (pattern[i] == segments[i]) {
                score += 2;  // literal segments win over parameters
            } else {
                matches = false;
                break;
            }
        }
        if (matches && score > bestScore) {
            best = route;
            bestScore = score;
            bestParams = std::move(params);
        }
    }
    match.params = std::move(bestParams);
    if (best) {
        Ny::MutexLock inFlight(inFlightMutex);
        ++best->inFlight;
    }
    return best;
}

std::vector<std::string> ResourceRouter::PathSegments(std::string_view target) {
    std::vector<std::string> segments = SplitPath(target.substr(0, target.find('?')));
    for (auto& segment : segments) {
        segment = Decode(segment, false);
    }
    return segments;
}

void ResourceRouter::Forward(EventType type, const std::string& path) {
    notificationEvent.Raise(type, path);
    CreatedHook* hook = currentCreatedHook;
    if (type != EventType::Created || hook == nullptr || hook->fired) {
        return;
    }
    hook->fired = true;
    const size_t slash = path.rfind('/');
    const CreateResult created{slash == std::string::npos ? path : path.substr(slash + 1), path};
    try {
        (*hook->onCreated)(created);
    } catch (const std::exception& e) {
        // The transport's hook failing must not fail the creation that announced itself here.
        NY_LOG(Ny::Logging::Level::CaughtFailure, "The created hook failed: %s", e.what());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "The created hook failed with an unknown error.");
    }
}

Response ResourceRouter::DispatchRaw(const std::string& method, const std::string& target,
                                     std::string_view body, const DispatchOptions& options) {
    json parsed;
    if (!body.empty()) {
        try {
            // The context is this function's, not the lambda's.
            const std::string context = NY_CONTEXT();
            const auto limitDepth = [&context](int depth, json::parse_event_t, json&) {
                if (depth > MaxBodyDepth) {
                    throw Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue, context.c_str(),
                                        "The request body is nested too deeply.");
                }
                return true;
            };
            parsed = json::parse(body.begin(), body.end(), limitDepth);
        } catch (const std::exception& e) {
            Response response =
                ErrorResponse(400, Ny::StatusOf(e) == 0 ? Ny::Status::InvalidValue : Ny::StatusOf(e),
                              "The request body is not valid JSON.");
            response.body["causes"].push_back(WithoutJsonPrefix(e.what()));
            return response;
        }
    }
    return Dispatch(method, target, parsed, options);
}

Response ResourceRouter::Dispatch(const std::string& method, const std::string& target, const json& body,
                                  const DispatchOptions& options) {
    const size_t question = target.find('?');
    const std::string_view rawPath = std::string_view(target).substr(0, question);
    const std::string_view rawQuery =
        question == std::string::npos ? std::string_view() : std::string_view(target).substr(question + 1);
    const std::vector<std::string> segments = PathSegments(target);
    Match match;
    std::shared_ptr<Route> route = Find(segments, match);
    if (!route) {
        return ErrorResponse(404, Ny::Status::NotFound, "No resource at " + std::string(rawPath) + ".");
    }
    Response response;
    try {
        const CreatedHookScope hookScope(options);
        RequestInfo request(method, std::string(rawPath), std::move(match.params), ParseQuery(rawQuery),
                            options.prefer);
        response = Invoke(*route, method, request, body);
    } catch (const std::exception& e) {
        response.status = HttpStatusFor(e);
        response.headers.clear();
        response.body = ErrorBody(e);
        // A wait its thread gave up on is no failure: the request runs again where it may wait.
        if (response.status >= 500 && !NyRt::WaitsGaveUp()) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "%s %s failed: %s", method.c_str(), target.c_str(),
                   e.what());
        }
    } catch (...) {
        response = ErrorResponse(500, 0, "The request failed with an unknown error.");
    }
    {
        Ny::MutexLock guard(inFlightMutex);
        --route->inFlight;
    }
    inFlightDone.NotifyAll();
    return response;
}

namespace {

// The document of a GET, with the resource's embedded entries under "_embedded".
Response ReadDocument(IDocumentResource& document, const RequestInfo& request) {
    ResponseInfo info;
    json result = document.GetDocument(request, info);
    if (!info.EmbeddedEntries().empty()) {
        if (result.is_null()) {
            result = json::object();
        }
        json& embedded = result["_embedded"];
        for (const auto& entry : info.EmbeddedEntries()) {
            json item = entry.value.is_object() ? entry.value : json::object();
            if (entry.link) {
                item["_links"] = {{"self", {{"href", entry.path}}}};
            }
            embedded[entry.name].push_back(std::move(item));
        }
    }
    Response response;
    response.body = std::move(result);
    response.headers = info.Headers();
    return response;
}

Response CreateChild(IParentResource& parent, const RequestInfo& request, const json& body) {
    const CreateResult created = parent.Create(request, body);
    Response response;
    response.status = 201;
    response.headers.emplace_back("Location", created.path);
    response.body = {{"id", created.id}, {"path", created.path}};
    return response;
}

Response NoContent() {
    Response response;
    response.status = 204;
    return response;
}

// 405 with the methods the resource does support.
Response MethodNotAllowed(const std::string& method, bool document, bool callable, bool parent) {
    std::string allow;
    const auto add = [&allow](const char* verb) { allow += allow.empty() ? verb : std::string(", ") + verb; };
    if (document) {
        add("GET");
        add("PUT");
        add("PATCH");
    }
    if (callable || parent) {
        add("POST");
    }
    if (parent) {
        add("DELETE");
    }
    Response response = ErrorResponse(405, 0, "Method " + method + " is not allowed here.");
    response.headers.emplace_back("Allow", allow);
    return response;
}

}  // namespace

Response ResourceRouter::Invoke(Route& route, const std::string& method, const RequestInfo& request,
                                const json& body) {
    IResource& resource = *route.resource;
    IDocumentResource* document = resource.DocumentProvider();
    IParentResource* parent = resource.ParentProvider();
    ICallableResource* callable = resource.CallableProvider();
    if (method == "GET" && document != nullptr) {
        return ReadDocument(*document, request);
    }
    if ((method == "PUT" || method == "PATCH") && document != nullptr) {
        document->UpdateDocument(request, body);
        return NoContent();
    }
    if (method == "POST" && callable != nullptr) {
        Response response;
        response.body = callable->Call(request, body);
        return response;
    }
    if (method == "POST" && parent != nullptr) {
        return CreateChild(*parent, request, body);
    }
    if (method == "DELETE" && parent != nullptr) {
        parent->Delete(request);
        return NoContent();
    }
    return MethodNotAllowed(method, document != nullptr, callable != nullptr, parent != nullptr);
}

}  // namespace NyRest
