#include "LoopbackPattern.h"

#include <string.h>

namespace loopback {

namespace {

constexpr uint8_t kMark0 = 'L';
constexpr uint8_t kMark1 = 'B';
constexpr std::size_t kSequenceOffset = 2;
constexpr std::size_t kLengthOffset = 6;
constexpr std::size_t kPayloadOffset = 7;
constexpr std::size_t kCheckOffset = kFrameSize - 1;

uint8_t Check(const uint8_t* frame) {
    uint8_t check = 0;
    for (std::size_t i = kSequenceOffset; i < kCheckOffset; ++i) {
        check ^= frame[i];
    }
    return check;
}

uint32_t SequenceOf(const uint8_t* frame) {
    return (static_cast<uint32_t>(frame[2]) << 24) | (static_cast<uint32_t>(frame[3]) << 16) |
           (static_cast<uint32_t>(frame[4]) << 8) | frame[5];
}

}  // namespace

Frame BuildFrame(uint32_t sequence) {
    Frame frame{};
    frame[0] = kMark0;
    frame[1] = kMark1;
    frame[2] = static_cast<uint8_t>(sequence >> 24);
    frame[3] = static_cast<uint8_t>(sequence >> 16);
    frame[4] = static_cast<uint8_t>(sequence >> 8);
    frame[5] = static_cast<uint8_t>(sequence);
    frame[kLengthOffset] = static_cast<uint8_t>(kPayloadSize);
    for (std::size_t i = 0; i < kPayloadSize; ++i) {
        frame[kPayloadOffset + i] = static_cast<uint8_t>(sequence * kPayloadSize + i);
    }
    frame[kCheckOffset] = Check(frame.data());
    return frame;
}

EchoResult CheckEcho(const uint8_t* echo, uint32_t expected) {
    Frame sent = BuildFrame(expected);
    if (memcmp(echo, sent.data(), kFrameSize) == 0) {
        return EchoResult::kMatch;
    }
    Frame other = BuildFrame(SequenceOf(echo));
    if (memcmp(echo, other.data(), kFrameSize) == 0) {
        return EchoResult::kWrongSequence;
    }
    return EchoResult::kCorrupt;
}

}  // namespace loopback
