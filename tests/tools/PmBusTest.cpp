// pm-bus as a user runs it: real processes on a private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include "RecordingClient.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using pmtest::RunTool;
using pmtest::ToolProcess;

class PmBusTest : public ::testing::Test {
protected:
    pmtest::PrivateBus m_bus;
};

TEST_F(PmBusTest, SendReachesWaitWhichPrintsTheMonitorLine) {
    ToolProcess wait("pm-bus", {"wait", "serial-param-changed", "--timeout", "10"});
    ASSERT_TRUE(wait.WaitErr("pm-bus: waiting for")) << wait.Err();
    auto sent = RunTool("pm-bus", {"send", "316", "01 02", "ff", "--from", "42"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(wait.WaitExit(), 0) << wait.Err();
    EXPECT_NE(wait.Out().find(" 316 serial-param-changed from=42 seq="), std::string::npos)
        << wait.Out();
    EXPECT_NE(wait.Out().find(" - len=3 | 01 02 ff\n"), std::string::npos) << wait.Out();
}

// The peer first answers with another sequence number: call must take only the answer to its
// own request.
TEST_F(PmBusTest, CallPrintsTheAnswerToItsOwnRequest) {
    pmtest::RecordingClient peer;
    CMsgClientManage& client = peer.Client();
    client.RegisterHandler(1, 7001, [&client](const char* data, int len) {
        Common::SMessageHead head;
        memcpy(&head, data, sizeof head);
        Common::SMessageHead other = head;
        other.nSeq = head.nSeq + 1;
        client.MSGResponseMessage(&other, "\x55", 1);
        std::string answer = std::string(data + 16, data + len) + '\x99';
        client.MSGResponseMessage(&head, answer.data(), static_cast<int>(answer.size()));
        return 0;
    });
    auto called = RunTool("pm-bus", {"call", "7001", "12 34", "--timeout", "10"});
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find(" 39769 ? from=0 seq="), std::string::npos) << called.out;
    EXPECT_NE(called.out.find(" answer len=3 | 12 34 99\n"), std::string::npos) << called.out;
    EXPECT_EQ(called.out.find("| 55"), std::string::npos) << called.out;
}

TEST_F(PmBusTest, MonitorPrintsEveryMessageOrOnlyTheListedIds) {
    ToolProcess all("pm-bus", {"monitor", "--hex"});
    ToolProcess some("pm-bus", {"monitor", "--ids", "0x13c,mcu-serial-settings"});
    ASSERT_TRUE(all.WaitErr("pm-bus: monitoring")) << all.Err();
    ASSERT_TRUE(some.WaitErr("pm-bus: monitoring")) << some.Err();
    ASSERT_EQ(RunTool("pm-bus", {"send", "1090", "01 02 41"}).status, 0);
    ASSERT_TRUE(all.WaitOut(" 1090 mcu-serial-recv from=0 seq=")) << all.Out();
    EXPECT_TRUE(all.WaitOut("\n    0000  01 02 41")) << all.Out();
    // The broker passed 1090 on before 316 was sent, so `some` has had its chance to show it.
    ASSERT_EQ(RunTool("pm-bus", {"send", "316", "--request", "--from", "10", "01"}).status, 0);
    ASSERT_TRUE(some.WaitOut(" 316 serial-param-changed from=10 seq=")) << some.Out();
    EXPECT_NE(some.Out().find(" request len=1 | 01\n"), std::string::npos) << some.Out();
    EXPECT_EQ(some.Out().find("1090"), std::string::npos) << some.Out();
    all.Signal(SIGINT);
    some.Signal(SIGTERM);
    EXPECT_EQ(all.WaitExit(), 0);
    EXPECT_EQ(some.WaitExit(), 0);
}

TEST_F(PmBusTest, FailuresExitOneAndUsageErrorsTwo) {
    using Args = std::vector<std::string>;
    struct {
        const char* what;
        Args args;
        int status;
        const char* message;
    } const rows[] = {
        {"wait times out", Args{"wait", "316", "--timeout", "0.2"}, 1,
         "no message 316 (serial-param-changed) within 0.2 s"},
        {"call times out", Args{"call", "7001", "--timeout", "0.2"}, 1, "no answer"},
        {"a broker already serves the bus", Args{"broker"}, 1, "a broker already serves"},
        {"unknown command", Args{"shout"}, 2, "usage: pm-bus"},
        {"odd hex", Args{"send", "316", "012"}, 2, "usage: pm-bus"},
        {"option of another command", Args{"send", "316", "--hex"}, 2, "usage: pm-bus"},
        {"call of an answer id", Args{"call", "0x847d"}, 2, "usage: pm-bus"},
    };
    for (const auto& row : rows) {
        auto result = RunTool("pm-bus", row.args);
        EXPECT_EQ(result.status, row.status) << row.what << "\n" << result.err;
        EXPECT_NE(result.err.find(row.message), std::string::npos) << row.what << "\n"
                                                                   << result.err;
        EXPECT_EQ(result.out, "") << row.what;
    }
}

}  // namespace
