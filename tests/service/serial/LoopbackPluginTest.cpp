// The factory loopback tester: its frames, then the plug-in against a tty that echoes.
#include <termios.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "CommonTime.h"
#include "LoopbackPattern.h"
#include "LoopbackTest.h"
#include "Pty.h"
#include "SerialHarness.h"

namespace sertest {
namespace {

using loopback::CheckEcho;
using loopback::EchoResult;
using pmtest::Pty;
using pmtest::WaitUntil;

std::string Bytes(const loopback::Frame& frame) {
    return std::string(reinterpret_cast<const char*>(frame.data()), frame.size());
}

// ---- frames ----

TEST(LoopbackFrame, CarriesTheSequenceAndItsPattern) {
    EXPECT_EQ(Hex(Bytes(loopback::BuildFrame(1))),
              "4C 42 00 00 00 01 10 10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D 1E 1F 11");
    std::set<uint8_t> seen;
    for (uint32_t sequence = 0; sequence < 16; ++sequence) {
        loopback::Frame frame = loopback::BuildFrame(sequence);
        seen.insert(frame.begin() + 7, frame.begin() + 23);
    }
    EXPECT_EQ(seen.size(), 256u);  // every byte value crosses the line
}

struct EchoCase {
    const char* what;
    uint32_t sent;
    int flipIndex;  // byte of the echo to damage, -1 none
    uint8_t mask;   // applied to every byte of the echo
    uint32_t echoed;
    EchoResult result;
};

std::ostream& operator<<(std::ostream& out, const EchoCase& c) {
    return out << c.what;
}

const EchoCase kEchoCases[] = {
    {"the frame itself", 7, -1, 0xFF, 7, EchoResult::kMatch},
    {"a late echo of the frame before", 7, -1, 0xFF, 6, EchoResult::kWrongSequence},
    {"a payload bit flipped", 7, 12, 0xFF, 7, EchoResult::kCorrupt},
    {"the check byte flipped", 7, 23, 0xFF, 7, EchoResult::kCorrupt},
    {"a line that drops the eighth bit", 8, -1, 0x7F, 8, EchoResult::kCorrupt},
};

class LoopbackEcho : public ::testing::TestWithParam<EchoCase> {};

TEST_P(LoopbackEcho, IsJudged) {
    const EchoCase& c = GetParam();
    loopback::Frame echo = loopback::BuildFrame(c.echoed);
    for (uint8_t& b : echo) {
        b &= c.mask;
    }
    if (c.flipIndex >= 0) {
        echo[c.flipIndex] ^= 0x04;
    }
    EXPECT_EQ(CheckEcho(echo.data(), c.sent), c.result) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Echoes, LoopbackEcho, ::testing::ValuesIn(kEchoCases));

// ---- the tester on a tty ----

class LoopbackTester : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_tty.MakeRaw());
        m_service =
            std::make_unique<SerialHarness>(std::map<int, std::string>{{6, m_tty.SlavePath()}});
        ASSERT_TRUE(m_service->SendSerialSetting(SerialSetting({{6, kPlainId}})));
        // An id without library: the manager leaves the port to this instance.
        m_tester = std::make_unique<CLoopbackTest>(&m_service->Manager(),
                                                   m_service->ManagerClient(), kPlainId, 0);
        ASSERT_TRUE(m_tester->GetCurPeripOpenStatus());
    }
    void TearDown() override {
        m_tester.reset();
        m_service.reset();
    }

    // One cycle at `now`; returns the frame that went out, empty when none did.
    std::string Cycle(long long now) {
        m_tester->PeripheralThreadCycle(now);
        return m_tty.Receive(loopback::kFrameSize, std::chrono::milliseconds(200));
    }
    LoopbackCounters Counters() { return m_tester->GetLoopbackCounters(); }

    Pty m_tty;
    std::unique_ptr<SerialHarness> m_service;
    std::unique_ptr<CLoopbackTest> m_tester;
};

TEST_F(LoopbackTester, CountsEchoesWrongEchoesAndTimeouts) {
    long long now = 1000;
    for (uint32_t i = 1; i <= 3; ++i) {
        std::string frame = Cycle(now += 100);
        ASSERT_EQ(frame, Bytes(loopback::BuildFrame(i)));
        ASSERT_TRUE(m_tty.Send(frame.substr(0, 5)));  // echoes may come in pieces
        ASSERT_TRUE(m_tty.Send(frame.substr(5)));
        ASSERT_TRUE(WaitUntil([&] { return Counters().ok == i; }));
    }

    std::string frame = Cycle(now += 100);
    frame[10] ^= 0x01;
    ASSERT_TRUE(m_tty.Send(frame));
    ASSERT_TRUE(WaitUntil([&] { return Counters().wrong == 1; }));
    EXPECT_EQ(Cycle(now += 100), "");  // still waiting for the right echo
    std::string next = Cycle(now += CLoopbackTest::kDefaultEchoTimeoutMs);
    EXPECT_EQ(next, Bytes(loopback::BuildFrame(5)));
    EXPECT_EQ(Counters().timeouts, 1u);

    ASSERT_TRUE(m_tty.Send(next + "xyz"));  // the echo and three bytes nobody sent
    ASSERT_TRUE(WaitUntil([&] { return Counters().wrong == 2; }));
    LoopbackCounters c = Counters();
    EXPECT_EQ(c.sent, 5u);
    EXPECT_EQ(c.ok, 4u);
    EXPECT_EQ(c.sendErrors, 0u);
}

// ---- loaded by the manager ----

// Echoes whatever the service writes, like a loopback plug on the port.
class Echo {
public:
    explicit Echo(Pty& tty) : m_tty(tty), m_thread([this] { Run(); }) {}
    ~Echo() {
        m_stop = true;
        m_thread.join();
    }

private:
    void Run() {
        while (!m_stop) {
            std::string bytes = m_tty.Receive(64, std::chrono::milliseconds(20));
            if (!bytes.empty()) {
                m_tty.Send(bytes);
            }
        }
    }
    Pty& m_tty;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

TEST(LoopbackPlugin, StepsThroughTheManagerAndReports) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    SerialHarness service({{4, tty.SlavePath()}});
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, 36, 0, SERIAL_BAUD_115200}})));
    ASSERT_NE(service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 36, 0), nullptr);

    Echo echo(tty);
    const char* summary =
        "LOOPBACK: summary, mainId = 36, subId = 0, sent = 10, ok = 9, wrong = 0, timeout = 0, "
        "send_error = 0\n";
    EXPECT_TRUE(service.Pump(
        [&] {
            service.Manager().PhmThreadCycle(Common::Q7R_TMGetSystemMicroSecond());
            return service.Logs().Contains(summary);
        },
        std::chrono::seconds(10)));
}

TEST(LoopbackPlugin, TheRecordersBaudWinsOverThePluginsOwn) {
    Pty tty;
    ASSERT_TRUE(tty.MakeRaw());
    SerialHarness service({{4, tty.SlavePath()}});
    auto speed = [&] {
        struct termios tio;
        tcgetattr(tty.Master(), &tio);
        return cfgetospeed(&tio);
    };
    // The plug-in sets 115200 in PeripheralInitialize; the manager then hands every new
    // instance the rate of its entry.
    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kLoopbackId, 0, SERIAL_BAUD_19200}})));
    EXPECT_TRUE(service.Logs().Contains("LOOPBACK: line set to 115200 baud, mainId = 34"));
    EXPECT_EQ(speed(), static_cast<speed_t>(B19200));

    ASSERT_TRUE(service.SendSerialSetting(SerialSetting({{4, kLoopbackId, 0, SERIAL_BAUD_57600}})));
    EXPECT_EQ(speed(), static_cast<speed_t>(B57600));
    CSerialBase* instance = dynamic_cast<CSerialBase*>(
        service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, kLoopbackId, 0));
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(instance->GetSerialProperty().baud, static_cast<uint32_t>(SERIAL_BAUD_57600));
}

}  // namespace
}  // namespace sertest
