// Tests of the "Alignment" routine, run by the routine test kit from the built plug-in file: the same
// library a host loads, driven in-process as a host would drive it (no server, no HTTP).
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "NyApi/Exception.h"
#include "NyRoutine/Testing/RoutineDriver.h"

using NyCommon::RoutineState;
using NyRoutine::Testing::RoutineDriver;

namespace {

// Creates an Alignment routine and waits until it asks for its parameters.
void StartAndWaitForParameters(RoutineDriver& driver) {
    driver.Create();
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));
    ASSERT_TRUE(driver.WaitForStep(1));
}

}  // namespace

TEST(Alignment, MovesToTheTargetAndHandsOverResults) {
    RoutineDriver driver(EXAMPLE_PLUGIN_FILE, "Alignment");
    StartAndWaitForParameters(driver);
    EXPECT_EQ(driver.Parameters()["position"], 50.0);  // the default

    driver.SetParams({{"position", 42.5}, {"speed", 4}, {"note", "bench A"}});
    driver.Continue();
    ASSERT_TRUE(driver.WaitUntilEnded());

    EXPECT_EQ(driver.State(), RoutineState::Completed);
    const nlohmann::json results = driver.Results();
    EXPECT_EQ(results["position"], 42.5);
    EXPECT_DOUBLE_EQ(results["deviation"].get<double>(), 0.02);
    EXPECT_EQ(results["note"], "bench A");
    EXPECT_EQ(driver.Document()["totalSteps"], 3);
}

TEST(Alignment, RefusesValuesOutsideItsLimitsAndOptionsAndKeepsTheOldOnes) {
    RoutineDriver driver(EXAMPLE_PLUGIN_FILE, "Alignment");
    StartAndWaitForParameters(driver);
    for (const nlohmann::json& refused : {nlohmann::json{{"position", 100.5}}, nlohmann::json{{"speed", 3}},
                                          nlohmann::json{{"position", 10.0}, {"speed", 3}}}) {
        try {
            driver.SetParams(refused);
            ADD_FAILURE() << "accepted " << refused;
        } catch (const Ny::Exception& e) {
            EXPECT_EQ(e.Status(), Ny::Status::InvalidValue) << refused;
        }
    }
    EXPECT_EQ(driver.Parameters()["position"], 50.0);  // all or nothing: the valid 10.0 was not stored
    EXPECT_EQ(driver.Parameters()["speed"], 2);
}

TEST(Alignment, AbortWhileWaitingEndsWithoutResults) {
    RoutineDriver driver(EXAMPLE_PLUGIN_FILE, "Alignment");
    StartAndWaitForParameters(driver);
    driver.Abort();
    ASSERT_TRUE(driver.WaitUntilEnded());
    EXPECT_EQ(driver.State(), RoutineState::Aborted);
    EXPECT_FALSE(driver.Results().contains("position"));
}

TEST(Alignment, ShowsHelpForTheParametersAndAppendsTheSafetyNoteWhileMoving) {
    RoutineDriver driver(EXAMPLE_PLUGIN_FILE, "Alignment");
    StartAndWaitForParameters(driver);
    const std::string before = driver.Document()["helpHtml"];
    EXPECT_NE(before.find("target position"), std::string::npos);
    driver.Continue();
    ASSERT_TRUE(driver.WaitUntilEnded());
    const std::string after = driver.Document()["helpHtml"];
    EXPECT_EQ(after.rfind(before, 0), 0u) << after;  // appended, not replaced
    EXPECT_NE(after.find("Keep clear"), std::string::npos);
}
