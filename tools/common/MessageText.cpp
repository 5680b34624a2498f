#include "MessageText.h"

#include <time.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "EventNames.h"

#include "BusWire.h"
#include "PeripheralEvents.h"

namespace pmtools {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// What people put between bytes, in a shell, a script file or a scenario.
bool IsSeparator(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',' || c == ':' || c == '.';
}

std::string Clock(const struct timeval& when) {
    struct tm tmv;
    time_t seconds = when.tv_sec;
    localtime_r(&seconds, &tmv);
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
             static_cast<long>(when.tv_usec / 1000));
    return text;
}

const char* Flags(const HeadFields& head) {
    if (head.needAnswer && head.isAnswer) {
        return "request+answer";
    }
    return head.needAnswer ? "request" : head.isAnswer ? "answer" : "-";
}

}  // namespace

bool ParseHexBytes(const std::string& text, std::vector<uint8_t>& out, std::string& error) {
    out.clear();
    size_t i = 0;
    while (i < text.size()) {
        if (IsSeparator(text[i])) {
            ++i;
            continue;
        }
        if (text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            i += 2;
        }
        if (i >= text.size() || HexValue(text[i]) < 0) {
            error = "bad hex at offset " + std::to_string(i);
            return false;
        }
        if (i + 1 >= text.size() || HexValue(text[i + 1]) < 0) {
            error = "odd hex digit at offset " + std::to_string(i);
            return false;
        }
        out.push_back(static_cast<uint8_t>(HexValue(text[i]) << 4 | HexValue(text[i + 1])));
        i += 2;
    }
    return true;
}

std::string HexSummary(const uint8_t* data, size_t size, size_t limit) {
    std::string text;
    char byte[4];
    for (size_t i = 0; i < size && i < limit; ++i) {
        snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", data[i]);
        text += byte;
    }
    if (size > limit) {
        text += " ...";
    }
    return text;
}

std::string HexDump(const uint8_t* data, size_t size, const std::string& indent) {
    std::string text;
    char cell[24];
    for (size_t row = 0; row < size; row += 16) {
        snprintf(cell, sizeof cell, "%04zx ", row);
        text += indent + cell;
        std::string printable;
        for (size_t i = row; i < row + 16; ++i) {
            if (i < size) {
                snprintf(cell, sizeof cell, " %02x", data[i]);
                text += cell;
                printable += isprint(data[i]) ? static_cast<char>(data[i]) : '.';
            } else {
                text += "   ";
            }
        }
        text += "  |" + printable + "|\n";
    }
    return text;
}

bool ReadHead(const uint8_t* message, size_t size, HeadFields& head) {
    if (message == nullptr || size < Common::kMsgHeadSize) {
        return false;
    }
    head.eventId = Common::GetLe32(message);
    head.senderId = Common::GetLe32(message + 4);
    head.seq = Common::GetLe32(message + 8);
    uint32_t flags = Common::GetLe32(message + 12);
    head.length = flags & 0x7FFFFF;
    head.needAnswer = (flags >> 23 & 1) != 0;
    head.isAnswer = (flags >> 24 & 1) != 0;
    return true;
}

// Text of a fixed-size character field: up to its first zero, within the field.
static std::string Field(const uint8_t* data, size_t size) {
    size_t n = 0;
    while (n < size && data[n] != 0) {
        ++n;
    }
    return std::string(reinterpret_cast<const char*>(data), n);
}

// The records of the extension boxes, which a person reads by their fields, not their bytes.
static std::string DecodedRecord(uint32_t eventId, const uint8_t* p, size_t size) {
    char text[200];
    const uint32_t request = eventId & ~Common::kMsgAnswerBit;
    if ((eventId == EVENT_EXTEND_VERSION ||
         (request == EVENT_GET_EXTEND_VERSION && eventId != request)) &&
        size >= 245) {
        snprintf(text, sizeof text,
                 "box %u:%u dev %02x source %u count %u flag \"%s\" version \"%s\"", p[1], p[2],
                 p[3], p[9], p[10], Field(p + 21, 16).c_str(), Field(p + 37, 32).c_str());
        return text;
    }
    if ((eventId == EVENT_EXTEND_UPGRADE_STATE ||
         (request == EVENT_GET_EXTEND_UPGRADE_STATE && eventId != request)) &&
        size >= 85) {
        snprintf(text, sizeof text, "box %u:%u dev %02x source %u state %u percent %d", p[5], p[6],
                 p[7], p[0], p[1], static_cast<int8_t>(p[2]));
        return text;
    }
    if (eventId == EVENT_EXTEND_IO_STATE && size >= 4) {
        snprintf(text, sizeof text, "hub %u:%u io state 0x%x", p[0], p[1], Common::GetLe16(p + 2));
        return text;
    }
    return std::string();
}

std::string FormatMessage(const uint8_t* message, size_t size, const struct timeval& when,
                          bool fullHex, size_t summaryBytes) {
    HeadFields head;
    if (!ReadHead(message, size, head)) {
        return Clock(when) + " short message (" + std::to_string(size) +
               " bytes): " + HexSummary(message, message ? size : 0, 16);
    }
    std::string name = NameOfEvent(head.eventId);
    char text[160];
    snprintf(text, sizeof text, " %u %s from=%u seq=%u %s len=%u", head.eventId,
             name.empty() ? "?" : name.c_str(), head.senderId, head.seq, Flags(head), head.length);
    std::string line = Clock(when) + text;
    const uint8_t* payload = message + Common::kMsgHeadSize;
    size_t received = size - Common::kMsgHeadSize;
    if (received != head.length) {
        line += " (got " + std::to_string(received) + ")";
    }
    if (received > 0) {
        line += " | " + HexSummary(payload, received, summaryBytes);
        const std::string decoded = DecodedRecord(head.eventId, payload, received);
        if (!decoded.empty()) {
            line += " = " + decoded;
        }
    }
    if (fullHex && received > 0) {
        std::string dump = HexDump(payload, received, "    ");
        dump.pop_back();
        line += "\n" + dump;
    }
    return line;
}

}  // namespace pmtools
