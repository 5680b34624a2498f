#include "SerialPortWriter.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "CommonLog.h"

namespace {

constexpr const char kLogTag[] = "SERIAL_OPERATE: ";
// A peer that is only slow to read gets this long on top of the bytes' own time on the line.
std::atomic<int> g_fixedBudgetMs{CSerialPortWriter::kFixedBudgetMs};
constexpr unsigned int kDefaultSpeed = 9600;
constexpr unsigned int kBitsPerByte = 10;  // start, eight data bits, stop
// What the reader thread may leave queued on one port: a few frames, not a backlog.
constexpr size_t kQueueLimit = 4096;
constexpr long long kLogPeriodMs = 1000;

}  // namespace

CSerialPortWriter::CSerialPortWriter(int readFd, const std::string& path)
    : m_nWriteFd(-1), m_bOwnFd(false), m_strName(path), m_nSpeed(kDefaultSpeed) {
    m_nWriteFd = open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_nWriteFd >= 0 && m_nWriteFd <= STDERR_FILENO) {
        // A standard stream's number (the host closed one) would take every printf.
        const int moved = fcntl(m_nWriteFd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(m_nWriteFd);
        m_nWriteFd = moved;
    }
    if (m_nWriteFd >= 0) {
        m_bOwnFd = true;
        return;
    }
    PM_LOG(0, kLogTag,
           "[OPEN] no write descriptor of its own, name = %s: %s; writes wait for room on "
           "fd = %d and may block\n",
           path.c_str(), strerror(errno), readFd);
    m_nWriteFd = readFd;
}

CSerialPortWriter::~CSerialPortWriter() {
    if (m_bOwnFd) {
        close(m_nWriteFd);
    }
}

long long CSerialPortWriter::SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

long long CSerialPortWriter::BudgetMs(unsigned int length, unsigned int bitsPerSecond) {
    const unsigned int speed = bitsPerSecond != 0 ? bitsPerSecond : kDefaultSpeed;
    return g_fixedBudgetMs.load() +
           static_cast<long long>(length) * kBitsPerByte * 1000 / static_cast<long long>(speed);
}

void CSerialPortWriter::SetFixedBudgetForTest(int ms) {
    g_fixedBudgetMs = ms;
}

void CSerialPortWriter::SetSpeed(unsigned int bitsPerSecond) {
    if (bitsPerSecond != 0) {
        m_nSpeed = bitsPerSecond;
    }
}

SerialWriteStats CSerialPortWriter::Stats() const {
    std::lock_guard<std::mutex> state(m_StateLock);
    return m_stats;
}

bool CSerialPortWriter::HasQueued() const {
    return m_nQueued.load(std::memory_order_acquire) != 0 ||
           m_nInFlight.load(std::memory_order_acquire) != 0;
}

long long CSerialPortWriter::QueueDeadline() const {
    std::lock_guard<std::mutex> state(m_StateLock);
    return m_llDeadline;
}

long CSerialPortWriter::WriteSome(const char* data, unsigned int length) {
    unsigned int done = 0;
    while (done < length) {
        const ssize_t n = write(m_nWriteFd, data + done, length - done);
        if (n > 0) {
            done += static_cast<unsigned int>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            const int error = errno;
            std::lock_guard<std::mutex> state(m_StateLock);
            if (!m_bErrorLogged) {
                m_bErrorLogged = true;
                PM_LOG(1, kLogTag, "[WRITE] name = %s: %s\n", m_strName.c_str(), strerror(error));
            }
            return -1;
        }
        break;  // no room now
    }
    return static_cast<long>(done);
}

bool CSerialPortWriter::Drained() const {
    struct pollfd room = {m_nWriteFd, POLLOUT, 0};
    return poll(&room, 1, 0) > 0;
}

bool CSerialPortWriter::ShouldLogLocked() {
    const long long now = SteadyMs();
    if (m_llLastLogMs != 0 && now - m_llLastLogMs < kLogPeriodMs) {
        return false;
    }
    m_llLastLogMs = now;
    return true;
}

void CSerialPortWriter::Cut(unsigned int lost, unsigned int length) {
    std::lock_guard<std::mutex> state(m_StateLock);
    ++m_stats.cutWrites;
    m_stats.bytesLost += lost;
    const bool first = !m_stats.stalled;
    m_stats.stalled = true;
    m_bStalled = true;
    // The moment a port stalls is always worth a line; repeats within a second are counted.
    if (first || ShouldLogLocked()) {
        m_llLastLogMs = SteadyMs();
        PM_LOG(0, kLogTag,
               "[WRITE] name = %s, no room within %lld ms, %u of %u bytes dropped, stalled "
               "until it drains; cut = %llu, refused = %llu, bytes lost = %llu\n",
               m_strName.c_str(), BudgetMs(length, m_nSpeed), lost, length, m_stats.cutWrites,
               m_stats.refusedWrites, m_stats.bytesLost);
    }
}

void CSerialPortWriter::RefuseLocked(unsigned int length, const char* why) {
    ++m_stats.refusedWrites;
    m_stats.bytesLost += length;
    if (ShouldLogLocked()) {
        PM_LOG(0, kLogTag,
               "[WRITE] name = %s %s, %u bytes dropped; cut = %llu, refused = %llu, bytes "
               "lost = %llu\n",
               m_strName.c_str(), why, length, m_stats.cutWrites, m_stats.refusedWrites,
               m_stats.bytesLost);
    }
}

bool CSerialPortWriter::RefuseOrResume(unsigned int length) {
    const bool drained = Drained();
    std::lock_guard<std::mutex> state(m_StateLock);
    if (drained) {
        m_stats.stalled = false;
        m_bStalled = false;
        m_bErrorLogged = false;
        PM_LOG(1, kLogTag, "[WRITE] name = %s drained, writes go out again\n", m_strName.c_str());
        return false;
    }
    RefuseLocked(length, "is stalled");
    return true;
}

bool CSerialPortWriter::DrainQueued(bool wait) {
    std::string queue;
    long long deadline = 0;
    {
        std::lock_guard<std::mutex> state(m_StateLock);
        queue.swap(m_strQueue);
        m_nInFlight = queue.size();
        m_nQueued = 0;
        deadline = m_llDeadline;
    }
    size_t done = 0;
    bool failed = false;
    while (done < queue.size()) {
        const long n =
            WriteSome(queue.data() + done, static_cast<unsigned int>(queue.size() - done));
        if (n < 0) {
            failed = true;
            break;
        }
        done += static_cast<size_t>(n);
        const long long left = deadline - SteadyMs();
        if (done == queue.size() || left <= 0 || !wait) {
            break;
        }
        struct pollfd room = {m_nWriteFd, POLLOUT, 0};
        poll(&room, 1, static_cast<int>(left));
    }
    if (done == queue.size()) {
        m_nInFlight = 0;
        return true;
    }
    if (!failed && !wait && SteadyMs() < deadline) {
        // Not due yet: the rest goes back in front of whatever was queued meanwhile.
        std::lock_guard<std::mutex> state(m_StateLock);
        m_strQueue.insert(0, queue, done, std::string::npos);
        m_nQueued = m_strQueue.size();
        m_nInFlight = 0;
        return false;
    }
    m_nInFlight = 0;
    Cut(static_cast<unsigned int>(queue.size() - done), static_cast<unsigned int>(queue.size()));
    return false;
}

long CSerialPortWriter::Enqueue(const char* rest, unsigned int length, unsigned int sent) {
    std::lock_guard<std::mutex> state(m_StateLock);
    // A frame whose head went out is taken whatever the limit: its rest must follow.
    if (sent == 0 && m_stats.stalled) {
        RefuseLocked(length, "is stalled");
        return 0;
    }
    if (sent == 0 && m_strQueue.size() + m_nInFlight + length > kQueueLimit) {
        RefuseLocked(length, "has a full queue");
        return 0;
    }
    const bool wasEmpty = m_strQueue.empty();
    m_strQueue.append(rest, length);
    m_nQueued = m_strQueue.size();
    const long long due =
        SteadyMs() + BudgetMs(static_cast<unsigned int>(m_strQueue.size()), m_nSpeed);
    m_llDeadline = wasEmpty ? due : std::max(m_llDeadline, due);
    return static_cast<long>(sent + length);
}

long CSerialPortWriter::Write(const char* data, unsigned int length) {
    std::lock_guard<std::mutex> turn(m_Turn);
    if (RefuseWhileStalled(length)) {
        return 0;
    }
    // Bytes the reader thread accepted earlier go first, within their own deadline.
    if (!DrainQueue(true)) {
        std::lock_guard<std::mutex> state(m_StateLock);
        RefuseLocked(length, "is stalled");
        return 0;
    }
    const long long deadline = SteadyMs() + BudgetMs(length, m_nSpeed);
    unsigned int done = 0;
    while (true) {
        const long n = WriteSome(data + done, length - done);
        if (n < 0) {
            return -1;
        }
        done += static_cast<unsigned int>(n);
        const long long left = deadline - SteadyMs();
        if (done == length || left <= 0) {
            break;
        }
        struct pollfd room = {m_nWriteFd, POLLOUT, 0};
        poll(&room, 1, static_cast<int>(left));
    }
    if (done < length) {
        Cut(length - done, length);
        return static_cast<long>(done);
    }
    // The reader thread may have queued behind this frame meanwhile; it flushes what is left.
    DrainQueue(false);
    return static_cast<long>(length);
}

long CSerialPortWriter::WriteNoWait(const char* data, unsigned int length) {
    std::unique_lock<std::mutex> turn(m_Turn, std::try_to_lock);
    if (!turn.owns_lock()) {
        return Enqueue(data, length, 0);  // another writer is mid-frame
    }
    if (RefuseWhileStalled(length)) {
        return 0;
    }
    if (!DrainQueue(false)) {
        return Enqueue(data, length, 0);  // behind older bytes, in order
    }
    const long n = WriteSome(data, length);
    if (n < 0 || static_cast<unsigned int>(n) == length) {
        return n;
    }
    return Enqueue(data + n, length - static_cast<unsigned int>(n), static_cast<unsigned int>(n));
}

bool CSerialPortWriter::Flush() {
    std::unique_lock<std::mutex> turn(m_Turn, std::try_to_lock);
    if (!turn.owns_lock()) {
        return false;
    }
    DrainQueue(false);
    return true;
}
