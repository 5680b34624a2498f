// Runs the real tool binaries of the build tree as child processes, output into files.
#ifndef TESTS_TOOLS_TOOL_PROCESS_H
#define TESTS_TOOLS_TOOL_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace pmtest {

std::string TestsDir();  // folder of the test executable (build/tests)
std::string BinDir();    // the build's bin/ beside it
std::string ReadFile(const std::string& path);

// One tool of BinDir() (or a program given by its absolute path) with the test's environment (set
// variables with ScopedEnv first); stdin is /dev/null, stdout and stderr go to files. Killed if
// still running at destruction.
class ToolProcess {
public:
    // `outFd` and `errFd`, when given, become the tool's stdout and stderr instead of files
    // (a pipe, for instance); `inFd` its stdin instead of /dev/null. The caller keeps its own
    // copies.
    ToolProcess(const std::string& tool, const std::vector<std::string>& args, int outFd = -1,
                int errFd = -1, int inFd = -1);
    // A program of the machine running the tests (tmux, a shell): never through the emulator
    // that runs the build's own programs in a cross build.
    static std::unique_ptr<ToolProcess> OnHost(const std::string& program,
                                               const std::vector<std::string>& args);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Exit status, or 128 + signal number when killed by a signal; nullopt on time-out.
    std::optional<int> WaitExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void Signal(int sig);
    pid_t Pid() const { return m_pid; }
    std::string Out() const { return ReadFile(m_dir.File("out")); }
    std::string Err() const { return ReadFile(m_dir.File("err")); }
    bool WaitOut(const std::string& needle) const;
    bool WaitErr(const std::string& needle) const;

private:
    ToolProcess(const std::string& tool, const std::vector<std::string>& args, int outFd, int errFd,
                int inFd, bool onHost);

    TempDir m_dir;
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

struct ToolResult {
    std::optional<int> status;  // nullopt: still running after 10 s
    std::string out;
    std::string err;
};
ToolResult RunTool(const std::string& tool, const std::vector<std::string>& args);
// The same for a program of the machine running the tests (see ToolProcess::OnHost).
ToolResult RunHostProgram(const std::string& program, const std::vector<std::string>& args);

}  // namespace pmtest

#endif
