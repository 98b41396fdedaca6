// Serving one request; see oxrequests.h.
#include "oxrequests.h"

#include "oxcaller.h"
#include "oxerror.h"
#include "oxservices.h"
#include "oxlocalcalls.h"
#include "oxsharedmemory.h"

namespace OX {
namespace net {

namespace {

const char* const kRequestsFile = "net/oxrequests";

[[noreturn]] void refuse(const std::string& pOperation, const std::string& pDescription) {
  throw hostError(pOperation, pDescription);
}

const std::string& operandString(const OXValue& pHeader, int pIndex, const std::string& pOp) {
  if (pHeader.getSize() <= pIndex || !pHeader[pIndex].isString()) {
    refuse(pOp, "operand " + std::to_string(pIndex - 3) + " of " + pOp + " must be a string");
  }
  return pHeader[pIndex].asString();
}

void noteServed(const OXValue& pHeader, RequestHandler::Served& pServed) {
  pServed.fOperation = pHeader[2].asString();
  if (pServed.fOperation == "call" && pHeader.getSize() > 4 && pHeader[3].isString() &&
      pHeader[4].isString()) {
    pServed.fModule = pHeader[3].asString();
    pServed.fMethod = pHeader[4].asString();
  }
}

bool startsWith(const std::string& pText, const char* pPrefix) {
  return pText.rfind(pPrefix, 0) == 0;
}

const std::string kEventsRefused = "events are the broker's own: a remote caller may not use ";

// Whether the call touches the broker's events: OXMemory's event table, or a method that is
// called back for an event (the device's onClientDisconnected). A remote caller could otherwise
// announce that another client went away, or stop the announcements.
bool isEventCall(OXBroker& pBroker, const std::string& pModule, const std::string& pMethod) {
  if (pModule == "OXMemory" && (pMethod == "raiseEvent" || pMethod == "subscribeToEvent" ||
                                pMethod == "unsubscribeToEvent")) {
    return true;
  }
  const boost::shared_ptr<OXMemory> memory =
      boost::dynamic_pointer_cast<OXMemory>(pBroker.getModuleCoreByName("OXMemory"));
  return memory && memory->isEventCallback(pModule, pMethod);
}

}  // namespace

OXError hostError(const std::string& pFunction, const std::string& pDescription) {
  return OXError("OXBroker", pFunction, pDescription, kRequestsFile, 0);
}

// Takes the result over: an image's pixels are not copied again on their way out.
OXValue okReply(int pId, OXValue&& pResult) {
  OXValue::Array reply;
  reply.reserve(4);
  reply.emplace_back(wire::kProtocolVersion);
  reply.emplace_back(pId);
  reply.emplace_back("ok");
  reply.push_back(std::move(pResult));
  return OXValue(std::move(reply));
}

OXValue errorReply(int pId, const OXError& pError) {
  return OXValue::array(
      {wire::kProtocolVersion, pId, "error",
       wire::errorToValue(pError.getModuleName(), pError.getFunctionName(), pError.getDescription(),
                          pError.getFileName(), pError.getLine())});
}

void encodeReply(int pId, OXValue& pReply, wire::Encoded& pOut, wire::BinaryPlacer* pPlacer) {
  try {
    wire::encode(pReply, pOut, pPlacer);
  } catch (const std::exception& error) {
    pReply = errorReply(pId, hostError("encode", error.what()));
    wire::encode(pReply, pOut);
  }
}

RequestHandler::RequestHandler(boost::shared_ptr<OXBroker> pBroker, SessionTable& pSessions,
                               std::size_t pMaxMessageBytes, bool pAllowRemoteEvents,
                               SharedAreas* pAreas, LocalCalls* pCalls)
    : fBroker(std::move(pBroker)),
      fSessions(pSessions),
      fMaxMessageBytes(pMaxMessageBytes),
      fAllowRemoteEvents(pAllowRemoteEvents),
      fAreas(pAreas),
      fCalls(pCalls) {}

OXValue RequestHandler::handle(const std::string& pRoutingId,
                               const std::vector<wire::FrameView>& pFrames,
                               const std::string& pPeerAddress, Served* pServed) {
  int id = -1;
  try {
    const OXValue header = wire::decode(pFrames, fMaxMessageBytes);
    if (!header.isArray() || header.getSize() < 3 || !header[0].isInt() || !header[1].isInt() ||
        !header[2].isString()) {
      refuse("decode", "malformed message: a request is [version, id, operation, ...]");
    }
    id = header[1].asInt();
    if (pServed != nullptr) noteServed(header, *pServed);
    if (header[0].asInt() != wire::kProtocolVersion) {
      refuse("decode", "unsupported protocol version " + std::to_string(header[0].asInt()) +
                           " (this broker speaks " + std::to_string(wire::kProtocolVersion) + ")");
    }
    return okReply(id, run(pRoutingId, header, pPeerAddress));
  } catch (const OXError& error) {
    // A request whose id could not be decoded may still have one at its start.
    if (id == -1 && !pFrames.empty()) id = wire::peekRequest(pFrames[0]).fId;
    return errorReply(id, error);
  } catch (const std::exception& error) {
    return errorReply(id, hostError("call", error.what()));
  }
}

OXValue RequestHandler::run(const std::string& pRoutingId, const OXValue& pHeader,
                            const std::string& pPeer) {
  const std::string& op = pHeader[2].asString();
  if (op == "hello") return hello(pRoutingId, pHeader, pPeer);
  if (op == "bye") {
    fSessions.end(pRoutingId, "said goodbye");
    return OXValue();
  }
  if (!fSessions.has(pRoutingId)) refuse(op, kUnknownSession);
  if (op == "call") return call(pRoutingId, pHeader);
  if (op == "methods") {
    return OXValue(fBroker->getProxy(operandString(pHeader, 3, op), 0)->getMethodList());
  }
  if (op == "help") {
    const std::string& module = operandString(pHeader, 3, op);
    return fBroker->getProxy(module, 0)->getMethodHelp(operandString(pHeader, 4, op));
  }
  if (op == "describe") return fBroker->getProxy(operandString(pHeader, 3, op), 0)->describe();
  if (op == "modules") return OXValue(fBroker->getModuleNames());
  if (op == "ping") return OXValue();
  refuse("decode", "unknown operation \"" + op + "\"");
}

// Operand 2, when true, asks for a shared-memory area: the answer is then a third element of the
// reply, the area's offer or the text of its refusal. Every hello sets the session's area anew.
// Operand 3, when true as well, asks for the calls door (oxlocalcalls.h): when an area is offered,
// a fourth element answers, the door's address or the text of its refusal.
OXValue RequestHandler::hello(const std::string& pRoutingId, const OXValue& pHeader,
                              const std::string& pPeer) {
  const std::string& name = operandString(pHeader, 3, "hello");
  if (name.empty()) refuse("hello", "operand 0 of hello must not be empty");
  if (pHeader.getSize() > 4 && pHeader[4].isValid()) {
    fBroker->getProxy(operandString(pHeader, 4, "hello"), 0);  // throws for an unknown module
  }
  fSessions.begin(pRoutingId, name);
  fSessions.setAddress(pRoutingId, pPeer);
  OXValue reply = OXValue::array({fBroker->getName(), OXValue(fBroker->getModuleNames())});
  const bool wantsArea = pHeader.getSize() > 5 && pHeader[5].isBool() && pHeader[5].asBool();
  std::shared_ptr<SharedArea> area;
  if (wantsArea) {
    reply.arrayPush(fAreas != nullptr ? fAreas->offer(pPeer, area)
                                      : OXValue("shared memory is not offered by this host"));
  }
  const bool wantsCalls =
      wantsArea && pHeader.getSize() > 6 && pHeader[6].isBool() && pHeader[6].asBool();
  if (wantsCalls && area) {
    reply.arrayPush(fCalls != nullptr
                        ? fCalls->expect(pRoutingId, pPeer, area)
                        : OXValue("calls over a Unix socket are not offered by this host"));
  }
  fSessions.setArea(pRoutingId, std::move(area));
  return reply;
}

// Besides running the method, keeps track of the subscribers that the session makes, so that
// they can be unsubscribed when it ends. A subscriber is any string that a method whose name
// starts with "subscribe" returns; "unsubscribe" and "unsubscribeAllInstances" remove them as the
// device does (the base name and its instances _2 to _7).
OXValue RequestHandler::call(const std::string& pRoutingId, const OXValue& pHeader) {
  const std::string& module = operandString(pHeader, 3, "call");
  const std::string& method = operandString(pHeader, 4, "call");
  const OXValue arguments = pHeader.getSize() > 5 ? pHeader[5] : OXValue();
  if (arguments.isValid() && !arguments.isArray()) {
    refuse("call", "the arguments of " + method + " must be an array");
  }
  if (!fAllowRemoteEvents && isEventCall(*fBroker, module, method)) {
    refuse("call", kEventsRefused + module + "." + method +
                       " (a broker started with --allow-remote-events lets them)");
  }
  OXValue result;
  {
    // The modules hold the caller to the rules of another process (oxcaller.h).
    OXRemoteCallScope remote(fBroker->getFilePolicy());
    // A client that reads its replies from a shared-memory area may have its result's pixels
    // copied there directly; placing the reply then finds them there (oxsharedmemory.h).
    OXReplyArenaScope arena(fSessions.area(pRoutingId));
    result = fBroker->getProxy(module, 0)->genericCall(method, arguments);
  }
  if (startsWith(method, "subscribe") && result.isString()) {
    fSessions.remember(pRoutingId, {module, result.asString()});
  } else if (startsWith(method, "unsubscribe") && arguments.getSize() > 0 &&
             arguments[0].isString()) {
    const std::string& name = arguments[0].asString();
    fSessions.forget(pRoutingId, {module, name});
    if (method == "unsubscribeAllInstances") {
      for (int instance = 2; instance <= 7; ++instance)
        fSessions.forget(pRoutingId, {module, name + "_" + std::to_string(instance)});
    }
  }
  return result;
}

}  // namespace net
}  // namespace OX
