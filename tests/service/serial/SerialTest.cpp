// The serial base on a real manager: placement, the receive buffer, the two links in both
// directions (a pseudo-terminal for the main chip, bus messages for the MCU) and the open
// thread of a tty the recorder's co-processor holds.
#include <string.h>
#include <termios.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "MainChipSerialOpt.h"
#include "Pty.h"
#include "SerialBase.h"
#include "SerialDevOperate.h"
#include "SerialFrame.h"
#include "ServiceHarness.h"

namespace {

using pmtest::Hex;
using pmtest::Pty;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

// 50 and 51 name no library: the manager creates nothing for them and a test places its own
// instance there.
constexpr unsigned kPlainId = 50;   // B19200 CS7 2bit ODD, protocol 2
constexpr unsigned kFramedId = 51;  // protocol 0: bytes go out in the extension frame

// Main-chip tty paths by position.
std::unique_ptr<ServiceHarness> Service(const std::map<int, std::string>& paths = {},
                                        const std::string& systemConfig = "{}") {
    std::string ports = R"({"NAME": "232-1", "POSITION": 0}, {"NAME": "232-2", "POSITION": 1})";
    for (const auto& [position, path] : paths) {
        ports += R"(, {"PATH": ")" + path + R"(", "POSITION": )" + std::to_string(position) + "}";
    }
    auto service = std::make_unique<ServiceHarness>(
        R"({"DEVICE_SERIAL_SETTING": [
            {"DEV_SERIAL_FUNCID": 50, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin",
             "DEV_SERIAL_BAUD_RATE": "B19200", "DEV_SERIAL_DATA_BITS": "CS7",
             "DEV_SERIAL_STOP_BIT": "2bit", "DEV_SERIAL_PARITY": "ODD"},
            {"DEV_SERIAL_FUNCID": 51, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin",
             "DEV_SERIAL_PROTOCOL_TYPE": 0}],
           "DEVICE_CANPORT_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
           "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [)" +
            ports + "]}}",
        systemConfig);
    service->Register();
    return service;
}

// A serial peripheral as a plug-in writes it, with its protected state in reach.
class TestSerial : public CSerialBase {
public:
    TestSerial(ServiceHarness& service, unsigned mainId, unsigned subId = 0)
        : CSerialBase(&service.Manager(), service.ManagerClient(), mainId, subId) {}
    ~TestSerial() override { CloseMainChipSerial(); }

    // Takes the buffer (unless told to leave it) and keeps the bytes. Buffer lock held.
    int ProcessPeripheralData() override {
        if (consume) {
            char bytes[1024];
            unsigned length = 0;
            GetSerialBufferData(bytes, length);
            ClearSerialBufferValue();
            m_received.append(bytes, length);
        }
        return 0;
    }
    std::string Received() { return Locked(m_received); }
    std::string Buffer() { return Locked(std::string(m_pBuffer, m_nBufferLength)); }
    CMainChipSerialOpt* MainChipLink() { return m_pMainChipSerialOpt; }
    bool HasMcuLink() const { return m_pMcuSerialOpt != nullptr; }

    bool consume = true;  // set before the first delivery

private:
    std::string Locked(const std::string& text) {
        LockSerialBuffer();
        std::string copy = text;
        UnlockSerialBuffer();
        return copy;
    }
    std::string m_received;
};

// ---- placement ----

TEST(SerialPlacement, LinkFollowsThePortIndex) {
    const struct {
        int port;  // -1: in no port entry
        int type;
        bool open, mcuLink, mainChipLink;
    } cases[] = {
        {3, SERIAL_LINK_MCU, true, true, false},
        {4, SERIAL_LINK_MAINCHIP, false, false, true},    // no tty configured
        {8, SERIAL_LINK_MAINCHIP_2, false, false, true},  // never opened by the base
        {-1, SERIAL_LINK_NONE, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.port);
        auto service = Service();
        ASSERT_TRUE(service->SendSetting(SerialSetting(
            {{c.port < 0 ? 4 : c.port, c.port < 0 ? uint8_t(kFramedId) : uint8_t(kPlainId)}})));
        TestSerial serial(*service, kPlainId);
        EXPECT_EQ(serial.GetSerialType(), c.type);
        EXPECT_EQ(serial.GetCurPeripOpenStatus(), c.open);
        EXPECT_EQ(serial.HasMcuLink(), c.mcuLink);
        EXPECT_EQ(serial.MainChipLink() != nullptr, c.mainChipLink);
        if (c.type == SERIAL_LINK_MCU) {  // the configured property, but never its baud
            EXPECT_TRUE(service->Logs().Contains(
                "S_BASE: Find serial prperty, mainId = 50, subId = 0, baud = -1, dataBit = 1, "
                "stopBit = 3, parity = 1, flow = 0, protocol = 2\n"));
        }
        if (c.type == SERIAL_LINK_NONE) {
            EXPECT_EQ(serial.SendDataToPeripheral("x", 1), -1);
            EXPECT_EQ(serial.OpenMainChipSerial("/dev/null", true, kMainChipOpenFlags), -1);
            EXPECT_FALSE(serial.GetCurPeripOpenStatus());
        }
    }
}

// ---- receive buffer ----

TEST(SerialBuffer, IsBoundedTo1024BytesAndToItsSize) {
    auto service = Service();
    TestSerial serial(*service, kPlainId);
    std::string pattern(1500, '\0');
    for (size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = static_cast<char>(1 + i % 251);
    }
    char out[1024];
    unsigned length = 0;
    serial.LockSerialBuffer();
    ASSERT_EQ(serial.SetSerialBufferValue(pattern.data(), 1500), 0);
    serial.GetSerialBufferData(out, length);
    const std::string first(out, length);
    serial.GetSerialBufferData(out, length);
    const std::string second(out, length);
    EXPECT_EQ(serial.SetSerialBufferValue(pattern.data(), 2048), -1);
    serial.UnlockSerialBuffer();
    EXPECT_EQ(first, pattern.substr(0, 1024));
    EXPECT_EQ(second, std::string(476, '\0')) << "the tail is kept, but zeroed";

    const std::string big(2048, 'x');
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), big.size()), -1);
    EXPECT_EQ(serial.PreProcessPeripheralData(nullptr, 10), -1);
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), 0), -1);
    // A failed read of the reader thread arrives as -1.
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), static_cast<unsigned>(-1)), -1);
    EXPECT_EQ(serial.Received(), "");

    serial.consume = false;
    serial.SetSerialMaxBufferSize(4 * 1048576);
    EXPECT_EQ(serial.GetSerialMaxBufferSize(), 1048576u);
    serial.SetSerialMaxBufferSize(512);
    ASSERT_EQ(serial.PreProcessPeripheralData(big.data(), 300), 0);
    ASSERT_EQ(serial.PreProcessPeripheralData(pattern.data(), 300), 0);
    EXPECT_EQ(serial.Buffer(), pattern.substr(0, 300)) << "a resized buffer is never overrun";
    EXPECT_EQ(serial.PreProcessPeripheralData(big.data(), 600), -1);
}

TEST(SerialBuffer, ADeliveryThatDoesNotFitDropsTheOlderBytes) {
    const struct {
        size_t first, second, kept;  // kept: bytes of the first delivery still buffered
    } cases[] = {{500, 600, 0}, {300, 724, 300}, {300, 725, 0}};
    auto service = Service();
    for (const auto& c : cases) {
        TestSerial serial(*service, kPlainId);
        serial.consume = false;
        const std::string a(c.first, 'a'), b(c.second, 'b');
        ASSERT_EQ(serial.PreProcessPeripheralData(a.data(), a.size()), 0);
        ASSERT_EQ(serial.PreProcessPeripheralData(b.data(), b.size()), 0);
        EXPECT_EQ(serial.Buffer(), std::string(c.kept, 'a') + b) << c.first << "+" << c.second;
        EXPECT_EQ(serial.GetRecvStamp().nLastRecvLength, c.second);
    }
}

TEST(SerialBuffer, ABoxStreamIsCutIntoFrames) {
    auto service = Service();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, 1}})));
    // Not the manager's box but an object under its ids: what it cuts is logged, not parsed.
    TestSerial box(*service, 1);
    const std::string dispatched =
        "S_BASE: Extend frame dropped, not a box, mainId = 1, subId = 0, length = ";
    ASSERT_EQ(box.PreProcessPeripheralData("\x11\x7E\xAA\x7F\x7E\xBB", 6), 0);
    EXPECT_EQ(service->Logs().Count(dispatched + "3\n"), 1u);
    EXPECT_EQ(box.Buffer(), "\x7E\xBB");
    EXPECT_EQ(box.Received(), "") << "frames never reach ProcessPeripheralData";
    ASSERT_EQ(box.PreProcessPeripheralData("\xCC\x7F", 2), 0);
    EXPECT_EQ(service->Logs().Count(dispatched + "4\n"), 1u);
    EXPECT_EQ(box.Buffer(), "");

    // A frame that never ends is dropped before it overruns the buffer.
    const std::string open = "\x7E" + std::string(1500, 'x');
    const std::string more = std::string(1000, 'y') + "\x7E\x01";
    ASSERT_EQ(box.PreProcessPeripheralData(open.data(), open.size()), 0);
    ASSERT_EQ(box.PreProcessPeripheralData(more.data(), more.size()), 0);
    EXPECT_TRUE(service->Logs().Contains(
        "S_BASE: Extend data overflow, drop pending bytes, buffer_length = 1501, "
        "rev_length = 1002\n"));
    EXPECT_EQ(box.Buffer(), "\x7E\x01");
}

TEST(SerialFrame, ProtocolZeroFrameStuffsItsCheckValueAndFitsItsBuffer) {
    unsigned char out[14];
    const unsigned char data[] = {0x09, 0x7F};
    const int n = BuildExtendDataFrame(0x85, data, sizeof(data), out, sizeof(out));
    EXPECT_EQ(Hex(std::string(reinterpret_cast<char*>(out), n > 0 ? n : 0)),
              "7E 85 09 7D 5F 7D 5F 7F");  // seven address bits; the check value 7F stuffed
    const unsigned char marks[5] = {0x7E, 0x7E, 0x7E, 0x7E, 0x7E};  // stuffed to 14 bytes
    EXPECT_EQ(BuildExtendDataFrame(0, marks, sizeof(marks), out, sizeof(out)), 14);
    EXPECT_EQ(BuildExtendDataFrame(0, marks, sizeof(marks), out, sizeof(out) - 1), -1);
}

// ---- main-chip tty ----
TEST(MainChipSerial, BytesTravelBothWaysAndSettingsReachTheTty) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    auto service = Service({{4, tty.SlavePath()}});
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
    TestSerial serial(*service, kPlainId);
    ASSERT_TRUE(serial.GetCurPeripOpenStatus());
    ASSERT_TRUE(tty.Send("$GPGGA,1"));  // waits in the kernel until the instance is whole
    ASSERT_EQ(serial.Initialize(), 0);
    ASSERT_TRUE(tty.Send("23\r\n"));
    EXPECT_TRUE(WaitUntil([&] { return serial.Received() == "$GPGGA,123\r\n"; }));

    EXPECT_EQ(serial.SendDataToPeripheral("\x7E\x01\x7F", 3), 1);
    EXPECT_EQ(tty.Receive(3), "\x7E\x01\x7F");
    const std::string big(1500, 'z');
    EXPECT_EQ(serial.SendDataToPeripheral(big.data(), big.size()), 1);
    EXPECT_EQ(tty.Receive(1500, std::chrono::milliseconds(500)), std::string(1024, 'z'));

    EXPECT_EQ(
        serial.SetMainChipSerialProperty(SERIAL_PROPERTY_ALL, SERIAL_BAUD_57600, SERIAL_DATA_BIT_8,
                                         SERIAL_STOP_BIT_2, SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
        1);
    struct termios tio;
    ASSERT_EQ(tcgetattr(tty.Master(), &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_NE(tio.c_cflag & CSTOPB, 0u);
    // A rate the main chip cannot do is refused by the device layer.
    EXPECT_EQ(serial.SetMainChipSerialProperty(SERIAL_PROPERTY_SPEED, SERIAL_BAUD_56000,
                                               SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                               SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              -1);
}

// A port opened while the reader sits in select on the others is served at once: opening it
// wakes the reader, which would otherwise wait for its time-out (stretched here to a minute).
TEST(MainChipSerial, APortOpenedWhileTheReaderWaitsIsServedAtOnce) {
    CSerialDevOperate::SetReaderTimeoutForTest(60000);
    Pty first;
    Pty second;
    ASSERT_TRUE(first.MakeRaw());
    ASSERT_TRUE(second.MakeRaw());
    auto service = Service({{4, first.SlavePath()}, {5, second.SlavePath()}});
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}, {5, kPlainId, 1}})));
    TestSerial early(*service, kPlainId);
    ASSERT_EQ(early.Initialize(), 0);
    ASSERT_TRUE(first.Send("a"));
    ASSERT_TRUE(WaitUntil([&] { return early.Received() == "a"; }));  // the reader is in select

    TestSerial late(*service, kPlainId, 1);
    ASSERT_TRUE(late.GetCurPeripOpenStatus());
    ASSERT_EQ(late.Initialize(), 0);
    ASSERT_TRUE(second.Send("b"));
    EXPECT_TRUE(WaitUntil([&] { return late.Received() == "b"; }, std::chrono::seconds(10)));
    ASSERT_TRUE(first.Send("c"));
    EXPECT_TRUE(WaitUntil([&] { return early.Received() == "ac"; }, std::chrono::seconds(10)));
    CSerialDevOperate::SetReaderTimeoutForTest(1000);
}

TEST(MainChipSerial, ProtocolZeroBytesGoOutFramed) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    auto service = Service({{4, tty.SlavePath()}});
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kFramedId}})));
    TestSerial serial(*service, kFramedId);
    // Device byte 05, then 7E 01 7D: check value 7E ^ 01 ^ 7D = 02.
    EXPECT_EQ(serial.SendDataToPeripheral("\x05\x7E\x01\x7D", 4), 1);
    EXPECT_EQ(Hex(tty.Receive(10)), "7E 80 05 02 7D 5E 01 7D 5D 7F");
    EXPECT_EQ(serial.SendDataToPeripheral("", 0), -1);
}

// ---- what plug-ins do that the base must survive ----

// A plug-in may resize its buffer from its own delivery, where the lock is already held.
TEST(SerialBuffer, APlugInMayResizeItsBufferFromItsDelivery) {
    class Resizing : public TestSerial {
    public:
        using TestSerial::TestSerial;
        int ProcessPeripheralData() override {
            SetSerialMaxBufferSize(4096);
            return TestSerial::ProcessPeripheralData();
        }
    };
    auto service = Service();
    Resizing serial(*service, kPlainId);
    std::atomic<bool> done{false};
    std::thread delivery([&] {
        serial.PreProcessPeripheralData("abc", 3);
        done = true;
    });
    if (!WaitUntil([&] { return done.load(); })) {
        ADD_FAILURE() << "the delivery deadlocked on its own buffer lock";
        delivery.detach();
        std::_Exit(1);
    }
    delivery.join();
    EXPECT_EQ(serial.Received(), "abc");
    EXPECT_EQ(serial.GetSerialMaxBufferSize(), 4096u);

    // In a grown buffer the kept tail overlaps its new place: still zeros, never a bad copy.
    const std::string pattern(3000, 'p');
    char out[1024];
    unsigned length = 0;
    serial.LockSerialBuffer();
    ASSERT_EQ(serial.SetSerialBufferValue(pattern.data(), 3000), 0);
    serial.GetSerialBufferData(out, length);
    serial.UnlockSerialBuffer();
    EXPECT_EQ(serial.Buffer(), std::string(1976, '\0'));
}

// Bytes that wait on the tty reach the plug-in only once it is whole, not while its
// constructor still runs.
TEST(MainChipSerial, NothingIsDeliveredBeforeInitialize) {
    class SlowlyBuilt : public TestSerial {
    public:
        SlowlyBuilt(ServiceHarness& service, unsigned mainId) : TestSerial(service, mainId) {
            // The reader has every chance to deliver meanwhile (it rescans its ports at least
            // once a second), and must not.
            WaitUntil([&] { return early.load(); }, std::chrono::milliseconds(1500));
            whole = true;
        }
        int ProcessPeripheralData() override {
            early = early || !whole;
            return TestSerial::ProcessPeripheralData();
        }
        std::atomic<bool> whole{false};
        std::atomic<bool> early{false};
    };
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    auto service = Service({{4, tty.SlavePath()}});
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
    ASSERT_TRUE(tty.Send("waiting"));
    SlowlyBuilt serial(*service, kPlainId);
    ASSERT_EQ(serial.Initialize(), 0);
    EXPECT_TRUE(WaitUntil([&] { return serial.Received() == "waiting"; }));
    EXPECT_FALSE(serial.early.load());
}

// A second open fails without losing the port already open, and the port goes with its
// instance: nothing is left in the table to deliver to freed memory.
TEST(MainChipSerial, AFailedReopenKeepsThePortAndItGoesWithTheInstance) {
    Pty tty, other;
    auto service = Service({{4, tty.SlavePath()}});
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
    auto serial = std::make_unique<TestSerial>(*service, kPlainId);
    const int fd = serial->MainChipLink()->GetSerialFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(serial->OpenMainChipSerial(other.SlavePath(), true, kMainChipOpenFlags), -3);
    EXPECT_EQ(serial->MainChipLink()->GetSerialFd(), fd);
    EXPECT_TRUE(serial->GetCurPeripOpenStatus());
    EXPECT_TRUE(
        service->Logs().Contains("MainChip_Opt: Open failed (-3), keep the open "
                                 "m_nSerialFd = " +
                                 std::to_string(fd)));
    serial.reset();
    CSerialDevOperate* layer = service->Manager().GetSerialDevOperatePtr();
    EXPECT_FALSE(layer->serial_is_open(fd));
    EXPECT_EQ(layer->serial_check_perip_open(kPlainId, 0), -1);
}

// An independent instance deleted without StopPeripheralThread (as a careless releaser does)
// while its thread delivers: the base waits for the thread before it frees anything.
TEST(McuSerial, AnIndependentInstanceIsNotFreedUnderItsOwnThread) {
#if defined(__SANITIZE_THREAD__)
    // Its destructors rewrite the object's vtable pointer while the thread still reads it for
    // its next call: a race by construction, which only StopPeripheralThread before the delete
    // avoids. What the base guarantees (no use of freed memory) AddressSanitizer checks.
    GTEST_SKIP() << "races on the vtable by construction";
#endif
    class Slow : public CSerialBase {
    public:
        Slow(CPeripheralManage* manage, unsigned mainId)
            : CSerialBase(manage, nullptr, mainId, 0) {}
        int ProcessPeripheralData() override {
            inDelivery = true;
            WaitUntil([&] { return deleting.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the delete goes on
            char out[1024];
            unsigned length = 0;
            GetSerialBufferData(out, length);
            return 0;
        }
        std::atomic<bool> inDelivery{false};
        std::atomic<bool> deleting{false};
    };
    auto service = Service();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{2, kPlainId}})));
    Slow* serial = new Slow(&service->Manager(), kPlainId);
    ASSERT_EQ(serial->Initialize(), 0);
    std::string payload(
        "\x32\x00\x00\x00\x03\x00\x00\x00"
        "abc",
        11);
    ASSERT_TRUE(WaitUntil([&] {
        service->Send(1090, payload.data(), payload.size());  // until its thread listens
        return WaitUntil([&] { return serial->inDelivery.load(); }, std::chrono::milliseconds(50));
    }));
    serial->deleting = true;
    delete serial;  // a sanitizer sees any touch of freed memory by the thread
}

// ---- MCU port ----
TEST(McuSerial, BytesAndSettingsGoOutAsMessages) {
    auto service = Service();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{0, kPlainId, 3}})));
    service->Watch(1088);
    service->Watch(6735);
    TestSerial serial(*service, kPlainId, 3);
    ASSERT_EQ(serial.GetSerialType(), SERIAL_LINK_MCU);
    EXPECT_EQ(serial.SendDataToPeripheral("\x01\x02\x03", 3), 0);
    ASSERT_TRUE(service->WaitCount(1088, 1));
    const auto data = service->Received(1088)[0];
    EXPECT_EQ(data.head.nSenderId, 15003u);  // (0 + 1) * 10000 + 50 * 100 + 3
    EXPECT_EQ(Hex(data.payload), "32 00 03 00 03 00 00 00 01 02 03");

    // Stop bits 0, 1, 2, 3 and anything else map to the MCU's 1, 0, 2, 3 and 1.
    const uint8_t codes[] = {1, 0, 2, 3, 1};
    for (int stopBit : {0, 1, 2, 3, 7}) {
        EXPECT_EQ(serial.SetMainChipSerialProperty(0x1F, SERIAL_BAUD_38400, SERIAL_DATA_BIT_7,
                                                   static_cast<SerialStopBitMode>(stopBit),
                                                   SERIAL_PARITY_EVEN, SERIAL_FLOW_NONE),
                  -1)
            << "even though it was sent";
    }
    ASSERT_TRUE(service->WaitCount(6735, 5));
    for (int i = 0; i < 5; ++i) {
        char expected[64];
        snprintf(expected, sizeof(expected), "32 03 1F 03 01 %02X 02 00 00 00 00 00 00 00 00 00",
                 codes[i]);
        EXPECT_EQ(Hex(service->Received(6735)[i].payload), expected) << i;
    }
}

TEST(McuSerial, ReceivedBytesReachOnlyTheirOwnerBoundedToWhatArrived) {
    auto service = Service();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{2, kPlainId}})));
    TestSerial serial(*service, kPlainId);
    // Event 1090: main id, sub id, a length field, the bytes.
    auto deliver = [&](uint16_t mainId, uint16_t subId, uint32_t length, const std::string& data) {
        std::string payload(8, '\0');
        memcpy(&payload[0], &mainId, 2);
        memcpy(&payload[2], &subId, 2);
        memcpy(&payload[4], &length, 4);
        payload += data;
        const size_t before = service->Logs().Count("MCU_OPT: [RECV] mainId = ");
        service->Send(1090, payload.data(), payload.size());
        return service->Pump(
            [&] { return service->Logs().Count("MCU_OPT: [RECV] mainId = ") > before; });
    };
    ASSERT_TRUE(deliver(kPlainId + 1, 0, 3, "abc"));
    ASSERT_TRUE(deliver(kPlainId, 1, 3, "abc"));
    EXPECT_EQ(serial.Received(), "");
    ASSERT_TRUE(deliver(kPlainId, 0, 5000, "0123456789"));
    EXPECT_EQ(serial.Received(), "0123456789");
    EXPECT_TRUE(service->Logs().Contains(
        "MCU_OPT: [RECV] data length bounded, mainId = 50, subTd = 0, length = 5000, "
        "received = 10, keep = 10\n"));
    ASSERT_TRUE(deliver(kPlainId, 0, 1500, std::string(1500, 'q')));
    EXPECT_EQ(serial.Received(), "0123456789" + std::string(1024, 'q'));
}

// ---- the open thread of a tty the co-processor holds ----
// Product 6 shares /dev/ttyAMA1 with the device-management module. The tty does not exist here,
// so the open itself fails; what the test watches is the wait and the release.
class OpenThread : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service->SendSetting(SerialSetting({{4, kPlainId}})));
        serial = std::make_unique<TestSerial>(*service, kPlainId);
        ASSERT_EQ(serial->GetMainChipType(), 1u);
        ASSERT_FALSE(serial->GetCurPeripOpenStatus());  // the first open failed
        ASSERT_EQ(serial->MainChipLink()->StartOpenThread("/dev/ttyAMA1"), 0);
        ASSERT_TRUE(WaitUntil([&] { return Waits() >= 1; }));
    }
    size_t Waits() const {
        return service->Logs().Count(
            "MainChip_Opt: Serial[/dev/ttyAMA1] is occupy, please wait device release......\n");
    }

    std::unique_ptr<ServiceHarness> service =
        Service({{4, "/dev/ttyAMA1"}}, R"({"PRODUCT_TYPE": 6})");
    std::unique_ptr<TestSerial> serial;
};

TEST_F(OpenThread, WaitsForTheReleaseThenOpensAndClosingBroadcastsIt) {
    CMainChipSerialOpt* link = serial->MainChipLink();
    ASSERT_TRUE(WaitUntil([&] { return Waits() >= 2; }));  // a second look after 1 s
    EXPECT_FALSE(serial->GetCurPeripOpenStatus());
    char release[28] = "/dev/ttyAMA1";
    service->Send(1151, release, sizeof(release));
    ASSERT_TRUE(service->Pump([&] { return !link->IsOpenThreadActive(); }));
    EXPECT_TRUE(service->Logs().Contains(
        "MainChip_Opt: DeviceManage relsease Serial[/dev/ttyAMA1], open result,  m_nSerialFd = "
        "-2\n"));
    // Open although the open failed: the plug-in's cycle runs and may try again.
    EXPECT_TRUE(serial->GetCurPeripOpenStatus());

    service->Watch(6724);
    EXPECT_EQ(serial->CloseMainChipSerial(), 0);
    ASSERT_TRUE(service->WaitCount(6724, 1));
    EXPECT_EQ(service->Received(6724)[0].payload,
              std::vector<uint8_t>(release, release + sizeof(release)));
}

TEST_F(OpenThread, EndsWithoutOpeningWhenTheInstanceGoes) {
    serial.reset();  // waits for the thread; a sanitizer sees any late touch
    EXPECT_FALSE(service->Logs().Contains("MainChip_Opt: DeviceManage relsease Serial"));
}

}  // namespace
