// The byte and text work of the tools: ids, hex, message lines, watchdog bookkeeping.
#include <gtest/gtest.h>

#include <cstring>

#include "EventNames.h"
#include "MessageText.h"
#include "ToolProcess.h"
#include "WatchdogTracker.h"

namespace {

using pmtools::CWatchdogTracker;

struct IdCase {
    const char* what;
    const char* text;
    bool ok;
    uint32_t id;
};

class ParseEventIdTest : public ::testing::TestWithParam<IdCase> {};

TEST_P(ParseEventIdTest, ReadsOrRejects) {
    const IdCase& c = GetParam();
    uint32_t id = 0xDEADBEEF;
    EXPECT_EQ(pmtools::ParseEventId(c.text, id), c.ok) << c.what;
    if (c.ok) {
        EXPECT_EQ(id, c.id) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseEventIdTest,
    ::testing::Values(IdCase{"decimal", "1149", true, 1149}, IdCase{"hex", "0x847d", true, 33917},
                      IdCase{"upper-case hex", "0X00FFFF01", true, 0x00FFFF01},
                      IdCase{"largest 32-bit", "4294967295", true, 0xFFFFFFFFu},
                      IdCase{"name", "serial-param-changed", true, 316},
                      IdCase{"answer of a request", "get-device-module-state.answer", true, 33917},
                      IdCase{"watchdog by name", "watchdog", true, 0x00FFFF01},
                      IdCase{"watchdog has no answer", "watchdog.answer", false, 0},
                      IdCase{"empty", "", false, 0},
                      IdCase{"beyond 32 bits", "4294967296", false, 0},
                      IdCase{"negative", "-1", false, 0}, IdCase{"bare 0x", "0x", false, 0},
                      IdCase{"trailing junk", "316x", false, 0},
                      IdCase{"unknown name", "no-such-event", false, 0},
                      IdCase{"bare suffix", ".answer", false, 0}),
    pmtest::RowName<IdCase>);

TEST(EventNamesTest, NamesRequestsAnswersAndTheWatchdog) {
    EXPECT_EQ(pmtools::NameOfEvent(1149), "get-device-module-state");
    EXPECT_EQ(pmtools::NameOfEvent(1149 | 0x8000), "get-device-module-state.answer");
    EXPECT_EQ(pmtools::NameOfEvent(6705 | 0x8000), "get-extend-upgrade-file.answer");
    // Its id carries the answer bit, yet it is nobody's answer.
    EXPECT_EQ(pmtools::NameOfEvent(0x00FFFF01), "watchdog");
    EXPECT_EQ(pmtools::NameOfEvent(12345), "");
    EXPECT_EQ(pmtools::NameOfEvent(12345 | 0x8000), "");
}

TEST(EventNamesTest, TableIsSortedUniqueAndEveryNameReadsBack) {
    const auto& table = pmtools::EventTable();
    for (size_t i = 0; i < table.size(); ++i) {
        if (i > 0) {
            EXPECT_LT(table[i - 1].id, table[i].id) << table[i].name;
        }
        uint32_t id = 0;
        ASSERT_TRUE(pmtools::ParseEventId(table[i].name, id)) << table[i].name;
        EXPECT_EQ(id, table[i].id) << table[i].name;
    }
}

TEST(EventNamesTest, ListStopsAtTheFirstBadEntry) {
    std::vector<uint32_t> ids;
    std::string bad;
    EXPECT_TRUE(pmtools::ParseEventIdList("316,0x10,watchdog", ids, bad));
    EXPECT_EQ(ids, (std::vector<uint32_t>{316, 16, 0x00FFFF01}));
    EXPECT_FALSE(pmtools::ParseEventIdList("316,,317", ids, bad));
    EXPECT_EQ(bad, "");
    EXPECT_FALSE(pmtools::ParseEventIdList("316,bogus", ids, bad));
    EXPECT_EQ(bad, "bogus");
}

struct HexCase {
    const char* what;
    const char* text;
    bool ok;
    std::vector<uint8_t> bytes;
};

class ParseHexTest : public ::testing::TestWithParam<HexCase> {};

TEST_P(ParseHexTest, ReadsOrRejects) {
    const HexCase& c = GetParam();
    std::vector<uint8_t> bytes;
    std::string error;
    EXPECT_EQ(pmtools::ParseHexBytes(c.text, bytes, error), c.ok) << c.what;
    if (c.ok) {
        EXPECT_EQ(bytes, c.bytes) << c.what;
    } else {
        EXPECT_FALSE(error.empty()) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseHexTest,
    ::testing::Values(HexCase{"empty", "", true, {}}, HexCase{"only spaces", "   ", true, {}},
                      HexCase{"packed", "0102fF", true, {0x01, 0x02, 0xFF}},
                      HexCase{"spaced", " 01 02\tff ", true, {0x01, 0x02, 0xFF}},
                      HexCase{"0x per byte", "0x7e,0x7F", true, {0x7E, 0x7F}},
                      HexCase{"colons", "de:ad", true, {0xDE, 0xAD}},
                      HexCase{"odd digit count", "012", false, {}},
                      HexCase{"pair split by a space", "0 1", false, {}},
                      HexCase{"not hex", "0g", false, {}},
                      HexCase{"0x without digits", "0x", false, {}}),
    pmtest::RowName<HexCase>);

std::vector<uint8_t> Message(uint32_t id, uint32_t sender, uint32_t seq, uint32_t flagsAndLength,
                             const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> m(16);
    for (int w = 0; w < 4; ++w) {
        uint32_t v = w == 0 ? id : w == 1 ? sender : w == 2 ? seq : flagsAndLength;
        for (int b = 0; b < 4; ++b) {
            m[static_cast<size_t>(w * 4 + b)] = static_cast<uint8_t>(v >> (8 * b));
        }
    }
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

std::string Line(const std::vector<uint8_t>& m, bool hex = false) {
    struct timeval when = {0, 0};
    std::string line = pmtools::FormatMessage(m.data(), m.size(), when, hex);
    return line.substr(line.find(' '));  // the clock depends on the time zone
}

TEST(FormatMessageTest, ShowsHeadFieldsAndFlags) {
    EXPECT_EQ(Line(Message(1149, 10, 3, 1u << 23, {})),
              " 1149 get-device-module-state from=10 seq=3 request len=0");
    EXPECT_EQ(Line(Message(33917, 0, 3, 1u << 24 | 4, {1, 0, 0, 0})),
              " 33917 get-device-module-state.answer from=0 seq=3 answer len=4 | 01 00 00 00");
    EXPECT_EQ(Line(Message(4242, 1, 2, 3u << 23, {})), " 4242 ? from=1 seq=2 request+answer len=0");
    EXPECT_EQ(Line(Message(316, 1, 2, 0, {})), " 316 serial-param-changed from=1 seq=2 - len=0");
}

TEST(FormatMessageTest, SummaryIsBoundedByWhatArrived) {
    std::vector<uint8_t> payload(20);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }
    std::string line = Line(Message(316, 1, 2, 20, payload));
    EXPECT_NE(line.find("len=20 | 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f ..."),
              std::string::npos)
        << line;
    // A head that claims more than arrived must not make the summary read beyond it.
    line = Line(Message(316, 1, 2, 0x7FFFFF, {0xAB}));
    EXPECT_NE(line.find("len=8388607 (got 1) | ab"), std::string::npos) << line;
}

TEST(FormatMessageTest, FullHexDumpsEveryByte) {
    std::vector<uint8_t> payload = {'A', 'B', 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 'z'};
    std::string line = Line(Message(316, 1, 2, 17, payload), true);
    EXPECT_NE(
        line.find("\n    0000  41 42 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d  |AB..............|"
                  "\n    0010  7a"),
        std::string::npos)
        << line;
    EXPECT_NE(line.back(), '\n');
}

TEST(FormatMessageTest, ShortMessageIsShownRaw) {
    std::vector<uint8_t> m = {1, 2, 3};
    EXPECT_EQ(Line(m), " short message (3 bytes): 01 02 03");
}

TEST(WatchdogTrackerTest, WarnsOncePerSilentPeriodAndNoticesTheReturn) {
    CWatchdogTracker tracker(1000, 0);
    EXPECT_EQ(tracker.Feed("BasicService.10", 100), "");
    EXPECT_TRUE(tracker.Check(1099).empty());
    auto warnings = tracker.Check(1100);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0],
              "pm-host: watchdog: \"BasicService.10\" has not fed its watchdog for 1000 ms");
    EXPECT_TRUE(tracker.Check(5000).empty());
    EXPECT_EQ(tracker.Feed("BasicService.10", 5000),
              "pm-host: watchdog: \"BasicService.10\" feeds its watchdog again");
    EXPECT_TRUE(tracker.Check(5999).empty());
    EXPECT_EQ(tracker.Check(6000).size(), 1u);
}

TEST(WatchdogTrackerTest, EachNameIsWatchedOnItsOwn) {
    CWatchdogTracker tracker(1000, 0);
    tracker.Feed("a", 0);
    tracker.Feed("", 0);
    tracker.Feed("a", 900);
    auto warnings = tracker.Check(1000);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("(unnamed) has not fed"), std::string::npos) << warnings[0];
    EXPECT_EQ(tracker.NamesSeen(), 2u);
}

TEST(WatchdogTrackerTest, StartWarningOnlyWhenNothingWasFed) {
    CWatchdogTracker silent(1000, 500);
    EXPECT_TRUE(silent.Check(1499).empty());
    auto warnings = silent.Check(1500);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("no client has fed its watchdog in the 1000 ms"), std::string::npos);
    EXPECT_TRUE(silent.Check(9000).empty());

    CWatchdogTracker fed(1000, 500);
    fed.Feed("a", 1400);
    EXPECT_TRUE(fed.Check(1500).empty());
}

TEST(WatchdogTrackerTest, ParsesTheFeedPayload) {
    std::vector<uint8_t> payload(40, 0);
    memcpy(payload.data(), "BasicService.10", 15);
    payload[32] = 0x01;
    payload[33] = 0x02;
    payload[39] = 0x80;
    std::string name;
    long long clock = 0;
    ASSERT_TRUE(CWatchdogTracker::ParseFeed(payload.data(), payload.size(), name, clock));
    EXPECT_EQ(name, "BasicService.10");
    EXPECT_EQ(static_cast<unsigned long long>(clock), 0x8000000000000201ULL);

    // A name that fills all 32 bytes has no terminator; it must stop at 32.
    std::fill(payload.begin(), payload.begin() + 32, 'x');
    ASSERT_TRUE(CWatchdogTracker::ParseFeed(payload.data(), payload.size(), name, clock));
    EXPECT_EQ(name, std::string(32, 'x'));

    EXPECT_FALSE(CWatchdogTracker::ParseFeed(payload.data(), 39, name, clock));
    EXPECT_FALSE(CWatchdogTracker::ParseFeed(nullptr, 40, name, clock));
}

}  // namespace
