// Who may connect to the broker host when it speaks CURVE: a ZAP handler (ZeroMQ's
// authentication protocol, RFC 27). ZeroMQ asks it once for every connection whose CURVE
// handshake succeeded; it admits the clients whose public key is allowed and refuses the others,
// which then get no answer to anything, and logs each refusal once, with the peer's address and
// key. Clients that do not speak CURVE, or use the wrong broker key, fail before it is asked (the
// host logs those from its connection monitor).
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

namespace OX {
namespace net {

// The connection events that tell of a failed handshake, for the host's connection monitor.
constexpr int kHandshakeFailedEvents =
    ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL;

// Makes pSocket a CURVE server with the secret key pSecretKey (Z85), whose clients the ZAP
// handler of its context admits. Throws OXError for a malformed key.
void serveCurve(zmq::socket_t& pSocket, const std::string& pSecretKey);
// Logs the refusal of a connection whose handshake failed: the monitor's event and its value.
void logHandshakeFailure(int pEvent, uint32_t pValue);

class ZapHandler {
 public:
  // Binds the handler's endpoint in pContext: it must exist before a socket of that context
  // accepts connections. pAllowedKeys: public keys in Z85 text.
  ZapHandler(zmq::context_t& pContext, const std::vector<std::string>& pAllowedKeys);
  // Stops the handler's thread.
  ~ZapHandler();
  ZapHandler(const ZapHandler&) = delete;
  ZapHandler& operator=(const ZapHandler&) = delete;

 private:
  void run();
  void answer(std::vector<zmq::message_t>& pRequest);

  zmq::socket_t fSocket;           // used by the handler's thread only, once started
  std::set<std::string> fAllowed;  // the 32 bytes of each key
  std::atomic<bool> fStop{false};
  std::thread fThread;
};

}  // namespace net
}  // namespace OX
