#include "StatusRecords.h"

#include "CommonLog.h"

namespace status {
namespace {

constexpr const char kLogTag[] = "S_MANAGE: ";
constexpr size_t kIpcEntryOffset = 8;
constexpr size_t kIpcEntrySize = 200;

}  // namespace

size_t IpcChannels(size_t ipcSettingSize) {
    return ipcSettingSize > kIpcEntryOffset ? (ipcSettingSize - kIpcEntryOffset) / kIpcEntrySize
                                            : 0;
}

IpcChannel IpcChannelOf(const uint8_t* ipcSetting, size_t size, unsigned int channel) {
    if (channel >= IpcChannels(size)) {
        return {0, 0};
    }
    const uint8_t* entry = ipcSetting + kIpcEntryOffset + kIpcEntrySize * channel;
    return {entry[0], entry[6]};
}

uint32_t MergeDigitalVideoLoss(uint32_t state, const MsgView& payload, unsigned int channels,
                               const uint8_t* ipcSetting, size_t ipcSize) {
    for (unsigned int n = 0; n < channels; ++n) {
        const uint8_t protocol = payload.Byte(n);
        const uint8_t lost = payload.Byte(4 + n);
        const IpcChannel ipc = IpcChannelOf(ipcSetting, ipcSize, n);
        PM_LOG(4, kLogTag,
               "Digital VL state, index = %x, digital = %d, protocol = %d, state = %d\n", n,
               ipc.digital, protocol, lost);
        if (ipc.digital == 1 && ipc.protocol == protocol) {
            state = lost == 1 ? (state | (1u << n)) : (state & ~(1u << n));
        }
    }
    return state;
}

uint32_t MergeAnalogVideoLoss(uint32_t state, uint32_t mask, unsigned int channels,
                              const uint8_t* ipcSetting, size_t ipcSize) {
    for (unsigned int n = 0; n < channels; ++n) {
        if (IpcChannelOf(ipcSetting, ipcSize, n).digital == 0) {  // digital ones keep their bit
            state = (state & ~(1u << n)) | (mask & (1u << n));
        }
    }
    return state;
}

bool SdCardUsable(const MsgView& storage) {
    bool usable = false;
    for (int i = 0; i < 2; ++i) {
        const size_t entry = 24 + 4 * i;
        const uint8_t state = storage.Byte(entry);
        const uint8_t type = storage.Byte(entry + 2);
        const uint8_t valid = storage.Byte(entry + 3);
        // valid and i stand swapped against their labels, as the field logs have always shown.
        PM_LOG(4, kLogTag, "i = %d, valid = %d, type = %d, state = %d\n", valid, i, type, state);
        if (valid == 1 && type == 1 && (state == 2 || state == 5 || state == 6)) {
            usable = true;
        }
    }
    return usable;
}

bool VehicleLightsOff(const MsgView& vehicle) {
    const uint32_t first = vehicle.U32(0);
    const uint32_t second = vehicle.U32(48);
    const uint8_t flags = vehicle.Byte(52);
    return (first & 0x08) && (second & 0x08) && !((flags & 0x10) && !(flags & 0x08));
}

bool IsCpxSerial(int productType, const std::string& path) {
    return (productType == 6 && path == "/dev/ttyAMA1") ||
           (productType == 14 && path == "/dev/ttyAMA3");
}

}  // namespace status
