// The client end of a connection to a broker host in another process (see docs/protocol.md), and
// the remote constructors of OXProxy that use it.
#pragma once

#include <mutex>
#include <string>
#include <zmq.hpp>

#include "oxbroker.h"
#include "oxconnectoptions.h"
#include "oxvalue.h"

namespace OX {

// One ZeroMQ connection to a broker host. Requests through one connection are sent one after
// the other, under its mutex; replies are matched to requests by id, so a reply that comes after
// its request timed out, or the broker's own probe, is recognised and dropped. ZeroMQ reconnects
// by itself after the connection drops, under a new identity that the broker does not know:
// the broker then answers that the session is unknown, and the request is sent again once after
// a new hello.
class OXRemoteConnection : public OXRemoteChannel {
 public:
  // Connects and introduces the client by name; with pModuleName not empty, the broker also
  // checks that it hosts that module. Throws OXError when the broker does not answer or refuses.
  OXRemoteConnection(const std::string& pUrl, const std::string& pClientName,
                     const std::string& pModuleName, int pTimeoutMs,
                     const ConnectOptions& pOptions = ConnectOptions());
  // Says goodbye (waiting a little for the broker to take note) and closes.
  ~OXRemoteConnection() override;
  OXRemoteConnection(const OXRemoteConnection&) = delete;
  OXRemoteConnection& operator=(const OXRemoteConnection&) = delete;

  // Sends [version, id, pOperation, operands...] and returns the result of an "ok" reply; an
  // "error" reply is raised as the OXError it carries. pFunction names the caller's operation in
  // the errors of the connection itself.
  OXValue request(const std::string& pOperation, OXValue::Array pOperands,
                  const std::string& pFunction) override;

  const std::string& getUrl() const override { return fUrl; }
  int getTimeout() const { return fTimeoutMs; }

 private:
  // One exchange under fMutex: sends the message and waits for the reply with its id.
  OXValue exchange(const OXValue& pMessage, int pId, const std::string& pFunction, int pTimeoutMs);
  OXValue message(const std::string& pOperation, OXValue::Array&& pOperands, int& pId);
  OXValue hello(const std::string& pFunction, int pTimeoutMs);

  std::string fUrl;
  std::string fClientName;
  std::string fModuleName;
  int fTimeoutMs;
  std::mutex fMutex;
  zmq::socket_t fSocket;
  int fNextId = 1;
};

}  // namespace OX
