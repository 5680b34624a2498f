// Link of a serial peripheral on a port owned by the MCU: bytes travel as bus messages that
// another module relays to and from the MCU.
#ifndef SERIALBASIC_MCU_SERIAL_OPT_H
#define SERIALBASIC_MCU_SERIAL_OPT_H

#include "SerialDefine.h"

class CSerialBase;

class CMcuSerialOpt {
public:
    explicit CMcuSerialOpt(CSerialBase* owner);
    virtual ~CMcuSerialOpt();

    int SerialMessageRegister();
    int SerialMessageUnRegister();
    // Event 1090: data from an MCU port; only the owner's ids are taken.
    int OnReceiveDataFromSerial(const char* data, int length);
    // Message 1088 to the MCU. 0, or -1 without owner.
    int SendDataToPeripheral(const char* data, unsigned int length);

private:
    CSerialBase* m_pSerialBase;  // not owned
};

// Stop-bit code of the MCU's settings message (message 6735, byte 5).
unsigned char McuStopBitCode(SerialStopBitMode stopBit);

#endif
