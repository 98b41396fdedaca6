// What the broker host counts of its work, for its pages and metrics: calls, errors, bytes and
// latency per module and method, and the host's state at a glance (HostStatus).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace OX {
namespace net {

// Upper bounds of the latency buckets, in seconds; one more bucket takes everything above.
constexpr std::array<double, 16> kLatencyBounds = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                                   0.01,   0.025,   0.05,   0.1,   0.25,   0.5,
                                                   1,      2.5,     5,      10};

// The totals of one module's method (or of every method beyond the bound, see HostMetrics).
struct MethodTotals {
  std::string fModule;
  std::string fMethod;
  std::uint64_t fCalls = 0;
  std::uint64_t fErrors = 0;
  std::uint64_t fRequestBytes = 0;
  std::uint64_t fReplyBytes = 0;
  double fSeconds = 0;  // all calls together
  // Calls per bucket of kLatencyBounds (not cumulative); the last one is above every bound.
  std::array<std::uint64_t, kLatencyBounds.size() + 1> fBuckets{};
};

// Counters per (module, method), kept with relaxed atomics: a call costs a lookup under a shared
// lock and a few adds. The names come from clients, so they are bounded: at most kMaxMethods
// pairs, names of at most kMaxNameBytes printable characters; every other call is counted under
// the module and method "(other)".
class HostMetrics {
 public:
  static constexpr std::size_t kMaxMethods = 512;
  static constexpr std::size_t kMaxNameBytes = 128;

  // One call served, failed or not, with the bytes of its request and reply.
  void record(const std::string& pModule, const std::string& pMethod, bool pFailed,
              std::size_t pRequestBytes, std::size_t pReplyBytes,
              std::chrono::steady_clock::duration pLatency);
  // Every pair that was called, sorted by module and method.
  std::vector<MethodTotals> methods() const;
  // All calls since the start.
  std::uint64_t calls() const { return fCalls.load(std::memory_order_relaxed); }
  // Calls per second since the previous sample, taken at least a second before (since the
  // start, in the first second).
  double callRate();

 private:
  struct Counters {
    std::atomic<std::uint64_t> fCalls{0};
    std::atomic<std::uint64_t> fErrors{0};
    std::atomic<std::uint64_t> fRequestBytes{0};
    std::atomic<std::uint64_t> fReplyBytes{0};
    std::atomic<std::int64_t> fNanoseconds{0};
    std::array<std::atomic<std::uint64_t>, kLatencyBounds.size() + 1> fBuckets{};
  };
  using Key = std::pair<std::string, std::string>;
  Counters& counters(const std::string& pModule, const std::string& pMethod);

  mutable std::shared_mutex fMutex;
  std::map<Key, std::unique_ptr<Counters>> fCounters;
  std::atomic<std::uint64_t> fCalls{0};
  // The sample of callRate: calls at a time.
  std::mutex fRateMutex;
  const std::chrono::steady_clock::time_point fStart = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point fSampleTime = fStart;
  std::uint64_t fSampleCalls = 0;
  double fRate = 0;
};

// A session as its host's pages show it.
struct SessionView {
  std::string fName;
  std::string fAddress;  // the client's IP address, as ZeroMQ saw it; empty when unknown
  double fSeconds = 0;   // since its hello
  std::size_t fSubscribers = 0;
};

// The host at a glance.
struct HostStatus {
  std::string fUrl;
  double fUptimeSeconds = 0;
  std::size_t fQueued = 0;   // requests waiting for a worker
  std::size_t fRunning = 0;  // requests being served
  std::uint64_t fCalls = 0;
  double fCallRate = 0;
  int fWorkers = 0;
  int fMaxSessions = 0;
  std::vector<SessionView> fSessions;
  std::vector<MethodTotals> fMethods;
};

}  // namespace net
}  // namespace OX
