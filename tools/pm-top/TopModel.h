// What pm-top knows about the recorder's peripherals, built from bus messages alone. No
// terminal code here: the screen and the snapshot both render this, and the tests feed it
// frames directly.
#ifndef TOOLS_PM_TOP_TOP_MODEL_H
#define TOOLS_PM_TOP_TOP_MODEL_H

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "PeripheralDefine.h"

namespace pmtop {

// Bytes or frames per second over the last two seconds: short enough to follow a receiver
// that stops, long enough not to flicker at a 1 Hz sentence rate.
class RateMeter {
public:
    void Add(int64_t nowMs, uint64_t amount);
    double PerSecond(int64_t nowMs) const;
    uint64_t Total() const { return m_total; }

private:
    void Prune(int64_t nowMs) const;
    mutable std::deque<std::pair<int64_t, uint64_t>> m_events;
    uint64_t m_total = 0;
};

using IdPair = std::pair<uint8_t, uint8_t>;  // main id, sub id

// The last status a serial instance reported (6820) and when.
struct PortStatus {
    uint8_t status = 0;
    int64_t atMs = 0;
};

struct UpgradeView {
    uint8_t source = 0;
    uint8_t state = 0;
    int8_t percent = 0;
    int64_t sinceMs = 0;  // when this state arrived
};

enum class BoxLink { Unknown, Online, Offline };

struct BoxView {
    std::string version;
    bool versionKnown = false;
    BoxLink link = BoxLink::Unknown;
    int64_t linkSinceMs = 0;
    std::optional<uint16_t> ioState;
    std::optional<UpgradeView> upgrade;
};

struct CanFilterView {
    std::vector<std::string> entries;  // "0CF00400", "18FEF100/00FFFF00"
    int64_t atMs = 0;
    std::optional<uint8_t> acknowledged;  // the CAN module's count (1136)
};

struct RecorderView {
    std::optional<bool> deviceModuleReady;
    std::optional<uint32_t> videoLoss;      // analogue mask
    std::vector<uint8_t> digitalVideoLoss;  // the 6 bytes as they came
    std::vector<uint8_t> led;               // the 10 bytes the service copies
    std::vector<uint8_t> storage;           // the 32-byte record
    std::optional<bool> usbPlugged;
    std::string usbMount;  // from the disk details, empty when none
    bool selfTest = false;
    int64_t selfTestSinceMs = 0;
};

struct MessageLine {
    uint32_t eventId = 0;
    std::string text;  // FormatMessage's line
};

class TopModel {
public:
    static constexpr size_t kKeptMessages = 500;

    // One whole bus frame (head and payload) received at `nowMs` (monotonic) / `when` (wall).
    void OnMessage(const uint8_t* frame, size_t size, int64_t nowMs, const struct timeval& when);

    const std::optional<paramSerialSetting_t>& Serial() const { return m_serial; }
    const std::optional<paramCanSetting_t>& Can() const { return m_can; }
    const std::optional<paramPeripheralEtherNet_t>& Ethernet() const { return m_ethernet; }
    const std::map<IdPair, PortStatus>& Statuses() const { return m_status; }
    const std::map<IdPair, BoxView>& Boxes() const { return m_boxes; }
    const std::map<uint8_t, CanFilterView>& CanFilters() const { return m_canFilters; }
    const RecorderView& Recorder() const { return m_recorder; }
    const std::deque<MessageLine>& Messages() const { return m_messages; }
    uint64_t MessageCount() const { return m_count; }

    // Bytes to (1088) and from (1090) an MCU-relayed port, by the instance's ids.
    double McuToPort(const IdPair& ids, int64_t nowMs) const;
    double McuFromPort(const IdPair& ids, int64_t nowMs) const;
    // Frames received on a CAN port (1089), and sent by the instance (1087).
    double CanReceived(uint8_t port, int64_t nowMs) const;
    double CanSent(const IdPair& ids, int64_t nowMs) const;
    // Whether the service sent line settings (6735) for this MCU port instance.
    bool McuSettingsSeen(const IdPair& ids) const { return m_mcuSettings.count(ids) != 0; }

    // The extension boxes of the serial setting (main id 1 or 149), by their ids.
    std::vector<IdPair> ConfiguredBoxes() const;

private:
    // Each true when it took the message.
    bool OnSettingOrBox(uint32_t id, const uint8_t* p, size_t n, uint32_t sender, int64_t nowMs);
    bool OnTraffic(uint32_t id, const uint8_t* p, size_t n, int64_t nowMs);
    void OnSerialSetting(const uint8_t* p, size_t n, uint32_t sender, int64_t nowMs);
    void OnStatusReport(const uint8_t* p, size_t n, int64_t nowMs);
    void OnVersion(const uint8_t* p, size_t n, int64_t nowMs);
    void OnUpgradeState(const uint8_t* p, size_t n, int64_t nowMs);
    void OnIoState(const uint8_t* p, size_t n);
    void OnMcuData(const uint8_t* p, size_t n, bool toPort, int64_t nowMs);
    void OnCanFilter(const uint8_t* p, size_t n, int64_t nowMs);
    void OnCanFrames(const uint8_t* p, size_t n, int64_t nowMs);
    void OnCanSend(const uint8_t* p, size_t n, int64_t nowMs);
    bool OnRecorderState(uint32_t id, const uint8_t* p, size_t n, uint32_t sender, int64_t nowMs);
    void OnUDiskInfo(const uint8_t* p, size_t n);
    void SetLink(BoxView& box, BoxLink link, int64_t nowMs);
    void Remember(const uint8_t* frame, size_t size, uint32_t id, const struct timeval& when);

    std::optional<paramSerialSetting_t> m_serial;
    std::optional<paramCanSetting_t> m_can;
    std::optional<paramPeripheralEtherNet_t> m_ethernet;
    std::map<IdPair, PortStatus> m_status;
    std::map<IdPair, BoxView> m_boxes;
    std::map<IdPair, RateMeter> m_mcuTo;
    std::map<IdPair, RateMeter> m_mcuFrom;
    std::map<IdPair, bool> m_mcuSettings;
    std::map<uint8_t, CanFilterView> m_canFilters;
    std::map<uint8_t, RateMeter> m_canIn;
    std::map<IdPair, RateMeter> m_canOut;
    RecorderView m_recorder;
    std::deque<MessageLine> m_messages;
    uint64_t m_count = 0;
};

// The service's module id on the bus: what it sends itself (not relayed for the recorder).
constexpr uint32_t kServiceModuleId = 10;

}  // namespace pmtop

#endif
