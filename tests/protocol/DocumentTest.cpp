// The documents' shapes and schemas, key by key: the routine document and the routine-type list.
#include <gtest/gtest.h>

#include "NyApi/Properties/JsonSerializer.h"
#include "NyRoutine/Protocol/RoutineProperties.h"
#include "NyRoutine/Protocol/RoutineTypes.h"

namespace {

using nlohmann::json;
using Ny::Properties::JsonSerializer;

TEST(RoutineDocument, SchemaHasTwelveReadOnlyFieldsInSortOrderAndTheStateEnumeration) {
    NyRoutine::Internal::RoutineProperties document;
    const json schema = JsonSerializer::SerializeSchema(document);
    EXPECT_EQ(schema["type"], "object");
    EXPECT_FALSE(schema.contains("extendedType"));
    const std::vector<std::pair<std::string, std::string>> fields = {
        {"id", "string"},           {"state", "integer"},          {"stateDetails", "string"},
        {"type", "string"},         {"displayName", "string"},     {"description", "string"},
        {"helpHtml", "string"},     {"helpUrl", "string"},         {"totalSteps", "integer"},
        {"currentStep", "integer"}, {"currentStepInfo", "string"}, {"currentProgress", "integer"}};
    ASSERT_EQ(schema["properties"].size(), fields.size());
    unsigned sortOrder = 0;
    for (const auto& [key, type] : fields) {
        const json& field = schema["properties"][key];
        EXPECT_EQ(field["type"], type) << key;
        EXPECT_EQ(field["title"], key);
        EXPECT_EQ(field["sortOrder"], sortOrder) << key;
        EXPECT_EQ(field["readOnly"], true) << key;
        sortOrder += 100;
    }
    EXPECT_EQ(schema["properties"]["state"]["enum"], json({0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(schema["properties"]["state"]["enumText"],
              json({"Ready to start", "Running", "Waiting for user feedback", "Stopped due to completion",
                    "Stopped due to abort", "Stopped due to failure"}));
    EXPECT_EQ(schema["properties"]["totalSteps"]["minimum"], 0);

    document.state = NyCommon::RoutineState::WaitingForFeedback;
    EXPECT_EQ(JsonSerializer::Serialize(document)["state"], 2);
}

TEST(RoutineDocument, ReadOnlyFieldsIgnoreChangedValuesAndRefuseNothing) {
    NyRoutine::Internal::RoutineProperties document;
    document.id = std::string("Calib-0");
    JsonSerializer::Deserialize(document, {{"id", "Other-1"}, {"totalSteps", 3}});
    EXPECT_EQ(document.id.Get(), "Calib-0");
    EXPECT_EQ(document.totalSteps.Get(), 0u);
}

TEST(RoutineTypeList, SchemaItemsDescribeOneRoutineType) {
    NyRoutine::Internal::RoutineTypeArray list;
    list.routineTypes.Add(std::make_unique<NyRoutine::Internal::RoutineTypeProperties>());
    const json document = JsonSerializer::Serialize(list);
    ASSERT_EQ(document["routineTypes"].size(), 1u);
    EXPECT_EQ(
        document["routineTypes"][0],
        json({{"type", ""}, {"displayName", ""}, {"description", ""}, {"helpHtml", ""}, {"helpUrl", ""}}));
    const NyRoutine::Internal::RoutineTypeProperties one;
    const json item = JsonSerializer::SerializeSchema(one);
    unsigned sortOrder = 0;
    for (const char* key : {"type", "displayName", "description", "helpHtml", "helpUrl"}) {
        EXPECT_EQ(item["properties"][key]["sortOrder"], sortOrder);
        EXPECT_EQ(item["properties"][key]["readOnly"], true);
        EXPECT_EQ(item["properties"][key]["title"], key);
        sortOrder += 100;
    }
}

}  // namespace
