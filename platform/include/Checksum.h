// The check value of extension-box upgrade images: the reflected CRC-32 register of IEEE
// 802.3 (polynomial 0xEDB88320), without the usual start and end inversions. The service, the
// firmware packer and the box simulator all compute it here.
#ifndef PLATFORM_CHECKSUM_H
#define PLATFORM_CHECKSUM_H

#include <cstddef>
#include <cstdint>

namespace Common {

// `reg` goes in as it is (0 for a fresh image) and the register comes out as it is, so that an
// image may be fed in pieces.
uint32_t Crc32Register(uint32_t reg, const void* data, size_t size);

}  // namespace Common

#endif
