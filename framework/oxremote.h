// The client end of a connection to a broker host in another process (see docs/protocol.md).
#pragma once

#include <mutex>
#include <string>
#include <zmq.hpp>

#include "oxvalue.h"

namespace OX {

// One ZeroMQ connection to a broker host. Requests through one connection are sent one after
// the other, under its mutex; replies are matched to requests by id, so a reply that comes after
// its request timed out is recognised and dropped.
class OXRemoteConnection {
 public:
  // Connects and introduces the client by name; with pModuleName not empty, the broker also
  // checks that it hosts that module. Throws OXError when the broker does not answer or refuses.
  OXRemoteConnection(const std::string& pUrl, const std::string& pClientName,
                     const std::string& pModuleName, int pTimeoutMs);
  // Says goodbye (waiting a little for the broker to take note) and closes.
  ~OXRemoteConnection();
  OXRemoteConnection(const OXRemoteConnection&) = delete;
  OXRemoteConnection& operator=(const OXRemoteConnection&) = delete;

  // Sends [version, id, pOperation, operands...] and returns the result of an "ok" reply; an
  // "error" reply is raised as the OXError it carries. pFunction names the caller's operation in
  // the errors of the connection itself.
  OXValue request(const std::string& pOperation, OXValue::Array pOperands,
                  const std::string& pFunction, int pTimeoutMs);

  const std::string& getUrl() const { return fUrl; }
  int getTimeout() const { return fTimeoutMs; }

 private:
  std::string fUrl;
  int fTimeoutMs;
  std::mutex fMutex;
  zmq::socket_t fSocket;
  int fNextId = 1;
};

}  // namespace OX
