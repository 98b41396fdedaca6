// ki::os: real clock and sleep with test hooks.
#include "kios.h"

#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <mutex>

namespace ki {
namespace os {
namespace {

// The hooks are read on every call from any thread: a shared pointer swapped under a mutex.
struct Hooks {
  std::mutex fMutex;
  std::shared_ptr<std::function<int64_t()>> fClock;
  std::shared_ptr<std::function<void(unsigned int)>> fSleep;
};

Hooks& hooks() {
  static Hooks* sHooks = new Hooks();
  return *sHooks;
}

}  // namespace

int64_t nowMicroseconds() {
  std::shared_ptr<std::function<int64_t()>> clock;
  {
    std::lock_guard<std::mutex> guard(hooks().fMutex);
    clock = hooks().fClock;
  }
  if (clock) return (*clock)();
  struct ::timeval now;
  ::gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

void gettimeofday(timeval* pTime) {
  if (pTime == nullptr) return;
  const int64_t now = nowMicroseconds();
  // Floor division keeps the microseconds in 0..999999 for times before 1970 too.
  int64_t seconds = now / 1000000;
  int64_t micros = now % 1000000;
  if (micros < 0) {
    micros += 1000000;
    seconds -= 1;
  }
  pTime->tv_sec = seconds;
  pTime->tv_usec = micros;
}

void setClockForTesting(std::function<int64_t()> pClock) {
  std::lock_guard<std::mutex> guard(hooks().fMutex);
  hooks().fClock = std::make_shared<std::function<int64_t()>>(std::move(pClock));
}

void restoreRealClock() {
  std::lock_guard<std::mutex> guard(hooks().fMutex);
  hooks().fClock.reset();
}

void usleep(unsigned int pMicroseconds) {
  std::shared_ptr<std::function<void(unsigned int)>> sleep;
  {
    std::lock_guard<std::mutex> guard(hooks().fMutex);
    sleep = hooks().fSleep;
  }
  if (sleep) {
    (*sleep)(pMicroseconds);
  } else {
    ::usleep(pMicroseconds);
  }
}

void setSleepForTesting(std::function<void(unsigned int)> pSleep) {
  std::lock_guard<std::mutex> guard(hooks().fMutex);
  hooks().fSleep = std::make_shared<std::function<void(unsigned int)>>(std::move(pSleep));
}

void restoreRealSleep() {
  std::lock_guard<std::mutex> guard(hooks().fMutex);
  hooks().fSleep.reset();
}

}  // namespace os
}  // namespace ki
