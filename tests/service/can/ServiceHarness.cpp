#include "ServiceHarness.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace cantest {

namespace {

// Only the two sample plug-ins are configured; a main id without library (e.g. 40) yields
// no instance, which lets tests place their own instances on a configured port.
const char* const kConfig = R"({
  "DEVICE_SERIAL_SETTING": [],
  "DEVICE_CANPORT_SETTING": [
    {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "can_j1939",
     "DEV_CANPORT_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_ETHERNET_SETTING": [
    {"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "eth_tcp_client",
     "DEV_ETHERNET_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": []}
})";

void PutLe16(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

SentMessage Record(const char* data, int len) {
    SentMessage msg;
    Common::SMessageHead head;
    memcpy(&head, data, sizeof(head));
    msg.sender = head.nSenderId;
    msg.payload.assign(data + sizeof(head), data + len);
    return msg;
}

}  // namespace

std::vector<uint8_t> CanDataEvent(uint16_t funcId, uint16_t subId, uint8_t port, uint16_t count,
                                  const std::vector<CanItem>& items) {
    std::vector<uint8_t> out;
    PutLe16(out, funcId);
    PutLe16(out, subId);
    out.push_back(port);
    out.push_back(0);
    PutLe16(out, count);
    for (const CanItem& item : items) {
        uint8_t raw[16] = {};
        for (int i = 0; i < 4; ++i) {
            raw[i] = static_cast<uint8_t>(item.canId >> (8 * i));
        }
        raw[4] = item.length;
        std::copy_n(item.data.begin(), std::min<size_t>(item.data.size(), 8), raw + 8);
        out.insert(out.end(), raw, raw + sizeof(raw));
    }
    return out;
}

std::string BinDirectory() {
    // Test binaries live in build/tests/, the service's working folder is build/bin/.
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path bin = exe.parent_path().parent_path() / "bin";
    std::filesystem::create_directories(bin);
    return bin.string();
}

ServiceHarness::ServiceHarness() {
    m_envRoot = std::make_unique<pmtest::ScopedEnv>("RECORDER_ROOT", m_root.Path());
    // The platform reads every absolute path below RECORDER_ROOT, the named file included.
    m_root.Write("cfg/DEVICE_SERIAL_EXTEND_CFG", kConfig);
    m_envCfg = std::make_unique<pmtest::ScopedEnv>("DEVICE_SERIAL_EXTEND_CFG",
                                                   "/cfg/DEVICE_SERIAL_EXTEND_CFG");
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) {
        m_oldCwd = cwd;
    }
    if (chdir(BinDirectory().c_str()) != 0) {
        throw std::runtime_error("cannot enter " + BinDirectory());
    }
    m_manager = std::make_unique<CPeripheralManage>();
    m_manager->PhmMessageRegister();
    m_canModule = std::make_unique<CMsgClientManage>("CanModule", 300000);
    m_canModule->RegisterHandler(kCanModuleId, 1137, [this](const char* d, int l) {
        m_filters.push_back(Record(d, l));
        return 0;
    });
    m_canModule->RegisterHandler(kCanModuleId, 1087, [this](const char* d, int l) {
        m_frames.push_back(Record(d, l));
        return 0;
    });
}

ServiceHarness::~ServiceHarness() {
    m_manager.reset();
    m_canModule.reset();
    if (!m_oldCwd.empty() && chdir(m_oldCwd.c_str()) != 0) {
        // Nothing to do: the process ends with the test.
    }
}

void ServiceHarness::Send(int id, const std::vector<uint8_t>& payload) {
    Send(id, payload.data(), payload.size());
}

void ServiceHarness::Send(int id, const void* record, size_t size) {
    m_canModule->MSGSendMessage(0, id, 0, static_cast<const char*>(record), static_cast<int>(size),
                                kCanModuleId);
}

bool ServiceHarness::Pump(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        m_manager->GetMsgClient()->MSGWaitForEvent(5);
        m_canModule->MSGWaitForEvent(5);
    }
    return true;
}

bool ServiceHarness::SendCanSetting(const paramCanSetting_t& setting) {
    size_t before = m_logs.Count("S_MANAGE: Update CAN Instance Finished");
    Send(360, &setting, sizeof(setting));
    return Pump([&] { return m_logs.Count("S_MANAGE: Update CAN Instance Finished") > before; });
}

bool ServiceHarness::SendEthernetSetting(const paramPeripheralEtherNet_t& setting) {
    size_t before = m_logs.Count("S_MANAGE: Update Ethernet Instance Finished");
    Send(362, &setting, sizeof(setting));
    return Pump(
        [&] { return m_logs.Count("S_MANAGE: Update Ethernet Instance Finished") > before; });
}

}  // namespace cantest
