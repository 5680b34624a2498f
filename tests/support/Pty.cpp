#include "Pty.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace pmtest {

Pty::Pty() {
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_master < 0) {
        throw std::runtime_error(std::string("posix_openpt: ") + strerror(errno));
    }
    char name[128];
    if (grantpt(m_master) != 0 || unlockpt(m_master) != 0 ||
        ptsname_r(m_master, name, sizeof name) != 0) {
        int error = errno;
        close(m_master);
        throw std::runtime_error(std::string("pty slave: ") + strerror(error));
    }
    m_slavePath = name;
}

Pty::~Pty() {
    HangUp();
}

bool Pty::Send(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(m_master, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string Pty::Receive(size_t count, std::chrono::milliseconds timeout) {
    std::string got;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (got.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        struct pollfd p = {m_master, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            break;
        }
        char buffer[1024];
        ssize_t n = read(m_master, buffer, std::min(sizeof buffer, count - got.size()));
        if (n <= 0) {
            break;  // the slave side is closed
        }
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

bool Pty::MakeRaw() {
    struct termios tio;
    if (tcgetattr(m_master, &tio) != 0) {
        return false;
    }
    cfmakeraw(&tio);
    return tcsetattr(m_master, TCSANOW, &tio) == 0;
}

void Pty::HangUp() {
    if (m_master >= 0) {
        close(m_master);
        m_master = -1;
    }
}

}  // namespace pmtest
