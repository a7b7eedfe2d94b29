// The test kit's driver against routines written here: creation that waits for its continue, the
// bounded waits (also for a change the engine announces with no notification), refusals turned back
// into Ny::Exception, careless routines, and a teardown that neither hangs nor throws.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include "NyApi/Exception.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRoutine/Testing/RoutineDriver.h"
#include "Sync.h"
#include "TestTypes.h"

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Testing::RoutineDriver;
using NyTest::KitFactory;
using NyTest::KitRoutine;

// Longer than any CTest time-out: a wait that should return early and does not fails by time-out.
constexpr auto Forever = std::chrono::hours(1);
constexpr auto Short = std::chrono::milliseconds(100);

// What a call threw as Ny::Exception, read inside the handler: a copy would lose the nested causes.
struct Caught {
    int status = Ny::Status::Success;
    std::string message;
    std::vector<Ny::Exception::FieldRefusal> fields;
    std::vector<std::string> causes;
};

template <typename Call>
Caught Refusal(Call call) {
    try {
        call();
    } catch (const Ny::Exception& e) {
        return {e.Status(), e.Message(), Ny::Exception::FieldsOf(e), Ny::Exception::NestedMessages(e)};
    }
    ADD_FAILURE() << "no refusal";
    return {};
}

// Publishes its parameters and waits for the continue; then hands the volume over as its result.
void ParamsThenResult(KitRoutine& self, IRoutineHost& host) {
    host.SetTotalSteps(1);
    if (!host.GetParams(self.params, nullptr)) {
        return;
    }
    host.WaitForContinue([&self](IRoutineHost& continued) {
        continued.SetCurrentStep(1, "done");
        auto results = std::make_unique<NyTest::KitResults>();
        results->volume = self.params.volume.Get();
        continued.SetResults(results.release());
    });
}

TEST(RoutineDriver, CreationThatWaitsForItsContinueReturnsTheIdAndWaitsOnTheDriversThread) {
    KitFactory factory(ParamsThenResult);
    RoutineDriver driver(RoutineInfo("Dosing", factory, false));
    EXPECT_EQ(driver.Create(), "Dosing-0");
    EXPECT_EQ(driver.Id(), "Dosing-0");
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));

    driver.SetParams({{"volume", 42}});
    driver.Continue();
    ASSERT_TRUE(driver.WaitUntilEnded());
    EXPECT_EQ(driver.State(), RoutineState::Completed);
    EXPECT_EQ(driver.Results(), json({{"volume", 42}}));
    EXPECT_TRUE(driver.WaitForStep(1, Short));
}

TEST(RoutineDriver, WaitsAndReadsOnOtherThreadsFollowTheCommandsOfThisOne) {
    KitFactory factory(ParamsThenResult);
    RoutineDriver driver(RoutineInfo("Dosing", factory, false));
    driver.Create();
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));
    std::atomic<bool> ended{false};
    std::thread waiter([&] { ended = driver.WaitUntilEnded(); });
    std::thread reader([&] {
        while (!ended) {
            const json parameters = driver.Parameters();
            EXPECT_TRUE(parameters == json({{"volume", 10}}) || parameters == json({{"volume", 7}}));
            if (driver.WaitUntilEnded(std::chrono::milliseconds(1))) {
                break;
            }
        }
    });
    driver.SetParams({{"volume", 7}});
    driver.Continue();
    waiter.join();
    reader.join();
    EXPECT_TRUE(ended);
    EXPECT_EQ(driver.Results(), json({{"volume", 7}}));
}

TEST(RoutineDriver, WaitSeesAWaitForFeedbackThatNoNotificationAnnounces) {
    // No step, no parameters, no results: entering the wait raises nothing a client would see.
    NyTest::Gate go;
    KitFactory factory([&go](KitRoutine&, IRoutineHost& host) {
        go.Wait();
        host.WaitForContinue([](IRoutineHost&) {});
    });
    RoutineDriver driver(RoutineInfo("Silent", factory, true));
    driver.Create();
    std::thread opener([&go] {
        // Lets the routine enter its wait after the driver's wait has read it running. The pause only
        // provokes that order (too short, and the test passes without proving anything): a wait that
        // missed the change would only end with the test's time-out.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        go.Open();
    });
    EXPECT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback, Forever));
    opener.join();
}

TEST(RoutineDriver, WaitsReturnFalseOnceTheirTimeRunsOut) {
    KitFactory factory(ParamsThenResult);
    RoutineDriver driver(RoutineInfo("Dosing", factory, true));
    driver.Create();
    EXPECT_FALSE(driver.WaitForState(RoutineState::Completed, Short));
    EXPECT_FALSE(driver.WaitForStep(1, Short));
    EXPECT_FALSE(driver.WaitUntilEnded(std::chrono::milliseconds(0)));
}

TEST(RoutineDriver, WaitsForWhatAnEndedRoutineCanNoLongerReachReturnAtOnce) {
    KitFactory factory([](KitRoutine&, IRoutineHost& host) {
        host.SetTotalSteps(3);
        throw std::runtime_error("sensor unplugged");
    });
    RoutineDriver driver(RoutineInfo("Careless", factory, true));
    driver.Create();
    // The longest time a caller can name means no bound, not an overflow of the clock.
    ASSERT_TRUE(driver.WaitUntilEnded(RoutineDriver::Timeout::max()));
    EXPECT_EQ(driver.State(), RoutineState::Failed);
    EXPECT_EQ(driver.Document()["stateDetails"], "sensor unplugged");
    EXPECT_FALSE(driver.WaitForState(RoutineState::Completed, Forever));
    EXPECT_FALSE(driver.WaitForStep(2, Forever));
}

TEST(RoutineDriver, EveryCallBeforeCreateIsRefusedAsNotFoundAndWaitsReturnAtOnce) {
    KitFactory factory(ParamsThenResult);
    RoutineDriver driver(RoutineInfo("Dosing", factory, true));
    EXPECT_EQ(driver.Id(), "");
    for (const auto& call :
         std::vector<std::function<void()>>{[&] { driver.Continue(); }, [&] { driver.Abort(); },
                                            [&] {
                                                driver.SetParams({{"volume", 1}});
                                            },
                                            [&] { driver.State(); }, [&] { driver.Document(); }}) {
        EXPECT_EQ(Refusal(call).status, Ny::Status::NotFound);
    }
    EXPECT_FALSE(driver.WaitUntilEnded(Forever));
}

TEST(RoutineDriver, RefusedWritesCarryTheReplysStatusMessageFieldsAndCauses) {
    KitFactory factory(ParamsThenResult);
    RoutineDriver driver(RoutineInfo("Dosing", factory, true));
    driver.Create();
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));

    const Caught unknown = Refusal([&] { driver.SetParams({{"volum", 20}}); });
    EXPECT_EQ(unknown.status, Ny::Status::InvalidValue);
    EXPECT_EQ(unknown.message, "Unknown parameter \"volum\".");
    const std::vector<Ny::Exception::FieldRefusal> unknownField{{"volum", "Unknown parameter."}};
    EXPECT_EQ(unknown.fields, unknownField);

    // Not strict: what is unknown is ignored, a broken limit is refused with its cause nested.
    driver.SetParams({{"volum", 20}}, false);
    const Caught limit = Refusal([&] { driver.SetParams({{"volume", 101}}, false); });
    EXPECT_EQ(limit.status, Ny::Status::InvalidValue);
    EXPECT_EQ(limit.message, "Set routine params failed.");
    EXPECT_EQ(limit.causes, std::vector<std::string>{"Volume was set to be greater than its maximum."});
    ASSERT_EQ(limit.fields.size(), 1u);
    EXPECT_EQ(limit.fields[0].path, "volume");
    EXPECT_EQ(driver.Parameters(), json({{"volume", 10}}));

    driver.Continue();
    ASSERT_TRUE(driver.WaitUntilEnded());
    const Caught closed = Refusal([&] { driver.SetParams({{"volume", 20}}); });
    EXPECT_EQ(closed.status, Ny::Status::Refused);
    EXPECT_EQ(closed.message, "The routine does not wait for parameters; nothing was applied.");
}

TEST(RoutineDriver, AbortPassesOnTheFailureOfTheRoutinesCompletionCallback) {
    KitFactory factory([](KitRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([](IRoutineHost&, bool aborted) {
            if (aborted) {
                throw NY_EXCEPTION(Ny::Status::InvalidValue, "The valve is stuck.");
            }
        });
        host.WaitForContinue([](IRoutineHost&) {});
    });
    RoutineDriver driver(RoutineInfo("Valve", factory, true));
    driver.Create();
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));
    const Caught refusal = Refusal([&] { driver.Abort(); });
    EXPECT_EQ(refusal.status, Ny::Status::InvalidValue);
    EXPECT_EQ(refusal.message, "The valve is stuck.");
    EXPECT_TRUE(driver.WaitUntilEnded());
}

TEST(RoutineDriver, ARefusedCreationMayBeTriedAgainButASecondRoutineIsRefused) {
    KitFactory factory(ParamsThenResult, 1);
    RoutineDriver driver(RoutineInfo("Dosing", factory, true));
    EXPECT_EQ(Refusal([&] { driver.Create(); }).status, Ny::Status::NoFactory);
    EXPECT_EQ(driver.Id(), "");
    EXPECT_EQ(driver.Create(), "Dosing-0");
    EXPECT_EQ(Refusal([&] { driver.Create(); }).status, Ny::Status::Refused);
    EXPECT_EQ(driver.Id(), "Dosing-0");
}

// A client cannot send JSON text that is not UTF-8 (the host refuses such a body), so the driver must
// not let a test write it either: the routine would hold a text no reader can serve.
TEST(RoutineDriver, JsonThatIsNotUtf8IsRefusedAsTheHostRefusesIt) {
    struct LabelParams : Ny::Params::Group {
        LabelParams() { AddParameter("label", label, "Label"); }
        Ny::Params::Value<std::string> label;
    } labelParams;  // outlives the driver, and with it the routine that publishes it
    KitFactory factory([&labelParams](KitRoutine&, IRoutineHost& host) {
        if (host.GetParams(labelParams, nullptr)) {
            host.WaitForContinue([](IRoutineHost&) {});
        }
    });
    RoutineDriver driver(RoutineInfo("Labels", factory, true));

    const Caught creation = Refusal([&] { driver.Create({{"label", "\xff"}}); });
    EXPECT_EQ(creation.status, Ny::Status::InvalidValue);
    EXPECT_EQ(creation.message, "The request body is not valid UTF-8.");
    EXPECT_EQ(driver.Id(), "") << "a refused creation made a routine";
    EXPECT_EQ(driver.Create(), "Labels-0");
    ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));

    for (const json& parameters : {json{{"label", "\xff"}}, json{{"label", "caf\xc3"}}, json{{"\xfe", "x"}},
                                   json{{"label", json::array({"ok", "\xc0\xaf"})}}}) {
        const Caught refused = Refusal([&] { driver.SetParams(parameters); });
        EXPECT_EQ(refused.status, Ny::Status::InvalidValue);
        EXPECT_EQ(refused.message, "The request body is not valid UTF-8.");
        const Caught lenient = Refusal([&] { driver.SetParams(parameters, false); });
        EXPECT_EQ(lenient.status, Ny::Status::InvalidValue);
    }
    // Nothing was stored: the document is still readable, and writable text still passes.
    EXPECT_EQ(driver.Parameters(), json({{"label", ""}}));
    EXPECT_NO_THROW(static_cast<void>(driver.Document().dump()));
    driver.SetParams({{"label", "caf\xc3\xa9"}});
    EXPECT_EQ(driver.Parameters(), json({{"label", "caf\xc3\xa9"}}));
}

TEST(RoutineDriver, DestructionLetsACreationThatWaitsForItsContinueGoAndAbortsTheRoutine) {
    std::atomic<int> endedAborted{-1};
    KitFactory factory([&endedAborted](KitRoutine& self, IRoutineHost& host) {
        host.SetCompletionFx(
            [&endedAborted](IRoutineHost&, bool aborted) { endedAborted = aborted ? 1 : 0; });
        ParamsThenResult(self, host);
    });
    {
        RoutineDriver driver(RoutineInfo("Dosing", factory, false));
        driver.Create();
        ASSERT_TRUE(driver.WaitForState(RoutineState::WaitingForFeedback));
    }  // would hang here if the creation's request were not let go
    EXPECT_EQ(endedAborted, 1);
}

TEST(RoutineDriver, DestructionWaitsForRoutineCodeThatIgnoresTheAbortForAWhile) {
    NyTest::Gate ending;   // the deletion has ended the routine (its completion callback ran)
    NyTest::Gate release;  // lets the routine's code return
    std::atomic<bool> returned{false};
    KitFactory factory([&](KitRoutine&, IRoutineHost& host) {
        host.SetCompletionFx([&ending](IRoutineHost&, bool) { ending.Open(); });
        host.SetTotalSteps(1);
        host.SetCurrentStep(1, "busy");
        release.Wait();  // never looks at IsAborted meanwhile
        returned = true;
    });
    auto driver = std::make_unique<RoutineDriver>(RoutineInfo("Busy", factory, true));
    driver->Create();
    ASSERT_TRUE(driver->WaitForStep(1));
    std::thread releaser([&] {
        ending.Wait();
        release.Open();
    });
    driver.reset();
    releaser.join();
    EXPECT_TRUE(ending.IsOpen());
    EXPECT_TRUE(returned);
}

TEST(RoutineDriverFromPluginFile, RefusesAMissingFileAndAFileThatIsNoPlugin) {
    const std::filesystem::path missing = std::filesystem::temp_directory_path() / "nyr-kit-missing.so";
    EXPECT_EQ(Refusal([&] { RoutineDriver driver(missing, "Calibration"); }).status, Ny::Status::NotFound);

    const std::filesystem::path text =
        std::filesystem::temp_directory_path() / ("nyr-kit-" + std::to_string(::getpid()) + ".so");
    std::ofstream(text) << "not a library\n";
    const Caught refusal = Refusal([&] { RoutineDriver driver(text, "Calibration"); });
    std::filesystem::remove(text);
    EXPECT_EQ(refusal.status, Ny::Status::InvalidValue);
}

}  // namespace
