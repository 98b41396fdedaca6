// Client sessions of the broker host, and what is done when one ends.
//
// A session is a ZeroMQ routing identity that has said hello: the ROUTER socket gives every
// connection an identity of its own, never reused, so a session can neither outlive its
// connection nor pass to the next one. It ends when the client says bye or its connection goes
// (closed, or silent past the heartbeat timeout). Then, on a thread of its own that never waits
// behind module calls, the housekeeper raises "ClientDisconnected" with the client's name, if no
// other session still uses that name, and unsubscribes the subscribers that the session's calls
// made.
#pragma once

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxbroker.h"
#include "oxmetrics.h"

namespace OX {
namespace net {

class SharedArea;

// A subscriber that a session's call made, to be unsubscribed when the session ends.
struct Subscriber {
  std::string fModule;
  std::string fName;
  bool operator==(const Subscriber& pOther) const {
    return fModule == pOther.fModule && fName == pOther.fName;
  }
};

// What is left to do when a session ends.
struct Farewell {
  std::string fClientName;  // empty when another session still uses the name
  std::string fReason;
  std::vector<Subscriber> fSubscribers;
};
using FarewellSink = std::function<void(Farewell&&)>;

// The sessions by routing identity, with the number of sessions that use each client name.
// Thread-safe; ended sessions are handed to the sink, in the order in which they end.
class SessionTable {
 public:
  SessionTable(int pMaxSessions, FarewellSink pSink);

  bool has(const std::string& pRoutingId) const;
  // Starts a session, or renames it (the old name's farewell is sent if that was its last use).
  // Throws OXError when the table is full.
  void begin(const std::string& pRoutingId, const std::string& pName);
  // Ends a session with its farewell; false when there was none.
  bool end(const std::string& pRoutingId, const std::string& pReason);
  // A subscribing call of the session returned pSubscriber / an unsubscribing call removed it.
  void remember(const std::string& pRoutingId, const Subscriber& pSubscriber);
  void forget(const std::string& pRoutingId, const Subscriber& pSubscriber);
  std::vector<std::string> routingIds() const;
  std::size_t size() const;
  // The client's address, for the host's pages; ignored when there is no such session.
  void setAddress(const std::string& pRoutingId, const std::string& pAddress);
  // Every session, by name.
  std::vector<SessionView> list() const;
  // The session's shared-memory area (oxsharedmemory.h), which ends with it; null for none.
  void setArea(const std::string& pRoutingId, std::shared_ptr<SharedArea> pArea);
  std::shared_ptr<SharedArea> area(const std::string& pRoutingId) const;

 private:
  struct Session {
    std::string fName;
    std::vector<Subscriber> fSubscribers;
    std::string fAddress;
    std::chrono::steady_clock::time_point fSince = std::chrono::steady_clock::now();
    std::shared_ptr<SharedArea> fArea;
  };
  // Counts a use of pName less; true when it was the last one. fMutex held.
  bool release(const std::string& pName);

  const int fMaxSessions;
  FarewellSink fSink;
  mutable std::mutex fMutex;
  std::map<std::string, Session> fSessions;
  std::map<std::string, int> fNameUses;
};

// Carries out farewells in order on a thread of its own: first "ClientDisconnected" (through the
// broker's OXMemory service), then "unsubscribe" of each subscriber, unless pUnsubscribe is false.
class Housekeeper {
 public:
  Housekeeper(boost::shared_ptr<OXBroker> pBroker, bool pUnsubscribe);
  ~Housekeeper();
  Housekeeper(const Housekeeper&) = delete;
  Housekeeper& operator=(const Housekeeper&) = delete;

  void post(Farewell&& pFarewell);
  // Finishes the farewell in progress; the others are logged and dropped (the host is going).
  void stop();

 private:
  void run();
  void carryOut(const Farewell& pFarewell);

  boost::shared_ptr<OXBroker> fBroker;
  const bool fUnsubscribe;
  std::mutex fMutex;
  std::condition_variable fPosted;
  std::deque<Farewell> fQueue;
  bool fStopping = false;
  std::thread fThread;
};

}  // namespace net
}  // namespace OX
