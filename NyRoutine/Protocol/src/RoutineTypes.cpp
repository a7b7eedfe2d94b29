#include "NyRoutine/Protocol/RoutineTypes.h"

#include "NyApi/Properties/JsonSerializer.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyValues/Properties/SchemaKey.h"

namespace NyRoutine::Internal {

namespace {

using Ny::Properties::Internal::Key;

// Fields are titled by their keys (an empty title). Keys and title are strings made once, not per read.
const std::string& NoTitle() {
    static const std::string none;
    return none;
}

}  // namespace

RoutineTypeProperties::RoutineTypeProperties() {
    AddParameter(Key<"type">(), type, NoTitle());
    AddParameter(Key<"displayName">(), displayName, NoTitle());
    AddParameter(Key<"description">(), description, NoTitle());
    AddParameter(Key<"helpHtml">(), helpHtml, NoTitle());
    AddParameter(Key<"helpUrl">(), helpUrl, NoTitle());
    type.ReadOnly(true);
    displayName.ReadOnly(true);
    description.ReadOnly(true);
    helpHtml.ReadOnly(true);
    helpUrl.ReadOnly(true);
}

RoutineTypeProperties::~RoutineTypeProperties() = default;

RoutineTypeArray::RoutineTypeArray() : Ny::Properties::Structure(true) {
    Register("routineTypes", routineTypes);
}

RoutineTypeArray::~RoutineTypeArray() = default;

RoutineTypesResource::RoutineTypesResource(RoutineRegistry& registryIn) : registry(registryIn) {}

nlohmann::json RoutineTypesResource::GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo&) {
    RoutineTypeArray list;
    nlohmann::json schema;
    if (request.Schema()) {
        schema = Ny::Properties::JsonSerializer::SerializeSchema(list);
    }
    // Shared references keep each record alive even if its plug-in is unloaded meanwhile.
    for (const auto& info : registry.ListShared()) {
        auto entry = std::make_unique<RoutineTypeProperties>();
        entry->type = std::string(info->TypeName());
        entry->displayName = std::string(info->DisplayName());
        entry->description = std::string(info->Description());
        list.routineTypes.Add(std::move(entry));
    }
    nlohmann::json result = Ny::Properties::JsonSerializer::Serialize(list);
    if (request.Schema()) {
        const RoutineTypeProperties one;
        schema["properties"]["routineTypes"]["items"] = Ny::Properties::JsonSerializer::SerializeSchema(one);
        result["_schema"] = std::move(schema);
    }
    return result;
}

RoutineTypes::RoutineTypes(NyRest::ResourceRouter& routerIn, RoutineRegistry& registry)
    : router(routerIn), resource(std::make_unique<RoutineTypesResource>(registry)) {
    router.Register("/routineTypes", *resource);
}

RoutineTypes::~RoutineTypes() {
    router.Deregister("/routineTypes", true);
}

}  // namespace NyRoutine::Internal
