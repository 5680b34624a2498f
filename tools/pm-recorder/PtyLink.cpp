#include "PtyLink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "FdIo.h"
#include "Scenario.h"

namespace pmrecorder {

namespace {

std::string ErrnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

bool MakeParents(const std::string& path, std::string& error) {
    std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (parent.empty()) {
        return true;
    }
    std::error_code ec;
    std::filesystem::create_directories(parent, ec);
    if (ec) {
        error = "cannot create " + parent.string() + ": " + ec.message();
        return false;
    }
    return true;
}

// A symlink left by an earlier run is ours to replace; a file or folder someone put there is not.
bool PlaceSymlink(const std::string& target, const std::string& link, std::string& error) {
    struct stat st;
    if (lstat(link.c_str(), &st) == 0) {
        if (!S_ISLNK(st.st_mode)) {
            error = link + " exists and is not a symlink";
            return false;
        }
        if (unlink(link.c_str()) != 0) {
            error = ErrnoText("cannot replace " + link);
            return false;
        }
    }
    if (symlink(target.c_str(), link.c_str()) != 0) {
        error = ErrnoText("cannot link " + link);
        return false;
    }
    return true;
}

struct SpeedName {
    unsigned speed;
    speed_t constant;
};
const SpeedName kSpeeds[] = {{2400, B2400},   {4800, B4800},   {9600, B9600},    {19200, B19200},
                             {38400, B38400}, {57600, B57600}, {115200, B115200}};

}  // namespace

std::unique_ptr<PtyLink> PtyLink::Create(const std::string& link, std::string& error) {
    std::unique_ptr<PtyLink> pty(new PtyLink());
    pty->m_master = Common::OpenPtyMaster(pty->m_slaveName, O_NONBLOCK);
    if (pty->m_master < 0) {
        error = ErrnoText("no pseudo-terminal");
        return nullptr;
    }
    pty->m_slave = open(pty->m_slaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (pty->m_slave < 0) {
        error = ErrnoText("cannot open " + pty->m_slaveName);
        return nullptr;
    }
    struct termios t;
    if (tcgetattr(pty->m_slave, &t) == 0) {
        cfmakeraw(&t);
        t.c_cflag |= CLOCAL | CREAD;
        // What LineState starts from, so that the pty and the record agree from the outset.
        cfsetispeed(&t, B9600);
        cfsetospeed(&t, B9600);
        tcsetattr(pty->m_slave, TCSANOW, &t);
    }
    if (!MakeParents(link, error) || !PlaceSymlink(pty->m_slaveName, link, error)) {
        return nullptr;
    }
    pty->m_link = link;
    return pty;
}

PtyLink::~PtyLink() {
    if (!m_link.empty()) {
        char target[PATH_MAX] = {};
        ssize_t n = readlink(m_link.c_str(), target, sizeof(target) - 1);
        if (n > 0 && m_slaveName == std::string(target, static_cast<size_t>(n))) {
            unlink(m_link.c_str());
        }
    }
    if (m_slave >= 0) {
        close(m_slave);
    }
    if (m_master >= 0) {
        close(m_master);
    }
}

ssize_t PtyLink::Read(uint8_t* buffer, size_t size) {
    ssize_t n = read(m_master, buffer, size);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return 0;
    }
    return n;
}

bool PtyLink::Write(const uint8_t* data, size_t size, std::string& error) {
    const size_t done = Common::WriteAll(m_master, data, size, Common::WriteMode());
    if (done < size) {
        error = errno == EAGAIN ? "nobody reads " + m_link + ": " + std::to_string(size - done) +
                                      " bytes dropped"
                                : ErrnoText("cannot write " + m_link);
        return false;
    }
    return true;
}

std::string LineState::Text() const {
    char text[64];
    const char* stop = stopTenths == 5    ? "0.5"
                       : stopTenths == 15 ? "1.5"
                       : stopTenths == 20 ? "2"
                                          : "1";
    static const char* const flows[] = {"", " rtscts", " xonxoff", " dtrdsr"};
    snprintf(text, sizeof(text), "%u %u%c%s%s", speed, dataBits, parity, stop,
             flows[flow < 4 ? flow : 0]);
    return text;
}

void UpdateLineState(const McuSettings& s, LineState& state, std::string& notes) {
    notes.clear();
    if (s.mask & 0x01) {
        state.speed = BaudSpeedOfCode(s.baud);
    }
    if (s.mask & 0x02) {
        state.dataBits = s.dataBits <= 3 ? 8 - s.dataBits : 8;
    }
    if (s.mask & 0x04) {
        static const unsigned tenths[] = {5, 10, 15, 20};
        state.stopTenths = s.stopBits <= 3 ? tenths[s.stopBits] : 10;
        if (state.stopTenths == 5) {
            notes += "a pty has no half stop bit; ";
        }
    }
    if (s.mask & 0x08) {
        state.parity = s.parity == 1 ? 'O' : s.parity == 2 ? 'E' : 'N';
    }
    if (s.mask & 0x10) {
        state.flow = s.flow <= 3 ? s.flow : 0;
        if (state.flow == 3) {
            notes += "termios has no DTR/DSR flow control; ";
        }
    }
    bool known = false;
    for (const SpeedName& sp : kSpeeds) {
        known = known || sp.speed == state.speed;
    }
    if (!known) {
        notes +=
            std::to_string(state.speed) + " bit/s has no termios speed, the pty keeps its own; ";
    }
    if (notes.size() >= 2) {
        notes.resize(notes.size() - 2);
    }
}

bool LineStateToTermios(const LineState& state, struct termios& t) {
    t.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS);
    static const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    t.c_cflag |= (state.dataBits >= 5 && state.dataBits <= 8) ? sizes[state.dataBits - 5] : CS8;
    // termios's CSTOPB is two stop bits, one and a half with five data bits.
    if (state.stopTenths > 10) {
        t.c_cflag |= CSTOPB;
    }
    t.c_iflag &= ~static_cast<tcflag_t>(INPCK | IXON | IXOFF);
    if (state.parity != 'N') {
        t.c_cflag |= PARENB | (state.parity == 'O' ? PARODD : 0);
        t.c_iflag |= INPCK;
    }
    if (state.flow == 1) {
        t.c_cflag |= CRTSCTS;
    } else if (state.flow == 2) {
        t.c_iflag |= IXON | IXOFF;
    }
    for (const SpeedName& sp : kSpeeds) {
        if (sp.speed == state.speed) {
            cfsetispeed(&t, sp.constant);
            cfsetospeed(&t, sp.constant);
            return true;
        }
    }
    return false;
}

bool ApplyLineState(int fd, const LineState& state, std::string& error) {
    struct termios t;
    if (tcgetattr(fd, &t) != 0) {
        error = ErrnoText("tcgetattr");
        return false;
    }
    LineStateToTermios(state, t);
    if (tcsetattr(fd, TCSANOW, &t) != 0) {
        error = ErrnoText("tcsetattr");
        return false;
    }
    return true;
}

}  // namespace pmrecorder
