#include "SerialDevExtendBoxHub.h"

#include <string.h>

#include <new>

#include "BusWire.h"
#include "CommonLog.h"
#include "PeripheralEvents.h"

namespace {

const ExtendBoxVariant kHubVariant = {"S1_EXTEND_BOX_HUB: ", "CSerialDevExtendBoxHub",
                                      EXTEND_HUB_DEV_ID, 5, "ZORVIK"};

}  // namespace

CSerialDevExtendBoxHub::CSerialDevExtendBoxHub(CPeripheralManage* manage, CMsgClientManage* client,
                                               unsigned int mainId, unsigned int subId)
    : CSerialDevExtendBox(manage, client, mainId, subId, kHubVariant), m_nIOState(0) {}

CSerialDevExtendBoxHub::~CSerialDevExtendBoxHub() {
    SetSerialConfigStatus(6, 0, 0);
    m_nIOState = 0;
    PM_LOG(1, m_variant.logTag,
           "~~Broadcast m_stuExtendIOstatus.lState = %#x , m_nMainId = %d, m_nSubId = %d \n",
           m_nIOState.load(), m_nMainId, m_nSubId);
    BroadcastIOStatus();
    // The box's part logs the destruction under the hub's name.
}

int CSerialDevExtendBoxHub::MessageRegister() {
    CSerialDevExtendBox::MessageRegister();
    m_pMsgClient->MSGEventRegister(static_cast<int>(m_nMsgId), EVENT_GET_EXTEND_IO_STATE, this,
                                   &CSerialDevExtendBoxHub::OnGetExtendIOStatus);
    return 0;
}

int CSerialDevExtendBoxHub::MessageUnRegister() {
    CSerialDevExtendBox::MessageUnRegister();
    m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_nMsgId), EVENT_GET_EXTEND_IO_STATE);
    return 0;
}

bool CSerialDevExtendBoxHub::AnalyseVariantAnswer(unsigned char cmd, unsigned int length,
                                                  const unsigned char* answer) {
    if (cmd == EXTEND_BOX_HUB_CMD_ACK) {
        return true;
    }
    if (cmd != EXTEND_BOX_HUB_CMD_IO_REPORT) {
        return false;
    }
    // Answer byte 3 is payload byte 1; a report too short for it reads as 0.
    const uint16_t state = length > 3 ? answer[3] : 0;
    if (state != m_nIOState.load()) {
        PM_LOG(1, m_variant.logTag, "m_stuExtendIOstatus.lState = %#x \n", state);
    }
    m_nIOState = state;
    BroadcastIOStatus();  // also when unchanged: receivers take it as the hub's heartbeat
    return true;
}

void CSerialDevExtendBoxHub::OnHeartbeatLost() {
    SetCurPeripheralStatus(false);
    ForgetVersion();
    BroadcastExtendBoxVersion();
    ResetHeartbeat();
    SetSerialConfigStatus(5, 0, 0);
    m_nIOState = 0;
    PM_LOG(1, m_variant.logTag,
           "Broadcast m_stuExtendIOstatus.lState = %#x , m_nMainId = %d, m_nSubId = %d \n",
           m_nIOState.load(), m_nMainId, m_nSubId);
    BroadcastIOStatus();
}

void CSerialDevExtendBoxHub::OnUpgradeFinished() {
    MakeAndSendCmd(EXTEND_BOX_CMD_HUB_IO_STATUS, 0, m_variant.devId, 0, nullptr);
    RequestVersion();
}

void CSerialDevExtendBoxHub::BroadcastIOStatus() {
    unsigned char record[sizeof(ExtendIOStatus_t)];
    record[0] = static_cast<unsigned char>(m_nMainId);
    record[1] = static_cast<unsigned char>(m_nSubId);
    Common::PutLe16(record + 2, m_nIOState.load());
    m_pMsgClient->MSGSendMessage(0, EVENT_EXTEND_IO_STATE, 0, reinterpret_cast<const char*>(record),
                                 sizeof(record), static_cast<int>(m_nMsgId));
}

int CSerialDevExtendBoxHub::OnGetExtendIOStatus(const char* msg, int len) {
    if (msg == nullptr || len <= static_cast<int>(Common::kMsgHeadSize) - 1) {
        // The wording is the recorder's, although the request is for the I/O state.
        PM_LOG(0, m_variant.logTag, "Get Version param length error \n");
        return -1;
    }
    const uint16_t state = m_nIOState.load();
    PM_LOG(1, m_variant.logTag, "Get Extend IO status, stuIOStatus.lState = %#x \n", state);
    unsigned char answer[sizeof(ExtendIOStatus_t)] = {};  // the ids stay zero in the answer
    Common::PutLe16(answer + 2, state);
    return Respond(msg, answer, sizeof(answer));
}

CPeripheralBase* ExtendBoxHubCreate(CPeripheralManage* manage, CMsgClientManage* client,
                                    unsigned int mainId, unsigned int subId) {
    return new (std::nothrow) CSerialDevExtendBoxHub(manage, client, mainId, subId);
}

int ExtendBoxHubRelease(CPeripheralBase* instance) {
    return ExtendBoxRelease(instance);  // both stop the thread, then delete
}
