// Fair scheduling of requests; see oxscheduler.h.
#include "oxscheduler.h"

#include <algorithm>
#include <utility>

namespace OX {
namespace net {

Scheduler::Scheduler(const HostLimits& pLimits, int pThreads, WorkerFactory pFactory)
    : fLimits(pLimits), fThreads(std::max(2, pThreads)), fFactory(std::move(pFactory)) {}

void Scheduler::start() {
  for (int i = 0; i < fThreads; ++i) {
    fWorkers.emplace_back([this] {
      std::unique_ptr<Worker> worker = fFactory();
      work(*worker);
    });
  }
}

Scheduler::~Scheduler() {
  stop();
}

Refusal Scheduler::submit(Job&& pJob, std::size_t pMessageBytes) {
  std::unique_lock<std::mutex> guard(fMutex);
  if (fStopping) return Refusal::kStopping;
  auto lane = fLanes.emplace(pJob.fRoutingId, Lane()).first;
  const std::size_t cost = requestCost(pMessageBytes);
  const Refusal refusal =
      admit(fLimits, lane->second.fInFlight, *lane->second.fBytes, *fHostBytes, cost);
  if (refusal != Refusal::kNone) {
    dropIfUnused(lane);
    return refusal;
  }
  pJob.fCost = Reservation(lane->second.fBytes, fHostBytes, cost);
  pJob.fConnection = lane->second.fBytes;
  pJob.fHost = fHostBytes;
  ++lane->second.fInFlight;
  lane->second.fQueue.push_back(std::move(pJob));
  // The leader serves the turn itself or wakes a follower when it is done reading.
  const bool offered = offer(lane->first, lane->second) && fLeader != std::this_thread::get_id();
  guard.unlock();
  // Woken outside the lock, so that the worker does not wake only to wait for it.
  if (offered) fWork.notify_one();
  return Refusal::kNone;
}

bool Scheduler::idle(const std::string& pRoutingId) const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fLanes.count(pRoutingId) == 0;
}

void Scheduler::load(std::size_t& pQueued, std::size_t& pRunning) const {
  std::lock_guard<std::mutex> guard(fMutex);
  pQueued = 0;
  pRunning = 0;
  for (const auto& lane : fLanes) {
    pQueued += lane.second.fQueue.size();
    if (lane.second.fRunning) ++pRunning;
  }
}

void Scheduler::replied(const std::string& pRoutingId) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto lane = fLanes.find(pRoutingId);
  if (lane == fLanes.end()) return;
  --lane->second.fInFlight;
  dropIfUnused(lane);
}

void Scheduler::retire(const std::string& pRoutingId, std::function<void()> pThen) {
  std::deque<Job> dropped;  // destroyed outside the lock, giving their bytes back
  {
    std::lock_guard<std::mutex> guard(fMutex);
    auto lane = fLanes.find(pRoutingId);
    if (lane != fLanes.end()) {
      dropped.swap(lane->second.fQueue);
      lane->second.fInFlight -= static_cast<int>(dropped.size());
      if (lane->second.fHeld) {
        lane->second.fHeld = false;
        --fHeldLanes;
      }
      if (lane->second.fRunning) {
        lane->second.fRetired = true;
        lane->second.fOnRetired = std::move(pThen);
        return;
      }
      dropIfUnused(lane);
    }
  }
  pThen();
}

void Scheduler::resume() {
  if (fHeldLanes == 0) return;  // the common case, without the lock
  {
    std::lock_guard<std::mutex> guard(fMutex);
    for (auto& lane : fLanes) {
      if (!lane.second.fHeld) continue;
      lane.second.fHeld = false;
      --fHeldLanes;
      offer(lane.first, lane.second);
    }
  }
  fWork.notify_all();
}

void Scheduler::stop() {
  {
    std::lock_guard<std::mutex> guard(fMutex);
    if (!fStopping) {
      fStopping = true;
      for (auto& lane : fLanes) {
        for (Job& job : lane.second.fQueue) fRefusals.push_back(std::move(job));
        lane.second.fQueue.clear();
      }
      fTurns.clear();
    }
  }
  fWork.notify_all();
  for (std::thread& worker : fWorkers) {
    if (worker.joinable() && worker.get_id() != std::this_thread::get_id()) worker.join();
  }
}

bool Scheduler::offer(const std::string& pRoutingId, Lane& pLane) {
  if (pLane.fRunning || pLane.fInTurn || pLane.fHeld || pLane.fQueue.empty()) return false;
  if (pLane.fBytes->held() > fLimits.fMaxSessionBytes) {
    pLane.fHeld = true;
    ++fHeldLanes;
    return false;
  }
  pLane.fInTurn = true;
  fTurns.push_back(pRoutingId);
  return true;
}

void Scheduler::dropIfUnused(Lanes::iterator pLane) {
  const Lane& lane = pLane->second;
  if (lane.fInFlight <= 0 && !lane.fRunning && !lane.fInTurn && !lane.fHeld && lane.fQueue.empty())
    fLanes.erase(pLane);
}

void Scheduler::lead(Worker& pWorker, std::unique_lock<std::mutex>& pGuard) {
  fLed = true;
  fLeader = std::this_thread::get_id();
  do {
    // Turns that wait for the next thread are not held up by a wait for more requests.
    const bool mayWait = fTurns.empty() || fWaiting == 0;
    pGuard.unlock();
    pWorker.lead(mayWait);
    pGuard.lock();
  } while (!fStopping && (fTurns.empty() || fWaiting == 0));
  fLed = false;
  fLeader = std::thread::id();
  if (fStopping) return;
  // One waiting thread takes the lead, others the turns beyond the one this thread takes.
  const std::size_t wake = std::min(fWaiting, fTurns.size());
  for (std::size_t i = 0; i < wake; ++i) fWork.notify_one();
}

void Scheduler::work(Worker& pWorker) {
  std::unique_lock<std::mutex> guard(fMutex);
  while (true) {
    if (!fRefusals.empty()) {
      Job job = std::move(fRefusals.front());
      fRefusals.pop_front();
      guard.unlock();
      pWorker.refuse(job);
      guard.lock();
      continue;
    }
    if (!fLed && !fStopping) {
      lead(pWorker, guard);
      if (fStopping) continue;
    } else if (fTurns.empty()) {
      if (fStopping) return;  // and nothing left to answer
      ++fWaiting;
      fWork.wait(guard);
      --fWaiting;
      continue;
    }
    const std::string routingId = std::move(fTurns.front());
    fTurns.pop_front();
    auto lane = fLanes.find(routingId);
    if (lane == fLanes.end()) continue;
    lane->second.fInTurn = false;
    if (lane->second.fQueue.empty()) {
      dropIfUnused(lane);
      continue;
    }
    Job job = std::move(lane->second.fQueue.front());
    lane->second.fQueue.pop_front();
    lane->second.fRunning = true;
    guard.unlock();
    pWorker.serve(job);
    job = Job();  // its cost is given back before the lane is looked at again
    guard.lock();
    lane = fLanes.find(routingId);  // the lane stays while it runs: fRunning keeps it
    if (lane->second.fRetired) {
      // The session ends before anything that came since under the same identity runs.
      lane->second.fRetired = false;
      std::function<void()> then = std::move(lane->second.fOnRetired);
      guard.unlock();
      then();
      guard.lock();
      lane = fLanes.find(routingId);
    }
    lane->second.fRunning = false;
    // This worker takes the next turn as it loops; another is woken only for a second one.
    if (offer(routingId, lane->second)) {
      if (fTurns.size() > 1) fWork.notify_one();
    } else {
      dropIfUnused(lane);  // its reply may have gone out already
    }
  }
}

}  // namespace net
}  // namespace OX
