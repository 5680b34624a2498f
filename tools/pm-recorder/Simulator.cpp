#include "Simulator.h"

#include <fstream>

#include <json/json.h>

#include "SysConfig.h"
#include "UpgradeFile.h"

#include <sys/time.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

#include "EventNames.h"
#include "MessageText.h"
#include "MsgClientManage.h"
#include "RecorderRoot.h"
#include "Records.h"

namespace pmrecorder {

namespace {

constexpr size_t kHead = Common::kMsgHeadSize;
constexpr size_t kRememberedControls = 32;

int64_t SteadyUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

int64_t WallUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

void StderrLine(const std::string& text) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm local;
    localtime_r(&tv.tv_sec, &local);
    fprintf(stderr, "pm-recorder %02d:%02d:%02d.%03ld %s\n", local.tm_hour, local.tm_min,
            local.tm_sec, static_cast<long>(tv.tv_usec / 1000), text.c_str());
}

void StdoutLine(const std::string& text) {
    fprintf(stdout, "%s\n", text.c_str());
    fflush(stdout);
}

// The head of a received message, copied out: handlers' buffers carry no alignment promise.
bool ReadHead(const char* msg, int len, Common::SMessageHead& head) {
    if (msg == nullptr || len < static_cast<int>(kHead)) {
        return false;
    }
    memcpy(&head, msg, kHead);
    return true;
}

// Payload bytes actually received: the head's length, bounded by what arrived.
size_t PayloadSize(const Common::SMessageHead& head, int len) {
    return std::min<size_t>(head.length, static_cast<size_t>(len) - kHead);
}

// "12/0" for a peripheral's module id ((kind + 1) * 10000 + main * 100 + sub), else "module N".
std::string SenderText(uint32_t sender) {
    if (sender >= 10000 && sender < 40000) {
        unsigned ids = sender % 10000;
        return std::to_string(ids / 100) + "/" + std::to_string(ids % 100);
    }
    return "module " + std::to_string(sender);
}

std::string IdsText(unsigned mainId, unsigned subId) {
    return std::to_string(mainId) + "/" + std::to_string(subId);
}

std::string FilterText(const std::vector<CanFilterEntry>& entries) {
    std::string text;
    char item[40];
    for (const CanFilterEntry& e : entries) {
        if (e.masked) {
            snprintf(item, sizeof(item), " %" PRIX32 "/%" PRIX32, e.id, e.mask);
        } else {
            snprintf(item, sizeof(item), " %" PRIX32, e.id);
        }
        text += item;
    }
    return text.empty() ? " (none)" : text;
}

std::vector<PlannedFrame> PlanScript(const CanScript& script, int64_t& periodUs) {
    std::vector<PlannedFrame> plan;
    int64_t at = 0;
    for (const ScriptedFrame& f : script.frames) {
        at += static_cast<int64_t>(f.delayMs) * 1000;
        plan.push_back({at, f.port, f.frame});
    }
    periodUs = script.repeat ? at : 0;
    return plan;
}

const char kHelp[] =
    "commands:\n"
    "  apply FILE          make FILE the scenario; sends the change events\n"
    "  ready 0|1           device-management module not ready / ready (sends 1150)\n"
    "  release PATH        the device module releases a shared tty (1151)\n"
    "  poweroff [8|9|1035] power-down notice\n"
    "  debug LEVEL         debug level message (10)\n"
    "  can [canN] ID#DATA  a CAN frame on port N (default can0), through its filter\n"
    "  send ID [HEX...]    any notification, e.g. send 6739\n"
    "  usb plug [MOUNT]    a USB disk (1060) whose details (33887) name MOUNT (default: the\n"
    "                      scenario's udisk); below the root when relative\n"
    "  usb unplug          the disk goes (1060)\n"
    "  language CODE       the user switches the language: SYSTEM_CONFIG's LANGUAGE, then 6739\n"
    "  status              ports, filters, readiness\n"
    "  quit";

constexpr const char kBoxFileFlag[] = "VKEL";
constexpr const char kHubFileFlag[] = "ZORVIK";

// The file flag of a file request: its payload from offset 4, up to a NUL (48 bytes at most).
std::string RequestedFileFlag(const char* msg, int len) {
    const size_t at = Common::kMsgHeadSize + 4;
    if (len <= static_cast<int>(at)) {
        return std::string();
    }
    const size_t room = std::min<size_t>(static_cast<size_t>(len) - at, 48);
    return std::string(msg + at, strnlen(msg + at, room));
}

CommandReply Fail(const std::string& text) {
    return {false, false, text};
}
CommandReply Done(const std::string& text) {
    return {true, false, text};
}

CommandReply RunApply(Simulator& sim, const std::vector<std::string>& w) {
    Scenario s;
    std::string error;
    if (!LoadScenarioFile(w[1], s, error) || !sim.Apply(s, error)) {
        return Fail(error);
    }
    return Done("applied " + w[1]);
}

CommandReply RunReady(Simulator& sim, const std::vector<std::string>& w) {
    if (w[1] != "0" && w[1] != "1") {
        return Fail("ready is 0 or 1");
    }
    sim.SetReady(w[1] == "1");
    return Done(w[1] == "1" ? "ready" : "not ready");
}

CommandReply RunRelease(Simulator& sim, const std::vector<std::string>& w) {
    sim.SendCpxRelease(w[1]);
    return Done("released " + w[1]);
}

CommandReply RunPowerOff(Simulator& sim, const std::vector<std::string>& w) {
    std::string id = w.size() == 2 ? w[1] : "8";
    if (id != "8" && id != "9" && id != "1035") {
        return Fail("power-down is 8, 9 or 1035");
    }
    sim.Notify(static_cast<uint32_t>(std::stoul(id)), Bytes(), "power-down");
    return Done("power-down " + id);
}

CommandReply RunDebug(Simulator& sim, const std::vector<std::string>& w) {
    uint64_t level = 0;
    if (!pmtools::ParseNumber(w[1], 0xFFFF, level)) {
        return Fail("debug level is a number up to 65535");
    }
    sim.Notify(EVENT_DEBUG_LEVEL, EncodeDebugLevel(static_cast<uint16_t>(level)),
               "debug level " + w[1]);
    return Done("debug level " + w[1]);
}

CommandReply RunCan(Simulator& sim, const std::vector<std::string>& w) {
    int port = 0;
    CanFrame frame;
    std::string error;
    if (w.size() == 3 && !PortOfInterface(w[1], port)) {
        return Fail("\"" + w[1] + "\" is not can0 .. can3");
    }
    if (!ParseCansend(w.back(), frame, error)) {
        return Fail(error);
    }
    std::string result;
    bool delivered = sim.DeliverCan(port, frame, result);
    return {delivered, false, result};
}

CommandReply RunSend(Simulator& sim, const std::vector<std::string>& w) {
    uint32_t id = 0;
    if (!pmtools::ParseEventId(w[1], id)) {
        return Fail("unknown event id " + w[1]);
    }
    std::string hex;
    for (size_t i = 2; i < w.size(); ++i) {
        hex += w[i] + " ";
    }
    Bytes bytes;
    std::string error;
    if (!pmtools::ParseHexBytes(hex, bytes, error)) {
        return Fail(error);
    }
    sim.Notify(id, bytes, std::to_string(bytes.size()) + " bytes");
    return Done("sent " + std::to_string(id));
}

CommandReply RunUsb(Simulator& sim, const std::vector<std::string>& w) {
    std::string what;
    if (w[1] == "plug") {
        const bool ok = sim.PlugUsb(true, w.size() > 2 ? w[2] : std::string(), what);
        return ok ? Done(what) : Fail(what);
    }
    if (w[1] == "unplug" && w.size() == 2) {
        sim.PlugUsb(false, std::string(), what);
        return Done(what);
    }
    return Fail("usb plug [MOUNT] | usb unplug");
}

CommandReply RunLanguage(Simulator& sim, const std::vector<std::string>& w) {
    std::string error;
    if (!sim.SwitchLanguage(w[1], error)) {
        return Fail(error);
    }
    return Done("language " + w[1]);
}

struct Command {
    const char* name;
    size_t minWords;
    size_t maxWords;
    CommandReply (*run)(Simulator&, const std::vector<std::string>&);
    const char* usage;
};

const Command kCommands[] = {
    {"help", 1, 1, [](Simulator&, const std::vector<std::string>&) { return Done(kHelp); }, "help"},
    {"quit", 1, 1,
     [](Simulator&, const std::vector<std::string>&) {
         return CommandReply{true, true, "bye"};
     },
     "quit"},
    {"status", 1, 1,
     [](Simulator& sim, const std::vector<std::string>&) { return Done(sim.StatusText()); },
     "status"},
    {"apply", 2, 2, RunApply, "apply FILE"},
    {"ready", 2, 2, RunReady, "ready 0|1"},
    {"release", 2, 2, RunRelease, "release PATH"},
    {"poweroff", 1, 2, RunPowerOff, "poweroff [8|9|1035]"},
    {"debug", 2, 2, RunDebug, "debug LEVEL"},
    {"can", 2, 3, RunCan, "can [canN] ID#DATA"},
    {"send", 2, SIZE_MAX, RunSend, "send ID [HEX...]"},
    {"usb", 2, 3, RunUsb, "usb plug [MOUNT] | usb unplug"},
    {"language", 2, 2, RunLanguage, "language CODE"},
};

}  // namespace

Simulator::Simulator(SimulatorOptions options) : m_opt(std::move(options)) {
    if (!m_opt.log) {
        m_opt.log = StderrLine;
    }
    if (!m_opt.candump) {
        m_opt.candump = StdoutLine;
    }
    if (!m_opt.monotonicUs) {
        m_opt.monotonicUs = SteadyUs;
    }
    if (!m_opt.wallUs) {
        m_opt.wallUs = WallUs;
    }
}

Simulator::~Simulator() {
    Stop();
}

void Simulator::Log(int level, const std::string& text) const {
    if (level <= m_opt.verbosity) {
        m_opt.log(text);
    }
}

std::string Simulator::Describe(uint32_t eventId) const {
    std::string name = pmtools::NameOfEvent(eventId);
    return std::to_string(eventId) + (name.empty() ? "" : " " + name);
}

void Simulator::Publish(uint32_t eventId, const Bytes& payload) {
    if (!m_client) {
        Log(0, "not running: " + Describe(eventId) + " not sent");
        return;
    }
    if (m_client->MSGSendMessage(0, static_cast<int>(eventId), 0,
                                 reinterpret_cast<const char*>(payload.data()),
                                 static_cast<int>(payload.size()), m_opt.moduleId) != 0) {
        Log(0, "could not send " + Describe(eventId));
    }
}

bool Simulator::Start(const Scenario& scenario, std::string& error) {
    Stop();
    std::lock_guard<std::mutex> guard(m_lock);
    m_scenario = scenario;
    m_filters = {};
    m_ready = false;
    m_cpxAtUs = -1;
    if (!MakeMcuLinksLocked(scenario.mcu, error) || !MakeBridgesLocked(error)) {
        m_mcu.clear();
        m_bridges.clear();
        return false;
    }
    m_client = std::make_unique<CMsgClientManage>(m_opt.clientName.c_str(), 300000);
    if (!m_client->IsConnected()) {
        Log(0, "not connected to the bus (RECORDER_BUS); messages will not arrive");
    }
    RegisterHandlers();
    int64_t now = m_opt.monotonicUs();
    ScheduleReadinessLocked(scenario.ready, now);
    LoadScriptLocked(now);
    m_stop = false;
    m_thread = std::thread([this] { Loop(); });
    return true;
}

void Simulator::Stop() {
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_client.reset();
    m_mcu.clear();
    m_mcuLine.clear();
    m_bridges.clear();
}

void Simulator::RegisterHandlers() {
    const int own = m_opt.moduleId;
    auto bind = [this](int (Simulator::*fn)(const char*, int)) {
        return [this, fn](const char* d, int l) { return (this->*fn)(d, l); };
    };
    for (uint32_t id : {EVENT_GET_DEVICE_MODULE_STATE, EVENT_GET_SERIAL_PARAM,
                        EVENT_GET_IPC_SETTING, EVENT_GET_CAN_PARAM, EVENT_GET_ETHERNET_PARAM,
                        EVENT_GET_FTP_PARAM, EVENT_GET_VIDEO_LOSS, EVENT_GET_DIGITAL_VIDEO_LOSS,
                        EVENT_GET_LED_STATE, EVENT_GET_UDISK_INFO, EVENT_GET_EXTEND_UPGRADE_FILE}) {
        m_client->RegisterHandler(own, static_cast<int>(id), bind(&Simulator::OnRequest));
    }
    m_client->RegisterHandler(own, EVENT_MCU_SERIAL_SEND, bind(&Simulator::OnMcuSend));
    m_client->RegisterHandler(own, EVENT_MCU_SERIAL_SETTINGS, bind(&Simulator::OnMcuSettings));
    m_client->RegisterHandler(own, EVENT_CAN_SET_FILTER, bind(&Simulator::OnCanFilter));
    m_client->RegisterHandler(own, EVENT_CAN_SEND, bind(&Simulator::OnCanSend));
    m_client->RegisterHandler(own, kControlEvent, bind(&Simulator::OnControl));
}

void Simulator::Loop() {
    while (!m_stop) {
        m_client->MSGWaitForEvent(5);
        Tick();
    }
}

void Simulator::Tick() {
    std::lock_guard<std::mutex> guard(m_lock);
    int64_t now = m_opt.monotonicUs();
    if (m_readyAtUs >= 0 && now >= m_readyAtUs) {
        m_readyAtUs = -1;
        SetReadyLocked(true);
    }
    if (m_cpxAtUs >= 0 && now >= m_cpxAtUs) {
        m_cpxAtUs = -1;
        Publish(EVENT_DEVICE_MODULE_RELEASE_SERIAL, EncodeCpxRelease(m_scenario.cpx.path));
        Log(1, "device module released " + m_scenario.cpx.path + " (1151)");
    }
    for (Waiting* w : {&m_script, &m_replay}) {
        std::map<int, std::vector<CanFrame>> byPort;
        for (const PlannedFrame& f : w->list.TakeDue(now)) {
            byPort[f.port].push_back(f.frame);
        }
        std::string ignored;
        for (const auto& [port, frames] : byPort) {
            DeliverLocked(port, frames, ignored);
        }
    }
    PumpMcuLocked();
    PumpBridgesLocked();
}

// ---- answers -------------------------------------------------------------------------------

Bytes Simulator::AnswerLocked(uint32_t requestId, std::string& what) const {
    const Scenario& s = m_scenario;
    switch (requestId) {
        case EVENT_GET_DEVICE_MODULE_STATE:
            what = m_ready ? "device module ready" : "device module not ready";
            return EncodeDeviceModuleState(m_ready);
        case EVENT_GET_SERIAL_PARAM:
            what = "serial parameter setting";
            return EncodeSerialSetting(s);
        case EVENT_GET_IPC_SETTING:
            what = "IPC setting";
            return EncodeIpcSetting(s);
        case EVENT_GET_CAN_PARAM:
            what = "CAN parameter setting";
            return EncodeCanSetting(s);
        case EVENT_GET_ETHERNET_PARAM:
            what = "Ethernet parameter setting";
            return EncodeEthernetSetting(s);
        case EVENT_GET_FTP_PARAM:
            what = "FTP setting";
            return EncodeFtpSetting(s);
        case EVENT_GET_VIDEO_LOSS:
            what = "analogue video loss";
            return EncodeVideoLoss(s);
        case EVENT_GET_DIGITAL_VIDEO_LOSS:
            what = "digital video loss";
            return EncodeDigitalVideoLoss(s);
        case EVENT_GET_LED_STATE:
            what = "LED panel state";
            return EncodeLedState(s);
        case EVENT_GET_UDISK_INFO: {
            const std::string mount = ResolveInRoot(m_opt.root, s.udisk.mount);
            if (s.udisk.present && mount.size() > kMaxMountLength) {
                // Never sent cut: the service would look for a disk that is not there.
                what = "no U-disk: its mount " + mount + " is longer than the " +
                       std::to_string(kMaxMountLength) + " characters the record carries";
                UDisk absent = s.udisk;
                absent.present = false;
                return EncodeUDiskInfo(absent, std::string());
            }
            what = s.udisk.present ? "U-disk at " + s.udisk.mount : "no U-disk";
            return EncodeUDiskInfo(s.udisk, mount);
        }
        default:
            what = "?";
            return Bytes();
    }
}

// Read anew on every request, as the recorder reads the disk: the file may have changed.
Bytes Simulator::UpgradeFileAnswer(const std::string& flag, std::string& what) const {
    const bool hub = flag == kHubFileFlag;
    if (!hub && flag != kBoxFileFlag) {
        what = "upgrade file not found (no file for the flag \"" + flag + "\")";
        return pmtools::UpgradeFileRecord("", {});
    }
    const std::string& option = hub ? m_opt.hubUpgradeFile : m_opt.upgradeFile;
    const std::string& scenario = hub ? m_scenario.hubUpgradeFile : m_scenario.upgradeFile;
    const std::string named = option.empty() ? scenario : option;
    std::vector<uint8_t> file;
    if (named.empty()) {
        what = "upgrade file not found (none named for \"" + flag + "\")";
        return pmtools::UpgradeFileRecord("", file);
    }
    const std::string path = named[0] == '/' ? named : ResolveInRoot(m_opt.root, named);
    std::string error;
    if (!pmtools::ReadWholeFile(path, file, pmtools::kMaxUpgradeFileSize, error) || file.empty()) {
        what = "upgrade file not found: " + path + (error.empty() ? "" : ": " + error);
        return pmtools::UpgradeFileRecord("", file);
    }
    what = "upgrade file " + path + " for \"" + flag + "\"";
    return pmtools::UpgradeFileRecord(path, file);
}

int Simulator::OnRequest(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    std::string what;
    Bytes answer;
    std::vector<Notice> follow;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (head.nEventId == EVENT_GET_EXTEND_UPGRADE_FILE) {
            answer = UpgradeFileAnswer(RequestedFileFlag(msg, len), what);
        } else {
            answer = AnswerLocked(head.nEventId, what);
        }
        if (head.nEventId == EVENT_GET_LED_STATE) {
            // The service asks for the LED state once it runs: the moment to tell it the states
            // that have no request of their own.
            follow = UnaskedStates(m_scenario);
        }
    }
    m_client->MSGResponseMessage(&head, reinterpret_cast<const char*>(answer.data()),
                                 static_cast<int>(answer.size()));
    Log(1, "answered " + Describe(head.nEventId) + " seq " + std::to_string(head.nSeq) + ": " +
               what + " (" + std::to_string(answer.size()) + " bytes)");
    for (const Notice& n : follow) {
        Publish(n.eventId, n.payload);
        Log(1, "sent " + Describe(n.eventId) + ": " + n.what);
    }
    return 0;
}

// ---- readiness and the cpx tty -------------------------------------------------------------

void Simulator::SetReadyLocked(bool ready) {
    m_ready = ready;
    m_readyAtUs = -1;
    Publish(EVENT_DEVICE_MODULE_STATE, EncodeDeviceModuleState(ready));
    Log(1, std::string("device module ") + (ready ? "ready" : "not ready") + " (1150)");
    m_cpxAtUs = -1;
    if (ready && m_scenario.cpx.enabled) {
        m_cpxAtUs = m_opt.monotonicUs() + static_cast<int64_t>(m_scenario.cpx.afterMs) * 1000;
    }
}

void Simulator::ScheduleReadinessLocked(const Readiness& ready, int64_t now) {
    switch (ready.kind) {
        case Readiness::kNow:
            if (!m_ready) {
                SetReadyLocked(true);
            }
            break;
        case Readiness::kAfter:
            m_readyAtUs = now + static_cast<int64_t>(ready.afterMs) * 1000;
            Log(1, "device module ready in " + std::to_string(ready.afterMs) + " ms");
            break;
        case Readiness::kNever:
            m_readyAtUs = -1;
            if (m_ready) {
                SetReadyLocked(false);
            }
            break;
    }
}

void Simulator::SetReady(bool ready) {
    std::lock_guard<std::mutex> guard(m_lock);
    SetReadyLocked(ready);
}

bool Simulator::Ready() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_ready;
}

bool Simulator::PlugUsb(bool plugged, const std::string& mount, std::string& what) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (plugged) {
        // The disk record carries the mount directory in 40 bytes, its NUL included: a longer
        // one would reach the service cut, and the disk would not be found.
        const std::string resolved =
            ResolveInRoot(m_opt.root, mount.empty() ? m_scenario.udisk.mount : mount);
        if (resolved.size() > kMaxMountLength) {
            what = "usb plug: the mount directory " + resolved + " has " +
                   std::to_string(resolved.size()) + " characters; the disk record carries " +
                   std::to_string(kMaxMountLength) + " at most";
            return false;
        }
    }
    if (plugged) {
        m_scenario.udisk.present = true;
        if (!mount.empty()) {
            m_scenario.udisk.mount = mount;
        }
    } else {
        m_scenario.udisk.present = false;
    }
    Bytes state(kUsbStateSize, 0);
    state[0] = plugged ? 1 : 0;
    Publish(EVENT_USB_STATE, state);
    what = plugged ? "USB disk plugged in, mount " + m_scenario.udisk.mount
                   : std::string("USB disk unplugged");
    Log(1, what + " (1060)");
    return true;
}

bool Simulator::SwitchLanguage(const std::string& language, std::string& error) {
    const char kSystemConfig[] = "/usr/local/cfg/SYSTEM_CONFIG";
    const std::string path =
        m_opt.root.empty() ? Common::RecorderPath(kSystemConfig) : m_opt.root + kSystemConfig;
    Json::Value config;
    {
        std::ifstream in(path);
        Json::CharReaderBuilder builder;
        std::string parseError;
        if (!in || !Json::parseFromStream(builder, in, &config, &parseError) ||
            !config.isObject()) {
            error = "cannot read " + path;
            return false;
        }
    }
    config["LANGUAGE"] = language;
    std::ofstream(path) << config.toStyledString();
    std::lock_guard<std::mutex> guard(m_lock);
    Publish(EVENT_LANGUAGE_SWITCHED, Bytes(language.begin(), language.end()));
    Log(1, "language switched to " + language + " (6739)");
    return true;
}

void Simulator::SendCpxRelease(const std::string& path) {
    std::lock_guard<std::mutex> guard(m_lock);
    Publish(EVENT_DEVICE_MODULE_RELEASE_SERIAL, EncodeCpxRelease(path));
    Log(1, "device module released " + path + " (1151)");
}

// ---- scenario changes ----------------------------------------------------------------------

bool Simulator::Apply(const Scenario& scenario, std::string& error) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_client) {
        error = "the simulator is not running";
        return false;
    }
    Scenario before = m_scenario;
    if (!SameMcuLinks(before.mcu, scenario.mcu)) {
        m_mcu.clear();
        m_mcuLine.clear();
        if (!MakeMcuLinksLocked(scenario.mcu, error)) {
            m_mcu.clear();
            m_mcuLine.clear();
            std::string ignored;
            MakeMcuLinksLocked(before.mcu, ignored);
            return false;
        }
    }
    m_scenario = scenario;
    std::vector<Notice> notices = ChangedNotices(before, scenario);
    for (const Notice& n : notices) {
        Publish(n.eventId, n.payload);
        Log(1, "changed: " + n.what + ", sent " + Describe(n.eventId));
    }
    int64_t now = m_opt.monotonicUs();
    const Readiness& a = before.ready;
    const Readiness& b = scenario.ready;
    if (a.kind != b.kind || a.afterMs != b.afterMs) {
        ScheduleReadinessLocked(b, now);
    }
    if (!SameScript(before.canScript, scenario.canScript)) {
        LoadScriptLocked(now);
    }
    if (notices.empty()) {
        Log(1, "applied: no record changed");
    }
    return true;
}

// ---- ptys ----------------------------------------------------------------------------------

bool Simulator::MakeMcuLinksLocked(const std::vector<McuLink>& links, std::string& error) {
    for (const McuLink& l : links) {
        std::string path = ResolveInRoot(m_opt.root, l.link);
        std::unique_ptr<PtyLink> pty = PtyLink::Create(path, error);
        if (!pty) {
            error = "MCU port " + std::to_string(l.index) + ": " + error;
            return false;
        }
        Log(1,
            "MCU port " + std::to_string(l.index) + " is " + path + " (" + pty->SlaveName() + ")");
        m_mcu[l.index] = std::move(pty);
        m_mcuLine[l.index] = LineState();
    }
    return true;
}

bool Simulator::MakeBridgesLocked(std::string& error) {
    if (!m_opt.mainChipBridges || m_opt.root.empty()) {
        return true;
    }
    std::vector<std::string> paths;
    if (!MainChipTtysInRoot(m_opt.root, paths, error)) {
        Log(0, "no main-chip ttys: " + error);
        error.clear();
        return true;
    }
    for (const std::string& path : paths) {
        Bridge b;
        b.service = PtyLink::Create(path, error);
        b.peer = b.service ? PtyLink::Create(path + kPeerSuffix, error) : nullptr;
        if (!b.peer) {
            error = "main-chip tty " + path + ": " + error;
            return false;
        }
        Log(1, "main-chip tty " + path + ", device side " + path + kPeerSuffix);
        m_bridges.push_back(std::move(b));
    }
    return true;
}

void Simulator::PumpMcuLocked() {
    uint8_t buffer[kMcuChunkMax];
    for (auto& [index, pty] : m_mcu) {
        ssize_t n = pty->Read(buffer, sizeof(buffer));
        if (n <= 0) {
            continue;
        }
        const SerialSlot* slot = SerialSlotAt(m_scenario, index);
        if (slot == nullptr || slot->mainId == 0) {
            Log(1, "MCU port " + std::to_string(index) + ": no peripheral, " + std::to_string(n) +
                       " bytes dropped");
            continue;
        }
        Publish(EVENT_MCU_SERIAL_RECV,
                EncodeMcuReceive(slot->mainId, slot->subId, buffer, static_cast<size_t>(n)));
        Log(2, "MCU port " + std::to_string(index) + " -> " + IdsText(slot->mainId, slot->subId) +
                   ": " + std::to_string(n) + " bytes (1090)");
    }
}

void Simulator::PumpBridgesLocked() {
    uint8_t buffer[4096];
    for (Bridge& b : m_bridges) {
        for (int way = 0; way < 2; ++way) {
            PtyLink& from = way == 0 ? *b.service : *b.peer;
            PtyLink& to = way == 0 ? *b.peer : *b.service;
            ssize_t n = from.Read(buffer, sizeof(buffer));
            std::string error;
            if (n > 0 && !to.Write(buffer, static_cast<size_t>(n), error)) {
                Log(2, error);
            }
        }
    }
}

int Simulator::OnMcuSend(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    McuData data;
    std::string error;
    const uint8_t* payload = reinterpret_cast<const uint8_t*>(msg) + kHead;
    if (!DecodeMcuSend(payload, PayloadSize(head, len), data, error)) {
        Log(0, "1088 from " + SenderText(head.nSenderId) + ": " + error);
        return 0;
    }
    if (!error.empty()) {
        Log(0, "1088 from " + SenderText(head.nSenderId) + ": " + error);
    }
    std::lock_guard<std::mutex> guard(m_lock);
    int index = SerialIndexOf(m_scenario, data.mainId, data.subId);
    auto pty = m_mcu.find(index);
    std::string ids = IdsText(data.mainId, data.subId);
    if (pty == m_mcu.end()) {
        Log(1, "1088 for " + ids + ": no MCU port link carries it, " +
                   std::to_string(data.data.size()) + " bytes dropped");
        return 0;
    }
    if (!pty->second->Write(data.data.data(), data.data.size(), error)) {
        Log(1, "MCU port " + std::to_string(index) + ": " + error);
        return 0;
    }
    Log(2, ids + " -> MCU port " + std::to_string(index) + ": " + std::to_string(data.data.size()) +
               " bytes (1088)");
    return 0;
}

int Simulator::OnMcuSettings(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    McuSettings settings;
    std::string error;
    const uint8_t* payload = reinterpret_cast<const uint8_t*>(msg) + kHead;
    if (!DecodeMcuSettings(payload, PayloadSize(head, len), settings, error)) {
        Log(0, "6735 from " + SenderText(head.nSenderId) + ": " + error);
        return 0;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    std::string ids = IdsText(settings.mainId, settings.subId);
    int index = SerialIndexOf(m_scenario, settings.mainId, settings.subId);
    auto pty = m_mcu.find(index);
    if (pty == m_mcu.end()) {
        Log(1, "6735 for " + ids + ": no MCU port link carries it");
        return 0;
    }
    LineState& line = m_mcuLine[index];
    std::string notes;
    UpdateLineState(settings, line, notes);
    if (!ApplyLineState(pty->second->Slave(), line, error)) {
        Log(0, "MCU port " + std::to_string(index) + ": " + error);
        return 0;
    }
    Log(1, "MCU port " + std::to_string(index) + " (" + ids + ") set to " + line.Text() +
               (notes.empty() ? "" : "; " + notes));
    return 0;
}

std::string Simulator::McuLinkPath(int index) const {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_mcu.find(index);
    return it == m_mcu.end() ? std::string() : it->second->Link();
}

std::optional<LineState> Simulator::McuLine(int index) const {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_mcuLine.find(index);
    return it == m_mcuLine.end() ? std::nullopt : std::optional<LineState>(it->second);
}

// ---- CAN -----------------------------------------------------------------------------------

void Simulator::LoadScriptLocked(int64_t now) {
    int64_t period = 0;
    std::vector<PlannedFrame> plan = PlanScript(m_scenario.canScript, period);
    m_script.list.Load(std::move(plan), period);
    m_script.waitsForFilter = !m_scenario.canScript.startNow;
    bool anyFilter = false;
    for (const auto& f : m_filters) {
        anyFilter = anyFilter || !f.empty();
    }
    if (!m_script.waitsForFilter || anyFilter) {
        m_script.waitsForFilter = false;
        m_script.list.Start(now);
    }
}

void Simulator::StartWaitingListsLocked(int64_t now) {
    for (Waiting* w : {&m_script, &m_replay}) {
        if (w->waitsForFilter) {
            w->waitsForFilter = false;
            w->list.Start(now);
            if (w->list.Size() > 0) {
                Log(1, std::string(w == &m_script ? "scenario" : "replayed") + " CAN frames start");
            }
        }
    }
}

void Simulator::Replay(std::vector<PlannedFrame> frames, bool startNow) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_replay.list.Load(std::move(frames), 0);
    m_replay.waitsForFilter = true;
    bool anyFilter = false;
    for (const auto& f : m_filters) {
        anyFilter = anyFilter || !f.empty();
    }
    if (startNow || anyFilter) {
        StartWaitingListsLocked(m_opt.monotonicUs());
    }
}

size_t Simulator::DeliverLocked(int port, const std::vector<CanFrame>& frames,
                                std::string& result) {
    std::string iface = "can" + std::to_string(port);
    const CanSlot* slot = CanSlotAt(m_scenario, port);
    if (port < 0 || port >= kCanPorts || slot == nullptr || slot->mainId == 0) {
        result = "no CAN peripheral on " + iface;
        Log(2, result + ": " + std::to_string(frames.size()) + " frames dropped");
        return 0;
    }
    std::vector<CanFrame> taken;
    for (const CanFrame& f : frames) {
        if (FiltersTake(m_filters[port], f.id)) {
            taken.push_back(f);
        } else {
            Log(2, "no filter of " + iface + " takes " + FormatCansend(f));
        }
    }
    std::string ids = IdsText(slot->mainId, slot->subId);
    if (taken.empty()) {
        result = "no filter of " + iface + " takes it";
        return 0;
    }
    for (const Bytes& event :
         EncodeCanReceive(slot->mainId, slot->subId, static_cast<uint8_t>(port), taken,
                          m_opt.canItemsPerEvent)) {
        Publish(EVENT_CAN_RECV, event);
    }
    for (const CanFrame& f : taken) {
        Log(2, iface + " -> " + ids + ": " + FormatCansend(f) + " (1089)");
    }
    result = "delivered to " + ids + " on " + iface;
    return taken.size();
}

bool Simulator::DeliverCan(int port, const CanFrame& frame, std::string& result) {
    std::lock_guard<std::mutex> guard(m_lock);
    return DeliverLocked(port, {frame}, result) > 0;
}

std::vector<CanFilterEntry> Simulator::Filters(int port) const {
    std::lock_guard<std::mutex> guard(m_lock);
    return (port >= 0 && port < kCanPorts) ? m_filters[port] : std::vector<CanFilterEntry>();
}

int Simulator::OnCanFilter(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    CanFilterList list;
    std::string error;
    const uint8_t* payload = reinterpret_cast<const uint8_t*>(msg) + kHead;
    if (!DecodeCanFilter(payload, PayloadSize(head, len), list, error)) {
        Log(0, "1137 from " + SenderText(head.nSenderId) + ": " + error);
        return 0;
    }
    if (list.port >= kCanPorts) {
        Log(0, "1137 from " + SenderText(head.nSenderId) + ": no CAN port " +
                   std::to_string(list.port));
        return 0;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_filters[list.port] = list.entries;
    Publish(EVENT_CAN_FILTER_STATE,
            EncodeCanFilterState(list.port, static_cast<uint8_t>(list.entries.size())));
    Log(1, "can" + std::to_string(list.port) + " filter from " + SenderText(head.nSenderId) + ":" +
               FilterText(list.entries));
    if (!list.entries.empty()) {
        StartWaitingListsLocked(m_opt.monotonicUs());
    }
    return 0;
}

int Simulator::OnCanSend(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    CanSendRequest request;
    std::string error;
    const uint8_t* payload = reinterpret_cast<const uint8_t*>(msg) + kHead;
    if (!DecodeCanSend(payload, PayloadSize(head, len), request, error)) {
        Log(0, "1087 from " + SenderText(head.nSenderId) + ": " + error);
        return 0;
    }
    if (!error.empty()) {
        Log(0, "1087 from " + SenderText(head.nSenderId) + ": " + error);
    }
    int port = 0;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        port = CanIndexOf(m_scenario, request.mainId, request.subId);
    }
    CandumpRecord record;
    record.timeUs = m_opt.wallUs();
    record.interface = port >= 0 ? "can" + std::to_string(port) : "can?";
    record.frame = request.frame;
    if (port < 0) {
        Log(0, "1087 from " + IdsText(request.mainId, request.subId) +
                   ": no CAN port has this peripheral");
    }
    m_opt.candump(FormatCandumpLine(record));
    return 0;
}

// ---- commands ------------------------------------------------------------------------------

int Simulator::OnControl(const char* msg, int len) {
    Common::SMessageHead head;
    if (!ReadHead(msg, len, head)) {
        return 0;
    }
    std::string text(msg + kHead, PayloadSize(head, len));
    text = text.substr(0, text.find('\0'));
    size_t space = text.find(' ');
    std::string nonce = text.substr(0, space);
    std::string command = space == std::string::npos ? "" : text.substr(space + 1);
    std::string reply;
    for (const auto& [seen, answer] : m_controlReplies) {
        if (seen == nonce) {
            reply = answer;
        }
    }
    if (reply.empty()) {
        Log(1, "control: " + command);
        CommandReply r = Execute(command);
        if (r.quit) {
            m_quitRequested = true;
        }
        reply = nonce + (r.ok ? " ok " : " error ") + r.text;
        m_controlReplies.emplace_back(nonce, reply);
        if (m_controlReplies.size() > kRememberedControls) {
            m_controlReplies.pop_front();
        }
    }
    m_client->MSGResponseMessage(&head, reply.c_str(), static_cast<int>(reply.size()));
    return 0;
}

CommandReply Simulator::Execute(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) {
        words.push_back(w);
    }
    if (words.empty()) {
        return {};
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_client && words[0] != "help" && words[0] != "quit") {
            return {false, false, "the simulator is not running"};
        }
    }
    return ExecuteWords(words);
}

CommandReply Simulator::ExecuteWords(const std::vector<std::string>& words) {
    for (const Command& c : kCommands) {
        if (words[0] != c.name) {
            continue;
        }
        if (words.size() < c.minWords || words.size() > c.maxWords) {
            return {false, false, std::string("usage: ") + c.usage};
        }
        return c.run(*this, words);
    }
    return {false, false, "unknown command \"" + words[0] + "\" (try help)"};
}

void Simulator::Notify(uint32_t eventId, const Bytes& payload, const std::string& what) {
    std::lock_guard<std::mutex> guard(m_lock);
    Publish(eventId, payload);
    Log(1, "sent " + Describe(eventId) + ": " + what);
}

std::string Simulator::StatusText() const {
    std::lock_guard<std::mutex> guard(m_lock);
    std::ostringstream out;
    out << "device module: " << (m_ready ? "ready" : "not ready") << "\n";
    for (const SerialSlot& s : m_scenario.serial) {
        out << "serial " << int(s.index) << ": " << IdsText(s.mainId, s.subId) << " at "
            << BaudSpeedOfCode(s.line.baud) << " bit/s";
        auto pty = m_mcu.find(s.index);
        if (pty != m_mcu.end()) {
            out << ", " << pty->second->Link() << " " << m_mcuLine.at(s.index).Text();
        }
        out << "\n";
    }
    for (int port = 0; port < kCanPorts; ++port) {
        const CanSlot* slot = CanSlotAt(m_scenario, port);
        if (slot != nullptr || !m_filters[port].empty()) {
            out << "can" << port << ": "
                << (slot ? IdsText(slot->mainId, slot->subId) : std::string("no peripheral"))
                << ", filter" << FilterText(m_filters[port]) << "\n";
        }
    }
    for (const Bridge& b : m_bridges) {
        out << "main-chip tty " << b.service->Link() << " <-> " << b.peer->Link() << "\n";
    }
    std::string text = out.str();
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

}  // namespace pmrecorder
