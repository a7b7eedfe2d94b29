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
//   second pass reads them. A refused value (wrong JSON kind: -997 naming the member and the kind;
//   limits and enumerations: the value's own refusal) throws from the first pass, before anything is
//   stored.
// Stateless; thread-safe for distinct trees.
#pragma once

#include <nlohmann/json.hpp>

#include "NyApi/Properties/Node.h"

namespace Ny::Properties {

class JsonSerializer {
  public:
    static nlohmann::json Serialize(const Node& node);
    static nlohmann::json SerializeSchema(const Node& node);
    static void Deserialize(Node& node, const nlohmann::json& json);
};

}  // namespace Ny::Properties
