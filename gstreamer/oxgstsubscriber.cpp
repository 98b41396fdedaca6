// One subscriber of OXVideoDevice on a broker host; see oxgstsubscriber.h.
#include "oxgstsubscriber.h"

#include <algorithm>

#include "kios.h"
#include "oxerror.h"

namespace oxgst {

namespace {

// A pause after a request that failed at once, so that a host that refuses connections is
// not asked in a tight loop.
constexpr auto kRetryPause = std::chrono::milliseconds(20);
// An answer without an image: the device already waited for a frame before giving it.
constexpr auto kNoImagePause = std::chrono::milliseconds(5);

// Errors of the connection itself, not of the host: the proxy raises them under its own name.
bool isTransportError(const OX::OXError& pError) {
  return pError.getModuleName() == "OXProxy";
}

// The device no longer knows the subscriber: the host was restarted, or its session with this
// client ended and the subscriber with it.
bool isUnknownSubscriber(const OX::OXError& pError) {
  const std::string& text = pError.getDescription();
  return pError.getModuleName() == kModuleName && text.size() >= 9 &&
         text.compare(text.size() - 9, 9, " unknown!") == 0;
}

}  // namespace

Subscriber::Subscriber(const SubscriberSettings& pSettings)
    : fSettings(pSettings), fUrl(pSettings.fHost.url()) {}

Subscriber::~Subscriber() {
  stop();
}

int Subscriber::requestTimeoutMs() const {
  // A whole part of the timeout, so that the last unanswered request ends when the timeout
  // does, and not shorter than 1.5 s where the timeout allows: the device itself may wait a
  // second for a first frame before it answers.
  const int timeout = fSettings.fHost.fTimeoutMs;
  return timeout / std::max(1, timeout / 1500);
}

void Subscriber::start() {
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(fSettings.fHost.fTimeoutMs);
  while (true) {
    try {
      subscribe();
      break;
    } catch (const OX::OXError& error) {
      fProxy.reset();
      if (!isTransportError(error) || Clock::now() >= deadline) throw;
    }
    if (!waitUntil(std::min(deadline, Clock::now() + kRetryPause))) {
      throw OX::OXError("oxvideosrc", "start", "interrupted while connecting to " + fUrl,
                        "gstreamer/oxgstsubscriber", __LINE__);
    }
  }
  fLastAnswer = Clock::now();
  fNextRequest = fLastAnswer;
}

void Subscriber::subscribe() {
  if (!fProxy) {
    fProxy =
        OX::OXProxy::connect(fUrl, kModuleName, fSettings.fHost.connectOptions(requestTimeoutMs()));
  }
  const OX::OXValue id = fProxy->genericCall(
      "subscribeCamera",
      OX::OXValue::array({fSettings.fName, fSettings.fCamera, fSettings.fResolution,
                          fSettings.fColorSpace, fSettings.fFps}));
  fArguments = OX::OXValue::array({id});
  {
    std::lock_guard<std::mutex> guard(fMutex);
    fId = id.asString();
  }
  fFrameRate = fProxy->genericCall("getFrameRate", fArguments).asInt();
}

void Subscriber::stop() {
  if (!fProxy) return;
  try {
    // A host that is known to be gone is not waited for once more.
    if (!fGone) fProxy->genericCall("unsubscribe", fArguments);
  } catch (const std::exception&) {
    // Gone or already unsubscribed: the host ends what the session made when it closes.
  }
  fProxy.reset();
  std::lock_guard<std::mutex> guard(fMutex);
  fId.clear();
}

Subscriber::Result Subscriber::next(Image& pImage) {
  while (true) {
    if (!waitUntil(fNextRequest)) return Result::kInterrupted;
    try {
      fRequestStart = Clock::now();
      // The pixels are read in place, in the reply or in the shared area: the element's copy
      // into its buffer is their only one on this side.
      fReply = OX::callWithViews(*fProxy, "getImageRemote", fArguments);
      fLastAnswer = Clock::now();
    } catch (const OX::OXError& error) {
      const Clock::time_point now = Clock::now();
      if (isTransportError(error)) {
        const auto silent =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - fLastAnswer).count();
        if (silent >= fSettings.fHost.fTimeoutMs) {
          fMessage = "the broker host at " + fUrl + " has not answered for " +
                     std::to_string(silent) + " ms (timeout " +
                     std::to_string(fSettings.fHost.fTimeoutMs) + " ms): " + error.what();
          fGone = true;
          return Result::kGone;
        }
        // The request may have been lost with a connection that dropped: ZeroMQ connects
        // again by itself, and the proxy introduces this client again when the host asks.
        const bool timedOut = now - fRequestStart >= std::chrono::milliseconds(requestTimeoutMs());
        fNextRequest = timedOut ? now : now + kRetryPause;
        continue;
      }
      fLastAnswer = now;
      if (!isUnknownSubscriber(error)) {
        fMessage = "the broker host at " + fUrl + " refused the image: " + error.what();
        return Result::kFailed;
      }
      // A host that came back has forgotten the subscriber: join it again.
      try {
        subscribe();
      } catch (const OX::OXError& again) {
        fMessage = "the broker host at " + fUrl + " refused to subscribe again: " + again.what();
        return Result::kFailed;
      }
      fNextRequest = now;
      continue;
    }
    const Clock::time_point now = fLastAnswer;
    const OX::OXValue& reply = fReply.fValue;
    if (!reply.isValid()) {
      fNextRequest = now + kNoImagePause;
      continue;
    }
    if (!reply.isArray() || reply.getSize() < 7 || !reply[6].isBinary() ||
        fReply.fBinaries.empty()) {
      fMessage =
          "the broker host at " + fUrl + " sent no image array: " + reply.toString().substr(0, 120);
      return Result::kFailed;
    }
    pImage.fWidth = reply[0].asInt();
    pImage.fHeight = reply[1].asInt();
    pImage.fLayers = reply[2].asInt();
    pImage.fColorSpace = reply[3].asInt();
    pImage.fTimeStamp = static_cast<int64_t>(
        (static_cast<uint64_t>(static_cast<uint32_t>(reply[4].asInt())) << 32) |
        static_cast<uint32_t>(reply[5].asInt()));
    pImage.fData = fReply.fBinaries[0].fData;
    pImage.fSize = fReply.fBinaries[0].fSize;
    const int periodMs = 1000 / std::max(1, fFrameRate.load());
    if (pImage.fTimeStamp == fLastStamp) {
      // The device shares an image for one period of the frame rate: ask again a little later.
      fNextRequest = now + std::chrono::milliseconds(std::max(1, periodMs / 4));
      continue;
    }
    fLastStamp = pImage.fTimeStamp;
    // The next image comes when this one is older than one period, by the host's clock: on
    // one machine the same as ours. Another machine's clock may be off: wait one period at most.
    const int64_t ageMs = (ki::os::nowMicroseconds() - pImage.fTimeStamp) / 1000;
    const int64_t waitMs = std::clamp<int64_t>(periodMs + 1 - ageMs, 0, periodMs);
    fNextRequest = now + std::chrono::milliseconds(waitMs);
    return Result::kImage;
  }
}

bool Subscriber::waitUntil(Clock::time_point pWhen) {
  std::unique_lock<std::mutex> lock(fMutex);
  return !fWake.wait_until(lock, pWhen, [this] { return fInterrupted; });
}

void Subscriber::interrupt() {
  std::lock_guard<std::mutex> guard(fMutex);
  fInterrupted = true;
  fWake.notify_all();
}

void Subscriber::resume() {
  std::lock_guard<std::mutex> guard(fMutex);
  fInterrupted = false;
}

std::string Subscriber::id() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fId;
}

}  // namespace oxgst
