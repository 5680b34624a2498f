// The write side of one open tty. A serial line carries frames, and several threads write to
// one line (the manager thread, sub-port plug-ins on their own threads, the reader thread
// answering the box): a frame reaches the peer whole, or what is left of it past a budget is
// dropped as a unit, counted and logged. Writers take turns, so frames never interleave.
//
// Writes go through a descriptor of their own, opened non-blocking on the same tty: the
// port's read descriptor stays blocking as the reader wants it, and no writer ever changes
// the file status flags that another writer's write depends on.
#ifndef SERIALBASIC_SERIAL_PORT_WRITER_H
#define SERIALBASIC_SERIAL_PORT_WRITER_H

#include <atomic>
#include <mutex>
#include <string>

struct SerialWriteStats {
    unsigned long long cutWrites;      // writes whose rest was dropped past the budget
    unsigned long long refusedWrites;  // writes refused whole: the port was stalled or its
                                       // queue for the reader thread full
    unsigned long long bytesLost;      // every byte of both
    bool stalled;                      // a budget ran out and the port has not drained since
};

class CSerialPortWriter {
public:
    // `readFd` is the port's own descriptor, used only when `path` cannot be opened a second
    // time (logged): writes then wait for room on it and may block past the budget.
    CSerialPortWriter(int readFd, const std::string& path);
    ~CSerialPortWriter();

    // Any thread but the reader: writes all of `data`, waiting for room at most the budget;
    // past it the rest is dropped and the port marked stalled. The bytes that went out (0 for
    // a frame refused whole, on a stalled port), or -1 for an error of the descriptor.
    long Write(const char* data, unsigned int length);
    // The reader thread, which must never wait: writes what the port takes at once and keeps
    // the rest for Flush, whose deadline is the budget's. The bytes that went out or wait
    // (0 when the port is stalled or its queue full: the frame is dropped whole), or -1.
    long WriteNoWait(const char* data, unsigned int length);
    // The reader thread, for a port with queued bytes: writes what the port takes now; past
    // the deadline drops the rest (counted, logged) and marks the port stalled. Never waits.
    // False when another writer holds the port: it drains the queue before it lets go.
    bool Flush();
    // Queued bytes wait, in the queue or being written by a drain, and by when they must be
    // out (steady-clock ms).
    bool HasQueued() const;
    long long QueueDeadline() const;
    int WriteFd() const { return m_nWriteFd; }
    // Writes through a descriptor of its own (not the port's, which a close ends).
    bool HasOwnFd() const { return m_bOwnFd; }

    // The line speed the budget allows for (bit/s); 0 leaves the default.
    void SetSpeed(unsigned int bitsPerSecond);
    SerialWriteStats Stats() const;

    // The wait a write of `length` bytes may take for room: a fixed part for a peer that is
    // merely slow to read, plus the bytes' time on the line.
    static long long BudgetMs(unsigned int length, unsigned int bitsPerSecond);
    // Tests replace the fixed part to show what a budget does without waiting for it.
    static constexpr int kFixedBudgetMs = 100;
    static void SetFixedBudgetForTest(int ms);
    static long long SteadyMs();

    CSerialPortWriter(const CSerialPortWriter&) = delete;
    CSerialPortWriter& operator=(const CSerialPortWriter&) = delete;

private:
    // Writes from `data` until all went or the port takes no more now: bytes written, or -1
    // for an error other than a full queue (logged once per run of errors).
    long WriteSome(const char* data, unsigned int length);
    // The port reports room (or an error that the next write will meet): the stall is over.
    bool Drained() const;
    // A stalled port refuses at once, unless it has drained meanwhile. m_Turn held.
    bool RefuseWhileStalled(unsigned int length) {
        return m_bStalled.load(std::memory_order_acquire) && RefuseOrResume(length);
    }
    bool RefuseOrResume(unsigned int length);
    // Writes the queue within its deadline, waiting when `wait`; true when it is empty. Only
    // the turn's holder drains, and only the reader thread adds: an empty queue seen here may
    // grow behind this writer's frame, never in front of it. m_Turn held.
    bool DrainQueue(bool wait) {
        return m_nQueued.load(std::memory_order_acquire) == 0 || DrainQueued(wait);
    }
    bool DrainQueued(bool wait);
    // Takes the rest of a frame (the reader thread's, or one another writer kept from the
    // port) into the queue; refused whole unless its head went out already.
    long Enqueue(const char* rest, unsigned int length, unsigned int sent);
    void Cut(unsigned int lost, unsigned int length);
    void RefuseLocked(unsigned int length, const char* why);  // m_StateLock held
    bool ShouldLogLocked();                                   // one line a second at most

    int m_nWriteFd;
    bool m_bOwnFd;
    std::string m_strName;
    std::atomic<unsigned int> m_nSpeed;
    // One writer at a time, for the whole of its frame and its wait for room.
    std::mutex m_Turn;
    // Guards the queue, its deadline and the counts; a leaf, never held across a system call
    // that waits.
    mutable std::mutex m_StateLock;
    std::string m_strQueue;  // bytes the reader thread accepted, in order
    // Mirrors of the stall and of the queue's size, written under m_StateLock: a write on a
    // port that is neither stalled nor queued for takes no lock but its turn.
    std::atomic<bool> m_bStalled{false};
    std::atomic<size_t> m_nQueued{0};
    // Bytes a drain took out of the queue and is writing: still queued for HasQueued and the
    // queue's limit, so that the reader keeps watching a port until they are out.
    std::atomic<size_t> m_nInFlight{0};
    long long m_llDeadline = 0;
    SerialWriteStats m_stats{};
    long long m_llLastLogMs = 0;
    bool m_bErrorLogged = false;
};

#endif
