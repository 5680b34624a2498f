// The recorder's state records the manager follows, read into what plug-ins ask of it: the
// video-loss mask, the SD card's part of the LED panel, the vehicle's lights. No bus here.
#ifndef SERIALBASIC_STATUS_RECORDS_H
#define SERIALBASIC_STATUS_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "MsgView.h"

namespace status {

// Payload lengths the handlers accept, exactly.
constexpr uint32_t kDigitalVideoLossLength = 6;
constexpr uint32_t kVideoLossLength = 4;
constexpr uint32_t kLedStateLength = 16;
constexpr uint32_t kDebugLevelLength = 8;

constexpr unsigned int kVideoLossChannels = 32;  // width of the video-loss mask
constexpr size_t kLedFields = 10;                // what a LED record carries of the panel
constexpr size_t kLedSdField = 7;
constexpr size_t kLedVehicleField = 10;
constexpr size_t kCpxPathSize = 28;

// One channel of the IPC setting record; a channel past the record is analog (all zero).
struct IpcChannel {
    uint8_t digital;
    uint8_t protocol;
};
IpcChannel IpcChannelOf(const uint8_t* ipcSetting, size_t size, unsigned int channel);
size_t IpcChannels(size_t ipcSettingSize);

// The digital channels' loss bytes (protocol of channel n at n, lost flag at 4 + n) update the
// bits of the channels whose IPC entry is digital with the same protocol.
uint32_t MergeDigitalVideoLoss(uint32_t state, const MsgView& payload, unsigned int channels,
                               const uint8_t* ipcSetting, size_t ipcSize);
// The analog mask updates the bits of the channels that are not digital.
uint32_t MergeAnalogVideoLoss(uint32_t state, uint32_t mask, unsigned int channels,
                              const uint8_t* ipcSetting, size_t ipcSize);

// The storage record's two cards: true when one is an SD card in a usable state.
bool SdCardUsable(const MsgView& storage);
// The vehicle record says the lights are off (the LED panel's field 10 goes dark).
bool VehicleLightsOff(const MsgView& vehicle);

// The tty that the co-processor shares with this service on the two products that have one.
bool IsCpxSerial(int productType, const std::string& path);

}  // namespace status

#endif
