// Typed property values: `Internal::ValueWrapper<T>` (a polymorphic holder of one T),
// `Value<T>` (a property node holding one T, with a notifying store and its JSON schema) and the
// schema leaf `Internal::NodeType` (the JSON schema type name).
//
// Storing a value equal to the current one does nothing. Storing a different one first calls the
// node's change handlers (which still see the old value), then stores it. Values take no locks; the
// owner of the tree serializes access (see Ny::Properties::Node).
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "NyApi/Exception.h"
#include "NyApi/Properties/Structure.h"
#include "NyApi/Properties/ValueBase.h"
#include "NyValues/Properties/SchemaKey.h"
#include "NyValues/Properties/ValueTraits.h"

namespace Ny::Properties {

namespace Internal {

template <typename T>
class ValueWrapper {
  public:
    ValueWrapper() : value() {}
    explicit ValueWrapper(const T& initial) : value(initial) {}
    ValueWrapper(const ValueWrapper&) = delete;

    virtual ValueWrapper& operator=(const T& incoming) {
        if (&incoming != &value) {
            value = incoming;
        }
        return *this;
    }
    virtual ValueWrapper& Set(const T& incoming) { return operator=(incoming); }
    // The effective value: the stored one here; parameter values may give another.
    virtual const T& Get() const { return value; }
    virtual const T& Stored() const { return value; }
    virtual T& Stored() { return value; }
    virtual operator const T&() const { return Get(); }
    virtual ~ValueWrapper() = default;
    virtual bool operator==(const ValueWrapper& other) const { return Get() == static_cast<const T&>(other); }
    virtual bool operator==(const T& other) const { return Get() == other; }

  protected:
    T value;
};

// A schema leaf: writes its type name; never read (status -996) and always write-only.
class NodeType : public ValueBase {
  public:
    explicit NodeType(const char* nameIn = "") : name(nameIn) { Node::SetWriteOnly(true); }
    explicit NodeType(const std::string& nameIn) : name(nameIn) { Node::SetWriteOnly(true); }
    ~NodeType() override = default;

    void CopyValues(const Node& other) override {
        const auto& source = dynamic_cast<const NodeType&>(other);
        if (&source != this) {
            name = source.name;
        }
        CopySchema(other);
    }
    // Accepts true silently; a schema leaf can never be made readable (status -982).
    void SetWriteOnly(bool writeOnlyIn) override {
        if (!writeOnlyIn) {
            throw Ny::Exception(__LINE__, __FILE__, Ny::Status::SchemaLeafNotWriteOnly,
                                "Ny::Properties::Internal::NodeType::SetWriteOnly");
        }
    }
    void Read(ValueReader&) override {
        throw Ny::Exception(__LINE__, __FILE__, Ny::Status::SchemaLeafRead,
                            "Ny::Properties::Internal::NodeType::Read");
    }
    void Write(ValueWriter& writer) const override { writer.WriteString(name.c_str()); }
    void Validate(ValueReader&) override {}

    std::string name;
};

}  // namespace Internal

template <typename T>
class Value : public Internal::ValueBase, public Internal::ValueWrapper<T> {
    using Traits = Internal::ValueTraits<T>;
    using Wrapper = Internal::ValueWrapper<T>;

  public:
    Value() : Value(T()) {}
    explicit Value(const T& initial) : Wrapper(initial), type(TypeName()) {
        RegisterSchema(Internal::Key<"type">(), type);
        if constexpr (Internal::IsArrayValue<T>::value) {
            itemSchema = std::make_unique<Structure>(false);
            RegisterSchema(Internal::Key<"items">(), *itemSchema);
            itemType = std::make_unique<Internal::NodeType>(Traits::ItemTypeName);
            static_cast<Structure&>(*itemSchema).Register(Internal::Key<"type">(), *itemType);
        }
    }
    // The item schema goes first: it refers to the item type.
    ~Value() override { itemSchema.reset(); }

    Value& operator=(const T& incoming) override {
        Store(incoming);
        return *this;
    }
    Value& Set(const T& incoming) override { return operator=(incoming); }
    using Wrapper::operator==;

    // Takes `other`'s effective value (other must be a Value<T>, else std::bad_cast) and its schema.
    void CopyValues(const Node& other) override {
        const auto& source = dynamic_cast<const Value<T>&>(other);
        Store(static_cast<const T&>(source));
        CopySchema(other);
    }

    // The notifying store of the array with `element` appended (an append always changes it), without
    // copying the array first. Array values only.
    template <typename Array = T>
    Value& Append(const typename Array::value_type& element) {
        NotifyChange();
        if (this->value.capacity() == this->value.size()) {
            // Options are added one by one while a node is built: grow in one step to a handful.
            this->value.reserve(std::max<size_t>(AppendCapacity, 2 * this->value.size()));
        }
        this->value.push_back(element);
        return *this;
    }

    void Read(ValueReader& reader) override { Store(Traits::Read(reader)); }
    void Write(ValueWriter& writer) const override { Traits::Write(writer, this->Stored()); }
    void Validate(ValueReader& reader) override {
        const T incoming = Traits::Read(reader);
        if (incoming == this->Stored()) {
            return;
        }
        CheckValidation(incoming);
    }

    // Refuses an incoming value by throwing; nothing to check for a plain value.
    virtual void CheckValidation(const T& incoming) { static_cast<void>(incoming); }

  protected:
    static constexpr size_t AppendCapacity = 8;

    // The notifying store: no-op for an equal value, else handlers first (they see the old value).
    void Store(const T& incoming) {
        if (incoming == this->Stored()) {
            return;
        }
        NotifyChange();
        if (&incoming != &this->value) {
            this->value = incoming;
        }
    }

  private:
    // The schema type name as a string made once per type, not once per value.
    static const std::string& TypeName() {
        static const std::string name(Traits::TypeName);
        return name;
    }

    std::unique_ptr<Node> itemSchema;  // array values only: {"type": <item type>}
    Internal::NodeType type;
    // Array values only: scalars never publish an item type, so they do not pay for the node.
    std::unique_ptr<Internal::NodeType> itemType;
};

}  // namespace Ny::Properties
