// How each value type travels through the serializer: its JSON schema type name and the reader and
// writer operations that carry it. Enumerations travel as plain numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "NyApi/Properties/ValueBase.h"
#include "NyCommon/RoutineState.h"
#include "NyValues/Params/ScaleOption.h"

namespace Ny::Properties::Internal {

template <typename T>
struct ValueTraits;

template <>
struct ValueTraits<unsigned int> {
    static constexpr const char* TypeName = "integer";
    static unsigned int Read(ValueReader& reader) { return reader.ReadU32(); }
    static void Write(ValueWriter& writer, unsigned int value) { writer.WriteU32(value); }
};

template <>
struct ValueTraits<int> {
    static constexpr const char* TypeName = "integer";
    static int Read(ValueReader& reader) { return reader.ReadI32(); }
    static void Write(ValueWriter& writer, int value) { writer.WriteI32(value); }
};

template <>
struct ValueTraits<bool> {
    static constexpr const char* TypeName = "boolean";
    static bool Read(ValueReader& reader) { return reader.ReadBool(); }
    static void Write(ValueWriter& writer, bool value) { writer.WriteBool(value); }
};

template <>
struct ValueTraits<double> {
    static constexpr const char* TypeName = "number";
    static double Read(ValueReader& reader) { return reader.ReadDouble(); }
    static void Write(ValueWriter& writer, double value) { writer.WriteDouble(value); }
};

template <>
struct ValueTraits<std::string> {
    static constexpr const char* TypeName = "string";
    static std::string Read(ValueReader& reader) { return reader.ReadString(); }
    static void Write(ValueWriter& writer, const std::string& value) { writer.WriteString(value.c_str()); }
};

template <>
struct ValueTraits<NyCommon::RoutineState> {
    static constexpr const char* TypeName = "integer";
    static NyCommon::RoutineState Read(ValueReader& reader) {
        return static_cast<NyCommon::RoutineState>(reader.ReadI32());
    }
    static void Write(ValueWriter& writer, NyCommon::RoutineState value) {
        writer.WriteI32(static_cast<std::int32_t>(value));
    }
};

template <>
struct ValueTraits<Ny::Params::ScaleOption> {
    static constexpr const char* TypeName = "integer";
    static Ny::Params::ScaleOption Read(ValueReader& reader) {
        return static_cast<Ny::Params::ScaleOption>(reader.ReadU32());
    }
    static void Write(ValueWriter& writer, Ny::Params::ScaleOption value) {
        writer.WriteU32(static_cast<std::uint32_t>(value));
    }
};

// Arrays of scalars: "type": "array" with "items": {"type": <element type>}.
template <typename E>
struct ValueTraits<std::vector<E>> {
    static constexpr const char* TypeName = "array";
    static constexpr const char* ItemTypeName = ValueTraits<E>::TypeName;
    static std::vector<E> Read(ValueReader& reader) {
        std::vector<E> values;
        reader.BeginArray();
        while (reader.HasNext()) {
            values.push_back(ValueTraits<E>::Read(reader));
        }
        reader.EndArray();
        return values;
    }
    static void Write(ValueWriter& writer, const std::vector<E>& values) {
        writer.BeginArray();
        for (const E& value : values) {
            ValueTraits<E>::Write(writer, value);
        }
        writer.EndArray();
    }
};

template <typename T>
struct IsArrayValue : std::false_type {};
template <typename E>
struct IsArrayValue<std::vector<E>> : std::true_type {};

}  // namespace Ny::Properties::Internal
