// What the extension box's sources share among themselves, and with nobody else.
#ifndef SERIALBASIC_EXTEND_BOX_INTERNAL_H
#define SERIALBASIC_EXTEND_BOX_INTERNAL_H

#include <stdlib.h>

#include <cstdint>

#include "BusWire.h"

class CSerialDevExtendBox;

namespace extend_box {

constexpr unsigned int kLinkModePeriodMs = 2999;
constexpr unsigned int kVersionPeriodMs = 4999;
constexpr unsigned int kSubPropertyPeriodMs = 2999;
constexpr unsigned int kHeartbeatPeriodMs = 2999;
constexpr unsigned int kUpgradeTimeoutMs = 9999;
constexpr unsigned int kUpgradeSettleMs = 4999;  // from the END answer to state 10
constexpr unsigned int kCycleMs = 200;
constexpr uint32_t kSetupVersion = 0x01;
constexpr uint32_t kSetupLinkMode = 0x02;
constexpr unsigned int kFrameOverhead = 5;  // marks, address, device byte, check value
constexpr unsigned int kFileRequestSize = 52;
constexpr unsigned int kSubSettingSize = 6;
constexpr unsigned int kIoStatusQuery = 0x02;
constexpr unsigned char kHeartbeatByte = '1';
constexpr const char kCustomerRuled[] = "CUSTOMER_09.817";
constexpr const char kCustomerVersionHead[] = "VKEL-M01-HW-";
constexpr const char kFlagTextId[] = "STR_EXTEND_BOX_FLAG";
constexpr unsigned char kMainIdStuffedChildA = 12;  // children that take the frame as it came
constexpr unsigned char kMainIdStuffedChildB = 7;
constexpr unsigned char kMainIdSetAtOnceA = 8;  // children whose baud is sent without delay
constexpr unsigned char kMainIdSetAtOnceB = 34;

inline long long Elapsed(long long now, long long then) {
    return llabs(now - then);
}

// A byte of a bus message's payload, 0 past what arrived.
inline unsigned char PayloadByte(const char* msg, int len, unsigned int offset) {
    const long at = static_cast<long>(Common::kMsgHeadSize) + offset;
    return at < len ? static_cast<unsigned char>(msg[at]) : 0;
}

// One answer to a file request (39473) reaches every box and hub of the service, and nothing
// in it says whose request it answers: only one of them may wait for a file at a time.
bool ClaimFileWait(const CSerialDevExtendBox* box);
void EndFileWait(const CSerialDevExtendBox* box);

}  // namespace extend_box

#endif
