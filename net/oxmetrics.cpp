// The host's counters; see oxmetrics.h.
#include "oxmetrics.h"

#include <algorithm>
#include <cctype>

namespace OX {
namespace net {

namespace {

constexpr const char* kOther = "(other)";

bool acceptableName(const std::string& pName) {
  return !pName.empty() && pName.size() <= HostMetrics::kMaxNameBytes &&
         std::all_of(pName.begin(), pName.end(),
                     [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace

HostMetrics::Counters& HostMetrics::counters(const std::string& pModule,
                                             const std::string& pMethod) {
  const bool named = acceptableName(pModule) && acceptableName(pMethod);
  const Key key = named ? Key(pModule, pMethod) : Key(kOther, kOther);
  {
    std::shared_lock<std::shared_mutex> guard(fMutex);
    auto found = fCounters.find(key);
    if (found != fCounters.end()) return *found->second;
  }
  std::unique_lock<std::shared_mutex> guard(fMutex);
  auto found = fCounters.find(key);
  if (found != fCounters.end()) return *found->second;
  if (fCounters.size() >= kMaxMethods) {
    std::unique_ptr<Counters>& other = fCounters[Key(kOther, kOther)];
    if (!other) other.reset(new Counters());
    return *other;
  }
  std::unique_ptr<Counters>& made = fCounters[key];
  made.reset(new Counters());
  return *made;
}

void HostMetrics::record(const std::string& pModule, const std::string& pMethod, bool pFailed,
                         std::size_t pRequestBytes, std::size_t pReplyBytes,
                         std::chrono::steady_clock::duration pLatency) {
  Counters& counters = this->counters(pModule, pMethod);
  constexpr auto relaxed = std::memory_order_relaxed;
  counters.fCalls.fetch_add(1, relaxed);
  if (pFailed) counters.fErrors.fetch_add(1, relaxed);
  counters.fRequestBytes.fetch_add(pRequestBytes, relaxed);
  counters.fReplyBytes.fetch_add(pReplyBytes, relaxed);
  const std::int64_t nanoseconds =
      std::chrono::duration_cast<std::chrono::nanoseconds>(pLatency).count();
  counters.fNanoseconds.fetch_add(nanoseconds, relaxed);
  const double seconds = static_cast<double>(nanoseconds) * 1e-9;
  const std::size_t bucket = static_cast<std::size_t>(
      std::lower_bound(kLatencyBounds.begin(), kLatencyBounds.end(), seconds) -
      kLatencyBounds.begin());
  counters.fBuckets[bucket].fetch_add(1, relaxed);
  fCalls.fetch_add(1, relaxed);
}

std::vector<MethodTotals> HostMetrics::methods() const {
  std::vector<MethodTotals> totals;
  std::shared_lock<std::shared_mutex> guard(fMutex);
  totals.reserve(fCounters.size());
  constexpr auto relaxed = std::memory_order_relaxed;
  for (const auto& entry : fCounters) {
    const Counters& counters = *entry.second;
    MethodTotals total;
    total.fModule = entry.first.first;
    total.fMethod = entry.first.second;
    total.fCalls = counters.fCalls.load(relaxed);
    total.fErrors = counters.fErrors.load(relaxed);
    total.fRequestBytes = counters.fRequestBytes.load(relaxed);
    total.fReplyBytes = counters.fReplyBytes.load(relaxed);
    total.fSeconds = static_cast<double>(counters.fNanoseconds.load(relaxed)) * 1e-9;
    for (std::size_t i = 0; i < total.fBuckets.size(); ++i) {
      total.fBuckets[i] = counters.fBuckets[i].load(relaxed);
    }
    totals.push_back(std::move(total));
  }
  return totals;
}

double HostMetrics::callRate() {
  using namespace std::chrono;
  std::lock_guard<std::mutex> guard(fRateMutex);
  const steady_clock::time_point now = steady_clock::now();
  const double elapsed = duration<double>(now - fSampleTime).count();
  const std::uint64_t calls = this->calls();
  if (fSampleTime == fStart && elapsed < 1.0) {
    return elapsed > 0 ? static_cast<double>(calls) / elapsed : 0;
  }
  if (elapsed >= 1.0) {
    fRate = static_cast<double>(calls - fSampleCalls) / elapsed;
    fSampleTime = now;
    fSampleCalls = calls;
  }
  return fRate;
}

}  // namespace net
}  // namespace OX
