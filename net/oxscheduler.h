// Fair scheduling of the broker host's requests on a pool of workers.
//
// Each connection has a lane: its requests wait there in order and run one at a time, and the
// lanes that have work take turns on the workers. A client that pipelines slow calls therefore
// holds one worker, never all of them, and never the place in line of another client. A lane
// whose connection holds more unread replies than its bound waits until the client reads them.
//
// The threads also take turns at reading requests (leader/followers): one thread,
// the leader, waits for requests and queues them; when that gives a lane a turn and another thread
// is idle, the leader hands the reading to that thread and serves the turn itself, so that a
// request of an idle host is read, served and answered on one thread. The leader keeps reading
// while every other thread serves, so there is always one reading while any thread is free, and
// at most the number of threads less one calls run at once.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "oxbounds.h"

namespace OX {
namespace net {

// One request waiting for a worker.
struct Job {
  std::string fRoutingId;
  std::vector<zmq::message_t> fFrames;
  int fId = -1;                              // read from the header's start, for refusals
  Reservation fCost;                         // held until the job is done
  std::shared_ptr<ByteAccount> fConnection;  // where the reply's bytes are charged
  std::shared_ptr<ByteAccount> fHost;
};

class Scheduler {
 public:
  // What one worker thread does; made on that thread, so that it may own a socket.
  class Worker {
   public:
    virtual ~Worker() = default;
    virtual void serve(Job& pJob) = 0;
    // Answers a job that will not be served because the host is stopping.
    virtual void refuse(Job& pJob) = 0;
    // Submits the requests that came, after waiting a while (bounded) for some
    // when pMayWait.
    virtual void lead(bool pMayWait) = 0;
  };
  using WorkerFactory = std::function<std::unique_ptr<Worker>()>;

  // pThreads threads (at least two), one of which leads at any time (Worker::lead).
  Scheduler(const HostLimits& pLimits, int pThreads, WorkerFactory pFactory);
  ~Scheduler();
  // Starts the threads. Once.
  void start();

  // Queues a request of pMessageBytes on its connection's lane, unless a bound says no.
  // The listener thread, or the leader.
  Refusal submit(Job&& pJob, std::size_t pMessageBytes);
  // True when the connection has no request queued, running or being answered.
  bool idle(const std::string& pRoutingId) const;
  // A reply of the connection has left the host (or was dropped): one request less in flight.
  void replied(const std::string& pRoutingId);
  // The connection is gone: its queued requests are dropped unanswered, and pThen is called once
  // none of its requests runs any more (at once, or by the worker that finishes the last).
  void retire(const std::string& pRoutingId, std::function<void()> pThen);
  // Requests waiting for a worker, and being served, at this moment.
  void load(std::size_t& pQueued, std::size_t& pRunning) const;
  // Lanes held back by unread replies are looked at again. The listener or leader, now and then.
  void resume();
  // Queued requests are refused, running ones finish; then the workers end. Idempotent.
  void stop();
  // The bytes held for all connections, which requests served elsewhere are charged to as well.
  std::shared_ptr<ByteAccount> hostBytes() const { return fHostBytes; }

 private:
  struct Lane {
    std::deque<Job> fQueue;
    bool fRunning = false;
    bool fInTurn = false;  // in fTurns
    bool fHeld = false;    // waiting for its client to read replies
    int fInFlight = 0;
    std::shared_ptr<ByteAccount> fBytes = std::make_shared<ByteAccount>();
    bool fRetired = false;  // its connection went while a request ran: fOnRetired follows it
    std::function<void()> fOnRetired;
  };
  using Lanes = std::map<std::string, Lane>;
  void work(Worker& pWorker);
  // Leads until a follower can take over or the scheduler stops; fMutex held.
  void lead(Worker& pWorker, std::unique_lock<std::mutex>& pGuard);
  // Puts the lane in line if its next request may start; true when it did. fMutex held.
  bool offer(const std::string& pRoutingId, Lane& pLane);
  void dropIfUnused(Lanes::iterator pLane);

  const HostLimits fLimits;
  std::shared_ptr<ByteAccount> fHostBytes = std::make_shared<ByteAccount>();
  mutable std::mutex fMutex;
  std::condition_variable fWork;
  Lanes fLanes;
  std::atomic<int> fHeldLanes{0};  // changed under fMutex, read without it by resume()
  std::deque<std::string> fTurns;  // lanes with a request that may start, in order of turn
  std::deque<Job> fRefusals;       // requests to answer as not served, once stopping
  bool fStopping = false;
  const int fThreads;
  const WorkerFactory fFactory;
  bool fLed = false;         // a thread leads
  std::thread::id fLeader;   // that thread
  std::size_t fWaiting = 0;  // threads waiting for something to do
  std::vector<std::thread> fWorkers;
};

}  // namespace net
}  // namespace OX
