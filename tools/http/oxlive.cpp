// Live views; see oxlive.h.
#include "oxlive.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <stdexcept>

#include "kilog.h"
#include "kios.h"
#include "oxbroker.h"
#include "oxerror.h"
#include "oxtypes.h"

namespace oxhttp {

namespace {

constexpr const char* kCategory = "net.http";
// A stream without a new image writes its last part again after this long.
constexpr auto kRepeatAfter = std::chrono::seconds(1);
// While no image comes, the device is asked again this often.
constexpr auto kRetry = std::chrono::milliseconds(10);
constexpr std::size_t kMaxToken = 64;
// The frame rate of a view is measured over windows this long (seconds).
constexpr double kRateWindow = 1.0;
// The grey part of a stream that has no image yet.
constexpr int kWaitingWidth = 160;
constexpr int kWaitingHeight = 120;

int integer(const std::string& pName, const std::string& pText, int pLow, int pHigh) {
  std::size_t used = 0;
  int value = 0;
  try {
    value = std::stoi(pText, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || used != pText.size() || value < pLow || value > pHigh) {
    throw std::invalid_argument(pName + " must be a whole number from " + std::to_string(pLow) +
                                " to " + std::to_string(pHigh) + ", not '" + pText + "'");
  }
  return value;
}

}  // namespace

LiveRequest parseLiveRequest(const std::multimap<std::string, std::string>& pQuery) {
  LiveRequest request;
  for (const auto& entry : pQuery) {
    if (pQuery.count(entry.first) > 1) {
      throw std::invalid_argument(entry.first + " is given more than once");
    }
    const std::string& value = entry.second;
    if (entry.first == "camera") {
      request.fCamera = integer("camera", value, 0, 127);
    } else if (entry.first == "resolution") {
      request.fResolution = oxtools::parseResolution(value);
      if (request.fResolution < 0) {
        throw std::invalid_argument("unknown resolution '" + value +
                                    "'; known: qqvga, qvga, vga, 4vga or 0..3");
      }
    } else if (entry.first == "colorspace") {
      request.fColorSpace = oxtools::parseColorSpace(value);
      if (request.fColorSpace < 0) {
        throw std::invalid_argument("unknown colour space '" + value +
                                    "'; known: " + oxtools::colorSpaceNames());
      }
    } else if (entry.first == "fps") {
      request.fFps = integer("fps", value, 1, 30);
    } else if (entry.first == "view") {
      if (value.size() > kMaxToken || !std::all_of(value.begin(), value.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
          })) {
        throw std::invalid_argument("view must be at most 64 letters, digits, - or _");
      }
      request.fToken = value;
    } else {
      throw std::invalid_argument("unknown parameter '" + entry.first +
                                  "'; known: camera, resolution, colorspace, fps, view");
    }
  }
  return request;
}

std::shared_ptr<LiveView> LiveViews::open(const LiveRequest& pRequest, const std::string& pClient) {
  std::lock_guard<std::mutex> guard(fMutex);
  if (static_cast<int>(fViews.size()) >= fLimit) return nullptr;
  auto view = std::make_shared<LiveView>();
  view->fRequest = pRequest;
  view->fClient = pClient;
  fViews.push_back(view);
  return view;
}

void LiveViews::subscribed(const std::shared_ptr<LiveView>& pView, const std::string& pSubscriber) {
  std::lock_guard<std::mutex> guard(fMutex);
  pView->fSubscriber = pSubscriber;
}

void LiveViews::close(const std::shared_ptr<LiveView>& pView) {
  std::lock_guard<std::mutex> guard(fMutex);
  fViews.erase(std::remove(fViews.begin(), fViews.end(), pView), fViews.end());
}

std::vector<std::shared_ptr<const LiveView>> LiveViews::list() const {
  std::lock_guard<std::mutex> guard(fMutex);
  std::vector<std::shared_ptr<const LiveView>> views;
  for (const auto& view : fViews) {
    if (!view->fSubscriber.empty()) views.push_back(view);
  }
  return views;
}

JpegEncoder::JpegEncoder(int pQuality) : fHandle(tjInitCompress()), fQuality(pQuality) {
  if (fHandle == nullptr) throw std::runtime_error("cannot start libturbojpeg");
}

JpegEncoder::~JpegEncoder() {
  tjFree(fJpeg);
  tjDestroy(static_cast<tjhandle>(fHandle));
}

bool JpegEncoder::encode(const OX::OXImage& pImage, const unsigned char*& pJpeg, std::size_t& pSize,
                         std::string& pError) {
  const unsigned char* pixels = pImage.fData;
  const int format = TJPF_RGB;
  if (pImage.fColorSpace != OX::kRGB) {
    if (!oxtools::toRgb(pImage.fData, pImage.getSize(), pImage.fWidth, pImage.fHeight,
                        pImage.fColorSpace, fRgb)) {
      pError = "cannot show colour space " + std::to_string(pImage.fColorSpace);
      return false;
    }
    pixels = fRgb.fPixels.data();
  }
  const unsigned long needed = tjBufSize(pImage.fWidth, pImage.fHeight, TJSAMP_420);
  if (needed > fCapacity) {
    tjFree(fJpeg);
    fJpeg = tjAlloc(static_cast<int>(needed));
    fCapacity = fJpeg != nullptr ? needed : 0;
    if (fJpeg == nullptr) {
      pError = "out of memory for a JPEG image";
      return false;
    }
  }
  unsigned long size = fCapacity;
  if (tjCompress2(static_cast<tjhandle>(fHandle), pixels, pImage.fWidth, 0, pImage.fHeight, format,
                  &fJpeg, &size, TJSAMP_420, fQuality, TJFLAG_NOREALLOC | TJFLAG_FASTDCT) != 0) {
    pError = tjGetErrorStr2(static_cast<tjhandle>(fHandle));
    return false;
  }
  pJpeg = fJpeg;
  pSize = size;
  return true;
}

LiveStream::LiveStream(boost::shared_ptr<OX::OXProxy> pDevice, LiveViews& pViews,
                       std::shared_ptr<LiveView> pView)
    : fDevice(std::move(pDevice)),
      fViews(pViews),
      fView(std::move(pView)),
      fImage(1, 1, OX::kRGB, false),
      fPeriod(std::chrono::microseconds(1000000 / std::max(1, fView->fRequest.fFps))) {
  const LiveRequest& request = fView->fRequest;
  try {
    const OX::OXValue subscriber = fDevice->genericCall(
        "subscribeCamera",
        OX::OXValue::array({kLiveSubscriber, request.fCamera, request.fResolution,
                            request.fColorSpace, request.fFps}));
    fViews.subscribed(fView, subscriber.asString());
  } catch (...) {
    fViews.close(fView);
    throw;
  }
  ki::log::LogStream(ki::log::kLogInfo, kCategory, "", "LiveStream", 0)
      << "live view for " << fView->fClient << " subscribed as " << fView->fSubscriber;
  fNext = fLastSent = fRateStart = Clock::now();
}

LiveStream::~LiveStream() {
  try {
    fDevice->genericCall("unsubscribe", OX::OXValue::array({fView->fSubscriber}));
  } catch (const std::exception& error) {
    ki::log::LogStream(ki::log::kLogVerbose, kCategory, "", "~LiveStream", 0)
        << fView->fSubscriber << " was already unsubscribed: " << error.what();
  }
  ki::log::LogStream(ki::log::kLogInfo, kCategory, "", "~LiveStream", 0)
      << "live view for " << fView->fClient << " ended after " << fView->fFrames.load()
      << " frames; unsubscribed " << fView->fSubscriber;
  fViews.close(fView);
}

LiveStream::Step LiveStream::step(const Write& pWrite) {
  if (Clock::now() < fNext) return Step::kWait;
  OX::OXValue image;
  try {
    image = fDevice->genericCall("getImageRemote", OX::OXValue::array({fView->fSubscriber}));
  } catch (const OX::OXError& error) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "step", 0)
        << "live view " << fView->fSubscriber << " ends: " << error.getDescription();
    return Step::kEnd;
  }
  const Clock::time_point now = Clock::now();
  if (image.isValid() && fImage.fromOXValue(image) && fImage.fTimeStamp != fLastStamp) {
    fNext = std::max(fNext + fPeriod, now);
    return sendCurrent(pWrite) ? Step::kWrite : Step::kEnd;
  }
  if (now - fLastSent >= kRepeatAfter) {
    fLastSent = now;
    fNext = now + kRetry;
    return repeatLast(pWrite) ? Step::kWrite : Step::kEnd;
  }
  // The image of the last part again: the next is asked half a period later, as a subscriber
  // at this rate would. No image yet (the camera starts): soon.
  fNext = now + (image.isValid() ? fPeriod / 2 : kRetry);
  return Step::kWait;
}

bool LiveStream::sendImage(const OX::OXValue& pImage, const Write& pWrite) {
  return fImage.fromOXValue(pImage) && sendCurrent(pWrite);
}

bool LiveStream::sendCurrent(const Write& pWrite) {
  const unsigned char* jpeg = nullptr;
  std::size_t size = 0;
  std::string error;
  if (!fEncoder.encode(fImage, jpeg, size, error)) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "sendImage", 0)
        << "live view " << fView->fSubscriber << ": " << error;
    return false;
  }
  const double ageMs = static_cast<double>(ki::os::nowMicroseconds() - fImage.fTimeStamp) / 1000.0;
  fLast.assign(jpeg, jpeg + size);
  fLastStamp = fImage.fTimeStamp;
  const Clock::time_point now = Clock::now();
  fLastSent = now;
  countFrame(now, ageMs, size);
  return writePart(jpeg, size, fImage.fTimeStamp, ageMs, pWrite);
}

bool LiveStream::repeatLast(const Write& pWrite) {
  if (fLast.empty()) {
    // Nothing came yet: a grey image says that the view is waiting.
    OX::OXImage waiting(kWaitingWidth, kWaitingHeight, OX::kRGB, false);
    std::fill(waiting.fData, waiting.fData + waiting.getSize(), 128);
    const unsigned char* jpeg = nullptr;
    std::size_t size = 0;
    std::string error;
    if (!fEncoder.encode(waiting, jpeg, size, error)) return false;
    return writePart(jpeg, size, -1, -1, pWrite);
  }
  return writePart(fLast.data(), fLast.size(), fLastStamp, -1, pWrite);
}

bool LiveStream::writePart(const unsigned char* pJpeg, std::size_t pSize, long long pTimeStamp,
                           double pAgeMs, const Write& pWrite) {
  char header[256];
  const int length = std::snprintf(header, sizeof header,
                                   "--%s\r\nContent-Type: image/jpeg\r\nContent-Length: %zu\r\n"
                                   "X-Image-Timestamp: %lld\r\nX-Image-Age-Ms: %.1f\r\n\r\n",
                                   kBoundary, pSize, pTimeStamp, pAgeMs);
  return pWrite(header, static_cast<std::size_t>(length)) &&
         pWrite(reinterpret_cast<const char*>(pJpeg), pSize) && pWrite("\r\n", 2);
}

void LiveStream::countFrame(Clock::time_point pNow, double pAgeMs, std::size_t pBytes) {
  fView->fBytes.fetch_add(pBytes, std::memory_order_relaxed);
  fView->fImageAgeMs.store(pAgeMs, std::memory_order_relaxed);
  // The rate counts the intervals between frames: the first frame starts the first window.
  if (fView->fFrames.fetch_add(1, std::memory_order_relaxed) == 0) {
    fRateStart = pNow;
    return;
  }
  ++fRateFrames;
  const double elapsed = std::chrono::duration<double>(pNow - fRateStart).count();
  if (elapsed >= kRateWindow) {
    fView->fRate.store(static_cast<double>(fRateFrames) / elapsed, std::memory_order_relaxed);
    fRateFrames = 0;
    fRateStart = pNow;
  }
}

}  // namespace oxhttp
