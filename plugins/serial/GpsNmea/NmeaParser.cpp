#include "NmeaParser.h"

#include <stdio.h>

#include <charconv>
#include <cmath>

namespace nmea {

namespace {

constexpr double kMpsPerKnot = 1852.0 / 3600.0;

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

bool ParseDouble(std::string_view text, double& out) {
    if (text.empty()) {
        return false;
    }
    double value = 0.0;
    auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() ||
        !std::isfinite(value)) {
        return false;
    }
    out = value;
    return true;
}

bool ParseInt(std::string_view text, int& out) {
    if (text.empty()) {
        return false;
    }
    int value = 0;
    auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
        return false;
    }
    out = value;
    return true;
}

bool AllDigits(std::string_view text) {
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

// ddmm.mmmm or dddmm.mmmm: the minutes always take the two digits before the point.
bool ParseAngle(std::string_view value, int degreeDigits, int maxDegrees, double& out) {
    std::size_t point = value.find('.');
    std::size_t whole = point == std::string_view::npos ? value.size() : point;
    if (whole != static_cast<std::size_t>(degreeDigits) + 2 || !AllDigits(value.substr(0, whole))) {
        return false;
    }
    int degrees = 0;
    double minutes = 0.0;
    if (!ParseInt(value.substr(0, degreeDigits), degrees) ||
        !ParseDouble(value.substr(degreeDigits), minutes)) {
        return false;
    }
    if (degrees > maxDegrees || minutes >= 60.0 || (degrees == maxDegrees && minutes > 0.0)) {
        return false;
    }
    out = degrees + minutes / 60.0;
    return true;
}

bool ApplyHemisphere(std::string_view hemisphere, char positive, char negative, double& value) {
    if (hemisphere.size() != 1) {
        return false;
    }
    if (hemisphere[0] == negative) {
        value = -value;
        return true;
    }
    return hemisphere[0] == positive;
}

std::string_view Field(const std::vector<std::string_view>& fields, std::size_t i) {
    return i < fields.size() ? fields[i] : std::string_view();
}

// Empty fields mean "not known"; a field with text that does not parse spoils the sentence.
bool OptionalDouble(std::string_view text, bool& has, double& out) {
    has = false;
    if (text.empty()) {
        return true;
    }
    has = ParseDouble(text, out);
    return has;
}

bool ParsePosition(const std::vector<std::string_view>& fields, std::size_t first, bool& has,
                   double& latitude, double& longitude) {
    std::string_view lat = Field(fields, first);
    std::string_view lon = Field(fields, first + 2);
    has = false;
    if (lat.empty() && lon.empty()) {
        return true;
    }
    has = ParseLatitude(lat, Field(fields, first + 1), latitude) &&
          ParseLongitude(lon, Field(fields, first + 3), longitude);
    return has;
}

}  // namespace

double SpeedMps(double knots) {
    return knots * kMpsPerKnot;
}
double SpeedKmh(double knots) {
    return knots * 1.852;
}

bool ChecksumOk(std::string_view sentence) {
    if (sentence.size() < 4 || (sentence[0] != '$' && sentence[0] != '!')) {
        return false;
    }
    std::size_t star = sentence.rfind('*');
    if (star == std::string_view::npos || star + 3 != sentence.size()) {
        return false;
    }
    int high = HexValue(sentence[star + 1]);
    int low = HexValue(sentence[star + 2]);
    if (high < 0 || low < 0) {
        return false;
    }
    unsigned char sum = 0;
    for (std::size_t i = 1; i < star; ++i) {
        sum ^= static_cast<unsigned char>(sentence[i]);
    }
    return sum == ((high << 4) | low);
}

std::vector<std::string_view> SplitFields(std::string_view sentence) {
    std::vector<std::string_view> fields;
    if (sentence.empty()) {
        return fields;
    }
    std::string_view body = sentence.substr(1);
    std::size_t star = body.rfind('*');
    if (star != std::string_view::npos) {
        body = body.substr(0, star);
    }
    std::size_t begin = 0;
    for (;;) {
        std::size_t comma = body.find(',', begin);
        if (comma == std::string_view::npos) {
            fields.push_back(body.substr(begin));
            break;
        }
        fields.push_back(body.substr(begin, comma - begin));
        begin = comma + 1;
    }
    return fields;
}

std::string_view SentenceType(std::string_view sentence) {
    if (sentence.size() < 6 || sentence[0] != '$') {
        return {};
    }
    std::size_t comma = sentence.find(',');
    if (comma != 6) {
        return {};
    }
    return sentence.substr(3, 3);
}

bool ParseTime(std::string_view field, UtcTime& out) {
    if (field.size() < 6 || !AllDigits(field.substr(0, 6))) {
        return false;
    }
    int hour = (field[0] - '0') * 10 + (field[1] - '0');
    int minute = (field[2] - '0') * 10 + (field[3] - '0');
    double second = 0.0;
    if (!ParseDouble(field.substr(4), second)) {
        return false;
    }
    if (hour > 23 || minute > 59 || second >= 61.0) {
        return false;
    }
    out = UtcTime{hour, minute, second};
    return true;
}

bool ParseDate(std::string_view field, UtcDate& out) {
    if (field.size() != 6 || !AllDigits(field)) {
        return false;
    }
    int day = (field[0] - '0') * 10 + (field[1] - '0');
    int month = (field[2] - '0') * 10 + (field[3] - '0');
    int year = (field[4] - '0') * 10 + (field[5] - '0');
    if (day < 1 || day > 31 || month < 1 || month > 12) {
        return false;
    }
    // Two-digit years: receivers of this kind were not made before 1980.
    out = UtcDate{year < 80 ? 2000 + year : 1900 + year, month, day};
    return true;
}

bool ParseLatitude(std::string_view value, std::string_view hemisphere, double& out) {
    double angle = 0.0;
    if (!ParseAngle(value, 2, 90, angle) || !ApplyHemisphere(hemisphere, 'N', 'S', angle)) {
        return false;
    }
    out = angle;
    return true;
}

bool ParseLongitude(std::string_view value, std::string_view hemisphere, double& out) {
    double angle = 0.0;
    if (!ParseAngle(value, 3, 180, angle) || !ApplyHemisphere(hemisphere, 'E', 'W', angle)) {
        return false;
    }
    out = angle;
    return true;
}

bool ParseRmc(std::string_view sentence, RmcSentence& out) {
    std::vector<std::string_view> fields = SplitFields(sentence);
    if (fields.size() < 10 || SentenceType(sentence) != "RMC") {
        return false;
    }
    RmcSentence rmc;
    std::string_view time = fields[1];
    if (!time.empty()) {
        if (!ParseTime(time, rmc.time)) {
            return false;
        }
        rmc.hasTime = true;
    }
    if (fields[2] != "A" && fields[2] != "V") {
        return false;
    }
    rmc.active = fields[2] == "A";
    if (!ParsePosition(fields, 3, rmc.hasPosition, rmc.latitude, rmc.longitude) ||
        !OptionalDouble(fields[7], rmc.hasSpeed, rmc.speedKnots) ||
        !OptionalDouble(fields[8], rmc.hasCourse, rmc.courseDeg)) {
        return false;
    }
    if (!fields[9].empty()) {
        if (!ParseDate(fields[9], rmc.date)) {
            return false;
        }
        rmc.hasDate = true;
    }
    out = rmc;
    return true;
}

bool ParseGga(std::string_view sentence, GgaSentence& out) {
    std::vector<std::string_view> fields = SplitFields(sentence);
    if (fields.size() < 10 || SentenceType(sentence) != "GGA") {
        return false;
    }
    GgaSentence gga;
    if (!fields[1].empty()) {
        if (!ParseTime(fields[1], gga.time)) {
            return false;
        }
        gga.hasTime = true;
    }
    if (!ParsePosition(fields, 2, gga.hasPosition, gga.latitude, gga.longitude)) {
        return false;
    }
    if (!ParseInt(fields[6], gga.quality) || gga.quality < 0 || gga.quality > 9) {
        return false;
    }
    if (!fields[7].empty() && (!ParseInt(fields[7], gga.satellites) || gga.satellites < 0)) {
        return false;
    }
    if (!OptionalDouble(fields[8], gga.hasHdop, gga.hdop) ||
        !OptionalDouble(fields[9], gga.hasAltitude, gga.altitudeM)) {
        return false;
    }
    out = gga;
    return true;
}

std::string FormatIsoTime(const GpsFix& fix) {
    if (!fix.hasDate || !fix.hasTime) {
        return {};
    }
    // Milliseconds rounded once, so 43.9996 s does not print as "43.1000".
    long millis = std::lround(fix.time.second * 1000.0);
    char text[96];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02ld.%03ldZ", fix.date.year,
             fix.date.month, fix.date.day, fix.time.hour, fix.time.minute, millis / 1000,
             millis % 1000);
    return text;
}

void LineSplitter::Feed(const char* data, std::size_t length, std::vector<std::string>& lines) {
    for (std::size_t i = 0; i < length; ++i) {
        char c = data[i];
        if (c == '\n' || c == '\r') {
            if (!m_overlong && !m_pending.empty()) {
                lines.push_back(m_pending);
            }
            m_pending.clear();
            m_overlong = false;
            continue;
        }
        if (m_overlong) {
            continue;
        }
        if (c == '$' && !m_pending.empty()) {
            // A new sentence starts inside a line: the line before it lost its ending.
            m_pending.clear();
        }
        if (m_pending.size() >= kMaxSentenceLength) {
            m_pending.clear();
            m_overlong = true;
            ++m_dropped;
            continue;
        }
        m_pending.push_back(c);
    }
}

FixTracker::Result FixTracker::Apply(std::string_view sentence) {
    std::string_view type = SentenceType(sentence);
    if (type != "RMC" && type != "GGA") {
        return kIgnored;
    }
    if (!ChecksumOk(sentence)) {
        return kBadChecksum;
    }
    if (type == "RMC") {
        RmcSentence rmc;
        if (!ParseRmc(sentence, rmc)) {
            return kMalformed;
        }
        ApplyRmc(rmc);
        return kRmc;
    }
    GgaSentence gga;
    if (!ParseGga(sentence, gga)) {
        return kMalformed;
    }
    ApplyGga(gga);
    return kGga;
}

void FixTracker::ApplyRmc(const RmcSentence& rmc) {
    ++m_fix.sentences;
    if (rmc.hasTime) {
        m_fix.hasTime = true;
        m_fix.time = rmc.time;
    }
    if (rmc.hasDate) {
        m_fix.hasDate = true;
        m_fix.date = rmc.date;
    }
    m_fix.valid = rmc.active && rmc.hasPosition;
    if (!m_fix.valid) {
        return;
    }
    m_fix.hasPosition = true;
    m_fix.latitude = rmc.latitude;
    m_fix.longitude = rmc.longitude;
    m_fix.speedKnots = rmc.hasSpeed ? rmc.speedKnots : 0.0;
    if (rmc.hasCourse) {
        m_fix.courseDeg = rmc.courseDeg;
    }
}

void FixTracker::ApplyGga(const GgaSentence& gga) {
    ++m_fix.sentences;
    if (gga.hasTime) {
        m_fix.hasTime = true;
        m_fix.time = gga.time;
    }
    m_fix.quality = gga.quality;
    m_fix.satellites = gga.satellites;
    if (gga.hasHdop) {
        m_fix.hdop = gga.hdop;
    }
    m_fix.valid = gga.quality > 0 && gga.hasPosition;
    if (!m_fix.valid) {
        return;
    }
    m_fix.hasPosition = true;
    m_fix.latitude = gga.latitude;
    m_fix.longitude = gga.longitude;
    if (gga.hasAltitude) {
        m_fix.altitudeM = gga.altitudeM;
    }
}

}  // namespace nmea
