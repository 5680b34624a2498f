// Bus cost against bare ZeroMQ, measured in the same run over the same topology: a broker
// of our own on ipc, client A sending a request, client B answering it.
//
//   bench_bus [round trips per block, default 50; 200 blocks of each alternate]
//
// Prints the median and 99th percentile round trip of both and the ratio of the medians,
// then the same for the rate of a one-way burst.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "CommonLog.h"
#include "BusWire.h"
#include "MsgBroker.h"
#include "MsgClientManage.h"
#include "BareBus.h"
#include "Stats.h"

namespace {

using Clock = std::chrono::steady_clock;

// The two pairs share the broker, not their event ids.
constexpr int kRequest = 1000;
constexpr int kAnswer = kRequest | Common::kMsgAnswerBit;
constexpr int kBurstEvent = 1001;
constexpr uint32_t kRawRequest = 2000;
constexpr uint32_t kRawBurstEvent = 2001;
constexpr int kPayload = 64;
constexpr int kBlocks = 200;
constexpr int kBurst = 100000;

using bench::Micros;
using bench::Percentile;

// ---- the bus ------------------------------------------------------------------------------

class BusPair {
public:
    BusPair() : m_a("bench.A", 300000), m_b("bench.B", 300000) {
        m_b.RegisterHandler(2, kRequest, [this](const char* data, int len) {
            auto* head = reinterpret_cast<Common::SMessageHead*>(const_cast<char*>(data));
            return m_b.MSGResponseMessage(head, data + Common::kMsgHeadSize,
                                          len - static_cast<int>(Common::kMsgHeadSize));
        });
        m_b.RegisterHandler(2, kBurstEvent, [this](const char*, int) {
            m_burstSeen.fetch_add(1, std::memory_order_relaxed);
            return 0;
        });
        m_a.RegisterHandler(1, kAnswer, [this](const char* data, int) {
            auto* head = reinterpret_cast<const Common::SMessageHead*>(data);
            m_answered = m_answered || head->nSeq == m_expectedSeq;
            return 0;
        });
        m_server = std::thread([this] {
            while (!m_stop) {
                m_b.MSGWaitForEvent(100);
            }
        });
    }
    ~BusPair() {
        m_stop = true;
        m_server.join();
    }
    Clock::duration RoundTrip(const char* payload) {
        Clock::time_point t0 = Clock::now();
        m_answered = false;
        ++m_expectedSeq;  // A sends nothing else, so its sequence numbers count requests
        m_a.MSGSendMessage(0, kRequest, 1, payload, kPayload, 1);
        while (!m_answered) {
            m_a.MSGWaitForEvent(1000);
        }
        return Clock::now() - t0;
    }
    Clock::duration Burst(const char* payload) {
        m_burstSeen = 0;
        Clock::time_point t0 = Clock::now();
        for (int i = 0; i < kBurst; ++i) {
            m_a.MSGSendMessage(0, kBurstEvent, 0, payload, kPayload, 1);
        }
        while (m_burstSeen.load() < kBurst) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return Clock::now() - t0;
    }

private:
    CMsgClientManage m_a;
    CMsgClientManage m_b;
    bool m_answered = false;
    uint32_t m_expectedSeq = 0;
    std::atomic<int> m_burstSeen{0};
    std::atomic<bool> m_stop{false};
    std::thread m_server;
};

void Report(const char* what, const std::vector<double>& bus, const std::vector<double>& raw) {
    double busMedian = Percentile(bus, 0.5);
    double rawMedian = Percentile(raw, 0.5);
    printf("%-22s bus median %8.1f  p99 %8.1f | bare median %8.1f  p99 %8.1f | ratio %.3f\n", what,
           busMedian, Percentile(bus, 0.99), rawMedian, Percentile(raw, 0.99),
           busMedian / rawMedian);
}

}  // namespace

// Round trips and bursts of the client API against bare sockets, on the running broker.
void Measure(const Common::CMsgBroker& broker, int perBlock) {
    BusPair bus;
    bench::BareBusPair raw(broker.Endpoints(), kRawRequest, kRawBurstEvent, kPayload);
    char payload[kPayload];
    memset(payload, 'x', sizeof payload);
    for (int i = 0; i < 1000; ++i) {  // warm up both paths
        bus.RoundTrip(payload);
        raw.RoundTrip(payload);
    }
    std::vector<double> busTimes;
    std::vector<double> rawTimes;
    // Short blocks alternate so that the machine's changing load hits both sides alike.
    for (int block = 0; block < kBlocks; ++block) {
        for (int i = 0; i < perBlock; ++i) {
            busTimes.push_back(Micros(bus.RoundTrip(payload)));
        }
        for (int i = 0; i < perBlock; ++i) {
            rawTimes.push_back(Micros(raw.RoundTrip(payload)));
        }
    }
    printf("bus benchmark: %d round trips each, %d-byte payload, broker on ipc\n",
           kBlocks * perBlock, kPayload);
    Report("round trip (us)", busTimes, rawTimes);

    std::vector<double> busRates;
    std::vector<double> rawRates;
    for (int block = 0; block < 3; ++block) {
        busRates.push_back(kBurst / std::chrono::duration<double>(bus.Burst(payload)).count());
        rawRates.push_back(kBurst /
                           std::chrono::duration<double>(raw.Burst(payload, kBurst)).count());
    }
    double busRate = Percentile(busRates, 0.5);
    double rawRate = Percentile(rawRates, 0.5);
    printf("%-22s bus median %8.0f | bare median %8.0f | time ratio %.3f\n",
           "burst of 100000 (msg/s)", busRate, rawRate, rawRate / busRate);
}

int main(int argc, char** argv) {
    int perBlock = argc > 1 ? atoi(argv[1]) : 50;
    if (perBlock <= 0) {
        fprintf(stderr, "usage: %s [round trips per block]\n", argv[0]);
        return 2;
    }
    char dir[] = "/tmp/bench-bus-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    std::string address = std::string(dir) + "/bus";
    setenv("RECORDER_BUS", address.c_str(), 1);
    Common::SetLogLevel(0);
    int rc = 1;
    {
        Common::CMsgBroker broker(Common::BusEndpointsFromEnv());
        if (broker.Start() != 0) {
            fprintf(stderr, "broker did not start at %s\n", address.c_str());
        } else {
            Measure(broker, perBlock);
            rc = 0;
        }
    }
    rmdir(dir);
    return rc;
}
