// OXBrokerHost: serves every published method of a broker's modules to other processes.
//
// The threads of the fair scheduler (oxscheduler.h) take turns at reading the ZeroMQ ROUTER
// socket (leader/followers): the reader takes requests within their bounds (oxbounds.h) and queues
// them on their connections' lanes, then, if another thread is free to read on, serves a turn
// itself (oxrequests.h); every thread sends its own replies, under the socket's mutex. On an idle
// host a request thus goes from ZeroMQ's I/O thread to one host thread and back, as in a plain
// server, while a slow call never keeps the others from being read or served. A same-host session
// that holds a shared-memory area may send its calls over a Unix socket of its own instead, served
// on a thread dedicated to it by the same serve function (oxlocalcalls.h). Sessions are ZeroMQ
// routing identities (oxsessions.h); when one ends (bye, a closed connection, or no answer to
// heartbeats), the housekeeper raises "ClientDisconnected" and unsubscribes what the session
// subscribed. The messages are described in docs/protocol.md, the bounds and what they stop in
// docs/robustness.md, who gets in and what remote callers may touch in docs/security.md.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxmetrics.h"
#include "oxwire.h"

namespace OX {

class OXBrokerHost {
 public:
  struct Options {
    std::string fBindAddress = "127.0.0.1";
    int fPort = 7761;  // 0 picks a free port (see getUrl)
    // Also listen on ipc://fIpcPath when not empty.
    std::string fIpcPath;
    int fThreads = 8;
    int fHeartbeatTimeoutMs = 5000;
    // The bounds (see net::HostLimits for what each counts).
    std::size_t fMaxMessageBytes = wire::kDefaultMaxMessageBytes;
    int fMaxFrames = 256;
    int fMaxInFlight = 64;  // requests of one connection at once
    std::size_t fMaxSessionBytes = std::size_t(256) << 20;
    std::size_t fMaxQueuedBytes = std::size_t(1024) << 20;
    int fMaxSessions = 1024;
    // The shared-memory area of a session on this machine that asks for one (0: never), and of
    // all sessions together (oxsharedmemory.h).
    std::size_t fSharedAreaBytes = std::size_t(16) << 20;
    std::size_t fMaxSharedAreaBytes = std::size_t(256) << 20;
    // Leave the subscribers of an ended session registered (the modules' own clean-up only).
    bool fKeepSubscribers = false;
    // CURVE (docs/security.md): with a secret key (Z85 text, oxkeys.h) every connection is
    // encrypted and only clients whose public key is in fAllowedClientKeys get in; empty: none.
    std::string fCurveSecretKey;
    std::vector<std::string> fAllowedClientKeys;
    // Let remote callers use OXMemory's events (raise, subscribe, unsubscribe) and call the
    // modules' event callbacks; by default the host alone raises "ClientDisconnected".
    bool fAllowRemoteEvents = false;
  };

  OXBrokerHost(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions);
  // Stops serving if start() succeeded.
  ~OXBrokerHost();
  OXBrokerHost(const OXBrokerHost&) = delete;
  OXBrokerHost& operator=(const OXBrokerHost&) = delete;

  // Binds and starts the threads. Throws OXError when the address cannot be bound.
  void start();
  // Stops reading requests, answers the queued ones with an error saying that the host is
  // stopping, lets running calls finish, then stops every thread. Idempotent.
  void stop();
  // The address that clients connect to, e.g. "tcp://127.0.0.1:7761".
  std::string getUrl() const;
  // The ipc address, when it listens on one ("ipc:///run/oxbroker.sock"), else empty.
  std::string getIpcUrl() const;
  // What the host is doing now (sessions, load, calls per method), for its pages and metrics.
  // Any thread, once started.
  net::HostStatus getStatus() const;

 private:
  class Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace OX
