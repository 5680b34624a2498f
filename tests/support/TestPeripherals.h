// Serial peripherals as a plug-in writes them, for the tests and the bench: each takes what
// the receive buffer holds and hands it to Take(), on the thread that delivers (buffer lock
// held). What a double does with the bytes is all that differs between them.
#ifndef PMTEST_TEST_PERIPHERALS_H
#define PMTEST_TEST_PERIPHERALS_H

#include "SerialBase.h"

namespace pmtest {

class TakingSerial : public CSerialBase {
public:
    using CSerialBase::CSerialBase;
    int ProcessPeripheralData() override {
        char bytes[SERIAL_DELIVERY_SIZE];
        unsigned length = 0;
        GetSerialBufferData(bytes, length);
        ClearSerialBufferValue();
        return Take(bytes, length);
    }

protected:
    virtual int Take(const char* bytes, unsigned length) = 0;
};

}  // namespace pmtest

#endif
