#include "LoopbackTest.h"

#include "CommonLog.h"

namespace {

constexpr const char kLogTag[] = "LOOPBACK: ";
}  // namespace

CLoopbackTest::CLoopbackTest(CPeripheralManage* manage, CMsgClientManage* client,
                             unsigned int mainId, unsigned int subId)
    : CSerialBase(manage, client, mainId, subId),
      m_bOutstanding(false),
      m_nSequence(0),
      m_llSentAt(0),
      m_nEchoTimeoutMs(kDefaultEchoTimeoutMs),
      m_nSent(0),
      m_nOk(0),
      m_nWrong(0),
      m_nTimeouts(0),
      m_nSendErrors(0) {
    SetThreadCircleTime(kCycleMs);
    PM_LOG(1, kLogTag, "created, mainId = %d, subId = %d, link = %d, port = %s\n", mainId, subId,
           GetSerialType(), GetSerialName().c_str());
}

CLoopbackTest::~CLoopbackTest() {
    LogSummary();
}

int CLoopbackTest::PeripheralInitialize() {
    const int result = SetBaudKeepingLine(SERIAL_BAUD_115200);
    PM_LOG(2, kLogTag, "line set to 115200 baud, mainId = %d, subId = %d, result = %d\n", m_nMainId,
           m_nSubId, result);
    return 0;
}

int CLoopbackTest::PeripheralThreadCycle(long long now) {
    bool send = false;
    loopback::Frame frame{};
    {
        std::lock_guard<std::mutex> lock(m_stateLock);
        long long waited = now - m_llSentAt;
        if (m_bOutstanding && (waited < 0 || waited >= m_nEchoTimeoutMs.load())) {
            ++m_nTimeouts;
            m_bOutstanding = false;
            m_rx.clear();
            PM_LOG(2, kLogTag, "echo time-out, mainId = %d, sequence = %u, waited = %lld ms\n",
                   m_nMainId, m_nSequence, waited);
        }
        if (!m_bOutstanding) {
            frame = loopback::BuildFrame(++m_nSequence);
            m_bOutstanding = true;
            m_llSentAt = now;
            send = true;
        }
    }
    if (!send) {
        return 0;
    }
    uint32_t sent = ++m_nSent;
    if (SendDataToPeripheral(reinterpret_cast<const char*>(frame.data()), frame.size()) < 0) {
        ++m_nSendErrors;  // the echo then times out as well
    }
    if (sent % kSummaryEvery == 0) {
        LogSummary();
    }
    return 0;
}

int CLoopbackTest::ProcessPeripheralData() {
    char bytes[SERIAL_DELIVERY_SIZE];
    unsigned int length = 0;
    GetSerialBufferData(bytes, length);
    ClearSerialBufferValue();
    if (length == 0) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(m_stateLock);
    m_rx.insert(m_rx.end(), bytes, bytes + length);
    CompareEchoes();
    return 0;
}

void CLoopbackTest::CompareEchoes() {
    while (m_bOutstanding && m_rx.size() >= loopback::kFrameSize) {
        loopback::EchoResult result = loopback::CheckEcho(m_rx.data(), m_nSequence);
        m_rx.erase(m_rx.begin(), m_rx.begin() + loopback::kFrameSize);
        if (result == loopback::EchoResult::kMatch) {
            ++m_nOk;
            m_bOutstanding = false;
        } else {
            ++m_nWrong;
            PM_LOG(2, kLogTag, "wrong echo (%s), mainId = %d, expected sequence = %u\n",
                   result == loopback::EchoResult::kWrongSequence ? "other frame" : "damaged",
                   m_nMainId, m_nSequence);
        }
    }
    if (!m_bOutstanding && !m_rx.empty()) {
        ++m_nWrong;
        PM_LOG(2, kLogTag, "%zu unexpected bytes, mainId = %d\n", m_rx.size(), m_nMainId);
        m_rx.clear();
    }
}

void CLoopbackTest::LogSummary() {
    LoopbackCounters c = GetLoopbackCounters();
    PM_LOG(1, kLogTag,
           "summary, mainId = %d, subId = %d, sent = %u, ok = %u, wrong = %u, "
           "timeout = %u, send_error = %u\n",
           m_nMainId, m_nSubId, c.sent, c.ok, c.wrong, c.timeouts, c.sendErrors);
}

LoopbackCounters CLoopbackTest::GetLoopbackCounters() const {
    return LoopbackCounters{m_nSent.load(), m_nOk.load(), m_nWrong.load(), m_nTimeouts.load(),
                            m_nSendErrors.load()};
}
