#include "EventNames.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "MsgClientManage.h"

namespace pmtools {

namespace {

const char kAnswerSuffix[] = ".answer";

}  // namespace

const std::vector<EventName>& EventTable() {
    static const std::vector<EventName> table = {
        {8, "power-down-8", "power-down notice"},
        {9, "power-down-9", "power-down notice"},
        {10, "debug-level", "debug level change"},
        {283, "get-ftp-param", "request: FTP parameters"},
        {284, "ftp-param-changed", "FTP parameters changed"},
        {315, "get-serial-param", "request: serial parameter setting"},
        {316, "serial-param-changed", "serial parameter setting changed"},
        {319, "get-ipc-setting", "request: IPC setting"},
        {320, "ipc-setting-changed", "IPC setting changed"},
        {359, "get-can-param", "request: CAN parameter setting"},
        {360, "can-param-changed", "CAN parameter setting changed"},
        {361, "get-ethernet-param", "request: Ethernet parameter setting"},
        {362, "ethernet-param-changed", "Ethernet parameter setting changed"},
        {1035, "power-down-1035", "power-down notice"},
        {1051, "get-video-loss", "request: analogue video loss"},
        {1052, "video-loss", "analogue video loss notification"},
        {1059, "get-usb-state", "request: USB state"},
        {1060, "usb-state", "USB state notification"},
        {1081, "vehicle-info", "vehicle information"},
        {1087, "can-send", "CAN frame to transmit"},
        {1088, "mcu-serial-send", "data to an MCU serial port"},
        {1089, "can-recv", "received CAN frames"},
        {1090, "mcu-serial-recv", "data from an MCU serial port"},
        {1119, "get-udisk-info", "request: USB disk details"},
        {1121, "get-led-state", "request: LED panel state"},
        {1122, "led-state", "LED panel state notification"},
        {1136, "can-filter-state", "CAN filter state report"},
        {1137, "can-set-filter", "CAN filter list"},
        {1149, "get-device-module-state", "request: device-management module state"},
        {1150, "device-module-state", "device-management module state notification"},
        {1151, "device-module-release-serial", "device-management module released the shared tty"},
        {1284, "digital-video-loss", "digital channel video loss notification"},
        {1285, "get-digital-video-loss", "request: digital channel video loss"},
        {2053, "storage-state", "storage state notification"},
        {6704, "extend-upgrade-trigger", "start an extension box firmware upgrade"},
        {6705, "get-extend-upgrade-file", "request: extension box upgrade file"},
        {6707, "extend-upgrade-state", "extension box upgrade state"},
        {6708, "get-extend-upgrade-state", "request: extension box upgrade state"},
        {6710, "extend-version", "extension box version"},
        {6711, "get-extend-version", "request: extension box version"},
        {6724, "cpx-serial-release", "shared tty released to the co-processor"},
        {6735, "mcu-serial-settings", "line settings of an MCU serial port"},
        {6739, "language-switched", "user interface language changed"},
        {6820, "serial-config-status", "serial port configuration status"},
        {6904, "get-extend-io-state", "request: extension hub I/O state"},
        {6905, "extend-io-state", "extension hub I/O state"},
        {Common::kMsgWatchdogEvent, "watchdog", "a client fed its watchdog"},
    };
    return table;
}

namespace {

const EventName* FindById(uint32_t id) {
    const auto& table = EventTable();
    auto it = std::lower_bound(table.begin(), table.end(), id,
                               [](const EventName& e, uint32_t v) { return e.id < v; });
    return (it != table.end() && it->id == id) ? &*it : nullptr;
}

const EventName* FindByName(const std::string& name) {
    for (const auto& e : EventTable()) {
        if (name == e.name) {
            return &e;
        }
    }
    return nullptr;
}

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() > tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

std::string NameOfEvent(uint32_t id) {
    // The watchdog id has the answer bit set, so the exact entry must win.
    if (const EventName* e = FindById(id)) {
        return e->name;
    }
    if ((id & Common::kMsgAnswerBit) != 0) {
        if (const EventName* e = FindById(id & ~Common::kMsgAnswerBit)) {
            return std::string(e->name) + kAnswerSuffix;
        }
    }
    return std::string();
}

bool ParseNumber(const std::string& text, uint64_t max, uint64_t& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' ||
        isspace(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v > max) {
        return false;
    }
    value = v;
    return true;
}

bool ParseEventId(const std::string& text, uint32_t& id) {
    uint64_t v = 0;
    if (!text.empty() && isdigit(static_cast<unsigned char>(text[0]))) {
        if (!ParseNumber(text, UINT32_MAX, v)) {
            return false;
        }
        id = static_cast<uint32_t>(v);
        return true;
    }
    if (const EventName* e = FindByName(text)) {
        id = e->id;
        return true;
    }
    const std::string suffix = kAnswerSuffix;
    if (EndsWith(text, suffix)) {
        const EventName* e = FindByName(text.substr(0, text.size() - suffix.size()));
        if (e != nullptr && (e->id & Common::kMsgAnswerBit) == 0) {
            id = e->id | Common::kMsgAnswerBit;
            return true;
        }
    }
    return false;
}

bool ParseEventIdList(const std::string& text, std::vector<uint32_t>& ids, std::string& bad) {
    ids.clear();
    size_t start = 0;
    while (true) {
        size_t comma = text.find(',', start);
        std::string item =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        uint32_t id = 0;
        if (!ParseEventId(item, id)) {
            bad = item;
            return false;
        }
        ids.push_back(id);
        if (comma == std::string::npos) {
            return true;
        }
        start = comma + 1;
    }
}

}  // namespace pmtools
