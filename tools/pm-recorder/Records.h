// The records the recorder sends to the service, built from a scenario: byte-exact payloads
// (without the 16-byte bus head). Pure functions; the bus side is Simulator.
#ifndef TOOLS_PM_RECORDER_RECORDS_H
#define TOOLS_PM_RECORDER_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "PeripheralDefine.h"
#include "PeripheralEvents.h"
#include "Scenario.h"

namespace pmrecorder {

constexpr size_t kSerialRecordSize = sizeof(paramSerialSetting_t);
constexpr size_t kCanRecordSize = sizeof(paramCanSetting_t);
constexpr size_t kEthernetRecordSize = sizeof(paramPeripheralEtherNet_t);
constexpr size_t kIpcRecordSize = IPC_SETTING_SIZE;
constexpr size_t kFtpRecordSize = sizeof(tag_MsgFtpSetting);
constexpr size_t kVehicleRecordSize = VEHICLE_INFO_SIZE;
constexpr size_t kStorageRecordSize = STORAGE_STATE_SIZE;
constexpr size_t kLedPayloadSize = 16;  // the service wants a 16-byte head length, uses 10
constexpr size_t kVideoLossSize = 4;
constexpr size_t kDigitalVideoLossSize = 6;
constexpr size_t kUsbStateSize = 72;
// The disk details (33887) carry a mount directory in 40 bytes, NUL included.
constexpr size_t kMaxMountLength = 39;
constexpr size_t kUDiskInfoSize = 368;  // 48 bytes, then 4 disk entries of 80
constexpr size_t kDeviceModuleStateSize = 4;

// Parameter settings. The serial entry's bytes 3-6 carry data bits, stop bits, parity and flow
// codes: the service does not read them, a real recorder keeps its line settings there.
Bytes EncodeSerialSetting(const Scenario& s);
Bytes EncodeCanSetting(const Scenario& s);
Bytes EncodeEthernetSetting(const Scenario& s);
Bytes EncodeFtpSetting(const Scenario& s);

// State messages.
Bytes EncodeIpcSetting(const Scenario& s);
Bytes EncodeVideoLoss(const Scenario& s);
// Protocols of channels 0-3 at bytes 0-3, the state of channel n at byte 4 + n: the six bytes
// that travel carry states for channels 0 and 1 only.
Bytes EncodeDigitalVideoLoss(const Scenario& s);
Bytes EncodeLedState(const Scenario& s);
Bytes EncodeStorageState(const Scenario& s);
Bytes EncodeVehicleInfo(const Scenario& s);
Bytes EncodeDeviceModuleState(bool ready);
// `mount` as the service will open it (already resolved against the recorder root).
Bytes EncodeUDiskInfo(const UDisk& disk, const std::string& mount);
// NUL-terminated, padded to 32 bytes (longer paths keep their full length).
Bytes EncodeCpxRelease(const std::string& path);
Bytes EncodeDebugLevel(uint16_t level);

// A notification to publish.
struct Notice {
    uint32_t eventId = 0;
    Bytes payload;
    std::string what;  // "serial parameter setting", for the log
};
// The change events for everything that differs between two scenarios, in a fixed order:
// 316, 360, 362, 320, 284, then the states 1052, 1284, 1122, 2053, 1081.
std::vector<Notice> ChangedNotices(const Scenario& before, const Scenario& after);
// 2053 and 1081: states that have no request, sent when the service shows up.
std::vector<Notice> UnaskedStates(const Scenario& s);

// The serial index that carries (mainId, subId) as a port entry or as a sub-port behind one;
// -1 when none.
int SerialIndexOf(const Scenario& s, unsigned mainId, unsigned subId);
const SerialSlot* SerialSlotAt(const Scenario& s, int index);
const CanSlot* CanSlotAt(const Scenario& s, int index);
int CanIndexOf(const Scenario& s, unsigned mainId, unsigned subId);

}  // namespace pmrecorder

#endif
