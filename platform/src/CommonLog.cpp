#include "CommonLog.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace Common {

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
    int fd = -1;  // PM_LOG_FILE, opened on first use
    bool fileTried = false;
};

LogState& State() {
    static LogState* state = new LogState();  // never destroyed: threads may log at exit
    return *state;
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

int Output(LogState& s) {
    if (!s.fileTried) {
        s.fileTried = true;
        const char* path = getenv("PM_LOG_FILE");
        if (path != nullptr && *path != '\0') {
            s.fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            if (s.fd < 0) {
                fprintf(stderr, "log: cannot open PM_LOG_FILE %s: %s; logging to stderr\n", path,
                        strerror(errno));
            }
        }
    }
    return s.fd >= 0 ? s.fd : STDERR_FILENO;
}

void WriteAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // nowhere left to report a failing log
        }
        done += static_cast<size_t>(n);
    }
}

// The whole record goes out in one write(): with O_APPEND, records of other processes
// sharing the file land between records, never inside one; stdio would split long ones.
void Print(LogState& s, int level, const std::string& text) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmv;
    localtime_r(&tv.tv_sec, &tmv);
    char prefix[48];
    snprintf(prefix, sizeof prefix, "[%02d:%02d:%02d.%03ld L%d] ", tmv.tm_hour, tmv.tm_min,
             tmv.tm_sec, static_cast<long>(tv.tv_usec / 1000), level);
    std::string record(prefix);
    record += text;  // as formatted, embedded NULs included
    if (text.empty() || text.back() != '\n') {
        record += '\n';
    }
    WriteAll(Output(s), record);
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

int GetLogLevel() {
    return State().level.load();
}

void SetLogLevel(int level) {
    State().level.store(level);
}

void SetLogSinkForTest(LogSink sink) {
    LogState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.sink = std::move(sink);
    s.hasSink.store(static_cast<bool>(s.sink), std::memory_order_release);
}

}  // namespace Common
