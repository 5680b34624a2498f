// pm-top: a live view of the recorder's peripherals, from the bus alone.
//
//   pm-top [--root DIR]                      the live view (q quits)
//   pm-top --once [--after S] [--root DIR]   listen S seconds, print one snapshot, exit
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "BusListener.h"
#include "BusWire.h"
#include "CommonTime.h"
#include "ConfigNames.h"
#include "EventNames.h"
#include "ExtendBoxRecords.h"
#include "PeripheralEvents.h"
#include "Screen.h"
#include "Signals.h"
#include "TopModel.h"
#include "TopText.h"

namespace {

using pmtools::CBusListener;

// The module id pm-top sends its requests under.
constexpr uint32_t kPmTopModuleId = 0x70;

// The platform's monotonic clock, which counts milliseconds.
int64_t MonotonicMs() {
    return Common::Q7R_TMGetSystemMicroSecond();
}

constexpr double kDefaultListenSeconds = 2.0;
constexpr size_t kSnapshotMessages = 20;
constexpr int64_t kRedrawMs = 250;

struct Options {
    bool once = false;
    double afterSeconds = kDefaultListenSeconds;
    std::string root;
};

void Usage(FILE* out) {
    fprintf(out,
            "usage: pm-top [--root DIR]\n"
            "       pm-top --once [--after S] [--root DIR]\n"
            "A live view of the recorder's peripherals, from the bus (RECORDER_BUS).\n"
            "  --root DIR   recorder root: names the protocols and ports from its peripheral\n"
            "               configuration (default: RECORDER_ROOT when set)\n"
            "  --once       print one plain-text snapshot and exit (1 when no broker answered)\n"
            "  --after S    with --once: listen S seconds first (default 2)\n"
            "Keys: q quit, p pause, / filter the messages by id or name, Tab next pane,\n"
            "      Up/Down/PgUp/PgDn scroll the pane.\n");
}

// 0 to go on, otherwise the exit status.
int ParseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--once") {
            o.once = true;
        } else if (arg == "--after" && hasValue) {
            char* end = nullptr;
            o.afterSeconds = strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(o.afterSeconds >= 0) || o.afterSeconds > 3600) {
                fprintf(stderr, "pm-top: --after takes seconds from 0 to 3600: %s\n", argv[i]);
                return 2;
            }
        } else if (arg == "--root" && hasValue) {
            o.root = argv[++i];
        } else if (arg == "-h" || arg == "--help") {
            Usage(stdout);
            return -1;
        } else {
            fprintf(stderr, "pm-top: unknown or incomplete option: %s\n", arg.c_str());
            Usage(stderr);
            return 2;
        }
    }
    if (o.root.empty() && getenv("RECORDER_ROOT") != nullptr) {
        o.root = getenv("RECORDER_ROOT");
    }
    return 0;
}

// Everything the screen shows, kept up to date and asked for again after each (re)connection,
// so that pm-top started after the service still shows the settings.
class Session {
public:
    explicit Session(CBusListener& tap) : m_tap(tap) {}

    // True when `wakeFd` became readable.
    bool Listen(int timeoutMs, int wakeFd) {
        struct timeval when;
        const auto take = [&](const uint8_t* frame, size_t size) {
            gettimeofday(&when, nullptr);
            m_model.OnMessage(frame, size, MonotonicMs(), when);
        };
        const bool woken = m_tap.Poll(timeoutMs, take, wakeFd);
        if (m_tap.TakeReconnect()) {
            AskForState();
        }
        AskForBoxes();
        return woken;
    }

    std::string BusState() const {
        return m_tap.Connected() ? "connected " + m_tap.Address()
                                 : "no broker at " + m_tap.Address() + " (retrying)";
    }
    const pmtop::TopModel& Model() const { return m_model; }

private:
    void AskForState() {
        for (uint32_t id : {EVENT_GET_DEVICE_MODULE_STATE, EVENT_GET_SERIAL_PARAM,
                            EVENT_GET_CAN_PARAM, EVENT_GET_ETHERNET_PARAM, EVENT_GET_LED_STATE,
                            EVENT_GET_VIDEO_LOSS, EVENT_GET_DIGITAL_VIDEO_LOSS}) {
            Request(id, {});
        }
        m_askedBoxes.clear();
    }

    // The version of each configured box, and a hub's I/O state: the service answers these
    // from what it keeps, so nothing reaches the boxes themselves.
    void AskForBoxes() {
        if (!m_tap.Connected()) {
            return;
        }
        for (const pmtop::IdPair& ids : m_model.ConfiguredBoxes()) {
            if (!m_askedBoxes.insert(ids).second) {
                continue;
            }
            std::vector<uint8_t> request(sizeof(ExtendVersionRecord_t), 0);
            request[1] = ids.first;
            request[2] = ids.second;
            Request(EVENT_GET_EXTEND_VERSION, request);
            if (ids.first == PERIPHERAL_MAINID_EXTEND_HUB_BOX) {
                Request(EVENT_GET_EXTEND_IO_STATE, {ids.first, ids.second, 0, 0});
            }
        }
    }

    // A request with needAnswer set, sent as pm-top's module.
    void Request(uint32_t eventId, const std::vector<uint8_t>& payload) {
        std::vector<uint8_t> frame(Common::kMsgHeadSize + payload.size());
        Common::PutMsgHead(frame.data(), eventId, kPmTopModuleId, ++m_seq,
                           static_cast<uint32_t>(payload.size()) | Common::kMsgNeedAnswerFlag);
        std::copy(payload.begin(), payload.end(), frame.begin() + Common::kMsgHeadSize);
        m_tap.Publish(frame.data(), frame.size());
    }

    CBusListener& m_tap;
    uint32_t m_seq = 0;
    pmtop::TopModel m_model;
    std::set<pmtop::IdPair> m_askedBoxes;
};

int RunOnce(Session& session, const pmtop::ConfigNames& names, double seconds) {
    const int64_t deadline = MonotonicMs() + static_cast<int64_t>(seconds * 1000);
    for (int64_t now = MonotonicMs(); now < deadline; now = MonotonicMs()) {
        if (pmtools::TakeStopSignal(0) != 0) {
            break;
        }
        session.Listen(static_cast<int>(std::min<int64_t>(100, deadline - now)), -1);
    }
    const pmtop::View view{session.Model(), names, MonotonicMs()};
    const std::string text = pmtop::Snapshot(view, session.BusState(), kSnapshotMessages);
    fwrite(text.data(), 1, text.size(), stdout);
    return session.BusState().rfind("connected", 0) == 0 ? 0 : 1;
}

int RunScreen(Session& session, const pmtop::ConfigNames& names) {
    pmtop::Screen screen;
    std::string error;
    if (!screen.Start(error)) {
        fprintf(stderr, "pm-top: %s\n", error.c_str());
        return 1;
    }
    int64_t lastDraw = 0;
    while (pmtools::TakeStopSignal(0) == 0) {
        const bool typed = session.Listen(100, STDIN_FILENO);
        // getch also delivers KEY_RESIZE after SIGWINCH, which interrupts the wait.
        if (!screen.HandleKeys()) {
            break;
        }
        const int64_t now = MonotonicMs();
        if (typed || now - lastDraw >= kRedrawMs) {
            screen.Draw(pmtop::View{session.Model(), names, now}, session.BusState());
            lastDraw = now;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    pmtools::BlockStopSignals();
    pmtools::IgnoreBrokenPipes();
    Options options;
    if (const int status = ParseOptions(argc, argv, options); status != 0) {
        return status < 0 ? 0 : status;
    }
    pmtop::ConfigNames names;
    if (!options.root.empty()) {
        std::string error;
        if (!pmtop::LoadConfigNames(options.root, names, error)) {
            fprintf(stderr, "pm-top: %s; showing ids without names\n", error.c_str());
        }
    }
    Common::BusEndpoints ends;
    if (!pmtools::BusFromEnv(ends, "pm-top")) {
        return 2;
    }
    // Nothing on stderr from the listener: the screen says how the bus is.
    CBusListener tap({{}, "pm-top", "", true});
    if (!tap.Open(ends)) {
        return 1;
    }
    Session session(tap);
    return options.once ? RunOnce(session, names, options.afterSeconds) : RunScreen(session, names);
}
