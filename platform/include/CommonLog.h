// Debug print of the recorder's common support library, desktop build.
#ifndef PLATFORM_COMMON_LOG_H
#define PLATFORM_COMMON_LOG_H

#include <atomic>
#include <functional>
#include <string>

namespace Common {

// One record per call. Printed when `level` <= the log level: PM_LOG_LEVEL from the
// environment (default 1), or the value set with SetLogLevel. Records go to stderr, or are
// appended to the file named by PM_LOG_FILE. Each printed line is the formatted text
// unchanged behind a prefix "[HH:MM:SS.mmm L<level>] "; a text without a final newline
// gets one. Records of several threads never interleave. Logging never blocks the caller: a
// record the output cannot take at once (a pipe nobody reads) is dropped and counted, and the
// count is printed ("log: N lines lost, ...") before the next record that goes out.
void gclDebugPrintf(int level, const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// The one way the code logs: `tag` is the module's prefix ("S_MANAGE: ", or "" for a text
// without one), printed in front of `fmt`; file, function and line are the caller's. `fmt`
// must be a string literal. The printed text is exactly tag followed by the formatted text.
// A record above the level costs one comparison here: its arguments are not even evaluated.
#define PM_LOG(level, tag, fmt, ...)                                                     \
    do {                                                                                 \
        if ((level) <= ::Common::detail::g_logGate.load(std::memory_order_relaxed)) {    \
            ::Common::gclDebugPrintf(level, __FILE__, __func__, __LINE__, "%s" fmt, tag, \
                                     ##__VA_ARGS__);                                     \
        }                                                                                \
    } while (0)

namespace detail {
// The highest level that gclDebugPrintf wants to see: the log level, or every level while a
// test sink is installed, or every level until the log has read its settings.
extern std::atomic<int> g_logGate;
}  // namespace detail

// A tool's own message (pm-host's), as it is, on standard error whatever PM_LOG_FILE says: no
// prefix, no level, but the log's promise: it never blocks, and a message the output cannot
// take is lost and counted.
void LogOutputPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

int GetLogLevel();
void SetLogLevel(int level);

// Test hook: while a sink is installed, every record, whatever its level, is also handed to
// it, formatted, with its level. The sink runs on the logging thread with the log lock held;
// it must not log itself. An empty function removes the sink.
struct LogRecord {
    int level;
    const char* file;
    const char* func;
    int line;
    std::string text;  // formatted text exactly as the caller formatted it
};
using LogSink = std::function<void(const LogRecord&)>;
void SetLogSinkForTest(LogSink sink);

}  // namespace Common

#endif
