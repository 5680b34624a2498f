// Shared types and records of the peripheral-management service and its plug-ins.
// The parameter records are wire formats: they travel byte for byte on the bus.
#ifndef SERIALBASIC_PERIPHERAL_DEFINE_H
#define SERIALBASIC_PERIPHERAL_DEFINE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "SerialDefine.h"

class CPeripheralManage;
class CPeripheralBase;
class CMsgClientManage;

// Kind of a peripheral; also the plug-in folder it is loaded from.
enum ePeripheralType {
    PERIPHERAL_TYPE_SERIAL = 0,    // ../plugin/serial/
    PERIPHERAL_TYPE_CANPORT = 1,   // ../plugin/can/
    PERIPHERAL_TYPE_ETHERNET = 2,  // ../plugin/ethernet/
};

// Built-in serial peripherals: main id 0 marks an empty port slot.
enum : unsigned int {
    PERIPHERAL_MAINID_NONE = 0,
    PERIPHERAL_MAINID_EXTEND_BOX = 1,
    PERIPHERAL_MAINID_EXTEND_HUB_BOX = 149,
};

// A protocol and its variant: main function id, then sub function id.
struct PeripheralPair {
    uint32_t mainId;
    uint32_t subId;
};

// One configured protocol, as read from the peripheral configuration document.
struct PeripheralProperty {
    uint32_t mainId;
    uint32_t subId;
    uint32_t baud;         // SerialBaudRate
    uint32_t dataBit;      // SerialDataBitMode
    uint32_t stopBit;      // SerialStopBitMode
    uint32_t parity;       // SerialParityMode
    uint32_t flow;         // SerialFlowControlMode
    int32_t protocolType;  // eSerialProtocolType; 2 when the document says nothing
};
static_assert(sizeof(PeripheralProperty) == 32, "eight 32-bit fields");

// Entries of the parameter settings: the serial ports (0-3 MCU, 4-7 main chip, 8-11 main
// chip, second group), the sub-ports behind an extension box, the CAN ports, the Ethernet peers.
enum : unsigned int {
    SERIAL_PORT_COUNT = 12,
    SERIAL_MCU_PORT_END = 4,       // ports before it are the MCU's
    SERIAL_MAINCHIP_PORT_END = 8,  // then the main chip's, then its second group
    SERIAL_EXTEND_PORT_COUNT = 8,
    CAN_PORT_COUNT = 4,
    ETHERNET_ENTRY_COUNT = 4,
};

// Records the recorder sends that the service keeps and hands on whole.
enum : size_t {
    IPC_SETTING_SIZE = 408,
    LED_STATE_SIZE = 12,
    STORAGE_STATE_SIZE = 32,
    VEHICLE_INFO_SIZE = 56,
};

#pragma pack(push, 1)

// Sub-port behind an extension box; laid out like the head of a port entry.
struct SerialExtendEntry_t {
    uint8_t mainFun;
    uint8_t baudrate;  // SerialBaudRate
    uint8_t subFun;
    uint8_t lineSetting[5];  // further line settings, not interpreted by the service
};

struct SerialPortEntry_t {
    uint8_t mainFun;   // 0 = no peripheral on this port
    uint8_t baudrate;  // SerialBaudRate
    uint8_t subFun;
    uint8_t lineSetting[5];
    SerialExtendEntry_t extend[SERIAL_EXTEND_PORT_COUNT];  // only behind a box (1 or 149)
};

// The recorder's serial parameter setting. Ports 0-3 are MCU ports, 4-7 main-chip ports,
// 8-11 main-chip ports of the second group.
struct paramSerialSetting_t {
    SerialPortEntry_t port[SERIAL_PORT_COUNT];
    uint8_t reserved[128];
};

// CAN entry: note the order differs from the serial entry (baud after the two ids).
struct CanPortEntry_t {
    uint8_t mainFun;
    uint8_t subFun;
    uint8_t baudrate;
    uint8_t setting[17];
};

struct paramCanSetting_t {
    CanPortEntry_t port[CAN_PORT_COUNT];
    uint8_t reserved[128];
};

struct EthernetEntry_t {
    uint8_t mainFun;
    uint8_t subFun;
    uint8_t reserved0[2];
    char ip[16];    // peer IPv4 address, NUL-terminated dotted text
    uint16_t port;  // peer port, little-endian
    uint8_t setting[30];
};

struct paramPeripheralEtherNet_t {
    EthernetEntry_t entry[ETHERNET_ENTRY_COUNT];
    uint8_t reserved[128];
};

// FTP setting as the recorder sends it; handed on whole.
struct tag_MsgFtpSetting {
    uint8_t data[416];
};

// CAN frames as the CAN module carries them, little-endian. Event 1089, after its bus head:
// this head, then usItemNum items.
struct CanRecvHead_t {
    uint16_t usFuncId;  // must equal the instance's main id
    uint16_t usSubId;
    uint8_t ucCanPort;
    uint8_t reserved;
    uint16_t usItemNum;
};
struct CanRecvItem_t {
    uint32_t uiCanId;
    uint8_t ucDataLen;  // at most 8
    uint8_t reserved[3];
    uint8_t data[8];
};
// Message 1087: one frame to transmit.
struct CanSendFrame_t {
    uint16_t usMainId;
    uint16_t usSubId;
    uint16_t reserved0;
    uint16_t usOne;  // always 1
    uint32_t uiCanId;
    uint8_t ucDataLen;
    uint8_t reserved1[3];
    uint8_t data[8];
};

#pragma pack(pop)

static_assert(sizeof(CanRecvHead_t) == 8 && offsetof(CanRecvHead_t, usItemNum) == 6,
              "CAN receive head layout");
static_assert(sizeof(CanRecvItem_t) == 16 && offsetof(CanRecvItem_t, data) == 8,
              "CAN receive item layout");
static_assert(sizeof(CanSendFrame_t) == 24 && offsetof(CanSendFrame_t, uiCanId) == 8 &&
                  offsetof(CanSendFrame_t, ucDataLen) == 12 && offsetof(CanSendFrame_t, data) == 16,
              "CAN send frame layout");
static_assert(sizeof(SerialPortEntry_t) == 72, "serial port entry is 72 bytes");
static_assert(sizeof(paramSerialSetting_t) == 992, "serial setting is 992 bytes");
static_assert(sizeof(paramCanSetting_t) == 208, "CAN setting is 208 bytes");
static_assert(sizeof(EthernetEntry_t) == 52, "Ethernet entry is 52 bytes");
static_assert(sizeof(paramPeripheralEtherNet_t) == 336, "Ethernet setting is 336 bytes");
static_assert(sizeof(tag_MsgFtpSetting) == 416, "FTP setting is 416 bytes");

// A ready-to-send speech request of the recorder's audio service, built from one entry of the
// alarm speech document (ALARM_TTS_CFG); a peripheral that raises that alarm sends it as it
// stands. One heap block of strlen(text) + 65 bytes; little-endian; the words with fixed values
// are the audio service's. After the text's NUL follow AO channel, volume, two zero bytes and
// the loudspeaker bits again.
struct LinkSpeech_t {
    uint8_t ucPlayTimes;
    uint8_t ucInterval;
    uint16_t usLength;  // strlen(text) + 57
    uint8_t reserved0[4];
    uint32_t nWord8;  // 4
    uint8_t ucHandleType;
    uint8_t ucExcuteType;
    uint8_t reserved1[2];
    uint32_t nWord16;  // 0
    uint32_t nWord20;  // 0
    uint8_t reserved2[8];
    uint32_t nWord32;     // 552
    uint32_t nWord36;     // 553
    uint32_t nTextWords;  // strlen(text) + 9
    uint32_t nWord44;     // 8
    uint8_t ucAoChn;
    uint8_t ucVolumn;
    uint16_t usTextLength;  // strlen(text) + 1
    uint8_t ucLababit;
    uint8_t reserved3[3];
    char szText[1];  // the text, then the tail described above
};
static_assert(offsetof(LinkSpeech_t, ucHandleType) == 12, "speech record layout");
static_assert(offsetof(LinkSpeech_t, nWord32) == 32, "speech record layout");
static_assert(offsetof(LinkSpeech_t, ucAoChn) == 48, "speech record layout");
static_assert(offsetof(LinkSpeech_t, ucLababit) == 52, "speech record layout");
static_assert(offsetof(LinkSpeech_t, szText) == 56, "speech record layout");

// The manager's serial parameter block: the last serial setting, then the device path of
// the main chip's serial port at each position 0 to 11 (empty when not configured).
struct SerialParam_t {
    paramSerialSetting_t stuSerialSetting;
    std::string strSerialPath[SERIAL_PORT_COUNT];
};

// Entry points of a protocol plug-in library (exported unmangled).
typedef CPeripheralBase* (*PeripheralCreateFn)(CPeripheralManage* manage, CMsgClientManage* client,
                                               unsigned int mainId, unsigned int subId);
typedef void (*PeripheralReleaseFn)(CPeripheralBase* instance);

#endif
