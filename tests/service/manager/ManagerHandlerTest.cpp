// The manager's state handlers, called the way the bus calls them but on the test thread (the
// manager's own thread is not started), with messages exactly as long as they are: a read
// past the message shows under AddressSanitizer.
#include <string.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ManagerHarness.h"

namespace mgrtest {
namespace {

using PhmHandler = int (CPeripheralManage::*)(const char*, int);

// Every piece of state a handler may change, as bytes.
std::vector<uint8_t> Snapshot(TestManage& m) {
    std::vector<uint8_t> out;
    auto add = [&out](const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        out.insert(out.end(), b, b + n);
    };
    const uint16_t paramState = m.m_nParamState;
    const uint32_t words[] = {m.m_nStatusState, m.GetCurVideoLossState(), m.GetDebugLevel(),
                              m.m_ucDeviceModuleReady, m.m_ucCpxOccupy.load()};
    add(&paramState, sizeof(paramState));
    add(words, sizeof(words));
    add(m.m_stuSysLedState, sizeof(m.m_stuSysLedState));
    add(m.m_stuStorageStatus, sizeof(m.m_stuStorageStatus));
    add(m.m_stuVehicleInfo, sizeof(m.m_stuVehicleInfo));
    add(m.m_stuIpcSetting, sizeof(m.m_stuIpcSetting));
    add(&m.m_stuFtpSetting, sizeof(m.m_stuFtpSetting));
    add(&m.m_stuSystemSerialParam.stuSerialSetting, sizeof(paramSerialSetting_t));
    add(&m.m_stuCanParam, sizeof(m.m_stuCanParam));
    add(&m.m_stuEthernetParam, sizeof(m.m_stuEthernetParam));
    return out;
}

// The manager's own log lines since the last Clear().
std::vector<std::string> ManagerLines(const pmtest::LogCapture& logs) {
    std::vector<std::string> lines;
    for (const auto& record : logs.Records()) {
        if (strstr(record.file, "PeripheralManage.cpp") != nullptr) {
            lines.push_back(record.text);
        }
    }
    return lines;
}

class ManagerHandlerTest : public ::testing::Test {
protected:
    ManagerHandlerTest() : m_manage(std::make_unique<TestManage>()) { m_env.Logs().Clear(); }

    int Call(PhmHandler handler, const std::vector<char>& message) {
        return (m_manage.get()->*handler)(message.data(), static_cast<int>(message.size()));
    }
    int Call(PhmHandler handler, uint32_t eventId, const std::vector<uint8_t>& payload,
             long headLength = -1) {
        return Call(handler, Message(eventId, payload, headLength));
    }
    TestManage& M() { return *m_manage; }
    pmtest::LogCapture& Logs() { return m_env.Logs(); }

    ManagerEnv m_env;
    std::unique_ptr<TestManage> m_manage;
};

// ---- a message that is not even a head -----------------------------------------------------

struct ShortCase {
    const char* name;
    PhmHandler handler;
    const char* nullText;   // logged for a null message; nullptr: nothing
    const char* shortText;  // logged for 10 bytes; nullptr: nothing
};

// Test names and failure messages show the case's name, not its bytes.
void PrintTo(const ShortCase& c, std::ostream* os) {
    *os << c.name;
}

class ShortMessageTest : public ManagerHandlerTest,
                         public ::testing::WithParamInterface<ShortCase> {};

TEST_P(ShortMessageTest, OnlyLogs) {
    const ShortCase& c = GetParam();
    const std::vector<uint8_t> before = Snapshot(M());

    (M().*c.handler)(nullptr, 0);
    std::vector<std::string> expected;
    if (c.nullText != nullptr) {
        expected.push_back(c.nullText);
    }
    EXPECT_EQ(ManagerLines(Logs()), expected) << "null message";

    Logs().Clear();
    const std::vector<char> tenBytes(10, '\x7F');
    (M().*c.handler)(tenBytes.data(), static_cast<int>(tenBytes.size()));
    expected.clear();
    if (c.shortText != nullptr) {
        expected.push_back(c.shortText);
    }
    EXPECT_EQ(ManagerLines(Logs()), expected) << "10-byte message";
    EXPECT_EQ(Snapshot(M()), before);
}

const char* const kDeviceModuleText = "S_MANAGE: device module complete length or msg is error \n";

const ShortCase kShortCases[] = {
    {"DebugLevel", &CPeripheralManage::OnSetDebugLevel, nullptr, nullptr},
    {"DeviceModule", &CPeripheralManage::OnDeviceModuleComplete, kDeviceModuleText,
     kDeviceModuleText},
    {"ReleaseSerial", &CPeripheralManage::OnDeviceModuleReleaseSerial, kDeviceModuleText,
     kDeviceModuleText},
    {"Serial", &CPeripheralManage::OnUpdateSerialParamSetting,
     "S_MANAGE: Serial port param length error \n", "S_MANAGE: Serial port param length error \n"},
    {"Can", &CPeripheralManage::OnUpdateCanParamSetting, "S_MANAGE: CAN port param length error \n",
     "S_MANAGE: CAN port param length error \n"},
    {"Ethernet", &CPeripheralManage::OnUpdateEthernetParamSetting,
     "S_MANAGE: Ethernet port param length error \n",
     "S_MANAGE: Ethernet port param length error \n"},
    {"Ipc", &CPeripheralManage::OnUpdataIPCSetting, "ipc param length error \n",
     "ipc param length error \n"},
    {"DigitalVideoLoss", &CPeripheralManage::OnUpdataDigitalVideoLossStatus,
     "S_MANAGE: Update IPC video loss length error \n",
     "S_MANAGE: Update IPC video loss length error \n"},
    {"VideoLoss", &CPeripheralManage::OnUpdataVideoLossStatus,
     "S_MANAGE: Update video loss length error \n", "S_MANAGE: Update video loss length error \n"},
    {"Led", &CPeripheralManage::OnUpdateLedState, "S_MANAGE: OnUpdateLedState msg param error \n",
     "S_MANAGE: Update Led panel state msgerror=0\n"},
    {"Storage", &CPeripheralManage::OnUpdataStorageStatus,
     "S_MANAGE: OnUpdataStorageStatus param error\n",
     "S_MANAGE: OnUpdataStorageStatus param error\n"},
    {"Vehicle", &CPeripheralManage::OnUpdateDeviceVehicleInfo, nullptr, nullptr},
    {"Ftp", &CPeripheralManage::OnGetFtpParam, "S_MANAGE: OnGetFtpParam param error\n",
     "S_MANAGE: OnGetFtpParam param error\n"},
    {"ProxyData", &CPeripheralManage::OnDispatchProxyData,
     "S_MANAGE: Protocol proxy param length error \n",
     "S_MANAGE: Protocol proxy param length error \n"},
    {"UpgradingInfo", &CPeripheralManage::OnGetUpgradingPeripInfo,
     "S_MANAGE: OnGetFtpParam param error\n", "S_MANAGE: OnGetFtpParam param error\n"},
};

INSTANTIATE_TEST_SUITE_P(Manager, ShortMessageTest, ::testing::ValuesIn(kShortCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- a head whose length field is not the message's size -----------------------------------

struct HeadLengthCase {
    const char* name;
    PhmHandler handler;
    size_t size;          // the size the handler expects
    const char* logText;  // printf text of the log with the wrong length; nullptr: silent
};

void PrintTo(const HeadLengthCase& c, std::ostream* os) {
    *os << c.name;
}

class HeadLengthTest : public ManagerHandlerTest,
                       public ::testing::WithParamInterface<HeadLengthCase> {};

TEST_P(HeadLengthTest, WrongLengthChangesNothing) {
    const HeadLengthCase& c = GetParam();
    std::vector<uint8_t> payload(c.size, 0x01);
    payload[0] = 0x00;  // a debug-level message's own marker
    payload[1] = 0x1A;
    const std::vector<uint8_t> before = Snapshot(M());
    for (long wrong : {static_cast<long>(c.size) - 1, static_cast<long>(c.size) + 1, 0L}) {
        SCOPED_TRACE(wrong);
        Logs().Clear();
        Call(c.handler, 1, payload, wrong);
        std::vector<std::string> expected;
        if (c.logText != nullptr) {
            char text[128];
            snprintf(text, sizeof(text), c.logText, static_cast<int>(wrong));
            expected.push_back(text);
        }
        EXPECT_EQ(ManagerLines(Logs()), expected);
    }
    EXPECT_EQ(Snapshot(M()), before);
}

const HeadLengthCase kHeadLengthCases[] = {
    {"DebugLevel", &CPeripheralManage::OnSetDebugLevel, 8, nullptr},
    {"DigitalVideoLoss", &CPeripheralManage::OnUpdataDigitalVideoLossStatus, 6,
     "S_MANAGE: Update IPC video loss failed msgerror=%d\n"},
    {"VideoLoss", &CPeripheralManage::OnUpdataVideoLossStatus, 4,
     "S_MANAGE: Update video loss failed msgerror=%d\n"},
    {"Led", &CPeripheralManage::OnUpdateLedState, 16,
     "S_MANAGE: Update Led panel state msgerror=%d\n"},
};

INSTANTIATE_TEST_SUITE_P(Manager, HeadLengthTest, ::testing::ValuesIn(kHeadLengthCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- valid messages ------------------------------------------------------------------------

TEST_F(ManagerHandlerTest, DebugLevelNeedsItsMarker) {
    Call(&CPeripheralManage::OnSetDebugLevel, 10, {0x00, 0x1A, 0x05, 0x00, 0, 0, 0, 0});
    EXPECT_EQ(M().GetDebugLevel(), 5u);
    EXPECT_EQ(ManagerLines(Logs()), std::vector<std::string>{"S_MANAGE: Set debug level = 5\n"});

    Logs().Clear();
    Call(&CPeripheralManage::OnSetDebugLevel, 10, {0x01, 0x1A, 0x07, 0x00, 0, 0, 0, 0});
    EXPECT_EQ(M().GetDebugLevel(), 5u);
    EXPECT_TRUE(ManagerLines(Logs()).empty());
}

TEST_F(ManagerHandlerTest, DeviceModuleReadyIsBitZero) {
    Call(&CPeripheralManage::OnDeviceModuleComplete, 1150, {0x03});
    EXPECT_EQ(M().m_ucDeviceModuleReady, 1);
    EXPECT_EQ(Logs().Count("S_MANAGE: DeviceManage module init state = 0x3\n"), 1u);
    Call(&CPeripheralManage::OnDeviceModuleComplete, 1150, {0x02});
    EXPECT_EQ(M().m_ucDeviceModuleReady, 0);
    Call(&CPeripheralManage::OnDeviceModuleComplete, 1150, {});  // the head alone reads as 0
    EXPECT_EQ(M().m_ucDeviceModuleReady, 0);
}

TEST_F(ManagerHandlerTest, IpcChangeAsksForVideoLossAgain) {
    M().m_nStatusState = 0x07;
    Call(&CPeripheralManage::OnUpdataIPCSetting, 320, Zeros(408));
    EXPECT_EQ(M().m_nParamState & PARAM_STATE_IPC, 0);
    EXPECT_EQ(M().m_nStatusState, 0x07u) << "an unchanged setting leaves the states alone";

    std::vector<uint8_t> ipc(408, 0);
    ipc[407] = 1;
    Call(&CPeripheralManage::OnUpdataIPCSetting, 320, ipc);
    EXPECT_EQ(M().m_nStatusState, static_cast<uint32_t>(STATUS_STATE_LED));
    EXPECT_EQ(memcmp(M().m_stuIpcSetting, ipc.data(), ipc.size()), 0);
    EXPECT_EQ(Logs().Count("S_MANAGE: IPC param has changed, and re get video loss state\n"), 1u);
}

// Channel 0 is a digital channel with protocol 5, channel 1 one with protocol 7.
void SetDigitalChannels(TestManage& m) {
    m.m_stuIpcSetting[8] = 1;
    m.m_stuIpcSetting[8 + 6] = 5;
    m.m_stuIpcSetting[208] = 1;
    m.m_stuIpcSetting[208 + 6] = 7;
}

TEST_F(ManagerHandlerTest, DigitalVideoLossFollowsMatchingProtocols) {
    SetDigitalChannels(M());
    ASSERT_EQ(M().m_nTotalChnNum, 8u);
    M().m_nVideoLossState = 0x80;  // channel 7 has no IPC entry: nothing here changes it
    // Head length 6: protocols of channels 0-3 at data bytes 0-3, states at 4 and on.
    Call(&CPeripheralManage::OnUpdataDigitalVideoLossStatus, 1284, {5, 9, 0, 0, 1, 1});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x81u) << "channel 1 has another protocol";
    EXPECT_TRUE(M().m_nStatusState & STATUS_STATE_DIGITAL_VLOSS);

    Call(&CPeripheralManage::OnUpdataDigitalVideoLossStatus, 1284, {5, 7, 0, 0, 0, 1});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x82u);
}

TEST_F(ManagerHandlerTest, AnalogueVideoLossKeepsDigitalChannels) {
    SetDigitalChannels(M());
    Call(&CPeripheralManage::OnUpdataDigitalVideoLossStatus, 1284, {5, 0, 0, 0, 1, 0});
    ASSERT_EQ(M().GetCurVideoLossState(), 0x01u);

    Call(&CPeripheralManage::OnUpdataVideoLossStatus, 1052, {0xFE, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x0Du) << "channel 1 is digital, 4 and up not analogue";
    EXPECT_TRUE(M().m_nStatusState & STATUS_STATE_VLOSS);

    Call(&CPeripheralManage::OnUpdataVideoLossStatus, 1052, {0, 0, 0, 0});
    EXPECT_EQ(M().GetCurVideoLossState(), 0x01u);
}

TEST_F(ManagerHandlerTest, LedStateTakesTenBytes) {
    M().m_stuSysLedState[10] = 0xAA;
    M().m_stuSysLedState[11] = 0xBB;
    std::vector<uint8_t> led(16);
    for (size_t i = 0; i < led.size(); ++i) {
        led[i] = static_cast<uint8_t>(i + 1);
    }
    Call(&CPeripheralManage::OnUpdateLedState, 1122, led);
    uint8_t out[12] = {};
    M().GetCurSysLedState(out);
    const uint8_t expected[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xAA, 0xBB};
    EXPECT_EQ(memcmp(out, expected, sizeof(out)), 0);
    EXPECT_TRUE(M().m_nStatusState & STATUS_STATE_LED);
    EXPECT_EQ(Logs().Count("S_MANAGE: Update Led state, record = 1, net = 2, err = 3, gps = 4, "
                           "alarm = 5, vloss = 6, hdd = 7, sd = 8, sys = 9\n"),
              1u);
    M().GetCurSysLedState(nullptr);
}

struct Disk {
    uint8_t state, type, valid;
};

struct StorageCase {
    const char* name;
    Disk disk0, disk1;
    uint8_t sd;
};

void PrintTo(const StorageCase& c, std::ostream* os) {
    *os << c.name;
}

class StorageTest : public ManagerHandlerTest, public ::testing::WithParamInterface<StorageCase> {};

TEST_P(StorageTest, SdLedFollowsUsableDisk) {
    const StorageCase& c = GetParam();
    M().m_stuSysLedState[7] = c.sd ? 0 : 1;
    std::vector<uint8_t> status(32, 0);
    for (int i = 0; i < 32; ++i) {
        status[i] = static_cast<uint8_t>(0x40 + i);
    }
    const Disk disks[] = {c.disk0, c.disk1};
    for (int i = 0; i < 2; ++i) {
        status[24 + 4 * i] = disks[i].state;
        status[24 + 4 * i + 2] = disks[i].type;
        status[24 + 4 * i + 3] = disks[i].valid;
    }
    Call(&CPeripheralManage::OnUpdataStorageStatus, 2053, status);
    EXPECT_EQ(M().m_stuSysLedState[7], c.sd);
    EXPECT_EQ(memcmp(M().m_stuStorageStatus, status.data(), status.size()), 0);
    char text[96];
    // valid and i are printed swapped against their labels.
    snprintf(text, sizeof(text), "S_MANAGE: i = %d, valid = 0, type = %d, state = %d\n",
             c.disk0.valid, c.disk0.type, c.disk0.state);
    EXPECT_EQ(Logs().Count(text), 1u) << text;
}

const StorageCase kStorageCases[] = {
    {"NoDisk", {0, 0, 0}, {0, 0, 0}, 0},           {"FirstDiskState2", {2, 1, 1}, {0, 0, 0}, 1},
    {"SecondDiskState5", {0, 0, 0}, {5, 1, 1}, 1}, {"State6", {6, 1, 1}, {0, 0, 0}, 1},
    {"OtherState", {3, 1, 1}, {4, 1, 1}, 0},       {"OtherType", {2, 2, 1}, {0, 0, 0}, 0},
    {"NotValid", {2, 1, 0}, {5, 1, 2}, 0},
};

INSTANTIATE_TEST_SUITE_P(Manager, StorageTest, ::testing::ValuesIn(kStorageCases),
                         [](const auto& info) { return std::string(info.param.name); });

struct VehicleCase {
    const char* name;
    uint32_t first, second;
    uint8_t flags;
    uint8_t led10;  // LED byte 10 afterwards (it was 1)
};

void PrintTo(const VehicleCase& c, std::ostream* os) {
    *os << c.name;
}

class VehicleTest : public ManagerHandlerTest, public ::testing::WithParamInterface<VehicleCase> {};

TEST_P(VehicleTest, LedByteTenRule) {
    const VehicleCase& c = GetParam();
    M().m_stuSysLedState[10] = 1;
    std::vector<uint8_t> info(56, 0x21);
    for (int i = 0; i < 4; ++i) {
        info[i] = static_cast<uint8_t>(c.first >> (8 * i));
        info[48 + i] = static_cast<uint8_t>(c.second >> (8 * i));
    }
    info[52] = c.flags;
    Call(&CPeripheralManage::OnUpdateDeviceVehicleInfo, 1081, info);
    EXPECT_EQ(M().m_stuSysLedState[10], c.led10);
    EXPECT_EQ(memcmp(M().m_stuVehicleInfo, info.data(), info.size()), 0);
}

const VehicleCase kVehicleCases[] = {
    {"BothSetNoFlags", 0x08, 0x08, 0x00, 0}, {"BothSetHighWords", 0x1008, 0x80000008, 0x01, 0},
    {"FlagFourAlone", 0x08, 0x08, 0x10, 1},  {"FlagsFourAndThree", 0x08, 0x08, 0x18, 0},
    {"FirstClear", 0x07, 0x08, 0x00, 1},     {"SecondClear", 0x08, 0xF7, 0x00, 1},
};

INSTANTIATE_TEST_SUITE_P(Manager, VehicleTest, ::testing::ValuesIn(kVehicleCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ManagerHandlerTest, FtpSettingIsKeptWhole) {
    std::vector<uint8_t> ftp(416);
    for (size_t i = 0; i < ftp.size(); ++i) {
        ftp[i] = static_cast<uint8_t>(i * 7);
    }
    Call(&CPeripheralManage::OnGetFtpParam, 284, ftp);
    EXPECT_EQ(M().m_nParamState & PARAM_STATE_FTP, 0);
    tag_MsgFtpSetting out{};
    M().GetFtpParam(out);
    EXPECT_EQ(memcmp(out.data, ftp.data(), ftp.size()), 0);
    EXPECT_EQ(Logs().Count("S_MANAGE: FTP param changed\n"), 1u);
}

// ---- the co-processor's tty ----------------------------------------------------------------

struct CpxCase {
    const char* name;
    int productType;
    const char* cpxPath;  // nullptr: the product shares no tty
};

void PrintTo(const CpxCase& c, std::ostream* os) {
    *os << c.name;
}

class CpxTest : public ::testing::TestWithParam<CpxCase> {
protected:
    CpxTest() : m_env(kFullConfig, SystemConfig(GetParam().productType)) {}
    ManagerEnv m_env;
};

TEST_P(CpxTest, OccupancyFollowsTheReleaseOfItsOwnTty) {
    const CpxCase& c = GetParam();
    TestManage manage;
    const std::vector<std::string> paths = {"/dev/ttyAMA1", "/dev/ttyAMA3", "/dev/ttyAMA1x", ""};
    auto occupied = [&](const std::string& path) { return manage.CheckCpxOccupancySerial(path); };
    for (const std::string& path : paths) {
        EXPECT_EQ(occupied(path), c.cpxPath != nullptr && path == c.cpxPath ? 1 : 0) << path;
    }
    for (const std::string& path : paths) {
        if (c.cpxPath != nullptr && path == c.cpxPath) {
            continue;
        }
        const std::vector<char> msg = Message(1151, path.c_str(), path.size() + 1);
        manage.OnDeviceModuleReleaseSerial(msg.data(), static_cast<int>(msg.size()));
    }
    EXPECT_EQ(manage.m_ucCpxOccupy.load(), 1) << "another tty's release";
    if (c.cpxPath == nullptr) {
        return;
    }
    // Sent without its terminating NUL: the end of the message ends the text.
    const std::vector<char> msg = Message(1151, c.cpxPath, strlen(c.cpxPath));
    manage.OnDeviceModuleReleaseSerial(msg.data(), static_cast<int>(msg.size()));
    EXPECT_EQ(occupied(c.cpxPath), 0);
    char text[160];
    snprintf(text, sizeof(text),
             "S_MANAGE: DeviceManage broadcast cpx release serial, product_type = %d, path = %s, "
             "cpx_occupy = 0\n",
             c.productType, c.cpxPath);
    EXPECT_EQ(m_env.Logs().Count(text), 1u) << text;
}

TEST_P(CpxTest, ReleaseBroadcastOnlyForItsOwnTty) {
    const CpxCase& c = GetParam();
    Recorder recorder({6724, 9000});
    TestManage manage;
    for (const char* path : {"/dev/ttyAMA1", "/dev/ttyAMA3", "/dev/ttyAMA2"}) {
        manage.BroadcastCpxSerialRelease(path);
    }
    // Messages of one sender arrive in order: once this is in, every broadcast is.
    manage.GetMsgClient()->MSGSendMessage(0, 9000, 0, nullptr, 0, 10);
    ASSERT_TRUE(recorder.WaitCount(9000, 1));

    const auto events = recorder.Events();
    std::vector<std::vector<char>> broadcasts;
    for (const auto& event : events) {
        if (event.id == 6724) {
            broadcasts.emplace_back(event.message.begin() + 16, event.message.end());
        }
    }
    if (c.cpxPath == nullptr) {
        EXPECT_TRUE(broadcasts.empty());
        return;
    }
    ASSERT_EQ(broadcasts.size(), 1u);
    std::vector<char> expected(28, 0);
    memcpy(expected.data(), c.cpxPath, strlen(c.cpxPath));
    EXPECT_EQ(broadcasts[0], expected);
}

const CpxCase kCpxCases[] = {
    {"Product6", 6, "/dev/ttyAMA1"},
    {"Product14", 14, "/dev/ttyAMA3"},
    {"Product0", 0, nullptr},
    {"Product18", 18, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Manager, CpxTest, ::testing::ValuesIn(kCpxCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- power-down ----------------------------------------------------------------------------

TEST_F(ManagerHandlerTest, PowerdownAsksForSerialSettingOnlyInSelfTest) {
    Recorder recorder({315, 9000});
    M().OnProcessPowerdown(nullptr, 0);
    EXPECT_EQ(Logs().Count(" m_ucTestEnable=0\n"), 1u);
    M().m_ucTestEnable = 1;
    M().OnProcessPowerdown(nullptr, 0);
    EXPECT_EQ(Logs().Count(" m_ucTestEnable=1\n"), 1u);
    M().GetMsgClient()->MSGSendMessage(0, 9000, 0, nullptr, 0, 10);
    ASSERT_TRUE(recorder.WaitCount(9000, 1));
    EXPECT_EQ(recorder.Ids(), (std::vector<int>{315, 9000}));
    const auto events = recorder.Events();
    EXPECT_EQ(events[0].message.size(), 16u) << "no payload";
}

// ---- the answer about upgrading peripherals ------------------------------------------------

TEST_F(ManagerHandlerTest, UpgradingPeripheralsAnswerHoldsAtMostFour) {
    constexpr int kRequest = 7300;
    Recorder recorder({kRequest | 0x8000});
    for (unsigned int id = 30; id < 36; ++id) {
        auto* probe = new ProbePeripheral(&M(), PERIPHERAL_TYPE_SERIAL, id, id - 29);
        probe->SetUpgrading(id != 31);
        M().AddInstance(probe);
    }
    M().AddInstance(new ProbePeripheral(&M(), PERIPHERAL_TYPE_CANPORT, 40, 0));

    std::vector<char> request = Message(kRequest, std::vector<uint8_t>{2, 0});
    request[8] = 0x5A;  // the sequence number the answer must carry back
    M().OnGetUpgradingPeripInfo(request.data(), static_cast<int>(request.size()));
    ASSERT_TRUE(recorder.WaitCount(kRequest | 0x8000, 1));

    const std::vector<char> answer = recorder.Events()[0].message;
    ASSERT_EQ(answer.size(), 16u + 52u);
    EXPECT_EQ(answer[8], 0x5A);
    const std::vector<uint8_t> expected = {0, 30, 1, 0, 0, 0, 0, 0, 0,  //
                                           0, 32, 3, 0, 0, 0, 0, 0, 0,  //
                                           0, 33, 4, 0, 0, 0, 0, 0, 0,  //
                                           0, 34, 5, 0, 0, 0, 0, 0, 0,  //
                                           2, 4};                       // source, count
    EXPECT_EQ(std::vector<uint8_t>(answer.begin() + 16, answer.begin() + 16 + 38), expected);
    EXPECT_EQ(std::vector<char>(answer.begin() + 16 + 38, answer.end()), std::vector<char>(14, 0));
    EXPECT_EQ(Logs().Count("S_MANAGE: Upgrading peripheral list full, skip mainId = 35"), 1u);

    // An unknown source or type gets no answer.
    M().OnGetUpgradingPeripInfo(Message(kRequest, std::vector<uint8_t>{4, 0}).data(), 18);
    M().OnGetUpgradingPeripInfo(Message(kRequest, std::vector<uint8_t>{0, 3}).data(), 18);
    EXPECT_EQ(Logs().Count("S_MANAGE: Get upgrading peripheral, type = 3, source = 0\n"), 1u);
}

}  // namespace
}  // namespace mgrtest
