// The manager's world for its tests: the recorder's file system in a temporary folder, a
// private bus, the service's working folder, a stand-in for the recorder's side of the bus,
// and a window on the manager's protected state.
#ifndef TESTS_SERVICE_MANAGER_MANAGER_HARNESS_H
#define TESTS_SERVICE_MANAGER_MANAGER_HARNESS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MsgClientManage.h"
#include "PeripheralManage.h"
#include "TestSupport.h"

namespace mgrtest {

// Serial 5 (with variants), CAN 12 and Ethernet 20: every parameter bit is awaited.
extern const char* const kFullConfig;

// SYSTEM_CONFIG with the given product type, 4 analogue and 4 digital channels.
std::string SystemConfig(int productType);

// A bus message as a handler receives it: the 16-byte head, then `size` bytes. The head's
// length field says `size` unless `headLength` is given.
std::vector<char> Message(uint32_t eventId, const void* data, size_t size, long headLength = -1);
inline std::vector<char> Message(uint32_t eventId, const std::vector<uint8_t>& payload,
                                 long headLength = -1) {
    return Message(eventId, payload.data(), payload.size(), headLength);
}

// RECORDER_ROOT, the two documents below it, a private bus and build/bin as the working
// folder, for the life of the object. Create it before any manager.
class ManagerEnv {
public:
    explicit ManagerEnv(const std::string& peripheralConfig = kFullConfig,
                        const std::string& systemConfig = SystemConfig(0));
    ~ManagerEnv();

    pmtest::LogCapture& Logs() { return m_logs; }
    const pmtest::TempDir& Root() const { return m_root; }

private:
    pmtest::LogCapture m_logs;
    pmtest::TempDir m_root;
    pmtest::ScopedEnv m_rootEnv;
    pmtest::ScopedEnv m_cfgEnv;
    pmtest::ScopedEnv m_sysEnv{"SYSTEM_CONFIG", std::nullopt};
    pmtest::ScopedEnv m_ttsEnv{"ALARM_TTS_CFG", std::nullopt};
    pmtest::PrivateBus m_bus;
    std::string m_oldCwd;
};

// The manager with its protected state in reach.
class TestManage : public CPeripheralManage {
public:
    // Stops the manager thread before the object turns back into a plain manager: the
    // thread's virtual calls must not meet the vtable change (the manager's own destructor
    // stops it only after its events are unregistered).
    ~TestManage() override;

    using CPeripheralManage::m_jsonPeripheralCfg;
    using CPeripheralManage::m_listPeripheralPlugin;
    using CPeripheralManage::m_mapPeripheralLibName;
    using CPeripheralManage::m_nCurPeripheral;
    using CPeripheralManage::m_nDebugLevel;
    using CPeripheralManage::m_nParamState;
    using CPeripheralManage::m_nStatusState;
    using CPeripheralManage::m_nTotalChnNum;
    using CPeripheralManage::m_nVideoLossState;
    using CPeripheralManage::m_stuCanParam;
    using CPeripheralManage::m_stuEthernetParam;
    using CPeripheralManage::m_stuFtpSetting;
    using CPeripheralManage::m_stuIpcSetting;
    using CPeripheralManage::m_stuStorageStatus;
    using CPeripheralManage::m_stuSysLedState;
    using CPeripheralManage::m_stuSystemSerialParam;
    using CPeripheralManage::m_stuVehicleInfo;
    using CPeripheralManage::m_ucCpxOccupy;
    using CPeripheralManage::m_ucDeviceModuleReady;
    using CPeripheralManage::m_ucTestEnable;

    // Registers `instance` as if a plug-in had created it; the manager releases it.
    void AddInstance(CPeripheralBase* instance);
};

// A peripheral that counts its cycles; stepped by the manager thread when given its client.
class ProbePeripheral : public CPeripheralBase {
public:
    ProbePeripheral(CPeripheralManage* manage, ePeripheralType type, unsigned int mainId,
                    unsigned int subId);
    int PeripheralThreadCycle(long long now) override;
    std::atomic<int> cycles{0};
};

// The recorder's side of the bus on a thread of its own: records every watched message and
// answers requests as scripted.
class Recorder {
public:
    struct Event {
        int id;
        std::chrono::steady_clock::time_point at;
        std::vector<char> message;  // head and payload
    };

    explicit Recorder(const std::vector<int>& watched);
    ~Recorder();

    // Answers every later request `requestId` with `payload`.
    void SetAnswer(int requestId, const std::vector<uint8_t>& payload);
    void Send(int eventId, const void* data, size_t size);
    void Send(int eventId, const std::vector<uint8_t>& payload) {
        Send(eventId, payload.data(), payload.size());
    }

    std::vector<Event> Events() const;
    std::vector<int> Ids() const;
    size_t Count(int id) const;
    bool WaitCount(int id, size_t count,
                   std::chrono::milliseconds timeout = std::chrono::seconds(8)) const;
    void Clear();

private:
    int Handle(int id, const char* data, int len);

    CMsgClientManage m_client;
    mutable std::mutex m_lock;
    std::map<int, std::vector<uint8_t>> m_answers;
    std::vector<Event> m_events;
    std::atomic<bool> m_stop{false};
    std::thread m_pump;
};

// Payloads of the recorder's answers.
std::vector<uint8_t> Zeros(size_t size);
// Every request of the start-up gate answered: ready, zero parameter records, FTP.
void AnswerParameters(Recorder& recorder, bool ftp = true);

}  // namespace mgrtest

#endif
