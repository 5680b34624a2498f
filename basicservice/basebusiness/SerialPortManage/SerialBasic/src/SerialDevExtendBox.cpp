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

const ExtendBoxVariant kBoxVariant = {"S1_EXTEND_BOX: ", "CSerialDevExtendBox", EXTEND_BOX_DEV_ID,
                                      3, "VKEL"};

}  // namespace

// ---- construction ----

CSerialDevExtendBox::CSerialDevExtendBox(CPeripheralManage* manage, CMsgClientManage* client,
                                         unsigned int mainId, unsigned int subId)
    : CSerialDevExtendBox(manage, client, mainId, subId, kBoxVariant) {}

CSerialDevExtendBox::CSerialDevExtendBox(CPeripheralManage* manage, CMsgClientManage* client,
                                         unsigned int mainId, unsigned int subId,
                                         const ExtendBoxVariant& variant)
    : CSerialBase(manage, client, mainId, subId),
      m_variant(variant),
      m_ucParamId(manage->GetPeripheralParamId(PERIPHERAL_TYPE_SERIAL, mainId, subId)),
      m_szVersion(),
      m_nSubPropertySetFlag(0),
      m_nPendingCmd(-1),
      m_nPendingSetup(kSetupVersion | kSetupLinkMode),
      m_nHeartbeatCount(0),
      m_llUpgradeEndTime(0),
      m_bChildSetupDue(false),
      m_bReportedOffline(false),
      m_strFlagText(GuiTKGetText(nullptr, nullptr, kFlagTextId)) {
    // The box's frames leave MakeAndSendCmd complete; a protocol 0 of its own (the default
    // when the document has no entry for the box) would have the base wrap them again.
    m_stuSerialProperty.protocolType = SERIAL_PROTOCOL_TRANSPARENT;
    m_session.Identify(static_cast<uint8_t>(m_nMainId), static_cast<uint8_t>(m_nSubId),
                       m_variant.devId, m_strFlagText);
    SetThreadCircleTime(kCycleMs);
    Q7R_GetSpecInfo(m_jsonSpecInfo);
    PM_LOG(1, m_variant.logTag,
           "**%s** is construct, mainId = %d, subId = %d, msgId = %d, paramId = %d\n",
           m_variant.className, m_nMainId, m_nSubId, m_nMsgId, m_ucParamId);
}

CSerialDevExtendBox::~CSerialDevExtendBox() {
    SetSerialConfigStatus(6, 0, 0);
    {
        // Whoever asked for the upgrade waits for its last state.
        std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
        if (IsUpgrading()) {
            // Past a successful END the box has its image; only the pause before state 10
            // is cut short.
            const bool took = m_llUpgradeEndTime.load() != 0;
            PM_LOG(0, m_variant.logTag, "Released while upgrading, upgrade %s\n",
                   took ? "finished" : "failed");
            BroadcastUpgradeState(took ? PERIPHERAL_UPGRADE_SUCCESS : PERIPHERAL_UPGRADE_FAILED,
                                  UpgradeSource(), true);
        }
    }
    EndFileWait(this);
    PM_LOG(1, m_variant.logTag, "**%s** is destruct!!!\n", m_variant.className);
    std::lock_guard<std::mutex> children(m_ChildLock);
    m_mapChild.clear();
}

int CSerialDevExtendBox::MessageRegister() {
    const int id = static_cast<int>(m_nMsgId);
    m_pMsgClient->MSGEventRegister(id, EVENT_EXTEND_UPGRADE_TRIGGER, this,
                                   &CSerialDevExtendBox::OnTriggerExtendUpgrade);
    m_pMsgClient->MSGEventRegister(id, EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), this,
                                   &CSerialDevExtendBox::OnGetExtendUpgradeFileAck);
    m_pMsgClient->MSGEventRegister(id, EVENT_GET_EXTEND_UPGRADE_STATE, this,
                                   &CSerialDevExtendBox::OnGetExtendUpgradeState);
    m_pMsgClient->MSGEventRegister(id, EVENT_GET_EXTEND_VERSION, this,
                                   &CSerialDevExtendBox::OnGetExtendVersion);
    return 0;
}

int CSerialDevExtendBox::MessageUnRegister() {
    const int id = static_cast<int>(m_nMsgId);
    m_pMsgClient->MSGEventUnRegister(id, EVENT_EXTEND_UPGRADE_TRIGGER);
    m_pMsgClient->MSGEventUnRegister(id, EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE));
    m_pMsgClient->MSGEventUnRegister(id, EVENT_GET_EXTEND_UPGRADE_STATE);
    m_pMsgClient->MSGEventUnRegister(id, EVENT_GET_EXTEND_VERSION);
    return 0;
}

// ---- lifecycle ----

int CSerialDevExtendBox::PeripheralThreadCycle(long long now) {
    // One timer per step for the whole program, shared by every box: the firmware of a line
    // with two boxes expects them to take turns, not to be asked twice as often.
    static long long s_llLinkModeTime = 0;
    static long long s_llVersionTime = 0;
    static long long s_llSubPropertyTime = 0;
    static long long s_llHeartbeatTime = 0;

    if (m_bChildSetupDue.exchange(false)) {
        HandlePeripParamChange();
    }
    HandleRecvTimeout(now);
    if ((m_nPendingSetup & kSetupLinkMode) != 0 &&
        Elapsed(now, s_llLinkModeTime) > kLinkModePeriodMs) {
        s_llLinkModeTime = now;
        const bool mcu = GetSerialType() == SERIAL_LINK_MCU;
        PM_LOG(1, m_variant.logTag,
               "Set extend box data transform type, isMcu = %d(0:MCU, 1:mainChip), please "
               "wait......\n",
               mcu ? 0 : 1);
        const unsigned char mode = mcu ? 0x00 : 0x10;
        SendOwnCmd(EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, 1, &mode);
    }
    if ((m_nPendingSetup & kSetupVersion) != 0) {
        if (Elapsed(now, s_llVersionTime) > kVersionPeriodMs) {
            s_llVersionTime = now;
            PM_LOG(1, m_variant.logTag, "Get extend_box version, please wait......\n");
            SendOwnCmd(EXTEND_BOX_CMD_GET_VERSION, 0, nullptr);
            ++m_nHeartbeatCount;
        }
        return 0;
    }
    if (!IsUpgrading()) {
        if (m_nSubPropertySetFlag != 0 &&
            Elapsed(now, s_llSubPropertyTime) > kSubPropertyPeriodMs) {
            s_llSubPropertyTime = now;
            SetSubPropertiesDue();
        }
        if (Elapsed(now, s_llHeartbeatTime) > kHeartbeatPeriodMs) {
            s_llHeartbeatTime = now;
            SendOwnCmd(EXTEND_BOX_CMD_HEARTBEAT, 0, nullptr);
        }
        return 1;
    }
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    const long long endTime = m_llUpgradeEndTime.load();
    if (IsUpgrading() && endTime != 0 && Elapsed(now, endTime) > kUpgradeSettleMs) {
        PM_LOG(1, m_variant.logTag,
               "Upgrade success, and broadcast upgrade state, and get version\n");
        m_llUpgradeEndTime = 0;
        {
            std::lock_guard<std::mutex> state(m_StateLock);
            m_session.Succeeded(now);
        }
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_SUCCESS, UpgradeSource(), true);
        OnUpgradeFinished();
    }
    return 0;
}

void CSerialDevExtendBox::SetSubPropertiesDue() {
    struct Due {
        unsigned char index;
        PeripheralProperty property;
    };
    std::vector<Due> due;
    const uint8_t flags = m_nSubPropertySetFlag;
    PM_LOG(1, m_variant.logTag,
           "Set sub serial property, m_nSubPropertySetFlag = 0x%x, please wait......\n", flags);
    {
        std::lock_guard<std::mutex> children(m_ChildLock);
        for (unsigned char i = 0; i < 8; ++i) {
            auto it = m_mapChild.find(i);
            if ((flags & (1u << i)) == 0 || it == m_mapChild.end() || it->second == nullptr) {
                continue;  // a missing child keeps its bit and is tried again
            }
            due.push_back({i, it->second->GetSerialProperty()});
            it->second->SetCurPeripheralStatus(true);
            m_nSubPropertySetFlag &= static_cast<uint8_t>(~(1u << i));
        }
    }
    // Sent outside the child lock: the reader thread takes it under the port table's lock.
    for (const Due& d : due) {
        SetSubSerialProperty(d.index, SERIAL_PROPERTY_ALL,
                             static_cast<SerialBaudRate>(d.property.baud),
                             static_cast<SerialDataBitMode>(d.property.dataBit),
                             static_cast<SerialStopBitMode>(d.property.stopBit),
                             static_cast<SerialParityMode>(d.property.parity),
                             static_cast<SerialFlowControlMode>(d.property.flow));
    }
}

int CSerialDevExtendBox::HandleRecvTimeout(long long now) {
    {
        std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
        if (IsUpgrading()) {
            bool timedOut = false;
            {
                std::lock_guard<std::mutex> state(m_StateLock);
                timedOut = m_session.SilentFor(now, kUpgradeTimeoutMs);
            }
            if (timedOut) {
                PM_LOG(0, m_variant.logTag, "Timeout happen, upgrade timeout\n");
                BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true);
            }
        }
    }
    const int count = m_nHeartbeatCount;
    if (count >= m_variant.heartbeatLimit) {
        PM_LOG(2, m_variant.logTag, "Timeout is too long, and set can disconnect\n");
        // The line above repeats every cycle while the box is silent; a person watching the
        // log wants the moment it went (and, from HeardFromBox, the moment it answered).
        if (!m_bReportedOffline.exchange(true)) {
            PM_LOG(1, m_variant.logTag, "Extend box offline, %d commands unanswered\n", count);
        }
        OnHeartbeatLost();
    }
    SetCurPeripheralStatus(count < m_variant.heartbeatLimit);
    return 0;
}

void CSerialDevExtendBox::HeardFromBox() {
    ResetHeartbeat();
    if (m_bReportedOffline.exchange(false)) {
        PM_LOG(1, m_variant.logTag, "Extend box online again\n");
    }
}

void CSerialDevExtendBox::OnHeartbeatLost() {}

void CSerialDevExtendBox::ForgetVersion() {
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        memset(m_szVersion, 0, sizeof(m_szVersion));
    }
    m_nPendingSetup |= kSetupVersion | kSetupLinkMode;
}

void CSerialDevExtendBox::RequestVersion() {
    m_nPendingSetup |= kSetupVersion;
}

void CSerialDevExtendBox::OnUpgradeFinished() {}

int CSerialDevExtendBox::HandlePeripParamChange() {
    const SerialParam_t* param = m_pPeripheralManage->GetSystemSerialParam();
    {
        std::lock_guard<std::mutex> children(m_ChildLock);
        m_mapChild.clear();
    }
    const SerialPortEntry_t* port = nullptr;
    for (const SerialPortEntry_t& entry : param->stuSerialSetting.port) {
        if (entry.mainFun == m_nMainId && entry.subFun == m_nSubId) {
            port = &entry;
            break;
        }
    }
    if (port == nullptr) {
        return 0;
    }
    if (m_pPeripheralManage->CheckPeripPropertyChanged(PERIPHERAL_TYPE_SERIAL, m_nMainId,
                                                       m_nSubId) != 0) {
        m_stuSerialProperty.baud = port->baudrate;
        SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, static_cast<SerialBaudRate>(port->baudrate),
                                  static_cast<SerialDataBitMode>(m_stuSerialProperty.dataBit),
                                  static_cast<SerialStopBitMode>(m_stuSerialProperty.stopBit),
                                  static_cast<SerialParityMode>(m_stuSerialProperty.parity),
                                  static_cast<SerialFlowControlMode>(m_stuSerialProperty.flow));
    }
    std::vector<std::pair<unsigned char, SerialBaudRate>> atOnce;
    for (unsigned char i = 0; i < SERIAL_EXTEND_PORT_COUNT; ++i) {
        const SerialExtendEntry_t& entry = port->extend[i];
        // A refused entry (a box on a sub-port; the manager logged it) stays an empty slot.
        CSerialBase* child =
            IsRefusedSubPort(entry)
                ? nullptr
                : dynamic_cast<CSerialBase*>(m_pPeripheralManage->GetKeptPeripheralInstance(
                      PERIPHERAL_TYPE_SERIAL, entry.mainFun, entry.subFun));
        size_t size = 0;
        {
            std::lock_guard<std::mutex> children(m_ChildLock);
            m_mapChild[i] = child;
            size = m_mapChild.size();
            if (child != nullptr) {
                child->m_stuSerialProperty.baud = entry.baudrate;
            }
        }
        if (child == nullptr) {
            continue;
        }
        m_nSubPropertySetFlag |= static_cast<uint8_t>(1u << i);
        if (entry.mainFun == kMainIdSetAtOnceA || entry.mainFun == kMainIdSetAtOnceB) {
            atOnce.emplace_back(i, static_cast<SerialBaudRate>(entry.baudrate));
        }
        PM_LOG(2, m_variant.logTag,
               "Add extend instance, id = %d, mainId = %d, subId = %d, size = %d\n", i,
               entry.mainFun, entry.subFun, static_cast<int>(size));
    }
    for (const auto& [index, baud] : atOnce) {
        SetSubSerialProperty(index, SERIAL_PROPERTY_ALL, baud, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                             SERIAL_PARITY_NONE, SERIAL_FLOW_NONE);
    }
    return 0;
}

// ---- version messages ----

bool CSerialDevExtendBox::PublishedVersion(char (&out)[EXTEND_BOX_VERSION_SIZE]) const {
    memset(out, 0, sizeof(out));
    std::lock_guard<std::mutex> state(m_StateLock);
    if (m_szVersion[0] == '\0') {
        return false;
    }
    const Json::Value customer = m_jsonSpecInfo.isObject()
                                     ? m_jsonSpecInfo.get("CUSTOMER_NAME", Json::Value())
                                     : Json::Value();
    if (customer.isString() && customer.asString() == kCustomerRuled) {
        char version[EXTEND_BOX_VERSION_SIZE + 1] = {};
        memcpy(version, m_szVersion, EXTEND_BOX_VERSION_SIZE);
        if (const char* mcu = strstr(version, "MCU")) {
            snprintf(out, sizeof(out), "%s%s", kCustomerVersionHead, mcu);
        }
        return true;
    }
    memcpy(out, m_szVersion, sizeof(out));
    return true;
}

void CSerialDevExtendBox::FillVersionRecord(ExtendVersionRecord_t& record, unsigned char source,
                                            bool wholeFlag) {
    record = ExtendVersionRecord_t{};
    record.mainId = static_cast<uint8_t>(m_nMainId);
    record.subId = static_cast<uint8_t>(m_nSubId);
    record.devId = m_variant.devId;
    record.source = source;
    // A broadcast carries the flag's 16 bytes as they are; an answer ends it within them.
    strncpy(record.flag, m_strFlagText.c_str(), wholeFlag ? sizeof(record.flag) : 15);
    if (PublishedVersion(record.version)) {
        record.count = 1;
        record.versionDevId = m_variant.devId;
    }
}

int CSerialDevExtendBox::BroadcastExtendBoxVersion() {
    ExtendVersionRecord_t record;
    FillVersionRecord(record, 0, true);
    PM_LOG(1, m_variant.logTag,
           "Broadcast version, source = %d, mainId = %d, flag = %.16s, version = %.32s, "
           "count = %d\n",
           record.source, record.mainId, record.flag, record.version, record.count);
    return m_pMsgClient->MSGSendMessage(0, EVENT_EXTEND_VERSION, 0,
                                        reinterpret_cast<const char*>(&record), sizeof(record),
                                        static_cast<int>(m_nMsgId));
}

int CSerialDevExtendBox::OnGetExtendVersion(const char* msg, int len) {
    if (msg == nullptr || len <= static_cast<int>(Common::kMsgHeadSize) - 1) {
        PM_LOG(0, m_variant.logTag, "Get Version param length error \n");
        return -1;
    }
    const unsigned char source = PayloadByte(msg, len, 9);
    if (Common::GetLe32(msg) != EVENT_GET_EXTEND_VERSION || source >= 4 ||
        PayloadByte(msg, len, 0) != PERIPHERAL_TYPE_SERIAL ||
        PayloadByte(msg, len, 1) != m_nMainId || PayloadByte(msg, len, 2) != m_nSubId) {
        return 0;
    }
    ExtendVersionRecord_t record;
    FillVersionRecord(record, source, false);
    PM_LOG(1, m_variant.logTag,
           "Get version, source = %d, mainId = %d, flag = %s, version = %.32s, count = %d\n",
           record.source, record.mainId, record.flag, record.version, record.count);
    return Respond(msg, &record, sizeof(record));
}

int CSerialDevExtendBox::Respond(const char* request, const void* answer, size_t size) {
    Common::SMessageHead head;  // a copy: the handler's buffer is the bus client's
    memcpy(&head, request, sizeof(head));
    return m_pMsgClient->MSGResponseMessage(&head, static_cast<const char*>(answer),
                                            static_cast<int>(size));
}

std::vector<char> CSerialDevExtendBox::GetVersionText() const {
    std::lock_guard<std::mutex> state(m_StateLock);
    return std::vector<char>(m_szVersion, m_szVersion + sizeof(m_szVersion));
}

CSerialBase* CSerialDevExtendBox::GetChild(unsigned char index) const {
    std::lock_guard<std::mutex> children(m_ChildLock);
    auto it = m_mapChild.find(index);
    return it == m_mapChild.end() ? nullptr : it->second;
}

void CSerialDevExtendBox::DetachChild(const CSerialBase* child) {
    std::lock_guard<std::mutex> children(m_ChildLock);
    for (auto& slot : m_mapChild) {
        if (slot.second == child) {
            slot.second = nullptr;
        }
    }
}

size_t CSerialDevExtendBox::GetChildCount() const {
    std::lock_guard<std::mutex> children(m_ChildLock);
    size_t count = 0;
    for (const auto& entry : m_mapChild) {
        count += entry.second != nullptr ? 1 : 0;
    }
    return count;
}

// ---- factory ----

CPeripheralBase* ExtendBoxCreate(CPeripheralManage* manage, CMsgClientManage* client,
                                 unsigned int mainId, unsigned int subId) {
    return new (std::nothrow) CSerialDevExtendBox(manage, client, mainId, subId);
}

int ExtendBoxRelease(CPeripheralBase* instance) {
    if (instance != nullptr) {
        instance->StopPeripheralThread();
        delete instance;
    }
    return 1;
}
