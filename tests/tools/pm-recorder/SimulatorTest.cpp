// The simulator on a real bus, seen from the service's side: answers, readiness, the MCU relay
// through real ptys, the CAN module, the recorder root and the command itself.
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "RecordingClient.h"
#include "Records.h"
#include "RecorderRoot.h"
#include "Simulator.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using namespace pmrecorder;
using pmtest::WaitUntil;

constexpr uint32_t kSentinel = 6739;  // sent last: everything before it has arrived with it

// Reads from `fd` until `size` bytes came or two seconds passed.
std::string ReadSome(int fd, size_t size) {
    std::string got;
    for (int round = 0; round < 200 && got.size() < size; ++round) {
        struct pollfd p = {fd, POLLIN, 0};
        char buffer[256];
        ssize_t n = poll(&p, 1, 10) == 1 ? read(fd, buffer, sizeof(buffer)) : 0;
        got.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    }
    return got;
}

class SimulatorTest : public ::testing::Test {
protected:
    void Start(const std::string& json) {
        std::string error;
        ASSERT_TRUE(ParseScenarioText(json, m_scenario, error)) << error;
        SimulatorOptions o;
        o.root = m_root.Path();
        o.mainChipBridges = true;
        o.verbosity = 2;
        o.log = [](const std::string&) {};
        o.candump = [this](const std::string& line) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_candump.push_back(line);
        };
        o.wallUs = [] { return int64_t{1700000000123456}; };
        m_sim = std::make_unique<Simulator>(o);
        ASSERT_TRUE(m_sim->Start(m_scenario, error)) << error;
    }
    std::vector<std::string> Candump() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_candump;
    }

    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_root;
    pmtest::RecordingClient m_service;
    Scenario m_scenario;
    std::mutex m_lock;
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

// Each answer carries its request's sequence number and exactly the record of the scenario.
TEST_F(SimulatorTest, AnswersEveryRequestWithItsRecord) {
    Start(kFullScenario);
    const std::pair<uint32_t, Bytes> rows[] = {
        {1149, {1, 0, 0, 0}},
        {315, EncodeSerialSetting(m_scenario)},
        {319, EncodeIpcSetting(m_scenario)},
        {359, EncodeCanSetting(m_scenario)},
        {361, EncodeEthernetSetting(m_scenario)},
        {283, EncodeFtpSetting(m_scenario)},
        {1051, EncodeVideoLoss(m_scenario)},
        {1285, EncodeDigitalVideoLoss(m_scenario)},
        {1121, EncodeLedState(m_scenario)},
        {1119, EncodeUDiskInfo(m_scenario.udisk, m_scenario.udisk.mount)},
    };
    for (const auto& [request, expected] : rows) {
        m_service.Record(request);  // the bus hands a client its own messages too
        m_service.Record(request | 0x8000);
        m_service.Send(request, {}, true);
        ASSERT_TRUE(m_service.WaitFor(request | 0x8000)) << request;
        pmtest::SeenMessage answer = m_service.Seen(request | 0x8000)[0];
        EXPECT_EQ(answer.head.nSeq, m_service.Seen(request).at(0).head.nSeq) << request;
        EXPECT_EQ(answer.head.isAnswer, 1u) << request;
        EXPECT_EQ(answer.head.length, expected.size()) << request;
        EXPECT_EQ(answer.payload, expected) << request;
    }
}

// The disk and the language of a recorder in use: plug, details naming the folder, unplug;
// the language written where the service reads it, then announced.
TEST_F(SimulatorTest, PlaysAUsbDiskAndALanguageSwitch) {
    m_root.Write("usr/local/cfg/SYSTEM_CONFIG", R"({"PRODUCT_TYPE": 6, "LANGUAGE": "en"})");
    for (uint32_t id : {uint32_t{EVENT_USB_STATE}, uint32_t{EVENT_LANGUAGE_SWITCHED},
                        uint32_t{EVENT_GET_UDISK_INFO | 0x8000}}) {
        m_service.Record(id);
    }
    Start(R"({})");
    ASSERT_TRUE(m_sim->Execute("usb plug media/usb0").ok);
    ASSERT_TRUE(m_service.WaitFor(EVENT_USB_STATE));
    Bytes state = m_service.Seen(EVENT_USB_STATE)[0].payload;
    ASSERT_EQ(state.size(), 72u);
    EXPECT_EQ(state[0], 1);
    m_service.Send(EVENT_GET_UDISK_INFO, {}, true);
    ASSERT_TRUE(m_service.WaitFor(EVENT_GET_UDISK_INFO | 0x8000));
    const Bytes details = m_service.Seen(EVENT_GET_UDISK_INFO | 0x8000)[0].payload;
    ASSERT_EQ(details.size(), 368u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(details.data()) + 48),
              m_root.Path() + "/media/usb0");
    ASSERT_TRUE(m_sim->Execute("usb unplug").ok);
    ASSERT_TRUE(m_service.WaitFor(EVENT_USB_STATE, 2));
    EXPECT_EQ(m_service.Seen(EVENT_USB_STATE)[1].payload[0], 0);

    ASSERT_TRUE(m_sim->Execute("language de").ok);
    ASSERT_TRUE(m_service.WaitFor(EVENT_LANGUAGE_SWITCHED));
    std::ifstream in(m_root.File("usr/local/cfg/SYSTEM_CONFIG"));
    const std::string config((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    EXPECT_NE(config.find("\"LANGUAGE\" : \"de\""), std::string::npos) << config;
    EXPECT_NE(config.find("\"PRODUCT_TYPE\" : 6"), std::string::npos) << "the rest stays";
}

// The disk record carries its mount directory in 39 characters: a longer one is refused,
// never sent cut.
TEST_F(SimulatorTest, AMountDirectoryTheDiskRecordCannotCarryIsRefused) {
    // A scenario's mount below a root that makes it too long: never sent cut.
    const std::string relative(m_root.Path().size() < 39 ? 40 - m_root.Path().size() : 1, 'r');
    Start(R"({"udisk": {"mount": ")" + relative + R"("}})");
    const uint32_t answer = EVENT_GET_UDISK_INFO | 0x8000;
    m_service.Record(answer);
    m_service.Send(EVENT_GET_UDISK_INFO, {}, true);
    ASSERT_TRUE(m_service.WaitFor(answer));
    EXPECT_EQ(m_service.Seen(answer)[0].payload.at(48), 0) << "answered as no disk";
    EXPECT_FALSE(m_sim->Execute("usb plug").ok) << "nor plugged in as it is";
    const std::string longest(39, 'm');
    auto refused = m_sim->Execute("usb plug /" + longest);
    EXPECT_FALSE(refused.ok);
    EXPECT_NE(refused.text.find("carries 39 at most"), std::string::npos) << refused.text;
    EXPECT_TRUE(m_sim->Execute("usb plug /" + longest.substr(1)).ok);
}

// The box and the hub box ask for their files by flag; each gets its own.
TEST_F(SimulatorTest, UpgradeFilesGoByTheRequestsFlag) {
    m_root.Write("box.CRC", "box file");
    m_root.Write("hub.CRC", "hub file");
    Start(R"({"upgradeFile": "box.CRC", "hubUpgradeFile": "hub.CRC"})");
    const uint32_t answer = EVENT_GET_EXTEND_UPGRADE_FILE | 0x8000;
    m_service.Record(answer);
    auto request = [&](const std::string& flag) {
        Bytes payload(52, 0);
        payload[1] = 3;
        memcpy(payload.data() + 4, flag.data(), flag.size());
        const size_t before = m_service.Seen(answer).size();
        m_service.Send(EVENT_GET_EXTEND_UPGRADE_FILE, payload, true);
        EXPECT_TRUE(m_service.WaitFor(answer, before + 1));
        const Bytes record = m_service.Seen(answer).back().payload;
        return std::string(record.begin() + std::min<size_t>(104, record.size()), record.end());
    };
    EXPECT_EQ(request("VKEL"), "box file");
    EXPECT_EQ(request("ZORVIK"), "hub file");
    EXPECT_EQ(request("OTHER"), "") << "no file for a flag nobody named";
}

TEST_F(SimulatorTest, NotReadyUntilToldThenReadyAndTheCpxTtyReleased) {
    const uint32_t answer = EVENT_GET_DEVICE_MODULE_STATE | 0x8000;
    for (uint32_t id : {answer, uint32_t{EVENT_DEVICE_MODULE_STATE},
                        uint32_t{EVENT_DEVICE_MODULE_RELEASE_SERIAL}}) {
        m_service.Record(id);
    }
    Start(R"({"ready": "never", "cpxRelease": "/dev/ttyAMA1"})");
    m_service.Send(EVENT_GET_DEVICE_MODULE_STATE, {}, true);
    ASSERT_TRUE(m_service.WaitFor(answer));
    EXPECT_EQ(m_service.Seen(answer)[0].payload, (Bytes{0, 0, 0, 0}));

    EXPECT_TRUE(m_sim->Execute("ready 1").ok);
    ASSERT_TRUE(m_service.WaitFor(EVENT_DEVICE_MODULE_RELEASE_SERIAL));
    EXPECT_EQ(m_service.SeenIds(), (std::vector<uint32_t>{answer, EVENT_DEVICE_MODULE_STATE,
                                                          EVENT_DEVICE_MODULE_RELEASE_SERIAL}));
    EXPECT_EQ(m_service.Seen(EVENT_DEVICE_MODULE_STATE)[0].payload, (Bytes{1, 0, 0, 0}));
    Bytes cpx = m_service.Seen(EVENT_DEVICE_MODULE_RELEASE_SERIAL)[0].payload;
    ASSERT_EQ(cpx.size(), 32u);
    EXPECT_STREQ(reinterpret_cast<const char*>(cpx.data()), "/dev/ttyAMA1");
}

TEST_F(SimulatorTest, McuRelayCarriesBytesBothWaysThroughThePty) {
    m_service.Record(EVENT_MCU_SERIAL_RECV);
    Start(kFullScenario);
    int fd = open(m_sim->McuLinkPath(0).c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0) << m_sim->McuLinkPath(0);

    m_service.Send(EVENT_MCU_SERIAL_SEND, {3, 0, 1, 0, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(ReadSome(fd, 5), "hello");

    ASSERT_EQ(write(fd, "$GPGGA", 6), 6);
    ASSERT_TRUE(m_service.WaitFor(EVENT_MCU_SERIAL_RECV));
    EXPECT_EQ(m_service.Seen(EVENT_MCU_SERIAL_RECV)[0].payload,
              (Bytes{3, 0, 1, 0, 6, 0, 0, 0, '$', 'G', 'P', 'G', 'G', 'A'}));

    // A length beyond the message is cut to what came; another peripheral's bytes stay out.
    m_service.Send(EVENT_MCU_SERIAL_SEND, {3, 0, 1, 0, 200, 0, 0, 0, 'x'});
    m_service.Send(EVENT_MCU_SERIAL_SEND, {34, 0, 0, 0, 1, 0, 0, 0, 'y'});
    m_service.Send(EVENT_MCU_SERIAL_SEND, {3, 0, 1, 0, 1, 0, 0, 0, 'z'});
    EXPECT_EQ(ReadSome(fd, 2), "xz");
    close(fd);
}

// Each row's 6735 lays its masked fields over the line the rows before left; the pty is read
// back through the link, as the device at the other end sees it.
TEST_F(SimulatorTest, McuLineSettingsReachThePty) {
    struct {
        Bytes message;  // main and sub id of MCU port 0, mask, baud, data, stop, parity, flow
        const char* text;
        speed_t speed;
        tcflag_t flags;  // which of CSTOPB, PARODD (c_cflag) and INPCK (c_iflag) are set
    } const rows[] = {
        {{3, 1, 0x1F, 6, 1, 3, 1, 1}, "115200 7O2 rtscts", B115200, CSTOPB | PARODD | INPCK},
        // only the speed is in the mask
        {{3, 1, 0x01, 7, 3, 1, 2, 0}, "2400 7O2 rtscts", B2400, CSTOPB | PARODD | INPCK},
        {{3, 1, 0x0C, 0, 0, 1, 2, 0}, "2400 7E1 rtscts", B2400, INPCK},
        {{3, 1, 0x04, 0, 0, 2, 0, 0}, "2400 7E1.5 rtscts", B2400, CSTOPB | INPCK},
        // 56000 bit/s has no termios speed: the pty keeps its own
        {{3, 1, 0x01, 4, 0, 0, 0, 0}, "56000 7E1.5 rtscts", B2400, CSTOPB | INPCK},
    };
    Start(kFullScenario);
    for (const auto& row : rows) {
        Bytes message = row.message;
        message.resize(16);
        m_service.Send(EVENT_MCU_SERIAL_SETTINGS, message);
        ASSERT_TRUE(WaitUntil([&] {
            auto line = m_sim->McuLine(0);
            return line && line->Text() == row.text;
        })) << row.text;
        int fd = open(m_sim->McuLinkPath(0).c_str(), O_RDWR | O_NOCTTY);
        struct termios t = {};
        EXPECT_EQ(tcgetattr(fd, &t), 0) << row.text;
        close(fd);
        EXPECT_EQ(cfgetispeed(&t), row.speed) << row.text;
        EXPECT_EQ((t.c_cflag & (CSTOPB | PARODD)) | (t.c_iflag & INPCK), row.flags) << row.text;
        EXPECT_EQ(t.c_lflag & ECHO, 0u) << "raw: nothing echoes back into the relay";
    }
}

TEST(PtyLinkTest, ReplacesAStaleLinkRefusesAFileAndCleansUp) {
    pmtest::TempDir dir;
    std::string error;
    ASSERT_EQ(symlink("/dev/pts/none", dir.File("stale").c_str()), 0);
    EXPECT_TRUE(PtyLink::Create(dir.File("stale"), error)) << error;
    struct stat st;
    EXPECT_NE(lstat(dir.File("stale").c_str(), &st), 0) << "the link goes with the pty";
    dir.Write("file", "x");
    EXPECT_FALSE(PtyLink::Create(dir.File("file"), error));
    EXPECT_NE(error.find("not a symlink"), std::string::npos) << error;
}

TEST_F(SimulatorTest, CanFramesPassThePortsFilterToItsPeripheral) {
    for (uint32_t id : {uint32_t{EVENT_CAN_RECV}, uint32_t{EVENT_CAN_FILTER_STATE}, kSentinel}) {
        m_service.Record(id);
    }
    Start(kFullScenario);
    CanFilterList filter;
    filter.port = 1;
    filter.entries = {{0x0CF00400, 0xFFFFFFFF, false}, {0xFEF100, 0x00FFFF00, true}};
    m_service.Send(EVENT_CAN_SET_FILTER, EncodeCanFilter(filter));
    ASSERT_TRUE(m_service.WaitFor(EVENT_CAN_FILTER_STATE));
    EXPECT_EQ(m_service.Seen(EVENT_CAN_FILTER_STATE)[0].payload, (Bytes{1, 2}));
    EXPECT_EQ(m_sim->Filters(1), filter.entries);

    EXPECT_TRUE(m_sim->Execute("can can1 0CF00400#207D87481400F087").ok);
    auto refused = m_sim->Execute("can can1 123#11");
    EXPECT_FALSE(refused.ok);
    EXPECT_NE(refused.text.find("no filter"), std::string::npos) << refused.text;
    EXPECT_FALSE(m_sim->Execute("can can0 0CF00400#00").ok) << "no peripheral on can0";
    EXPECT_TRUE(m_sim->Execute("can can1 18FEF131#F7FFFF07").ok);
    ASSERT_TRUE(m_sim->Execute("send 6739").ok);
    ASSERT_TRUE(m_service.WaitFor(kSentinel));
    auto got = m_service.Seen(EVENT_CAN_RECV);
    ASSERT_EQ(got.size(), 2u);
    // main id, sub id, port, item count; then 16-byte items: id, length, data.
    EXPECT_EQ(got[0].payload, (Bytes{12, 0, 0, 0, 1,    0,    1,    0,    0x00, 0x04, 0xF0, 0x0C,
                                     8,  0, 0, 0, 0x20, 0x7D, 0x87, 0x48, 0x14, 0x00, 0xF0, 0x87}));
    EXPECT_EQ(Bytes(got[1].payload.begin() + 8, got[1].payload.end()),
              (Bytes{0x31, 0xF1, 0xFE, 0x18, 4, 0, 0, 0, 0xF7, 0xFF, 0xFF, 0x07, 0, 0, 0, 0}));
}

TEST_F(SimulatorTest, ScenarioFramesWaitForTheFirstFilter) {
    m_service.Record(EVENT_CAN_RECV);
    Start(R"({"can": [{"index": 0, "main": 12}],
              "canFrames": ["123#01", "+5 can0 124#02", "+5 can0 123#03"]})");
    CanFilterList filter;
    filter.entries = {{0x123, 0xFFFFFFFF, false}};
    m_service.Send(EVENT_CAN_SET_FILTER, EncodeCanFilter(filter));
    Bytes data;  // the first data byte of every item; 123#01 comes only if the list waited
    ASSERT_TRUE(WaitUntil([&] {
        data.clear();
        for (const auto& m : m_service.Seen(EVENT_CAN_RECV)) {
            for (size_t i = 0; i < m.payload[6]; ++i) {
                data.push_back(m.payload[8 + 16 * i + 8]);
            }
        }
        return data.size() >= 2;
    }));
    EXPECT_EQ(data, (Bytes{1, 3})) << "124 is not in the filter";
}

TEST_F(SimulatorTest, FramesTheServiceSendsArePrintedAsACandumpLog) {
    Start(R"({"can": [{"index": 2, "main": 12, "sub": 1}]})");
    // main id, sub id, port, -, id, length, -, data
    Bytes send = {12, 0, 1, 0, 0, 0, 1, 0, 0x31, 0xF1, 0xFE, 0x18, 2, 0, 0, 0, 0xAB, 0xCD};
    send.resize(24);
    m_service.Send(EVENT_CAN_SEND, Bytes(send.begin(), send.begin() + 23));  // short: dropped
    send[12] = 12;                                                           // cut to 8
    m_service.Send(EVENT_CAN_SEND, send);
    ASSERT_TRUE(WaitUntil([&] { return !Candump().empty(); }));
    EXPECT_EQ(Candump(),
              std::vector<std::string>{"(1700000000.123456) can2 18FEF131#ABCD000000000000"});
}

// The demo root: main-chip ttys named inside it, bridged to a ".peer" side for the device.
TEST_F(SimulatorTest, MainChipTtysOfTheRootAreBridgedToTheirPeerSide) {
    std::string error;
    ASSERT_TRUE(MakeRecorderRoot(PM_EXAMPLE_ROOT, m_root.Path(), 14, error)) << error;
    EXPECT_NE(
        pmtest::ReadFile(m_root.File("usr/local/cfg/SYSTEM_CONFIG")).find("\"PRODUCT_TYPE\" : 14"),
        std::string::npos);
    // A second run starts from the template again rather than prefixing twice.
    ASSERT_TRUE(MakeRecorderRoot(PM_EXAMPLE_ROOT, m_root.Path(), std::nullopt, error)) << error;
    std::vector<std::string> ttys;
    ASSERT_TRUE(MainChipTtysInRoot(m_root.Path(), ttys, error)) << error;
    ASSERT_FALSE(ttys.empty());
    for (const std::string& tty : ttys) {
        EXPECT_EQ(tty.rfind(m_root.Path() + "/dev/tty", 0), 0u) << tty;
    }
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

// pm-recorder as a person runs it: `apply` and `ctl` reach it over the bus, apply sends the
// change events of exactly what changed, and `ctl quit` ends it.
TEST_F(SimulatorTest, TheCommandAppliesAScenarioAndEndsOnQuit) {
    for (uint32_t id : {316u, 1122u, kSentinel}) {
        m_service.Record(id);
    }
    std::string scenario = kFullScenario;
    pmtest::ToolProcess sim(
        "pm-recorder", {"--no-broker", "--root", m_root.Path(), m_root.Write("s.json", scenario)});
    ASSERT_TRUE(sim.WaitErr("pm-recorder: running")) << sim.Err();
    scenario.replace(scenario.find("B57600"), 6, "B115200");
    scenario.replace(scenario.find("\"gps\": 1"), 8, "\"gps\": 0");
    auto applied =
        pmtest::RunTool("pm-recorder", {"apply", m_root.Write("changed.json", scenario)});
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(pmtest::RunTool("pm-recorder", {"ctl", "send", "6739"}).status, 0);
    ASSERT_TRUE(m_service.WaitFor(kSentinel));
    EXPECT_EQ(m_service.SeenIds(), (std::vector<uint32_t>{316, 1122, kSentinel}));
    EXPECT_EQ(m_service.Seen(316)[0].payload[72 * 4 + 1], 6) << "the new baud code";

    auto quit = pmtest::RunTool("pm-recorder", {"ctl", "quit"});
    EXPECT_EQ(quit.status, 0) << quit.err;
    EXPECT_EQ(sim.WaitExit(), 0) << sim.Err();
}

}  // namespace
