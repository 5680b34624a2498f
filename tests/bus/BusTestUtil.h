// Small helpers shared by the bus tests.
#ifndef TESTS_BUS_BUS_TEST_UTIL_H
#define TESTS_BUS_BUS_TEST_UTIL_H

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "MsgClientManage.h"
#include "TestSupport.h"

namespace bustest {

inline uint32_t Word(const std::string& msg, int index) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | static_cast<unsigned char>(msg.at(static_cast<size_t>(4 * index + i)));
    }
    return v;
}

inline std::string Payload(const std::string& msg) {
    return msg.substr(16);
}

// Collects what a handler received, copied out of the bus's buffer.
class Inbox {
public:
    CMsgClientManage::HandlerFn Handler() {
        return [this](const char* data, int len) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_msgs.emplace_back(data, static_cast<size_t>(len));
            return 0;
        };
    }
    size_t Size() const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_msgs.size();
    }
    std::vector<std::string> All() const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_msgs;
    }
    std::string At(size_t i) const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_msgs.at(i);
    }

private:
    mutable std::mutex m_lock;
    std::vector<std::string> m_msgs;
};

// Runs the client's dispatch until `pred` holds (bounded).
template <class Pred>
bool PumpUntil(CMsgClientManage& client, Pred pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    return pmtest::WaitUntil(
        [&] {
            client.MSGWaitForEvent(10);
            return pred();
        },
        timeout);
}

inline int Send(CMsgClientManage& client, int eventId, const std::string& payload, int ownId = 1,
                int needAnswer = 0) {
    return client.MSGSendMessage(0, eventId, needAnswer, payload.data(),
                                 static_cast<int>(payload.size()), ownId);
}

}  // namespace bustest

#endif
