// What drivers record: their router's notifications, and every log line while the sink that was set
// before them keeps receiving each line and is set back after the last driver, whatever the order.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyApi/Mutex.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRoutine/Testing/RoutineDriver.h"
#include "Sync.h"
#include "TestTypes.h"

namespace {

using Ny::Logging::LogRecord;
using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Testing::Notification;
using NyRoutine::Testing::RoutineDriver;
using NyTest::KitFactory;
using NyTest::KitRoutine;

constexpr const char* HeldText = "held in the sink";

// The texts a sink received; a line with HeldText is held in the sink until `release` opens.
struct Received {
    void Add(const std::string& text) {
        if (text == HeldText) {
            held.Open();
            release.Wait();
        }
        Ny::MutexLock guard(mutex);
        texts.push_back(text);
    }
    bool Contains(const std::string& text) {
        Ny::MutexLock guard(mutex);
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

    Ny::Mutex mutex;
    std::vector<std::string> texts NY_GUARDED_BY(mutex);
    NyTest::Gate held;
    NyTest::Gate release;
};

// The sink a host set before any driver: a type of its own, so that a test can tell it is back.
struct HostSink {
    void operator()(const LogRecord& line) const { received->Add(line.text); }
    std::shared_ptr<Received> received;
};

bool Recorded(const RoutineDriver& driver, const std::string& text) {
    const auto lines = driver.LogLines();
    return std::any_of(lines.begin(), lines.end(),
                       [&text](const LogRecord& line) { return line.text == text; });
}

void Log(const char* text) {
    NY_LOG(Ny::Logging::Level::Notice, "%s", text);
}

// Logs one line with its own name and completes.
void Logging(KitRoutine&, IRoutineHost& host) {
    host.SetTotalSteps(1);
    host.SetCurrentStep(1, "logging");
    NY_LOG(Ny::Logging::Level::Progress, "measured %u of %u", 3u, 4u);
}

class Recording : public ::testing::Test {
  protected:
    Recording() : saved(Ny::Logging::SetSink(HostSink{host})) {}
    ~Recording() override { Ny::Logging::SetSink(std::move(saved)); }

    static bool HostSinkIsSet() {
        Ny::Logging::LogSink current = Ny::Logging::SetSink(nullptr);
        const bool ours = current.target<HostSink>() != nullptr;
        Ny::Logging::SetSink(std::move(current));
        return ours;
    }

    std::shared_ptr<Received> host = std::make_shared<Received>();
    Ny::Logging::LogSink saved;
    KitFactory factory{Logging};
};

TEST_F(Recording, TheRoutinesLinesAreRecordedAndStillReachTheSinkSetBefore) {
    {
        RoutineDriver driver(RoutineInfo("Logger", factory, true));
        driver.Create();
        ASSERT_TRUE(driver.WaitUntilEnded());
        const auto lines = driver.LogLines();
        const auto line = std::find_if(lines.begin(), lines.end(), [](const LogRecord& record) {
            return record.text == "measured 3 of 4";
        });
        ASSERT_NE(line, lines.end());
        EXPECT_EQ(line->levelWord, Ny::Logging::Level::Progress);
        EXPECT_TRUE(host->Contains("measured 3 of 4"));
    }
    EXPECT_TRUE(HostSinkIsSet());
}

// Two drivers at once, destroyed in both orders: each records every line and only its own router's
// notifications, the survivor goes on recording, and the host's sink is back after the second.
class TwoDrivers : public Recording, public ::testing::WithParamInterface<bool> {};

TEST_P(TwoDrivers, BothRecordAndTheSinkBeforeThemIsBackWhicheverGoesFirst) {
    KitFactory other{Logging};
    auto first = std::make_unique<RoutineDriver>(RoutineInfo("First", factory, true));
    auto second = std::make_unique<RoutineDriver>(RoutineInfo("Second", other, true));
    first->Create();
    second->Create();
    ASSERT_TRUE(first->WaitUntilEnded());
    ASSERT_TRUE(second->WaitUntilEnded());
    Log("both alive");
    for (const RoutineDriver* driver : {first.get(), second.get()}) {
        EXPECT_TRUE(Recorded(*driver, "both alive"));
        for (const Notification& notification : driver->Notifications()) {
            EXPECT_EQ(notification.path, "/routines/" + driver->Id());
        }
    }

    const bool firstGoesFirst = GetParam();
    std::unique_ptr<RoutineDriver>& goes = firstGoesFirst ? first : second;
    std::unique_ptr<RoutineDriver>& stays = firstGoesFirst ? second : first;
    goes.reset();
    Log("one alive");
    EXPECT_TRUE(Recorded(*stays, "one alive"));
    EXPECT_FALSE(HostSinkIsSet());
    stays.reset();

    EXPECT_TRUE(HostSinkIsSet());
    Log("none alive");
    EXPECT_TRUE(host->Contains("both alive"));
    EXPECT_TRUE(host->Contains("one alive"));
    EXPECT_TRUE(host->Contains("none alive"));
}

INSTANTIATE_TEST_SUITE_P(Recording, TwoDrivers, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "FirstGoesFirst" : "SecondGoesFirst"; });

TEST_F(Recording, ASinkSetOverADriverKeepsItsPlaceWhenTheDriverGoes) {
    auto driver = std::make_unique<RoutineDriver>(RoutineInfo("Logger", factory, true));
    // A capture of the test's own, set over the driver's sink and forwarding to it.
    auto captured = std::make_shared<Received>();
    auto below = std::make_shared<Ny::Logging::LogSink>();
    *below = Ny::Logging::SetSink([captured, below](const LogRecord& line) {
        captured->Add(line.text);
        (*below)(line);
    });
    Log("driver alive");
    EXPECT_TRUE(Recorded(*driver, "driver alive"));
    driver.reset();

    Log("driver gone");
    EXPECT_TRUE(captured->Contains("driver gone"));
    EXPECT_TRUE(host->Contains("driver gone"));
    Ny::Logging::SetSink(*below);  // the capture ends as a well-behaved capture does
    Log("capture gone");
    EXPECT_TRUE(host->Contains("capture gone"));

    // A later driver takes up the chain left below the capture.
    RoutineDriver later(RoutineInfo("Logger", factory, true));
    Log("later driver");
    EXPECT_TRUE(Recorded(later, "later driver"));
    EXPECT_TRUE(host->Contains("later driver"));
}

TEST_F(Recording, ALineHeldInTheSinkBeforeIsDeliveredSafelyAfterItsDriverIsGone) {
    auto driver = std::make_unique<RoutineDriver>(RoutineInfo("Logger", factory, true));
    std::thread logger([] { Log(HeldText); });
    ASSERT_TRUE(host->held.Wait());
    driver.reset();  // the line is on its way to this driver's recorder
    host->release.Open();
    logger.join();
    EXPECT_TRUE(host->Contains(HeldText));
    EXPECT_TRUE(HostSinkIsSet());
}

}  // namespace
