// Hex input and the one-line rendering of bus messages shared by the desktop tools.
#ifndef TOOLS_COMMON_MESSAGE_TEXT_H
#define TOOLS_COMMON_MESSAGE_TEXT_H

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pmtools {

// Reads hex bytes: pairs of hex digits, spaces (and tabs, commas, colons) allowed between
// bytes; an optional "0x" in front of a pair is skipped. Returns false with a reason in `error`
// for an odd digit count, a stray character, or a pair split by a separator.
bool ParseHexBytes(const std::string& text, std::vector<uint8_t>& out, std::string& error);

// "01 02 ff", at most `limit` bytes, then " ..." when there were more.
std::string HexSummary(const uint8_t* data, size_t size, size_t limit);

// Classic dump: offset, 16 bytes in hex, printable characters; one line per 16 bytes, each
// beginning with `indent` and ending with '\n'.
std::string HexDump(const uint8_t* data, size_t size, const std::string& indent);

// The parts of the 16-byte head, read from little-endian bytes.
struct HeadFields {
    uint32_t eventId = 0;
    uint32_t senderId = 0;
    uint32_t seq = 0;
    uint32_t length = 0;
    bool needAnswer = false;
    bool isAnswer = false;
};
bool ReadHead(const uint8_t* message, size_t size, HeadFields& head);

// One line (without '\n') for a received message (head and payload):
//   "12:00:01.234 33917 get-device-module-state.answer from=0 seq=3 answer len=4 | 01 00 00 00"
// Flags are "request", "answer", "request+answer" or "-"; an unknown id has the name "?".
// The summary shows the first `summaryBytes` payload bytes actually received; when the head's
// length and the bytes received differ, "(got N)" follows the length. With `fullHex` the
// whole payload follows as a dump on lines of its own.
std::string FormatMessage(const uint8_t* message, size_t size, const struct timeval& when,
                          bool fullHex, size_t summaryBytes = 16);

}  // namespace pmtools

#endif
