// CAN on the simulator's side: filters as the service sends them, frames as people write
// them, packing for the service, and replay timing.
#include <gtest/gtest.h>

#include "CanText.h"
#include "Messages.h"

namespace {

using namespace pmrecorder;

Bytes FilterPayload(uint8_t port, uint8_t count, const Bytes& items) {
    Bytes b{port, count, 0x10, 0x00};
    b.insert(b.end(), items.begin(), items.end());
    return b;
}

struct FilterCase {
    const char* what;
    Bytes payload;
    std::vector<CanFilterEntry> entries;  // empty with ok false: refused
    bool ok;
};

void PrintTo(const FilterCase& c, std::ostream* os) {
    *os << c.what;
}

const FilterCase kFilterCases[] = {
    {"an exact id travels big-endian",
     FilterPayload(0, 1, {0x00, 0x00, 0x01, 0x23}),
     {{0x123, 0xFFFFFFFF, false}},
     true},
    {"a masked id travels little-endian with the 0xFF mark, then its mask",
     FilterPayload(0, 1, {0x23, 0x01, 0x00, 0xFF, 0xF0, 0x07, 0x00, 0x00}),
     {{0x123, 0x7F0, true}},
     true},
    {"mixed entries in list order",
     FilterPayload(1, 3,
                   {0x18, 0xFE, 0xF1, 0x31, 0x00, 0xF1, 0xFE, 0xFF, 0x00, 0xFF, 0xFF, 0x00, 0x00,
                    0x00, 0x07, 0xFF}),
     {{0x18FEF131, 0xFFFFFFFF, false}, {0xFEF100, 0x00FFFF00, true}, {0x7FF, 0xFFFFFFFF, false}},
     true},
    {"an exact id ending in FF is not taken for a mark when the length says so",
     FilterPayload(0, 2, {0x00, 0x00, 0x01, 0xFF, 0x00, 0x00, 0x02, 0x00}),
     {{0x1FF, 0xFFFFFFFF, false}, {0x200, 0xFFFFFFFF, false}},
     true},
    {"an empty filter", FilterPayload(2, 0, {}), {}, true},
    {"a count the bytes cannot hold", FilterPayload(0, 3, {0x00, 0x00, 0x01, 0x23}), {}, false},
    {"a masked item cut short", FilterPayload(0, 1, {0x23, 0x01, 0x00, 0xFF, 0xF0}), {}, false},
    {"no head", Bytes{0x00, 0x01}, {}, false},
};

class FilterDecodeTest : public ::testing::TestWithParam<FilterCase> {};

TEST_P(FilterDecodeTest, Entries) {
    const FilterCase& c = GetParam();
    CanFilterList list;
    std::string error;
    ASSERT_EQ(DecodeCanFilter(c.payload.data(), c.payload.size(), list, error), c.ok) << error;
    if (!c.ok) {
        EXPECT_FALSE(error.empty());
        return;
    }
    EXPECT_EQ(list.port, c.payload[0]);
    EXPECT_EQ(list.minPeriod, 0x10);
    EXPECT_EQ(list.entries, c.entries);
    EXPECT_EQ(EncodeCanFilter(list), c.payload) << "round trip";
}

INSTANTIATE_TEST_SUITE_P(Can, FilterDecodeTest, ::testing::ValuesIn(kFilterCases));

TEST(CanFilterTest, MatchesExactIdsWhollyAndMaskedIdsUnderTheirMask) {
    std::vector<CanFilterEntry> entries = {{0x123, 0xFFFFFFFF, false}, {0x120, 0x7F0, true}};
    EXPECT_TRUE(FiltersTake(entries, 0x123));
    EXPECT_TRUE(FiltersTake(entries, 0x12F));
    EXPECT_FALSE(FiltersTake(entries, 0x130));
    EXPECT_FALSE(FiltersTake({{0x123, 0xFFFFFFFF, false}}, 0x1123));
    // The top byte of a masked id does not travel: a J1939 PGN filter takes any priority.
    std::vector<CanFilterEntry> pgn = {{0xFEF100, 0x03FFFF00, true}};
    EXPECT_TRUE(FiltersTake(pgn, 0x18FEF131));
    EXPECT_TRUE(FiltersTake(pgn, 0x0CFEF100));
    EXPECT_FALSE(FiltersTake(pgn, 0x18FEF231));
    EXPECT_FALSE(FiltersTake({}, 0x123));
}

TEST(CanReceiveTest, PacksSixteenByteItemsUpToTheLimitPerEvent) {
    CanFrame a;
    CanFrame b;
    std::string error;
    ASSERT_TRUE(ParseCansend("0CF00400#207D87481400F087", a, error));
    ASSERT_TRUE(ParseCansend("123#AABB", b, error));
    std::vector<Bytes> events = EncodeCanReceive(12, 1, 2, {a, b, a}, 2);
    ASSERT_EQ(events.size(), 2u);
    const Bytes& e = events[0];
    ASSERT_EQ(e.size(), 8u + 2 * 16);
    EXPECT_EQ(Bytes(e.begin(), e.begin() + 8), (Bytes{12, 0, 1, 0, 2, 0, 2, 0}));
    EXPECT_EQ(Bytes(e.begin() + 8, e.begin() + 24),
              (Bytes{0x00, 0x04, 0xF0, 0x0C, 8, 0, 0, 0, 0x20, 0x7D, 0x87, 0x48, 0x14, 0x00, 0xF0,
                     0x87}));
    EXPECT_EQ(Bytes(e.begin() + 24, e.begin() + 40),
              (Bytes{0x23, 0x01, 0, 0, 2, 0, 0, 0, 0xAA, 0xBB, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(events[1][6], 1);
}

TEST(CanSendTest, ReadsTheServicesFrameAndCutsAnOverlongLength) {
    Bytes p(24, 0);
    p[0] = 12;
    p[6] = 1;
    p[8] = 0x31;
    p[9] = 0xF1;
    p[10] = 0xFE;
    p[11] = 0x18;
    p[12] = 12;
    for (int i = 0; i < 8; ++i) {
        p[16 + i] = static_cast<uint8_t>(i);
    }
    CanSendRequest r;
    std::string note;
    ASSERT_TRUE(DecodeCanSend(p.data(), p.size(), r, note));
    EXPECT_FALSE(note.empty());
    EXPECT_EQ(r.mainId, 12);
    EXPECT_EQ(FormatCansend(r.frame), "18FEF131#0001020304050607");
    EXPECT_FALSE(DecodeCanSend(p.data(), 23, r, note));
}

struct CansendCase {
    const char* text;
    bool ok;
    const char* canonical;  // how it prints back
};

void PrintTo(const CansendCase& c, std::ostream* os) {
    *os << c.text;
}

const CansendCase kCansendCases[] = {
    {"123#DEADBEEF", true, "123#DEADBEEF"},
    {"18fef100#de.ad.be.ef", true, "18FEF100#DEADBEEF"},
    {"7FF#", true, "7FF#"},
    {"1FFFFFFF#0102030405060708", true, "1FFFFFFF#0102030405060708"},
    {"800#11", false, ""},       // beyond 11 bits
    {"20000000#11", false, ""},  // beyond 29 bits
    {"12#11", false, ""},        // neither 3 nor 8 digits
    {"123#R", false, ""},        // remote
    {"123##1DEAD", false, ""},   // CAN FD
    {"123#010203040506070809", false, ""},
    {"123#ABC", false, ""},
    {"123", false, ""},
};

class CansendTest : public ::testing::TestWithParam<CansendCase> {};

TEST_P(CansendTest, ParsesAndPrintsBack) {
    CanFrame f;
    std::string error;
    ASSERT_EQ(ParseCansend(GetParam().text, f, error), GetParam().ok) << error;
    if (GetParam().ok) {
        EXPECT_EQ(FormatCansend(f), GetParam().canonical);
    } else {
        EXPECT_FALSE(error.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Can, CansendTest, ::testing::ValuesIn(kCansendCases));

TEST(CandumpTest, TheCaptureReadsAndPrintsBackLineForLine) {
    std::vector<CandumpRecord> records;
    std::string error;
    ASSERT_TRUE(LoadCandumpFile(PM_CAN_SAMPLE, records, error)) << error;
    ASSERT_EQ(records.size(), 12u);
    EXPECT_EQ(records[6].frame.id, 0x0CF00400u);
    EXPECT_TRUE(records[6].frame.extended);
    EXPECT_EQ(records[0].timeUs, 1543509533000838);
    EXPECT_EQ(FormatCandumpLine(records[11]), "(1543509533.001528) can0 18FEF131#F7FFFF07CCFFFFFF");
    for (const CandumpRecord& r : records) {
        CandumpRecord again;
        ASSERT_TRUE(ParseCandumpLine(FormatCandumpLine(r), again, error)) << error;
        EXPECT_EQ(again.timeUs, r.timeUs);
        EXPECT_EQ(again.frame, r.frame);
    }
    CandumpRecord r;
    EXPECT_FALSE(ParseCandumpLine("(1543509533.0008) can0 123#11", r, error));
    EXPECT_FALSE(ParseCandumpLine("(1543509533.000838) can0 123#11 trailing", r, error));
}

TEST(ReplayTest, KeepsTheLogsGapsInProportionAtAnySpeed) {
    std::vector<CandumpRecord> log(4);
    const int64_t stamps[] = {1000000, 1000100, 1000400, 1000300};  // the last goes backwards
    for (size_t i = 0; i < log.size(); ++i) {
        log[i].timeUs = 5000000000 + stamps[i];
        log[i].interface = i == 1 ? "vcan2" : "can0";
    }
    std::vector<PlannedFrame> once = PlanReplay(log, 1);
    std::vector<PlannedFrame> fast = PlanReplay(log, 4);
    ASSERT_EQ(once.size(), 4u);
    EXPECT_EQ(once[0].offsetUs, 0);
    EXPECT_EQ(once[1].port, 2);
    // Gap ratios of the log, 100 : 300, kept; four times as fast is a quarter of each offset.
    EXPECT_EQ(once[2].offsetUs - once[1].offsetUs, 3 * (once[1].offsetUs - once[0].offsetUs));
    EXPECT_EQ(fast[2].offsetUs * 4, once[2].offsetUs);
    EXPECT_EQ(once[3].offsetUs, once[2].offsetUs);
}

TEST(PlaylistTest, HandsOutFramesOnAnOutsideClockAndRepeats) {
    std::vector<PlannedFrame> frames(2);
    frames[0].offsetUs = 100;
    frames[1].offsetUs = 300;
    CanPlaylist list;
    list.Load(frames, 500);
    EXPECT_TRUE(list.TakeDue(1000000).empty()) << "nothing before Start";
    list.Start(1000);
    EXPECT_TRUE(list.TakeDue(1099).empty());
    EXPECT_EQ(list.TakeDue(1100).size(), 1u);
    EXPECT_EQ(list.TakeDue(1299).size(), 0u);
    EXPECT_EQ(list.TakeDue(1600).size(), 2u) << "second frame and the next round's first";
    EXPECT_FALSE(list.Finished());
    CanPlaylist once;
    once.Load(frames, 0);
    once.Start(0);
    EXPECT_EQ(once.TakeDue(10000).size(), 2u);
    EXPECT_TRUE(once.Finished());
}

}  // namespace
