// Test frames of the factory loopback tester: pure functions over bytes.
//
// Frame (24 bytes): 'L' 'B', sequence number (4 bytes, most significant first), payload
// length 16, 16 payload bytes derived from the sequence number, XOR of bytes 2..22.
// Every byte value 0x00-0xFF turns up in the payloads over 16 frames, so a line that drops
// the high bit or swallows control characters is caught.
#ifndef PLUGINS_SERIAL_LOOPBACK_PATTERN_H
#define PLUGINS_SERIAL_LOOPBACK_PATTERN_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace loopback {

constexpr std::size_t kPayloadSize = 16;
constexpr std::size_t kFrameSize = 2 + 4 + 1 + kPayloadSize + 1;
using Frame = std::array<uint8_t, kFrameSize>;

Frame BuildFrame(uint32_t sequence);

enum class EchoResult {
    kMatch,          // the frame that was sent
    kWrongSequence,  // a well-formed frame, but of another sequence number (a late echo)
    kCorrupt,        // anything else
};

// Checks kFrameSize bytes against the frame of `expected`.
EchoResult CheckEcho(const uint8_t* echo, uint32_t expected);

}  // namespace loopback

#endif
