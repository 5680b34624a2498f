// The simulator on a real bus, seen from the service's side: answers, change events, the MCU
// relay through real ptys and the CAN module.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "BusPeer.h"
#include "Records.h"
#include "RecorderRoot.h"
#include "Simulator.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using namespace pmrecorder;
using pmtest::BusPeer;
using pmtest::WaitUntil;

constexpr uint32_t kSentinel = 6739;  // sent last: everything before it has arrived with it

Scenario Parse(const std::string& json) {
    Scenario s;
    std::string error;
    if (!ParseScenarioText(json, s, error)) {
        throw std::runtime_error(error);
    }
    return s;
}

// Reads from `fd` until `size` bytes came or two seconds passed.
std::string ReadSome(int fd, size_t size) {
    std::string got;
    for (int round = 0; round < 200 && got.size() < size; ++round) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 10) == 1) {
            char buffer[256];
            ssize_t n = read(fd, buffer, sizeof(buffer));
            if (n > 0) {
                got.append(buffer, static_cast<size_t>(n));
            }
        }
    }
    return got;
}

class SimulatorTest : public ::testing::Test {
protected:
    void Start(const std::string& json) {
        m_scenario = Parse(json);
        SimulatorOptions o;
        o.root = m_root.Path();
        o.mainChipBridges = true;
        o.verbosity = 2;
        o.log = [this](const std::string& line) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_log.push_back(line);
        };
        o.candump = [this](const std::string& line) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_candump.push_back(line);
        };
        o.wallUs = [] { return int64_t{1700000000123456}; };
        m_sim = std::make_unique<Simulator>(o);
        std::string error;
        ASSERT_TRUE(m_sim->Start(m_scenario, error)) << error;
    }
    // Sends the sentinel through the simulator and waits for it: the simulator's earlier
    // messages have then all arrived.
    void Drain() {
        m_service.Record(kSentinel);
        size_t before = m_service.Seen(kSentinel).size();
        ASSERT_TRUE(m_sim->Execute("send 6739").ok);
        ASSERT_TRUE(m_service.WaitFor(kSentinel, before + 1));
    }
    std::vector<std::string> Candump() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_candump;
    }
    std::string WriteScenario(const std::string& name, const std::string& json) {
        return m_root.Write(name, json);
    }

    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_root;
    BusPeer m_service;
    Scenario m_scenario;
    std::mutex m_lock;
    std::vector<std::string> m_log;
    std::vector<std::string> m_candump;
    std::unique_ptr<Simulator> m_sim;
};

const char kFullScenario[] = R"({
    "serial": [{"index": 0, "main": 3, "sub": 1, "baud": "B4800"},
               {"index": 4, "main": 34, "baud": "B57600"}],
    "can": [{"index": 1, "main": 12}],
    "ethernet": [{"index": 0, "main": 20, "ip": "127.0.0.1", "port": 5020}],
    "ipc": {"channels": [{"digital": true, "protocol": 2}]},
    "videoLoss": [1], "led": {"gps": 1},
    "udisk": {"mount": "/media/usb0"},
    "mcuPorts": [{"index": 0, "link": "dev/mcu-port0"}]
})";

struct AnswerCase {
    uint32_t request;
    uint32_t answer;
    Bytes (*expected)(const Scenario&);
};

void PrintTo(const AnswerCase& c, std::ostream* os) {
    *os << c.request;
}

Bytes Ready(const Scenario&) {
    return EncodeDeviceModuleState(true);
}
Bytes Disk(const Scenario& s) {
    return EncodeUDiskInfo(s.udisk, s.udisk.mount);
}

const AnswerCase kAnswerCases[] = {
    {1149, 33917, Ready},
    {315, 33083, EncodeSerialSetting},
    {319, 33087, EncodeIpcSetting},
    {359, 33127, EncodeCanSetting},
    {361, 33129, EncodeEthernetSetting},
    {283, 33051, EncodeFtpSetting},
    {1051, 33819, EncodeVideoLoss},
    {1285, 34053, EncodeDigitalVideoLoss},
    {1121, 33889, EncodeLedState},
    {1119, 33887, Disk},
};

class AnswerTest : public SimulatorTest, public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(AnswerTest, CarriesTheRequestsSeqAndTheRecord) {
    const AnswerCase& c = GetParam();
    BusPeer monitor(99);
    monitor.Record(c.request);
    m_service.Record(c.answer);
    Start(kFullScenario);
    m_service.Send(c.request, {}, true);
    ASSERT_TRUE(m_service.WaitFor(c.answer));
    ASSERT_TRUE(monitor.WaitFor(c.request));
    pmtest::SeenMessage answer = m_service.Seen(c.answer)[0];
    EXPECT_EQ(answer.head.nSeq, monitor.Seen(c.request)[0].head.nSeq);
    EXPECT_EQ(answer.head.isAnswer, 1u);
    EXPECT_EQ(answer.payload, c.expected(m_scenario));
}

INSTANTIATE_TEST_SUITE_P(Simulator, AnswerTest, ::testing::ValuesIn(kAnswerCases));

TEST_F(SimulatorTest, TheDeviceModuleAnswersNotReadyUntilItBecomesReady) {
    m_service.Record(kEvDeviceModule);
    m_service.Record(kEvGetDeviceModule | 0x8000);
    Start(R"({"ready": "never"})");
    m_service.Send(kEvGetDeviceModule, {}, true);
    ASSERT_TRUE(m_service.WaitFor(kEvGetDeviceModule | 0x8000));
    EXPECT_EQ(m_service.Seen(kEvGetDeviceModule | 0x8000)[0].payload[0], 0);
    EXPECT_TRUE(m_service.Seen(kEvDeviceModule).empty());

    EXPECT_TRUE(m_sim->Execute("ready 1").ok);
    ASSERT_TRUE(m_service.WaitFor(kEvDeviceModule));
    EXPECT_EQ(m_service.Seen(kEvDeviceModule)[0].payload, EncodeDeviceModuleState(true));
    m_service.Send(kEvGetDeviceModule, {}, true);
    ASSERT_TRUE(m_service.WaitFor(kEvGetDeviceModule | 0x8000, 2));
    EXPECT_EQ(m_service.Seen(kEvGetDeviceModule | 0x8000)[1].payload[0], 1);
}

TEST_F(SimulatorTest, ADelayedModuleBroadcastsReadyAndThenReleasesTheCpxTty) {
    m_service.Record(kEvDeviceModule);
    m_service.Record(kEvCpxRelease);
    Start(R"({"ready": 50, "cpxRelease": {"path": "/dev/ttyAMA1", "afterMs": 20}})");
    ASSERT_TRUE(m_service.WaitFor(kEvCpxRelease));
    EXPECT_EQ(m_service.SeenIds(), (std::vector<uint32_t>{kEvDeviceModule, kEvCpxRelease}));
    EXPECT_STREQ(reinterpret_cast<const char*>(m_service.Seen(kEvCpxRelease)[0].payload.data()),
                 "/dev/ttyAMA1");
}

TEST_F(SimulatorTest, ApplySendsTheChangeEventsOfWhatChangedOnly) {
    for (uint32_t id : {316u, 360u, 362u, 320u, 284u, 1052u, 1284u, 1122u, 2053u, 1081u}) {
        m_service.Record(id);
    }
    Start(kFullScenario);
    std::string changed = kFullScenario;
    changed.replace(changed.find("B57600"), 6, "B115200");
    changed.replace(changed.find("\"gps\": 1"), 8, "\"gps\": 0");
    auto reply = m_sim->Execute("apply " + WriteScenario("changed.json", changed));
    ASSERT_TRUE(reply.ok) << reply.text;
    Drain();
    EXPECT_EQ(m_service.SeenIds(), (std::vector<uint32_t>{316, 1122, kSentinel}));
    EXPECT_EQ(m_service.Seen(316)[0].payload[72 * 4 + 1], 6) << "the new baud code";

    auto bad = m_sim->Execute("apply " + WriteScenario("bad.json", "{\"serial\": 1}"));
    EXPECT_FALSE(bad.ok);
    EXPECT_NE(bad.text.find("serial: must be a list"), std::string::npos) << bad.text;
}

TEST_F(SimulatorTest, TheApplyCommandReachesARunningSimulatorOverTheBus) {
    m_service.Record(kEvLed);
    Start(kFullScenario);
    std::string changed = kFullScenario;
    changed.replace(changed.find("\"gps\": 1"), 8, "\"gps\": 0");
    pmtest::TempDir out;
    auto run = pmtest::RunTool(pmtest::BinDir() + "/pm-recorder",
                               {"apply", WriteScenario("changed.json", changed)}, out.Path());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("applied"), std::string::npos) << run.out;
    EXPECT_TRUE(m_service.WaitFor(kEvLed));
}

TEST_F(SimulatorTest, TheCommandRunsAScenarioAndEndsOnQuitFromTheBus) {
    m_service.Record(kEvGetSerial | 0x8000);
    pmtest::TempDir out;
    std::string scenario = WriteScenario("s.json", R"({"serial": [{"index": 4, "main": 34}]})");
    pmtest::ToolProcess sim(pmtest::BinDir() + "/pm-recorder",
                            {"--no-broker", "--root", m_root.Path(), scenario}, out.Path());
    ASSERT_TRUE(sim.WaitErr("running")) << sim.Err();
    m_service.Send(kEvGetSerial, {}, true);
    ASSERT_TRUE(m_service.WaitFor(kEvGetSerial | 0x8000));
    EXPECT_EQ(m_service.Seen(kEvGetSerial | 0x8000)[0].payload[72 * 4], 34);
    auto quit = pmtest::RunTool(pmtest::BinDir() + "/pm-recorder", {"ctl", "quit"}, out.Path());
    EXPECT_EQ(quit.status, 0) << quit.err;
    EXPECT_EQ(sim.WaitExit(), 0) << sim.Err();
}

TEST_F(SimulatorTest, McuRelayCarriesBytesBothWaysThroughThePty) {
    m_service.Record(kEvMcuReceive);
    Start(kFullScenario);
    int fd = open(m_sim->McuLinkPath(0).c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0) << m_sim->McuLinkPath(0);

    Bytes send = {3, 0, 1, 0, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'};
    m_service.Send(kEvMcuSend, send, false, 10301);
    EXPECT_EQ(ReadSome(fd, 5), "hello");

    ASSERT_EQ(write(fd, "$GPGGA", 6), 6);
    ASSERT_TRUE(m_service.WaitFor(kEvMcuReceive));
    EXPECT_EQ(m_service.Seen(kEvMcuReceive)[0].payload,
              (Bytes{3, 0, 1, 0, 6, 0, 0, 0, '$', 'G', 'P', 'G', 'G', 'A'}));

    // A length beyond the message is cut to what came; another peripheral's bytes stay out.
    m_service.Send(kEvMcuSend, {3, 0, 1, 0, 200, 0, 0, 0, 'x'});
    m_service.Send(kEvMcuSend, {34, 0, 0, 0, 1, 0, 0, 0, 'y'});
    m_service.Send(kEvMcuSend, {3, 0, 1, 0, 1, 0, 0, 0, 'z'});
    EXPECT_EQ(ReadSome(fd, 2), "xz");
    close(fd);
}

TEST_F(SimulatorTest, McuSettingsReachThePtyAsTermios) {
    Start(kFullScenario);
    std::string link = m_sim->McuLinkPath(0);
    auto cflag = [&link](speed_t& speed) {
        int fd = open(link.c_str(), O_RDWR | O_NOCTTY);
        struct termios t = {};
        tcgetattr(fd, &t);
        close(fd);
        speed = cfgetospeed(&t);
        return t.c_cflag;
    };
    // main 3, sub 1, all fields: 115200, CS7, two stop bits, odd parity, no flow control.
    m_service.Send(kEvMcuSettings, {3, 1, 0x1F, 6, 1, 3, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    speed_t speed = 0;
    ASSERT_TRUE(WaitUntil([&] { return cflag(speed) && speed == B115200; }));
    EXPECT_NE(cflag(speed) & CSTOPB, 0u);
    EXPECT_NE(cflag(speed) & PARODD, 0u);
    ASSERT_TRUE(m_sim->McuLine(0));
    EXPECT_EQ(m_sim->McuLine(0)->Text(), "115200 7O2");

    m_service.Send(kEvMcuSettings, {3, 1, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(WaitUntil([&] { return cflag(speed) && speed == B9600; }));
    EXPECT_NE(cflag(speed) & CSTOPB, 0u) << "stop bits were not in the mask";
}

TEST_F(SimulatorTest, CanFramesPassThePortsFilterToItsPeripheral) {
    m_service.Record(kEvCanReceive);
    m_service.Record(kEvCanFilterState);
    Start(kFullScenario);
    CanFilterList filter;
    filter.port = 1;
    filter.entries = {{0x0CF00400, 0xFFFFFFFF, false}, {0xFEF100, 0x00FFFF00, true}};
    m_service.Send(kEvCanFilter, EncodeCanFilter(filter), false, 21200);
    ASSERT_TRUE(m_service.WaitFor(kEvCanFilterState));
    EXPECT_EQ(m_service.Seen(kEvCanFilterState)[0].payload, (Bytes{1, 2}));
    EXPECT_EQ(m_sim->Filters(1), filter.entries);

    EXPECT_TRUE(m_sim->Execute("can can1 0CF00400#207D87481400F087").ok);
    auto refused = m_sim->Execute("can can1 123#11");
    EXPECT_FALSE(refused.ok);
    EXPECT_NE(refused.text.find("no filter"), std::string::npos);
    EXPECT_FALSE(m_sim->Execute("can can0 0CF00400#00").ok) << "no peripheral on can0";
    EXPECT_TRUE(m_sim->Execute("can can1 18FEF131#F7FFFF07CCFFFFFF").ok);
    Drain();
    auto got = m_service.Seen(kEvCanReceive);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(Bytes(got[0].payload.begin(), got[0].payload.begin() + 8),
              (Bytes{12, 0, 0, 0, 1, 0, 1, 0}));
    EXPECT_EQ(got[1].payload[8 + 3], 0x18);
}

TEST_F(SimulatorTest, ScenarioFramesWaitForTheFirstFilter) {
    m_service.Record(kEvCanReceive);
    Start(R"({"can": [{"index": 0, "main": 12}],
              "canFrames": ["123#01", "+5 can0 123#02", "+5 can0 124#03"]})");
    Drain();
    EXPECT_TRUE(m_service.Seen(kEvCanReceive).empty());
    CanFilterList filter;
    filter.entries = {{0x123, 0xFFFFFFFF, false}};
    m_service.Send(kEvCanFilter, EncodeCanFilter(filter));
    ASSERT_TRUE(WaitUntil([&] {
        size_t items = 0;
        for (const auto& m : m_service.Seen(kEvCanReceive)) {
            items += m.payload[6];
        }
        return items == 2;
    }));
    Drain();
    std::vector<uint8_t> data;
    for (const auto& m : m_service.Seen(kEvCanReceive)) {
        for (size_t i = 0; i < m.payload[6]; ++i) {
            data.push_back(m.payload[8 + 16 * i + 8]);
        }
    }
    EXPECT_EQ(data, (std::vector<uint8_t>{1, 2})) << "124 is not in the filter";
}

TEST_F(SimulatorTest, ARepeatedListGoesRoundAgain) {
    m_service.Record(kEvCanReceive);
    Start(R"({"can": [{"index": 0, "main": 12}],
              "canFrames": {"start": "now", "repeat": true, "frames": ["+5 123#01"]}})");
    CanFilterList filter;
    filter.entries = {{0x123, 0xFFFFFFFF, false}};
    m_service.Send(kEvCanFilter, EncodeCanFilter(filter));
    EXPECT_TRUE(m_service.WaitFor(kEvCanReceive, 3));
}

TEST_F(SimulatorTest, FramesTheServiceSendsArePrintedAsACandumpLog) {
    Start(R"({"can": [{"index": 2, "main": 12, "sub": 1}]})");
    Bytes send(24, 0);
    send[0] = 12;
    send[2] = 1;
    send[6] = 1;
    memcpy(&send[8], "\x31\xF1\xFE\x18", 4);
    send[12] = 2;
    send[16] = 0xAB;
    send[17] = 0xCD;
    m_service.Send(kEvCanSend, send, false, 21201);
    ASSERT_TRUE(WaitUntil([&] { return !Candump().empty(); }));
    EXPECT_EQ(Candump()[0], "(1700000000.123456) can2 18FEF131#ABCD");
}

TEST_F(SimulatorTest, MainChipTtysOfTheRootAreBridgedToTheirPeerSide) {
    std::string error;
    ASSERT_TRUE(MakeRecorderRoot(PM_EXAMPLE_ROOT, m_root.Path(), std::nullopt, error)) << error;
    std::vector<std::string> ttys;
    ASSERT_TRUE(MainChipTtysInRoot(m_root.Path(), ttys, error)) << error;
    ASSERT_FALSE(ttys.empty());
    Start("{}");
    int service = open(ttys[0].c_str(), O_RDWR | O_NOCTTY);
    int device = open((ttys[0] + kPeerSuffix).c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(service, 0) << ttys[0];
    ASSERT_GE(device, 0);
    ASSERT_EQ(write(device, "$GPRMC\r\n", 8), 8);
    EXPECT_EQ(ReadSome(service, 8), "$GPRMC\r\n");
    ASSERT_EQ(write(service, "\x01\x02", 2), 2);
    EXPECT_EQ(ReadSome(device, 2), "\x01\x02");
    close(service);
    close(device);
}

TEST(RecorderRootTest, MakeRootPlacesTheTtysInsideTheRootAndSetsTheProductType) {
    pmtest::TempDir dir;
    std::string error;
    ASSERT_TRUE(MakeRecorderRoot(PM_EXAMPLE_ROOT, dir.Path(), 14, error)) << error;
    std::vector<std::string> ttys;
    ASSERT_TRUE(MainChipTtysInRoot(dir.Path(), ttys, error)) << error;
    ASSERT_FALSE(ttys.empty());
    for (const std::string& tty : ttys) {
        EXPECT_EQ(tty.rfind(dir.Path() + "/dev/tty", 0), 0u) << tty;
    }
    std::ifstream system(dir.File("usr/local/cfg/SYSTEM_CONFIG"));
    std::string text((std::istreambuf_iterator<char>(system)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("\"PRODUCT_TYPE\" : 14"), std::string::npos) << text;
    EXPECT_TRUE(std::ifstream(dir.File("usr/local/cfg/lang/en.json")).good());
    // A second run starts from the template again rather than prefixing twice.
    ASSERT_TRUE(MakeRecorderRoot(PM_EXAMPLE_ROOT, dir.Path(), std::nullopt, error)) << error;
    std::vector<std::string> again;
    ASSERT_TRUE(MainChipTtysInRoot(dir.Path(), again, error));
    EXPECT_EQ(again, ttys);
}

}  // namespace
