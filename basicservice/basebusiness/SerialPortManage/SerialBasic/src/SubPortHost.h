// What a sub-port needs of the box it hangs on, and what the line's reader needs of a box: the
// serial base reaches boxes and hubs only through this, so that it knows nothing of them.
#ifndef SERIALBASIC_SUB_PORT_HOST_H
#define SERIALBASIC_SUB_PORT_HOST_H

#include "SerialDefine.h"

class CSubPortHost {
public:
    // A sub-port's bytes, shaped by its protocol type.
    virtual int SendSubSerialData(eSerialProtocolType type, unsigned char index,
                                  unsigned int length, const char* data) = 0;
    // Line settings of sub-port `index`.
    virtual int SetSubSerialProperty(unsigned char index, unsigned char mask, SerialBaudRate baud,
                                     SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                                     SerialParityMode parity, SerialFlowControlMode flow) = 0;
    // One stuffed frame cut from the box's line, marks included.
    virtual int DispatchExtendSerialData(unsigned int length, const char* frame) = 0;

protected:
    ~CSubPortHost() = default;
};

#endif
