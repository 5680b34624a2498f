// Factory loopback tester: with the port's TX wired to its RX (or a loopback plug), sends a
// numbered frame, waits for its echo, and counts what comes back.
#ifndef PLUGINS_SERIAL_LOOPBACK_TEST_H
#define PLUGINS_SERIAL_LOOPBACK_TEST_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "LoopbackPattern.h"
#include "SerialBase.h"

struct LoopbackCounters {
    uint32_t sent;
    uint32_t ok;          // echoes equal to the frame sent
    uint32_t wrong;       // echoes of another frame, damaged echoes, bytes nobody waited for
    uint32_t timeouts;    // frames without echo within the time-out
    uint32_t sendErrors;  // frames the link refused to send
};

class CLoopbackTest : public CSerialBase {
public:
    CLoopbackTest(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                  unsigned int subId);
    ~CLoopbackTest() override;

    // Applies 115200 baud (the jig's rate). Manager thread, once.
    int PeripheralInitialize() override;
    // Counts a time-out for an echo overdue at `now`, then sends the next frame when none is
    // outstanding. Manager thread (shared) or the instance's thread (independent).
    int PeripheralThreadCycle(long long now) override;
    // Compares received bytes with the outstanding frame. Reader thread (main-chip port) or
    // bus thread (MCU port), buffer lock held.
    int ProcessPeripheralData() override;

    LoopbackCounters GetLoopbackCounters() const;  // any thread
    void SetEchoTimeout(unsigned int ms) { m_nEchoTimeoutMs.store(ms); }

    static constexpr unsigned int kCycleMs = 100;
    static constexpr unsigned int kDefaultEchoTimeoutMs = 1000;
    static constexpr uint32_t kSummaryEvery = 10;  // frames sent between two summary lines

private:
    void CompareEchoes();  // m_stateLock held
    void LogSummary();

    std::mutex m_stateLock;  // taken after the buffer lock, never before it
    bool m_bOutstanding;
    uint32_t m_nSequence;
    long long m_llSentAt;
    std::vector<uint8_t> m_rx;

    std::atomic<unsigned int> m_nEchoTimeoutMs;
    std::atomic<uint32_t> m_nSent;
    std::atomic<uint32_t> m_nOk;
    std::atomic<uint32_t> m_nWrong;
    std::atomic<uint32_t> m_nTimeouts;
    std::atomic<uint32_t> m_nSendErrors;
};

#endif
