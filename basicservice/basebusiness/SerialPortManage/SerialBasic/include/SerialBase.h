// Base class of every serial protocol plug-in and of the extension boxes.
#ifndef SERIALBASIC_SERIAL_BASE_H
#define SERIALBASIC_SERIAL_BASE_H

#include <pthread.h>

#include <cstdint>
#include <string>

#include "PeripheralBase.h"
#include "SerialDefine.h"

class CMcuSerialOpt;
class CMainChipSerialOpt;
class CSerialDevOperate;
class CSerialDevExtendBox;
class CSubPortHost;

// Where a serial peripheral is attached, from the index of its port entry in the serial
// parameter setting.
enum eSerialLinkType {
    SERIAL_LINK_MCU = 0,         // ports 0-3: bytes relayed by the MCU over the bus
    SERIAL_LINK_MAINCHIP = 1,    // ports 4-7: a tty of the main chip
    SERIAL_LINK_MAINCHIP_2 = 2,  // ports 8-11: main-chip ports of the second group
    SERIAL_LINK_NONE = 3,        // in no port entry: the peripheral stays closed
};

// Bookkeeping of the last delivery: when bytes arrived last and the time before that (platform
// clock, ms), so a plug-in can tell a pause on the line from a frame split across reads.
struct SerialRecvStamp_t {
    int64_t llThisRecvTime;
    int64_t llPrevRecvTime;
    uint32_t nLastRecvLength;
    uint32_t nReserved;
};
static_assert(sizeof(SerialRecvStamp_t) == 24, "receive bookkeeping is 24 bytes");

// Received bytes reach ProcessPeripheralData through PreProcessPeripheralData, on the serial
// reader thread (main-chip tty), on the bus thread (MCU relay) or on the father box's reader
// path (sub-port), always with the buffer lock held. Plug-ins read the bytes with
// GetSerialBufferData there; from any other thread they take the lock with
// LockSerialBuffer()/UnlockSerialBuffer() first.
//
// The order of the virtual functions is the plug-in ABI; never reorder or insert.
class BASICSERVICE_API CSerialBase : public CPeripheralBase {
public:
    CSerialBase(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                unsigned int subId);
    ~CSerialBase() override;

    int PeripheralThreadCycle(long long now) override;
    // Re-reads the baud rate of this peripheral's entry when the manager reports it changed and
    // applies it to a main-chip port. Manager thread.
    int HandlePeripParamChange() override;

    // Slot 11: bytes are waiting in the receive buffer. Buffer lock held; see above.
    virtual int ProcessPeripheralData();
    // Slot 12: applies line settings. The fields of `mask` are SERIAL_PROPERTY_* bits.
    // 1 or 0 on success for a main-chip port, -1 on failure (and, deliberately, -1 after an MCU
    // port's settings were sent).
    virtual int SetMainChipSerialProperty(unsigned char mask, SerialBaudRate baud,
                                          SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                                          SerialParityMode parity, SerialFlowControlMode flow);
    // The line at `baud`, its other settings as the configuration gives them: what a protocol
    // that needs one speed sets in PeripheralInitialize. Inline, so that it is no entry point
    // of the library.
    int SetBaudKeepingLine(SerialBaudRate baud) {
        const PeripheralProperty& property = GetSerialProperty();
        return SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, baud,
                                         static_cast<SerialDataBitMode>(property.dataBit),
                                         static_cast<SerialStopBitMode>(property.stopBit),
                                         static_cast<SerialParityMode>(property.parity),
                                         static_cast<SerialFlowControlMode>(property.flow));
    }

    // Placement from the serial parameter setting and the configured property. Returns 0.
    int InitSerialProperty();

    // Receive buffer. The Set/Get/Clear calls expect the buffer lock to be held.
    int SetSerialBufferValue(const char* data, unsigned int length);
    int GetSerialBufferData(char* out, unsigned int& length);
    void ClearSerialBufferValue();
    unsigned int GetSerialMaxBufferSize() const { return m_nMaxBufferSize; }
    // Grows or shrinks the buffer (at most 1048576 bytes); pending bytes that fit are kept.
    void SetSerialMaxBufferSize(unsigned int size);
    void LockSerialBuffer() { pthread_mutex_lock(&m_BufferLock); }
    void UnlockSerialBuffer() { pthread_mutex_unlock(&m_BufferLock); }

    // Entry of received bytes. 0 on success, -1 when refused (null, empty or too long).
    int PreProcessPeripheralData(const char* data, unsigned int length);
    int AnalyseExtendData(const char* data, unsigned int length);
    int AnalyseExtendFrameData(const char* frame, unsigned int length);

    // Sends bytes to the device through the link: the link's result, or -1. Any thread.
    int SendDataToPeripheral(const char* data, unsigned int length);

    int OpenMainChipSerial(std::string path, bool retry, int flags);
    int CloseMainChipSerial();
    // Line speed in bit/s of a baud rate code (4800 for anything unknown).
    unsigned int ChangeSerialBaud(SerialBaudRate baud);

    // State reports for the recorder's interface. Any thread.
    unsigned char HandleSerialPort(unsigned int a, unsigned int b);
    int HandleSerialMaintainState(int msgId, unsigned int a, unsigned int b, unsigned char status);
    int SetSerialConfigStatus(unsigned char status, unsigned int a, unsigned int b);

    int GetSerialType() const { return m_nSerialType; }
    unsigned int GetMainChipType() const { return m_nMainChipType; }
    const std::string& GetSerialName() const { return m_strSerialName; }
    const PeripheralProperty& GetSerialProperty() const { return m_stuSerialProperty; }
    bool IsExtendSerial() const { return m_bExtend != 0; }
    unsigned char GetExtendId() const { return m_ucExtendId; }
    // The box this sub-port sends through; null once that box was released. Manager thread
    // (the manager clears it there).
    CSerialBase* GetFatherSerial() const { return m_pFatherSerial; }
    // The manager, before it releases `father`: a sub-port of it forgets it, after any send
    // through it has ended; true when it was this sub-port's father. Manager thread.
    bool DetachFather(const CSerialBase* father);
    // The manager, after the father's release: a sub-port looks for a box as it did when it
    // was made (a hub that stays takes over from a box that went). Manager thread.
    void AdoptFather();
    const SerialRecvStamp_t& GetRecvStamp() const { return m_stuRecvStamp; }

protected:
    PeripheralProperty m_stuSerialProperty;
    int m_nSerialType;  // eSerialLinkType
    uint32_t m_nMaxBufferSize;
    uint32_t m_nBufferLength;
    char* m_pBuffer;
    pthread_mutex_t m_BufferLock;
    std::string m_strSerialName;
    CSerialBase* m_pFatherSerial;  // not owned
    uint8_t m_bExtend;
    uint8_t m_ucExtendId;
    uint8_t m_nExtendHubBoxNew;
    CMcuSerialOpt* m_pMcuSerialOpt;            // owned
    CMainChipSerialOpt* m_pMainChipSerialOpt;  // owned
    uint32_t m_nMainChipType;                  // 1 "ttyAMA", 2 "ttyACM", 0 neither
    SerialRecvStamp_t m_stuRecvStamp;
    int64_t m_llRecvCount;  // deliveries so far
    uint8_t m_ucConfigStatus;
    uint8_t m_ucLastConfigStatus;
    uint8_t m_ucMaintainPort;

private:
    // The box keeps its sub-ports' configured baud rate up to date.
    friend class CSerialDevExtendBox;

    void FindFatherSerial();
    CSerialDevOperate* DeviceLayer() const;
    // The father as the box it must be (the hub when it was found as one), or null.
    CSubPortHost* FatherBox() const;
    // Logs why a sub-port's request cannot go through its father box; returns -1.
    int FatherSerialUnavailable();
};

#endif
