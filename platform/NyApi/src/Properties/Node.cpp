#include "NyApi/Properties/Node.h"

#include "NyApi/Exception.h"
#include "NyApi/Properties/ArrayBase.h"
#include "NyApi/Properties/Structure.h"
#include "NyApi/Properties/ValueBase.h"

namespace Ny::Properties {

Node::Node() = default;

Node::~Node() = default;

void Node::SetWriteOnly(bool writeOnlyIn) {
    writeOnly = writeOnlyIn;
}

void Node::AddChangeHandler(ChangeHandler handler) {
    handlers.push_back(std::move(handler));
}

Node& Node::RegisterSchema(const std::string& key, Node& child) {
    for (auto& entry : MutableSchemaEntries()) {
        if (entry.key == key) {
            entry.child = &child;
            schemaView.reset();
            return child;
        }
    }
    if (schemaCount == 0) {
        singleEntry = {key, &child};
    } else {
        if (schemaCount == 1) {
            schemaEntries.reserve(4);  // type, title, sortOrder and one more in one allocation
            schemaEntries.push_back(std::move(singleEntry));
        }
        schemaEntries.push_back({key, &child});
    }
    ++schemaCount;
    schemaView.reset();
    return child;
}

Node& Node::RegisterSchema(const std::string& key, Node& child, bool unique) {
    if (!unique) {
        for (const auto& entry : SchemaEntries()) {
            if (entry.key == key) {
                return *entry.child;
            }
        }
    }
    return RegisterSchema(key, child);
}

Structure* Node::Schema() const {
    if (!schemaView) {
        schemaView = std::make_unique<Structure>(false);
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

Structure::Structure(bool closedIn) : closed(closedIn) {}

Structure::~Structure() = default;

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
        if (existing.key == key) {
            existing.node = &child;
            return child;
        }
    }
    children.push_back({key, &child});
    return child;
}

Node* Structure::Find(const std::string& key) const {
    for (const auto& child : children) {
        if (child.key == key) {
            return child.node;
        }
    }
    return nullptr;
}

namespace Internal {

ValueBase::ValueBase() = default;

ValueBase::~ValueBase() = default;

void ValueBase::Accept(INodeVisitorConst& visitor) const {
    visitor.Visit(*this);
}

void ValueBase::Accept(INodeVisitor& visitor) {
    visitor.Visit(*this);
}

ArrayBase::ArrayBase() = default;

ArrayBase::~ArrayBase() = default;

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

ReferenceArray::ReferenceArray() = default;

ReferenceArray::~ReferenceArray() = default;

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
