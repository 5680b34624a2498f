// The scenario of the recorder simulator: what the rest of the recorder looks like to the
// service. Read from a JSON file (docs/simulator.md); plain data, no I/O beyond the file read.
#ifndef TOOLS_PM_RECORDER_SCENARIO_H
#define TOOLS_PM_RECORDER_SCENARIO_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "CanText.h"

namespace pmrecorder {

using Bytes = std::vector<uint8_t>;

// Codes of the serial enumerations, as the parameter records carry them.
struct LineSettings {
    uint8_t baud = 1;  // "B9600"
    uint8_t dataBits = 0;
    uint8_t stopBits = 0;
    uint8_t parity = 0;
    uint8_t flow = 0;
};

struct SerialSlot {
    uint8_t index = 0;  // 0-3 MCU ports, 4-7 main-chip ports, 8-11 second main-chip group
    uint8_t mainId = 0;
    uint8_t subId = 0;
    LineSettings line;
    std::vector<SerialSlot> subPorts;  // behind an extension box; index 0-7
};

struct CanSlot {
    uint8_t index = 0;  // 0-3
    uint8_t mainId = 0;
    uint8_t subId = 0;
    uint8_t baud = 0;
};

struct EthernetSlot {
    uint8_t index = 0;  // 0-3
    uint8_t mainId = 0;
    uint8_t subId = 0;
    std::string ip;
    uint16_t port = 0;
};

// Raw bytes laid over an encoded record, for the parts whose meaning is the recorder's.
struct Patch {
    size_t offset = 0;
    Bytes bytes;
};

struct IpcChannel {
    bool digital = false;
    uint8_t protocol = 0;
};

struct DigitalChannel {
    uint8_t protocol = 0;
    bool lost = false;
};

struct StorageDisk {
    uint8_t state = 0;
    uint8_t type = 0;
    bool valid = false;
};

struct Readiness {
    enum Kind { kNow, kAfter, kNever };
    Kind kind = kNow;
    uint32_t afterMs = 0;
};

struct CpxRelease {
    bool enabled = false;
    std::string path;
    uint32_t afterMs = 0;  // counted from the moment the device module becomes ready
};

struct McuLink {
    uint8_t index = 0;  // serial index 0-3
    std::string link;   // where the pty's symlink goes; relative to the recorder root
};

struct UDisk {
    bool present = false;
    std::string mount;  // absolute, or relative to the recorder root
    uint64_t recordSize = 0;
};

// CAN frames the scenario delivers; delays count from the previous frame.
struct ScriptedFrame {
    uint32_t delayMs = 0;
    int port = 0;
    CanFrame frame;
};
struct CanScript {
    bool startNow = false;  // otherwise: when the first filter arrives
    bool repeat = false;
    std::vector<ScriptedFrame> frames;
};

struct Scenario {
    std::optional<int> productType;
    Readiness ready;
    std::vector<SerialSlot> serial;
    std::vector<CanSlot> can;
    std::vector<EthernetSlot> ethernet;
    std::vector<IpcChannel> ipcChannels;  // at most 2: the record has room for two
    std::vector<Patch> ipcPatch;
    uint32_t videoLossMask = 0;
    std::vector<DigitalChannel> digitalVideoLoss;      // at most 4
    uint8_t led[10] = {1, 0, 0, 0, 0, 0, 0, 0, 1, 0};  // record .. sys, byte 9
    std::vector<StorageDisk> disks{{2, 1, true}};
    std::vector<Patch> storagePatch;
    uint32_t vehicleWord0 = 0;
    uint32_t vehicleWord48 = 0;
    uint8_t vehicleByte52 = 0;
    std::vector<Patch> vehiclePatch;
    std::vector<Patch> ftpPatch;
    CpxRelease cpx;
    UDisk udisk;
    // The upgrade files handed over on request (6705) by the request's file flag: the
    // extension box's ("VKEL") and the hub box's ("ZORVIK"); empty: "not found". Absolute, or
    // relative to the recorder root.
    std::string upgradeFile;
    std::string hubUpgradeFile;
    std::vector<McuLink> mcu;
    CanScript canScript;
};

// Reads a scenario from JSON; keys absent keep the defaults above. False with a message that
// names the place ("serial[2].baud: ...") on any error; `out` is then unspecified.
bool ParseScenario(const Json::Value& doc, Scenario& out, std::string& error);
bool ParseScenarioText(const std::string& text, Scenario& out, std::string& error);
bool LoadScenarioFile(const std::string& path, Scenario& out, std::string& error);

// Configuration words of the serial enumerations ("B9600", "CS7", "2bit", "ODD", "NONE").
bool BaudCodeFromWord(const std::string& word, uint8_t& code);
// Line speed in bit/s of a baud code; values outside 1-8 mean 4800, as on the recorder.
unsigned BaudSpeedOfCode(uint8_t code);

bool SameScript(const CanScript& a, const CanScript& b);
bool SameMcuLinks(const std::vector<McuLink>& a, const std::vector<McuLink>& b);

}  // namespace pmrecorder

#endif
