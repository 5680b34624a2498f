// The CAN base against the real manager and bus, with the recorder's CAN module played by the
// harness's client.
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CanPortBase.h"
#include "CanEvents.h"
#include "ServiceHarness.h"

namespace {

using pmtest::CanDataEvent;
using pmtest::CanItem;
using pmtest::ServiceHarness;

constexpr unsigned kMainId = 40;  // no library: only the test's own instances use it
constexpr uint8_t kPort = 2;
constexpr uint32_t kMsgId = 2 * 10000 + kMainId * 100;  // CAN kind, sub id 0
const char* const kConfig = R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
  "DEVICE_CANPORT_SETTING": []})";

class TestCanPort : public CCanPortBase {
public:
    using CCanPortBase::CCanPortBase;
    int ProcessPeripheralData(const char* data, unsigned length, unsigned canId) override {
        frames.push_back(
            {canId, static_cast<uint8_t>(length), std::vector<uint8_t>(data, data + length)});
        return 0;
    }
    std::vector<CanItem> frames;
};

class CanPortTest : public ::testing::Test {
protected:
    void SetUp() override {
        service.Register();
        service.Watch(1137);
        service.Watch(1087);
        paramCanSetting_t setting{};
        setting.port[kPort].mainFun = kMainId;
        ASSERT_TRUE(service.SendSetting(setting));
    }
    std::unique_ptr<TestCanPort> NewPort(unsigned subId = 0) {
        return std::make_unique<TestCanPort>(&service.Manager(), service.ManagerClient(), kMainId,
                                             subId);
    }
    // Sends the filter and returns what the CAN module received.
    std::vector<uint8_t> FilterOf(TestCanPort& p) {
        const size_t before = service.Count(1137);
        p.SetCanPortFilter();
        EXPECT_TRUE(service.WaitCount(1137, before + 1));
        return service.Received(1137).back().payload;
    }
    // Sends a 1089 event and pumps until `instances` instances have logged it.
    bool Deliver(const std::vector<uint8_t>& payload, size_t instances = 1) {
        const size_t before = service.Logs().Count("C_BASE: Recv data");
        service.Send(1089, payload);
        return service.Pump(
            [&] { return service.Logs().Count("C_BASE: Recv data") >= before + instances; });
    }

    ServiceHarness service{kConfig};
};

TEST_F(CanPortTest, AReceiveIdSelectingAnotherEntrysMaskedValueIsRefused) {
    const struct {
        uint32_t firstId, firstMask, secondId, secondMask;
        int expected;
    } cases[] = {
        {0x180, 0x700, 0x100, 0x700, -1},
        {0x100, 0x700, 0x100, 0xFFFFFFFF, -1},  // an exact id equal to a masked value
        {0x180, 0x780, 0x100, 0x780, 0},
    };
    for (const auto& c : cases) {
        auto port = NewPort();
        ASSERT_EQ(port->AddOneRecvCanId(c.firstId, c.firstMask), 0);
        EXPECT_EQ(port->AddOneRecvCanId(c.secondId, c.secondMask), c.expected) << c.secondId;
        EXPECT_EQ(port->GetRecvIdList().size(), c.expected == 0 ? 2u : 1u);
        EXPECT_EQ(port->GetRecvIdList().front().mask, c.firstMask) << "the old entry stays";
    }
    auto port = NewPort();
    ASSERT_EQ(port->AddOneRecvCanId(0x123, 0xFFFFFFFF), 0);
    ASSERT_EQ(port->AddOneRecvCanId(0x180, 0x780), 0);
    EXPECT_EQ(port->DeleteRecvCanId(0x1FF, 0x780), 0);  // selects 0x180 as well
    ASSERT_EQ(port->GetRecvIdList().size(), 1u);
    EXPECT_EQ(port->GetRecvIdList().front().canId, 0x123u);
}

TEST_F(CanPortTest, FilterMessageLayout) {
    const struct {
        uint32_t canId, mask;
        uint16_t minPeriod;
        std::vector<uint8_t> expected;
    } cases[] = {
        {0x123, 0xFFFFFFFF, 0, {kPort, 1, 0, 0, 0x00, 0x00, 0x01, 0x23}},  // big-endian
        // Little-endian, the 0xFF mark in the top byte, then the mask.
        {0x123, 0x7F0, 0, {kPort, 1, 0, 0, 0x23, 0x01, 0x00, 0xFF, 0xF0, 0x07, 0x00, 0x00}},
        {0x18FEF100,
         0x00FFFF00,
         0x1234,
         {kPort, 1, 0x34, 0x12, 0x00, 0xF1, 0xFE, 0xFF, 0x00, 0xFF, 0xFF, 0x00}},
    };
    for (const auto& c : cases) {
        auto port = NewPort();
        port->SetCanFilterIntervalTime(c.minPeriod);
        ASSERT_EQ(port->AddOneRecvCanId(c.canId, c.mask), 0);
        EXPECT_EQ(FilterOf(*port), c.expected) << std::hex << c.canId << "/" << c.mask;
        EXPECT_EQ(service.Received(1137).back().head.nSenderId, kMsgId);
    }
    auto port = NewPort();
    for (uint32_t id = 0; id < 200; ++id) {
        ASSERT_EQ(port->AddOneRecvCanId(0x100 + id, 0x7FF), 0);  // 8 bytes each
    }
    const std::vector<uint8_t> filter = FilterOf(*port);
    EXPECT_EQ(filter[1], 128) << "no more than 1024 item bytes";
    EXPECT_EQ(filter.size(), 4u + 1024u);
    EXPECT_TRUE(service.Logs().Contains("sent 128 of 200 entries"));
}

TEST_F(CanPortTest, DestroyingAnInstanceSendsAnEmptyFilter) {
    auto port = NewPort();
    auto second = NewPort(1);
    ASSERT_EQ(port->AddOneRecvCanId(0x123, 0xFFFFFFFF), 0);
    const size_t before = service.Count(1137);
    port.reset();
    ASSERT_TRUE(service.WaitCount(1137, before + 1));
    EXPECT_EQ(service.Received(1137).back().payload, (std::vector<uint8_t>{kPort, 0, 0, 0}));
    // Its events went with it: once the second instance has its own frame, the frame sent
    // before it has reached every handler there was.
    service.Send(1089, CanDataEvent(kMainId, 0, 1, {{0x123, 1, {0xAA}}}));
    service.Send(1089, CanDataEvent(kMainId, 1, 1, {{0x124, 1, {0xBB}}}));
    ASSERT_TRUE(service.Pump([&] { return second->frames.size() == 1; }));
    EXPECT_EQ(service.Logs().Count("C_BASE: Recv data"), 2u);
}

TEST_F(CanPortTest, ReceivedEventsDeliverTheirOwnValidItemsOnly) {
    const CanItem a{0x101, 2, {0x01, 0x02}};
    const CanItem b{0x0CF00400, 8, {0x20, 0x7D, 0x87, 0x48, 0x14, 0x00, 0xF0, 0x87}};
    const CanItem empty{0x303, 0, {}};
    const CanItem bad{0x404, 9, {1, 2, 3, 4, 5, 6, 7, 8}};
    const struct {
        const char* what;
        uint16_t mainId, subId, count;
        std::vector<CanItem> items;
        size_t trailingBytes;  // of an incomplete item after the items
        std::vector<CanItem> delivered;
        bool bounded;
    } cases[] = {
        {"three good items, in order", kMainId, 0, 3, {a, b, empty}, 0, {a, b, empty}, false},
        {"a bad first item spends the whole count", kMainId, 0, 3, {bad, a, b}, 0, {}, false},
        {"another main id", kMainId + 1, 0, 1, {a}, 0, {}, false},
        {"another sub id", kMainId, 1, 1, {a}, 0, {}, false},
        {"a count beyond the payload", kMainId, 0, 500, {a, empty}, 0, {a, empty}, true},
        {"an incomplete last item", kMainId, 0, 2, {a}, 8, {a}, true},
    };
    auto port = NewPort();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        service.Logs().Clear();
        port->frames.clear();
        std::vector<uint8_t> payload = CanDataEvent(c.mainId, c.subId, c.count, c.items);
        payload.insert(payload.end(), c.trailingBytes, 0x55);
        ASSERT_TRUE(Deliver(payload));
        ASSERT_EQ(port->frames.size(), c.delivered.size());
        for (size_t i = 0; i < c.delivered.size(); ++i) {
            EXPECT_EQ(port->frames[i].canId, c.delivered[i].canId);
            EXPECT_EQ(port->frames[i].data, c.delivered[i].data);
        }
        EXPECT_EQ(service.Logs().Contains("item count too large"), c.bounded);
    }
    // Shorter than a head, or none at all: only logged.
    char head[16] = {};
    EXPECT_EQ(port->OnReceiveDataFromCanPort(nullptr, 100), 0);
    EXPECT_EQ(port->OnReceiveDataFromCanPort(head, 15), 0);
    EXPECT_EQ(port->OnReceiveDataFromCanFilter_Get(head, 15), 0);
    EXPECT_EQ(service.Logs().Count("C_BASE: Receive CAN port data length error ,length = "), 3u);
}

TEST_F(CanPortTest, SentFramesCarryAtMostEightBytes) {
    const struct {
        uint32_t canId;
        std::vector<uint8_t> data, expected;  // the 24-byte payload
    } cases[] = {
        {0x18EAFFF9, {0xE0, 0xFE, 0x00}, {40, 0, 0, 0, 0,    0,    1,    0, 0xF9, 0xFF, 0xEA, 0x18,
                                          3,  0, 0, 0, 0xE0, 0xFE, 0x00, 0, 0,    0,    0,    0}},
        {0x123,
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
         {40, 0, 0, 0, 0, 0, 1, 0, 0x23, 0x01, 0, 0, 8, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}},
    };
    auto port = NewPort();
    for (size_t i = 0; i < 2; ++i) {
        const auto& c = cases[i];
        EXPECT_EQ(port->SendCanDataToPeripheral(reinterpret_cast<const char*>(c.data.data()),
                                                static_cast<unsigned>(c.data.size()), c.canId),
                  0);
        ASSERT_TRUE(service.WaitCount(1087, i + 1));
        EXPECT_EQ(service.Received(1087)[i].payload, c.expected) << i;
        EXPECT_EQ(service.Received(1087)[i].head.nSenderId, kMsgId);
    }
    EXPECT_TRUE(service.Logs().Contains(
        "C_BASE: Send data to CAN, length is too large, length = 12 > 8\n"));
}

}  // namespace
