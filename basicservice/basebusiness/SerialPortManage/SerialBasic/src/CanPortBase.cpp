#include "CanPortBase.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "MsgView.h"
#include "CommonLog.h"
#include "PeripheralManage.h"
#include "PeripheralEvents.h"

namespace {

constexpr const char kLogTag[] = "C_BASE: ";

constexpr unsigned int kMaxCanDataLen = 8;
constexpr unsigned int kRecvItemsOffset = sizeof(CanRecvHead_t);
constexpr unsigned int kRecvItemLen = sizeof(CanRecvItem_t);
constexpr unsigned int kFilterHeadLen = 4;
constexpr unsigned int kFilterMaxItemBytes = 1024;
constexpr unsigned int kFilterMaxEntries = 255;  // the count travels in one byte
constexpr unsigned int kSendLen = sizeof(CanSendFrame_t);
constexpr uint32_t kMarkMask = 0xFFFFFFFFu;

struct FreeDeleter {
    void operator()(unsigned char* p) const { free(p); }
};
using MallocBuffer = std::unique_ptr<unsigned char, FreeDeleter>;

MallocBuffer AllocZeroed(size_t size) {
    return MallocBuffer(static_cast<unsigned char*>(calloc(1, size)));
}

unsigned int ItemBytes(const CanPortRecvIdProperty& entry) {
    return entry.bHasMask ? 8 : 4;
}

// Exact ids go out big-endian; masked ones little-endian with 0xFF in the top byte as their
// mark. The CAN module reads both forms, so neither may be "fixed".
unsigned int PutFilterItem(unsigned char* p, const CanPortRecvIdProperty& entry) {
    if (!entry.bHasMask) {
        Common::PutBe32(p, entry.canId);
        return 4;
    }
    Common::PutLe32(p, (entry.canId & 0x00FFFFFFu) | 0xFF000000u);
    Common::PutLe32(p + 4, entry.mask);
    return 8;
}

}  // namespace

CCanPortBase::CCanPortBase(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                           unsigned int subId)
    : CPeripheralBase(manage, client, PERIPHERAL_TYPE_CANPORT, mainId, subId),
      m_ucCanPortId(255),
      m_usMinPeriod(0) {
    m_ucCanPortId =
        m_pPeripheralManage->GetPeripheralParamId(PERIPHERAL_TYPE_CANPORT, mainId, subId);
    if (m_ucCanPortId == 255) {
        PM_LOG(0, kLogTag, "Get Can Port param id error, mainId = %d, subId = %d\n", mainId, subId);
    }
    CanPortMessageRegister();
    SetCurPeripOpenStatus(true);
    m_usMinPeriod = 0;
}

CCanPortBase::~CCanPortBase() {
    // An independent instance's thread must not step a half-destroyed object.
    if (!m_bSharedThread) {
        Stop();
    }
    CanPortMessageUnRegister();
    m_listRecvId.clear();
    // The empty list tells the CAN module to stop forwarding frames to this instance.
    SetCanPortFilter();
}

int CCanPortBase::PeripheralThreadCycle(long long) {
    return 0;
}

int CCanPortBase::ProcessPeripheralData(const char*, unsigned int, unsigned int) {
    return 0;
}

int CCanPortBase::AddOneRecvCanId(unsigned int canId, unsigned int mask) {
    for (const auto& entry : m_listRecvId) {
        if ((entry.mask & entry.canId) == (mask & canId)) {
            PM_LOG(1, kLogTag,
                   "Add one canId is exist, mainId = %d, subId = %d, "
                   "old_canId_maskId = 0x%x(0x%x), new_CanId_maskId = 0x%x(0x%x), size = %d\n",
                   m_nMainId, m_nSubId, entry.canId, entry.mask, canId, mask,
                   static_cast<int>(m_listRecvId.size()));
            return -1;
        }
    }
    PM_LOG(1, kLogTag, "Add one canId, mainId = %d, subId = %d, canId = 0x%x, mask = 0x%x\n",
           m_nMainId, m_nSubId, canId, mask);
    m_listRecvId.push_back({mask != kMarkMask, canId, mask});
    return 0;
}

int CCanPortBase::DeleteRecvCanId(unsigned int canId, unsigned int mask) {
    const uint32_t wanted = mask & canId;
    for (auto it = m_listRecvId.begin(); it != m_listRecvId.end();) {
        if ((it->mask & it->canId) != wanted) {
            ++it;
            continue;
        }
        PM_LOG(1, kLogTag,
               "Delete one canId, mainId = %d, subId = %d, canId_mask = 0x%x (0x%x, "
               "0x%x), (0x%x, 0x%x), size = %d\n",
               m_nMainId, m_nSubId, wanted, it->canId, it->mask, canId, mask,
               static_cast<int>(m_listRecvId.size()));
        it = m_listRecvId.erase(it);
    }
    return 0;
}

int CCanPortBase::SetCanPortFilter() {
    MallocBuffer buffer = AllocZeroed(kFilterHeadLen + kFilterMaxItemBytes);
    if (!buffer) {
        PM_LOG(0, kLogTag, "Set can port filter failed, malloc failed\n");
        return 0;
    }
    unsigned char* msg = buffer.get();
    unsigned int count = 0;
    unsigned int itemLen = 0;
    for (const auto& entry : m_listRecvId) {
        if (count == kFilterMaxEntries || itemLen + ItemBytes(entry) > kFilterMaxItemBytes) {
            PM_LOG(0, kLogTag,
                   "Set can port filter, list too long, mainId = %d, subId = %d, sent "
                   "%u of %u entries\n",
                   m_nMainId, m_nSubId, count, static_cast<unsigned int>(m_listRecvId.size()));
            break;
        }
        itemLen += PutFilterItem(msg + kFilterHeadLen + itemLen, entry);
        ++count;
    }
    msg[0] = m_ucCanPortId;
    msg[1] = static_cast<unsigned char>(count);
    Common::PutLe16(msg + 2, m_usMinPeriod);
    PM_LOG(1, kLogTag,
           "Set can port filter, mainId = %d, subId = %d, canPortId = %d, count = %d, "
           "length = %d uiMinPeriod = %d \n",
           m_nMainId, m_nSubId, m_ucCanPortId, count, itemLen, m_usMinPeriod);
    m_pMsgClient->MSGSendMessage(0, EVENT_CAN_SET_FILTER, 0, reinterpret_cast<const char*>(msg),
                                 static_cast<int>(kFilterHeadLen + itemLen),
                                 static_cast<int>(m_nMsgId));
    return 0;
}

int CCanPortBase::SendCanDataToPeripheral(const char* data, unsigned int length,
                                          unsigned int canId) {
    if (data == nullptr) {
        length = 0;
    }
    if (length > kMaxCanDataLen) {
        PM_LOG(0, kLogTag, "Send data to CAN, length is too large, length = %d > %d\n", length,
               kMaxCanDataLen);
        length = kMaxCanDataLen;
    }
    MallocBuffer buffer = AllocZeroed(kSendLen);
    if (!buffer) {
        PM_LOG(0, kLogTag, "Send data to CAN, malloc failed\n");
        return 0;
    }
    unsigned char* msg = buffer.get();
    Common::PutLe16(msg + offsetof(CanSendFrame_t, usMainId), m_nMainId);
    Common::PutLe16(msg + offsetof(CanSendFrame_t, usSubId), m_nSubId);
    Common::PutLe16(msg + offsetof(CanSendFrame_t, usOne), 1);
    Common::PutLe32(msg + offsetof(CanSendFrame_t, uiCanId), canId);
    msg[offsetof(CanSendFrame_t, ucDataLen)] = static_cast<unsigned char>(length);
    if (length > 0) {
        memcpy(msg + offsetof(CanSendFrame_t, data), data, length);
    }
    if (m_pPeripheralManage->DumpsAt(3)) {
        char title[128];
        snprintf(title, sizeof(title),
                 "C_BASE: Send to device, mainId = %d, subId = %d, canId = 0x%x, dataLen = %d",
                 m_nMainId, m_nSubId, canId, length);
        m_pPeripheralManage->hex_dump(title, reinterpret_cast<const char*>(msg), kSendLen, 3);
    }
    m_pMsgClient->MSGSendMessage(0, EVENT_CAN_SEND, 0, reinterpret_cast<const char*>(msg), kSendLen,
                                 static_cast<int>(m_nMsgId));
    return 0;
}

int CCanPortBase::CanPortMessageRegister() {
    m_pMsgClient->MSGEventRegister(static_cast<int>(m_nMsgId), EVENT_CAN_FILTER_STATE, this,
                                   &CCanPortBase::OnReceiveDataFromCanFilter_Get);
    m_pMsgClient->MSGEventRegister(static_cast<int>(m_nMsgId), EVENT_CAN_RECV, this,
                                   &CCanPortBase::OnReceiveDataFromCanPort);
    return 0;
}

int CCanPortBase::CanPortMessageUnRegister() {
    m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_nMsgId), EVENT_CAN_FILTER_STATE);
    m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_nMsgId), EVENT_CAN_RECV);
    return 0;
}

int CCanPortBase::OnReceiveDataFromCanPort(const char* data, int length) {
    const MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Receive CAN port data length error ,length = %d \n", length);
        return 0;
    }
    const MsgView payload = msg.Payload();
    const uint32_t funcId = payload.U16(offsetof(CanRecvHead_t, usFuncId));
    const uint32_t subId = payload.U16(offsetof(CanRecvHead_t, usSubId));
    const unsigned int canPort = payload.Byte(offsetof(CanRecvHead_t, ucCanPort));
    const unsigned int itemNum = payload.U16(offsetof(CanRecvHead_t, usItemNum));
    PM_LOG(2, kLogTag, "Recv data, mainId = %d, subId = %d, canPort = %d, uiItemNum = %d  \n",
           m_nMainId, m_nSubId, canPort, itemNum);
    if (funcId != m_nMainId || subId != m_nSubId) {
        PM_LOG(0, kLogTag, "uiFuncId[%d] != MainId[%d] or uiSubId[%d] != SubId[%d]\n", funcId,
               m_nMainId, subId, m_nSubId);
        return 0;
    }

    const size_t received = payload.Size();
    const unsigned int itemsReceived = static_cast<unsigned int>(
        received > kRecvItemsOffset ? (received - kRecvItemsOffset) / kRecvItemLen : 0);
    unsigned int itemCount = itemNum;
    if (itemCount > itemsReceived) {
        PM_LOG(0, kLogTag,
               "Receive CAN data error, item count too large, count = %u, length = %d, "
               "items received = %u\n",
               itemNum, length, itemsReceived);
        itemCount = itemsReceived;
    }

    const unsigned char* item =
        reinterpret_cast<const unsigned char*>(data) + Common::kMsgHeadSize + kRecvItemsOffset;
    for (unsigned int n = 0; n < itemCount; ++n) {
        const uint32_t canId = Common::GetLe32(item + offsetof(CanRecvItem_t, uiCanId));
        const unsigned int dataLen = item[offsetof(CanRecvItem_t, ucDataLen)];
        if (dataLen > kMaxCanDataLen) {
            // The rest of the count is spent on this item: every later item is dropped.
            PM_LOG(0, kLogTag, "Receive CAN data error, length is too large, length = %d > %d\n",
                   dataLen, kMaxCanDataLen);
            continue;
        }
        const char* itemData = reinterpret_cast<const char*>(item + offsetof(CanRecvItem_t, data));
        PM_LOG(3, "", "canID: %x \n", canId);
        m_pPeripheralManage->hex_dump("data:", itemData, dataLen, 3);
        PreProcessPeripheralData(itemData, dataLen, canId);
        item += kRecvItemLen;
    }
    return 0;
}

int CCanPortBase::OnReceiveDataFromCanFilter_Get(const char* data, int length) {
    const MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Receive CAN port data length error ,length = %d \n", length);
        return 0;
    }
    PM_LOG(0, kLogTag, "CAN filter update, canBusId = %d, transFilterNum = %d\n",
           msg.Payload().Byte(0), msg.Payload().Byte(1));
    return 0;
}

int CCanPortBase::PreProcessPeripheralData(const char* data, unsigned int length,
                                           unsigned int canId) {
    ProcessPeripheralData(data, length, canId);
    return 0;
}
