// The recorder's file system in a temporary folder, a private bus, and a real manager on them:
// what every peripheral instance needs to be constructed.
#ifndef TESTS_SERVICE_BASE_SERVICE_ENV_H
#define TESTS_SERVICE_BASE_SERVICE_ENV_H

#include <unistd.h>

#include <memory>
#include <string>

#include "PeripheralManage.h"
#include "TestSupport.h"

namespace pmtest {

// No peripheral is configured: the manager constructs, creates no instance and starts no
// thread (Initialize is not called).
constexpr const char* kEmptyPeripheralConfig =
    R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
        "DEVICE_ETHERNET_SETTING": []})";

// Number of log records whose text is exactly `text`.
inline size_t CountExact(const LogCapture& log, const std::string& text) {
    size_t n = 0;
    for (const auto& record : log.Records()) {
        n += record.text == text ? 1 : 0;
    }
    return n;
}

class ServiceEnv {
public:
    explicit ServiceEnv(const std::string& systemConfig = R"({"PRODUCT_GROUP": "DVR"})") {
        SetSystemConfig(systemConfig);
        m_root.Write("usr/local/cfg/DEVICE_SERIAL_EXTEND_CFG", kEmptyPeripheralConfig);
        m_manage = std::make_unique<CPeripheralManage>();
    }
    ~ServiceEnv() { m_manage.reset(); }

    CPeripheralManage* Manage() const { return m_manage.get(); }
    const TempDir& Root() const { return m_root; }
    // Replaces SYSTEM_CONFIG; an empty text removes it.
    void SetSystemConfig(const std::string& json) const {
        if (json.empty()) {
            ::unlink(m_root.File("usr/local/cfg/SYSTEM_CONFIG").c_str());
        } else {
            m_root.Write("usr/local/cfg/SYSTEM_CONFIG", json);
        }
    }

private:
    TempDir m_root;
    ScopedEnv m_rootEnv{"RECORDER_ROOT", m_root.Path()};
    // The documents are found below RECORDER_ROOT only.
    ScopedEnv m_noPeripheralCfg{"DEVICE_SERIAL_EXTEND_CFG", std::nullopt};
    ScopedEnv m_noSystemCfg{"SYSTEM_CONFIG", std::nullopt};
    ScopedEnv m_noTtsCfg{"ALARM_TTS_CFG", std::nullopt};
    PrivateBus m_bus;
    std::unique_ptr<CPeripheralManage> m_manage;
};

}  // namespace pmtest

#endif
