// Runs the real tool binaries of the build tree as child processes, output into files.
#ifndef TESTS_TOOLS_TOOL_PROCESS_H
#define TESTS_TOOLS_TOOL_PROCESS_H

#include <sys/types.h>

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pmtest {

// Folder of the running test executable (build/tests), and the build's bin/ beside it.
std::string TestsDir();
std::string BinDir();

std::string ReadFile(const std::string& path);

// One child process. Its environment is the test's (RECORDER_BUS of a PrivateBus included)
// with `env` laid over it; stdin is /dev/null, stdout and stderr go to files in `outDir`.
// A child still running at destruction is killed.
class ToolProcess {
public:
    ToolProcess(const std::string& program, const std::vector<std::string>& args,
                const std::string& outDir, const std::map<std::string, std::string>& env = {});
    ~ToolProcess();

    // Exit status, or 128 + signal number when killed by a signal; nullopt on time-out.
    std::optional<int> WaitExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void Signal(int sig);

    std::string Out() const { return ReadFile(m_outPath); }
    std::string Err() const { return ReadFile(m_errPath); }
    bool WaitOut(const std::string& needle,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool WaitErr(const std::string& needle,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
    std::string m_outPath;
    std::string m_errPath;
};

// Runs a tool to its end; fails the test's expectations via the returned status (nullopt when
// it did not end in time).
struct ToolResult {
    std::optional<int> status;
    std::string out;
    std::string err;
};
ToolResult RunTool(const std::string& program, const std::vector<std::string>& args,
                   const std::string& outDir, const std::map<std::string, std::string>& env = {},
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

// gtest names for table rows: the row's description with every other character as '_'.
template <class Case>
std::string RowName(const ::testing::TestParamInfo<Case>& info) {
    std::string name = info.param.what;
    for (char& c : name) {
        if (!isalnum(static_cast<unsigned char>(c))) {
            c = '_';
        }
    }
    return name;
}

}  // namespace pmtest

#endif
