// `Ny::Params::ParamsBase`: the metadata every parameter node carries: title, read-only, used and sort
// order, and the read-only check applied to incoming values. Not a node: the owning node enters these
// fields in its own schema ("title" and "sortOrder" always, "readOnly" and "used" once turned on).
#pragma once

#include <string>

#include "NyApi/Logging.h"
#include "NyValues/Properties/LazyValue.h"
#include "NyValues/Properties/Value.h"

namespace Ny::Params {

class ParamsBase {
  public:
    ParamsBase() = default;
    ParamsBase(const ParamsBase&) = delete;
    ParamsBase& operator=(const ParamsBase&) = delete;

    // The parameter's name in messages: its title, or "<unnamed>".
    std::string Name() const { return title == std::string() ? std::string("<unnamed>") : title.Get(); }

    // The read-only check: with "readOnly" shown and true the incoming value is refused (logged, not
    // thrown) and the following Read keeps the stored value. The incoming value is not examined.
    template <typename T>
    void CheckValidation(const T& incoming) {
        static_cast<void>(incoming);
        CheckReadOnly();
    }

    Properties::Value<std::string> title;
    // Entered in the schema only once turned on: until then they are not built. Many nodes show
    // "readOnly" (every field of the documents does), so it is built in place.
    Properties::LazyValue<bool, Properties::InitialValue<bool>, true> readOnly;
    Properties::LazyValue<bool, Properties::InitiallyTrue> used;
    Properties::Value<unsigned int> sortOrder;
    bool readOnlyRejected = false;
    bool readOnlyShown = false;
    bool usedShown = false;

  protected:
    void CheckReadOnly() {
        if (readOnlyShown && readOnly.Get()) {
            readOnlyRejected = true;
            Logging::Ny_Debug_Log(__LINE__, __FILE__, Logging::Level::Notice,
                                  "Ny::Params::ParamsBase::CheckValidation", "%s is read-only.",
                                  Name().c_str());
            return;
        }
        readOnlyRejected = false;
    }

    // Copies title, sortOrder, readOnly and used with the notifying store, then the shown flags; the
    // owner enters "readOnly" and "used" in its schema afterwards.
    void CopyParamsBase(const ParamsBase& other) {
        title = other.title.Get();
        sortOrder = other.sortOrder.Get();
        readOnly = other.readOnly.Get();
        used = other.used.Get();
        readOnlyShown = other.readOnlyShown;
        usedShown = other.usedShown;
    }
};

}  // namespace Ny::Params
