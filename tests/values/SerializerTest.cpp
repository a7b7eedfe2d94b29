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

// Nested groups and an array of groups, for field paths below the top.
struct Channel : Ny::Params::Group {
    Channel() {
        AddParameter("name", name, "");
        AddParameter("level", level, "");
        level.Maximum(10);
    }
    Ny::Params::Value<std::string> name;
    Ny::Params::Value<unsigned int> level;
};

struct Rig : Ny::Params::Group {
    Rig() {
        AddParameter("outer", outer, "");
        Register("list", list);
        list.Resize(3);
    }
    Settings outer;
    Ny::Properties::Array<Channel> list;
};

using Fields = std::vector<Ny::Exception::FieldRefusal>;

// Runs a refused update and returns what it threw; fails the test when nothing was thrown.
Ny::Exception Refusal(Ny::Properties::Node& node, const json& incoming) {
    try {
        JsonSerializer::Deserialize(node, incoming);
    } catch (const Ny::Exception& e) {
        return e;
    }
    ADD_FAILURE() << "accepted " << incoming;
    return Ny::Exception(0, "", 0, "");
}

TEST(Serializer, EveryRefusedValueBecomesAFieldAndTheFirstStaysTheMessage) {
    Settings settings;
    const json before = JsonSerializer::Serialize(settings);
    const Ny::Exception e = Refusal(
        settings, {{"samples", 5000}, {"label", "fine"}, {"mode", 7}, {"enabled", "yes"}, {"gain", 1.0}});
    EXPECT_EQ(e.Status(), -997);
    EXPECT_EQ(e.Message(), "samples was set to be greater than its maximum.");
    EXPECT_EQ(e.Fields(), (Fields{{"samples", "samples was set to be greater than its maximum."},
                                  {"mode", "mode was set to a value outside of the enum."},
                                  {"enabled", "Member \"enabled\" must be a boolean."}}));
    EXPECT_EQ(JsonSerializer::Serialize(settings), before);          // still all-or-nothing
    EXPECT_TRUE(Refusal(settings, json::array()).Fields().empty());  // not a field's refusal
}

TEST(Serializer, FieldPathsJoinNestedKeysAndArrayIndexesWithDots) {
    Rig rig;
    const json before = JsonSerializer::Serialize(rig);
    const Ny::Exception e = Refusal(rig, {{"outer", {{"samples", 0}, {"tags", 5}}},
                                          {"list", {json::object(), {{"level", 11}}, {{"name", 4}}}}});
    EXPECT_EQ(e.Message(), "samples was set to be less than its minimum.");
    EXPECT_EQ(e.Fields(), (Fields{{"outer.samples", "samples was set to be less than its minimum."},
                                  {"outer.tags", "Member \"outer.tags\" must be an array."},
                                  {"list.1.level", "level was set to be greater than its maximum."},
                                  {"list.2.name", "Member \"list[2].name\" must be a string."}}));
    EXPECT_EQ(JsonSerializer::Serialize(rig), before);
    EXPECT_EQ(Refusal(rig, {{"outer", 3}}).Fields(),
              (Fields{{"outer", "Member \"outer\" must be an object."}}));
    EXPECT_EQ(Refusal(rig, {{"list", {{"level", 1}}}}).Fields(),
              (Fields{{"list", "Member \"list\" must be an array."}}));
}

TEST(Serializer, UnknownMembersAreFoundAtEveryDepth) {
    Rig rig;
    EXPECT_TRUE(
        JsonSerializer::UnknownMembers(rig, {{"outer", {{"samples", 3}}}, {"list", json::array()}}).empty());
    EXPECT_EQ(JsonSerializer::UnknownMembers(
                  rig, {{"volum", 20},
                        {"outer", {{"samples", 3}, {"x", {{"deeper", 1}}}}},
                        {"list", {{{"name", "a"}}, {{"nme", "b"}}, json::object(), {{"extra", 1}}}}}),
              (std::vector<std::string>{"list.1.nme", "list.3.extra", "outer.x", "volum"}));
    // Deeper than any node: the first unknown key is reported, not what lies beneath it.
    json deep = 1;
    for (int i = 0; i < 50; ++i) {
        deep = json{{"k", deep}};
    }
    EXPECT_EQ(JsonSerializer::UnknownMembers(rig, {{"outer", deep}}), std::vector<std::string>{"outer.k"});
    // Under a value or a node of another kind there is nothing to look into.
    EXPECT_TRUE(JsonSerializer::UnknownMembers(rig, {{"outer", {{"samples", {{"a", 1}}}}}}).empty());
    EXPECT_TRUE(JsonSerializer::UnknownMembers(rig, json::array()).empty());
}

TEST(Serializer, ElementsBeyondTheArrayAreValidatedBeforeAnythingIsStored) {
    Rig rig;
    const json before = JsonSerializer::Serialize(rig);
    const json grown = {
        {"outer", {{"label", "new"}}},
        {"list", {json::object(), json::object(), json::object(), {{"name", 5}}, {{"level", 11}}}}};
    const Ny::Exception e = Refusal(rig, grown);
    EXPECT_EQ(e.Fields(), (Fields{{"list.3.name", "Member \"list[3].name\" must be a string."},
                                  {"list.4.level", "level was set to be greater than its maximum."}}));
    EXPECT_EQ(JsonSerializer::Serialize(rig), before);
    EXPECT_EQ(JsonSerializer::UnknownMembers(
                  rig, {{"list", {json::object(), json::object(), json::object(), {{"nme", 1}}}}}),
              std::vector<std::string>{"list.3.nme"});
    // Valid new elements are made and read.
    JsonSerializer::Deserialize(
        rig, {{"list", {json::object(), json::object(), json::object(), {{"name", "d"}, {"level", 4}}}}});
    ASSERT_EQ(rig.list.Count(), 4u);
    EXPECT_EQ(rig.list[3].name.Get(), "d");
    EXPECT_EQ(rig.list[3].level.Get(), 4u);
    Ny::Properties::Array<Channel> empty;
    EXPECT_EQ(JsonSerializer::UnknownMembers(empty, {{{"nme", 1}}}), std::vector<std::string>{"0.nme"});
}

}  // namespace
