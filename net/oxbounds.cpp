// The bounds of the broker host; see oxbounds.h.
#include "oxbounds.h"

#include <utility>

namespace OX {
namespace net {

std::size_t requestCost(std::size_t pMessageBytes) {
  return pMessageBytes + wire::DecodeBudget::forMessage(pMessageBytes).fBytes;
}

bool FrameTally::add(std::size_t pSize) {
  ++fFrames;
  fBytes += pSize + kFrameOverhead;
  if (fFrames > static_cast<std::size_t>(fLimits.fMaxFrames) || fBytes > fLimits.fMaxMessageBytes)
    fOver = true;
  return !fOver;
}

std::string FrameTally::refusal() const {
  if (fFrames > static_cast<std::size_t>(fLimits.fMaxFrames)) {
    return "message too large: more than " + std::to_string(fLimits.fMaxFrames) + " frames";
  }
  return "message too large: more than " + std::to_string(fLimits.fMaxMessageBytes) +
         " bytes (each frame counts " + std::to_string(kFrameOverhead) + " more)";
}

Reservation::Reservation(std::shared_ptr<ByteAccount> pConnection,
                         std::shared_ptr<ByteAccount> pHost, std::size_t pBytes)
    : fConnection(std::move(pConnection)), fHost(std::move(pHost)), fBytes(pBytes) {
  if (fConnection) fConnection->add(static_cast<std::int64_t>(fBytes));
  if (fHost) fHost->add(static_cast<std::int64_t>(fBytes));
}

Reservation::~Reservation() {
  release();
}

Reservation::Reservation(Reservation&& pOther) noexcept
    : fConnection(std::move(pOther.fConnection)),
      fHost(std::move(pOther.fHost)),
      fBytes(std::exchange(pOther.fBytes, 0)) {}

Reservation& Reservation::operator=(Reservation&& pOther) noexcept {
  if (this != &pOther) {
    release();
    fConnection = std::move(pOther.fConnection);
    fHost = std::move(pOther.fHost);
    fBytes = std::exchange(pOther.fBytes, 0);
  }
  return *this;
}

void Reservation::release() {
  if (fConnection) fConnection->add(-static_cast<std::int64_t>(fBytes));
  if (fHost) fHost->add(-static_cast<std::int64_t>(fBytes));
  fConnection.reset();
  fHost.reset();
  fBytes = 0;
}

Refusal admit(const HostLimits& pLimits, int pInFlight, const ByteAccount& pConnection,
              const ByteAccount& pHost, std::size_t pCost) {
  if (pInFlight >= pLimits.fMaxInFlight) return Refusal::kInFlight;
  if (pConnection.held() + pCost > pLimits.fMaxSessionBytes) return Refusal::kConnectionBytes;
  if (pHost.held() + pCost > pLimits.fMaxQueuedBytes) return Refusal::kHostBytes;
  return Refusal::kNone;
}

std::string refusalText(const HostLimits& pLimits, Refusal pRefusal) {
  switch (pRefusal) {
    case Refusal::kInFlight:
      return "too many requests in flight: at most " + std::to_string(pLimits.fMaxInFlight) +
             " per connection";
    case Refusal::kConnectionBytes:
      return "too many bytes held for this connection: at most " +
             std::to_string(pLimits.fMaxSessionBytes) +
             " for its queued requests and unread replies";
    case Refusal::kHostBytes:
      return "broker busy: at most " + std::to_string(pLimits.fMaxQueuedBytes) +
             " bytes of requests and replies held for all clients";
    case Refusal::kStopping:
      return "the broker is stopping: request not served";
    case Refusal::kNone:
      break;
  }
  return std::string();
}

}  // namespace net
}  // namespace OX
