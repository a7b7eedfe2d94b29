// The resource model of the REST framework: what a resource can be (a document, a parent of children,
// a callable command) and what a request and a reply carry.
//
// Resources are registered on the `ResourceRouter` and called on request threads, possibly many at once;
// a resource guards its own state. Resources raise notifications (created, updated, deleted, with a
// path) through their notification event; the router forwards them to its own event.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/Event.h"

namespace NyRest {

enum class EventType : int {
    Created = 1,
    Updated = 2,
    Deleted = 3,
};

// The word a client reads for an event type: "created", "updated", "deleted".
constexpr const char* EventTypeName(EventType type) {
    switch (type) {
        case EventType::Created:
            return "created";
        case EventType::Deleted:
            return "deleted";
        case EventType::Updated:
            break;
    }
    return "updated";
}

class IResource;
class IParentResource;
class IDocumentResource;
class ICallableResource;
class IStreamableResource;

using NotificationEventType = Ny::Event<IResource&, EventType, const std::string&>;

// The request as a resource sees it.
class RequestInfo {
  public:
    RequestInfo() = default;
    // `prefer`: the request's Prefer header values joined by ", " (empty without the header).
    RequestInfo(std::string methodIn, std::string pathIn, std::map<std::string, std::string> paramsIn,
                std::map<std::string, std::string> queryIn, std::string preferIn = {})
        : method(std::move(methodIn)),
          path(std::move(pathIn)),
          params(std::move(paramsIn)),
          query(std::move(queryIn)),
          prefer(std::move(preferIn)) {}

    // The value of the ":name" path segment, or null when the matched path has none.
    const std::string* Param(const std::string& name) const {
        const auto it = params.find(name);
        return it == params.end() ? nullptr : &it->second;
    }
    // The query parameter, or null.
    const std::string* Query(const std::string& name) const {
        const auto it = query.find(name);
        return it == query.end() ? nullptr : &it->second;
    }
    // The schema flag: the query parameter "schema=true".
    bool Schema() const {
        const std::string* flag = Query("schema");
        return flag != nullptr && *flag == "true";
    }
    const std::string& Method() const { return method; }
    const std::string& Path() const { return path; }
    const std::string& Prefer() const { return prefer; }

    // Whether the request's Prefer header holds the preference `token` ("respond-async",
    // "handling=strict"). Preferences are comma-separated `name[=value]`, each optionally followed by
    // parameters after ";" (ignored). Names and values compare case-insensitively; whitespace and
    // quotes around a value are ignored. A token without a value matches its name whatever the value.
    // When a name appears more than once, only its first occurrence counts (RFC 7240).
    bool Prefers(std::string_view token) const;

  private:
    std::string method;
    std::string path;
    std::map<std::string, std::string> params;
    std::map<std::string, std::string> query;
    std::string prefer;
};

// What a resource adds to its reply besides the document: embedded entries and headers.
class ResponseInfo {
  public:
    struct Embedded {
        std::string name;
        std::string path;
        bool link = true;
        nlohmann::json value;
    };

    // Adds an entry named `name` for the resource at `path`; with `link` the entry carries
    // "_links": {"self": {"href": path}}; a non-null object `value` gives the entry's other members.
    void Embed(const std::string& name, const std::string& path, bool link, const nlohmann::json& value) {
        embedded.push_back({name, path, link, value});
    }
    void AddHeader(const std::string& name, const std::string& value) { headers.emplace_back(name, value); }

    const std::vector<Embedded>& EmbeddedEntries() const { return embedded; }
    const std::vector<std::pair<std::string, std::string>>& Headers() const { return headers; }

  private:
    std::vector<Embedded> embedded;
    std::vector<std::pair<std::string, std::string>> headers;
};

struct CreateResult {
    std::string id;
    std::string path;
};

// A resource. No virtual destructor: resources are destroyed through their own type.
class IResource {
  public:
    virtual NotificationEventType& NotificationEvent() = 0;
    virtual IParentResource* ParentProvider() = 0;
    virtual IDocumentResource* DocumentProvider() = 0;
    virtual ICallableResource* CallableProvider() = 0;
    virtual IStreamableResource* StreamableProvider() = 0;

  protected:
    ~IResource() = default;
};

// GET reads it; PUT and PATCH update it.
class IDocumentResource {
  public:
    virtual nlohmann::json GetDocument(const RequestInfo& request, ResponseInfo& response) = 0;
    virtual void UpdateDocument(const RequestInfo& request, const nlohmann::json& body) = 0;

  protected:
    ~IDocumentResource() = default;
};

// POST creates a child; DELETE deletes.
class IParentResource {
  public:
    virtual CreateResult Create(const RequestInfo& request, const nlohmann::json& body) = 0;
    virtual void Delete(const RequestInfo& request) = 0;

  protected:
    ~IParentResource() = default;
};

// POST calls it.
class ICallableResource {
  public:
    virtual nlohmann::json Call(const RequestInfo& request, const nlohmann::json& arguments) = 0;

  protected:
    ~ICallableResource() = default;
};

// A resource that streams (no resource of this system streams; the host serves event streams itself).
class IStreamableResource {
  protected:
    ~IStreamableResource() = default;
};

}  // namespace NyRest
