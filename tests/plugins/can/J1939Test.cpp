// The J1939 sample plug-in: loaded by the real manager from build/plugin/can/, it asks the CAN
// module for its frames and decodes the real capture of tests/data/can/; then its decoders.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CanEvents.h"
#include "J1939.h"
#include "ServiceHarness.h"

namespace {

using pmtest::CanDataEvent;
using pmtest::CanItem;
using pmtest::J1939Capture;
using pmtest::ServiceHarness;

constexpr unsigned kJ1939Id = 12;
const char* const kConfig = R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
  "DEVICE_CANPORT_SETTING": [{"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "can_j1939",
                              "DEV_CANPORT_SUPPORT_ENABLE": "true"}]})";

// Sends a 1089 event and pumps until the plug-in's base has logged it.
bool Deliver(ServiceHarness& service, const std::vector<uint8_t>& payload) {
    const size_t before = service.Logs().Count("C_BASE: Recv data");
    service.Send(1089, payload);
    return service.Pump([&] { return service.Logs().Count("C_BASE: Recv data") > before; });
}

TEST(J1939Plugin, SubscribesAndDecodesTheCapture) {
    ServiceHarness service{kConfig};
    service.Register();
    service.Watch(1137);
    paramCanSetting_t setting{};
    setting.port[1].mainFun = kJ1939Id;
    ASSERT_TRUE(service.SendSetting(setting));
    CPeripheralBase* plugin =
        service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_CANPORT, kJ1939Id, 0);
    ASSERT_NE(plugin, nullptr);
    ASSERT_TRUE(service.WaitCount(1137, 1));
    const pmtest::BusMessage filter = service.Received(1137).back();
    EXPECT_EQ(filter.head.nSenderId, 21200u);
    ASSERT_EQ(filter.payload.size(), 4u + 4 * 8);
    // EEC1: 0x0CF00400 under mask 0x00FFFF00, any source.
    EXPECT_EQ(std::vector<uint8_t>(filter.payload.begin() + 4, filter.payload.begin() + 12),
              (std::vector<uint8_t>{0x00, 0x04, 0xF0, 0xFF, 0x00, 0xFF, 0xFF, 0x00}));

    const std::vector<CanItem> capture = J1939Capture();
    ASSERT_EQ(capture.size(), 12u);
    ASSERT_TRUE(Deliver(service, CanDataEvent(kJ1939Id, 1, 12, capture)));  // another sub id
    EXPECT_EQ(service.Logs().Count("(source 0x"), 0u);
    ASSERT_TRUE(Deliver(service, CanDataEvent(kJ1939Id, 0, 12, capture)));
    EXPECT_TRUE(service.Logs().Contains("J1939: [12-0] engine speed 649.000 rpm (source 0x00)\n"));
    EXPECT_TRUE(
        service.Logs().Contains("J1939: [12-0] wheel-based speed not available (source 0x31)\n"));
    EXPECT_TRUE(
        service.Logs().Contains("J1939: [12-0] total distance 854934.000 km (source 0x00)\n"));
    EXPECT_EQ(service.Logs().Count("(source 0x"), 3u) << "one line per decoded frame";
}

TEST(J1939Codec, DecodersScaleAndFlag) {
    using j1939::Status;
    const uint8_t F = 0xFF;
    const struct {
        j1939::Value (*decode)(const uint8_t*, size_t);
        std::vector<uint8_t> data;
        Status status;
        double value;
    } cases[] = {
        {j1939::DecodeEngineSpeed, {F, F, F, 0xE0, 0x2E, F, F, F}, Status::kValid, 1500.0},
        {j1939::DecodeEngineSpeed, {F, F, F, 0x00, 0xFB, F, F, F}, Status::kError, 0.0},
        {j1939::DecodeEngineSpeed, {F, F, F, 0x00}, Status::kShortFrame, 0.0},
        {j1939::DecodeWheelBasedSpeed, {F, 0x80, 0x00}, Status::kValid, 0.5},
        {j1939::DecodeTotalVehicleDistance, {F, F, F, F, 0x40, 0x1F, 0x00}, Status::kShortFrame, 0},
        {j1939::DecodeEngineTotalHours, {0x10, 0x27, 0x00, 0x00}, Status::kValid, 500.0},
        {j1939::DecodeEngineTotalHours, {F, F, F, F}, Status::kNotAvailable, 0.0},
    };
    for (const auto& c : cases) {
        const j1939::Value v = c.decode(c.data.data(), c.data.size());
        EXPECT_EQ(v.status, c.status) << pmtest::Hex(c.data);
        EXPECT_DOUBLE_EQ(v.value, c.value) << pmtest::Hex(c.data);
    }
    const j1939::Id id = j1939::ParseId(0x80000000u | 0x18EA0017u);  // flag bits are ignored
    EXPECT_EQ(id.pgn, j1939::kPgnRequest) << "PDU1: the destination is not part of the PGN";
    EXPECT_EQ(id.destination, 0x00);
    EXPECT_EQ(id.source, 0x17);
    EXPECT_EQ(id.priority, 6);
}

TEST(J1939Codec, TheCaptureReplaysToTheLatestValues) {
    j1939::Latest latest;
    std::vector<j1939::Parameter> updated;
    for (const CanItem& f : J1939Capture()) {
        const j1939::Parameter p = j1939::Apply(latest, f.canId, f.data.data(), f.data.size());
        if (p != j1939::Parameter::kNone) {
            updated.push_back(p);
        }
    }
    // In file order: vehicle distance (line 4), EEC1 (line 7), CCVS (line 12).
    EXPECT_EQ(updated, (std::vector<j1939::Parameter>{j1939::Parameter::kTotalDistance,
                                                      j1939::Parameter::kEngineSpeed,
                                                      j1939::Parameter::kWheelSpeed}));
    EXPECT_DOUBLE_EQ(latest.engineSpeedRpm.value, 649.0);
    EXPECT_EQ(latest.wheelSpeedKmh.status, j1939::Status::kNotAvailable);
    EXPECT_DOUBLE_EQ(latest.totalDistanceKm.value, 854934.0);
    EXPECT_EQ(latest.engineHours.status, j1939::Status::kShortFrame) << "never in the capture";
}

}  // namespace
