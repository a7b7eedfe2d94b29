// `Ny::Properties::Array<T>`: an array node that owns structures of type T (a Structure or a parameter
// group), lists each element's schema under "items", and tells its change handlers about every change.
// Not thread-safe (see Ny::Properties::Node).
#pragma once

#include <functional>
#include <memory>

#include "NyApi/Exception.h"
#include "NyApi/Properties/ArrayBase.h"
#include "NyValues/Properties/SchemaKey.h"

namespace Ny::Properties {

template <typename T>
class Array : public Internal::ArrayBase {
  public:
    Array() : factory([] { return std::make_unique<T>(); }) {
        RegisterSchema(Internal::Key<"items">(), itemSchemas);
    }
    ~Array() override = default;

    // Resizing to the current count does nothing; growing tells the handlers once and then once per
    // element added; shrinking tells them once.
    void Resize(size_t count) override {
        const size_t current = Count();
        if (count == current) {
            return;
        }
        NotifyChange();
        if (count > current) {
            while (Count() < count) {
                Add(std::make_unique<T>());
            }
            return;
        }
        elements.erase(elements.begin() + static_cast<std::ptrdiff_t>(count), elements.end());
        while (itemSchemas.Count() > count) {
            itemSchemas.Pop();
        }
    }

    std::unique_ptr<Structure> MakeElement() const override { return std::make_unique<T>(); }

    // Throws -999 at or past Count() before anything changes.
    void Remove(size_t index) override {
        if (index >= Count()) {
            throw Ny::Exception(__LINE__, __FILE__, Ny::Status::NotFound, "Ny::Properties::Array<T>::Remove");
        }
        NotifyChange();
        elements.erase(elements.begin() + static_cast<std::ptrdiff_t>(index));
        itemSchemas.Remove(index);
    }

    void Clear() override {
        NotifyChange();
        elements.clear();
        itemSchemas.Clear();
    }

    // Appends `element` (the array owns it from now on) and tells the handlers once, afterwards.
    T& Add(std::unique_ptr<T> element) {
        itemSchemas.Add(element->Schema());
        T& added = *element;
        elements.push_back(std::move(element));
        NotifyChange();
        return added;
    }

    // `other` must be an Array<T> (else std::bad_cast).
    void CopyValues(const Node& other) override {
        const auto& source = dynamic_cast<const Array<T>&>(other);
        Resize(source.Count());
        for (size_t i = 0; i < Count(); ++i) {
            At(i).CopyValues(source.At(i));
        }
        CopySchema(other);
    }

    // Throws -999 at or past Count().
    T& At(size_t index) const { return static_cast<T&>(ElementAt(index)); }
    T& operator[](size_t index) const { return At(index); }

    ReferenceArray itemSchemas;
    std::function<std::unique_ptr<T>()> factory;
};

}  // namespace Ny::Properties
