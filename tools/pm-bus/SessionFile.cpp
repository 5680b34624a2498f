#include "SessionFile.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "BusWire.h"
#include "EventNames.h"
#include "MessageText.h"

namespace pmbus {

namespace {

constexpr uint32_t kReservedBits = 0xFE000000u;
constexpr double kLongestSession = 1e7;  // seconds; beyond this a time is a typo

std::string Hex(const uint8_t* data, size_t size) {
    std::string text;
    char byte[4];
    for (size_t i = 0; i < size; ++i) {
        snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", data[i]);
        text += byte;
    }
    return text;
}

std::string Seconds(double seconds) {
    char text[32];
    snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

const char* Flags(const pmtools::HeadFields& head) {
    if (head.needAnswer) {
        return head.isAnswer ? "request+answer" : "request";
    }
    return head.isAnswer ? "answer" : "-";
}

bool ParseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(seconds) && seconds >= 0 &&
           seconds <= kLongestSession;
}

// "key=NUMBER" with a number up to `max`.
bool ParseField(const std::string& word, const std::string& key, uint64_t max, uint64_t& value) {
    return word.compare(0, key.size() + 1, key + "=") == 0 &&
           pmtools::ParseNumber(word.substr(key.size() + 1), max, value);
}

bool ParseFlags(const std::string& word, uint32_t& bits) {
    const struct {
        const char* text;
        uint32_t bits;
    } known[] = {{"-", 0},
                 {"request", Common::kMsgNeedAnswerFlag},
                 {"answer", Common::kMsgIsAnswerFlag},
                 {"request+answer", Common::kMsgNeedAnswerFlag | Common::kMsgIsAnswerFlag}};
    for (const auto& k : known) {
        if (word == k.text) {
            bits = k.bits;
            return true;
        }
    }
    return false;
}

// The hex after " | ", or none.
bool ParsePayload(std::istringstream& in, std::vector<uint8_t>& bytes, std::string& error) {
    std::string bar;
    if (!(in >> bar)) {
        return true;
    }
    if (bar != "|") {
        error = "expected '|' before the payload, found '" + bar + "'";
        return false;
    }
    std::string rest;
    std::getline(in, rest);
    if (!pmtools::ParseHexBytes(rest, bytes, error)) {
        error = "payload: " + error;
        return false;
    }
    return true;
}

bool ParseHeadWords(std::istringstream& in, std::vector<uint8_t>& frame, std::string& error) {
    std::string idText, name, from, seq, flags, len;
    if (!(in >> idText >> name >> from >> seq >> flags >> len)) {
        error = "expected: SECONDS ID NAME from=N seq=N FLAGS len=N [| HEX], or SECONDS raw | HEX";
        return false;
    }
    uint64_t id = 0, sender = 0, number = 0, length = 0;
    uint32_t bits = 0;
    if (!pmtools::ParseNumber(idText, UINT32_MAX, id)) {
        error = "bad event id '" + idText + "'";
    } else if (!ParseField(from, "from", UINT32_MAX, sender)) {
        error = "bad sender '" + from + "' (from=N)";
    } else if (!ParseField(seq, "seq", UINT32_MAX, number)) {
        error = "bad sequence number '" + seq + "' (seq=N)";
    } else if (!ParseFlags(flags, bits)) {
        error = "bad flags '" + flags + "' (-, request, answer or request+answer)";
    } else if (!ParseField(len, "len", Common::kMsgLengthMask, length)) {
        error = "bad length '" + len + "' (len=N)";
    }
    if (!error.empty()) {
        return false;
    }
    frame.assign(Common::kMsgHeadSize, 0);
    Common::PutMsgHead(frame.data(), static_cast<uint32_t>(id), static_cast<uint32_t>(sender),
                       static_cast<uint32_t>(number), static_cast<uint32_t>(length) | bits);
    return true;
}

}  // namespace

std::string SessionHeader() {
    return "# pm-bus session " + std::to_string(kSessionVersion) +
           ": SECONDS ID NAME from=SENDER seq=SEQ FLAGS len=LENGTH | PAYLOAD\n";
}

std::string FormatSessionLine(double seconds, const uint8_t* frame, size_t size) {
    pmtools::HeadFields head;
    // What a head cannot say (a short frame, reserved bits) travels as raw bytes.
    if (!pmtools::ReadHead(frame, size, head) ||
        (Common::GetLe32(frame + 12) & kReservedBits) != 0) {
        return Seconds(seconds) + " raw | " + Hex(frame, size);
    }
    std::string name = pmtools::NameOfEvent(head.eventId);
    char text[160];
    snprintf(text, sizeof text, "%s 0x%08x %s from=%u seq=%u %s len=%u", Seconds(seconds).c_str(),
             head.eventId, name.empty() ? "?" : name.c_str(), head.senderId, head.seq, Flags(head),
             head.length);
    std::string line = text;
    if (size > Common::kMsgHeadSize) {
        line += " | " + Hex(frame + Common::kMsgHeadSize, size - Common::kMsgHeadSize);
    }
    return line;
}

std::string FormatSessionEnd(double seconds) {
    return Seconds(seconds) + " end";
}

bool ParseSessionLine(const std::string& line, SessionMessage& message, std::string& error) {
    std::istringstream in(line);
    std::string time, kind;
    in >> time;
    const std::streampos afterTime = in.tellg();
    in >> kind;
    if (!ParseSeconds(time, message.seconds)) {
        error = "bad time '" + time + "' (seconds since the start, e.g. 1.250)";
        return false;
    }
    std::vector<uint8_t> payload;
    message.frame.clear();
    if (kind != "raw") {
        in.clear();
        in.seekg(afterTime);
        if (!ParseHeadWords(in, message.frame, error)) {
            return false;
        }
    }
    if (!ParsePayload(in, payload, error)) {
        return false;
    }
    message.frame.insert(message.frame.end(), payload.begin(), payload.end());
    if (message.frame.empty()) {
        error = "a raw message needs its bytes";
        return false;
    }
    return true;
}

bool LoadSession(const std::string& path, Session& session, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot open";
        return false;
    }
    session = Session{};
    bool ended = false;
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        std::string where = path + ":" + std::to_string(number) + ": ";
        size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        if (ended) {
            error = where + "nothing may follow the end line";
            return false;
        }
        std::istringstream words(line);
        std::string time, kind, extra;
        words >> time >> kind;
        if (kind == "end" && !(words >> extra) && ParseSeconds(time, session.endSeconds)) {
            ended = true;
            continue;
        }
        SessionMessage message;
        if (!ParseSessionLine(line, message, error)) {
            error = where + error;
            return false;
        }
        session.messages.push_back(std::move(message));
    }
    if (!ended && !session.messages.empty()) {
        session.endSeconds = session.messages.back().seconds;
    }
    return true;
}

}  // namespace pmbus
