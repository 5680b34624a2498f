#include "ToolProcess.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "TestSupport.h"

extern char** environ;

namespace pmtest {

namespace {

std::atomic<int> g_counter{0};

std::string Folder(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> Environment(const std::map<std::string, std::string>& overrides) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        if (overrides.count(entry.substr(0, entry.find('='))) == 0) {
            env.push_back(entry);
        }
    }
    for (const auto& [name, value] : overrides) {
        env.push_back(name + "=" + value);
    }
    return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& s : strings) {
        pointers.push_back(s.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

int Decode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string TestsDir() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        throw std::runtime_error("cannot read /proc/self/exe");
    }
    return Folder(std::string(path, static_cast<size_t>(n)));
}

std::string BinDir() {
    return Folder(TestsDir()) + "/bin";
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

ToolProcess::ToolProcess(const std::string& program, const std::vector<std::string>& args,
                         const std::string& outDir, const std::map<std::string, std::string>& env) {
    std::string stem = outDir + "/" + std::to_string(++g_counter) + "-" + BaseName(program);
    m_outPath = stem + ".out";
    m_errPath = stem + ".err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, m_outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, m_errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> envStrings = Environment(env);
    std::vector<char*> argvPtr = Pointers(argv);
    std::vector<char*> envPtr = Pointers(envStrings);
    int rc = posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argvPtr.data(), envPtr.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        m_pid = -1;
        throw std::runtime_error("cannot start " + program);
    }
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0 && !m_status) {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
    }
}

std::optional<int> ToolProcess::WaitExit(std::chrono::milliseconds timeout) {
    WaitUntil(
        [&] {
            int status = 0;
            if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = Decode(status);
            }
            return m_status.has_value();
        },
        timeout);
    return m_status;
}

void ToolProcess::Signal(int sig) {
    if (m_pid > 0 && !m_status) {
        kill(m_pid, sig);
    }
}

bool ToolProcess::WaitOut(const std::string& needle, std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return Out().find(needle) != std::string::npos; }, timeout);
}

bool ToolProcess::WaitErr(const std::string& needle, std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return Err().find(needle) != std::string::npos; }, timeout);
}

ToolResult RunTool(const std::string& program, const std::vector<std::string>& args,
                   const std::string& outDir, const std::map<std::string, std::string>& env,
                   std::chrono::milliseconds timeout) {
    ToolProcess process(program, args, outDir, env);
    ToolResult result;
    result.status = process.WaitExit(timeout);
    result.out = process.Out();
    result.err = process.Err();
    return result;
}

}  // namespace pmtest
