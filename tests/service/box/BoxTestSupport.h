// What the extension box tests share: the recorder's configuration with main-chip ports whose
// ttys are pseudo-terminals, a sub-port peripheral as a plug-in writes one, and the box's
// firmware on the other end of a line, either driven by the test (BoxEnd) or answering on a
// thread of its own with pm-boxsim's box model (Firmware).
#ifndef TESTS_SERVICE_BOX_BOX_TEST_SUPPORT_H
#define TESTS_SERVICE_BOX_BOX_TEST_SUPPORT_H

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BoxSim.h"
#include "MessageText.h"
#include "Pty.h"
#include "SerialBase.h"
#include "SerialDevExtendBox.h"
#include "TestPeripherals.h"
#include "ServiceHarness.h"

namespace boxtest {

// Sub-port main ids that name no library: the tests place their own children.
constexpr unsigned kChildId = 60;
constexpr unsigned kOtherChildId = 61;
constexpr unsigned kFrameChild = 12;  // takes the box's frame as it came

// Ports 4 and 5 of the main chip on the given ttys (an empty path: no such port), and the
// sub-port protocols the tests use.
inline std::string Config(const std::string& port4, const std::string& port5 = "") {
    std::string ports = R"({"NAME": "232-1", "POSITION": 4, "PATH": ")" + port4 + "\"}";
    if (!port5.empty()) {
        ports += R"(, {"NAME": "232-2", "POSITION": 5, "PATH": ")" + port5 + "\"}";
    }
    return R"({"DEVICE_SERIAL_SETTING": [
                {"DEV_SERIAL_FUNCID": 60, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin"},
                {"DEV_SERIAL_FUNCID": 61, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin"},
                {"DEV_SERIAL_FUNCID": 8, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin",
                 "DEV_SERIAL_STOP_BIT": "2bit", "DEV_SERIAL_PARITY": "EVEN"},
                {"DEV_SERIAL_FUNCID": 12, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin"}],
              "DEVICE_CANPORT_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
              "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [)" +
           ports + "]}}";
}

// A clock value far from any handed out before in this process: the boxes' step timers are
// shared by the whole program, and a test that runs after another must not meet its times.
inline long long FreshClock() {
    static long long base = 1000000;
    return base += 1000000000LL;
}

// Releases of a child that a box or sub-port could still reach when its releaser began.
inline std::atomic<int>& ReachableAtRelease() {
    static std::atomic<int> count{0};
    return count;
}

// A sub-port peripheral as a plug-in writes it: keeps what it is handed. When it goes, it
// checks that no box's table holds it any more.
class Child : public pmtest::TakingSerial {
public:
    Child(CPeripheralManage* manage, CMsgClientManage* client, unsigned mainId, unsigned subId = 0)
        : TakingSerial(manage, client, mainId, subId) {}
    ~Child() override {
        for (unsigned boxId : {PERIPHERAL_MAINID_EXTEND_BOX, PERIPHERAL_MAINID_EXTEND_HUB_BOX}) {
            auto* box = dynamic_cast<CSerialDevExtendBox*>(
                m_pPeripheralManage->GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, boxId, 0));
            for (unsigned char i = 0; box != nullptr && i < 8; ++i) {
                ReachableAtRelease() += box->GetChild(i) == this ? 1 : 0;
            }
        }
    }
    int Take(const char* bytes, unsigned length) override {
        m_received.append(bytes, length);
        return 0;
    }
    std::string Received() {
        LockSerialBuffer();
        std::string copy = m_received;
        UnlockSerialBuffer();
        return copy;
    }

private:
    std::string m_received;
};

inline CPeripheralBase* CreateChild(CPeripheralManage* manage, CMsgClientManage* client,
                                    unsigned mainId, unsigned subId) {
    return new Child(manage, client, mainId, subId);
}

inline void DeleteChild(CPeripheralBase* child) {
    child->StopPeripheralThread();
    delete child;
}

// Registers a child with the manager as the loader would, creator and releaser included.
inline Child* AddChild(pmtest::ServiceHarness& service, unsigned mainId) {
    auto* child = new Child(&service.Manager(), service.ManagerClient(), mainId);
    service.Manager().m_listPeripheralPlugin.push_back(
        PeripheralProperty_t{nullptr, CreateChild, DeleteChild, "child", child});
    child->Initialize();
    return child;
}

inline std::vector<uint8_t> Hex(const std::string& text) {
    std::vector<uint8_t> bytes;
    std::string error;
    pmtools::ParseHexBytes(text, bytes, error);
    return bytes;
}

inline std::vector<uint8_t> Text(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

// The box's firmware end of a line, driven by the test.
class BoxEnd {
public:
    BoxEnd() { line.MakeRaw(); }

    // The next frame the service sent, or an empty body when none came in time.
    boxsim::Frame Next(std::chrono::milliseconds timeout = std::chrono::seconds(3)) {
        boxsim::Frame frame;
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (!m_decoder.Next(frame)) {
            if (std::chrono::steady_clock::now() > until) {
                return boxsim::Frame{0, 0, {}};
            }
            const std::string got = line.Receive(1, std::chrono::milliseconds(50));
            m_decoder.Feed(reinterpret_cast<const uint8_t*>(got.data()), got.size());
        }
        return frame;
    }
    // The bodies of every frame that arrives within `quiet` of the one before.
    std::vector<std::string> Drain(
        std::chrono::milliseconds quiet = std::chrono::milliseconds(200)) {
        std::vector<std::string> bodies;
        boxsim::Frame frame;
        while (!(frame = Next(quiet)).body.empty()) {
            bodies.push_back(boxsim::ToHex(frame.body));
        }
        return bodies;
    }
    // Raw bytes of the next `count` the service sent.
    std::string Raw(size_t count) { return line.Receive(count); }
    void Send(const boxsim::Frame& frame) {
        const std::vector<uint8_t> bytes = boxsim::Encode(frame);
        line.Send(std::string(bytes.begin(), bytes.end()));
    }
    void Answer(uint8_t cmd, const std::vector<uint8_t>& payload,
                uint8_t device = boxsim::kBoxDevice) {
        Send(boxsim::Answer(device, cmd, payload));
    }

    pmtest::Pty line;

private:
    boxsim::Decoder m_decoder;
};

// The box's firmware on its own thread: pm-boxsim's model answers what arrives on the line.
class Firmware {
public:
    explicit Firmware(boxsim::BoxModel::Options options) : m_model(std::move(options)) {
        m_line.MakeRaw();
        m_thread = std::thread([this] { Run(); });
    }
    ~Firmware() {
        m_stop = true;
        m_thread.join();
    }
    const std::string& Path() const { return m_line.SlavePath(); }
    // Runs `fn` on the model while the firmware thread keeps off it.
    void With(const std::function<void(boxsim::BoxModel&)>& fn) {
        std::lock_guard<std::mutex> guard(m_lock);
        fn(m_model);
    }
    int Commands(uint8_t cmd) {
        int count = 0;
        With([&](boxsim::BoxModel& m) { count = m.Commands(cmd); });
        return count;
    }
    void Send(const boxsim::Frame& frame) {
        const std::vector<uint8_t> bytes = boxsim::Encode(frame);
        m_line.Send(std::string(bytes.begin(), bytes.end()));
    }

private:
    void Run() {
        boxsim::Decoder decoder;
        while (!m_stop) {
            const std::string got = m_line.Receive(4096, std::chrono::milliseconds(5));
            decoder.Feed(reinterpret_cast<const uint8_t*>(got.data()), got.size());
            boxsim::Frame frame;
            while (decoder.Next(frame)) {
                std::vector<boxsim::Frame> answers;
                {
                    std::lock_guard<std::mutex> guard(m_lock);
                    answers = m_model.OnFrame(frame).toLine;
                }
                for (const boxsim::Frame& answer : answers) {
                    Send(answer);
                }
            }
        }
    }

    pmtest::Pty m_line;
    std::mutex m_lock;
    boxsim::BoxModel m_model;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace boxtest

#endif
