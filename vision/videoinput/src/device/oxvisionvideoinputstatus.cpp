// The device's status for the host's pages and metrics (OXModuleStatus): each camera as it runs,
// each subscriber with its wishes and what it was served. The counts themselves are taken on the
// image path (SubscriberCounts); this only reads them.
#include <algorithm>
#include <string>

#include "device/oxvisionvideoinput.h"
#include "oxerror.h"
#include "oxtypes.h"

namespace OX {

namespace {

using Clock = SubscriberCounts::Clock;

std::int64_t nanoseconds(Clock::time_point pTime) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(pTime.time_since_epoch()).count();
}

const char* grabberStateName(GrabberState pState) {
  switch (pState) {
    case GrabberState::kFailed:
      return "failed";
    case GrabberState::kStopped:
      return "stopped";
    case GrabberState::kOpening:
      return "opening";
    case GrabberState::kClosing:
      return "closing";
    case GrabberState::kRunning:
      return "running";
  }
  return "unknown";
}

// The parameters that a page shows of every camera, by the names the device knows them by.
struct NamedParameter {
  int fId;
  const char* fName;
};
constexpr NamedParameter kShownParameters[] = {{kCameraResolutionID, "kCameraResolutionID"},
                                               {kCameraFrameRateID, "kCameraFrameRateID"},
                                               {kCameraBufferSizeID, "kCameraBufferSizeID"},
                                               {kCameraSelectID, "kCameraSelectID"},
                                               {kCameraColorSpaceID, "kCameraColorSpaceID"}};

// "0, 1" from the cameras' values.
template <class Value>
std::string joined(const std::vector<int>& pCameras, Value pValue) {
  std::string text;
  for (int camera : pCameras) {
    if (!text.empty()) text += ", ";
    text += std::to_string(pValue(camera));
  }
  return text;
}

}  // namespace

void SubscriberCounts::delivered(Clock::time_point pNow, int pImages) {
  fImages.fetch_add(static_cast<std::uint64_t>(pImages), std::memory_order_relaxed);
  const std::uint64_t delivery = fDeliveries.load(std::memory_order_relaxed);
  fTimes[delivery % kWindow].store(nanoseconds(pNow), std::memory_order_relaxed);
  // Published after its time, so that a reader never counts a delivery whose time is not there.
  fDeliveries.store(delivery + 1, std::memory_order_release);
}

void SubscriberCounts::converted(Clock::duration pDuration) {
  fConversions.fetch_add(1, std::memory_order_relaxed);
  fConvertingNanoseconds.fetch_add(
      std::chrono::duration_cast<std::chrono::nanoseconds>(pDuration).count(),
      std::memory_order_relaxed);
}

double SubscriberCounts::convertingSeconds() const {
  return static_cast<double>(fConvertingNanoseconds.load(std::memory_order_relaxed)) * 1e-9;
}

double SubscriberCounts::servedRate(Clock::time_point pNow) const {
  const std::uint64_t deliveries = fDeliveries.load(std::memory_order_acquire);
  const std::uint64_t n = deliveries < kWindow ? deliveries : kWindow;
  if (n < 2) return 0;
  const std::int64_t newest = fTimes[(deliveries - 1) % kWindow].load(std::memory_order_relaxed);
  const std::int64_t oldest = fTimes[(deliveries - n) % kWindow].load(std::memory_order_relaxed);
  const double intervals = static_cast<double>(n - 1);
  double span = static_cast<double>(newest - oldest) * 1e-9;
  const double since = static_cast<double>(nanoseconds(pNow) - newest) * 1e-9;
  if (since > 2 * span / intervals) span = static_cast<double>(nanoseconds(pNow) - oldest) * 1e-9;
  return span > 0 ? intervals / span : 0;
}

double SubscriberCounts::lastImageAge(Clock::time_point pNow) const {
  const std::uint64_t deliveries = fDeliveries.load(std::memory_order_acquire);
  if (deliveries == 0) return -1;
  const std::int64_t newest = fTimes[(deliveries - 1) % kWindow].load(std::memory_order_relaxed);
  return static_cast<double>(nanoseconds(pNow) - newest) * 1e-9;
}

int OXVisionVideoInput::xConvertCounted(int pCameraIndex,
                                        boost::shared_ptr<VisionModuleInfo>& pModule,
                                        const OXImage* pRawImage) {
  ++fConversionCount;
  const Clock::time_point start = Clock::now();
  const int converted = xConvertImage(pCameraIndex, pModule, pRawImage);
  pModule->fCounts.converted(Clock::now() - start);
  return converted;
}

void OXVisionVideoInput::xCountDelivery(VisionModuleInfo& pInfo, int pImages) {
  if (pImages > 0) pInfo.fCounts.delivered(Clock::now(), pImages);
}

void OXVisionVideoInput::xCountDelivery(VisionModuleInfo& pInfo,
                                        const std::vector<OXImage*>& pImages) {
  xCountDelivery(pInfo, static_cast<int>(std::count_if(
                            pImages.begin(), pImages.end(),
                            [](const OXImage* pImage) { return pImage != nullptr; })));
}

std::vector<OXStatusEntry> OXVisionVideoInput::getStatus() {
  std::vector<OXStatusEntry> entries;
  OXCriticalSectionRead lock(fVisionModulesLock);
  const Clock::time_point now = Clock::now();
  const int cameras = std::min(fNbCameras, static_cast<int>(fCameraProperties.size()));
  for (int camera = 0; camera < cameras; ++camera) {
    const RealCameraProperties& real = *fCameraProperties[camera];
    int width = 0;
    int height = 0;
    setSizeFromResolution(real.fResolution, width, height);
    OXStatusEntry entry;
    entry.fKind = "camera";
    entry.fId = std::to_string(camera);
    entry.fFields = {{"active", camera == fActiveCamera.load()},
                     {"model", real.fCameraModel},
                     {"resolution", static_cast<int>(real.fResolution)},
                     {"width", width},
                     {"height", height},
                     {"colorSpace", static_cast<int>(real.fColorSpace)},
                     {"frameRate", static_cast<int>(real.fFrameRate)},
                     {"grabber", grabberStateName(real.fGrabberState.load())},
                     {"buffers", static_cast<int>(real.fImageBuffers.size())}};
    for (const NamedParameter& parameter : kShownParameters) {
      OXValue value;
      try {
        value = xGetParam(camera, parameter.fId);
      } catch (const std::exception& error) {
        value = std::string("not handled: ") + error.what();
      }
      entry.fFields.emplace_back(
          std::string(parameter.fName) + " (" + std::to_string(parameter.fId) + ")", value);
    }
    entries.push_back(std::move(entry));
  }
  for (const auto& named : fVisionModules) {
    const VisionModuleInfo& info = *named.second;
    std::vector<int> streams = info.fActiveCameras;
    if (!info.fIsMultiStream) streams = {xCurrentCamera(info)};
    auto requested = [&info](int pCamera, bool pResolution) {
      if (pCamera < 0 || pCamera >= static_cast<int>(info.fRequestedProperties.size())) return -1;
      const RequestedCameraProperties& wanted = *info.fRequestedProperties[pCamera];
      return static_cast<int>(pResolution ? wanted.fResolution : wanted.fColorSpace);
    };
    OXStatusEntry entry;
    entry.fKind = "subscriber";
    entry.fId = named.first;
    entry.fFields = {
        {"streams", info.fIsMultiStream ? "several" : "one"},
        {"cameras", joined(streams, [](int pCamera) { return pCamera; })},
        {"resolutions", joined(streams, [&](int pCamera) { return requested(pCamera, true); })},
        {"colorSpaces", joined(streams, [&](int pCamera) { return requested(pCamera, false); })},
        {"fps", static_cast<int>(info.fFrameRate)},
        {"recording", info.fIsRecording}};
    const SubscriberCounts& counts = info.fCounts;
    using Count = OXStatusEntry::Count;
    entry.fCounts = {
        {"images_delivered_total", "Images handed to the subscriber", Count::kCounter,
         static_cast<double>(counts.images())},
        {"conversions_total", "Conversions made for the subscriber's requests", Count::kCounter,
         static_cast<double>(counts.conversions())},
        {"converting_seconds_total", "Time spent converting for the subscriber", Count::kCounter,
         counts.convertingSeconds()},
        {"served_rate", "Requests served per second, over the last ones", Count::kGauge,
         counts.servedRate(now)},
        {"last_image_age_seconds", "Time since the last image was served (-1: none yet)",
         Count::kGauge, counts.lastImageAge(now)}};
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace OX
