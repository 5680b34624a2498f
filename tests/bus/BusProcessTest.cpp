// Requests and answers between two processes through the broker.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "BusTestUtil.h"
#include "MsgClientManage.h"
#include "TestSupport.h"

extern char** environ;

using bustest::Inbox;
using bustest::PumpUntil;
using bustest::Word;

namespace {

constexpr int kRequest = 1149;
constexpr int kQuit = 1150;

// bus_peer in a process of its own, stdout on a pipe.
class PeerProcess {
public:
    PeerProcess() {
        int fds[2];
        if (pipe(fds) != 0) {
            throw std::runtime_error("pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::string request = std::to_string(kRequest);
        std::string quit = std::to_string(kQuit);
        char* argv[] = {const_cast<char*>(BUS_PEER_PATH), request.data(), quit.data(), nullptr};
        int rc = posix_spawn(&m_pid, BUS_PEER_PATH, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        m_out = fds[0];
        if (rc != 0) {
            close(m_out);
            throw std::runtime_error("cannot start " BUS_PEER_PATH);
        }
    }
    ~PeerProcess() {
        if (m_pid > 0 && !Exited(std::chrono::seconds(3))) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &m_status, 0);
        }
        close(m_out);
    }
    // A line from the peer's stdout, or "" after `timeout`.
    std::string ReadLine(std::chrono::milliseconds timeout) {
        std::string line;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        char c;
        while (std::chrono::steady_clock::now() < deadline) {
            struct pollfd p = {m_out, POLLIN, 0};
            if (poll(&p, 1, 10) == 1) {
                if (read(m_out, &c, 1) != 1) {
                    break;
                }
                if (c == '\n') {
                    return line;
                }
                line += c;
            }
        }
        return "";
    }
    bool Exited(std::chrono::milliseconds timeout) {
        bool done =
            pmtest::WaitUntil([&] { return waitpid(m_pid, &m_status, WNOHANG) == m_pid; }, timeout);
        if (done) {
            m_pid = -1;
        }
        return done;
    }
    int Status() const { return m_status; }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    int m_status = 0;
};

TEST(BusProcesses, RequestAndAnswerThroughTheBroker) {
    pmtest::PrivateBus bus;
    CMsgClientManage client("BasicService.10", 300000);
    Inbox answers;
    client.RegisterHandler(10, kRequest | Common::kMsgAnswerBit, answers.Handler());

    PeerProcess peer;
    ASSERT_EQ(peer.ReadLine(std::chrono::seconds(10)), "ready");

    // Sent once each: the peer's registrations are in force once it says so.
    const std::vector<std::string> payloads = {"", "abc", std::string(5000, 'z')};
    for (const std::string& p : payloads) {
        ASSERT_EQ(bustest::Send(client, kRequest, p, 10, 1), 0);
    }
    ASSERT_TRUE(PumpUntil(client, [&] { return answers.Size() == payloads.size(); }));

    uint32_t firstSeq = 0;
    for (size_t i = 0; i < payloads.size(); ++i) {
        const std::string answer = answers.At(i);
        const std::string& p = payloads[i];
        ASSERT_EQ(answer.size(), 16 + 16 + p.size());
        // The answer's head.
        EXPECT_EQ(Word(answer, 0), static_cast<uint32_t>(kRequest) | 0x8000u);
        EXPECT_EQ(Word(answer, 1), 0u) << "answers carry no sender";
        EXPECT_EQ(Word(answer, 3), (16u + p.size()) | (1u << 24)) << "bit 24, not bit 23";
        // The request's head as the peer received it, echoed in the answer.
        std::string request = answer.substr(16);
        EXPECT_EQ(Word(request, 0), static_cast<uint32_t>(kRequest));
        EXPECT_EQ(Word(request, 1), 10u);
        EXPECT_EQ(Word(request, 3), p.size() | (1u << 23));
        EXPECT_EQ(Word(answer, 2), Word(request, 2)) << "sequence number copied";
        if (i == 0) {
            firstSeq = Word(request, 2);
        }
        EXPECT_EQ(Word(request, 2), firstSeq + i);
        EXPECT_EQ(request.substr(16), p);
    }

    ASSERT_EQ(bustest::Send(client, kQuit, ""), 0);
    ASSERT_TRUE(peer.Exited(std::chrono::seconds(5)));
    EXPECT_TRUE(WIFEXITED(peer.Status()) && WEXITSTATUS(peer.Status()) == 0);
}

}  // namespace
