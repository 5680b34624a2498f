// pm-bus: the desktop bus from a shell: broker, monitor, send, wait, call.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Commands.h"
#include "EventNames.h"
#include "MessageText.h"
#include "MsgClientManage.h"
#include "Signals.h"

namespace {

const char kUsage[] =
    "usage: pm-bus broker\n"
    "       pm-bus monitor [--ids LIST] [--hex]\n"
    "       pm-bus send ID [HEX] [--request] [--from N]\n"
    "       pm-bus wait ID [--timeout S] [--hex]\n"
    "       pm-bus call ID [HEX] [--timeout S] [--from N] [--hex]\n"
    "       pm-bus names\n"
    "       pm-bus record FILE [--for S]\n"
    "       pm-bus replay FILE [--from LIST] [--only LIST] [--speed N] [--sync]\n"
    "ID: decimal, 0x hex, or a name from `pm-bus names`; LIST: IDs separated by commas.\n"
    "replay --from: sender module ids; --only: event ids. Format of FILE: docs/bus.md.\n"
    "HEX: payload bytes, e.g. \"01 02 ff\" (spaces allowed, may span several arguments).\n"
    "The bus is the one named by RECORDER_BUS (default /tmp/recorder-bus).\n";

int Usage(const std::string& problem) {
    fprintf(stderr, "pm-bus: %s\n%s", problem.c_str(), kUsage);
    return 2;
}

bool ParseTimeout(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(seconds) && seconds >= 0 &&
           seconds <= 1e6;
}

bool ParseSpeed(const std::string& text, double& speed) {
    return ParseTimeout(text, speed) && speed >= 0.001;
}

bool ParseModuleList(const std::string& text, std::vector<uint32_t>& ids) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = std::min(text.find(',', start), text.size());
        uint64_t number = 0;
        if (!pmtools::ParseNumber(text.substr(start, comma - start), INT32_MAX, number)) {
            return false;
        }
        ids.push_back(static_cast<uint32_t>(number));
        start = comma + 1;
    }
    return true;
}

// The options of record and replay.
int ParseSessionOption(const std::string& arg, const std::string& value, pmbus::Arguments& args) {
    std::string bad;
    if (arg == "--for" && !ParseTimeout(value, args.forS)) {
        return Usage("bad duration " + value + " (seconds)");
    }
    if (arg == "--speed" && !ParseSpeed(value, args.speed)) {
        return Usage("bad speed " + value + " (a factor, at least 0.001)");
    }
    if (arg == "--only" && !pmtools::ParseEventIdList(value, args.ids, bad)) {
        return Usage("unknown event id '" + bad + "'");
    }
    if (arg == "--from" && !ParseModuleList(value, args.fromList)) {
        return Usage("bad module id list " + value);
    }
    return 0;
}

enum class Words { None, Id, File };  // ID: and for send and call an optional payload

struct CommandSpec {
    const char* name;
    std::set<std::string> options;
    Words words;
    int (*run)(const pmbus::Arguments& args);
};

const CommandSpec* FindCommand(const std::string& name) {
    static const CommandSpec commands[] = {
        {"broker", {}, Words::None, [](const pmbus::Arguments&) { return pmbus::RunBroker(); }},
        {"monitor", {"--ids", "--hex"}, Words::None, pmbus::RunMonitor},
        {"send", {"--request", "--from"}, Words::Id, pmbus::RunSend},
        {"wait", {"--timeout", "--hex"}, Words::Id, pmbus::RunWait},
        {"call", {"--timeout", "--from", "--hex"}, Words::Id, pmbus::RunCall},
        {"names", {}, Words::None, [](const pmbus::Arguments&) { return pmbus::RunNames(); }},
        {"record", {"--for"}, Words::File, pmbus::RunRecord},
        {"replay", {"--from", "--only", "--speed", "--sync"}, Words::File, pmbus::RunReplay},
    };
    for (const CommandSpec& c : commands) {
        if (name == c.name) {
            return &c;
        }
    }
    return nullptr;
}

// Options may stand anywhere after the command; what is left are the positional words.
int ParseOptions(const CommandSpec& command, int argc, char** argv, pmbus::Arguments& args,
                 std::vector<std::string>& words) {
    const std::set<std::string>* options = &command.options;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            words.push_back(arg);
            continue;
        }
        if (options->count(arg) == 0) {
            return Usage("unknown option " + arg + " for " + command.name);
        }
        if (arg == "--hex" || arg == "--request" || arg == "--sync") {
            (arg == "--hex" ? args.hex : arg == "--sync" ? args.sync : args.request) = true;
            continue;
        }
        if (i + 1 >= argc) {
            return Usage("missing value for " + arg);
        }
        std::string value = argv[++i];
        if (command.words == Words::File) {
            if (int rc = ParseSessionOption(arg, value, args)) {
                return rc;
            }
            continue;
        }
        std::string bad;
        uint64_t number = 0;
        if (arg == "--ids" && !pmtools::ParseEventIdList(value, args.ids, bad)) {
            return Usage("unknown event id '" + bad + "'");
        }
        if (arg == "--from") {
            if (!pmtools::ParseNumber(value, INT32_MAX, number)) {
                return Usage("bad module id " + value);
            }
            args.from = static_cast<uint32_t>(number);
        }
        if (arg == "--timeout" && !ParseTimeout(value, args.timeoutS)) {
            return Usage("bad time-out " + value + " (seconds)");
        }
    }
    return 0;
}

// ID and optional HEX words of send, wait and call.
int ParseIdAndPayload(const std::string& command, const std::vector<std::string>& words,
                      pmbus::Arguments& args) {
    if (words.empty()) {
        return Usage(command + " needs an event id");
    }
    if (!pmtools::ParseEventId(words[0], args.id)) {
        return Usage("unknown event id '" + words[0] + "'");
    }
    if (command == "wait" && words.size() > 1) {
        return Usage("wait takes no payload");
    }
    std::string hex;
    for (size_t i = 1; i < words.size(); ++i) {
        hex += words[i] + " ";
    }
    std::string error;
    if (!pmtools::ParseHexBytes(hex, args.payload, error)) {
        return Usage("payload: " + error);
    }
    if (args.payload.size() > Common::kMsgMaxPayload) {
        return Usage("payload larger than the bus carries");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return Usage("no command");
    }
    std::string command = argv[1];
    if (command == "-h" || command == "--help" || command == "help") {
        fputs(kUsage, stdout);
        return 0;
    }
    const CommandSpec* entry = FindCommand(command);
    if (entry == nullptr) {
        return Usage("unknown command " + command);
    }
    pmbus::Arguments args;
    args.from = pmbus::kDefaultFrom;
    std::vector<std::string> words;
    if (int rc = ParseOptions(*entry, argc, argv, args, words)) {
        return rc;
    }
    if (entry->words == Words::Id) {
        if (int rc = ParseIdAndPayload(command, words, args)) {
            return rc;
        }
        if (command == "call" && (args.id & Common::kMsgAnswerBit) != 0) {
            return Usage("call needs a request id, without the answer bit 0x8000");
        }
    } else if (entry->words == Words::File) {
        if (words.size() != 1) {
            return Usage(command + (words.empty() ? " needs a session file" : " takes one file"));
        }
        args.file = words[0];
    } else if (!words.empty()) {
        return Usage("unexpected argument " + words[0]);
    }
    // Commands that run until stopped take SIGINT/SIGTERM themselves; the mask is set before
    // any thread exists, so that all of them inherit it. A send stays interruptible.
    if (command != "send" && command != "names") {
        pmtools::BlockStopSignals();
    }
    return entry->run(args);
}
