// pm-host with the test service: real processes, real dlopen, a private bus.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using pmtest::ReadFile;
using pmtest::RunTool;
using pmtest::ToolProcess;

std::string TestService() {
    return pmtest::TestsDir() + "/libpm_test_service.so";
}

class PmHostTest : public ::testing::Test {
protected:
    // Stops the host as a user would: the service's destructor runs, the host exits 0.
    void ExpectCleanStop(ToolProcess& host) {
        host.Signal(SIGTERM);
        EXPECT_EQ(host.WaitExit(), 0) << host.Err();
        EXPECT_EQ(ReadFile(m_dir.File("marker")), "destroyed\n") << host.Err();
    }

    pmtest::TempDir m_dir;
    pmtest::ScopedEnv m_marker{"PM_TEST_SERVICE_MARKER", m_dir.File("marker")};
    pmtest::ScopedEnv m_cwd{"PM_TEST_SERVICE_CWD", m_dir.File("cwd")};
};

TEST_F(PmHostTest, UsesTheRunningBrokerAnswersCallsAndStopsOnSigterm) {
    pmtest::PrivateBus bus;
    ToolProcess host("pm-host", {"--service", TestService(), "--workdir", m_dir.Path()});
    ASSERT_TRUE(host.WaitErr("pm-host: service ")) << host.Err();
    EXPECT_NE(host.Err().find("pm-host: using the broker already running"), std::string::npos)
        << host.Err();
    EXPECT_EQ(ReadFile(m_dir.File("cwd")), fs::canonical(m_dir.Path()).string());

    auto called = RunTool("pm-bus", {"call", "7001", "01 02 03"});
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find(" answer len=3 | 03 02 01\n"), std::string::npos) << called.out;
    EXPECT_EQ(ReadFile(m_dir.File("marker")), "");
    ExpectCleanStop(host);
}

TEST_F(PmHostTest, StartsItsOwnBrokerWhenNoneRuns) {
    pmtest::ScopedEnv busEnv("RECORDER_BUS", m_dir.File("bus"));
    ToolProcess host("pm-host", {"--service", TestService()});
    ASSERT_TRUE(host.WaitErr("pm-host: service ")) << host.Err();
    EXPECT_NE(host.Err().find("pm-host: started a broker at ipc://" + m_dir.File("bus.in")),
              std::string::npos)
        << host.Err();
    auto called = RunTool("pm-bus", {"call", "7001", "aa bb"});
    EXPECT_NE(called.out.find("| bb aa\n"), std::string::npos) << called.err;
    // Without --workdir the service runs in the host's own folder.
    EXPECT_EQ(ReadFile(m_dir.File("cwd")), fs::canonical(pmtest::BinDir()).string());
    ExpectCleanStop(host);
}

TEST_F(PmHostTest, WarnsOnceWhenTheServiceStopsFeedingAndNoticesItsReturn) {
    pmtest::PrivateBus bus;
    pmtest::ScopedEnv period("PM_HOST_WATCHDOG_MS", "2500");  // well above the 1 s feed interval
    ToolProcess host("pm-host", {"--service", TestService()});
    ASSERT_TRUE(host.WaitErr("pm-host: service ")) << host.Err();
    // Once the service has fed, the host has seen it too: both listen on the same bus.
    ASSERT_EQ(RunTool("pm-bus", {"wait", "watchdog", "--timeout", "10"}).status, 0);
    ASSERT_EQ(RunTool("pm-bus", {"send", "7002"}).status, 0);
    const std::string silent = "\"TestService.77\" has not fed its watchdog for ";
    ASSERT_TRUE(host.WaitErr(silent)) << host.Err();
    ASSERT_EQ(RunTool("pm-bus", {"send", "7003"}).status, 0);
    ASSERT_TRUE(host.WaitErr("\"TestService.77\" feeds its watchdog again")) << host.Err();
    std::string err = host.Err();
    EXPECT_EQ(err.find(silent), err.rfind(silent)) << "warned twice for one silence:\n" << err;
    EXPECT_EQ(err.find("no client has fed"), std::string::npos) << err;
    ExpectCleanStop(host);
}

// A reader that goes away (`pm-host | head -1`) must not take the host with it.
TEST_F(PmHostTest, OutlivesAClosedStandardOutput) {
    pmtest::PrivateBus bus;
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);  // the host must not hold the reading end itself
    ToolProcess host("pm-host", {"--service", TestService()}, out[1]);
    close(out[1]);
    close(out[0]);  // nobody reads the host's output any more
    ASSERT_TRUE(host.WaitErr("pm-host: service ")) << host.Err();
    ASSERT_EQ(RunTool("pm-bus", {"send", "7004"}).status, 0);
    auto called = RunTool("pm-bus", {"call", "7001", "01 02"});
    EXPECT_NE(called.out.find("| 02 01\n"), std::string::npos) << called.err << host.Err();
    ExpectCleanStop(host);
}

// With its standard error a pipe that nobody reads and that is full, pm-host still starts
// the service and honours SIGTERM: its own lines go out as the log's do, or are lost.
TEST_F(PmHostTest, AStandardErrorNobodyReadsHoldsNothing) {
    pmtest::PrivateBus bus;
    int err[2];
    ASSERT_TRUE(pmtest::FullPipe(err));
    ToolProcess host("pm-host", {"--service", TestService()}, -1, err[1]);
    close(err[1]);
    ASSERT_TRUE(pmtest::WaitUntil(
        [&] {
            return RunTool("pm-bus", {"call", "7001", "01 02", "--timeout", "1"}).status == 0;
        },
        std::chrono::seconds(10)));
    host.Signal(SIGTERM);
    EXPECT_EQ(host.WaitExit(std::chrono::seconds(10)), 0);
    EXPECT_EQ(ReadFile(m_dir.File("marker")), "destroyed\n");
    close(err[0]);
}

// A service that ends the process from Create (no configuration) leaves no broker files that
// would look like a running bus to the next program.
TEST_F(PmHostTest, AServiceThatExitsLeavesNoBrokerFilesBehind) {
    pmtest::ScopedEnv busEnv("RECORDER_BUS", m_dir.File("bus"));
    pmtest::ScopedEnv exitEnv("PM_TEST_SERVICE_EXIT", "1");
    auto result = RunTool("pm-host", {"--service", TestService()});
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("pm-host: started a broker"), std::string::npos) << result.err;
    for (const char* name : {"bus.in", "bus.out", "bus.lock"}) {
        EXPECT_FALSE(fs::exists(m_dir.File(name))) << name;
    }
}

// Under a flood the service's loop keeps turning: it feeds its watchdog and SIGTERM is answered
// while the flood goes on (held, both waited for the flood's end).
TEST_F(PmHostTest, AnswersSigtermAndKeepsFeedingDuringAFlood) {
    pmtest::PrivateBus bus;
    pmtest::ScopedEnv period("PM_HOST_WATCHDOG_MS", "3000");
    ToolProcess host("pm-host", {"--service", TestService()});
    ASSERT_TRUE(host.WaitErr("pm-host: service ")) << host.Err();
    ASSERT_EQ(RunTool("pm-bus", {"wait", "watchdog", "--timeout", "10"}).status, 0);
    ToolProcess flooder(pmtest::TestsDir() + "/bus_peer", {"flood", "7005", "1000", "30"});
    ASSERT_TRUE(flooder.WaitOut("flooding"));
    // Two watchdog periods of flood, then the stop.
    EXPECT_FALSE(pmtest::WaitUntil(
        [&] { return host.Err().find("has not fed its watchdog") != std::string::npos; },
        std::chrono::seconds(6)))
        << host.Err();
    host.Signal(SIGTERM);
    EXPECT_EQ(host.WaitExit(std::chrono::seconds(8)), 0) << host.Err();
    EXPECT_EQ(flooder.WaitExit(std::chrono::milliseconds(1)), std::nullopt) << "still flooding";
}

TEST(PmHostFailureTest, ExitsWithTheReason) {
    // A real library that has no Create.
    const std::string noCreate = pmtest::BinDir() + "/../lib/libpmplatform.so";
    struct {
        const char* what;
        std::vector<std::string> args;
        bool createNull;
        int status;
        const char* message;
    } const rows[] = {
        {"missing library", {"--service", "/no/lib.so"}, false, 1, "cannot load service "},
        {"no Create", {"--service", noCreate}, false, 1, "has no entry Create"},
        {"Create returns null", {"--service", TestService()}, true, 1, "returned no service"},
        {"unknown option", {"--frobnicate"}, false, 2, "usage: pm-host"},
    };
    pmtest::PrivateBus bus;
    for (const auto& row : rows) {
        pmtest::ScopedEnv createNull(
            "PM_TEST_SERVICE_CREATE_NULL",
            row.createNull ? std::optional<std::string>("1") : std::nullopt);
        auto result = RunTool("pm-host", row.args);
        EXPECT_EQ(result.status, row.status) << row.what << "\n" << result.err;
        EXPECT_NE(result.err.find(row.message), std::string::npos) << row.what << "\n"
                                                                   << result.err;
    }
}

}  // namespace
