// The service's world for its tests: the recorder's file system in a temporary RECORDER_ROOT,
// a private bus, build/bin as the working folder (plug-ins at ../plugin/<kind>/), a real
// manager, and a client on its own thread that plays the rest of the recorder.
#ifndef TESTS_SUPPORT_SERVICE_HARNESS_H
#define TESTS_SUPPORT_SERVICE_HARNESS_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "MsgClientManage.h"
#include "PeripheralManage.h"
#include "TestSupport.h"

namespace pmtest {

constexpr const char* kNoPeripherals =
    R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [], "DEVICE_ETHERNET_SETTING": []})";
constexpr int kRecorderModuleId = 50;

// A message as a handler receives it: the 16-byte head (its length field says `size` unless
// `headLength` is given), then the payload.
std::vector<char> Message(uint32_t eventId, const void* data, size_t size, long headLength = -1);
inline std::vector<char> Message(uint32_t eventId, const std::vector<uint8_t>& payload,
                                 long headLength = -1) {
    return Message(eventId, payload.data(), payload.size(), headLength);
}
template <class Record>
std::vector<uint8_t> Bytes(const Record& record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(bytes, bytes + sizeof(record));
}
template <class Container>
std::string Hex(const Container& bytes) {  // "7E 01 7F"
    std::string out;
    char byte[4];
    for (uint8_t b : bytes) {
        snprintf(byte, sizeof(byte), " %02X", b);
        out += byte;
    }
    return out.empty() ? out : out.substr(1);
}

// A serial setting, zero apart from the entries given: each on its port, or on sub-port
// `extend` (0-7) of the box on that port.
struct SerialEntry {
    int port;
    uint8_t mainFun, subFun = 0, baudrate = 1;
    int extend = -1;
};
paramSerialSetting_t SerialSetting(const std::vector<SerialEntry>& entries);

// RECORDER_ROOT with the peripheral document (none when empty) and SYSTEM_CONFIG, a private
// bus and build/bin as working folder, for the life of the object. Logs captured throughout.
class ServiceEnv {
public:
    explicit ServiceEnv(const std::string& peripheralConfig = kNoPeripherals,
                        const std::string& systemConfig = "{}");
    ~ServiceEnv();
    LogCapture& Logs() { return m_logs; }
    const TempDir& Root() const { return m_root; }

private:
    LogCapture m_logs;
    TempDir m_root;
    ScopedEnv m_rootEnv{"RECORDER_ROOT", m_root.Path()};
    ScopedEnv m_cfgEnv{"DEVICE_SERIAL_EXTEND_CFG", std::nullopt};
    ScopedEnv m_sysEnv{"SYSTEM_CONFIG", std::nullopt};
    ScopedEnv m_ttsEnv{"ALARM_TTS_CFG", std::nullopt};
    PrivateBus m_bus;
    std::filesystem::path m_oldCwd = std::filesystem::current_path();
};

// The manager with its protected state in reach.
class TestManage : public CPeripheralManage {
public:
    // The thread's virtual calls must not meet the change back to a plain manager.
    ~TestManage() override { Stop(); }

    using CPeripheralManage::m_listPeripheralPlugin;
    using CPeripheralManage::m_mapAlarmTtsSpeech;
    using CPeripheralManage::m_mapChangedPeripPair;
    using CPeripheralManage::m_mapPeripheralLibName;
    using CPeripheralManage::m_nCurPeripheral;
    using CPeripheralManage::m_nDebugLevel;
    using CPeripheralManage::m_nParamState;
    using CPeripheralManage::m_nStatusState;
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
    using CPeripheralManage::m_ucisPlugIn;
    using CPeripheralManage::m_ucTestEnable;

    // Registers `instance` as if a plug-in had made it; the manager deletes it.
    void AddInstance(CPeripheralBase* instance);
    // "type:main:sub" of every registry record, "none" for one without instance.
    std::vector<std::string> LiveIds() const;
};

struct BusMessage {
    int id;
    Common::SMessageHead head;
    std::vector<uint8_t> payload;
    std::chrono::steady_clock::time_point at;
};

class ServiceHarness : public ServiceEnv {
public:
    explicit ServiceHarness(const std::string& peripheralConfig = kNoPeripherals,
                            const std::string& systemConfig = "{}");
    ~ServiceHarness();

    TestManage& Manager() { return *m_manage; }
    CMsgClientManage* ManagerClient() { return m_manage->GetMsgClient(); }

    // Without the manager thread: registers the manager's events and starts the serial
    // reader; Pump() then runs the manager's event wait on the test thread.
    void Register();
    // The manager thread (Initialize), optionally past its start-up gate at once.
    void Start(bool openGate = false);
    // Waits until `pred` holds, running the manager's event wait when its thread is not up.
    bool Pump(const std::function<bool()>& pred,
              std::chrono::milliseconds timeout = std::chrono::seconds(8));

    // The recorder's side: records every later message `id`, and answers it when told how.
    void Watch(int id, const std::optional<std::vector<uint8_t>>& answer = std::nullopt);
    void Send(int id, const void* data, size_t size);
    void Send(int id, const std::vector<uint8_t>& payload) {
        Send(id, payload.data(), payload.size());
    }
    std::vector<BusMessage> Received(int id = -1) const;  // -1: every watched id
    size_t Count(int id) const { return Received(id).size(); }
    bool WaitCount(int id, size_t count) {
        return Pump([&] { return Count(id) >= count; });
    }
    void ClearReceived();
    // Every message the manager's client sent before this has reached the recorder, and so
    // has every message of the `also` clients (an independent instance's own, for one).
    bool Flush(std::initializer_list<CMsgClientManage*> also = {});
    // Sends a serial, CAN or Ethernet setting (316, 360, 362, told by its size) and waits
    // until the manager has reconciled it.
    bool SendSetting(const std::vector<uint8_t>& record);
    template <class Record>
    bool SendSetting(const Record& record) {
        return SendSetting(Bytes(record));
    }

private:
    CMsgClientManage m_recorder{"Recorder.test", 300000};
    std::unique_ptr<TestManage> m_manage;
    mutable std::mutex m_lock;
    std::vector<BusMessage> m_received;
    std::atomic<bool> m_stop{false};
    std::thread m_pump;
};

}  // namespace pmtest

#endif
