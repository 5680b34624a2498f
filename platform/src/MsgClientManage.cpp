#include "MsgClientManage.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "CommonLog.h"
#include "MsgBroker.h"

using namespace Common;

namespace {

constexpr const char kLogTag[] = "MSG_CLIENT: ";

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

// A burst of 100,000 messages must fit; beyond this a send fails visibly (ZMQ_XPUB_NODROP)
// instead of being dropped.
constexpr int kPubHighWaterMark = 1000000;
// Lets a client that sends and leaves at once still deliver, without hanging on a dead bus.
constexpr int kPubLingerMs = 1000;
constexpr Ms kConnectWait(2000);
constexpr Ms kConfirmWait(2000);
// A client that lost its broker only checks briefly per registration.
constexpr Ms kOfflineConfirmWait(20);
constexpr Ms kReprobeInterval(200);
constexpr Ms kMaxProbeInterval(50);
constexpr std::chrono::seconds kWatchdogInterval(1);
constexpr std::chrono::seconds kRefusalLogInterval(1);
// Buffers above this are released after dispatch, so that one burst does not pin memory.
constexpr size_t kKeepBufferBytes = 4u << 20;
// Received messages waiting for dispatch (a burst of 100,000 small messages fits). Past either
// limit the oldest message of the event that has the most queued is dropped: a flood of one
// kind (CAN frames) must not push out a one-off setting of another, and an event's newest
// message, which supersedes what came before, is never the one dropped.
constexpr size_t kMaxQueuedMessages = 131072;
constexpr size_t kMaxQueuedBytes = 64u << 20;
// ZeroMQ's own queue in front of ours, which every wait drains; it fills only when a sender
// outpaces the drain, and past it the broker drops what is newest.
constexpr int kSubHighWaterMark = 65536;
// One drain takes at most this many messages off the socket, so that a sender faster than the
// drain cannot keep the waiting thread there.
constexpr int kDrainBatch = 4096;
// One MSGWaitForEvent dispatches at most this many messages, and stops after its wait time
// (but not before kMinDispatchMs) once one has run: the caller's loop (watchdog, stop) turns.
constexpr size_t kDispatchBatch = 256;
constexpr Ms kMinDispatchTime(10);
constexpr std::chrono::seconds kDropLogInterval(1);

// One ZeroMQ context (and I/O thread) for all clients of a process; ended with the last
// client so that lingering messages are flushed before the process goes on.
struct ContextPool {
    std::mutex lock;
    void* ctx = nullptr;
    int users = 0;
};

ContextPool& Pool() {
    static ContextPool* pool = new ContextPool();  // never destroyed: clients may outlive statics
    return *pool;
}

void* AcquireContext() {
    ContextPool& pool = Pool();
    std::lock_guard<std::mutex> guard(pool.lock);
    if (pool.ctx == nullptr) {
        pool.ctx = zmq_ctx_new();
        if (pool.ctx == nullptr) {
            return nullptr;
        }
    }
    ++pool.users;
    return pool.ctx;
}

void ReleaseContext() {
    ContextPool& pool = Pool();
    std::lock_guard<std::mutex> guard(pool.lock);
    if (--pool.users == 0) {
        while (zmq_ctx_term(pool.ctx) != 0 && zmq_errno() == EINTR) {
        }
        pool.ctx = nullptr;
    }
}

uint64_t SplitMix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Tells this client's probes from every other client's, across processes and hosts.
uint64_t NewToken(const void* salt) {
    uint64_t token = 0;
    if (getrandom(&token, sizeof token, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof token)) {
        return token;
    }
    static std::atomic<uint64_t> counter{0};
    uint64_t mix = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
    mix ^= static_cast<uint64_t>(getpid()) << 32;
    mix ^= reinterpret_cast<uintptr_t>(salt);
    return SplitMix(mix + counter.fetch_add(1));
}

struct Frame {
    size_t offset;
    size_t size;
};

struct Queued {
    uint32_t eventId;
    std::string bytes;  // the whole message, head first
};

// One event's messages in the receive queue, oldest first, and what was dropped of it.
struct QueuedEvent {
    std::deque<std::list<Queued>::iterator> items;
    uint64_t dropped = 0;
    uint64_t droppedLogged = 0;
    Clock::time_point lastLog{};
};

struct Registration {
    int ownId;
    uint64_t serial;
    std::shared_ptr<const CMsgClientManage::HandlerFn> fn;
};

struct EventEntry {
    std::vector<Registration> regs;  // in registration order
    uint64_t confirmRound = 0;       // a returned probe of this round or later confirms it
};

}  // namespace

struct CMsgClientManage::Impl {
    explicit Impl(const char* clientName) : name(clientName != nullptr ? clientName : "") {
        tag = name.empty() ? "(unnamed)" : name.c_str();
        zmq_msg_init(&rxMsg);
        token = NewToken(this);
    }
    ~Impl();

    void Open();
    // Both sockets with their limits, connected to `endpoints`; false (closed, logged) else.
    bool Connect(const Common::BusEndpoints& endpoints);
    void CloseSockets();

    int Publish(uint32_t eventId, uint32_t senderId, uint32_t flags, const char* data, int len,
                const uint32_t* seq);
    void LogRefusal(uint32_t eventId, int err);
    void ProbeFrame(uint64_t round, char* out) const;
    void PublishProbe(uint64_t round);

    uint64_t StartRoundLocked();
    void EndRoundLocked(uint64_t round);
    bool Confirm(uint64_t needRound, Ms timeout);
    void Reprobe();
    void MarkConnected();

    void SetSubscriptionLocked(const void* prefix, size_t size, bool on);
    void WakeReaderLocked();
    template <class Pred>
    bool WaitLocked(std::unique_lock<std::mutex>& lk, Pred pred, Clock::time_point deadline);
    void PollSocket(Clock::time_point deadline);
    void DrainLocked();
    void Classify(const char* data, size_t size, bool more);
    size_t QueuedLocked() const { return inQueue.size(); }
    void QueueLocked(const char* data, size_t size);
    // Drops the oldest message of the event with the most queued; false when every event
    // queued has only its newest.
    bool DropOneLocked();
    void TakeBatchLocked();

    int Register(int ownId, uint32_t eventId, HandlerFn fn);
    int Unregister(int ownId, uint32_t eventId);
    int Wait(unsigned ms);
    char* PrepareHandlerBuffer(const char* src, size_t size);
    int CallHandlers(uint32_t eventId, const char* buf, int len);
    bool RefreshSnapshot(uint32_t eventId, size_t from, uint64_t& seen);

    std::string name;
    const char* tag;
    uint64_t token;
    std::string address;  // for log lines

    void* ctx = nullptr;
    void* pub = nullptr;
    void* sub = nullptr;
    int subFd = -1;   // ZMQ_FD of `sub`: polled without touching the socket
    int wakeFd = -1;  // eventfd: tells the polling thread that somebody else used `sub`

    // PUB socket and the sequence counter.
    std::mutex sendLock;
    uint32_t seq = 0;
    std::atomic<uint64_t> refusals{0};
    std::mutex refusalLogLock;
    Clock::time_point lastRefusalLog{};

    // Handler table. Taken before recvLock when both are needed; never held while a handler
    // runs.
    std::mutex regLock;
    std::unordered_map<uint32_t, EventEntry> events;
    uint64_t nextSerial = 1;
    // Counts every change of `events`, written under regLock: a dispatch whose handlers
    // changed nothing calls what it took in one look.
    std::atomic<uint64_t> regChanges{0};

    // SUB socket, received messages not yet dispatched, probe rounds, and the election of the
    // one thread that polls `subFd`.
    std::mutex recvLock;
    std::condition_variable recvCv;
    bool readerActive = false;
    // The last drain ended in EAGAIN and nobody used the socket since: subFd will signal
    // anything new, so a wait may go straight to polling it.
    bool settled = false;
    zmq_msg_t rxMsg;
    bool skipMore = false;
    std::list<Queued> inQueue;  // not yet taken for dispatch, oldest first
    std::unordered_map<uint32_t, QueuedEvent> inByEvent;
    size_t inQueuedBytes = 0;
    bool overLimitLogged = false;
    uint64_t nextRound = 1;
    uint64_t appliedUpTo = 0;
    std::vector<uint64_t> openRounds;
    uint64_t backgroundRound = 0;
    Clock::time_point lastReprobe{};
    std::atomic<bool> connected{false};
    bool reportedOffline = false;

    // The thread in MSGWaitForEvent only.
    std::mutex waitLock;
    std::vector<char> dispBytes;
    std::vector<Frame> dispFrames;
    size_t dispNext = 0;  // the first of dispFrames not dispatched yet
    std::vector<char> handlerBuf;
    size_t handlerDirty = 0;  // bytes of handlerBuf that may be non-zero
    std::vector<std::pair<uint64_t, std::shared_ptr<const HandlerFn>>> snapshot;  // serial, fn

    std::mutex dogLock;
    long long lastFeed = 0;
    bool dogSent = false;
    Clock::time_point lastDog{};
};

CMsgClientManage::Impl::~Impl() {
    CloseSockets();
    zmq_msg_close(&rxMsg);
}

void CMsgClientManage::Impl::CloseSockets() {
    if (pub != nullptr) {
        zmq_close(pub);
        pub = nullptr;
    }
    if (sub != nullptr) {
        zmq_close(sub);
        sub = nullptr;
    }
    subFd = -1;
    if (wakeFd >= 0) {
        close(wakeFd);
        wakeFd = -1;
    }
    if (ctx != nullptr) {
        ReleaseContext();
        ctx = nullptr;
    }
}

void CMsgClientManage::Impl::Open() {
    Common::BusEndpoints endpoints = Common::BusEndpointsFromEnv();
    if (endpoints.in.empty()) {
        PM_LOG(0, kLogTag, "%s: no valid bus address; the client stays offline\n", tag);
        return;
    }
    address = endpoints.in;
    ctx = AcquireContext();
    if (ctx == nullptr) {
        PM_LOG(0, kLogTag, "%s: zmq_ctx_new: %s; the client stays offline\n", tag,
               zmq_strerror(zmq_errno()));
        return;
    }
    if (!Connect(endpoints)) {
        return;
    }
    uint64_t firstRound;
    {
        std::lock_guard<std::mutex> guard(recvLock);
        firstRound = nextRound;
    }
    if (Confirm(firstRound, kConnectWait)) {
        PM_LOG(2, kLogTag, "%s: connected to %s\n", tag, address.c_str());
    } else {
        PM_LOG(0, kLogTag, "%s: no bus broker answered at %s within %lld ms; carrying on\n", tag,
               address.c_str(), static_cast<long long>(kConnectWait.count()));
        std::lock_guard<std::mutex> guard(recvLock);
        reportedOffline = true;
    }
}

bool CMsgClientManage::Impl::Connect(const Common::BusEndpoints& endpoints) {
    pub = zmq_socket(ctx, ZMQ_PUB);
    sub = zmq_socket(ctx, ZMQ_SUB);
    wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int hwm = kPubHighWaterMark;
    int noDrop = 1;
    int pubLinger = kPubLingerMs;
    int subHwm = kSubHighWaterMark;
    int subLinger = 0;
    size_t fdSize = sizeof subFd;
    const char* step = "socket";
    bool ok = pub != nullptr && sub != nullptr && wakeFd >= 0;
    if (ok) {
        step = "options";
        ok = zmq_setsockopt(pub, ZMQ_SNDHWM, &hwm, sizeof hwm) == 0 &&
             zmq_setsockopt(pub, ZMQ_XPUB_NODROP, &noDrop, sizeof noDrop) == 0 &&
             zmq_setsockopt(pub, ZMQ_LINGER, &pubLinger, sizeof pubLinger) == 0 &&
             zmq_setsockopt(sub, ZMQ_RCVHWM, &subHwm, sizeof subHwm) == 0 &&
             zmq_setsockopt(sub, ZMQ_MAXMSGSIZE, &kMsgMaxSize, sizeof kMsgMaxSize) == 0 &&
             zmq_setsockopt(sub, ZMQ_LINGER, &subLinger, sizeof subLinger) == 0 &&
             zmq_getsockopt(sub, ZMQ_FD, &subFd, &fdSize) == 0;
    }
    if (ok) {
        step = endpoints.in.c_str();
        ok = zmq_connect(pub, endpoints.in.c_str()) == 0;
    }
    if (ok) {
        step = endpoints.out.c_str();
        ok = zmq_connect(sub, endpoints.out.c_str()) == 0;
    }
    if (!ok) {
        PM_LOG(0, kLogTag, "%s: cannot connect (%s): %s; the client stays offline\n", tag, step,
               wakeFd < 0 ? strerror(errno) : zmq_strerror(zmq_errno()));
        CloseSockets();
        return false;
    }
    return true;
}

// ---- sending -------------------------------------------------------------------------------

int CMsgClientManage::Impl::Publish(uint32_t eventId, uint32_t senderId, uint32_t flags,
                                    const char* data, int len, const uint32_t* fixedSeq) {
    if (len < 0 || static_cast<uint32_t>(len) > kMsgMaxPayload || (len > 0 && data == nullptr)) {
        PM_LOG(0, kLogTag, "%s: event %u: bad payload (%p, %d bytes)\n", tag, eventId,
               static_cast<const void*>(data), len);
        return -1;
    }
    if (pub == nullptr) {
        PM_LOG(2, kLogTag, "%s: offline, event %u not sent\n", tag, eventId);
        return -1;
    }
    size_t payload = static_cast<size_t>(len);
    zmq_msg_t msg;
    if (zmq_msg_init_size(&msg, kMsgHeadSize + payload) != 0) {
        PM_LOG(0, kLogTag, "%s: event %u: no memory for %zu bytes\n", tag, eventId,
               kMsgHeadSize + payload);
        return -1;
    }
    char* frame = static_cast<char*>(zmq_msg_data(&msg));
    if (payload > 0) {
        memcpy(frame + kMsgHeadSize, data, payload);
    }
    int rc;
    int err = 0;
    {
        std::lock_guard<std::mutex> guard(sendLock);
        uint32_t s = fixedSeq != nullptr ? *fixedSeq : ++seq;
        PutMsgHead(frame, eventId, senderId, s, static_cast<uint32_t>(len) | flags);
        rc = zmq_msg_send(&msg, pub, ZMQ_DONTWAIT);
        if (rc < 0) {
            err = zmq_errno();
        }
    }
    if (rc < 0) {
        zmq_msg_close(&msg);
        LogRefusal(eventId, err);
        return -1;
    }
    return 0;
}

// A full queue can refuse thousands of sends a second; one line a second says so.
void CMsgClientManage::Impl::LogRefusal(uint32_t eventId, int err) {
    uint64_t count = refusals.fetch_add(1) + 1;
    std::lock_guard<std::mutex> guard(refusalLogLock);
    Clock::time_point now = Clock::now();
    if (lastRefusalLog != Clock::time_point{} && now - lastRefusalLog < kRefusalLogInterval) {
        return;
    }
    lastRefusalLog = now;
    PM_LOG(0, kLogTag, "%s: event %u not sent: %s (%llu refused so far)\n", tag, eventId,
           err == EAGAIN ? "send queue full" : zmq_strerror(err),
           static_cast<unsigned long long>(count));
}

// Also the subscription prefix of its round: only this client, in this round, receives it.
void CMsgClientManage::Impl::ProbeFrame(uint64_t round, char* out) const {
    PutMsgHead(out, kMsgProbeEvent, static_cast<uint32_t>(token),
               static_cast<uint32_t>(token >> 32), 8);
    PutLe64(out + kMsgHeadSize, round);
}

void CMsgClientManage::Impl::PublishProbe(uint64_t round) {
    char probe[kMsgProbeSize];
    ProbeFrame(round, probe);
    std::lock_guard<std::mutex> guard(sendLock);
    // A probe lost before the connection is up is simply sent again.
    zmq_send(pub, probe, sizeof probe, ZMQ_DONTWAIT);
}

// ---- subscriptions and probes --------------------------------------------------------------

// Whoever polls subFd must look again: using the socket may have consumed its signal.
void CMsgClientManage::Impl::WakeReaderLocked() {
    if (readerActive) {
        uint64_t one = 1;
        ssize_t n = write(wakeFd, &one, sizeof one);
        (void)n;  // a full counter already wakes the reader
    }
}

void CMsgClientManage::Impl::SetSubscriptionLocked(const void* prefix, size_t size, bool on) {
    settled = false;
    if (zmq_setsockopt(sub, on ? ZMQ_SUBSCRIBE : ZMQ_UNSUBSCRIBE, prefix, size) != 0) {
        PM_LOG(0, kLogTag, "%s: %s: %s\n", tag, on ? "subscribe" : "unsubscribe",
               zmq_strerror(zmq_errno()));
    }
    WakeReaderLocked();
}

// A round subscribes to its own probe. Subscriptions of one SUB socket reach the broker in
// order, so when the probe comes back every subscription made before the round is in force.
uint64_t CMsgClientManage::Impl::StartRoundLocked() {
    uint64_t round = nextRound++;
    char probe[kMsgProbeSize];
    ProbeFrame(round, probe);
    SetSubscriptionLocked(probe, sizeof probe, true);
    openRounds.push_back(round);
    return round;
}

void CMsgClientManage::Impl::EndRoundLocked(uint64_t round) {
    auto it = std::find(openRounds.begin(), openRounds.end(), round);
    if (it == openRounds.end()) {
        return;
    }
    openRounds.erase(it);
    char probe[kMsgProbeSize];
    ProbeFrame(round, probe);
    SetSubscriptionLocked(probe, sizeof probe, false);
}

void CMsgClientManage::Impl::MarkConnected() {
    if (!connected.exchange(true) && reportedOffline) {
        reportedOffline = false;
        PM_LOG(1, kLogTag, "%s: the bus broker at %s answers now\n", tag, address.c_str());
    }
}

bool CMsgClientManage::Impl::Confirm(uint64_t needRound, Ms timeout) {
    std::unique_lock<std::mutex> lk(recvLock);
    if (appliedUpTo >= needRound) {
        return true;
    }
    uint64_t round = StartRoundLocked();
    Clock::time_point deadline = Clock::now() + timeout;
    Ms interval(1);
    bool confirmed = false;
    for (;;) {
        lk.unlock();
        PublishProbe(round);
        lk.lock();
        Clock::time_point tick = std::min(deadline, Clock::now() + interval);
        confirmed = WaitLocked(
            lk, [&] { return appliedUpTo >= needRound; }, tick);
        if (confirmed || Clock::now() >= deadline) {
            break;
        }
        interval = std::min(interval * 2, kMaxProbeInterval);
    }
    EndRoundLocked(round);
    return confirmed;
}

// While no broker answers, MSGWaitForEvent keeps a probe going so that IsConnected() and the
// registrations notice when one starts.
void CMsgClientManage::Impl::Reprobe() {
    uint64_t round;
    {
        std::lock_guard<std::mutex> guard(recvLock);
        Clock::time_point now = Clock::now();
        if (now - lastReprobe < kReprobeInterval) {
            return;
        }
        lastReprobe = now;
        if (std::find(openRounds.begin(), openRounds.end(), backgroundRound) == openRounds.end()) {
            backgroundRound = StartRoundLocked();
        }
        round = backgroundRound;
    }
    PublishProbe(round);
}

// ---- receiving -----------------------------------------------------------------------------

// Leader/follower: one thread at a time polls the socket's descriptor without holding the
// lock; the others wait on the condition variable for what it sorts out of the socket.
template <class Pred>
bool CMsgClientManage::Impl::WaitLocked(std::unique_lock<std::mutex>& lk, Pred pred,
                                        Clock::time_point deadline) {
    for (;;) {
        if (!settled) {
            DrainLocked();
        }
        if (pred()) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        if (readerActive) {
            recvCv.wait_until(lk, deadline);
            continue;
        }
        readerActive = true;
        lk.unlock();
        PollSocket(deadline);
        lk.lock();
        readerActive = false;
        settled = false;
        recvCv.notify_all();
    }
}

void CMsgClientManage::Impl::PollSocket(Clock::time_point deadline) {
    auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1000000000);
    ts.tv_nsec = static_cast<long>(ns % 1000000000);
    struct pollfd fds[2] = {{subFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    if (ppoll(fds, 2, &ts, nullptr) > 0 && (fds[1].revents & POLLIN) != 0) {
        uint64_t count;
        ssize_t n = read(wakeFd, &count, sizeof count);
        (void)n;
    }
}

// Takes what the socket holds, at most kDrainBatch messages. Receiving until EAGAIN also
// processes the socket's pending commands, which is what re-arms subFd; a drain cut short
// leaves `settled` false, so the next one comes without polling.
void CMsgClientManage::Impl::DrainLocked() {
    if (sub == nullptr) {
        return;
    }
    settled = false;
    for (int taken = 0; taken < kDrainBatch; ++taken) {
        int rc = zmq_msg_recv(&rxMsg, sub, ZMQ_DONTWAIT);
        if (rc < 0) {
            int err = zmq_errno();
            if (err == EINTR) {
                continue;
            }
            if (err != EAGAIN) {
                PM_LOG(0, kLogTag, "%s: receive: %s\n", tag, zmq_strerror(err));
            }
            settled = err == EAGAIN;
            break;
        }
        Classify(static_cast<const char*>(zmq_msg_data(&rxMsg)), zmq_msg_size(&rxMsg),
                 zmq_msg_more(&rxMsg) != 0);
    }
    WakeReaderLocked();
}

void CMsgClientManage::Impl::Classify(const char* data, size_t size, bool more) {
    if (more || skipMore) {
        skipMore = more;
        PM_LOG(0, kLogTag, "%s: dropped a part of a multi-part message (%zu bytes)\n", tag, size);
        return;
    }
    if (size < kMsgHeadSize) {
        PM_LOG(0, kLogTag, "%s: dropped a frame of %zu bytes, shorter than the head\n", tag, size);
        return;
    }
    uint32_t eventId = GetLe32(data);
    if (eventId == kMsgProbeEvent && size == kMsgProbeSize && GetLe64(data + 4) == token) {
        uint64_t round = GetLe64(data + kMsgHeadSize);
        appliedUpTo = std::max(appliedUpTo, round);
        EndRoundLocked(round);
        MarkConnected();
        recvCv.notify_all();
        return;
    }
    uint32_t length = GetLe32(data + 12) & kMsgLengthMask;
    if (length != size - kMsgHeadSize) {
        PM_LOG(0, kLogTag,
               "%s: dropped event %u: length field %u, but %zu payload bytes "
               "received\n",
               tag, eventId, length, size - kMsgHeadSize);
        return;
    }
    QueueLocked(data, size);
}

void CMsgClientManage::Impl::QueueLocked(const char* data, size_t size) {
    while (!inQueue.empty() &&
           (inQueue.size() >= kMaxQueuedMessages || inQueuedBytes + size > kMaxQueuedBytes)) {
        if (!DropOneLocked()) {
            // Only newest messages left: they stay, and the queue holds one more per event
            // until the dispatch takes some.
            if (!overLimitLogged) {
                overLimitLogged = true;
                PM_LOG(0, kLogTag,
                       "%s: receive queue full (%zu messages or %zu bytes) of events that each "
                       "have only their newest queued: none dropped\n",
                       tag, kMaxQueuedMessages, kMaxQueuedBytes);
            }
            break;
        }
    }
    const uint32_t eventId = GetLe32(data);
    inQueue.push_back(Queued{eventId, std::string(data, size)});
    inByEvent[eventId].items.push_back(std::prev(inQueue.end()));
    inQueuedBytes += size;
}

bool CMsgClientManage::Impl::DropOneLocked() {
    auto most = inByEvent.end();
    for (auto it = inByEvent.begin(); it != inByEvent.end(); ++it) {
        if (most == inByEvent.end() || it->second.items.size() > most->second.items.size()) {
            most = it;
        }
    }
    if (most == inByEvent.end() || most->second.items.size() < 2) {
        return false;
    }
    QueuedEvent& event = most->second;
    const std::list<Queued>::iterator oldest = event.items.front();
    event.items.pop_front();
    inQueuedBytes -= oldest->bytes.size();
    inQueue.erase(oldest);
    ++event.dropped;
    const Clock::time_point now = Clock::now();
    if (event.droppedLogged == 0 || now - event.lastLog >= kDropLogInterval) {
        PM_LOG(0, kLogTag,
               "%s: receive queue full (%zu messages or %zu bytes): dropped the oldest of "
               "event %u (%zu of it queued), %llu of it dropped so far\n",
               tag, kMaxQueuedMessages, kMaxQueuedBytes, most->first, event.items.size(),
               static_cast<unsigned long long>(event.dropped));
        event.droppedLogged = event.dropped;
        event.lastLog = now;
    }
    return true;
}

// Moves the oldest queued messages, at most kDispatchBatch, to the dispatch buffers.
void CMsgClientManage::Impl::TakeBatchLocked() {
    for (size_t taken = 0; taken < kDispatchBatch && !inQueue.empty(); ++taken) {
        Queued& q = inQueue.front();
        dispFrames.push_back(Frame{dispBytes.size(), q.bytes.size()});
        dispBytes.insert(dispBytes.end(), q.bytes.begin(), q.bytes.end());
        auto event = inByEvent.find(q.eventId);
        event->second.items.pop_front();
        if (event->second.items.empty() && event->second.dropped == 0) {
            inByEvent.erase(event);
        }
        inQueuedBytes -= q.bytes.size();
        inQueue.pop_front();
    }
    if (inQueue.empty()) {
        overLimitLogged = false;
    }
}

// ---- registrations -------------------------------------------------------------------------

int CMsgClientManage::Impl::Register(int ownId, uint32_t eventId, HandlerFn fn) {
    if (!fn) {
        PM_LOG(0, kLogTag, "%s: empty handler for event %u from %d\n", tag, eventId, ownId);
        return -1;
    }
    auto shared = std::make_shared<const HandlerFn>(std::move(fn));
    uint64_t needRound;
    {
        std::lock_guard<std::mutex> guard(regLock);
        EventEntry& entry = events[eventId];
        auto it = std::find_if(entry.regs.begin(), entry.regs.end(),
                               [ownId](const Registration& r) { return r.ownId == ownId; });
        bool added = it == entry.regs.end();
        if (added) {
            entry.regs.push_back(Registration{ownId, nextSerial++, std::move(shared)});
        } else {
            it->fn = std::move(shared);
        }
        ++regChanges;
        if (added && entry.regs.size() == 1 && sub != nullptr) {
            char prefix[4];
            PutLe32(prefix, eventId);
            std::lock_guard<std::mutex> recvGuard(recvLock);
            SetSubscriptionLocked(prefix, sizeof prefix, true);
            entry.confirmRound = nextRound;
        }
        needRound = entry.confirmRound;
    }
    if (sub == nullptr) {
        return 0;
    }
    bool online = connected.load();
    if (!Confirm(needRound, online ? kConfirmWait : kOfflineConfirmWait) && online) {
        PM_LOG(0, kLogTag, "%s: the broker did not confirm event %u within %lld ms\n", tag, eventId,
               static_cast<long long>(kConfirmWait.count()));
        std::lock_guard<std::mutex> guard(recvLock);
        connected = false;
        reportedOffline = true;
    }
    return 0;
}

int CMsgClientManage::Impl::Unregister(int ownId, uint32_t eventId) {
    std::lock_guard<std::mutex> guard(regLock);
    auto found = events.find(eventId);
    if (found == events.end()) {
        return 0;
    }
    std::vector<Registration>& regs = found->second.regs;
    regs.erase(std::remove_if(regs.begin(), regs.end(),
                              [ownId](const Registration& r) { return r.ownId == ownId; }),
               regs.end());
    ++regChanges;
    if (regs.empty()) {
        events.erase(found);
        if (sub != nullptr) {
            char prefix[4];
            PutLe32(prefix, eventId);
            std::lock_guard<std::mutex> recvGuard(recvLock);
            SetSubscriptionLocked(prefix, sizeof prefix, false);
        }
    }
    return 0;
}

// ---- dispatch ------------------------------------------------------------------------------

int CMsgClientManage::Impl::Wait(unsigned ms) {
    std::unique_lock<std::mutex> waiting(waitLock, std::try_to_lock);
    if (!waiting.owns_lock()) {
        PM_LOG(0, kLogTag,
               "%s: MSGWaitForEvent entered twice (from a handler or a second "
               "thread); ignored\n",
               tag);
        return 0;
    }
    if (sub == nullptr) {
        std::this_thread::sleep_for(Ms(ms));
        return 0;
    }
    if (!connected.load()) {
        Reprobe();
    }
    const Clock::time_point start = Clock::now();
    {
        std::unique_lock<std::mutex> lk(recvLock);
        if (dispNext < dispFrames.size()) {
            DrainLocked();  // a backlog is being worked off: keep the socket moving all the same
        } else {
            dispFrames.clear();
            dispBytes.clear();
            dispNext = 0;
            WaitLocked(
                lk, [this] { return QueuedLocked() > 0; }, start + Ms(ms));
            TakeBatchLocked();
        }
    }
    const Clock::time_point budgetEnd = start + std::max<Ms>(Ms(ms), kMinDispatchTime);
    int count = 0;
    while (dispNext < dispFrames.size() && (count == 0 || Clock::now() < budgetEnd)) {
        const Frame& f = dispFrames[dispNext++];
        const char* src = dispBytes.data() + f.offset;
        char* buf = PrepareHandlerBuffer(src, f.size);
        CallHandlers(GetLe32(src), buf, static_cast<int>(f.size));
        ++count;
    }
    if (dispNext < dispFrames.size()) {
        return count;  // the rest waits for the next call
    }
    dispFrames.clear();
    dispBytes.clear();
    dispNext = 0;
    if (dispBytes.capacity() > kKeepBufferBytes) {
        std::vector<char>().swap(dispBytes);
        std::vector<Frame>().swap(dispFrames);
    }
    if (handlerBuf.size() > kKeepBufferBytes) {
        handlerBuf.assign(kMsgMinHandlerBuffer, 0);
        handlerBuf.shrink_to_fit();
        handlerDirty = 0;
    }
    return count;
}

// The message followed by zeros up to at least kMsgMinHandlerBuffer bytes; only what the
// previous message left behind needs clearing.
char* CMsgClientManage::Impl::PrepareHandlerBuffer(const char* src, size_t size) {
    size_t need = std::max<size_t>(kMsgMinHandlerBuffer, size);
    if (handlerBuf.size() < need) {
        handlerBuf.resize(need, 0);
    }
    char* buf = handlerBuf.data();
    memcpy(buf, src, size);
    if (handlerDirty > size) {
        memset(buf + size, 0, handlerDirty - size);
    }
    handlerDirty = size;
    return buf;
}

// A handler may unregister others (and delete their objects) or replace them: once the
// table has changed since the look, each remaining registration is looked up again right
// before its call. Without changes the look is the only time regLock is taken.
int CMsgClientManage::Impl::CallHandlers(uint32_t eventId, const char* buf, int len) {
    snapshot.clear();
    uint64_t seen = 0;
    {
        std::lock_guard<std::mutex> guard(regLock);
        auto found = events.find(eventId);
        if (found == events.end()) {
            return 0;
        }
        for (const Registration& r : found->second.regs) {
            snapshot.emplace_back(r.serial, r.fn);
        }
        seen = regChanges.load();
    }
    int called = 0;
    for (size_t i = 0; i < snapshot.size(); ++i) {
        if (regChanges.load() != seen && !RefreshSnapshot(eventId, i, seen)) {
            break;
        }
        if (snapshot[i].second) {
            (*snapshot[i].second)(buf, len);
            ++called;
        }
    }
    snapshot.clear();  // a handler's captures live no longer than its registration
    return called;
}

// Looks the registrations from snapshot[from] on up again; false when the event has none left.
bool CMsgClientManage::Impl::RefreshSnapshot(uint32_t eventId, size_t from, uint64_t& seen) {
    std::lock_guard<std::mutex> guard(regLock);
    seen = regChanges.load();
    auto found = events.find(eventId);
    if (found == events.end()) {
        return false;
    }
    const std::vector<Registration>& regs = found->second.regs;
    for (size_t i = from; i < snapshot.size(); ++i) {
        auto r = std::find_if(regs.begin(), regs.end(),
                              [&](const Registration& x) { return x.serial == snapshot[i].first; });
        snapshot[i].second = r == regs.end() ? nullptr : r->fn;
    }
    return true;
}

// ---- public interface ----------------------------------------------------------------------

CMsgClientManage::CMsgClientManage(const char* name, int /*queueSize*/)
    : m_pImpl(std::make_unique<Impl>(name)) {
    m_pImpl->Open();
}

CMsgClientManage::~CMsgClientManage() = default;

int CMsgClientManage::RegisterHandler(int ownId, int eventId, HandlerFn fn) {
    return m_pImpl->Register(ownId, static_cast<uint32_t>(eventId), std::move(fn));
}

int CMsgClientManage::MSGEventUnRegister(int ownId, int eventId) {
    return m_pImpl->Unregister(ownId, static_cast<uint32_t>(eventId));
}

int CMsgClientManage::MSGSendMessage(int /*target*/, int eventId, int needAnswer, const char* data,
                                     int len, int ownId) {
    return m_pImpl->Publish(static_cast<uint32_t>(eventId), static_cast<uint32_t>(ownId),
                            needAnswer != 0 ? kMsgNeedAnswerFlag : 0, data, len, nullptr);
}

int CMsgClientManage::MSGResponseMessage(Common::SMessageHead* request, const char* data, int len) {
    if (request == nullptr) {
        PM_LOG(0, kLogTag, "%s: answer to a null request\n", m_pImpl->tag);
        return -1;
    }
    char head[kMsgHeadSize];
    memcpy(head, request, sizeof head);
    uint32_t seq = GetLe32(head + 8);
    return m_pImpl->Publish(GetLe32(head) | Common::kMsgAnswerBit, 0, kMsgIsAnswerFlag, data, len,
                            &seq);
}

int CMsgClientManage::MSGWaitForEvent(unsigned int ms) {
    return m_pImpl->Wait(ms);
}

int CMsgClientManage::MSGDispatchForTest(int eventId, const char* data, int len, bool exact) {
    Impl& d = *m_pImpl;
    std::unique_lock<std::mutex> waiting(d.waitLock, std::try_to_lock);
    if (!waiting.owns_lock() || len < 0 || (len > 0 && data == nullptr)) {
        return 0;
    }
    if (exact) {
        return d.CallHandlers(static_cast<uint32_t>(eventId), data, len);
    }
    char* buf = d.PrepareHandlerBuffer(len > 0 ? data : "", static_cast<size_t>(len));
    return d.CallHandlers(static_cast<uint32_t>(eventId), buf, len);
}

void CMsgClientManage::MSGFeedWatchDog(long long now) {
    Impl& d = *m_pImpl;
    {
        std::lock_guard<std::mutex> guard(d.dogLock);
        d.lastFeed = now;
        Clock::time_point t = Clock::now();
        if (d.dogSent && t - d.lastDog < kWatchdogInterval) {
            return;
        }
        d.dogSent = true;
        d.lastDog = t;
    }
    char payload[kMsgWatchdogPayload] = {};
    memcpy(payload, d.name.data(), std::min(d.name.size(), kMsgWatchdogNameSize));
    PutLe64(payload + kMsgWatchdogNameSize, static_cast<uint64_t>(now));
    d.Publish(Common::kMsgWatchdogEvent, 0, 0, payload, sizeof payload, nullptr);
}

std::vector<int> CMsgClientManage::RegisteredEvents() const {
    std::vector<int> ids;
    {
        std::lock_guard<std::mutex> guard(m_pImpl->regLock);
        for (const auto& entry : m_pImpl->events) {
            ids.push_back(static_cast<int>(entry.first));
        }
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

const std::string& CMsgClientManage::Name() const {
    return m_pImpl->name;
}

bool CMsgClientManage::IsConnected() const {
    return m_pImpl->connected.load();
}
