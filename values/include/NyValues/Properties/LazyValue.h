// `Ny::Properties::LazyValue<T>`: a member value node that exists only once it is needed.
//
// A parameter carries many members that most parameters never set (limits, notes, the "actual" value,
// "used"). Each would be a whole node with its own schema; built and torn down for every document
// read, they cost more than the document itself. A LazyValue holds nothing but a null pointer until the
// member is written a different value or its node is asked for (to enter it in a schema, or to add a
// handler); from then on it is exactly the `Value<T>` it stands for.
//
// Reads (`Get`, comparisons) never create the node, so a tree that is only read stays untouched and
// may be read from several threads at once, as before. Writing an equal value changes nothing, as the
// notifying store of a value does, so it creates nothing either. Creating is a write: like every
// write to a tree it needs the tree's owner to serialize access (see Ny::Properties::Node).
#pragma once

#include <memory>
#include <optional>
#include <type_traits>

#include "NyValues/Properties/Value.h"

namespace Ny::Properties {

// The value a member has before it is built: its type's initial value (kept with the member's type, not
// in each member, so that a member that is never set costs one pointer).
template <typename T>
struct InitialValue {
    static const T& Get() {
        static const T initial{};
        return initial;
    }
};
// For members that start true ("used").
struct InitiallyTrue {
    static const bool& Get() {
        static const bool initial = true;
        return initial;
    }
};

// `InPlace`: the node is built inside the member rather than on the heap, for members that most
// parameters of some kinds set (a document's fields are all read-only): no allocation when built, at
// the price of the node's size in every parameter.
template <typename T, typename Initial = InitialValue<T>, bool InPlace = false>
class LazyValue {
  public:
    LazyValue() = default;
    LazyValue(const LazyValue&) = delete;
    LazyValue& operator=(const LazyValue&) = delete;

    // The effective value of the node, or the initial value while there is none. Never creates.
    const T& Get() const { return node ? node->Get() : Initial::Get(); }
    operator const T&() const { return Get(); }
    bool operator==(const T& other) const { return Get() == other; }

    // The notifying store of the node; a value equal to the current one changes (and creates) nothing.
    LazyValue& operator=(const T& incoming) {
        if (!node && incoming == Initial::Get()) {
            return *this;
        }
        Node() = incoming;
        return *this;
    }
    LazyValue& Set(const T& incoming) { return operator=(incoming); }

    // The node, created (holding the initial value) on first use.
    Value<T>& Node() {
        if (!node) {
            if constexpr (InPlace) {
                node.emplace(Initial::Get());
            } else {
                node = std::make_unique<Value<T>>(Initial::Get());
            }
        }
        return *node;
    }
    // The node if it exists. Never creates.
    const Value<T>* Existing() const { return node ? &*node : nullptr; }

  private:
    std::conditional_t<InPlace, std::optional<Value<T>>, std::unique_ptr<Value<T>>> node;
};

}  // namespace Ny::Properties
