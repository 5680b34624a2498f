// pm-bus as a user runs it: real processes on a private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "MsgClientManage.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using pmtest::RunTool;
using pmtest::ToolProcess;
using namespace std::chrono_literals;

std::string PmBus() {
    return pmtest::BinDir() + "/pm-bus";
}

// A bus client of the test's own, pumped on a thread, that records what its handlers see.
class BusPeer {
public:
    BusPeer() : m_thread([this] { Loop(); }) {}
    ~BusPeer() {
        m_stop = true;
        m_thread.join();
    }
    CMsgClientManage& Client() { return m_client; }

    // Records every message `id` (head and payload).
    void Record(int id) {
        m_client.RegisterHandler(1, id, [this](const char* data, int len) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_seen.emplace_back(data, data + len);
            return 0;
        });
    }
    std::vector<std::vector<uint8_t>> Seen() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_seen;
    }

private:
    void Loop() {
        while (!m_stop) {
            m_client.MSGWaitForEvent(10);
        }
    }

    CMsgClientManage m_client{"pmtest.peer", 300000};
    std::mutex m_lock;
    std::vector<std::vector<uint8_t>> m_seen;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

uint32_t Word(const std::vector<uint8_t>& m, size_t offset) {
    return m[offset] | m[offset + 1] << 8 | m[offset + 2] << 16 |
           static_cast<uint32_t>(m[offset + 3]) << 24;
}

class PmBusTest : public ::testing::Test {
protected:
    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_out;
};

TEST_F(PmBusTest, SendReachesWaitWhichPrintsTheMonitorLine) {
    ToolProcess wait(PmBus(), {"wait", "serial-param-changed", "--timeout", "10"}, m_out.Path());
    ASSERT_TRUE(wait.WaitErr("pm-bus: waiting for")) << wait.Err();
    auto sent = RunTool(PmBus(), {"send", "316", "01 02", "ff", "--from", "42"}, m_out.Path());
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(wait.WaitExit(), 0) << wait.Err();
    EXPECT_NE(wait.Out().find(" 316 serial-param-changed from=42 seq="), std::string::npos)
        << wait.Out();
    EXPECT_NE(wait.Out().find(" - len=3 | 01 02 ff\n"), std::string::npos) << wait.Out();
}

TEST_F(PmBusTest, SendSetsTheRequestBitAndSender) {
    BusPeer peer;
    peer.Record(1149);
    auto sent =
        RunTool(PmBus(), {"send", "get-device-module-state", "--request", "--from", "10", "0a"},
                m_out.Path());
    ASSERT_EQ(sent.status, 0) << sent.err;
    ASSERT_TRUE(pmtest::WaitUntil([&] { return !peer.Seen().empty(); }));
    std::vector<uint8_t> m = peer.Seen()[0];
    ASSERT_EQ(m.size(), 17u);
    EXPECT_EQ(Word(m, 0), 1149u);
    EXPECT_EQ(Word(m, 4), 10u);
    EXPECT_EQ(Word(m, 12), 1u << 23 | 1u);
    EXPECT_EQ(m[16], 0x0A);
}

TEST_F(PmBusTest, WaitAndCallTimeOutWithExitOne) {
    auto waited = RunTool(PmBus(), {"wait", "316", "--timeout", "0.2"}, m_out.Path());
    EXPECT_EQ(waited.status, 1);
    EXPECT_NE(waited.err.find("no message 316 (serial-param-changed) within 0.2 s"),
              std::string::npos)
        << waited.err;
    auto called = RunTool(PmBus(), {"call", "7001", "--timeout", "0.2"}, m_out.Path());
    EXPECT_EQ(called.status, 1);
    EXPECT_NE(called.err.find("no answer"), std::string::npos) << called.err;
}

// The peer first answers with another sequence number, then with the request's: call must
// take only the answer to its own request.
TEST_F(PmBusTest, CallPrintsTheAnswerToItsOwnRequest) {
    BusPeer peer;
    CMsgClientManage& client = peer.Client();
    client.RegisterHandler(1, 7001, [&client](const char* data, int len) {
        if (len < 16) {
            return 0;
        }
        Common::SMessageHead head;
        memcpy(&head, data, sizeof head);
        Common::SMessageHead other = head;
        other.nSeq = head.nSeq + 1;
        const char stray[] = {0x55};
        client.MSGResponseMessage(&other, stray, 1);
        std::string answer(data + 16, data + len);
        answer += '\x99';
        client.MSGResponseMessage(&head, answer.data(), static_cast<int>(answer.size()));
        return 0;
    });
    auto called = RunTool(PmBus(), {"call", "7001", "12 34", "--timeout", "10"}, m_out.Path());
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find(" 39769 ? from=0 seq="), std::string::npos) << called.out;
    EXPECT_NE(called.out.find(" answer len=3 | 12 34 99\n"), std::string::npos) << called.out;
    EXPECT_EQ(called.out.find("| 55"), std::string::npos) << called.out;
}

TEST_F(PmBusTest, MonitorPrintsEveryMessageOrOnlyTheListedIds) {
    ToolProcess all(PmBus(), {"monitor", "--hex"}, m_out.Path());
    ToolProcess some(PmBus(), {"monitor", "--ids", "0x13c,mcu-serial-settings"}, m_out.Path());
    ASSERT_TRUE(all.WaitErr("pm-bus: monitoring")) << all.Err();
    ASSERT_TRUE(some.WaitErr("pm-bus: monitoring")) << some.Err();
    BusPeer peer;
    const char data[] = {0x01, 0x02, 0x41};
    peer.Client().MSGSendMessage(0, 1090, 0, data, 3, 10);
    peer.Client().MSGSendMessage(0, 316, 1, data, 3, 10);
    ASSERT_TRUE(all.WaitOut(" 316 serial-param-changed from=10")) << all.Out();
    EXPECT_NE(all.Out().find(" 1090 mcu-serial-recv from=10 seq="), std::string::npos) << all.Out();
    EXPECT_NE(all.Out().find("    0000  01 02 41"), std::string::npos) << all.Out();
    // Messages of one sender arrive in order: once 316 is out, 1090 would have been too.
    ASSERT_TRUE(some.WaitOut(" 316 serial-param-changed from=10")) << some.Out();
    EXPECT_NE(some.Out().find(" request len=3 | 01 02 41\n"), std::string::npos) << some.Out();
    EXPECT_EQ(some.Out().find("1090"), std::string::npos) << some.Out();
    all.Signal(SIGINT);
    some.Signal(SIGTERM);
    EXPECT_EQ(all.WaitExit(), 0);
    EXPECT_EQ(some.WaitExit(), 0);
}

TEST_F(PmBusTest, SecondBrokerRefusesAndAStandaloneBrokerServes) {
    auto second = RunTool(PmBus(), {"broker"}, m_out.Path());
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("a broker already serves"), std::string::npos) << second.err;

    pmtest::TempDir other;
    std::map<std::string, std::string> env = {{"RECORDER_BUS", other.File("bus")}};
    ToolProcess broker(PmBus(), {"broker"}, m_out.Path(), env);
    ASSERT_TRUE(broker.WaitErr("pm-bus: broker running")) << broker.Err();
    ToolProcess wait(PmBus(), {"wait", "316", "--timeout", "10"}, m_out.Path(), env);
    ASSERT_TRUE(wait.WaitErr("pm-bus: waiting for")) << wait.Err();
    EXPECT_EQ(RunTool(PmBus(), {"send", "316"}, m_out.Path(), env).status, 0);
    EXPECT_EQ(wait.WaitExit(), 0) << wait.Err();
    broker.Signal(SIGTERM);
    EXPECT_EQ(broker.WaitExit(), 0) << broker.Err();
}

struct UsageCase {
    const char* what;
    std::vector<std::string> args;
};

class PmBusUsageTest : public ::testing::TestWithParam<UsageCase> {
protected:
    pmtest::TempDir m_out;
};

TEST_P(PmBusUsageTest, ExitsTwoWithTheUsage) {
    auto result = RunTool(PmBus(), GetParam().args, m_out.Path());
    EXPECT_EQ(result.status, 2) << GetParam().what;
    EXPECT_NE(result.err.find("usage: pm-bus"), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Table, PmBusUsageTest,
    ::testing::Values(UsageCase{"no command", {}}, UsageCase{"unknown command", {"shout"}},
                      UsageCase{"send without id", {"send"}},
                      UsageCase{"unknown id name", {"send", "no-such-event"}},
                      UsageCase{"odd hex", {"send", "316", "012"}},
                      UsageCase{"not hex", {"send", "316", "0g"}},
                      UsageCase{"bad time-out", {"wait", "316", "--timeout", "soon"}},
                      UsageCase{"option of another command", {"send", "316", "--hex"}},
                      UsageCase{"missing option value", {"call", "316", "--from"}},
                      UsageCase{"wait with payload", {"wait", "316", "01"}},
                      UsageCase{"bad id list", {"monitor", "--ids", "316,nope"}},
                      UsageCase{"stray word", {"monitor", "316"}},
                      UsageCase{"call of an answer id", {"call", "0x847d"}}),
    pmtest::RowName<UsageCase>);

}  // namespace
