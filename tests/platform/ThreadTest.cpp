// CThread: start, stop, stop twice, stop from inside.
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "CommonThread.h"
#include "TestSupport.h"

namespace {

using pmtest::WaitUntil;

// Counts its hooks; a test adds behaviour to a pass or to the exit before Start().
class Loop : public Common::CThread {
public:
    ~Loop() override {
        destroying = true;
        Stop();
    }
    int PreBeginThread() override {
        ++pre;
        preThread = std::this_thread::get_id();
        return 0;
    }
    int ThreadFuncImpl() override {
        ++passes;
        if (onPass) {
            onPass(*this);
        }
        std::this_thread::yield();
        return 0;
    }
    int PostExitThread() override {
        if (onExit) {
            onExit(*this);
        }
        ++post;
        return 0;
    }

    std::function<void(Loop&)> onPass;
    std::function<void(Loop&)> onExit;
    std::atomic<int> pre{0}, passes{0}, post{0};
    std::atomic<bool> destroying{false};
    std::thread::id preThread;
};

TEST(CThread, StartAndStopTwice) {
    Loop t;
    EXPECT_EQ(t.Stop(), 0) << "before Start";
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes >= 3; }));
    EXPECT_EQ(t.Start(), -1) << "already running";
    EXPECT_EQ(t.Stop(), 0);
    EXPECT_FALSE(t.IsRunning());
    int passes = t.passes;
    EXPECT_EQ(t.Stop(), 0) << "stopping twice is harmless";
    EXPECT_EQ(t.passes, passes) << "no pass after Stop returned";
    EXPECT_EQ(t.pre, 1);
    EXPECT_EQ(t.post, 1);
    EXPECT_NE(t.preThread, std::this_thread::get_id());
}

// A loop that stopped itself is joined by the next Start(), and by the destructor, which
// waits for its PostExitThread().
TEST(CThread, StopsFromInsideStartsAgainAndIsDestroyedSafely) {
    auto t = std::make_unique<Loop>();
    t->onPass = [](Loop& self) {
        if (self.passes % 3 == 0) {
            self.Stop();
        }
    };
    ASSERT_EQ(t->Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return !t->IsRunning(); }));
    EXPECT_EQ(t->passes, 3);
    EXPECT_EQ(t->post, 1);

    std::atomic<bool> exited{false};
    t->onExit = [&exited](Loop& self) {
        WaitUntil([&] { return self.destroying.load(); });
        exited = true;
    };
    ASSERT_EQ(t->Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t->passes == 6; }));
    t.reset();
    EXPECT_TRUE(exited);
}

// The outer Stop() holds the thread while joining the loop, so the inner one must not wait.
TEST(CThread, StopFromInsideWhileStoppedFromOutsideDoesNotDeadlock) {
    std::atomic<bool> outerStopping{false};
    Loop t;
    t.onPass = [&](Loop& self) {
        if (outerStopping) {
            // Not a wait for an event: lets the outer Stop() get in first.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            self.Stop();
        }
    };
    ASSERT_EQ(t.Start(), 0);
    ASSERT_TRUE(WaitUntil([&] { return t.passes > 0; }));
    std::atomic<bool> done{false};
    std::thread outer([&] {
        outerStopping = true;
        t.Stop();
        done = true;
    });
    if (!WaitUntil([&] { return done.load(); })) {
        ADD_FAILURE() << "Stop() deadlocked";
        fflush(stdout);
        _Exit(1);  // the hung threads cannot be joined
    }
    outer.join();
    EXPECT_FALSE(t.IsRunning());
}

}  // namespace
