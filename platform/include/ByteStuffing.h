// The extension box frame's marks and its byte stuffing, as the recorder's toolkit library
// provides them: the service, the box simulator and the tests all take them from here.
#ifndef PLATFORM_BYTE_STUFFING_H
#define PLATFORM_BYTE_STUFFING_H

namespace Common {

constexpr unsigned char kFrameStartMark = 0x7E;
constexpr unsigned char kFrameEndMark = 0x7F;
constexpr unsigned char kFrameEscape = 0x7D;

}  // namespace Common

// Byte stuffing of the extension box frame. A frame starts with 0x7E and ends with 0x7F;
// these two marks stay as they are. Inside the frame 0x7D is sent as 7D 5D, 0x7E as 7D 5E and
// 0x7F as 7D 5F.
//
// serial_transfrom_7e7f: stuffs the `len`-byte frame `in` (marks included) into `out`, which
// must hold 2 * len bytes. Returns the stuffed length (> 0), or -1 when `in` is not a frame
// (shorter than 2 bytes, or without its marks).
int serial_transfrom_7e7f(const unsigned char* in, unsigned char* out, int len);

// serial_retransfrom_7e7f: the exact inverse. `*state` is 0 before the first piece of a frame
// and carries the position between pieces, so a frame may be fed in pieces; `out` receives
// at most `len` bytes per call. Returns the number of bytes written for this piece (the
// marks are kept in the output), or -1 on a malformed frame: the first piece does not begin
// with 0x7E, a 0x7E or a byte after the end mark appears inside, or an escape is not
// followed by 5D, 5E or 5F (a dangling escape before the end mark). Returns 0 for an empty
// piece. After the end mark *state is SERIAL_UNSTUFF_DONE.
enum {
    SERIAL_UNSTUFF_START = 0,
    SERIAL_UNSTUFF_BODY = 1,
    SERIAL_UNSTUFF_ESCAPE = 2,
    SERIAL_UNSTUFF_DONE = 3,
};
int serial_retransfrom_7e7f(const unsigned char* in, unsigned char* out, int len, int* state);

#endif
