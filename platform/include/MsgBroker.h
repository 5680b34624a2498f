// The desktop message bus's broker: forwards every message to every subscriber.
#ifndef PLATFORM_MSG_BROKER_H
#define PLATFORM_MSG_BROKER_H

#include <memory>
#include <string>

namespace Common {

// Endpoints of the bus named by a RECORDER_BUS value (see docs/bus.md):
// a path prefix P gives ipc://P.in and ipc://P.out; "tcp://HOST:PORT" gives PORT and PORT+1.
struct BusEndpoints {
    std::string in;    // clients' PUB sockets connect here, the broker's XSUB binds here
    std::string out;   // clients' SUB sockets connect here, the broker's XPUB binds here
    std::string lock;  // ipc only: the file the running broker holds locked
};
// From the value of RECORDER_BUS, or the default "/tmp/recorder-bus" when unset or empty.
BusEndpoints BusEndpointsFromEnv();
bool ParseBusAddress(const std::string& value, BusEndpoints& out);

// Runs a broker on a thread of its own (XSUB at "in", XPUB at "out", joined by its proxy
// loop). A subscriber whose queue at the broker is full misses messages: each such message is
// counted and logged ("a subscriber's queue is full"); the other subscribers still get it.
class CMsgBroker {
public:
    explicit CMsgBroker(BusEndpoints endpoints = BusEndpointsFromEnv());
    ~CMsgBroker();  // stops the broker and removes its ipc files

    // 0 when this object now runs the broker; 1 when another broker already serves these
    // endpoints (nothing started); -1 on failure (logged).
    int Start();
    void Stop();
    // Messages the broker keeps for one subscriber that does not read (default 131,072);
    // takes effect at the next Start().
    void SetSubscriberQueueLimit(int messages);
    // Messages that at least one subscriber missed for a full queue, since Start().
    unsigned long long UndeliveredCount() const;
    bool IsRunning() const;
    const BusEndpoints& Endpoints() const;

    CMsgBroker(const CMsgBroker&) = delete;
    CMsgBroker& operator=(const CMsgBroker&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

}  // namespace Common

#endif
