// The event journal without sockets: numbering, exact frames, what a reconnecting client is sent, and
// the bounds.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "EventJournal.h"

namespace {

using NyHost::EventJournal;

constexpr std::uint32_t kRun = 0x1a2b3c4d;
const std::string kRunText = "1a2b3c4d";

// The reason of a reset frame, or "" when `frame` is none.
std::string ResetReason(const std::string& frame, const std::string& latestId) {
    const std::string start = "id: " + latestId + "\nevent: reset\ndata: ";
    if (frame.rfind(start, 0) != 0 || frame.size() < start.size() + 2 ||
        frame.compare(frame.size() - 2, 2, "\n\n") != 0) {
        return "";
    }
    const auto data = nlohmann::json::parse(frame.substr(start.size(), frame.size() - start.size() - 2));
    EXPECT_EQ(data["type"], "reset");
    return data["reason"].get<std::string>();
}

TEST(EventJournal, NumbersFramesFromOneWithinItsRunInExactBytes) {
    EventJournal journal(8, 1 << 20, kRun);
    EXPECT_EQ(journal.LatestId(), kRunText + "-0");
    EXPECT_EQ(*journal.Append("created", R"({"type":"created","path":"/routines/A-0"})"),
              "id: 1a2b3c4d-1\nevent: created\ndata: {\"type\":\"created\",\"path\":\"/routines/A-0\"}\n\n");
    EXPECT_EQ(*journal.Append("note", "two\nlines"),
              "id: 1a2b3c4d-2\nevent: note\ndata: two\ndata: lines\n\n");
    EXPECT_EQ(*journal.Append("empty", ""), "id: 1a2b3c4d-3\nevent: empty\ndata: \n\n");
    EXPECT_EQ(journal.LatestId(), kRunText + "-3");
}

TEST(EventJournal, RandomRunsDifferAndAreEightLowercaseHexDigits) {
    const std::string first = EventJournal(1, 1).LatestId();
    const std::string second = EventJournal(1, 1).LatestId();
    ASSERT_EQ(first.size(), 10u);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), 8u);
    EXPECT_EQ(first.substr(8), "-0");
    EXPECT_NE(first, second);  // 1 in 4 billion to fail
}

TEST(EventJournal, ResumptionSendsTheKeptFramesAfterTheIdSharedNotCopied) {
    EventJournal journal(8, 1 << 20, kRun);
    std::vector<EventJournal::Frame> appended;
    for (int i = 0; i < 5; ++i) {
        appended.push_back(journal.Append("e", std::to_string(i)));
    }
    for (std::size_t seen = 0; seen <= 5; ++seen) {
        const auto resumed = journal.After(kRunText + "-" + std::to_string(seen));
        EXPECT_FALSE(resumed.reset);
        ASSERT_EQ(resumed.frames.size(), 5 - seen);
        for (std::size_t i = 0; i < resumed.frames.size(); ++i) {
            EXPECT_EQ(resumed.frames[i].get(), appended[seen + i].get());  // the same string, shared
        }
    }
    EXPECT_TRUE(EventJournal(4, 1 << 20, kRun).After(kRunText + "-0").frames.empty());
}

TEST(EventJournal, KeepsTheLastFramesWithinCountAndBytesAndTheNewestAlways) {
    EventJournal byCount(3, 1 << 20, kRun);
    for (int i = 0; i < 10; ++i) {
        byCount.Append("e", "x");
    }
    EXPECT_EQ(byCount.KeptFrames(), 3u);
    EXPECT_EQ(byCount.After(kRunText + "-7").frames.size(), 3u);  // 8, 9, 10 kept
    EXPECT_EQ(ResetReason(*byCount.After(kRunText + "-6").frames.at(0), kRunText + "-10"),
              "The events after this id are no longer kept.");

    const std::size_t frameBytes = byCount.Append("e", "x")->size();  // id 11: same size as 10's
    EventJournal byBytes(100, 2 * frameBytes, kRun);
    for (int i = 0; i < 9; ++i) {
        byBytes.Append("e", "x");
    }
    EXPECT_EQ(byBytes.KeptFrames(), 2u);
    EXPECT_LE(byBytes.KeptBytes(), 2 * frameBytes);
    EXPECT_TRUE(byBytes.After(kRunText + "-6").reset);

    byBytes.Append("big", std::string(10 * frameBytes, 'b'));
    EXPECT_EQ(byBytes.KeptFrames(), 1u);
    const auto resumed = byBytes.After(kRunText + "-9");
    ASSERT_EQ(resumed.frames.size(), 1u);
    EXPECT_FALSE(resumed.reset);
}

struct BadId {
    std::string name;
    std::string id;
    std::string reason;
};

class EventJournalBadId : public ::testing::TestWithParam<BadId> {};

// A client's id is any text: whatever it is, the journal answers one reset with the latest id and never
// quotes the id back.
TEST_P(EventJournalBadId, GivesOneResetWithTheLatestId) {
    EventJournal journal(8, 1 << 20, kRun);
    for (int i = 0; i < 3; ++i) {
        journal.Append("e", "x");
    }
    const auto resumed = journal.After(GetParam().id);
    EXPECT_TRUE(resumed.reset);
    ASSERT_EQ(resumed.frames.size(), 1u);
    EXPECT_EQ(ResetReason(*resumed.frames[0], kRunText + "-3"), GetParam().reason);
}

const std::string kMalformed = "The event id is malformed.";

INSTANTIATE_TEST_SUITE_P(
    Attacks, EventJournalBadId,
    ::testing::Values(
        BadId{"Dash", "-", kMalformed}, BadId{"Empty", "", kMalformed},
        BadId{"TenKilobytes", std::string(10 * 1024, '7'), kMalformed},
        BadId{"TenKilobytesAfterTheRun", kRunText + "-" + std::string(10 * 1024, '1'), kMalformed},
        BadId{"NotUtf8", kRunText + "-\xff\xfe", kMalformed},
        BadId{"NulInside",
              std::string("1a2b3c4d-\0"
                          "1",
                          11),
              kMalformed},
        BadId{"NoNumber", kRunText + "-", kMalformed}, BadId{"NoRun", "-1", kMalformed},
        BadId{"UppercaseRun", "1A2B3C4D-1", kMalformed}, BadId{"ShortRun", "1a2b3c-1", kMalformed},
        BadId{"Negative", kRunText + "--1", kMalformed}, BadId{"Signed", kRunText + "-+1", kMalformed},
        BadId{"LeadingZero", kRunText + "-01", kMalformed}, BadId{"Spaces", kRunText + "- 1", kMalformed},
        BadId{"BeyondSixtyFourBits", kRunText + "-18446744073709551616", kMalformed},
        BadId{"TwentyOneDigits", kRunText + "-100000000000000000000", kMalformed},
        BadId{"AnotherRun", "0badc0de-2", "The event id is from another run of the server."},
        BadId{"AheadByOne", kRunText + "-4", "The event id is ahead of the latest event."},
        BadId{"LargestNumber", kRunText + "-18446744073709551615",
              "The event id is ahead of the latest event."}),
    [](const auto& info) { return info.param.name; });

}  // namespace
