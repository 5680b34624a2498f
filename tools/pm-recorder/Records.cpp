#include "Records.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "BusWire.h"
#include "PeripheralDefine.h"

namespace pmrecorder {

namespace {

void ApplyPatches(Bytes& b, const std::vector<Patch>& patches) {
    for (const Patch& p : patches) {
        // The reader bounds patches by the record; a hand-made scenario is bounded here.
        if (p.offset < b.size()) {
            size_t n = std::min(p.bytes.size(), b.size() - p.offset);
            memcpy(b.data() + p.offset, p.bytes.data(), n);
        }
    }
}

template <class Record>
Bytes BytesOf(const Record& r) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&r);
    return Bytes(p, p + sizeof(Record));
}

void FillSerialHead(const SerialSlot& slot, uint8_t& mainFun, uint8_t& baud, uint8_t& subFun,
                    uint8_t* line) {
    mainFun = slot.mainId;
    baud = slot.line.baud;
    subFun = slot.subId;
    line[0] = slot.line.dataBits;
    line[1] = slot.line.stopBits;
    line[2] = slot.line.parity;
    line[3] = slot.line.flow;
}

}  // namespace

Bytes EncodeSerialSetting(const Scenario& s) {
    paramSerialSetting_t record;
    memset(&record, 0, sizeof(record));
    for (const SerialSlot& slot : s.serial) {
        if (slot.index >= 12) {
            continue;
        }
        SerialPortEntry_t& e = record.port[slot.index];
        FillSerialHead(slot, e.mainFun, e.baudrate, e.subFun, e.lineSetting);
        for (const SerialSlot& sub : slot.subPorts) {
            if (sub.index < 8) {
                SerialExtendEntry_t& x = e.extend[sub.index];
                FillSerialHead(sub, x.mainFun, x.baudrate, x.subFun, x.lineSetting);
            }
        }
    }
    return BytesOf(record);
}

Bytes EncodeCanSetting(const Scenario& s) {
    paramCanSetting_t record;
    memset(&record, 0, sizeof(record));
    for (const CanSlot& slot : s.can) {
        if (slot.index < 4) {
            record.port[slot.index].mainFun = slot.mainId;
            record.port[slot.index].subFun = slot.subId;
            record.port[slot.index].baudrate = slot.baud;
        }
    }
    return BytesOf(record);
}

Bytes EncodeEthernetSetting(const Scenario& s) {
    paramPeripheralEtherNet_t record;
    memset(&record, 0, sizeof(record));
    Bytes b = BytesOf(record);
    for (const EthernetSlot& slot : s.ethernet) {
        if (slot.index >= 4) {
            continue;
        }
        size_t at = slot.index * sizeof(EthernetEntry_t);
        b[at + offsetof(EthernetEntry_t, mainFun)] = slot.mainId;
        b[at + offsetof(EthernetEntry_t, subFun)] = slot.subId;
        memcpy(b.data() + at + offsetof(EthernetEntry_t, ip), slot.ip.data(),
               std::min(slot.ip.size(), sizeof(EthernetEntry_t::ip) - 1));
        Common::PutLe16(b.data() + at + offsetof(EthernetEntry_t, port), slot.port);
    }
    return b;
}

Bytes EncodeFtpSetting(const Scenario& s) {
    Bytes b(kFtpRecordSize, 0);
    ApplyPatches(b, s.ftpPatch);
    return b;
}

Bytes EncodeIpcSetting(const Scenario& s) {
    Bytes b(kIpcRecordSize, 0);
    for (size_t n = 0; n < s.ipcChannels.size() && 8 + 200 * n + 6 < b.size(); ++n) {
        b[8 + 200 * n] = s.ipcChannels[n].digital ? 1 : 0;
        b[8 + 200 * n + 6] = s.ipcChannels[n].protocol;
    }
    ApplyPatches(b, s.ipcPatch);
    return b;
}

Bytes EncodeVideoLoss(const Scenario& s) {
    Bytes b(kVideoLossSize, 0);
    Common::PutLe32(b.data() + 0, s.videoLossMask);
    return b;
}

Bytes EncodeDigitalVideoLoss(const Scenario& s) {
    Bytes b(kDigitalVideoLossSize, 0);
    for (size_t n = 0; n < s.digitalVideoLoss.size() && n < 4; ++n) {
        b[n] = s.digitalVideoLoss[n].protocol;
        if (4 + n < b.size()) {
            b[4 + n] = s.digitalVideoLoss[n].lost ? 1 : 0;
        }
    }
    return b;
}

Bytes EncodeLedState(const Scenario& s) {
    Bytes b(kLedPayloadSize, 0);
    memcpy(b.data(), s.led, sizeof(s.led));
    return b;
}

Bytes EncodeStorageState(const Scenario& s) {
    Bytes b(kStorageRecordSize, 0);
    // Disk i at record offset 24 + 4i: state, (unused), type, valid.
    for (size_t i = 0; i < s.disks.size() && i < 2; ++i) {
        b[24 + 4 * i] = s.disks[i].state;
        b[24 + 4 * i + 2] = s.disks[i].type;
        b[24 + 4 * i + 3] = s.disks[i].valid ? 1 : 0;
    }
    ApplyPatches(b, s.storagePatch);
    return b;
}

Bytes EncodeVehicleInfo(const Scenario& s) {
    Bytes b(kVehicleRecordSize, 0);
    Common::PutLe32(b.data() + 0, s.vehicleWord0);
    Common::PutLe32(b.data() + 48, s.vehicleWord48);
    b[52] = s.vehicleByte52;
    ApplyPatches(b, s.vehiclePatch);
    return b;
}

Bytes EncodeDeviceModuleState(bool ready) {
    Bytes b(kDeviceModuleStateSize, 0);
    b[0] = ready ? 1 : 0;
    return b;
}

Bytes EncodeUDiskInfo(const UDisk& disk, const std::string& mount) {
    Bytes b(kUDiskInfoSize, 0);
    if (disk.present) {
        // Entry 0 at payload offset 48: mount directory (NUL-terminated, 40 bytes), size at 40.
        memcpy(b.data() + 48, mount.data(), std::min<size_t>(mount.size(), kMaxMountLength));
        Common::PutLe32(b.data() + 48 + 40, static_cast<uint32_t>(disk.recordSize));
        Common::PutLe32(b.data() + 48 + 44, static_cast<uint32_t>(disk.recordSize >> 32));
    }
    return b;
}

Bytes EncodeCpxRelease(const std::string& path) {
    Bytes b(std::max<size_t>(32, path.size() + 1), 0);
    memcpy(b.data(), path.data(), path.size());
    return b;
}

Bytes EncodeDebugLevel(uint16_t level) {
    Bytes b(8, 0);
    Common::PutLe16(b.data() + 0, 0x1A00);
    Common::PutLe16(b.data() + 2, level);
    return b;
}

std::vector<Notice> ChangedNotices(const Scenario& before, const Scenario& after) {
    struct Source {
        uint32_t eventId;
        Bytes (*encode)(const Scenario&);
        const char* what;
    };
    static const Source sources[] = {
        {EVENT_SERIAL_PARAM_CHANGED, EncodeSerialSetting, "serial parameter setting"},
        {EVENT_CAN_PARAM_CHANGED, EncodeCanSetting, "CAN parameter setting"},
        {EVENT_ETHERNET_PARAM_CHANGED, EncodeEthernetSetting, "Ethernet parameter setting"},
        {EVENT_IPC_SETTING_CHANGED, EncodeIpcSetting, "IPC setting"},
        {EVENT_FTP_PARAM_CHANGED, EncodeFtpSetting, "FTP setting"},
        {EVENT_VIDEO_LOSS, EncodeVideoLoss, "analogue video loss"},
        {EVENT_DIGITAL_VIDEO_LOSS, EncodeDigitalVideoLoss, "digital video loss"},
        {EVENT_LED_STATE, EncodeLedState, "LED panel state"},
        {EVENT_STORAGE_STATE, EncodeStorageState, "storage state"},
        {EVENT_VEHICLE_INFO, EncodeVehicleInfo, "vehicle information"},
    };
    std::vector<Notice> notices;
    for (const Source& src : sources) {
        Bytes now = src.encode(after);
        if (now != src.encode(before)) {
            notices.push_back({src.eventId, std::move(now), src.what});
        }
    }
    return notices;
}

std::vector<Notice> UnaskedStates(const Scenario& s) {
    return {{EVENT_STORAGE_STATE, EncodeStorageState(s), "storage state"},
            {EVENT_VEHICLE_INFO, EncodeVehicleInfo(s), "vehicle information"}};
}

int SerialIndexOf(const Scenario& s, unsigned mainId, unsigned subId) {
    if (mainId == 0) {
        return -1;
    }
    for (const SerialSlot& slot : s.serial) {
        if (slot.mainId == mainId && slot.subId == subId) {
            return slot.index;
        }
        for (const SerialSlot& sub : slot.subPorts) {
            if (sub.mainId == mainId && sub.subId == subId) {
                return slot.index;
            }
        }
    }
    return -1;
}

const SerialSlot* SerialSlotAt(const Scenario& s, int index) {
    for (const SerialSlot& slot : s.serial) {
        if (slot.index == index) {
            return &slot;
        }
    }
    return nullptr;
}

const CanSlot* CanSlotAt(const Scenario& s, int index) {
    for (const CanSlot& slot : s.can) {
        if (slot.index == index) {
            return &slot;
        }
    }
    return nullptr;
}

int CanIndexOf(const Scenario& s, unsigned mainId, unsigned subId) {
    for (const CanSlot& slot : s.can) {
        if (slot.mainId == mainId && slot.subId == subId && mainId != 0) {
            return slot.index;
        }
    }
    return -1;
}

}  // namespace pmrecorder
