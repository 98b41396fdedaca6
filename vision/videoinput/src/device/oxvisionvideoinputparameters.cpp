// Camera parameters: what every camera must run at (xUpdateParam) and the published operations
// that read and write a driver's parameters for a subscriber or for the whole device.
#include <algorithm>

#include "kios.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

// The raw-buffer wait of a resolution change polls this often before it gives up on a buffer
// (one second): nothing can release a buffer while the write lock is held.
constexpr int kRawBufferWaitPasses = 2000;
constexpr unsigned int kRawBufferWaitMicroseconds = 500;

}  // namespace

bool OXVisionVideoInput::xUpdateParam(const int& pCameraIndex) {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) return true;
  RealCameraProperties& camera = *fCameraProperties[pCameraIndex];
  if (fVisionModules.empty()) {
    // Restarting the grabber applies the values written here; the driver is not asked.
    if (camera.fFrameRate != kLowestFrameRate || camera.fResolution != fDefaultResolution) {
      xStopFrameGrabber(pCameraIndex);
      camera.fResolution = static_cast<int8_t>(fDefaultResolution);
      camera.fFrameRate = kLowestFrameRate;
      xStartFrameGrabber(pCameraIndex);
    }
    return true;
  }

  // Every subscriber counts, whatever camera it is on: the highest wish wins.
  int resolution = fDefaultResolution;
  int frameRate = kLowestFrameRate;
  for (const auto& entry : fVisionModules) {
    const VisionModuleInfo& info = *entry.second;
    if (pCameraIndex < static_cast<int>(info.fRequestedProperties.size())) {
      resolution = std::max<int>(resolution, info.fRequestedProperties[pCameraIndex]->fResolution);
    }
    frameRate = std::max<int>(frameRate, info.fFrameRate);
  }

  if (resolution != camera.fResolution) {
    xLog(kLogInfo, "xUpdateParam",
         getName() + ": New resolution changed to " + std::to_string(resolution));
    xSetParam(pCameraIndex, kCameraResolutionID, resolution, false);
    camera.fResolution = static_cast<int8_t>(resolution);
    for (size_t i = 0; i < camera.fRawBuffers.size(); ++i) {
      OXVisionBuffer& buffer = *camera.fRawBuffers[i];
      ++buffer.fWriteLockCount;
      int passes = 0;
      while (buffer.fReadLockCount != 0 && buffer.fWriteLockCount > 1 &&
             passes < kRawBufferWaitPasses) {
        ki::os::usleep(kRawBufferWaitMicroseconds);
        ++passes;
      }
      if (buffer.fReadLockCount != 0 && buffer.fWriteLockCount > 1) {
        xLog(kLogError, "xUpdateParam",
             getName() + ": raw buffer " + std::to_string(i) +
                 " is still being written, its resolution is left unchanged.");
      } else if (buffer.fImage != nullptr) {
        buffer.fImage->setResolution(resolution);
      }
      --buffer.fWriteLockCount;
    }
  }

  if (frameRate != camera.fFrameRate) {
    xLog(kLogInfo, "xUpdateParam", getName() + ": New framerate: " + std::to_string(frameRate));
    xSetParam(pCameraIndex, kCameraFrameRateID, frameRate, false);
    camera.fFrameRate = static_cast<uint8_t>(frameRate);
  }
  return true;
}

int OXVisionVideoInput::getCameraParameter(const std::string& pName, const int& pParam) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kGetCameraParameter);
  return xGetParam(xCurrentCamera(*info), pParam);
}

bool OXVisionVideoInput::setCameraParameter(const std::string& pName, const int& pParam,
                                            const int& pValue) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kSetCameraParameter);
  return xSetParam(xCurrentCamera(*info), pParam, pValue, false);
}

bool OXVisionVideoInput::setCameraParameterToDefault(const std::string& pName, const int& pParam) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kSetCameraParameterToDefault);
  return xSetParam(xCurrentCamera(*info), pParam, -1, true);
}

OXValue OXVisionVideoInput::getCamerasParameter(const std::string& pName, const int& pParam) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kGetCamerasParameter);
  std::vector<int> values;
  for (int camera : info->fActiveCameras) values.push_back(xGetParam(camera, pParam));
  return OXValue(values);
}

OXValue OXVisionVideoInput::setCamerasParameter(const std::string& pName, const int& pParam,
                                                const OXValue& pValues) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kSetCamerasParameter);
  const std::vector<int> values = static_cast<std::vector<int>>(pValues);
  if (values.size() != info->fActiveCameras.size()) {
    xThrow(texts::kSetCamerasParameter.fMethod,
           "Could not set cameras parameter to module: " + pName + "\n" +
               "Input parameters have the wrong size: " + std::to_string(values.size()) +
               " expected size: " + std::to_string(info->fActiveCameras.size()),
           __LINE__);
  }
  std::vector<int> results;
  for (size_t i = 0; i < values.size(); ++i) {
    results.push_back(xSetParam(info->fActiveCameras[i], pParam, values[i], false) ? 1 : 0);
  }
  return OXValue(results);
}

OXValue OXVisionVideoInput::setCamerasParameterToDefault(const std::string& pName,
                                                         const int& pParam) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const auto info = xFindSubscriber(pName, texts::kSetCamerasParameterToDefault);
  std::vector<int> results;
  for (int camera : info->fActiveCameras) {
    results.push_back(xSetParam(camera, pParam, -1, true) ? 1 : 0);
  }
  return OXValue(results);
}

int OXVisionVideoInput::getParam(const int& pParam) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  return xGetParam(fActiveCamera, pParam);
}

// The forms with a camera index check it, whatever the parameter: the drivers index their
// camera records with it.
int OXVisionVideoInput::getParam(const int& pParam, const int& pCameraIndex) {
  xCheckCameraArgument(pCameraIndex, "getParam()", __LINE__);
  OXCriticalSectionRead lock(fVisionModulesLock);
  return xGetParam(pCameraIndex, pParam);
}

void OXVisionVideoInput::setParam(const int& pParam, const int& pValue, const int& pCameraIndex) {
  xCheckCameraArgument(pCameraIndex, "setParam()", __LINE__);
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xSetParam(pCameraIndex, pParam, pValue, false);
}

void OXVisionVideoInput::setParam(const int& pParam, const int& pValue) {
  // fActiveCamera is read under the lock, then the three-argument form takes it again.
  int camera;
  {
    OXCriticalSectionRead lock(fVisionModulesLock);
    camera = fActiveCamera;
  }
  setParam(pParam, pValue, camera);
}

void OXVisionVideoInput::setParamDefault(const int& pParam) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xSetParam(fActiveCamera, pParam, 0, true);
}

}  // namespace OX
