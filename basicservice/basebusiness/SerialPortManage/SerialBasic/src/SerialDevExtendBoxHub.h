// The extension hub box: the extension box of SerialDevExtendBox.h with its own device byte,
// a longer keep-alive limit, its own file flag, and the state of its digital inputs/outputs,
// which it reports (answer 0x33) and the service publishes (6905) and answers (6904).
#ifndef SERIALBASIC_SERIAL_DEV_EXTEND_BOX_HUB_H
#define SERIALBASIC_SERIAL_DEV_EXTEND_BOX_HUB_H

#include <atomic>
#include <cstdint>

#include "SerialDevExtendBox.h"

enum : unsigned int { EXTEND_HUB_DEV_ID = 0x19 };

// The hub's commands are the box's (eExtendBoxCmd) plus two answers of its own.
enum eExtendBoxHubCmd : unsigned char {
    EXTEND_BOX_HUB_CMD_ACK = 0x25,        // only ends the awaited command
    EXTEND_BOX_HUB_CMD_IO_REPORT = 0x33,  // payload byte 1: the I/O state bits
};

// I/O state record (6905): the hub's ids, then the state bits, little-endian.
struct ExtendIOStatus_t {
    uint8_t mainId;
    uint8_t subId;
    uint16_t lState;
};
static_assert(sizeof(ExtendIOStatus_t) == 4, "I/O state record is 4 bytes");

class CSerialDevExtendBoxHub : public CSerialDevExtendBox {
public:
    CSerialDevExtendBoxHub(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                           unsigned int subId);
    ~CSerialDevExtendBoxHub() override;

    int MessageRegister() override;
    int MessageUnRegister() override;

    int OnGetExtendIOStatus(const char* msg, int len);
    uint16_t GetIOState() const { return m_nIOState.load(); }

protected:
    bool AnalyseVariantAnswer(unsigned char cmd, unsigned int length,
                              const unsigned char* answer) override;
    void OnHeartbeatLost() override;
    void OnUpgradeFinished() override;

private:
    void BroadcastIOStatus();

    // Written by the answer path (serial reader), read by the bus handler.
    std::atomic<uint16_t> m_nIOState;
};

#endif
