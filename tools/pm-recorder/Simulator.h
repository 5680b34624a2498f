// The recorder simulator: plays the device-management module, the parameter store, the MCU
// serial relay and the CAN module on the bus, so that the service runs on a desktop. The same
// object serves the pm-recorder command and the tests.
#ifndef TOOLS_PM_RECORDER_SIMULATOR_H
#define TOOLS_PM_RECORDER_SIMULATOR_H

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CanText.h"
#include "Messages.h"
#include "PtyLink.h"
#include "Scenario.h"

class CMsgClientManage;

namespace pmrecorder {

constexpr int kSimulatorModuleId = 2;
// Commands for a running simulator ("apply FILE", ...) as request text; the answer is text too.
constexpr uint32_t kControlEvent = 7990;

struct SimulatorOptions {
    int moduleId = kSimulatorModuleId;
    std::string clientName = "pm-recorder";
    std::string root;              // relative links and mount folders resolve here
    bool mainChipBridges = false;  // stand in for the main-chip ttys below `root`
    int verbosity = 1;             // 0 problems, 1 answers and changes, 2 traffic
    size_t canItemsPerEvent = 16;  // frames per 1089 event
    std::string upgradeFile;       // answers the box's file request (6705, "VKEL"); wins over
                                   // the scenario
    std::string hubUpgradeFile;    // the same for the hub box ("ZORVIK")
    // Human lines (default: stderr) and candump lines of the frames the service sends
    // (default: stdout). Called from the simulator's thread and from Execute's caller.
    std::function<void(const std::string&)> log;
    std::function<void(const std::string&)> candump;
    std::function<int64_t()> monotonicUs;  // timers and CAN timing; default: steady clock
    std::function<int64_t()> wallUs;       // candump time stamps; default: system clock
};

struct CommandReply {
    bool ok = true;
    bool quit = false;
    std::string text;
};

class Simulator {
public:
    explicit Simulator(SimulatorOptions options = {});
    ~Simulator();

    // Joins the bus, registers, creates the ptys and starts the simulator's thread. False with
    // the reason when a pty or link cannot be made (nothing is left running then).
    bool Start(const Scenario& scenario, std::string& error);
    void Stop();

    // One command as typed on standard input ("apply FILE", "ready 1", "can 123#11", "help").
    // Any thread.
    CommandReply Execute(const std::string& line);

    // The operations below may be called from any thread; before Start they send nothing.
    // Makes `scenario` current and sends the change events for what differs.
    bool Apply(const Scenario& scenario, std::string& error);
    void SetReady(bool ready);
    void SendCpxRelease(const std::string& path);
    // Plug (with the mount of the next disk details; empty: keep it) or unplug a USB disk.
    // False with the reason for a mount directory the disk record cannot carry.
    bool PlugUsb(bool plugged, const std::string& mount, std::string& what);
    // Writes LANGUAGE into the root's SYSTEM_CONFIG, then tells the service (6739).
    bool SwitchLanguage(const std::string& language, std::string& error);
    // Publishes any notification; `what` is for the log.
    void Notify(uint32_t eventId, const Bytes& payload, const std::string& what);
    // Hands a frame to `port` now, through that port's filter; the text says where it went.
    bool DeliverCan(int port, const CanFrame& frame, std::string& result);
    // Plays frames of a log; they start with the first filter unless `startNow`.
    void Replay(std::vector<PlannedFrame> frames, bool startNow);

    bool Ready() const;
    std::vector<CanFilterEntry> Filters(int port) const;
    std::string McuLinkPath(int index) const;  // "" when the port has no pty
    std::optional<LineState> McuLine(int index) const;
    std::string StatusText() const;
    // A "quit" came over the bus; the program that runs the simulator ends itself.
    bool QuitRequested() const { return m_quitRequested; }

    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

private:
    struct Bridge {
        std::unique_ptr<PtyLink> service;  // the path the service opens
        std::unique_ptr<PtyLink> peer;     // the device's side, "<path>.peer"
    };
    struct Waiting {
        CanPlaylist list;
        bool waitsForFilter = false;
    };

    void Loop();
    void Tick();
    void Log(int level, const std::string& text) const;
    std::string Describe(uint32_t eventId) const;
    void Publish(uint32_t eventId, const Bytes& payload);

    // Handlers, on the simulator's thread.
    int OnRequest(const char* msg, int len);
    int OnMcuSend(const char* msg, int len);
    int OnMcuSettings(const char* msg, int len);
    int OnCanFilter(const char* msg, int len);
    int OnCanSend(const char* msg, int len);
    int OnControl(const char* msg, int len);
    void RegisterHandlers();

    // With m_lock held.
    Bytes AnswerLocked(uint32_t requestId, std::string& what) const;
    // The file the request's flag asks for (offset 4 of its payload).
    Bytes UpgradeFileAnswer(const std::string& flag, std::string& what) const;
    void SetReadyLocked(bool ready);
    void ScheduleReadinessLocked(const Readiness& ready, int64_t now);
    bool MakeMcuLinksLocked(const std::vector<McuLink>& links, std::string& error);
    bool MakeBridgesLocked(std::string& error);
    void LoadScriptLocked(int64_t now);
    void StartWaitingListsLocked(int64_t now);
    size_t DeliverLocked(int port, const std::vector<CanFrame>& frames, std::string& result);
    void PumpMcuLocked();
    void PumpBridgesLocked();
    CommandReply ExecuteWords(const std::vector<std::string>& words);

    SimulatorOptions m_opt;
    std::unique_ptr<CMsgClientManage> m_client;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_quitRequested{false};

    mutable std::mutex m_lock;
    Scenario m_scenario;
    bool m_ready = false;
    int64_t m_readyAtUs = -1;
    int64_t m_cpxAtUs = -1;
    std::map<int, std::unique_ptr<PtyLink>> m_mcu;
    std::map<int, LineState> m_mcuLine;
    std::vector<Bridge> m_bridges;
    std::array<std::vector<CanFilterEntry>, kCanPorts> m_filters;
    Waiting m_script;
    Waiting m_replay;
    // Replies of recent control requests by nonce: a resent request is answered again, not
    // executed again.
    std::deque<std::pair<std::string, std::string>> m_controlReplies;
};

}  // namespace pmrecorder

#endif
