#include "MsgBroker.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "BusWire.h"
#include "CommonLog.h"

namespace Common {

namespace {

constexpr const char kLogTag[] = "MSG_BROKER: ";

constexpr const char* kDefaultBus = "/tmp/recorder-bus";
constexpr const char* kIpc = "ipc://";
constexpr const char* kTcp = "tcp://";
constexpr size_t kMaxIpcPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr int kListenBacklog = 128;
// What the broker keeps for one subscriber that does not keep up; past it the newest messages
// for that subscriber are dropped, so that one slow client cannot grow the broker without bound
// (a burst of 100,000 messages still fits). Input waiting for the broker is bounded the same
// way; past it the publishers wait (their own queues refuse sends, logged, when full).
constexpr int kSubscriberHighWaterMark = 131072;
constexpr int kInputHighWaterMark = 131072;

bool StartsWith(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

// PORT must leave room for PORT+1.
bool ParsePort(const std::string& text, unsigned& port) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    unsigned long v = strtoul(text.c_str(), nullptr, 10);
    if (v == 0 || v >= 65535) {
        return false;
    }
    port = static_cast<unsigned>(v);
    return true;
}

std::string IpcPath(const std::string& endpoint) {
    return StartsWith(endpoint, kIpc) ? endpoint.substr(strlen(kIpc)) : std::string();
}

void CloseSocket(void*& socket) {
    if (socket != nullptr) {
        zmq_close(socket);
        socket = nullptr;
    }
}

}  // namespace

bool ParseBusAddress(const std::string& value, BusEndpoints& out) {
    if (StartsWith(value, kTcp)) {
        std::string rest = value.substr(strlen(kTcp));
        size_t colon = rest.rfind(':');
        unsigned port = 0;
        if (colon == std::string::npos || colon == 0 || !ParsePort(rest.substr(colon + 1), port)) {
            return false;
        }
        std::string host = rest.substr(0, colon);
        out.in = kTcp + host + ":" + std::to_string(port);
        out.out = kTcp + host + ":" + std::to_string(port + 1);
        out.lock.clear();
        return true;
    }
    std::string prefix = StartsWith(value, kIpc) ? value.substr(strlen(kIpc)) : value;
    // ".out" is the longest socket suffix; the lock file is not a socket and may be longer.
    if (prefix.empty() || prefix.find("://") != std::string::npos ||
        prefix.size() + strlen(".out") > kMaxIpcPath) {
        return false;
    }
    out.in = kIpc + prefix + ".in";
    out.out = kIpc + prefix + ".out";
    out.lock = prefix + ".lock";
    return true;
}

BusEndpoints BusEndpointsFromEnv() {
    const char* env = getenv("RECORDER_BUS");
    std::string value = (env != nullptr && *env != '\0') ? env : kDefaultBus;
    BusEndpoints endpoints;
    if (!ParseBusAddress(value, endpoints)) {
        PM_LOG(0, "",
               "MSG_BUS: RECORDER_BUS \"%s\" is neither a path prefix (of at most %zu bytes) nor "
               "tcp://HOST:PORT\n",
               value.c_str(), kMaxIpcPath - strlen(".out"));
        return BusEndpoints{};
    }
    return endpoints;
}

namespace {

// True when something accepts connections at the ipc socket file `path`: a running broker.
bool IpcAnswers(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), std::min(path.size(), sizeof addr.sun_path - 1));
    bool answers = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return answers;
}

// The files of the brokers this process runs, removed at exit() too: a program that ends
// without stopping its broker (a service that calls exit(1)) must not leave sockets and a lock
// file behind that look like a live bus.
class LiveFiles {
public:
    static LiveFiles& Get() {
        static LiveFiles* files = new LiveFiles();  // never destroyed: used from atexit
        return *files;
    }
    void Add(const BusEndpoints* endpoints) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_registered) {
            m_registered = atexit([] { Get().RemoveAll(); }) == 0;
        }
        m_live.insert(endpoints);
    }
    void Remove(const BusEndpoints* endpoints) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_live.erase(endpoints);
    }

private:
    void RemoveAll() {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const BusEndpoints* e : m_live) {
            unlink(IpcPath(e->in).c_str());
            unlink(IpcPath(e->out).c_str());
            unlink(e->lock.c_str());
        }
        m_live.clear();
    }
    std::mutex m_lock;
    std::set<const BusEndpoints*> m_live;
    bool m_registered = false;
};

}  // namespace

struct CMsgBroker::Impl {
    explicit Impl(BusEndpoints ep) : endpoints(std::move(ep)) {}

    int StartLocked();
    // The lock file, and no broker already answering at an ipc address: 0, else StartLocked's
    // answer.
    int ClaimIpc();
    // The context and both sockets with their limits; false (cleaned up) when any fails.
    bool MakeSockets();
    // Both addresses bound: 0, else StartLocked's answer (cleaned up).
    int BindBoth(bool ipc);
    void StopLocked();
    int AcquireLock();
    void ReleaseLock();
    int Bind(void* socket, const std::string& endpoint);
    int BindIpc(void* socket, const std::string& endpoint);
    void Cleanup();
    void Run();
    // Moves what the publishers sent to the subscribers, at most a batch; false when the
    // context ends.
    bool ForwardMessages(zmq_msg_t& msg);
    bool ForwardSubscriptions(zmq_msg_t& msg);
    // One message that some subscriber's full queue cannot take: the others get it, and the
    // loss is counted and logged.
    int SendPastAFullQueue(zmq_msg_t& msg, int flags);

    BusEndpoints endpoints;
    std::mutex life;  // serialises Start and Stop
    std::atomic<bool> running{false};
    void* ctx = nullptr;
    void* xsub = nullptr;
    void* xpub = nullptr;
    std::thread proxy;
    int lockFd = -1;
    bool boundIn = false;
    bool boundOut = false;
    int subscriberLimit = kSubscriberHighWaterMark;
    // Messages that at least one subscriber did not get because its queue was full.
    std::atomic<uint64_t> undelivered{0};
    uint64_t undeliveredLogged = 0;
    std::chrono::steady_clock::time_point lastUndeliveredLog{};
};

// An exclusive flock held for the broker's life marks the endpoints as served: a ZeroMQ ipc
// bind would silently take the socket path over from a running broker.
int CMsgBroker::Impl::AcquireLock() {
    const std::string& path = endpoints.lock;
    for (int attempt = 0; attempt < 8; ++attempt) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) {
            PM_LOG(0, kLogTag, "cannot open lock file %s: %s\n", path.c_str(), strerror(errno));
            return -1;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            int err = errno;
            close(fd);
            if (err == EWOULDBLOCK) {
                return 1;
            }
            PM_LOG(0, kLogTag, "cannot lock %s: %s\n", path.c_str(), strerror(err));
            return -1;
        }
        // A broker that stops removes the file while it still holds the lock: when we locked
        // a removed file, somebody may have created and locked a new one meanwhile.
        struct stat held;
        struct stat named;
        if (fstat(fd, &held) == 0 && stat(path.c_str(), &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
            char pid[32];
            int n = snprintf(pid, sizeof pid, "%ld\n", static_cast<long>(getpid()));
            if (ftruncate(fd, 0) != 0 || write(fd, pid, static_cast<size_t>(n)) != n) {
                PM_LOG(2, kLogTag, "cannot write the pid to %s\n", path.c_str());
            }
            lockFd = fd;
            return 0;
        }
        close(fd);
    }
    PM_LOG(0, kLogTag, "lock file %s keeps changing; giving up\n", path.c_str());
    return -1;
}

void CMsgBroker::Impl::ReleaseLock() {
    if (lockFd >= 0) {
        unlink(endpoints.lock.c_str());  // still locked here, see AcquireLock
        close(lockFd);
        lockFd = -1;
    }
}

// The listening socket is made by hand so that its file is born with mode 0600: on Linux the
// mode of a socket inode set before bind() becomes the mode of the file bind() creates.
int CMsgBroker::Impl::BindIpc(void* socket, const std::string& endpoint) {
    std::string path = IpcPath(endpoint);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        PM_LOG(0, kLogTag, "socket for %s: %s\n", endpoint.c_str(), strerror(errno));
        return -1;
    }
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    unlink(path.c_str());  // left behind by a broker that died; we hold the lock
    if (fchmod(fd, 0600) != 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(fd, kListenBacklog) != 0) {
        PM_LOG(0, kLogTag, "cannot listen at %s: %s\n", path.c_str(), strerror(errno));
        close(fd);
        return -1;
    }
    if (zmq_setsockopt(socket, ZMQ_USE_FD, &fd, sizeof fd) != 0 ||
        zmq_bind(socket, endpoint.c_str()) != 0) {
        PM_LOG(0, kLogTag, "cannot bind %s: %s\n", endpoint.c_str(), zmq_strerror(errno));
        close(fd);
        unlink(path.c_str());
        return -1;
    }
    return 0;
}

// 0 bound, 1 the address is taken (a running broker), -1 failure.
int CMsgBroker::Impl::Bind(void* socket, const std::string& endpoint) {
    if (StartsWith(endpoint, kIpc)) {
        return BindIpc(socket, endpoint);
    }
    if (zmq_bind(socket, endpoint.c_str()) == 0) {
        return 0;
    }
    int err = zmq_errno();
    if (err == EADDRINUSE) {
        return 1;
    }
    PM_LOG(0, kLogTag, "cannot bind %s: %s\n", endpoint.c_str(), zmq_strerror(err));
    return -1;
}

void CMsgBroker::Impl::Cleanup() {
    CloseSocket(xsub);
    CloseSocket(xpub);
    if (ctx != nullptr) {
        while (zmq_ctx_term(ctx) != 0 && zmq_errno() == EINTR) {
        }
        ctx = nullptr;
    }
    // ZeroMQ leaves the files of a socket it did not create itself.
    if (boundIn) {
        unlink(IpcPath(endpoints.in).c_str());
    }
    if (boundOut) {
        unlink(IpcPath(endpoints.out).c_str());
    }
    boundIn = boundOut = false;
    ReleaseLock();
}

int CMsgBroker::Impl::StartLocked() {
    undelivered = 0;
    undeliveredLogged = 0;
    if (endpoints.in.empty() || endpoints.out.empty()) {
        PM_LOG(0, kLogTag, "no bus address to serve\n");
        return -1;
    }
    const bool ipc = StartsWith(endpoints.in, kIpc);
    if (ipc) {
        const int rc = ClaimIpc();
        if (rc != 0) {
            return rc;
        }
    }
    if (!MakeSockets()) {
        return -1;
    }
    const int rc = BindBoth(ipc);
    if (rc != 0) {
        return rc;
    }
    // Publishers send everything to the broker and the broker's XPUB does all the filtering.
    // Then a subscription is in force as soon as the XPUB has it, which the clients' probes
    // can confirm; filtering at each publisher would need each publisher to have it too.
    const char subscribeAll = 1;
    if (zmq_send(xsub, &subscribeAll, 1, 0) != 1) {
        PM_LOG(0, kLogTag, "cannot subscribe upstream: %s\n", zmq_strerror(zmq_errno()));
        Cleanup();
        return -1;
    }
    if (ipc) {
        LiveFiles::Get().Add(&endpoints);
    }
    proxy = std::thread([this] { Run(); });
    running = true;
    PM_LOG(1, kLogTag, "serving %s -> %s\n", endpoints.in.c_str(), endpoints.out.c_str());
    return 0;
}

int CMsgBroker::Impl::ClaimIpc() {
    const int rc = AcquireLock();
    if (rc != 0) {
        return rc;
    }
    // The lock file can be deleted under a running broker; its sockets cannot be faked.
    for (const std::string& endpoint : {endpoints.in, endpoints.out}) {
        if (IpcAnswers(IpcPath(endpoint))) {
            PM_LOG(0, kLogTag,
                   "a broker answers at %s although the lock file %s was "
                   "missing; not taking over\n",
                   endpoint.c_str(), endpoints.lock.c_str());
            ReleaseLock();
            return 1;
        }
    }
    return 0;
}

bool CMsgBroker::Impl::MakeSockets() {
    ctx = zmq_ctx_new();
    if (ctx == nullptr) {
        PM_LOG(0, kLogTag, "zmq_ctx_new: %s\n", zmq_strerror(zmq_errno()));
        ReleaseLock();
        return false;
    }
    xsub = zmq_socket(ctx, ZMQ_XSUB);
    xpub = zmq_socket(ctx, ZMQ_XPUB);
    int input = kInputHighWaterMark;
    int perSubscriber = subscriberLimit;
    int linger = 0;
    if (xsub == nullptr || xpub == nullptr ||
        zmq_setsockopt(xsub, ZMQ_RCVHWM, &input, sizeof input) != 0 ||
        zmq_setsockopt(xsub, ZMQ_MAXMSGSIZE, &kMsgMaxSize, sizeof kMsgMaxSize) != 0 ||
        zmq_setsockopt(xpub, ZMQ_MAXMSGSIZE, &kMsgMaxSize, sizeof kMsgMaxSize) != 0 ||
        zmq_setsockopt(xpub, ZMQ_SNDHWM, &perSubscriber, sizeof perSubscriber) != 0 ||
        zmq_setsockopt(xsub, ZMQ_LINGER, &linger, sizeof linger) != 0 ||
        zmq_setsockopt(xpub, ZMQ_LINGER, &linger, sizeof linger) != 0) {
        PM_LOG(0, kLogTag, "cannot make sockets: %s\n", zmq_strerror(zmq_errno()));
        Cleanup();
        return false;
    }
    return true;
}

int CMsgBroker::Impl::BindBoth(bool ipc) {
    int rc = Bind(xsub, endpoints.in);
    boundIn = ipc && rc == 0;
    if (rc == 0) {
        rc = Bind(xpub, endpoints.out);
        boundOut = ipc && rc == 0;
        if (rc == 1) {
            // A broker would hold "in" too: something else took this port.
            PM_LOG(0, kLogTag, "%s is taken by another program\n", endpoints.out.c_str());
            rc = -1;
        }
    }
    if (rc != 0) {
        Cleanup();
    }
    return rc;
}

// The proxy's loop, ended when Stop() shuts the context down. The subscribers' side refuses
// (ZMQ_XPUB_NODROP) instead of dropping in silence when a subscriber's queue is full: the
// broker then counts the message and sends it on for the others.
void CMsgBroker::Impl::Run() {
    const int noDrop = 1;
    zmq_setsockopt(xpub, ZMQ_XPUB_NODROP, &noDrop, sizeof noDrop);
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    zmq_pollitem_t items[] = {{xsub, 0, ZMQ_POLLIN, 0}, {xpub, 0, ZMQ_POLLIN, 0}};
    for (;;) {
        if (zmq_poll(items, 2, -1) < 0) {
            if (zmq_errno() == EINTR) {
                continue;
            }
            if (zmq_errno() != ETERM) {
                PM_LOG(0, kLogTag, "proxy ended: %s\n", zmq_strerror(zmq_errno()));
            }
            break;
        }
        if (((items[0].revents & ZMQ_POLLIN) != 0 && !ForwardMessages(msg)) ||
            ((items[1].revents & ZMQ_POLLIN) != 0 && !ForwardSubscriptions(msg))) {
            break;
        }
    }
    zmq_msg_close(&msg);
    CloseSocket(xsub);
    CloseSocket(xpub);
}

bool CMsgBroker::Impl::ForwardMessages(zmq_msg_t& msg) {
    constexpr int kBatch = 1024;  // then the subscriptions get their turn
    for (int n = 0; n < kBatch; ++n) {
        if (zmq_msg_recv(&msg, xsub, ZMQ_DONTWAIT) < 0) {
            return zmq_errno() != ETERM;
        }
        const int flags = zmq_msg_more(&msg) ? ZMQ_SNDMORE : 0;
        int rc = zmq_msg_send(&msg, xpub, ZMQ_DONTWAIT | flags);
        if (rc < 0 && zmq_errno() == EAGAIN) {
            rc = SendPastAFullQueue(msg, flags);
        }
        if (rc < 0 && zmq_errno() == ETERM) {
            return false;
        }
    }
    return true;
}

int CMsgBroker::Impl::SendPastAFullQueue(zmq_msg_t& msg, int flags) {
    const uint32_t eventId = zmq_msg_size(&msg) >= 4 ? GetLe32(zmq_msg_data(&msg)) : 0;
    ++undelivered;
    const auto now = std::chrono::steady_clock::now();
    if (undeliveredLogged == 0 || now - lastUndeliveredLog >= std::chrono::seconds(1)) {
        PM_LOG(0, kLogTag,
               "a subscriber's queue is full (%d messages): event %u not delivered to it, %llu "
               "messages missed by a slow subscriber so far\n",
               subscriberLimit, eventId, static_cast<unsigned long long>(undelivered.load()));
        undeliveredLogged = undelivered;
        lastUndeliveredLog = now;
    }
    int lossy = 0;
    zmq_setsockopt(xpub, ZMQ_XPUB_NODROP, &lossy, sizeof lossy);
    const int rc = zmq_msg_send(&msg, xpub, ZMQ_DONTWAIT | flags);
    const int noDrop = 1;
    zmq_setsockopt(xpub, ZMQ_XPUB_NODROP, &noDrop, sizeof noDrop);
    return rc;
}

// Subscriptions and their cancellations travel upstream, as ZeroMQ's proxy would send them.
bool CMsgBroker::Impl::ForwardSubscriptions(zmq_msg_t& msg) {
    for (;;) {
        if (zmq_msg_recv(&msg, xpub, ZMQ_DONTWAIT) < 0) {
            return zmq_errno() != ETERM;
        }
        const int flags = zmq_msg_more(&msg) ? ZMQ_SNDMORE : 0;
        if (zmq_msg_send(&msg, xsub, flags) < 0 && zmq_errno() == ETERM) {
            return false;
        }
    }
}

void CMsgBroker::Impl::StopLocked() {
    if (!running) {
        return;
    }
    zmq_ctx_shutdown(ctx);
    proxy.join();
    LiveFiles::Get().Remove(&endpoints);
    Cleanup();
    running = false;
    PM_LOG(1, kLogTag, "stopped serving %s\n", endpoints.in.c_str());
}

CMsgBroker::CMsgBroker(BusEndpoints endpoints)
    : m_pImpl(std::make_unique<Impl>(std::move(endpoints))) {}

CMsgBroker::~CMsgBroker() {
    Stop();
}

int CMsgBroker::Start() {
    std::lock_guard<std::mutex> guard(m_pImpl->life);
    if (m_pImpl->running) {
        return 0;
    }
    int rc = m_pImpl->StartLocked();
    if (rc == 1) {
        PM_LOG(1, kLogTag, "another broker already serves %s\n", m_pImpl->endpoints.in.c_str());
    }
    return rc;
}

void CMsgBroker::Stop() {
    std::lock_guard<std::mutex> guard(m_pImpl->life);
    m_pImpl->StopLocked();
}

void CMsgBroker::SetSubscriberQueueLimit(int messages) {
    std::lock_guard<std::mutex> guard(m_pImpl->life);
    m_pImpl->subscriberLimit = messages;
}

unsigned long long CMsgBroker::UndeliveredCount() const {
    return m_pImpl->undelivered.load();
}

bool CMsgBroker::IsRunning() const {
    return m_pImpl->running;
}

const BusEndpoints& CMsgBroker::Endpoints() const {
    return m_pImpl->endpoints;
}

}  // namespace Common
