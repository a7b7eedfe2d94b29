// The routines and routine-types resources driven through the router in-process, with real routine
// types and threads: creation that waits for its continue, documents, updates, commands, errors and
// the notifications with their coalescing.
#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Protocol/RoutineTypes.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "TestRoutines.h"

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyTest::Eventually;
using NyTest::ScriptedRoutine;

// Publishes its parameters and waits for the user; the continue callback reports many steps.
void ParamsThenSteps(ScriptedRoutine& self, IRoutineHost& host) {
    host.SetTotalSteps(2);
    host.GetParams(self.parameters, nullptr);
    host.WaitForContinue([&self](IRoutineHost& h) {
        h.SetCurrentStep(1, "working");
        for (unsigned p = 1; p <= 10; ++p) {
            h.SetCurrentProgress(p * 10);
        }
        auto results = std::make_unique<NyTest::TestResults>();
        results->value = self.parameters.count.Get() * 2;
        h.SetResults(results.release());
    });
}

class RoutinesResourceTest : public ::testing::Test {
  protected:
    RoutinesResourceTest()
        : calibFactory(ParamsThenSteps),
          quickFactory([](ScriptedRoutine&, IRoutineHost& host) { host.SetTotalSteps(1); }) {
        registry.Add(RoutineInfo("Calib", calibFactory, false)
                         .SetDisplayName("Calibration")
                         .SetDescription("Calibrates."));
        registry.Add(RoutineInfo("Quick", quickFactory, true));
        manager = std::make_unique<NyRoutine::Internal::RoutineManager>(registry, &core, 1);
        routines = std::make_unique<NyRoutine::Internal::RoutinesDir>(router, *manager);
        types = std::make_unique<NyRoutine::Internal::RoutineTypes>(router, registry);
        router.NotificationEvent().Subscribe([this](NyRest::EventType type, std::string path) {
            std::lock_guard guard(notificationsMutex);
            notifications.push_back(std::to_string(static_cast<int>(type)) + " " + path);
        });
    }
    ~RoutinesResourceTest() override {
        manager->ClearAllRoutines();
        types.reset();
        routines.reset();
        manager.reset();
    }

    std::vector<std::string> Notifications() {
        std::lock_guard guard(notificationsMutex);
        return notifications;
    }
    NyRest::Response Call(const std::string& method, const std::string& target, const json& body = nullptr) {
        return router.Dispatch(method, target, body);
    }
    // A creation running on another thread. If a test stops early, the routines are cleared so that
    // the waiting creation returns instead of holding the test forever.
    struct Pending {
        std::future<NyRest::Response> reply;
        NyRoutine::Internal::RoutineManager* manager;
        Pending(std::future<NyRest::Response> replyIn, NyRoutine::Internal::RoutineManager* managerIn)
            : reply(std::move(replyIn)), manager(managerIn) {}
        Pending(Pending&&) = default;
        ~Pending() {
            if (reply.valid() && reply.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
                manager->ClearAllRoutines();
            }
        }
        std::future_status wait_for(std::chrono::milliseconds timeout) { return reply.wait_for(timeout); }
        NyRest::Response get() { return reply.get(); }
    };

    // Creates a Calib routine on another thread; returns when it waits for feedback.
    Pending CreateWaiting() {
        Pending creation(std::async(std::launch::async,
                                    [this] {
                                        return Call("POST", "/routines", {{"type", "Calib"}});
                                    }),
                         manager.get());
        EXPECT_TRUE(Eventually([this] {
            const auto ids = manager->ListIds();
            return !ids.empty() && manager->GetInstance(ids[0]).State() == RoutineState::WaitingForFeedback;
        }));
        return creation;
    }

    NyTest::LogCapture log;
    NyTest::ScriptedFactory calibFactory;
    NyTest::ScriptedFactory quickFactory;
    NyRoutine::Internal::RoutineRegistry registry;
    NyCore::Core core;
    NyRest::ResourceRouter router;
    std::unique_ptr<NyRoutine::Internal::RoutineManager> manager;
    std::unique_ptr<NyRoutine::Internal::RoutinesDir> routines;
    std::unique_ptr<NyRoutine::Internal::RoutineTypes> types;
    std::mutex notificationsMutex;
    std::vector<std::string> notifications;
};

TEST_F(RoutinesResourceTest, CreationWaitsForContinueWhileReadsUpdatesAndCommandsAreServed) {
    auto creation = CreateWaiting();
    EXPECT_EQ(creation.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);

    const NyRest::Response read = Call("GET", "/routines/Calib-0?schema=true");
    ASSERT_EQ(read.status, 200) << read.body;
    EXPECT_EQ(read.body["state"], 2);
    EXPECT_EQ(read.body["displayName"], "Calibration");
    EXPECT_EQ(read.body["parameters"], json({{"count", 5}, {"name", ""}}));
    EXPECT_EQ(read.body["results"], json::object());
    EXPECT_EQ(read.body["_schema"]["properties"]["parameters"]["properties"]["count"]["maximum"], 10);
    EXPECT_TRUE(read.body["_schema"]["properties"].contains("results"));

    const NyRest::Response refused =
        Call("PATCH", "/routines/Calib-0", {{"parameters", {{"count", 11}, {"name", "x"}}}});
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.body,
              json({{"status", -997},
                    {"message", "Set routine params failed."},
                    {"causes", {"count was set to be greater than its maximum."}},
                    {"fields", {{"count", {"count was set to be greater than its maximum."}}}}}));
    EXPECT_TRUE(log.Contains("count was set to be greater than its maximum."));
    EXPECT_EQ(Call("GET", "/routines/Calib-0").body["parameters"]["name"], "");  // nothing of it was stored

    EXPECT_EQ(Call("PUT", "/routines/Calib-0", {{"parameters", {{"count", 7}}}}).status, 204);
    EXPECT_EQ(Call("PATCH", "/routines/Calib-0", {{"other", 1}}).status, 204);
    EXPECT_EQ(Call("POST", "/routines", {{"type", "Quick"}}).status, 409);  // the limit of one

    const NyRest::Response continued =
        Call("POST", "/routines/Calib-0/commands/continue", {{"ignored", true}});
    EXPECT_EQ(continued.status, 200);
    EXPECT_TRUE(continued.body.is_null());
    ASSERT_EQ(creation.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const NyRest::Response created = creation.get();
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.body, json({{"id", "Calib-0"}, {"path", "/routines/Calib-0"}}));
    EXPECT_EQ(created.headers,
              (std::vector<std::pair<std::string, std::string>>{{"Location", "/routines/Calib-0"}}));

    ASSERT_TRUE(Eventually([&] { return Call("GET", "/routines/Calib-0").body["state"] == 3; }));
    EXPECT_EQ(Call("GET", "/routines/Calib-0").body["results"], json({{"value", 14}}));
    // After the continue the parameters are closed: the write is skipped, not refused.
    EXPECT_EQ(Call("PATCH", "/routines/Calib-0", {{"parameters", {{"count", 3}}}}).status, 204);
    EXPECT_EQ(log.RuntimeLines(),
              std::vector<std::string>{"RoutinesResource::SetRoutineParams: not updating parameters"});
}

TEST_F(RoutinesResourceTest, CollectionEmbedsOneItemPerRoutineAndDeleteAllClears) {
    EXPECT_TRUE(Call("GET", "/routines").body.is_null());
    Call("POST", "/routines", {{"type", "Quick"}});
    const NyRest::Response list = Call("GET", "/routines?schema=true");
    EXPECT_EQ(list.body,
              json::parse(R"({"_embedded":{"item":[{"_links":{"self":{"href":"/routines/Quick-0"}}}]}})"));
    EXPECT_EQ(Call("DELETE", "/routines/*").status, 204);
    EXPECT_TRUE(manager->ListIds().empty());
    EXPECT_EQ(Call("DELETE", "/routines/Quick-0").status, 404);
}

TEST_F(RoutinesResourceTest, RequestErrorsBecomeJsonRepliesWithTheirStatuses) {
    const auto typeError = Call("POST", "/routines", {{"type", 5}});
    EXPECT_EQ(typeError.status, 400);
    EXPECT_EQ(typeError.body["message"], "type must be string, but is number");
    EXPECT_EQ(Call("POST", "/routines", json::array()).body["status"], -997);
    EXPECT_EQ(Call("POST", "/routines", {{"kind", "Quick"}}).status, 400);
    EXPECT_EQ(Call("POST", "/routines", {{"type", "Nope"}}).status, 404);
    EXPECT_EQ(Call("DELETE", "/routines").status, 400);
    EXPECT_EQ(Call("PATCH", "/routines", {{"parameters", json::object()}}).status, 400);
    const auto missing = Call("GET", "/routines/Nope-1");
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.body["message"], "Routine Nope-1 not found!");
    EXPECT_EQ(Call("POST", "/routines/Nope-1/commands/abort").status, 404);
    EXPECT_EQ(Call("PUT", "/routineTypes", json::object()).status, 405);
    core.SetRunState(NyCore::Core::Running);
    EXPECT_EQ(Call("POST", "/routines", {{"type", "Quick"}}).status, 409);
}

TEST_F(RoutinesResourceTest, RoutineTypesListsTheRegistryWithOneItemSchema) {
    const auto list = Call("GET", "/routineTypes?schema=true");
    ASSERT_EQ(list.status, 200);
    ASSERT_EQ(list.body["routineTypes"].size(), 2u);
    EXPECT_EQ(list.body["routineTypes"][0]["type"], "Calib");
    EXPECT_EQ(list.body["routineTypes"][0]["description"], "Calibrates.");
    const json& items = list.body["_schema"]["properties"]["routineTypes"]["items"];
    EXPECT_EQ(items["type"], "object");
    EXPECT_EQ(items["properties"].size(), 5u);
    NyTest::ScriptedFactory later;
    registry.Add(RoutineInfo("Later", later, true));
    EXPECT_EQ(Call("GET", "/routineTypes").body["routineTypes"].size(), 3u);
}

TEST_F(RoutinesResourceTest, NotificationsAreImmediateExceptCoalescedStepsAndDeletionDropsPendingOnes) {
    auto creation = CreateWaiting();
    Call("PATCH", "/routines/Calib-0", {{"parameters", {{"count", 2}}}});
    Call("POST", "/routines/Calib-0/commands/continue");
    creation.get();
    ASSERT_TRUE(
        Eventually([&] { return manager->GetInstance("Calib-0").State() == RoutineState::Completed; }));
    // Eleven step and progress reports within one period give one update at the next flush.
    ASSERT_TRUE(Eventually([&] {
        const auto seen = Notifications();
        return std::count(seen.begin(), seen.end(), "2 /routines/Calib-0") >= 5;
    }));
    Call("DELETE", "/routines/Calib-0");
    const auto seen = Notifications();
    // created; written parameters; continue; results; completion; one coalesced step update; deleted.
    ASSERT_EQ(seen.size(), 7u) << ::testing::PrintToString(seen);
    EXPECT_EQ(seen.front(), "1 /routines/Calib-0");
    EXPECT_EQ(seen.back(), "3 /routines/Calib-0");
    Call("POST", "/routines", {{"type", "Quick"}});
    Call("DELETE", "/routines/*");
    EXPECT_EQ(Notifications().back(), "2 /routines");
}

TEST_F(RoutinesResourceTest, StepReportsOfADeletedRoutineAreNeverNotified) {
    quickFactory.run = [](ScriptedRoutine&, IRoutineHost& host) {
        host.SetTotalSteps(1);
        host.SetCurrentStep(1, "one");
    };
    Call("POST", "/routines", {{"type", "Quick"}});
    Call("DELETE", "/routines/Quick-0");
    const size_t count = Notifications().size();
    // Two flush periods pass; nothing more may arrive for the deleted routine.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(Notifications().size(), count);
}

TEST_F(RoutinesResourceTest, FailedParameterReadReleasesTheLock) {
    struct Exploding : Ny::Params::Group {
        Exploding() { AddParameter("bad", bad, ""); }
        Ny::Params::Value<unsigned int> bad;
    };
    static Exploding exploding;
    calibFactory.run = [](ScriptedRoutine&, IRoutineHost& host) {
        host.GetParams(exploding, nullptr);
        host.WaitForContinue([](IRoutineHost&) {});
    };
    exploding.bad.AddChangeHandler([](Ny::Properties::Node&) { throw std::runtime_error("handler failed"); });
    auto creation = CreateWaiting();
    const auto failed = Call("PATCH", "/routines/Calib-0", {{"parameters", {{"bad", 3}}}});
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(failed.body["message"], "Set routine params failed.");
    EXPECT_EQ(failed.body["causes"], json({"handler failed"}));
    EXPECT_EQ(Call("GET", "/routines/Calib-0").status, 200);  // the lock was released
    Call("POST", "/routines/Calib-0/commands/continue");
    creation.get();
}

}  // namespace
