// `Ny::Properties::Node`: the base of every property node (structures, values, arrays).
//
// A node has an ordered list of change handlers (called by typed values and arrays before they
// change), a write-only flag (the serializer writes a write-only node but never reads into it) and a
// schema: named schema children (such as "type", "title", "minimum") that describe the node in its
// JSON schema. Schema children are not owned by the node's schema; they are members of the node.
//
// Nodes are not thread-safe: the owner of a tree serializes access to it (a routine's parameters are
// guarded by the routine's lock). Nodes are neither copyable nor movable (schemas hold addresses).
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Ny::Properties {

class Node;
class Structure;
namespace Internal {
class ValueBase;
class ArrayBase;
}  // namespace Internal
class ReferenceArray;

class INodeVisitor {
  public:
    virtual ~INodeVisitor() = default;
    virtual void Visit(Structure& node) = 0;
    virtual void Visit(Internal::ValueBase& node) = 0;
    virtual void Visit(Internal::ArrayBase& node) = 0;
    virtual void Visit(ReferenceArray& node) = 0;
};

class INodeVisitorConst {
  public:
    virtual ~INodeVisitorConst() = default;
    virtual void Visit(const Structure& node) = 0;
    virtual void Visit(const Internal::ValueBase& node) = 0;
    virtual void Visit(const Internal::ArrayBase& node) = 0;
    virtual void Visit(const ReferenceArray& node) = 0;
};

class Node {
  public:
    using ChangeHandler = std::function<void(Node&)>;

    struct SchemaEntry {
        std::string key;
        Node* child;
    };

    // Inline: a document builds and drops hundreds of nodes per read, and most have nothing to free
    // but their entries.
    Node() = default;
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    virtual ~Node() = default;
    // Copies the values of `other` (a node of the same kind) into this node. Throws std::bad_cast for a
    // node of another kind.
    virtual void CopyValues(const Node& other) = 0;
    virtual void SetWriteOnly(bool writeOnly);
    virtual void Accept(INodeVisitorConst& visitor) const = 0;
    virtual void Accept(INodeVisitor& visitor) = 0;

    // Appends a handler; handlers run in the order added, before the node's value changes.
    void AddChangeHandler(ChangeHandler handler);
    bool WriteOnly() const { return writeOnly; }

    // Enters `child` under `key` in this node's schema. A key entered before is replaced.
    Node& RegisterSchema(const std::string& key, Node& child);
    // The same for entries turned on after construction (minimum, readOnly, ...): with `unique` false
    // a key that is already entered is kept as it is, so turning an entry on twice is harmless.
    Node& RegisterSchema(const std::string& key, Node& child, bool unique);

    // The schema children as a structure (built on first use). Never null.
    Structure* Schema() const;
    std::span<const SchemaEntry> SchemaEntries() const {
        return schemaCount == 1 ? std::span<const SchemaEntry>(&singleEntry, 1)
                                : std::span<const SchemaEntry>(schemaEntries);
    }

  protected:
    // Takes over the schema entries of `other` whose keys this node has too: their values are copied.
    void CopySchema(const Node& other);
    // Calls every change handler in order with this node. An empty handler throws std::bad_function_call.
    void NotifyChange();

  private:
    // RegisterSchema's two forms: `replace` false keeps an entry already under `key`.
    Node& EnterSchema(const std::string& key, Node& child, bool replace);

    // Frees a schema view out of line, where Structure is complete, so that the destructor above can
    // stay inline and only pays a null check for the nodes whose view was never asked for.
    struct SchemaViewDeleter {
        void operator()(Structure* view) const noexcept;
    };

    std::vector<ChangeHandler> handlers;
    std::span<SchemaEntry> MutableSchemaEntries() {
        return schemaCount == 1 ? std::span<SchemaEntry>(&singleEntry, 1)
                                : std::span<SchemaEntry>(schemaEntries);
    }

    // Most nodes have one schema entry (a value's "type"): it is kept in place, so that building a
    // document of hundreds of nodes does not allocate per node. From the second entry on, all entries
    // are in the vector, which takes room for SpilledCapacity at once.
    SchemaEntry singleEntry{{}, nullptr};
    std::vector<SchemaEntry> schemaEntries;
    size_t schemaCount = 0;
    mutable std::unique_ptr<Structure, SchemaViewDeleter> schemaView;  // mirror of the entries for Schema()
    bool writeOnly = false;
};

}  // namespace Ny::Properties
