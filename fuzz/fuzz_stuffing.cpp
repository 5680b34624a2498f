// The extension box's byte stuffing: a frame built around any bytes survives the round trip,
// and unstuffing any bytes, in any pieces, stays within its output and never crashes.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <cstdlib>
#include <vector>

#include "GuiToolkit.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Round trip: 7E, the bytes with any marks inside, 7F.
    std::vector<unsigned char> frame;
    frame.push_back(0x7E);
    frame.insert(frame.end(), data, data + size);
    frame.push_back(0x7F);
    const int length = static_cast<int>(frame.size());
    std::vector<unsigned char> stuffed(2 * frame.size());
    const int n = serial_transfrom_7e7f(frame.data(), stuffed.data(), length);
    if (n <= 0 || n > static_cast<int>(stuffed.size())) {
        abort();
    }
    // Exactly the stuffed length: a write past it shows.
    std::vector<unsigned char> back(static_cast<size_t>(n));
    int state = SERIAL_UNSTUFF_START;
    const int m = serial_retransfrom_7e7f(stuffed.data(), back.data(), n, &state);
    if (m != length || memcmp(back.data(), frame.data(), frame.size()) != 0 ||
        state != SERIAL_UNSTUFF_DONE) {
        abort();
    }

    // Any bytes, unstuffed in two pieces split where the first byte says.
    if (size > 1) {
        const size_t split = 1 + data[0] % (size - 1);
        std::vector<unsigned char> first(data + 1, data + split);
        std::vector<unsigned char> second(data + split, data + size);
        std::vector<unsigned char> out(size);
        state = SERIAL_UNSTUFF_START;
        int got = serial_retransfrom_7e7f(first.data(), out.data(), static_cast<int>(first.size()),
                                          &state);
        if (got > static_cast<int>(first.size())) {
            abort();
        }
        if (got >= 0) {
            got = serial_retransfrom_7e7f(second.data(), out.data(),
                                          static_cast<int>(second.size()), &state);
            if (got > static_cast<int>(second.size())) {
                abort();
            }
        }
    }
    return 0;
}
