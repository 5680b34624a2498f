// The messages that the service sends to the MCU relay and the CAN module, and the ones those
// modules send back. Pure functions over payload bytes (after the 16-byte bus head); every
// decoder bounds itself to the bytes it was given.
#ifndef TOOLS_PM_RECORDER_MESSAGES_H
#define TOOLS_PM_RECORDER_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CanText.h"
#include "SerialDefine.h"
#include "Scenario.h"

namespace pmrecorder {

// 1088: bytes for an MCU serial port. The service's 1090 handler copies at most this much.
constexpr size_t kMcuChunkMax = SERIAL_DELIVERY_SIZE;
struct McuData {
    uint16_t mainId = 0;
    uint16_t subId = 0;
    Bytes data;
};
// A length beyond the bytes received is cut to them and noted in `error`; still true.
bool DecodeMcuSend(const uint8_t* payload, size_t size, McuData& out, std::string& error);
// 1090: main id, sub id, length, data.
Bytes EncodeMcuReceive(uint16_t mainId, uint16_t subId, const uint8_t* data, size_t size);

// 6735: line settings of an MCU port. `stopBits` is the MCU's code: 1 one stop bit, 0 half,
// 2 one and a half, 3 two.
struct McuSettings {
    uint8_t mainId = 0;
    uint8_t subId = 0;
    uint8_t mask = 0;  // 0x01 speed, 0x02 data bits, 0x04 stop bits, 0x08 parity, 0x10 flow
    uint8_t baud = 0;
    uint8_t dataBits = 0;
    uint8_t stopBits = 0;
    uint8_t parity = 0;
    uint8_t flow = 0;
};
bool DecodeMcuSettings(const uint8_t* payload, size_t size, McuSettings& out, std::string& error);

// 1137: the ids one CAN port is to forward. A masked entry travels with its top byte replaced
// by 0xFF, so bits 24-31 of its id are lost and are not compared.
struct CanFilterEntry {
    uint32_t id = 0;
    uint32_t mask = 0xFFFFFFFF;
    bool masked = false;
};
bool operator==(const CanFilterEntry& a, const CanFilterEntry& b);
struct CanFilterList {
    uint8_t port = 0;
    uint16_t minPeriod = 0;
    std::vector<CanFilterEntry> entries;
};
// Exact entries are 4 bytes, big-endian; masked ones 8 bytes, little-endian id with the 0xFF
// mark in its top byte, then the mask. The count and the length decide where an ambiguous
// item (an exact id whose low byte is 0xFF) belongs.
bool DecodeCanFilter(const uint8_t* payload, size_t size, CanFilterList& out, std::string& error);
// The inverse, for tests and for tools that play the service.
Bytes EncodeCanFilter(const CanFilterList& list);
bool FilterTakes(const CanFilterEntry& entry, uint32_t canId);
bool FiltersTake(const std::vector<CanFilterEntry>& entries, uint32_t canId);

// 1136: the CAN module's report of a filter: port and entry count.
Bytes EncodeCanFilterState(uint8_t port, uint8_t count);

// 1089: frames for the peripheral (mainId, subId) on `port`, 16-byte items, at most
// `maxItems` per event.
std::vector<Bytes> EncodeCanReceive(uint16_t mainId, uint16_t subId, uint8_t port,
                                    const std::vector<CanFrame>& frames, size_t maxItems);

// 1087: one frame to transmit. Ids above 0x7FF are taken as extended (the message has no
// flag). A length above 8 is cut to 8, noted in `error` while the result stays true.
struct CanSendRequest {
    uint16_t mainId = 0;
    uint16_t subId = 0;
    CanFrame frame;
};
bool DecodeCanSend(const uint8_t* payload, size_t size, CanSendRequest& out, std::string& error);

}  // namespace pmrecorder

#endif
