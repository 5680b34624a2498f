#include "ToolProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace pmtest {

// Generous: a sanitizer build starts a tool slowly.
constexpr std::chrono::seconds kToolWait{10};

std::string TestsDir() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

std::string BinDir() {
    return std::filesystem::path(TestsDir()).parent_path().string() + "/bin";
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

ToolProcess::ToolProcess(const std::string& tool, const std::vector<std::string>& args, int outFd,
                         int errFd, int inFd)
    : ToolProcess(tool, args, outFd, errFd, inFd, false) {}

std::unique_ptr<ToolProcess> ToolProcess::OnHost(const std::string& program,
                                                 const std::vector<std::string>& args) {
    return std::unique_ptr<ToolProcess>(new ToolProcess(program, args, -1, -1, -1, true));
}

ToolProcess::ToolProcess(const std::string& tool, const std::vector<std::string>& args, int outFd,
                         int errFd, int inFd, bool onHost) {
    std::vector<std::string> argv = onHost ? std::vector<std::string>() : EmulatorArgs();
    argv.push_back(tool[0] == '/' ? tool : BinDir() + "/" + tool);
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) {
        pointers.push_back(a.data());
    }
    pointers.push_back(nullptr);
    const std::string out = m_dir.File("out");
    const std::string err = m_dir.File("err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (inFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, inFd, 0);
    } else {
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    }
    if (outFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outFd, 1);
    } else {
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0644);
    }
    if (errFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, errFd, 2);
    } else {
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0644);
    }
    // Whatever this process ignores, a tool starts with the default actions: it must cope with
    // a closed pipe on its own.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    int rc = posix_spawn(&m_pid, argv[0].c_str(), &actions, &attributes, pointers.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot start " + argv[0]);
    }
}

ToolProcess::~ToolProcess() {
    if (!m_status) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

std::optional<int> ToolProcess::WaitExit(std::chrono::milliseconds timeout) {
    WaitUntil(
        [&] {
            int status = 0;
            if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return m_status.has_value();
        },
        timeout);
    return m_status;
}

void ToolProcess::Signal(int sig) {
    if (!m_status) {
        kill(m_pid, sig);
    }
}

bool ToolProcess::WaitOut(const std::string& needle) const {
    return WaitUntil([&] { return Out().find(needle) != std::string::npos; }, kToolWait);
}

bool ToolProcess::WaitErr(const std::string& needle) const {
    return WaitUntil([&] { return Err().find(needle) != std::string::npos; }, kToolWait);
}

namespace {

ToolResult Finish(ToolProcess& process) {
    ToolResult result;
    result.status = process.WaitExit();
    result.out = process.Out();
    result.err = process.Err();
    return result;
}

}  // namespace

ToolResult RunTool(const std::string& tool, const std::vector<std::string>& args) {
    ToolProcess process(tool, args);
    return Finish(process);
}

ToolResult RunHostProgram(const std::string& program, const std::vector<std::string>& args) {
    return Finish(*ToolProcess::OnHost(program, args));
}

}  // namespace pmtest
