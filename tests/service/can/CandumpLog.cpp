#include "CandumpLog.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace cantest {

namespace {

bool ParseHex(const std::string& text, uint32_t& out) {
    if (text.empty() || text.size() > 8) {
        return false;
    }
    size_t used = 0;
    try {
        out = static_cast<uint32_t>(std::stoul(text, &used, 16));
    } catch (const std::exception&) {
        return false;
    }
    return used == text.size();
}

}  // namespace

std::optional<CandumpFrame> ParseCandumpLine(const std::string& line) {
    std::istringstream in(line);
    std::string stamp, iface, frame;
    if (!(in >> stamp >> iface >> frame) || stamp.front() != '(' || stamp.back() != ')') {
        return std::nullopt;
    }
    size_t hash = frame.find('#');
    if (hash == std::string::npos) {
        return std::nullopt;
    }
    CandumpFrame out;
    out.iface = iface;
    if (!ParseHex(frame.substr(0, hash), out.canId)) {
        return std::nullopt;
    }
    std::string hex = frame.substr(hash + 1);
    if (hex.size() % 2 != 0 || hex.size() > 16) {
        return std::nullopt;
    }
    for (size_t i = 0; i < hex.size(); i += 2) {
        uint32_t byte = 0;
        if (!ParseHex(hex.substr(i, 2), byte)) {
            return std::nullopt;
        }
        out.data.push_back(static_cast<uint8_t>(byte));
    }
    return out;
}

std::vector<CandumpFrame> ReadCandumpLog(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    std::vector<CandumpFrame> frames;
    std::string line;
    while (std::getline(in, line)) {
        if (auto frame = ParseCandumpLine(line)) {
            frames.push_back(*frame);
        }
    }
    return frames;
}

std::string CanDataFile(const std::string& name) {
    return std::string(PM_TEST_DATA_DIR) + "/can/" + name;
}

}  // namespace cantest
