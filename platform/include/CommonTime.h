// Clock of the recorder's common support library, desktop build.
#ifndef PLATFORM_COMMON_TIME_H
#define PLATFORM_COMMON_TIME_H

namespace Common {

// Monotonic clock in MILLISECONDS, whatever the name says: every period and time-out of
// the recorder is counted in this unit. Never goes backwards unless a test clock does.
long long Q7R_TMGetSystemMicroSecond();

// Test hook: replaces the clock for the whole process (nullptr restores the real one).
// The function must be callable from any thread.
typedef long long (*ClockSourceFn)();
void SetClockSourceForTest(ClockSourceFn fn);

}  // namespace Common

#endif
