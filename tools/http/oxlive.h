// Live views of the host's pages: a camera of OXVideoDevice in any resolution and colour space a
// subscriber could ask for, streamed as motion JPEG (multipart/x-mixed-replace). Each view is a
// subscriber of its own, made through the device's published methods and unsubscribed when the
// view ends.
#pragma once

#include <boost/shared_ptr.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "oximage.h"
#include "oxvalue.h"
#include "toolimage.h"

namespace OX {
class OXProxy;
}

namespace oxhttp {

using Clock = std::chrono::steady_clock;

// The subscriber name of every live view; the device adds _2, _3... to the second and further.
constexpr const char* kLiveSubscriber = "http-live";
// The boundary between the JPEG parts of a stream.
constexpr const char* kBoundary = "oxframe";

// What a page asks for in a live view.
struct LiveRequest {
  int fCamera = 0;
  int fResolution = 1;   // kQVGA
  int fColorSpace = 11;  // kRGB
  int fFps = 15;
  std::string fToken;  // chosen by the page, to find its own view in /api/live
};

// The query of a live view (camera, resolution, colorspace, fps, view), each optional; names as
// oxgrab takes them. Throws std::invalid_argument with the reason for a value it cannot use.
LiveRequest parseLiveRequest(const std::multimap<std::string, std::string>& pQuery);

// One live view that is being streamed: what it shows, and what it sent so far. The counts are
// written by the stream and read by the pages.
struct LiveView {
  LiveRequest fRequest;
  std::string fClient;  // address:port of the viewer
  Clock::time_point fStarted = Clock::now();
  std::string fSubscriber;  // set by LiveViews::subscribed, then fixed
  std::atomic<std::uint64_t> fFrames{0};
  std::atomic<std::uint64_t> fBytes{0};
  std::atomic<double> fRate{0};         // new images sent per second, over the last second
  std::atomic<double> fImageAgeMs{-1};  // of the last new image, when it was sent
};

// The live views of a host, at most a fixed number at once.
class LiveViews {
 public:
  explicit LiveViews(int pLimit) : fLimit(pLimit) {}
  // A new view, or null when pLimit of them run.
  std::shared_ptr<LiveView> open(const LiveRequest& pRequest, const std::string& pClient);
  // The view is subscribed as pSubscriber: it is listed from now on.
  void subscribed(const std::shared_ptr<LiveView>& pView, const std::string& pSubscriber);
  void close(const std::shared_ptr<LiveView>& pView);
  // The views that are subscribed.
  std::vector<std::shared_ptr<const LiveView>> list() const;
  int limit() const { return fLimit; }

 private:
  const int fLimit;
  mutable std::mutex fMutex;
  std::vector<std::shared_ptr<LiveView>> fViews;
};

// Images as JPEG through libturbojpeg, each colour space turned into RGB first by the same
// conversion oxgrab uses (kRGB as it is). Its buffers are kept from one image to the next.
class JpegEncoder {
 public:
  explicit JpegEncoder(int pQuality = 80);
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;
  // The JPEG of the image, valid until the next call; false (with pError) when it cannot be made.
  bool encode(const OX::OXImage& pImage, const unsigned char*& pJpeg, std::size_t& pSize,
              std::string& pError);

 private:
  void* fHandle;
  int fQuality;
  oxtools::RgbImage fRgb;
  unsigned char* fJpeg = nullptr;  // tjAlloc'd, grown only for a larger image
  unsigned long fCapacity = 0;
};

// The stream of one live view. Subscribes on construction (throws OXError as the device refuses
// the request) and unsubscribes and closes the view on destruction. One thread at a time.
class LiveStream {
 public:
  using Write = std::function<bool(const char* pData, std::size_t pSize)>;

  LiveStream(boost::shared_ptr<OX::OXProxy> pDevice, LiveViews& pViews,
             std::shared_ptr<LiveView> pView);
  ~LiveStream();
  LiveStream(const LiveStream&) = delete;
  LiveStream& operator=(const LiveStream&) = delete;

  // What the stream does next, as step() tells.
  enum class Step {
    kWrite,  // a part was handed to pWrite: write it, then step again
    kWait,   // nothing is due before wakeAt(): step again then
    kEnd     // the stream ends (the device no longer knows the subscriber, or no image can be
             // shown)
  };
  // Once the next image is due at the view's frame rate, asks the device for it, as any
  // subscriber at that rate would ask, and hands a new one to pWrite as the next part. Without a
  // new image for a second the last part is handed again (a grey one before the first), so that
  // a viewer that left is noticed by the failed write. Never waits itself.
  Step step(const Write& pWrite);
  Clock::time_point wakeAt() const { return fNext; }
  // One image array as getImageRemote returns it, written as the next part. False when the
  // write failed or the array holds no image that can be shown.
  bool sendImage(const OX::OXValue& pImage, const Write& pWrite);

 private:
  // fImage as the next part.
  bool sendCurrent(const Write& pWrite);
  bool writePart(const unsigned char* pJpeg, std::size_t pSize, long long pTimeStamp, double pAgeMs,
                 const Write& pWrite);
  bool repeatLast(const Write& pWrite);
  void countFrame(Clock::time_point pNow, double pAgeMs, std::size_t pBytes);

  boost::shared_ptr<OX::OXProxy> fDevice;
  LiveViews& fViews;
  std::shared_ptr<LiveView> fView;
  JpegEncoder fEncoder;
  OX::OXImage fImage;
  std::vector<unsigned char> fLast;  // the last part's JPEG, written again when no image comes
  long long fLastStamp = -1;
  Clock::duration fPeriod;
  Clock::time_point fNext;
  Clock::time_point fLastSent;
  Clock::time_point fRateStart;
  std::uint64_t fRateFrames = 0;
};

}  // namespace oxhttp
