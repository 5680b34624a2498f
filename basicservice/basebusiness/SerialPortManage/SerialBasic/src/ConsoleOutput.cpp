#include "ConsoleOutput.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "FdIo.h"

namespace {

struct Console {
    std::mutex lock;
    int fd = -1;
    dev_t device = 0;  // what standard output was when `fd` was chosen
    ino_t inode = 0;
    bool lookBeforeWrite = false;  // an output that could not be made non-blocking
    bool socket = false;           // sent to with MSG_DONTWAIT, which needs no flag of its own
    bool cut = false;              // the last record went out in part: the next starts a line
    uint64_t lost = 0;             // since the last line that went out
    uint64_t lostEver = 0;
};

Console& State() {
    static Console* console = new Console();  // never destroyed: threads may print at exit
    return *console;
}

// Standard output as an output that never blocks: a regular file does not; a pipe, FIFO or
// terminal gets a description of its own opened non-blocking, so that the host's (and its
// stdio's) stays as it was; a socket (a system log) is sent to without waiting; anything else
// is looked at before each write of at most a pipe's atomic size. Chosen again when the host
// points standard output elsewhere.
int Output(Console& c) {
    struct stat info;
    if (fstat(STDOUT_FILENO, &info) != 0) {
        return -1;
    }
    if (c.fd >= 0 && info.st_dev == c.device && info.st_ino == c.inode) {
        return c.fd;
    }
    if (c.fd > STDERR_FILENO) {
        close(c.fd);
    }
    c.fd = STDOUT_FILENO;
    c.device = info.st_dev;
    c.inode = info.st_ino;
    c.lookBeforeWrite = false;
    c.socket = S_ISSOCK(info.st_mode);
    if (S_ISREG(info.st_mode) || c.socket) {
        return c.fd;
    }
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)) {
        const int fd = open("/proc/self/fd/1", O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd >= 0) {
            c.fd = fd;
            return c.fd;
        }
    }
    c.lookBeforeWrite = true;
    return c.fd;
}

// SIGPIPE is held back during the writes: a reader gone from a pipe must not end a host that
// did not ignore it, so the service never depends on its host for that.
bool WriteAll(Console& c, const char* data, size_t size) {
    const int fd = Output(c);
    if (fd < 0) {
        return false;  // no standard output at all
    }
    Common::WriteMode mode;
    mode.lookFirst = c.lookBeforeWrite;
    mode.chunk = c.lookBeforeWrite ? PIPE_BUF : 0;
    mode.holdSigpipe = true;
    mode.socket = c.socket;
    const size_t done = Common::WriteAll(fd, data, size, mode);
    // A record that went out in part (larger than the output's room) counts as lost; the next
    // begins on a line of its own.
    c.cut = done > 0 && done < size;
    return done == size;
}

}  // namespace

void ConsoleWrite(const std::string& text) {
    Console& c = State();
    std::lock_guard<std::mutex> guard(c.lock);
    if (c.cut && !WriteAll(c, "\n", 1)) {
        ++c.lost;
        ++c.lostEver;
        return;
    }
    if (c.lost > 0) {
        char note[96];
        const int n =
            snprintf(note, sizeof note, "console: %llu lines lost, the output did not take them\n",
                     static_cast<unsigned long long>(c.lost));
        if (!WriteAll(c, note, static_cast<size_t>(n))) {
            ++c.lost;
            ++c.lostEver;
            return;
        }
        c.lost = 0;
    }
    if (!WriteAll(c, text.data(), text.size())) {
        ++c.lost;
        ++c.lostEver;
    }
}

void ConsolePrintf(const char* fmt, ...) {
    char small[512];
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    const int n = vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) {
        va_end(ap);
        return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        va_end(ap);
        ConsoleWrite(std::string(small, static_cast<size_t>(n)));
        return;
    }
    std::vector<char> big(static_cast<size_t>(n) + 1);
    vsnprintf(big.data(), big.size(), fmt, ap);
    va_end(ap);
    ConsoleWrite(std::string(big.data(), static_cast<size_t>(n)));
}

uint64_t ConsoleLostLines() {
    Console& c = State();
    std::lock_guard<std::mutex> guard(c.lock);
    return c.lostEver;
}
