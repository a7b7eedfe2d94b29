// End to end: the real routine-host with the sample plug-ins, over real HTTP on loopback.
#include <gtest/gtest.h>

#include <future>

#include "HostProcess.h"
#include "Sync.h"

namespace {

using nlohmann::json;
using NyTest::Eventually;
using NyTest::HostProcess;
using NyTest::HttpConnection;

TEST(Host, CalibrationWaitsIsConfiguredContinuedAndCompletesWithResults) {
    HostProcess host;
    auto creation = std::async(std::launch::async, [&] {
        return host.Request("POST", "/routines", json{{"type", "Calibration"}});
    });
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
    EXPECT_EQ(creation.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    // Reads, refused and accepted updates and the limit are served while the creation waits.
    EXPECT_EQ(host.Request("GET", "/routines/Calibration-0?schema=true")
                  .Json()["_schema"]["properties"]["parameters"]["properties"]["samples"]["maximum"],
              1000);
    const auto refused =
        host.Request("PATCH", "/routines/Calibration-0", json{{"parameters", {{"samples", 1001}}}});
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.Json(),
              json({{"status", -997},
                    {"message", "Set routine params failed."},
                    {"causes", {"samples was set to be greater than its maximum."}},
                    {"fields", {{"samples", {"samples was set to be greater than its maximum."}}}}}));
    EXPECT_EQ(
        host.Request("PUT", "/routines/Calibration-0", json{{"parameters", {{"samples", 30}, {"mode", 1}}}})
            .status,
        204);
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 409);
    EXPECT_EQ(host.Request("POST", "/routines/Calibration-0/commands/continue").status, 200);
    const auto created = creation.get();
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.Header("Location"), "/routines/Calibration-0");
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 3; }));
    const json results = host.Request("GET", "/routines/Calibration-0").Json()["results"];
    EXPECT_EQ(results["label"], "default");
    EXPECT_TRUE(results["gain"].is_number());
}

TEST(Host, SelfTestCompletesAloneAndDeleteAllClears) {
    HostProcess host;
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 201);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("SelfTest-0") == 3; }));
    EXPECT_EQ(host.Request("GET", "/routines/SelfTest-0").Json()["results"]["passedChecks"], 3);
    EXPECT_EQ(host.Request("GET", "/routines").Json()["_embedded"]["item"].size(), 1u);
    EXPECT_EQ(host.Request("DELETE", "/routines/*").status, 204);
    EXPECT_EQ(host.Request("GET", "/routines").body, "null");
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).Json()["id"], "SelfTest-1");
}

TEST(Host, RunningSystemRefusesCreationAndFactoryRestoreClears) {
    HostProcess host;
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 201);
    EXPECT_EQ(host.Request("POST", "/system/commands/factoryRestore").status, 200);
    EXPECT_EQ(host.Request("GET", "/routines").body, "null");
    EXPECT_EQ(host.Request("PUT", "/system", json{{"runState", 1}}).status, 204);
    EXPECT_EQ(host.Request("GET", "/system").Json()["runState"], 1);
    const auto refused = host.Request("POST", "/routines", json{{"type", "SelfTest"}});
    EXPECT_EQ(refused.status, 409);
    EXPECT_EQ(refused.Json()["message"], "Routine [SelfTest] cannot be created while system is running.");
    EXPECT_EQ(host.Request("PUT", "/system", json{{"runState", "x"}}).status, 400);
    const json plugins = host.Request("GET", "/plugins").Json();
    EXPECT_EQ(plugins["plugins"][0]["file"], "sample_routines.so");
    EXPECT_EQ(plugins["plugins"][0]["routineTypes"], json({"SelfTest", "Calibration"}));
}

TEST(Host, BadInputGetsTheRightStatusAndTheHostKeepsServing) {
    HostProcess host;
    const auto unknown = host.Request("GET", "/nowhere");
    EXPECT_EQ(unknown.status, 404);
    EXPECT_EQ(unknown.Header("Content-Type"), "application/json");
    EXPECT_EQ(host.Request("DELETE", "/routineTypes").status, 405);
    EXPECT_EQ(host.Request("POST", "/routines", std::string("{\"type\":")).status, 400);
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", 7}}).Json()["message"],
              "type must be string, but is number");
    EXPECT_EQ(host.Request("GET", "/web/../CMakeLists.txt").status, 404);
    {
        HttpConnection connection(host.Port());
        connection.SendRaw("POST /routines HTTP/1.1\r\n" + host.HostHeader() +
                           "\r\nContent-Length: 100000000\r\n\r\n{");
        EXPECT_EQ(connection.ReadReply().status, 413);
    }
    {
        HttpConnection connection(host.Port());
        connection.SendRaw("GET /routines HTTP/1.1\r\n" + host.HostHeader() +
                           "\r\nX-Big: " + std::string(20000, 'a') + "\r\n\r\n");
        EXPECT_EQ(connection.ReadReply().status, 431);
    }
    {
        HttpConnection connection(host.Port());
        connection.SendRaw("NOT HTTP AT ALL\r\n\r\n");
        EXPECT_EQ(connection.ReadReply().status, 400);
    }
    EXPECT_EQ(host.Request("GET", "/routineTypes").status, 200);
}

TEST(Host, EventsArriveInOrderWithStepsCoalesced) {
    HostProcess host;
    HttpConnection events(host.Port());
    events.SendRaw("GET /events HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n");
    events.ReadUntil([](const std::string& data) { return data.find("\r\n\r\n") != std::string::npos; });
    ASSERT_TRUE(Eventually([&] {
        return host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status == 201;
    }));
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("SelfTest-0") == 3; }));
    host.Request("DELETE", "/routines/SelfTest-0");
    const std::string stream = events.ReadUntil(
        [](const std::string& data) { return data.find("event: deleted") != std::string::npos; });
    EXPECT_NE(stream.find("Content-Type: text/event-stream"), std::string::npos);
    const std::string created =
        "event: created\ndata: {\"type\":\"created\",\"path\":\"/routines/SelfTest-0\"}\n\n";
    const std::string deleted =
        "event: deleted\ndata: {\"type\":\"deleted\",\"path\":\"/routines/SelfTest-0\"}\n\n";
    ASSERT_NE(stream.find(created), std::string::npos) << stream;
    ASSERT_NE(stream.find(deleted), std::string::npos) << stream;
    EXPECT_LT(stream.find(created), stream.find(deleted));
    // About a second of 60 progress reports: at most one update per half second, plus results and the end.
    int updates = 0;
    for (size_t at = stream.find("event: updated"); at != std::string::npos;
         at = stream.find("event: updated", at + 1)) {
        ++updates;
    }
    EXPECT_GE(updates, 2);
    EXPECT_LE(updates, 8);
}

TEST(Host, ShutdownReleasesAWaitingCreationAndExitsCleanly) {
    HostProcess host;
    auto creation = std::async(std::launch::async, [&] {
        return host.Request("POST", "/routines", json{{"type", "Calibration"}});
    });
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Terminate(std::chrono::seconds(10)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(creation.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(Host, TokenIsRequiredWhenConfigured) {
    HostProcess host({"--token", "s3cret-0123456789"});
    EXPECT_EQ(host.Request("GET", "/routines").status, 401);
    EXPECT_EQ(host.Request("GET", "/events").status, 401);
    EXPECT_EQ(host.Request("GET", "/").status,
              200);  // the console page itself, which then asks for the token
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: Bearer wrong"}).status, 401);
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: Bearer s3cret-0123456789"}).status, 200);
    EXPECT_EQ(host.Request("GET", "/routines", "",
                           {"Authorization: Bearer s3cret-0123456789", "Origin: http://evil.example"})
                  .status,
              403);
}

}  // namespace

namespace {

// Every way routine code can misbehave ends in a defined state, and the host keeps serving.
TEST(Host, FaultyRoutinesEndInDefinedStatesAndTheHostStaysUp) {
    HostProcess host({"--plugins", NYR_FAULTY_PLUGIN_DIR});
    struct Case {
        const char* type;
        int state;  // after it settles (and for the continue case, after a continue)
        const char* details;
    };
    const Case cases[] = {
        {"ThrowInRun", 5, "Run failed"},
        {"ThrowInContinue", 5, "continue failed"},
        {"ThrowInCompletion", 5, "Completion callback failed: completion failed"},
        {"ThrowNonStandard", 5, "Routine code threw an exception that is not a std::exception."},
        {"ResultsTwice", 5, "Routine [ResultsTwice-"}};
    int number = 0;
    for (const Case& c : cases) {
        const std::string id = std::string(c.type) + "-" + std::to_string(number++);
        ASSERT_EQ(host.Request("POST", "/routines", json{{"type", c.type}}).status, 201) << c.type;
        if (std::string(c.type) == "ThrowInContinue") {
            ASSERT_TRUE(Eventually([&] { return host.RoutineState(id) == 2; }));
            host.Request("POST", "/routines/" + id + "/commands/continue");
        }
        ASSERT_TRUE(Eventually([&] { return host.RoutineState(id) == c.state; })) << c.type;
        const std::string details = host.Request("GET", "/routines/" + id).Json()["stateDetails"];
        EXPECT_EQ(details.rfind(c.details, 0), 0u) << c.type << ": " << details;
        EXPECT_EQ(host.Request("DELETE", "/routines/" + id).status, 204) << c.type;
    }
    // A routine that only stops when aborted: deleting it aborts it and returns.
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "Stubborn"}}).status, 201);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Request("DELETE", "/routines/Stubborn-5").status, 204);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    const auto refused = host.Request("POST", "/routines", json{{"type", "MakesNothing"}});
    EXPECT_EQ(refused.status, 500);
    EXPECT_EQ(host.Request("GET", "/routines").body, "null");
    EXPECT_EQ(host.Request("GET", "/routineTypes").status, 200);
}

}  // namespace
