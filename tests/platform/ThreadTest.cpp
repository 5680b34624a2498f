#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "CommonThread.h"
#include "TestSupport.h"

namespace {

using pmtest::WaitUntil;

class CountingThread : public Common::CThread {
public:
    ~CountingThread() override { Stop(); }

    int PreBeginThread() override {
        ++pre;
        loopThread = std::this_thread::get_id();
        return 0;
    }
    int ThreadFuncImpl() override {
        ++passes;
        if (stopAfter > 0 && passes.load() >= stopAfter) {
            Stop();
        }
        std::this_thread::yield();
        return 0;
    }
    int PostExitThread() override {
        ++post;
        return 0;
    }

    std::atomic<int> pre{0};
    std::atomic<int> passes{0};
    std::atomic<int> post{0};
    std::atomic<int> stopAfter{0};  // > 0: the loop stops itself on this pass
    std::thread::id loopThread;
};

TEST(CThread, RunsHooksOnceOnItsOwnThread) {
    CountingThread t;
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes.load() >= 3; }));
    EXPECT_TRUE(t.IsRunning());
    EXPECT_EQ(t.Start(), -1) << "already running";
    EXPECT_EQ(t.Stop(), 0);
    EXPECT_FALSE(t.IsRunning());
    EXPECT_EQ(t.pre.load(), 1);
    EXPECT_EQ(t.post.load(), 1);
    EXPECT_NE(t.loopThread, std::this_thread::get_id());

    int passes = t.passes.load();
    EXPECT_EQ(t.Stop(), 0) << "stopping twice is harmless";
    EXPECT_EQ(t.passes.load(), passes) << "no pass after Stop returned";
    EXPECT_EQ(t.post.load(), 1);
}

TEST(CThread, StopBeforeStartIsHarmless) {
    CountingThread t;
    EXPECT_EQ(t.Stop(), 0);
    EXPECT_FALSE(t.IsRunning());
    EXPECT_EQ(t.pre.load(), 0);
}

TEST(CThread, RestartsAfterStop) {
    CountingThread t;
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes.load() > 0; }));
    t.Stop();
    int firstRun = t.passes.load();
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes.load() > firstRun; }));
    t.Stop();
    EXPECT_EQ(t.pre.load(), 2);
    EXPECT_EQ(t.post.load(), 2);
}

TEST(CThread, StopsFromInsideAndRestarts) {
    CountingThread t;
    t.stopAfter = 3;
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return !t.IsRunning(); }));
    EXPECT_EQ(t.passes.load(), 3);
    EXPECT_EQ(t.post.load(), 1);

    t.stopAfter = 0;
    ASSERT_EQ(t.Start(), 0) << "a loop that stopped itself can be started again";
    ASSERT_TRUE(WaitUntil([&] { return t.passes.load() > 3; }));
    t.Stop();
    EXPECT_EQ(t.pre.load(), 2);
    EXPECT_EQ(t.post.load(), 2);
}

// The loop stops itself while another thread is already stopping it: the outer Stop()
// waits for the loop, so the inner one must not wait for the outer one.
class RacingStopThread : public Common::CThread {
public:
    ~RacingStopThread() override { Stop(); }
    int ThreadFuncImpl() override {
        ++passes;
        if (outerStopping.load()) {
            // Not a wait for an event: gives the outer Stop() time to get in first.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            Stop();
        }
        return 0;
    }
    std::atomic<int> passes{0};
    std::atomic<bool> outerStopping{false};
};

TEST(CThread, StopFromInsideWhileStoppedFromOutsideDoesNotDeadlock) {
    RacingStopThread t;
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes.load() > 0; }));
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread outer([&t, done] {
        t.outerStopping = true;
        t.Stop();
        *done = true;
    });
    if (!WaitUntil([&] { return done->load(); })) {
        ADD_FAILURE() << "Stop() deadlocked";
        fflush(stdout);
        _Exit(1);  // the hung threads cannot be joined
    }
    outer.join();
    EXPECT_FALSE(t.IsRunning());
}

// The owner destroys the object right after the loop stopped itself; the destructor must
// wait until PostExitThread() is done with the object.
std::atomic<bool> g_destroying{false};
std::atomic<bool> g_postExitDone{false};

class SelfStoppingThread : public Common::CThread {
public:
    ~SelfStoppingThread() override {
        g_destroying = true;
        Stop();
    }
    int ThreadFuncImpl() override {
        Stop();
        stopped = true;
        return 0;
    }
    int PostExitThread() override {
        WaitUntil([] { return g_destroying.load(); });
        ++postCount;  // touches the object
        g_postExitDone = true;
        return 0;
    }
    std::atomic<bool> stopped{false};
    int postCount = 0;
};

TEST(CThread, DestructionWaitsForALoopThatStoppedItself) {
    auto t = std::make_unique<SelfStoppingThread>();
    ASSERT_EQ(t->Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t->stopped.load(); }));
    t.reset();
    EXPECT_TRUE(g_postExitDone.load());
}

struct NormalThreadProbe {
    std::atomic<bool> ran{false};
    std::atomic<bool> detached{false};
    pthread_t self{};
};

void* ProbeEntry(void* arg) {
    auto* probe = static_cast<NormalThreadProbe*>(arg);
    pthread_attr_t attr;
    int state = PTHREAD_CREATE_JOINABLE;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
    }
    probe->self = pthread_self();
    probe->detached = state == PTHREAD_CREATE_DETACHED;
    probe->ran = true;
    return nullptr;
}

TEST(CreateNormalThread, RunsDetachedAndReportsItsId) {
    NormalThreadProbe probe;
    pthread_t tid{};
    ASSERT_EQ(Common::CreateNormalThread(ProbeEntry, &probe, &tid), 0);
    ASSERT_TRUE(WaitUntil([&] { return probe.ran.load(); }));
    EXPECT_TRUE(probe.detached.load());
    EXPECT_TRUE(pthread_equal(tid, probe.self));

    NormalThreadProbe second;
    ASSERT_EQ(CreateNormalThread(ProbeEntry, &second, nullptr), 0) << "tid is optional";
    EXPECT_TRUE(WaitUntil([&] { return second.ran.load(); }));
}

TEST(CreateNormalThread, RefusesMissingEntry) {
    pmtest::LogCapture log;
    EXPECT_EQ(CreateNormalThread(nullptr, nullptr, nullptr), -1);
    EXPECT_TRUE(log.Contains("no entry function"));
}

}  // namespace
