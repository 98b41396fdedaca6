// One subscriber of OXVideoDevice on a broker host, as oxvideosrc drives it: it subscribes,
// hands out each new image once, re-joins a host that comes back within the timeout, and
// unsubscribes. Plain C++: the element adds the GStreamer side.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "oxbroker.h"
#include "oxgsthost.h"
#include "oxremote.h"
#include "oxtypes.h"
#include "oxvalue.h"

namespace oxgst {

struct SubscriberSettings {
  HostSettings fHost;
  std::string fName = "oxvideosrc";
  int fCamera = 0;  // -1: the device's active camera
  int fResolution = OX::kQVGA;
  int fColorSpace = OX::kRGB;
  int fFps = 30;
};

// The image last fetched: a view into the reply or the shared area, valid until the next call
// of next() (or any other call through the subscriber's connection).
struct Image {
  int fWidth = 0;
  int fHeight = 0;
  int fLayers = 0;
  int fColorSpace = 0;
  int64_t fTimeStamp = 0;  // microseconds of the host's wall clock
  const unsigned char* fData = nullptr;
  std::size_t fSize = 0;
};

// start, next and stop run on one thread at a time (the element's state changes and its
// streaming thread, which GStreamer never runs at once); interrupt, resume and id may come from
// any thread.
class Subscriber {
 public:
  enum class Result { kImage, kInterrupted, kGone, kFailed };
  using Clock = std::chrono::steady_clock;

  explicit Subscriber(const SubscriberSettings& pSettings);
  ~Subscriber();
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  // Connects and subscribes, trying again until the timeout while the host does not answer.
  // Throws OXError with the host's own text when it refuses, or when it never answered.
  void start();
  // Unsubscribes and disconnects. Never throws; a host that is gone ends the subscriber itself
  // when the connection closes.
  void stop();
  // Waits for an image newer than the last one handed out.
  //   kImage: pImage holds it; kInterrupted: interrupt() was called;
  //   kGone: the host answered nothing for the timeout; kFailed: it refused (message() says why).
  Result next(Image& pImage);

  // Makes a waiting next() return kInterrupted at once, and every call until resume().
  void interrupt();
  void resume();

  // The subscriber's id as the host gave it (it may add "_2" and so on to the name); empty
  // before start().
  std::string id() const;
  // The frame rate that the host stored for the subscriber (it raises below 5, and keeps 5 in
  // 4VGA); 0 before start().
  int frameRate() const { return fFrameRate.load(); }
  const std::string& url() const { return fUrl; }
  const std::string& message() const { return fMessage; }

 private:
  // Connects (when not connected) and subscribes; throws OXError.
  void subscribe();
  // Sleeps until pWhen; false when interrupted first.
  bool waitUntil(Clock::time_point pWhen);
  // The time to wait for one reply: a part of the timeout, so that a request lost with a
  // connection that dropped is sent again before the host counts as gone.
  int requestTimeoutMs() const;

  const SubscriberSettings fSettings;
  const std::string fUrl;
  boost::shared_ptr<OX::OXProxy> fProxy;
  OX::OXValue fArguments;          // [id], built once for the image requests
  OX::ViewedResult fReply;         // the last reply, whose views the image of next() is
  std::atomic<int> fFrameRate{0};  // read by caps and latency queries on other threads
  int64_t fLastStamp = INT64_MIN;
  Clock::time_point fNextRequest;
  Clock::time_point fLastAnswer;
  Clock::time_point fRequestStart;
  std::string fMessage;
  bool fGone = false;

  mutable std::mutex fMutex;  // over fId and fInterrupted
  std::condition_variable fWake;
  std::string fId;
  bool fInterrupted = false;
};

}  // namespace oxgst
