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

// The part of a frame after its address, device and check bytes: the command byte, the
// payload's length, the payload. The end mark follows.
struct FrameBody {
    unsigned char* frame;
    unsigned int end;

    void Head(unsigned char command, unsigned char size) {
        frame[end++] = command;
        frame[end++] = size;
    }
    void Put(const void* bytes, unsigned int n) {
        if (n > 0) {
            memcpy(frame + end, bytes, n);
            end += n;
        }
    }
    void Byte(unsigned char b) { frame[end++] = b; }
    void Be32(uint32_t v) {
        Common::PutBe32(frame + end, v);
        end += 4;
    }
};

struct CommandArgs {
    unsigned int length;  // the caller's, where the command takes it
    const unsigned char* payload;
    uint32_t imageLength;  // START
    uint32_t imageCrc;     // END
};

struct CommandBuilder {
    eExtendBoxCmd cmd;
    bool (*build)(FrameBody& body, const CommandArgs& args);  // false: refused
};

const CommandBuilder kBuilders[] = {
    {EXTEND_BOX_CMD_SUB_SERIAL_DATA,  // a sub-port's bytes go without command byte
     [](FrameBody& b, const CommandArgs& a) {
         b.Put(a.payload, a.length);
         return true;
     }},
    {EXTEND_BOX_CMD_UPGRADE_START,
     [](FrameBody& b, const CommandArgs& a) {
         b.Head(EXTEND_BOX_CMD_UPGRADE_START, 9);
         b.Put("START", 5);
         b.Be32(a.imageLength);
         return true;
     }},
    {EXTEND_BOX_CMD_UPGRADE_DATA,
     [](FrameBody& b, const CommandArgs& a) {
         b.Head(EXTEND_BOX_CMD_UPGRADE_DATA, static_cast<unsigned char>(a.length));
         b.Put(a.payload, a.length);
         return true;
     }},
    {EXTEND_BOX_CMD_UPGRADE_END,
     [](FrameBody& b, const CommandArgs& a) {
         b.Head(EXTEND_BOX_CMD_UPGRADE_END, 7);
         b.Put("END", 3);
         b.Be32(a.imageCrc);
         return true;
     }},
    {EXTEND_BOX_CMD_GET_VERSION,
     [](FrameBody& b, const CommandArgs&) {
         b.Head(EXTEND_BOX_CMD_GET_VERSION, 3);
         b.Put("MCU", 3);
         return true;
     }},
    {EXTEND_BOX_CMD_HUB_IO_STATUS,
     [](FrameBody& b, const CommandArgs&) {
         b.Head(EXTEND_BOX_CMD_HUB_IO_STATUS, 1);
         b.Byte(kIoStatusQuery);
         return true;
     }},
    {EXTEND_BOX_CMD_HEARTBEAT,
     [](FrameBody& b, const CommandArgs&) {
         b.Head(EXTEND_BOX_CMD_HEARTBEAT, 1);
         b.Byte(kHeartbeatByte);
         return true;
     }},
    {EXTEND_BOX_CMD_SET_SUB_SERIAL,
     [](FrameBody& b, const CommandArgs& a) {
         if (a.payload == nullptr) {
             return false;
         }
         b.Head(EXTEND_BOX_CMD_SET_SUB_SERIAL, kSubSettingSize);
         b.Put(a.payload, kSubSettingSize);
         return true;
     }},
    {EXTEND_BOX_CMD_MCU_TEST,  // the box answers this one as 0x40: the asymmetry is the firmware's
     [](FrameBody& b, const CommandArgs&) {
         b.Head(0x41, 1);
         b.Byte(0x00);
         return true;
     }},
    {EXTEND_BOX_CMD_SET_TRANSFORM_TYPE,
     [](FrameBody& b, const CommandArgs& a) {
         if (a.payload == nullptr) {
             return false;
         }
         b.Head(EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, 1);
         b.Byte(a.payload[0]);
         return true;
     }},
};

const CommandBuilder* BuilderOf(eExtendBoxCmd cmd) {
    for (const CommandBuilder& builder : kBuilders) {
        if (builder.cmd == cmd) {
            return &builder;
        }
    }
    return nullptr;
}

}  // namespace

// ---- link: sending ----

int CSerialDevExtendBox::MakeAndSendCmd(eExtendBoxCmd cmd, unsigned char subId, unsigned char devId,
                                        unsigned int length, const unsigned char* payload) {
    if (!FrameIdsFit(subId)) {
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
    const CommandBuilder* builder = BuilderOf(cmd);
    if (builder == nullptr) {
        return -1;
    }
    CommandArgs args{length, payload, 0, 0};
    if (cmd == EXTEND_BOX_CMD_UPGRADE_START || cmd == EXTEND_BOX_CMD_UPGRADE_END) {
        std::lock_guard<std::mutex> state(m_StateLock);
        args.imageLength = m_session.ImageLength();
        args.imageCrc = m_session.ImageCrc();
    }
    unsigned char frame[EXTEND_BOX_FRAME_SIZE] = {};
    frame[0] = SERIAL_FRAME_START;
    frame[1] = GetSerialType() == SERIAL_LINK_MCU
                   ? static_cast<unsigned char>(0x80 | ((m_ucParamId & 0x07) << 4) | (subId & 0x0F))
                   : static_cast<unsigned char>(0x80 | (subId & 0x7F));
    frame[2] = devId;
    FrameBody body{frame, 4};
    if (!builder->build(body, args)) {
        return -1;
    }
    unsigned int end = body.end;
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

bool CSerialDevExtendBox::FrameIdsFit(unsigned char subId) const {
    if (subId > EXTEND_BOX_MAX_SUB_ID) {
        PM_LOG(0, m_variant.logTag, "Extend serial id is too large, id = %d(>4)\n", subId);
        return false;
    }
    if (m_ucParamId > EXTEND_BOX_MAX_PARAM_ID) {
        PM_LOG(0, m_variant.logTag, "Extend box param id is error, id = %d(>%d)\n", m_ucParamId,
               EXTEND_BOX_MAX_PARAM_ID);
        return false;
    }
    return true;
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
    const BoxAnswer taken{cmd, length, bytes, payloadLength, payload};
    // The box's answers by command; what the box itself does not know may be a variant's.
    static const struct {
        unsigned char cmd;
        void (CSerialDevExtendBox::*take)(const BoxAnswer&);
    } kAnswers[] = {
        {EXTEND_BOX_CMD_UPGRADE_START, &CSerialDevExtendBox::TakeUpgradeAnswer},
        {EXTEND_BOX_CMD_UPGRADE_DATA, &CSerialDevExtendBox::TakeUpgradeAnswer},
        {EXTEND_BOX_CMD_UPGRADE_END, &CSerialDevExtendBox::TakeUpgradeAnswer},
        {EXTEND_BOX_CMD_GET_VERSION, &CSerialDevExtendBox::TakeVersion},
        {EXTEND_BOX_CMD_HEARTBEAT, &CSerialDevExtendBox::TakeHeartbeat},
        {EXTEND_BOX_CMD_SET_SUB_SERIAL, &CSerialDevExtendBox::TakeSubSettingResult},
        {EXTEND_BOX_CMD_MCU_TEST, &CSerialDevExtendBox::TakeMcuTestResult},
        {EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, &CSerialDevExtendBox::TakeLinkModeResult},
    };
    bool known = false;
    for (const auto& answer : kAnswers) {
        if (answer.cmd == cmd) {
            (this->*answer.take)(taken);
            known = true;
            break;
        }
    }
    if (!known && !AnalyseVariantAnswer(cmd, length, bytes)) {
        PM_LOG(0, m_variant.logTag, "Extend_box cmd is not support, cmd = %x\n", cmd);
    }
    m_nPendingCmd = -1;
    return 0;
}

void CSerialDevExtendBox::TakeUpgradeAnswer(const BoxAnswer& a) {
    AnalyseUpgradeAnswer(a.cmd, a.payloadLength, a.payload);
}

void CSerialDevExtendBox::TakeVersion(const BoxAnswer& a) {
    if (a.payloadLength < 1 || a.payloadLength >= EXTEND_BOX_VERSION_SIZE) {
        return;
    }
    char version[EXTEND_BOX_VERSION_SIZE] = {};
    memcpy(version, a.payload, a.payloadLength);
    bool changed = false;
    // Due before the version counts as known: whoever sees it known finds the children's
    // set-up asked for.
    m_bChildSetupDue = true;
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        PM_LOG(1, m_variant.logTag, "Response version, version = %s, orgVersion = %s\n", version,
               m_szVersion);
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

void CSerialDevExtendBox::TakeHeartbeat(const BoxAnswer&) {
    HeardFromBox();
    SetCurPeripheralStatus(true);
}

void CSerialDevExtendBox::TakeSubSettingResult(const BoxAnswer& a) {
    if (a.Result() == 1) {
        PM_LOG(1, m_variant.logTag, "Response set baud success\n");
    } else {
        PM_LOG(0, m_variant.logTag, "Response set baud failed, result = %d\n", a.Result());
    }
}

void CSerialDevExtendBox::TakeMcuTestResult(const BoxAnswer& a) {
    if (a.Result() == 1) {
        PM_LOG(1, m_variant.logTag, "MCU test success\n");
    } else {
        PM_LOG(0, m_variant.logTag, "MCU test failed, result = %d\n", a.Result());
    }
}

void CSerialDevExtendBox::TakeLinkModeResult(const BoxAnswer& a) {
    if (a.Result() == 1) {
        PM_LOG(1, m_variant.logTag, "Set extend box data transform type success\n");
        m_nPendingSetup &= ~kSetupLinkMode;
    } else {
        PM_LOG(0, m_variant.logTag, "Set extend box data transform type failed, result = %d\n",
               a.Result());
    }
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
