// The box's firmware upgrade and the hub box, against the box model of pm-boxsim running as
// the firmware on the other end of a pseudo-terminal, and the recorder's side of the bus
// (the trigger, the file it hands over, the states it hears).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BoxTestSupport.h"
#include "CommonTime.h"
#include "PeripheralEvents.h"
#include "SerialDevExtendBoxHub.h"
#include "UpgradeFile.h"

namespace {

using boxtest::Firmware;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

std::vector<uint8_t> Image(size_t size) {
    std::vector<uint8_t> image(size);
    for (size_t i = 0; i < size; ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    return image;
}

std::vector<uint8_t> TriggerPayload(unsigned mainId, unsigned source) {
    std::vector<uint8_t> payload(16, 0);
    payload[1] = static_cast<uint8_t>(mainId);
    payload[3] = mainId == 1 ? 0x04 : 0x19;
    payload[9] = static_cast<uint8_t>(source);
    return payload;
}

struct State {
    int source, state, percent;
};

// A box (or hub) on port 4 with its firmware, brought into service by its own cycle; with
// `hubToo`, a hub on port 5 of the same recorder with a firmware of its own as well.
struct Upgradable {
    explicit Upgradable(unsigned mainId = 1, std::string version = "BOX-MCU-V1",
                        bool hubToo = false)
        : mainId(mainId),
          firmware(boxsim::BoxModel::Options{
              static_cast<uint8_t>(mainId == 1 ? boxsim::kBoxDevice : boxsim::kHubDevice), version,
              "BOX-MCU-V2"}),
          hubFirmware(hubToo ? std::make_unique<Firmware>(boxsim::BoxModel::Options{
                                   boxsim::kHubDevice, "HUB-MCU-V1", "HUB-MCU-V2"})
                             : nullptr),
          service(std::make_unique<ServiceHarness>(
              boxtest::Config(firmware.Path(), hubToo ? hubFirmware->Path() : ""))) {
        service->Register();
        service->Watch(EVENT_EXTEND_UPGRADE_STATE);
        std::vector<pmtest::SerialEntry> entries = {{4, static_cast<uint8_t>(mainId), 0, 1}};
        if (hubToo) {
            entries.push_back({5, 149, 0, 1});
        }
        EXPECT_TRUE(service->SendSetting(SerialSetting(entries)));
        box = Instance(mainId);
        hub = hubToo ? Instance(149) : nullptr;
    }
    CSerialDevExtendBox* Instance(unsigned id) {
        return dynamic_cast<CSerialDevExtendBox*>(
            service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, id, 0));
    }
    // Cycles until every version is known; the clock values are the test's own, three
    // seconds apart, so that boxes which share their timers each take their turn.
    bool BringUp() {
        return WaitUntil([&] {
            bool up = true;
            for (CSerialDevExtendBox* b : {box, hub}) {
                if (b != nullptr) {
                    b->PeripheralThreadCycle(now += 3000);
                    up = up && b->GetPendingSetup() == 0;
                }
            }
            return up;
        });
    }
    // Offers `record` as the recorder's answer to the file request, then triggers.
    void Upgrade(const std::vector<uint8_t>& record, unsigned source = 0) {
        service->Watch(EVENT_GET_EXTEND_UPGRADE_FILE, record);
        Trigger(mainId, source);
    }
    void Trigger(unsigned id, unsigned source) {
        service->Send(EVENT_EXTEND_UPGRADE_TRIGGER, TriggerPayload(id, source));
    }
    // The states broadcast for `id` (the box's by default), in order.
    std::vector<State> States(unsigned id = 0) {
        std::vector<State> out;
        for (const pmtest::BusMessage& m : service->Received(EVENT_EXTEND_UPGRADE_STATE)) {
            if (m.payload[5] == (id == 0 ? mainId : id)) {
                out.push_back({m.payload[0], m.payload[1], static_cast<int8_t>(m.payload[2])});
            }
        }
        return out;
    }
    bool WaitFinal(int state, int source = -1) {
        return service->Pump([&] {
            std::vector<State> s = States();
            if (source >= 0) {
                s.erase(std::remove_if(s.begin(), s.end(),
                                       [&](const State& x) { return x.source != source; }),
                        s.end());
            }
            return !s.empty() && s.back().state == state;
        });
    }
    bool WaitLines(int lines) {
        return service->Pump([&] { return firmware.Commands(0x02) >= lines; });
    }
    bool WaitUpgraded(const std::vector<uint8_t>& image) {
        return service->Pump([&] {
            bool done = false;
            firmware.With([&](boxsim::BoxModel& m) { done = m.UpgradedImage() == image; });
            return done;
        });
    }
    // After the box took END: five seconds after the service read its answer, state 10.
    bool Settle() {
        if (!service->Pump(
                [&] { return service->Logs().Contains("Response end upgrade success"); })) {
            return false;
        }
        box->PeripheralThreadCycle(Common::Q7R_TMGetSystemMicroSecond() + 5001);
        return WaitFinal(10);
    }

    unsigned mainId;
    Firmware firmware;
    std::unique_ptr<Firmware> hubFirmware;
    std::unique_ptr<ServiceHarness> service;
    CSerialDevExtendBox* box = nullptr;
    CSerialDevExtendBox* hub = nullptr;
    long long now = boxtest::FreshClock();
};

std::string Zeros(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) {
        out += " 00";
    }
    return out;
}

std::vector<uint8_t> Record(const std::string& name, const std::vector<uint8_t>& image) {
    return pmtools::UpgradeFileRecord(name, pmtools::MakeUpgradeFile(image, name));
}

// ---- a good upgrade ----

TEST(ExtendBoxUpgrade, TheCheckIsTheUninvertedRegister) {
    const unsigned char digits[] = "123456789";
    EXPECT_EQ(Crc_32(0, digits, 9), 0x2DFD2D88ul);
    EXPECT_EQ(Crc_32(0x2DFD2D88ul, nullptr, 0), 0x2DFD2D88ul) << "no inversion of its own";
}

TEST(ExtendBoxUpgrade, AThousandBytesGoAsSixteenLinesThenEndThenStateTen) {
    Upgradable u;
    ASSERT_NE(u.box, nullptr);
    ASSERT_TRUE(u.BringUp());
    const std::vector<uint8_t> image = Image(1000);
    u.Upgrade(Record("BOX-MCU-V2.CRC", image), 2);
    ASSERT_TRUE(u.WaitUpgraded(image));
    // The file request: location 0, file type 3, the box's flag.
    const std::vector<pmtest::BusMessage> request =
        u.service->Received(EVENT_GET_EXTEND_UPGRADE_FILE);
    ASSERT_EQ(request.size(), 1u);
    EXPECT_TRUE(request[0].head.needAnswer);
    EXPECT_EQ(pmtest::Hex(request[0].payload), "00 03 00 00 56 4B 45 4C" + Zeros(44));
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
    // The state of source 2 on request; a source of 4 or more is nobody's.
    const uint32_t answerId = EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_STATE);
    u.service->Watch(answerId);
    u.service->Send(EVENT_GET_EXTEND_UPGRADE_STATE, std::vector<uint8_t>{4, 0, 1, 0});
    u.service->Send(EVENT_GET_EXTEND_UPGRADE_STATE, std::vector<uint8_t>{2, 0, 1, 0});
    ASSERT_TRUE(u.service->WaitCount(answerId, 1));
    u.service->Flush({u.box->GetMsgClient()});
    ASSERT_EQ(u.service->Count(answerId), 1u);
    const std::vector<uint8_t> record = u.service->Received(answerId)[0].payload;
    ASSERT_EQ(record.size(), 85u);
    EXPECT_EQ(pmtest::Hex(std::vector<uint8_t>(record.begin(), record.begin() + 13)),
              "02 0A 64 00 00 01 00 04 00 00 00 00 00");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data()) + 13),
              "STR_EXTEND_BOX_FLAG");
    EXPECT_EQ(record[61], 4);
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
        // Silent from now on: three keep-alives later it counts as offline. An answer still
        // on its way when the box fell silent starts the count again, so the (simulated)
        // clock runs until the box is offline, not for a number of cycles that assumes none.
        u.firmware.With([](boxsim::BoxModel& m) { m.faults.silent = true; });
        ASSERT_TRUE(pmtest::WaitUntil([&] {
            u.box->PeripheralThreadCycle(u.now += 1000);
            return !u.box->GetCurPeripheralStatus();
        }));
        ASSERT_FALSE(u.box->GetCurPeripheralStatus());
        u.Upgrade(record, 1);
        EXPECT_TRUE(u.WaitFinal(4));
    }
}

// The recorder asks again while an upgrade runs: refused, and the running upgrade goes on to
// its end. 16 KiB take 256 lines, several to a percentage.
TEST(ExtendBoxUpgrade, ARunningUpgradeIsLeftAloneByTriggersThatAreRefused) {
    Upgradable u;
    ASSERT_TRUE(u.BringUp());
    const std::vector<uint8_t> image = Image(16384);
    u.Upgrade(Record("BOX-MCU-V2.CRC", image), 0);
    ASSERT_TRUE(u.WaitLines(10));
    u.Trigger(1, 1);  // busy
    u.Trigger(1, 3);  // no such source
    ASSERT_TRUE(u.WaitFinal(9, 3));
    ASSERT_TRUE(u.WaitFinal(7, 1));
    ASSERT_TRUE(u.WaitUpgraded(image));
    ASSERT_TRUE(u.Settle());
    std::vector<std::string> others;
    int last = 0;
    int told = 0;
    for (const State& s : u.States()) {
        if (s.source != 0) {
            others.push_back(std::to_string(s.source) + ":" + std::to_string(s.state));
        } else if (s.state == 0) {
            EXPECT_GT(s.percent, last) << "a percentage is told once";
            last = s.percent;
            ++told;
        }
    }
    EXPECT_EQ(others, (std::vector<std::string>{"1:7", "3:9"}));
    EXPECT_EQ(told, 100);
    EXPECT_EQ(u.States().back().state, 10);
    EXPECT_EQ(u.firmware.Commands(0x01), 1);
}

TEST(ExtendBoxUpgrade, TheBoxsRefusalsFailTheUpgrade) {
    const struct {
        const char* what;
        std::function<void(boxsim::BoxModel&)> fault;
        int lines;  // lines the box saw
    } cases[] = {
        {"START answered BUSY!", [](boxsim::BoxModel& m) { m.faults.refuseStart = true; }, 0},
        {"line 2 refused", [](boxsim::BoxModel& m) { m.faults.failLine = 2; }, 2},
        {"END refused",
         [](boxsim::BoxModel& m) {
             m.script[0x03] = {0x03, 0x01, 0x00};
         },
         8},
        {"a line acknowledged as the last number there is",
         [](boxsim::BoxModel& m) { m.script[0x02] = {0x02, 0x05, 0x7F, 0xFF, 0xFF, 0xFF, 0x01}; },
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.firmware.With(c.fault);
        u.Upgrade(Record("BOX-MCU-V2.CRC", Image(500)));
        EXPECT_TRUE(u.WaitFinal(9));
        EXPECT_FALSE(u.box->IsUpgrading());
        EXPECT_EQ(u.firmware.Commands(0x02), c.lines);
        EXPECT_EQ(u.States().size(), static_cast<size_t>(c.lines + 1))
            << "one percentage per line sent, then 9";
    }
}

// Ten seconds of silence midway fail the upgrade; answers that come late start nothing.
TEST(ExtendBoxUpgrade, TenSecondsOfSilenceFailAndLateAnswersStartNothing) {
    Upgradable u;
    ASSERT_TRUE(u.BringUp());
    u.firmware.With([](boxsim::BoxModel& m) { m.faults.stopAfterLine = 2; });
    u.Upgrade(Record("BOX-MCU-V2.CRC", Image(1000)));
    // Line 2, never answered, goes out only once the answer to line 1 has been read: the
    // clock below is then later than every answer.
    ASSERT_TRUE(u.WaitLines(2));
    const long long clock = Common::Q7R_TMGetSystemMicroSecond();
    u.box->PeripheralThreadCycle(clock + 5000);
    EXPECT_TRUE(u.box->IsUpgrading());
    u.box->PeripheralThreadCycle(clock + 10001);
    ASSERT_TRUE(u.WaitFinal(9));
    EXPECT_TRUE(u.service->Logs().Contains("S1_EXTEND_BOX: Timeout happen, upgrade timeout"));
    const size_t states = u.States().size();
    const uint8_t dev = boxsim::kBoxDevice;
    u.firmware.Send(boxsim::Answer(dev, 0x01, boxtest::Text(std::string("READY", 6))));
    u.firmware.Send(boxsim::Answer(dev, 0x02, {0, 0, 0, 2, 1}));
    u.firmware.Send(boxsim::Answer(dev, 0x03, {1}));
    // Read after the three above: the version the finished upgrade made the box ask for.
    u.firmware.Send(boxsim::Answer(dev, 0x04, boxtest::Text("BOX-MCU-V1")));
    ASSERT_TRUE(u.service->Pump([&] { return (u.box->GetPendingSetup() & 1) == 0; }));
    u.service->Flush({u.box->GetMsgClient()});
    EXPECT_EQ(u.States().size(), states);
    EXPECT_EQ(u.firmware.Commands(0x03), 0) << "no END for a READY nobody waited for";
    EXPECT_EQ(u.firmware.Commands(0x02), 2);
    u.box->PeripheralThreadCycle(Common::Q7R_TMGetSystemMicroSecond() + 20000);
    u.service->Flush({u.box->GetMsgClient()});
    EXPECT_EQ(u.States().size(), states) << "nothing left to time out";
}

// A box released during its upgrade tells the requester how it ended: failed in the middle
// of the transfer, finished once the box took END (the five seconds after it are a pause).
TEST(ExtendBoxUpgrade, ABoxReleasedMidwayTellsTheRequesterHowItEnded) {
    {
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.firmware.With([](boxsim::BoxModel& m) { m.faults.stopAfterLine = 3; });
        u.Upgrade(Record("BOX-MCU-V2.CRC", Image(1000)), 1);
        ASSERT_TRUE(u.WaitLines(3));
        ASSERT_TRUE(u.service->SendSetting(SerialSetting({})));
        ASSERT_TRUE(u.WaitFinal(9, 1));
    }
    {
        Upgradable u;
        ASSERT_TRUE(u.BringUp());
        u.Upgrade(Record("BOX-MCU-V2.CRC", Image(1000)), 2);
        ASSERT_TRUE(u.service->Pump(
            [&] { return u.service->Logs().Contains("Response end upgrade success"); }));
        ASSERT_TRUE(u.service->SendSetting(SerialSetting({})));
        ASSERT_TRUE(u.WaitFinal(10, 2));
        EXPECT_EQ(u.States().back().percent, 100);
    }
}

// Time-outs come from the manager thread, line answers from the reader thread: each upgrade
// ends with one final state, and nothing follows it.
TEST(ExtendBoxUpgrade, ATimeOutNeverInterleavesWithALine) {
    Upgradable u;
    for (int attempt = 0; attempt < 8; ++attempt) {
        SCOPED_TRACE(attempt);
        ASSERT_TRUE(u.BringUp());
        u.service->ClearReceived();
        const int before = u.firmware.Commands(0x02);
        u.Upgrade(Record("BOX-MCU-V2." + std::to_string(attempt) + ".CRC", Image(6400)));
        ASSERT_TRUE(u.WaitLines(before + 3));
        // Late enough for the time-out whatever the last answer's time, and for the five
        // seconds after END should the transfer have ended first.
        const long long late = Common::Q7R_TMGetSystemMicroSecond() + 3600000;
        for (int i = 0; i < 50; ++i) {
            u.box->PeripheralThreadCycle(late + i);
        }
        u.service->Flush({u.box->GetMsgClient()});
        const std::vector<State> states = u.States();
        auto final = std::find_if(states.begin(), states.end(),
                                  [](const State& s) { return s.state == 9 || s.state == 10; });
        std::string told;
        for (const State& s : states) {
            told += " " + std::to_string(s.state) + ":" + std::to_string(s.percent);
        }
        ASSERT_NE(final, states.end()) << told;
        EXPECT_TRUE(final + 1 == states.end()) << "a state after the final one:" << told;
        EXPECT_FALSE(u.box->IsUpgrading());
    }
}

// ---- a box and a hub on one recorder ----

// Both hear every answer to a file request; only the one that asked takes it.
TEST(UpgradeRouting, OnlyTheBoxThatAskedTakesTheFile) {
    Upgradable u(1, "BOX-MCU-V1", true);
    ASSERT_NE(u.hub, nullptr);
    ASSERT_TRUE(u.BringUp());
    const std::vector<uint8_t> image = Image(6400);
    const std::vector<uint8_t> record = Record("BOX-MCU-V2.CRC", image);
    // Nobody asked: nothing happens.
    u.service->Send(EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), record);
    u.service->Send(EVENT_GET_EXTEND_UPGRADE_STATE, std::vector<uint8_t>{0});
    ASSERT_TRUE(u.service->Pump(
        [&] { return u.service->Logs().Count("Request sv-can upgrade state") == 2; }));
    u.service->Flush({u.box->GetMsgClient()});
    EXPECT_TRUE(u.service->Received(EVENT_EXTEND_UPGRADE_STATE).empty());
    EXPECT_EQ(u.box->GetPendingSetup(), 0u);
    EXPECT_EQ(std::string(u.box->GetVersionText().data()), "BOX-MCU-V1");

    u.Upgrade(record);
    ASSERT_TRUE(u.WaitLines(5));
    u.service->Send(EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), record);  // once more
    ASSERT_TRUE(u.WaitUpgraded(image));
    ASSERT_TRUE(u.Settle());
    EXPECT_EQ(u.firmware.Commands(0x01), 1) << "a second file record does not start it again";
    EXPECT_EQ(u.hubFirmware->Commands(0x01), 0);
    EXPECT_EQ(u.hubFirmware->Commands(0x02), 0);
    EXPECT_TRUE(u.States(149).empty());
    EXPECT_EQ(u.service->Count(EVENT_GET_EXTEND_UPGRADE_FILE), 1u);
}

// Nothing in a file record says whose request it answers: one box waits for a file at a time.
TEST(UpgradeRouting, OneFileRequestAtATime) {
    Upgradable u(1, "BOX-MCU-V1", true);
    ASSERT_TRUE(u.BringUp());
    u.service->Watch(EVENT_GET_EXTEND_UPGRADE_FILE);  // the recorder is slow to answer
    u.Trigger(1, 0);
    ASSERT_TRUE(u.service->WaitCount(EVENT_GET_EXTEND_UPGRADE_FILE, 1));
    u.Trigger(149, 1);
    ASSERT_TRUE(u.service->Pump([&] { return !u.States(149).empty(); }));
    EXPECT_EQ(u.States(149)[0].state, 9) << "final: the requester may ask again";
    EXPECT_FALSE(u.hub->IsUpgrading());
    const std::vector<uint8_t> image = Image(300);
    u.service->Send(EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), Record("BOX-MCU-V2.CRC", image));
    ASSERT_TRUE(u.WaitUpgraded(image));
    ASSERT_TRUE(u.Settle());
    // The box has its file: the hub may ask for one now.
    u.service->ClearReceived();
    u.Trigger(149, 1);
    ASSERT_TRUE(u.service->WaitCount(EVENT_GET_EXTEND_UPGRADE_FILE, 1));
    const std::vector<uint8_t> request =
        u.service->Received(EVENT_GET_EXTEND_UPGRADE_FILE)[0].payload;
    EXPECT_EQ(pmtest::Hex(request), "00 03 00 00 5A 4F 52 56 49 4B" + Zeros(42));
    EXPECT_EQ(u.firmware.Commands(0x01), 1);
    EXPECT_EQ(u.hubFirmware->Commands(0x01), 0);
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
    // A report of 0 is a state like any other.
    hub.firmware.With([&](boxsim::BoxModel& m) { report = m.IoReport(0); });
    hub.firmware.Send(report);
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 3));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[2].payload), "95 00 00 00");
    hub.firmware.With([&](boxsim::BoxModel& m) { report = m.IoReport(5); });
    hub.firmware.Send(report);
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 4));
    // Asked, it answers the state without its ids; 0x25 only ends a command.
    const uint32_t answerId = EventAnswerOf(EVENT_GET_EXTEND_IO_STATE);
    hub.service->Watch(answerId);
    hub.service->Send(EVENT_GET_EXTEND_IO_STATE, std::vector<uint8_t>{0});
    ASSERT_TRUE(hub.service->WaitCount(answerId, 1));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(answerId)[0].payload), "00 00 05 00");
    hub.firmware.Send(boxsim::Answer(boxsim::kHubDevice, 0x25, {}));
    hub.firmware.Send(boxsim::Answer(boxsim::kHubDevice, 0x26, {}));
    ASSERT_TRUE(hub.service->Logs().WaitFor("cmd is not support, cmd = 26"));
    EXPECT_EQ(hub.service->Logs().Count("cmd is not support"), 1u);

    hub.firmware.With([](boxsim::BoxModel& m) { m.faults.silent = true; });
    hub.service->ClearReceived();
    for (int i = 0; i < 5 * 20 && hub.box->GetCurPeripheralStatus(); ++i) {  // 5 x 3 s
        hub.box->PeripheralThreadCycle(hub.now += 200);
    }
    EXPECT_FALSE(hub.box->GetCurPeripheralStatus());
    // Its count starts again at once, so it reads as online in between; nothing answered, and
    // it is not reported offline again before five more keep-alives went unanswered.
    hub.box->PeripheralThreadCycle(hub.now += 200);
    EXPECT_TRUE(hub.box->GetCurPeripheralStatus());
    for (int i = 0; i < 50; ++i) {
        hub.box->PeripheralThreadCycle(hub.now += 200);
    }
    ASSERT_TRUE(hub.service->Flush({hub.box->GetMsgClient()}));
    EXPECT_EQ(hub.service->Count(EVENT_EXTEND_IO_STATE), 1u);
    EXPECT_FALSE(hub.service->Logs().Contains("Extend box online again"));
    EXPECT_TRUE(hub.service->Logs().Contains(
        "S1_EXTEND_BOX_HUB: Timeout is too long, and set can disconnect"));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 1));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_VERSION, 1));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[0].payload), "95 00 00 00");
    const std::vector<uint8_t> version = hub.service->Received(EVENT_EXTEND_VERSION)[0].payload;
    EXPECT_EQ(version[10], 0) << "no version any more";
    EXPECT_EQ(version[37], 0);
    EXPECT_EQ(hub.box->GetPendingSetup(), 3u);
    // It answers again.
    hub.firmware.With([](boxsim::BoxModel& m) { m.faults.silent = false; });
    ASSERT_TRUE(hub.BringUp());
    // The version counts as known a moment before the answer's handling ends.
    ASSERT_TRUE(hub.service->Logs().WaitFor("Extend box online again"));
    EXPECT_EQ(hub.service->Logs().Count("Extend box online again"), 1u);

    // Going away, it says its I/O state is 0.
    hub.service->ClearReceived();
    ASSERT_TRUE(hub.service->SendSetting(SerialSetting({})));
    ASSERT_TRUE(hub.service->WaitCount(EVENT_EXTEND_IO_STATE, 1));
    EXPECT_EQ(pmtest::Hex(hub.service->Received(EVENT_EXTEND_IO_STATE)[0].payload), "95 00 00 00");
}

TEST(HubBox, UpgradesUnderItsOwnIdsThenAsksForItsIoState) {
    Upgradable hub(149, "HUB-MCU-1");
    ASSERT_TRUE(hub.BringUp());
    const std::vector<uint8_t> image = Image(700);
    hub.Upgrade(Record("HUB-MCU-2.CRC", image));
    ASSERT_TRUE(hub.WaitUpgraded(image));
    EXPECT_EQ(hub.firmware.Commands(0x06), 0);
    ASSERT_TRUE(hub.Settle());
    const std::vector<pmtest::BusMessage> states =
        hub.service->Received(EVENT_EXTEND_UPGRADE_STATE);
    EXPECT_EQ(states.back().payload[7], 0x19);
    EXPECT_EQ(hub.service->Logs().Count("S1_EXTEND_BOX_HUB: [UPG] state broadcast"), states.size());
    ASSERT_TRUE(hub.service->Pump([&] { return hub.firmware.Commands(0x06) == 1; }));
    EXPECT_EQ(hub.box->GetPendingSetup() & 1, 1u) << "and its version is read again";
}

// The hub's own commands carry its device byte, sub-port settings included. A hub on a port
// that stays is told of a change three times: before the removals, as the first box, and
// with everybody else.
TEST(HubBox, ItsSubPortsAreSetUnderItsOwnDeviceByte) {
    Upgradable hub(149, "HUB-MCU-1");
    ASSERT_TRUE(hub.BringUp());
    boxtest::AddChild(*hub.service, 8);
    ASSERT_TRUE(hub.service->SendSetting(
        SerialSetting({{4, 149}, {4, 8, 0, uint8_t(SERIAL_BAUD_57600), 0}})));
    ASSERT_TRUE(hub.service->Pump([&] { return hub.firmware.Commands(0x20) == 3; }));
    auto setting = [&] {
        std::string hex;
        hub.firmware.With([&](boxsim::BoxModel& m) { hex = boxsim::ToHex(m.Settings().at(1)); });
        return hex;
    };
    EXPECT_EQ(setting(), "01 06 00 08 02 00") << "at once, the baud rate alone";
    hub.box->PeripheralThreadCycle(hub.now += 3000);
    EXPECT_TRUE(hub.service->Pump([&] { return setting() == "01 06 02 08 04 00"; }))
        << "then whole";
}

}  // namespace
