// The sample serial plug-ins: the GPS plug-in's NMEA decoder over hand-made sentences and over
// real captures against the positions an independent decoder reported, the plug-in loaded by
// the manager on a tty, and the loopback tester against a tty that echoes.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "LoopbackPattern.h"
#include "LoopbackTest.h"
#include "NmeaParser.h"
#include "Pty.h"
#include "ServiceHarness.h"

namespace {

using nmea::FixTracker;
using pmtest::Pty;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

constexpr uint8_t kGpsId = 3;        // libGpsNmea.so
constexpr uint8_t kLoopbackId = 36;  // libLoopbackTest.so
constexpr uint8_t kPlainId = 50;     // no library: the test places its own instance

std::unique_ptr<ServiceHarness> Service(const std::string& ttyAtPosition4) {
    auto service = std::make_unique<ServiceHarness>(
        R"({"DEVICE_SERIAL_SETTING": [
            {"DEV_SERIAL_FUNCID": 3, "DEV_SERIAL_LIB_NAME": "GpsNmea"},
            {"DEV_SERIAL_FUNCID": 36, "DEV_SERIAL_LIB_NAME": "LoopbackTest"},
            {"DEV_SERIAL_FUNCID": 50, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin"}],
           "DEVICE_CANPORT_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
           "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [{"PATH": ")" +
        ttyAtPosition4 + R"(", "POSITION": 4}]}})");
    service->Register();
    return service;
}

std::string ReadFile(const std::string& name) {
    std::ifstream in(std::string(PM_TEST_DATA_DIR) + "/nmea/" + name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// "$" + body + "*hh" with the right checksum.
std::string Sentence(const std::string& body) {
    unsigned char sum = 0;
    for (char c : body) {
        sum ^= static_cast<unsigned char>(c);
    }
    char tail[8];
    snprintf(tail, sizeof(tail), "*%02X", sum);
    return "$" + body + tail;
}

const char* const kRmc = "$GPRMC,145243.000,A,3401.9764,N,11744.8274,W,0.00,119.27,030610,,,D*70";
const char* const kGsa = "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0D";

// ---- the decoder ----

TEST(NmeaParser, ChecksumIsVerified) {
    const struct {
        std::string sentence;
        bool ok;
    } cases[] = {
        {kGsa, true},
        {"$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0d", true},
        {"$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0C", false},
        {"$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31", false},
        {"$GPGSA,A,3*0", false},
        {"$GPGSA,A,3*31 ", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(nmea::ChecksumOk(c.sentence), c.ok) << c.sentence;
    }
}

TEST(NmeaParser, SentencesUpdateTheFix) {
    const struct {
        std::string sentence;
        FixTracker::Result result;
        bool valid;
        double lat, lon, knots;
        int satellites;
        const char* time;  // ISO text, "" without date
    } cases[] = {
        {kRmc, FixTracker::kRmc, true, 34.03294, -117.747123333, 0.0, 0,
         "2010-06-03T14:52:43.000Z"},
        {Sentence("GPRMC,235959.50,A,3351.1234,S,15112.5678,E,12.5,45.0,311299,,"),
         FixTracker::kRmc, true, -33.852056667, 151.20946333, 12.5, 0, "1999-12-31T23:59:59.500Z"},
        {Sentence("GNGGA,092750.000,5321.6802,N,00630.3372,W,1,12,0.9,1.5,M,54.7,M,,"),
         FixTracker::kGga, true, 53.361336667, -6.50562, 0, 12, ""},
        {Sentence("GPRMC,,V,,,,,,,,,,N"), FixTracker::kRmc, false, 0, 0, 0, 0, ""},
        {kGsa, FixTracker::kIgnored, false, 0, 0, 0, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sentence);
        FixTracker tracker;
        ASSERT_EQ(tracker.Apply(c.sentence), c.result);
        const nmea::GpsFix& fix = tracker.Fix();
        EXPECT_EQ(fix.valid, c.valid);
        if (c.valid) {
            EXPECT_NEAR(fix.latitude, c.lat, 1e-7);
            EXPECT_NEAR(fix.longitude, c.lon, 1e-7);
            EXPECT_NEAR(fix.speedKnots, c.knots, 1e-9);
            EXPECT_EQ(fix.satellites, c.satellites);
        }
        EXPECT_EQ(nmea::FormatIsoTime(fix), c.time);
    }
    for (const std::string& sentence :
         {Sentence("GPRMC,123519,A,4860.000,N,01131.000,E,0,0,230394,,"),  // minute 60
          Sentence("GPRMC,243519,A,4807.038,N,01131.000,E,0,0,230394,,"),  // hour 24
          Sentence("GPGGA,123519,4807.038,N")}) {
        FixTracker tracker;
        EXPECT_EQ(tracker.Apply(sentence), FixTracker::kMalformed) << sentence;
        EXPECT_FALSE(tracker.Fix().valid) << sentence;
    }
    FixTracker tracker;
    EXPECT_EQ(tracker.Apply(std::string(kRmc, strlen(kRmc) - 1) + "1"), FixTracker::kBadChecksum);
    // A GGA takes the date of the last RMC.
    tracker.Apply(kRmc);
    tracker.Apply(
        "$GPGGA,145244.000,3401.9764,N,11744.8274,W,2,10,0.87,234.7,M,-33.2,M,0000,0000*58");
    EXPECT_EQ(nmea::FormatIsoTime(tracker.Fix()), "2010-06-03T14:52:44.000Z");
}

// The captures below arrive in pieces; what is left to see is the bounds of a line.
TEST(NmeaParser, ALineRestartsAtASentenceStartAndAnOverlongOneIsDropped) {
    nmea::LineSplitter splitter;
    std::vector<std::string> lines;
    for (const std::string& chunk :
         {std::string("$GPA,1$GPB,2\n"), std::string(200, 'x'), std::string("yy\n$GPC\n$GPD")}) {
        splitter.Feed(chunk.data(), chunk.size(), lines);
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"$GPB,2", "$GPC"}));
    EXPECT_EQ(splitter.Pending(), 4u);
}

// Every sentence of the capture is in its .chk file, each followed by the TPV records the
// reference decoder produced for it.
struct CaptureCase {
    const char* file;
    int positions, times, noFix;
};

void PrintTo(const CaptureCase& c, std::ostream* os) {
    *os << c.file;
}

class NmeaCapture : public ::testing::TestWithParam<CaptureCase> {};

TEST_P(NmeaCapture, AgreesWithTheReferenceDecoder) {
    const CaptureCase& c = GetParam();
    std::vector<std::pair<std::string, std::vector<Json::Value>>> reported;
    std::istringstream check(ReadFile(std::string(c.file) + ".chk"));
    Json::CharReaderBuilder builder;
    for (std::string line; std::getline(check, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        Json::Value record;
        std::string errors;
        std::istringstream json(line);
        if (line.rfind("$", 0) == 0) {
            reported.push_back({line, {}});
        } else if (!reported.empty() && Json::parseFromStream(builder, json, &record, &errors) &&
                   record["class"].asString() == "TPV") {
            reported.back().second.push_back(record);
        }
    }
    // The capture goes through the line cutter in awkward pieces, as a port delivers it.
    const std::string capture = ReadFile(c.file);
    ASSERT_FALSE(capture.empty());
    nmea::LineSplitter splitter;
    std::vector<std::string> lines;
    for (size_t at = 0; at < capture.size(); at += 37) {
        splitter.Feed(capture.data() + at, std::min<size_t>(37, capture.size() - at), lines);
    }
    FixTracker tracker;
    size_t next = 0;
    int positions = 0, times = 0, noFix = 0;
    for (const std::string& line : lines) {
        if (line[0] == '#') {
            continue;  // the submitter's header
        }
        ASSERT_LT(next, reported.size());
        ASSERT_EQ(line, reported[next].first);
        const FixTracker::Result result = tracker.Apply(line);
        const nmea::GpsFix& fix = tracker.Fix();
        for (const Json::Value& tpv : reported[next++].second) {
            if (result != FixTracker::kRmc && result != FixTracker::kGga) {
                continue;
            }
            if (tpv.isMember("lat")) {
                ++positions;
                EXPECT_TRUE(fix.valid) << line;
                EXPECT_NEAR(fix.latitude, tpv["lat"].asDouble(), 1e-7) << line;
                EXPECT_NEAR(fix.longitude, tpv["lon"].asDouble(), 1e-7) << line;
            }
            if (tpv["mode"].asInt() == 1) {
                ++noFix;
                EXPECT_FALSE(fix.valid) << line;
            }
            if (result == FixTracker::kRmc && tpv.isMember("time")) {
                ++times;
                EXPECT_EQ(nmea::FormatIsoTime(fix), tpv["time"].asString()) << line;
            }
            if (result == FixTracker::kRmc && tpv.isMember("speed")) {
                EXPECT_NEAR(nmea::SpeedMps(fix.speedKnots), tpv["speed"].asDouble(), 0.001) << line;
            }
        }
    }
    EXPECT_EQ(next, reported.size());
    EXPECT_EQ(positions, c.positions);
    EXPECT_EQ(times, c.times);
    EXPECT_EQ(noFix, c.noFix);
}

INSTANTIATE_TEST_SUITE_P(Receivers, NmeaCapture,
                         ::testing::Values(CaptureCase{"bt-q818.log", 11, 10, 0},
                                           CaptureCase{"GPSmap-76S.log", 1, 0, 1}));

// ---- the plug-ins on a tty ----

TEST(GpsPlugin, LoadedByTheManagerDecodesWhatTheTtySends) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    auto service = Service(tty.SlavePath());
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kGpsId}})));
    ASSERT_TRUE(service->Logs().Contains("GPS_NMEA: created, mainId = 3, subId = 0, link = 1"));
    ASSERT_TRUE(tty.Send(std::string(kRmc) + "\r\n"));
    // The capture says *77 here.
    ASSERT_TRUE(
        tty.Send("$GPRMC,145244.000,A,3401.9764,N,11744.8274,W,0.00,119.27,030610,,,D*76\r\n"));
    EXPECT_TRUE(service->Logs().WaitFor(
        "GPS_NMEA: fix, mainId = 3, subId = 0, time = 2010-06-03T14:52:43.000Z, lat = 34.032940, "
        "lon = -117.747123, speed = 0.0 km/h"));
    EXPECT_TRUE(service->Logs().WaitFor("GPS_NMEA: sentence refused (checksum), mainId = 3"));

    // Leaving the setting releases the instance and closes its library.
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
    EXPECT_TRUE(service->Logs().Contains(
        "S_MANAGE: Release Peripheral Instance success, type = 0, mainID = 3, subId = 0"));
}

std::string Bytes(const loopback::Frame& frame) {
    return std::string(reinterpret_cast<const char*>(frame.data()), frame.size());
}

TEST(LoopbackPlugin, CountsEchoesWrongEchoesAndTimeouts) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    auto service = Service(tty.SlavePath());
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
    CLoopbackTest tester(&service->Manager(), service->ManagerClient(), kPlainId, 0);
    ASSERT_EQ(tester.Initialize(), 0);  // as the manager does; bytes are delivered from here on
    ASSERT_TRUE(tester.GetCurPeripOpenStatus());
    long long now = 1000;
    auto cycle = [&](long long step) {  // the frame that went out, empty when none did
        tester.PeripheralThreadCycle(now += step);
        return tty.Receive(loopback::kFrameSize, std::chrono::milliseconds(200));
    };
    auto counters = [&] { return tester.GetLoopbackCounters(); };
    for (uint32_t i = 1; i <= 3; ++i) {
        const std::string frame = cycle(100);
        ASSERT_EQ(frame, Bytes(loopback::BuildFrame(i)));
        ASSERT_TRUE(tty.Send(frame.substr(0, 5)));  // echoes may come in pieces
        ASSERT_TRUE(tty.Send(frame.substr(5)));
        ASSERT_TRUE(WaitUntil([&] { return counters().ok == i; }));
    }
    std::string frame = cycle(100);
    frame[10] ^= 0x01;
    ASSERT_TRUE(tty.Send(frame));
    ASSERT_TRUE(WaitUntil([&] { return counters().wrong == 1; }));
    EXPECT_EQ(cycle(100), "") << "still waiting for the right echo";
    const std::string next = cycle(CLoopbackTest::kDefaultEchoTimeoutMs);
    EXPECT_EQ(next, Bytes(loopback::BuildFrame(5)));
    EXPECT_EQ(counters().timeouts, 1u);
    ASSERT_TRUE(tty.Send(next + "xyz"));  // the echo and three bytes nobody sent
    ASSERT_TRUE(WaitUntil([&] { return counters().wrong == 2; }));
    EXPECT_EQ(counters().sent, 5u);
    EXPECT_EQ(counters().ok, 4u);
}

}  // namespace
