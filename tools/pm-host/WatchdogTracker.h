// pm-host's view of the bus watchdog: who has fed it, and who has gone silent.
#ifndef TOOLS_PM_HOST_WATCHDOG_TRACKER_H
#define TOOLS_PM_HOST_WATCHDOG_TRACKER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace pmtools {

// Pure bookkeeping over caller-supplied times in milliseconds, so that a test can drive it
// without waiting.
class CWatchdogTracker {
public:
    // `silenceMs`: how long a client may stay silent before a warning; `startMs`: when the
    // service was created (the start-up check counts from there).
    CWatchdogTracker(long long silenceMs, long long startMs);

    // A feed from `name` at `nowMs`. Returns a notice when the name had been reported silent.
    std::string Feed(const std::string& name, long long nowMs);

    // Warnings due at `nowMs`: one per silent period for each name seen and gone silent, and
    // one if nothing at all was fed within the first period after start.
    std::vector<std::string> Check(long long nowMs);

    size_t NamesSeen() const { return m_clients.size(); }

    // The watchdog payload: a 32-byte NUL-padded name, then the feeder's clock as a
    // little-endian int64. False when fewer than 40 bytes arrived.
    static bool ParseFeed(const uint8_t* payload, size_t size, std::string& name, long long& clock);

private:
    struct Client {
        long long lastFeedMs = 0;
        bool warned = false;
    };

    long long m_silenceMs;
    long long m_startMs;
    bool m_startWarned = false;
    std::map<std::string, Client> m_clients;
};

}  // namespace pmtools

#endif
