// Writing everything to a descriptor, and opening pseudo-terminals: the loops the log, the
// service's console, the simulators and the tests' devices all need, with their differences
// (wait or drop, look before writing, SIGPIPE) as options.
#ifndef PLATFORM_FD_IO_H
#define PLATFORM_FD_IO_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace Common {

struct WriteMode {
    // When the descriptor takes nothing more (EAGAIN): 0 gives up at once, a positive value
    // waits that many milliseconds in all for room, a negative one waits as long as it takes.
    int waitMs = 0;
    // Gives up before the first byte unless the descriptor reports room: for a blocking
    // output that must never hold the writer.
    bool lookFirst = false;
    // Writes at most this many bytes at a time and, after the first, looks for room before
    // each further write (0: no limit). With lookFirst, PIPE_BUF is what POLLOUT promises.
    size_t chunk = 0;
    // A reader gone from a pipe must not end the process: SIGPIPE is held back for this
    // thread during each write and the one a write raised is taken out again.
    bool holdSigpipe = false;
    // The descriptor is a socket: send() with MSG_DONTWAIT | MSG_NOSIGNAL.
    bool socket = false;
};

// Writes `size` bytes as `mode` says; returns how many went out. When fewer, errno tells why
// (EAGAIN: no room within the wait).
size_t WriteAll(int fd, const void* data, size_t size, const WriteMode& mode);

// One write() with SIGPIPE held back as WriteMode::holdSigpipe describes.
ssize_t WriteWithoutSigpipe(int fd, const void* data, size_t size);

// A new pseudo-terminal pair: returns the master side (close-on-exec, no controlling tty,
// `extraFlags` such as O_NONBLOCK added) and stores the slave's path; -1 with errno set when
// the system has none to give.
int OpenPtyMaster(std::string& slavePath, int extraFlags = 0);

// Raw line (no echo, no line editing, no output translation), set from the master side.
bool MakePtyRaw(int master);

}  // namespace Common

#endif
