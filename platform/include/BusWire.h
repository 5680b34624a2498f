// The bus's wire format, defined once for the client, the broker, the service and the tools
// (docs/bus.md describes it for programs in other languages): the 16-byte head in front of
// every message, the bus's own control events, and the byte order of fields.
#ifndef PLATFORM_BUS_WIRE_H
#define PLATFORM_BUS_WIRE_H

#include <cstddef>
#include <cstdint>

namespace Common {

// The head: four little-endian words. Word 3 holds the payload length in bits 0-22, the
// "answer wanted" flag in bit 23 and the "this is an answer" flag in bit 24.
constexpr size_t kMsgHeadSize = 16;
constexpr uint32_t kMsgLengthMask = 0x7FFFFF;
constexpr uint32_t kMsgMaxPayload = kMsgLengthMask;  // what the 23-bit length can carry
// The largest message the bus carries: every socket refuses a larger one before it allocates
// it (ZMQ_MAXMSGSIZE), so that a broken or hostile sender cannot make a receiver allocate more.
constexpr int64_t kMsgMaxSize = static_cast<int64_t>(kMsgHeadSize + kMsgMaxPayload);
constexpr uint32_t kMsgNeedAnswerFlag = 1u << 23;
constexpr uint32_t kMsgIsAnswerFlag = 1u << 24;
constexpr uint32_t kMsgAnswerBit = 0x8000;  // answer id = request id | this

// Reserved control ids: 0x00FFFF00-0x00FFFFFF belong to the bus itself.
constexpr uint32_t kMsgWatchdogEvent = 0x00FFFF01;                // published by MSGFeedWatchDog
constexpr size_t kMsgWatchdogNameSize = 32;                       // the client's name, NUL-padded
constexpr size_t kMsgWatchdogPayload = kMsgWatchdogNameSize + 8;  // then the clock, int64
// A probe carries the client's 64-bit token in words 1-2 and the round number as an 8-byte
// payload; the client subscribes to all 24 bytes, so only the client that sent it sees it.
constexpr uint32_t kMsgProbeEvent = 0x00FFFF02;
constexpr size_t kMsgProbeSize = kMsgHeadSize + 8;

// Fields of bus payloads and of the records they carry: little-endian unless a layout says
// big-endian, whatever the host's order.
inline void PutLe16(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline void PutLe32(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

inline void PutLe64(void* out, uint64_t v) {
    auto* p = static_cast<unsigned char*>(out);
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

inline void PutBe32(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * (3 - i)));
    }
}

inline uint32_t GetLe16(const void* in) {
    const auto* p = static_cast<const unsigned char*>(in);
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

inline uint32_t GetLe32(const void* in) {
    const auto* p = static_cast<const unsigned char*>(in);
    return GetLe16(p) | GetLe16(p + 2) << 16;
}

inline uint64_t GetLe64(const void* in) {
    const auto* p = static_cast<const unsigned char*>(in);
    return static_cast<uint64_t>(GetLe32(p)) | static_cast<uint64_t>(GetLe32(p + 4)) << 32;
}

inline uint32_t GetBe32(const void* in) {
    const auto* p = static_cast<const unsigned char*>(in);
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// `word3` is the payload length with the flag bits already or-ed in.
inline void PutMsgHead(void* out, uint32_t eventId, uint32_t senderId, uint32_t seq,
                       uint32_t word3) {
    auto* p = static_cast<unsigned char*>(out);
    PutLe32(p, eventId);
    PutLe32(p + 4, senderId);
    PutLe32(p + 8, seq);
    PutLe32(p + 12, word3);
}

}  // namespace Common

#endif
