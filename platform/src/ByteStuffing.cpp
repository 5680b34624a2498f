#include "ByteStuffing.h"

#include <limits.h>

namespace {

constexpr unsigned char kStartMark = Common::kFrameStartMark;
constexpr unsigned char kEndMark = Common::kFrameEndMark;
constexpr unsigned char kEscape = Common::kFrameEscape;
// 7D/7E/7F travel as 7D followed by 5D/5E/5F: the byte with bit 5 flipped.
constexpr unsigned char kEscapeFlip = 0x20;

bool NeedsEscape(unsigned char b) {
    return b == kEscape || b == kStartMark || b == kEndMark;
}

bool IsEscapedByte(unsigned char b) {
    return NeedsEscape(static_cast<unsigned char>(b ^ kEscapeFlip));
}

bool IsFrame(const unsigned char* in, int len) {
    return len >= 2 && in[0] == kStartMark && in[len - 1] == kEndMark;
}

// Unstuffing, one byte at a time. Each handler writes at most one byte to `out` (advancing
// *written) and returns the next state, or -1 for a malformed frame.
int OnStart(unsigned char b, unsigned char* out, int* written) {
    if (b != kStartMark) {
        return -1;
    }
    out[(*written)++] = b;
    return SERIAL_UNSTUFF_BODY;
}

int OnBody(unsigned char b, unsigned char* out, int* written) {
    if (b == kStartMark) {
        return -1;
    }
    if (b == kEscape) {
        return SERIAL_UNSTUFF_ESCAPE;
    }
    out[(*written)++] = b;
    return b == kEndMark ? SERIAL_UNSTUFF_DONE : SERIAL_UNSTUFF_BODY;
}

int OnEscape(unsigned char b, unsigned char* out, int* written) {
    if (!IsEscapedByte(b)) {
        return -1;  // includes 7D 7F: an escape left dangling before the end mark
    }
    out[(*written)++] = static_cast<unsigned char>(b ^ kEscapeFlip);
    return SERIAL_UNSTUFF_BODY;
}

int Step(int state, unsigned char b, unsigned char* out, int* written) {
    switch (state) {
        case SERIAL_UNSTUFF_START:
            return OnStart(b, out, written);
        case SERIAL_UNSTUFF_BODY:
            return OnBody(b, out, written);
        case SERIAL_UNSTUFF_ESCAPE:
            return OnEscape(b, out, written);
        default:
            return -1;  // nothing may follow the end mark; unknown states are refused too
    }
}

}  // namespace

int serial_transfrom_7e7f(const unsigned char* in, unsigned char* out, int len) {
    // The caller provides 2 * len bytes, more than any frame of len bytes can need.
    if (in == nullptr || out == nullptr || !IsFrame(in, len)) {
        return -1;
    }
    int n = 0;
    out[n++] = kStartMark;
    for (int i = 1; i < len - 1; ++i) {
        if (NeedsEscape(in[i])) {
            out[n++] = kEscape;
            out[n++] = static_cast<unsigned char>(in[i] ^ kEscapeFlip);
        } else {
            out[n++] = in[i];
        }
    }
    out[n++] = kEndMark;
    return n;
}

int serial_retransfrom_7e7f(const unsigned char* in, unsigned char* out, int len, int* state) {
    if (in == nullptr || out == nullptr || state == nullptr || len < 0) {
        return -1;
    }
    int current = *state;
    int written = 0;
    for (int i = 0; i < len; ++i) {
        current = Step(current, in[i], out, &written);
        if (current < 0) {
            return -1;
        }
    }
    *state = current;
    return written;
}
