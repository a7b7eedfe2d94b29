// `Ny::Properties::Structure`: a node with named children, kept in registration order.
//
// Children are not owned: they are usually members of the class deriving from Structure. Serialized as
// a JSON object with one member per child; its schema is {"type": "object", "properties": {...}} plus
// its own schema children. Not thread-safe (see Node).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "NyApi/Properties/Node.h"

namespace Ny::Properties {

class Structure : public Node {
  public:
    struct Child {
        std::string key;
        Node* node;
    };

    // `closed`: true for structures that are documents of their own (parameter groups, documents);
    // false for helper structures such as an array value's item schema. Serialization is the same.
    explicit Structure(bool closedIn = true) : closed(closedIn) {}
    ~Structure() override = default;

    // Copies each child's values from the child of the same key in `other` (a Structure; else
    // std::bad_cast). Children missing on either side are left alone.
    void CopyValues(const Node& other) override;
    void Accept(INodeVisitorConst& visitor) const override;
    void Accept(INodeVisitor& visitor) override;

    // Adds `child` under `key` after the existing children. A key registered before is replaced in place.
    Node& Register(const std::string& key, Node& child);
    // Makes room for `count` children in all, so that a structure that knows its size registers them
    // without reallocating. Changes nothing else.
    void Reserve(size_t count) { children.reserve(count); }
    Node* Find(const std::string& key) const;
    const std::vector<Child>& Children() const { return children; }
    bool Closed() const { return closed; }

  private:
    std::vector<Child> children;
    bool closed;
};

}  // namespace Ny::Properties
