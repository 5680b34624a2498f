// The status-relay handlers, called as the bus calls them but on the test thread, with
// messages exactly as long as they are: a read past one shows under AddressSanitizer.
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServiceHarness.h"

namespace {

using pmtest::Message;
using pmtest::ServiceHarness;
using pmtest::TestManage;
using PhmHandler = int (CPeripheralManage::*)(const char*, int);

const char* const kEightChannels = R"({"PRODUCT_TYPE": 6, "VI_CHN_NUM": 4, "DIGITAL_CHN_NUM": 4})";

// Every piece of state a handler may change, as bytes.
std::vector<uint8_t> Snapshot(TestManage& m) {
    std::vector<uint8_t> out;
    auto add = [&out](const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        out.insert(out.end(), b, b + n);
    };
    const uint32_t words[] = {m.m_nParamState,   m.m_nStatusState,        m.GetCurVideoLossState(),
                              m.GetDebugLevel(), m.m_ucDeviceModuleReady, m.m_ucCpxOccupy.load()};
    add(words, sizeof(words));
    add(m.m_stuSysLedState, sizeof(m.m_stuSysLedState));
    add(m.m_stuStorageStatus, sizeof(m.m_stuStorageStatus));
    add(m.m_stuVehicleInfo, sizeof(m.m_stuVehicleInfo));
    add(m.m_stuIpcSetting, sizeof(m.m_stuIpcSetting));
    add(&m.m_stuFtpSetting, sizeof(m.m_stuFtpSetting));
    return out;
}

// The manager's own log lines since the last Clear().
// The manager's own lines: those of its sources and of the units it reads records through.
std::vector<std::string> ManagerLines(const pmtest::LogCapture& logs) {
    static const char* const kManagerUnits[] = {"PeripheralManage", "StatusRecords", "AlarmSpeech",
                                                "UDiskSelfTest", "PluginLoader"};
    std::vector<std::string> lines;
    for (const auto& record : logs.Records()) {
        const bool manager =
            std::any_of(std::begin(kManagerUnits), std::end(kManagerUnits),
                        [&](const char* unit) { return strstr(record.file, unit) != nullptr; });
        if (manager) {
            lines.push_back(record.text);
        }
    }
    return lines;
}

std::vector<std::string> Lines(const char* text) {
    return text == nullptr ? std::vector<std::string>{} : std::vector<std::string>{text};
}

class ManagerHandlerTest : public ::testing::Test {
protected:
    int Deliver(PhmHandler handler, const std::vector<char>& message) {
        return (M().*handler)(message.data(), static_cast<int>(message.size()));
    }
    int Call(PhmHandler handler, const std::vector<uint8_t>& payload, long headLength = -1) {
        return Deliver(handler, Message(1, payload, headLength));
    }
    TestManage& M() { return service.Manager(); }
    pmtest::LogCapture& Logs() { return service.Logs(); }

    ServiceHarness service{pmtest::kNoPeripherals, kEightChannels};
};

// first, first + 1, ...
std::vector<uint8_t> Counting(size_t size, uint8_t first = 1) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

TEST_F(ManagerHandlerTest, ShortWrongLengthAndValidMessages) {
    const char* const kModule = "S_MANAGE: device module complete length or msg is error \n";
    const std::string path = "/dev/ttyAMA1";  // sent without its NUL: the message ends the text
    const std::vector<uint8_t> debug = {0x00, 0x1A, 0x05, 0x00, 0, 0, 0, 0};  // marker, level
    std::vector<uint8_t> proxy(80, 0);
    proxy[64] = 1;  // the type field
    proxy[66] = 7;  // the function id
    const struct {
        const char* name;
        PhmHandler handler;
        const char* nullLog;   // logged for a null message; nullptr: silent
        const char* shortLog;  // logged for 10 bytes
        int headLength;        // the only head length it takes; 0: any
        const char* wrongLog;  // printf text for another head length
        std::vector<uint8_t> valid;
        const char* validLog;  // a line the valid message gives; nullptr: none
        bool changes;          // the valid message changes the manager's state
    } cases[] = {
        {"debug level", &CPeripheralManage::OnSetDebugLevel, nullptr, nullptr, 8, nullptr, debug,
         "S_MANAGE: Set debug level = 5\n", true},
        {"module ready", &CPeripheralManage::OnDeviceModuleComplete, kModule, kModule, 0, nullptr,
         std::vector<uint8_t>(1, 3), "S_MANAGE: DeviceManage module init state = 0x3\n", true},
        {"tty released", &CPeripheralManage::OnDeviceModuleReleaseSerial, kModule, kModule, 0,
         nullptr, std::vector<uint8_t>(path.begin(), path.end()),
         "S_MANAGE: DeviceManage broadcast cpx release serial, product_type = 6, path = "
         "/dev/ttyAMA1, cpx_occupy = 0\n",
         true},
        {"digital video loss", &CPeripheralManage::OnUpdataDigitalVideoLossStatus,
         "S_MANAGE: Update IPC video loss length error \n",
         "S_MANAGE: Update IPC video loss length error \n", 6,
         "S_MANAGE: Update IPC video loss failed msgerror=%d\n", std::vector<uint8_t>(6, 0),
         "S_MANAGE: IPC Video loss state update, state = 0x0, DigitalChnNum = 4\n", true},
        {"video loss", &CPeripheralManage::OnUpdataVideoLossStatus,
         "S_MANAGE: Update video loss length error \n",
         "S_MANAGE: Update video loss length error \n", 4,
         "S_MANAGE: Update video loss failed msgerror=%d\n", Counting(4),
         "S_MANAGE: Vi Video loss state update, state = 0x1, ViChnNum = 4\n", true},
        // Without its module tag, deliberately.
        {"IPC", &CPeripheralManage::OnUpdataIPCSetting, "ipc param length error \n",
         "ipc param length error \n", 0, nullptr, Counting(408),
         "S_MANAGE: IPC param has changed, and re get video loss state\n", true},
        {"LED", &CPeripheralManage::OnUpdateLedState,
         "S_MANAGE: OnUpdateLedState msg param error \n",
         "S_MANAGE: Update Led panel state msgerror=0\n", 16,
         "S_MANAGE: Update Led panel state msgerror=%d\n", Counting(16),
         "S_MANAGE: Update Led state, record = 1, net = 2, err = 3, gps = 4, alarm = 5, vloss = "
         "6, hdd = 7, sd = 8, sys = 9\n",
         true},
        {"storage", &CPeripheralManage::OnUpdataStorageStatus,
         "S_MANAGE: OnUpdataStorageStatus param error\n",
         "S_MANAGE: OnUpdataStorageStatus param error\n", 0, nullptr, Counting(32),
         "S_MANAGE: storage status: error_sd = 1\n", true},
        {"vehicle", &CPeripheralManage::OnUpdateDeviceVehicleInfo, nullptr, nullptr, 0, nullptr,
         Counting(56), nullptr, true},
        {"FTP", &CPeripheralManage::OnGetFtpParam, "S_MANAGE: OnGetFtpParam param error\n",
         "S_MANAGE: OnGetFtpParam param error\n", 0, nullptr, Counting(416),
         "S_MANAGE: FTP param changed\n", true},
        {"proxy data", &CPeripheralManage::OnDispatchProxyData,
         "S_MANAGE: Protocol proxy param length error \n",
         "S_MANAGE: Protocol proxy param length error \n", 0, nullptr, proxy,
         "S_MANAGE: serialInfo--uiFuncId:7, uiDataLen:84, len = 0\n", false},
        // The FTP handler's text, deliberately.
        {"upgrading peripherals", &CPeripheralManage::OnGetUpgradingPeripInfo,
         "S_MANAGE: OnGetFtpParam param error\n", "S_MANAGE: OnGetFtpParam param error\n", 0,
         nullptr, Counting(2, 2), "S_MANAGE: Get upgrading peripheral, type = 3, source = 2\n",
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Logs().Clear();
        const std::vector<uint8_t> before = Snapshot(M());
        (M().*c.handler)(nullptr, 0);
        EXPECT_EQ(ManagerLines(Logs()), Lines(c.nullLog)) << "null message";
        Logs().Clear();
        Deliver(c.handler, std::vector<char>(10, '\x7F'));
        EXPECT_EQ(ManagerLines(Logs()), Lines(c.shortLog)) << "10 bytes";
        for (long wrong : {c.headLength - 1L, c.headLength + 1L, 0L}) {
            if (c.headLength == 0) {
                break;
            }
            Logs().Clear();
            Call(c.handler, c.valid, wrong);
            char text[96] = {};
            snprintf(text, sizeof(text), c.wrongLog == nullptr ? "" : c.wrongLog,
                     static_cast<int>(wrong));
            EXPECT_EQ(ManagerLines(Logs()), Lines(c.wrongLog == nullptr ? nullptr : text)) << wrong;
        }
        EXPECT_EQ(Snapshot(M()), before);
        Logs().Clear();
        Call(c.handler, c.valid);
        if (c.validLog != nullptr) {
            EXPECT_EQ(Logs().Count(c.validLog), 1u) << c.validLog;
        }
        EXPECT_EQ(Snapshot(M()) != before, c.changes);
    }
}

TEST_F(ManagerHandlerTest, VideoLossFollowsTheIpcChannels) {
    // Channel 0 is digital with protocol 5, channel 1 digital with protocol 7.
    M().m_stuIpcSetting[8] = 1;
    M().m_stuIpcSetting[8 + 6] = 5;
    M().m_stuIpcSetting[208] = 1;
    M().m_stuIpcSetting[208 + 6] = 7;
    M().m_nVideoLossState = 0x80;  // channel 7 has no IPC entry: nothing here changes it
    // Protocols of channels 0-3 at data bytes 0-3, their states at 4 and on.
    Call(&CPeripheralManage::OnUpdataDigitalVideoLossStatus, {5, 9, 0, 0, 1, 1});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x81u) << "channel 1 has another protocol";
    Call(&CPeripheralManage::OnUpdataDigitalVideoLossStatus, {5, 7, 0, 0, 0, 1});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x82u);
    Call(&CPeripheralManage::OnUpdataVideoLossStatus, {0xFD, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x8Eu) << "0, 1 digital; 4 on not analogue";

    // A changed IPC setting asks for both video-loss states again; an unchanged one does not.
    M().m_nStatusState = 0x07;
    const uint8_t* ipc = M().m_stuIpcSetting;
    Call(&CPeripheralManage::OnUpdataIPCSetting, std::vector<uint8_t>(ipc, ipc + 408));
    EXPECT_EQ(M().m_nStatusState, 0x07u);
    Call(&CPeripheralManage::OnUpdataIPCSetting, std::vector<uint8_t>(408, 0));
    EXPECT_EQ(M().m_nStatusState, static_cast<uint32_t>(STATUS_STATE_LED));
}

TEST_F(ManagerHandlerTest, LedStateTakesTenBytesAndTheSdLedFollowsAUsableDisk) {
    M().m_stuSysLedState[10] = 0xAA;
    M().m_stuSysLedState[11] = 0xBB;
    Call(&CPeripheralManage::OnUpdateLedState, Counting(16));
    uint8_t led[12] = {};
    M().GetCurSysLedState(led);
    const uint8_t expected[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xAA, 0xBB};
    EXPECT_EQ(memcmp(led, expected, sizeof(led)), 0);

    const struct {
        uint8_t state, type, valid;  // of disk 1; disk 0 is absent
        uint8_t sd;
    } disks[] = {{2, 1, 1, 1}, {6, 1, 1, 1}, {3, 1, 1, 0}, {5, 2, 1, 0}, {5, 1, 2, 0}};
    for (const auto& d : disks) {
        std::vector<uint8_t> status(32, 0);
        status[28] = d.state;
        status[30] = d.type;
        status[31] = d.valid;
        Call(&CPeripheralManage::OnUpdataStorageStatus, status);
        EXPECT_EQ(M().m_stuSysLedState[7], d.sd) << int(d.state) << int(d.type) << int(d.valid);
    }
    // valid and i are printed swapped against their labels.
    EXPECT_EQ(Logs().Count("S_MANAGE: i = 2, valid = 1, type = 1, state = 5\n"), 1u);
}

TEST_F(ManagerHandlerTest, UpgradingPeripheralsAnswerHoldsAtMostFour) {
    constexpr int kRequest = 7300;
    service.Watch(kRequest | 0x8000);
    for (unsigned id = 30; id < 36; ++id) {
        auto* p =
            new CPeripheralBase(&M(), M().GetMsgClient(), PERIPHERAL_TYPE_SERIAL, id, id - 29);
        p->SetUpgrading(id != 31);
        M().AddInstance(p);
    }
    M().AddInstance(new CPeripheralBase(&M(), M().GetMsgClient(), PERIPHERAL_TYPE_CANPORT, 40, 0));
    std::vector<char> request = Message(kRequest, std::vector<uint8_t>{2, 0});
    request[8] = 0x5A;  // the sequence number the answer carries back
    Deliver(&CPeripheralManage::OnGetUpgradingPeripInfo, request);
    ASSERT_TRUE(service.WaitCount(kRequest | 0x8000, 1));
    const pmtest::BusMessage answer = service.Received(kRequest | 0x8000)[0];
    EXPECT_EQ(answer.head.nSeq, 0x5Au);
    std::vector<uint8_t> expected(52, 0);
    const uint8_t entries[] = {30, 1, 32, 3, 33, 4, 34, 5};  // main and sub ids
    for (int i = 0; i < 4; ++i) {
        expected[9 * i + 1] = entries[2 * i];
        expected[9 * i + 2] = entries[2 * i + 1];
    }
    expected[36] = 2;  // source
    expected[37] = 4;  // count
    EXPECT_EQ(answer.payload, expected);
    EXPECT_EQ(Logs().Count("S_MANAGE: Upgrading peripheral list full, skip mainId = 35"), 1u);
    // An unknown source or type gets no answer.
    Call(&CPeripheralManage::OnGetUpgradingPeripInfo, {4, 0});
    Call(&CPeripheralManage::OnGetUpgradingPeripInfo, {0, 3});
    ASSERT_TRUE(service.Flush());
    EXPECT_EQ(service.Count(kRequest | 0x8000), 1u);
}

}  // namespace
