#include "SerialHarness.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include <json/json.h>

#include "SerialDevOperate.h"

namespace sertest {

namespace {

Json::Value SerialEntry(unsigned int mainId, const char* lib) {
    Json::Value entry;
    entry["DEV_SERIAL_FUNCID"] = mainId;
    entry["DEV_SERIAL_LIB_NAME"] = lib;
    return entry;
}

std::string PeripheralConfig(const std::map<int, std::string>& paths) {
    Json::Value doc;
    Json::Value plain = SerialEntry(kPlainId, "NoSuchPlugin");
    plain["DEV_SERIAL_BAUD_RATE"] = "B19200";
    plain["DEV_SERIAL_DATA_BITS"] = "CS7";
    plain["DEV_SERIAL_STOP_BIT"] = "2bit";
    plain["DEV_SERIAL_PARITY"] = "ODD";
    plain["DEV_SERIAL_FLOW_CTRL"] = "NONE";
    doc["DEVICE_SERIAL_SETTING"].append(plain);
    Json::Value framed = SerialEntry(kFramedId, "NoSuchPlugin");
    framed["DEV_SERIAL_PROTOCOL_TYPE"] = 0;
    doc["DEVICE_SERIAL_SETTING"].append(framed);
    doc["DEVICE_SERIAL_SETTING"].append(SerialEntry(kGpsId, "GpsNmea"));
    doc["DEVICE_SERIAL_SETTING"].append(SerialEntry(kLoopbackId, "LoopbackTest"));
    doc["DEVICE_SERIAL_SETTING"].append(SerialEntry(36, "LoopbackTest"));
    doc["DEVICE_CANPORT_SETTING"] = Json::Value(Json::arrayValue);
    doc["DEVICE_ETHERNET_SETTING"] = Json::Value(Json::arrayValue);

    Json::Value& ports = doc["DEVICE_PERIPHERAL_PARAM_SETTING"]["SERIAL_PARAM"];
    const char* const names[] = {"232-1", "232-2", "485-1", "485-2"};
    for (int position = 0; position < 4; ++position) {
        Json::Value port;
        port["NAME"] = names[position];
        port["POSITION"] = position;
        ports.append(port);
    }
    for (const auto& [position, path] : paths) {
        Json::Value port;
        port["PATH"] = path;
        port["POSITION"] = position;
        ports.append(port);
    }
    return Json::writeString(Json::StreamWriterBuilder(), doc);
}

// Test binaries live in build/tests/; the service runs in build/bin/ and finds its plug-ins
// in build/plugin/serial/.
std::string BinDirectory() {
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path bin = exe.parent_path().parent_path() / "bin";
    std::filesystem::create_directories(bin);
    return bin.string();
}

}  // namespace

paramSerialSetting_t SerialSetting(const std::vector<Placement>& placements) {
    paramSerialSetting_t setting;
    memset(&setting, 0, sizeof(setting));
    for (const Placement& p : placements) {
        SerialPortEntry_t& port = setting.port[p.port];
        if (p.extend < 0) {
            port.mainFun = p.mainId;
            port.subFun = p.subId;
            port.baudrate = p.baud;
        } else {
            port.extend[p.extend].mainFun = p.mainId;
            port.extend[p.extend].subFun = p.subId;
            port.extend[p.extend].baudrate = p.baud;
        }
    }
    return setting;
}

SerialHarness::SerialHarness(const std::map<int, std::string>& paths,
                             const std::string& systemConfig) {
    m_envRoot = std::make_unique<pmtest::ScopedEnv>("RECORDER_ROOT", m_root.Path());
    m_root.Write("cfg/DEVICE_SERIAL_EXTEND_CFG", PeripheralConfig(paths));
    m_envCfg = std::make_unique<pmtest::ScopedEnv>("DEVICE_SERIAL_EXTEND_CFG",
                                                   "/cfg/DEVICE_SERIAL_EXTEND_CFG");
    m_root.Write("usr/local/cfg/SYSTEM_CONFIG", systemConfig);
    m_envSystem = std::make_unique<pmtest::ScopedEnv>("SYSTEM_CONFIG", std::nullopt);
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) {
        m_oldCwd = cwd;
    }
    if (chdir(BinDirectory().c_str()) != 0) {
        throw std::runtime_error("cannot enter " + BinDirectory());
    }
    m_manager = std::make_unique<CPeripheralManage>();
    m_manager->PhmMessageRegister();
    m_manager->GetSerialDevOperatePtr()->serial_init();
    m_recorder = std::make_unique<CMsgClientManage>("Recorder", 300000);
}

SerialHarness::~SerialHarness() {
    m_manager.reset();
    m_recorder.reset();
    if (!m_oldCwd.empty() && chdir(m_oldCwd.c_str()) != 0) {
        // The process ends with the test.
    }
}

void SerialHarness::Send(int id, const void* data, size_t size) {
    m_recorder->MSGSendMessage(0, id, 0, static_cast<const char*>(data), static_cast<int>(size),
                               kRecorderId);
}

bool SerialHarness::Pump(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        m_manager->GetMsgClient()->MSGWaitForEvent(5);
        m_recorder->MSGWaitForEvent(5);
    }
    return true;
}

bool SerialHarness::SendSerialSetting(const paramSerialSetting_t& setting) {
    const char* done = "S_MANAGE: Update Serial Instance Finished";
    size_t before = m_logs.Count(done);
    Send(316, &setting, sizeof(setting));
    return Pump([&] { return m_logs.Count(done) > before; });
}

void SerialHarness::Collect(int id) {
    m_recorder->RegisterHandler(kRecorderId, id, [this, id](const char* data, int len) {
        Common::SMessageHead head;
        memcpy(&head, data, sizeof(head));
        m_collected[id].push_back(
            Message{head.nSenderId, std::string(data + sizeof(head), head.length)});
        (void)len;
        return 0;
    });
}

TestSerial::TestSerial(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                       unsigned int subId)
    : CSerialBase(manage, client, mainId, subId) {
    // The reader thread takes this lock before it calls us: it then sees a complete object.
    LockSerialBuffer();
    UnlockSerialBuffer();
}

TestSerial::~TestSerial() {
    CloseMainChipSerial();
}

int TestSerial::ProcessPeripheralData() {
    if (!m_bConsume) {
        return 0;
    }
    char bytes[1024];
    unsigned int length = 0;
    GetSerialBufferData(bytes, length);
    ClearSerialBufferValue();
    m_received.append(bytes, length);
    return 0;
}

std::string TestSerial::Received() {
    LockSerialBuffer();
    std::string copy = m_received;
    UnlockSerialBuffer();
    return copy;
}

std::string TestSerial::BufferContent() {
    LockSerialBuffer();
    std::string copy(m_pBuffer, m_nBufferLength);
    UnlockSerialBuffer();
    return copy;
}

std::string Hex(const std::string& bytes) {
    std::string out;
    char byte[4];
    for (unsigned char c : bytes) {
        snprintf(byte, sizeof(byte), "%02X ", c);
        out += byte;
    }
    if (!out.empty()) {
        out.pop_back();
    }
    return out;
}

}  // namespace sertest
