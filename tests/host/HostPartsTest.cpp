// The host's parts in-process: text checks at the edge of what UTF-8 allows, log text that no byte can
// break, and the creations that answer before they end.
#include <gtest/gtest.h>

#include <stdexcept>

#include "AsyncCreations.h"
#include "HostReplies.h"
#include "Sync.h"

namespace {

using NyHost::ErrorReply;
using NyHost::ForLog;
using NyHost::IsValidUtf8;

TEST(HostReplies, Utf8IsCheckedAtItsEdges) {
    for (const char* valid : {"", "plain", "\xC2\x80", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xF0\x90\x80\x80",
                              "\xF4\x8F\xBF\xBF", "caf\xC3\xA9"}) {
        EXPECT_TRUE(IsValidUtf8(valid)) << valid;
    }
    for (const char* invalid :
         {"\xFF", "\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
          "\xF0\x80\x80\xAF", "\xC3", "\xE2\x82", "a\xF8\x88\x80\x80\x80"}) {
        EXPECT_FALSE(IsValidUtf8(invalid)) << ForLog(invalid);
    }
    EXPECT_TRUE(IsValidUtf8(std::string_view("a\0b", 3)));  // NUL is a character; JSON escapes it
}

TEST(HostReplies, RepliesAndLogTextSurviveAnyByte) {
    std::string every;
    for (int byte = 0; byte < 256; ++byte) {
        every.push_back(static_cast<char>(byte));
    }
    const auto reply = ErrorReply(400, "bad: " + every);
    EXPECT_EQ(reply.status, 400);
    EXPECT_TRUE(IsValidUtf8(reply.body));
    EXPECT_TRUE(nlohmann::json::accept(reply.body));

    const std::string line = ForLog(every, 1000);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(line.find('\r'), std::string::npos);
    EXPECT_EQ(line.find('\x1B'), std::string::npos);
    EXPECT_NE(line.find("\\x0A"), std::string::npos);
    EXPECT_NE(line.find("\\x5C"), std::string::npos);  // a backslash cannot fake an escape
    EXPECT_EQ(ForLog(std::string(300, 'a')).size(), 256u + 3u);
}

using NyHost::AsyncCreations;

// A creation that announces its routine, then waits for `release` as a creation waits for its continue.
AsyncCreations::Creation Waiting(NyTest::Gate& release, const std::string& id) {
    return [&release, id](const AsyncCreations::CreatedFx& onCreated) {
        onCreated({id, "/routines/" + id});
        EXPECT_TRUE(release.Wait(NyTest::Generous));
        NyRest::Response done;
        done.status = 201;
        return done;
    };
}

TEST(AsyncCreations, AnswerWhenTheRoutineExistsAndWaitOnWithinTheirBound) {
    NyTest::Gate release;
    AsyncCreations creations(2);
    const auto first = creations.Run(Waiting(release, "A-0"));
    ASSERT_TRUE(first && first->created);
    EXPECT_EQ(first->created->path, "/routines/A-0");
    ASSERT_TRUE(creations.Run(Waiting(release, "A-1")));
    EXPECT_EQ(creations.Running(), 2u);
    EXPECT_FALSE(creations.Run(Waiting(release, "A-2"))) << "beyond the bound the creation is refused";
    release.Open();
    creations.JoinAll();
    EXPECT_EQ(creations.Running(), 0u);
    EXPECT_TRUE(creations.Run(Waiting(release, "A-3"))) << "finished creations free their places";
}

TEST(AsyncCreations, ACreationThatEndsFirstGivesItsOwnReply) {
    AsyncCreations creations(1);
    const auto refused = creations.Run([](const AsyncCreations::CreatedFx&) {
        NyRest::Response response;
        response.status = 409;
        return response;
    });
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->created);
    EXPECT_EQ(refused->finished.status, 409);
    const auto failed = creations.Run(
        [](const AsyncCreations::CreatedFx&) -> NyRest::Response { throw std::runtime_error("plug-in"); });
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->finished.status, 500);
    EXPECT_EQ(failed->finished.body["message"], "The creation failed.");
}

}  // namespace
