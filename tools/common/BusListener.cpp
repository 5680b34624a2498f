// Frames as in docs/bus.md: one part, the 16-byte head, then the payload; subscriptions are
// prefixes of the frame.
#include "BusListener.h"

#include <sys/random.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdio>
#include <cstring>

#include "BusWire.h"
#include "Signals.h"

namespace pmtools {

namespace {

using Clock = std::chrono::steady_clock;

// Quick while waiting for the broker; once it answered, a probe every half second, and none
// back for two seconds means it is gone. ZeroMQ itself reconnects every 100 ms or so, so the
// state follows a restarted broker within a second.
constexpr auto kProbeInterval = std::chrono::milliseconds(50);
constexpr auto kWatchInterval = std::chrono::milliseconds(500);
constexpr auto kBrokerSilence = std::chrono::seconds(2);
constexpr auto kNoBrokerNotice = std::chrono::seconds(2);
constexpr int kReadySliceMs = 20;
// Frames taken per Poll: a flood must not keep a screen's keys waiting.
constexpr int kDrainMax = 2000;

uint64_t Token() {
    uint64_t token = 0;
    if (getrandom(&token, sizeof token, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof token)) {
        token = static_cast<uint64_t>(Clock::now().time_since_epoch().count()) ^
                static_cast<uint64_t>(getpid()) << 40;
    }
    return token;
}

// A probe that only this listener subscribes to: its token in words 1 and 2, round 1.
std::vector<uint8_t> MakeProbe(uint64_t token) {
    std::vector<uint8_t> probe(Common::kMsgProbeSize, 0);
    Common::PutMsgHead(probe.data(), Common::kMsgProbeEvent, static_cast<uint32_t>(token),
                       static_cast<uint32_t>(token >> 32), 8);
    probe[Common::kMsgHeadSize] = 1;
    return probe;
}

}  // namespace

bool BusFromEnv(Common::BusEndpoints& ends, const std::string& tool) {
    ends = Common::BusEndpointsFromEnv();
    if (ends.in.empty()) {
        fprintf(stderr, "%s: RECORDER_BUS names no usable bus\n", tool.c_str());
        return false;
    }
    return true;
}

CBusListener::CBusListener(Options options)
    : m_options(std::move(options)), m_probe(MakeProbe(Token())) {}

CBusListener::~CBusListener() {
    for (void* socket : {m_pub, m_sub}) {
        if (socket != nullptr) {
            zmq_close(socket);
        }
    }
    if (m_ctx != nullptr) {
        zmq_ctx_term(m_ctx);
    }
}

bool CBusListener::Open(const Common::BusEndpoints& ends) {
    m_busName = ends.out;
    m_started = Clock::now();
    m_ctx = zmq_ctx_new();
    m_sub = m_ctx ? zmq_socket(m_ctx, ZMQ_SUB) : nullptr;
    m_pub = m_ctx ? zmq_socket(m_ctx, ZMQ_PUB) : nullptr;
    int zero = 0;
    bool ok = m_sub != nullptr && m_pub != nullptr &&
              zmq_setsockopt(m_sub, ZMQ_RCVHWM, &zero, sizeof zero) == 0 &&
              zmq_setsockopt(m_pub, ZMQ_SNDHWM, &zero, sizeof zero) == 0 &&
              zmq_setsockopt(m_sub, ZMQ_LINGER, &zero, sizeof zero) == 0 &&
              zmq_setsockopt(m_pub, ZMQ_LINGER, &zero, sizeof zero) == 0 &&
              zmq_connect(m_sub, ends.out.c_str()) == 0 &&
              zmq_connect(m_pub, ends.in.c_str()) == 0 && Subscribe();
    if (!ok) {
        fprintf(stderr, "%s: cannot open the bus at %s and %s: %s\n", m_options.tool.c_str(),
                ends.in.c_str(), ends.out.c_str(), zmq_strerror(zmq_errno()));
    }
    return ok;
}

void CBusListener::Probe() {
    const auto interval = m_ready ? kWatchInterval : kProbeInterval;
    if ((!m_ready || m_options.watchBroker) && Clock::now() - m_lastProbe >= interval) {
        // The subscriptions reach the broker in order: once the probe, subscribed last,
        // comes back, the others are in force too.
        zmq_send(m_pub, m_probe.data(), m_probe.size(), ZMQ_DONTWAIT);
        m_lastProbe = Clock::now();
    }
    if (!m_ready && !m_noticed && !m_options.readyNotice.empty() &&
        Clock::now() - m_started >= kNoBrokerNotice) {
        fprintf(stderr, "%s: no broker answers at %s yet; still trying\n", m_options.tool.c_str(),
                m_busName.c_str());
        m_noticed = true;
    }
}

bool CBusListener::Poll(int ms, const Handler& handler, int wakeFd) {
    Probe();
    zmq_pollitem_t items[2] = {{m_sub, 0, ZMQ_POLLIN, 0}, {nullptr, wakeFd, ZMQ_POLLIN, 0}};
    const int count = wakeFd >= 0 ? 2 : 1;
    if (zmq_poll(items, count, ms) <= 0) {
        return false;  // time-out, or a signal for the caller to handle
    }
    if ((items[0].revents & ZMQ_POLLIN) != 0) {
        Drain(handler);
    }
    return count == 2 && (items[1].revents & ZMQ_POLLIN) != 0;
}

bool CBusListener::WaitReady(double timeoutS, const Handler& handler) {
    const auto deadline =
        Clock::now() + std::chrono::microseconds(static_cast<long long>(timeoutS * 1e6));
    while (!m_ready) {
        if (TakeStopSignal(0) != 0 || Clock::now() >= deadline) {
            return false;
        }
        Poll(kReadySliceMs, handler);
    }
    return true;
}

bool CBusListener::Publish(const uint8_t* frame, size_t size) {
    return zmq_send(m_pub, frame, size, 0) == static_cast<int>(size);
}

bool CBusListener::Connected() const {
    if (!m_options.watchBroker) {
        return m_ready;
    }
    return m_ready && Clock::now() - m_lastAnswer < kBrokerSilence;
}

bool CBusListener::TakeReconnect() {
    const bool now = Connected();
    const bool rising = now && !m_wasConnected;
    m_wasConnected = now;
    return rising;
}

bool CBusListener::Subscribe() {
    if (m_options.ids.empty() && zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, "", 0) != 0) {
        return false;
    }
    for (uint32_t id : m_options.ids) {
        uint8_t prefix[4];
        Common::PutLe32(prefix, id);
        if (zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, prefix, sizeof prefix) != 0) {
            return false;
        }
    }
    return zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, m_probe.data(), m_probe.size()) == 0;
}

void CBusListener::Drain(const Handler& handler) {
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    for (int i = 0; i < kDrainMax && zmq_msg_recv(&msg, m_sub, ZMQ_DONTWAIT) >= 0; ++i) {
        const auto* data = static_cast<const uint8_t*>(zmq_msg_data(&msg));
        size_t size = zmq_msg_size(&msg);
        if (size >= 4 && Common::GetLe32(data) == Common::kMsgProbeEvent) {
            if (size == Common::kMsgProbeSize &&
                memcmp(data, m_probe.data(), Common::kMsgProbeSize) == 0) {
                m_lastAnswer = Clock::now();
                if (!m_ready && !m_options.readyNotice.empty()) {
                    fprintf(stderr, "%s: %s\n", m_options.tool.c_str(),
                            m_options.readyNotice.c_str());
                }
                m_ready = true;
            }
            continue;
        }
        handler(data, size);
    }
    zmq_msg_close(&msg);
}

}  // namespace pmtools
