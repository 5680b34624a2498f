// Message-bus client of the recorder's common support library, desktop build (ZeroMQ).
// The wire format is described in docs/bus.md; other programs speak it, keep it exact.
#ifndef PLATFORM_MSG_CLIENT_MANAGE_H
#define PLATFORM_MSG_CLIENT_MANAGE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BusWire.h"

namespace Common {

// The 16-byte head in front of every message, little-endian words.
struct SMessageHead {
    uint32_t nEventId;     // word 0: event id
    uint32_t nSenderId;    // word 1: sender's module id (ownId of MSGSendMessage); 0 in an answer
    uint32_t nSeq;         // word 2: sequence number, copied into the answer
    uint32_t length : 23;  // word 3 bits 0-22: payload length in bytes
    uint32_t needAnswer : 1;  // bit 23: the sender asks for an answer
    uint32_t isAnswer : 1;    // bit 24: made by MSGResponseMessage
    uint32_t reserved : 7;    // bits 25-31: zero
};
static_assert(sizeof(SMessageHead) == kMsgHeadSize, "the bus head is 16 bytes");

constexpr unsigned kMsgMinHandlerBuffer = 4096;  // handlers' buffers are zero-padded to this

}  // namespace Common

// Base of every object that registers bus handlers: handlers are member functions
// `int Handler(const char* data, int len)` of the registering class.
class CMsgClientManage {
public:
    using HandlerFn = std::function<int(const char* data, int len)>;

    // Connects to the bus named by RECORDER_BUS (see docs/bus.md). `name` may be null (the
    // clients of independent peripherals have none); it is what the watchdog reports.
    // `queueSize` is the recorder's message-queue size and is not used on the desktop.
    // A client that cannot connect logs why and stays usable: sends fail, waits time out.
    CMsgClientManage(const char* name, int queueSize);
    ~CMsgClientManage();

    // Routes every message `eventId` to object->handler, after the handlers registered for it
    // before. Several ownIds may register the same event; one ownId registering the same event
    // again replaces its handler. When this returns, the bus delivers the event to this client
    // (a fresh subscription is confirmed through the broker first). Any thread. Returns 0.
    template <class Object, class Owner>
    int MSGEventRegister(int ownId, int eventId, const Object* object,
                         int (Owner::*handler)(const char*, int)) {
        Owner* target = const_cast<Object*>(object);
        return RegisterHandler(ownId, eventId, [target, handler](const char* d, int l) {
            return (target->*handler)(d, l);
        });
    }
    // The same with any callable (tools and tests). Returns 0, or -1 for an empty function.
    int RegisterHandler(int ownId, int eventId, HandlerFn fn);

    // Removes ownId's handler of eventId; the subscription goes with the last handler.
    // Unknown pairs are ignored. Any thread. Returns 0.
    int MSGEventUnRegister(int ownId, int eventId);

    // Publishes a message. `target` is reserved (always 0); `needAnswer` 1 sets bit 23. Any
    // thread. Returns 0, or -1 when the message cannot be queued (logged).
    int MSGSendMessage(int target, int eventId, int needAnswer, const char* data, int len,
                       int ownId);

    // Answers `request` (a message received by a handler): event id | 0x8000, the request's
    // sequence number, sender 0, bit 24 set. Any thread. Returns 0 or -1.
    int MSGResponseMessage(Common::SMessageHead* request, const char* data, int len);

    // Waits up to `ms` for the first message, then runs the handlers of the messages already
    // received, oldest first, on the calling thread: at most 256, and no more once `ms` (at
    // least 10 ms) has passed and one has run, so that the caller's loop keeps turning under
    // a flood; the rest waits for the next call, which then does not wait. At most 131,072
    // messages (64 MiB) wait; past that the oldest are dropped, counted in a log line. Call it
    // from one thread per client; it is not re-entrant (a nested call from a handler logs and
    // returns 0). Returns the number of messages dispatched.
    int MSGWaitForEvent(unsigned int ms);

    // Test hook (fuzzers): runs the handlers of `eventId` on a message of `len` bytes as if it
    // had been received, zero padding included, on the calling thread, without the bus. With
    // `exact`, the handlers get `data` itself, without the padding, so that a read past the
    // message shows. Not while another thread waits in MSGWaitForEvent. Returns the number of
    // handlers run.
    int MSGDispatchForTest(int eventId, const char* data, int len, bool exact = false);

    // Remembers `now`; at most once a second publishes kMsgWatchdogEvent with the client's name
    // (32 bytes, NUL-padded) and `now` (int64, little-endian).
    void MSGFeedWatchDog(long long now);

    // The events that have a handler now, in ascending order (tools and tests).
    std::vector<int> RegisteredEvents() const;

    const std::string& Name() const;
    // True once a probe of this client came back through the broker; false again after the
    // broker failed to confirm a registration.
    bool IsConnected() const;

    CMsgClientManage(const CMsgClientManage&) = delete;
    CMsgClientManage& operator=(const CMsgClientManage&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

#endif
