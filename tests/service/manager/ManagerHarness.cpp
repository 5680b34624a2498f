#include "ManagerHarness.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace mgrtest {

const char* const kFullConfig = R"({
  "DEVICE_SERIAL_SETTING": [
    {"DEV_SERIAL_FUNCID": 5, "DEV_SERIAL_LIB_NAME": "libnone_serial",
     "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 1}]}
  ],
  "DEVICE_CANPORT_SETTING": [
    {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libnone_can",
     "DEV_CANPORT_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_ETHERNET_SETTING": [
    {"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libnone_eth",
     "DEV_ETHERNET_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": []}
})";

namespace {

constexpr int kRecorderModuleId = 50;
const char* const kConfigPath = "/cfg/peripheral.json";  // below RECORDER_ROOT

// Test binaries live in build/tests/; the service runs in build/bin/.
std::string BinDirectory() {
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path bin = exe.parent_path().parent_path() / "bin";
    std::filesystem::create_directories(bin);
    return bin.string();
}

void PutLe32(char* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<char>(value >> (8 * i));
    }
}

void ReleaseProbe(CPeripheralBase* instance) {
    delete instance;
}

}  // namespace

std::string SystemConfig(int productType) {
    return "{\"PRODUCT_TYPE\": " + std::to_string(productType) +
           ", \"VI_CHN_NUM\": 4, \"DIGITAL_CHN_NUM\": 4}";
}

std::vector<char> Message(uint32_t eventId, const void* data, size_t size, long headLength) {
    std::vector<char> message(16 + size, 0);
    PutLe32(message.data(), eventId);
    const uint32_t length =
        headLength < 0 ? static_cast<uint32_t>(size) : static_cast<uint32_t>(headLength);
    PutLe32(message.data() + 12, length & 0x7FFFFF);
    if (size > 0) {
        memcpy(message.data() + 16, data, size);
    }
    return message;
}

ManagerEnv::ManagerEnv(const std::string& peripheralConfig, const std::string& systemConfig)
    : m_rootEnv("RECORDER_ROOT", m_root.Path()), m_cfgEnv("DEVICE_SERIAL_EXTEND_CFG", kConfigPath) {
    if (!peripheralConfig.empty()) {
        m_root.Write(std::string(kConfigPath).substr(1), peripheralConfig);
    }
    m_root.Write("usr/local/cfg/SYSTEM_CONFIG", systemConfig);
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) {
        m_oldCwd = cwd;
    }
    if (chdir(BinDirectory().c_str()) != 0) {
        throw std::runtime_error("cannot enter the bin folder");
    }
}

ManagerEnv::~ManagerEnv() {
    if (!m_oldCwd.empty() && chdir(m_oldCwd.c_str()) != 0) {
        perror("chdir");
    }
}

TestManage::~TestManage() {
    Stop();
}

void TestManage::AddInstance(CPeripheralBase* instance) {
    m_listPeripheralPlugin.push_back(
        PeripheralProperty_t{nullptr, nullptr, ReleaseProbe, "probe", instance});
}

ProbePeripheral::ProbePeripheral(CPeripheralManage* manage, ePeripheralType type,
                                 unsigned int mainId, unsigned int subId)
    : CPeripheralBase(manage, manage->GetMsgClient(), type, mainId, subId) {
    SetThreadCircleTime(0);
    SetCurPeripOpenStatus(true);
}

int ProbePeripheral::PeripheralThreadCycle(long long) {
    ++cycles;
    return 0;
}

Recorder::Recorder(const std::vector<int>& watched) : m_client("Recorder.test", 300000) {
    for (int id : watched) {
        m_client.RegisterHandler(kRecorderModuleId, id, [this, id](const char* data, int len) {
            return Handle(id, data, len);
        });
    }
    m_pump = std::thread([this] {
        while (!m_stop.load()) {
            m_client.MSGWaitForEvent(10);
        }
    });
}

Recorder::~Recorder() {
    m_stop = true;
    m_pump.join();
}

void Recorder::SetAnswer(int requestId, const std::vector<uint8_t>& payload) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_answers[requestId] = payload;
}

void Recorder::Send(int eventId, const void* data, size_t size) {
    m_client.MSGSendMessage(0, eventId, 0, static_cast<const char*>(data), static_cast<int>(size),
                            kRecorderModuleId);
}

int Recorder::Handle(int id, const char* data, int len) {
    std::vector<uint8_t> answer;
    bool answered = false;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_events.push_back(
            Event{id, std::chrono::steady_clock::now(), std::vector<char>(data, data + len)});
        auto found = m_answers.find(id);
        if (found != m_answers.end()) {
            answer = found->second;
            answered = true;
        }
    }
    if (answered) {
        Common::SMessageHead head;
        memcpy(&head, data, sizeof(head));
        m_client.MSGResponseMessage(&head, reinterpret_cast<const char*>(answer.data()),
                                    static_cast<int>(answer.size()));
    }
    return 0;
}

std::vector<Recorder::Event> Recorder::Events() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_events;
}

std::vector<int> Recorder::Ids() const {
    std::vector<int> ids;
    for (const Event& event : Events()) {
        ids.push_back(event.id);
    }
    return ids;
}

size_t Recorder::Count(int id) const {
    std::lock_guard<std::mutex> guard(m_lock);
    size_t n = 0;
    for (const Event& event : m_events) {
        n += event.id == id ? 1 : 0;
    }
    return n;
}

bool Recorder::WaitCount(int id, size_t count, std::chrono::milliseconds timeout) const {
    return pmtest::WaitUntil([&] { return Count(id) >= count; }, timeout);
}

void Recorder::Clear() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_events.clear();
}

std::vector<uint8_t> Zeros(size_t size) {
    return std::vector<uint8_t>(size, 0);
}

void AnswerParameters(Recorder& recorder, bool ftp) {
    recorder.SetAnswer(1149, {0x01});
    recorder.SetAnswer(315, Zeros(sizeof(paramSerialSetting_t)));
    recorder.SetAnswer(319, Zeros(408));
    recorder.SetAnswer(359, Zeros(sizeof(paramCanSetting_t)));
    recorder.SetAnswer(361, Zeros(sizeof(paramPeripheralEtherNet_t)));
    if (ftp) {
        recorder.SetAnswer(283, Zeros(sizeof(tag_MsgFtpSetting)));
    }
}

}  // namespace mgrtest
