#include "SerialDevExtendBox.h"

#include <string.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <new>

#include "BusWire.h"
#include "CommonLog.h"
#include "CommonTime.h"
#include "GuiToolkit.h"
#include "PeripheralEvents.h"
#include "SerialFrame.h"
#include "SerialReconcile.h"
#include "SysConfig.h"
#include "ExtendBoxInternal.h"

using namespace extend_box;

namespace {

std::mutex g_FileWaitLock;
const CSerialDevExtendBox* g_pFileWaiter = nullptr;  // g_FileWaitLock

}  // namespace

bool extend_box::ClaimFileWait(const CSerialDevExtendBox* box) {
    std::lock_guard<std::mutex> guard(g_FileWaitLock);
    if (g_pFileWaiter != nullptr && g_pFileWaiter != box) {
        return false;
    }
    g_pFileWaiter = box;
    return true;
}

void extend_box::EndFileWait(const CSerialDevExtendBox* box) {
    std::lock_guard<std::mutex> guard(g_FileWaitLock);
    if (g_pFileWaiter == box) {
        g_pFileWaiter = nullptr;
    }
}

// ---- upgrade ----

void CSerialDevExtendBox::StoreUpgradeAnswerTime() {
    std::lock_guard<std::mutex> state(m_StateLock);
    m_session.Answered(Common::Q7R_TMGetSystemMicroSecond());
}

int CSerialDevExtendBox::OnTriggerExtendUpgrade(const char* msg, int len) {
    if (msg == nullptr || len <= static_cast<int>(Common::kMsgHeadSize) - 1) {
        PM_LOG(0, m_variant.logTag, "Trigger extend_box upgrade msg length or msg is error \n");
        return -1;
    }
    const unsigned char type = PayloadByte(msg, len, 0);
    const unsigned char mainId = PayloadByte(msg, len, 1);
    const unsigned char subId = PayloadByte(msg, len, 2);
    const unsigned char devId = PayloadByte(msg, len, 3);
    const unsigned char source = PayloadByte(msg, len, 9);
    if (type != PERIPHERAL_TYPE_SERIAL || mainId != m_nMainId || subId != m_nSubId) {
        PM_LOG(1, m_variant.logTag,
               "Upgrade type is not match, local_type = (0, %d, %d), upgrade_type = (%d, %d, "
               "%d)\n",
               m_nMainId, m_nSubId, type, mainId, subId);
        return 0;
    }
    PM_LOG(1, m_variant.logTag,
           "Trigger extend_box upgrade, upg_type = %d, perip_type = %d, MainId = %d, SubId = %d, "
           "DevId = %d\n",
           source, 0, mainId, subId, devId);
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    if (RefusesTrigger(source)) {
        return 0;
    }
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        m_session.Begin(source);
    }
    m_llUpgradeEndTime = 0;
    if (!GetCurPeripheralStatus()) {
        PM_LOG(0, m_variant.logTag, "[UPG] failed, device disconnect, status = %d\n",
               GetCurPeripheralStatus() ? 1 : 0);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_OFFLINE, source, true);
        return 0;
    }
    SetUpgrading(true);
    m_bAwaitingFile = true;
    StoreUpgradeAnswerTime();
    RequestUpgradeFile();
    return 0;
}

bool CSerialDevExtendBox::RefusesTrigger(unsigned char source) {
    if (source >= 3) {
        PM_LOG(0, m_variant.logTag, "[UPG] failed, because upgrade type[%d] is error\n", source);
        RefuseUpgrade(PERIPHERAL_UPGRADE_FAILED, source);
        return true;
    }
    if (IsUpgrading()) {
        int curState = 0;
        {
            std::lock_guard<std::mutex> state(m_StateLock);
            curState = m_session.CurState();
        }
        PM_LOG(0, m_variant.logTag, "[UPG] failed, is upgrading......, curstate = %d\n", curState);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_BUSY, source, false);
        return true;
    }
    if ((m_nPendingSetup & kSetupVersion) != 0) {
        PM_LOG(0, m_variant.logTag, "[UPG] failed, extend_box version is error\n");
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, source, true);
        return true;
    }
    if (!ClaimFileWait(this)) {
        // A final state, so that the requester may ask again; this box's own records stay.
        PM_LOG(0, m_variant.logTag,
               "[UPG] failed, another extend box waits for its upgrade file\n");
        SendUpgradeState(PERIPHERAL_UPGRADE_FAILED, source);
        return true;
    }
    return false;
}

void CSerialDevExtendBox::RequestUpgradeFile() {
    unsigned char request[kFileRequestSize] = {};
    request[0] = 0;  // location
    request[1] = 3;  // peripheral type of the file
    strncpy(reinterpret_cast<char*>(request + 4), m_variant.fileFlag, kFileRequestSize - 5);
    PM_LOG(1, "",
           "S12_GDS: [UPG], Send message to device to get upgrade file, location = %d, "
           "peripheralType = %d, file_flag = %s\n",
           request[0], request[1], m_variant.fileFlag);
    m_pMsgClient->MSGSendMessage(0, EVENT_GET_EXTEND_UPGRADE_FILE, 1,
                                 reinterpret_cast<const char*>(request), sizeof(request),
                                 static_cast<int>(m_nMsgId));
}

int CSerialDevExtendBox::OnGetExtendUpgradeFileAck(const char* msg, int len) {
    if (msg == nullptr || len <= static_cast<int>(Common::kMsgHeadSize) - 1) {
        PM_LOG(0, m_variant.logTag, "Get extend_box upgrade file length or msg is error \n");
        return -1;
    }
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    // Every box and hub hears every answer: only the one that asked takes it, once.
    if (!m_bAwaitingFile) {
        PM_LOG(1, m_variant.logTag, "[UPG] upgrade file ignored, none was asked for\n");
        return 0;
    }
    m_bAwaitingFile = false;
    EndFileWait(this);
    const unsigned int size = static_cast<unsigned int>(len) - Common::kMsgHeadSize;
    const unsigned char* file = reinterpret_cast<const unsigned char*>(msg) + Common::kMsgHeadSize;
    char name[UPGRADE_FILE_NAME_SIZE + 1] = {};
    for (unsigned int i = 0; i < UPGRADE_FILE_NAME_SIZE && UPGRADE_FILE_NAME_OFFSET + i < size;
         ++i) {
        name[i] = static_cast<char>(file[UPGRADE_FILE_NAME_OFFSET + i]);
    }
    const uint32_t fileLength = size >= UPGRADE_FILE_LENGTH_OFFSET + 4
                                    ? Common::GetLe32(file + UPGRADE_FILE_LENGTH_OFFSET)
                                    : 0;
    const unsigned char state = PayloadByte(msg, len, 0);
    const unsigned char type = PayloadByte(msg, len, 1);
    const unsigned char location = PayloadByte(msg, len, 2);
    PM_LOG(1, m_variant.logTag,
           "[UPG] get file by usb response, state = %d, peripheral_type = %d(2:can), "
           "location = %d, file_name = %s, length = %d\n",
           state, type, location, name, fileLength);
    StoreUpgradeAnswerTime();
    const unsigned char source = UpgradeSource();
    if (state != 1 || type != 3 || location != 0 || name[0] == '\0' || fileLength == 0) {
        PM_LOG(0, m_variant.logTag, "[UPG] upgrade file not find\n");
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FILE_NOT_FOUND, source, true);
        return 0;
    }
    int taken = 0;
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        taken = m_session.TakeFile(file, size, m_variant.logTag);
    }
    if (taken != 0) {
        PM_LOG(0, m_variant.logTag, "[UPG] upgrade file analy failed\n");
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FILE_ERROR, source, true);
        return 0;
    }
    if (SameVersionAsFile(source)) {
        return 0;
    }
    m_bTransferRunning = true;
    SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_START, 0, nullptr);
    return 0;
}

bool CSerialDevExtendBox::SameVersionAsFile(unsigned char source) {
    bool same = false;
    char version[EXTEND_BOX_VERSION_SIZE + 1] = {};
    char newVersion[EXTEND_BOX_VERSION_SIZE + 1] = {};
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        memcpy(version, m_szVersion, EXTEND_BOX_VERSION_SIZE);
        memcpy(newVersion, m_session.NewVersion(), EXTEND_BOX_VERSION_SIZE);
        // A prefix of the new version counts as the same: the box reports its version short.
        same = strncmp(newVersion, version, strlen(version)) == 0;
    }
    if (same) {
        PM_LOG(0, m_variant.logTag, "[UPG] version is same, version = %s\n", version);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_SAME_VERSION, source, true);
        return true;
    }
    PM_LOG(1, m_variant.logTag, "[UPG] version is different, version = %s, newVer = %s\n", version,
           newVersion);
    return false;
}

void CSerialDevExtendBox::SendExtendBoxUpgradeData(int line) {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    CExtendUpgradeSession::Line next;
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        next = m_session.NextLine(line);
    }
    if (next.action == CExtendUpgradeSession::Line::kWrongLine) {
        PM_LOG(0, m_variant.logTag, "upgrade failed, id is error, lineId = %d (!= %d)\n", line,
               next.expected);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true);
        return;
    }
    if (next.action == CExtendUpgradeSession::Line::kEnd) {
        PM_LOG(1, m_variant.logTag,
               "Send upgrade file data finished, and send end cmd to dev!!!\n");
        SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_END, 0, nullptr);
        return;
    }
    SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_DATA, next.size, next.data);
    if (!next.report) {
        return;
    }
    PM_LOG(1, m_variant.logTag, "data sending percent = %d, (%d /%d), count = %d\n", next.percent,
           next.sent, next.total, line + 1);
    BroadcastUpgradeState(PERIPHERAL_UPGRADE_DOING, UpgradeSource(), false);
}

unsigned char CSerialDevExtendBox::UpgradeSource() const {
    std::lock_guard<std::mutex> state(m_StateLock);
    return m_session.Source();
}

void CSerialDevExtendBox::SendUpgradeState(enumPeripheralUpgradeState state, unsigned char source) {
    ExtendUpgradeState_t record;
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        record = m_session.Report(state, source);
    }
    if (state >= PERIPHERAL_UPGRADE_STATE_END) {
        PM_LOG(0, m_variant.logTag, "OBD upgrade state is error, state = %d\n", state);
        return;
    }
    PM_LOG(1, m_variant.logTag,
           "[UPG] state broadcast, upgSource = %d, mainId = %d, subId = %d, devId = %d, "
           "flag = %s, reslut = %d, percent = %d\n",
           record.source, record.mainId, record.subId, record.devId, record.flag, record.state,
           record.percent);
    m_pMsgClient->MSGSendMessage(0, EVENT_EXTEND_UPGRADE_STATE, 0,
                                 reinterpret_cast<const char*>(&record), sizeof(record),
                                 static_cast<int>(m_nMsgId));
}

void CSerialDevExtendBox::BroadcastUpgradeState(enumPeripheralUpgradeState state,
                                                unsigned char source, bool finished) {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    SendUpgradeState(state, source);
    if (finished) {
        FinishUpgrade();
    } else {
        SetUpgrading(true);
    }
}

void CSerialDevExtendBox::RefuseUpgrade(enumPeripheralUpgradeState state, unsigned char source) {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    if (IsUpgrading()) {
        SendUpgradeState(state, source);
    } else {
        BroadcastUpgradeState(state, source, true);
    }
}

void CSerialDevExtendBox::FinishUpgrade() {
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        m_session.End();
        memset(m_szVersion, 0, sizeof(m_szVersion));
    }
    m_bAwaitingFile = false;
    m_bTransferRunning = false;
    EndFileWait(this);
    SetUpgrading(false);
    // The box comes back from an upgrade, or from a refusal, as a new one: link mode and
    // version are asked for again.
    m_nPendingSetup |= kSetupVersion | kSetupLinkMode;
}

void CSerialDevExtendBox::HandleUpgradeFailed() {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    const int pending = m_nPendingCmd.load();
    if (!IsUpgrading() || pending < 1 || pending > 3) {
        return;  // the slot is only ever -1, so this never acts; kept for the lock-step
    }
    BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true);
    m_nPendingCmd = -1;
}

int CSerialDevExtendBox::OnGetExtendUpgradeState(const char* msg, int len) {
    if (msg == nullptr || len <= static_cast<int>(Common::kMsgHeadSize) - 1) {
        // The wording is the recorder's: its tools look for this line.
        PM_LOG(0, m_variant.logTag, "Trigger SV_CAN upgrade msg length or msg is error \n");
        return -1;
    }
    const unsigned char source = PayloadByte(msg, len, 0);
    const unsigned char mainId = PayloadByte(msg, len, 2);
    PM_LOG(1, m_variant.logTag, "Request sv-can upgrade state, source = %d, mainId = %d\n", source,
           mainId);
    if (source >= EXTEND_BOX_UPGRADE_SOURCES) {
        return 0;
    }
    ExtendUpgradeState_t record;
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        record = m_session.RecordOf(source);
    }
    PM_LOG(1, m_variant.logTag,
           "Response upgrade state, source = %d, result = %d, percent = %d, flag = %s, "
           "mainId = %d\n",
           source, record.state, record.percent, record.flag, mainId);
    return Respond(msg, &record, sizeof(record));
}
