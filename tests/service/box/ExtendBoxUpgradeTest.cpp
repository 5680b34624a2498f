// The box's firmware upgrade and the hub box, against the box model of pm-boxsim running as
// the firmware on the other end of a pseudo-terminal, and the recorder's side of the bus
// (the trigger, the file it hands over, the states it hears).
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BoxSim.h"
#include "CommonTime.h"
#include "PeripheralEvents.h"
#include "Pty.h"
#include "SerialDevExtendBox.h"
#include "SerialDevExtendBoxHub.h"
#include "ServiceHarness.h"
#include "UpgradeFile.h"

namespace {

using pmtest::Pty;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

// The box's firmware on its own thread: answers what arrives on the line.
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

    Pty m_line;
    std::mutex m_lock;
    boxsim::BoxModel m_model;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

std::string Config(const std::string& ttyPath) {
    return R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
              "DEVICE_ETHERNET_SETTING": [],
              "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
                {"NAME": "232-1", "POSITION": 4, "PATH": ")" +
           ttyPath + R"("}]}})";
}

std::vector<uint8_t> Image(size_t size) {
    std::vector<uint8_t> image(size);
    for (size_t i = 0; i < size; ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    return image;
}

std::vector<uint8_t> Trigger(unsigned mainId, unsigned source) {
    std::vector<uint8_t> payload(16, 0);
    payload[1] = static_cast<uint8_t>(mainId);
    payload[3] = mainId == 1 ? 0x04 : 0x19;
    payload[9] = static_cast<uint8_t>(source);
    return payload;
}

struct State {
    int source, state, percent;
};

// A box (or hub) on port 4 with its firmware, brought into service by its own cycle.
struct Upgradable {
    explicit Upgradable(unsigned mainId = 1, std::string version = "BOX-MCU-V1")
        : mainId(mainId),
          firmware(boxsim::BoxModel::Options{
              static_cast<uint8_t>(mainId == 1 ? boxsim::kBoxDevice : boxsim::kHubDevice), version,
              "BOX-MCU-V2"}),
          service(std::make_unique<ServiceHarness>(Config(firmware.Path()))) {
        service->Register();
        service->Watch(EVENT_EXTEND_UPGRADE_STATE);
        EXPECT_TRUE(service->SendSetting(SerialSetting({{4, static_cast<uint8_t>(mainId), 0, 1}})));
        box = dynamic_cast<CSerialDevExtendBox*>(
            service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, mainId, 0));
    }
    // Cycles until the version is known; the clock values are the test's own.
    bool BringUp() {
        return WaitUntil([&] {
            box->PeripheralThreadCycle(now += 1000);
            return box->GetPendingSetup() == 0;
        });
    }
    // Offers `record` as the recorder's answer to the file request, then triggers.
    void Upgrade(const std::vector<uint8_t>& record, unsigned source = 0) {
        service->Watch(EVENT_GET_EXTEND_UPGRADE_FILE, record);
        service->Send(EVENT_EXTEND_UPGRADE_TRIGGER, Trigger(mainId, source));
    }
    std::vector<State> States() {
        std::vector<State> out;
        for (const pmtest::BusMessage& m : service->Received(EVENT_EXTEND_UPGRADE_STATE)) {
            out.push_back({m.payload[0], m.payload[1], static_cast<int8_t>(m.payload[2])});
        }
        return out;
    }
    bool WaitFinal(int state) {
        return service->Pump([&] {
            const std::vector<State> s = States();
            return !s.empty() && s.back().state == state;
        });
    }

    unsigned mainId;
    Firmware firmware;
    std::unique_ptr<ServiceHarness> service;
    CSerialDevExtendBox* box = nullptr;
    long long now = 1000000;
};

std::vector<uint8_t> Record(const std::string& name, const std::vector<uint8_t>& image) {
    return pmtools::UpgradeFileRecord(name, pmtools::MakeUpgradeFile(image, name));
}

// ---- a good upgrade ----

TEST(ExtendBoxUpgrade, AThousandBytesGoAsSixteenLinesThenEndThenStateTen) {
    Upgradable u;
    ASSERT_NE(u.box, nullptr);
    ASSERT_TRUE(u.BringUp());
    const std::vector<uint8_t> image = Image(1000);
    u.Upgrade(Record("BOX-MCU-V2.CRC", image));
    ASSERT_TRUE(u.service->Pump([&] {
        bool done = false;
        u.firmware.With([&](boxsim::BoxModel& m) { done = m.UpgradedImage() == image; });
        return done;
    }));
    // The box has the image once it takes END; the five seconds count from when the service
    // reads its answer, which may come a little later.
    ASSERT_TRUE(u.service->Pump(
        [&] { return u.service->Logs().Contains("Response end upgrade success"); }));
    u.firmware.With([&](boxsim::BoxModel& m) {
        const std::vector<size_t> sizes = m.LineSizes();
        ASSERT_EQ(sizes.size(), 16u);
        EXPECT_EQ(std::count(sizes.begin(), sizes.end(), size_t(64)), 15);
        EXPECT_EQ(sizes.back(), 40u);
    });
    EXPECT_TRUE(u.box->IsUpgrading()) << "busy until five seconds after the END answer";
    u.box->PeripheralThreadCycle(Common::Q7R_TMGetSystemMicroSecond() + 5001);
    ASSERT_TRUE(u.WaitFinal(10));
    EXPECT_FALSE(u.box->IsUpgrading());

    // Percentages only grow, each is told once, and 0 % is never told.
    int last = 0;
    for (const State& s : u.States()) {
        if (s.state == 0) {
            EXPECT_GT(s.percent, last);
            last = s.percent;
        }
    }
    EXPECT_EQ(last, 100);
    // The box is asked for its version again and reports the new one.
    ASSERT_TRUE(u.BringUp());
    EXPECT_EQ(std::string(u.box->GetVersionText().data()), "BOX-MCU-V2");
}

// ---- refusals ----

TEST(ExtendBoxUpgrade, TriggersThatAreRefusedEndInTheirState) {
    const std::vector<uint8_t> record = Record("BOX-MCU-V2.CRC", Image(500));
    {
        SCOPED_TRACE("source 3");
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.Upgrade(record, 3);
        EXPECT_TRUE(u.WaitFinal(9));
    }
    {
        SCOPED_TRACE("version not read yet");
        Upgradable u;
        u.Upgrade(record, 2);
        EXPECT_TRUE(u.WaitFinal(9));
        EXPECT_TRUE(u.service->Logs().Contains("[UPG] failed, extend_box version is error"));
    }
    {
        SCOPED_TRACE("offline");
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        // Silent from now on: three keep-alives later it counts as offline.
        u.firmware.With([](boxsim::BoxModel& m) { m.faults.silent = true; });
        for (int i = 0; i < 20 && u.box->GetCurPeripheralStatus(); ++i) {
            u.box->PeripheralThreadCycle(u.now += 1000);
        }
        ASSERT_FALSE(u.box->GetCurPeripheralStatus());
        u.Upgrade(record, 1);
        EXPECT_TRUE(u.WaitFinal(4));
    }
    {
        SCOPED_TRACE("already running");
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.firmware.With([](boxsim::BoxModel& m) { m.faults.stopAfterLine = 3; });
        u.Upgrade(record, 0);
        // Line 3 goes unanswered: from then on the running upgrade broadcasts nothing.
        ASSERT_TRUE(u.service->Pump([&] {
            int lines = 0;
            u.firmware.With([&](boxsim::BoxModel& m) { lines = m.Commands(0x02); });
            return lines >= 3;
        }));
        u.service->Send(EVENT_EXTEND_UPGRADE_TRIGGER, Trigger(1, 1));
        ASSERT_TRUE(u.WaitFinal(7));
        EXPECT_TRUE(u.box->IsUpgrading()) << "the running upgrade goes on";
    }
}

TEST(ExtendBoxUpgrade, FilesThatCannotBeUsed) {
    const std::vector<uint8_t> image = Image(300);
    std::vector<uint8_t> inverted = pmtools::MakeUpgradeFile(image, "x");
    Common::PutLe32(inverted.data() + 100 + 64, ~pmtools::UpgradeCrc(image.data(), image.size()));
    std::vector<uint8_t> manyEntries = pmtools::MakeUpgradeFile(image, "x");
    Common::PutLe32(manyEntries.data() + 96, 0x10000000);
    std::vector<uint8_t> longImage = pmtools::MakeUpgradeFile(image, "x");
    Common::PutLe32(longImage.data() + 100 + 76, 301);
    const struct {
        const char* what;
        std::vector<uint8_t> record;
        int state;
    } cases[] = {
        {"check value of the inverted convention",
         pmtools::UpgradeFileRecord("BOX-MCU-V2.CRC", inverted), 5},
        {"more entries than the message holds",
         pmtools::UpgradeFileRecord("BOX-MCU-V2.CRC", manyEntries), 5},
        {"an image longer than the message",
         pmtools::UpgradeFileRecord("BOX-MCU-V2.CRC", longImage), 5},
        {"no file", pmtools::UpgradeFileRecord("", {}), 6},
        // The box reports "BOX-MCU-V1": a file whose version starts with it is the same one.
        {"the same version, by prefix", Record("BOX-MCU-V1.05.CRC", image), 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.Upgrade(c.record);
        EXPECT_TRUE(u.WaitFinal(c.state));
        EXPECT_FALSE(u.box->IsUpgrading());
        u.firmware.With([](boxsim::BoxModel& m) { EXPECT_EQ(m.Commands(0x01), 0); });
    }
}

TEST(ExtendBoxUpgrade, TenSecondsOfSilenceMidwayFail) {
    Upgradable u;
    ASSERT_TRUE(u.BringUp());
    u.firmware.With([](boxsim::BoxModel& m) { m.faults.stopAfterLine = 4; });
    u.Upgrade(Record("BOX-MCU-V2.CRC", Image(1000)));
    ASSERT_TRUE(u.service->Pump([&] {
        int lines = 0;
        u.firmware.With([&](boxsim::BoxModel& m) { lines = m.Commands(0x02); });
        // Lines count from 1. Line 4, never answered, goes out only once the answer to line 3
        // has been read: the clock below is then later than every answer.
        return lines >= 4;
    }));
    const long long clock = Common::Q7R_TMGetSystemMicroSecond();
    u.box->PeripheralThreadCycle(clock + 5000);
    EXPECT_TRUE(u.box->IsUpgrading());
    u.box->PeripheralThreadCycle(clock + 10001);
    EXPECT_TRUE(u.WaitFinal(9));
    EXPECT_TRUE(u.service->Logs().Contains("S1_EXTEND_BOX: Timeout happen, upgrade timeout"));
}

// ---- the hub box ----

TEST(HubBox, FiveUnansweredThenOfflineWithItsVersionAndIoStateCleared) {
    Upgradable hub(149, "HUB-MCU-1");
    ASSERT_NE(hub.box, nullptr);
    hub.service->Watch(EVENT_EXTEND_VERSION);
    hub.service->Watch(EVENT_EXTEND_IO_STATE);
    ASSERT_TRUE(hub.BringUp());
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_VERSION, 1));

    // Two equal reports: published twice, logged once.
    boxsim::Frame report;
    hub.firmware.With([&](boxsim::BoxModel& m) { report = m.IoReport(5); });
    hub.firmware.Send(report);
    hub.firmware.Send(report);
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 2));
    EXPECT_EQ(hub.service->Logs().Count("S1_EXTEND_BOX_HUB: m_stuExtendIOstatus.lState = 0x5"), 1u);
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[1].payload), "95 00 05 00");

    hub.firmware.With([](boxsim::BoxModel& m) { m.faults.silent = true; });
    hub.service->ClearReceived();
    for (int i = 0; i < 5 * 20 && hub.box->GetCurPeripheralStatus(); ++i) {  // 5 x 3 s
        hub.box->PeripheralThreadCycle(hub.now += 200);
    }
    EXPECT_FALSE(hub.box->GetCurPeripheralStatus());
    EXPECT_TRUE(hub.service->Logs().Contains(
        "S1_EXTEND_BOX_HUB: Timeout is too long, and set can disconnect"));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 1));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_VERSION, 1));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[0].payload), "95 00 00 00");
    const std::vector<uint8_t> version = hub.service->Received(EVENT_EXTEND_VERSION)[0].payload;
    EXPECT_EQ(version[10], 0) << "no version any more";
    EXPECT_EQ(version[37], 0);
    EXPECT_EQ(hub.box->GetPendingSetup(), 3u);

    // Going away, it says its I/O state is 0.
    hub.service->ClearReceived();
    ASSERT_TRUE(hub.service->SendSetting(SerialSetting({})));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 1));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[0].payload), "95 00 00 00");
}

}  // namespace
