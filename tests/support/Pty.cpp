#include "Pty.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "FdIo.h"

namespace pmtest {

Pty::Pty() {
    m_master = Common::OpenPtyMaster(m_slavePath);
    if (m_master < 0) {
        throw std::runtime_error(std::string("no pseudo-terminal: ") + strerror(errno));
    }
}

Pty::~Pty() {
    HangUp();
}

bool Pty::Send(const std::string& bytes) {
    Common::WriteMode mode;
    mode.waitMs = -1;
    return Common::WriteAll(m_master, bytes.data(), bytes.size(), mode) == bytes.size();
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
    return Common::MakePtyRaw(m_master);
}

void Pty::HangUp() {
    if (m_master >= 0) {
        close(m_master);
        m_master = -1;
    }
}

}  // namespace pmtest
