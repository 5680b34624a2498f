#include "EthernetTcpPeripheral.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <string>

#include "BasicServiceExport.h"
#include "CommonLog.h"
#include "PeripheralManage.h"
#include "PeripheralEvents.h"

namespace {

constexpr const char kLogTag[] = "ETH_TCP: ";

constexpr int kPollSliceMs = 100;  // how soon the thread notices that it must end
constexpr unsigned int kConnectTimeoutMs = 3000;

std::string ErrnoText(int err) {
    char buf[128];
    return strerror_r(err, buf, sizeof(buf));
}

unsigned int EnvMs(const char* name, unsigned int fallback) {
    const char* text = getenv(name);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    char* end = nullptr;
    unsigned long value = strtoul(text, &end, 10);
    if (*end != '\0' || value == 0 || value > 3600000) {
        return fallback;
    }
    return static_cast<unsigned int>(value);
}

}  // namespace

CEthernetTcpPeripheral::CEthernetTcpPeripheral(CPeripheralManage* manage, CMsgClientManage* client,
                                               unsigned int mainId, unsigned int subId)
    : CEthernetBase(manage, client, mainId, subId),
      m_stuPeer{"", 0},
      m_bHavePeer(false),
      m_nSocket(-1),
      m_nBackoffMinMs(kBackoffMinMs),
      m_nBackoffMaxMs(kBackoffMaxMs),
      m_thread(),
      m_bThreadStarted(false),
      m_bStop(false),
      m_nReceivedBytes(0),
      m_nReceptions(0),
      m_nConnects(0),
      m_nHeartbeats(0) {
    SetThreadCircleTime(kHeartbeatPeriodMs);
}

CEthernetTcpPeripheral::~CEthernetTcpPeripheral() {
    if (!IsSharedThread()) {
        Stop();
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_bStop.store(true);
    }
    m_cvWake.notify_all();
    if (m_bThreadStarted) {
        pthread_join(m_thread, nullptr);
    }
    SetCurPeripOpenStatus(false);
}

int CEthernetTcpPeripheral::PeripheralInitialize() {
    m_nBackoffMinMs = EnvMs(kEnvBackoffMin, kBackoffMinMs);
    m_nBackoffMaxMs = EnvMs(kEnvBackoffMax, kBackoffMaxMs);
    if (m_nBackoffMaxMs < m_nBackoffMinMs) {
        m_nBackoffMaxMs = m_nBackoffMinMs;
    }
    HandlePeripParamChange();
    int err = pthread_create(&m_thread, nullptr, &CEthernetTcpPeripheral::ConnectionThread, this);
    if (err != 0) {
        PM_LOG(0, kLogTag, "[%u-%u] cannot start the connection thread: %s\n", m_nMainId, m_nSubId,
               ErrnoText(err).c_str());
        return -1;
    }
    m_bThreadStarted = true;
    return 0;
}

int CEthernetTcpPeripheral::HandlePeripParamChange() {
    TcpPeer peer{"", 0};
    const bool found =
        FindTcpPeer(*m_pPeripheralManage->GetEthernetParam(), m_nMainId, m_nSubId, peer);
    std::lock_guard<std::mutex> guard(m_lock);
    if (found == m_bHavePeer && peer == m_stuPeer) {
        return 0;
    }
    if (!found) {
        PM_LOG(0, kLogTag, "[%u-%u] no entry in the Ethernet setting\n", m_nMainId, m_nSubId);
    } else {
        PM_LOG(1, kLogTag, "[%u-%u] peer is %s:%u\n", m_nMainId, m_nSubId, peer.ip.c_str(),
               static_cast<unsigned int>(peer.port));
    }
    m_stuPeer = peer;
    m_bHavePeer = found;
    if (m_nSocket >= 0) {
        // The connection thread sees the end of the stream and connects to the new peer.
        shutdown(m_nSocket, SHUT_RDWR);
    }
    m_cvWake.notify_all();
    return 0;
}

namespace {
// The Ethernet setting: changed, and the answer to its request.
constexpr uint32_t kEventEthernetParamAnswer = EventAnswerOf(EVENT_GET_ETHERNET_PARAM);
}  // namespace

int CEthernetTcpPeripheral::MessageRegister() {
    m_pMsgClient->MSGEventRegister(m_nMsgId, EVENT_ETHERNET_PARAM_CHANGED, this,
                                   &CEthernetTcpPeripheral::OnEthernetParamChanged);
    m_pMsgClient->MSGEventRegister(m_nMsgId, kEventEthernetParamAnswer, this,
                                   &CEthernetTcpPeripheral::OnEthernetParamChanged);
    return 0;
}

int CEthernetTcpPeripheral::MessageUnRegister() {
    m_pMsgClient->MSGEventUnRegister(m_nMsgId, EVENT_ETHERNET_PARAM_CHANGED);
    m_pMsgClient->MSGEventUnRegister(m_nMsgId, kEventEthernetParamAnswer);
    return 0;
}

int CEthernetTcpPeripheral::OnEthernetParamChanged(const char*, int) {
    return HandlePeripParamChange();
}

int CEthernetTcpPeripheral::PeripheralThreadCycle(long long) {
    char line[48];
    int len = snprintf(line, sizeof(line), "HEARTBEAT %u\n", ++m_nHeartbeats);
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_nSocket < 0) {
        return 0;
    }
    // A peer that does not read must not block the manager thread: drop the line instead.
    if (send(m_nSocket, line, static_cast<size_t>(len), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        PM_LOG(2, kLogTag, "[%u-%u] heartbeat not sent: %s\n", m_nMainId, m_nSubId,
               ErrnoText(errno).c_str());
    }
    return 0;
}

int CEthernetTcpPeripheral::ProcessPeripheralData() {
    m_nReceptions.fetch_add(1);
    return 0;
}

void* CEthernetTcpPeripheral::ConnectionThread(void* self) {
    static_cast<CEthernetTcpPeripheral*>(self)->ConnectionLoop();
    return nullptr;
}

TcpPeer CEthernetTcpPeripheral::CurrentPeer() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_bHavePeer ? m_stuPeer : TcpPeer{"", 0};
}

bool CEthernetTcpPeripheral::Pause(unsigned int ms) {
    std::unique_lock<std::mutex> guard(m_lock);
    m_cvWake.wait_for(guard, std::chrono::milliseconds(ms), [this] { return Stopping(); });
    return !Stopping();
}

void CEthernetTcpPeripheral::ConnectionLoop() {
    unsigned int backoff = m_nBackoffMinMs;
    while (!Stopping()) {
        const TcpPeer peer = CurrentPeer();
        int fd = Connect(peer);
        if (fd < 0) {
            PM_LOG(1, kLogTag, "[%u-%u] next attempt in %u ms\n", m_nMainId, m_nSubId, backoff);
            if (!Pause(backoff)) {
                break;
            }
            backoff = NextBackoff(backoff, m_nBackoffMinMs, m_nBackoffMaxMs);
            continue;
        }
        backoff = m_nBackoffMinMs;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_nSocket = fd;
        }
        m_nConnects.fetch_add(1);
        PM_LOG(0, kLogTag, "[%u-%u] connected to %s:%u\n", m_nMainId, m_nSubId, peer.ip.c_str(),
               static_cast<unsigned int>(peer.port));
        SetCurPeripOpenStatus(true);
        Serve(fd, peer);
        SetCurPeripOpenStatus(false);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_nSocket = -1;
            close(fd);
        }
        if (!Pause(backoff)) {
            break;
        }
    }
}

int CEthernetTcpPeripheral::Connect(const TcpPeer& peer) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(peer.port);
    if (peer.port == 0 || inet_pton(AF_INET, peer.ip.c_str(), &addr.sin_addr) != 1) {
        PM_LOG(1, kLogTag, "[%u-%u] no usable peer address '%s:%u'\n", m_nMainId, m_nSubId,
               peer.ip.c_str(), static_cast<unsigned int>(peer.port));
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        PM_LOG(0, kLogTag, "[%u-%u] socket failed: %s\n", m_nMainId, m_nSubId,
               ErrnoText(errno).c_str());
        return -1;
    }
    int err = 0;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0) {
        err = errno;
    }
    // A non-blocking connect finishes later; wait for it in slices so that shutdown is quick.
    for (unsigned int waited = 0; err == EINPROGRESS && waited < kConnectTimeoutMs;
         waited += kPollSliceMs) {
        if (Stopping()) {
            close(fd);
            return -1;
        }
        pollfd pfd{fd, POLLOUT, 0};
        if (poll(&pfd, 1, kPollSliceMs) > 0) {
            socklen_t len = sizeof(err);
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0) {
                err = errno;
            }
        }
    }
    if (err != 0) {
        PM_LOG(1, kLogTag, "[%u-%u] connect to %s:%u failed: %s\n", m_nMainId, m_nSubId,
               peer.ip.c_str(), static_cast<unsigned int>(peer.port),
               ErrnoText(err == EINPROGRESS ? ETIMEDOUT : err).c_str());
        close(fd);
        return -1;
    }
    return fd;
}

void CEthernetTcpPeripheral::Serve(int fd, const TcpPeer& peer) {
    char buf[1024];
    while (!Stopping()) {
        pollfd pfd{fd, POLLIN, 0};
        int ready = poll(&pfd, 1, kPollSliceMs);
        if (ready < 0 && errno != EINTR) {
            PM_LOG(0, kLogTag, "[%u-%u] poll on %s:%u failed: %s\n", m_nMainId, m_nSubId,
                   peer.ip.c_str(), static_cast<unsigned int>(peer.port), ErrnoText(errno).c_str());
            return;
        }
        if (ready <= 0) {
            continue;
        }
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n > 0) {
            m_nReceivedBytes.fetch_add(static_cast<uint64_t>(n));
            PreProcessPeripheralData(buf, static_cast<unsigned int>(n));
            continue;
        }
        if (n == 0) {
            PM_LOG(0, kLogTag, "[%u-%u] disconnected from %s:%u: %s\n", m_nMainId, m_nSubId,
                   peer.ip.c_str(), static_cast<unsigned int>(peer.port), "closed by peer");
            return;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            PM_LOG(0, kLogTag, "[%u-%u] disconnected from %s:%u: %s\n", m_nMainId, m_nSubId,
                   peer.ip.c_str(), static_cast<unsigned int>(peer.port), ErrnoText(errno).c_str());
            return;
        }
    }
}

BASICSERVICE_PLUGIN(CEthernetTcpPeripheral)
