// Session files: bus messages with their times, one a line, as `pm-bus record` writes them and
// `pm-bus replay` reads them (format: docs/bus.md, "Recording and replaying").
#ifndef TOOLS_PM_BUS_SESSION_FILE_H
#define TOOLS_PM_BUS_SESSION_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pmbus {

constexpr int kSessionVersion = 1;

struct SessionMessage {
    double seconds = 0;          // since the recording started
    std::vector<uint8_t> frame;  // exactly as it travelled, head included
};

struct Session {
    std::vector<SessionMessage> messages;  // in file order
    double endSeconds = 0;                 // when the recording stopped (the last line's time if
                                           // the file has no end line)
};

// The header line, with '\n'.
std::string SessionHeader();

// One line, without '\n', for a frame received `seconds` after the start.
std::string FormatSessionLine(double seconds, const uint8_t* frame, size_t size);

// The closing line, without '\n'.
std::string FormatSessionEnd(double seconds);

// Reads a session; false with "FILE:LINE: reason" in `error`.
bool LoadSession(const std::string& path, Session& session, std::string& error);

// Reads one message line (`line` without '\n'); false with the reason.
bool ParseSessionLine(const std::string& line, SessionMessage& message, std::string& error);

}  // namespace pmbus

#endif
