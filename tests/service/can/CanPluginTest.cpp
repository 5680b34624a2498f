// The J1939 sample plug-in, loaded by the manager from build/plugin/can/ when the CAN setting
// names it, fed with the real capture through the stand-in CAN module.
#include <gtest/gtest.h>

#include <vector>

#include "CandumpLog.h"
#include "ServiceHarness.h"

using cantest::CanDataEvent;
using cantest::CanItem;
using cantest::kJ1939MainId;
using cantest::ServiceHarness;

namespace {

constexpr uint8_t kPortIndex = 1;

class CanPluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        setting.port[kPortIndex].mainFun = kJ1939MainId;
        ASSERT_TRUE(harness.SendCanSetting(setting));
        // The plug-in's classes are hidden; the test sees it as the service does.
        plugin = harness.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_CANPORT, kJ1939MainId, 0);
        ASSERT_NE(nullptr, plugin);
    }

    void DeliverCapture(uint16_t subId) {
        std::vector<CanItem> items;
        for (const auto& frame :
             cantest::ReadCandumpLog(cantest::CanDataFile("j1939-sample.log"))) {
            items.push_back({frame.canId, static_cast<uint8_t>(frame.data.size()), frame.data});
        }
        size_t before = harness.Logs().Count("C_BASE: Recv data");
        harness.Send(1089, CanDataEvent(kJ1939MainId, subId, kPortIndex,
                                        static_cast<uint16_t>(items.size()), items));
        ASSERT_TRUE(
            harness.Pump([&] { return harness.Logs().Count("C_BASE: Recv data") > before; }));
    }

    ServiceHarness harness;
    paramCanSetting_t setting{};
    CPeripheralBase* plugin = nullptr;
};

TEST_F(CanPluginTest, SubscribesToFourPgnsFromAnySource) {
    ASSERT_TRUE(harness.Pump([&] { return !harness.Filters().empty(); }));
    const std::vector<uint8_t>& f = harness.Filters().back().payload;
    EXPECT_EQ(21200u, harness.Filters().back().sender);
    EXPECT_TRUE(plugin->GetCurPeripOpenStatus());
    ASSERT_EQ(4u + 4 * 8, f.size());
    EXPECT_EQ(kPortIndex, f[0]);
    EXPECT_EQ(4, f[1]);
    // EEC1: 0x0CF00400 under mask 0x00FFFF00, marked in the top byte.
    EXPECT_EQ((std::vector<uint8_t>{0x00, 0x04, 0xF0, 0xFF, 0x00, 0xFF, 0xFF, 0x00}),
              std::vector<uint8_t>(f.begin() + 4, f.begin() + 12));
}

TEST_F(CanPluginTest, DecodesTheCapture) {
    DeliverCapture(0);
    EXPECT_TRUE(harness.Logs().Contains("J1939: [12-0] engine speed 649.000 rpm (source 0x00)\n"));
    EXPECT_TRUE(
        harness.Logs().Contains("J1939: [12-0] wheel-based speed not available (source 0x31)\n"));
    EXPECT_TRUE(
        harness.Logs().Contains("J1939: [12-0] total distance 854934.000 km (source 0x00)\n"));
    EXPECT_EQ(3u, harness.Logs().Count("(source 0x"));  // one line per decoded frame
}

TEST_F(CanPluginTest, IgnoresFramesOfAnotherSubId) {
    DeliverCapture(1);
    EXPECT_EQ(0u, harness.Logs().Count("(source 0x"));
}

TEST_F(CanPluginTest, CycleRequestsDistanceThenHours) {
    // The manager steps its instances; 1000 ms apart is one request period.
    harness.Manager().PhmThreadCycle(1000);
    harness.Manager().PhmThreadCycle(1500);  // not due yet
    harness.Manager().PhmThreadCycle(2000);
    ASSERT_TRUE(harness.Pump([&] { return harness.Frames().size() >= 2; }));
    const std::vector<uint8_t> distance = {12, 0, 0, 0, 0,    0,    1,    0, 0xF9, 0xFF, 0xEA, 0x18,
                                           3,  0, 0, 0, 0xE0, 0xFE, 0x00, 0, 0,    0,    0,    0};
    std::vector<uint8_t> hours = distance;
    hours[16] = 0xE5;
    EXPECT_EQ(distance, harness.Frames()[0].payload);
    EXPECT_EQ(hours, harness.Frames()[1].payload);
    EXPECT_EQ(2u, harness.Frames().size());
}

TEST_F(CanPluginTest, RemovalThroughTheManagerSendsAnEmptyFilter) {
    ASSERT_TRUE(harness.Pump([&] { return !harness.Filters().empty(); }));
    setting.port[kPortIndex].mainFun = 0;
    ASSERT_TRUE(harness.SendCanSetting(setting));
    EXPECT_EQ(nullptr,
              harness.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_CANPORT, kJ1939MainId, 0));
    ASSERT_TRUE(harness.Pump([&] { return harness.Filters().size() >= 2; }));
    EXPECT_EQ((std::vector<uint8_t>{kPortIndex, 0, 0, 0}), harness.Filters().back().payload);
}

}  // namespace
