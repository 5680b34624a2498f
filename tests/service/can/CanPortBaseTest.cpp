// The CAN peripheral base against the real manager and bus, with a stand-in CAN module.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "CanPortBase.h"
#include "ServiceHarness.h"

using cantest::CanDataEvent;
using cantest::CanItem;
using cantest::ServiceHarness;

namespace {

// No library is configured for this main id, so only the test's own instances use it.
constexpr unsigned int kMainId = 40;
constexpr uint8_t kPortIndex = 2;
constexpr uint32_t kMsgId = 2 * 10000 + kMainId * 100;  // CAN kind, sub id 0

class TestCanPort : public CCanPortBase {
public:
    using CCanPortBase::CCanPortBase;
    struct Frame {
        uint32_t canId;
        std::vector<uint8_t> data;
    };
    int ProcessPeripheralData(const char* data, unsigned int length, unsigned int canId) override {
        frames.push_back({canId, std::vector<uint8_t>(data, data + length)});
        return 0;
    }
    std::vector<Frame> frames;
};

class CanPortBaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        paramCanSetting_t setting{};
        setting.port[kPortIndex].mainFun = kMainId;
        ASSERT_TRUE(harness.SendCanSetting(setting));
        port = NewPort(0);
    }

    std::unique_ptr<TestCanPort> NewPort(unsigned int subId) {
        return std::make_unique<TestCanPort>(&harness.Manager(), harness.ManagerClient(), kMainId,
                                             subId);
    }

    // Sends a 1089 event and pumps until every instance has logged it.
    void Deliver(const std::vector<uint8_t>& payload, size_t instances = 1) {
        size_t before = harness.Logs().Count("C_BASE: Recv data");
        harness.Send(1089, payload);
        ASSERT_TRUE(harness.Pump(
            [&] { return harness.Logs().Count("C_BASE: Recv data") >= before + instances; }));
    }

    // Sends the filter and returns what the CAN module received.
    std::vector<uint8_t> FilterOf(TestCanPort& p) {
        size_t before = harness.Filters().size();
        p.SetCanPortFilter();
        EXPECT_TRUE(harness.Pump([&] { return harness.Filters().size() > before; }));
        return harness.Filters().back().payload;
    }

    ServiceHarness harness;
    std::unique_ptr<TestCanPort> port;
};

TEST_F(CanPortBaseTest, FindsItsPortAndIsOpenFromConstruction) {
    EXPECT_EQ(kPortIndex, port->GetCanPortId());
    EXPECT_TRUE(port->GetCurPeripOpenStatus());
    EXPECT_EQ(kMsgId, port->GetMsgId());

    auto unknown = NewPort(7);
    EXPECT_EQ(255, unknown->GetCanPortId());
    EXPECT_TRUE(
        harness.Logs().Contains("C_BASE: Get Can Port param id error, mainId = 40, subId = 7\n"));
}

// ---- receive-id list ----------------------------------------------------------------------

struct AddCase {
    const char* what;
    uint32_t firstId, firstMask, secondId, secondMask;
    int expected;
};

void PrintTo(const AddCase& c, std::ostream* os) {
    *os << c.what;
}

class RecvIdListTest : public CanPortBaseTest, public ::testing::WithParamInterface<AddCase> {};

TEST_P(RecvIdListTest, SecondAddFollowsMaskedEquivalence) {
    const AddCase& c = GetParam();
    ASSERT_EQ(0, port->AddOneRecvCanId(c.firstId, c.firstMask));
    EXPECT_EQ(c.expected, port->AddOneRecvCanId(c.secondId, c.secondMask));
    const auto& list = port->GetRecvIdList();
    ASSERT_EQ(c.expected == 0 ? 2u : 1u, list.size());
    // A refused add leaves the old entry as it was.
    EXPECT_EQ(c.firstId, list.front().canId);
    EXPECT_EQ(c.firstMask, list.front().mask);
    EXPECT_EQ(c.firstMask != 0xFFFFFFFFu, list.front().bHasMask);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RecvIdListTest,
    ::testing::Values(AddCase{"same masked value under one mask", 0x180, 0x700, 0x100, 0x700, -1},
                      AddCase{"same exact id twice", 0x123, 0xFFFFFFFF, 0x123, 0xFFFFFFFF, -1},
                      AddCase{"exact id equal to another entry's masked value", 0x100, 0x700, 0x100,
                              0xFFFFFFFF, -1},
                      AddCase{"different masked values", 0x180, 0x780, 0x100, 0x780, 0},
                      AddCase{"exact and masked with other values", 0x123, 0xFFFFFFFF, 0x123, 0x7F0,
                              0}),
    [](const ::testing::TestParamInfo<AddCase>& info) {
        return "Case" + std::to_string(info.index);
    });

TEST_F(CanPortBaseTest, DeleteRemovesEveryEquivalentEntry) {
    ASSERT_EQ(0, port->AddOneRecvCanId(0x123, 0xFFFFFFFF));
    ASSERT_EQ(0, port->AddOneRecvCanId(0x180, 0x780));
    ASSERT_EQ(0, port->AddOneRecvCanId(0x200, 0xFFFFFFFF));
    EXPECT_EQ(0, port->DeleteRecvCanId(0x1FF, 0x780));  // selects 0x180 as well
    ASSERT_EQ(2u, port->GetRecvIdList().size());
    EXPECT_EQ(0x123u, port->GetRecvIdList().front().canId);
    EXPECT_EQ(0x200u, port->GetRecvIdList().back().canId);
    EXPECT_TRUE(harness.Logs().Contains(
        "C_BASE: Delete one canId, mainId = 40, subId = 0, canId_mask = 0x180 (0x180, 0x780), "
        "(0x1ff, 0x780), size = 3\n"));
}

// ---- filter message 1137 ------------------------------------------------------------------

struct FilterCase {
    const char* what;
    uint32_t canId, mask;
    uint16_t minPeriod;
    std::vector<uint8_t> expected;
};

void PrintTo(const FilterCase& c, std::ostream* os) {
    *os << c.what;
}

class FilterBytesTest : public CanPortBaseTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(FilterBytesTest, EntryBytesAndHead) {
    const FilterCase& c = GetParam();
    port->SetCanFilterIntervalTime(c.minPeriod);
    ASSERT_EQ(0, port->AddOneRecvCanId(c.canId, c.mask));
    EXPECT_EQ(c.expected, FilterOf(*port)) << c.what;
    EXPECT_EQ(kMsgId, harness.Filters().back().sender);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FilterBytesTest,
    ::testing::Values(
        FilterCase{"exact id: big-endian",
                   0x123,
                   0xFFFFFFFF,
                   0,
                   {kPortIndex, 1, 0x00, 0x00, 0x00, 0x00, 0x01, 0x23}},
        FilterCase{"masked id: little-endian with the 0xFF mark, then the mask",
                   0x123,
                   0x7F0,
                   0,
                   {kPortIndex, 1, 0x00, 0x00, 0x23, 0x01, 0x00, 0xFF, 0xF0, 0x07, 0x00, 0x00}},
        FilterCase{"masked id: the mark replaces the id's top byte",
                   0x18FEF100,
                   0x00FFFF00,
                   0x1234,
                   {kPortIndex, 1, 0x34, 0x12, 0x00, 0xF1, 0xFE, 0xFF, 0x00, 0xFF, 0xFF, 0x00}}),
    [](const ::testing::TestParamInfo<FilterCase>& info) {
        return "Case" + std::to_string(info.index);
    });

TEST_F(CanPortBaseTest, FilterKeepsListOrderAndLogsItemBytes) {
    ASSERT_EQ(0, port->AddOneRecvCanId(0x123, 0x7F0));
    ASSERT_EQ(0, port->AddOneRecvCanId(0x456, 0xFFFFFFFF));
    std::vector<uint8_t> expected = {kPortIndex, 2,    0,    0,    0x23, 0x01, 0x00, 0xFF,
                                     0xF0,       0x07, 0x00, 0x00, 0x00, 0x00, 0x04, 0x56};
    EXPECT_EQ(expected, FilterOf(*port));
    EXPECT_TRUE(harness.Logs().Contains(
        "C_BASE: Set can port filter, mainId = 40, subId = 0, canPortId = 2, count = 2, "
        "length = 12 uiMinPeriod = 0 \n"));
}

TEST_F(CanPortBaseTest, FilterStopsAt1024ItemBytes) {
    for (uint32_t id = 0; id < 200; ++id) {
        ASSERT_EQ(0, port->AddOneRecvCanId(0x100 + id, 0x7FF));  // 8 bytes each
    }
    std::vector<uint8_t> filter = FilterOf(*port);
    EXPECT_EQ(128, filter[1]);
    EXPECT_EQ(4u + 1024u, filter.size());
    EXPECT_TRUE(harness.Logs().Contains("sent 128 of 200 entries"));
}

TEST_F(CanPortBaseTest, DestroyingAnInstanceSendsAnEmptyFilter) {
    auto second = NewPort(1);
    ASSERT_EQ(0, port->AddOneRecvCanId(0x123, 0xFFFFFFFF));
    size_t before = harness.Filters().size();
    port.reset();
    ASSERT_TRUE(harness.Pump([&] { return harness.Filters().size() > before; }));
    EXPECT_EQ((std::vector<uint8_t>{kPortIndex, 0, 0, 0}), harness.Filters().back().payload);

    // Its events went with it. The bus keeps order, so once the second instance has its own
    // frame, the frame sent before it has reached every handler there was.
    harness.Send(1089, CanDataEvent(kMainId, 0, 0, 1, {{0x123, 1, {0xAA}}}));
    harness.Send(1089, CanDataEvent(kMainId, 1, 0, 1, {{0x124, 1, {0xBB}}}));
    ASSERT_TRUE(harness.Pump([&] { return second->frames.size() == 1; }));
    EXPECT_EQ(2u, harness.Logs().Count("C_BASE: Recv data"));
    EXPECT_EQ(0x124u, second->frames[0].canId);
}

// ---- received frames 1089 -----------------------------------------------------------------

struct ReceiveCase {
    const char* what;
    uint16_t funcId, subId, count;
    std::vector<CanItem> items;
    size_t trailingBytes;             // bytes of an incomplete item after the items
    std::vector<uint32_t> delivered;  // CAN ids that reach the plug-in, in order
    size_t tooLargeLogs;
    bool boundedLog;
};

void PrintTo(const ReceiveCase& c, std::ostream* os) {
    *os << c.what;
}

const CanItem kA{0x101, 2, {0x01, 0x02}};
const CanItem kB{0x0CF00400, 8, {0x20, 0x7D, 0x87, 0x48, 0x14, 0x00, 0xF0, 0x87}};
const CanItem kC{0x303, 0, {}};
const CanItem kBad{0x404, 9, {1, 2, 3, 4, 5, 6, 7, 8}};

class ReceiveTest : public CanPortBaseTest, public ::testing::WithParamInterface<ReceiveCase> {};

TEST_P(ReceiveTest, DeliversWhatTheEventHolds) {
    const ReceiveCase& c = GetParam();
    std::vector<uint8_t> payload = CanDataEvent(c.funcId, c.subId, 1, c.count, c.items);
    payload.insert(payload.end(), c.trailingBytes, 0x55);
    Deliver(payload);

    std::vector<uint32_t> ids;
    for (const auto& frame : port->frames) {
        ids.push_back(frame.canId);
    }
    EXPECT_EQ(c.delivered, ids) << c.what;
    EXPECT_EQ(c.tooLargeLogs,
              harness.Logs().Count(
                  "C_BASE: Receive CAN data error, length is too large, length = 9 > 8\n"));
    EXPECT_EQ(c.boundedLog, harness.Logs().Contains("item count too large"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ReceiveTest,
    ::testing::Values(
        ReceiveCase{"three good items, in order",
                    kMainId,
                    0,
                    3,
                    {kA, kB, kC},
                    0,
                    {0x101, 0x0CF00400, 0x303},
                    0,
                    false},
        ReceiveCase{"a bad first item spends the whole count",
                    kMainId,
                    0,
                    3,
                    {kBad, kA, kB},
                    0,
                    {},
                    3,
                    false},
        ReceiveCase{"a bad middle item drops the rest",
                    kMainId,
                    0,
                    3,
                    {kA, kBad, kB},
                    0,
                    {0x101},
                    2,
                    false},
        ReceiveCase{"another main id is ignored", kMainId + 1, 0, 1, {kA}, 0, {}, 0, false},
        ReceiveCase{"another sub id is ignored", kMainId, 1, 1, {kA}, 0, {}, 0, false},
        ReceiveCase{"a count beyond the payload is bounded",
                    kMainId,
                    0,
                    500,
                    {kA, kC},
                    0,
                    {0x101, 0x303},
                    0,
                    true},
        ReceiveCase{
            "an incomplete last item is not read", kMainId, 0, 2, {kA}, 8, {0x101}, 0, true},
        ReceiveCase{"a count of zero delivers nothing", kMainId, 0, 0, {kA}, 0, {}, 0, false}),
    [](const ::testing::TestParamInfo<ReceiveCase>& info) {
        return "Case" + std::to_string(info.index);
    });

TEST_F(CanPortBaseTest, FrameDataAndLengthReachThePlugin) {
    Deliver(CanDataEvent(kMainId, 0, 1, 2, {kB, kC}));
    ASSERT_EQ(2u, port->frames.size());
    EXPECT_EQ(kB.data, port->frames[0].data);
    EXPECT_TRUE(port->frames[1].data.empty());
    EXPECT_TRUE(harness.Logs().Contains(
        "C_BASE: Recv data, mainId = 40, subId = 0, canPort = 1, uiItemNum = 2  \n"));
    EXPECT_TRUE(harness.Logs().Contains("canID: cf00400 \n"));
}

TEST_F(CanPortBaseTest, EachInstanceTakesOnlyItsOwnFrames) {
    auto second = NewPort(1);
    Deliver(CanDataEvent(kMainId, 1, 1, 1, {kA}), 2);
    EXPECT_TRUE(port->frames.empty());
    ASSERT_EQ(1u, second->frames.size());
    EXPECT_TRUE(
        harness.Logs().Contains("C_BASE: uiFuncId[40] != MainId[40] or uiSubId[1] != SubId[0]\n"));
}

TEST_F(CanPortBaseTest, ShortOrMissingEventsOnlyLog) {
    EXPECT_EQ(0, port->OnReceiveDataFromCanPort(nullptr, 100));
    char head[15] = {};
    EXPECT_EQ(0, port->OnReceiveDataFromCanPort(head, sizeof(head)));
    EXPECT_EQ(0, port->OnReceiveDataFromCanFilter_Get(head, sizeof(head)));
    EXPECT_EQ(3u, harness.Logs().Count("C_BASE: Receive CAN port data length error ,length = "));
    // A head alone: the fields read as zero, which is nobody's main id.
    char bare[16] = {};
    port->OnReceiveDataFromCanPort(bare, sizeof(bare));
    EXPECT_TRUE(port->frames.empty());
}

TEST_F(CanPortBaseTest, FilterReportIsLogged) {
    harness.Send(1136, std::vector<uint8_t>{3, 17});
    EXPECT_TRUE(harness.Pump([&] {
        return harness.Logs().Contains(
            "C_BASE: CAN filter update, canBusId = 3, transFilterNum = 17\n");
    }));
}

// ---- sent frames 1087 ---------------------------------------------------------------------

struct SendCase {
    const char* what;
    uint32_t canId;
    std::vector<uint8_t> data;
    std::vector<uint8_t> expected;  // the 24-byte payload
};

void PrintTo(const SendCase& c, std::ostream* os) {
    *os << c.what;
}

class SendTest : public CanPortBaseTest, public ::testing::WithParamInterface<SendCase> {};

TEST_P(SendTest, FrameLayout) {
    const SendCase& c = GetParam();
    size_t before = harness.Frames().size();
    EXPECT_EQ(0, port->SendCanDataToPeripheral(reinterpret_cast<const char*>(c.data.data()),
                                               static_cast<unsigned int>(c.data.size()), c.canId));
    ASSERT_TRUE(harness.Pump([&] { return harness.Frames().size() > before; }));
    EXPECT_EQ(c.expected, harness.Frames().back().payload) << c.what;
    EXPECT_EQ(kMsgId, harness.Frames().back().sender);
    EXPECT_EQ(c.data.size() > 8,
              harness.Logs().Contains(
                  "C_BASE: Send data to CAN, length is too large, length = 12 > 8\n"));
}

INSTANTIATE_TEST_SUITE_P(Cases, SendTest,
                         ::testing::Values(SendCase{"three bytes, zero-filled",
                                                    0x18EAFFF9,
                                                    {0xE0, 0xFE, 0x00},
                                                    {40,   0,    0,    0,    0, 0, 1, 0,
                                                     0xF9, 0xFF, 0xEA, 0x18, 3, 0, 0, 0,
                                                     0xE0, 0xFE, 0x00, 0,    0, 0, 0, 0}},
                                           SendCase{"twelve bytes go out as eight",
                                                    0x123,
                                                    {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                                                    {40, 0, 0, 0, 0, 0, 1, 0, 0x23, 0x01, 0, 0,
                                                     8,  0, 0, 0, 1, 2, 3, 4, 5,    6,    7, 8}}),
                         [](const ::testing::TestParamInfo<SendCase>& info) {
                             return "Case" + std::to_string(info.index);
                         });

}  // namespace
