// The serializer: documents, schemas, kind checks and all-or-nothing updates.
#include <gtest/gtest.h>

#include "NyApi/Properties/JsonSerializer.h"
#include "NyValues/Params/Enum.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Properties/Array.h"

namespace {

using nlohmann::json;
using Ny::Properties::JsonSerializer;

struct Settings : Ny::Params::Group {
    Settings() {
        AddParameter("samples", samples, "");
        AddParameter("label", label, "Label");
        AddParameter("mode", mode, "");
        AddParameter("enabled", enabled, "");
        AddParameter("gain", gain, "");
        Register("tags", tags);
        samples.Minimum(1).Maximum(1000);
        samples = 10;
        mode.AddOption(0, "Fast").AddOption(1, "Precise");
    }
    Ny::Params::Value<unsigned int> samples;
    Ny::Params::Value<std::string> label;
    Ny::Params::Enum<unsigned int> mode;
    Ny::Params::Value<bool> enabled;
    Ny::Params::Value<double> gain;
    Ny::Properties::Value<std::vector<std::string>> tags;
};

TEST(Serializer, DocumentRoundTripsThroughJson) {
    Settings settings;
    const json incoming = {{"samples", 20}, {"label", "A"},       {"mode", 1},   {"enabled", true},
                           {"gain", 1.5},   {"tags", {"x", "y"}}, {"unknown", 3}};
    JsonSerializer::Deserialize(settings, incoming);
    json expected = incoming;
    expected.erase("unknown");
    EXPECT_EQ(JsonSerializer::Serialize(settings), expected);
    Settings other;
    JsonSerializer::Deserialize(other, JsonSerializer::Serialize(settings));
    EXPECT_EQ(JsonSerializer::Serialize(other), expected);
}

TEST(Serializer, SchemaIsAJsonSchemaTheDocumentSatisfies) {
    Settings settings;
    const json schema = JsonSerializer::SerializeSchema(settings);
    const json document = JsonSerializer::Serialize(settings);
    EXPECT_EQ(schema["type"], "object");
    EXPECT_FALSE(schema.contains("extendedType"));
    // A small checker for the keywords we emit.
    const auto kindOf = [](const json& value) -> std::string {
        if (value.is_boolean())
            return "boolean";
        if (value.is_number_integer())
            return "integer";
        if (value.is_number())
            return "number";
        if (value.is_string())
            return "string";
        if (value.is_array())
            return "array";
        return "object";
    };
    for (const auto& [key, property] : schema["properties"].items()) {
        const json& value = document.at(key);
        const std::string kind = kindOf(value);
        EXPECT_TRUE(property["type"] == kind || (property["type"] == "number" && kind == "integer")) << key;
        if (property.contains("minimum") && value.is_number()) {
            EXPECT_GE(value.get<double>(), property["minimum"].get<double>()) << key;
        }
        if (property.contains("maximum") && value.is_number()) {
            EXPECT_LE(value.get<double>(), property["maximum"].get<double>()) << key;
        }
        if (property.contains("enum")) {
            EXPECT_NE(std::find(property["enum"].begin(), property["enum"].end(), value),
                      property["enum"].end());
            EXPECT_EQ(property["enum"].size(), property["enumText"].size());
        }
    }
    EXPECT_EQ(schema["properties"]["tags"], json({{"type", "array"}, {"items", {{"type", "string"}}}}));
    EXPECT_EQ(schema["properties"]["label"]["title"], "Label");
    EXPECT_EQ(schema["properties"]["samples"]["sortOrder"], 0);
    EXPECT_EQ(schema["properties"]["label"]["sortOrder"], 100);
    EXPECT_EQ(settings.nextSortOrder, 500u);
}

TEST(Serializer, WrongJsonKindsAreRefusedNamingTheMember) {
    Settings settings;
    const std::vector<std::pair<json, std::string>> cases = {
        {{{"samples", "ten"}}, "Member \"samples\" must be an unsigned 32-bit integer."},
        {{{"samples", -1}}, "Member \"samples\" must be an unsigned 32-bit integer."},
        {{{"samples", 1.5}}, "Member \"samples\" must be an unsigned 32-bit integer."},
        {{{"label", 3}}, "Member \"label\" must be a string."},
        {{{"enabled", "yes"}}, "Member \"enabled\" must be a boolean."},
        {{{"tags", "x"}}, "Member \"tags\" must be an array."},
        {json::array(), "The values must be a JSON object."},
    };
    for (const auto& [incoming, message] : cases) {
        try {
            JsonSerializer::Deserialize(settings, incoming);
            ADD_FAILURE() << incoming;
        } catch (const Ny::Exception& e) {
            EXPECT_EQ(e.Status(), -997);
            EXPECT_EQ(e.Message(), message);
        }
    }
}

TEST(Serializer, RefusedUpdateStoresNothingOfTheRequest) {
    Settings settings;
    const json before = JsonSerializer::Serialize(settings);
    EXPECT_THROW(
        JsonSerializer::Deserialize(settings, {{"label", "changed"}, {"gain", 2.0}, {"samples", 5000}}),
        Ny::Exception);
    EXPECT_EQ(JsonSerializer::Serialize(settings), before);
    EXPECT_THROW(JsonSerializer::Deserialize(settings, {{"samples", 5}, {"label", 7}}), Ny::Exception);
    EXPECT_EQ(JsonSerializer::Serialize(settings), before);
}

TEST(Serializer, SchemaLeavesAreWriteOnlyAndNeverRead) {
    Ny::Properties::Internal::NodeType leaf("integer");
    EXPECT_TRUE(leaf.WriteOnly());
    EXPECT_NO_THROW(leaf.SetWriteOnly(true));
    try {
        leaf.SetWriteOnly(false);
        FAIL();
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -982);
    }
    EXPECT_EQ(JsonSerializer::Serialize(leaf), "integer");
    try {
        JsonSerializer::Deserialize(leaf, "string");
        FAIL();
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -996);
    }
}

}  // namespace
