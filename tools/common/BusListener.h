// A raw ZeroMQ listener on the bus: it subscribes to every message (or to chosen ids), knows
// when its subscriptions are in force, can publish frames exactly as given, and can follow a
// broker that goes away and comes back. pm-bus's monitor, record and replay and pm-top share
// it; the client API cannot subscribe to everything.
#ifndef TOOLS_COMMON_BUS_LISTENER_H
#define TOOLS_COMMON_BUS_LISTENER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "MsgBroker.h"

namespace pmtools {

class CBusListener {
public:
    using Handler = std::function<void(const uint8_t* frame, size_t size)>;

    struct Options {
        std::vector<uint32_t> ids;    // empty: every message
        std::string tool = "pm-bus";  // begins the lines on stderr
        // Said on stderr once the subscriptions are in force; with it, a broker that does not
        // answer for long is said too. Empty: nothing on stderr (a full-screen program).
        std::string readyNotice;
        // Keeps probing after the first answer, so that Connected() follows the broker.
        bool watchBroker = false;
    };

    explicit CBusListener(Options options);
    ~CBusListener();
    CBusListener(const CBusListener&) = delete;
    CBusListener& operator=(const CBusListener&) = delete;

    // Sockets connected and subscribed (the broker need not run yet); false with the reason
    // on stderr.
    bool Open(const Common::BusEndpoints& ends);

    // Waits up to `ms` for traffic and hands each frame, the bus's probes left out, to
    // `handler`; also wakes when `wakeFd` (unless -1) becomes readable or a signal arrives.
    // Returns true when `wakeFd` is readable.
    bool Poll(int ms, const Handler& handler, int wakeFd = -1);

    // Every message published from now on reaches this listener, and Publish reaches the broker.
    bool Ready() const { return m_ready; }

    // Polls until Ready; false when a stop signal or `timeoutS` seconds came first.
    bool WaitReady(double timeoutS, const Handler& handler);

    // Sends one frame as it is, head included; false when the socket refused it.
    bool Publish(const uint8_t* frame, size_t size);

    // With watchBroker: the broker answered a probe lately. Without: Ready().
    bool Connected() const;
    // True once after each change from no broker to connected: the moment to ask again for
    // what was missed.
    bool TakeReconnect();

    const std::string& Address() const { return m_busName; }

private:
    bool Subscribe();
    void Probe();
    void Drain(const Handler& handler);

    Options m_options;
    std::string m_busName;
    std::vector<uint8_t> m_probe;
    void* m_ctx = nullptr;
    void* m_sub = nullptr;
    void* m_pub = nullptr;
    bool m_ready = false;
    bool m_noticed = false;
    bool m_wasConnected = false;
    std::chrono::steady_clock::time_point m_started;
    std::chrono::steady_clock::time_point m_lastProbe;
    std::chrono::steady_clock::time_point m_lastAnswer;
};

// The bus of RECORDER_BUS; false with the reason on stderr (lines begun by `tool`) when it
// names none.
bool BusFromEnv(Common::BusEndpoints& ends, const std::string& tool = "pm-bus");

}  // namespace pmtools

#endif
