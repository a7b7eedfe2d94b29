// The sample plug-in's routines, loaded from the built plug-in file and driven as a client would: the
// self test to its end, the calibration's parameters (limits, enumeration, strict writes), its
// measurement, results and abort.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "NyApi/Exception.h"
#include "NyRoutine/Testing/RoutineDriver.h"

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using NyRoutine::Testing::Notification;
using NyRoutine::Testing::RoutineDriver;

constexpr const char* SamplePlugin = NYR_SAMPLE_PLUGIN;

// Runs `call`, which must throw Ny::Exception, and returns what it threw.
template <typename Call>
Ny::Exception Refusal(Call call) {
    try {
        call();
    } catch (const Ny::Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no refusal";
    return NY_EXCEPTION(Ny::Status::Success);
}

// A calibration that waits for its parameters and its continue.
class CalibrationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        driver.Create();
        ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));
    }

    RoutineDriver driver{SamplePlugin, "Calibration"};
};

TEST(SelfTest, RunsItsThreeChecksToCompletionAndReportsThem) {
    RoutineDriver driver(SamplePlugin, "SelfTest");
    EXPECT_EQ(driver.Create(), "SelfTest-0");  // returns at once: the type skips start parameters
    EXPECT_TRUE(driver.WaitForStep(3));
    ASSERT_TRUE(driver.WaitUntilEnded());

    const json document = driver.Document();
    EXPECT_EQ(document["state"], static_cast<int>(RoutineState::Completed));
    EXPECT_EQ(document["totalSteps"], 3);
    EXPECT_EQ(document["currentStepInfo"], "Checking the actuators");
    EXPECT_EQ(driver.Results(), json({{"passedChecks", 3}, {"summary", "All checks passed."}}));

    const auto notifications = driver.Notifications();
    ASSERT_FALSE(notifications.empty());
    EXPECT_EQ(notifications.front(), (Notification{"created", "/routines/SelfTest-0"}));
    EXPECT_EQ(notifications.back(), (Notification{"updated", "/routines/SelfTest-0"}));
}

TEST_F(CalibrationTest, PublishesItsParametersWithLimitsAndTheModeEnumeration) {
    EXPECT_EQ(driver.Parameters(), json({{"samples", 10}, {"label", "default"}, {"mode", 0}}));
    const json schema = driver.Document(true)["_schema"]["properties"]["parameters"];
    EXPECT_FALSE(schema.value("readOnly", false));
    EXPECT_EQ(schema["properties"]["samples"]["minimum"], 1);
    EXPECT_EQ(schema["properties"]["samples"]["maximum"], 1000);
    EXPECT_EQ(schema["properties"]["mode"]["enum"], json({0, 1}));
    EXPECT_NE(driver.Document()["helpHtml"].get<std::string>().find("samples"), std::string::npos);
}

TEST_F(CalibrationTest, RefusesSamplesBeyondTheLimitNamingTheFieldAndStoresNothing) {
    const Ny::Exception refusal = Refusal([this] { driver.SetParams({{"samples", 5000}, {"label", "x"}}); });
    EXPECT_EQ(refusal.Status(), Ny::Status::InvalidValue);
    EXPECT_EQ(refusal.Message(), "Set routine params failed.");
    const std::vector<Ny::Exception::FieldRefusal> expected{
        {"samples", "samples was set to be greater than its maximum."}};
    EXPECT_EQ(Ny::Exception::FieldsOf(refusal), expected);
    EXPECT_EQ(driver.Parameters()["samples"], 10);
    EXPECT_EQ(driver.Parameters()["label"], "default");
}

TEST_F(CalibrationTest, AcceptsOnlyTheModesItsEnumerationOffers) {
    const Ny::Exception refusal = Refusal([this] { driver.SetParams({{"mode", 7}}); });
    EXPECT_EQ(refusal.Status(), Ny::Status::InvalidValue);
    ASSERT_EQ(Ny::Exception::FieldsOf(refusal).size(), 1u);
    EXPECT_EQ(Ny::Exception::FieldsOf(refusal)[0].path, "mode");

    driver.SetParams({{"mode", 1}});
    EXPECT_EQ(driver.Parameters()["mode"], 1);
}

TEST_F(CalibrationTest, MeasuresAfterTheContinueAndHandsOverResultsWithTheLabel) {
    driver.SetParams({{"samples", 20}, {"label", "bench A"}});
    driver.Continue();
    ASSERT_TRUE(driver.WaitUntilEnded());

    const json document = driver.Document();
    EXPECT_EQ(document["state"], static_cast<int>(RoutineState::Completed));
    EXPECT_EQ(document["currentStep"], 2);
    EXPECT_EQ(document["currentProgress"], 100);
    const json results = driver.Results();
    EXPECT_EQ(results["label"], "bench A");
    EXPECT_GE(results["gain"].get<double>(), 1.0);
    EXPECT_LT(std::abs(results["offset"].get<double>()), 0.1);

    // Closed for writing once continued: a strict write is refused whole.
    const Ny::Exception refusal = Refusal([this] { driver.SetParams({{"samples", 5}}); });
    EXPECT_EQ(refusal.Status(), Ny::Status::Refused);
    EXPECT_EQ(driver.Parameters()["samples"], 20);
}

TEST_F(CalibrationTest, AbortMidMeasurementEndsItAbortedWithoutResults) {
    driver.SetParams({{"samples", 1000}, {"mode", 1}});  // about four seconds of measuring
    driver.Continue();
    ASSERT_TRUE(driver.WaitForStep(2));
    driver.Abort();
    ASSERT_TRUE(driver.WaitUntilEnded());

    EXPECT_EQ(driver.State(), RoutineState::Aborted);
    EXPECT_EQ(driver.Results(), json::object());
    const auto lines = driver.LogLines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [](const auto& line) { return line.text == "Calibration aborted."; }));
}

TEST(SamplePlugin, RefusesATypeItDoesNotHave) {
    const Ny::Exception refusal = Refusal([] { RoutineDriver driver(SamplePlugin, "Teleport"); });
    EXPECT_EQ(refusal.Status(), Ny::Status::NotFound);
    EXPECT_NE(refusal.Message().find("Teleport"), std::string::npos);
}

}  // namespace
