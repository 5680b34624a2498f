// The serial base on a real manager: placement, the receive buffer, sending through each link,
// settings and state reports.
#include <string.h>
#include <termios.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "MainChipSerialOpt.h"
#include "Pty.h"
#include "SerialFrame.h"
#include "SerialHarness.h"

namespace sertest {
namespace {

using pmtest::Pty;
using pmtest::WaitUntil;

// ---- placement ----

struct LinkCase {
    const char* what;
    int port;  // -1: in no port entry
    int type;
    bool open;
    bool mcuLink;
    bool mainChipLink;
};

std::ostream& operator<<(std::ostream& out, const LinkCase& c) {
    return out << c.what;
}

const LinkCase kLinkCases[] = {
    {"first MCU port", 0, SERIAL_LINK_MCU, true, true, false},
    {"last MCU port", 3, SERIAL_LINK_MCU, true, true, false},
    {"first main-chip port, no tty configured", 4, SERIAL_LINK_MAINCHIP, false, false, true},
    {"last main-chip port", 7, SERIAL_LINK_MAINCHIP, false, false, true},
    {"second group, never opened by the base", 8, SERIAL_LINK_MAINCHIP_2, false, false, true},
    {"last port", 11, SERIAL_LINK_MAINCHIP_2, false, false, true},
    {"in no port entry", -1, SERIAL_LINK_NONE, false, false, false},
};

class LinkKind : public ::testing::TestWithParam<LinkCase> {};

TEST_P(LinkKind, FollowsThePortIndex) {
    const LinkCase& c = GetParam();
    SerialHarness service;
    std::vector<Placement> placements;
    if (c.port >= 0) {
        placements.push_back({static_cast<unsigned int>(c.port), kPlainId});
    } else {
        placements.push_back({4, kFramedId});  // somebody else is placed
    }
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting(placements)));

    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    EXPECT_EQ(serial.GetSerialType(), c.type);
    EXPECT_EQ(serial.GetCurPeripOpenStatus(), c.open);
    EXPECT_EQ(serial.HasMcuLink(), c.mcuLink);
    EXPECT_EQ(serial.MainChipLink() != nullptr, c.mainChipLink);
    EXPECT_FALSE(serial.IsExtendSerial());
    char text[160];
    snprintf(text, sizeof(text),
             "S_BASE: Create new serial, mainId = 50, subId = 0, type = %d, extend = 0(0--no), "
             "extendId = 0\n",
             c.type);
    EXPECT_TRUE(service.Logs().Contains(text));
    if (c.type == SERIAL_LINK_NONE) {
        EXPECT_EQ(serial.SendDataToPeripheral("x", 1), -1);
        EXPECT_EQ(serial.OpenMainChipSerial("/dev/null", true, 2306), -1);
        EXPECT_FALSE(serial.GetCurPeripOpenStatus());
    }
}

INSTANTIATE_TEST_SUITE_P(Ports, LinkKind, ::testing::ValuesIn(kLinkCases));

TEST(SerialPlacement, TakesTheConfiguredPropertyButNotItsBaud) {
    SerialHarness service;
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{2, kPlainId}})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);

    const PeripheralProperty& p = serial.GetSerialProperty();
    EXPECT_EQ(p.mainId, kPlainId);
    EXPECT_EQ(static_cast<int>(p.baud), -1);
    EXPECT_EQ(p.dataBit, static_cast<uint32_t>(SERIAL_DATA_BIT_7));
    EXPECT_EQ(p.stopBit, static_cast<uint32_t>(SERIAL_STOP_BIT_2));
    EXPECT_EQ(p.parity, static_cast<uint32_t>(SERIAL_PARITY_ODD));
    EXPECT_EQ(p.protocolType, SERIAL_PROTOCOL_TRANSPARENT);
    EXPECT_TRUE(service.Logs().Contains(
        "S_BASE: Find serial prperty, mainId = 50, subId = 0, baud = -1, dataBit = 1, "
        "stopBit = 3, parity = 1, flow = 0, protocol = 2\n"));
}

TEST(SerialPlacement, SubPortWithoutBoxHasNoWayOut) {
    SerialHarness service;
    Placement box{5, 1};
    Placement child{5, kPlainId, 0, 1, 2};
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({box, child})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);

    EXPECT_TRUE(serial.IsExtendSerial());
    EXPECT_EQ(serial.GetExtendId(), 2);
    EXPECT_EQ(serial.GetSerialType(), SERIAL_LINK_MAINCHIP);
    EXPECT_EQ(serial.GetFatherSerial(), nullptr);
    EXPECT_FALSE(serial.GetCurPeripOpenStatus());
    EXPECT_TRUE(
        service.Logs().Contains("S_BASE: Get father instance failed, mainId = 50, subId = 0\n"));

    EXPECT_EQ(serial.SendDataToPeripheral("abc", 3), -1);
    EXPECT_TRUE(service.Logs().Contains("S_BASE: FatherSerialPrt is NULL\n"));
    EXPECT_EQ(serial.OpenMainChipSerial("/dev/null", true, 2306), -1);
    EXPECT_TRUE(
        service.Logs().Contains("S_BASE: Extend serial not allow to open mainchip serial\n"));
    EXPECT_EQ(
        serial.SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, SERIAL_BAUD_9600, SERIAL_DATA_BIT_8,
                                         SERIAL_STOP_BIT_1, SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
        -1);
}

// ---- receive buffer ----

TEST(SerialBuffer, LongFillReadsBackAs1024ThenZeros) {
    SerialHarness service;
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    std::string pattern(1500, '\0');
    for (size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = static_cast<char>(1 + i % 251);
    }
    char out[1024];
    unsigned int length = 0;
    serial.LockSerialBuffer();
    ASSERT_EQ(serial.SetSerialBufferValue(pattern.data(), 1500), 0);
    serial.GetSerialBufferData(out, length);
    std::string first(out, length);
    serial.GetSerialBufferData(out, length);
    std::string second(out, length);
    EXPECT_EQ(serial.SetSerialBufferValue(pattern.data(), 2048), -1);
    serial.UnlockSerialBuffer();

    EXPECT_EQ(first, pattern.substr(0, 1024));
    EXPECT_EQ(second, std::string(476, '\0'));  // the tail is kept, but zeroed
    EXPECT_TRUE(service.Logs().Contains("S_BASE: Set serial buffer error, length  = 2048\n"));
}

struct AppendCase {
    const char* what;
    size_t first;
    size_t second;
    size_t kept;  // bytes of the first delivery still in the buffer
};

std::ostream& operator<<(std::ostream& out, const AppendCase& c) {
    return out << c.what;
}

const AppendCase kAppendCases[] = {
    {"600 after 500 drop the 500", 500, 600, 0},
    {"exactly 1024 keeps both", 300, 724, 300},
    {"1025 drops the first", 300, 725, 0},
};

class SerialAppend : public ::testing::TestWithParam<AppendCase> {};

TEST_P(SerialAppend, DropsOlderBytesBeyond1024) {
    const AppendCase& c = GetParam();
    SerialHarness service;
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    serial.SetConsume(false);
    std::string a(c.first, 'a');
    std::string b(c.second, 'b');
    ASSERT_EQ(serial.PreProcessPeripheralData(a.data(), a.size()), 0);
    ASSERT_EQ(serial.PreProcessPeripheralData(b.data(), b.size()), 0);
    EXPECT_EQ(serial.BufferContent(), std::string(c.kept, 'a') + b);
    EXPECT_EQ(serial.GetRecvStamp().nLastRecvLength, c.second);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SerialAppend, ::testing::ValuesIn(kAppendCases));

TEST(SerialBuffer, RefusesWhatDoesNotFit) {
    SerialHarness service;
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    std::string big(2048, 'x');
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), big.size()), -1);
    EXPECT_EQ(serial.PreProcessPeripheralData(nullptr, 10), -1);
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), 0), -1);
    // A failed read of the reader thread arrives as -1.
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), static_cast<unsigned int>(-1)), -1);
    EXPECT_EQ(serial.Received(), "");
}

TEST(SerialBuffer, ResizedBufferIsNeverOverrun) {
    SerialHarness service;
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    serial.SetConsume(false);
    serial.SetSerialMaxBufferSize(4 * 1048576);
    EXPECT_EQ(serial.GetSerialMaxBufferSize(), 1048576u);
    serial.SetSerialMaxBufferSize(512);
    std::string a(300, 'a');
    std::string b(300, 'b');
    ASSERT_EQ(serial.PreProcessPeripheralData(a.data(), a.size()), 0);
    ASSERT_EQ(serial.PreProcessPeripheralData(b.data(), b.size()), 0);
    EXPECT_EQ(serial.BufferContent(), b);
    std::string big(600, 'c');
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), big.size()), -1);
}

TEST(SerialBuffer, BoxStreamIsCutIntoFrames) {
    SerialHarness service;
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, 1}})));
    TestSerial box(&service.Manager(), service.ManagerClient(), 1);
    ASSERT_EQ(box.GetSerialType(), SERIAL_LINK_MAINCHIP);
    const char* dispatched =
        "S_BASE: Extend frame not dispatched (no box yet), mainId = 1, subId = 0";

    ASSERT_EQ(box.PreProcessPeripheralData("\x11\x7E\xAA\x7F\x7E\xBB", 6), 0);
    EXPECT_EQ(service.Logs().Count(std::string(dispatched) + ", length = 3\n"), 1u);
    EXPECT_EQ(box.BufferContent(), "\x7E\xBB");
    EXPECT_EQ(box.Received(), "");  // frames never reach ProcessPeripheralData

    ASSERT_EQ(box.PreProcessPeripheralData("\xCC\x7F", 2), 0);
    EXPECT_EQ(service.Logs().Count(std::string(dispatched) + ", length = 4\n"), 1u);
    EXPECT_EQ(box.BufferContent(), "");

    ASSERT_EQ(box.PreProcessPeripheralData("\x01\x02\x7F", 3), 0);
    EXPECT_TRUE(service.Logs().Contains("S1_EXTEND_BOX: Analy data error, and remove it\n"));
    EXPECT_EQ(box.BufferContent(), "");

    // A frame that never ends is dropped before it overruns the buffer.
    std::string open = "\x7E" + std::string(1500, 'x');
    std::string more = std::string(1000, 'y') + "\x7E\x01";
    ASSERT_EQ(box.PreProcessPeripheralData(open.data(), open.size()), 0);
    ASSERT_EQ(box.PreProcessPeripheralData(more.data(), more.size()), 0);
    EXPECT_TRUE(service.Logs().Contains(
        "S_BASE: Extend data overflow, drop pending bytes, buffer_length = 1501, "
        "rev_length = 1002\n"));
    EXPECT_EQ(box.BufferContent(), "\x7E\x01");
}

// ---- main-chip tty ----

class MainChipSerial : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_tty.MakeRaw()); }
    Pty m_tty;
};

TEST_F(MainChipSerial, BytesFromTheTtyReachTheInstance) {
    SerialHarness service({{4, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kPlainId}})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    ASSERT_TRUE(serial.GetCurPeripOpenStatus());
    EXPECT_EQ(serial.GetSerialName(), m_tty.SlavePath());
    EXPECT_TRUE(service.Logs().Contains("S_BASE: MainChip serial open serial result = " +
                                        std::to_string(serial.MainChipLink()->GetSerialFd()) +
                                        ", MainChipType = 0\n"));

    ASSERT_TRUE(m_tty.Send("$GPGGA,1"));
    ASSERT_TRUE(m_tty.Send("23\r\n"));
    EXPECT_TRUE(WaitUntil([&] { return serial.Received() == "$GPGGA,123\r\n"; }));
}

TEST_F(MainChipSerial, PlainBytesGoOutAsTheyAreAtMost1024) {
    SerialHarness service({{4, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kPlainId}})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);

    EXPECT_EQ(serial.SendDataToPeripheral("\x7E\x01\x7F", 3), 1);
    EXPECT_EQ(m_tty.Receive(3), "\x7E\x01\x7F");
    std::string big(1500, 'z');
    EXPECT_EQ(serial.SendDataToPeripheral(big.data(), big.size()), 1);
    EXPECT_EQ(m_tty.Receive(1500, std::chrono::milliseconds(500)), std::string(1024, 'z'));
    EXPECT_TRUE(service.Logs().Contains(
        "S_BASE: Send data too long, mainId = 50, subId = 0, length = 1500, send 1024\n"));
}

TEST_F(MainChipSerial, Protocol0BytesGoOutFramedAndStuffed) {
    SerialHarness service({{4, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kFramedId}})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kFramedId);
    ASSERT_EQ(serial.GetSerialProperty().protocolType, SERIAL_PROTOCOL_EXTEND_FRAME);

    // Device byte 05, then 7E 01 7D: check value 7E ^ 01 ^ 7D = 02.
    EXPECT_EQ(serial.SendDataToPeripheral("\x05\x7E\x01\x7D", 4), 1);
    EXPECT_EQ(Hex(m_tty.Receive(10)), "7E 80 05 02 7D 5E 01 7D 5D 7F");
    EXPECT_EQ(serial.SendDataToPeripheral("", 0), -1);
    EXPECT_TRUE(service.Logs().Contains("MainChip_Opt: send data length error\n"));
}

TEST_F(MainChipSerial, SettingsReachTheTty) {
    SerialHarness service({{4, m_tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kPlainId}})));
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);

    EXPECT_EQ(
        serial.SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, SERIAL_BAUD_57600, SERIAL_DATA_BIT_8,
                                         SERIAL_STOP_BIT_2, SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
        1);
    struct termios tio;
    ASSERT_EQ(tcgetattr(m_tty.Master(), &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_NE(tio.c_cflag & CSTOPB, 0u);
    EXPECT_EQ(serial.GetSerialProperty().baud, static_cast<uint32_t>(SERIAL_BAUD_57600));
    // A rate the main chip cannot do is refused by the device layer.
    EXPECT_EQ(serial.SetMainChipSerialProperty(SERIAL_PROPERTY_SPEED, SERIAL_BAUD_56000,
                                               SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                               SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              -1);
}

// ---- MCU port ----

TEST(McuSerial, SendsTheBytesAsMessage1088) {
    SerialHarness service;
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{1, kPlainId}})));
    service.Collect(1088);
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);
    ASSERT_EQ(serial.GetSerialType(), SERIAL_LINK_MCU);

    EXPECT_EQ(serial.SendDataToPeripheral("\x01\x02\x03", 3), 0);
    ASSERT_TRUE(service.Pump([&] { return !service.Collected(1088).empty(); }));
    const Message& m = service.Collected(1088).front();
    EXPECT_EQ(m.sender, 15000u);  // (0 + 1) * 10000 + 50 * 100
    EXPECT_EQ(Hex(m.payload), "32 00 00 00 03 00 00 00 01 02 03");
}

struct StopBitCase {
    int stopBit;
    uint8_t code;
};

std::ostream& operator<<(std::ostream& out, const StopBitCase& c) {
    return out << "stop bit " << c.stopBit;
}

class McuProperty : public ::testing::TestWithParam<StopBitCase> {};

TEST_P(McuProperty, SendsMessage6735WithTheMcuStopBitCode) {
    SerialHarness service;
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{0, kPlainId, 3}})));
    service.Collect(6735);
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId, 3);

    EXPECT_EQ(serial.SetMainChipSerialProperty(0x1F, SERIAL_BAUD_38400, SERIAL_DATA_BIT_7,
                                               static_cast<SerialStopBitMode>(GetParam().stopBit),
                                               SERIAL_PARITY_EVEN, SERIAL_FLOW_NONE),
              -1);  // even though it was sent
    ASSERT_TRUE(service.Pump([&] { return !service.Collected(6735).empty(); }));
    char expected[64];
    snprintf(expected, sizeof(expected), "32 03 1F 03 01 %02X 02 00 00 00 00 00 00 00 00 00",
             GetParam().code);
    EXPECT_EQ(Hex(service.Collected(6735).front().payload), expected);
}

INSTANTIATE_TEST_SUITE_P(StopBits, McuProperty,
                         ::testing::Values(StopBitCase{0, 1}, StopBitCase{1, 0}, StopBitCase{2, 2},
                                           StopBitCase{3, 3}, StopBitCase{7, 1}));

// ---- state reports ----

TEST(SerialReports, ConfigStatusIsReportedOncePerChange) {
    SerialHarness service;
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{1, kPlainId}})));
    service.Collect(6820);
    TestSerial serial(&service.Manager(), service.ManagerClient(), kPlainId);

    serial.SetSerialConfigStatus(7, 0, 0);
    serial.SetSerialConfigStatus(7, 0, 0);  // unchanged: not reported
    serial.SetSerialConfigStatus(7, 5, 0);  // 5 forces the report
    serial.SetSerialConfigStatus(6, 0, 0);  // 6 reports the last port again
    ASSERT_TRUE(service.Pump([&] { return service.Collected(6820).size() >= 3; }));
    service.Pump([] { return false; }, std::chrono::milliseconds(100));
    ASSERT_EQ(service.Collected(6820).size(), 3u);
    std::string first = service.Collected(6820)[0].payload;
    ASSERT_EQ(first.size(), 80u);
    // Port 1 is the user's "232-2", number 1.
    EXPECT_EQ(Hex(first.substr(0, 6)), "01 32 00 00 00 07");
    EXPECT_EQ(first.substr(6), std::string(74, '\0'));
    EXPECT_EQ(Hex(service.Collected(6820)[2].payload.substr(0, 6)), "01 32 00 00 00 06");
    EXPECT_EQ(service.Logs().Count("devid:50-0 status 7 (0,0)\n"), 1u);
    EXPECT_TRUE(service.Logs().Contains(
        "Busid :sessionId:0x1aa4  ueSeriType :1,ucSeriMainID:50,ucSeriSubID :0  ucStatus:7\n"));
}

}  // namespace
}  // namespace sertest
