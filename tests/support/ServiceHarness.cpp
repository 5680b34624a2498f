#include "ServiceHarness.h"

#include <string.h>

#include <algorithm>
#include <filesystem>

#include "SerialDevOperate.h"

namespace pmtest {

namespace {

constexpr int kFlushEvent = 9000;  // sent by the manager's client to mark a point

// Test binaries live in build/tests/; the service runs in build/bin/.
std::string BinDirectory() {
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path bin = exe.parent_path().parent_path() / "bin";
    std::filesystem::create_directories(bin);
    return bin.string();
}

void DeleteInstance(CPeripheralBase* instance) {
    delete instance;
}

}  // namespace

std::vector<char> Message(uint32_t eventId, const void* data, size_t size, long headLength) {
    std::vector<char> message(sizeof(Common::SMessageHead) + size, 0);
    Common::SMessageHead head{};
    head.nEventId = eventId;
    head.length = static_cast<uint32_t>(headLength < 0 ? static_cast<long>(size) : headLength);
    memcpy(message.data(), &head, sizeof(head));
    if (size > 0) {
        memcpy(message.data() + sizeof(head), data, size);
    }
    return message;
}

paramSerialSetting_t SerialSetting(const std::vector<SerialEntry>& entries) {
    paramSerialSetting_t setting{};
    for (const SerialEntry& e : entries) {
        auto put = [&e](auto& entry) {
            entry.mainFun = e.mainFun;
            entry.subFun = e.subFun;
            entry.baudrate = e.baudrate;
        };
        if (e.extend < 0) {
            put(setting.port[e.port]);
        } else {
            put(setting.port[e.port].extend[e.extend]);
        }
    }
    return setting;
}

ServiceEnv::ServiceEnv(const std::string& peripheralConfig, const std::string& systemConfig) {
    if (!peripheralConfig.empty()) {
        m_root.Write("usr/local/cfg/DEVICE_SERIAL_EXTEND_CFG", peripheralConfig);
    }
    m_root.Write("usr/local/cfg/SYSTEM_CONFIG", systemConfig);
    std::filesystem::current_path(BinDirectory());
}

ServiceEnv::~ServiceEnv() {
    std::error_code ignored;
    std::filesystem::current_path(m_oldCwd, ignored);
}

void TestManage::AddInstance(CPeripheralBase* instance) {
    m_listPeripheralPlugin.push_back(
        PeripheralProperty_t{nullptr, nullptr, DeleteInstance, "probe", instance});
}

std::vector<std::string> TestManage::LiveIds() const {
    std::vector<std::string> ids;
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        const CPeripheralBase* p = record.pInstance;
        ids.push_back(p == nullptr ? "none"
                                   : std::to_string(p->GetPeripheralType()) + ":" +
                                         std::to_string(p->GetMainId()) + ":" +
                                         std::to_string(p->GetSubId()));
    }
    return ids;
}

ServiceHarness::ServiceHarness(const std::string& peripheralConfig, const std::string& systemConfig)
    : ServiceEnv(peripheralConfig, systemConfig), m_manage(std::make_unique<TestManage>()) {
    Watch(kFlushEvent);
    m_pump = std::thread([this] {
        while (!m_stop.load()) {
            m_recorder.MSGWaitForEvent(10);
        }
    });
}

ServiceHarness::~ServiceHarness() {
    m_manage.reset();
    m_stop = true;
    m_pump.join();
}

void ServiceHarness::Register() {
    m_manage->PhmMessageRegister();
    m_manage->GetSerialDevOperatePtr()->serial_init();
}

void ServiceHarness::Start(bool openGate) {
    if (openGate) {
        m_manage->m_ucDeviceModuleReady = 1;
        m_manage->m_nParamState = 0;
    }
    m_manage->Initialize();
}

bool ServiceHarness::Pump(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    if (m_manage->IsRunning()) {
        return WaitUntil(pred, timeout);
    }
    return WaitUntil(
        [&] {
            m_manage->GetMsgClient()->MSGWaitForEvent(5);
            return pred();
        },
        timeout);
}

void ServiceHarness::Watch(int id, const std::optional<std::vector<uint8_t>>& answer) {
    m_recorder.RegisterHandler(kRecorderModuleId, id, [=](const char* data, int len) {
        BusMessage message{id, {}, {}, std::chrono::steady_clock::now()};
        memcpy(&message.head, data, sizeof(message.head));
        const size_t size = std::min<size_t>(message.head.length, len - sizeof(message.head));
        message.payload.assign(data + sizeof(message.head), data + sizeof(message.head) + size);
        if (answer) {
            m_recorder.MSGResponseMessage(&message.head,
                                          reinterpret_cast<const char*>(answer->data()),
                                          static_cast<int>(answer->size()));
        }
        std::lock_guard<std::mutex> guard(m_lock);
        m_received.push_back(std::move(message));
        return 0;
    });
}

void ServiceHarness::Send(int id, const void* data, size_t size) {
    m_recorder.MSGSendMessage(0, id, 0, static_cast<const char*>(data), static_cast<int>(size),
                              kRecorderModuleId);
}

std::vector<BusMessage> ServiceHarness::Received(int id) const {
    std::lock_guard<std::mutex> guard(m_lock);
    std::vector<BusMessage> out;
    for (const BusMessage& message : m_received) {
        if ((id < 0 && message.id != kFlushEvent) || message.id == id) {
            out.push_back(message);
        }
    }
    return out;
}

void ServiceHarness::ClearReceived() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_received.clear();
}

bool ServiceHarness::Flush(std::initializer_list<CMsgClientManage*> also) {
    // Each client's messages arrive in the order it sent them, but not in order with another
    // client's: every client that matters sends its own mark.
    const size_t before = Count(kFlushEvent);
    m_manage->GetMsgClient()->MSGSendMessage(0, kFlushEvent, 0, nullptr, 0, 10);
    for (CMsgClientManage* client : also) {
        client->MSGSendMessage(0, kFlushEvent, 0, nullptr, 0, 10);
    }
    return WaitCount(kFlushEvent, before + 1 + also.size());
}

bool ServiceHarness::SendSetting(const std::vector<uint8_t>& record) {
    const bool serial = record.size() == sizeof(paramSerialSetting_t);
    const bool can = record.size() == sizeof(paramCanSetting_t);
    const char* done = serial ? "S_MANAGE: Update Serial Instance Finished"
                       : can  ? "S_MANAGE: Update CAN Instance Finished"
                              : "S_MANAGE: Update Ethernet Instance Finished";
    const size_t before = Logs().Count(done);
    Send(serial ? 316 : can ? 360 : 362, record);
    return Pump([&] { return Logs().Count(done) > before; });
}

}  // namespace pmtest
