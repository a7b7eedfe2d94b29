// Typed values and parameter values: the notifying store, validation order and messages, read-only,
// enumerations, copies and arrays.
#include <gtest/gtest.h>

#include <latch>
#include <stdexcept>
#include <thread>

#include "LogCapture.h"
#include "NyApi/Properties/JsonSerializer.h"
#include "NyValues/Params/Enum.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Properties/Array.h"

namespace {

using nlohmann::json;
using Ny::Properties::JsonSerializer;

TEST(NotifyingStore, HandlersRunInOrderBeforeTheStoreAndNotForEqualValues) {
    Ny::Properties::Value<unsigned int> value;
    std::vector<std::string> calls;
    value.AddChangeHandler([&](Ny::Properties::Node& node) {
        calls.push_back("a saw " +
                        std::to_string(static_cast<Ny::Properties::Value<unsigned int>&>(node).Get()));
    });
    value.AddChangeHandler([&](Ny::Properties::Node&) { calls.push_back("b"); });
    value = 0u;
    EXPECT_TRUE(calls.empty());
    value = 7u;
    EXPECT_EQ(calls, (std::vector<std::string>{"a saw 0", "b"}));
    EXPECT_EQ(value.Get(), 7u);

    value.AddChangeHandler(nullptr);
    EXPECT_THROW(value = 8u, std::bad_function_call);
    EXPECT_EQ(value.Get(), 7u);  // not stored when a handler fails
}

// Deserializes {key: incoming} into a one-parameter group and returns the thrown message, or "".
template <typename P, typename T>
std::string Refusal(P& param, const T& incoming) {
    Ny::Params::Group group;
    group.AddParameter("p", param, "");
    try {
        JsonSerializer::Deserialize(group, {{"p", incoming}});
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -997);
        return e.Message();
    }
    return "";
}

TEST(Validation, LimitsAreTestedInOrderWithTheirMessages) {
    NyTest::LogCapture log;
    Ny::Params::Value<unsigned int> crossed;
    crossed.Minimum(5).Maximum(3);
    EXPECT_EQ(Refusal(crossed, 4), "p was set to be less than its minimum.");
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "p was set to be less than its minimum.");
    EXPECT_EQ(records[0].context, "Params validation");
    EXPECT_EQ(records[0].levelWord, Ny::Logging::Level::Validation);

    Ny::Params::Value<unsigned int> exclusive;
    exclusive.ExclusiveMinimum(10).ExclusiveMaximum(20);
    EXPECT_EQ(Refusal(exclusive, 10), "p was set to be less than or equal to its exclusive minimum.");
    EXPECT_EQ(Refusal(exclusive, 20), "p was set to be greater than or equal to its exclusive maximum.");
    EXPECT_EQ(Refusal(exclusive, 11), "");
    EXPECT_EQ(exclusive.Get(), 11u);

    Ny::Params::Value<std::string> text;
    text.Minimum("b");
    text = std::string("c");  // an incoming value equal to the stored one is never checked
    EXPECT_EQ(Refusal(text, ""), "p was set to be less than its minimum.");
    EXPECT_EQ(Refusal(text, "a"), "p was set to be less than its minimum.");
    EXPECT_EQ(Refusal(text, "ba"), "");

    Ny::Params::Value<double> number;
    number.Maximum(1.5);
    EXPECT_EQ(Refusal(number, 1.6), "p was set to be greater than its maximum.");
    try {
        crossed.CheckValidation(9);
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Context(), "Ny::Params::Value<unsigned int>::CheckValidation");
    }
}

TEST(Validation, UnnamedParametersAreNamedSo) {
    Ny::Params::Value<unsigned int> unnamed;
    unnamed.Maximum(1);
    EXPECT_THROW(unnamed.CheckValidation(2), Ny::Exception);
    try {
        unnamed.CheckValidation(2);
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Message(), "<unnamed> was set to be greater than its maximum.");
    }
}

TEST(Validation, ReadOnlyKeepsItsValueSilentlyButLimitsStillRefuse) {
    NyTest::LogCapture log;
    Ny::Params::Group group;
    Ny::Params::Value<unsigned int> fixed;
    group.AddParameter("fixed", fixed, "Fixed");
    fixed.Maximum(10).ReadOnly(true);
    fixed = 3u;
    JsonSerializer::Deserialize(group, {{"fixed", 3}});
    EXPECT_TRUE(log.Records().empty());  // the current value: nothing to say
    JsonSerializer::Deserialize(group, {{"fixed", 4}});
    EXPECT_EQ(fixed.Get(), 3u);
    EXPECT_EQ(log.Texts(Ny::Logging::Level::Notice), std::vector<std::string>{"Fixed is read-only."});
    EXPECT_THROW(JsonSerializer::Deserialize(group, {{"fixed", 11}}), Ny::Exception);
    EXPECT_EQ(fixed.Get(), 3u);
}

TEST(Enumeration, RefusesValuesOutsideAfterTheLimits) {
    Ny::Params::Enum<unsigned int> mode;
    mode.AddOption(0, "Fast").AddOption(1, "Precise").AddOption(2, "Slow");
    EXPECT_EQ(Refusal(mode, 7), "p was set to a value outside of the enum.");
    mode.Maximum(1);
    EXPECT_EQ(Refusal(mode, 2), "p was set to be greater than its maximum.");
    EXPECT_EQ(Refusal(mode, 1), "");
    Ny::Params::Enum<NyCommon::RoutineState> empty;
    EXPECT_EQ(Refusal(empty, 1), "p was set to a value outside of the enum.");
}

TEST(Copy, TakesEffectiveValueMetadataAndLimits) {
    Ny::Params::Value<unsigned int> source;
    source.Maximum(9).ReadOnly(true);
    source = 4u;
    source.title = std::string("Samples");
    Ny::Params::Value<unsigned int> copy;
    copy.CopyValues(source);
    const json schema = JsonSerializer::SerializeSchema(copy);
    EXPECT_EQ(schema["maximum"], 9);
    EXPECT_EQ(schema["readOnly"], true);
    EXPECT_EQ(schema["title"], "Samples");
    EXPECT_EQ(copy.Get(), 4u);

    source.Actual(6);
    copy.CopyValues(source);
    EXPECT_EQ(copy.Stored(), 6u);  // the effective value of the source becomes the stored one

    Ny::Params::Value<std::string> other;
    EXPECT_THROW(copy.CopyValues(other), std::bad_cast);

    Ny::Params::Enum<unsigned int> options;
    options.AddOption(3, "Stopped due to completion");
    Ny::Params::Enum<unsigned int> optionsCopy;
    optionsCopy.CopyValues(options);
    EXPECT_EQ(JsonSerializer::SerializeSchema(optionsCopy)["enumText"], json({"Stopped due to completion"}));
}

// The members a parameter rarely sets (limits, notes, "actual", "scale", "used", "readOnly") are only
// built once set or entered in the schema. Which of them exist, by schema key or member name.
template <typename T>
std::vector<std::string> Created(const Ny::Params::Value<T>& p) {
    std::vector<std::string> created;
    const auto note = [&created](const char* name, const auto& member) {
        if (member.Existing() != nullptr) {
            created.emplace_back(name);
        }
    };
    note("note1", p.note1);
    note("note2", p.note2);
    note("actual", p.actual);
    note("minimum", p.minimum);
    note("maximum", p.maximum);
    note("exclusiveMinimum", p.exclusiveMinimum);
    note("exclusiveMaximum", p.exclusiveMaximum);
    note("scale", p.scale);
    note("note3", p.note3);
    note("readOnly", p.readOnly);
    note("used", p.used);
    return created;
}

TEST(LazyMembers, ReadsChecksAndEqualStoresCreateNothing) {
    Ny::Params::Group group;
    Ny::Params::Value<std::string> label;
    Ny::Params::Value<unsigned int> count;
    group.AddParameter("label", label, "");
    group.AddParameter("count", count, "");
    label = std::string("a");
    label.note1 = std::string();  // equal to the initial value: nothing to build
    label.used = true;
    count.maximum = 0u;
    EXPECT_EQ(label.minimum.Get(), "");
    EXPECT_TRUE(label.used.Get());
    EXPECT_FALSE(label.readOnly == true);
    JsonSerializer::Serialize(group);
    const json schema = JsonSerializer::SerializeSchema(group);
    JsonSerializer::Deserialize(group, {{"label", "b"}, {"count", 3}});
    EXPECT_EQ(label.Get(), "b");
    EXPECT_EQ(Created(label), std::vector<std::string>{});
    EXPECT_EQ(Created(count), std::vector<std::string>{"minimum"});  // every unsigned one shows minimum 0
    EXPECT_EQ(schema["properties"]["label"],
              json::parse(R"({"type":"string","title":"label","sortOrder":0})"));

    // A member set before it is shown keeps its value when shown; the node is built holding it.
    label.maximum = std::string("m");
    EXPECT_EQ(Created(label), std::vector<std::string>{"maximum"});
    EXPECT_FALSE(JsonSerializer::SerializeSchema(label).contains("maximum"));  // set, not turned on
    label.Maximum(label.maximum.Get()).ReadOnly(false);
    EXPECT_EQ(JsonSerializer::SerializeSchema(label)["maximum"], "m");
    EXPECT_EQ(JsonSerializer::SerializeSchema(label)["readOnly"], false);
    EXPECT_EQ(Refusal(label, "n"), "p was set to be greater than its maximum.");

    // A handler added to a member reaches its node: it runs on the member's next change.
    int changes = 0;
    label.note2.Node().AddChangeHandler([&changes](Ny::Properties::Node&) { ++changes; });
    label.note2 = std::string("x");
    label.note2 = std::string("x");
    EXPECT_EQ(changes, 1);
}

TEST(LazyMembers, ACopyTakesEveryMemberWhetherOrNotEitherSideBuiltIt) {
    Ny::Params::Value<unsigned int> source;
    source.Maximum(9).Used(false);
    source.note1 = std::string("from the source");
    Ny::Params::Value<unsigned int> copy;
    copy.note2 = std::string("only in the copy");  // the source never built its note2: still copied
    copy.exclusiveMaximum = 4u;
    copy.CopyValues(source);
    EXPECT_EQ(copy.maximum.Get(), 9u);
    EXPECT_EQ(copy.note1.Get(), "from the source");
    EXPECT_EQ(copy.note2.Get(), "");
    EXPECT_EQ(copy.exclusiveMaximum.Get(), 0u);
    EXPECT_FALSE(copy.used.Get());
    const json schema = JsonSerializer::SerializeSchema(copy);
    EXPECT_EQ(schema["maximum"], 9);
    EXPECT_EQ(schema["minimum"], 0);
    EXPECT_EQ(schema["used"], false);
    EXPECT_FALSE(schema.contains("exclusiveMaximum"));
    EXPECT_EQ(Created(source), (std::vector<std::string>{"note1", "minimum", "maximum", "used"}));

    Ny::Params::Group named;
    Ny::Params::StructBase typed("Calibration");
    typed.CopyValues(named);  // the extended type's value is copied; its entry stays
    EXPECT_EQ(JsonSerializer::SerializeSchema(typed)["extendedType"], "");
    named.CopyValues(typed);
    EXPECT_FALSE(JsonSerializer::SerializeSchema(named).contains("extendedType"));
}

// Reading never builds a member, so threads may read one tree at once (serialize it, copy from it)
// as they could before members were built on first use. Run under ThreadSanitizer, a read that built
// a member would be a reported race; here it would also show in Created().
TEST(LazyMembers, ConcurrentReadersOfOneTreeBuildNothingInIt) {
    struct Shared : Ny::Params::Group {
        Shared() {
            AddParameter("count", count, "");
            AddParameter("mode", mode, "");
            count.Maximum(10);
            mode.AddOption(0, "Fast").AddOption(1, "Slow");
        }
        Ny::Params::Value<unsigned int> count;
        Ny::Params::Enum<unsigned int> mode;
    };
    const Shared shared;
    constexpr int Readers = 4;
    std::latch start(Readers);
    std::vector<std::thread> readers;
    std::vector<json> documents(Readers);
    for (int i = 0; i < Readers; ++i) {
        readers.emplace_back([&shared, &start, &documents, i] {
            start.arrive_and_wait();
            Shared own;
            own.CopyValues(shared);
            documents[i] = {JsonSerializer::Serialize(shared), JsonSerializer::SerializeSchema(shared),
                            JsonSerializer::SerializeSchema(own)};
        });
    }
    for (auto& reader : readers) {
        reader.join();
    }
    for (const json& document : documents) {
        EXPECT_EQ(document[1], document[2]);
        EXPECT_EQ(document[1]["properties"]["count"]["maximum"], 10);
    }
    EXPECT_EQ(Created(shared.count), (std::vector<std::string>{"minimum", "maximum"}));
    EXPECT_EQ(Created(shared.mode), (std::vector<std::string>{"minimum"}));
}

struct Entry : Ny::Params::Group {
    Entry() { AddParameter("name", name, ""); }
    Ny::Params::Value<std::string> name;
};

TEST(Array, ResizeRemoveAndClearTellTheHandlersAndKeepItemSchemasInStep) {
    Ny::Properties::Array<Entry> array;
    int calls = 0;
    array.AddChangeHandler([&](Ny::Properties::Node&) { ++calls; });
    array.Resize(0);
    EXPECT_EQ(calls, 0);
    array.Resize(3);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(array.itemSchemas.Count(), 3u);
    array.Resize(1);
    EXPECT_EQ(calls, 5);
    EXPECT_EQ(array.itemSchemas.Count(), 1u);
    try {
        array.Remove(1);
        FAIL();
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -999);
    }
    EXPECT_EQ(calls, 5);
    array.Clear();
    array.Clear();
    EXPECT_EQ(calls, 7);
    EXPECT_EQ(array.itemSchemas.Count(), 0u);

    Ny::Properties::Array<Entry> source;
    source.Add(std::make_unique<Entry>()).name = std::string("a");
    source.Add(std::make_unique<Entry>()).name = std::string("b");
    array.CopyValues(source);
    EXPECT_EQ(JsonSerializer::Serialize(array), json::parse(R"([{"name":"a"},{"name":"b"}])"));
}

}  // namespace
