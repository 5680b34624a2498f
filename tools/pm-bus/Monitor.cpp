// The monitor reads the bus with ZeroMQ sockets of its own: the client API subscribes to
// single events only, and a monitor must see every one. Frames as in docs/bus.md: one part,
// the 16-byte head, then the payload; subscriptions are prefixes of the frame.
#include <sys/random.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BusWire.h"
#include "Commands.h"
#include "MsgBroker.h"
#include "Signals.h"

namespace pmbus {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;
constexpr auto kProbeInterval = std::chrono::milliseconds(50);
constexpr auto kNoBrokerNotice = std::chrono::seconds(2);

uint64_t Token() {
    uint64_t token = 0;
    if (getrandom(&token, sizeof token, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof token)) {
        token = static_cast<uint64_t>(Clock::now().time_since_epoch().count()) ^
                static_cast<uint64_t>(getpid()) << 40;
    }
    return token;
}

// A probe that only this monitor subscribes to: its token in words 1 and 2, round 1.
std::vector<uint8_t> Probe(uint64_t token) {
    std::vector<uint8_t> probe(Common::kMsgProbeSize, 0);
    Common::PutLe32(probe.data(), Common::kMsgProbeEvent);
    Common::PutLe32(probe.data() + 4, static_cast<uint32_t>(token));
    Common::PutLe32(probe.data() + 8, static_cast<uint32_t>(token >> 32));
    Common::PutLe32(probe.data() + 12, 8);
    probe[Common::kMsgHeadSize] = 1;
    return probe;
}

class CRawMonitor {
public:
    explicit CRawMonitor(const Arguments& args) : m_args(args), m_probe(Probe(Token())) {}
    ~CRawMonitor() {
        for (void* socket : {m_pub, m_sub}) {
            if (socket != nullptr) {
                zmq_close(socket);
            }
        }
        if (m_ctx != nullptr) {
            zmq_ctx_term(m_ctx);
        }
    }

    // Sockets connected and subscribed; false with the reason on stderr.
    bool Open(const Common::BusEndpoints& ends) {
        m_ctx = zmq_ctx_new();
        m_sub = m_ctx ? zmq_socket(m_ctx, ZMQ_SUB) : nullptr;
        m_pub = m_ctx ? zmq_socket(m_ctx, ZMQ_PUB) : nullptr;
        int zero = 0;
        bool ok = m_sub != nullptr && m_pub != nullptr &&
                  zmq_setsockopt(m_sub, ZMQ_RCVHWM, &zero, sizeof zero) == 0 &&
                  zmq_setsockopt(m_sub, ZMQ_LINGER, &zero, sizeof zero) == 0 &&
                  zmq_setsockopt(m_pub, ZMQ_LINGER, &zero, sizeof zero) == 0 &&
                  zmq_connect(m_sub, ends.out.c_str()) == 0 &&
                  zmq_connect(m_pub, ends.in.c_str()) == 0 && Subscribe();
        if (!ok) {
            fprintf(stderr, "pm-bus: cannot open the bus at %s and %s: %s\n", ends.in.c_str(),
                    ends.out.c_str(), zmq_strerror(zmq_errno()));
        }
        return ok;
    }

    // Until SIGINT or SIGTERM.
    void Run(const std::string& busName) {
        Clock::time_point started = Clock::now();
        Clock::time_point lastProbe{};
        bool noticed = false;
        while (pmtools::TakeStopSignal(0) == 0) {
            if (!m_ready && Clock::now() - lastProbe >= kProbeInterval) {
                // The subscriptions reach the broker in order: once the probe, subscribed last,
                // comes back, the others are in force too.
                zmq_send(m_pub, m_probe.data(), m_probe.size(), ZMQ_DONTWAIT);
                lastProbe = Clock::now();
            }
            if (!m_ready && !noticed && Clock::now() - started >= kNoBrokerNotice) {
                fprintf(stderr, "pm-bus: no broker answers at %s yet; still trying\n",
                        busName.c_str());
                noticed = true;
            }
            zmq_pollitem_t item = {m_sub, 0, ZMQ_POLLIN, 0};
            if (zmq_poll(&item, 1, kPollMs) > 0) {
                Drain(busName);
            }
        }
    }

private:
    bool Subscribe() {
        if (m_args.ids.empty()) {
            if (zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, "", 0) != 0) {
                return false;
            }
        }
        for (uint32_t id : m_args.ids) {
            uint8_t prefix[4];
            Common::PutLe32(prefix, id);
            if (zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, prefix, sizeof prefix) != 0) {
                return false;
            }
        }
        return zmq_setsockopt(m_sub, ZMQ_SUBSCRIBE, m_probe.data(), m_probe.size()) == 0;
    }

    void Drain(const std::string& busName) {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        while (zmq_msg_recv(&msg, m_sub, ZMQ_DONTWAIT) >= 0) {
            const auto* data = static_cast<const uint8_t*>(zmq_msg_data(&msg));
            size_t size = zmq_msg_size(&msg);
            if (size >= 4 && Common::GetLe32(data) == Common::kMsgProbeEvent) {
                if (!m_ready && size == Common::kMsgProbeSize &&
                    memcmp(data, m_probe.data(), Common::kMsgProbeSize) == 0) {
                    m_ready = true;
                    fprintf(stderr, "pm-bus: monitoring %s\n", busName.c_str());
                }
                continue;
            }
            PrintMessage(data, size, m_args.hex);
        }
        zmq_msg_close(&msg);
    }

    const Arguments& m_args;
    std::vector<uint8_t> m_probe;
    void* m_ctx = nullptr;
    void* m_sub = nullptr;
    void* m_pub = nullptr;
    bool m_ready = false;
};

}  // namespace

int RunMonitor(const Arguments& args) {
    Common::BusEndpoints ends = Common::BusEndpointsFromEnv();
    if (ends.in.empty()) {
        fprintf(stderr, "pm-bus: RECORDER_BUS names no usable bus\n");
        return 1;
    }
    CRawMonitor monitor(args);
    if (!monitor.Open(ends)) {
        return 1;
    }
    monitor.Run(ends.out);
    return 0;
}

}  // namespace pmbus
