// The manager on the real bus: its registrations, the start-up gate and the polls of its
// running thread, and the getters that peripheral threads call while handlers write.
#include <string.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CommonTime.h"
#include "ManagerHarness.h"

namespace mgrtest {
namespace {

using std::chrono::milliseconds;

// Runs the manager's event wait on the test thread until `pred` holds.
bool Pump(CPeripheralManage& manage, const std::function<bool()>& pred,
          milliseconds timeout = milliseconds(5000)) {
    return pmtest::WaitUntil(
        [&] {
            manage.GetMsgClient()->MSGWaitForEvent(10);
            return pred();
        },
        timeout);
}

// ---- registrations -------------------------------------------------------------------------

struct RegisteredEvent {
    int id;
    const char* needle;         // a log line only its handler writes
    bool stillAfterUnregister;  // the unregistration list forgets it on purpose
};

const RegisteredEvent kRegisteredEvents[] = {
    {10, "S_MANAGE: Set debug level", false},
    {33917, "S_MANAGE: DeviceManage module init state", false},
    {1150, "S_MANAGE: DeviceManage module init state", false},
    {1151, "S_MANAGE: DeviceManage broadcast cpx release serial", false},
    {33083, "S_MANAGE: Serial param has changed", false},
    {316, "S_MANAGE: Serial param has changed", false},
    {33127, "S_MANAGE: OnUpdateCanParamSetting......", true},
    {360, "S_MANAGE: OnUpdateCanParamSetting......", false},
    {33129, "S_MANAGE: Ethernet param has changed", true},
    {362, "S_MANAGE: Ethernet param has changed", false},
    {33087, "S_MANAGE: IPC param has changed", false},
    {320, "S_MANAGE: IPC param has changed", false},
    {1284, "S_MANAGE: IPC Video loss state update", false},
    {34053, "S_MANAGE: IPC Video loss state update", false},
    {1052, "S_MANAGE: Vi Video loss state update", false},
    {33819, "S_MANAGE: Vi Video loss state update", false},
    {33889, "S_MANAGE: Update Led state", false},
    {1122, "S_MANAGE: Update Led state", false},
    {2053, "S_MANAGE: storage status: error_sd", false},
    {1081, nullptr, false},  // seen in the vehicle record
    {33051, "S_MANAGE: FTP param changed", true},
    {284, "S_MANAGE: FTP param changed", false},
    {9, " m_ucTestEnable=", true},
    {8, " m_ucTestEnable=", true},
    {1035, " m_ucTestEnable=", true},
};

// A payload that its handler takes as a change: `round` makes each one differ from the last.
std::vector<uint8_t> PayloadFor(int id, uint8_t round) {
    switch (id) {
        case 10:
            return {0x00, 0x1A, round, 0, 0, 0, 0, 0};
        case 33083:
        case 316: {
            std::vector<uint8_t> serial = Zeros(sizeof(paramSerialSetting_t));
            serial[900] = round;  // the tail only: no instance changes
            return serial;
        }
        case 33129:
        case 362: {
            std::vector<uint8_t> ethernet = Zeros(sizeof(paramPeripheralEtherNet_t));
            ethernet[300] = round;
            return ethernet;
        }
        case 33087:
        case 320: {
            std::vector<uint8_t> ipc = Zeros(408);
            ipc[400] = round;
            return ipc;
        }
        case 1284:
        case 34053:
            return Zeros(6);
        case 1052:
        case 33819:
            return Zeros(4);
        case 33889:
        case 1122:
            return Zeros(16);
        case 1081: {
            std::vector<uint8_t> vehicle = Zeros(56);
            vehicle[5] = round;
            return vehicle;
        }
        default:
            return Zeros(32);
    }
}

bool SameNeedle(const RegisteredEvent& a, const RegisteredEvent& b) {
    return a.needle != nullptr && b.needle != nullptr && strcmp(a.needle, b.needle) == 0;
}

size_t Seen(TestManage& manage, const pmtest::LogCapture& logs, const RegisteredEvent& event,
            uint8_t round) {
    if (event.needle == nullptr) {
        return manage.m_stuVehicleInfo[5] == round ? 1 : 0;
    }
    return logs.Count(event.needle);
}

TEST(ManagerBus, UnregistrationLeavesTheForgottenEvents) {
    ManagerEnv env;
    Recorder recorder({});
    TestManage manage;
    manage.PhmMessageRegister();

    uint8_t round = 1;
    for (const RegisteredEvent& event : kRegisteredEvents) {
        SCOPED_TRACE(event.id);
        const size_t before = Seen(manage, env.Logs(), event, round);
        recorder.Send(event.id, PayloadFor(event.id, round));
        EXPECT_TRUE(Pump(manage, [&] { return Seen(manage, env.Logs(), event, round) > before; }));
        ++round;
    }

    manage.PhmMessageUnRegister();
    // Power-down stays registered: once it is handled, the event sent before it was as well.
    const RegisteredEvent& sentinel =
        kRegisteredEvents[sizeof(kRegisteredEvents) / sizeof(kRegisteredEvents[0]) - 1];
    for (const RegisteredEvent& event : kRegisteredEvents) {
        SCOPED_TRACE(event.id);
        const size_t before = Seen(manage, env.Logs(), event, round);
        const size_t sentinelBefore = env.Logs().Count(sentinel.needle);
        recorder.Send(event.id, PayloadFor(event.id, round));
        recorder.Send(sentinel.id, {});
        const size_t sentinelAfter =
            sentinelBefore + 1 + (event.stillAfterUnregister && SameNeedle(event, sentinel));
        ASSERT_TRUE(
            Pump(manage, [&] { return env.Logs().Count(sentinel.needle) >= sentinelAfter; }));
        size_t handled = Seen(manage, env.Logs(), event, round) - before;
        if (SameNeedle(event, sentinel)) {
            --handled;
        }
        EXPECT_EQ(handled, event.stillAfterUnregister ? 1u : 0u);
        ++round;
    }
}

// ---- start-up gate and polls ---------------------------------------------------------------

const std::vector<int> kRequests = {1149, 315, 319, 359, 361, 283, 1051, 1285, 1121, 1119};
constexpr int kMark = 9000;  // sent by the test on the manager's client to mark a point

class ManagerThreadTest : public ::testing::Test {
protected:
    ManagerThreadTest() : m_recorder(WithMark()), m_manage(std::make_unique<TestManage>()) {
        m_probe = new ProbePeripheral(m_manage.get(), PERIPHERAL_TYPE_SERIAL, 5, 0);
        m_manage->AddInstance(m_probe);
    }
    ~ManagerThreadTest() override { m_manage.reset(); }

    static std::vector<int> WithMark() {
        std::vector<int> ids = kRequests;
        ids.push_back(kMark);
        return ids;
    }

    std::vector<int> StatusRequests() const {
        std::vector<int> out;
        for (int id : m_recorder.Ids()) {
            if (id == 1051 || id == 1285 || id == 1121) {
                out.push_back(id);
            }
        }
        return out;
    }

    ManagerEnv m_env;
    Recorder m_recorder;
    std::unique_ptr<TestManage> m_manage;
    ProbePeripheral* m_probe;  // owned by the manager
};

TEST_F(ManagerThreadTest, WithoutDeviceModuleOnlyItsStateIsAsked) {
    m_manage->Initialize();
    ASSERT_TRUE(m_recorder.WaitCount(1149, 2));
    const auto events = m_recorder.Events();
    for (const auto& event : events) {
        EXPECT_EQ(event.id, 1149);
        EXPECT_EQ(event.message.size(), 16u) << "no payload";
    }
    EXPECT_GE(events[1].at - events[0].at, milliseconds(1500)) << "one request per 2 s";
    EXPECT_GE(m_env.Logs().Count(
                  "S_MANAGE: DeviceManage module is not init success, please wait......\n"),
              2u);
    EXPECT_EQ(m_probe->cycles.load(), 0);
}

TEST_F(ManagerThreadTest, OnlyTheMissingParameterIsAskedAgain) {
    AnswerParameters(m_recorder, false);
    m_manage->Initialize();
    ASSERT_TRUE(m_recorder.WaitCount(283, 2));
    for (int id : {315, 319, 359, 361}) {
        EXPECT_GE(m_recorder.Count(id), 1u) << id;
    }
    m_recorder.Clear();
    ASSERT_TRUE(m_recorder.WaitCount(283, 2));
    const auto events = m_recorder.Events();
    for (const auto& event : events) {
        EXPECT_EQ(event.id, 283);
    }
    EXPECT_GE(events[1].at - events[0].at, milliseconds(700)) << "one request per second";
    EXPECT_EQ(m_probe->cycles.load(), 0) << "no instance runs before all parameters are in";
    EXPECT_TRUE(
        m_env.Logs().Contains("S_MANAGE: Get system param, state = 0x10, please "
                              "waiting......\n"));
}

TEST_F(ManagerThreadTest, RunningPassPollsEachStateUntilAnswered) {
    AnswerParameters(m_recorder);
    m_recorder.SetAnswer(1051, Zeros(4));
    m_recorder.SetAnswer(1121, Zeros(16));
    m_manage->Initialize();
    ASSERT_TRUE(m_recorder.WaitCount(1285, 3));
    const std::vector<int> status = StatusRequests();
    ASSERT_GE(status.size(), 3u);
    EXPECT_EQ(std::vector<int>(status.begin(), status.begin() + 3),
              (std::vector<int>{1051, 1285, 1121}));
    EXPECT_EQ(m_recorder.Count(1051), 1u);
    EXPECT_EQ(m_recorder.Count(1121), 1u);
    EXPECT_GT(m_probe->cycles.load(), 0);
    EXPECT_TRUE(
        m_env.Logs().Contains("S_MANAGE: Get plugin Periphral id: type = 0, mainId = 5, "
                              "subId = 0, name = probe\n"));
}

TEST_F(ManagerThreadTest, IpcChangeAsksForBothVideoLossStatesAgain) {
    AnswerParameters(m_recorder);
    m_recorder.SetAnswer(1051, Zeros(4));
    m_recorder.SetAnswer(1285, Zeros(6));
    m_recorder.SetAnswer(1121, Zeros(16));
    m_manage->Initialize();
    const char* const kDigitalDone = "S_MANAGE: IPC Video loss state update";
    const char* const kAnalogueDone = "S_MANAGE: Vi Video loss state update";
    ASSERT_TRUE(m_env.Logs().WaitFor(kDigitalDone, milliseconds(8000)));
    ASSERT_TRUE(m_env.Logs().WaitFor("S_MANAGE: Update Led state", milliseconds(8000)));
    ASSERT_TRUE(m_env.Logs().WaitFor(kAnalogueDone, milliseconds(8000)));
    m_recorder.Clear();

    std::vector<uint8_t> ipc = Zeros(408);
    ipc[20] = 1;
    m_recorder.Send(320, ipc);
    ASSERT_TRUE(pmtest::WaitUntil([&] {
        return m_env.Logs().Count(kDigitalDone) >= 2 && m_env.Logs().Count(kAnalogueDone) >= 2;
    }));
    // Every pass that could have asked for the LED state is over: mark the end.
    m_manage->GetMsgClient()->MSGSendMessage(0, kMark, 0, nullptr, 0, 10);
    ASSERT_TRUE(m_recorder.WaitCount(kMark, 1));
    EXPECT_EQ(StatusRequests(), (std::vector<int>{1051, 1285}));
}

std::atomic<long long> g_fakeClock{100000};
long long FakeClock() {
    return g_fakeClock.load();
}

TEST_F(ManagerThreadTest, UsbDiskIsAskedForOnTheFifthPeriod) {
    // The poll counter belongs to the process: this test needs a process of its own (ctest).
    Common::SetClockSourceForTest(FakeClock);
    AnswerParameters(m_recorder);
    m_recorder.SetAnswer(1051, Zeros(4));
    m_recorder.SetAnswer(1121, Zeros(16));
    m_manage->Initialize();
    // 1285 stays unanswered: it is asked once per period and marks each.
    ASSERT_TRUE(m_recorder.WaitCount(1285, 1));
    for (size_t period = 1; period <= 6; ++period) {
        g_fakeClock += 1000;
        ASSERT_TRUE(m_recorder.WaitCount(1285, period + 1)) << period;
    }
    ASSERT_TRUE(m_recorder.WaitCount(1119, 1));
    size_t before = 0;
    for (int id : m_recorder.Ids()) {
        if (id == 1119) {
            break;
        }
        before += id == 1285 ? 1 : 0;
    }
    EXPECT_EQ(before, 6u) << "sent in the pass of the fifth period";
    EXPECT_EQ(m_recorder.Count(1119), 1u);
    EXPECT_EQ(m_env.Logs().Count("usb plugin ,send message to get usb disk info\n"), 1u);
    m_manage.reset();
    Common::SetClockSourceForTest(nullptr);
}

TEST(ManagerStart, EmptyConfigurationStillRuns) {
    ManagerEnv env(R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
                       "DEVICE_ETHERNET_SETTING": []})");
    Recorder recorder({1149});
    TestManage manage;
    manage.m_listPeripheralPlugin.push_back(
        PeripheralProperty_t{nullptr, nullptr, nullptr, "ghost", nullptr});
    EXPECT_EQ(manage.Initialize(), 0);
    EXPECT_TRUE(env.Logs().Contains("S_MANAGE: @@@@@ No Peripheral......\n"));
    EXPECT_TRUE(env.Logs().Contains("S_MANAGE: Periphral Plugin[ghost] Is NULL, and delete it\n"));
    EXPECT_TRUE(manage.m_listPeripheralPlugin.empty());
    EXPECT_TRUE(recorder.WaitCount(1149, 1));
}

// ---- getters on other threads --------------------------------------------------------------

TEST(ManagerGetters, ReadersNeverSeeHalfWrittenState) {
    ManagerEnv env(kFullConfig, SystemConfig(6));
    Recorder recorder(kRequests);
    AnswerParameters(recorder);
    recorder.SetAnswer(1051, Zeros(4));
    recorder.SetAnswer(1285, Zeros(6));
    recorder.SetAnswer(1121, Zeros(16));
    TestManage manage;
    manage.Initialize();

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::atomic<int> cpxFreed{0};
    std::thread reader([&] {
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
            const unsigned int loss = manage.GetCurVideoLossState();
            torn += (loss & ~0x0Fu) != 0;
            torn += manage.GetDebugLevel() > 255;
            const int occupied = manage.CheckCpxOccupancySerial("/dev/ttyAMA1");
            torn += cpxFreed.load() && occupied;  // once free, it stays free
            cpxFreed = cpxFreed.load() || !occupied;
            torn += manage.GetTotalChnNum() != 8;
            ++reads;
        }
    });

    constexpr int kRounds = 150;
    for (int k = 1; k <= kRounds; ++k) {
        const uint8_t v = static_cast<uint8_t>(k);
        recorder.Send(1122, std::vector<uint8_t>(16, v));
        recorder.Send(284, std::vector<uint8_t>(416, v));
        recorder.Send(1052, std::vector<uint8_t>{v, 0, 0, 0});
        recorder.Send(10, std::vector<uint8_t>{0x00, 0x1A, v, 0, 0, 0, 0, 0});
        if (k == kRounds / 2) {
            const char path[] = "/dev/ttyAMA1";
            recorder.Send(1151, path, sizeof(path));
        }
    }
    const bool done = pmtest::WaitUntil(
        [&] {
            tag_MsgFtpSetting ftp;
            manage.GetFtpParam(ftp);
            return ftp.data[0] == kRounds && manage.GetDebugLevel() == kRounds;
        },
        milliseconds(8000));
    stop = true;
    reader.join();
    ASSERT_TRUE(done);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(manage.CheckCpxOccupancySerial("/dev/ttyAMA1"), 0);
    uint8_t led[12];
    manage.GetCurSysLedState(led);
    EXPECT_EQ(led[0], kRounds);
}

}  // namespace
}  // namespace mgrtest
