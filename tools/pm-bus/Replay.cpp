// pm-bus replay: sends the chosen messages of a session file with their recorded spacing and
// answers live requests with the answers the recording gave to the same requests.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <map>
#include <set>

#include "BusListener.h"
#include "BusWire.h"
#include "Commands.h"
#include "EventNames.h"
#include "MessageText.h"
#include "SessionFile.h"
#include "Signals.h"

namespace pmbus {

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

constexpr int kSliceMs = 50;
constexpr double kReadyTimeoutS = 10;
constexpr size_t kEchoMemory = 1024;  // own frames that may still come back from the broker
constexpr double kSyncTimeoutS = 60;  // for the live side's first message, with --sync

std::string IdText(uint32_t id) {
    std::string name = pmtools::NameOfEvent(id);
    return std::to_string(id) + (name.empty() ? "" : " " + name);
}

uint32_t WordAt(const Bytes& frame, size_t offset) {
    return frame.size() >= offset + 4 ? Common::GetLe32(frame.data() + offset) : 0;
}

Bytes PayloadOf(const Bytes& frame) {
    return frame.size() > Common::kMsgHeadSize
               ? Bytes(frame.begin() + Common::kMsgHeadSize, frame.end())
               : Bytes();
}

// The recording's answers, by the request they answered. Identical requests are answered in
// the recorded order; the last answer then serves every further one.
class CAnswerBook {
public:
    // Pairs each recorded request with its answer (the answer id, the request's seq, after it)
    // and marks the answers, which are sent only when a live request asks for them.
    void Learn(const std::vector<SessionMessage>& messages, std::vector<bool>& isRecordedAnswer) {
        std::map<std::pair<uint32_t, uint32_t>, std::deque<size_t>> open;
        isRecordedAnswer.assign(messages.size(), false);
        for (size_t i = 0; i < messages.size(); ++i) {
            pmtools::HeadFields head;
            const Bytes& frame = messages[i].frame;
            if (!pmtools::ReadHead(frame.data(), frame.size(), head)) {
                continue;
            }
            if (head.needAnswer && !head.isAnswer) {
                open[{head.eventId | Common::kMsgAnswerBit, head.seq}].push_back(i);
                continue;
            }
            auto pending = open.find({head.eventId, head.seq});
            if (head.isAnswer && !head.needAnswer && pending != open.end() &&
                !pending->second.empty()) {
                const Bytes& request = messages[pending->second.front()].frame;
                pending->second.pop_front();
                m_exact[{WordAt(request, 0), PayloadOf(request)}].frames.push_back(frame);
                m_byId[WordAt(request, 0)].frames.push_back(frame);
                isRecordedAnswer[i] = true;
            }
        }
    }

    // The recorded answer frame for a live request; nullptr when the recording has none.
    // `exact` tells whether the payload matched too.
    const Bytes* Find(uint32_t id, const Bytes& payload, bool& exact) {
        auto match = m_exact.find({id, payload});
        exact = match != m_exact.end();
        if (exact) {
            Answers& a = match->second;
            return &a.frames[std::min(a.next++, a.frames.size() - 1)];
        }
        auto any = m_byId.find(id);
        return any == m_byId.end() ? nullptr : &any->second.frames.front();
    }

private:
    struct Answers {
        std::vector<Bytes> frames;
        size_t next = 0;
    };
    std::map<std::pair<uint32_t, Bytes>, Answers> m_exact;
    std::map<uint32_t, Answers> m_byId;
};

bool Chosen(const Bytes& frame, const Arguments& args) {
    auto has = [](const std::vector<uint32_t>& list, uint32_t v) {
        return list.empty() || std::find(list.begin(), list.end(), v) != list.end();
    };
    return has(args.fromList, WordAt(frame, 4)) && has(args.ids, WordAt(frame, 0));
}

class CReplayer {
public:
    CReplayer(const Arguments& args, const Session& session)
        : m_args(args),
          m_session(session),
          m_listener({{}, "pm-bus", "replaying " + args.file, false}) {}

    int Run(const Common::BusEndpoints& ends);

private:
    void OnLive(const uint8_t* data, size_t size);
    void Send(const Bytes& frame);
    double Elapsed() const {
        return std::chrono::duration<double>(Clock::now() - m_start).count() * m_args.speed;
    }
    void FindSyncPoint(const std::vector<bool>& isRecordedAnswer);
    void NoteSync(uint32_t eventId);
    bool WaitForSync();

    const Arguments& m_args;
    const Session& m_session;
    pmtools::CBusListener m_listener;
    CAnswerBook m_book;
    std::deque<Bytes> m_sent;  // own frames not yet seen coming back
    std::set<uint32_t> m_reported;
    Clock::time_point m_start;
    // --sync: the first recorded message of the live side (one the replay does not play);
    // the clock starts when the live side sends that id.
    bool m_synced = true;
    uint32_t m_syncId = 0;
    double m_syncAt = 0;
    size_t m_played = 0;
    size_t m_answered = 0;
    size_t m_unanswered = 0;
};

void CReplayer::Send(const Bytes& frame) {
    if (!m_listener.Publish(frame.data(), frame.size())) {
        fprintf(stderr, "pm-bus: could not send a message of %s\n", m_args.file.c_str());
        return;
    }
    m_sent.push_back(frame);
    if (m_sent.size() > kEchoMemory) {
        m_sent.pop_front();
    }
}

void CReplayer::OnLive(const uint8_t* data, size_t size) {
    Bytes frame(data, data + size);
    auto echo = std::find(m_sent.begin(), m_sent.end(), frame);
    if (echo != m_sent.end()) {
        m_sent.erase(echo);
        return;
    }
    pmtools::HeadFields head;
    if (!pmtools::ReadHead(data, size, head)) {
        return;
    }
    NoteSync(head.eventId);
    if (!head.needAnswer || head.isAnswer) {
        return;
    }
    bool exact = false;
    const Bytes* recorded = m_book.Find(head.eventId, PayloadOf(frame), exact);
    if (recorded == nullptr) {
        ++m_unanswered;
        if (m_reported.insert(head.eventId).second) {
            fprintf(stderr, "pm-bus: the recording never answered %s; left unanswered\n",
                    IdText(head.eventId).c_str());
        }
        return;
    }
    if (!exact && m_reported.insert(head.eventId).second) {
        fprintf(stderr,
                "pm-bus: %s with a payload the recording never saw; given the first "
                "recorded answer\n",
                IdText(head.eventId).c_str());
    }
    Bytes answer = *recorded;
    Common::PutLe32(answer.data() + 8, head.seq);
    Send(answer);
    ++m_answered;
}

void CReplayer::FindSyncPoint(const std::vector<bool>& isRecordedAnswer) {
    if (!m_args.sync) {
        return;
    }
    for (size_t i = 0; i < m_session.messages.size(); ++i) {
        const Bytes& frame = m_session.messages[i].frame;
        if (!isRecordedAnswer[i] && !Chosen(frame, m_args) && frame.size() >= 4) {
            m_synced = false;
            m_syncId = WordAt(frame, 0);
            m_syncAt = m_session.messages[i].seconds;
            return;
        }
    }
    fprintf(stderr, "pm-bus: --sync: the recording holds nothing of the live side; starting now\n");
}

void CReplayer::NoteSync(uint32_t eventId) {
    if (!m_synced && eventId == m_syncId) {
        m_synced = true;
        m_start = Clock::now() - std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(m_syncAt / m_args.speed));
    }
}

// Until the live side's first message, requests are answered but nothing is played: a program
// that starts slowly (under a sanitizer or an emulator) meets the recording where it began.
bool CReplayer::WaitForSync() {
    auto live = [this](const uint8_t* d, size_t s) { OnLive(d, s); };
    const auto deadline = Clock::now() + std::chrono::seconds(static_cast<int>(kSyncTimeoutS));
    while (!m_synced) {
        if (pmtools::TakeStopSignal(0) != 0 || Clock::now() >= deadline) {
            fprintf(stderr, "pm-bus: --sync: no %s from the live side; nothing replayed\n",
                    IdText(m_syncId).c_str());
            return false;
        }
        m_listener.Poll(kSliceMs, live);
    }
    return true;
}

int CReplayer::Run(const Common::BusEndpoints& ends) {
    std::vector<bool> isRecordedAnswer;
    m_book.Learn(m_session.messages, isRecordedAnswer);
    std::vector<const SessionMessage*> plan;
    for (size_t i = 0; i < m_session.messages.size(); ++i) {
        if (!isRecordedAnswer[i] && Chosen(m_session.messages[i].frame, m_args)) {
            plan.push_back(&m_session.messages[i]);
        }
    }
    auto live = [this](const uint8_t* d, size_t s) { OnLive(d, s); };
    if (!m_listener.Open(ends)) {
        return 1;
    }
    if (!m_listener.WaitReady(kReadyTimeoutS, live)) {
        fprintf(stderr, "pm-bus: no broker answered at %s; nothing replayed\n", ends.out.c_str());
        return 1;
    }
    m_start = Clock::now();
    FindSyncPoint(isRecordedAnswer);
    if (!WaitForSync()) {
        return 1;
    }
    size_t next = 0;
    while (pmtools::TakeStopSignal(0) == 0) {
        for (; next < plan.size() && plan[next]->seconds <= Elapsed(); ++next, ++m_played) {
            Send(plan[next]->frame);
        }
        double until = next < plan.size() ? plan[next]->seconds : m_session.endSeconds;
        double leftS = (until - Elapsed()) / m_args.speed;
        if (next == plan.size() && leftS <= 0) {
            break;
        }
        int ms = static_cast<int>(std::ceil(std::clamp(leftS, 0.0, kSliceMs / 1000.0) * 1000));
        m_listener.Poll(std::max(ms, 1), live);
    }
    fprintf(stderr, "pm-bus: replayed %zu of %zu messages; %zu requests answered, %zu not\n",
            m_played, plan.size(), m_answered, m_unanswered);
    return 0;
}

}  // namespace

int RunReplay(const Arguments& args) {
    Session session;
    std::string error;
    if (!LoadSession(args.file, session, error)) {
        fprintf(stderr, "pm-bus: %s\n", error.c_str());
        return 1;
    }
    Common::BusEndpoints ends;
    if (!pmtools::BusFromEnv(ends)) {
        return 1;
    }
    CReplayer replayer(args, session);
    return replayer.Run(ends);
}

}  // namespace pmbus
