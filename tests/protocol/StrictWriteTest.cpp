// Parameter writes through the router: strict writes ("Prefer: handling=strict") with their checks in
// order, per-parameter refusals under "fields", the schema's read-only mark, and a strict write racing
// a continue.
#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "LogCapture.h"
#include "NyCore/Core.h"
#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "TestRoutines.h"

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyTest::Eventually;
using NyTest::Gate;
using NyTest::ScriptedRoutine;

constexpr const char* Strict = "handling=strict";
constexpr const char* NotWaiting = "The routine does not wait for parameters; nothing was applied.";

class StrictWriteTest : public ::testing::Test {
  protected:
    StrictWriteTest() : factory([this](ScriptedRoutine& self, IRoutineHost& host) { Run(self, host); }) {
        registry.Add(NyRoutine::RoutineInfo("Calib", factory, true));
        manager = std::make_unique<NyRoutine::Internal::RoutineManager>(registry, &core, 1);
        routines = std::make_unique<NyRoutine::Internal::RoutinesDir>(router, *manager);
        router.NotificationEvent().Subscribe([this](NyRest::EventType type, std::string) {
            if (type == NyRest::EventType::Updated) {
                ++updatedNotifications;
            }
        });
    }
    ~StrictWriteTest() override {
        callbackRelease.Open();
        manager->ClearAllRoutines();
        routines.reset();
        manager.reset();
    }

    // Publishes the parameters and waits; the continue callback turns "count" into the results, after
    // callbackRelease when a test holds the routine there.
    void Run(ScriptedRoutine& self, IRoutineHost& host) {
        host.GetParams(self.parameters, [this](Ny::Properties::Structure&) { ++paramsCallbacks; });
        host.WaitForContinue([this, &self](IRoutineHost& h) {
            callbackEntered.Open();
            if (holdCallback) {
                callbackRelease.Wait();
            }
            auto results = std::make_unique<NyTest::TestResults>();
            results->value = self.parameters.count.Get();
            h.SetResults(results.release());
        });
    }

    NyRest::Response Write(const json& body, const std::string& prefer = Strict) {
        NyRest::DispatchOptions options;
        options.prefer = prefer;
        return router.Dispatch("PUT", "/routines/Calib-0", body, options);
    }
    // Creates the routine and waits until it waits for feedback.
    ScriptedRoutine& CreateWaiting() {
        EXPECT_EQ(router.Dispatch("POST", "/routines", {{"type", "Calib"}}).status, 201);
        EXPECT_TRUE(Eventually(
            [this] { return manager->GetInstance("Calib-0").State() == RoutineState::WaitingForFeedback; }));
        return *factory.Last();
    }
    json Parameters() { return router.Dispatch("GET", "/routines/Calib-0", nullptr).body["parameters"]; }

    NyTest::LogCapture log;
    NyTest::ScriptedFactory factory;
    NyRoutine::Internal::RoutineRegistry registry;
    NyCore::Core core;
    NyRest::ResourceRouter router;
    std::unique_ptr<NyRoutine::Internal::RoutineManager> manager;
    std::unique_ptr<NyRoutine::Internal::RoutinesDir> routines;
    std::atomic<int> updatedNotifications{0};
    std::atomic<int> paramsCallbacks{0};
    std::atomic<bool> holdCallback{false};  // the continue callback waits for callbackRelease
    Gate callbackEntered;
    Gate callbackRelease;
};

TEST_F(StrictWriteTest, MisspeltKeyIsRefusedNamingItWhileTheLenientWriteIgnoresIt) {
    CreateWaiting();
    const json before = Parameters();
    const NyRest::Response refused = Write({{"parameters", {{"volum", 20}}}});
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.body, json({{"status", -997},
                                  {"message", "Unknown parameter \"volum\"."},
                                  {"causes", json::array()},
                                  {"fields", {{"volum", {"Unknown parameter."}}}}}));
    const NyRest::Response two = Write({{"parameters", {{"count", 3}, {"volum", 20}, {"x", 1}}}});
    EXPECT_EQ(two.status, 400);
    EXPECT_EQ(two.body["message"], "Unknown parameters \"volum\", \"x\".");
    EXPECT_EQ(Parameters(), before);  // "count" was valid, and still not applied
    EXPECT_EQ(paramsCallbacks.load(), 0);

    EXPECT_EQ(Write({{"parameters", {{"volum", 20}}}}, "").status, 204);  // lenient: ignored
    EXPECT_EQ(Write({{"parameters", {{"count", 3}}}}, "Handling = \"STRICT\"").status, 204);
    EXPECT_EQ(Parameters()["count"], 3);
}

TEST_F(StrictWriteTest, RoutineThatNoLongerWaitsIs409AndNothingIsApplied) {
    CreateWaiting();
    const json before = Parameters();
    ASSERT_EQ(router.Dispatch("POST", "/routines/Calib-0/commands/abort", nullptr).status, 200);
    const int notificationsBefore = updatedNotifications.load();
    const NyRest::Response refused = Write({{"parameters", {{"count", 3}}}});
    EXPECT_EQ(refused.status, 409);
    EXPECT_EQ(refused.body, json({{"status", -1000}, {"message", NotWaiting}, {"causes", json::array()}}));
    // Aborted while its parameters were still open: refused all the same, and the routine not told.
    EXPECT_EQ(Parameters(), before);
    EXPECT_EQ(paramsCallbacks.load(), 0);
    EXPECT_EQ(updatedNotifications.load(), notificationsBefore);
}

TEST_F(StrictWriteTest, RoutineThatWentOnIs409) {
    CreateWaiting();
    ASSERT_EQ(router.Dispatch("POST", "/routines/Calib-0/commands/continue", nullptr).status, 200);
    ASSERT_TRUE(
        Eventually([this] { return manager->GetInstance("Calib-0").State() == RoutineState::Completed; }));
    EXPECT_EQ(Write({{"parameters", {{"count", 3}}}}).status, 409);
    EXPECT_EQ(Write({{"parameters", {{"count", 3}}}}, "").status, 204);  // lenient: skipped
}

TEST_F(StrictWriteTest, ChecksComeInOrderBodyThenWaitingThenKeysThenValues) {
    CreateWaiting();
    const std::vector<std::pair<json, std::string>> badBodies = {
        {json::array(), "The request body must be a JSON object."},
        {json::object(), "The request body must have a member \"parameters\"."},
        {{{"parameters", json::array()}}, "Member \"parameters\" must be an object."},
        {{{"parameters", nullptr}}, "Member \"parameters\" must be an object."},
        {{{"parameters", 5}}, "Member \"parameters\" must be an object."},
        {{{"parameters", json::object()}, {"extra", 1}},
         "Unknown member \"extra\"; only \"parameters\" may be given."},
        {{{"parameters", json::object()}, {"b", 1}, {"a", 2}},
         "Unknown members \"a\", \"b\"; only \"parameters\" may be given."},
    };
    for (const auto& [body, message] : badBodies) {
        const NyRest::Response refused = Write(body);
        EXPECT_EQ(refused.status, 400) << body;
        EXPECT_EQ(refused.body["status"], -997) << body;
        EXPECT_EQ(refused.body["message"], message) << body;
    }
    // Unknown keys before values: only the unknown key is reported.
    const NyRest::Response unknownFirst = Write({{"parameters", {{"count", 99}, {"volum", 1}}}});
    EXPECT_EQ(unknownFirst.body["fields"], json({{"volum", {"Unknown parameter."}}}));
    // Values: every refused one in the fields, the first one's message as the cause.
    const NyRest::Response values = Write({{"parameters", {{"count", 99}, {"name", 5}}}});
    EXPECT_EQ(values.status, 400);
    EXPECT_EQ(values.body["message"], "Set routine params failed.");
    EXPECT_EQ(values.body["causes"], json({"count was set to be greater than its maximum."}));
    EXPECT_EQ(values.body["fields"], json({{"count", {"count was set to be greater than its maximum."}},
                                           {"name", {"Member \"name\" must be a string."}}}));
    EXPECT_EQ(paramsCallbacks.load(), 0);
    // The lenient write reports the same fields.
    EXPECT_EQ(Write({{"parameters", {{"count", 99}, {"name", 5}}}}, "").body["fields"],
              values.body["fields"]);

    // Once the routine no longer waits, a bad body is still 400 and an unknown key 409.
    ASSERT_EQ(router.Dispatch("POST", "/routines/Calib-0/commands/abort", nullptr).status, 200);
    EXPECT_EQ(Write(json::array()).status, 400);
    EXPECT_EQ(Write({{"parameters", {{"volum", 1}}}}).status, 409);
}

TEST_F(StrictWriteTest, HostileKeysGiveABoundedMessageAndValidJson) {
    CreateWaiting();
    json many = json::object();
    for (int i = 0; i < 10000; ++i) {
        many["k" + std::to_string(i)] = i;
    }
    const NyRest::Response crowd = Write({{"parameters", many}});
    EXPECT_EQ(crowd.status, 400);
    const std::string message = crowd.body["message"];
    EXPECT_LT(message.size(), 400u);
    EXPECT_NE(message.find("and 9980 more."), std::string::npos) << message;
    EXPECT_EQ(crowd.body["fields"].size(), 10000u);

    // Nested as deep as a body may be: the first unknown key below a known one is named with its path.
    std::string deepBody = R"({"parameters":{"count":)";
    for (int i = 0; i < 60; ++i) {
        deepBody += R"({"d":)";
    }
    deepBody += "1" + std::string(60, '}') + "}}";
    NyRest::DispatchOptions options;
    options.prefer = Strict;
    const NyRest::Response deep = router.DispatchRaw("PATCH", "/routines/Calib-0", deepBody, options);
    EXPECT_EQ(deep.status, 400);
    EXPECT_EQ(deep.body["message"], "Set routine params failed.");  // a value, not a group: its kind
    EXPECT_EQ(deep.body["fields"],
              json({{"count", {"Member \"count\" must be an unsigned 32-bit integer."}}}));

    // Quotes, control characters, printf directives, bytes that are not UTF-8, a huge key.
    const std::string odd = std::string("a\"b\\%s%n\x01\xff\xfe") + std::string(5000, 'z');
    const NyRest::Response strange = Write({{"parameters", {{odd, 1}}}});
    EXPECT_EQ(strange.status, 400);
    const std::string text = strange.body.dump(-1, ' ', false, json::error_handler_t::replace);
    const json reparsed = json::parse(text);
    EXPECT_EQ(reparsed["fields"].size(), 1u);
    EXPECT_LT(reparsed["message"].get<std::string>().size(), 200u);
    EXPECT_NE(reparsed["message"].get<std::string>().find("%s%n"), std::string::npos);
    // A long key is cut between characters, never inside one.
    std::string accented(33, 'a');
    for (int i = 0; i < 20; ++i) {
        accented += "\xC3\xA9";
    }
    const NyRest::Response cut = Write({{"parameters", {{accented, 1}}}});
    EXPECT_NO_THROW(static_cast<void>(cut.body.dump())) << "the message is not valid UTF-8";

    // A NUL inside a key must not end the message: every key after it is still named.
    const NyRest::Response nul = Write({{"parameters", {{std::string("a\0b", 3), 1}, {"c", 2}}}, {"x", 1}});
    const NyRest::Response nulParameter = Write({{"parameters", {{std::string("a\0b", 3), 1}, {"c", 2}}}});
    EXPECT_EQ(nulParameter.body["message"], "Unknown parameters \"a\\u0000b\", \"c\".");
    EXPECT_NE(nul.body["message"].get<std::string>().find("\"x\""), std::string::npos) << nul.body.dump();
}

TEST_F(StrictWriteTest, SchemaMarksParametersReadOnlyExactlyWhenTheRoutineDoesNotWait) {
    CreateWaiting();
    const json waiting = router.Dispatch("GET", "/routines/Calib-0?schema=true", nullptr).body;
    EXPECT_FALSE(waiting["_schema"]["properties"]["parameters"].contains("readOnly"));
    EXPECT_FALSE(router.Dispatch("GET", "/routines/Calib-0", nullptr).body.contains("_schema"));
    ASSERT_EQ(router.Dispatch("POST", "/routines/Calib-0/commands/abort", nullptr).status, 200);
    const json stopped = router.Dispatch("GET", "/routines/Calib-0?schema=true", nullptr).body;
    json mark = stopped["_schema"]["properties"]["parameters"];
    EXPECT_EQ(mark["readOnly"], true);
    // Nothing else of the document or its schema changes with it.
    mark.erase("readOnly");
    EXPECT_EQ(mark, waiting["_schema"]["properties"]["parameters"]);
    EXPECT_EQ(stopped["parameters"], waiting["parameters"]);
    std::vector<std::string> keysWaiting;
    std::vector<std::string> keysStopped;
    for (const auto& [key, value] : waiting.items()) {
        keysWaiting.push_back(key);
    }
    for (const auto& [key, value] : stopped.items()) {
        keysStopped.push_back(key);
    }
    EXPECT_EQ(keysStopped, keysWaiting);
}

// The two orders of a strict write and a continue. The write holds the instance lock from its check to
// its release, so a continue that arrives meanwhile waits and the routine goes on with the written
// value; a write that comes after the continue is refused whole and the routine keeps the old value.
TEST_F(StrictWriteTest, WriteHeldBetweenCheckAndApplyMakesTheContinueWait) {
    ScriptedRoutine& routine = CreateWaiting();
    Gate applying;
    Gate applyRelease;
    routine.parameters.count.AddChangeHandler([&](Ny::Properties::Node&) {
        applying.Open();
        applyRelease.Wait();
    });
    auto write = std::async(std::launch::async, [this] { return Write({{"parameters", {{"count", 7}}}}); });
    ASSERT_TRUE(applying.Wait());  // checked, now storing
    auto continued = std::async(std::launch::async, [this] {
        return router.Dispatch("POST", "/routines/Calib-0/commands/continue", nullptr).status;
    });
    EXPECT_EQ(continued.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(manager->GetInstance("Calib-0").State(), RoutineState::WaitingForFeedback);
    applyRelease.Open();
    EXPECT_EQ(write.get().status, 204);
    EXPECT_EQ(continued.get(), 200);
    ASSERT_TRUE(
        Eventually([this] { return manager->GetInstance("Calib-0").State() == RoutineState::Completed; }));
    EXPECT_EQ(router.Dispatch("GET", "/routines/Calib-0", nullptr).body["results"]["value"], 7);
    EXPECT_EQ(paramsCallbacks.load(), 1);
}

TEST_F(StrictWriteTest, WriteAfterTheContinueIsRefusedWholeWhileTheRoutineGoesOn) {
    CreateWaiting();
    holdCallback = true;
    ASSERT_EQ(router.Dispatch("POST", "/routines/Calib-0/commands/continue", nullptr).status, 200);
    ASSERT_TRUE(callbackEntered.Wait());  // the routine has gone on and is in its next step
    const NyRest::Response refused = Write({{"parameters", {{"count", 7}, {"name", "late"}}}});
    EXPECT_EQ(refused.status, 409);
    EXPECT_EQ(refused.body["message"], NotWaiting);
    callbackRelease.Open();
    ASSERT_TRUE(
        Eventually([this] { return manager->GetInstance("Calib-0").State() == RoutineState::Completed; }));
    EXPECT_EQ(router.Dispatch("GET", "/routines/Calib-0", nullptr).body["results"]["value"], 5);
    EXPECT_EQ(Parameters(), json({{"count", 5}, {"name", ""}}));
    EXPECT_EQ(paramsCallbacks.load(), 0);
}

}  // namespace
