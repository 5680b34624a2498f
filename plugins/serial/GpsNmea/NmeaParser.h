// NMEA 0183 decoding for the GPS plug-in: pure functions over text, no port, no bus.
// Positions are decimal degrees (south and west negative), times UTC, speeds in knots as the
// receiver sends them (SpeedMps converts).
#ifndef PLUGINS_SERIAL_GPS_NMEA_PARSER_H
#define PLUGINS_SERIAL_GPS_NMEA_PARSER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nmea {

// Longest sentence the standard allows is 82 characters; receivers stretch it a little.
constexpr std::size_t kMaxSentenceLength = 164;

struct UtcTime {
    int hour = 0;
    int minute = 0;
    double second = 0.0;
};

struct UtcDate {
    int year = 0;  // four digits
    int month = 0;
    int day = 0;
};

// Recommended minimum data: time, date, position, speed and course.
struct RmcSentence {
    bool hasTime = false;
    UtcTime time;
    bool active = false;  // status 'A': the receiver vouches for the position
    bool hasPosition = false;
    double latitude = 0.0;
    double longitude = 0.0;
    bool hasSpeed = false;
    double speedKnots = 0.0;
    bool hasCourse = false;
    double courseDeg = 0.0;
    bool hasDate = false;
    UtcDate date;
};

// Fix data: time, position, fix quality, satellites, dilution and altitude.
struct GgaSentence {
    bool hasTime = false;
    UtcTime time;
    bool hasPosition = false;
    double latitude = 0.0;
    double longitude = 0.0;
    int quality = 0;  // 0 none, 1 GPS, 2 DGPS, 4/5 RTK, 6 estimated, 8 simulated
    int satellites = 0;
    bool hasHdop = false;
    double hdop = 0.0;
    bool hasAltitude = false;
    double altitudeM = 0.0;  // above mean sea level
};

// The latest state of the receiver, merged from RMC and GGA.
struct GpsFix {
    bool valid = false;  // the latest RMC/GGA reported a usable position
    bool hasTime = false;
    UtcTime time;
    bool hasDate = false;
    UtcDate date;
    bool hasPosition = false;  // latitude/longitude hold the last reported position
    double latitude = 0.0;
    double longitude = 0.0;
    double speedKnots = 0.0;
    double courseDeg = 0.0;
    int quality = 0;
    int satellites = 0;
    double hdop = 0.0;
    double altitudeM = 0.0;
    uint32_t sentences = 0;  // RMC and GGA sentences taken
};

double SpeedMps(double knots);
double SpeedKmh(double knots);

// True when `sentence` ("$...*hh", no line ending) carries a correct XOR checksum. A sentence
// without its checksum is refused.
bool ChecksumOk(std::string_view sentence);
// The sentence formatter without the talker: "RMC" for "$GPRMC,..." and "$GNRMC,...";
// empty when the address field is not five characters long.
std::string_view SentenceType(std::string_view sentence);
// Comma-separated fields between '$' and '*'; field 0 is the address ("GPRMC").
std::vector<std::string_view> SplitFields(std::string_view sentence);

bool ParseTime(std::string_view field, UtcTime& out);  // hhmmss[.sss]
bool ParseDate(std::string_view field, UtcDate& out);  // ddmmyy
bool ParseLatitude(std::string_view value, std::string_view hemisphere, double& out);  // ddmm.mmmm
bool ParseLongitude(std::string_view value, std::string_view hemisphere,
                    double& out);  // dddmm.mmmm

// Both expect a sentence whose checksum was checked; false when the fields do not parse.
bool ParseRmc(std::string_view sentence, RmcSentence& out);
bool ParseGga(std::string_view sentence, GgaSentence& out);

// "2010-06-03T14:52:43.000Z"; empty without date and time.
std::string FormatIsoTime(const GpsFix& fix);

// Cuts received bytes into lines. A sentence split across two deliveries is kept until its
// end arrives; an over-long line (garbage, wrong baud rate) is dropped up to its line end.
class LineSplitter {
public:
    // Appends `data` and adds every completed line, without CR/LF, to `lines`.
    void Feed(const char* data, std::size_t length, std::vector<std::string>& lines);
    std::size_t Pending() const { return m_pending.size(); }
    // Lines dropped for being too long.
    uint32_t Dropped() const { return m_dropped; }

private:
    std::string m_pending;
    bool m_overlong = false;
    uint32_t m_dropped = 0;
};

// Applies sentences to the latest fix.
class FixTracker {
public:
    enum Result {
        kIgnored,      // not RMC or GGA (or not a sentence at all)
        kBadChecksum,  // refused: checksum missing or wrong
        kMalformed,    // RMC/GGA whose fields do not parse
        kRmc,          // fix updated from RMC
        kGga,          // fix updated from GGA
    };
    Result Apply(std::string_view sentence);
    const GpsFix& Fix() const { return m_fix; }

private:
    void ApplyRmc(const RmcSentence& rmc);
    void ApplyGga(const GgaSentence& gga);
    GpsFix m_fix;
};

}  // namespace nmea

#endif
