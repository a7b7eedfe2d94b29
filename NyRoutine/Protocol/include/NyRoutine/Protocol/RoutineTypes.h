// The routine types resource at "/routineTypes": the registered routine types, read-only, built afresh
// from the registry on every read (a type registered by a plug-in loaded later shows from the next read).
//
// `RoutineTypes` owns the resource and registers it for its own lifetime; the module builds it after
// the routines front and destroys it before. Reads run on request threads and take no lock of their own
// (the registry has its own); the records listed are kept alive while the document is built.
#pragma once

#include <memory>

#include <nlohmann/json.hpp>

#include "NyRest/DocumentResourceBase.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineRegistry.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"
#include "NyValues/Properties/Array.h"

namespace NyRoutine::Internal {

// One entry of the list: five read-only text fields.
struct RoutineTypeProperties : Ny::Params::Group {
    RoutineTypeProperties();
    ~RoutineTypeProperties() override;

    Ny::Params::Value<std::string> type;
    Ny::Params::Value<std::string> displayName;
    Ny::Params::Value<std::string> description;
    Ny::Params::Value<std::string> helpHtml;
    Ny::Params::Value<std::string> helpUrl;
};

// The document: {"routineTypes": [...]}.
struct RoutineTypeArray : Ny::Properties::Structure {
    RoutineTypeArray();
    ~RoutineTypeArray() override;

    Ny::Properties::Array<RoutineTypeProperties> routineTypes;
};

class RoutineTypesResource final : public NyRest::DocumentResourceBase {
  public:
    explicit RoutineTypesResource(RoutineRegistry& registry);

    // {"routineTypes": [one entry per type, in type-name order]}, with "_schema" when asked; the schema's
    // "items" always describes one routine type. Throws nothing of its own.
    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;

  private:
    RoutineRegistry& registry;
};

class RoutineTypes {
  public:
    RoutineTypes(NyRest::ResourceRouter& router, RoutineRegistry& registry);
    ~RoutineTypes();
    RoutineTypes(const RoutineTypes&) = delete;
    RoutineTypes& operator=(const RoutineTypes&) = delete;

  private:
    NyRest::ResourceRouter& router;
    std::unique_ptr<RoutineTypesResource> resource;
};

}  // namespace NyRoutine::Internal
