// Byte work of the serial base, apart from ports and the bus: cutting extension-box frames out
// of a received stream and wrapping a peripheral's bytes into that frame.
#ifndef SERIALBASIC_SERIAL_FRAME_H
#define SERIALBASIC_SERIAL_FRAME_H

#include <cstdint>

#include "ByteStuffing.h"
#include "SerialDefine.h"

enum : unsigned char {
    SERIAL_FRAME_START = Common::kFrameStartMark,
    SERIAL_FRAME_END = Common::kFrameEndMark,
};

enum eExtendFrameScan {
    EXTEND_SCAN_FRAME = 0,    // [start, end] is a frame, both marks included
    EXTEND_SCAN_PARTIAL = 1,  // a start mark at `start` still waits for its end mark
    EXTEND_SCAN_NONE = 2,     // no start mark: nothing worth keeping
};

// Looks for the first end mark that follows a start mark; the frame begins at the latest start
// mark before it, so a start mark without end (a frame cut short) is skipped.
eExtendFrameScan ScanExtendFrame(const unsigned char* data, unsigned int length,
                                 unsigned int& start, unsigned int& end);

// The frame a main-chip peripheral of protocol 0 sends: 7E, 0x80 | (extendId & 0x7F),
// data[0], XOR of data[1..], data[1..], 7F, byte-stuffed. Returns the stuffed length, or -1
// when `length` is 0 or the stuffed frame would not fit `outSize` bytes.
int BuildExtendDataFrame(unsigned char extendId, const unsigned char* data, unsigned int length,
                         unsigned char* out, unsigned int outSize);

#endif
