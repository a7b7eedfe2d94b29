#include "NyApi/Properties/Node.h"

#include <algorithm>

#include "NyApi/Exception.h"
#include "NyApi/Properties/ArrayBase.h"
#include "NyApi/Properties/Structure.h"
#include "NyApi/Properties/ValueBase.h"

namespace Ny::Properties {

namespace {
// The schema entries of a parameter with everything a field commonly shows: type, title, sortOrder,
// readOnly, and minimum and maximum or enum and enumText, with room for one more. Taken in one
// allocation when a node has a second entry, so that no parameter reallocates while it is built.
constexpr size_t SpilledCapacity = 8;
// A structure's first allocation of children: an item schema's one "type" fits, and a parameter group
// of a dozen fields grows twice instead of five times when it does not reserve its size.
constexpr size_t FirstChildrenCapacity = 4;

// Schema keys are short and mostly differ in length or first letter: those are told apart without a
// call into the library's compare.
bool SameKey(const std::string& a, const std::string& b) {
    return a.size() == b.size() && (a.empty() || (a[0] == b[0] && a.compare(b) == 0));
}
}  // namespace

void Node::SchemaViewDeleter::operator()(Structure* view) const noexcept {
    delete view;
}

void Node::SetWriteOnly(bool writeOnlyIn) {
    writeOnly = writeOnlyIn;
}

void Node::AddChangeHandler(ChangeHandler handler) {
    handlers.push_back(std::move(handler));
}

Node& Node::RegisterSchema(const std::string& key, Node& child) {
    return EnterSchema(key, child, true);
}

Node& Node::RegisterSchema(const std::string& key, Node& child, bool unique) {
    return EnterSchema(key, child, unique);
}

Node& Node::EnterSchema(const std::string& key, Node& child, bool replace) {
    // One pass over the entries for both forms: every parameter enters several keys while it is built.
    for (auto& entry : MutableSchemaEntries()) {
        if (SameKey(entry.key, key)) {
            if (!replace) {
                return *entry.child;
            }
            entry.child = &child;
            schemaView.reset();
            return child;
        }
    }
    if (schemaCount == 0) {
        singleEntry.key = key;
        singleEntry.child = &child;
    } else {
        if (schemaCount == 1) {
            schemaEntries.reserve(SpilledCapacity);
            schemaEntries.push_back(std::move(singleEntry));
        }
        schemaEntries.push_back({key, &child});
    }
    ++schemaCount;
    schemaView.reset();
    return child;
}

Structure* Node::Schema() const {
    if (!schemaView) {
        schemaView.reset(new Structure(false));
        schemaView->Reserve(SchemaEntries().size());
        for (const auto& entry : SchemaEntries()) {
            schemaView->Register(entry.key, *entry.child);
        }
    }
    return schemaView.get();
}

void Node::CopySchema(const Node& other) {
    for (const auto& theirs : other.SchemaEntries()) {
        for (const auto& mine : SchemaEntries()) {
            if (mine.key == theirs.key && mine.child != theirs.child) {
                mine.child->CopyValues(*theirs.child);
            }
        }
    }
}

void Node::NotifyChange() {
    for (auto& handler : handlers) {
        handler(*this);
    }
}

void Structure::CopyValues(const Node& other) {
    const auto& source = dynamic_cast<const Structure&>(other);
    for (const auto& child : children) {
        if (Node* theirs = source.Find(child.key); theirs != nullptr && theirs != child.node) {
            child.node->CopyValues(*theirs);
        }
    }
    CopySchema(other);
}

void Structure::Accept(INodeVisitorConst& visitor) const {
    visitor.Visit(*this);
}

void Structure::Accept(INodeVisitor& visitor) {
    visitor.Visit(*this);
}

Node& Structure::Register(const std::string& key, Node& child) {
    for (auto& existing : children) {
        if (SameKey(existing.key, key)) {
            existing.node = &child;
            return child;
        }
    }
    if (children.size() == children.capacity()) {
        children.reserve(std::max(FirstChildrenCapacity, 2 * children.size()));
    }
    children.push_back({key, &child});
    return child;
}

Node* Structure::Find(const std::string& key) const {
    for (const auto& child : children) {
        if (SameKey(child.key, key)) {
            return child.node;
        }
    }
    return nullptr;
}

namespace Internal {

void ValueBase::Accept(INodeVisitorConst& visitor) const {
    visitor.Visit(*this);
}

void ValueBase::Accept(INodeVisitor& visitor) {
    visitor.Visit(*this);
}

void ArrayBase::Accept(INodeVisitorConst& visitor) const {
    visitor.Visit(*this);
}

void ArrayBase::Accept(INodeVisitor& visitor) {
    visitor.Visit(*this);
}

Structure& ArrayBase::ElementAt(size_t index) const {
    if (index >= elements.size()) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    return *elements[index];
}

}  // namespace Internal

void ReferenceArray::CopyValues(const Node& other) {
    items = dynamic_cast<const ReferenceArray&>(other).items;
    CopySchema(other);
}

void ReferenceArray::Accept(INodeVisitorConst& visitor) const {
    visitor.Visit(*this);
}

void ReferenceArray::Accept(INodeVisitor& visitor) {
    visitor.Visit(*this);
}

void ReferenceArray::Add(Structure* item) {
    items.push_back(item);
}

void ReferenceArray::Pop() {
    if (!items.empty()) {
        items.pop_back();
    }
}

void ReferenceArray::Clear() {
    items.clear();
}

void ReferenceArray::Remove(size_t index) {
    if (index >= items.size()) {
        throw NY_EXCEPTION(Ny::Status::NotFound);
    }
    items.erase(items.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace Ny::Properties
