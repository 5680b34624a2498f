// The extension box as its firmware behaves on the line, for pm-boxsim and for the tests:
// the frame (with the toolkit's byte stuffing), a cutter for a received stream, and a model
// that answers the recorder's commands and carries sub-port data. No I/O here.
#ifndef TOOLS_BOXSIM_BOX_SIM_H
#define TOOLS_BOXSIM_BOX_SIM_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ExtendBoxRecords.h"

namespace boxsim {

constexpr uint8_t kBoxDevice = 0x04;
constexpr uint8_t kHubDevice = 0x19;
constexpr size_t kMaxFrame = EXTEND_BOX_FRAME_SIZE;

// One frame, unstuffed: address byte, device byte and the body (the bytes between the check
// value and the end mark: command, length, payload for the box's own frames).
struct Frame {
    uint8_t address = 0x80;
    uint8_t device = kBoxDevice;
    std::vector<uint8_t> body;
    bool badCheck = false;  // sent with a wrong check value (a fault)

    uint8_t SubId() const { return address & 0x07; }
};

// Marks, check value (XOR of the body; wrong when the frame says so), stuffing.
std::vector<uint8_t> Encode(const Frame& frame);
// An answer of the box: body = command, payload length, payload.
Frame Answer(uint8_t device, uint8_t cmd, const std::vector<uint8_t>& payload);

// Cuts frames out of a stream: from the latest 0x7E before a 0x7F to that 0x7F.
class Decoder {
public:
    void Feed(const uint8_t* data, size_t length);
    // The next frame that unstuffs and checks; false when none is complete.
    bool Next(Frame& out);
    // Frames (and runs of bytes that never became one) thrown away, and every byte of them
    // and of the garbage between frames.
    size_t Dropped() const { return m_dropped; }
    size_t DroppedBytes() const { return m_droppedBytes; }

private:
    std::vector<uint8_t> m_pending;
    size_t m_dropped = 0;
    size_t m_droppedBytes = 0;
};

// What a box answers and does; faults are switched by the tool's commands or by a test.
struct Faults {
    bool silent = false;          // answers nothing at all
    int corruptChecks = 0;        // the next N answers carry a wrong check value
    bool refuseSettings = false;  // sub-port settings answered with result 0
    bool wrongLength = false;     // answers claim one payload byte more than they carry
    bool refuseStart = false;     // an upgrade START is answered "BUSY!"
    int failLine = 0;             // the upgrade line with this number is answered with result 0
    int stopAfterLine = 0;        // no answer from this upgrade line on
};

class BoxModel {
public:
    struct Options {
        uint8_t device = kBoxDevice;
        std::string version = "BOX-MCU-V1.00";
        std::string newVersion;  // reported after a good upgrade; the file's name when empty
    };

    struct Output {
        std::vector<Frame> toLine;                                // the box's answers
        std::vector<std::pair<int, std::vector<uint8_t>>> toSub;  // sub id 1-4, bytes
    };

    explicit BoxModel(Options options) : m_options(std::move(options)) {}

    Output OnFrame(const Frame& in);
    // Bytes a device on sub-port `subId` sent: one frame to the recorder.
    Frame FromSubPort(int subId, const std::vector<uint8_t>& bytes) const;
    // The hub's I/O report (answer 0x33).
    Frame IoReport(uint8_t state) const;

    // Scripted answers: a command found here is answered with exactly this body (command,
    // length and payload as given, lengths that lie included); an empty body: no answer.
    std::map<uint8_t, std::vector<uint8_t>> script;
    Faults faults;

    const std::string& Version() const { return m_options.version; }
    void SetVersion(const std::string& version) { m_options.version = version; }
    bool LinkModeSet() const { return m_linkMode >= 0; }
    int LinkMode() const { return m_linkMode; }
    // Settings last sent for each sub id (the six bytes of command 0x20).
    const std::map<int, std::vector<uint8_t>>& Settings() const { return m_settings; }
    // The image of the last upgrade that ended with a matching check value.
    const std::vector<uint8_t>& UpgradedImage() const { return m_done; }
    // Upgrades that ended with a matching check value, since the model was made.
    int Upgrades() const { return m_upgrades; }
    int Commands(uint8_t cmd) const;
    // Image bytes of each upgrade line taken, in order, since the last START.
    const std::vector<size_t>& LineSizes() const { return m_lineSizes; }

private:
    Frame Own(uint8_t cmd, const std::vector<uint8_t>& payload) const;
    void Upgrade(const Frame& in, Output& out);
    // The firmware's own answer to `cmd` (nothing for a command it does not know).
    void FirmwareAnswer(uint8_t cmd, const std::vector<uint8_t>& payload, const Frame& in,
                        Output& out);
    // The line faults asked for, on every answer about to go out.
    void ApplyLineFaults(Output& out);

    Options m_options;
    int m_linkMode = -1;
    std::map<int, std::vector<uint8_t>> m_settings;
    std::map<uint8_t, int> m_counts;
    std::vector<uint8_t> m_image;
    std::vector<uint8_t> m_done;
    std::vector<size_t> m_lineSizes;
    uint32_t m_imageLength = 0;
    uint32_t m_nextLine = 1;
    int m_upgrades = 0;
};

// The firmware's image check: reflected CRC-32 register, start 0, no inversion.
uint32_t ImageCrc(const std::vector<uint8_t>& image);

std::string ToHex(const std::vector<uint8_t>& bytes);

}  // namespace boxsim

#endif
