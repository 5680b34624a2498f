// pm-recorder: plays the rest of the recorder on the bus so that the service runs on a desktop.
#include <libgen.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "CanText.h"
#include "Control.h"
#include "EventNames.h"
#include "MessageText.h"
#include "MsgBroker.h"
#include "RecorderRoot.h"
#include "Records.h"
#include "Scenario.h"
#include "Signals.h"
#include "Simulator.h"

#ifndef PM_RECORDER_TEMPLATE
#define PM_RECORDER_TEMPLATE "examples/root"
#endif

namespace {

using namespace pmrecorder;

const char kUsage[] =
    "usage: pm-recorder [OPTIONS] [SCENARIO]   run the simulator (commands on stdin, see help)\n"
    "       pm-recorder make-root DIR [--template DIR] [--product-type N]\n"
    "       pm-recorder apply FILE               make FILE the running simulator's scenario\n"
    "       pm-recorder ctl COMMAND...           any stdin command, to the running simulator\n"
    "       pm-recorder check SCENARIO           print the records a scenario gives\n"
    "options:\n"
    "  --root DIR       recorder root: relative links resolve here, and the main-chip ttys\n"
    "                   of its peripheral configuration become pty pairs (PATH and PATH.peer)\n"
    "  --make-root DIR  write a recorder root from the template first, then run in it\n"
    "  --template DIR   the template of a root (default: share/basicservice/examples/root\n"
    "                   beside an installed pm-recorder, else " PM_RECORDER_TEMPLATE
    ")\n"
    "  --replay FILE    play a candump -l log to the CAN ports, from the first filter on\n"
    "  --replay-now     start the replay at once\n"
    "  --upgrade-file F answer the extension box's file request (6705, \"VKEL\") with F\n"
    "  --hub-upgrade-file F  and the hub box's (\"ZORVIK\")\n"
    "  --speed X        replay X times as fast (default 1)\n"
    "  --items N        CAN frames per 1089 event (default 16)\n"
    "  -q, --quiet      only problems;  -v, --verbose  also the traffic\n"
    "  --no-broker      do not start a broker when none serves the bus\n"
    "  --timeout S      apply/ctl: seconds to wait for the answer (default 5)\n"
    "The bus is the one named by RECORDER_BUS (default /tmp/recorder-bus).\n";

int Usage(const std::string& problem) {
    fprintf(stderr, "pm-recorder: %s\n%s", problem.c_str(), kUsage);
    return 2;
}

// An installed pm-recorder finds the example root beside itself; one in a build tree uses the
// source tree's.
std::string DefaultTemplate() {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        self[n] = '\0';
        std::string installed = std::string(dirname(self)) + "/../share/basicservice/examples/root";
        struct stat st;
        if (stat(installed.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            return installed;
        }
    }
    return PM_RECORDER_TEMPLATE;
}

struct Arguments {
    std::vector<std::string> words;
    std::string root;
    std::string makeRoot;
    std::string templateDir = DefaultTemplate();
    std::string replay;
    std::string upgradeFile;
    std::string hubUpgradeFile;
    bool replayNow = false;
    double speed = 1;
    size_t items = 16;
    int verbosity = 1;
    bool broker = true;
    double timeoutS = 5;
    std::optional<int> productType;
};

bool ParseDouble(const std::string& text, double& out) {
    char* end = nullptr;
    out = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(out) && out > 0;
}

int ParseArguments(int argc, char** argv, Arguments& a) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string v;
        uint64_t number = 0;
        if ((arg == "-h" || arg == "--help") && a.words.empty()) {
            a.words.push_back("help");
        } else if (arg == "-q" || arg == "--quiet") {
            a.verbosity = 0;
        } else if (arg == "-v" || arg == "--verbose") {
            a.verbosity = 2;
        } else if (arg == "--replay-now") {
            a.replayNow = true;
        } else if (arg == "--no-broker") {
            a.broker = false;
        } else if (arg == "--root" || arg == "--make-root" || arg == "--template" ||
                   arg == "--replay" || arg == "--upgrade-file" || arg == "--hub-upgrade-file") {
            if (!value(v)) {
                return Usage("missing value for " + arg);
            }
            (arg == "--upgrade-file"       ? a.upgradeFile
             : arg == "--hub-upgrade-file" ? a.hubUpgradeFile
             : arg == "--root"             ? a.root
             : arg == "--make-root"        ? a.makeRoot
             : arg == "--template"         ? a.templateDir
                                           : a.replay) = v;
        } else if (arg == "--speed" || arg == "--timeout") {
            if (!value(v) || !ParseDouble(v, arg == "--speed" ? a.speed : a.timeoutS)) {
                return Usage("bad value for " + arg);
            }
        } else if (arg == "--items") {
            if (!value(v) || !pmtools::ParseNumber(v, 4096, number) || number == 0) {
                return Usage("bad value for --items");
            }
            a.items = number;
        } else if (arg == "--product-type") {
            if (!value(v) || !pmtools::ParseNumber(v, INT32_MAX, number)) {
                return Usage("bad value for --product-type");
            }
            a.productType = static_cast<int>(number);
        } else if (arg.size() > 1 && arg[0] == '-' && a.words.empty()) {
            return Usage("unknown option " + arg);
        } else {
            a.words.push_back(arg);
        }
    }
    return 0;
}

std::string Joined(const std::vector<std::string>& words, size_t from) {
    std::string text;
    for (size_t i = from; i < words.size(); ++i) {
        text += (text.empty() ? "" : " ") + words[i];
    }
    return text;
}

int RunControl(const std::string& command, double timeoutS) {
    CommandReply reply;
    std::string error;
    if (!SendControl(command, static_cast<int>(timeoutS * 1000), reply, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    fprintf(reply.ok ? stdout : stderr, "%s\n", reply.text.c_str());
    return reply.ok ? 0 : 1;
}

int RunApply(const Arguments& a) {
    if (a.words.size() != 2) {
        return Usage("apply takes one scenario file");
    }
    // Checked here first, so that a typo is reported by the command that made it.
    Scenario s;
    std::string error;
    if (!LoadScenarioFile(a.words[1], s, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    std::error_code ec;
    std::string path = std::filesystem::absolute(a.words[1], ec).string();
    return RunControl("apply " + path, a.timeoutS);
}

int RunCheck(const Arguments& a) {
    if (a.words.size() != 2) {
        return Usage("check takes one scenario file");
    }
    Scenario s;
    std::string error;
    if (!LoadScenarioFile(a.words[1], s, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    struct Shown {
        const char* what;
        Bytes bytes;
    };
    const Shown shown[] = {
        {"serial parameter setting (315/316)", EncodeSerialSetting(s)},
        {"CAN parameter setting (359/360)", EncodeCanSetting(s)},
        {"Ethernet parameter setting (361/362)", EncodeEthernetSetting(s)},
        {"IPC setting (319/320)", EncodeIpcSetting(s)},
        {"analogue video loss (1051/1052)", EncodeVideoLoss(s)},
        {"digital video loss (1285/1284)", EncodeDigitalVideoLoss(s)},
        {"LED panel state (1121/1122)", EncodeLedState(s)},
        {"storage state (2053)", EncodeStorageState(s)},
        {"vehicle information (1081)", EncodeVehicleInfo(s)},
        {"FTP setting (283/284)", EncodeFtpSetting(s)},
    };
    for (const Shown& sh : shown) {
        printf("%s, %zu bytes:\n%s", sh.what, sh.bytes.size(),
               pmtools::HexDump(sh.bytes.data(), sh.bytes.size(), "  ").c_str());
    }
    return 0;
}

int RunMakeRoot(const Arguments& a) {
    if (a.words.size() != 2) {
        return Usage("make-root takes one folder");
    }
    std::string error;
    if (!MakeRecorderRoot(a.templateDir, a.words[1], a.productType, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    fprintf(stderr, "pm-recorder: recorder root written to %s\n", a.words[1].c_str());
    return 0;
}

bool EnsureBroker(Common::CMsgBroker& broker) {
    int rc = broker.Start();
    const Common::BusEndpoints& ends = broker.Endpoints();
    if (rc < 0) {
        fprintf(stderr, "pm-recorder: cannot start a broker at %s\n", ends.in.c_str());
        return false;
    }
    if (rc == 0) {
        fprintf(stderr, "pm-recorder: started a broker at %s and %s\n", ends.in.c_str(),
                ends.out.c_str());
    }
    return true;
}

// Lines from standard input, without blocking the check for signals. False at the end of
// input (the simulator keeps running then).
class LineReader {
public:
    bool Open() const { return m_open; }
    void Poll(int timeoutMs, std::vector<std::string>& lines) {
        struct pollfd p = {STDIN_FILENO, POLLIN, 0};
        if (!m_open || poll(&p, 1, timeoutMs) <= 0) {
            return;
        }
        char buffer[4096];
        ssize_t n = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (n <= 0 && !(n < 0 && errno == EINTR)) {
            m_open = false;
            return;
        }
        m_pending.append(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        for (size_t nl; (nl = m_pending.find('\n')) != std::string::npos;) {
            lines.push_back(m_pending.substr(0, nl));
            m_pending.erase(0, nl + 1);
        }
    }

private:
    std::string m_pending;
    bool m_open = true;
};

SimulatorOptions OptionsFrom(const Arguments& a) {
    SimulatorOptions options;
    options.root = a.makeRoot.empty() ? a.root : a.makeRoot;
    options.upgradeFile = a.upgradeFile;
    options.hubUpgradeFile = a.hubUpgradeFile;
    if (options.root.empty() && getenv("RECORDER_ROOT") != nullptr) {
        options.root = getenv("RECORDER_ROOT");
    }
    options.mainChipBridges = !options.root.empty();
    options.verbosity = a.verbosity;
    options.canItemsPerEvent = a.items;
    return options;
}

// The console: commands from standard input until quit, end of input or a stop signal.
int RunCommands(Simulator& simulator) {
    fprintf(stderr, "pm-recorder: running; type help for commands\n");
    LineReader input;
    while (!simulator.QuitRequested()) {
        // Without input left, the wait for a signal paces the loop instead of poll.
        if (pmtools::TakeStopSignal(input.Open() ? 0 : 100) != 0) {
            break;
        }
        std::vector<std::string> lines;
        input.Poll(100, lines);
        for (const std::string& line : lines) {
            CommandReply reply = simulator.Execute(line);
            if (!reply.text.empty()) {
                fprintf(stderr, "%s%s\n", reply.ok ? "" : "error: ", reply.text.c_str());
            }
            if (reply.quit) {
                return 0;
            }
        }
    }
    return 0;
}

int RunSimulator(const Arguments& a) {
    if (a.words.size() > 1) {
        return Usage("one scenario at most");
    }
    Scenario scenario;
    std::string error;
    if (!a.words.empty() && !LoadScenarioFile(a.words[0], scenario, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    std::vector<CandumpRecord> records;
    if (!a.replay.empty() && !LoadCandumpFile(a.replay, records, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    SimulatorOptions options = OptionsFrom(a);
    if (!a.makeRoot.empty()) {
        std::optional<int> type = a.productType ? a.productType : scenario.productType;
        if (!MakeRecorderRoot(a.templateDir, a.makeRoot, type, error)) {
            fprintf(stderr, "pm-recorder: %s\n", error.c_str());
            return 1;
        }
        fprintf(stderr, "pm-recorder: recorder root written to %s\n", a.makeRoot.c_str());
    }
    Common::CMsgBroker broker;
    if (a.broker && !EnsureBroker(broker)) {
        return 1;
    }
    Simulator simulator(options);
    if (!simulator.Start(scenario, error)) {
        fprintf(stderr, "pm-recorder: %s\n", error.c_str());
        return 1;
    }
    if (!records.empty()) {
        simulator.Replay(PlanReplay(records, a.speed), a.replayNow);
        fprintf(stderr, "pm-recorder: %zu frames to replay from %s\n", records.size(),
                a.replay.c_str());
    }
    return RunCommands(simulator);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that all of them inherit the mask.
    pmtools::BlockStopSignals();
    pmtools::IgnoreBrokenPipes();
    Arguments a;
    if (int rc = ParseArguments(argc, argv, a)) {
        return rc;
    }
    const std::string command = a.words.empty() ? "" : a.words[0];
    if (command == "help") {
        fputs(kUsage, stdout);
        return 0;
    }
    if (command == "apply") {
        return RunApply(a);
    }
    if (command == "ctl") {
        return a.words.size() < 2 ? Usage("ctl needs a command")
                                  : RunControl(Joined(a.words, 1), a.timeoutS);
    }
    if (command == "check") {
        return RunCheck(a);
    }
    if (command == "make-root") {
        return RunMakeRoot(a);
    }
    return RunSimulator(a);
}
