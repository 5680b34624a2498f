// The Ethernet base and the TCP sample plug-in: the plug-in is loaded by the manager when the
// Ethernet setting names it and connects to a listener of the test.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ostream>
#include <string>

#include "EthernetBase.h"
#include "ServiceHarness.h"
#include "TcpPeer.h"

using cantest::kEthernetMainId;
using cantest::ServiceHarness;

namespace {

// ---- pure helpers -------------------------------------------------------------------------

TEST(TcpPeerTest, FindsTheEntryByEightBitIds) {
    paramPeripheralEtherNet_t setting{};
    setting.entry[1].mainFun = 20;
    setting.entry[1].subFun = 1;
    strcpy(setting.entry[1].ip, "10.0.0.1");
    setting.entry[2].mainFun = 20;
    setting.entry[2].subFun = 0;
    memcpy(setting.entry[2].ip, "192.168.100.200X", 16);  // fills the field, no NUL
    const uint8_t port[2] = {0x90, 0x1F};                 // 8080, little-endian
    memcpy(&setting.entry[2].port, port, 2);

    TcpPeer peer{"", 0};
    ASSERT_TRUE(FindTcpPeer(setting, 20, 0, peer));
    EXPECT_EQ("192.168.100.200X", peer.ip);
    EXPECT_EQ(8080, peer.port);
    ASSERT_TRUE(FindTcpPeer(setting, 20, 1, peer));
    EXPECT_EQ("10.0.0.1", peer.ip);
    EXPECT_FALSE(FindTcpPeer(setting, 20, 2, peer));
    EXPECT_FALSE(FindTcpPeer(setting, 20 + 256, 0, peer));
}

struct BackoffCase {
    unsigned int current, min, max, next;
};

void PrintTo(const BackoffCase& c, std::ostream* os) {
    *os << c.current << " in [" << c.min << ", " << c.max << "]";
}

class BackoffTest : public ::testing::TestWithParam<BackoffCase> {};

TEST_P(BackoffTest, DoublesWithinLimits) {
    const BackoffCase& c = GetParam();
    EXPECT_EQ(c.next, NextBackoff(c.current, c.min, c.max));
}

INSTANTIATE_TEST_SUITE_P(Cases, BackoffTest,
                         ::testing::Values(BackoffCase{1000, 1000, 30000, 2000},
                                           BackoffCase{16000, 1000, 30000, 30000},
                                           BackoffCase{30000, 1000, 30000, 30000},
                                           BackoffCase{0, 1000, 30000, 1000},
                                           BackoffCase{4000000000u, 1000, 30000, 30000}),
                         [](const ::testing::TestParamInfo<BackoffCase>& info) {
                             return "From" + std::to_string(info.param.current);
                         });

// ---- the base -----------------------------------------------------------------------------

class TestEthernet : public CEthernetBase {
public:
    using CEthernetBase::CEthernetBase;
    int PeripheralThreadCycle(long long) override { return ++cycles; }
    int ProcessPeripheralData() override { return ++received; }
    int cycles = 0;
    int received = 0;
};

TEST(EthernetBaseTest, NeverCyclesUntilOpened) {
    ServiceHarness harness;
    TestEthernet eth(&harness.Manager(), harness.ManagerClient(), 33, 1);
    EXPECT_EQ(30000u + 3300u + 1u, eth.GetMsgId());
    for (long long now = 0; now <= 100000; now += 250) {
        eth.SharedThreadCycle(now);
    }
    EXPECT_EQ(0, eth.cycles);
    eth.SetCurPeripOpenStatus(true);
    EXPECT_EQ(1, eth.SharedThreadCycle(200000));
    EXPECT_EQ(1, eth.cycles);
}

TEST(EthernetBaseTest, ReceivedDataOnlyTriggersTheHook) {
    ServiceHarness harness;
    TestEthernet eth(&harness.Manager(), harness.ManagerClient(), 33, 1);
    EXPECT_EQ(0, eth.PreProcessPeripheralData("hello", 5));
    EXPECT_EQ(1, eth.received);
    EXPECT_TRUE(
        harness.Logs().Contains("E_BASE: Data receive, mainId = 33, subId = 1, rev_length = 5\n"));
    EXPECT_EQ(0, eth.SendDataToPeripheral("x", 1));
}

// ---- the TCP plug-in ----------------------------------------------------------------------

// A listening socket on 127.0.0.1; the port stays the same across Reopen().
class Listener {
public:
    Listener() { Open(0); }
    ~Listener() {
        CloseClient();
        Close();
    }
    uint16_t Port() const { return m_port; }
    void Reopen() { Open(m_port); }
    void Close() {
        if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    void CloseClient() {
        if (m_client >= 0) {
            close(m_client);
            m_client = -1;
        }
    }
    // Accepts one connection within the time-out.
    bool Accept(int timeoutMs = 5000) {
        pollfd pfd{m_fd, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) != 1) {
            return false;
        }
        m_client = accept(m_fd, nullptr, nullptr);
        return m_client >= 0;
    }
    int Client() const { return m_client; }

private:
    void Open(uint16_t port) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(m_fd, 4) != 0) {
            throw std::runtime_error(std::string("listener: ") + strerror(errno));
        }
        socklen_t len = sizeof(addr);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
    }

    int m_fd = -1;
    int m_client = -1;
    uint16_t m_port = 0;
};

std::string ReadLine(int fd, int timeoutMs = 5000) {
    std::string line;
    char c;
    while (line.empty() || line.back() != '\n') {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) != 1 || read(fd, &c, 1) != 1) {
            break;
        }
        line += c;
    }
    return line;
}

class EthernetPluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(harness.SendEthernetSetting(SettingFor(listener.Port())));
        plugin =
            harness.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kEthernetMainId, 0);
        ASSERT_NE(nullptr, plugin);
    }

    static paramPeripheralEtherNet_t SettingFor(uint16_t port) {
        paramPeripheralEtherNet_t setting{};
        setting.entry[3].mainFun = kEthernetMainId;
        strcpy(setting.entry[3].ip, "127.0.0.1");
        const uint8_t le[2] = {static_cast<uint8_t>(port), static_cast<uint8_t>(port >> 8)};
        memcpy(&setting.entry[3].port, le, 2);
        return setting;
    }

    pmtest::ScopedEnv backoffMin{"ETH_TCP_BACKOFF_MIN_MS", "20"};
    pmtest::ScopedEnv backoffMax{"ETH_TCP_BACKOFF_MAX_MS", "160"};
    Listener listener;
    ServiceHarness harness;
    CPeripheralBase* plugin = nullptr;
};

TEST_F(EthernetPluginTest, ConnectsAndOpens) {
    ASSERT_TRUE(listener.Accept());
    EXPECT_TRUE(pmtest::WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));
    EXPECT_TRUE(harness.Logs().WaitFor("ETH_TCP: [20-0] connected to 127.0.0.1:" +
                                       std::to_string(listener.Port())));

    // Open, it is stepped: the heartbeat reaches the peer.
    harness.Manager().PhmThreadCycle(5000);
    EXPECT_EQ("HEARTBEAT 1\n", ReadLine(listener.Client()));

    ASSERT_EQ(5, write(listener.Client(), "hello", 5));
    EXPECT_TRUE(
        harness.Logs().WaitFor("E_BASE: Data receive, mainId = 20, subId = 0, rev_length = 5\n"));
}

TEST_F(EthernetPluginTest, ReconnectsAfterThePeerComesBack) {
    ASSERT_TRUE(listener.Accept());
    ASSERT_TRUE(pmtest::WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));

    listener.CloseClient();
    listener.Close();
    EXPECT_TRUE(pmtest::WaitUntil([&] { return !plugin->GetCurPeripOpenStatus(); }));
    EXPECT_TRUE(harness.Logs().WaitFor(
        "disconnected from 127.0.0.1:" + std::to_string(listener.Port()) + ": closed by peer"));
    // With nobody listening the attempts fail with the system's reason.
    EXPECT_TRUE(harness.Logs().WaitFor("failed: Connection refused"));
    EXPECT_FALSE(plugin->GetCurPeripOpenStatus());

    listener.Reopen();
    ASSERT_TRUE(listener.Accept());
    EXPECT_TRUE(pmtest::WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));
    EXPECT_EQ(2u, harness.Logs().Count("ETH_TCP: [20-0] connected to 127.0.0.1:"));
}

// The manager tells nobody when only the address changes; the plug-in follows the setting's
// change event itself.
TEST_F(EthernetPluginTest, FollowsThePeerToItsNewPort) {
    ASSERT_TRUE(listener.Accept());
    Listener moved;
    ASSERT_TRUE(harness.SendEthernetSetting(SettingFor(moved.Port())));
    EXPECT_EQ(plugin, harness.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_ETHERNET,
                                                              kEthernetMainId, 0));
    ASSERT_TRUE(moved.Accept());
    EXPECT_TRUE(harness.Logs().WaitFor("ETH_TCP: [20-0] connected to 127.0.0.1:" +
                                       std::to_string(moved.Port())));
}

TEST_F(EthernetPluginTest, ReleaseEndsTheConnection) {
    ASSERT_TRUE(listener.Accept());
    ASSERT_TRUE(pmtest::WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));
    ASSERT_EQ(0, harness.Manager().RemovePeripheralInstance(PERIPHERAL_TYPE_ETHERNET,
                                                            kEthernetMainId, 0));
    char c;
    pollfd pfd{listener.Client(), POLLIN, 0};
    ASSERT_EQ(1, poll(&pfd, 1, 5000));
    EXPECT_EQ(0, read(listener.Client(), &c, 1));  // end of stream
}

}  // namespace
