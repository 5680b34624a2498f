// Byte layout of bus frames, shared by the client and the broker (see docs/bus.md).
#ifndef PLATFORM_SRC_BUS_WIRE_H
#define PLATFORM_SRC_BUS_WIRE_H

#include <cstddef>
#include <cstdint>

namespace Common {
namespace bus {

constexpr size_t kHeadSize = 16;
constexpr uint32_t kLengthMask = 0x7FFFFF;
constexpr uint32_t kNeedAnswerFlag = 1u << 23;
constexpr uint32_t kIsAnswerFlag = 1u << 24;

// Reserved control ids: 0x00FFFF00-0x00FFFFFF belong to the bus itself.
// A probe carries the client's 64-bit token in words 1-2 and the round number as an 8-byte
// payload; the client subscribes to all 24 bytes, so only the client that sent it sees it.
constexpr uint32_t kProbeEvent = 0x00FFFF02;
constexpr size_t kProbeSize = kHeadSize + 8;
constexpr size_t kWatchdogNameSize = 32;
constexpr size_t kWatchdogPayload = kWatchdogNameSize + 8;

inline void PutLe32(char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<char>(v >> (8 * i));
    }
}

inline void PutLe64(char* p, uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<char>(v >> (8 * i));
    }
}

inline uint32_t GetLe32(const char* p) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    }
    return v;
}

inline uint64_t GetLe64(const char* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) {
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    }
    return v;
}

// `word3` is the payload length with the flag bits already or-ed in.
inline void PutHead(char* p, uint32_t eventId, uint32_t senderId, uint32_t seq, uint32_t word3) {
    PutLe32(p, eventId);
    PutLe32(p + 4, senderId);
    PutLe32(p + 8, seq);
    PutLe32(p + 12, word3);
}

}  // namespace bus
}  // namespace Common

#endif
