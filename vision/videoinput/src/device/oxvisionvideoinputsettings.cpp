// Subscriber settings: a subscriber changes its resolution, colour space, frame rate or camera
// while subscribed. A change touches its own record, reformats at most one buffer of its old
// format in place (so nothing is allocated), and reaches the camera through xUpdateParam only
// where the change can alter what the camera must deliver.
#include <algorithm>

#include "kios.h"
#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

// 100000 passes of 50 microseconds: the 5 s that the give-up message speaks of.
constexpr int kHeldImagePasses = 100000;
constexpr unsigned int kHeldImageMicroseconds = 50;

struct SettingTexts {
  const texts::SettingCheck* fCheck;
  const char* fFunction;
  const char* fInvalid;     // whole message for an invalid value
  const char* fChanged;     // the change line, between the module's and the subscriber's name
  const char* fGiveUpHead;  // ": setX(" before the subscriber's name
  const char* fGiveUpTail;
};

const SettingTexts kResolutionTexts = {&texts::kSetResolution,
                                       "setResolution",
                                       ": setResolution(): invalid resolution",
                                       ": Changed resolution for subscriber \"",
                                       ": setResolution(",
                                       ", so cancel the modification!"};
const SettingTexts kColorSpaceTexts = {&texts::kSetColorSpace,
                                       "setColorSpace",
                                       ": setColorSpace(): invalid color space",
                                       ": Changed color space for subscriber \"",
                                       ": setColorSpace(",
                                       ", so cancel the modification!"};
// The doubled beginning of the invalid text and the final line end belong to setFrameRate.
const SettingTexts kFrameRateTexts = {&texts::kSetFrameRate,
                                      "setFrameRate",
                                      "setFrameRate(: setFrameRate(): invalid frame rate",
                                      ": Changed framerate for subscriber \"",
                                      ": setFrameRate(",
                                      ", so cancel the modification!\n"};

// The new value reaches the camera when it is above what the camera runs at, or below it from
// the subscriber that held the camera there.
bool reachesCamera(int pNew, int pOld, int pReal) {
  return pNew > pReal || (pNew < pReal && pOld == pReal);
}

}  // namespace

boost::shared_ptr<VisionModuleInfo> OXVisionVideoInput::xFindForSetting(
    const std::string& pName, const texts::SettingCheck& pCheck, int pLine) const {
  const boost::shared_ptr<VisionModuleInfo> info = xLookUpSubscriber(
      pName,
      {true, pCheck.fMethod, pCheck.fUnknownHead, pCheck.fUnknownMiddle, pCheck.fUnknownTail},
      pLine);
  const bool multi = info->fIsMultiStream;
  if ((pCheck.fFamily == texts::kMonoOnly && multi) ||
      (pCheck.fFamily == texts::kMultiOnly && !multi)) {
    xThrow(pCheck.fMethod, std::string(pCheck.fWrongFamilyHead) + pCheck.fWrongFamilyTail, pLine);
  }
  return info;
}

int OXVisionVideoInput::xSettingCamera(const VisionModuleInfo& pInfo, const char* pFunction) const {
  const int camera = xCurrentCamera(pInfo);
  if (camera >= 0 && camera < fNbCameras &&
      camera < static_cast<int>(pInfo.fRequestedProperties.size())) {
    return camera;
  }
  xLog(kLogError, pFunction,
       getName() + ": " + pFunction + "(" + pInfo.fName + "): no camera " + std::to_string(camera));
  return -1;
}

// --- Singular setters ---

bool OXVisionVideoInput::xChangeSetting(const std::string& pName, int pValue, Setting pSetting) {
  const SettingTexts& words = pSetting == Setting::kResolution   ? kResolutionTexts
                              : pSetting == Setting::kColorSpace ? kColorSpaceTexts
                                                                 : kFrameRateTexts;
  {
    OXCriticalSectionRead lock(fVisionModulesLock);
    xFindForSetting(pName, *words.fCheck, __LINE__);
  }
  for (int pass = 0; pass < kHeldImagePasses; ++pass) {
    {
      OXCriticalSectionWrite lock(fVisionModulesLock);
      const boost::shared_ptr<VisionModuleInfo> info =
          xFindForSetting(pName, *words.fCheck, __LINE__);
      const int current = xCurrentCamera(*info);
      const bool valid = pSetting == Setting::kResolution   ? xIsResolutionValid(pValue, current)
                         : pSetting == Setting::kColorSpace ? xIsColorSpaceValid(pValue, current)
                                                            : xIsFrameRateValid(pValue, current);
      if (!valid) xThrow(words.fCheck->fMethod, words.fInvalid, __LINE__);
      const int camera = xSettingCamera(*info, words.fFunction);
      if (camera < 0) return false;
      if (info->fRequestedProperties[camera]->fLockedImage == nullptr) {
        return xApplySetting(pName, info, camera, pValue, pSetting);
      }
    }
    // Without the lock, so that the subscriber's releaseImage can come in.
    ki::os::usleep(kHeldImageMicroseconds);
  }
  xLog(kLogError, words.fFunction,
       words.fGiveUpHead + pName + "), video module didn't release the image for 5s" +
           words.fGiveUpTail);
  return false;
}

bool OXVisionVideoInput::xApplySetting(const std::string& pName,
                                       const boost::shared_ptr<VisionModuleInfo>& pInfo,
                                       int pCamera, int pValue, Setting pSetting) {
  RequestedCameraProperties& wanted = *pInfo->fRequestedProperties[pCamera];
  const RealCameraProperties& real = *fCameraProperties[pCamera];
  const SettingTexts& words = pSetting == Setting::kResolution   ? kResolutionTexts
                              : pSetting == Setting::kColorSpace ? kColorSpaceTexts
                                                                 : kFrameRateTexts;
  const int old = pSetting == Setting::kResolution   ? wanted.fResolution
                  : pSetting == Setting::kColorSpace ? wanted.fColorSpace
                                                     : pInfo->fFrameRate;
  // Written before the comparison: a change to the same value stands in the log too.
  xLog(kLogInfo, words.fFunction,
       getName() + words.fChanged + pName + "\" from " + std::to_string(old) + " to " +
           std::to_string(pValue));
  if (pValue == old) return true;

  if (pSetting == Setting::kFrameRate) {
    pInfo->fFrameRate = static_cast<uint8_t>(pValue);
    if (reachesCamera(pValue, old, real.fFrameRate)) return xUpdateParam(pCamera);
    return true;
  }
  // Changing the format of the stream ends its recording.
  if (pInfo->fIsRecording) xCloseVideo(pInfo);
  int width = 0;
  int height = 0;
  setSizeFromResolution(wanted.fResolution, width, height);
  const int searchedColorSpace = wanted.fColorSpace;
  if (pSetting == Setting::kResolution) {
    wanted.fResolution = static_cast<uint8_t>(pValue);
  } else {
    wanted.fColorSpace = static_cast<uint8_t>(pValue);
  }
  // One buffer of the old format becomes the new one; with no free one the value stays stored
  // and the camera is not touched.
  const int index = xLockTheOldestBufferForEditing(static_cast<int8_t>(pCamera), width, height,
                                                   searchedColorSpace);
  if (index < 0) return true;
  OXVisionBuffer& buffer = *fCameraProperties[pCamera]->fImageBuffers[index];
  if (pSetting == Setting::kResolution) {
    buffer.fImage->setResolution(pValue);
  } else {
    buffer.fImage->setColorSpace(pValue);
  }
  buffer.fImage->fTimeStamp = 0;  // the oldest: the next conversion fills it
  --buffer.fWriteLockCount;
  // A colour space is the subscriber's affair: the camera never changes for it.
  if (pSetting == Setting::kResolution && reachesCamera(pValue, old, real.fResolution)) {
    return xUpdateParam(pCamera);
  }
  return true;
}

bool OXVisionVideoInput::setResolution(const std::string& pName, const int& pResolution) {
  return xChangeSetting(pName, pResolution, Setting::kResolution);
}

bool OXVisionVideoInput::setColorSpace(const std::string& pName, const int& pColorSpace) {
  return xChangeSetting(pName, pColorSpace, Setting::kColorSpace);
}

bool OXVisionVideoInput::setFrameRate(const std::string& pName, const int& pFrameRate) {
  return xChangeSetting(pName, pFrameRate, Setting::kFrameRate);
}

bool OXVisionVideoInput::setActiveCamera(const std::string& pName, const int& pCameraIndex) {
  // Before any lock and any look-up: an unknown subscriber hears of the index first.
  if (pCameraIndex < 0 || pCameraIndex >= fNbCameras) {
    xThrow("setActiveCamera()", "setActiveCamera(" + pName + ") : invalid Camera index", __LINE__);
  }
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kSetActiveCamera, __LINE__);
  const int current = xCurrentCamera(*info);
  const bool onCamera = current >= 0 && current < fNbCameras;
  // No wait here, unlike the other setters.
  if (onCamera && info->fRequestedProperties[current]->fLockedImage != nullptr) {
    xLog(kLogError, "setActiveCamera",
         "setActiveCamera(): "
         "Buffer must release before changing camera");
    return false;
  }
  info->fActiveCamera = pCameraIndex;
  xUpdateParam(current);
  xUpdateParam(pCameraIndex);
  return true;
}

// --- Plural setters ---

OXValue OXVisionVideoInput::xChangeStreams(const std::string& pName, const OXValue& pValues,
                                           bool pResolution) {
  const std::vector<int> values = static_cast<std::vector<int>>(pValues);
  const texts::SettingCheck& first = pResolution ? texts::kSetResolutions : texts::kSetColorSpaces;
  const texts::SettingCheck& again =
      pResolution ? texts::kSetResolutions : texts::kSetColorSpacesAgain;
  {
    OXCriticalSectionRead lock(fVisionModulesLock);
    const boost::shared_ptr<VisionModuleInfo> info = xFindForSetting(pName, first, __LINE__);
    if (values.size() != info->fActiveCameras.size()) {
      xThrow(first.fMethod,
             std::string(pResolution ? "Could not set resolutions to module: "
                                     : "Could not set color spaces to module: ") +
                 pName +
                 "\nInput parameters have the wrong size: " + std::to_string(values.size()) +
                 " expected size: " + std::to_string(info->fActiveCameras.size()),
             __LINE__);
    }
  }
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info = xFindForSetting(pName, again, __LINE__);
  std::vector<int> results;
  // The list may have changed between the two looks: only the positions both have count.
  const size_t streams = std::min(values.size(), info->fActiveCameras.size());
  for (size_t i = 0; i < streams; ++i) {
    const int camera = info->fActiveCameras[i];
    const int value = values[i];
    if (camera < 0 || camera >= fNbCameras ||
        camera >= static_cast<int>(info->fRequestedProperties.size())) {
      results.push_back(0);
      continue;
    }
    RequestedCameraProperties& wanted = *info->fRequestedProperties[camera];
    const int stored = pResolution ? wanted.fResolution : wanted.fColorSpace;
    if (value == stored) {
      results.push_back(1);
      continue;
    }
    const bool valid =
        pResolution ? xIsResolutionValid(value, camera) : xIsColorSpaceValid(value, camera);
    if (!valid) {
      results.push_back(0);
      continue;
    }
    if (info->fIsRecording) xCloseVideo(info);
    int width = 0;
    int height = 0;
    // Resolutions need a free buffer of the new size already; colour spaces one of the old
    // colour space at the stream's size.
    setSizeFromResolution(pResolution ? value : wanted.fResolution, width, height);
    const int index = xLockTheOldestBufferForEditing(static_cast<int8_t>(camera), width, height,
                                                     wanted.fColorSpace);
    if (index < 0) {
      results.push_back(0);
      continue;
    }
    OXVisionBuffer& buffer = *fCameraProperties[camera]->fImageBuffers[index];
    buffer.fImage->fTimeStamp = 0;
    if (pResolution) {
      buffer.fImage->setResolution(value);
    } else {
      buffer.fImage->setColorSpace(value);
    }
    --buffer.fWriteLockCount;
    if (pResolution && reachesCamera(value, stored, fCameraProperties[camera]->fResolution)) {
      // Before the new value is stored: the camera lags one change behind, as it always has.
      xUpdateParam(camera);
    }
    if (pResolution) {
      wanted.fResolution = static_cast<uint8_t>(value);
    } else {
      wanted.fColorSpace = static_cast<uint8_t>(value);
    }
    results.push_back(1);
  }
  return OXValue(results);
}

OXValue OXVisionVideoInput::setResolutions(const std::string& pName, const OXValue& pResolutions) {
  return xChangeStreams(pName, pResolutions, true);
}

OXValue OXVisionVideoInput::setColorSpaces(const std::string& pName, const OXValue& pColorSpaces) {
  return xChangeStreams(pName, pColorSpaces, false);
}

OXValue OXVisionVideoInput::setActiveCameras(const std::string& pName,
                                             const OXValue& pCameraIndexes) {
  const std::vector<int> cameras = static_cast<std::vector<int>>(pCameraIndexes);
  std::vector<int> distinct = cameras;
  std::sort(distinct.begin(), distinct.end());
  distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
  if (distinct.size() != cameras.size()) {
    xThrow("setActiveCameras()",
           "setActiveCameras(" + pName +
               ", ...) : Invalid input parameters, "
               "using several time the same camera is forbidden",
           __LINE__);
  }
  // A camera the device does not have would be read past the end of every per-camera list.
  for (int camera : cameras) {
    if (camera < 0 || camera >= fNbCameras) {
      xThrow("setActiveCameras()", "setActiveCameras(" + pName + ", ...) : invalid Camera index",
             __LINE__);
    }
  }
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kSetActiveCameras, __LINE__);
  const std::vector<int> old = info->fActiveCameras;
  for (int camera : old) {
    if (camera >= 0 && camera < fNbCameras) xLeaveStreamCamera(info, camera);
  }
  std::vector<int> results;
  for (int camera : cameras) {
    const RequestedCameraProperties& wanted = *info->fRequestedProperties[camera];
    results.push_back(
        xCreateBuffersForStoringImages(camera, wanted.fResolution, wanted.fColorSpace) ? 1 : 0);
  }
  info->fActiveCameras = cameras;
  for (int camera : old) xUpdateParam(camera);
  for (int camera : cameras) xUpdateParam(camera);
  return OXValue(results);
}

// --- Getters ---

int OXVisionVideoInput::getResolution(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kGetResolutionOf, __LINE__);
  const int camera = xSettingCamera(*info, "getResolution");
  return camera < 0 ? -1 : info->fRequestedProperties[camera]->fResolution;
}

int OXVisionVideoInput::getColorSpace(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kGetColorSpaceOf, __LINE__);
  const int camera = xSettingCamera(*info, "getColorSpace");
  return camera < 0 ? -1 : info->fRequestedProperties[camera]->fColorSpace;
}

int OXVisionVideoInput::getFrameRate(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  return xFindForSetting(pName, texts::kGetFrameRateOf, __LINE__)->fFrameRate;
}

int OXVisionVideoInput::getActiveCamera(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  return xCurrentCamera(*xFindForSetting(pName, texts::kGetActiveCamera, __LINE__));
}

OXValue OXVisionVideoInput::getActiveCameras(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  return OXValue(xFindForSetting(pName, texts::kGetActiveCameras, __LINE__)->fActiveCameras);
}

// The two below index by position in the list, not by the camera there: kept as clients know it.
OXValue OXVisionVideoInput::getResolutions(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kGetResolutions, __LINE__);
  std::vector<int> results;
  for (size_t i = 0; i < info->fActiveCameras.size() && i < info->fRequestedProperties.size();
       ++i) {
    results.push_back(info->fRequestedProperties[i]->fResolution);
  }
  return OXValue(results);
}

OXValue OXVisionVideoInput::getColorSpaces(const std::string& pName) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindForSetting(pName, texts::kGetColorSpaces, __LINE__);
  std::vector<int> results;
  for (size_t i = 0; i < info->fActiveCameras.size() && i < info->fRequestedProperties.size();
       ++i) {
    results.push_back(info->fRequestedProperties[i]->fColorSpace);
  }
  return OXValue(results);
}

}  // namespace OX
