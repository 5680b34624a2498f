// The sample plug-in's J1939 helpers, over synthetic frames and the real capture.
//
// Expected values from the capture were worked out by hand, not by running the code:
// - PGN of a PDU2 identifier (PF >= 0xF0) = its middle four hex digits (PF, PS); priority =
//   bits 26-28 = (first byte >> 2) & 7; source address = last byte.
// - EEC1 0CF00400#20 7D 87 48 14 00 F0 87: bytes 4-5 = 48 14 -> 0x1448 = 5192 -> x 0.125
//   = 649 rpm.
// - CCVS 18FEF131#F7 FF FF 07 ...: bytes 2-3 = FF FF -> "not available".
// - Vehicle distance 18FEE000#FF FF FF FF B0 5C 68 00: bytes 5-8 = 0x00685CB0 = 6839472
//   -> x 0.125 = 854934 km.
#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "CandumpLog.h"
#include "J1939.h"

using cantest::CandumpFrame;
using j1939::Status;

namespace {

// ---- decoders over synthetic frames ----------------------------------------------------------

using Decoder = j1939::Value (*)(const uint8_t*, size_t);

struct DecodeCase {
    const char* what;
    Decoder decode;
    std::vector<uint8_t> data;
    Status status;
    double value;
};

void PrintTo(const DecodeCase& c, std::ostream* os) {
    *os << c.what;
}

class DecodeTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeTest, ScalesAndFlags) {
    const DecodeCase& c = GetParam();
    j1939::Value v = c.decode(c.data.data(), c.data.size());
    EXPECT_EQ(c.status, v.status) << c.what;
    EXPECT_DOUBLE_EQ(c.value, v.value) << c.what;
}

const uint8_t F = 0xFF;

INSTANTIATE_TEST_SUITE_P(Cases, DecodeTest,
                         ::testing::Values(DecodeCase{"engine speed 0",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0, 0, F, F, F},
                                                      Status::kValid,
                                                      0.0},
                                           DecodeCase{"engine speed 1500 rpm = 12000 bits",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0xE0, 0x2E, F, F, F},
                                                      Status::kValid,
                                                      1500.0},
                                           DecodeCase{"engine speed top of range",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0xFF, 0xFA, F, F, F},
                                                      Status::kValid,
                                                      8031.875},
                                           DecodeCase{"engine speed reserved block counts as error",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0x00, 0xFB, F, F, F},
                                                      Status::kError,
                                                      0.0},
                                           DecodeCase{"engine speed error",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0x00, 0xFE, F, F, F},
                                                      Status::kError,
                                                      0.0},
                                           DecodeCase{"engine speed not available",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0x00, 0xFF, F, F, F},
                                                      Status::kNotAvailable,
                                                      0.0},
                                           DecodeCase{"engine speed needs five bytes",
                                                      j1939::DecodeEngineSpeed,
                                                      {F, F, F, 0x00},
                                                      Status::kShortFrame,
                                                      0.0},
                                           DecodeCase{"engine speed from no data",
                                                      j1939::DecodeEngineSpeed,
                                                      {},
                                                      Status::kShortFrame,
                                                      0.0},
                                           DecodeCase{"wheel speed 25 km/h = 0x1900",
                                                      j1939::DecodeWheelBasedSpeed,
                                                      {F, 0x00, 0x19, F, F, F, F, F},
                                                      Status::kValid,
                                                      25.0},
                                           DecodeCase{"wheel speed 1/256 resolution",
                                                      j1939::DecodeWheelBasedSpeed,
                                                      {F, 0x80, 0x00, F, F, F, F, F},
                                                      Status::kValid,
                                                      0.5},
                                           DecodeCase{"wheel speed not available",
                                                      j1939::DecodeWheelBasedSpeed,
                                                      {F, F, F},
                                                      Status::kNotAvailable,
                                                      0.0},
                                           DecodeCase{"wheel speed needs three bytes",
                                                      j1939::DecodeWheelBasedSpeed,
                                                      {F, 0x00},
                                                      Status::kShortFrame,
                                                      0.0},
                                           DecodeCase{"distance 1000 km = 8000 bits",
                                                      j1939::DecodeTotalVehicleDistance,
                                                      {F, F, F, F, 0x40, 0x1F, 0x00, 0x00},
                                                      Status::kValid,
                                                      1000.0},
                                           DecodeCase{"distance error",
                                                      j1939::DecodeTotalVehicleDistance,
                                                      {F, F, F, F, 0x00, 0x00, 0x00, 0xFE},
                                                      Status::kError,
                                                      0.0},
                                           DecodeCase{"distance needs eight bytes",
                                                      j1939::DecodeTotalVehicleDistance,
                                                      {F, F, F, F, 0x40, 0x1F, 0x00},
                                                      Status::kShortFrame,
                                                      0.0},
                                           DecodeCase{"engine hours 0.05 h/bit",
                                                      j1939::DecodeEngineTotalHours,
                                                      {0x10, 0x27, 0x00, 0x00, F, F, F, F},
                                                      Status::kValid,
                                                      500.0},
                                           DecodeCase{"engine hours not available",
                                                      j1939::DecodeEngineTotalHours,
                                                      {F, F, F, F},
                                                      Status::kNotAvailable,
                                                      0.0}),
                         [](const ::testing::TestParamInfo<DecodeCase>& info) {
                             return "Case" + std::to_string(info.index);
                         });

// ---- identifiers --------------------------------------------------------------------------

TEST(J1939IdTest, RequestIsAddressedAndCarriesThePgn) {
    j1939::Frame f = j1939::BuildRequest(j1939::kPgnVehicleDistance, 0xF9, 0xFF);
    EXPECT_EQ(0x18EAFFF9u, f.canId);
    ASSERT_EQ(3, f.length);
    EXPECT_EQ(0xE0, f.data[0]);
    EXPECT_EQ(0xFE, f.data[1]);
    EXPECT_EQ(0x00, f.data[2]);

    j1939::Id id = j1939::ParseId(j1939::BuildRequest(j1939::kPgnEngineHours, 0x17, 0x00).canId);
    EXPECT_EQ(j1939::kPgnRequest, id.pgn);  // PDU1: the destination is not part of the PGN
    EXPECT_EQ(0x00, id.destination);
    EXPECT_EQ(0x17, id.source);
    EXPECT_EQ(6, id.priority);
}

TEST(J1939IdTest, FlagBitsAboveTheIdentifierAreIgnored) {
    j1939::Id id = j1939::ParseId(0x80000000u | 0x0CF00400u);
    EXPECT_EQ(j1939::kPgnEec1, id.pgn);
    EXPECT_EQ(3, id.priority);
}

// ---- the real capture ---------------------------------------------------------------------

const std::vector<CandumpFrame>& Capture() {
    static const std::vector<CandumpFrame> frames =
        cantest::ReadCandumpLog(cantest::CanDataFile("j1939-sample.log"));
    return frames;
}

const CandumpFrame* FindFrame(const std::vector<CandumpFrame>& frames, uint32_t canId) {
    for (const auto& f : frames) {
        if (f.canId == canId) {
            return &f;
        }
    }
    return nullptr;
}

struct CaptureIdCase {
    uint32_t canId;
    uint32_t pgn;
    uint8_t priority;
    uint8_t source;
};

void PrintTo(const CaptureIdCase& c, std::ostream* os) {
    *os << std::hex << c.canId;
}

class CaptureIdTest : public ::testing::TestWithParam<CaptureIdCase> {};

TEST_P(CaptureIdTest, IdentifierFields) {
    const CaptureIdCase& c = GetParam();
    const CandumpFrame* frame = FindFrame(Capture(), c.canId);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ("can0", frame->iface);
    EXPECT_EQ(8u, frame->data.size());
    j1939::Id id = j1939::ParseId(frame->canId);
    EXPECT_EQ(c.pgn, id.pgn);
    EXPECT_EQ(c.priority, id.priority);
    EXPECT_EQ(c.source, id.source);
    EXPECT_EQ(j1939::kGlobalAddress, id.destination);  // all broadcasts
}

INSTANTIATE_TEST_SUITE_P(
    Capture, CaptureIdTest,
    ::testing::Values(
        CaptureIdCase{0x10FDBB00, 0xFDBB, 4, 0x00}, CaptureIdCase{0x10FD1F00, 0xFD1F, 4, 0x00},
        CaptureIdCase{0x10FDA300, 0xFDA3, 4, 0x00}, CaptureIdCase{0x18FEE000, 0xFEE0, 6, 0x00},
        CaptureIdCase{0x08FE6E0B, 0xFE6E, 2, 0x0B}, CaptureIdCase{0x18FDB255, 0xFDB2, 6, 0x55},
        CaptureIdCase{0x0CF00400, 0xF004, 3, 0x00}, CaptureIdCase{0x18FF4500, 0xFF45, 6, 0x00},
        CaptureIdCase{0x18FEDF00, 0xFEDF, 6, 0x00}, CaptureIdCase{0x1CFE9200, 0xFE92, 7, 0x00},
        CaptureIdCase{0x18F00131, 0xF001, 6, 0x31}, CaptureIdCase{0x18FEF131, 0xFEF1, 6, 0x31}),
    [](const ::testing::TestParamInfo<CaptureIdCase>& info) {
        char name[16];
        snprintf(name, sizeof(name), "Id%08X", info.param.canId);
        return std::string(name);
    });

TEST(J1939CaptureTest, HoldsTwelveFrames) {
    EXPECT_EQ(12u, Capture().size());
}

struct CaptureValueCase {
    const char* what;
    uint32_t canId;
    Decoder decode;
    Status status;
    double value;
};

void PrintTo(const CaptureValueCase& c, std::ostream* os) {
    *os << c.what;
}

class CaptureValueTest : public ::testing::TestWithParam<CaptureValueCase> {};

TEST_P(CaptureValueTest, DecodedValue) {
    const CaptureValueCase& c = GetParam();
    const CandumpFrame* frame = FindFrame(Capture(), c.canId);
    ASSERT_NE(nullptr, frame);
    j1939::Value v = c.decode(frame->data.data(), frame->data.size());
    EXPECT_EQ(c.status, v.status) << c.what;
    EXPECT_DOUBLE_EQ(c.value, v.value) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Capture, CaptureValueTest,
    ::testing::Values(CaptureValueCase{"EEC1 engine speed", 0x0CF00400, j1939::DecodeEngineSpeed,
                                       Status::kValid, 649.0},
                      CaptureValueCase{"CCVS wheel-based speed", 0x18FEF131,
                                       j1939::DecodeWheelBasedSpeed, Status::kNotAvailable, 0.0},
                      CaptureValueCase{"total vehicle distance", 0x18FEE000,
                                       j1939::DecodeTotalVehicleDistance, Status::kValid,
                                       854934.0}),
    [](const ::testing::TestParamInfo<CaptureValueCase>& info) {
        return "Case" + std::to_string(info.index);
    });

TEST(J1939CaptureTest, ReplayKeepsTheLatestValues) {
    j1939::Latest latest;
    std::vector<j1939::Parameter> updated;
    for (const CandumpFrame& f : Capture()) {
        j1939::Parameter p = j1939::Apply(latest, f.canId, f.data.data(), f.data.size());
        if (p != j1939::Parameter::kNone) {
            updated.push_back(p);
        }
    }
    // In file order: vehicle distance (line 4), EEC1 (line 7), CCVS (line 12).
    EXPECT_EQ((std::vector<j1939::Parameter>{j1939::Parameter::kTotalDistance,
                                             j1939::Parameter::kEngineSpeed,
                                             j1939::Parameter::kWheelSpeed}),
              updated);
    EXPECT_DOUBLE_EQ(649.0, latest.engineSpeedRpm.value);
    EXPECT_EQ(Status::kNotAvailable, latest.wheelSpeedKmh.status);
    EXPECT_DOUBLE_EQ(854934.0, latest.totalDistanceKm.value);
    EXPECT_EQ(Status::kShortFrame, latest.engineHours.status);  // never in the capture

    // A later frame replaces the value, whatever its status.
    const uint8_t notAvailable[8] = {F, F, F, 0xFF, 0xFF, F, F, F};
    j1939::Apply(latest, 0x0CF00417, notAvailable, sizeof(notAvailable));
    EXPECT_EQ(Status::kNotAvailable, latest.engineSpeedRpm.status);
}

}  // namespace
