#include "EventNames.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "MsgClientManage.h"
#include "PeripheralEvents.h"

namespace pmtools {

namespace {

const char kAnswerSuffix[] = ".answer";

}  // namespace

const std::vector<EventName>& EventTable() {
    // The service's own table, and the bus's watchdog, which has the answer bit among its
    // bits and sorts last.
    static const std::vector<EventName> table = [] {
        std::vector<EventName> events;
        for (const PeripheralEventInfo& e : kPeripheralEvents) {
            events.push_back({e.id, e.name, e.what});
        }
        events.push_back({Common::kMsgWatchdogEvent, "watchdog", "a client fed its watchdog"});
        return events;
    }();
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
