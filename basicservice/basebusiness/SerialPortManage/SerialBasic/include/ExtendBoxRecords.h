// What travels between the recorder, the service and an extension box or hub: the box's
// commands, the upgrade states and the records of the bus messages about boxes.
// docs/extension-box-frames.md describes the link.
#ifndef SERIALBASIC_EXTEND_BOX_RECORDS_H
#define SERIALBASIC_EXTEND_BOX_RECORDS_H

#include <cstdint>

#include "SerialDefine.h"

// Commands of the box's own frames (the command byte, offset 4).
enum eExtendBoxCmd : unsigned char {
    EXTEND_BOX_CMD_SUB_SERIAL_DATA = 0x00,  // no command byte: a sub-port's bytes
    EXTEND_BOX_CMD_UPGRADE_START = 0x01,
    EXTEND_BOX_CMD_UPGRADE_DATA = 0x02,
    EXTEND_BOX_CMD_UPGRADE_END = 0x03,
    EXTEND_BOX_CMD_GET_VERSION = 0x04,
    EXTEND_BOX_CMD_HUB_IO_STATUS = 0x06,
    EXTEND_BOX_CMD_HEARTBEAT = 0x07,
    EXTEND_BOX_CMD_SET_SUB_SERIAL = 0x20,
    EXTEND_BOX_CMD_MCU_TEST = 0x40,  // sent as 0x41, answered as 0x40
    EXTEND_BOX_CMD_SET_TRANSFORM_TYPE = 0xA0,
};

// Upgrade states as broadcast in the state record (6707).
enum enumPeripheralUpgradeState {
    PERIPHERAL_UPGRADE_DOING = 0,
    PERIPHERAL_UPGRADE_OFFLINE = 4,
    PERIPHERAL_UPGRADE_FILE_ERROR = 5,
    PERIPHERAL_UPGRADE_FILE_NOT_FOUND = 6,
    PERIPHERAL_UPGRADE_BUSY = 7,
    PERIPHERAL_UPGRADE_SAME_VERSION = 8,
    PERIPHERAL_UPGRADE_FAILED = 9,
    PERIPHERAL_UPGRADE_SUCCESS = 10,
    PERIPHERAL_UPGRADE_STATE_END = 11,  // not a state: every value from here on is refused
};

enum : unsigned int {
    EXTEND_BOX_DEV_ID = 0x04,
    EXTEND_BOX_FRAME_SIZE = SERIAL_DELIVERY_SIZE,  // the frame builders' and receivers' buffers
    EXTEND_BOX_MAX_SUB_ID = 4,
    EXTEND_BOX_MAX_PARAM_ID = 12,
    EXTEND_BOX_VERSION_SIZE = 32,
    EXTEND_BOX_STATE_RECORDS = 7,
    EXTEND_BOX_UPGRADE_SOURCES = 4,  // records of sources 0-3 are the ones kept up to date
};

// Upgrade state record (6707, and the answer to 6708).
struct ExtendUpgradeState_t {
    uint8_t source;  // 0xFF: never used
    uint8_t state;   // enumPeripheralUpgradeState
    int8_t percent;
    uint8_t reserved0[2];
    uint8_t mainId;
    uint8_t subId;
    uint8_t devId;
    uint8_t reserved1[5];
    char flag[48];    // the localised "STR_EXTEND_BOX_FLAG"
    uint8_t flagEnd;  // 0x04
    uint8_t reserved2[23];
};
static_assert(sizeof(ExtendUpgradeState_t) == 85, "upgrade state record is 85 bytes");

// Version record (6710, and the answer to 6711).
struct ExtendVersionRecord_t {
    uint8_t type;  // 0
    uint8_t mainId;
    uint8_t subId;
    uint8_t devId;
    uint8_t reserved0[5];
    uint8_t source;
    uint8_t count;  // 1 when the box's version is known
    uint8_t reserved1[10];
    char flag[16];
    char version[32];
    uint8_t versionDevId;  // devId when a version is present
    uint8_t reserved2[175];
};
static_assert(sizeof(ExtendVersionRecord_t) == 245, "version record is 245 bytes");

// Payload of 39473, the recorder's answer to the file request: a head, then the file data.
enum : unsigned int {
    UPGRADE_FILE_NAME_OFFSET = 4,
    UPGRADE_FILE_NAME_SIZE = 64,
    UPGRADE_FILE_LENGTH_OFFSET = 68,
    UPGRADE_FILE_HEAD_OFFSET = 104,  // the file data begins here
    UPGRADE_FILE_HEAD_SIZE = 100,
    UPGRADE_FILE_COUNT_OFFSET = 200,  // N, the number of entries after the head
    UPGRADE_FILE_ENTRY_SIZE = 80,
    UPGRADE_FILE_CRC_OFFSET = 268,        // entry 0: the image's check value
    UPGRADE_FILE_IMAGE_LEN_OFFSET = 280,  // entry 0: the image length
    UPGRADE_FILE_MIN_SIZE = 284,
    UPGRADE_LINE_SIZE = 64,  // image bytes per upgrade line
};

#endif
