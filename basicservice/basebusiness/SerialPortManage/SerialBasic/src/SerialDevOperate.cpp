#include "SerialDevOperate.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

#include <json/json.h>

#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "CommonThread.h"
#include "MsgView.h"
#include "MutexGuard.h"
#include "SerialBase.h"
#include "SysConfig.h"

namespace {

constexpr const char kLogTag[] = "SERIAL_OPERATE: ";

// The reader's select time-out and its pause without ports.
std::atomic<int> g_readerTimeoutMs{1000};
// How long a port whose read failed (hang-up, unplugged adapter) stays out of select.
constexpr int kFailedReadRetryMs = 200;
constexpr size_t kReadChunk = SERIAL_DELIVERY_SIZE;
// Descriptors 0-2 are the standard streams' numbers: a tty that gets one (the host closed a
// stream) would receive every printf, and the reader never serves descriptor 0.
constexpr int kFirstPortFd = 3;

long long SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Fills the zeroed name field; false when the path had to be cut to keep the final NUL.
bool CopySerialName(char (&name)[64], const std::string& path) {
    memset(name, 0, sizeof name);
    size_t n = std::min(path.size(), sizeof name - 1);
    memcpy(name, path.data(), n);
    return n == path.size();
}

}  // namespace

CSerialDevOperate::CSerialDevOperate()
    : m_nMaxFd(-1),
      m_bSelectFailed(false),
      m_bReaderStop(false),
      m_bTableChanged(false),
      m_nReaderCount(0) {
    pthread_mutex_init(&m_TableLock, nullptr);
    if (pipe2(m_nWakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        PM_LOG(1, kLogTag, "no wake pipe (%s), teardown waits for the reader's select\n",
               strerror(errno));
        m_nWakePipe[0] = m_nWakePipe[1] = -1;
    }
}

CSerialDevOperate::~CSerialDevOperate() {
    // The reader works on this object: it has to be gone before anything is freed.
    StopReader();
    serial_close_all();
    pthread_mutex_destroy(&m_TableLock);
    for (int fd : m_nWakePipe) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

int CSerialDevOperate::serial_init() {
    {
        std::lock_guard<std::mutex> guard(m_ReaderLock);
        if (m_nReaderCount > 0) {
            PM_LOG(1, kLogTag, "serial reader thread runs already\n");
            return 0;
        }
        ++m_nReaderCount;
    }
    if (CreateNormalThread(SerialReadThreadEntry, this, nullptr) != 0) {
        std::lock_guard<std::mutex> guard(m_ReaderLock);
        --m_nReaderCount;
        PM_LOG(0, kLogTag, "serial reader thread could not be started\n");
        return -1;
    }
    return 0;
}

void CSerialDevOperate::StopReader() {
    std::unique_lock<std::mutex> lock(m_ReaderLock);
    m_bReaderStop = true;
    m_ReaderCond.notify_all();
    WakeSelect();
    m_ReaderCond.wait(lock, [this] { return m_nReaderCount == 0; });
}

bool CSerialDevOperate::ReaderPause(int ms) {
    std::unique_lock<std::mutex> lock(m_ReaderLock);
    m_ReaderCond.wait_for(lock, std::chrono::milliseconds(ms),
                          [this] { return m_bReaderStop || m_bTableChanged; });
    return !m_bReaderStop;
}

namespace {

// A zeroed record for a freshly opened port; cuts and logs a path too long for the name field.
SerialDevInfo* NewDevInfo(int fd, const std::string& path, CSerialBase* owner) {
    SerialDevInfo* info = new SerialDevInfo();
    info->fd = fd;
    if (!CopySerialName(info->name, path)) {
        PM_LOG(0, kLogTag, "[OPEN] serial name too long, kept %d of %d bytes, name = %s\n",
               static_cast<int>(sizeof info->name - 1), static_cast<int>(path.size()), info->name);
    }
    info->owner = owner;
    info->portId = serial_port_id(path);
    if (fd >= FD_SETSIZE) {
        PM_LOG(0, kLogTag,
               "[OPEN] fd = %d is beyond select's limit %d, name = %s, "
               "its data cannot be read\n",
               fd, FD_SETSIZE, info->name);
    }
    return info;
}

}  // namespace

int CSerialDevOperate::serial_open(CSerialBase* owner, std::string path, int flags) {
    if (owner == nullptr) {
        PM_LOG(0, kLogTag, "[OPEN] serial failed, serial instance is NULL, name = %s\n",
               path.c_str());
        return -3;
    }
    MutexGuard table(m_TableLock);
    if (serial_check_open_same(path) == 1) {
        PM_LOG(0, kLogTag, "[OPEN] serial failed, serial has opened, name = %s\n", path.c_str());
        return -1;
    }
    int opened = serial_check_perip_open(owner->GetMainId(), owner->GetSubId());
    if (opened != -1) {
        PM_LOG(0, kLogTag,
               "[OPEN] serial failed, this perip has open one serial, name = "
               "%s, mainId = %d, subId = %d, opened_fd = %d\n",
               path.c_str(), owner->GetMainId(), owner->GetSubId(), opened);
        return -3;
    }
    int fd = open(path.c_str(), flags);
    if (fd < 0) {
        int error = errno;
        PM_LOG(0, kLogTag, "[OPEN] serial failed, name = %s\n", path.c_str());
        PM_LOG(1, kLogTag, "[OPEN] open %s: %s\n", path.c_str(), strerror(error));
        return -2;
    }
    if (fd < kFirstPortFd) {
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, kFirstPortFd);
        PM_LOG(1, kLogTag,
               "[OPEN] fd = %d is a standard stream's number, moved to fd "
               "= %d, name = %s\n",
               fd, moved, path.c_str());
        if (moved >= 0) {
            close(fd);
            fd = moved;
        }
    }
    // Blocking from here on: the reader only reads what select reported.
    if (fcntl(fd, F_SETFL, 0) < 0) {
        PM_LOG(0, kLogTag, "[OPEN] fcntl failed\n");
    }
    SerialDevInfo* info = NewDevInfo(fd, path, owner);
    info->writer = WriterForPath(fd, path);
    size_t openCount;
    {
        std::unique_lock<std::shared_mutex> view(m_TableView);
        m_mapSerialDev[fd] = info;
        openCount = m_mapSerialDev.size();
    }
    m_mapFailedRead.erase(fd);
    WakeReader();
    PM_LOG(0, kLogTag,
           "[OPEN] serial success, fd = %d, name = %s, mainId = %d, subId = %d, "
           "portId = %d, open_size = %d\n",
           fd, info->name, owner->GetMainId(), owner->GetSubId(), info->portId,
           static_cast<int>(openCount));
    return fd;
}

int CSerialDevOperate::serial_close(int fd) {
    MutexGuard table(m_TableLock);
    SerialDevInfo* info = nullptr;
    {
        std::unique_lock<std::shared_mutex> view(m_TableView);
        auto it = m_mapSerialDev.find(fd);
        if (it == m_mapSerialDev.end()) {
            return 0;
        }
        info = it->second;
        m_mapSerialDev.erase(it);
    }
    close(fd);
    delete info;
    m_mapFailedRead.erase(fd);
    WakeReader();
    return 1;
}

void CSerialDevOperate::serial_hold_owner(const CSerialBase* owner) {
    if (owner == nullptr) {
        return;
    }
    // Taken with the table lock: once this returns no delivery to the owner is under way.
    MutexGuard table(m_TableLock);
    m_setHeldOwners.insert(owner);
    WakeReader();  // its ports leave select: their bytes wait in the kernel
}

void CSerialDevOperate::serial_release_owner(const CPeripheralBase* owner) {
    MutexGuard table(m_TableLock);
    if (m_setHeldOwners.erase(owner) != 0) {
        WakeReader();
    }
}

void CSerialDevOperate::serial_forget_owner(const CSerialBase* owner) {
    MutexGuard table(m_TableLock);
    m_setHeldOwners.erase(owner);
    for (auto it = m_mapSerialDev.begin(); it != m_mapSerialDev.end();) {
        if (it->second->owner != owner) {
            ++it;
            continue;
        }
        PM_LOG(0, kLogTag, "[CLOSE] fd = %d, name = %s outlived its owner, closed\n", it->first,
               it->second->name);
        const int fd = it->first;
        SerialDevInfo* info = it->second;
        {
            std::unique_lock<std::shared_mutex> view(m_TableView);
            it = m_mapSerialDev.erase(it);
        }
        close(fd);
        delete info;
        m_mapFailedRead.erase(fd);
    }
    WakeReader();
}

void CSerialDevOperate::WakeReader() {
    ++m_nTableGeneration;
    {
        // A reader pausing without ports waits on the condition, one in select on the pipe.
        std::lock_guard<std::mutex> guard(m_ReaderLock);
        m_bTableChanged = true;
        m_ReaderCond.notify_all();
    }
    WakeSelect();
}

void CSerialDevOperate::WakeSelect() {
    if (m_nWakePipe[1] >= 0) {
        char byte = 1;
        if (write(m_nWakePipe[1], &byte, 1) < 0) {
            // Full pipe: the reader has a wake-up pending already.
        }
    }
}

void CSerialDevOperate::serial_close_all() {
    MutexGuard table(m_TableLock);
    std::unique_lock<std::shared_mutex> view(m_TableView);
    for (auto& entry : m_mapSerialDev) {
        close(entry.first);
        delete entry.second;
    }
    m_mapSerialDev.clear();
    m_mapFailedRead.clear();
}

bool CSerialDevOperate::serial_is_open(int fd) {
    std::shared_lock<std::shared_mutex> view(m_TableView);
    return m_mapSerialDev.find(fd) != m_mapSerialDev.end();
}

int CSerialDevOperate::serial_check_open_same(std::string path) {
    char name[sizeof(SerialDevInfo::name)];
    CopySerialName(name, path);
    std::shared_lock<std::shared_mutex> view(m_TableView);
    for (const auto& entry : m_mapSerialDev) {
        if (strncmp(entry.second->name, name, sizeof name) == 0) {
            return 1;
        }
    }
    return 0;
}

int CSerialDevOperate::serial_check_perip_open(unsigned int mainId, unsigned int subId) {
    std::shared_lock<std::shared_mutex> view(m_TableView);
    for (const auto& entry : m_mapSerialDev) {
        const CSerialBase* owner = entry.second->owner;
        if (owner != nullptr && owner->GetMainId() == mainId && owner->GetSubId() == subId) {
            return entry.first;
        }
    }
    return -1;
}

std::shared_ptr<CSerialPortWriter> CSerialDevOperate::WriterForPath(int fd,
                                                                    const std::string& path) {
    for (auto it = m_mapWriters.begin(); it != m_mapWriters.end();) {
        it = it->second.expired() ? m_mapWriters.erase(it) : std::next(it);
    }
    if (std::shared_ptr<CSerialPortWriter> kept = m_mapWriters[path].lock()) {
        if (kept->HasOwnFd()) {
            return kept;
        }
    }
    auto writer = std::make_shared<CSerialPortWriter>(fd, path);
    m_mapWriters[path] = writer;
    return writer;
}

std::shared_ptr<CSerialPortWriter> CSerialDevOperate::WriterOf(int fd) {
    std::shared_lock<std::shared_mutex> view(m_TableView);
    auto it = m_mapSerialDev.find(fd);
    return it == m_mapSerialDev.end() ? nullptr : it->second->writer;
}

int CSerialDevOperate::serial_write(int fd, const char* data, unsigned int length) {
    // The reader thread delivers bytes to their owners, whose answers it must never wait for;
    // while it delivers it holds the table lock, so their writes find their port without
    // another lock. A delivery another thread makes through serial_cache_data writes as that
    // thread would anywhere else.
    const bool delivering = m_bDelivering.load(std::memory_order_acquire) &&
                            pthread_equal(pthread_self(), m_ReaderThread);
    std::shared_ptr<CSerialPortWriter> held;  // keeps a port closed meanwhile writable
    CSerialPortWriter* writer = nullptr;
    if (delivering) {
        auto it = m_mapSerialDev.find(fd);
        writer = it == m_mapSerialDev.end() ? nullptr : it->second->writer.get();
    } else {
        held = WriterOf(fd);
        writer = held.get();
    }
    if (writer == nullptr) {
        PM_LOG(0, kLogTag, "[WRITE] failed, serial is not open, fd = %d\n", fd);
        return -1;
    }
    if (length == 0 || data == nullptr) {
        PM_LOG(0, kLogTag, "[WRITE] failed, length < 0\n");
        return -1;
    }
    long written = 0;
    if (delivering) {
        written = writer->WriteNoWait(data, length);
        if (writer->HasQueued()) {
            KeepWaitingWriter(m_mapSerialDev.find(fd)->second->writer);
        }
    } else {
        written = writer->Write(data, length);
    }
    PM_LOG(3, kLogTag, "wirte data len = %d, length = %d\n", static_cast<int>(written), length);
    return written == static_cast<long>(length) ? 1 : -1;
}

void CSerialDevOperate::KeepWaitingWriter(const std::shared_ptr<CSerialPortWriter>& writer) {
    for (const WaitingWriter& w : m_vecWaitingWriters) {
        if (w.writer == writer) {
            return;
        }
    }
    m_vecWaitingWriters.push_back({writer, false});
}

bool CSerialDevOperate::serial_write_stats(int fd, SerialWriteStats& stats) {
    std::shared_ptr<CSerialPortWriter> writer = WriterOf(fd);
    if (writer == nullptr) {
        return false;
    }
    stats = writer->Stats();
    return true;
}

void CSerialDevOperate::AddWriteWaits(fd_set& writeSet, int& top, int& waitMs) {
    constexpr long long kBusyRetryMs = 5;
    const long long now = CSerialPortWriter::SteadyMs();
    for (const WaitingWriter& w : m_vecWaitingWriters) {
        const int wfd = w.writer->WriteFd();
        if (!w.busy && wfd >= 0 && wfd < FD_SETSIZE) {
            FD_SET(wfd, &writeSet);
            top = std::max(top, wfd);
        }
        const long long left =
            std::max(w.busy ? kBusyRetryMs : 0LL, w.writer->QueueDeadline() - now);
        waitMs = static_cast<int>(std::min<long long>(waitMs, left));
    }
}

void CSerialDevOperate::FlushWaitingWrites(const fd_set& writeSet) {
    const long long now = CSerialPortWriter::SteadyMs();
    for (auto it = m_vecWaitingWriters.begin(); it != m_vecWaitingWriters.end();) {
        CSerialPortWriter& writer = *it->writer;
        const int wfd = writer.WriteFd();
        const bool room = wfd >= 0 && wfd < FD_SETSIZE && FD_ISSET(wfd, &writeSet);
        if (room || it->busy || now >= writer.QueueDeadline()) {
            it->busy = !writer.Flush();
        }
        it = writer.HasQueued() ? it + 1 : m_vecWaitingWriters.erase(it);
    }
}

int CSerialDevOperate::serial_cache_data(int fd, const char* data, int length) {
    MutexGuard table(m_TableLock);
    CacheDataLocked(fd, data, length);
    return 0;
}

void CSerialDevOperate::CacheDataLocked(int fd, const char* data, int length) {
    if (length == 0) {
        return;
    }
    auto it = m_mapSerialDev.find(fd);
    if (it != m_mapSerialDev.end() && m_setHeldOwners.count(it->second->owner) != 0) {
        PM_LOG(2, kLogTag, "[READ] fd = %d, owner not ready, %d bytes dropped\n", fd, length);
        return;
    }
    if (it != m_mapSerialDev.end() && it->second->owner != nullptr) {
        // A failed read's -1 goes on as it is; the owner refuses a length beyond its buffer.
        it->second->owner->PreProcessPeripheralData(data, static_cast<unsigned int>(length));
    }
}

void CSerialDevOperate::SetReaderTimeoutForTest(int ms) {
    g_readerTimeoutMs = ms;
}

void* CSerialDevOperate::SerialReadThreadEntry(void* arg) {
    if (arg == nullptr) {
        PM_LOG(0, kLogTag, "CSerialDevOperate ptr is null, create thread failed\n");
        return nullptr;
    }
    PM_LOG(2, "", "SerialReadThreadEntry pid = %d\n", static_cast<int>(getpid()));
    static_cast<CSerialDevOperate*>(arg)->serial_read();
    return nullptr;
}

void CSerialDevOperate::TakeReadSnapshot() {
    const int timeoutMs = g_readerTimeoutMs.load();
    m_vecReadFds.clear();
    m_nReadWaitMs = timeoutMs;
    FD_ZERO(&m_ReadSetBase);
    {
        MutexGuard table(m_TableLock);
        m_nSnapshotGeneration = m_nTableGeneration;
        const long long now = SteadyMs();
        for (const auto& entry : m_mapSerialDev) {
            int fd = entry.first;
            if (fd >= FD_SETSIZE) {
                continue;  // logged when it was opened
            }
            m_nMaxFd = std::max(m_nMaxFd, fd);
            if (m_setHeldOwners.count(entry.second->owner) != 0) {
                continue;  // its bytes wait in the kernel until the owner is let go
            }
            auto failed = m_mapFailedRead.find(fd);
            long long rest =
                failed == m_mapFailedRead.end() ? 0 : failed->second + kFailedReadRetryMs - now;
            if (rest > 0) {
                m_nReadWaitMs = std::min(m_nReadWaitMs, static_cast<int>(rest));
                continue;
            }
            m_vecReadFds.push_back(fd);
            FD_SET(fd, &m_ReadSetBase);
        }
    }
    const int wake = m_nWakePipe[0];
    if (wake >= 0 && wake < FD_SETSIZE) {
        FD_SET(wake, &m_ReadSetBase);
    }
    // A resting port comes back by time, not by a change: look again next pass.
    m_bReadSnapshotValid = m_nReadWaitMs == timeoutMs;
}

void CSerialDevOperate::serial_read() {
    m_ReaderThread = pthread_self();
    while (true) {
        {
            std::lock_guard<std::mutex> guard(m_ReaderLock);
            if (m_bReaderStop) {
                break;
            }
            if (m_bTableChanged) {
                m_bTableChanged = false;  // the snapshot below sees every change so far
                m_bReadSnapshotValid = false;
            }
        }
        if (!m_bReadSnapshotValid) {
            TakeReadSnapshot();
        }
        if (m_vecReadFds.empty() && m_vecWaitingWriters.empty()) {
            if (!ReaderPause(m_nReadWaitMs)) {
                break;
            }
            continue;
        }
        ReadOnePass();
    }
    std::lock_guard<std::mutex> guard(m_ReaderLock);
    --m_nReaderCount;
    // Under the lock: the destructor may free the condition as soon as it can take it.
    m_ReaderCond.notify_all();
}

void CSerialDevOperate::ReadOnePass() {
    fd_set readSet;
    if (WaitForPorts(readSet) < 1) {
        return;
    }
    const int wake = m_nWakePipe[0];
    if (wake >= 0 && wake < FD_SETSIZE && FD_ISSET(wake, &readSet)) {
        char drain[16];
        while (read(wake, drain, sizeof drain) > 0) {
        }
    }
    // One port per pass, the lowest first; the others are still pending on the next pass.
    for (int candidate : m_vecReadFds) {
        if (FD_ISSET(candidate, &readSet)) {
            if (candidate > 0) {
                ReadAndDeliver(candidate);
            }
            return;
        }
    }
}

int CSerialDevOperate::WaitForPorts(fd_set& readSet) {
    const int wake = m_nWakePipe[0];
    readSet = m_ReadSetBase;
    int top = m_nMaxFd;
    if (wake >= 0 && wake < FD_SETSIZE) {
        top = std::max(top, wake);
    }
    int waitMs = m_nReadWaitMs;
    fd_set writeSet;
    fd_set* writes = nullptr;
    if (!m_vecWaitingWriters.empty()) {
        FD_ZERO(&writeSet);
        AddWriteWaits(writeSet, top, waitMs);
        writes = &writeSet;
    }
    struct timeval timeout;
    timeout.tv_sec = waitMs / 1000;
    timeout.tv_usec = (waitMs % 1000) * 1000;
    const int ready = select(top + 1, &readSet, writes, nullptr, &timeout);
    if (writes != nullptr) {
        FlushWaitingWrites(ready > 0 ? writeSet : fd_set{});
    }
    if (ready < 0) {
        const int error = errno;
        if (error != EINTR) {
            NoteSelectFailure(error);
        }
        return ready;
    }
    m_bSelectFailed = false;
    return ready;
}

void CSerialDevOperate::ReadAndDeliver(int fd) {
    // One hold of the table lock for the read, the delivery and its bookkeeping: a port
    // closed meanwhile cannot have its number reused by a port select never saw, whose
    // blocking read would hold the reader.
    MutexGuard table(m_TableLock);
    if (m_nTableGeneration != m_nSnapshotGeneration) {
        m_bReadSnapshotValid = false;
        return;
    }
    char buffer[kReadChunk];
    ssize_t got = read(fd, buffer, sizeof buffer);
    int error = errno;
    m_bDelivering.store(true, std::memory_order_release);
    CacheDataLocked(fd, buffer, static_cast<int>(got));
    m_bDelivering.store(false, std::memory_order_relaxed);
    NoteReadResultLocked(fd, static_cast<int>(got), error);
}

void CSerialDevOperate::NoteReadResultLocked(int fd, int result, int error) {
    if (result > 0 && m_mapFailedRead.empty()) {
        return;  // the common case: nothing to note
    }
    auto info = m_mapSerialDev.find(fd);
    auto failed = m_mapFailedRead.find(fd);
    if (result > 0) {
        if (failed != m_mapFailedRead.end()) {
            m_mapFailedRead.erase(failed);
            if (info != m_mapSerialDev.end()) {
                PM_LOG(1, kLogTag, "[READ] fd = %d reads again, name = %s\n", fd,
                       info->second->name);
            }
        }
    } else if (info != m_mapSerialDev.end()) {
        m_bReadSnapshotValid = false;  // the port leaves select while it rests
        // A hung-up tty stays readable for select and reads 0 or -1 at once: rest it, log once.
        if (failed == m_mapFailedRead.end()) {
            PM_LOG(0, kLogTag,
                   "[READ] failed, fd = %d, name = %s, result = %d, error = "
                   "%s; tried again every %d ms\n",
                   fd, info->second->name, result, result == 0 ? "end of file" : strerror(error),
                   kFailedReadRetryMs);
        }
        m_mapFailedRead[fd] = SteadyMs();
    }
}

void CSerialDevOperate::NoteSelectFailure(int error) {
    if (!m_bSelectFailed) {
        m_bSelectFailed = true;
        PM_LOG(0, kLogTag, "[READ] select failed: %s; tried again every %d ms\n", strerror(error),
               kFailedReadRetryMs);
    }
    ReaderPause(kFailedReadRetryMs);
}
