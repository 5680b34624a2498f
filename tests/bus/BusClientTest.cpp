// The bus client over a private broker.
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "BusTestUtil.h"
#include "MsgBroker.h"
#include "MsgClientManage.h"
#include "TestSupport.h"

using bustest::Inbox;
using bustest::Payload;
using bustest::PumpUntil;
using bustest::Send;
using bustest::Word;

namespace {

constexpr int kEvent = 3001;
constexpr int kMarker = 3002;

class BusClient : public ::testing::Test {
protected:
    pmtest::PrivateBus m_bus;
};

TEST_F(BusClient, HandlersOfOneEventRunInRegistrationOrder) {
    CMsgClientManage client("order", 300000);
    std::vector<std::string> calls;
    auto handler = [&calls](const char* tag) {
        return [&calls, tag](const char*, int) {
            calls.push_back(tag);
            return 0;
        };
    };
    client.RegisterHandler(30, kEvent, handler("a"));
    client.RegisterHandler(10, kEvent, handler("b"));
    client.RegisterHandler(20, kEvent, handler("c"));

    ASSERT_EQ(Send(client, kEvent, "1"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return calls.size() == 3; }));
    EXPECT_EQ(calls, (std::vector<std::string>{"a", "b", "c"}));

    calls.clear();
    client.MSGEventUnRegister(10, kEvent);
    client.MSGEventUnRegister(99, kEvent);              // never registered: ignored
    client.RegisterHandler(30, kEvent, handler("a2"));  // replaces in place
    ASSERT_EQ(Send(client, kEvent, "2"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return calls.size() == 2; }));
    EXPECT_EQ(calls, (std::vector<std::string>{"a2", "c"}));

    // With the last handler gone the event is no longer delivered at all.
    calls.clear();
    client.MSGEventUnRegister(30, kEvent);
    client.MSGEventUnRegister(20, kEvent);
    Inbox marker;
    client.RegisterHandler(1, kMarker, marker.Handler());
    ASSERT_EQ(Send(client, kEvent, "3"), 0);
    ASSERT_EQ(Send(client, kMarker, ""), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return marker.Size() == 1; }));
    EXPECT_TRUE(calls.empty());
}

TEST_F(BusClient, MessageReachesSenderAndOthersWithItsHead) {
    CMsgClientManage a("a", 300000);
    CMsgClientManage b("b", 300000);
    Inbox atA;
    Inbox atB;
    a.RegisterHandler(1, kEvent, atA.Handler());
    b.RegisterHandler(2, kEvent, atB.Handler());

    ASSERT_EQ(Send(a, kEvent, "first", 1234, 0), 0);
    ASSERT_EQ(Send(a, kEvent, "second", 1234, 1), 0);
    ASSERT_TRUE(PumpUntil(a, [&] { return atA.Size() == 2; }));
    ASSERT_TRUE(PumpUntil(b, [&] { return atB.Size() == 2; }));
    EXPECT_EQ(atA.All(), atB.All());

    std::string first = atB.At(0);
    std::string second = atB.At(1);
    EXPECT_EQ(Word(first, 0), static_cast<uint32_t>(kEvent));
    EXPECT_EQ(Word(first, 1), 1234u);
    EXPECT_EQ(Word(second, 2), Word(first, 2) + 1) << "per-client sequence";
    EXPECT_EQ(Word(first, 3), 5u) << "no flags";
    EXPECT_EQ(Word(second, 3), 6u | (1u << 23)) << "needAnswer sets bit 23";
    EXPECT_EQ(Payload(second), "second");
}

TEST_F(BusClient, ShortMessageReadsAsZerosBeyondItsEnd) {
    struct Record {
        char head[16];
        unsigned char body[200];
    };
    CMsgClientManage client("pad", 300000);
    std::vector<int> lengths;
    bool beyondIsZero = true;
    client.RegisterHandler(1, kEvent, [&](const char* data, int len) {
        Record r;
        memcpy(&r, data, sizeof r);  // reads more than a short message holds
        lengths.push_back(len);
        for (size_t i = static_cast<size_t>(len) - 16; len < 216 && i < sizeof r.body; ++i) {
            beyondIsZero = beyondIsZero && r.body[i] == 0;
        }
        return 0;
    });
    ASSERT_EQ(Send(client, kEvent, std::string(1000, '\xAB')), 0);  // leaves the buffer dirty
    ASSERT_EQ(Send(client, kEvent, "abcd"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return lengths.size() == 2; }));
    EXPECT_EQ(lengths, (std::vector<int>{1016, 20}));
    EXPECT_TRUE(beyondIsZero);
}

// A peripheral whose destructor unregisters its handler, as the manager's instances do.
class CPeer {
public:
    CPeer(CMsgClientManage& bus, int ownId, int* calls)
        : m_bus(bus), m_ownId(ownId), m_calls(calls) {
        m_bus.MSGEventRegister(m_ownId, kEvent, this, &CPeer::OnEvent);
    }
    ~CPeer() { m_bus.MSGEventUnRegister(m_ownId, kEvent); }
    int OnEvent(const char*, int) {
        ++*m_calls;
        return 0;
    }

private:
    CMsgClientManage& m_bus;
    int m_ownId;
    int* m_calls;
};

TEST_F(BusClient, HandlerMayRemoveAnotherAndRegisterDuringDispatch) {
    CMsgClientManage client("manager", 300000);
    int peerCalls = 0;
    std::unique_ptr<CPeer> peer;
    Inbox late;
    bool ran = false;
    // Like the manager removing an instance while handling a parameter change: the instance's
    // handler for the same message comes later in the order and must not run any more.
    int nested = -1;
    client.RegisterHandler(10, kEvent, [&](const char*, int) {
        nested = client.MSGWaitForEvent(0);  // refused: it would reuse this very buffer
        peer.reset();
        client.RegisterHandler(10, kMarker, late.Handler());
        ran = true;
        return 0;
    });
    peer = std::make_unique<CPeer>(client, 20, &peerCalls);

    ASSERT_EQ(Send(client, kEvent, "x"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return ran; }));
    EXPECT_EQ(peer, nullptr);
    EXPECT_EQ(peerCalls, 0);
    EXPECT_EQ(nested, 0);

    // The registration made inside the handler is in force.
    ASSERT_EQ(Send(client, kMarker, "m"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return late.Size() == 1; }));
}

TEST_F(BusClient, RegistrationIsInForceWhenItReturns) {
    CMsgClientManage receiver("receiver", 300000);
    CMsgClientManage sender("sender", 300000);
    // A socket that keeps sending looks at news from its peers (such as subscriptions) only
    // now and then; the registration must not depend on that.
    std::atomic<bool> stop{false};
    std::thread noise([&] {
        while (!stop) {
            Send(sender, 4999, "noise");
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    });
    Inbox inbox;
    for (int i = 0; i < 100; ++i) {
        receiver.RegisterHandler(1, 5000 + i, inbox.Handler());
        ASSERT_EQ(Send(sender, 5000 + i, "once"), 0);  // sent once, never repeated
        bool arrived = PumpUntil(
            receiver, [&] { return inbox.Size() == static_cast<size_t>(i + 1); },
            std::chrono::seconds(2));
        if (!arrived) {
            stop = true;
            noise.join();
            FAIL() << "event " << 5000 + i << " was lost";
        }
    }
    stop = true;
    noise.join();
}

TEST_F(BusClient, FourSendingThreadsLoseNothing) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2500;
    CMsgClientManage client("threads", 300000);
    std::map<std::pair<int, int>, int> seen;
    std::set<uint32_t> seqs;
    int torn = 0;
    client.RegisterHandler(1, kEvent, [&](const char* data, int len) {
        std::string msg(data, static_cast<size_t>(len));
        int thread = static_cast<int>(Word(msg, 4));
        int index = static_cast<int>(Word(msg, 5));
        std::string expected = std::to_string(thread * 100000 + index);
        expected.resize(40, static_cast<char>('a' + thread));
        if (len != 16 + 8 + 40 || msg.compare(24, 40, expected) != 0 ||
            Word(msg, 1) != static_cast<uint32_t>(100 + thread)) {
            ++torn;
        }
        ++seen[{thread, index}];
        seqs.insert(Word(msg, 2));
        return 0;
    });

    std::atomic<bool> stop{false};
    // Registrations from another thread while the waiter dispatches.
    std::thread churn([&] {
        Inbox unused;
        for (int i = 0; !stop; ++i) {
            client.RegisterHandler(2, 7000 + i % 8, unused.Handler());
            client.MSGEventUnRegister(2, 7000 + i % 8);
        }
    });
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                char payload[48];
                uint32_t words[2] = {static_cast<uint32_t>(t), static_cast<uint32_t>(i)};
                memcpy(payload, words, sizeof words);
                std::string text = std::to_string(t * 100000 + i);
                text.resize(40, static_cast<char>('a' + t));
                memcpy(payload + 8, text.data(), 40);
                if (client.MSGSendMessage(0, kEvent, 0, payload, sizeof payload, 100 + t) != 0) {
                    ++failures;
                }
            }
        });
    }
    bool all = PumpUntil(
        client, [&] { return seen.size() == kThreads * kPerThread; }, std::chrono::seconds(20));
    for (auto& s : senders) {
        s.join();
    }
    stop = true;
    churn.join();
    ASSERT_TRUE(all) << seen.size() << " of " << kThreads * kPerThread << " arrived";
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(seqs.size(), static_cast<size_t>(kThreads * kPerThread));
    for (const auto& entry : seen) {
        ASSERT_EQ(entry.second, 1)
            << "duplicate " << entry.first.first << "/" << entry.first.second;
    }
}

TEST_F(BusClient, BurstOfHundredThousandArrivesWhole) {
    constexpr uint32_t kCount = 100000;
    CMsgClientManage sender("burst", 300000);
    CMsgClientManage receiver("sink", 300000);
    uint32_t next = 0;
    bool inOrder = true;
    receiver.RegisterHandler(1, kEvent, [&](const char* data, int len) {
        uint32_t index;
        memcpy(&index, data + 16, sizeof index);
        inOrder = inOrder && len == 20 && index == next;
        ++next;
        return 0;
    });
    int failures = 0;
    for (uint32_t i = 0; i < kCount; ++i) {
        failures +=
            sender.MSGSendMessage(0, kEvent, 0, reinterpret_cast<const char*>(&i), 4, 1) != 0;
    }
    EXPECT_EQ(failures, 0);
    ASSERT_TRUE(PumpUntil(
        receiver, [&] { return next >= kCount; }, std::chrono::seconds(30)))
        << next << " of " << kCount << " arrived";
    EXPECT_EQ(next, kCount);
    EXPECT_TRUE(inOrder);
}

TEST_F(BusClient, WatchdogIsPublishedAtMostOncePerSecond) {
    CMsgClientManage monitor(nullptr, 300000);
    CMsgClientManage client("BasicService.10", 300000);
    Inbox dog;
    monitor.RegisterHandler(1, static_cast<int>(Common::kMsgWatchdogEvent), dog.Handler());

    // Feed far more often than once a second until the second report arrives.
    auto start = std::chrono::steady_clock::now();
    long long feeds = 0;
    bool second = PumpUntil(
        monitor,
        [&] {
            long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - start)
                                .count();
            client.MSGFeedWatchDog(1000000 + now);
            ++feeds;
            return dog.Size() >= 2;
        },
        std::chrono::seconds(4));
    ASSERT_TRUE(second);
    EXPECT_GT(feeds, 20);
    EXPECT_EQ(dog.Size(), 2u);

    std::string first = dog.At(0);
    ASSERT_EQ(first.size(), 16u + 40u);
    EXPECT_EQ(Word(first, 1), 0u);
    EXPECT_EQ(first.substr(16, 32), std::string("BasicService.10") + std::string(17, '\0'));
    long long t1;
    long long t2;
    memcpy(&t1, first.data() + 48, 8);
    memcpy(&t2, dog.At(1).data() + 48, 8);
    EXPECT_GE(t1, 1000000);
    EXPECT_GE(t2 - t1, 990) << "second report too early";
}

TEST_F(BusClient, MalformedFramesAreDroppedWithALogLine) {
    pmtest::LogCapture log;
    CMsgClientManage client("strict", 300000);
    Inbox inbox;
    client.RegisterHandler(1, kEvent, inbox.Handler());

    void* ctx = zmq_ctx_new();
    void* raw = zmq_socket(ctx, ZMQ_PUB);
    ASSERT_EQ(zmq_connect(raw, ("ipc://" + m_bus.Address() + ".in").c_str()), 0);
    auto frame = [](uint32_t lengthField, size_t payload, uint32_t sender = 9) {
        std::string f(16 + payload, 'p');
        uint32_t head[4] = {kEvent, sender, 1, lengthField};
        memcpy(&f[0], head, sizeof head);
        return f;
    };
    const std::string shortFrame = frame(0, 0).substr(0, 10);
    const std::string lying = frame(100, 4);
    const std::string good = frame(4, 4);
    const std::string part = frame(4, 4, 8);  // well formed, but sent as a two-part message
    // The raw socket cannot tell when it is connected: repeat until a second good frame
    // arrives. The bad frames sent after the first good one passed went out for certain, and
    // frames of one sender arrive in order.
    ASSERT_TRUE(PumpUntil(client, [&] {
        zmq_send(raw, part.data(), part.size(), ZMQ_SNDMORE);
        zmq_send(raw, part.data(), part.size(), 0);
        for (const std::string& f : {shortFrame, lying, good}) {
            zmq_send(raw, f.data(), f.size(), 0);
        }
        return inbox.Size() >= 2;
    }));
    zmq_close(raw);
    zmq_ctx_term(ctx);

    EXPECT_TRUE(log.Contains("dropped a frame of 10 bytes"));
    EXPECT_TRUE(log.Contains("length field 100, but 4 payload bytes"));
    EXPECT_TRUE(log.Contains("dropped a part of a multi-part message"));
    for (const std::string& msg : inbox.All()) {
        EXPECT_EQ(msg, good);
    }
}

TEST(BusClientOffline, InvalidAddressLeavesAUsableOfflineClient) {
    pmtest::LogCapture log;
    pmtest::ScopedEnv env("RECORDER_BUS", std::string("udp://nowhere"));
    CMsgClientManage client("lost", 300000);
    EXPECT_TRUE(log.Contains("MSG_CLIENT: lost: no valid bus address"));
    EXPECT_FALSE(client.IsConnected());
    Inbox inbox;
    EXPECT_EQ(client.RegisterHandler(1, kEvent, inbox.Handler()), 0);
    EXPECT_EQ(Send(client, kEvent, "x"), -1);
    EXPECT_EQ(client.MSGWaitForEvent(5), 0);
    client.MSGFeedWatchDog(1);
    EXPECT_EQ(client.MSGEventUnRegister(1, kEvent), 0);
}

TEST(BusClientOffline, ClientWorksOnceTheBrokerAppears) {
    pmtest::LogCapture log;
    pmtest::TempDir dir;
    pmtest::ScopedEnv env("RECORDER_BUS", dir.File("bus"));
    CMsgClientManage client("early", 300000);  // waits about two seconds for a broker
    EXPECT_FALSE(client.IsConnected());
    EXPECT_TRUE(log.Contains("MSG_CLIENT: early: no bus broker answered"));

    Common::CMsgBroker broker(Common::BusEndpointsFromEnv());
    ASSERT_EQ(broker.Start(), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return client.IsConnected(); }));
    EXPECT_TRUE(log.Contains("MSG_CLIENT: early: the bus broker at"));

    Inbox inbox;
    client.RegisterHandler(1, kEvent, inbox.Handler());
    ASSERT_EQ(Send(client, kEvent, "late"), 0);
    ASSERT_TRUE(PumpUntil(client, [&] { return inbox.Size() == 1; }));
}

}  // namespace
