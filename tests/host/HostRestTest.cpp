// What a REST client gets beyond the plain verbs, end to end: creations that do not hold the request,
// strict writes with per-parameter errors, the routine limit, conditional reads and resumed events.
#include <gtest/gtest.h>

#include <future>

#include "HostProcess.h"
#include "Sync.h"

namespace {

using nlohmann::json;
using NyTest::Eventually;
using NyTest::HostProcess;
using NyTest::HttpConnection;

const std::string kAsync = "Prefer: respond-async";
const std::string kStrict = "Prefer: handling=strict";

// The value of one field ("id: ") of the last frame that carries `marker`.
std::string FieldOfFrame(const std::string& stream, const std::string& marker, const std::string& field) {
    const size_t at = stream.rfind(marker);
    if (at == std::string::npos) {
        return "";
    }
    const size_t frameStart = stream.rfind("\n\n", at);
    const size_t begin = stream.find(field, frameStart == std::string::npos ? 0 : frameStart);
    if (begin == std::string::npos || begin > at) {
        return "";
    }
    const size_t end = stream.find('\n', begin);
    return stream.substr(begin + field.size(), end - begin - field.size());
}

TEST(HostRest, RespondAsyncAnswersAsSoonAsTheRoutineExistsAndTheCreationWaitsOn) {
    HostProcess host;
    const auto accepted = host.Request("POST", "/routines", json{{"type", "Calibration"}}.dump(), {kAsync});
    ASSERT_EQ(accepted.status, 202) << accepted.body;
    EXPECT_EQ(accepted.Header("Location"), "/routines/Calibration-0");
    EXPECT_EQ(accepted.Header("Preference-Applied"), "respond-async");
    EXPECT_EQ(accepted.Json(), json({{"id", "Calibration-0"}, {"path", "/routines/Calibration-0"}}));
    // Still waiting for its first continue, server-side: the slot stays taken.
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
    const auto full = host.Request("POST", "/routines", json{{"type", "SelfTest"}}.dump(), {kAsync});
    EXPECT_EQ(full.status, 409) << "a refusal before the routine exists is answered as it is";
    EXPECT_NE(full.Json()["message"].get<std::string>().find("limit"), std::string::npos) << full.body;
    EXPECT_EQ(host.Request("POST", "/routines/Calibration-0/commands/continue").status, 200);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 3; }));
    EXPECT_EQ(host.Request("DELETE", "/routines/Calibration-0").status, 204);

    const auto unknown = host.Request("POST", "/routines", json{{"type", "Nope"}}.dump(), {kAsync});
    EXPECT_EQ(unknown.status, 404);
    // The preference may share its header with others, in any case, or come in a header of its own.
    const auto shared = host.Request("POST", "/routines", json{{"type", "Calibration"}}.dump(),
                                     {"Prefer: wait=5", "prefer: RESPOND-ASYNC"});
    EXPECT_EQ(shared.status, 202);
    // Deleting releases the creation that waits on the host's own thread.
    EXPECT_EQ(host.Request("DELETE", "/routines/Calibration-1").status, 204);
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}.dump(), {kAsync}).status, 202);
}

TEST(HostRest, ShutDownReleasesACreationAnsweredEarly) {
    HostProcess host;
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "Calibration"}}.dump(), {kAsync}).status, 202);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
    EXPECT_EQ(host.Terminate(NyTest::Generous), 0) << host.Log();
}

TEST(HostRest, StrictWritesRefuseUnknownKeysAndRoutinesThatDoNotWait) {
    HostProcess host;
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "Calibration"}}.dump(), {kAsync}).status, 202);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
    const std::string path = "/routines/Calibration-0";

    // Lenient by default: the misspelt key is ignored.
    EXPECT_EQ(host.Request("PUT", path, json{{"parameters", {{"volum", 20}}}}).status, 204);
    const auto unknown = host.Request("PUT", path, json{{"parameters", {{"volum", 20}}}}.dump(), {kStrict});
    EXPECT_EQ(unknown.status, 400);
    EXPECT_NE(unknown.Json()["message"].get<std::string>().find("volum"), std::string::npos);
    EXPECT_TRUE(unknown.Json()["fields"].contains("volum")) << unknown.body;

    // Every refused parameter has its messages under its own key; the rest of the reply is unchanged.
    const auto refused = host.Request(
        "PATCH", path, json{{"parameters", {{"samples", 1001}, {"mode", 99}}}}.dump(), {kStrict});
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.Json()["message"], "Set routine params failed.");
    EXPECT_EQ(refused.Json()["fields"]["samples"], json({"samples was set to be greater than its maximum."}));
    EXPECT_TRUE(refused.Json()["fields"].contains("mode")) << refused.body;
    EXPECT_EQ(host.Request("GET", path).Json()["parameters"]["samples"], 10) << "nothing applied";

    EXPECT_EQ(host.Request("PATCH", path, json{{"parameters", {{"samples", 30}}}}.dump(), {kStrict}).status,
              204);
    EXPECT_EQ(host.Request("GET", path + "?schema=true")
                  .Json()["_schema"]["properties"]["parameters"]
                  .value("readOnly", false),
              false);
    EXPECT_EQ(host.Request("POST", path + "/commands/abort").status, 200);
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 4; }));
    const auto late = host.Request("PATCH", path, json{{"parameters", {{"samples", 40}}}}.dump(), {kStrict});
    EXPECT_EQ(late.status, 409);
    EXPECT_EQ(late.Json()["message"], "The routine does not wait for parameters; nothing was applied.");
    EXPECT_EQ(
        host.Request("GET", path + "?schema=true").Json()["_schema"]["properties"]["parameters"]["readOnly"],
        true);
}

TEST(HostRest, SystemTellsTheRoutineLimit) {
    HostProcess host;
    EXPECT_EQ(host.Request("GET", "/system").Json(), json({{"runState", 0}, {"routineLimit", 1}}));
}

TEST(HostRest, UnchangedDocumentsAreAnswered304) {
    HostProcess host;
    const auto first = host.Request("GET", "/routineTypes");
    const std::string tag = first.Header("ETag");
    ASSERT_FALSE(tag.empty());
    const auto again = host.Request("GET", "/routineTypes", "", {"If-None-Match: " + tag});
    EXPECT_EQ(again.status, 304);
    EXPECT_TRUE(again.body.empty());
    EXPECT_EQ(again.Header("ETag"), tag);
    // A changed document has a new tag, so the old one no longer matches.
    const auto before = host.Request("GET", "/routines");
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 201);
    const auto after = host.Request("GET", "/routines", "", {"If-None-Match: " + before.Header("ETag")});
    EXPECT_EQ(after.status, 200);
    EXPECT_NE(after.Header("ETag"), before.Header("ETag"));
}

TEST(HostRest, AClientThatReconnectsWithItsLastEventIdGetsWhatItMissed) {
    HostProcess host;
    std::string lastId;
    {
        HttpConnection events(host.Port());
        events.SendRaw("GET /events HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n");
        // The stream is open once its first line arrived; a creation before that is not its to see.
        const std::string opening = events.ReadUntil(
            [](const std::string& data) { return data.find("retry: ") != std::string::npos; });
        ASSERT_NE(opening.find("retry: "), std::string::npos);
        ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 201);
        const std::string stream = opening + events.ReadUntil([](const std::string& data) {
            return data.find("event: created") != std::string::npos;
        });
        lastId = FieldOfFrame(stream, "event: created", "id: ");
        ASSERT_FALSE(lastId.empty()) << stream;
    }
    // Missed while no stream was open.
    ASSERT_TRUE(Eventually([&] { return host.RoutineState("SelfTest-0") == 3; }));
    ASSERT_EQ(host.Request("DELETE", "/routines/SelfTest-0").status, 204);

    HttpConnection resumed(host.Port());
    resumed.SendRaw("GET /events HTTP/1.1\r\n" + host.HostHeader() + "\r\nLast-Event-ID: " + lastId +
                    "\r\n\r\n");
    const std::string replay = resumed.ReadUntil(
        [](const std::string& data) { return data.find("event: deleted") != std::string::npos; });
    EXPECT_EQ(replay.find("event: created"), std::string::npos) << "the event it had is not sent again";
    EXPECT_NE(replay.find("\"path\":\"/routines/SelfTest-0\""), std::string::npos);

    HttpConnection stale(host.Port());
    stale.SendRaw("GET /events HTTP/1.1\r\n" + host.HostHeader() + "\r\nLast-Event-ID: 0badc0de-1\r\n\r\n");
    const std::string reset = stale.ReadUntil(
        [](const std::string& data) { return data.find("event: reset") != std::string::npos; });
    EXPECT_NE(reset.find("event: reset"), std::string::npos)
        << "an id of another run asks the client to re-read";
}

}  // namespace
