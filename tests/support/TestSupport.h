// Helpers shared by the tests: temporary folders, environment overrides, bounded waits,
// log capture and a private bus.
#ifndef TESTS_SUPPORT_TEST_SUPPORT_H
#define TESTS_SUPPORT_TEST_SUPPORT_H

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CommonLog.h"

namespace Common {
class CMsgBroker;
}

namespace pmtest {

// A fresh folder below $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& relative) const { return m_path + "/" + relative; }
    // Writes `content` to `relative` (creating parent folders) and returns the full path.
    std::string Write(const std::string& relative, const std::string& content) const;

private:
    std::string m_path;
};

// Sets (or, with nullopt, unsets) an environment variable for the scope's life.
class ScopedEnv {
public:
    ScopedEnv(const std::string& name, std::optional<std::string> value);
    ~ScopedEnv();

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

// How a test starts a program of this build: on the desktop directly; in a cross build
// through the emulator CTest names in PM_TEST_EMULATOR (qemu-arm with its options), since the
// kernel cannot run the target's binaries itself. EmulatorArgs() goes before argv[0];
// EmulatorCommand() before a shell command line (empty or ending in a space).
std::vector<std::string> EmulatorArgs();
std::string EmulatorCommand();
// Death tests run their child by executing the test binary again ("threadsafe"), which only
// the emulator can do in a cross build; there the child is forked without exec ("fast").
const char* DeathTestStyle();

// Polls `pred` every few milliseconds until it holds or `timeout` passes; returns its last
// value. Tests wait for events with this, never with bare sleeps.
// A pipe whose buffer is already full, as one that nobody reads becomes: out[0] reads, out[1]
// writes (both close-on-exec). False when the system gives no pipe.
bool FullPipe(int (&out)[2]);

bool WaitUntil(const std::function<bool()>& pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Captures every log record (whatever its level) while alive.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<Common::LogRecord> Records() const;
    // Number of records whose text contains `needle`.
    size_t Count(const std::string& needle) const;
    bool Contains(const std::string& needle) const { return Count(needle) > 0; }
    // Waits until a record containing `needle` has been seen.
    bool WaitFor(const std::string& needle,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void Clear();

private:
    mutable std::mutex m_lock;
    std::vector<Common::LogRecord> m_records;
};

// A broker of its own on ipc in a temporary folder, with RECORDER_BUS pointing at it for
// the life of the object. Create it before any bus client of the test.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    const std::string& Address() const { return m_address; }  // the RECORDER_BUS value

private:
    TempDir m_dir;
    std::string m_address;
    std::unique_ptr<ScopedEnv> m_env;
    std::unique_ptr<Common::CMsgBroker> m_broker;
};

}  // namespace pmtest

#endif
