#include "SerialBase.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "CommonLog.h"
#include "CommonTime.h"
#include "GuiToolkit.h"
#include "MainChipSerialOpt.h"
#include "McuSerialOpt.h"
#include "MutexGuard.h"
#include "PeripheralManage.h"
#include "SerialDevOperate.h"
#include "SerialFrame.h"
#include "SerialReconcile.h"
#include "SubPortHost.h"
#include "PeripheralEvents.h"

namespace {

constexpr const char kLogTag[] = "S_BASE: ";

constexpr unsigned int kDefaultBufferSize = 2048;
constexpr unsigned int kMaxBufferSize = 0x100000;
// What one delivery may leave in the buffer before older bytes are dropped, and what one
// GetSerialBufferData hands out.
constexpr unsigned char kStatusReuseMaintainPort = 6;
constexpr unsigned int kForceReportArg = 5;
constexpr unsigned int kMainIdPortGroup = 7;  // reported on ports of their own
constexpr unsigned int kMaintainStateSize = 80;
constexpr unsigned int kMcuPropertySize = 16;

bool IsExtendBoxId(unsigned int mainId, unsigned int subId) {
    return subId == 0 &&
           (mainId == PERIPHERAL_MAINID_EXTEND_BOX || mainId == PERIPHERAL_MAINID_EXTEND_HUB_BOX);
}

int LinkTypeOfPort(unsigned int port) {
    if (port < SERIAL_MCU_PORT_END) {
        return SERIAL_LINK_MCU;
    }
    if (port < SERIAL_MAINCHIP_PORT_END) {
        return SERIAL_LINK_MAINCHIP;
    }
    if (port < SERIAL_PORT_COUNT) {
        return SERIAL_LINK_MAINCHIP_2;
    }
    return SERIAL_LINK_NONE;
}

// Sub-ports use their father box from their own threads while the manager may release it:
// every use of a father holds this shared, and the manager clears a father exclusively
// (DetachFather) before the box goes. One lock for all sub-ports keeps the plug-in's view of
// CSerialBase as it was; a clearing is rare and takes no time.
std::shared_mutex& FatherLinks() {
    static std::shared_mutex lock;
    return lock;
}

// A serial instance's state reports come from the reader thread (a box's answers), the
// manager thread and plug-ins' threads: deciding whether a status is new, finding the port
// number and sending the report are one step.
std::recursive_mutex& StateReports() {
    static std::recursive_mutex lock;
    return lock;
}

bool IsMainChipLink(int type) {
    return type == SERIAL_LINK_MAINCHIP || type == SERIAL_LINK_MAINCHIP_2;
}

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...) {
    char text[256];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

}  // namespace

// ---- byte work ----

eExtendFrameScan ScanExtendFrame(const unsigned char* data, unsigned int length,
                                 unsigned int& start, unsigned int& end) {
    bool haveStart = false;
    for (unsigned int i = 0; i < length; ++i) {
        if (data[i] == SERIAL_FRAME_START) {
            start = i;
            haveStart = true;
        } else if (data[i] == SERIAL_FRAME_END && haveStart) {
            end = i;
            return EXTEND_SCAN_FRAME;
        }
    }
    return haveStart ? EXTEND_SCAN_PARTIAL : EXTEND_SCAN_NONE;
}

int BuildExtendDataFrame(unsigned char extendId, const unsigned char* data, unsigned int length,
                         unsigned char* out, unsigned int outSize) {
    if (data == nullptr || length == 0 || out == nullptr || length > outSize) {
        return -1;
    }
    // Marks, address and check byte come on top of the data.
    std::vector<unsigned char> frame(length + 4);
    unsigned char check = 0;
    for (unsigned int i = 1; i < length; ++i) {
        check ^= data[i];
    }
    frame[0] = SERIAL_FRAME_START;
    frame[1] = static_cast<unsigned char>(0x80 | (extendId & 0x7F));
    frame[2] = data[0];
    frame[3] = check;
    memcpy(frame.data() + 4, data + 1, length - 1);
    frame[length + 3] = SERIAL_FRAME_END;
    // The toolkit's stuffing wants room for twice the frame; the caller's buffer may be less.
    std::vector<unsigned char> stuffed(2 * frame.size());
    const int n =
        serial_transfrom_7e7f(frame.data(), stuffed.data(), static_cast<int>(frame.size()));
    if (n <= 0 || static_cast<unsigned int>(n) > outSize) {
        return -1;
    }
    memcpy(out, stuffed.data(), static_cast<size_t>(n));
    return n;
}

// ---- construction ----

CSerialBase::CSerialBase(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                         unsigned int subId)
    : CPeripheralBase(manage, client, PERIPHERAL_TYPE_SERIAL, mainId, subId),
      m_stuSerialProperty{},
      m_nSerialType(SERIAL_LINK_NONE),
      m_nMaxBufferSize(kDefaultBufferSize),
      m_nBufferLength(0),
      m_pBuffer(nullptr),
      m_BufferLock(),
      m_pFatherSerial(nullptr),
      m_bExtend(0),
      m_ucExtendId(0),
      m_nExtendHubBoxNew(0),
      m_pMcuSerialOpt(nullptr),
      m_pMainChipSerialOpt(nullptr),
      m_nMainChipType(0),
      m_stuRecvStamp{},
      m_llRecvCount(0),
      m_ucConfigStatus(0xFF),
      m_ucLastConfigStatus(0xFF),
      m_ucMaintainPort(0) {
    InitSerialProperty();
    m_pBuffer = new char[m_nMaxBufferSize]();
    // Recursive: a plug-in may resize or clear its buffer from ProcessPeripheralData, which
    // runs with the lock held.
    pthread_mutexattr_t recursive;
    pthread_mutexattr_init(&recursive);
    pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_BufferLock, &recursive);
    pthread_mutexattr_destroy(&recursive);

    if (m_nSerialType == SERIAL_LINK_MCU) {
        m_pMcuSerialOpt = new CMcuSerialOpt(this);  // sets the open flag
    } else if (IsMainChipLink(m_nSerialType)) {
        // The tty opens now, but the plug-in's part of this object does not exist yet: its
        // bytes wait in the kernel until Initialize.
        if (CSerialDevOperate* layer = DeviceLayer()) {
            layer->serial_hold_owner(this);
        }
        m_pMainChipSerialOpt = new CMainChipSerialOpt(this);
        SetCurPeripOpenStatus(false);
        if (!m_bExtend && m_nSerialType == SERIAL_LINK_MAINCHIP) {
            if (m_strSerialName.find("ttyAMA") != std::string::npos) {
                m_nMainChipType = 1;
            } else if (m_strSerialName.find("ttyACM") != std::string::npos) {
                m_nMainChipType = 2;
            }
            int result = OpenMainChipSerial(m_strSerialName, true, kMainChipOpenFlags);
            PM_LOG(1, kLogTag, "MainChip serial open serial result = %d, MainChipType = %d\n",
                   result, m_nMainChipType);
        } else {
            // A sub-port is as open as its box; the second group is opened by its plug-in.
            SetCurPeripOpenStatus(m_pFatherSerial != nullptr &&
                                  m_pFatherSerial->GetCurPeripOpenStatus());
        }
    }
}

CSerialBase::~CSerialBase() {
    // An independent instance's thread must not run a handler on a half-destroyed object.
    if (!m_bSharedThread) {
        Stop();
    }
    if (m_nSerialType == SERIAL_LINK_MCU) {
        delete m_pMcuSerialOpt;
        m_pMcuSerialOpt = nullptr;
    } else if (IsMainChipLink(m_nSerialType) && m_pMainChipSerialOpt != nullptr) {
        // A waiting open thread must not open the port after it was closed here.
        m_pMainChipSerialOpt->StopOpenThread();
        CloseMainChipSerial();
        delete m_pMainChipSerialOpt;
        m_pMainChipSerialOpt = nullptr;
    }
    // A port the plug-in opened and lost track of must not outlive the owner it delivers to.
    if (CSerialDevOperate* layer = DeviceLayer()) {
        layer->serial_forget_owner(this);
    }
    delete[] m_pBuffer;
    m_pBuffer = nullptr;
    m_pFatherSerial = nullptr;
    pthread_mutex_destroy(&m_BufferLock);
}

CSerialDevOperate* CSerialBase::DeviceLayer() const {
    return m_pPeripheralManage != nullptr ? m_pPeripheralManage->GetSerialDevOperatePtr() : nullptr;
}

int CSerialBase::InitSerialProperty() {
    m_nSerialType = SERIAL_LINK_NONE;
    m_bExtend = 0;
    m_nExtendHubBoxNew = 0;
    if (m_pPeripheralManage == nullptr) {
        return 0;
    }

    unsigned int port = SERIAL_PORT_COUNT;
    unsigned int extend = SERIAL_EXTEND_PORT_COUNT;
    const SerialParam_t param = *m_pPeripheralManage->GetSystemSerialParam();
    for (unsigned int i = 0; i < SERIAL_PORT_COUNT && port == SERIAL_PORT_COUNT; ++i) {
        const SerialPortEntry_t& entry = param.stuSerialSetting.port[i];
        if (entry.mainFun == m_nMainId && entry.subFun == m_nSubId) {
            port = i;
            m_strSerialName = param.strSerialPath[i];
            break;
        }
        for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
            if (!IsRefusedSubPort(entry.extend[k]) && entry.extend[k].mainFun == m_nMainId &&
                entry.extend[k].subFun == m_nSubId) {
                m_bExtend = 1;
                port = i;
                extend = k;
                break;
            }
        }
    }
    m_nSerialType = LinkTypeOfPort(port);

    if (extend < SERIAL_EXTEND_PORT_COUNT) {
        m_ucExtendId = static_cast<uint8_t>(extend);
        FindFatherSerial();
    }
    PM_LOG(1, kLogTag,
           "Create new serial, mainId = %d, subId = %d, type = %d, extend = %d(0--no), "
           "extendId = %d\n",
           m_nMainId, m_nSubId, m_nSerialType, m_bExtend, m_ucExtendId);

    std::vector<PeripheralProperty> config;
    m_pPeripheralManage->GetPeripheralConfig(PERIPHERAL_TYPE_SERIAL, config);
    for (const PeripheralProperty& property : config) {
        if (property.mainId != m_nMainId || property.subId != m_nSubId) {
            continue;
        }
        m_stuSerialProperty = property;
        // Deliberately not the configured baud: a plug-in applies the rate it needs itself.
        m_stuSerialProperty.baud = static_cast<uint32_t>(-1);
        PM_LOG(0, kLogTag,
               "Find serial prperty, mainId = %d, subId = %d, baud = %d, dataBit = %d, "
               "stopBit = %d, parity = %d, flow = %d, protocol = %d\n",
               m_stuSerialProperty.mainId, m_stuSerialProperty.subId,
               static_cast<int>(m_stuSerialProperty.baud), m_stuSerialProperty.dataBit,
               m_stuSerialProperty.stopBit, m_stuSerialProperty.parity, m_stuSerialProperty.flow,
               m_stuSerialProperty.protocolType);
        break;
    }
    return 0;
}

void CSerialBase::FindFatherSerial() {
    m_pFatherSerial = dynamic_cast<CSerialBase*>(m_pPeripheralManage->GetPeripheralInstance(
        PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0));
    if (m_pFatherSerial != nullptr) {
        PM_LOG(0, kLogTag, "Get father instance ok, mainId = %d, subId = %d\n", m_nMainId,
               m_nSubId);
        return;
    }
    m_pFatherSerial = dynamic_cast<CSerialBase*>(m_pPeripheralManage->GetPeripheralInstance(
        PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_HUB_BOX, 0));
    if (m_pFatherSerial != nullptr) {
        m_nExtendHubBoxNew = 1;
        PM_LOG(0, kLogTag,
               "Get new hubbox father instance ok, mainId = %d, subId = %d, "
               "m_nExtendHubBoxNew = %d\n",
               m_nMainId, m_nSubId, m_nExtendHubBoxNew);
        return;
    }
    PM_LOG(0, kLogTag, "Get father instance failed, mainId = %d, subId = %d\n", m_nMainId,
           m_nSubId);
}

// ---- periodic work and parameter changes ----

int CSerialBase::PeripheralThreadCycle(long long) {
    return 0;
}

int CSerialBase::ProcessPeripheralData() {
    return 0;
}

int CSerialBase::HandlePeripParamChange() {
    if (m_nSerialType == SERIAL_LINK_MCU || m_bExtend) {
        return 0;
    }
    const paramSerialSetting_t& setting =
        m_pPeripheralManage->GetSystemSerialParam()->stuSerialSetting;
    int baud = -1;
    for (unsigned int i = 0; i < SERIAL_PORT_COUNT && baud < 0; ++i) {
        if (setting.port[i].mainFun == m_nMainId && setting.port[i].subFun == m_nSubId) {
            baud = setting.port[i].baudrate;
        }
    }
    for (unsigned int i = 0; i < SERIAL_PORT_COUNT && baud < 0; ++i) {
        for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
            const SerialExtendEntry_t& entry = setting.port[i].extend[k];
            if (entry.mainFun == m_nMainId && entry.subFun == m_nSubId) {
                baud = entry.baudrate;
                break;
            }
        }
    }
    if (baud < 0) {
        return 0;
    }
    if (m_pPeripheralManage->CheckPeripPropertyChanged(PERIPHERAL_TYPE_SERIAL, m_nMainId,
                                                       m_nSubId) == 0) {
        return 0;
    }
    m_stuSerialProperty.baud = static_cast<uint32_t>(baud);
    return SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, static_cast<SerialBaudRate>(baud),
                                     static_cast<SerialDataBitMode>(m_stuSerialProperty.dataBit),
                                     static_cast<SerialStopBitMode>(m_stuSerialProperty.stopBit),
                                     static_cast<SerialParityMode>(m_stuSerialProperty.parity),
                                     static_cast<SerialFlowControlMode>(m_stuSerialProperty.flow));
}

// ---- receive buffer ----

int CSerialBase::SetSerialBufferValue(const char* data, unsigned int length) {
    if (length >= m_nMaxBufferSize || data == nullptr || length == 0) {
        PM_LOG(0, kLogTag, "Set serial buffer error, length  = %d\n", length);
        return -1;
    }
    // Zeroed before the copy: a source inside the buffer reads back as zero bytes, which is
    // what GetSerialBufferData relies on for the tail it keeps.
    memset(m_pBuffer, 0, m_nMaxBufferSize);
    memmove(m_pBuffer, data, length);  // the source may lie inside the buffer
    m_nBufferLength = length;
    return 0;
}

int CSerialBase::GetSerialBufferData(char* out, unsigned int& length) {
    if (out == nullptr) {
        return 0;
    }
    if (m_nBufferLength <= SERIAL_DELIVERY_SIZE) {
        memcpy(out, m_pBuffer, m_nBufferLength);
        length = m_nBufferLength;
    } else {
        memcpy(out, m_pBuffer, SERIAL_DELIVERY_SIZE);
        length = SERIAL_DELIVERY_SIZE;
        SetSerialBufferValue(m_pBuffer + SERIAL_DELIVERY_SIZE,
                             m_nBufferLength - SERIAL_DELIVERY_SIZE);
    }
    return 1;
}

void CSerialBase::ClearSerialBufferValue() {
    memset(m_pBuffer, 0, m_nMaxBufferSize);
    m_nBufferLength = 0;
}

void CSerialBase::SetSerialMaxBufferSize(unsigned int size) {
    if (size == 0) {
        PM_LOG(0, kLogTag, "Set serial max buffer size error, size = %u, keep %u\n", size,
               m_nMaxBufferSize);
        return;
    }
    if (size > kMaxBufferSize) {
        size = kMaxBufferSize;
    }
    MutexGuard buffer(m_BufferLock);
    char* grown = new char[size]();
    unsigned int keep = m_nBufferLength < size ? m_nBufferLength : size;
    memcpy(grown, m_pBuffer, keep);
    delete[] m_pBuffer;
    m_pBuffer = grown;
    m_nMaxBufferSize = size;
    m_nBufferLength = keep;
}

int CSerialBase::PreProcessPeripheralData(const char* data, unsigned int length) {
    const bool box = IsMainChipLink(m_nSerialType) && IsExtendBoxId(m_nMainId, m_nSubId);
    const bool dump = m_pPeripheralManage != nullptr && m_pPeripheralManage->DumpsAt(3);
    if (box || dump) {
        unsigned int capacity = 0;
        unsigned int pending = 0;
        {
            MutexGuard buffer(m_BufferLock);
            capacity = m_nMaxBufferSize;
            pending = m_nBufferLength;
        }
        const bool accepted = length < capacity && data != nullptr && length > 0;
        if (dump) {
            m_pPeripheralManage->hex_dump(
                Format("S_BASE: Data receive, type = %d, mainId = %d, subId = %d, bExtend = %d, "
                       "protocol = %d, buffer_length = %d, rev_length = %d",
                       m_nSerialType, m_nMainId, m_nSubId, m_bExtend,
                       m_stuSerialProperty.protocolType, pending, length),
                data, accepted ? length : 0, 3);
        }
        if (!accepted) {
            return -1;
        }
        if (box) {
            return AnalyseExtendData(data, length);
        }
    } else if (data == nullptr || length == 0) {
        return -1;
    }

    // The common case takes the buffer lock once: the size is checked under it below.
    MutexGuard buffer(m_BufferLock);
    if (length >= m_nMaxBufferSize) {  // too long, or the buffer shrank since a check above
        return -1;
    }
    // Older bytes that the plug-in left behind are dropped rather than overrun the buffer.
    if (m_nBufferLength + length > SERIAL_DELIVERY_SIZE ||
        m_nBufferLength + length > m_nMaxBufferSize) {
        ClearSerialBufferValue();
    }
    memcpy(m_pBuffer + m_nBufferLength, data, length);
    m_nBufferLength += length;
    ProcessPeripheralData();
    m_stuRecvStamp.llPrevRecvTime = m_stuRecvStamp.llThisRecvTime;
    m_stuRecvStamp.llThisRecvTime = Common::Q7R_TMGetSystemMicroSecond();
    m_stuRecvStamp.nLastRecvLength = length;
    ++m_llRecvCount;
    return 0;
}

int CSerialBase::AnalyseExtendData(const char* data, unsigned int length) {
    MutexGuard buffer(m_BufferLock);
    if (data == nullptr || length >= m_nMaxBufferSize) {
        PM_LOG(0, kLogTag, "Extend data refused, mainId = %d, subId = %d, rev_length = %d\n",
               m_nMainId, m_nSubId, length);
        return -1;
    }
    if (m_nBufferLength + length > m_nMaxBufferSize) {
        PM_LOG(0, kLogTag,
               "Extend data overflow, drop pending bytes, buffer_length = %d, "
               "rev_length = %d\n",
               m_nBufferLength, length);
        ClearSerialBufferValue();
    }
    memcpy(m_pBuffer + m_nBufferLength, data, length);
    m_nBufferLength += length;

    for (;;) {
        unsigned int start = 0;
        unsigned int end = 0;
        eExtendFrameScan scan = ScanExtendFrame(reinterpret_cast<const unsigned char*>(m_pBuffer),
                                                m_nBufferLength, start, end);
        if (scan == EXTEND_SCAN_PARTIAL) {
            // Copied out first: SetSerialBufferValue zeroes the buffer before it copies.
            std::vector<char> rest(m_pBuffer + start, m_pBuffer + m_nBufferLength);
            SetSerialBufferValue(rest.data(), static_cast<unsigned int>(rest.size()));
            return 0;
        }
        if (scan == EXTEND_SCAN_NONE) {
            PM_LOG(1, "", "S1_EXTEND_BOX: Analy data error, and remove it\n");
            break;
        }
        AnalyseExtendFrameData(m_pBuffer + start, end - start + 1);
        unsigned int next = end + 1;
        if (next >= m_nBufferLength) {
            break;
        }
        memmove(m_pBuffer, m_pBuffer + next, m_nBufferLength - next);
        m_nBufferLength -= next;
    }
    ClearSerialBufferValue();
    return 0;
}

int CSerialBase::AnalyseExtendFrameData(const char* frame, unsigned int length) {
    if (!IsExtendBoxId(m_nMainId, m_nSubId)) {
        return 0;
    }
    // The hub box is a box with other ids; both take frames through the box's code.
    if (auto* box = dynamic_cast<CSubPortHost*>(this)) {
        return box->DispatchExtendSerialData(length, frame);
    }
    PM_LOG(0, kLogTag, "Extend frame dropped, not a box, mainId = %d, subId = %d, length = %d\n",
           m_nMainId, m_nSubId, length);
    return 0;
}

// ---- sending and settings ----

int CSerialBase::SendDataToPeripheral(const char* data, unsigned int length) {
    if (m_nSerialType == SERIAL_LINK_MCU && m_pMcuSerialOpt != nullptr) {
        if (m_bExtend) {
            std::shared_lock<std::shared_mutex> father(FatherLinks());
            if (m_pFatherSerial != nullptr && m_pFatherSerial->IsUpgrading()) {
                return 0;
            }
        }
        return m_pMcuSerialOpt->SendDataToPeripheral(data, length);
    }
    if (IsMainChipLink(m_nSerialType) && m_pMainChipSerialOpt != nullptr && !m_bExtend) {
        if (m_stuSerialProperty.protocolType != SERIAL_PROTOCOL_EXTEND_FRAME) {
            if (length > SERIAL_DELIVERY_SIZE) {
                PM_LOG(0, kLogTag,
                       "Send data too long, mainId = %d, subId = %d, length = %d, "
                       "send %d\n",
                       m_nMainId, m_nSubId, length, SERIAL_DELIVERY_SIZE);
                length = SERIAL_DELIVERY_SIZE;
            }
            return m_pMainChipSerialOpt->SendDataToPeripheral(data, length);
        }
        if (data == nullptr || length == 0) {
            return m_pMainChipSerialOpt->SendDataToPeripheral(data, 0);  // logs the error
        }
        unsigned char frame[2 * SERIAL_DELIVERY_SIZE];
        int stuffed =
            BuildExtendDataFrame(m_ucExtendId, reinterpret_cast<const unsigned char*>(data), length,
                                 frame, sizeof(frame));
        if (stuffed <= 0) {
            PM_LOG(0, kLogTag,
                   "Send frame failed, data too long, mainId = %d, subId = %d, "
                   "length = %d\n",
                   m_nMainId, m_nSubId, length);
            return -1;
        }
        return m_pMainChipSerialOpt->SendDataToPeripheral(reinterpret_cast<const char*>(frame),
                                                          static_cast<unsigned int>(stuffed));
    }
    if (m_bExtend) {
        std::shared_lock<std::shared_mutex> links(FatherLinks());
        CSubPortHost* father = FatherBox();
        if (father == nullptr) {
            return FatherSerialUnavailable();
        }
        return father->SendSubSerialData(
            static_cast<eSerialProtocolType>(m_stuSerialProperty.protocolType), m_ucExtendId,
            length, data);
    }
    return -1;
}

CSubPortHost* CSerialBase::FatherBox() const {
    if (m_pFatherSerial == nullptr ||
        (m_nExtendHubBoxNew && m_pFatherSerial->GetMainId() != PERIPHERAL_MAINID_EXTEND_HUB_BOX)) {
        return nullptr;
    }
    return dynamic_cast<CSubPortHost*>(m_pFatherSerial);
}

bool CSerialBase::DetachFather(const CSerialBase* father) {
    std::unique_lock<std::shared_mutex> links(FatherLinks());
    if (father == nullptr || m_pFatherSerial != father) {
        return false;
    }
    m_pFatherSerial = nullptr;
    PM_LOG(1, kLogTag, "Father box %d-%d gone, mainId = %d, subId = %d\n", father->GetMainId(),
           father->GetSubId(), m_nMainId, m_nSubId);
    return true;
}

void CSerialBase::AdoptFather() {
    std::unique_lock<std::shared_mutex> links(FatherLinks());
    if (m_pFatherSerial != nullptr) {
        return;
    }
    m_nExtendHubBoxNew = 0;
    FindFatherSerial();
}

int CSerialBase::FatherSerialUnavailable() {
    if (m_pFatherSerial == nullptr) {
        PM_LOG(0, kLogTag, "FatherSerialPrt is NULL\n");
    } else if (m_nExtendHubBoxNew) {
        PM_LOG(0, kLogTag, "FatherSerialPrt dynamic_cast failed (new hub)\n");
    } else {
        PM_LOG(0, kLogTag, "FatherSerialPrt dynamic_cast failed\n");
    }
    return -1;
}

int CSerialBase::SetMainChipSerialProperty(unsigned char mask, SerialBaudRate baud,
                                           SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                                           SerialParityMode parity, SerialFlowControlMode flow) {
    if (IsMainChipLink(m_nSerialType) && m_pMainChipSerialOpt != nullptr) {
        m_stuSerialProperty.baud = static_cast<uint32_t>(baud);
        m_stuSerialProperty.dataBit = static_cast<uint32_t>(dataBit);
        m_stuSerialProperty.stopBit = static_cast<uint32_t>(stopBit);
        m_stuSerialProperty.parity = static_cast<uint32_t>(parity);
        m_stuSerialProperty.flow = static_cast<uint32_t>(flow);
        if (!m_bExtend) {
            return m_pMainChipSerialOpt->SetMainChipSerialProperty(mask, ChangeSerialBaud(baud),
                                                                   dataBit, stopBit, parity, flow);
        }
        std::shared_lock<std::shared_mutex> links(FatherLinks());
        CSubPortHost* father = FatherBox();
        if (father == nullptr) {
            return FatherSerialUnavailable();
        }
        return father->SetSubSerialProperty(m_ucExtendId, mask, baud, dataBit, stopBit, parity,
                                            flow);
    }
    if (m_nSerialType == SERIAL_LINK_MCU && m_pMcuSerialOpt != nullptr) {
        unsigned char message[kMcuPropertySize] = {};
        message[0] = static_cast<unsigned char>(m_nMainId);
        message[1] = static_cast<unsigned char>(m_nSubId);
        message[2] = mask;
        message[3] = static_cast<unsigned char>(baud);
        message[4] = static_cast<unsigned char>(dataBit);
        message[5] = McuStopBitCode(stopBit);
        message[6] = static_cast<unsigned char>(parity);
        message[7] = static_cast<unsigned char>(flow);
        m_pMsgClient->MSGSendMessage(0, EVENT_MCU_SERIAL_SETTINGS, 0,
                                     reinterpret_cast<const char*>(message), sizeof(message),
                                     static_cast<int>(m_nMsgId));
        PM_LOG(1, kLogTag,
               "Set MCU Property, mainId = %d, subId = %d, mask = 0x%x, baud = %d, "
               "dataBit = %d, stopBit = %d, parityMode = %d, flowMode = %d\n",
               m_nMainId, m_nSubId, mask, baud, dataBit, stopBit, parity, flow);
        return -1;  // historical: callers have always seen -1 here
    }
    return -1;
}

int CSerialBase::OpenMainChipSerial(std::string path, bool retry, int flags) {
    if (!IsMainChipLink(m_nSerialType) || m_pMainChipSerialOpt == nullptr) {
        return -1;
    }
    if (m_bExtend) {
        PM_LOG(0, kLogTag, "Extend serial not allow to open mainchip serial\n");
        return -1;
    }
    return m_pMainChipSerialOpt->OpenMainChipSerial(path, retry, flags);
}

int CSerialBase::CloseMainChipSerial() {
    if (!IsMainChipLink(m_nSerialType) || m_pMainChipSerialOpt == nullptr || m_bExtend) {
        return -1;
    }
    m_pMainChipSerialOpt->CloseMainChipSerial();
    m_pPeripheralManage->BroadcastCpxSerialRelease(m_strSerialName);
    return 0;
}

unsigned int CSerialBase::ChangeSerialBaud(SerialBaudRate baud) {
    return serial_baud_rate_speed(baud);
}

// ---- state reports ----

unsigned char CSerialBase::HandleSerialPort(unsigned int, unsigned int) {
    unsigned int ui =
        m_pPeripheralManage->GetPeripheralUiId(PERIPHERAL_TYPE_SERIAL, m_nMainId, m_nSubId);
    unsigned int port = 0;
    if (m_bExtend) {
        port = m_nMainId == kMainIdPortGroup ? m_ucExtendId + 16 + 12 * ui
                                             : m_ucExtendId + 12 * (ui + 1);
    } else {
        port = m_nMainId == kMainIdPortGroup ? ui + 4 : ui;
    }
    return static_cast<unsigned char>(port & 0xFF);
}

int CSerialBase::HandleSerialMaintainState(int msgId, unsigned int a, unsigned int b,
                                           unsigned char status) {
    std::lock_guard<std::recursive_mutex> reports(StateReports());
    unsigned char message[kMaintainStateSize] = {};
    if (status != kStatusReuseMaintainPort) {
        m_ucMaintainPort = HandleSerialPort(a, b);
    }
    message[0] = m_ucMaintainPort;
    message[1] = static_cast<unsigned char>(m_nMainId);
    if (m_nMainId == kMainIdPortGroup) {
        // b counts from 1; anything else has no bit to set.
        message[3] = (b >= 1 && b <= 8) ? static_cast<unsigned char>(1u << (b - 1)) : 0;
        message[4] = 4;
    } else {
        message[3] = static_cast<unsigned char>(m_nSubId);
    }
    message[5] = status;
    PM_LOG(0, "",
           "Busid :sessionId:0x%0x  ueSeriType :%d,ucSeriMainID:%d,ucSeriSubID :%d  "
           "ucStatus:%d\n",
           msgId, message[0], message[1], message[3], message[5]);
    return m_pMsgClient->MSGSendMessage(0, msgId, 0, reinterpret_cast<const char*>(message),
                                        sizeof(message), static_cast<int>(m_nMsgId));
}

int CSerialBase::SetSerialConfigStatus(unsigned char status, unsigned int a, unsigned int b) {
    std::lock_guard<std::recursive_mutex> reports(StateReports());
    m_ucConfigStatus = status;
    if (status == m_ucLastConfigStatus && a != kForceReportArg) {
        return 0;
    }
    m_ucLastConfigStatus = status;
    PM_LOG(0, "", "devid:%d-%d status %d (%d,%d)\n", m_nMainId, m_nSubId, status, a, b);
    return HandleSerialMaintainState(EVENT_SERIAL_CONFIG_STATUS, a, b, status);
}
