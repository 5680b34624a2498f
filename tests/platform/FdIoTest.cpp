// The write loop's modes against real pipes and a real pseudo-terminal.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "FdIo.h"

namespace {

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            read = fds[0];
            write = fds[1];
        }
    }
    ~Pipe() {
        CloseRead();
        if (write >= 0) {
            close(write);
        }
    }
    void CloseRead() {
        if (read >= 0) {
            close(read);
            read = -1;
        }
    }
    // What the pipe holds before it is full: the writer is non-blocking.
    size_t Fill() {
        fcntl(write, F_SETFL, fcntl(write, F_GETFL) | O_NONBLOCK);
        std::vector<char> block(4096, 'x');
        size_t held = 0;
        ssize_t n;
        while ((n = ::write(write, block.data(), block.size())) > 0) {
            held += static_cast<size_t>(n);
        }
        return held;
    }
};

TEST(FdIo, AFullOutputTakesNothingUnlessTheWriterWaitsForItsReader) {
    Pipe p;
    ASSERT_GE(p.read, 0);
    const size_t held = p.Fill();
    ASSERT_GT(held, 0u);
    const std::string more(10000, 'y');

    Common::WriteMode drop;
    errno = 0;
    EXPECT_EQ(Common::WriteAll(p.write, more.data(), more.size(), drop), 0u);
    EXPECT_EQ(errno, EAGAIN);

    // A reader that drains everything: waiting without a limit delivers every byte.
    size_t drained = 0;
    std::thread reader([&] {
        char buffer[4096];
        ssize_t n;
        while (drained < held + more.size() && (n = ::read(p.read, buffer, sizeof buffer)) > 0) {
            drained += static_cast<size_t>(n);
        }
    });
    Common::WriteMode wait;
    wait.waitMs = -1;
    EXPECT_EQ(Common::WriteAll(p.write, more.data(), more.size(), wait), more.size());
    reader.join();
    EXPECT_EQ(drained, held + more.size());
}

TEST(FdIo, LookingFirstOrInChunksNeverHoldsTheWriter) {
    Pipe p;
    ASSERT_GE(p.read, 0);
    p.Fill();
    // The write end stays blocking for this: only the looks keep the writer from waiting.
    fcntl(p.write, F_SETFL, fcntl(p.write, F_GETFL) & ~O_NONBLOCK);
    const std::string record(300, 'r');
    Common::WriteMode look;
    look.lookFirst = true;
    look.chunk = PIPE_BUF;
    EXPECT_EQ(Common::WriteAll(p.write, record.data(), record.size(), look), 0u);

    // Room for one chunk and a little: the second chunk finds none and the rest is left.
    std::vector<char> buffer(PIPE_BUF + 100);
    ASSERT_EQ(::read(p.read, buffer.data(), buffer.size()), static_cast<ssize_t>(buffer.size()));
    const std::string big(3 * PIPE_BUF, 'b');
    const size_t done = Common::WriteAll(p.write, big.data(), big.size(), look);
    EXPECT_EQ(done, static_cast<size_t>(PIPE_BUF));
}

TEST(FdIo, AReaderGoneFromAPipeFailsTheWriteWithoutSigpipe) {
    Pipe p;
    ASSERT_GE(p.read, 0);
    p.CloseRead();
    Common::WriteMode mode;
    mode.holdSigpipe = true;
    errno = 0;
    EXPECT_EQ(Common::WriteAll(p.write, "gone\n", 5, mode), 0u);
    EXPECT_EQ(errno, EPIPE);
    // Still alive, and no SIGPIPE left pending to strike later.
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(FdIo, ARawPseudoTerminalPassesBytesUnchanged) {
    std::string slavePath;
    const int master = Common::OpenPtyMaster(slavePath, O_NONBLOCK);
    ASSERT_GE(master, 0) << strerror(errno);
    EXPECT_EQ(fcntl(master, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_NE(fcntl(master, F_GETFL) & O_NONBLOCK, 0);
    ASSERT_TRUE(Common::MakePtyRaw(master));
    const int slave = open(slavePath.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0) << slavePath;
    const std::string bytes("a\nb\r\x03\x7f", 6);
    ASSERT_EQ(Common::WriteAll(master, bytes.data(), bytes.size(), Common::WriteMode()),
              bytes.size());
    std::string got;
    char buffer[16];
    while (got.size() < bytes.size()) {
        const ssize_t n = ::read(slave, buffer, sizeof buffer);
        ASSERT_GT(n, 0);
        got.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_EQ(got, bytes);  // no echo, no \n to \r\n, no signal from ^C
    close(slave);
    close(master);
}

}  // namespace
