// What the device counts of one subscriber's service, for the host's pages and metrics.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace OX {

// Written on the image path, under fVisionModulesLock held for writing; read by the device's
// status at any time. Relaxed atomics and a fixed ring: no allocation and no lock of its own, and
// an image costs a few adds more.
class SubscriberCounts {
 public:
  using Clock = std::chrono::steady_clock;

  // pImages images handed over by one request at pNow (several for a subscriber of several
  // streams).
  void delivered(Clock::time_point pNow, int pImages = 1);
  // One conversion made for the subscriber, which took pDuration.
  void converted(Clock::duration pDuration);

  std::uint64_t images() const { return fImages.load(std::memory_order_relaxed); }
  std::uint64_t conversions() const { return fConversions.load(std::memory_order_relaxed); }
  double convertingSeconds() const;
  // Requests served per second over the last kWindow of them; once no request came for two of
  // their mean intervals, over the time up to pNow instead, so that a subscriber that stopped
  // falls towards 0. 0 before the second request.
  double servedRate(Clock::time_point pNow) const;
  // Seconds since the last request served; -1 before the first.
  double lastImageAge(Clock::time_point pNow) const;

 private:
  static constexpr int kWindow = 32;
  std::atomic<std::uint64_t> fImages{0};
  std::atomic<std::uint64_t> fDeliveries{0};
  std::atomic<std::uint64_t> fConversions{0};
  std::atomic<std::int64_t> fConvertingNanoseconds{0};
  // The times of the last deliveries, in nanoseconds of the steady clock; delivery n is at n %
  // kWindow.
  std::array<std::atomic<std::int64_t>, kWindow> fTimes{};
};

}  // namespace OX
