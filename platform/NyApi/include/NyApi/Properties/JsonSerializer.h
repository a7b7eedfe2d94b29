// `Ny::Properties::JsonSerializer`: turns property trees into JSON documents and JSON schemas, and
// reads JSON into them.
//
// Layout:
// - Serialize: a structure gives an object with one member per child (registration order); a value
//   gives what its Write writes; an array gives a JSON array of its elements.
// - SerializeSchema: an object of the node's schema children (each serialized as a value). A structure
//   adds "type": "object" and "properties" with one schema per child under the child's key; an array of
//   structures adds "type": "array" and "items" with one schema per element. The result is a valid
//   JSON Schema document; keywords such as "sortOrder" and "enumText" are annotations.
// - Deserialize: walks the JSON by key (unknown members are ignored; write-only nodes are never read).
//   The update is all-or-nothing: a first pass validates every value that has an incoming member, a
//   second pass reads them. The first pass notes every refusal (wrong JSON kind: -997 naming the member
//   and the kind; limits and enumerations: the value's own refusal) and goes on; if there was any, it
//   throws the first one, carrying one field refusal per refused member (Ny::Exception::Fields, paths
//   such as "outer.list.2.name"), before anything is stored.
// - UnknownMembers: the paths of the incoming members, at every depth, that name no node.
// Stateless; thread-safe for distinct trees.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/Properties/Node.h"

namespace Ny::Properties {

class JsonSerializer {
  public:
    static nlohmann::json Serialize(const Node& node);
    static nlohmann::json SerializeSchema(const Node& node);
    // Throws the first refusal (see above), or -997 when `json` is not an object for a structure.
    static void Deserialize(Node& node, const nlohmann::json& json);
    // Paths joined with "." (array elements by index); an element beyond the array's current ones is
    // checked against a new element. Members under a node of another kind are not looked into.
    static std::vector<std::string> UnknownMembers(const Node& node, const nlohmann::json& json);
};

}  // namespace Ny::Properties
