// A pseudo-terminal pair standing in for a serial device: the test keeps the master side and
// hands the slave path to the code under test, which opens it like any tty.
#ifndef TESTS_SUPPORT_PTY_H
#define TESTS_SUPPORT_PTY_H

#include <chrono>
#include <string>

namespace pmtest {

class Pty {
public:
    Pty();  // throws std::runtime_error when the system has no pty to give
    ~Pty();

    int Master() const { return m_master; }
    const std::string& SlavePath() const { return m_slavePath; }

    // The device sends: writes every byte to the master. False on failure.
    bool Send(const std::string& bytes);
    // What the code under test wrote to the slave: collects until `count` bytes arrived or
    // `timeout` passed, and returns what arrived.
    std::string Receive(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Raw line (no echo, no line editing, no output translation) without opening the slave:
    // the master sets the slave's termios.
    bool MakeRaw();
    // The device goes away: closes the master, so the slave side reads end of file.
    void HangUp();

    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

private:
    int m_master = -1;
    std::string m_slavePath;
};

}  // namespace pmtest

#endif
