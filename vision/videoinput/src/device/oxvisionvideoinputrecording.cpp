// Video recording: a mono-stream subscriber has the raw frames of its own requests written to a
// .oxv file. There is no thread and no timer: a frame is considered only when the subscriber asks
// for an image, so the end of a recording is noticed at the first request after its last frame.
#include <limits>
#include <new>

#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"
#include "oxfilepolicy.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

// The refusal of the other family has no advice here: the other family cannot record at all.
constexpr const char* kMultiStreamOnly = "Multi stream module can't call this method";

constexpr UnknownSubscriber kUnknownRecorder = {true, "recordVideo()", "recordVideo(",
                                                texts::kModuleMiddle, texts::kUnknownTail};
constexpr UnknownSubscriber kUnknownStopper = {true, "stopVideo()", "stopVideo(",
                                               texts::kModuleListMiddle, texts::kUnknownTail};

}  // namespace

boost::shared_ptr<VisionModuleInfo> OXVisionVideoInput::xFindRecorder(
    const std::string& pName, const UnknownSubscriber& pUnknown, int pLine) const {
  const boost::shared_ptr<VisionModuleInfo> info = xLookUpSubscriber(pName, pUnknown, pLine);
  if (info->fIsMultiStream) xThrow(pUnknown.fFunction, kMultiStreamOnly, pLine);
  return info;
}

bool OXVisionVideoInput::recordVideo(const std::string& pName, const std::string& pPath,
                                     const int& pTotalNumber, const int& pPeriod) {
  // A remote caller's file lies in the broker's data directory and is new, or nothing changes.
  const std::string path =
      resolveCallerPath(*this, pPath, OXFilePolicy::Access::kCreate, "recordVideo");
  // The write side: the fields of the subscriber change, and two calls on one subscriber must
  // not interleave.
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info = xFindRecorder(pName, kUnknownRecorder, __LINE__);
  const int camera = xCurrentCamera(*info);
  if (camera < 0 || camera >= fNbCameras) {
    xLog(kLogError, "recordVideo",
         getName() + ": recordVideo(" + pName + "): no camera " + std::to_string(camera));
    return false;
  }
  info->fRecordPeriod = pPeriod > 0 ? pPeriod : 1;
  info->fRecordedCount = 0;
  // An "unlimited" 0xFFFFFFFF arrives as -1, is not above 0, and records one image.
  info->fRecordTotal = pTotalNumber > 0 ? pTotalNumber : 1;
  // From the unclamped period: with 0 or below the countdown never meets 0 again. The smallest
  // int has no int below it: its countdown stays the smallest int, negative like the others.
  info->fRecordCountdown = pPeriod > std::numeric_limits<int>::min() ? pPeriod - 1 : pPeriod;

  const RealCameraProperties& real = *fCameraProperties[camera];
  const OXValue sizes = resolutionToSizes(real.fResolution);
  // The camera's format, not the subscriber's: the file holds the raw frames.
  const std::vector<streamHeader> headers = {
      {static_cast<int>(sizes[0]), static_cast<int>(sizes[1]), real.fColorSpace, 8}};

  OXVideo* video = new (std::nothrow) OXVideo();
  if (video == nullptr) return false;
  if (info->fVideo != nullptr) {
    // A recording already under way ends here, with what it has written.
    info->fVideo->closeVideo();
    delete info->fVideo;
  }
  info->fVideo = video;
  const bool opened = video->recordVideo(path, 0, headers);
  // A file that could not be opened still counts as a recording; its writes do nothing.
  info->fIsRecording = true;
  return opened;
}

bool OXVisionVideoInput::stopVideo(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info = xFindRecorder(pName, kUnknownStopper, __LINE__);
  return xCloseVideo(info);
}

void OXVisionVideoInput::xRecordStep(const boost::shared_ptr<VisionModuleInfo>& pInfo,
                                     const OXImage* pRawImage, bool pPatch) {
  if (pRawImage == nullptr || !pInfo->fIsRecording) return;
  if (pInfo->fRecordedCount >= pInfo->fRecordTotal) {
    xCloseVideo(pInfo);
    return;
  }
  if (pInfo->fRecordCountdown == 0) {
    pInfo->fRecordCountdown = pInfo->fRecordPeriod;
    if (pPatch) xApplyPatchForKernelMemcopy(pRawImage);
    if (pInfo->fVideo != nullptr) {
      // The angles are not recorded.
      pInfo->fVideo->write(reinterpret_cast<const char*>(pRawImage->fData),
                           pRawImage->fWidth * pRawImage->fHeight * pRawImage->fNbLayers,
                           pRawImage->fTimeStamp, pRawImage->fCameraId, 0.0f, 0.0f, 0.0f, 0.0f);
    }
    ++pInfo->fRecordedCount;
  }
  // Unsigned arithmetic: a negative countdown wraps instead of overflowing.
  pInfo->fRecordCountdown =
      static_cast<int>(static_cast<unsigned int>(pInfo->fRecordCountdown) - 1u);
}

}  // namespace OX
