// The bounds of the broker host: what one request, one connection and the whole host may make it
// hold. Each is checked before the cost it bounds is paid; over a bound a client gets an error
// reply under its request's id, or (for a single frame over the message limit, which ZeroMQ
// itself refuses) its connection is closed. docs/robustness.md gives each bound with its figure.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "oxwire.h"

namespace OX {
namespace net {

struct HostLimits {
  // One request: its bytes, every frame counted with kFrameOverhead, and its frames.
  std::size_t fMaxMessageBytes = wire::kDefaultMaxMessageBytes;
  int fMaxFrames = 256;
  // Requests of one connection that are queued, running or being answered. The high-water marks
  // of the connection's ZeroMQ pipes follow from it, so that ZeroMQ holds no more than the host
  // would.
  int fMaxInFlight = 64;
  // Bytes held for one connection (its queued requests at their cost, its replies until ZeroMQ
  // has written them), and for all of them together.
  std::size_t fMaxSessionBytes = std::size_t(256) << 20;
  std::size_t fMaxQueuedBytes = std::size_t(1024) << 20;
  int fMaxSessions = 1024;
  // The shared-memory area of one session on this machine (0: none is offered), and the bytes
  // of all areas together (oxsharedmemory.h). An area is counted whole from hello on, whether
  // its pages are touched or not.
  std::size_t fAreaBytes = std::size_t(16) << 20;
  std::size_t fMaxAreaBytes = std::size_t(256) << 20;
};

// What a frame costs besides its bytes: ZeroMQ keeps a 64-byte message record per frame, so a
// request of a million empty frames is not two megabytes but sixty-four.
constexpr std::size_t kFrameOverhead = 64;

// What a request may cost while it is held: its frames, and what decoding them may allocate.
std::size_t requestCost(std::size_t pMessageBytes);

// Counts the frames of one incoming message as they are read. Once the message is over a bound
// its remaining frames need not be kept: the refusal only needs the header.
class FrameTally {
 public:
  explicit FrameTally(const HostLimits& pLimits) : fLimits(pLimits) {}
  // Counts one frame; false once the message is over a bound.
  bool add(std::size_t pSize);
  bool over() const { return fOver; }
  std::size_t bytes() const { return fBytes; }
  // The text of the refusal ("message too large: ..."), for a message that is over.
  std::string refusal() const;

 private:
  const HostLimits& fLimits;
  std::size_t fBytes = 0;
  std::size_t fFrames = 0;
  bool fOver = false;
};

// Bytes held for one connection, or for the whole host. Released from any thread (ZeroMQ's I/O
// thread gives a reply's bytes back once it has written them).
class ByteAccount {
 public:
  std::size_t held() const { return static_cast<std::size_t>(fBytes.load()); }
  void add(std::int64_t pBytes) { fBytes += pBytes; }

 private:
  std::atomic<std::int64_t> fBytes{0};
};

// Bytes held on a connection's account and on the host's, given back when it is destroyed.
class Reservation {
 public:
  Reservation() = default;
  Reservation(std::shared_ptr<ByteAccount> pConnection, std::shared_ptr<ByteAccount> pHost,
              std::size_t pBytes);
  ~Reservation();
  Reservation(Reservation&& pOther) noexcept;
  Reservation& operator=(Reservation&& pOther) noexcept;
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

 private:
  void release();
  std::shared_ptr<ByteAccount> fConnection;
  std::shared_ptr<ByteAccount> fHost;
  std::size_t fBytes = 0;
};

// Why a request is not queued, when it is not.
enum class Refusal { kNone, kInFlight, kConnectionBytes, kHostBytes, kStopping };

// Whether a request of pCost fits on a connection that holds pInFlight requests and the bytes of
// pConnection, in a host that holds the bytes of pHost.
Refusal admit(const HostLimits& pLimits, int pInFlight, const ByteAccount& pConnection,
              const ByteAccount& pHost, std::size_t pCost);
// The text of an error reply for a refusal.
std::string refusalText(const HostLimits& pLimits, Refusal pRefusal);

}  // namespace net
}  // namespace OX
