#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "CommonTime.h"

namespace {

long long SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

TEST(Clock, IsTheMonotonicClockInMilliseconds) {
    long long previous = Common::Q7R_TMGetSystemMicroSecond();
    for (int i = 0; i < 1000; ++i) {
        long long before = SteadyMs();
        long long now = Common::Q7R_TMGetSystemMicroSecond();
        long long after = SteadyMs();
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
        ASSERT_LE(previous, now);
        previous = now;
    }
}

std::atomic<long long> g_fakeNow{0};
long long FakeClock() {
    return g_fakeNow.load();
}

TEST(Clock, TestHookReplacesTheClockForEveryThread) {
    g_fakeNow = -5;  // signed: a fake clock may start anywhere
    Common::SetClockSourceForTest(FakeClock);
    EXPECT_EQ(Common::Q7R_TMGetSystemMicroSecond(), -5);
    g_fakeNow = 1LL << 40;
    long long seenByOther = 0;
    std::thread other([&] { seenByOther = Common::Q7R_TMGetSystemMicroSecond(); });
    other.join();
    EXPECT_EQ(seenByOther, 1LL << 40);

    Common::SetClockSourceForTest(nullptr);
    long long before = SteadyMs();
    long long now = Common::Q7R_TMGetSystemMicroSecond();
    EXPECT_GE(now, before);
    EXPECT_LE(now, SteadyMs());
}

}  // namespace
