// Parameter structures: `Ny::Params::StructBase` (a structure with parameter metadata, an optional
// "extendedType" and a running sort order for the parameters added to it) and `Ny::Params::Group`
// (a StructBase without extended type: creation parameters, routine documents, routine-type entries,
// and the parameter and result structures of plug-in routines).
//
// Parameters are members of the deriving class, added with AddParameter in the order they should be
// shown; they get the sort orders 0, 100, 200, ... Not thread-safe (see Ny::Properties::Node).
#pragma once

#include <cstdint>
#include <string>

#include "NyApi/Properties/Structure.h"
#include "NyValues/Params/ParamsBase.h"

namespace Ny::Params {

class StructBase : public Properties::Structure, public ParamsBase {
  public:
    explicit StructBase(const std::string& name) : Properties::Structure(true) {
        if (!name.empty()) {
            RegisterSchema(Properties::Internal::Key<"extendedType">(), extendedType.Node());
            extendedType = name;
        }
        RegisterSchema(Properties::Internal::Key<"title">(), title);
        RegisterSchema(Properties::Internal::Key<"sortOrder">(), sortOrder);
    }
    ~StructBase() override = default;

    // Registers `param` under `key` with `title` (the key when empty) and the next sort order.
    template <typename P>
    P& AddParameter(const std::string& key, P& param, const std::string& titleText) {
        Register(key, param);
        param.title = titleText.empty() ? key : titleText;
        param.sortOrder = nextSortOrder;
        nextSortOrder += 100;
        return param;
    }

    StructBase& ReadOnly(bool on = true) {
        RegisterSchema(Properties::Internal::Key<"readOnly">(), readOnly.Node(), false);
        readOnlyShown = true;
        readOnly = on;
        return *this;
    }

    // Copies the children, the metadata, the extended type's value and the sort counter (`other` must
    // be a StructBase, else std::bad_cast). "extendedType" is not entered by a copy.
    void CopyValues(const Properties::Node& other) override {
        Properties::Structure::CopyValues(other);
        const auto& source = dynamic_cast<const StructBase&>(other);
        CopyParamsBase(source);
        if (readOnlyShown) {
            RegisterSchema(Properties::Internal::Key<"readOnly">(), readOnly.Node(), false);
        }
        if (usedShown) {
            RegisterSchema(Properties::Internal::Key<"used">(), used.Node(), false);
        }
        extendedType = source.extendedType.Get();
        nextSortOrder = source.nextSortOrder;
    }

    Properties::LazyValue<std::string> extendedType;  // built only for a named structure
    std::uint32_t nextSortOrder = 0;
};

class Group : public StructBase {
  public:
    Group() : StructBase(std::string()) {}
    ~Group() override = default;
    void CopyValues(const Properties::Node& other) override { StructBase::CopyValues(other); }
};

}  // namespace Ny::Params
