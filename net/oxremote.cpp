// The client end of a broker connection; see oxremote.h.
#include "oxremote.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <vector>

#include "oxerror.h"
#include "oxkeys.h"
#include "oxlocalcalls.h"
#include "oxrequests.h"
#include "oxsharedmemory.h"
#include "oxwire.h"

namespace OX {

namespace {

const char* const kRemoteFile = "net/oxremote";
// How long a closing client waits for the broker to acknowledge its goodbye.
constexpr int kByeTimeoutMs = 1000;
// Introductions are short: a broker that does not answer one within this time is not there.
constexpr int kHelloTimeoutMs = 5000;

// The process's ZeroMQ context. It is never destroyed: a context waits in its destructor for
// every socket to close, and a proxy left alive until exit would then hang the process.
zmq::context_t& context() {
  static zmq::context_t* const sContext = new zmq::context_t(1);
  return *sContext;
}

// Whether the broker host at pUrl runs on this machine: an ipc address, or a loopback one.
bool onThisMachine(const std::string& pUrl) {
  if (pUrl.rfind("ipc://", 0) == 0) return true;
  if (pUrl.rfind("tcp://", 0) != 0) return false;
  std::string host = pUrl.substr(6, pUrl.rfind(':') - 6);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return host == "localhost" || net::isLocalPeer(host);
}

// With keys, the connection is encrypted and the broker knows this client by its public key; a
// broker that does not admit it never answers, and the request times out.
void useCurve(zmq::socket_t& pSocket, const ConnectOptions& pOptions) {
  if (pOptions.fServerKey.empty() && pOptions.fClientKey.empty()) return;
  if (pOptions.fServerKey.empty() || pOptions.fClientKey.empty()) {
    throw OXError("OXProxy", "connect",
                  "CURVE needs both keys: the broker's public key and this client's secret key",
                  kRemoteFile, __LINE__);
  }
  const std::string server = readCurveKey(pOptions.fServerKey);
  const std::string secret = readCurveKey(pOptions.fClientKey);
  const std::string mine = curvePublicKey(secret);
  // Z85 keys are given with their terminating NUL: 41 bytes.
  for (const auto& [option, key] :
       {std::pair<int, const std::string*>{ZMQ_CURVE_SERVERKEY, &server},
        {ZMQ_CURVE_PUBLICKEY, &mine},
        {ZMQ_CURVE_SECRETKEY, &secret}}) {
    if (zmq_setsockopt(pSocket.handle(), option, key->c_str(), key->size() + 1) != 0) {
      throw OXError("OXProxy", "connect",
                    std::string("cannot use the CURVE keys: ") + zmq_strerror(zmq_errno()),
                    kRemoteFile, __LINE__);
    }
  }
}

}  // namespace

OXRemoteConnection::OXRemoteConnection(const std::string& pUrl, const std::string& pClientName,
                                       const std::string& pModuleName, int pTimeoutMs,
                                       const ConnectOptions& pOptions)
    : fUrl(pUrl),
      fClientName(pClientName),
      fModuleName(pModuleName),
      fTimeoutMs(pTimeoutMs),
      fOptions(pOptions),
      fSocket(context(), zmq::socket_type::dealer) {
  if (fOptions.fSharedMemory == ConnectOptions::SharedMemory::kRequire && !onThisMachine(pUrl)) {
    throw OXError("OXProxy", "connect",
                  "shared memory needs a broker host on this machine, not " + pUrl, kRemoteFile,
                  __LINE__);
  }
  if (!onThisMachine(pUrl)) fOptions.fSharedMemory = ConnectOptions::SharedMemory::kNever;
  fSocket.set(zmq::sockopt::linger, 0);
  useCurve(fSocket, pOptions);
  try {
    fSocket.connect(pUrl);
  } catch (const zmq::error_t& error) {
    throw OXError("OXProxy", "connect", "cannot connect to " + pUrl + ": " + error.what(),
                  kRemoteFile, __LINE__);
  }
  std::lock_guard<std::mutex> guard(fMutex);
  hello("connect", std::min(pTimeoutMs, kHelloTimeoutMs));
}

OXRemoteConnection::~OXRemoteConnection() {
  try {
    std::lock_guard<std::mutex> guard(fMutex);
    int id = 0;
    const OXValue sent = message("bye", {}, id);
    exchange(sent, id, "close", kByeTimeoutMs);
  } catch (const std::exception&) {
    // The broker is gone or slow: it notices the closed connection by itself.
  }
}

OXValue OXRemoteConnection::request(const std::string& pOperation, OXValue::Array pOperands,
                                    const std::string& pFunction) {
  return send(pOperation, std::move(pOperands), pFunction, nullptr);
}

OXValue OXRemoteConnection::request(const std::string& pOperation, OXValue::Array pOperands,
                                    const std::string& pFunction, std::vector<BinaryView>& pViews) {
  pViews.clear();
  return send(pOperation, std::move(pOperands), pFunction, &pViews);
}

bool OXRemoteConnection::usesSharedMemory() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fArea != nullptr;
}

bool OXRemoteConnection::usesUnixSocket() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fCalls != nullptr;
}

OXValue OXRemoteConnection::send(const std::string& pOperation, OXValue::Array&& pOperands,
                                 const std::string& pFunction, std::vector<BinaryView>* pViews) {
  std::lock_guard<std::mutex> guard(fMutex);
  // What the last call read in place is given up: the host may write over it again.
  fHeld.clear();
  if (fArea) fArea->releaseAll();
  int id = 0;
  // The encoded frames point into this value: it must live until they are sent, a second time
  // too if the session has to be introduced again.
  const OXValue sent = message(pOperation, std::move(pOperands), id);
  try {
    return exchange(sent, id, pFunction, fTimeoutMs, pViews);
  } catch (const OXError& error) {
    const bool unknownSession =
        error.getModuleName() == "OXBroker" && error.getDescription() == net::kUnknownSession;
    if (!unknownSession || pOperation == "hello" || pOperation == "bye") throw;
  }
  // The connection was made again by ZeroMQ after it dropped (a heartbeat timeout while this
  // process was stopped, say): the broker ended the old session. The request was refused
  // without being run, so it is sent again once, as the new session's.
  hello(pFunction, std::min(fTimeoutMs, kHelloTimeoutMs));
  return exchange(sent, id, pFunction, fTimeoutMs, pViews);
}

void OXRemoteConnection::hello(const std::string& pFunction, int pTimeoutMs) {
  using SharedMemory = ConnectOptions::SharedMemory;
  fCalls.reset();
  fArea.reset();
  int id = 0;
  OXValue::Array operands = {fClientName, fModuleName.empty() ? OXValue() : OXValue(fModuleName)};
  // Only a client that asks for an area says more than a client of old.
  const bool ask = fOptions.fSharedMemory != SharedMemory::kNever;
  if (ask) operands.emplace_back(true);
  if (ask && fOptions.fUnixSocketCalls) operands.emplace_back(true);
  const OXValue sent = message("hello", std::move(operands), id);
  const OXValue reply = exchange(sent, id, pFunction, pTimeoutMs);
  if (ask) takeArea(reply, pFunction, pTimeoutMs);
}

// Attaches the area that the host offered. Without one, a client that may do without carries on
// through the socket, and tells the host with a hello that does not ask.
void OXRemoteConnection::takeArea(const OXValue& pReply, const std::string& pFunction,
                                  int pTimeoutMs) {
  const bool required = fOptions.fSharedMemory == ConnectOptions::SharedMemory::kRequire;
  const OXValue offer = pReply.isArray() && pReply.getSize() > 2
                            ? pReply[2]
                            : OXValue("shared memory is not offered by this host");
  std::string refusal;
  if (offer.isString()) {
    refusal = offer.asString();
  } else {
    try {
      fArea.reset(new net::AreaClient(offer));
    } catch (const OXError& error) {
      refusal = error.getDescription();
    }
    if (fArea) {
      // The calls door, when offered: without it, or when it refuses, calls go through ZeroMQ.
      const OXValue door = pReply.getSize() > 3 ? pReply[3] : OXValue();
      if (door.isArray() && door.getSize() > 0 && door[0].isString()) {
        try {
          fCalls.reset(new net::CallsClient(
              door[0].asString(),
              std::string(reinterpret_cast<const char*>(offer[1].GetBinary()), offer[1].getSize()),
              pTimeoutMs));
        } catch (const OXError&) {
        }
      }
      return;
    }
  }
  if (required) throw OXError("OXProxy", pFunction, refusal, kRemoteFile, __LINE__);
  if (offer.isArray()) {
    int id = 0;
    OXValue::Array operands = {fClientName, fModuleName.empty() ? OXValue() : OXValue(fModuleName)};
    const OXValue sent = message("hello", std::move(operands), id);
    exchange(sent, id, pFunction, pTimeoutMs);
  }
}

OXValue OXRemoteConnection::message(const std::string& pOperation, OXValue::Array&& pOperands,
                                    int& pId) {
  pId = fNextId;
  // Id 0 is the broker's own; after 2^31 - 1 requests the ids start again at 1.
  fNextId = fNextId == INT32_MAX ? 1 : fNextId + 1;
  // The operands are moved in: a binary argument is not copied on its way to the socket.
  OXValue::Array header;
  header.reserve(3 + pOperands.size());
  header.emplace_back(wire::kProtocolVersion);
  header.emplace_back(pId);
  header.emplace_back(pOperation);
  std::move(pOperands.begin(), pOperands.end(), std::back_inserter(header));
  return OXValue(std::move(header));
}

OXValue OXRemoteConnection::exchange(const OXValue& pMessage, int pId, const std::string& pFunction,
                                     int pTimeoutMs, std::vector<BinaryView>* pViews) {
  wire::Encoded encoded;
  wire::encode(pMessage, encoded);
  OXValue result;
  if (fCalls && exchangeLocally(encoded, pId, pFunction, pTimeoutMs, pViews, result)) {
    return result;
  }
  const auto sendFlags = [](bool pLast) {
    return pLast ? zmq::send_flags::dontwait : zmq::send_flags::sndmore | zmq::send_flags::dontwait;
  };
  bool sent =
      fSocket.send(zmq::buffer(encoded.fHeader), sendFlags(encoded.fFrames.empty())).has_value();
  for (std::size_t i = 0; sent && i < encoded.fFrames.size(); ++i) {
    const OXValue::Binary& bytes = *encoded.fFrames[i];
    sent = fSocket
               .send(zmq::buffer(bytes.data(), bytes.size()),
                     sendFlags(i + 1 == encoded.fFrames.size()))
               .has_value();
  }
  if (!sent) {
    throw OXError("OXProxy", pFunction, "cannot send to " + fUrl + ": too many requests queued",
                  kRemoteFile, __LINE__);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(pTimeoutMs);
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    std::vector<zmq::pollitem_t> items = {{fSocket.handle(), 0, ZMQ_POLLIN, 0}};
    int ready = 0;
    try {
      ready = left.count() <= 0 ? 0 : zmq::poll(items, left);
    } catch (const zmq::error_t& error) {
      // A signal handler ran: wait again for the time that is left.
      if (error.num() == EINTR) continue;
      throw OXError("OXProxy", pFunction, std::string("waiting for ") + fUrl + ": " + error.what(),
                    kRemoteFile, __LINE__);
    }
    if (ready == 0) {
      throw OXError("OXProxy", pFunction,
                    "no reply from " + fUrl + " within " + std::to_string(pTimeoutMs) + " ms",
                    kRemoteFile, __LINE__);
    }
    std::vector<zmq::message_t> frames;
    do {
      frames.emplace_back();
      (void)fSocket.recv(frames.back());
    } while (frames.back().more());
    std::vector<wire::FrameView> views;
    for (const zmq::message_t& frame : frames) views.push_back({frame.data(), frame.size()});
    OXValue reply;
    if (!decodeReply(views, pId, pFunction, pViews, reply)) continue;
    // The views point into them (moving keeps their bytes).
    if (pViews != nullptr) fHeld = std::move(frames);
    return resultOf(reply, pViews != nullptr);
  }
}

bool OXRemoteConnection::exchangeLocally(const wire::Encoded& pEncoded, int pId,
                                         const std::string& pFunction, int pTimeoutMs,
                                         std::vector<BinaryView>* pViews, OXValue& pResult) {
  using Result = net::CallsClient::Result;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(pTimeoutMs);
  Result result = fCalls->send(pEncoded, deadline);
  bool started = false;
  std::vector<wire::FrameView> views;
  while (result == Result::kDone) {
    result = fCalls->receive(views, deadline, started);
    if (result != Result::kDone) break;
    OXValue reply;
    if (!decodeReply(views, pId, pFunction, pViews, reply)) continue;
    // The views point into the connection's buffer until the next call.
    pResult = resultOf(reply, pViews != nullptr);
    return true;
  }
  // Either way the stream may be cut in the middle of a message: the session's later calls go
  // through ZeroMQ.
  fCalls.reset();
  if (result == Result::kTimedOut) {
    throw OXError("OXProxy", pFunction,
                  "no reply from " + fUrl + " within " + std::to_string(pTimeoutMs) + " ms",
                  kRemoteFile, __LINE__);
  }
  if (started) {
    throw OXError("OXProxy", pFunction, "the connection to " + fUrl + " closed during a reply",
                  kRemoteFile, __LINE__);
  }
  // The host closed the connection (its session ended, or it stops) without reading the
  // request: ZeroMQ carries it, and says whether the session is still there.
  return false;
}

bool OXRemoteConnection::decodeReply(const std::vector<wire::FrameView>& pFrames, int pId,
                                     const std::string& pFunction, std::vector<BinaryView>* pViews,
                                     OXValue& pReply) {
  if (pViews != nullptr) pViews->clear();
  pReply = wire::decode(pFrames, SIZE_MAX, wire::DecodeBudget::unlimited(), fArea.get(), pViews);
  if (!pReply.isArray() || pReply.getSize() != 4 || !pReply[1].isInt() || !pReply[2].isString()) {
    throw OXError("OXProxy", pFunction, "malformed reply from " + fUrl, kRemoteFile, __LINE__);
  }
  // Another id: a late reply to a request that timed out, or the broker's probe (id 0).
  return pReply[1].asInt() == pId;
}

OXValue OXRemoteConnection::resultOf(OXValue& pReply, bool pViewed) {
  if (!pViewed && fArea) fArea->releaseAll();  // copied out: the host may use the area again
  if (pReply[2].asString() == "error") wire::throwErrorValue(pReply[3]);
  return std::move(pReply[3]);  // the pixels of an image are not copied once more
}

OXProxy::OXProxy(const std::string& pModuleName, const std::string& pHost, int pPort)
    : fModuleName(pModuleName),
      fRemote(new OXRemoteConnection("tcp://" + pHost + ":" + std::to_string(pPort),
                                     getClientName(), pModuleName, getRemoteTimeout())) {}

boost::shared_ptr<OXProxy> OXProxy::connect(const std::string& pUrl,
                                            const std::string& pModuleName) {
  return connect(pUrl, pModuleName, ConnectOptions());
}

boost::shared_ptr<OXProxy> OXProxy::connect(const std::string& pUrl, const std::string& pModuleName,
                                            const ConnectOptions& pOptions) {
  boost::shared_ptr<OXProxy> proxy(new OXProxy(boost::shared_ptr<OXBroker>(), pModuleName));
  const int timeoutMs = pOptions.fTimeoutMs > 0 ? pOptions.fTimeoutMs : getRemoteTimeout();
  proxy->fRemote.reset(
      new OXRemoteConnection(pUrl, getClientName(), pModuleName, timeoutMs, pOptions));
  return proxy;
}

ViewedResult callWithViews(OXProxy& pProxy, const std::string& pMethod, const OXValue& pArguments) {
  auto* connection = dynamic_cast<OXRemoteConnection*>(pProxy.getRemoteChannel());
  if (connection == nullptr) {
    throw OXError("OXProxy", pMethod,
                  "views are read in place of a remote reply: " + pProxy.getModuleName() +
                      " is an in-process proxy",
                  kRemoteFile, __LINE__);
  }
  ViewedResult result;
  result.fValue = connection->request("call", {pProxy.getModuleName(), pMethod, pArguments},
                                      pMethod, result.fBinaries);
  return result;
}

}  // namespace OX
