// The host's reply helpers in-process: text checks at the edge of what UTF-8 allows, and log text that
// no byte can break.
#include <gtest/gtest.h>

#include "HostReplies.h"

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

}  // namespace
