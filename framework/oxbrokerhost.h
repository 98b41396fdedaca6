// OXBrokerHost: serves every published method of a broker's modules to other processes.
//
// One thread owns the listening socket: it reads requests, keeps the table of client sessions and
// hands each request to a pool of worker threads, which decode it, call the module and encode
// the reply. Calls therefore run concurrently and the modules' own locks decide what waits; a
// slow call holds one worker, never the listener. When a client's session ends (it says goodbye,
// its connection closes, or it stops answering heartbeats) the broker's OXMemory service raises
// "ClientDisconnected" with the client's name. The messages are described in docs/protocol.md.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <string>

#include "oxbroker.h"
#include "oxwire.h"

namespace OX {

class OXBrokerHost {
 public:
  struct Options {
    std::string fBindAddress = "127.0.0.1";
    int fPort = 7761;  // 0 picks a free port (see getUrl)
    int fThreads = 8;
    int fHeartbeatTimeoutMs = 5000;
    std::size_t fMaxMessageBytes = wire::kDefaultMaxMessageBytes;
    int fMaxInFlight = 64;  // requests of one client at once
  };

  OXBrokerHost(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions);
  // Stops serving if start() succeeded.
  ~OXBrokerHost();
  OXBrokerHost(const OXBrokerHost&) = delete;
  OXBrokerHost& operator=(const OXBrokerHost&) = delete;

  // Binds and starts the threads. Throws OXError when the address cannot be bound.
  void start();
  // Lets running calls finish, then stops every thread. Idempotent.
  void stop();
  // The address that clients connect to, e.g. "tcp://127.0.0.1:7761".
  std::string getUrl() const;

 private:
  class Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace OX
