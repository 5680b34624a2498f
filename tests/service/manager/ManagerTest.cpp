// The manager: its configuration, its thread's start-up gate and polls, its registrations,
// and the getters that peripheral threads call while handlers write.
#include <stdio.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CommonTime.h"
#include "EventNames.h"
#include "PeripheralEvents.h"
#include "ServiceHarness.h"

namespace {

using pmtest::ServiceEnv;
using pmtest::ServiceHarness;
using std::chrono::milliseconds;

// Serial 5 (with a variant), CAN 12 and Ethernet 20, no library for any: every parameter bit
// is awaited.
const char* const kFullConfig = R"({
  "DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": 5, "DEV_SERIAL_LIB_NAME": "libnone",
                             "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 1}]}],
  "DEVICE_CANPORT_SETTING": [{"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libnone",
                              "DEV_CANPORT_SUPPORT_ENABLE": "true"}],
  "DEVICE_ETHERNET_SETTING": [{"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libnone",
                               "DEV_ETHERNET_SUPPORT_ENABLE": "true"}]})";
const char* const kEightChannels = R"({"PRODUCT_TYPE": 6, "VI_CHN_NUM": 4, "DIGITAL_CHN_NUM": 4})";

// ---- configuration ----

TEST(ManagerDeathTest, AMissingConfigurationEndsTheProcessWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, pmtest::DeathTestStyle());
    EXPECT_EXIT(
        {
            ServiceEnv env("");
            Create();
        },
        ::testing::ExitedWithCode(1), "S_MANAGE: Load Peripheral Config failed, and exit!!!");
    EXPECT_EXIT({ ServiceHarness service("{\"DEVICE_SERIAL_SETTING\": ["); },
                ::testing::ExitedWithCode(1), "Get Serial Env failed");
}

// The masks, the records (main/sub/baud/protocol) and the library names the document gave.
std::string Tables(pmtest::TestManage& m) {
    char masks[32];
    snprintf(masks, sizeof(masks), "state %#x kinds %#x", m.m_nParamState, m.m_nCurPeripheral);
    std::string out = masks;
    for (ePeripheralType type :
         {PERIPHERAL_TYPE_SERIAL, PERIPHERAL_TYPE_CANPORT, PERIPHERAL_TYPE_ETHERNET}) {
        std::vector<PeripheralProperty> records;
        m.GetPeripheralConfig(type, records);
        out += " |";
        for (const PeripheralProperty& r : records) {
            out += " " + std::to_string(r.mainId) + "/" + std::to_string(r.subId) + "/" +
                   std::to_string(r.baud) + "/" + std::to_string(r.protocolType);
        }
    }
    out += " | libs";
    for (const auto& [type, names] : m.m_mapPeripheralLibName) {
        for (const auto& name : names) {
            out += " " + std::to_string(type) + ":" + std::to_string(name.first);
        }
    }
    return out;
}

TEST(ManagerConfig, BuildsTablesAndMasks) {
    const struct {
        const char* document;
        const char* tables;
    } cases[] = {
        // Sub functions follow their main entry in order; 4800 and protocol 2 by default.
        {R"({"DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libgps",
              "DEV_SERIAL_BAUD_RATE": "B9600", "DEV_SERIAL_PROTOCOL_TYPE": 1,
              "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 2, "DEV_SERIAL_BAUD_RATE":
              "B115200"}, {"DEV_SERIAL_SUB_FUNCID": 3}]},
              {"DEV_SERIAL_FUNCID": 9, "DEV_SERIAL_LIB_NAME": "libled"}]})",
         "state 0x13 kinds 0x1 | 7/0/1/1 7/2/6/2 7/3/0/2 9/0/0/2 | | | libs 0:7 0:9"},
        // A disabled CAN entry (and "TRUE") gets no record and no library, but the bit stays.
        {R"({"DEVICE_CANPORT_SETTING": [
              {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "a", "DEV_CANPORT_SUPPORT_ENABLE": "false"},
              {"DEV_CANPORT_FUNCID": 13, "DEV_CANPORT_LIB_NAME": "b", "DEV_CANPORT_SUPPORT_ENABLE": "true"},
              {"DEV_CANPORT_FUNCID": 14, "DEV_CANPORT_LIB_NAME": "c", "DEV_CANPORT_SUPPORT_ENABLE": "TRUE"}]})",
         "state 0x15 kinds 0x2 | | 13/0/0/0 | | libs 1:13"},
        // Ethernet names a library and makes no record.
        {R"({"DEVICE_ETHERNET_SETTING": [{"DEV_ETHERNET_FUNCID": 20,
              "DEV_ETHERNET_LIB_NAME": "libeth", "DEV_ETHERNET_SUPPORT_ENABLE": "true"}]})",
         "state 0x19 kinds 0x4 | | | | libs 2:20"},
        {R"({"DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": "7", "DEV_SERIAL_LIB_NAME": "x"}, 3],
             "DEVICE_CANPORT_SETTING": "none", "DEVICE_PERIPHERAL_PARAM_SETTING": []})",
         "state 0x13 kinds 0x1 | | | | libs"},
    };
    for (const auto& c : cases) {
        ServiceHarness service(c.document);
        EXPECT_EQ(Tables(service.Manager()), c.tables) << c.document;
    }
}

TEST(ManagerConfig, MainChipPathsOutsideThePositionsAreSkipped) {
    ServiceHarness service(R"({"DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
        {"PATH": "/dev/ttyAMA2", "POSITION": 4}, {"PATH": "/dev/ttyAMA3", "POSITION": 11},
        {"PATH": "/dev/ttyAMA9", "POSITION": 12}, {"PATH": "/dev/ttyAMA8", "POSITION": -1},
        {"PATH": 5, "POSITION": 6}, {"PATH": "/dev/ttyAMA4"}]}})");
    const SerialParam_t* param = service.Manager().GetSystemSerialParam();
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(param->strSerialPath[i], i == 4    ? "/dev/ttyAMA2"
                                           : i == 11 ? "/dev/ttyAMA3"
                                                     : "")
            << i;
    }
    EXPECT_EQ(service.Logs().Count("S_MANAGE: Main chip serial position out of range"), 2u);
}

// ---- registrations ----

// A USB state message that says a disk is plugged in.
std::vector<uint8_t> UsbState() {
    std::vector<uint8_t> payload(72);
    payload[0] = 1;
    return payload;
}

// The unregistration list is not the mirror of the registrations: the answers 33127, 33129
// and 33051 and the power-down events 8, 1035 and 9 stay registered.
TEST(ManagerBus, UnregistrationLeavesTheForgottenEventsRegistered) {
    const struct {
        int id;
        std::vector<uint8_t> payload;
        const char* needle;  // a line only its handler writes, whatever the payload
        bool stays;
    } events[] = {
        {10, {0x00, 0x1A, 1, 0, 0, 0, 0, 0}, "S_MANAGE: Set debug level", false},
        {1150, {1}, "S_MANAGE: DeviceManage module init state", false},
        {1151, {0}, "S_MANAGE: DeviceManage broadcast cpx release serial", false},
        {1284, std::vector<uint8_t>(6), "S_MANAGE: IPC Video loss state update", false},
        {1052, std::vector<uint8_t>(4), "S_MANAGE: Vi Video loss state update", false},
        {1122, std::vector<uint8_t>(16), "S_MANAGE: Update Led state", false},
        {2053, std::vector<uint8_t>(32), "S_MANAGE: storage status: error_sd", false},
        {6739, {0}, "S_MANAGE: Language changed", false},
        {1060, UsbState(), "Usb plugin  usbInfo", false},
        {33827, UsbState(), "Usb plugin  usbInfo", false},
        {33887, std::vector<uint8_t>(8), "m_ucisPlugIn = 0", false},
        {33127, {0}, "S_MANAGE: OnUpdateCanParamSetting......", true},
        {33051, {0}, "S_MANAGE: FTP param changed", true},
    };
    ServiceHarness service(pmtest::kNoPeripherals, kEightChannels);
    service.Register();
    const char* const kPowerdown = " m_ucTestEnable=";
    auto handled = [&] {
        std::vector<size_t> before;
        for (const auto& e : events) {
            before.push_back(service.Logs().Count(e.needle));
            service.Send(e.id, e.payload);
        }
        // Once the three power-down events are in, every event sent before them is.
        const size_t powerdown = service.Logs().Count(kPowerdown);
        for (int id : {8, 1035, 9}) {
            service.Send(id, {});
        }
        EXPECT_TRUE(
            service.Pump([&] { return service.Logs().Count(kPowerdown) == powerdown + 3; }));
        std::vector<bool> out;
        for (size_t i = 0; i < before.size(); ++i) {
            out.push_back(service.Logs().Count(events[i].needle) > before[i]);
        }
        return out;
    };
    std::vector<bool> all, stays;
    for (const auto& e : events) {
        all.push_back(true);
        stays.push_back(e.stays);
    }
    EXPECT_EQ(handled(), all);
    service.Manager().PhmMessageUnRegister();
    EXPECT_EQ(handled(), stays);
}

// The service and the tools take their ids from one table: everything the service listens to
// has a name there, so pm-bus names it and the recorder simulator can play it.
TEST(ManagerBus, EveryRegisteredEventIsInTheEventTable) {
    ServiceHarness service(pmtest::kNoPeripherals, kEightChannels);
    service.Register();
    const std::vector<int> registered = service.ManagerClient()->RegisteredEvents();
    ASSERT_FALSE(registered.empty());
    for (int id : registered) {
        EXPECT_FALSE(pmtools::NameOfEvent(static_cast<uint32_t>(id)).empty()) << id;
    }
    for (size_t i = 1; i < std::size(kPeripheralEvents); ++i) {
        EXPECT_LT(kPeripheralEvents[i - 1].id, kPeripheralEvents[i].id) << "ascending, unique";
    }
}

// ---- the manager thread: start-up gate and polls ----

class CountingProbe : public CPeripheralBase {
public:
    explicit CountingProbe(CPeripheralManage* manage)
        : CPeripheralBase(manage, manage->GetMsgClient(), PERIPHERAL_TYPE_SERIAL, 5, 0) {
        SetThreadCircleTime(0);
        SetCurPeripOpenStatus(true);
    }
    int PeripheralThreadCycle(long long) override { return ++cycles; }
    std::atomic<int> cycles{0};
};

class ManagerThreadTest : public ::testing::Test {
protected:
    ManagerThreadTest() {
        for (int id : {1149, 315, 319, 359, 361, 283, 1051, 1285, 1121, 1119}) {
            service.Watch(id);
        }
        service.Manager().AddInstance(probe);
    }
    std::vector<int> Ids() const {
        std::vector<int> ids;
        for (const auto& m : service.Received()) {
            ids.push_back(m.id);
        }
        return ids;
    }

    ServiceHarness service{kFullConfig, kEightChannels};
    CountingProbe* probe = new CountingProbe(&service.Manager());  // the manager's
};

TEST_F(ManagerThreadTest, ReadinessGateAsksForTheModuleStateOnly) {
    service.Manager().m_listPeripheralPlugin.push_back(
        {nullptr, nullptr, nullptr, "ghost", nullptr});
    service.Start();
    EXPECT_TRUE(
        service.Logs().Contains("S_MANAGE: Periphral Plugin[ghost] Is NULL, and delete it"));
    ASSERT_TRUE(service.WaitCount(1149, 2));
    const auto events = service.Received();
    EXPECT_EQ(Ids(), (std::vector<int>{1149, 1149}));
    EXPECT_TRUE(events[0].payload.empty());
    EXPECT_GE(events[1].at - events[0].at, milliseconds(1500)) << "one request per 2 s";
    EXPECT_EQ(probe->cycles.load(), 0);
}

TEST_F(ManagerThreadTest, OnlyTheMissingParameterIsAskedAgainOnceASecond) {
    // Ready, and every parameter but the FTP setting.
    service.Watch(1149, std::vector<uint8_t>{0x01});
    service.Watch(315, std::vector<uint8_t>(sizeof(paramSerialSetting_t), 0));
    service.Watch(319, std::vector<uint8_t>(408, 0));
    service.Watch(359, std::vector<uint8_t>(sizeof(paramCanSetting_t), 0));
    service.Watch(361, std::vector<uint8_t>(sizeof(paramPeripheralEtherNet_t), 0));
    service.Start();
    ASSERT_TRUE(service.WaitCount(283, 2));
    for (int id : {315, 319, 359, 361}) {
        EXPECT_GE(service.Count(id), 1u) << id;
    }
    service.ClearReceived();
    ASSERT_TRUE(service.WaitCount(283, 2));
    const auto events = service.Received();
    EXPECT_EQ(Ids(), std::vector<int>(events.size(), 283));
    EXPECT_GE(events[1].at - events[0].at, milliseconds(700));
    EXPECT_EQ(probe->cycles.load(), 0) << "no instance runs before all parameters are in";
}

std::atomic<long long> g_fakeClock{100000};
long long FakeClock() {
    return g_fakeClock.load();
}

// The USB poll counter belongs to the process: this test wants a process of its own (ctest).
TEST_F(ManagerThreadTest, RunningPassPollsEachStateUntilAnsweredAndTheDiskEveryFifthPeriod) {
    Common::SetClockSourceForTest(FakeClock);
    service.Watch(1051, std::vector<uint8_t>(4, 0));
    service.Watch(1121, std::vector<uint8_t>(16, 0));
    service.Start(true);
    // 1285 stays unanswered: it is asked once per period and marks each.
    ASSERT_TRUE(service.WaitCount(1285, 1));
    // The clock moves on only once the manager has the two answers.
    ASSERT_TRUE(service.Logs().WaitFor("S_MANAGE: Vi Video loss state update"));
    ASSERT_TRUE(service.Logs().WaitFor("S_MANAGE: Update Led state"));
    for (size_t period = 1; period <= 6; ++period) {
        g_fakeClock += 1000;
        ASSERT_TRUE(service.WaitCount(1285, period + 1)) << period;
    }
    ASSERT_TRUE(service.WaitCount(1119, 1));
    const std::vector<int> ids = Ids();
    EXPECT_EQ(std::vector<int>(ids.begin(), ids.begin() + 3), (std::vector<int>{1051, 1285, 1121}));
    EXPECT_EQ(service.Count(1051), 1u);
    EXPECT_EQ(service.Count(1121), 1u);
    EXPECT_EQ(std::count(ids.begin(), std::find(ids.begin(), ids.end(), 1119), 1285), 6)
        << "the disk is asked for in the pass of the fifth period";
    EXPECT_EQ(service.Count(1119), 1u);
    EXPECT_GT(probe->cycles.load(), 0);
    Common::SetClockSourceForTest(nullptr);
}

// Once the disk's details have arrived, nobody asks for them again.
TEST_F(ManagerThreadTest, NoDiskNoPoll) {
    // Later than any time the manager's cycle has seen in this process: its timers are the
    // program's, and a poll due must not be hidden by an earlier test's clock.
    g_fakeClock = std::max(g_fakeClock.load(), Common::Q7R_TMGetSystemMicroSecond()) + 1000000000;
    Common::SetClockSourceForTest(FakeClock);
    service.Watch(1051, std::vector<uint8_t>(4, 0));
    service.Watch(1121, std::vector<uint8_t>(16, 0));
    service.Manager().m_ucisPlugIn = 0;
    service.Start(true);
    ASSERT_TRUE(service.WaitCount(1285, 1));
    for (size_t period = 1; period <= 6; ++period) {
        g_fakeClock += 1000;
        ASSERT_TRUE(service.WaitCount(1285, period + 1)) << period;
    }
    EXPECT_EQ(service.Count(1119), 0u);
    Common::SetClockSourceForTest(nullptr);
}

// ---- getters on other threads ----

TEST(ManagerGetters, ReadersNeverSeeHalfWrittenState) {
    ServiceHarness service(kFullConfig, kEightChannels);
    pmtest::TestManage& manage = service.Manager();
    service.Start(true);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, reads{0};
    std::thread reader([&] {
        bool cpxFreed = false;
        while (!stop.load()) {
            uint8_t led[12];
            manage.GetCurSysLedState(led);
            for (int i = 1; i < 10; ++i) {
                torn += led[i] != led[0];
            }
            tag_MsgFtpSetting ftp;
            manage.GetFtpParam(ftp);
            for (size_t i = 1; i < sizeof(ftp.data); ++i) {
                torn += ftp.data[i] != ftp.data[0];
            }
            torn += (manage.GetCurVideoLossState() & ~0x0Fu) != 0;
            torn += manage.GetDebugLevel() > 255;
            const bool occupied = manage.CheckCpxOccupancySerial("/dev/ttyAMA1");
            torn += cpxFreed && occupied;  // once free, it stays free
            cpxFreed = cpxFreed || !occupied;
            ++reads;
        }
    });
    constexpr int kRounds = 150;
    for (int k = 1; k <= kRounds; ++k) {
        const uint8_t v = static_cast<uint8_t>(k);
        service.Send(1122, std::vector<uint8_t>(16, v));
        service.Send(284, std::vector<uint8_t>(416, v));
        service.Send(1052, std::vector<uint8_t>{v, 0, 0, 0});
        service.Send(10, std::vector<uint8_t>{0x00, 0x1A, v, 0, 0, 0, 0, 0});
        if (k == kRounds / 2) {
            const char path[] = "/dev/ttyAMA1";
            service.Send(1151, path, sizeof(path));
        }
    }
    const bool done = service.Pump([&] {
        tag_MsgFtpSetting ftp;
        manage.GetFtpParam(ftp);
        return ftp.data[0] == kRounds && manage.GetDebugLevel() == kRounds;
    });
    stop = true;
    reader.join();
    ASSERT_TRUE(done);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(manage.CheckCpxOccupancySerial("/dev/ttyAMA1"), 0);
}

}  // namespace
