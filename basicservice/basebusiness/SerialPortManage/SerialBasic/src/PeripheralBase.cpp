#include "PeripheralBase.h"

#include <stdlib.h>
#include <unistd.h>

#include "CommonLog.h"
#include "CommonTime.h"
#include "PeripheralManage.h"
#include "SerialDevOperate.h"

namespace {
constexpr const char kLogTag[] = "P_BASE: ";
}  // namespace

CPeripheralBase::CPeripheralBase(CPeripheralManage* manage, CMsgClientManage* client,
                                 ePeripheralType type, unsigned int mainId, unsigned int subId)
    : m_pPeripheralManage(manage),
      m_pMsgClient(client),
      m_ePeripheralType(type),
      m_nMainId(mainId),
      m_nSubId(subId),
      m_nMsgId(0),
      m_bSharedThread(false),
      m_nThreadCircleTime(200),
      m_llLastTime(0),
      m_bPeripheralStatus(false),
      m_bPeripOpenStatus(false),
      m_bUpgrading(false) {
    if (manage == nullptr) {
        // An instance without its manager is a programming error the service does not survive.
        PM_LOG(0, kLogTag, "####Cerate peripheral instance failed, manage ptr is NULL!!!###\n");
        exit(1);
    }
    if (client != nullptr) {
        m_bSharedThread = true;
        m_nMsgId = (static_cast<unsigned int>(type) + 1) * 10000 + mainId * 100 + subId;
    } else {
        m_bSharedThread = false;
        m_pMsgClient = new CMsgClientManage(nullptr, 300000);
        m_nMsgId = 0;
    }
}

CPeripheralBase::~CPeripheralBase() {
    if (!m_bSharedThread) {
        Stop();
        delete m_pMsgClient;
        m_pMsgClient = nullptr;
    }
    // A shared instance's client belongs to the manager. Events are unregistered by the
    // subclasses and StopPeripheralThread, not here.
}

int CPeripheralBase::PeripheralInitialize() {
    return 0;
}
int CPeripheralBase::PeripheralThreadCycle(long long) {
    return 0;
}
int CPeripheralBase::MessageRegister() {
    return 0;
}
int CPeripheralBase::MessageUnRegister() {
    return 0;
}
int CPeripheralBase::HandlePeripParamChange() {
    return 0;
}

int CPeripheralBase::Initialize() {
    // Whole now: the serial reader may deliver what waited in the kernel meanwhile.
    if (m_pPeripheralManage != nullptr) {
        if (CSerialDevOperate* layer = m_pPeripheralManage->GetSerialDevOperatePtr()) {
            layer->serial_release_owner(this);
        }
    }
    if (PeripheralInitialize() < 0) {
        PM_LOG(0, kLogTag, "This Peripheral init falied, type = %d, mainId = %d, subId = %d\n",
               m_ePeripheralType, m_nMainId, m_nSubId);
        return -1;
    }
    MessageRegister();
    if (!m_bSharedThread) {
        Start(0);
    }
    return 0;
}

namespace {

// Distance between two clock values; a clock that steps backwards counts as well. Taken in
// unsigned arithmetic: a signed difference of far-apart values overflows.
bool CycleDue(long long now, long long last, unsigned int circle) {
    unsigned long long distance =
        now >= last ? static_cast<unsigned long long>(now) - static_cast<unsigned long long>(last)
                    : static_cast<unsigned long long>(last) - static_cast<unsigned long long>(now);
    return distance >= circle;
}
}  // namespace

int CPeripheralBase::ThreadFuncImpl() {
    if (m_bSharedThread) {
        usleep(10000);
        return 0;
    }
    m_pMsgClient->MSGWaitForEvent(20);
    long long now = Common::Q7R_TMGetSystemMicroSecond();
    m_pMsgClient->MSGFeedWatchDog(now);
    if (!GetCurPeripOpenStatus()) {
        return 0;
    }
    if (CycleDue(now, m_llLastTime, GetThreadCircleTime())) {
        PM_LOG(3, kLogTag, "[%d:%d-%d], Independent Thread running......, curTime = %llu\n",
               m_ePeripheralType, m_nMainId, m_nSubId, static_cast<unsigned long long>(now));
        m_llLastTime = now;
        PeripheralThreadCycle(now);
    }
    return 0;
}

int CPeripheralBase::SharedThreadCycle(long long now) {
    if (!GetCurPeripOpenStatus() || !m_bSharedThread) {
        return 0;
    }
    if (!CycleDue(now, m_llLastTime, GetThreadCircleTime())) {
        return 0;
    }
    PM_LOG(3, kLogTag, "[%d:%d-%d], Shared Thread running, msgId = %d, last_time = %llu\n",
           m_ePeripheralType, m_nMainId, m_nSubId, m_nMsgId,
           static_cast<unsigned long long>(m_llLastTime));
    m_llLastTime = now;
    return PeripheralThreadCycle(now);
}

int CPeripheralBase::StopPeripheralThread() {
    if (!m_bSharedThread) {
        Stop();
        usleep(10000);
    }
    SetCurPeripOpenStatus(false);
    MessageUnRegister();
    PM_LOG(1, "", "CPeripheralBase StopPeripheralThread\n");
    return 0;
}
