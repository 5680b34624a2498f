// The world of the loader and reconciliation tests: the recorder's file system with a
// peripheral configuration that names the test plug-ins (tests/plugins), a private bus, and
// build/bin as the working folder, so that "../plugin/<kind>/" is the build's plug-in folder.
#ifndef TESTS_SERVICE_RECONCILE_RECONCILE_HARNESS_H
#define TESTS_SERVICE_RECONCILE_RECONCILE_HARNESS_H

#include <cstdint>
#include <string>
#include <vector>

#include "PeripheralManage.h"
#include "TestSupport.h"

namespace rectest {

// Serial main ids of the configuration and the test plug-in each one names.
enum : unsigned int {
    kProbeMainId = 7,         // libTestSerialProbe, sub ids 0, 1 and 2
    kProbeOtherMainId = 8,    // libTestSerialProbe again, sub id 0
    kNullCreateMainId = 40,   // libTestNullCreate
    kNoReleaseMainId = 41,    // libTestNoRelease
    kNoCreateMainId = 42,     // libTestNoCreate
    kDupMainId = 43,          // "libTestDup": libTestDupAlpha.so and libTestDupBeta.so
    kUnloadableMainId = 44,   // libTestUnloadable
    kMissingFileMainId = 45,  // a name no file carries
    kCanMainId = 12,          // libTestCanProbe
    kEthernetMainId = 20,     // libTestEthProbe
};

extern const char* const kConfig;

// RECORDER_ROOT with kConfig, a private bus and build/bin as working folder, for the life of
// the object. Create it before the manager. Logs are captured from the start.
class ReconcileEnv {
public:
    ReconcileEnv();
    ~ReconcileEnv();

    pmtest::LogCapture& Logs() { return m_logs; }
    const pmtest::LogCapture& Logs() const { return m_logs; }
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

// The manager with its registry and kept records in reach.
class TestManage : public CPeripheralManage {
public:
    using CPeripheralManage::m_listPeripheralPlugin;
    using CPeripheralManage::m_mapChangedPeripPair;
    using CPeripheralManage::m_mapPeripheralLibName;
    using CPeripheralManage::m_nParamState;
    using CPeripheralManage::m_stuCanParam;
    using CPeripheralManage::m_stuEthernetParam;
    using CPeripheralManage::m_stuSystemSerialParam;
    using CPeripheralManage::m_ucDeviceModuleReady;

    // The recorder is ready and every parameter is in: the manager thread handles events at
    // once instead of sleeping through its start-up gate. Before Initialize.
    void OpenStartupGate(uint16_t missingParams = 0) {
        m_ucDeviceModuleReady = 1;
        m_nParamState = missingParams;
    }
    // "type:main:sub" of every live instance, in registry order.
    std::vector<std::string> LiveIds() const;
};

// Records, zero apart from the entries given.
struct PortSpec {
    int port;
    uint8_t mainFun;
    uint8_t subFun;
    uint8_t baudrate;
};
struct ChildSpec {
    int port;
    int index;  // extension entry 0-7
    uint8_t mainFun;
    uint8_t subFun;
    uint8_t baudrate;
};
paramSerialSetting_t SerialRecord(const std::vector<PortSpec>& ports,
                                  const std::vector<ChildSpec>& children = {});
std::vector<uint8_t> Bytes(const void* record, size_t size);
template <class Record>
std::vector<uint8_t> Bytes(const Record& record) {
    return Bytes(&record, sizeof(record));
}

// A test plug-in's journal line (tests/plugins/TestProbe.h), up to its details.
std::string Journal(const char* event, const char* library, int type, unsigned int mainId,
                    unsigned int subId);

// Texts of the captured records.
std::vector<std::string> Texts(const pmtest::LogCapture& logs);
// Empty when every prefix starts a record, each after the one before; else what is missing.
std::string MissingInOrder(const std::vector<std::string>& texts,
                           const std::vector<std::string>& prefixes);
size_t CountPrefix(const std::vector<std::string>& texts, const std::string& prefix);

// "../plugin/<kind>/<file>", as the loader forms it.
std::string PluginPath(const char* kind, const std::string& file);
// The handle of an already loaded library, or null; takes no reference.
void* LoadedHandle(const std::string& path);
// The first entry of a folder, in the folder's own order, whose name contains `needle`.
std::string FirstEntryContaining(const std::string& folder, const std::string& needle);

}  // namespace rectest

#endif
