// The byte and text work of the tools: ids, hex, message lines, watchdog bookkeeping.
#include <gtest/gtest.h>

#include <cstring>

#include "EventNames.h"
#include "MessageText.h"
#include "WatchdogTracker.h"

namespace {

using pmtools::CWatchdogTracker;

TEST(ParseEventIdTest, ReadsOrRejects) {
    struct {
        const char* text;
        bool ok;
        uint32_t id;
    } const rows[] = {
        {"1149", true, 1149},
        {"0X00FFFF01", true, 0x00FFFF01},
        {"serial-param-changed", true, 316},
        {"get-device-module-state.answer", true, 33917},
        {"watchdog.answer", false, 0},  // the watchdog is nobody's request
        {"4294967296", false, 0},
        {"0x", false, 0},
        {"316x", false, 0},
        {"no-such-event", false, 0},
        {"", false, 0},
    };
    for (const auto& row : rows) {
        uint32_t id = 0xDEADBEEF;
        EXPECT_EQ(pmtools::ParseEventId(row.text, id), row.ok) << row.text;
        if (row.ok) {
            EXPECT_EQ(id, row.id) << row.text;
        }
    }
}

TEST(ParseHexTest, ReadsOrRejects) {
    struct {
        const char* text;
        bool ok;
        std::vector<uint8_t> bytes;
    } const rows[] = {
        {"", true, {}},
        {"0102fF", true, {0x01, 0x02, 0xFF}},
        {" 01 02\tff ", true, {0x01, 0x02, 0xFF}},
        {"0x7e,0x7F:de", true, {0x7E, 0x7F, 0xDE}},
        {"012", false, {}},
        {"0 1", false, {}},  // a pair split by a space
        {"0g", false, {}},
        {"0x", false, {}},
    };
    for (const auto& row : rows) {
        std::vector<uint8_t> bytes;
        std::string error;
        EXPECT_EQ(pmtools::ParseHexBytes(row.text, bytes, error), row.ok) << row.text;
        if (row.ok) {
            EXPECT_EQ(bytes, row.bytes) << row.text;
        } else {
            EXPECT_FALSE(error.empty()) << row.text;
        }
    }
}

std::vector<uint8_t> Message(uint32_t id, uint32_t seq, uint32_t flagsAndLength,
                             const std::vector<uint8_t>& payload) {
    const uint32_t words[] = {id, 1, seq, flagsAndLength};
    std::vector<uint8_t> m(sizeof words + payload.size());
    memcpy(m.data(), words, sizeof words);
    std::copy(payload.begin(), payload.end(), m.begin() + sizeof words);
    return m;
}

TEST(FormatMessageTest, LinesStayWithinWhatArrived) {
    std::vector<uint8_t> twenty(20);
    for (size_t i = 0; i < twenty.size(); ++i) {
        twenty[i] = static_cast<uint8_t>(i == 0 ? 'A' : i);
    }
    std::vector<uint8_t> version(245);
    version[1] = 1;
    version[3] = 4;
    version[10] = 1;
    memcpy(version.data() + 21, "Extension box", 13);
    memcpy(version.data() + 37, "BOX-MCU-1", 9);
    struct {
        const char* what;
        std::vector<uint8_t> message;
        bool hex;
        const char* line;  // after the clock, which depends on the time zone
    } const rows[] = {
        {"both flags, unknown id", Message(4242, 2, 3u << 23, {}), false,
         "4242 ? from=1 seq=2 request+answer len=0"},
        {"the watchdog's id has the answer bit, yet it is nobody's answer",
         Message(0x00FFFF01, 2, 0, {}), false, "16776961 watchdog from=1 seq=2 - len=0"},
        {"summary of 16 bytes", Message(316, 2, 20, twenty), false,
         "316 serial-param-changed from=1 seq=2 - len=20 | 41 01 02 03 04 05 06 07 08 09 0a 0b "
         "0c 0d 0e 0f ..."},
        {"a head claiming more than arrived", Message(316, 2, 0x7FFFFF, {0xAB}), false,
         "316 serial-param-changed from=1 seq=2 - len=8388607 (got 1) | ab"},
        {"full hex", Message(316, 2, 20, twenty), true,
         "316 serial-param-changed from=1 seq=2 - len=20 | 41 01 02 03 04 05 06 07 08 09 0a 0b "
         "0c 0d 0e 0f ...\n    0000  41 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f  "
         "|A...............|\n    0010  10 11 12 13                                      |....|"},
        {"shorter than a head", {1, 2, 3}, false, "short message (3 bytes): 01 02 03"},
        {"a box's version, read by its fields", Message(6710, 2, 245, version), false,
         "6710 extend-version from=1 seq=2 - len=245 | 00 01 00 04 00 00 00 00 00 00 01 00 00 "
         "00 00 00 ... = box 1:0 dev 04 source 0 count 1 flag \"Extension box\" version "
         "\"BOX-MCU-1\""},
        {"a version record cut short stays bytes", Message(6710, 2, 245, {0, 1}), false,
         "6710 extend-version from=1 seq=2 - len=245 (got 2) | 00 01"},
    };
    for (const auto& row : rows) {
        struct timeval when = {0, 0};
        std::string line =
            pmtools::FormatMessage(row.message.data(), row.message.size(), when, row.hex);
        EXPECT_EQ(line.substr(line.find(' ') + 1), row.line) << row.what;
    }
}

using Warnings = std::vector<std::string>;

TEST(WatchdogTrackerTest, WarnsOncePerSilentPeriod) {
    CWatchdogTracker tracker(1000, 500);
    EXPECT_EQ(tracker.Check(1499), Warnings{});
    EXPECT_EQ(tracker.Check(1500), Warnings{"pm-host: watchdog: no client has fed its watchdog in "
                                            "the 1000 ms since the service was created"});
    EXPECT_EQ(tracker.Feed("BasicService.10", 1600), "");
    EXPECT_EQ(tracker.Check(2599), Warnings{}) << "the start warning comes once";
    EXPECT_EQ(tracker.Check(2600), Warnings{"pm-host: watchdog: \"BasicService.10\" has not fed "
                                            "its watchdog for 1000 ms"});
    EXPECT_EQ(tracker.Check(5000), Warnings{});
    EXPECT_EQ(tracker.Feed("BasicService.10", 5000),
              "pm-host: watchdog: \"BasicService.10\" feeds its watchdog again");
    EXPECT_EQ(tracker.Check(5999), Warnings{});
    EXPECT_EQ(tracker.Check(6000).size(), 1u);
}

TEST(WatchdogTrackerTest, FeedPayloadIsBounded) {
    std::vector<uint8_t> payload(40, 'x');  // a name of all 32 bytes has no terminator
    const uint64_t clock = 0x8000000000000201ULL;
    memcpy(&payload[32], &clock, 8);
    std::string name;
    long long got = 0;
    ASSERT_TRUE(CWatchdogTracker::ParseFeed(payload.data(), payload.size(), name, got));
    EXPECT_EQ(name, std::string(32, 'x'));
    EXPECT_EQ(static_cast<uint64_t>(got), clock);
    EXPECT_FALSE(CWatchdogTracker::ParseFeed(payload.data(), 39, name, got));
    EXPECT_FALSE(CWatchdogTracker::ParseFeed(nullptr, 40, name, got));
}

}  // namespace
