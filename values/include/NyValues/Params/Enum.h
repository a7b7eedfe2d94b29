// `Ny::Params::Enum<T>`: a parameter value restricted to a list of options, each with a display text,
// published as "enum" and "enumText". Incoming values pass the read-only check and the limits first,
// then must be one of the options (-997 otherwise). Instantiated for NyCommon::RoutineState and
// unsigned int. Not thread-safe (see Ny::Properties::Node).
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "NyValues/Params/Value.h"

namespace Ny::Params {

template <typename T>
class Enum : public Value<T> {
  public:
    Enum() {
        this->RegisterSchema(Properties::Internal::Key<"enum">(), options);
        this->RegisterSchema(Properties::Internal::Key<"enumText">(), optionTexts);
    }
    ~Enum() override = default;

    Enum& operator=(const T& incoming) override {
        Value<T>::operator=(incoming);
        return *this;
    }
    Enum& Set(const T& incoming) override { return operator=(incoming); }
    using Value<T>::operator==;

    // Appends one option and its text (no test for duplicates).
    Enum& AddOption(const T& value, const std::string& text) {
        options.Append(value);
        optionTexts.Append(text);
        return *this;
    }

    void CheckValidation(const T& incoming) override {
        Value<T>::CheckValidation(incoming);
        const auto& allowed = options.Get();
        if (std::find(allowed.begin(), allowed.end(), incoming) != allowed.end()) {
            return;
        }
        Internal::RefuseValue(
            std::string("Ny::Params::Enum<") + Internal::ParamTypeName<T>::Text + ">::CheckValidation",
            this->Name(), "%1$s was set to a value outside of the enum.",
            "%s was set to a value outside of the enum.");
    }

    // `other` must be an Enum<T> (else std::bad_cast).
    void CopyValues(const Properties::Node& other) override {
        Value<T>::CopyValues(other);
        const auto& source = dynamic_cast<const Enum<T>&>(other);
        options = source.options.Get();
        optionTexts = source.optionTexts.Get();
    }

    Properties::Value<std::vector<T>> options;
    Properties::Value<std::vector<std::string>> optionTexts;
};

}  // namespace Ny::Params
