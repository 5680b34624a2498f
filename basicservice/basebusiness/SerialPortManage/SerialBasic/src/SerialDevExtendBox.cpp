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

namespace {

const ExtendBoxVariant kBoxVariant = {"S1_EXTEND_BOX: ", "CSerialDevExtendBox", EXTEND_BOX_DEV_ID,
                                      3, "VKEL"};

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

long long Elapsed(long long now, long long then) {
    return llabs(now - then);
}

unsigned char SpeedCode(SerialBaudRate baud) {
    switch (baud) {
        case SERIAL_BAUD_2400:
            return 1;
        case SERIAL_BAUD_4800:
            return 2;
        case SERIAL_BAUD_9600:
            return 3;
        case SERIAL_BAUD_19200:
            return 4;
        case SERIAL_BAUD_38400:
            return 5;
        case SERIAL_BAUD_57600:
            return 6;
        case SERIAL_BAUD_115200:
            return 7;
        default:  // 56000, 28800 and anything else: as 4800, as the box has always been told
            return 2;
    }
}

unsigned char StopCode(SerialStopBitMode stopBit) {
    switch (static_cast<int>(stopBit)) {
        case 1:
            return 1;
        case 2:
            return 3;
        case 3:
            return 4;
        default:
            return 2;
    }
}

// One answer to a file request (39473) reaches every box and hub of the service, and nothing
// in it says whose request it answers: only one of them may wait for a file at a time.
std::mutex g_FileWaitLock;
const CSerialDevExtendBox* g_pFileWaiter = nullptr;  // g_FileWaitLock

bool ClaimFileWait(const CSerialDevExtendBox* box) {
    std::lock_guard<std::mutex> guard(g_FileWaitLock);
    if (g_pFileWaiter != nullptr && g_pFileWaiter != box) {
        return false;
    }
    g_pFileWaiter = box;
    return true;
}

void EndFileWait(const CSerialDevExtendBox* box) {
    std::lock_guard<std::mutex> guard(g_FileWaitLock);
    if (g_pFileWaiter == box) {
        g_pFileWaiter = nullptr;
    }
}

// A byte of a bus message's payload, 0 past what arrived.
unsigned char PayloadByte(const char* msg, int len, unsigned int offset) {
    const long at = static_cast<long>(Common::kMsgHeadSize) + offset;
    return at < len ? static_cast<unsigned char>(msg[at]) : 0;
}

}  // namespace

// ---- the IEEE 802.3 check of upgrade images ----

unsigned long Crc_32(unsigned long crc, const unsigned char* data, unsigned long len) {
    static const struct Table {
        uint32_t v[256];
        Table() : v() {
            for (uint32_t n = 0; n < 256; ++n) {
                uint32_t c = n;
                for (int k = 0; k < 8; ++k) {
                    c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                }
                v[n] = c;
            }
        }
    } table;
    if (data == nullptr) {
        return crc;
    }
    uint32_t reg = static_cast<uint32_t>(crc);
    for (unsigned long i = 0; i < len; ++i) {
        reg = table.v[(reg ^ data[i]) & 0xFF] ^ (reg >> 8);
    }
    return reg;
}

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
      m_stuUpgrade(),
      m_stuUpgradeState(),
      m_nPendingCmd(-1),
      m_nNextLine(1),
      m_nPendingSetup(kSetupVersion | kSetupLinkMode),
      m_nHeartbeatCount(0),
      m_llUpgradeEndTime(0),
      m_bChildSetupDue(false),
      m_bReportedOffline(false),
      m_strFlagText(GuiTKGetText(nullptr, nullptr, kFlagTextId)) {
    // The box's frames leave MakeAndSendCmd complete; a protocol 0 of its own (the default
    // when the document has no entry for the box) would have the base wrap them again.
    m_stuSerialProperty.protocolType = SERIAL_PROTOCOL_TRANSPARENT;
    FillStateRecords();
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

void CSerialDevExtendBox::FillStateRecords() {
    for (ExtendUpgradeState_t& record : m_stuUpgradeState) {
        record = ExtendUpgradeState_t{};
        record.source = 0xFF;
        record.mainId = static_cast<uint8_t>(m_nMainId);
        record.subId = static_cast<uint8_t>(m_nSubId);
        record.devId = m_variant.devId;
        strncpy(record.flag, m_strFlagText.c_str(), sizeof(record.flag) - 1);
        record.flagEnd = 4;
    }
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

// ---- link: sending ----

int CSerialDevExtendBox::MakeAndSendCmd(eExtendBoxCmd cmd, unsigned char subId, unsigned char devId,
                                        unsigned int length, const unsigned char* payload) {
    if (subId > EXTEND_BOX_MAX_SUB_ID) {
        PM_LOG(0, m_variant.logTag, "Extend serial id is too large, id = %d(>4)\n", subId);
        return 0;
    }
    if (m_ucParamId > EXTEND_BOX_MAX_PARAM_ID) {
        PM_LOG(0, m_variant.logTag, "Extend box param id is error, id = %d(>%d)\n", m_ucParamId,
               EXTEND_BOX_MAX_PARAM_ID);
        return 0;
    }
    // Only the data and upgrade lines carry the caller's length; both must leave room for the
    // head and the end mark.
    const bool callerSized =
        cmd == EXTEND_BOX_CMD_SUB_SERIAL_DATA || cmd == EXTEND_BOX_CMD_UPGRADE_DATA;
    if (callerSized && (length > EXTEND_BOX_FRAME_SIZE - 7 || (length > 0 && payload == nullptr))) {
        PM_LOG(0, m_variant.logTag, "Extend frame too long, cmd = 0x%x, length = %u, dropped\n",
               cmd, length);
        return -1;
    }
    unsigned char frame[EXTEND_BOX_FRAME_SIZE] = {};
    frame[0] = SERIAL_FRAME_START;
    frame[1] = GetSerialType() == SERIAL_LINK_MCU
                   ? static_cast<unsigned char>(0x80 | ((m_ucParamId & 0x07) << 4) | (subId & 0x0F))
                   : static_cast<unsigned char>(0x80 | (subId & 0x7F));
    frame[2] = devId;
    unsigned int end = 4;
    auto put = [&](const void* bytes, unsigned int n) {
        memcpy(frame + end, bytes, n);
        end += n;
    };
    auto head = [&](unsigned char command, unsigned char size) {
        frame[end++] = command;
        frame[end++] = size;
    };
    switch (cmd) {
        case EXTEND_BOX_CMD_SUB_SERIAL_DATA:
            if (length > 0) {
                put(payload, length);
            }
            break;
        case EXTEND_BOX_CMD_UPGRADE_START: {
            unsigned char size[4];
            {
                std::lock_guard<std::mutex> state(m_StateLock);
                Common::PutBe32(size, m_stuUpgrade.imageLength);
            }
            head(EXTEND_BOX_CMD_UPGRADE_START, 9);
            put("START", 5);
            put(size, 4);
            break;
        }
        case EXTEND_BOX_CMD_UPGRADE_DATA:
            head(EXTEND_BOX_CMD_UPGRADE_DATA, static_cast<unsigned char>(length));
            if (length > 0) {
                put(payload, length);
            }
            break;
        case EXTEND_BOX_CMD_UPGRADE_END: {
            unsigned char crc[4];
            {
                std::lock_guard<std::mutex> state(m_StateLock);
                Common::PutBe32(crc, m_stuUpgrade.imageCrc);
            }
            head(EXTEND_BOX_CMD_UPGRADE_END, 7);
            put("END", 3);
            put(crc, 4);
            break;
        }
        case EXTEND_BOX_CMD_GET_VERSION:
            head(EXTEND_BOX_CMD_GET_VERSION, 3);
            put("MCU", 3);
            break;
        case EXTEND_BOX_CMD_HUB_IO_STATUS:
            head(EXTEND_BOX_CMD_HUB_IO_STATUS, 1);
            frame[end++] = kIoStatusQuery;
            break;
        case EXTEND_BOX_CMD_HEARTBEAT:
            head(EXTEND_BOX_CMD_HEARTBEAT, 1);
            frame[end++] = kHeartbeatByte;
            break;
        case EXTEND_BOX_CMD_SET_SUB_SERIAL:
            if (payload == nullptr) {
                return -1;
            }
            head(EXTEND_BOX_CMD_SET_SUB_SERIAL, kSubSettingSize);
            put(payload, kSubSettingSize);
            break;
        case EXTEND_BOX_CMD_MCU_TEST:
            // The box answers this one as 0x40: the asymmetry is the firmware's.
            head(0x41, 1);
            frame[end++] = 0x00;
            break;
        case EXTEND_BOX_CMD_SET_TRANSFORM_TYPE:
            if (payload == nullptr) {
                return -1;
            }
            head(EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, 1);
            frame[end++] = payload[0];
            break;
        default:
            return -1;
    }
    unsigned char check = 0;
    for (unsigned int i = 4; i < end; ++i) {
        check ^= frame[i];
    }
    frame[3] = check;
    frame[end++] = SERIAL_FRAME_END;

    // The toolkit's stuffing wants room for twice the frame; a frame goes out only if its
    // stuffed form fits the line's 1024 bytes.
    unsigned char stuffed[2 * EXTEND_BOX_FRAME_SIZE] = {};
    const int n = serial_transfrom_7e7f(frame, stuffed, static_cast<int>(end));
    if (n <= 0 || n > static_cast<int>(EXTEND_BOX_FRAME_SIZE)) {
        PM_LOG(0, m_variant.logTag, "send data transfrom failed\n");
        return -1;
    }
    if (cmd == EXTEND_BOX_CMD_HEARTBEAT) {
        ++m_nHeartbeatCount;
    }
    return CSerialBase::SendDataToPeripheral(reinterpret_cast<const char*>(stuffed),
                                             static_cast<unsigned int>(n));
}

int CSerialDevExtendBox::SendSubSerialData(eSerialProtocolType type, unsigned char index,
                                           unsigned int length, const char* data) {
    if (IsUpgrading()) {
        return 0;
    }
    if (data == nullptr) {
        return -1;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    unsigned char devId = 0xFF;
    const unsigned char* payload = bytes;
    unsigned int size = length;
    if (type == SERIAL_PROTOCOL_EXTEND_FRAME) {
        if (length < 4) {
            return -1;
        }
        devId = bytes[0];
        payload = bytes + 1;
        size = length - 1;
    } else if (type == SERIAL_PROTOCOL_FRAME) {
        if (length < 5) {
            return -1;
        }
        devId = bytes[2];
        payload = bytes + 4;
        size = length - 5;  // without the head and the end mark
    }
    return MakeAndSendCmd(EXTEND_BOX_CMD_SUB_SERIAL_DATA, static_cast<unsigned char>(index + 1),
                          devId, size, payload);
}

int CSerialDevExtendBox::SetSubSerialProperty(unsigned char index, unsigned char,
                                              SerialBaudRate baud, SerialDataBitMode,
                                              SerialStopBitMode stopBit, SerialParityMode parity,
                                              SerialFlowControlMode flow) {
    if (IsUpgrading()) {
        PM_LOG(0, m_variant.logTag, "Extend box is abnormal or upgrading\n");
        return 0;
    }
    // Seven, although a box has four sub-ports: the firmware's table is that long.
    if (index > 7) {
        PM_LOG(0, m_variant.logTag, "set extend serial property failed, extendId = %d\n", index);
        return 0;
    }
    const int parityCode = static_cast<int>(parity);
    const int flowCode = static_cast<int>(flow);
    const unsigned char setting[kSubSettingSize] = {
        static_cast<unsigned char>(index + 1),
        SpeedCode(baud),
        static_cast<unsigned char>(parityCode == 1 || parityCode == 2 ? parityCode : 0),
        8,  // the box's sub-ports always run 8 data bits
        StopCode(stopBit),
        static_cast<unsigned char>(flowCode >= 1 && flowCode <= 3 ? flowCode : 0),
    };
    return MakeAndSendCmd(EXTEND_BOX_CMD_SET_SUB_SERIAL, 0, m_variant.devId, sizeof(setting),
                          setting);
}

// ---- link: receiving ----

int CSerialDevExtendBox::DispatchExtendSerialData(unsigned int length, const char* frame) {
    if (frame == nullptr || length < kFrameOverhead) {
        PM_LOG(0, m_variant.logTag, "Recv data length error, length = %d(<5)\n", length);
        return 0;
    }
    const auto* stuffed = reinterpret_cast<const unsigned char*>(frame);
    const unsigned char devId = stuffed[2];
    const unsigned char serialId = stuffed[1] & 0x07;
    if (devId == m_variant.devId) {
        return DispatchFrame(length, frame, nullptr);
    }
    if (serialId == 0) {
        return 0;
    }
    // One look-up, held to the end of the hand-over: the slot cannot change owner between
    // the check of its port and the delivery.
    std::lock_guard<std::mutex> children(m_ChildLock);
    auto it = m_mapChild.find(static_cast<uint8_t>(serialId - 1));
    if (it == m_mapChild.end() || it->second == nullptr || !it->second->GetCurPeripOpenStatus()) {
        return 0;
    }
    return DispatchFrame(length, frame, it->second);
}

int CSerialDevExtendBox::DispatchFrame(unsigned int length, const char* frame, CSerialBase* child) {
    if (length > EXTEND_BOX_FRAME_SIZE) {
        PM_LOG(0, m_variant.logTag, "Recv frame too long, length = %u(>%u), dropped\n", length,
               EXTEND_BOX_FRAME_SIZE);
        return -1;
    }
    const auto* stuffed = reinterpret_cast<const unsigned char*>(frame);
    unsigned char plain[EXTEND_BOX_FRAME_SIZE] = {};
    int state = SERIAL_UNSTUFF_START;
    const int n = serial_retransfrom_7e7f(stuffed, plain, static_cast<int>(length), &state);
    if (n < 1) {
        PM_LOG(0, m_variant.logTag, "serial re_transfrom failed\n");
        return -1;
    }
    if (n < static_cast<int>(kFrameOverhead)) {
        PM_LOG(0, m_variant.logTag, "Recv data length error, length = %d(<5)\n", n);
        return -1;
    }
    unsigned char check = 0;
    for (int i = 4; i <= n - 2; ++i) {
        check ^= plain[i];
    }
    if (check != plain[3]) {
        PM_LOG(0, m_variant.logTag, "serial crc error, check = 0x%x(!= 0x%x)\n", check, plain[3]);
        return -1;
    }
    const unsigned int bodyLength = static_cast<unsigned int>(n) - kFrameOverhead;
    PM_LOG(2, m_variant.logTag,
           "Dispatch serial data, serialId = 0x%x, devId = 0x%x, length = %d\n", stuffed[1] & 0x07,
           stuffed[2], n);
    if (child == nullptr) {
        char answer[EXTEND_BOX_FRAME_SIZE];
        memcpy(answer, plain + 4, bodyLength);
        return AnalySerialData(bodyLength, answer);
    }
    // These protocols parse the box's frame themselves.
    const unsigned int mainId = child->GetMainId();
    if ((mainId == kMainIdStuffedChildA || mainId == kMainIdStuffedChildB) &&
        child->GetSubId() == 0) {
        return child->PreProcessPeripheralData(frame, length);
    }
    return child->PreProcessPeripheralData(reinterpret_cast<const char*>(plain + 4), bodyLength);
}

int CSerialDevExtendBox::ProcessPeripheralData() {
    char data[SERIAL_DELIVERY_SIZE];
    unsigned int length = 0;
    GetSerialBufferData(data, length);
    if (length <= 2) {
        PM_LOG(0, m_variant.logTag, "Extend_box recv data length = %d( < 3)\n", length);
        return -1;
    }
    if (static_cast<unsigned char>(data[0]) != m_variant.devId) {
        PM_LOG(0, m_variant.logTag, "Extend_box dev id error, id = 0x%x( != 0x%x)\n",
               static_cast<unsigned char>(data[0]), m_variant.devId);
        ClearSerialBufferValue();
        return -1;
    }
    AnalySerialData(length - 1, data + 1);
    ClearSerialBufferValue();
    return 0;
}

int CSerialDevExtendBox::AnalySerialData(unsigned int length, const char* answer) {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    const auto* bytes = reinterpret_cast<const unsigned char*>(answer);
    const unsigned int payloadLength = (answer != nullptr && length >= 2) ? bytes[1] : 0;
    if (answer == nullptr || length < 2 || payloadLength > length - 2) {
        PM_LOG(0, m_variant.logTag, "Rev data length error, length = %d( > %d)\n", payloadLength,
               static_cast<int>(length) - 2);
        HandleUpgradeFailed();
        return -1;
    }
    SetSerialConfigStatus(7, 0, 0);
    const unsigned char cmd = bytes[0];
    const unsigned char* payload = bytes + 2;
    const int pending = m_nPendingCmd.load();
    if ((pending == 1 && cmd != 1) || (pending == 2 && cmd != 2) || (pending == 3 && cmd != 3)) {
        PM_LOG(0, m_variant.logTag,
               "upgrade failed, cmd is not match, preCmd = 0x%x, recvCmd = 0x%x\n", pending, cmd);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true);
        return -1;
    }
    const unsigned char result = payloadLength >= 1 ? payload[0] : 0;
    switch (cmd) {
        case EXTEND_BOX_CMD_UPGRADE_START:
        case EXTEND_BOX_CMD_UPGRADE_DATA:
        case EXTEND_BOX_CMD_UPGRADE_END:
            AnalyseUpgradeAnswer(cmd, payloadLength, payload);
            break;
        case EXTEND_BOX_CMD_GET_VERSION:
            if (payloadLength >= 1 && payloadLength < EXTEND_BOX_VERSION_SIZE) {
                char version[EXTEND_BOX_VERSION_SIZE] = {};
                memcpy(version, payload, payloadLength);
                bool changed = false;
                // Due before the version counts as known: whoever sees it known finds the
                // children's set-up asked for.
                m_bChildSetupDue = true;
                {
                    std::lock_guard<std::mutex> state(m_StateLock);
                    PM_LOG(1, m_variant.logTag, "Response version, version = %s, orgVersion = %s\n",
                           version, m_szVersion);
                    m_nPendingSetup &= ~kSetupVersion;
                    changed = memcmp(version, m_szVersion, sizeof(version)) != 0;
                    if (changed) {
                        memcpy(m_szVersion, version, sizeof(version));
                    }
                }
                if (changed) {
                    BroadcastExtendBoxVersion();
                }
                HeardFromBox();
            }
            break;
        case EXTEND_BOX_CMD_HEARTBEAT:
            HeardFromBox();
            SetCurPeripheralStatus(true);
            break;
        case EXTEND_BOX_CMD_SET_SUB_SERIAL:
            if (result == 1) {
                PM_LOG(1, m_variant.logTag, "Response set baud success\n");
            } else {
                PM_LOG(0, m_variant.logTag, "Response set baud failed, result = %d\n", result);
            }
            break;
        case EXTEND_BOX_CMD_MCU_TEST:
            if (result == 1) {
                PM_LOG(1, m_variant.logTag, "MCU test success\n");
            } else {
                PM_LOG(0, m_variant.logTag, "MCU test failed, result = %d\n", result);
            }
            break;
        case EXTEND_BOX_CMD_SET_TRANSFORM_TYPE:
            if (result == 1) {
                PM_LOG(1, m_variant.logTag, "Set extend box data transform type success\n");
                m_nPendingSetup &= ~kSetupLinkMode;
            } else {
                PM_LOG(0, m_variant.logTag,
                       "Set extend box data transform type failed, result = %d\n", result);
            }
            break;
        default:
            if (!AnalyseVariantAnswer(cmd, length, bytes)) {
                PM_LOG(0, m_variant.logTag, "Extend_box cmd is not support, cmd = %x\n", cmd);
            }
            break;
    }
    m_nPendingCmd = -1;
    return 0;
}

void CSerialDevExtendBox::AnalyseUpgradeAnswer(unsigned char cmd, unsigned int payloadLength,
                                               const unsigned char* payload) {
    // A late answer (after a time-out or a failure) or a stray one must not start what the
    // box never asked for: an END after a READY, a state for a source that is done.
    if (!m_bTransferRunning) {
        PM_LOG(1, m_variant.logTag, "Upgrade answer 0x%x ignored, no upgrade is running\n", cmd);
        return;
    }
    StoreUpgradeAnswerTime();
    const unsigned char result = payloadLength >= 1 ? payload[0] : 0;
    auto fail = [&] { BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true); };
    if (cmd == EXTEND_BOX_CMD_UPGRADE_START) {
        if (payloadLength != 6) {
            PM_LOG(0, m_variant.logTag, "Response start upgrade failed, length = %d ( !=6)\n",
                   payloadLength);
            fail();
        } else if (memcmp(payload, "READY", 5) != 0) {
            PM_LOG(0, m_variant.logTag,
                   "Response start upgrade failed, response = 0x%x, 0x%x, 0x%x, 0x%x, 0x%x, "
                   "0x%x\n",
                   payload[0], payload[1], payload[2], payload[3], payload[4], payload[5]);
            fail();
        } else {
            PM_LOG(1, m_variant.logTag, "Response start upgrade success\n");
            SendExtendBoxUpgradeData(1);
        }
    } else if (cmd == EXTEND_BOX_CMD_UPGRADE_DATA) {
        if (payloadLength != 5) {
            PM_LOG(0, m_variant.logTag,
                   "Response doing upgrade failed, length error, length = %d ( != 5 )\n",
                   payloadLength);
            fail();
        } else if (payload[4] != 1) {
            PM_LOG(0, m_variant.logTag, "Response doing upgrade failed, result = %d\n", payload[4]);
            fail();
        } else {
            // Counted as the firmware counts, wrapping where an int ends (no overflow).
            const uint32_t line = Common::GetBe32(payload);
            PM_LOG(2, m_variant.logTag, "Response doing upgrade success, recv_line = %d\n",
                   static_cast<int>(line));
            SendExtendBoxUpgradeData(static_cast<int>(line + 1u));
        }
    } else if (result != 1) {
        PM_LOG(0, m_variant.logTag, "Response end upgrade failed, result = %d\n", result);
        fail();
    } else {
        PM_LOG(1, m_variant.logTag, "Response end upgrade success\n");
        m_bTransferRunning = false;
        m_llUpgradeEndTime = Common::Q7R_TMGetSystemMicroSecond();
    }
}

bool CSerialDevExtendBox::AnalyseVariantAnswer(unsigned char, unsigned int, const unsigned char*) {
    return false;
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
            m_stuUpgrade.lastAnswerTime = now;
            m_stuUpgrade.curState = PERIPHERAL_UPGRADE_SUCCESS;
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
                timedOut = Elapsed(now, m_stuUpgrade.lastAnswerTime) > kUpgradeTimeoutMs;
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

// ---- upgrade ----

void CSerialDevExtendBox::StoreUpgradeAnswerTime() {
    std::lock_guard<std::mutex> state(m_StateLock);
    m_stuUpgrade.lastAnswerTime = Common::Q7R_TMGetSystemMicroSecond();
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
    if (source >= 3) {
        PM_LOG(0, m_variant.logTag, "[UPG] failed, because upgrade type[%d] is error\n", source);
        RefuseUpgrade(PERIPHERAL_UPGRADE_FAILED, source);
        return 0;
    }
    if (IsUpgrading()) {
        int curState = 0;
        {
            std::lock_guard<std::mutex> state(m_StateLock);
            curState = m_stuUpgrade.curState;
        }
        PM_LOG(0, m_variant.logTag, "[UPG] failed, is upgrading......, curstate = %d\n", curState);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_BUSY, source, false);
        return 0;
    }
    if ((m_nPendingSetup & kSetupVersion) != 0) {
        PM_LOG(0, m_variant.logTag, "[UPG] failed, extend_box version is error\n");
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, source, true);
        return 0;
    }
    if (!ClaimFileWait(this)) {
        // A final state, so that the requester may ask again; this box's own records stay.
        PM_LOG(0, m_variant.logTag,
               "[UPG] failed, another extend box waits for its upgrade file\n");
        SendUpgradeState(PERIPHERAL_UPGRADE_FAILED, source);
        return 0;
    }
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        m_stuUpgrade.source = source;
        m_stuUpgrade.curState = PERIPHERAL_UPGRADE_DOING;
        m_stuUpgradeState[source].source = source;
        m_stuUpgradeState[source].state = PERIPHERAL_UPGRADE_DOING;
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
    return 0;
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
    if (AnalyseUpgradeFile(reinterpret_cast<const tag_msgPeripheralUpgradeFile*>(file), size) !=
        0) {
        PM_LOG(0, m_variant.logTag, "[UPG] upgrade file analy failed\n");
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FILE_ERROR, source, true);
        return 0;
    }
    bool same = false;
    char version[EXTEND_BOX_VERSION_SIZE + 1] = {};
    char newVersion[EXTEND_BOX_VERSION_SIZE + 1] = {};
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        memcpy(version, m_szVersion, EXTEND_BOX_VERSION_SIZE);
        memcpy(newVersion, m_stuUpgrade.newVersion, EXTEND_BOX_VERSION_SIZE);
        // A prefix of the new version counts as the same: the box reports its version short.
        same = strncmp(newVersion, version, strlen(version)) == 0;
    }
    if (same) {
        PM_LOG(0, m_variant.logTag, "[UPG] version is same, version = %s\n", version);
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_SAME_VERSION, source, true);
        return 0;
    }
    PM_LOG(1, m_variant.logTag, "[UPG] version is different, version = %s, newVer = %s\n", version,
           newVersion);
    m_bTransferRunning = true;
    SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_START, 0, nullptr);
    return 0;
}

void CSerialDevExtendBox::ReleaseUpgradeImage() {
    m_vecImage.clear();
    m_vecImage.shrink_to_fit();
}

int CSerialDevExtendBox::AnalyseUpgradeFile(const tag_msgPeripheralUpgradeFile* record,
                                            unsigned int length) {
    if (record == nullptr) {
        return -1;
    }
    const auto* file = reinterpret_cast<const unsigned char*>(record);
    std::lock_guard<std::mutex> state(m_StateLock);
    if (!m_vecImage.empty()) {
        ReleaseUpgradeImage();
        m_stuUpgrade.imageLength = 0;
        memset(m_stuUpgrade.fileName, 0, sizeof(m_stuUpgrade.fileName));
        memset(m_stuUpgrade.newVersion, 0, sizeof(m_stuUpgrade.newVersion));
    }
    if (length < UPGRADE_FILE_MIN_SIZE) {
        PM_LOG(0, m_variant.logTag, "Upgrade file record too short, length = %u(<%u)\n", length,
               UPGRADE_FILE_MIN_SIZE);
        return -1;
    }
    const uint64_t entries = Common::GetLe32(file + UPGRADE_FILE_COUNT_OFFSET);
    const uint64_t imageOffset =
        UPGRADE_FILE_HEAD_OFFSET + UPGRADE_FILE_HEAD_SIZE + UPGRADE_FILE_ENTRY_SIZE * entries;
    const uint32_t imageLength = Common::GetLe32(file + UPGRADE_FILE_IMAGE_LEN_OFFSET);
    // The record comes from the bus: what it claims must lie within what arrived.
    if (imageOffset + imageLength > length) {
        PM_LOG(0, m_variant.logTag,
               "Upgrade file record shorter than it claims, entries = %llu, image = %u, "
               "received = %u\n",
               static_cast<unsigned long long>(entries), imageLength, length);
        return -1;
    }
    m_vecImage.assign(file + imageOffset, file + imageOffset + imageLength);
    m_stuUpgrade.imageLength = imageLength;
    memcpy(m_stuUpgrade.fileName, file + UPGRADE_FILE_NAME_OFFSET, UPGRADE_FILE_NAME_SIZE);
    m_stuUpgrade.fileName[UPGRADE_FILE_NAME_SIZE - 1] = '\0';
    const char* cut = strstr(m_stuUpgrade.fileName, ".CRC");
    const size_t versionLength = cut != nullptr ? static_cast<size_t>(cut - m_stuUpgrade.fileName)
                                                : strlen(m_stuUpgrade.fileName);
    memset(m_stuUpgrade.newVersion, 0, sizeof(m_stuUpgrade.newVersion));
    memcpy(m_stuUpgrade.newVersion, m_stuUpgrade.fileName,
           versionLength < EXTEND_BOX_VERSION_SIZE ? versionLength : EXTEND_BOX_VERSION_SIZE - 1);
    m_stuUpgrade.imageCrc = Common::GetLe32(file + UPGRADE_FILE_CRC_OFFSET);
    const unsigned long crc = Crc_32(0, m_vecImage.data(), m_vecImage.size());
    PM_LOG(1, m_variant.logTag,
           "Analy upgrade file, headLen = %d, fileLen = %d, version = %s, crc = %ld\n",
           static_cast<int>(UPGRADE_FILE_HEAD_SIZE + UPGRADE_FILE_ENTRY_SIZE * entries),
           static_cast<int>(Common::GetLe32(file + UPGRADE_FILE_LENGTH_OFFSET)),
           m_stuUpgrade.newVersion, static_cast<long>(crc));
    if (crc != m_stuUpgrade.imageCrc) {
        PM_LOG(0, m_variant.logTag, "Upgrade file crc error\n");
        return -1;
    }
    return 0;
}

void CSerialDevExtendBox::SendExtendBoxUpgradeData(int line) {
    std::lock_guard<std::recursive_mutex> upgrade(m_UpgradeLock);
    unsigned char data[4 + UPGRADE_LINE_SIZE];
    unsigned int chunk = 0;
    uint32_t sent = 0;
    uint32_t total = 0;
    int8_t percent = 0;
    bool report = false;
    enum { kLine, kEnd, kWrongLine } action = kLine;
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        total = m_stuUpgrade.imageLength;
        if (line != m_nNextLine) {
            action = kWrongLine;
        } else if (m_stuUpgrade.bytesSent >= total || m_vecImage.size() < total) {
            action = kEnd;
            m_nNextLine = 1;
        } else {
            chunk = total - m_stuUpgrade.bytesSent;
            chunk = chunk > UPGRADE_LINE_SIZE ? UPGRADE_LINE_SIZE : chunk;
            Common::PutBe32(data, static_cast<uint32_t>(line));
            memcpy(data + 4, m_vecImage.data() + m_stuUpgrade.bytesSent, chunk);
            m_stuUpgrade.bytesSent += chunk;
            sent = m_stuUpgrade.bytesSent;
            m_nNextLine = line + 1;
            percent = static_cast<int8_t>(static_cast<uint64_t>(sent) * 100 / total);
            report = percent != m_stuUpgrade.percent;
            m_stuUpgrade.percent = percent;
        }
    }
    if (action == kWrongLine) {
        PM_LOG(0, m_variant.logTag, "upgrade failed, id is error, lineId = %d (!= %d)\n", line,
               m_nNextLine.load());
        BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, UpgradeSource(), true);
        return;
    }
    if (action == kEnd) {
        PM_LOG(1, m_variant.logTag,
               "Send upgrade file data finished, and send end cmd to dev!!!\n");
        SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_END, 0, nullptr);
        return;
    }
    SendOwnCmd(EXTEND_BOX_CMD_UPGRADE_DATA, 4 + chunk, data);
    if (!report) {
        return;
    }
    PM_LOG(1, m_variant.logTag, "data sending percent = %d, (%d /%d), count = %d\n", percent, sent,
           total, m_nNextLine.load());
    BroadcastUpgradeState(PERIPHERAL_UPGRADE_DOING, UpgradeSource(), false);
}

unsigned char CSerialDevExtendBox::UpgradeSource() const {
    std::lock_guard<std::mutex> state(m_StateLock);
    return static_cast<unsigned char>(m_stuUpgrade.source);
}

void CSerialDevExtendBox::SendUpgradeState(enumPeripheralUpgradeState state, unsigned char source) {
    ExtendUpgradeState_t record{};
    {
        std::lock_guard<std::mutex> lock(m_StateLock);
        record.source = source;
        record.state = static_cast<uint8_t>(state);
        record.percent = m_stuUpgrade.percent;
        record.mainId = static_cast<uint8_t>(m_nMainId);
        record.subId = static_cast<uint8_t>(m_nSubId);
        record.devId = m_variant.devId;
        strncpy(record.flag, m_strFlagText.c_str(), sizeof(record.flag) - 1);
        record.flagEnd = 4;
        if (source < EXTEND_BOX_UPGRADE_SOURCES) {
            m_stuUpgradeState[source].state = static_cast<uint8_t>(state);
            m_stuUpgradeState[source].percent = m_stuUpgrade.percent;
        }
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
        ReleaseUpgradeImage();
        m_stuUpgrade = UpgradeBlock{};
        memset(m_szVersion, 0, sizeof(m_szVersion));
    }
    m_bAwaitingFile = false;
    m_bTransferRunning = false;
    EndFileWait(this);
    SetUpgrading(false);
    m_nNextLine = 1;
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
        record = m_stuUpgradeState[source];
    }
    PM_LOG(1, m_variant.logTag,
           "Response upgrade state, source = %d, result = %d, percent = %d, flag = %s, "
           "mainId = %d\n",
           source, record.state, record.percent, record.flag, mainId);
    return Respond(msg, &record, sizeof(record));
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
