#include "McuSerialOpt.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "MsgView.h"
#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "PeripheralManage.h"
#include "SerialBase.h"
#include "PeripheralEvents.h"

namespace {

constexpr const char kLogTag[] = "MCU_OPT: ";

// Event 1090: main id (uint16) at 16, sub id (uint16) at 18, data length (uint32) at 20.
// Payload of event 1090: main id, sub id, data length, then the data.
constexpr unsigned int kRecvDataOffset = 8;
constexpr unsigned int kRecvBufferSize = SERIAL_DELIVERY_SIZE;
// Message 1088: main id (uint16), sub id (uint16), data length (uint32), then the data.
constexpr unsigned int kSendHeadSize = 8;

std::string Title(const char* fmt, unsigned int mainId, unsigned int subId, unsigned int length) {
    char text[128];
    snprintf(text, sizeof(text), fmt, mainId, subId, length);
    return text;
}

}  // namespace

CMcuSerialOpt::CMcuSerialOpt(CSerialBase* owner) : m_pSerialBase(owner) {
    if (owner == nullptr) {
        PM_LOG(0, kLogTag, "Serial instance ptr is NULL\n");
        return;
    }
    owner->SetCurPeripOpenStatus(true);
    SerialMessageRegister();
}

CMcuSerialOpt::~CMcuSerialOpt() {
    SerialMessageUnRegister();
    m_pSerialBase = nullptr;
}

int CMcuSerialOpt::SerialMessageRegister() {
    if (m_pSerialBase == nullptr || m_pSerialBase->GetMsgClient() == nullptr) {
        return -1;
    }
    int msgId = static_cast<int>(m_pSerialBase->GetMsgId());
    ConsolePrintf("SerialMessageRegister, msgId = %d\n", msgId);
    return m_pSerialBase->GetMsgClient()->MSGEventRegister(msgId, EVENT_MCU_SERIAL_RECV, this,
                                                           &CMcuSerialOpt::OnReceiveDataFromSerial);
}

int CMcuSerialOpt::SerialMessageUnRegister() {
    if (m_pSerialBase == nullptr || m_pSerialBase->GetMsgClient() == nullptr) {
        return -1;
    }
    return m_pSerialBase->GetMsgClient()->MSGEventUnRegister(
        static_cast<int>(m_pSerialBase->GetMsgId()), EVENT_MCU_SERIAL_RECV);
}

int CMcuSerialOpt::OnReceiveDataFromSerial(const char* data, int length) {
    const MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Receive serial data length error ,length = %d \n", length);
        return -1;
    }
    if (m_pSerialBase == nullptr) {
        return -1;
    }
    const MsgView payload = msg.Payload();
    unsigned int mainId = payload.U16(0);
    unsigned int subId = payload.U16(2);
    PM_LOG(3, kLogTag, "[RECV] mainId = %d, subTd = %d \n", mainId, subId);
    if (mainId != m_pSerialBase->GetMainId() || subId != m_pSerialBase->GetSubId()) {
        return 0;
    }

    uint32_t dataLength = payload.U32(4);
    unsigned int received = payload.Size() > kRecvDataOffset
                                ? static_cast<unsigned int>(payload.Size() - kRecvDataOffset)
                                : 0;
    unsigned int copy = dataLength;
    if (copy > kRecvBufferSize || copy > received) {
        copy = received < kRecvBufferSize ? received : kRecvBufferSize;
        PM_LOG(0, kLogTag,
               "[RECV] data length bounded, mainId = %d, subTd = %d, length = %u, "
               "received = %u, keep = %u\n",
               mainId, subId, dataLength, received, copy);
    }
    char buffer[kRecvBufferSize] = {};
    payload.Copy(kRecvDataOffset, buffer, copy);
    CPeripheralManage* manage = m_pSerialBase->GetPeripheralManage();
    if (manage != nullptr && manage->DumpsAt(3)) {
        manage->hex_dump(
            Title("MCU_OPT: [RECV], mainId = %d, subTd = %d, length = %d", mainId, subId, copy),
            buffer, copy, 3);
    }
    return m_pSerialBase->PreProcessPeripheralData(buffer, copy);
}

int CMcuSerialOpt::SendDataToPeripheral(const char* data, unsigned int length) {
    if (m_pSerialBase == nullptr) {
        return -1;
    }
    if (data == nullptr) {
        length = 0;
    }
    unsigned int mainId = m_pSerialBase->GetMainId();
    unsigned int subId = m_pSerialBase->GetSubId();
    std::vector<char> message(kSendHeadSize + length);
    Common::PutLe16(message.data(), mainId);
    Common::PutLe16(message.data() + 2, subId);
    Common::PutLe32(message.data() + 4, length);
    if (length > 0) {
        memcpy(message.data() + kSendHeadSize, data, length);
    }
    CPeripheralManage* manage = m_pSerialBase->GetPeripheralManage();
    if (manage != nullptr && manage->DumpsAt(3)) {
        manage->hex_dump(
            Title("MCU_OPT: [SEND], mainId = %d, subId = %d, length = %d", mainId, subId, length),
            data, length, 3);
    }
    m_pSerialBase->GetMsgClient()->MSGSendMessage(0, EVENT_MCU_SERIAL_SEND, 0, message.data(),
                                                  static_cast<int>(message.size()),
                                                  static_cast<int>(m_pSerialBase->GetMsgId()));
    return 0;
}

unsigned char McuStopBitCode(SerialStopBitMode stopBit) {
    switch (stopBit) {
        case SERIAL_STOP_BIT_1:
            return 1;
        case SERIAL_STOP_BIT_0_5:
            return 0;
        case SERIAL_STOP_BIT_1_5:
            return 2;
        case SERIAL_STOP_BIT_2:
            return 3;
    }
    return 1;
}
