// ki::os: the wall clock and the sleep of polling waits, both replaceable by tests.
#pragma once

#include <cstdint>
#include <functional>

namespace ki {
namespace os {

struct timeval {
  int64_t tv_sec;
  int64_t tv_usec;
};

// The wall clock, seconds and microseconds since 1970-01-01 UTC (or the test clock).
void gettimeofday(timeval* pTime);
// The same clock as one count of microseconds.
int64_t nowMicroseconds();

// Replaces the clock for tests: the function returns microseconds since the epoch.
void setClockForTesting(std::function<int64_t()> pClock);
void restoreRealClock();

// The sleep of every polling wait in the library (microseconds).
void usleep(unsigned int pMicroseconds);
// Replaces the sleep for tests, for example by a no-op or by a step of a test clock.
void setSleepForTesting(std::function<void(unsigned int)> pSleep);
void restoreRealSleep();

}  // namespace os
}  // namespace ki
