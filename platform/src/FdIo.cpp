#include "FdIo.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace Common {

namespace {

long long NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool HasRoom(int fd, int waitMs) {
    struct pollfd ready = {fd, POLLOUT, 0};
    return poll(&ready, 1, waitMs) == 1 && (ready.revents & POLLOUT) != 0;
}

ssize_t WriteOnce(int fd, const char* data, size_t size, const WriteMode& mode) {
    if (mode.socket) {
        return send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    return mode.holdSigpipe ? WriteWithoutSigpipe(fd, data, size) : write(fd, data, size);
}

}  // namespace

ssize_t WriteWithoutSigpipe(int fd, const void* data, size_t size) {
    sigset_t pipe;
    sigset_t old;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &old);
    sigset_t pending;
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    const ssize_t n = write(fd, data, size);
    const int error = errno;
    if (n < 0 && error == EPIPE && !wasPending) {
        const struct timespec zero = {0, 0};
        while (sigtimedwait(&pipe, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = error;
    return n;
}

size_t WriteAll(int fd, const void* data, size_t size, const WriteMode& mode) {
    const char* bytes = static_cast<const char*>(data);
    if (mode.lookFirst && size > 0 && !HasRoom(fd, 0)) {
        errno = EAGAIN;
        return 0;
    }
    const long long until = NowMs() + mode.waitMs;
    size_t done = 0;
    while (done < size) {
        size_t piece = size - done;
        if (mode.chunk > 0) {
            piece = std::min(piece, mode.chunk);
            if (done > 0 && !HasRoom(fd, 0)) {
                errno = EAGAIN;
                break;
            }
        }
        const ssize_t n = WriteOnce(fd, bytes + done, piece, mode);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN && mode.waitMs != 0) {
            const long long left = until - NowMs();
            if (mode.waitMs < 0 || left > 0) {
                HasRoom(fd, mode.waitMs < 0 ? -1 : static_cast<int>(left));
                continue;
            }
        }
        break;
    }
    return done;
}

int OpenPtyMaster(std::string& slavePath, int extraFlags) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | extraFlags);
    if (master < 0) {
        return -1;
    }
    char name[128];
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name, sizeof name) != 0) {
        const int error = errno;
        close(master);
        errno = error;
        return -1;
    }
    slavePath = name;
    return master;
}

bool MakePtyRaw(int master) {
    struct termios tio;
    if (tcgetattr(master, &tio) != 0) {
        return false;
    }
    cfmakeraw(&tio);
    return tcsetattr(master, TCSANOW, &tio) == 0;
}

}  // namespace Common
