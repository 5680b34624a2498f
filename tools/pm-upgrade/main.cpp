// pm-upgrade: asks the service to upgrade an extension box (6704) and follows its states
// (6707): a progress bar on a terminal, plain lines otherwise. First it asks the box's version
// (6711): no answer means no box of these ids; an answer without a version means the service
// is still reading it (after an upgrade it always does), and pm-upgrade waits for it.
//   exit 0: state 10 (finished); 4-9: the state that ended it; 1: a state it does not know;
//   2: usage or an unusable --file; 3: no box answered, or no state in time
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <cstddef>

#include "ExtendBoxRecords.h"
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
    fprintf(
        stderr,
        "usage: pm-upgrade [--hub] [--box MAIN:SUB] [--source N] [--file FILE] "
        "[--timeout S]\n"
        "  --hub          the hub box (149:0, device 0x19) instead of the box (1:0)\n"
        "  --box M:S      another box's ids\n"
        "  --source N     the upgrade source, 0-2 (default 0; the service refuses 3 and above)\n"
        "  --file FILE    the upgrade file the recorder will hand over: checked first, and\n"
        "                 the bytes sent are estimated from the percentage\n"
        "  --timeout S    give up after S seconds without a state (default 30)\n"
        "exit status: 0 finished, 4-9 the state that ended it, 1 a state it does not know,\n"
        "2 usage or an unusable --file, 3 no box answered for the ids or no state in time\n");
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
            char* end = nullptr;
            const unsigned long source = strtoul(value, &end, 10);
            if (*value == '\0' || *end != '\0' || source > 255) {
                fprintf(stderr,
                        "pm-upgrade: --source takes a number (0-2; the service refuses "
                        "the others): %s\n",
                        value);
                return false;
            }
            a.source = static_cast<unsigned>(source);
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

// The box's version through the service (6711): 0 once it is known; 3 when no box answered
// for the ids, or its version stayed unknown until the time-out.
int WaitForVersion(CMsgClientManage& client, const Args& args) {
    std::mutex lock;
    int answers = 0;
    bool known = false;
    client.RegisterHandler(
        2, EventAnswerOf(EVENT_GET_EXTEND_VERSION), [&](const char* msg, int len) {
            const auto* p = reinterpret_cast<const uint8_t*>(msg) + Common::kMsgHeadSize;
            if (len < static_cast<int>(Common::kMsgHeadSize +
                                       offsetof(ExtendVersionRecord_t, count) + 1) ||
                p[offsetof(ExtendVersionRecord_t, mainId)] != args.mainId ||
                p[offsetof(ExtendVersionRecord_t, subId)] != args.subId) {
                return 0;
            }
            std::lock_guard<std::mutex> guard(lock);
            ++answers;
            known = known || p[offsetof(ExtendVersionRecord_t, count)] != 0;
            return 0;
        });
    uint8_t request[16] = {};
    request[0] = PERIPHERAL_TYPE_SERIAL;
    request[1] = static_cast<uint8_t>(args.mainId);
    request[2] = static_cast<uint8_t>(args.subId);
    request[9] = static_cast<uint8_t>(args.source < 4 ? args.source : 0);
    const Clock::time_point start = Clock::now();
    bool told = false;
    for (Clock::time_point asked{};
         Clock::now() - start < std::chrono::duration<double>(args.timeoutS);) {
        if (Clock::now() - asked >= std::chrono::seconds(1)) {
            asked = Clock::now();
            if (client.MSGSendMessage(0, EVENT_GET_EXTEND_VERSION, 1,
                                      reinterpret_cast<const char*>(request), sizeof request,
                                      2) < 0) {
                fprintf(stderr, "pm-upgrade: cannot reach the bus (RECORDER_BUS?)\n");
                return 3;
            }
        }
        client.MSGWaitForEvent(100);
        std::lock_guard<std::mutex> guard(lock);
        if (known) {
            return 0;
        }
        if (answers > 0 && !told) {
            told = true;
            printf("box %u:%u answers, its version is being read; waiting for it\n", args.mainId,
                   args.subId);
            fflush(stdout);
        }
        if (answers == 0 && Clock::now() - start > std::chrono::seconds(3)) {
            printf(
                "no box answered for %u:%u: none in the serial setting, or no service on the "
                "bus\n",
                args.mainId, args.subId);
            return 3;
        }
    }
    printf("box %u:%u: its version was not read within %.0f s\n", args.mainId, args.subId,
           args.timeoutS);
    return 3;
}

// The image length of `path` once it proved an upgrade file, else 0 and the exit status 2.
int ReadImageLength(const std::string& path, uint32_t& imageLength) {
    std::vector<uint8_t> file;
    pmtools::UpgradeFileInfo info;
    std::string error;
    if (!pmtools::ReadWholeFile(path, file, pmtools::kMaxUpgradeFileSize, error)) {
        fprintf(stderr, "pm-upgrade: cannot read %s: %s\n", path.c_str(), error.c_str());
        return 2;
    }
    if (!pmtools::InspectUpgradeFile(file, info, error)) {
        fprintf(stderr, "pm-upgrade: %s is not an upgrade file: %s\n", path.c_str(), error.c_str());
        return 2;
    }
    imageLength = info.imageLength;
    return 0;
}

// The states of this box and source as they arrive (6707), for the main thread to take.
class StateQueue {
public:
    StateQueue(CMsgClientManage& client, const Args& args) {
        client.RegisterHandler(
            1, EVENT_EXTEND_UPGRADE_STATE, [this, &args](const char* msg, int len) {
                const auto* p = reinterpret_cast<const uint8_t*>(msg) + Common::kMsgHeadSize;
                if (len < static_cast<int>(Common::kMsgHeadSize + sizeof(ExtendUpgradeState_t)) ||
                    p[offsetof(ExtendUpgradeState_t, mainId)] != args.mainId ||
                    p[offsetof(ExtendUpgradeState_t, subId)] != args.subId ||
                    p[offsetof(ExtendUpgradeState_t, source)] != args.source) {
                    return 0;  // another box's, or another source's
                }
                std::lock_guard<std::mutex> guard(m_lock);
                m_states.push_back(
                    {p[offsetof(ExtendUpgradeState_t, state)],
                     static_cast<int8_t>(p[offsetof(ExtendUpgradeState_t, percent)])});
                return 0;
            });
    }
    std::deque<State> Take() {
        std::deque<State> got;
        std::lock_guard<std::mutex> guard(m_lock);
        got.swap(m_states);
        return got;
    }

private:
    std::mutex m_lock;
    std::deque<State> m_states;
};

bool SendTrigger(CMsgClientManage& client, const Args& args) {
    uint8_t trigger[16] = {};
    trigger[0] = PERIPHERAL_TYPE_SERIAL;
    trigger[1] = static_cast<uint8_t>(args.mainId);
    trigger[2] = static_cast<uint8_t>(args.subId);
    trigger[3] = static_cast<uint8_t>(args.device);
    trigger[9] = static_cast<uint8_t>(args.source);
    if (client.MSGSendMessage(0, EVENT_EXTEND_UPGRADE_TRIGGER, 0,
                              reinterpret_cast<const char*>(trigger), sizeof(trigger), 1) < 0) {
        fprintf(stderr, "pm-upgrade: cannot reach the bus (RECORDER_BUS?)\n");
        return false;
    }
    return true;
}

// The bar on a terminal; elsewhere a line per tenth, so that logs stay short.
void ShowProgress(bool terminal, int percent, uint32_t imageLength, double quietS,
                  int& lastPrinted) {
    if (terminal) {
        const int width = 30;
        const int filled = percent * width / 100;
        char bytes[64] = "";
        if (imageLength > 0) {
            snprintf(bytes, sizeof bytes, "  ~%u/%u bytes",
                     static_cast<unsigned>(uint64_t(imageLength) * percent / 100), imageLength);
        }
        printf("\r  [%.*s%*s] %3d%%%s  last state %.1f s ago   ", filled,
               "##############################", width - filled, "", percent, bytes, quietS);
        fflush(stdout);
    } else if (percent / 10 != lastPrinted / 10) {
        lastPrinted = percent;
        printf("%d%%\n", percent);
        fflush(stdout);
    }
}

// Follows the states until a final one (its exit status) or the time-out (3).
int FollowStates(CMsgClientManage& client, StateQueue& queue, const Args& args,
                 uint32_t imageLength) {
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    Clock::time_point last = Clock::now();
    int percent = 0;
    int lastPrinted = -1;
    for (;;) {
        client.MSGWaitForEvent(100);
        const std::deque<State> got = queue.Take();
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
        ShowProgress(terminal, percent, imageLength, got.empty() ? quiet : 0.0, lastPrinted);
        if (quiet > args.timeoutS) {
            printf("%sno state for %.0f s: the box (or the service) stopped answering\n",
                   terminal ? "\n" : "", args.timeoutS);
            return 3;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Args args;
    if (!ParseArgs(argc, argv, args)) {
        return Usage();
    }
    uint32_t imageLength = 0;
    if (!args.file.empty()) {
        const int unusable = ReadImageLength(args.file, imageLength);
        if (unusable != 0) {
            return unusable;
        }
    }
    CMsgClientManage client("pm-upgrade", 300000);
    StateQueue queue(client, args);
    const int known = WaitForVersion(client, args);
    if (known != 0) {
        return known;
    }
    if (!SendTrigger(client, args)) {
        return 3;
    }
    printf("upgrade of box %u:%u (source %u) asked for\n", args.mainId, args.subId, args.source);
    fflush(stdout);
    return FollowStates(client, queue, args, imageLength);
}
