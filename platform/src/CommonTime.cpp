#include "CommonTime.h"

#include <atomic>
#include <chrono>

namespace Common {

namespace {
std::atomic<ClockSourceFn> g_clockSource{nullptr};
}

long long Q7R_TMGetSystemMicroSecond() {
    if (ClockSourceFn fn = g_clockSource.load(std::memory_order_acquire)) {
        return fn();
    }
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SetClockSourceForTest(ClockSourceFn fn) {
    g_clockSource.store(fn, std::memory_order_release);
}

}  // namespace Common
