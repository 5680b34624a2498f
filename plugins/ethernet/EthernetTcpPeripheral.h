// Sample Ethernet plug-in: keeps a TCP connection to the peer named by its entry in the
// recorder's Ethernet setting, and reconnects with a growing back-off when the peer goes away.
//
// Threads: the manager hands every plug-in its own bus client, so this instance is stepped by
// the manager thread, and only while it is open. Connecting therefore cannot happen in
// PeripheralThreadCycle (it would never run before the first connection): a small connection
// thread of the plug-in's own connects, reads and sets the open flag; the manager thread only
// sends the heartbeat while the connection is up.
#ifndef PLUGINS_ETHERNET_ETHERNET_TCP_PERIPHERAL_H
#define PLUGINS_ETHERNET_ETHERNET_TCP_PERIPHERAL_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "EthernetBase.h"
#include "TcpPeer.h"

class CEthernetTcpPeripheral : public CEthernetBase {
public:
    // Main id 20 in the recorder's configuration; any sub id.
    static constexpr unsigned int kMainId = 20;
    // Back-off between attempts; the environment may override both (tests use short ones).
    static constexpr unsigned int kBackoffMinMs = 1000;
    static constexpr unsigned int kBackoffMaxMs = 30000;
    static constexpr const char* kEnvBackoffMin = "ETH_TCP_BACKOFF_MIN_MS";
    static constexpr const char* kEnvBackoffMax = "ETH_TCP_BACKOFF_MAX_MS";
    static constexpr unsigned int kHeartbeatPeriodMs = 1000;

    CEthernetTcpPeripheral(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                           unsigned int subId);
    ~CEthernetTcpPeripheral() override;

    // Reads the peer from the manager's Ethernet setting and starts the connection thread.
    // Manager thread. 0, or -1 when the thread cannot start (logged).
    int PeripheralInitialize() override;
    // Sends a heartbeat line to the peer. Manager thread, only while connected. Returns 0.
    int PeripheralThreadCycle(long long now) override;
    // Re-reads the peer; a changed address drops the connection so that the thread connects
    // to the new one. Manager thread. Returns 0.
    int HandlePeripParamChange() override;
    // Counts receptions. Connection thread. Returns 0.
    int ProcessPeripheralData() override;
    // The manager tells instances of a serial change only, so the plug-in follows changes of
    // the Ethernet setting itself. Registered on the manager's client after the manager's own
    // handler, so the manager has stored the new record when ours runs (manager thread).
    int MessageRegister() override;
    int MessageUnRegister() override;
    int OnEthernetParamChanged(const char* data, int length);

    // Any thread.
    uint64_t GetReceivedBytes() const { return m_nReceivedBytes.load(); }
    unsigned int GetReceptions() const { return m_nReceptions.load(); }
    unsigned int GetConnectCount() const { return m_nConnects.load(); }

private:
    static void* ConnectionThread(void* self);
    void ConnectionLoop();
    int Connect(const TcpPeer& peer);
    void Serve(int fd, const TcpPeer& peer);
    // Sleeps up to `ms`; false when the instance is being destroyed.
    bool Pause(unsigned int ms);
    TcpPeer CurrentPeer();
    bool Stopping() const { return m_bStop.load(); }

    std::mutex m_lock;  // guards m_stuPeer, m_nSocket and the wake-up
    std::condition_variable m_cvWake;
    TcpPeer m_stuPeer;
    bool m_bHavePeer;
    int m_nSocket;  // -1 while not connected
    unsigned int m_nBackoffMinMs;
    unsigned int m_nBackoffMaxMs;
    pthread_t m_thread;
    bool m_bThreadStarted;
    std::atomic<bool> m_bStop;
    std::atomic<uint64_t> m_nReceivedBytes;
    std::atomic<unsigned int> m_nReceptions;
    std::atomic<unsigned int> m_nConnects;
    unsigned int m_nHeartbeats;  // manager thread only
};

#endif
