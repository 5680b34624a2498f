// A bus client of the test's own, pumped on a thread of its own, that keeps every message it
// registered for: it plays the service to the simulator and a responder to pm-bus.
#ifndef TESTS_SUPPORT_RECORDING_CLIENT_H
#define TESTS_SUPPORT_RECORDING_CLIENT_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "MsgClientManage.h"
#include "TestSupport.h"

namespace pmtest {

struct SeenMessage {
    Common::SMessageHead head;
    std::vector<uint8_t> payload;  // the bytes after the head, as many as the head says
};

class RecordingClient {
public:
    explicit RecordingClient(int ownId = 10) : m_ownId(ownId), m_thread([this] { Loop(); }) {}
    ~RecordingClient() {
        m_stop = true;
        m_thread.join();
    }
    CMsgClientManage& Client() { return m_client; }

    void Record(uint32_t id) {
        m_client.RegisterHandler(m_ownId, static_cast<int>(id), [this](const char* d, int l) {
            SeenMessage m;
            memcpy(&m.head, d, sizeof(m.head));
            size_t size = std::min<size_t>(m.head.length, static_cast<size_t>(l) - sizeof(m.head));
            m.payload.assign(d + sizeof(m.head), d + sizeof(m.head) + size);
            std::lock_guard<std::mutex> guard(m_lock);
            m_seen.push_back(std::move(m));
            return 0;
        });
    }
    void Send(uint32_t id, const std::vector<uint8_t>& payload, bool request = false) {
        m_client.MSGSendMessage(0, static_cast<int>(id), request ? 1 : 0,
                                reinterpret_cast<const char*>(payload.data()),
                                static_cast<int>(payload.size()), m_ownId);
    }
    std::vector<SeenMessage> Seen(uint32_t id) const {
        std::lock_guard<std::mutex> guard(m_lock);
        std::vector<SeenMessage> out;
        std::copy_if(m_seen.begin(), m_seen.end(), std::back_inserter(out),
                     [id](const SeenMessage& m) { return m.head.nEventId == id; });
        return out;
    }
    std::vector<uint32_t> SeenIds() const {
        std::lock_guard<std::mutex> guard(m_lock);
        std::vector<uint32_t> ids;
        for (const SeenMessage& m : m_seen) {
            ids.push_back(m.head.nEventId);
        }
        return ids;
    }
    bool WaitFor(uint32_t id, size_t count = 1) const {
        return WaitUntil([&] { return Seen(id).size() >= count; });
    }

private:
    void Loop() {
        while (!m_stop) {
            m_client.MSGWaitForEvent(10);
        }
    }

    int m_ownId;
    CMsgClientManage m_client{"pmtest.peer", 300000};
    mutable std::mutex m_lock;
    std::vector<SeenMessage> m_seen;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace pmtest

#endif
