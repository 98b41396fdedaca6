// Sessions and farewells; see oxsessions.h.
#include "oxsessions.h"

#include <algorithm>

#include "kilog.h"
#include "oxerror.h"
#include "oxhostlog.h"
#include "oxproxies.h"
#include "oxsharedmemory.h"

namespace OX {
namespace net {

SessionTable::SessionTable(int pMaxSessions, FarewellSink pSink)
    : fMaxSessions(pMaxSessions), fSink(std::move(pSink)) {}

bool SessionTable::has(const std::string& pRoutingId) const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fSessions.count(pRoutingId) != 0;
}

void SessionTable::begin(const std::string& pRoutingId, const std::string& pName) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found == fSessions.end()) {
    if (fSessions.size() >= static_cast<std::size_t>(fMaxSessions)) {
      throw OXError("OXBroker", "hello",
                    "too many sessions: at most " + std::to_string(fMaxSessions), "net/oxsessions",
                    0);
    }
    found = fSessions.emplace(pRoutingId, Session()).first;
  } else if (found->second.fName == pName) {
    return;
  } else if (release(found->second.fName)) {
    // Renamed: the old name is gone if nobody else uses it. Its subscribers stay with the session.
    fSink({found->second.fName, "took another name", {}});
  }
  found->second.fName = pName;
  ++fNameUses[pName];
}

bool SessionTable::end(const std::string& pRoutingId, const std::string& pReason) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found == fSessions.end()) return false;
  Farewell farewell;
  farewell.fReason = pReason;
  farewell.fSubscribers = std::move(found->second.fSubscribers);
  if (release(found->second.fName)) {
    farewell.fClientName = found->second.fName;
  } else {
    ki::log::LogStream(kLogInfo, kLogCategory, "", "end", 0)
        << "client " << found->second.fName << " " << pReason
        << "; another session still uses that name";
  }
  fSessions.erase(found);
  fSink(std::move(farewell));
  return true;
}

bool SessionTable::release(const std::string& pName) {
  auto uses = fNameUses.find(pName);
  if (uses == fNameUses.end()) return false;
  if (--uses->second > 0) return false;
  fNameUses.erase(uses);
  return true;
}

void SessionTable::remember(const std::string& pRoutingId, const Subscriber& pSubscriber) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found == fSessions.end()) return;
  std::vector<Subscriber>& subscribers = found->second.fSubscribers;
  if (std::find(subscribers.begin(), subscribers.end(), pSubscriber) == subscribers.end())
    subscribers.push_back(pSubscriber);
}

void SessionTable::forget(const std::string& pRoutingId, const Subscriber& pSubscriber) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found == fSessions.end()) return;
  std::vector<Subscriber>& subscribers = found->second.fSubscribers;
  subscribers.erase(std::remove(subscribers.begin(), subscribers.end(), pSubscriber),
                    subscribers.end());
}

std::vector<std::string> SessionTable::routingIds() const {
  std::lock_guard<std::mutex> guard(fMutex);
  std::vector<std::string> ids;
  ids.reserve(fSessions.size());
  for (const auto& entry : fSessions) ids.push_back(entry.first);
  return ids;
}

void SessionTable::setArea(const std::string& pRoutingId, std::shared_ptr<SharedArea> pArea) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found != fSessions.end()) found->second.fArea = std::move(pArea);
}

std::shared_ptr<SharedArea> SessionTable::area(const std::string& pRoutingId) const {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  return found == fSessions.end() ? nullptr : found->second.fArea;
}

std::size_t SessionTable::size() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fSessions.size();
}

void SessionTable::setAddress(const std::string& pRoutingId, const std::string& pAddress) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSessions.find(pRoutingId);
  if (found != fSessions.end()) found->second.fAddress = pAddress;
}

std::vector<SessionView> SessionTable::list() const {
  const auto now = std::chrono::steady_clock::now();
  std::vector<SessionView> views;
  {
    std::lock_guard<std::mutex> guard(fMutex);
    views.reserve(fSessions.size());
    for (const auto& entry : fSessions) {
      const Session& session = entry.second;
      views.push_back({session.fName, session.fAddress,
                       std::chrono::duration<double>(now - session.fSince).count(),
                       session.fSubscribers.size()});
    }
  }
  std::sort(views.begin(), views.end(),
            [](const SessionView& a, const SessionView& b) { return a.fName < b.fName; });
  return views;
}

Housekeeper::Housekeeper(boost::shared_ptr<OXBroker> pBroker, bool pUnsubscribe)
    : fBroker(std::move(pBroker)), fUnsubscribe(pUnsubscribe), fThread([this] { run(); }) {}

Housekeeper::~Housekeeper() {
  stop();
}

void Housekeeper::post(Farewell&& pFarewell) {
  {
    std::lock_guard<std::mutex> guard(fMutex);
    if (fStopping) return;
    fQueue.push_back(std::move(pFarewell));
  }
  fPosted.notify_one();
}

void Housekeeper::stop() {
  {
    std::lock_guard<std::mutex> guard(fMutex);
    if (fStopping && !fThread.joinable()) return;
    fStopping = true;
    if (!fQueue.empty()) {
      ki::log::LogStream(kLogWarning, kLogCategory, "", "stop", 0)
          << "stopping with " << fQueue.size() << " ended sessions not cleaned up";
    }
    fQueue.clear();
  }
  fPosted.notify_one();
  if (fThread.joinable()) fThread.join();
}

void Housekeeper::run() {
  while (true) {
    Farewell farewell;
    {
      std::unique_lock<std::mutex> guard(fMutex);
      fPosted.wait(guard, [this] { return fStopping || !fQueue.empty(); });
      if (fQueue.empty()) return;
      farewell = std::move(fQueue.front());
      fQueue.pop_front();
    }
    carryOut(farewell);
  }
}

void Housekeeper::carryOut(const Farewell& pFarewell) {
  if (!pFarewell.fClientName.empty()) {
    ki::log::LogStream(kLogInfo, kLogCategory, "", "carryOut", 0)
        << "client " << pFarewell.fClientName << " " << pFarewell.fReason
        << "; raising ClientDisconnected";
    try {
      OXMemoryProxy(fBroker).raiseEvent("ClientDisconnected", OXValue(pFarewell.fClientName));
    } catch (const std::exception& error) {
      ki::log::LogStream(kLogWarning, kLogCategory, "", "carryOut", 0)
          << "could not raise ClientDisconnected for " << pFarewell.fClientName << ": "
          << error.what();
    }
  }
  if (!fUnsubscribe) return;
  for (const Subscriber& subscriber : pFarewell.fSubscribers) {
    try {
      fBroker->getProxy(subscriber.fModule, 0)
          ->genericCall("unsubscribe", OXValue::array({subscriber.fName}));
      ki::log::LogStream(kLogInfo, kLogCategory, "", "carryOut", 0)
          << "unsubscribed " << subscriber.fName << " from " << subscriber.fModule
          << ", left behind by an ended session";
    } catch (const std::exception& error) {
      // Already gone (the "ClientDisconnected" handler or another client took it): nothing lost.
      ki::log::LogStream(kLogVerbose, kLogCategory, "", "carryOut", 0)
          << "subscriber " << subscriber.fName << " of " << subscriber.fModule
          << " was already gone: " << error.what();
    }
  }
}

}  // namespace net
}  // namespace OX
