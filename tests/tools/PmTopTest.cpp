// pm-top: its model fed with frames, and the program itself on a real bus beside the recorder
// simulator, the box simulator and the service, in tmux where a screen is needed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BusWire.h"
#include "ConfigNames.h"
#include "ExtendBoxRecords.h"
#include "MsgBroker.h"
#include "PeripheralEvents.h"
#include "TestSupport.h"
#include "ToolProcess.h"
#include "TopModel.h"
#include "TopText.h"

namespace {

using pmtest::ToolProcess;
using std::chrono::seconds;

bool Has(const std::string& text, const std::string& needle) {
    return text.find(needle) != std::string::npos;
}

// ---------------------------------------------------------------------------------------------
// The model and its text

class ModelFeed {
public:
    void Send(uint32_t id, const std::vector<uint8_t>& payload, int64_t atMs, uint32_t sender = 2) {
        std::vector<uint8_t> frame(Common::kMsgHeadSize + payload.size());
        Common::PutMsgHead(frame.data(), id, sender, 1, static_cast<uint32_t>(payload.size()));
        std::copy(payload.begin(), payload.end(), frame.begin() + Common::kMsgHeadSize);
        struct timeval when = {};
        model.OnMessage(frame.data(), frame.size(), atMs, when);
    }
    template <typename Record>
    void SendRecord(uint32_t id, const Record& r, int64_t atMs) {
        const auto* p = reinterpret_cast<const uint8_t*>(&r);
        Send(id, std::vector<uint8_t>(p, p + sizeof r), atMs);
    }
    std::string Text(int64_t nowMs) const {
        return pmtop::Snapshot(pmtop::View{model, names, nowMs}, "test", 5);
    }
    pmtop::TopModel model;
    pmtop::ConfigNames names;
};

std::vector<uint8_t> McuBytes(uint16_t mainId, uint16_t subId, size_t count) {
    std::vector<uint8_t> p(8 + count, 'x');
    Common::PutLe16(p.data(), mainId);
    Common::PutLe16(p.data() + 2, subId);
    Common::PutLe32(p.data() + 4, static_cast<uint32_t>(count));
    return p;
}

ExtendUpgradeState_t UpgradeState(uint8_t state, int8_t percent) {
    ExtendUpgradeState_t r;
    memset(&r, 0, sizeof r);
    r.state = state;
    r.percent = percent;
    r.mainId = PERIPHERAL_MAINID_EXTEND_HUB_BOX;
    return r;
}

// One hub with a receiver behind it, one receiver on an MCU port: the rows, the names from
// the document, the rates and the hub's line and upgrade, all as the snapshot prints them.
TEST(PmTopModel, SnapshotShowsPortsNamesRatesAndTheHub) {
    ModelFeed feed;
    Json::Value doc;
    doc["DEVICE_SERIAL_SETTING"][0]["DEV_SERIAL_FUNCID"] = 3;
    doc["DEVICE_SERIAL_SETTING"][0]["DEV_SERIAL_LIB_NAME"] = "libGpsNmea.so";
    doc["DEVICE_PERIPHERAL_PARAM_SETTING"]["SERIAL_PARAM"][0]["PATH"] = "/dev/ttyACM0";
    doc["DEVICE_PERIPHERAL_PARAM_SETTING"]["SERIAL_PARAM"][0]["POSITION"] = 7;
    feed.names = pmtop::NamesFromDocument(doc);

    paramSerialSetting_t serial;
    memset(&serial, 0, sizeof serial);
    serial.port[0] = {3, SERIAL_BAUD_9600, 0, {}, {}};
    serial.port[7].mainFun = PERIPHERAL_MAINID_EXTEND_HUB_BOX;
    serial.port[7].baudrate = SERIAL_BAUD_115200;
    serial.port[7].extend[2] = {3, SERIAL_BAUD_4800, 3, {}};
    feed.SendRecord(EventAnswerOf(EVENT_GET_SERIAL_PARAM), serial, 0);
    for (int64_t t = 0; t < 2000; t += 500) {
        feed.Send(EVENT_MCU_SERIAL_RECV, McuBytes(3, 0, 100), t);  // 400 bytes in the window
    }
    feed.Send(EVENT_MCU_SERIAL_SEND, McuBytes(3, 0, 20), 1900);
    std::vector<uint8_t> lost(80, 0);
    lost[1] = PERIPHERAL_MAINID_EXTEND_HUB_BOX;
    lost[5] = 5;
    feed.Send(EVENT_SERIAL_CONFIG_STATUS, lost, 1000);
    feed.SendRecord(EVENT_EXTEND_UPGRADE_STATE, UpgradeState(PERIPHERAL_UPGRADE_DOING, 40), 1500);

    std::string text = feed.Text(1999);
    EXPECT_TRUE(Has(text, "MCU 0                3:0 GpsNmea              9600    traffic")) << text;
    EXPECT_TRUE(Has(text, "  10      200")) << "to and from the port, bytes per second\n" << text;
    EXPECT_TRUE(Has(text, "ttyACM0              149:0 hub box            115200  OFFLINE")) << text;
    EXPECT_TRUE(Has(text, "7.2      sub-port 2         3:3 GpsNmea              4800")) << text;
    EXPECT_TRUE(Has(text, "upgrade [############------------------]  40 %  transfer in progress"))
        << text;

    // The hub answers again; the upgrade ends; the receiver stops.
    feed.Send(EVENT_SERIAL_CONFIG_STATUS, {0, PERIPHERAL_MAINID_EXTEND_HUB_BOX, 0, 0, 0, 7}, 3000);
    feed.SendRecord(EVENT_EXTEND_UPGRADE_STATE, UpgradeState(PERIPHERAL_UPGRADE_SUCCESS, 99), 3000);
    text = feed.Text(5000);
    EXPECT_TRUE(Has(text, "149:0 hub box            115200  online")) << text;
    EXPECT_TRUE(Has(text, "100 %  finished successfully (state 10, source 0, 2s ago)")) << text;
    EXPECT_TRUE(Has(text, "3:0 GpsNmea              9600    -                 0        0")) << text;
}

// Records cut short or missing altogether are shown as unknown, never read past their end.
TEST(PmTopModel, ShortAndMissingRecordsShowAsUnknown) {
    ModelFeed feed;
    std::string text = feed.Text(0);
    EXPECT_TRUE(Has(text, "(no serial setting seen yet)")) << text;
    EXPECT_TRUE(Has(text, "device module ?")) << text;
    feed.Send(EVENT_SERIAL_PARAM_CHANGED, {3, SERIAL_BAUD_38400}, 0);  // 2 of 992 bytes
    feed.Send(EVENT_LED_STATE, {1, 1}, 0);  // not the 16 the service wants
    feed.Send(EVENT_SERIAL_CONFIG_STATUS, {0, 1}, 0);
    feed.Send(EVENT_EXTEND_VERSION, {0, 1}, 0);
    feed.Send(EVENT_CAN_SET_FILTER, {0, 9}, 0);
    text = feed.Text(0);
    EXPECT_TRUE(Has(text, "  0      MCU 0                3:0                      38400")) << text;
    EXPECT_TRUE(Has(text, "LED ?")) << text;
    EXPECT_TRUE(Has(text, "1:0 extension box      version ?")) << text;
    EXPECT_EQ(feed.model.MessageCount(), 5u);
}

TEST(PmTopModel, FilterTakesAnIdOrAnyPartOfTheName) {
    ModelFeed feed;
    feed.Send(EVENT_EXTEND_VERSION, std::vector<uint8_t>(245, 0), 0);
    feed.Send(EventAnswerOf(EVENT_GET_EXTEND_VERSION), std::vector<uint8_t>(245, 0), 0);
    feed.Send(EVENT_CAN_RECV, std::vector<uint8_t>(8, 0), 0);
    feed.Send(Common::kMsgWatchdogEvent, std::vector<uint8_t>(40, 0), 0);
    EXPECT_EQ(pmtop::MessageLines(feed.model, "", 10).size(), 3u) << "the watchdog is not shown";
    EXPECT_EQ(pmtop::MessageLines(feed.model, "VERSION", 10).size(), 2u);
    EXPECT_EQ(pmtop::MessageLines(feed.model, "6710", 10).size(), 1u);
    EXPECT_EQ(pmtop::MessageLines(feed.model, "0x8000", 10).size(), 0u);
    EXPECT_EQ(pmtop::MessageLines(feed.model, "get-extend-version.answer", 10).size(), 1u);
    EXPECT_EQ(pmtop::MessageLines(feed.model, "", 1).size(), 1u);
}

// ---------------------------------------------------------------------------------------------
// The program, with the recorder, a box and the service on a private bus

// A recorder with a receiver on MCU port 0 and an extension box (or hub) on ttyACM0 with one
// receiver behind it; the box's new firmware waits as the recorder's upgrade file.
class Constellation {
public:
    explicit Constellation(bool hub)
        : m_bus("RECORDER_BUS", m_dir.File("bus")), m_noTmux("TMUX", std::nullopt), m_hub(hub) {}
    ~Constellation() {
        if (m_boxIn >= 0) {
            close(m_boxIn);
        }
    }

    // False (with a test failure) when a part did not come up.
    bool Start() {
        const std::string firmware = m_dir.Write("fw/box.bin", std::string(3000, 'f'));
        pmtest::ToolResult pack = pmtest::RunTool(
            "pm-fwpack", {firmware, "BOX-MCU-V2.00", "-o", m_dir.File("BOX-MCU-V2.00.CRC")});
        const std::string scenario = m_dir.Write("scenario.json", Scenario());
        m_recorder = std::make_unique<ToolProcess>(
            "pm-recorder", std::vector<std::string>{"--make-root", Root(), "--upgrade-file",
                                                    m_dir.File("BOX-MCU-V2.00.CRC"), scenario});
        const std::string line = Root() + "/dev/ttyACM0.peer";
        if (pack.status != 0 ||
            !pmtest::WaitUntil([&] { return access(line.c_str(), F_OK) == 0; }, seconds(10))) {
            ADD_FAILURE() << "recorder: " << pack.err << m_recorder->Err();
            return false;
        }
        int fds[2];
        if (pipe(fds) != 0) {
            return false;
        }
        std::vector<std::string> args = {
            "--tty",         line,           "--subports", "1", "--version", "BOX-MCU-V1.00",
            "--new-version", "BOX-MCU-V2.00"};
        if (m_hub) {
            args.push_back("--hub");
        }
        m_boxsim = std::make_unique<ToolProcess>("pm-boxsim", args, -1, -1, fds[0]);
        close(fds[0]);
        m_boxIn = fds[1];
        pmtest::ScopedEnv root("RECORDER_ROOT", Root());
        pmtest::ScopedEnv log("PM_LOG_FILE", m_dir.File("service.log"));
        m_host = std::make_unique<ToolProcess>("pm-host", std::vector<std::string>{});
        return true;
    }

    void Box(const std::string& command) {
        const std::string line = command + "\n";
        ASSERT_EQ(write(m_boxIn, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    std::string Root() const { return m_dir.File("root"); }
    std::string UpgradeFile() const { return m_dir.File("BOX-MCU-V2.00.CRC"); }

private:
    std::string Scenario() const {
        return std::string(R"({"productType": 6, "ready": "now",
            "serial": [ { "index": 0, "main": 3, "sub": 0, "baud": "B9600" },
                        { "index": 7, "main": )") +
               (m_hub ? "149" : "1") + R"(, "baud": "B115200",
                          "subPorts": [ { "index": 0, "main": 3, "sub": 3 } ] } ],
            "mcuPorts": [ { "index": 0, "link": "dev/mcu-port0" } ],
            "can": [ { "index": 0, "main": 12, "sub": 0 } ]})";
    }

    pmtest::TempDir m_dir;
    pmtest::ScopedEnv m_bus;
    pmtest::ScopedEnv m_noTmux;
    bool m_hub;
    int m_boxIn = -1;
    std::unique_ptr<ToolProcess> m_recorder;
    std::unique_ptr<ToolProcess> m_boxsim;
    std::unique_ptr<ToolProcess> m_host;
};

std::string TmuxPath() {
    for (const char* path : {"/usr/bin/tmux", "/usr/local/bin/tmux", "/bin/tmux"}) {
        if (access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

// Why the tmux tests cannot run here, or nullptr. In a cross build pm-top runs under the
// emulator inside the pane and never draws its screen there (the model and --once tests still
// run); the native builds cover the screen.
const char* ScreenTestsCannotRun() {
    if (TmuxPath().empty()) {
        return "tmux is not installed";
    }
    if (!pmtest::EmulatorArgs().empty()) {
        return "pm-top's screen under the emulator inside tmux is not covered";
    }
    return nullptr;
}

// pm-top on a tmux server of its own, so that no user's sessions or settings take part.
class Tmux {
public:
    Tmux() : m_socket("pm-top-test-" + std::to_string(getpid())) {}
    ~Tmux() { Run({"kill-server"}); }

    bool Start(const std::string& command) {
        return Run({"-f", "/dev/null", "new-session", "-d", "-s", "top", "-x", "120", "-y", "40",
                    command})
                   .status == 0;
    }
    std::string Screen() { return Run({"capture-pane", "-p", "-t", "top"}).out; }
    void Keys(const std::vector<std::string>& keys) {
        std::vector<std::string> args = {"send-keys", "-t", "top"};
        args.insert(args.end(), keys.begin(), keys.end());
        Run(args);
    }
    void Resize(int cols, int rows) {
        Run({"resize-window", "-t", "top", "-x", std::to_string(cols), "-y", std::to_string(rows)});
    }
    bool Alive() { return Run({"has-session", "-t", "top"}).status == 0; }

    // Polls the screen until `pred` holds; the last screen is kept for the failure message.
    // Each look starts a tmux client, so it looks ten times a second rather than WaitUntil's
    // five hundred.
    bool WaitFor(const std::function<bool(const std::string&)>& pred, seconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            m_last = Screen();
            if (pred(m_last)) {
                return true;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    bool WaitFor(const std::string& needle, seconds timeout = seconds(15)) {
        return WaitFor([&](const std::string& s) { return Has(s, needle); }, timeout);
    }
    const std::string& Last() const { return m_last; }

private:
    pmtest::ToolResult Run(std::vector<std::string> args) {
        args.insert(args.begin(), {"-L", m_socket});
        return pmtest::RunHostProgram(TmuxPath(), args);
    }
    std::string m_socket;
    std::string m_last;
};

std::string PmTopCommand(const std::string& args) {
    return pmtest::EmulatorCommand() + pmtest::BinDir() + "/pm-top " + args;
}

std::vector<std::string> PaneLines(const std::string& screen, const std::string& title) {
    std::vector<std::string> lines;
    std::istringstream in(screen);
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("-- ", 0) == 0) {
            inside = Has(line, " " + title + " ");
        } else if (inside && !line.empty() && line.rfind("q quit", 0) != 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

// Started after the service, pm-top asks for the settings and shows them; without a broker it
// says so and fails.
TEST(PmTop, OnceShowsTheSetUpAndSaysWhenThereIsNoBroker) {
    {
        pmtest::TempDir dir;
        pmtest::ScopedEnv bus("RECORDER_BUS", dir.File("bus"));
        const pmtest::ToolResult r = pmtest::RunTool("pm-top", {"--once", "--after", "0.3"});
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(Has(r.out, "bus: no broker at ipc://" + dir.File("bus.out"))) << r.out;
    }
    Constellation recorder(false);
    ASSERT_TRUE(recorder.Start());
    pmtest::ToolResult r;
    ASSERT_TRUE(pmtest::WaitUntil(
        [&] {
            r = pmtest::RunTool("pm-top", {"--once", "--after", "1", "--root", recorder.Root()});
            return Has(r.out, "version BOX-MCU-V1.00");
        },
        seconds(20)))
        << r.out << r.err;
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(Has(r.out, "  0      MCU 0                3:0 GpsNmea              9600")) << r.out;
    EXPECT_TRUE(Has(r.out, "  7      ttyACM0 (485-2)      1:0 extension box        115200"))
        << r.out;
    EXPECT_TRUE(Has(r.out, "7.0      sub-port 0         3:3 GpsNmea              9600")) << r.out;
    EXPECT_TRUE(Has(r.out, "can0  12:0 can_j1939")) << r.out;
    EXPECT_TRUE(Has(r.out, "device module ready")) << r.out;
}

// The live screen through an upgrade, a message filter, a smaller terminal and q.
TEST(PmTop, ScreenFollowsAnUpgradeFiltersAndRedrawsOnResize) {
    if (const char* why = ScreenTestsCannotRun()) {
        GTEST_SKIP() << why;
    }
    Constellation recorder(false);
    ASSERT_TRUE(recorder.Start());
    Tmux tmux;
    ASSERT_TRUE(tmux.Start(PmTopCommand("--root " + recorder.Root())));
    ASSERT_TRUE(tmux.WaitFor("version BOX-MCU-V1.00")) << tmux.Last();
    EXPECT_TRUE(Has(tmux.Last(), "ttyACM0 (485-2)      1:0 extension box")) << tmux.Last();

    ToolProcess upgrade("pm-upgrade", {"--file", recorder.UpgradeFile(), "--timeout", "20"});
    ASSERT_TRUE(tmux.WaitFor("transfer in progress")) << tmux.Last();
    ASSERT_TRUE(
        tmux.WaitFor("[##############################] 100 %  finished successfully", seconds(25)))
        << tmux.Last();
    EXPECT_EQ(upgrade.WaitExit(), 0);

    tmux.Keys({"/", "extend-upgrade", "Enter"});
    ASSERT_TRUE(tmux.WaitFor("filter: extend-upgrade", seconds(5))) << tmux.Last();
    const std::vector<std::string> messages = PaneLines(tmux.Last(), "Messages");
    ASSERT_FALSE(messages.empty()) << tmux.Last();
    for (const std::string& line : messages) {
        EXPECT_TRUE(Has(line, "extend-upgrade")) << line;
    }

    tmux.Resize(80, 24);
    ASSERT_TRUE(tmux.WaitFor(
        [](const std::string& s) {
            std::vector<std::string> rows;
            std::istringstream in(s);
            for (std::string line; std::getline(in, line);) {
                rows.push_back(line);
            }
            return rows.size() == 24 && rows.back().rfind("q quit", 0) == 0 &&
                   rows[1] == "-- Ports " + std::string(71, '-');
        },
        seconds(5)))
        << tmux.Last();

    tmux.Keys({"q"});
    EXPECT_TRUE(pmtest::WaitUntil([&] { return !tmux.Alive(); }, seconds(5)));
}

// The screen row that holds `key`, or "".
std::string RowWith(const std::string& screen, const std::string& key) {
    std::istringstream in(screen);
    for (std::string line; std::getline(in, line);) {
        if (Has(line, key)) {
            return line;
        }
    }
    return "";
}

// A hub that falls silent is published as such; pm-top turns it offline and back.
TEST(PmTop, ScreenShowsAHubGoingOfflineAndBack) {
    if (const char* why = ScreenTestsCannotRun()) {
        GTEST_SKIP() << why;
    }
    Constellation recorder(true);
    ASSERT_TRUE(recorder.Start());
    Tmux tmux;
    ASSERT_TRUE(tmux.Start(PmTopCommand("--root " + recorder.Root())));
    const std::string hub = "149:0 hub box          version";
    auto hubIs = [&](const std::string& version, const std::string& link) {
        return [=](const std::string& screen) {
            const std::string row = RowWith(screen, hub);
            return Has(row, "version " + version + " ") && Has(row, link);
        };
    };
    ASSERT_TRUE(tmux.WaitFor(hubIs("BOX-MCU-V1.00", "online"), seconds(15))) << tmux.Last();
    recorder.Box("silent on");
    // Five unanswered keep-alives, three seconds apart.
    ASSERT_TRUE(tmux.WaitFor(hubIs("?", "OFFLINE"), seconds(30))) << tmux.Last();
    recorder.Box("silent off");
    EXPECT_TRUE(tmux.WaitFor(hubIs("BOX-MCU-V1.00", "online"), seconds(20))) << tmux.Last();
}

// The broker goes away and comes back: pm-top says so and listens again.
TEST(PmTop, ScreenFollowsTheBrokerAway) {
    if (const char* why = ScreenTestsCannotRun()) {
        GTEST_SKIP() << why;
    }
    pmtest::TempDir dir;
    pmtest::ScopedEnv bus("RECORDER_BUS", dir.File("bus"));
    pmtest::ScopedEnv noTmux("TMUX", std::nullopt);
    auto broker = std::make_unique<Common::CMsgBroker>();
    ASSERT_EQ(broker->Start(), 0);
    Tmux tmux;
    ASSERT_TRUE(tmux.Start(PmTopCommand("")));
    ASSERT_TRUE(tmux.WaitFor("bus: connected")) << tmux.Last();
    broker.reset();
    ASSERT_TRUE(tmux.WaitFor("bus: no broker at")) << tmux.Last();
    broker = std::make_unique<Common::CMsgBroker>();
    ASSERT_EQ(broker->Start(), 0);
    EXPECT_TRUE(tmux.WaitFor("bus: connected")) << tmux.Last();
}

}  // namespace
