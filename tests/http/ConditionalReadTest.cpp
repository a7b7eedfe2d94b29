// Entity tags and If-None-Match without sockets: which lists match, and what a reply becomes.
#include <gtest/gtest.h>

#include "ConditionalRead.h"

namespace {

using NyHost::ApplyConditionalRead;
using NyHost::HttpRequest;
using NyHost::HttpResponse;
using NyHost::NoneMatchHolds;
using NyHost::StrongEntityTag;

TEST(ConditionalRead, TagIsAQuotedSixtyFourBitHashOfTheBody) {
    // FNV-1a 64 of "" and of "a": fixed, so a document's tag survives a restart of the server.
    EXPECT_EQ(StrongEntityTag(""), "\"cbf29ce484222325\"");
    EXPECT_EQ(StrongEntityTag("a"), "\"af63dc4c8601ec8c\"");
    EXPECT_NE(StrongEntityTag("{\"a\":1}"), StrongEntityTag("{\"a\":2}"));
}

struct Condition {
    std::string name;
    std::string list;
    bool matches;
};

class NoneMatchList : public ::testing::TestWithParam<Condition> {};

TEST_P(NoneMatchList, MatchesTheTagWeaklyOrNotAtAll) {
    EXPECT_EQ(NoneMatchHolds(GetParam().list, "\"abc\""), GetParam().matches);
    EXPECT_EQ(NoneMatchHolds(GetParam().list, "W/\"abc\""), GetParam().matches);  // weak comparison
}

std::string ManyTags(int count, const std::string& last) {
    std::string list;
    for (int i = 0; i < count; ++i) {
        list += "\"tag" + std::to_string(i) + "\", ";
    }
    return list + last;
}

INSTANTIATE_TEST_SUITE_P(
    Lists, NoneMatchList,
    ::testing::Values(Condition{"Same", "\"abc\"", true}, Condition{"Weak", "W/\"abc\"", true},
                      Condition{"Star", "*", true}, Condition{"InAList", "\"x\", W/\"y\",\t\"abc\"", true},
                      Condition{"NoSpaces", "\"x\",\"abc\"", true}, Condition{"Other", "\"abd\"", false},
                      Condition{"Unquoted", "abc", false}, Condition{"Prefix", "\"ab\"", false},
                      Condition{"CommaInsideATag", "\"x,\"abc\"\"", false},
                      Condition{"CommaInsideATagThenTheTag", "\"x,y\", \"abc\"", true},
                      Condition{"Empty", "", false}, Condition{"OnlyCommas", ",,, ,", false},
                      Condition{"Unterminated", "\"abc", false}, Condition{"LoneWeakMarker", "W/", false},
                      Condition{"GarbageBeforeTheTag", "\x01\xff, \"abc\"", false},
                      Condition{"ThousandTagsLastMatching", ManyTags(999, "\"abc\""), true},
                      Condition{"ThousandTagsNoneMatching", ManyTags(1000, "\"abcd\""), false}),
    [](const auto& info) { return info.param.name; });

HttpRequest Get(std::vector<std::pair<std::string, std::string>> headers = {}) {
    return HttpRequest{"GET", "/doc", std::move(headers), "", "127.0.0.1:1"};
}

TEST(ConditionalRead, MatchingReplyBecomes304WithTheTagAndCacheHeadersOnly) {
    const std::string tag = StrongEntityTag("{}");
    HttpResponse response{200, {{"Content-Type", "application/json"}, {"Cache-Control", "no-cache"}}, "{}"};
    ApplyConditionalRead(Get({{"if-none-match", "\"nope\""}, {"If-None-Match", tag}}), response);
    EXPECT_EQ(response.status, 304);
    EXPECT_EQ(response.body, "");
    const std::vector<std::pair<std::string, std::string>> kept{{"Cache-Control", "no-cache"}, {"ETag", tag}};
    EXPECT_EQ(response.headers, kept);
}

TEST(ConditionalRead, OnlyBodiedOkReadsGetATagAndAHandlersOwnTagIsKept) {
    HttpResponse created{201, {}, "{}"};
    ApplyConditionalRead(Get({{"If-None-Match", "*"}}), created);
    EXPECT_EQ(created.status, 201);
    EXPECT_TRUE(created.headers.empty());

    HttpResponse empty{200, {}, ""};
    ApplyConditionalRead(Get({{"If-None-Match", "*"}}), empty);
    EXPECT_EQ(empty.status, 200);
    EXPECT_TRUE(empty.headers.empty());

    HttpResponse written{200, {}, "{}"};
    ApplyConditionalRead(HttpRequest{"PUT", "/doc", {{"If-None-Match", "*"}}, "{}", ""}, written);
    EXPECT_EQ(written.status, 200);
    EXPECT_TRUE(written.headers.empty());

    HttpResponse own{200, {{"etag", "W/\"v7\""}}, "{}"};
    ApplyConditionalRead(Get(), own);
    EXPECT_EQ(own.headers.size(), 1u);  // no second tag
    ApplyConditionalRead(Get({{"If-None-Match", "\"v7\""}}), own);
    EXPECT_EQ(own.status, 304);
    EXPECT_EQ(own.headers, (std::vector<std::pair<std::string, std::string>>{{"etag", "W/\"v7\""}}));
}

}  // namespace
