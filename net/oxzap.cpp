// The ZAP handler of the broker host; see oxzap.h.
#include "oxzap.h"

#include <array>

#include "kilog.h"
#include "oxerror.h"
#include "oxhostlog.h"

namespace OX {
namespace net {

namespace {

// The endpoint where ZeroMQ looks for a context's handler (RFC 27).
constexpr const char* kZapEndpoint = "inproc://zeromq.zap.01";
constexpr int kPollMs = 100;
constexpr std::size_t kKeyBytes = 32;
// A request: version, request id, domain, address, identity, mechanism, credentials.
constexpr std::size_t kRequestFrames = 7;

std::string z85(const std::string& pKey) {
  std::array<char, 41> text{};
  if (pKey.size() != kKeyBytes ||
      zmq_z85_encode(text.data(), reinterpret_cast<const uint8_t*>(pKey.data()), kKeyBytes) ==
          nullptr) {
    return "(no key)";
  }
  return text.data();
}

}  // namespace

void serveCurve(zmq::socket_t& pSocket, const std::string& pSecretKey) {
  // A Z85 key is given with its terminating NUL: 41 bytes.
  if (pSecretKey.size() != 40 ||
      zmq_setsockopt(pSocket.handle(), ZMQ_CURVE_SECRETKEY, pSecretKey.c_str(), 41) != 0) {
    throw OXError("OXBroker", "start", "malformed CURVE secret key", "net/oxzap", __LINE__);
  }
  pSocket.set(zmq::sockopt::curve_server, true);
  pSocket.set(zmq::sockopt::zap_domain, "oxbroker");
}

void logHandshakeFailure(int pEvent, uint32_t pValue) {
  // Which side notices first varies: the value says why only when this side did.
  const char* why = "its handshake failed (the client has no CURVE keys, or not this broker's key)";
  if (pEvent == ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL) {
    if (pValue == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH) {
      why = "the client does not speak CURVE (it was given no keys)";
    } else if (pValue == ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC ||
               pValue == ZMQ_PROTOCOL_ERROR_ZMTP_KEY_EXCHANGE) {
      why = "the CURVE handshake failed (the client's server key is not this broker's)";
    }
  }
  ki::log::LogStream(kLogWarning, kLogCategory, "", "authenticate", 0)
      << "refused a connection: " << why;
}

ZapHandler::ZapHandler(zmq::context_t& pContext, const std::vector<std::string>& pAllowedKeys)
    : fSocket(pContext, zmq::socket_type::rep) {
  for (const std::string& key : pAllowedKeys) {
    std::array<uint8_t, kKeyBytes> bytes{};
    if (key.size() != 40 || zmq_z85_decode(bytes.data(), key.c_str()) == nullptr) {
      throw OXError("OXBroker", "start", "malformed allowed key " + key, "net/oxzap", __LINE__);
    }
    fAllowed.emplace(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  fSocket.set(zmq::sockopt::linger, 0);
  fSocket.bind(kZapEndpoint);
  fThread = std::thread([this] { run(); });
}

ZapHandler::~ZapHandler() {
  fStop = true;
  fThread.join();
}

void ZapHandler::run() {
  std::vector<zmq::pollitem_t> items = {{fSocket.handle(), 0, ZMQ_POLLIN, 0}};
  while (!fStop) {
    if (zmq::poll(items, std::chrono::milliseconds(kPollMs)) == 0) continue;
    std::vector<zmq::message_t> request;
    do {
      request.emplace_back();
      (void)fSocket.recv(request.back());
    } while (request.back().more());
    answer(request);
  }
}

void ZapHandler::answer(std::vector<zmq::message_t>& pRequest) {
  std::string status = "400";
  std::string text = "malformed ZAP request";
  if (pRequest.size() >= kRequestFrames && pRequest[0].to_string() == "1.0") {
    const std::string address = pRequest[3].to_string();
    const std::string mechanism = pRequest[5].to_string();
    const std::string key = pRequest[6].to_string();
    if (mechanism == "CURVE" && fAllowed.count(key) != 0) {
      status = "200";
      text = "OK";
    } else {
      text = "key not allowed";
      // ZeroMQ asks once per connection: this is the one record of each refused one.
      ki::log::LogStream(kLogWarning, kLogCategory, "", "authenticate", 0)
          << "refused a connection from " << address << ": its " << mechanism << " key " << z85(key)
          << " is not among the allowed keys";
    }
  }
  zmq::message_t requestId;
  if (pRequest.size() > 1) requestId.move(pRequest[1]);
  const auto more = zmq::send_flags::sndmore;
  (void)fSocket.send(zmq::str_buffer("1.0"), more);
  (void)fSocket.send(requestId, more);
  (void)fSocket.send(zmq::buffer(status), more);
  (void)fSocket.send(zmq::buffer(text), more);
  (void)fSocket.send(zmq::str_buffer(""), more);
  (void)fSocket.send(zmq::str_buffer(""), zmq::send_flags::none);
}

}  // namespace net
}  // namespace OX
