// The GPS plug-in: its NMEA decoder against hand-made sentences and against real captures with
// the positions an independent decoder reported, then the plug-in on a tty.
#include <stdio.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "CommonTime.h"
#include "GpsNmea.h"
#include "NmeaParser.h"
#include "Pty.h"
#include "SerialHarness.h"

namespace sertest {
namespace {

using nmea::FixTracker;
using pmtest::Pty;
using pmtest::WaitUntil;

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

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string DataFile(const std::string& name) {
    return std::string(PM_TEST_DATA_DIR) + "/nmea/" + name;
}

const char* const kQ818Gga =
    "$GPGGA,145243.000,3401.9764,N,11744.8274,W,2,10,0.87,234.7,M,-33.2,M,0000,0000*5F";
const char* const kQ818Rmc =
    "$GPRMC,145243.000,A,3401.9764,N,11744.8274,W,0.00,119.27,030610,,,D*70";

// ---- checksum ----

struct ChecksumCase {
    const char* what;
    std::string sentence;
    bool ok;
};

std::ostream& operator<<(std::ostream& out, const ChecksumCase& c) {
    return out << c.what;
}

const ChecksumCase kChecksumCases[] = {
    {"captured sentence", kQ818Gga, true},
    {"lower-case hex", "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0d", true},
    {"one bit off", "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0C", false},
    {"body changed", "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.32*0D", false},
    {"no checksum", "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31", false},
    {"one digit", "$GPGSA,A,3*0", false},
    {"not hex", "$GPGSA,A,3*G1", false},
    {"no start", "GPGSA,A,3*31", false},
    {"trailing byte", "$GPGSA,A,3*31 ", false},
};

class NmeaChecksum : public ::testing::TestWithParam<ChecksumCase> {};

TEST_P(NmeaChecksum, IsVerified) {
    EXPECT_EQ(nmea::ChecksumOk(GetParam().sentence), GetParam().ok) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(Sentences, NmeaChecksum, ::testing::ValuesIn(kChecksumCases));

// ---- RMC and GGA ----

struct DecodeCase {
    const char* what;
    std::string sentence;
    FixTracker::Result result;
    bool valid;
    double lat;
    double lon;
    double knots;
    int quality;
    int satellites;
    const char* time;  // ISO text, "" without date
};

std::ostream& operator<<(std::ostream& out, const DecodeCase& c) {
    return out << c.what;
}

const DecodeCase kDecodeCases[] = {
    {"captured RMC", kQ818Rmc, FixTracker::kRmc, true, 34.03294, -117.747123333, 0.0, 0, 0,
     "2010-06-03T14:52:43.000Z"},
    {"captured GGA", kQ818Gga, FixTracker::kGga, true, 34.03294, -117.747123333, 0.0, 2, 10, ""},
    {"south and east, last second of the century",
     Sentence("GPRMC,235959.50,A,3351.1234,S,15112.5678,E,12.5,45.0,311299,,"), FixTracker::kRmc,
     true, -33.852056667, 151.20946333, 12.5, 0, 0, "1999-12-31T23:59:59.500Z"},
    {"receiver without fix", Sentence("GPRMC,,V,,,,,,,,,,N"), FixTracker::kRmc, false, 0, 0, 0, 0,
     0, ""},
    {"GGA without fix", Sentence("GPGGA,123519,,,,,0,00,,,M,,M,,"), FixTracker::kGga, false, 0, 0,
     0, 0, 0, ""},
    {"multi-constellation talker",
     Sentence("GNGGA,092750.000,5321.6802,N,00630.3372,W,1,12,0.9,1.5,M,54.7,M,,"),
     FixTracker::kGga, true, 53.361336667, -6.50562, 0, 1, 12, ""},
    {"minutes beyond 59", Sentence("GPRMC,123519,A,4860.000,N,01131.000,E,0,0,230394,,"),
     FixTracker::kMalformed, false, 0, 0, 0, 0, 0, ""},
    {"letter in the latitude", Sentence("GPRMC,123519,A,48A7.038,N,01131.000,E,0,0,230394,,"),
     FixTracker::kMalformed, false, 0, 0, 0, 0, 0, ""},
    {"unknown hemisphere", Sentence("GPRMC,123519,A,4807.038,X,01131.000,E,0,0,230394,,"),
     FixTracker::kMalformed, false, 0, 0, 0, 0, 0, ""},
    {"hour 24", Sentence("GPRMC,243519,A,4807.038,N,01131.000,E,0,0,230394,,"),
     FixTracker::kMalformed, false, 0, 0, 0, 0, 0, ""},
    {"too few fields", Sentence("GPGGA,123519,4807.038,N"), FixTracker::kMalformed, false, 0, 0, 0,
     0, 0, ""},
    {"bad checksum", "$GPRMC,145243.000,A,3401.9764,N,11744.8274,W,0.00,119.27,030610,,,D*71",
     FixTracker::kBadChecksum, false, 0, 0, 0, 0, 0, ""},
    {"other sentence", "$GPGSA,A,3,14,09,22,18,19,24,06,21,03,31,,,1.58,0.87,1.31*0D",
     FixTracker::kIgnored, false, 0, 0, 0, 0, 0, ""},
    {"comment line", "# Name: BT-Q818", FixTracker::kIgnored, false, 0, 0, 0, 0, 0, ""},
};

class NmeaDecode : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(NmeaDecode, UpdatesTheFix) {
    const DecodeCase& c = GetParam();
    FixTracker tracker;
    ASSERT_EQ(tracker.Apply(c.sentence), c.result) << c.what;
    const nmea::GpsFix& fix = tracker.Fix();
    EXPECT_EQ(fix.valid, c.valid) << c.what;
    if (c.valid) {
        EXPECT_NEAR(fix.latitude, c.lat, 1e-7) << c.what;
        EXPECT_NEAR(fix.longitude, c.lon, 1e-7) << c.what;
        EXPECT_NEAR(fix.speedKnots, c.knots, 1e-9) << c.what;
        EXPECT_EQ(fix.quality, c.quality) << c.what;
        EXPECT_EQ(fix.satellites, c.satellites) << c.what;
    }
    EXPECT_EQ(nmea::FormatIsoTime(fix), c.time) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Sentences, NmeaDecode, ::testing::ValuesIn(kDecodeCases));

TEST(NmeaDecode, GgaTakesTheDateOfTheLastRmc) {
    FixTracker tracker;
    tracker.Apply(kQ818Rmc);
    tracker.Apply(
        "$GPGGA,145244.000,3401.9764,N,11744.8274,W,2,10,0.87,234.7,M,-33.2,M,0000,0000*58");
    EXPECT_EQ(nmea::FormatIsoTime(tracker.Fix()), "2010-06-03T14:52:44.000Z");
    EXPECT_NEAR(tracker.Fix().altitudeM, 234.7, 1e-9);
    EXPECT_EQ(tracker.Fix().sentences, 2u);
}

// ---- line cutting ----

struct SplitCase {
    const char* what;
    std::vector<std::string> chunks;
    std::vector<std::string> lines;
    size_t pending;
};

std::ostream& operator<<(std::ostream& out, const SplitCase& c) {
    return out << c.what;
}

const SplitCase kSplitCases[] = {
    {"sentence across deliveries", {"$GPA,1\r\n$GP", "B,2\r", "\n"}, {"$GPA,1", "$GPB,2"}, 0},
    {"partial kept", {"$GPA,1\r\n$GPB"}, {"$GPA,1"}, 4},
    {"bare line ends", {"\r\n\n\r"}, {}, 0},
    {"sentence start inside a line restarts it", {"$GPA,1$GPB,2\n"}, {"$GPB,2"}, 0},
    {"over-long line dropped up to its end", {std::string(200, 'x'), "yy\n$GPC\n"}, {"$GPC"}, 0},
};

class NmeaLines : public ::testing::TestWithParam<SplitCase> {};

TEST_P(NmeaLines, AreCut) {
    const SplitCase& c = GetParam();
    nmea::LineSplitter splitter;
    std::vector<std::string> lines;
    for (const std::string& chunk : c.chunks) {
        splitter.Feed(chunk.data(), chunk.size(), lines);
    }
    EXPECT_EQ(lines, c.lines) << c.what;
    EXPECT_EQ(splitter.Pending(), c.pending) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Streams, NmeaLines, ::testing::ValuesIn(kSplitCases));

// ---- real captures against the reference decoder ----

struct CaptureCase {
    const char* file;
    int positions;  // TPV records with a position after an RMC or GGA
    int times;      // ... with a time after an RMC
    int noFix;      // ... that say "no fix" (mode 1)
};

std::ostream& operator<<(std::ostream& out, const CaptureCase& c) {
    return out << c.file;
}

// The reference output: every sentence of the capture, each with the TPV records it produced.
struct Reported {
    std::string sentence;
    std::vector<Json::Value> tpv;
};

std::vector<Reported> ReadCheckFile(const std::string& path) {
    std::vector<Reported> out;
    std::istringstream in(ReadFile(path));
    std::string line;
    Json::CharReaderBuilder builder;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.rfind("$", 0) == 0) {
            out.push_back({line, {}});
            continue;
        }
        Json::Value record;
        std::string errors;
        std::istringstream json(line);
        if (!out.empty() && Json::parseFromStream(builder, json, &record, &errors) &&
            record["class"].asString() == "TPV") {
            out.back().tpv.push_back(record);
        }
    }
    return out;
}

class NmeaCapture : public ::testing::TestWithParam<CaptureCase> {};

TEST_P(NmeaCapture, AgreesWithTheReferenceDecoder) {
    const CaptureCase& c = GetParam();
    std::vector<Reported> reported = ReadCheckFile(DataFile(std::string(c.file) + ".chk"));
    std::string capture = ReadFile(DataFile(c.file));
    ASSERT_FALSE(capture.empty());

    // The capture goes through the line cutter in awkward pieces, as a port delivers it.
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
        const Reported& r = reported[next++];
        ASSERT_EQ(line, r.sentence);
        FixTracker::Result result = tracker.Apply(line);
        if (result != FixTracker::kRmc && result != FixTracker::kGga) {
            continue;
        }
        const nmea::GpsFix& fix = tracker.Fix();
        for (const Json::Value& tpv : r.tpv) {
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

// ---- the plug-in on a tty ----

class GpsPlugin : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_tty.MakeRaw()); }
    Pty m_tty;
};

TEST_F(GpsPlugin, DecodesACaptureArrivingInPieces) {
    // Made here under an id without library rather than by the manager, to reach the fix.
    SerialHarness service({{5, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{5, kPlainId}})));
    CGpsNmea gps(&service.Manager(), service.ManagerClient(), kPlainId, 0);
    ASSERT_TRUE(gps.GetCurPeripOpenStatus());

    std::string capture = ReadFile(DataFile("bt-q818.log"));
    for (size_t at = 0; at < capture.size(); at += 53) {
        ASSERT_TRUE(m_tty.Send(capture.substr(at, 53)));
    }
    nmea::GpsFix fix;
    ASSERT_TRUE(WaitUntil([&] { return gps.GetLatestFix(fix) && fix.sentences == 20; }));
    EXPECT_TRUE(fix.valid);
    EXPECT_EQ(nmea::FormatIsoTime(fix), "2010-06-03T14:52:52.000Z");
    EXPECT_NEAR(fix.latitude, 34.032941667, 1e-7);
    EXPECT_EQ(fix.satellites, 10);
    EXPECT_EQ(gps.GetRejectedSentences(), 0u);
    // One line per RMC, and one for the GGA that came before the first RMC.
    EXPECT_EQ(service.Logs().Count("GPS_NMEA: fix, mainId = 50, subId = 0, time = "), 11u);
    EXPECT_TRUE(service.Logs().Contains(
        "GPS_NMEA: fix, mainId = 50, subId = 0, time = 2010-06-03T14:52:43.000Z, lat = 34.032940, "
        "lon = -117.747123, speed = 0.0 km/h, quality = 2, satellites = 10\n"));
}

TEST(GpsPluginCycle, WarnsOnceWhenTheReceiverFallsSilent) {
    SerialHarness service;
    CGpsNmea gps(&service.Manager(), service.ManagerClient(), kPlainId, 0);
    long long start = Common::Q7R_TMGetSystemMicroSecond();
    const char* silent = "GPS_NMEA: no sentence for ";
    gps.PeripheralThreadCycle(start + 1000);
    gps.PeripheralThreadCycle(start + CGpsNmea::kSilenceWarnMs + 10);
    gps.PeripheralThreadCycle(start + CGpsNmea::kSilenceWarnMs + 20);
    EXPECT_EQ(service.Logs().Count(silent), 1u);
}

TEST_F(GpsPlugin, LoadedByTheManagerFromItsLibrary) {
    SerialHarness service({{4, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kGpsId}})));
    ASSERT_TRUE(service.Logs().Contains("GPS_NMEA: created, mainId = 3, subId = 0, link = 1"));

    ASSERT_TRUE(m_tty.Send(std::string(kQ818Rmc) + "\r\n"));
    // The capture says *77 here.
    ASSERT_TRUE(
        m_tty.Send("$GPRMC,145244.000,A,3401.9764,N,11744.8274,W,0.00,119.27,030610,,,D*76\r\n"));
    EXPECT_TRUE(
        service.Logs().WaitFor("GPS_NMEA: fix, mainId = 3, subId = 0, time = 2010-06-03T14:52:43"));
    EXPECT_TRUE(service.Logs().WaitFor("GPS_NMEA: sentence refused (checksum), mainId = 3"));

    // Leaving the setting releases the instance and closes its library.
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kPlainId}})));
    EXPECT_TRUE(service.Logs().Contains(
        "S_MANAGE: Release Peripheral Instance success, type = 0, mainID = 3, subId = 0"));
    EXPECT_EQ(service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, kGpsId, 0), nullptr);
}

}  // namespace
}  // namespace sertest
