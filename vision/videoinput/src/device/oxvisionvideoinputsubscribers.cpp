// The subscriber registry: how a vision module comes in (one camera or several), gets its unique
// id, and goes out again, by its own call or when its client disconnects.
#include <algorithm>
#include <new>

#include "kios.h"
#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

constexpr int kMaxInstances = 8;  // pName, pName_2 ... pName_8
// unsubscribe waits this many passes for a holder to release its image, the lock given up
// between passes; the forced release happens on the pass before the last.
constexpr int kUnsubscribeWaitPasses = 20000;
constexpr int kForcedReleasePass = 2;
constexpr unsigned int kUnsubscribeWaitMicroseconds = 500;
constexpr unsigned int kCloseVideoMicroseconds = 5000;
const char* const kLowFrameRateWarning = "Fps must be superior to 5, force fps to 5";
const char* const kStartFailed = "Could not launch the startFrameGrabber function.";

std::string subscribeHead(const std::string& pName) {
  return "Could not subscribe module: " + pName;
}

}  // namespace

void OXVisionVideoInput::xSubscribeFailed(bool pMultiStream, const std::string& pMessage,
                                          int pLine) const {
  if (pMultiStream) xThrow("subscribeCameras", pMessage, pLine);
  xRaise("subscribeCamera", pMessage, pLine);
}

std::string OXVisionVideoInput::xUniqueId(const std::string& pName, bool pMultiStream) {
  std::string id = pName;
  int n = 2;
  while (fVisionModules.count(id) != 0) {
    if (n == kMaxInstances + 1) {
      const std::string message = subscribeHead(pName) + "\n" + "8 instance of : " + pName +
                                  " have already subscribe to the video." + "\n" +
                                  "Please unsubscribe before subscribing again this module.";
      xSubscribeFailed(pMultiStream, message, __LINE__);
    }
    id = pName + "_" + std::to_string(n);
    ++n;
  }
  if (n != 2) {
    // The two operations name themselves differently here, and the multi-stream notice goes to
    // another category: log readers filter on both, so both stay.
    xLog(kLogInfo, pMultiStream ? "subscribeCameras" : "subscribeCamera",
         getName() +
             (pMultiStream ? ": subscribe: Name already in use. "
                           : ": subscribeVideoModule: Name already in use. ") +
             "Id changed to " + "\"" + id + "\"",
         pMultiStream ? texts::kMultiStreamNoticeCategory : nullptr);
  }
  return id;
}

std::string OXVisionVideoInput::subscribe(const std::string& pName, const int& pResolution,
                                          const int& pColorSpace, const int& pFps) {
  return subscribeCamera(pName, -1, pResolution, pColorSpace, pFps);
}

int OXVisionVideoInput::xSubscribedFrameRate(const char* pFunction, int pFps,
                                             const std::vector<int>& pResolutions) const {
  int frameRate = pFps;
  if (frameRate < kLowestFrameRate) {
    xLog(kLogWarning, pFunction, kLowFrameRateWarning);
    frameRate = kLowestFrameRate;
  }
  for (int resolution : pResolutions) {
    if (resolution == k4VGA) {
      // Logged as a decrease even when 5 was asked, and once per stream in HD.
      xLog(kLogInfo, pFunction, "FPS is decreased to 5 in HD. Use setFrameRate to increase it");
      frameRate = kLowestFrameRate;
    }
  }
  return frameRate;
}

std::string OXVisionVideoInput::subscribeCamera(const std::string& pName, const int& pCameraIndex,
                                                const int& pResolution, const int& pColorSpace,
                                                const int& pFps) {
  const int frameRate = xSubscribedFrameRate("subscribeCamera", pFps, {pResolution});

  int camera;
  {
    // The checks change nothing; the read lock only gives a consistent view of the device's
    // active camera and the camera's resolution.
    OXCriticalSectionRead lock(fVisionModulesLock);
    camera = pCameraIndex >= 0 ? pCameraIndex : fActiveCamera.load();
    const bool inRange = camera >= 0 && camera < fNbCameras;
    if (!xIsResolutionValid(pResolution, camera)) {
      std::string message = subscribeHead(pName) + "\n" + std::to_string(pResolution) +
                            " is an invalid Resolution; " + "current device max resolution is ";
      // The camera's current resolution, written as one raw character.
      if (inRange) message += static_cast<char>(fCameraProperties[camera]->fResolution);
      xSubscribeFailed(false, message, __LINE__);
    }
    if (!xIsColorSpaceValid(pColorSpace, camera)) {
      xSubscribeFailed(
          false,
          subscribeHead(pName) + "\n" + std::to_string(pColorSpace) + "is not a valid color space",
          __LINE__);
    }
    if (!inRange) {
      xSubscribeFailed(
          false,
          subscribeHead(pName) + "\n" + std::to_string(camera) + "is not a valid camera index",
          __LINE__);
    }
  }

  OXCriticalSectionWrite lock(fVisionModulesLock);
  const std::string id = xUniqueId(pName, false);
  boost::shared_ptr<VisionModuleInfo> info(new VisionModuleInfo());
  info->fName = id;
  info->fFrameRate = static_cast<uint8_t>(frameRate);
  fVisionModules[id] = info;
  try {
    // Every camera gets the same wishes, not only the working one.
    for (int i = 0; i < fNbCameras; ++i) {
      boost::shared_ptr<RequestedCameraProperties> requested(new RequestedCameraProperties());
      requested->fResolution = static_cast<uint8_t>(pResolution);
      requested->fColorSpace = static_cast<uint8_t>(pColorSpace);
      info->fRequestedProperties.push_back(requested);
    }
  } catch (const std::bad_alloc&) {
    fVisionModules.erase(id);
    xSubscribeFailed(false, "Memory allocation failed.", __LINE__);
  }
  const RealCameraProperties& working = *fCameraProperties[camera];
  if (pResolution > working.fResolution || frameRate > working.fFrameRate) xUpdateParam(camera);
  if (!xStartFrameGrabber(camera)) xSubscribeFailed(false, kStartFailed, __LINE__);
  for (int i = 0; i < fNbCameras; ++i) xCreateBuffersForStoringImages(i, pResolution, pColorSpace);
  // -1 stays -1: the subscriber then follows the device's active camera.
  info->fActiveCamera = pCameraIndex;
  return id;
}

void OXVisionVideoInput::xCheckStreams(const std::string& pHead, const std::vector<int>& pCameras,
                                       const std::vector<int>& pResolutions,
                                       const std::vector<int>& pColorSpaces) const {
  for (size_t i = 0; i < pCameras.size(); ++i) {
    // Here -1 does not mean to follow the device.
    if (pCameras[i] < 0 || pCameras[i] >= fNbCameras) {
      xRaise("subscribeCameras", "Unknown camera ID", __LINE__);
    }
    if (!xIsResolutionValid(pResolutions[i], pCameras[i])) {
      std::string message = pHead;
      for (int resolution : pResolutions) message += std::to_string(resolution) + " ";
      xSubscribeFailed(true, message + " is an invalid Resolution; ", __LINE__);
    }
    if (!xIsColorSpaceValid(pColorSpaces[i], pCameras[i])) {
      std::string message = pHead;
      for (int colorSpace : pColorSpaces) message += std::to_string(colorSpace) + " ";
      xSubscribeFailed(true, message + "is not a valid color space", __LINE__);
    }
  }
}

std::string OXVisionVideoInput::subscribeCameras(const std::string& pName,
                                                 const OXValue& pCameraIndexes,
                                                 const OXValue& pResolutions,
                                                 const OXValue& pColorSpaces, const int& pFps) {
  const std::vector<int> cameras = static_cast<std::vector<int>>(pCameraIndexes);
  const std::vector<int> resolutions = static_cast<std::vector<int>>(pResolutions);
  const std::vector<int> colorSpaces = static_cast<std::vector<int>>(pColorSpaces);
  const std::string head = subscribeHead(pName);
  if (cameras.empty() || resolutions.empty() || colorSpaces.empty()) {
    xSubscribeFailed(true, head + "\n" + "Some input parameters are empty", __LINE__);
  }
  if (cameras.size() != resolutions.size() || cameras.size() != colorSpaces.size()) {
    xSubscribeFailed(true, head + "\n" + "Input parameters have not the same size", __LINE__);
  }
  std::vector<int> distinct = cameras;
  std::sort(distinct.begin(), distinct.end());
  distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
  if (distinct.size() < cameras.size()) {
    xSubscribeFailed(true,
                     head + "\n" + "Invalid input parameters, list contains " +
                         std::to_string(cameras.size()) + " elements but only " +
                         std::to_string(distinct.size()) + " different elements" +
                         " (using several time the same camera is forbidden)",
                     __LINE__);
  }
  const int frameRate = xSubscribedFrameRate("subscribeCameras", pFps, resolutions);
  xCheckStreams(head, cameras, resolutions, colorSpaces);

  OXCriticalSectionWrite lock(fVisionModulesLock);
  const std::string id = xUniqueId(pName, true);
  boost::shared_ptr<VisionModuleInfo> info(new VisionModuleInfo());
  info->fName = id;
  info->fFrameRate = static_cast<uint8_t>(frameRate);
  info->fIsMultiStream = true;
  info->fActiveCameras = cameras;
  fVisionModules[id] = info;
  try {
    for (int i = 0; i < fNbCameras; ++i) {
      info->fRequestedProperties.push_back(
          boost::shared_ptr<RequestedCameraProperties>(new RequestedCameraProperties()));
    }
  } catch (const std::bad_alloc&) {
    fVisionModules.erase(id);
    xRaise("subscribeCameras", "Memory allocation failed.", __LINE__);
  }
  for (size_t i = 0; i < cameras.size(); ++i) {
    const int camera = cameras[i];
    RequestedCameraProperties& requested = *info->fRequestedProperties[camera];
    requested.fResolution = static_cast<uint8_t>(resolutions[i]);
    requested.fColorSpace = static_cast<uint8_t>(colorSpaces[i]);
    info->fActiveCamera = camera;
    const RealCameraProperties& real = *fCameraProperties[camera];
    if (resolutions[i] > real.fResolution || frameRate > real.fFrameRate) xUpdateParam(camera);
    if (!xStartFrameGrabber(camera)) xRaise("subscribeCameras", kStartFailed, __LINE__);
  }
  info->fActiveCamera = cameras.front();
  // Unlike a mono-stream subscriber, buffers only on the cameras of the list, each its format.
  for (size_t i = 0; i < cameras.size(); ++i) {
    xCreateBuffersForStoringImages(cameras[i], resolutions[i], colorSpaces[i]);
  }
  return id;
}

void OXVisionVideoInput::unsubscribe(const std::string& pName) {
  for (int wait = kUnsubscribeWaitPasses;;) {
    {
      OXCriticalSectionWrite lock(fVisionModulesLock);
      auto found = fVisionModules.find(pName);
      if (found == fVisionModules.end()) {
        throw OXError("OXVideoDevice", "unsubscribeVideoModule()",
                      "Cannot unsubscribe \"" + pName + "\": module unknown from OXVideoDevice.",
                      texts::kSourceFile, __LINE__);
      }
      const boost::shared_ptr<VisionModuleInfo> info = found->second;
      if (info->fIsMultiStream) {
        // No wait for held images on this branch: they are lost with the subscriber.
        for (int camera : info->fActiveCameras) xLeaveStreamCamera(info, camera);
        fVisionModules.erase(pName);
        return;
      }
      const int current = xCurrentCamera(*info);
      // The device's camera may stand one past the last camera: nothing can be held there.
      const bool onCamera = current >= 0 && current < fNbCameras;
      if (!onCamera || info->fRequestedProperties[current]->fLockedImage == nullptr) {
        if (info->fIsRecording) xCloseVideo(info);
        for (int i = 0; i < fNbCameras; ++i) {
          info->fActiveCamera = i;
          xFindAndEraseTheOldestBuffer(fCameraProperties[i]->fImageBuffers, info);
          xFindAndEraseTheOldestBuffer(fCameraProperties[i]->fRawBuffers);
        }
        // Lower the camera if this subscriber was the one who kept it high; xUpdateParam still
        // counts the leaving subscriber, which is in the map until the end.
        if (onCamera) {
          const RealCameraProperties& real = *fCameraProperties[current];
          if (info->fRequestedProperties[current]->fResolution == real.fResolution ||
              info->fFrameRate == real.fFrameRate) {
            xUpdateParam(current);
          }
        }
        fVisionModules.erase(pName);
        return;
      }
      if (wait == kForcedReleasePass) {
        xForceReleaseBuffer(pName);
        // The text says one second; the wait is longer, and the text stays.
        xLog(kLogWarning, "unsubscribe",
             getName() + ": Forced release of image by \"" + pName +
                 "\" because it did not release the image after one second.");
      }
      --wait;
    }
    // The lock is given up here so that the holder can reach its release.
    ki::os::usleep(kUnsubscribeWaitMicroseconds);
    if (wait == 0) {
      xLog(kLogInfo, "unsubscribe", getName() + ": unregistered \"" + pName + "\"");
      return;
    }
  }
}

void OXVisionVideoInput::unsubscribeAllInstances(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  if (fVisionModules.count(pName) != 0) unsubscribe(pName);
  // Stops one short of the instance with suffix 8: a client that subscribed eight times under
  // one name keeps that last instance and must unsubscribe it by its id. Clients count their
  // instances with this in mind, so it stays.
  for (int n = 2; n < kMaxInstances; ++n) {
    const std::string id = pName + "_" + std::to_string(n);
    if (fVisionModules.count(id) != 0) unsubscribe(id);
  }
}

void OXVisionVideoInput::onClientDisconnected(const std::string& pEventName, const OXValue& pValue,
                                              const std::string&) {
  if (pEventName != "ClientDisconnected") return;
  const std::string client = pValue.asString();
  if (client != "Gestura") return;
  {
    OXCriticalSectionRead lock(fVisionModulesLock);
    if (fVisionModules.empty()) return;
  }
  try {
    // The video monitor is the one client cleaned up behind its back.
    unsubscribe("VideoMonitorGestura");
  } catch (const OXError& error) {
    xLog(kLogWarning, "onClientDisconnected", error.what());
  }
}

void OXVisionVideoInput::xLeaveStreamCamera(const boost::shared_ptr<VisionModuleInfo>& pInfo,
                                            int pCamera) {
  RealCameraProperties& real = *fCameraProperties[pCamera];
  if (pInfo->fRequestedProperties[pCamera]->fResolution == real.fResolution ||
      pInfo->fFrameRate == real.fFrameRate) {
    xUpdateParam(pCamera);
  }
  // The erase reads the format to free from the record's camera.
  pInfo->fActiveCamera = pCamera;
  xFindAndEraseTheOldestBuffer(real.fImageBuffers, pInfo);
  xFindAndEraseTheOldestBuffer(real.fRawBuffers);
}

bool OXVisionVideoInput::xCloseVideo(const boost::shared_ptr<VisionModuleInfo>& pInfo) {
  pInfo->fIsRecording = false;
  // Lets a write in progress end.
  ki::os::usleep(kCloseVideoMicroseconds);
  if (pInfo->fVideo != nullptr) {
    pInfo->fVideo->closeVideo();
    delete pInfo->fVideo;
    pInfo->fVideo = nullptr;
  }
  return true;
}

}  // namespace OX
