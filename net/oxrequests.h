// Serving one request of the broker host: decode it within its budget, check its session, run
// its operation, and build the reply under the request's id. Nothing here knows about sockets or
// threads, so that the fuzz target can drive exactly what the host does with a message.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxsessions.h"
#include "oxwire.h"

namespace OX {
namespace net {

// The error a request of a connection without a session gets (other than hello and bye): a
// client that reconnected by itself gets a new routing identity and must say hello again.
constexpr const char* kUnknownSession = "unknown session: say hello first";

class SharedAreas;
class LocalCalls;

class RequestHandler {
 public:
  // pAllowRemoteEvents: see OXBrokerHost::Options::fAllowRemoteEvents. With pAreas, a client on
  // this machine may ask for a shared-memory area at hello, and with pCalls, once it has one, to
  // send its calls over a Unix socket (oxlocalcalls.h).
  RequestHandler(boost::shared_ptr<OXBroker> pBroker, SessionTable& pSessions,
                 std::size_t pMaxMessageBytes, bool pAllowRemoteEvents = false,
                 SharedAreas* pAreas = nullptr, LocalCalls* pCalls = nullptr);

  // What a request was, for the host's metrics: its operation and, for a call, the module and
  // method called (empty when the request could not be decoded that far).
  struct Served {
    std::string fOperation;
    std::string fModule;
    std::string fMethod;
  };

  // The reply to the message pFrames of the connection pRoutingId, whose peer ZeroMQ describes as
  // pPeerAddress: [1, id, "ok", result] or [1, id, "error", fields]. Never throws for anything
  // the client sent. Fills pServed if given.
  OXValue handle(const std::string& pRoutingId, const std::vector<wire::FrameView>& pFrames,
                 const std::string& pPeerAddress = std::string(), Served* pServed = nullptr);

 private:
  OXValue run(const std::string& pRoutingId, const OXValue& pHeader, const std::string& pPeer);
  OXValue call(const std::string& pRoutingId, const OXValue& pHeader);
  OXValue hello(const std::string& pRoutingId, const OXValue& pHeader, const std::string& pPeer);

  boost::shared_ptr<OXBroker> fBroker;
  SessionTable& fSessions;
  const std::size_t fMaxMessageBytes;
  const bool fAllowRemoteEvents;
  SharedAreas* fAreas;
  LocalCalls* fCalls;
};

OXValue okReply(int pId, OXValue&& pResult);
OXValue errorReply(int pId, const OXError& pError);
// An error of the broker itself, as its clients see it.
OXError hostError(const std::string& pFunction, const std::string& pDescription);
// Encodes a reply (the large binaries in a shared-memory area, with pPlacer); a result that
// cannot be encoded becomes an error reply under the same id.
void encodeReply(int pId, OXValue& pReply, wire::Encoded& pOut,
                 wire::BinaryPlacer* pPlacer = nullptr);

}  // namespace net
}  // namespace OX
