// Boxes and their sub-ports come and go while bytes flow: a released child is out of every
// box's reach before its releaser runs, a sub-port forgets a father that goes, a box never
// becomes its own sub-port, and what the reader thread hands over goes to the slot's owner as
// checked. The test thread is the manager thread (no manager thread runs); the serial reader
// thread delivers from real pseudo-terminals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "BoxTestSupport.h"
#include "PeripheralEvents.h"
#include "UpgradeFile.h"

namespace {

using boxtest::AddChild;
using boxtest::BoxEnd;
using boxtest::Child;
using boxtest::kChildId;
using boxtest::kOtherChildId;
using boxtest::ReachableAtRelease;
using pmtest::SerialEntry;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

// Two lines: ports 4 and 5 of the main chip.
struct TwoLines {
    TwoLines() : service(boxtest::Config(port4.line.SlavePath(), port5.line.SlavePath())) {
        service.Register();
        ReachableAtRelease() = 0;
    }
    CSerialDevExtendBox* Box(unsigned mainId = PERIPHERAL_MAINID_EXTEND_BOX) {
        return dynamic_cast<CSerialDevExtendBox*>(
            service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, mainId, 0));
    }
    // The setting, then children of the given ids as the loader would make them, then the
    // boxes told so that their tables hold the children.
    void Place(const std::vector<SerialEntry>& entries, const std::vector<unsigned>& children) {
        ASSERT_TRUE(service.SendSetting(SerialSetting(entries)));
        for (unsigned id : children) {
            AddChild(service, id);
        }
        for (unsigned boxId : {PERIPHERAL_MAINID_EXTEND_BOX, PERIPHERAL_MAINID_EXTEND_HUB_BOX}) {
            if (CSerialDevExtendBox* box = Box(boxId)) {
                box->HandlePeripParamChange();
            }
        }
    }
    Child* ChildOf(unsigned mainId, unsigned subId = 0) {
        return dynamic_cast<Child*>(
            service.Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, mainId, subId));
    }

    BoxEnd port4;
    BoxEnd port5;
    ServiceHarness service;
};

boxsim::Frame SubPortData(int subId, const std::string& bytes) {
    boxsim::Frame frame;
    frame.address = static_cast<uint8_t>(0x80 | subId);
    frame.device = 0x33;
    frame.body.assign(bytes.begin(), bytes.end());
    return frame;
}

// ---- children that go ----

TEST(BoxLifetime, AChildIsOutOfEveryBoxsReachBeforeItIsReleased) {
    const uint8_t child = kChildId;
    {
        SCOPED_TRACE("a kept box whose sub-port moves to another slot");
        TwoLines t;
        t.Place({{4, 1}, {4, child, 0, 1, 0}}, {kChildId});
        ASSERT_EQ(t.Box()->GetChild(0), t.ChildOf(kChildId));
        ASSERT_TRUE(t.service.SendSetting(SerialSetting({{4, 1}, {4, child, 0, 1, 1}})));
        EXPECT_EQ(ReachableAtRelease(), 0);
        EXPECT_EQ(t.Box()->GetChildCount(), 0u) << "the moved child is not made anew here";
    }
    {
        SCOPED_TRACE("a box that moves to another port with the same sub-ports");
        TwoLines t;
        t.Place({{4, 1}, {4, child, 0, 1, 0}}, {kChildId});
        ASSERT_TRUE(t.service.SendSetting(SerialSetting({{5, 1}, {5, child, 0, 1, 0}})));
        EXPECT_EQ(ReachableAtRelease(), 0);
        ASSERT_NE(t.Box(), nullptr);
        EXPECT_EQ(t.Box()->GetParamId(), 5);
    }
    {
        SCOPED_TRACE("a sub-port that moves is not set up from its old instance");
        TwoLines t;
        t.Place({{4, 1}, {4, 8, 0, 1, 0}}, {8});
        EXPECT_EQ(t.port4.Drain(), (std::vector<std::string>{"20 06 01 03 00 08 02 00"}));
        ASSERT_TRUE(t.service.SendSetting(SerialSetting({{4, 1}, {4, 8, 0, 1, 1}})));
        EXPECT_EQ(t.port4.Drain(), std::vector<std::string>{})
            << "its library is missing: nothing is there to set up";
        EXPECT_EQ(ReachableAtRelease(), 0);
    }
    {
        SCOPED_TRACE("a sub-port switched through the loader");
        TwoLines t;
        t.Place({{4, 1}, {4, child, 0, 1, 0}}, {kChildId});
        ASSERT_EQ(t.service.Manager().LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, kChildId, 0,
                                                           kChildId, 1),
                  0);
        EXPECT_EQ(ReachableAtRelease(), 0);
        EXPECT_EQ(t.Box()->GetChild(0), nullptr);
        // What arrives for the slot meanwhile goes nowhere.
        t.port4.Send(SubPortData(1, "late"));
        t.port4.Answer(0x07, {1});
        EXPECT_TRUE(WaitUntil([&] { return t.service.Logs().Contains("Dispatch serial data"); }));
    }
}

// A sub-port forgets a father that goes, and takes a box that stays, as it would if it were
// made now.
TEST(BoxLifetime, ASubPortForgetsAFatherThatGoes) {
    {
        SCOPED_TRACE("a hub stays");
        TwoLines t;
        // With a box and a hub both present, the hub's sub-ports take the box as their father.
        t.Place({{4, 1}, {5, 149}, {5, uint8_t(kChildId), 0, 1, 2}}, {kChildId});
        Child* child = t.ChildOf(kChildId);
        ASSERT_NE(child, nullptr);
        ASSERT_EQ(child->GetFatherSerial(), t.Box());
        ASSERT_TRUE(
            t.service.SendSetting(SerialSetting({{5, 149}, {5, uint8_t(kChildId), 0, 1, 2}})));
        ASSERT_EQ(t.Box(), nullptr);
        ASSERT_EQ(t.ChildOf(kChildId), child) << "the sub-port itself stays";
        EXPECT_EQ(child->GetFatherSerial(), t.Box(PERIPHERAL_MAINID_EXTEND_HUB_BOX));
        t.port5.Drain(std::chrono::milliseconds(50));
        EXPECT_EQ(child->SendDataToPeripheral("x", 1), 1);
        const boxsim::Frame frame = t.port5.Next();
        EXPECT_EQ(frame.address, 0x83);
        EXPECT_EQ(boxsim::ToHex(frame.body), "78");
    }
    {
        SCOPED_TRACE("no box stays");
        TwoLines t;
        t.Place({{4, 1}, {6, uint8_t(kChildId), 0, 1, 0}}, {kChildId});
        Child* child = t.ChildOf(kChildId);
        ASSERT_EQ(child->GetFatherSerial(), t.Box());
        ASSERT_TRUE(t.service.SendSetting(SerialSetting({{6, uint8_t(kChildId), 0, 1, 0}})));
        EXPECT_EQ(child->GetFatherSerial(), nullptr);
        EXPECT_EQ(child->SendDataToPeripheral("x", 1), -1);
        EXPECT_TRUE(t.service.Logs().Contains("S_BASE: FatherSerialPrt is NULL"));
    }
}

// ---- settings that would tie a box to itself ----

TEST(BoxLifetime, ABoxOrHubOnASubPortIsRefused) {
    TwoLines t;
    ASSERT_TRUE(t.service.SendSetting(SerialSetting(
        {{4, 1}, {4, 1, 0, 1, 0}, {4, 149, 0, 1, 1}, {4, uint8_t(kChildId), 0, 1, 2}})));
    EXPECT_EQ(t.service.Logs().Count("S_MANAGE: Extend box on a sub serial refused"), 2u);
    EXPECT_EQ(t.service.Manager().LiveIds(), std::vector<std::string>{"0:1:0"})
        << "no hub is made for the refused entry";
    AddChild(t.service, kChildId);
    CSerialDevExtendBox* box = t.Box();
    box->HandlePeripParamChange();
    EXPECT_EQ(box->GetChild(0), nullptr);
    EXPECT_EQ(box->GetChild(1), nullptr);
    EXPECT_EQ(box->GetChild(2), t.ChildOf(kChildId));
    // Frames for the refused slots go nowhere, and the line keeps working.
    t.port4.Send(SubPortData(1, "to the box itself?"));
    t.port4.Send(SubPortData(3, "ok"));
    t.port4.Answer(0x04, boxtest::Text("BOX-MCU-1"));
    EXPECT_TRUE(WaitUntil([&] { return (box->GetPendingSetup() & 1) == 0; }));
    EXPECT_EQ(t.ChildOf(kChildId)->Received(), "ok");

    // Taking the refused entries away again removes nothing.
    ASSERT_TRUE(t.service.SendSetting(SerialSetting({{4, 1}, {4, uint8_t(kChildId), 0, 1, 2}})));
    EXPECT_EQ(t.Box(), box);
}

// ---- the hand-over ----

// The reader thread delivers sub-port frames while the manager gives their slot now to an
// open child, now to a closed one: the closed one never gets a byte.
TEST(BoxLifetime, ASlotsDataGoesOnlyToAnOpenOwnerAsChecked) {
    TwoLines t;
    t.Place({{4, 1}, {4, uint8_t(kChildId), 0, 1, 0}}, {kChildId, kOtherChildId});
    CSerialDevExtendBox* box = t.Box();
    Child* open = t.ChildOf(kChildId);
    Child* closed = t.ChildOf(kOtherChildId);
    closed->SetCurPeripOpenStatus(false);
    ASSERT_TRUE(open->GetCurPeripOpenStatus());

    std::atomic<bool> done{false};
    std::thread sender([&] {
        const boxsim::Frame frame = SubPortData(1, "d");
        for (int i = 0; i < 10000; ++i) {
            t.port4.Send(frame);
        }
        done = true;
    });
    SerialPortEntry_t& port = t.service.Manager().m_stuSystemSerialParam.stuSerialSetting.port[4];
    for (int i = 0; !done; ++i) {
        port.extend[0].mainFun = static_cast<uint8_t>(i % 2 == 0 ? kOtherChildId : kChildId);
        box->HandlePeripParamChange();
    }
    sender.join();
    EXPECT_EQ(closed->Received(), "");
    EXPECT_FALSE(open->Received().empty());
}

// ---- state reports ----

// Every valid answer marks the line alive (6820, status 7) on the reader thread, while the
// manager rewrites the serial record that a report reads and reports states of its own.
TEST(BoxLifetime, StateReportsFromTheReaderAndTheManagerDoNotRace) {
    TwoLines t;
    t.service.Watch(EVENT_SERIAL_CONFIG_STATUS);
    t.Place({{4, 149}}, {});
    CSerialDevExtendBox* hub = t.Box(PERIPHERAL_MAINID_EXTEND_HUB_BOX);
    ASSERT_NE(hub, nullptr);
    std::atomic<bool> stop{false};
    std::thread line([&] {
        for (int i = 0; i < 20000 && !stop; ++i) {
            t.port4.Answer(0x07, {1}, boxsim::kHubDevice);
        }
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(t.service.SendSetting(
            SerialSetting({{4, 149}, {6, uint8_t(kChildId), 0, uint8_t(1 + round % 2)}})));
        hub->SetSerialConfigStatus(5, 0, 0);
        t.service.Logs().Clear();
    }
    stop = true;
    line.join();
    // The reports travel on the hub's own client, which Flush() does not cover, and the
    // answers still queued on the line mark it alive again after the last 5.
    auto statuses = [&] {
        std::set<int> seen;
        for (const pmtest::BusMessage& m : t.service.Received(EVENT_SERIAL_CONFIG_STATUS)) {
            seen.insert(m.payload.size() > 5 ? m.payload[5] : -1);
        }
        return seen;
    };
    EXPECT_TRUE(t.service.Pump([&] {
        return statuses() == std::set<int>{5, 7};
    })) << "statuses seen: "
        << statuses().size();
    for (const pmtest::BusMessage& m : t.service.Received(EVENT_SERIAL_CONFIG_STATUS)) {
        ASSERT_EQ(m.payload.size(), 80u);
        EXPECT_EQ(m.payload[1], 149);
        EXPECT_EQ(m.payload[0], 0) << "port 4 is the user's 232-1";
    }
}

// ---- a hostile session ----

// The setting moves boxes, hubs and sub-ports at random while both lines carry sub-port data,
// answers nobody asked for and late upgrade answers, and the bus brings triggers and file
// records. Under AddressSanitizer this is the run that finds a link to freed memory; in every
// build no release may find its instance still reachable, and the service must still answer.
TEST(BoxLifetime, AHostileSessionLeavesNoLinkToWhatIsGone) {
    TwoLines t;
    const std::string name = "BOX-MCU-V9.CRC";
    std::vector<uint8_t> image(300, 0x5A);
    t.service.Watch(EVENT_GET_EXTEND_UPGRADE_FILE,
                    pmtools::UpgradeFileRecord(name, pmtools::MakeUpgradeFile(image, name)));
    std::mt19937 random(20261125);
    const uint8_t kSubIds[] = {0, uint8_t(kChildId), uint8_t(kOtherChildId), 8, 12};

    std::atomic<bool> stop{false};
    auto noise = [&](BoxEnd& end, unsigned seed) {
        std::mt19937 r(seed);
        const std::vector<std::vector<uint8_t>> answers = {{0x01, 6, 'R', 'E', 'A', 'D', 'Y', 0},
                                                           {0x02, 5, 0, 0, 0, 1, 1},
                                                           {0x02, 5, 0x7F, 0xFF, 0xFF, 0xFF, 1},
                                                           {0x03, 1, 1},
                                                           {0x04, 5, 'M', 'C', 'U', '-', '1'},
                                                           {0x07, 1, 1},
                                                           {0x33, 2, 0, 0x5A},
                                                           {0x25, 0},
                                                           {0xA0, 1, 1},
                                                           {0x20, 1, 1}};
        // A line whose port is closed fills up: its noise is dropped, never waited for.
        const int master = end.line.Master();
        const int flags = fcntl(master, F_GETFL);
        fcntl(master, F_SETFL, flags | O_NONBLOCK);
        while (!stop) {
            boxsim::Frame frame = SubPortData(1 + r() % 4, "noise");
            if (r() % 3 != 0) {
                frame.device = r() % 2 == 0 ? boxsim::kBoxDevice : boxsim::kHubDevice;
                frame.body = answers[r() % answers.size()];
            }
            const std::vector<uint8_t> bytes = boxsim::Encode(frame);
            if (write(master, bytes.data(), bytes.size()) < 0) {
                continue;  // full
            }
            end.line.Receive(4096, std::chrono::milliseconds(1));  // the service's frames
        }
        fcntl(master, F_SETFL, flags);
    };
    std::thread line4(noise, std::ref(t.port4), 4u);
    std::thread line5(noise, std::ref(t.port5), 5u);

    long long clock = boxtest::FreshClock();
    std::vector<uint8_t> previous = pmtest::Bytes(SerialSetting({}));
    for (int step = 0; step < 120; ++step) {
        std::vector<SerialEntry> entries;
        std::set<unsigned> wanted;
        for (int port : {4, 5}) {
            const unsigned kind = random() % 3;
            if (kind == 0) {
                continue;
            }
            entries.push_back({port, uint8_t(kind == 1 ? 1 : 149)});
            for (int slot = 0; slot < 4; ++slot) {
                const uint8_t id = kSubIds[random() % 5];
                if (id != 0 && wanted.insert(id).second) {
                    entries.push_back({port, id, 0, 1, slot});
                }
            }
        }
        // A setting equal to the one before changes nothing and is not reconciled.
        const std::vector<uint8_t> setting = pmtest::Bytes(SerialSetting(entries));
        if (setting != previous) {
            ASSERT_TRUE(t.service.SendSetting(setting)) << "step " << step;
            previous = setting;
        }
        for (unsigned id : wanted) {
            if (t.ChildOf(id) == nullptr && random() % 2 == 0) {
                AddChild(t.service, id);
            }
        }
        for (unsigned id : {1u, 149u}) {
            if (CSerialDevExtendBox* box = t.Box(id)) {
                box->PeripheralThreadCycle(clock += 2000 + random() % 9000);
            }
        }
        for (unsigned id : wanted) {
            if (Child* child = t.ChildOf(id)) {
                child->SendDataToPeripheral("up", 2);
            }
        }
        switch (random() % 4) {
            case 0:  // a sub-port switched to another variant and back by the loader
                for (unsigned from : {0u, 1u}) {
                    if (t.ChildOf(kChildId, from) != nullptr) {
                        t.service.Manager().LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, kChildId,
                                                                 from, kChildId, 1 - from);
                        break;
                    }
                }
                break;
            case 1:
                for (unsigned id : {1u, 149u}) {
                    std::vector<uint8_t> trigger(16, 0);
                    trigger[1] = static_cast<uint8_t>(id);
                    trigger[9] = static_cast<uint8_t>(random() % 5);
                    t.service.Send(EVENT_EXTEND_UPGRADE_TRIGGER, trigger);
                }
                break;
            case 2:
                t.service.Send(
                    EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE),
                    pmtools::UpgradeFileRecord(name, pmtools::MakeUpgradeFile(image, name)));
                break;
            default:
                break;
        }
        t.service.Pump([] { return false; }, std::chrono::milliseconds(5));
    }
    stop = true;
    line4.join();
    line5.join();
    EXPECT_EQ(ReachableAtRelease(), 0);

    // Still in service: a box on port 4 answers as a box.
    ASSERT_TRUE(t.service.SendSetting(SerialSetting({{4, 1}})));
    t.port4.Drain(std::chrono::milliseconds(50));
    t.Box()->PeripheralThreadCycle(clock += 10000);
    EXPECT_FALSE(t.port4.Drain().empty());
}

}  // namespace
