// Calls of a same-host session over a Unix stream connection, without ZeroMQ.
//
// ZeroMQ passes every message through an I/O thread on each side: four thread wake-ups a call,
// whatever its size. A client that holds its session's shared-memory area (oxsharedmemory.h)
// therefore may, when it asks at hello, send its requests over a Unix stream socket instead: it
// connects to the host's calls door (an abstract Unix socket) and shows its area's token again;
// a process of the host's own user that shows the token of a live area gets one byte, '1', and
// the connection is its session's from then on. A thread of the host dedicated to the connection
// reads a request, serves it exactly as a request that came through ZeroMQ (the host's one serve
// function: same dispatch, bounds, refusals, session, logs and metrics), and writes the reply,
// its large binaries in the area as before. The session itself stays the ZeroMQ connection's:
// hello, its heartbeats and its end; the Unix connection lives as long as the session keeps that
// area, and its closing ends nothing but itself.
//
// A message, both ways: a little-endian 64-bit byte count of what follows, then each frame of the
// message (the same frames as through ZeroMQ) as a little-endian 32-bit size and its bytes.
// docs/protocol.md describes it; docs/robustness.md what bounds the threads.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxbounds.h"
#include "oxvalue.h"
#include "oxwire.h"

namespace OX {
namespace net {

class SharedArea;

// The bytes before a message's frames, and before each frame.
constexpr std::size_t kMessagePrefixBytes = 8;
constexpr std::size_t kFramePrefixBytes = 4;

// Writes an encoded message to the stream pFd (non-blocking) by pDeadline. With pStopFd, a stop
// (pStopFd readable) leaves it pLingerMs more. False when it could not, the connection is then
// unusable.
bool writeMessage(int pFd, const wire::Encoded& pMessage,
                  std::chrono::steady_clock::time_point pDeadline, int pStopFd = -1,
                  int pLingerMs = 0);

// What a client keeps of its calls connection: the socket and the last reply's bytes, which the
// views of a reply point into until the next call.
class CallsClient {
 public:
  // Connects to the calls door pAddress ("@name") and shows pToken; throws OXError when the host
  // refuses or does not answer within pTimeoutMs.
  CallsClient(const std::string& pAddress, const std::string& pToken, int pTimeoutMs);
  ~CallsClient();
  CallsClient(const CallsClient&) = delete;
  CallsClient& operator=(const CallsClient&) = delete;

  enum class Result { kDone, kClosed, kTimedOut };
  Result send(const wire::Encoded& pMessage, std::chrono::steady_clock::time_point pDeadline);
  // Reads the next message; its frames point into this object until the next receive. kClosed
  // before any byte of it came means that the host read no request that it did not answer.
  Result receive(std::vector<wire::FrameView>& pFrames,
                 std::chrono::steady_clock::time_point pDeadline, bool& pStarted);

 private:
  int fFd = -1;
  std::unique_ptr<unsigned char[]> fInbox;
  std::size_t fCapacity = 0;
  std::size_t fFilled = 0;  // bytes in the inbox
  std::size_t fUsed = 0;    // of which the messages already received
};

// The host's side: the calls door and the threads of the connections.
class LocalCalls {
 public:
  // Hands an encoded reply over to be written; pBytes are its bytes.
  using Writer = std::function<void(const wire::Encoded& pReply, std::size_t pBytes)>;
  // Serves one request (pFrames, of pBytes, pId read from its start) of
  // the session pRoutingId, whose peer ZeroMQ described as pPeer, writing the reply through
  // pWrite: the host's serve function, the same as for ZeroMQ's requests.
  using Server = std::function<void(const std::string& pRoutingId,
                                    const std::vector<wire::FrameView>& pFrames, std::size_t pBytes,
                                    int pId, const std::string& pPeer, const Writer& pWrite)>;
  // Whether pArea is still the area of the session pRoutingId.
  using Current = std::function<bool(const std::string& pRoutingId, const SharedArea* pArea)>;

  // pMaxConnections: at most this many connections at once (the areas that the host may hold);
  // pDeadlineMs: how long a message, once begun, may take to arrive or to be written.
  LocalCalls(const HostLimits& pLimits, std::shared_ptr<ByteAccount> pHostBytes,
             std::size_t pMaxConnections, int pDeadlineMs, Server pServe, Current pCurrent);
  ~LocalCalls();
  LocalCalls(const LocalCalls&) = delete;
  LocalCalls& operator=(const LocalCalls&) = delete;

  // Opens the calls door; when it cannot, logs why and offers none (calls go through ZeroMQ).
  void start();
  // Closes the door and every connection: a call being served finishes and its reply gets a
  // moment to leave. Joins every thread. Idempotent.
  void stop();
  // The answer to a hello that asks for its calls over a Unix socket, once the session has its
  // new area: [address] or the text of the refusal.
  OXValue expect(const std::string& pRoutingId, const std::string& pPeer,
                 const std::shared_ptr<SharedArea>& pArea);
  // Calls being served at this moment, and connections open.
  std::size_t running() const { return fRunning.load(); }
  std::size_t connections() const;

 private:
  struct Expected {
    std::string fRoutingId;
    std::string fPeer;
    std::weak_ptr<SharedArea> fArea;
  };
  struct Visitor {
    int fFd;
    std::chrono::steady_clock::time_point fDeadline;
    std::string fToken;
  };
  struct Connection {
    int fFd = -1;
    Expected fSession;
    std::shared_ptr<ByteAccount> fBytes = std::make_shared<ByteAccount>();
    std::thread fThread;
    std::atomic<bool> fDone{false};
  };
  void door();
  void admit(std::chrono::steady_clock::time_point pNow);
  // True when the visitor is done with (let in, refused, or gone).
  bool visit(Visitor& pVisitor);
  void serve(Connection& pConnection);
  // Answers one request that was read whole; false when the connection is to close.
  bool exchange(Connection& pConnection, const std::vector<wire::FrameView>& pFrames,
                const FrameTally& pTally);
  void reap();

  const HostLimits fLimits;
  const std::shared_ptr<ByteAccount> fHostBytes;
  const std::size_t fMaxConnections;
  const int fDeadlineMs;
  const Server fServe;
  const Current fCurrent;
  std::string fAddress;
  int fListen = -1;
  int fStop = -1;  // an eventfd, readable once stopping: wakes every wait
  std::atomic<bool> fStopping{false};
  std::atomic<std::size_t> fRunning{0};
  std::thread fDoor;
  std::vector<Visitor> fVisitors;  // the door's thread only
  mutable std::mutex fMutex;
  std::map<std::string, Expected> fExpected;  // by token
  std::list<Connection> fConnections;
};

}  // namespace net
}  // namespace OX
