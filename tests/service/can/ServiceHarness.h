// A real manager on a private bus, next to a bus client that plays the recorder's CAN module.
// Everything runs on the test thread: Pump() is the manager thread's event wait, so the test
// may touch the manager and its instances between pumps without locks.
#ifndef TESTS_SERVICE_CAN_SERVICE_HARNESS_H
#define TESTS_SERVICE_CAN_SERVICE_HARNESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "MsgClientManage.h"
#include "PeripheralManage.h"
#include "TestSupport.h"

namespace cantest {

constexpr unsigned int kJ1939MainId = 12;  // the sample plug-in's main id in the configuration
constexpr unsigned int kEthernetMainId = 20;
constexpr int kCanModuleId = 77;  // module id of the stand-in CAN module

// One message the service sent, as the CAN module saw it.
struct SentMessage {
    uint32_t sender;  // the module id in the head
    std::vector<uint8_t> payload;
};

// One frame of a 1089 event.
struct CanItem {
    uint32_t canId;
    uint8_t length;  // as written into the item, even when above 8
    std::vector<uint8_t> data;
};

// The payload of event 1089 as the CAN module lays it out (the bus puts the head in front).
std::vector<uint8_t> CanDataEvent(uint16_t funcId, uint16_t subId, uint8_t port, uint16_t count,
                                  const std::vector<CanItem>& items);

// The folder the service runs in (build/bin), found from this test's own path.
std::string BinDirectory();

class ServiceHarness {
public:
    ServiceHarness();
    ~ServiceHarness();

    CPeripheralManage& Manager() { return *m_manager; }
    CMsgClientManage* ManagerClient() { return m_manager->GetMsgClient(); }

    // Sends `payload` as event `id` from the CAN module's client.
    void Send(int id, const std::vector<uint8_t>& payload);
    void Send(int id, const void* record, size_t size);
    // Runs both clients' event waits until `pred` holds or `timeout` passes.
    bool Pump(const std::function<bool()>& pred,
              std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Sends the CAN (360) or Ethernet (362) setting and pumps until the manager has handled it.
    bool SendCanSetting(const paramCanSetting_t& setting);
    bool SendEthernetSetting(const paramPeripheralEtherNet_t& setting);

    const std::vector<SentMessage>& Filters() const { return m_filters; }  // 1137
    const std::vector<SentMessage>& Frames() const { return m_frames; }    // 1087
    const pmtest::LogCapture& Logs() const { return m_logs; }

private:
    pmtest::LogCapture m_logs;
    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_root;
    std::unique_ptr<pmtest::ScopedEnv> m_envRoot;
    std::unique_ptr<pmtest::ScopedEnv> m_envCfg;
    std::string m_oldCwd;
    std::unique_ptr<CPeripheralManage> m_manager;
    std::unique_ptr<CMsgClientManage> m_canModule;
    std::vector<SentMessage> m_filters;
    std::vector<SentMessage> m_frames;
};

}  // namespace cantest

#endif
