#include "CommonLog.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <vector>

#include "FdIo.h"

namespace Common {

namespace detail {
std::atomic<int> g_logGate{INT_MAX};
}  // namespace detail

namespace {

int LevelFromEnv() {
    const char* v = getenv("PM_LOG_LEVEL");
    if (v == nullptr || *v == '\0') {
        return 1;
    }
    char* end = nullptr;
    long level = strtol(v, &end, 10);
    return (end != v) ? static_cast<int>(level) : 1;
}

struct LogState {
    std::mutex lock;  // one record at a time: lines of several threads never interleave
    std::atomic<int> level{LevelFromEnv()};
    std::atomic<bool> hasSink{false};
    LogSink sink;
    int fd = -1;  // where records go, chosen on first use; never blocks
    bool outputChosen = false;
    bool lookBeforeWrite = false;  // an output that could not be made non-blocking
    // Standard error for the tools' own messages (LogOutputPrintf), whatever PM_LOG_FILE says.
    int errFd = -1;
    bool errLookBeforeWrite = false;
    uint64_t errLost = 0;
    uint64_t lost = 0;  // records not written since the last one that was
};

// Never destroyed: threads may log at exit. Opens the inline gate once the level is known.
LogState& State() {
    static LogState* state = [] {
        auto* s = new LogState();
        detail::g_logGate.store(s->level.load());
        return s;
    }();
    return *state;
}

void UpdateGate(LogState& s) {
    detail::g_logGate.store(s.hasSink.load() ? INT_MAX : s.level.load());
}

std::string Format(const char* fmt, va_list ap) {
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) {
        return std::string();
    }
    if (static_cast<size_t>(n) < sizeof small) {
        return std::string(small, static_cast<size_t>(n));
    }
    std::vector<char> big(static_cast<size_t>(n) + 1);
    vsnprintf(big.data(), big.size(), fmt, ap);
    return std::string(big.data(), static_cast<size_t>(n));
}

// Standard error as an output that never blocks. A regular file does not; a pipe, FIFO or
// terminal gets a description of its own opened non-blocking, so that the shared one (and the
// other programs writing to it) stay as they are; anything else is looked at before each write.
int NonBlockingStderr(bool& lookBeforeWrite) {
    struct stat info;
    if (fstat(STDERR_FILENO, &info) != 0 || S_ISREG(info.st_mode)) {
        return STDERR_FILENO;
    }
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)) {
        int fd = open("/proc/self/fd/2", O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd >= 0) {
            return fd;
        }
    }
    lookBeforeWrite = true;
    return STDERR_FILENO;
}

int Output(LogState& s) {
    if (!s.outputChosen) {
        s.outputChosen = true;
        const char* path = getenv("PM_LOG_FILE");
        if (path != nullptr && *path != '\0') {
            // Non-blocking also for a FIFO: opening one without a reader fails at once.
            s.fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
            if (s.fd < 0) {
                fprintf(stderr, "log: cannot open PM_LOG_FILE %s: %s; logging to stderr\n", path,
                        strerror(errno));
            }
        }
        if (s.fd < 0) {
            s.fd = NonBlockingStderr(s.lookBeforeWrite);
        }
    }
    return s.fd;
}

// False when the output cannot take the whole record now (a full pipe nobody reads): the record
// is lost rather than the caller held. Records up to PIPE_BUF bytes go into a pipe whole or not
// at all. Logging never depends on the host ignoring SIGPIPE.
bool WriteTo(int fd, bool lookBeforeWrite, const std::string& bytes) {
    WriteMode mode;
    mode.lookFirst = lookBeforeWrite;
    mode.holdSigpipe = true;
    return Common::WriteAll(fd, bytes.data(), bytes.size(), mode) == bytes.size();
}

bool WriteAll(LogState& s, const std::string& bytes) {
    return WriteTo(Output(s), s.lookBeforeWrite, bytes);
}

std::string Prefix(int level) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmv;
    localtime_r(&tv.tv_sec, &tmv);
    char prefix[48];
    snprintf(prefix, sizeof prefix, "[%02d:%02d:%02d.%03ld L%d] ", tmv.tm_hour, tmv.tm_min,
             tmv.tm_sec, static_cast<long>(tv.tv_usec / 1000), level);
    return prefix;
}

// The whole record goes out in one write(): with O_APPEND, records of other processes
// sharing the file land between records, never inside one; stdio would split long ones.
// Records the output could not take are counted and reported before the next one it takes.
void Print(LogState& s, int level, const std::string& text) {
    if (s.lost > 0) {
        char note[96];
        snprintf(note, sizeof note, "log: %llu lines lost, the output did not take them\n",
                 static_cast<unsigned long long>(s.lost));
        if (!WriteAll(s, Prefix(0) + note)) {
            ++s.lost;
            return;
        }
        s.lost = 0;
    }
    std::string record = Prefix(level);
    record += text;  // as formatted, embedded NULs included
    if (text.empty() || text.back() != '\n') {
        record += '\n';
    }
    if (!WriteAll(s, record)) {
        ++s.lost;
    }
}

}  // namespace

void gclDebugPrintf(int level, const char* file, const char* func, int line, const char* fmt, ...) {
    LogState& s = State();
    bool print = level <= s.level.load(std::memory_order_relaxed);
    bool capture = s.hasSink.load(std::memory_order_acquire);
    if ((!print && !capture) || fmt == nullptr) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    std::string text = Format(fmt, ap);
    va_end(ap);

    std::lock_guard<std::mutex> guard(s.lock);
    if (print) {
        Print(s, level, text);
    }
    if (capture && s.sink) {
        s.sink(LogRecord{level, file, func, line, std::move(text)});
    }
}

void LogOutputPrintf(const char* fmt, ...) {
    if (fmt == nullptr) {
        return;
    }
    LogState& s = State();
    va_list ap;
    va_start(ap, fmt);
    std::string text = Format(fmt, ap);
    va_end(ap);
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.errFd < 0) {
        s.errFd = NonBlockingStderr(s.errLookBeforeWrite);
    }
    if (s.errLost > 0) {
        char note[96];
        snprintf(note, sizeof note, "log: %llu lines lost, the output did not take them\n",
                 static_cast<unsigned long long>(s.errLost));
        if (!WriteTo(s.errFd, s.errLookBeforeWrite, note)) {
            ++s.errLost;
            return;
        }
        s.errLost = 0;
    }
    if (!WriteTo(s.errFd, s.errLookBeforeWrite, text)) {
        ++s.errLost;
    }
}

int GetLogLevel() {
    return State().level.load();
}

void SetLogLevel(int level) {
    LogState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.level.store(level);
    UpdateGate(s);
}

void SetLogSinkForTest(LogSink sink) {
    LogState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.sink = std::move(sink);
    s.hasSink.store(static_cast<bool>(s.sink), std::memory_order_release);
    UpdateGate(s);
}

}  // namespace Common
