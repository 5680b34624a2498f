#include "WatchdogTracker.h"

#include <cstring>

namespace pmtools {

namespace {

constexpr size_t kNameBytes = 32;

std::string Shown(const std::string& name) {
    return name.empty() ? "(unnamed)" : "\"" + name + "\"";
}

}  // namespace

CWatchdogTracker::CWatchdogTracker(long long silenceMs, long long startMs)
    : m_silenceMs(silenceMs), m_startMs(startMs) {}

std::string CWatchdogTracker::Feed(const std::string& name, long long nowMs) {
    Client& client = m_clients[name];
    client.lastFeedMs = nowMs;
    if (!client.warned) {
        return std::string();
    }
    client.warned = false;
    return "pm-host: watchdog: " + Shown(name) + " feeds its watchdog again";
}

std::vector<std::string> CWatchdogTracker::Check(long long nowMs) {
    std::vector<std::string> warnings;
    if (m_clients.empty() && !m_startWarned && nowMs - m_startMs >= m_silenceMs) {
        m_startWarned = true;
        warnings.push_back("pm-host: watchdog: no client has fed its watchdog in the " +
                           std::to_string(nowMs - m_startMs) + " ms since the service was created");
    }
    for (auto& [name, client] : m_clients) {
        long long silent = nowMs - client.lastFeedMs;
        if (!client.warned && silent >= m_silenceMs) {
            client.warned = true;
            warnings.push_back("pm-host: watchdog: " + Shown(name) +
                               " has not fed its watchdog for " + std::to_string(silent) + " ms");
        }
    }
    return warnings;
}

bool CWatchdogTracker::ParseFeed(const uint8_t* payload, size_t size, std::string& name,
                                 long long& clock) {
    if (payload == nullptr || size < kNameBytes + 8) {
        return false;
    }
    const char* text = reinterpret_cast<const char*>(payload);
    name.assign(text, strnlen(text, kNameBytes));
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = value << 8 | payload[kNameBytes + static_cast<size_t>(i)];
    }
    clock = static_cast<long long>(value);
    return true;
}

}  // namespace pmtools
