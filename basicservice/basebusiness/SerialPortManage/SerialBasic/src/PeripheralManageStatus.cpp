#include "PeripheralManage.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "MsgView.h"
#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "MutexGuard.h"
#include "PeripheralEvents.h"
#include "PeripheralManageInternal.h"
#include "StatusRecords.h"

using manage::kLogTag;

namespace {

constexpr size_t kUpgradeAnswerSize = 52;
constexpr size_t kUpgradeEntrySize = 9;
constexpr size_t kUpgradeEntriesEnd = 36;  // source and count follow the entries

// The mask has room for 32 channels; a recorder with more loses the rest, said each time.
unsigned int VideoLossChannels(unsigned int channels) {
    if (channels > status::kVideoLossChannels) {
        PM_LOG(0, kLogTag, "Video loss mask holds %d channels, channels = %d\n",
               status::kVideoLossChannels, channels);
    }
    return std::min(channels, status::kVideoLossChannels);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Device status relay

int CPeripheralManage::OnSetDebugLevel(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.HeadLength() != status::kDebugLevelLength || msg.Payload().U16(0) != 0x1A00) {
        return 0;
    }
    m_nDebugLevel = msg.Payload().U16(2);
    PM_LOG(0, kLogTag, "Set debug level = %d\n", m_nDebugLevel.load());
    return 0;
}

int CPeripheralManage::OnDeviceModuleComplete(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "device module complete length or msg is error \n");
        return -1;
    }
    const uint8_t state = msg.Payload().Byte(0);
    m_ucDeviceModuleReady = (state & 0x01) ? 1 : 0;
    PM_LOG(1, kLogTag, "DeviceManage module init state = 0x%x\n", state);
    return 0;
}

int CPeripheralManage::OnDeviceModuleReleaseSerial(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        // The text is shared with OnDeviceModuleComplete on purpose.
        PM_LOG(0, kLogTag, "device module complete length or msg is error \n");
        return -1;
    }
    const std::string path = msg.Payload().Text(0);
    if (status::IsCpxSerial(m_nProductType, path)) {
        m_ucCpxOccupy = 0;
    }
    PM_LOG(1, kLogTag,
           "DeviceManage broadcast cpx release serial, product_type = %d, path = %s, "
           "cpx_occupy = %d\n",
           m_nProductType, path.c_str(), m_ucCpxOccupy.load());
    return 0;
}

int CPeripheralManage::OnUpdataIPCSetting(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "ipc param length error \n");
        return -1;
    }
    m_nParamState &= static_cast<uint16_t>(~PARAM_STATE_IPC);
    uint8_t setting[sizeof(m_stuIpcSetting)];
    msg.Payload().Copy(0, setting, sizeof(setting));
    if (memcmp(setting, m_stuIpcSetting, sizeof(setting)) != 0) {
        PM_LOG(2, kLogTag, "IPC param has changed, and re get video loss state\n");
        memcpy(m_stuIpcSetting, setting, sizeof(setting));
        m_nStatusState &= ~(STATUS_STATE_DIGITAL_VLOSS | STATUS_STATE_VLOSS);
    }
    return 0;
}

bool CPeripheralManage::GetIpcChannel(unsigned int channel, uint8_t& digital,
                                      uint8_t& protocol) const {
    const status::IpcChannel entry =
        status::IpcChannelOf(m_stuIpcSetting, sizeof(m_stuIpcSetting), channel);
    digital = entry.digital;
    protocol = entry.protocol;
    return channel < status::IpcChannels(sizeof(m_stuIpcSetting));
}

int CPeripheralManage::OnUpdataDigitalVideoLossStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Update IPC video loss length error \n");
        return -1;
    }
    if (msg.HeadLength() != status::kDigitalVideoLossLength) {
        PM_LOG(0, kLogTag, "Update IPC video loss failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_DIGITAL_VLOSS;
    const unsigned int channels = VideoLossChannels(m_nTotalChnNum);
    MutexGuard guard(m_VideoLossLock);
    const uint32_t state = status::MergeDigitalVideoLoss(m_nVideoLossState, msg.Payload(), channels,
                                                         m_stuIpcSetting, sizeof(m_stuIpcSetting));
    m_nVideoLossState = state;
    PM_LOG(3, kLogTag, "IPC Video loss state update, state = 0x%x, DigitalChnNum = %d\n", state,
           m_nDigitalChnNum);
    return 0;
}

int CPeripheralManage::OnUpdataVideoLossStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Update video loss length error \n");
        return -1;
    }
    if (msg.HeadLength() != status::kVideoLossLength) {
        PM_LOG(0, kLogTag, "Update video loss failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_VLOSS;
    const unsigned int channels = VideoLossChannels(m_nViChnNum);
    MutexGuard guard(m_VideoLossLock);
    const uint32_t state =
        status::MergeAnalogVideoLoss(m_nVideoLossState, msg.Payload().U32(0), channels,
                                     m_stuIpcSetting, sizeof(m_stuIpcSetting));
    m_nVideoLossState = state;
    PM_LOG(2, kLogTag, "Vi Video loss state update, state = 0x%x, ViChnNum = %d\n", state,
           m_nViChnNum);
    return 0;
}

int CPeripheralManage::OnUpdateLedState(const char* data, int length) {
    if (data == nullptr) {
        PM_LOG(0, kLogTag, "OnUpdateLedState msg param error \n");
        return -1;
    }
    MsgView msg(data, length);
    if (msg.HeadLength() != status::kLedStateLength) {
        PM_LOG(0, kLogTag, "Update Led panel state msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_LED;
    MutexGuard guard(m_LedLock);
    msg.Payload().Copy(0, m_stuSysLedState, status::kLedFields);
    const uint8_t* led = m_stuSysLedState;
    PM_LOG(2, kLogTag,
           "Update Led state, record = %x, net = %x, err = %x, gps = %x, alarm = %x, "
           "vloss = %x, hdd = %x, sd = %x, sys = %x\n",
           led[0], led[1], led[2], led[3], led[4], led[5], led[6], led[7], led[8]);
    return 0;
}

int CPeripheralManage::OnUpdataStorageStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnUpdataStorageStatus param error\n");
        return -1;
    }
    const MsgView payload = msg.Payload();
    payload.Copy(0, m_stuStorageStatus, sizeof(m_stuStorageStatus));
    const int errorSd = status::SdCardUsable(payload) ? 0 : 1;
    PM_LOG(3, kLogTag, "storage status: error_sd = %d\n", errorSd);
    MutexGuard guard(m_LedLock);
    m_stuSysLedState[status::kLedSdField] = errorSd == 1 ? 0 : 1;
    return 0;
}

int CPeripheralManage::OnUpdateDeviceVehicleInfo(const char* data, int length) {
    if (data == nullptr) {
        return -1;
    }
    MsgView msg(data, length);
    MutexGuard guard(m_LedLock);
    msg.Payload().Copy(0, m_stuVehicleInfo, sizeof(m_stuVehicleInfo));
    if (status::VehicleLightsOff(MsgView(m_stuVehicleInfo, sizeof(m_stuVehicleInfo)))) {
        m_stuSysLedState[status::kLedVehicleField] = 0;
    }
    return 0;
}

int CPeripheralManage::OnGetFtpParam(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnGetFtpParam param error\n");
        return -1;
    }
    m_nParamState &= static_cast<uint16_t>(~PARAM_STATE_FTP);
    {
        MutexGuard guard(m_FtpLock);
        msg.Payload().Copy(0, &m_stuFtpSetting, sizeof(m_stuFtpSetting));
    }
    PM_LOG(2, kLogTag, "FTP param changed\n");
    return 0;
}

int CPeripheralManage::OnProcessPowerdown(const char*, int) {
    PM_LOG(0, "", " m_ucTestEnable=%d\n", m_ucTestEnable.load());
    if (m_ucTestEnable == 1) {
        // The recorder answers with its real serial setting, which replaces the test layout.
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_SERIAL_PARAM, 1, nullptr, 0, m_nMsgId);
    }
    return 0;
}

int CPeripheralManage::OnDispatchProxyData(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Protocol proxy param length error \n");
        return -1;
    }
    const MsgView payload = msg.Payload();
    if (payload.U16(64) != 1) {
        PM_LOG(0, kLogTag, "Protocol proxy param type error \n");
        return -1;
    }
    const unsigned int funcId = payload.U16(66);
    const unsigned int dataLen = payload.U32(72);
    PM_LOG(0, kLogTag, "serialInfo--uiFuncId:%d, uiDataLen:%d, len = %d\n", funcId, dataLen + 84,
           dataLen);
    // Proxy data is delivered to nobody yet.
    int index = 0;
    for (auto it = m_listPeripheralPlugin.begin(); it != m_listPeripheralPlugin.end(); ++it) {
        PM_LOG(2, kLogTag, "m_pSerialBase[%d] == NULL", index++);
    }
    return 0;
}

int CPeripheralManage::OnGetUpgradingPeripInfo(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnGetFtpParam param error\n");
        return -1;
    }
    const uint8_t source = msg.Payload().Byte(0);
    const uint8_t type = msg.Payload().Byte(1);
    PM_LOG(1, kLogTag, "Get upgrading peripheral, type = %d, source = %d\n", type, source);
    if (source > 3 || type > 2) {
        return -1;
    }
    uint8_t answer[kUpgradeAnswerSize] = {};
    uint8_t count = 0;
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        const CPeripheralBase* instance = record.pInstance;
        if (instance == nullptr || instance->GetPeripheralType() != type ||
            !instance->IsUpgrading()) {
            continue;
        }
        const size_t offset = kUpgradeEntrySize * count;
        if (offset + kUpgradeEntrySize > kUpgradeEntriesEnd) {
            PM_LOG(0, kLogTag, "Upgrading peripheral list full, skip mainId = %d, subId = %d\n",
                   instance->GetMainId(), instance->GetSubId());
            continue;
        }
        answer[offset] = type;
        answer[offset + 1] = static_cast<uint8_t>(instance->GetMainId());
        answer[offset + 2] = static_cast<uint8_t>(instance->GetSubId());
        ++count;
    }
    answer[kUpgradeEntriesEnd] = source;
    answer[kUpgradeEntriesEnd + 1] = count;
    PM_LOG(1, kLogTag,
           "Response upgrading perip info, type = %d, source = %d, mainId = %d, subId "
           "= %d, count = %d\n",
           type, source, answer[1], answer[2], count);
    Common::SMessageHead head;
    memcpy(&head, data, sizeof(head));
    m_pMsgClient->MSGResponseMessage(&head, reinterpret_cast<const char*>(answer),
                                     static_cast<int>(sizeof(answer)));
    return 0;
}

unsigned int CPeripheralManage::GetCurVideoLossState() const {
    return m_nVideoLossState;
}

void CPeripheralManage::GetCurSysLedState(unsigned char* out) {
    if (out == nullptr) {
        return;
    }
    MutexGuard guard(m_LedLock);
    memcpy(out, m_stuSysLedState, sizeof(m_stuSysLedState));
}

void CPeripheralManage::GetFtpParam(tag_MsgFtpSetting& out) {
    MutexGuard guard(m_FtpLock);
    out = m_stuFtpSetting;
}

unsigned char CPeripheralManage::CheckCpxOccupancySerial(std::string path) {
    return status::IsCpxSerial(m_nProductType, path) ? m_ucCpxOccupy.load() : 0;
}

void CPeripheralManage::BroadcastCpxSerialRelease(std::string path) {
    if (!status::IsCpxSerial(m_nProductType, path)) {
        return;
    }
    char payload[status::kCpxPathSize] = {};
    memcpy(payload, path.data(), std::min(path.size(), sizeof(payload)));
    m_pMsgClient->MSGSendMessage(0, EVENT_CPX_SERIAL_RELEASE, 0, payload,
                                 static_cast<int>(sizeof(payload)), m_nMsgId);
}

// ---------------------------------------------------------------------------------------------
// Hex dump

void CPeripheralManage::hex_dump(std::string title, const char* data, unsigned int length,
                                 int level) {
    if (!DumpsAt(level)) {
        return;
    }
    if (data == nullptr) {
        length = 0;
    }
    static const char kHex[] = "0123456789ABCDEF";
    std::string out = title;
    out.reserve(title.size() + length * 6 + 8);
    for (unsigned int i = 0; i < length; ++i) {
        if (i % 16 == 0) {
            char head[16];
            snprintf(head, sizeof head, "\n%02X: ", i);
            out += head;
        }
        const auto byte = static_cast<uint8_t>(data[i]);
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0F];
        out += ' ';
        if (i % 16 != 15) {
            continue;
        }
        // Rows past the first 256 bytes show the characters of an earlier row; kept so.
        const unsigned int row = i & 0xF0;
        for (unsigned int j = 0; j < 16; ++j) {
            const unsigned char c = static_cast<unsigned char>(data[row + j]);
            out += isprint(c) ? static_cast<char>(c) : '.';
            out += ' ';
        }
    }
    out += "\n\n";
    // One write, never waited for: this runs on the reader thread under the port table's lock.
    ConsoleWrite(out);
}
