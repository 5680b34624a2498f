#include "CanText.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace pmrecorder {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
}

bool ParseHexId(const std::string& text, uint32_t& id) {
    id = 0;
    for (char c : text) {
        int v = HexValue(c);
        if (v < 0) {
            return false;
        }
        id = id << 4 | static_cast<uint32_t>(v);
    }
    return !text.empty();
}

bool ParseData(const std::string& text, CanFrame& frame, std::string& error) {
    size_t i = 0;
    frame.length = 0;
    while (i < text.size()) {
        if (text[i] == '.') {
            ++i;
            continue;
        }
        if (i + 1 >= text.size() || HexValue(text[i]) < 0 || HexValue(text[i + 1]) < 0) {
            error = "bad data byte at \"" + text.substr(i) + "\"";
            return false;
        }
        if (frame.length == 8) {
            error = "more than 8 data bytes";
            return false;
        }
        frame.data[frame.length++] =
            static_cast<uint8_t>(HexValue(text[i]) << 4 | HexValue(text[i + 1]));
        i += 2;
    }
    return true;
}

}  // namespace

bool operator==(const CanFrame& a, const CanFrame& b) {
    return a.id == b.id && a.extended == b.extended && a.length == b.length &&
           memcmp(a.data, b.data, a.length) == 0;
}

bool ParseCansend(const std::string& text, CanFrame& out, std::string& error) {
    size_t hash = text.find('#');
    if (hash == std::string::npos) {
        error = "\"" + text + "\" is not ID#DATA";
        return false;
    }
    std::string idText = text.substr(0, hash);
    std::string dataText = text.substr(hash + 1);
    if (!dataText.empty() && dataText[0] == '#') {
        error = "CAN FD frames are not carried by the recorder";
        return false;
    }
    if (!dataText.empty() && (dataText[0] == 'R' || dataText[0] == 'r')) {
        error = "remote frames are not carried by the recorder";
        return false;
    }
    CanFrame frame;
    if ((idText.size() != 3 && idText.size() != 8) || !ParseHexId(idText, frame.id)) {
        error = "CAN id \"" + idText + "\" must be 3 hex digits (standard) or 8 (extended)";
        return false;
    }
    frame.extended = idText.size() == 8;
    if (frame.id > (frame.extended ? kCanExtendedMax : kCanStandardMax)) {
        error = "CAN id " + idText + " is out of range";
        return false;
    }
    if (!ParseData(dataText, frame, error)) {
        return false;
    }
    out = frame;
    return true;
}

std::string FormatCansend(const CanFrame& frame) {
    char text[40];
    int n = snprintf(text, sizeof(text), frame.extended ? "%08" PRIX32 "#" : "%03" PRIX32 "#",
                     frame.id);
    for (uint8_t i = 0; i < frame.length && i < 8; ++i) {
        n += snprintf(text + n, sizeof(text) - static_cast<size_t>(n), "%02X", frame.data[i]);
    }
    return text;
}

bool PortOfInterface(const std::string& name, int& port) {
    size_t digits = name.size();
    while (digits > 0 && isdigit(static_cast<unsigned char>(name[digits - 1]))) {
        --digits;
    }
    if (digits == name.size()) {
        port = 0;
        return !name.empty();
    }
    std::string number = name.substr(digits);
    if (number.size() > 2) {
        return false;
    }
    port = std::stoi(number);
    return port < kCanPorts;
}

bool ParseCandumpLine(const std::string& line, CandumpRecord& out, std::string& error) {
    // "(SECONDS.MICROS) IFACE FRAME", single spaces as candump writes them.
    char seconds[24] = {};
    char micros[8] = {};
    char iface[32] = {};
    char frame[64] = {};
    char extra = 0;
    int fields = sscanf(line.c_str(), "(%20[0-9].%6[0-9]) %31s %63s %c", seconds, micros, iface,
                        frame, &extra);
    if (fields != 4 || strlen(micros) != 6) {
        error = "not a candump -l line";
        return false;
    }
    CandumpRecord record;
    record.interface = iface;
    if (!ParseCansend(frame, record.frame, error)) {
        return false;
    }
    if (strlen(seconds) > 12) {
        error = "time stamp out of range";
        return false;
    }
    record.timeUs = std::stoll(seconds) * 1000000 + std::stoll(micros);
    out = record;
    return true;
}

std::string FormatCandumpLine(const CandumpRecord& record) {
    char stamp[40];
    snprintf(stamp, sizeof(stamp), "(%" PRId64 ".%06" PRId64 ") ", record.timeUs / 1000000,
             record.timeUs % 1000000);
    return stamp + record.interface + " " + FormatCansend(record.frame);
}

bool LoadCandumpFile(const std::string& path, std::vector<CandumpRecord>& out, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = path + ": " + strerror(errno);
        return false;
    }
    std::vector<CandumpRecord> records;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.pop_back();
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        CandumpRecord record;
        std::string why;
        if (!ParseCandumpLine(line, record, why)) {
            error = path + ":" + std::to_string(number) + ": " + why;
            return false;
        }
        records.push_back(record);
    }
    out.swap(records);
    return true;
}

std::vector<PlannedFrame> PlanReplay(const std::vector<CandumpRecord>& records, double speed) {
    std::vector<PlannedFrame> plan;
    if (records.empty() || !(speed > 0)) {
        return plan;
    }
    int64_t first = records.front().timeUs;
    int64_t latest = first;
    for (const CandumpRecord& r : records) {
        latest = std::max(latest, r.timeUs);
        PlannedFrame p;
        p.offsetUs = static_cast<int64_t>(static_cast<double>(latest - first) / speed);
        int port = 0;
        PortOfInterface(r.interface, port);
        p.port = port;
        p.frame = r.frame;
        plan.push_back(p);
    }
    return plan;
}

void CanPlaylist::Load(std::vector<PlannedFrame> frames, int64_t periodUs) {
    m_frames = std::move(frames);
    m_periodUs = periodUs;
    m_next = 0;
    m_started = false;
}

void CanPlaylist::Start(int64_t nowUs) {
    m_startUs = nowUs;
    m_next = 0;
    m_started = true;
}

bool CanPlaylist::Finished() const {
    return m_frames.empty() || (m_periodUs <= 0 && m_next >= m_frames.size());
}

std::vector<PlannedFrame> CanPlaylist::TakeDue(int64_t nowUs) {
    std::vector<PlannedFrame> due;
    if (!m_started || m_frames.empty()) {
        return due;
    }
    // Bounded so that a clock that jumps far ahead cannot flood one pass.
    for (size_t guard = 0; guard < 4096; ++guard) {
        if (m_next >= m_frames.size()) {
            if (m_periodUs <= 0) {
                break;
            }
            m_next = 0;
            m_startUs += m_periodUs;
        }
        if (m_startUs + m_frames[m_next].offsetUs > nowUs) {
            break;
        }
        due.push_back(m_frames[m_next++]);
    }
    return due;
}

}  // namespace pmrecorder
