// The client end of a connection to a broker host in another process (see docs/protocol.md), and
// the remote constructors of OXProxy that use it.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "oxbroker.h"
#include "oxconnectoptions.h"
#include "oxvalue.h"
#include "oxwire.h"

namespace OX {

namespace net {
class AreaClient;
class CallsClient;
}  // namespace net

// Bytes of a result read in place.
using BinaryView = wire::BinaryView;

// The result of callWithViews.
struct ViewedResult {
  // The result, with every binary left empty...
  OXValue fValue;
  // ...and its bytes here, in the order in which the binaries appear (depth first).
  std::vector<BinaryView> fBinaries;
};

// Calls a published method through a remote proxy like genericCall, without copying the
// binaries of the result: they are read in place, in the received message or in the shared area.
// The views stay valid until the next call through the same connection (the proxy or a copy of
// it). Throws OXError for an in-process proxy, and as genericCall does.
ViewedResult callWithViews(OXProxy& pProxy, const std::string& pMethod, const OXValue& pArguments);

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
  // The same, with the binaries of the result read in place (see callWithViews).
  OXValue request(const std::string& pOperation, OXValue::Array pOperands,
                  const std::string& pFunction, std::vector<BinaryView>& pViews);

  const std::string& getUrl() const override { return fUrl; }
  int getTimeout() const { return fTimeoutMs; }
  // Whether replies come through a shared-memory area.
  bool usesSharedMemory() const;
  // Whether requests and replies travel over the session's Unix socket, not ZeroMQ.
  bool usesUnixSocket() const;

 private:
  OXValue send(const std::string& pOperation, OXValue::Array&& pOperands,
               const std::string& pFunction, std::vector<BinaryView>* pViews);
  // One exchange under fMutex: sends the message and waits for the reply with its id.
  OXValue exchange(const OXValue& pMessage, int pId, const std::string& pFunction, int pTimeoutMs,
                   std::vector<BinaryView>* pViews = nullptr);
  OXValue message(const std::string& pOperation, OXValue::Array&& pOperands, int& pId);
  void hello(const std::string& pFunction, int pTimeoutMs);
  void takeArea(const OXValue& pReply, const std::string& pFunction, int pTimeoutMs);
  // The exchange over the Unix socket; false when it closed before the request was read, which
  // then goes through ZeroMQ.
  bool exchangeLocally(const wire::Encoded& pEncoded, int pId, const std::string& pFunction,
                       int pTimeoutMs, std::vector<BinaryView>* pViews, OXValue& pResult);
  // The reply in pFrames, or false when it is another request's.
  bool decodeReply(const std::vector<wire::FrameView>& pFrames, int pId,
                   const std::string& pFunction, std::vector<BinaryView>* pViews, OXValue& pReply);
  // The result of the reply pReply, raised when it is an error; a reply not read in place
  // (pViewed false) gives the area back to the host at once.
  OXValue resultOf(OXValue& pReply, bool pViewed);

  std::string fUrl;
  std::string fClientName;
  std::string fModuleName;
  int fTimeoutMs;
  ConnectOptions fOptions;
  mutable std::mutex fMutex;
  zmq::socket_t fSocket;
  int fNextId = 1;
  std::unique_ptr<net::AreaClient> fArea;
  std::unique_ptr<net::CallsClient> fCalls;
  // The frames of the last reply read in place, kept until the next request.
  std::vector<zmq::message_t> fHeld;
};

}  // namespace OX
