// A real manager on a private bus for the serial tests, next to a bus client that plays the
// rest of the recorder. The manager's thread is not started: Pump() runs its event wait on the
// test thread, so the test may touch the manager and its instances between pumps. The serial
// reader thread does run: bytes from a tty arrive on it, as in the service.
#ifndef TESTS_SERVICE_SERIAL_SERIAL_HARNESS_H
#define TESTS_SERVICE_SERIAL_SERIAL_HARNESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "MsgClientManage.h"
#include "PeripheralManage.h"
#include "SerialBase.h"
#include "TestSupport.h"

class CMainChipSerialOpt;

namespace sertest {

// Configured serial main ids. 50 and 51 name no library, so the manager creates nothing for
// them and a test places its own instance there.
constexpr unsigned int kPlainId = 50;     // B19200 CS7 2bit ODD, protocol 2
constexpr unsigned int kFramedId = 51;    // protocol 0: bytes go out in the extension frame
constexpr unsigned int kGpsId = 3;        // libGpsNmea.so
constexpr unsigned int kLoopbackId = 34;  // libLoopbackTest.so
constexpr int kRecorderId = 88;           // module id of the stand-in recorder client

struct Message {
    uint32_t sender;
    std::string payload;
};

// One peripheral in the serial setting: on port `port`, or on sub-port `extend` (0-7) of the
// box that sits on that port.
struct Placement {
    unsigned int port;
    uint8_t mainId;
    uint8_t subId = 0;
    uint8_t baud = 1;
    int extend = -1;
};
paramSerialSetting_t SerialSetting(const std::vector<Placement>& placements);

class SerialHarness {
public:
    // `paths`: main-chip tty path by position; `systemConfig`: SYSTEM_CONFIG text.
    explicit SerialHarness(const std::map<int, std::string>& paths = {},
                           const std::string& systemConfig = R"({"PRODUCT_TYPE": 0})");
    ~SerialHarness();

    CPeripheralManage& Manager() { return *m_manager; }
    CMsgClientManage* ManagerClient() { return m_manager->GetMsgClient(); }
    const pmtest::LogCapture& Logs() const { return m_logs; }

    // Sends event `id` from the recorder client.
    void Send(int id, const void* data, size_t size);
    // Runs the manager's and the recorder's event waits until `pred` holds or `timeout` passes.
    bool Pump(const std::function<bool()>& pred,
              std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Sends the serial setting (event 316) and pumps until the manager has reconciled it.
    bool SendSerialSetting(const paramSerialSetting_t& setting);
    // Records every message `id` that the service sends from now on.
    void Collect(int id);
    const std::vector<Message>& Collected(int id) { return m_collected[id]; }

private:
    pmtest::LogCapture m_logs;
    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_root;
    std::unique_ptr<pmtest::ScopedEnv> m_envRoot;
    std::unique_ptr<pmtest::ScopedEnv> m_envCfg;
    std::unique_ptr<pmtest::ScopedEnv> m_envSystem;
    std::string m_oldCwd;
    std::unique_ptr<CPeripheralManage> m_manager;
    std::unique_ptr<CMsgClientManage> m_recorder;
    std::map<int, std::vector<Message>> m_collected;
};

// A serial peripheral as a plug-in would write it, with its protected state in reach.
class TestSerial : public CSerialBase {
public:
    TestSerial(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
               unsigned int subId = 0);
    ~TestSerial() override;

    // Takes the buffer (unless told to leave it) and keeps the bytes. Buffer lock held.
    int ProcessPeripheralData() override;

    void SetConsume(bool consume) { m_bConsume = consume; }  // before the first delivery
    std::string Received();       // what ProcessPeripheralData took so far
    std::string BufferContent();  // the receive buffer as it stands
    CMainChipSerialOpt* MainChipLink() { return m_pMainChipSerialOpt; }
    bool HasMcuLink() const { return m_pMcuSerialOpt != nullptr; }

private:
    bool m_bConsume = true;
    std::string m_received;
};

std::string Hex(const std::string& bytes);

}  // namespace sertest

#endif
