// CAN frames as people write them: the cansend syntax ("123#DEADBEEF") and the candump log
// format ("(1700000000.123456) can0 123#DEADBEEF"), and the timing of a replayed log.
#ifndef TOOLS_PM_RECORDER_CAN_TEXT_H
#define TOOLS_PM_RECORDER_CAN_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace pmrecorder {

constexpr uint32_t kCanStandardMax = 0x7FF;
constexpr uint32_t kCanExtendedMax = 0x1FFFFFFF;
constexpr int kCanPorts = 4;

struct CanFrame {
    uint32_t id = 0;
    bool extended = false;  // written with 8 hex digits
    uint8_t length = 0;     // 0-8
    uint8_t data[8] = {};
};
bool operator==(const CanFrame& a, const CanFrame& b);

// "123#DEADBEEF", "18FEF100#00.11.22": 3 hex digits give a standard id (up to 7FF), 8 an
// extended one (up to 1FFFFFFF); data is 0 to 8 bytes, dots allowed between bytes. Remote
// frames ("123#R") and CAN FD ("123##1...") are refused: the recorder's CAN relay has neither.
bool ParseCansend(const std::string& text, CanFrame& out, std::string& error);
// The same text back: "123#DEADBEEF", "18FEF100#" for an empty frame.
std::string FormatCansend(const CanFrame& frame);

// "can0" -> 0, "vcan3" -> 3: the number the interface name ends with, or 0 when it has none.
// False when the number is not a port of the recorder (0-3).
bool PortOfInterface(const std::string& name, int& port);

struct CandumpRecord {
    int64_t timeUs = 0;  // the log's time stamp in microseconds
    std::string interface;
    CanFrame frame;
};
// One line of a `candump -l` log. False for anything else (the reason in `error`).
bool ParseCandumpLine(const std::string& line, CandumpRecord& out, std::string& error);
// "(1700000000.123456) can0 123#DEADBEEF", without a newline.
std::string FormatCandumpLine(const CandumpRecord& record);
// Every line of the file; blank lines and lines starting with '#' are skipped. False on the
// first bad line ("FILE:LINE: reason").
bool LoadCandumpFile(const std::string& path, std::vector<CandumpRecord>& out, std::string& error);

// A frame due at `offsetUs` after its playlist started.
struct PlannedFrame {
    int64_t offsetUs = 0;
    int port = 0;
    CanFrame frame;
};
// The log's own timing, `speed` times faster (2 = twice as fast). The first record is due at
// once; a time stamp that goes backwards counts as no gap.
std::vector<PlannedFrame> PlanReplay(const std::vector<CandumpRecord>& records, double speed);

// Frames that fall due on a clock handed in from outside (microseconds, monotonic), so that the
// timing is tested without waiting.
class CanPlaylist {
public:
    // `periodUs` > 0 repeats the list every period; 0 plays it once.
    void Load(std::vector<PlannedFrame> frames, int64_t periodUs);
    void Start(int64_t nowUs);
    bool Started() const { return m_started; }
    bool Finished() const;
    // Frames due by `nowUs`, in order; each is returned once per round.
    std::vector<PlannedFrame> TakeDue(int64_t nowUs);
    size_t Size() const { return m_frames.size(); }

private:
    std::vector<PlannedFrame> m_frames;
    int64_t m_periodUs = 0;
    int64_t m_startUs = 0;
    size_t m_next = 0;
    bool m_started = false;
};

}  // namespace pmrecorder

#endif
