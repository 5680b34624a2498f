// The TCP sample plug-in: the manager loads it when the Ethernet setting names it, and it
// connects to a listener of the test.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "ServiceHarness.h"
#include "TcpPeer.h"

namespace {

using pmtest::ServiceHarness;
using pmtest::WaitUntil;

constexpr unsigned kTcpId = 20;
const char* const kConfig = R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
  "DEVICE_ETHERNET_SETTING": [{"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "eth_tcp_client",
                               "DEV_ETHERNET_SUPPORT_ENABLE": "true"}]})";

TEST(TcpPeerTest, FindsTheEntryByEightBitIdsAndBoundsTheAddress) {
    paramPeripheralEtherNet_t setting{};
    setting.entry[1].mainFun = 20;
    setting.entry[1].subFun = 1;
    strcpy(setting.entry[1].ip, "10.0.0.1");
    setting.entry[2].mainFun = 20;
    memcpy(setting.entry[2].ip, "192.168.100.200X", 16);  // fills the field, no NUL
    const uint8_t port[2] = {0x90, 0x1F};                 // 8080, little-endian
    memcpy(&setting.entry[2].port, port, 2);
    TcpPeer peer{"", 0};
    ASSERT_TRUE(FindTcpPeer(setting, 20, 0, peer));
    EXPECT_EQ(peer.ip, "192.168.100.200X");
    EXPECT_EQ(peer.port, 8080);
    ASSERT_TRUE(FindTcpPeer(setting, 20, 1, peer));
    EXPECT_EQ(peer.ip, "10.0.0.1");
    EXPECT_FALSE(FindTcpPeer(setting, 20 + 256, 0, peer));
    EXPECT_EQ(NextBackoff(16000, 1000, 30000), 30000u);
    EXPECT_EQ(NextBackoff(4000000000u, 1000, 30000), 30000u);
}

// A listening socket on 127.0.0.1, on the same port each time it is opened.
class Listener {
public:
    Listener() { Open(); }
    ~Listener() { Close(); }
    uint16_t Port() const { return m_port; }
    void Open() {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(m_port);
        socklen_t len = sizeof(addr);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(m_fd, 4) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            throw std::runtime_error(std::string("listener: ") + strerror(errno));
        }
        m_port = ntohs(addr.sin_port);
    }
    // Closes the connection and stops listening.
    void Close() {
        for (int* fd : {&m_client, &m_fd}) {
            if (*fd >= 0) {
                close(*fd);
                *fd = -1;
            }
        }
    }
    bool Accept() {
        pollfd pfd{m_fd, POLLIN, 0};
        m_client = poll(&pfd, 1, 5000) == 1 ? accept(m_fd, nullptr, nullptr) : -1;
        return m_client >= 0;
    }
    // Waits for the next byte from the client: true with it, false at end of stream.
    bool Read(char& c) {
        pollfd pfd{m_client, POLLIN, 0};
        return poll(&pfd, 1, 5000) == 1 && read(m_client, &c, 1) == 1;
    }
    int Client() const { return m_client; }

private:
    int m_fd = -1;
    int m_client = -1;
    uint16_t m_port = 0;
};

class TcpPluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        service.Register();
        ASSERT_TRUE(service.SendSetting(SettingFor(listener.Port())));
        plugin = service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kTcpId, 0);
        ASSERT_NE(plugin, nullptr);
        ASSERT_TRUE(listener.Accept());
        ASSERT_TRUE(WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));
    }
    static paramPeripheralEtherNet_t SettingFor(uint16_t port) {
        paramPeripheralEtherNet_t setting{};
        setting.entry[3].mainFun = kTcpId;
        strcpy(setting.entry[3].ip, "127.0.0.1");
        const uint8_t le[2] = {static_cast<uint8_t>(port), static_cast<uint8_t>(port >> 8)};
        memcpy(&setting.entry[3].port, le, 2);
        return setting;
    }
    std::string Connected(uint16_t port) {
        return "ETH_TCP: [20-0] connected to 127.0.0.1:" + std::to_string(port);
    }

    pmtest::ScopedEnv backoffMin{"ETH_TCP_BACKOFF_MIN_MS", "20"};
    pmtest::ScopedEnv backoffMax{"ETH_TCP_BACKOFF_MAX_MS", "160"};
    Listener listener;
    ServiceHarness service{kConfig};
    CPeripheralBase* plugin = nullptr;
};

TEST_F(TcpPluginTest, ConnectsIsSteppedAndReceives) {
    EXPECT_TRUE(service.Logs().WaitFor(Connected(listener.Port())));
    service.Manager().PhmThreadCycle(5000);  // open, it is stepped: the heartbeat goes out
    std::string line;
    for (char c; line.find('\n') == std::string::npos && listener.Read(c);) {
        line += c;
    }
    EXPECT_EQ(line, "HEARTBEAT 1\n");
    ASSERT_EQ(write(listener.Client(), "hello", 5), 5);
    EXPECT_TRUE(
        service.Logs().WaitFor("E_BASE: Data receive, mainId = 20, subId = 0, rev_length = 5\n"));
}

TEST_F(TcpPluginTest, ReconnectsAfterThePeerComesBack) {
    listener.Close();
    EXPECT_TRUE(WaitUntil([&] { return !plugin->GetCurPeripOpenStatus(); }));
    EXPECT_TRUE(service.Logs().WaitFor(
        "disconnected from 127.0.0.1:" + std::to_string(listener.Port()) + ": closed by peer"));
    EXPECT_TRUE(service.Logs().WaitFor("failed: Connection refused"));
    EXPECT_FALSE(plugin->GetCurPeripOpenStatus());
    listener.Open();
    ASSERT_TRUE(listener.Accept());
    EXPECT_TRUE(WaitUntil([&] { return plugin->GetCurPeripOpenStatus(); }));
    EXPECT_EQ(service.Logs().Count(Connected(listener.Port())), 2u);
}

// The manager tells nobody when only the address changes; the plug-in follows the setting's
// change event itself.
TEST_F(TcpPluginTest, FollowsThePeerToItsNewPort) {
    Listener moved;
    ASSERT_TRUE(service.SendSetting(SettingFor(moved.Port())));
    EXPECT_EQ(service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kTcpId, 0), plugin);
    ASSERT_TRUE(moved.Accept());
    EXPECT_TRUE(service.Logs().WaitFor(Connected(moved.Port())));
}

TEST_F(TcpPluginTest, ReleaseEndsTheConnection) {
    ASSERT_EQ(service.Manager().RemovePeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kTcpId, 0), 0);
    char c;
    EXPECT_FALSE(listener.Read(c));
    pollfd pfd{listener.Client(), POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 1) << "end of stream, not a time-out";
}

}  // namespace
