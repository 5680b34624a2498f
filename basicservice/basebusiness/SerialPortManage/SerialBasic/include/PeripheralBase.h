// Base class of every peripheral instance: identity, bus connection, status flags and the
// thread model.
#ifndef SERIALBASIC_PERIPHERAL_BASE_H
#define SERIALBASIC_PERIPHERAL_BASE_H

#include <atomic>
#include <cstdint>

#include "BasicServiceExport.h"
#include "CommonThread.h"
#include "MsgClientManage.h"
#include "PeripheralDefine.h"

// Two thread models, fixed by the constructor:
// - shared: the creator hands over a bus client (the manager hands its own one to every
//   factory). No thread is started; the manager thread steps the instance through
//   SharedThreadCycle on every pass, and the instance's handlers run on the manager thread.
// - independent: no bus client is given. The instance makes a client of its own and runs its
//   own thread, which waits for the instance's events and steps it.
// In both models PeripheralThreadCycle runs at most once per circle time, and only while the
// port is open.
//
// The order of the virtual functions is the plug-in ABI; never reorder or insert.
class BASICSERVICE_API CPeripheralBase : public Common::CThread {
public:
    // `manage` must not be null (the process ends otherwise); `client` may be null.
    CPeripheralBase(CPeripheralManage* manage, CMsgClientManage* client, ePeripheralType type,
                    unsigned int mainId, unsigned int subId);
    ~CPeripheralBase() override;

    // Loop body of the independent thread; on the instance's own thread.
    int ThreadFuncImpl() override;

    // One-time set-up, called by Initialize on the manager thread. A negative result aborts
    // Initialize: no registration, no thread.
    virtual int PeripheralInitialize();
    // Periodic work: on the manager thread (shared) or the instance's thread (independent),
    // at most once per circle time, only while the port is open. Result ignored by the base.
    virtual int PeripheralThreadCycle(long long now);
    // The instance's bus registrations, on its own client. Called by Initialize / Stop.
    virtual int MessageRegister();
    virtual int MessageUnRegister();
    // Called on the manager thread when the parameter settings changed; the instance asks the
    // manager whether its own settings are among the changed ones.
    virtual int HandlePeripParamChange();

    // Called once by the manager right after creation: 0, or -1 when PeripheralInitialize
    // failed.
    int Initialize();
    // Called by the manager thread for every instance on every pass; does nothing for an
    // independent instance or a closed port. Returns PeripheralThreadCycle's result or 0.
    int SharedThreadCycle(long long now);
    // Stops the independent thread, closes the port flag and unregisters. Before release.
    int StopPeripheralThread();

    void SetThreadCircleTime(unsigned int ms) {
        m_nThreadCircleTime.store(ms, std::memory_order_relaxed);
    }
    unsigned int GetThreadCircleTime() const {
        return m_nThreadCircleTime.load(std::memory_order_relaxed);
    }
    bool IsSharedThread() const { return m_bSharedThread; }
    bool GetCurPeripheralStatus() const {
        return m_bPeripheralStatus.load(std::memory_order_relaxed);
    }
    void SetCurPeripheralStatus(bool status) {
        m_bPeripheralStatus.store(status, std::memory_order_relaxed);
    }
    bool GetCurPeripOpenStatus() const {
        return m_bPeripOpenStatus.load(std::memory_order_relaxed);
    }
    void SetCurPeripOpenStatus(bool status) {
        m_bPeripOpenStatus.store(status, std::memory_order_relaxed);
    }
    bool IsUpgrading() const { return m_bUpgrading.load(std::memory_order_relaxed); }
    void SetUpgrading(bool upgrading) { m_bUpgrading.store(upgrading, std::memory_order_relaxed); }

    ePeripheralType GetPeripheralType() const { return m_ePeripheralType; }
    unsigned int GetMainId() const { return m_nMainId; }
    unsigned int GetSubId() const { return m_nSubId; }
    unsigned int GetMsgId() const { return m_nMsgId; }
    CMsgClientManage* GetMsgClient() const { return m_pMsgClient; }
    CPeripheralManage* GetPeripheralManage() const { return m_pPeripheralManage; }

protected:
    CPeripheralManage* m_pPeripheralManage;  // not owned
    CMsgClientManage* m_pMsgClient;          // owned only by an independent instance
    ePeripheralType m_ePeripheralType;
    uint32_t m_nMainId;
    uint32_t m_nSubId;
    // (type + 1) * 10000 + mainId * 100 + subId for a shared instance, 0 for an independent
    // one. Ids of 100 and more collide; the recorder never configures them.
    uint32_t m_nMsgId;
    bool m_bSharedThread;
    // The flags below are read by other threads without a lock; atomics keep them one byte.
    std::atomic<uint32_t> m_nThreadCircleTime;
    int64_t m_llLastTime;
    std::atomic<bool> m_bPeripheralStatus;
    std::atomic<bool> m_bPeripOpenStatus;
    std::atomic<bool> m_bUpgrading;
};

#endif
