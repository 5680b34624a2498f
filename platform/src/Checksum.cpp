#include "Checksum.h"

namespace Common {

uint32_t Crc32Register(uint32_t reg, const void* data, size_t size) {
    static const struct Table {
        uint32_t v[256];
        Table() : v() {
            for (uint32_t n = 0; n < 256; ++n) {
                uint32_t c = n;
                for (int k = 0; k < 8; ++k) {
                    c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                }
                v[n] = c;
            }
        }
    } table;
    if (data == nullptr) {
        return reg;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        reg = table.v[(reg ^ bytes[i]) & 0xFF] ^ (reg >> 8);
    }
    return reg;
}

}  // namespace Common
