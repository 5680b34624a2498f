#include "TestSupport.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace pmtest {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/pmtest-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(m_path, ec);
}

std::string TempDir::Write(const std::string& relative, const std::string& content) const {
    std::string path = File(relative);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

ScopedEnv::ScopedEnv(const std::string& name, std::optional<std::string> value) : m_name(name) {
    if (const char* old = getenv(name.c_str())) {
        m_old = old;
    }
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}

ScopedEnv::~ScopedEnv() {
    if (m_old) {
        setenv(m_name.c_str(), m_old->c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

std::vector<std::string> EmulatorArgs() {
    std::vector<std::string> args;
    const char* emulator = getenv("PM_TEST_EMULATOR");
    std::istringstream words(emulator ? emulator : "");
    for (std::string word; words >> word;) {
        args.push_back(word);
    }
    return args;
}

std::string EmulatorCommand() {
    std::string command;
    for (const std::string& word : EmulatorArgs()) {
        command += word + " ";
    }
    return command;
}

const char* DeathTestStyle() {
    return EmulatorArgs().empty() ? "threadsafe" : "fast";
}

bool FullPipe(int (&out)[2]) {
    if (pipe2(out, O_CLOEXEC) != 0) {
        return false;
    }
    // Filled through a description of its own: the pipe's ends stay blocking for their users.
    const int filler = open(("/proc/self/fd/" + std::to_string(out[1])).c_str(),
                            O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (filler < 0) {
        return false;
    }
    const std::string block(4096, 'f');
    while (write(filler, block.data(), block.size()) > 0) {
    }
    close(filler);
    return true;
}

bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

LogCapture::LogCapture() {
    Common::SetLogSinkForTest([this](const Common::LogRecord& r) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_records.push_back(r);
    });
}

LogCapture::~LogCapture() {
    Common::SetLogSinkForTest(nullptr);
}

std::vector<Common::LogRecord> LogCapture::Records() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_records;
}

size_t LogCapture::Count(const std::string& needle) const {
    std::lock_guard<std::mutex> guard(m_lock);
    size_t n = 0;
    for (const auto& r : m_records) {
        if (r.text.find(needle) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

bool LogCapture::WaitFor(const std::string& needle, std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return Contains(needle); }, timeout);
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_records.clear();
}

}  // namespace pmtest
