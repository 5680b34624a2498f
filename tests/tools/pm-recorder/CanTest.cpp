// CAN on the simulator's side: filters as the service sends them, frames as people write
// them, the J1939 capture, and replay timing on an outside clock.
#include <gtest/gtest.h>

#include "CanText.h"
#include "Messages.h"

namespace {

using namespace pmrecorder;

Bytes FilterPayload(uint8_t count, const Bytes& items) {
    Bytes b{0, count, 0x10, 0x00};  // port 0, count, minimum period 16
    b.insert(b.end(), items.begin(), items.end());
    return b;
}

struct FilterCase {
    const char* what;
    Bytes payload;
    bool ok;
    std::vector<CanFilterEntry> entries;
};

void PrintTo(const FilterCase& c, std::ostream* os) {
    *os << c.what;
}

using Entries = std::vector<CanFilterEntry>;

const FilterCase kFilterCases[] = {
    {"an exact id travels big-endian", FilterPayload(1, {0x00, 0x00, 0x01, 0x23}), true,
     Entries{{0x123, 0xFFFFFFFF, false}}},
    {"a masked id travels little-endian with the 0xFF mark, then its mask",
     FilterPayload(1, {0x23, 0x01, 0x00, 0xFF, 0xF0, 0x07, 0x00, 0x00}), true,
     Entries{{0x123, 0x7F0, true}}},
    {"mixed entries in list order",
     FilterPayload(2, {0x18, 0xFE, 0xF1, 0x31, 0x00, 0xF1, 0xFE, 0xFF, 0x00, 0xFF, 0xFF, 0x00}),
     true, Entries{{0x18FEF131, 0xFFFFFFFF, false}, {0xFEF100, 0x00FFFF00, true}}},
    {"an exact id ending in FF is not taken for a mark when the length says so",
     FilterPayload(2, {0x00, 0x00, 0x01, 0xFF, 0x00, 0x00, 0x02, 0x00}), true,
     Entries{{0x1FF, 0xFFFFFFFF, false}, {0x200, 0xFFFFFFFF, false}}},
    {"a count the bytes cannot hold", FilterPayload(3, {0x00, 0x00, 0x01, 0x23}), false, Entries{}},
    {"a masked item cut short", FilterPayload(1, {0x23, 0x01, 0x00, 0xFF, 0xF0}), false, Entries{}},
    {"no head", Bytes{0x00, 0x01}, false, Entries{}},
};

class FilterDecodeTest : public ::testing::TestWithParam<FilterCase> {};

TEST_P(FilterDecodeTest, EntriesOrRefusal) {
    const FilterCase& c = GetParam();
    CanFilterList list;
    std::string error;
    ASSERT_EQ(DecodeCanFilter(c.payload.data(), c.payload.size(), list, error), c.ok) << error;
    if (c.ok) {
        EXPECT_EQ(list.minPeriod, 0x10);
        EXPECT_EQ(list.entries, c.entries);
        EXPECT_EQ(EncodeCanFilter(list), c.payload) << "round trip";
    } else {
        EXPECT_FALSE(error.empty());
    }
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

TEST(CansendTest, ParsesAndPrintsBack) {
    struct {
        const char* text;
        const char* canonical;  // nullptr: refused
    } const rows[] = {
        {"123#DEADBEEF", "123#DEADBEEF"},
        {"18fef100#de.ad.be.ef", "18FEF100#DEADBEEF"},
        {"800#11", nullptr},      // beyond 11 bits
        {"12#11", nullptr},       // neither 3 nor 8 digits
        {"123#R", nullptr},       // remote
        {"123##1DEAD", nullptr},  // CAN FD
        {"123#010203040506070809", nullptr},
    };
    for (const auto& row : rows) {
        CanFrame f;
        std::string error;
        EXPECT_EQ(ParseCansend(row.text, f, error), row.canonical != nullptr) << row.text;
        if (row.canonical) {
            EXPECT_EQ(FormatCansend(f), row.canonical);
        } else {
            EXPECT_FALSE(error.empty()) << row.text;
        }
    }
}

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

// Replay keeps the log's gaps in proportion at any speed; the playlist hands frames out on an
// outside clock, round after round.
TEST(ReplayTest, KeepsTheLogsGapsOnAnOutsideClock) {
    std::vector<CandumpRecord> log(4);
    const int64_t stamps[] = {1000000, 1000100, 1000400, 1000300};  // the last goes backwards
    for (size_t i = 0; i < log.size(); ++i) {
        log[i].timeUs = 5000000000 + stamps[i];
        log[i].interface = i == 1 ? "vcan2" : "can0";
    }
    auto offsets = [](const std::vector<PlannedFrame>& frames) {
        std::vector<int64_t> out;
        for (const PlannedFrame& f : frames) {
            out.push_back(f.offsetUs);
        }
        return out;
    };
    std::vector<PlannedFrame> once = PlanReplay(log, 1);
    EXPECT_EQ(offsets(once), (std::vector<int64_t>{0, 100, 400, 400}));
    EXPECT_EQ(offsets(PlanReplay(log, 4)), (std::vector<int64_t>{0, 25, 100, 100}));
    EXPECT_EQ(once[1].port, 2);

    CanPlaylist list;
    list.Load(once, 1000);
    EXPECT_TRUE(list.TakeDue(1000000).empty()) << "nothing before Start";
    list.Start(1000);
    EXPECT_EQ(list.TakeDue(1099).size(), 1u);
    EXPECT_EQ(list.TakeDue(1399).size(), 1u);
    EXPECT_EQ(list.TakeDue(2000).size(), 3u) << "the last two and the next round's first";
    CanPlaylist single;
    single.Load(once, 0);
    single.Start(0);
    EXPECT_EQ(single.TakeDue(400).size(), 4u);
    EXPECT_TRUE(single.Finished());
}

}  // namespace
