// `Ny::Params::Value<T>`: a typed value with parameter metadata (title, read-only, used, sort order),
// optional limits ("minimum", "maximum", "exclusiveMinimum", "exclusiveMaximum") and an optional
// "actual" value, all published in its schema, and a check of every incoming value read from JSON.
//
// Assignments made by program code are not validated; values read by the serializer are. A refused
// value logs one line (context "Params validation") and throws Ny::Exception -997; a changed value for
// a read-only parameter is logged and silently not stored. Not thread-safe (see Ny::Properties::Node).
//
// Instantiated for unsigned int, int, bool, double, std::string and NyCommon::RoutineState.
#pragma once

#include <string>
#include <type_traits>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyValues/Params/ParamsBase.h"
#include "NyValues/Params/ScaleOption.h"
#include "NyValues/Properties/Value.h"

namespace Ny::Params {

namespace Internal {

// The type as it appears in the qualified names of refusals ("Ny::Params::Value<unsigned int>::...").
template <typename T>
struct ParamTypeName;
template <>
struct ParamTypeName<unsigned int> {
    static constexpr const char* Text = "unsigned int";
};
template <>
struct ParamTypeName<int> {
    static constexpr const char* Text = "int";
};
template <>
struct ParamTypeName<bool> {
    static constexpr const char* Text = "bool";
};
template <>
struct ParamTypeName<double> {
    static constexpr const char* Text = "double";
};
template <>
struct ParamTypeName<std::string> {
    static constexpr const char* Text = "std::string";
};
template <>
struct ParamTypeName<NyCommon::RoutineState> {
    static constexpr const char* Text = "NyCommon::RoutineState";
};

// Logs the "%1$s" form and throws the "%s" form of a validation message with the parameter's name.
[[noreturn]] inline void RefuseValue(const std::string& context, const std::string& name, const char* logged,
                                     const char* thrown) {
    Logging::Ny_Debug_Log(__LINE__, __FILE__, Logging::Level::Validation, "Params validation", logged,
                          name.c_str());
    throw Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue, context.c_str(), thrown, name.c_str());
}

}  // namespace Internal

template <typename T>
class Value : public Properties::Value<T>, public ParamsBase {
    using Base = Properties::Value<T>;

  public:
    Value() : Value(T()) {}
    explicit Value(const T& initial) : Base(initial) {
        this->RegisterSchema(Properties::Internal::Key<"title">(), title);
        this->RegisterSchema(Properties::Internal::Key<"sortOrder">(), sortOrder);
        if constexpr (std::is_same_v<T, unsigned int>) {
            Minimum(0);  // publishes the limit no unsigned value can break
        }
    }
    ~Value() override = default;

    Value& operator=(const T& incoming) override {
        this->Store(incoming);
        return *this;
    }
    Value& Set(const T& incoming) override { return operator=(incoming); }
    using Base::operator==;

    // The effective value: "actual" when it is turned on, else the stored value.
    const T& Get() const override { return hasActual ? actual.Get() : this->Stored(); }

    Value& Minimum(const T& limit) {
        return TurnOn(Properties::Internal::Key<"minimum">(), minimum, hasMinimum, limit);
    }
    Value& Maximum(const T& limit) {
        return TurnOn(Properties::Internal::Key<"maximum">(), maximum, hasMaximum, limit);
    }
    Value& ExclusiveMinimum(const T& limit) {
        return TurnOn(Properties::Internal::Key<"exclusiveMinimum">(), exclusiveMinimum, hasExclusiveMinimum,
                      limit);
    }
    Value& ExclusiveMaximum(const T& limit) {
        return TurnOn(Properties::Internal::Key<"exclusiveMaximum">(), exclusiveMaximum, hasExclusiveMaximum,
                      limit);
    }
    Value& Actual(const T& current) {
        return TurnOn(Properties::Internal::Key<"actual">(), actual, hasActual, current);
    }
    Value& ReadOnly(bool on = true) {
        this->RegisterSchema(Properties::Internal::Key<"readOnly">(), readOnly.Node(), false);
        readOnlyShown = true;
        readOnly = on;
        return *this;
    }
    Value& Used(bool on = true) {
        this->RegisterSchema(Properties::Internal::Key<"used">(), used.Node(), false);
        usedShown = true;
        used = on;
        return *this;
    }

    // The read-only check, then the limits in order: minimum, maximum, exclusive minimum, exclusive
    // maximum. The first broken limit logs and throws -997.
    void CheckValidation(const T& incoming) override {
        ParamsBase::CheckValidation(incoming);
        if (readOnlyRejected) {
            rejectedValue = incoming;
        }
        if (hasMinimum && incoming < minimum.Get()) {
            Refuse("%1$s was set to be less than its minimum.", "%s was set to be less than its minimum.");
        }
        if (hasMaximum && incoming > maximum.Get()) {
            Refuse("%1$s was set to be greater than its maximum.",
                   "%s was set to be greater than its maximum.");
        }
        if (hasExclusiveMinimum && incoming <= exclusiveMinimum.Get()) {
            Refuse("%1$s was set to be less than or equal to its exclusive minimum.",
                   "%s was set to be less than or equal to its exclusive minimum.");
        }
        if (hasExclusiveMaximum && incoming >= exclusiveMaximum.Get()) {
            Refuse("%1$s was set to be greater than or equal to its exclusive maximum.",
                   "%s was set to be greater than or equal to its exclusive maximum.");
        }
    }

    // After a read-only refusal of the same value the stored value is kept; otherwise the incoming
    // value is stored.
    void Read(Properties::ValueReader& reader) override {
        if (readOnlyRejected) {
            readOnlyRejected = false;
            const T incoming = Properties::Internal::ValueTraits<T>::Read(reader);
            if (incoming == rejectedValue) {
                return;
            }
            this->Store(incoming);
            return;
        }
        Base::Read(reader);
    }

    // `other` must be a Params::Value<T> (else std::bad_cast, after the plain value was copied).
    void CopyValues(const Properties::Node& other) override {
        Base::CopyValues(other);
        const auto& source = dynamic_cast<const Value<T>&>(other);
        CopyParamsBase(source);
        if (readOnlyShown) {
            this->RegisterSchema(Properties::Internal::Key<"readOnly">(), readOnly.Node(), false);
        }
        if (usedShown) {
            this->RegisterSchema(Properties::Internal::Key<"used">(), used.Node(), false);
        }
        note1 = source.note1.Get();
        note2 = source.note2.Get();
        actual = source.actual.Get();
        minimum = source.minimum.Get();
        maximum = source.maximum.Get();
        exclusiveMinimum = source.exclusiveMinimum.Get();
        exclusiveMaximum = source.exclusiveMaximum.Get();
        scale = source.scale.Get();
        note3 = source.note3.Get();
        CopyFlag(Properties::Internal::Key<"actual">(), actual, hasActual, source.hasActual);
        CopyFlag(Properties::Internal::Key<"minimum">(), minimum, hasMinimum, source.hasMinimum);
        CopyFlag(Properties::Internal::Key<"maximum">(), maximum, hasMaximum, source.hasMaximum);
        CopyFlag(Properties::Internal::Key<"exclusiveMinimum">(), exclusiveMinimum, hasExclusiveMinimum,
                 source.hasExclusiveMinimum);
        CopyFlag(Properties::Internal::Key<"exclusiveMaximum">(), exclusiveMaximum, hasExclusiveMaximum,
                 source.hasExclusiveMaximum);
    }

    // Most parameters set none of these: each is built when it is first set or entered in the schema
    // (see LazyValue), so a parameter costs little more than its value, title and sort order.
    Properties::LazyValue<std::string> note1;
    Properties::LazyValue<std::string> note2;
    Properties::LazyValue<T> actual;
    // Every unsigned parameter shows its minimum from construction: built in place for those.
    Properties::LazyValue<T, Properties::InitialValue<T>, std::is_same_v<T, unsigned int>> minimum;
    Properties::LazyValue<T> maximum;
    Properties::LazyValue<T> exclusiveMinimum;
    Properties::LazyValue<T> exclusiveMaximum;
    Properties::LazyValue<ScaleOption> scale;
    Properties::LazyValue<std::string> note3;
    T rejectedValue{};
    bool hasActual = false;
    bool hasMinimum = false;
    bool hasMaximum = false;
    bool hasExclusiveMinimum = false;
    bool hasExclusiveMaximum = false;

  protected:
    static std::string Context(const char* operation) {
        return std::string("Ny::Params::Value<") + Internal::ParamTypeName<T>::Text + ">::" + operation;
    }

  private:
    [[noreturn]] void Refuse(const char* logged, const char* thrown) const {
        Internal::RefuseValue(Context("CheckValidation"), Name(), logged, thrown);
    }

    template <typename Member>
    Value& TurnOn(const std::string& key, Member& member, bool& flag, const T& v) {
        this->RegisterSchema(key, member.Node(), false);
        flag = true;
        member = v;
        return *this;
    }

    template <typename Member>
    void CopyFlag(const std::string& key, Member& member, bool& flag, bool theirs) {
        flag = theirs;
        if (flag) {
            this->RegisterSchema(key, member.Node(), false);
        }
    }
};

}  // namespace Ny::Params
