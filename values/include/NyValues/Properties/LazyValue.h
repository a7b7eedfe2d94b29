// `Ny::Properties::LazyValue<T>`: a member value node that exists only once it is needed.
//
// A parameter carries many members that most parameters never set (limits, notes, the "actual" value,
// "used"). Each would be a whole node with its own schema; built and torn down for every document
// read, they cost more than the document itself. A LazyValue holds only the initial value until the
// member is written a different value or its node is asked for (to enter it in a schema, or to add a
// handler); from then on it is exactly the `Value<T>` it stands for.
//
// Reads (`Get`, comparisons) never create the node, so a tree that is only read stays untouched and
// may be read from several threads at once, as before. Writing an equal value changes nothing, as the
// notifying store of a value does, so it creates nothing either. Creating is a write: like every
// write to a tree it needs the tree's owner to serialize access (see Ny::Properties::Node).
#pragma once

#include <memory>

#include "NyValues/Properties/Value.h"

namespace Ny::Properties {

template <typename T>
class LazyValue {
  public:
    LazyValue() : initial() {}
    explicit LazyValue(const T& initialIn) : initial(initialIn) {}
    LazyValue(const LazyValue&) = delete;
    LazyValue& operator=(const LazyValue&) = delete;

    // The effective value of the node, or the initial value while there is none. Never creates.
    const T& Get() const { return node ? node->Get() : initial; }
    operator const T&() const { return Get(); }
    bool operator==(const T& other) const { return Get() == other; }

    // The notifying store of the node; a value equal to the current one changes (and creates) nothing.
    LazyValue& operator=(const T& incoming) {
        if (!node && incoming == initial) {
            return *this;
        }
        Node() = incoming;
        return *this;
    }
    LazyValue& Set(const T& incoming) { return operator=(incoming); }

    // The node, created (holding the current value) on first use.
    Value<T>& Node() {
        if (!node) {
            node = std::make_unique<Value<T>>(initial);
        }
        return *node;
    }
    // The node if it exists. Never creates.
    const Value<T>* Existing() const { return node.get(); }

  private:
    T initial;
    std::unique_ptr<Value<T>> node;
};

}  // namespace Ny::Properties
