// Pseudo-terminals that stand in for the recorder's serial ports, reachable through a symlink
// that a person or a test opens like a device.
#ifndef TOOLS_PM_RECORDER_PTY_LINK_H
#define TOOLS_PM_RECORDER_PTY_LINK_H

#include <sys/types.h>
#include <termios.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Messages.h"

namespace pmrecorder {

// One pty: the simulator holds the master, the symlink names the slave. The slave is kept
// open too, so the master never sees a hang-up while nobody has the link open, and it starts
// raw so bytes pass unchanged and nothing is echoed back.
class PtyLink {
public:
    // Creates the parent folders of `link`; replaces a stale symlink, refuses anything else.
    static std::unique_ptr<PtyLink> Create(const std::string& link, std::string& error);
    ~PtyLink();  // closes both ends, removes the symlink if it is still ours

    int Master() const { return m_master; }
    int Slave() const { return m_slave; }
    const std::string& SlaveName() const { return m_slaveName; }
    const std::string& Link() const { return m_link; }

    // Non-blocking; 0 when nothing is waiting, -1 on error (errno kept).
    ssize_t Read(uint8_t* buffer, size_t size);
    // Writes what the pty takes now; false with the reason when some bytes were not taken.
    bool Write(const uint8_t* data, size_t size, std::string& error);

    PtyLink(const PtyLink&) = delete;
    PtyLink& operator=(const PtyLink&) = delete;

private:
    PtyLink() = default;
    int m_master = -1;
    int m_slave = -1;
    std::string m_slaveName;
    std::string m_link;
};

// The line settings an MCU port was last given, kept whole because a pty forgets some of them
// (it always reads back 8 data bits and no parity enable).
struct LineState {
    unsigned speed = 9600;
    unsigned dataBits = 8;
    unsigned stopTenths = 10;  // 5, 10, 15 or 20
    char parity = 'N';         // 'N', 'O', 'E'
    uint8_t flow = 0;          // 0 none, 1 RTS/CTS, 2 XON/XOFF, 3 DTR/DSR
    std::string Text() const;  // "115200 8N1", "9600 7E1.5 rtscts"
};

// Lays the masked fields of a 6735 message over `state`; `notes` lists what a pty cannot do.
void UpdateLineState(const McuSettings& settings, LineState& state, std::string& notes);
// Writes `state` into `t` (raw mode kept); false when the speed has no termios constant, in
// which case the speed in `t` is left alone.
bool LineStateToTermios(const LineState& state, struct termios& t);
// tcgetattr, LineStateToTermios, tcsetattr. False with the errno text on failure.
bool ApplyLineState(int fd, const LineState& state, std::string& error);

}  // namespace pmrecorder

#endif
