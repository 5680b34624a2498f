// A bare ZeroMQ request and answer through the bus broker: the same sockets and frames as the
// bus client, nothing else. The floor that the bus's own costs are measured against.
#ifndef BENCH_BARE_BUS_H
#define BENCH_BARE_BUS_H

#include <string.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "BusWire.h"
#include "MsgBroker.h"

namespace bench {

constexpr size_t kHead = Common::kMsgHeadSize;

// Client A publishes `request` frames; client B, on its own thread, answers each with the
// same payload under the answer id, and counts `burst` frames without answering.
class BareBusPair {
public:
    BareBusPair(const Common::BusEndpoints& ep, uint32_t request, uint32_t burst, size_t payload)
        : m_request(request), m_burst(burst), m_payload(payload) {
        m_ctx = zmq_ctx_new();
        m_aPub = Socket(ZMQ_PUB, ep.in);
        m_aSub = Socket(ZMQ_SUB, ep.out);
        m_bPub = Socket(ZMQ_PUB, ep.in);
        m_bSub = Socket(ZMQ_SUB, ep.out);
        Subscribe(m_aSub, request | Common::kMsgAnswerBit);
        Subscribe(m_bSub, request);
        Subscribe(m_bSub, burst);
        int timeout = 100;
        zmq_setsockopt(m_bSub, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        m_server = std::thread([this] { Serve(); });
        // No confirmation protocol here: repeat until the path is up both ways.
        zmq_setsockopt(m_aSub, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        std::vector<char> frame(kHead + m_payload);
        std::vector<char> answer(kHead + m_payload);
        for (;;) {
            Request(frame.data());
            if (zmq_recv(m_aSub, answer.data(), answer.size(), 0) > 0) {
                break;
            }
        }
        int forever = -1;
        zmq_setsockopt(m_aSub, ZMQ_RCVTIMEO, &forever, sizeof forever);
    }
    ~BareBusPair() {
        m_stop = true;
        m_server.join();
        for (void* s : {m_aPub, m_aSub, m_bPub, m_bSub}) {
            zmq_close(s);
        }
        zmq_ctx_term(m_ctx);
    }
    BareBusPair(const BareBusPair&) = delete;
    BareBusPair& operator=(const BareBusPair&) = delete;

    std::chrono::steady_clock::duration RoundTrip(const char* payload) {
        std::copy(payload, payload + m_payload, m_frame.begin() + kHead);
        auto t0 = std::chrono::steady_clock::now();
        uint32_t seq = Request(m_frame.data());
        while (zmq_recv(m_aSub, m_answer.data(), m_answer.size(), 0) < static_cast<int>(kHead) ||
               Common::GetLe32(m_answer.data() + 8) != seq) {
        }
        return std::chrono::steady_clock::now() - t0;
    }
    std::chrono::steady_clock::duration Burst(const char* payload, int count) {
        m_burstSeen = 0;
        std::vector<char>& frame = m_frame;
        std::copy(payload, payload + m_payload, frame.begin() + kHead);
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i) {
            Common::PutLe32(frame.data(), m_burst);
            Common::PutLe32(frame.data() + 4, 1);
            Common::PutLe32(frame.data() + 8, ++m_seq);
            Common::PutLe32(frame.data() + 12, static_cast<uint32_t>(m_payload));
            zmq_send(m_aPub, frame.data(), frame.size(), 0);
        }
        while (m_burstSeen.load() < count) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return std::chrono::steady_clock::now() - t0;
    }

private:
    void* Socket(int type, const std::string& endpoint) {
        void* s = zmq_socket(m_ctx, type);
        int unlimited = 0;
        zmq_setsockopt(s, type == ZMQ_PUB ? ZMQ_SNDHWM : ZMQ_RCVHWM, &unlimited, sizeof unlimited);
        zmq_connect(s, endpoint.c_str());
        return s;
    }
    static void Subscribe(void* s, uint32_t id) { zmq_setsockopt(s, ZMQ_SUBSCRIBE, &id, 4); }
    uint32_t Request(char* frame) {
        Common::PutLe32(frame, m_request);
        Common::PutLe32(frame + 4, 1);
        Common::PutLe32(frame + 8, ++m_seq);
        Common::PutLe32(frame + 12, static_cast<uint32_t>(m_payload) | (1u << 23));
        zmq_send(m_aPub, frame, kHead + m_payload, 0);
        return m_seq;
    }
    void Serve() {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        while (!m_stop) {
            if (zmq_msg_recv(&msg, m_bSub, 0) < static_cast<int>(kHead)) {
                continue;
            }
            const char* in = static_cast<const char*>(zmq_msg_data(&msg));
            if (Common::GetLe32(in) == m_burst) {
                m_burstSeen.fetch_add(1, std::memory_order_relaxed);
                continue;
            }
            size_t payload = zmq_msg_size(&msg) - kHead;
            zmq_msg_t out;
            zmq_msg_init_size(&out, kHead + payload);
            char* o = static_cast<char*>(zmq_msg_data(&out));
            Common::PutLe32(o, Common::GetLe32(in) | Common::kMsgAnswerBit);
            Common::PutLe32(o + 4, 0);
            Common::PutLe32(o + 8, Common::GetLe32(in + 8));
            Common::PutLe32(o + 12, static_cast<uint32_t>(payload) | (1u << 24));
            memcpy(o + kHead, in + kHead, payload);
            zmq_msg_send(&out, m_bPub, 0);
        }
        zmq_msg_close(&msg);
    }

    uint32_t m_request;
    uint32_t m_burst;
    size_t m_payload;
    std::vector<char> m_frame = std::vector<char>(kHead + m_payload);
    std::vector<char> m_answer = std::vector<char>(kHead + m_payload);
    void* m_ctx;
    void* m_aPub;
    void* m_aSub;
    void* m_bPub;
    void* m_bSub;
    uint32_t m_seq = 0;
    std::atomic<int> m_burstSeen{0};
    std::atomic<bool> m_stop{false};
    std::thread m_server;
};

}  // namespace bench

#endif
