// Arrays of structures: `Internal::ArrayBase` owns its elements in order; `ReferenceArray` lists
// structures it does not own (an array's item schemas). Not thread-safe (see Node).
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "NyApi/Properties/Node.h"
#include "NyApi/Properties/Structure.h"

namespace Ny::Properties {

namespace Internal {

class ArrayBase : public Node {
  public:
    ArrayBase() = default;
    ~ArrayBase() override = default;
    void Accept(INodeVisitorConst& visitor) const override;
    void Accept(INodeVisitor& visitor) override;

    // Element count changes, implemented by the typed array (the serializer resizes through them).
    virtual void Resize(size_t count) = 0;
    virtual void Remove(size_t index) = 0;
    virtual void Clear() = 0;
    // A new element as Resize would add it, not part of the array (the serializer checks incoming
    // elements beyond the current ones against it before anything is stored).
    virtual std::unique_ptr<Structure> MakeElement() const = 0;

    size_t Count() const { return elements.size(); }
    // The element at `index`; throws Ny::Exception -999 at or past Count().
    Structure& ElementAt(size_t index) const;

  protected:
    std::vector<std::unique_ptr<Structure>> elements;
};

}  // namespace Internal

class ReferenceArray : public Node {
  public:
    ReferenceArray() = default;
    ~ReferenceArray() override = default;
    void CopyValues(const Node& other) override;
    void Accept(INodeVisitorConst& visitor) const override;
    void Accept(INodeVisitor& visitor) override;

    void Add(Structure* item);
    void Pop();
    void Clear();
    // Throws Ny::Exception -999 at or past Count().
    void Remove(size_t index);
    size_t Count() const { return items.size(); }
    Structure* At(size_t index) const { return items.at(index); }

  private:
    std::vector<Structure*> items;
};

}  // namespace Ny::Properties
