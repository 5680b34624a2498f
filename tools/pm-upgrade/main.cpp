// pm-upgrade: asks the service to upgrade an extension box (6704) and follows its states
// (6707): a progress bar on a terminal, plain lines otherwise.
//   exit 0: state 10 (finished); 4-9: the state that ended it; 3: no state in time; 2: usage
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "MsgClientManage.h"
#include "PeripheralDefine.h"
#include "PeripheralEvents.h"
#include "UpgradeFile.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Args {
    unsigned mainId = 1;
    unsigned subId = 0;
    unsigned device = 0x04;
    unsigned source = 0;
    double timeoutS = 30;
    std::string file;
};

int Usage() {
    fprintf(stderr,
            "usage: pm-upgrade [--hub] [--box MAIN:SUB] [--source N] [--file FILE] "
            "[--timeout S]\n"
            "  --hub          the hub box (149:0, device 0x19) instead of the box (1:0)\n"
            "  --box M:S      another box's ids\n"
            "  --source N     the upgrade source, 0-2 (default 0)\n"
            "  --file FILE    the upgrade file the recorder will hand over: shows bytes too\n"
            "  --timeout S    give up after S seconds without a state (default 30)\n"
            "exit status: 0 finished, 4-9 the state that ended it, 3 no answer in time\n");
    return 2;
}

const char* Meaning(int state) {
    switch (state) {
        case 0:
            return "transferring";
        case 4:
            return "the box is offline, the upgrade was not started";
        case 5:
            return "the upgrade file could not be analysed (check value wrong)";
        case 6:
            return "the upgrade file was not found";
        case 7:
            return "an upgrade is already running";
        case 8:
            return "the box already runs this version";
        case 9:
            return "failed";
        case 10:
            return "finished";
        default:
            return "unknown state";
    }
}

bool ParseArgs(int argc, char** argv, Args& a) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--hub") {
            a.mainId = PERIPHERAL_MAINID_EXTEND_HUB_BOX;
            a.device = 0x19;
        } else if (arg == "--box" && value != nullptr) {
            if (sscanf(value, "%u:%u", &a.mainId, &a.subId) != 2 || a.mainId > 255 ||
                a.subId > 255) {
                return false;
            }
            ++i;
        } else if (arg == "--source" && value != nullptr) {
            a.source = static_cast<unsigned>(atoi(value));
            ++i;
        } else if (arg == "--file" && value != nullptr) {
            a.file = value;
            ++i;
        } else if (arg == "--timeout" && value != nullptr) {
            a.timeoutS = atof(value);
            ++i;
        } else {
            return false;
        }
    }
    return a.source <= 255 && a.timeoutS > 0;
}

struct State {
    int state;
    int percent;
};

}  // namespace

int main(int argc, char** argv) {
    Args args;
    if (!ParseArgs(argc, argv, args)) {
        return Usage();
    }
    uint32_t imageLength = 0;
    if (!args.file.empty()) {
        std::vector<uint8_t> file;
        pmtools::UpgradeFileInfo info;
        std::string error;
        if (!pmtools::ReadWholeFile(args.file, file) ||
            !pmtools::InspectUpgradeFile(file, info, error)) {
            fprintf(stderr, "pm-upgrade: %s is not an upgrade file %s\n", args.file.c_str(),
                    error.c_str());
            return 2;
        }
        imageLength = info.imageLength;
    }

    CMsgClientManage client("pm-upgrade", 300000);
    std::mutex lock;
    std::deque<State> states;
    client.RegisterHandler(1, EVENT_EXTEND_UPGRADE_STATE, [&](const char* msg, int len) {
        const auto* p = reinterpret_cast<const uint8_t*>(msg) + Common::kMsgHeadSize;
        if (len < static_cast<int>(Common::kMsgHeadSize) + 8 || p[5] != args.mainId ||
            p[6] != args.subId || p[0] != args.source) {
            return 0;  // another box's, or another source's
        }
        std::lock_guard<std::mutex> guard(lock);
        states.push_back({p[1], static_cast<int8_t>(p[2])});
        return 0;
    });
    uint8_t trigger[16] = {};
    trigger[0] = PERIPHERAL_TYPE_SERIAL;
    trigger[1] = static_cast<uint8_t>(args.mainId);
    trigger[2] = static_cast<uint8_t>(args.subId);
    trigger[3] = static_cast<uint8_t>(args.device);
    trigger[9] = static_cast<uint8_t>(args.source);
    if (client.MSGSendMessage(0, EVENT_EXTEND_UPGRADE_TRIGGER, 0,
                              reinterpret_cast<const char*>(trigger), sizeof(trigger), 1) < 0) {
        fprintf(stderr, "pm-upgrade: cannot reach the bus (RECORDER_BUS?)\n");
        return 3;
    }
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    printf("upgrade of box %u:%u (source %u) asked for\n", args.mainId, args.subId, args.source);
    fflush(stdout);

    Clock::time_point last = Clock::now();
    int percent = 0;
    int lastPrinted = -1;
    for (;;) {
        client.MSGWaitForEvent(100);
        std::deque<State> got;
        {
            std::lock_guard<std::mutex> guard(lock);
            got.swap(states);
        }
        const double quiet = std::chrono::duration<double>(Clock::now() - last).count();
        for (const State& s : got) {
            last = Clock::now();
            if (s.state == 0) {
                percent = s.percent;
                continue;
            }
            if (terminal) {
                printf("\n");
            }
            printf("state %d: %s\n", s.state, Meaning(s.state));
            return s.state == 10 ? 0 : (s.state >= 4 && s.state <= 9 ? s.state : 1);
        }
        if (terminal) {
            const int width = 30;
            const int filled = percent * width / 100;
            char bytes[64] = "";
            if (imageLength > 0) {
                snprintf(bytes, sizeof bytes, "  %u/%u bytes",
                         static_cast<unsigned>(uint64_t(imageLength) * percent / 100), imageLength);
            }
            printf("\r  [%.*s%*s] %3d%%%s  last answer %.1f s ago   ", filled,
                   "##############################", width - filled, "", percent, bytes,
                   got.empty() ? quiet : 0.0);
            fflush(stdout);
        } else if (percent / 10 != lastPrinted / 10) {  // a line per tenth: logs stay short
            lastPrinted = percent;
            printf("%d%%\n", percent);
            fflush(stdout);
        }
        if (quiet > args.timeoutS) {
            printf("%sno state for %.0f s: the service or the box does not answer\n",
                   terminal ? "\n" : "", args.timeoutS);
            return 3;
        }
    }
}
