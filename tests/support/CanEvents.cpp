#include "CanEvents.h"

#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <string>

namespace pmtest {

std::vector<uint8_t> CanDataEvent(uint16_t mainId, uint16_t subId, uint16_t count,
                                  const std::vector<CanItem>& items, uint8_t port) {
    std::vector<uint8_t> out = {
        uint8_t(mainId), uint8_t(mainId >> 8), uint8_t(subId), uint8_t(subId >> 8), port, 0,
        uint8_t(count),  uint8_t(count >> 8)};
    for (const CanItem& item : items) {
        uint8_t raw[16] = {uint8_t(item.canId), uint8_t(item.canId >> 8), uint8_t(item.canId >> 16),
                           uint8_t(item.canId >> 24), item.length};
        std::copy_n(item.data.begin(), std::min<size_t>(item.data.size(), 8), raw + 8);
        out.insert(out.end(), raw, raw + sizeof(raw));
    }
    return out;
}

std::vector<CanItem> J1939Capture() {
    std::ifstream in(std::string(PM_TEST_DATA_DIR) + "/can/j1939-sample.log");
    std::vector<CanItem> frames;
    for (std::string line; std::getline(in, line);) {
        unsigned id = 0;
        char hex[17] = {};
        if (sscanf(line.c_str(), "(%*[0-9.]) %*s %x#%16[0-9A-Fa-f]", &id, hex) == 2) {
            CanItem frame{id, 0, {}};
            for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
                frame.data.push_back(
                    static_cast<uint8_t>(std::stoul(std::string(hex + i, 2), nullptr, 16)));
            }
            frame.length = static_cast<uint8_t>(frame.data.size());
            frames.push_back(frame);
        }
    }
    return frames;
}

}  // namespace pmtest
