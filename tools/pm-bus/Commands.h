// The sub-commands of pm-bus. Each returns the process exit status: 0 done, 1 failed or timed
// out (reason on stderr), 2 usage error.
#ifndef TOOLS_PM_BUS_COMMANDS_H
#define TOOLS_PM_BUS_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace pmbus {

struct Arguments {
    std::vector<uint32_t> ids;  // --ids
    bool hex = false;           // --hex
    bool request = false;       // --request
    uint32_t from = 0;          // --from
    double timeoutS = -1;       // --timeout; negative: none given
    uint32_t id = 0;            // ID of send, wait, call
    std::vector<uint8_t> payload;
    std::string file;                // FILE of record and replay
    double forS = -1;                // record --for; negative: until stopped
    std::vector<uint32_t> fromList;  // replay --from: sender module ids; empty: all
    double speed = 1;                // replay --speed
    bool sync = false;               // replay --sync
};

// Module id that pm-bus sends and registers under unless --from says otherwise.
constexpr uint32_t kDefaultFrom = 0;

int RunBroker();
int RunMonitor(const Arguments& args);
int RunSend(const Arguments& args);
int RunWait(const Arguments& args);
int RunCall(const Arguments& args);
int RunNames();
int RunRecord(const Arguments& args);
int RunReplay(const Arguments& args);

// Prints one rendered message to stdout and flushes it (the output is usually piped).
void PrintMessage(const uint8_t* message, size_t size, bool fullHex);

}  // namespace pmbus

#endif
