// Reads `candump -l` logs: "(seconds.micros) iface id#data" per line.
#ifndef TESTS_SERVICE_CAN_CANDUMP_LOG_H
#define TESTS_SERVICE_CAN_CANDUMP_LOG_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cantest {

struct CandumpFrame {
    std::string iface;
    uint32_t canId;
    std::vector<uint8_t> data;
};

// One line; nullopt for a malformed one (comments, blank lines, odd hex).
std::optional<CandumpFrame> ParseCandumpLine(const std::string& line);
// Every well-formed line of the file; throws when the file cannot be read.
std::vector<CandumpFrame> ReadCandumpLog(const std::string& path);

// tests/data/can/<name> in the source tree.
std::string CanDataFile(const std::string& name);

}  // namespace cantest

#endif
