// pm-host with a small test service: real processes, real dlopen, a private bus.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "TestServiceIds.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using pmtest::RunTool;
using pmtest::ToolProcess;
using namespace std::chrono_literals;

std::string PmHost() {
    return pmtest::BinDir() + "/pm-host";
}
std::string PmBus() {
    return pmtest::BinDir() + "/pm-bus";
}
std::string TestService() {
    return pmtest::TestsDir() + "/libpm_test_service.so";
}

const char kRunning[] = "pm-host: service ";

class PmHostTest : public ::testing::Test {
protected:
    std::map<std::string, std::string> ServiceEnv() const {
        return {{"PM_TEST_SERVICE_MARKER", m_dir.File("marker")},
                {"PM_TEST_SERVICE_CWD", m_dir.File("cwd")}};
    }
    // Stops the host as a user would and checks that the service's destructor ran.
    void ExpectCleanStop(ToolProcess& host) {
        host.Signal(SIGTERM);
        EXPECT_EQ(host.WaitExit(), 0) << host.Err();
        EXPECT_EQ(pmtest::ReadFile(m_dir.File("marker")), "destroyed\n") << host.Err();
        EXPECT_NE(host.Err().find("pm-host: SIGTERM received, stopping the service"),
                  std::string::npos)
            << host.Err();
    }

    pmtest::TempDir m_dir;
};

TEST_F(PmHostTest, UsesTheRunningBrokerAnswersCallsAndStopsOnSigterm) {
    pmtest::PrivateBus bus;
    ToolProcess host(PmHost(), {"--service", TestService(), "--workdir", m_dir.Path()},
                     m_dir.Path(), ServiceEnv());
    ASSERT_TRUE(host.WaitErr(kRunning)) << host.Err();
    EXPECT_NE(host.Err().find("pm-host: using the broker already running"), std::string::npos)
        << host.Err();
    EXPECT_EQ(pmtest::ReadFile(m_dir.File("cwd")), fs::canonical(m_dir.Path()).string());

    auto called = RunTool(PmBus(), {"call", "7001", "01 02 03", "--timeout", "10"}, m_dir.Path());
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find(" answer len=3 | 03 02 01\n"), std::string::npos) << called.out;
    EXPECT_EQ(pmtest::ReadFile(m_dir.File("marker")), "");
    ExpectCleanStop(host);
}

TEST_F(PmHostTest, StartsItsOwnBrokerWhenNoneRuns) {
    pmtest::ScopedEnv busEnv("RECORDER_BUS", m_dir.File("bus"));
    ToolProcess host(PmHost(), {"--service", TestService()}, m_dir.Path(), ServiceEnv());
    ASSERT_TRUE(host.WaitErr(kRunning)) << host.Err();
    EXPECT_NE(host.Err().find("pm-host: started a broker at ipc://" + m_dir.File("bus.in")),
              std::string::npos)
        << host.Err();
    auto called = RunTool(PmBus(), {"call", "7001", "aa bb", "--timeout", "10"}, m_dir.Path());
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find("| bb aa\n"), std::string::npos) << called.out;
    // The default working directory is the host's own folder.
    EXPECT_EQ(pmtest::ReadFile(m_dir.File("cwd")), fs::canonical(pmtest::BinDir()).string());
    ExpectCleanStop(host);
}

TEST_F(PmHostTest, WarnsOnceWhenTheServiceStopsFeedingAndNoticesItsReturn) {
    pmtest::PrivateBus bus;
    auto env = ServiceEnv();
    env["PM_HOST_WATCHDOG_MS"] = "2500";  // well above the 1 s feed interval
    ToolProcess host(PmHost(), {"--service", TestService()}, m_dir.Path(), env);
    ASSERT_TRUE(host.WaitErr(kRunning)) << host.Err();
    // Once the service has fed, the host has seen it too: both listen on the same bus.
    ASSERT_EQ(RunTool(PmBus(), {"wait", "watchdog", "--timeout", "10"}, m_dir.Path()).status, 0);
    ASSERT_EQ(RunTool(PmBus(), {"send", std::to_string(pmtest::kStopFeeding)}, m_dir.Path()).status,
              0);
    const std::string silent = "\"TestService.77\" has not fed its watchdog for ";
    ASSERT_TRUE(host.WaitErr(silent)) << host.Err();
    ASSERT_EQ(
        RunTool(PmBus(), {"send", std::to_string(pmtest::kResumeFeeding)}, m_dir.Path()).status, 0);
    ASSERT_TRUE(host.WaitErr("\"TestService.77\" feeds its watchdog again")) << host.Err();
    std::string err = host.Err();
    EXPECT_EQ(err.find(silent), err.rfind(silent)) << "warned twice for one silence:\n" << err;
    EXPECT_EQ(err.find("no client has fed"), std::string::npos) << err;
    ExpectCleanStop(host);
}

TEST_F(PmHostTest, WarnsWhenNothingFeedsAfterCreate) {
    pmtest::PrivateBus bus;
    auto env = ServiceEnv();
    env["PM_HOST_WATCHDOG_MS"] = "300";
    env["PM_TEST_SERVICE_NO_FEED"] = "1";
    ToolProcess host(PmHost(), {"--service", TestService()}, m_dir.Path(), env);
    ASSERT_TRUE(host.WaitErr("pm-host: watchdog: no client has fed its watchdog in the "))
        << host.Err();
    ExpectCleanStop(host);
}

// The host and the service laid out as installed: <prefix>/bin/pm-host finds
// <prefix>/lib/libBasicService.so and runs it in <prefix>/bin.
TEST_F(PmHostTest, FindsTheServiceBesideItself) {
    pmtest::PrivateBus bus;
    pmtest::TempDir prefix;
    fs::create_directories(prefix.File("bin"));
    fs::create_directories(prefix.File("lib"));
    fs::copy_file(PmHost(), prefix.File("bin/pm-host"));
    for (const auto& entry :
         fs::directory_iterator(fs::path(pmtest::BinDir()).parent_path() / "lib")) {
        if (entry.path().filename().string().rfind("libpmplatform.so", 0) == 0) {
            fs::create_symlink(entry.path(),
                               prefix.File("lib/" + entry.path().filename().string()));
        }
    }
    fs::copy_file(TestService(), prefix.File("lib/libBasicService.so"));
    ToolProcess host(prefix.File("bin/pm-host"), {}, m_dir.Path(), ServiceEnv());
    ASSERT_TRUE(host.WaitErr(kRunning)) << host.Err();
    EXPECT_EQ(pmtest::ReadFile(m_dir.File("cwd")), fs::canonical(prefix.File("bin")).string());
    ExpectCleanStop(host);
}

struct FailureCase {
    const char* what;
    std::vector<std::string> args;  // "@" stands for the test service
    std::map<std::string, std::string> env;
    int status;
    const char* message;
};

class PmHostFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(PmHostFailureTest, ExitsWithAClearMessage) {
    const FailureCase& c = GetParam();
    pmtest::PrivateBus bus;
    pmtest::TempDir dir;
    std::vector<std::string> args;
    for (const std::string& a : c.args) {
        args.push_back(a == "@"           ? TestService()
                       : a == "@nocreate" ? pmtest::TestsDir() + "/libpm_test_service_nocreate.so"
                                          : a);
    }
    auto result = RunTool(PmHost(), args, dir.Path(), c.env);
    EXPECT_EQ(result.status, c.status) << c.what << "\n" << result.err;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << c.what << "\n" << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Table, PmHostFailureTest,
    ::testing::Values(
        FailureCase{"library missing",
                    {"--service", "/nonexistent/libX.so"},
                    {},
                    1,
                    "pm-host: cannot load service /nonexistent/libX.so: "},
        FailureCase{
            "library without Create", {"--service", "@nocreate"}, {}, 1, "has no entry Create"},
        FailureCase{"Create returns null",
                    {"--service", "@"},
                    {{"PM_TEST_SERVICE_CREATE_NULL", "1"}},
                    1,
                    "returned no service"},
        FailureCase{"working directory missing",
                    {"--service", "@", "--workdir", "/nonexistent"},
                    {},
                    1,
                    "pm-host: cannot change to /nonexistent: "},
        FailureCase{"unknown option", {"--frobnicate"}, {}, 2, "usage: pm-host"},
        FailureCase{"option without value", {"--service"}, {}, 2, "usage: pm-host"}),
    pmtest::RowName<FailureCase>);

}  // namespace
