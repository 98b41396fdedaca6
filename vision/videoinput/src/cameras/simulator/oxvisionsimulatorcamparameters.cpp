// The simulator camera's parameters (resolution, frame rate, buffer count, active camera, colour
// space) and its grabber, a small state machine: nothing grabs, frames are pushed.
//
// The grabber's states and moves are those of GrabberState (device/oxvisionvideoinputrecords.h).
#include "kios.h"
#include "oxerror.h"
#include "oxtypes.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "cameras/simulator/oxvisionsimulatorcamtexts.h"

namespace OX {

namespace texts = simulatortexts;

namespace {

constexpr int kDefaultFrameRate = 5;
constexpr int kDefaultCamera = 0;
// Pauses of the grabber, in microseconds: after a start, after a stop, between two looks at a
// camera that is opening, and between the stop and the restart of a change of resolution.
constexpr unsigned int kAfterStartMicroseconds = 100;
constexpr unsigned int kAfterStopMicroseconds = 500;
constexpr unsigned int kOpeningPollMicroseconds = 500000;
constexpr unsigned int kRestartMicroseconds = 1;

// The four rates the camera knows; anything else is brought to the next one up, 5 at least.
int knownFrameRate(int pValue) {
  if (pValue > 15) return 30;
  if (pValue > 10) return 15;
  if (pValue > 5) return 10;
  return 5;
}

}  // namespace

// The camera's record is read only for the identifiers that describe that camera, after its
// index is checked: the active camera may stand one past the last (see kCameraSelectID below),
// and the device-wide selection must stay reachable from there.
RealCameraProperties& OXVisionSimulatorCam::xCameraOf(int pCameraIndex, const char* pMethod) {
  xCheckCameraArgument(pCameraIndex, pMethod, __LINE__);
  return *fCameraProperties[pCameraIndex];
}

int OXVisionSimulatorCam::xGetParam(const int& pCameraIndex, const int& pParam) {
  switch (pParam) {
    case kCameraResolutionID:
      return xCameraOf(pCameraIndex, "getParam()").fResolution;
    case kCameraFrameRateID:
      return xCameraOf(pCameraIndex, "getParam()").fFrameRate;
    case kCameraBufferSizeID:
      return xCameraOf(pCameraIndex, "getParam()").fBufferCount;
    case kCameraSelectID:
      return fActiveCamera;
    case kCameraColorSpaceID:
      return xCameraOf(pCameraIndex, "getParam()").fColorSpace;
    default:
      throw OXError(texts::kCameraModule, "getParam()", texts::kBadParameter, "", 0);
  }
}

bool OXVisionSimulatorCam::xSetParam(int pCameraIndex, int pParam, int pValue, bool pSetDefault) {
  switch (pParam) {
    case kCameraResolutionID: {
      RealCameraProperties& camera = xCameraOf(pCameraIndex, "setParam()");
      const int value = pSetDefault ? fDefaultResolution : pValue;
      if (static_cast<unsigned int>(value) > static_cast<unsigned int>(k4VGA)) {
        xLog(kLogError, "xSetParam", std::string("xSetParam() ") + texts::kInvalidResolution,
             texts::kSimulatorCategory);
        return false;
      }
      if (value == camera.fResolution) return true;
      OXCriticalSection lock(fParametersLock);
      // The restart goes through xOpenDevice, which re-dimensions the raw frames and makes
      // subscribers wait for the next push. A stopped camera ends up running: required.
      xStopFrameGrabber(pCameraIndex);
      camera.fResolution = static_cast<int8_t>(value);
      ki::os::usleep(kRestartMicroseconds);
      xStartFrameGrabber(pCameraIndex);
      return true;
    }
    case kCameraFrameRateID: {
      RealCameraProperties& camera = xCameraOf(pCameraIndex, "setParam()");
      const int value = pSetDefault ? kDefaultFrameRate : knownFrameRate(pValue);
      if (value == camera.fFrameRate) return true;
      OXCriticalSection lock(fParametersLock);
      camera.fFrameRate = static_cast<uint8_t>(value);
      return true;
    }
    case kCameraSelectID: {
      const int value = pSetDefault ? kDefaultCamera : pValue;
      // One past the last camera passes: a client may select it, and the operations that use the
      // active camera then refuse it themselves (docs/deviations.md, "A camera index outside
      // the cameras"). Clients that probe the cameras this way expect the selection to succeed.
      if (!pSetDefault && (value < 0 || value > fNbCameras)) {
        throw OXError(texts::kCameraModule, "setParam()", texts::kInvalidCamera, "", 0);
      }
      if (value == pCameraIndex) {
        xLog(kLogInfo, "xSetParam", texts::kSameCamera, texts::kCategory);
        return true;
      }
      const int previous = fActiveCamera;
      fActiveCamera = value;
      xUpdateParam(previous);
      xUpdateParam(value);
      return true;
    }
    default:
      throw OXError(texts::kVideoInputModule, "xSetParam()", texts::kInvalidParameter, "", 0);
  }
}

bool OXVisionSimulatorCam::xStartFrameGrabber(const int& pCameraIndex) {
  std::atomic<GrabberState>& state = fCameraProperties[pCameraIndex]->fGrabberState;
  if (state > GrabberState::kStopped) return true;
  state = GrabberState::kOpening;
  if (!xOpenDevice(pCameraIndex)) {
    state = GrabberState::kFailed;
    xLog(kLogError, "xStartFrameGrabber", getName() + ": " + texts::kCantOpen, texts::kCategory);
    throw OXError(getName(), "startFrameGrabber", texts::kCantOpen, texts::kGrabberSource,
                  texts::kGrabberLine);
  }
  state = GrabberState::kRunning;
  ki::os::usleep(kAfterStartMicroseconds);
  return true;
}

bool OXVisionSimulatorCam::xStopFrameGrabber(const int& pCameraIndex) {
  std::atomic<GrabberState>& state = fCameraProperties[pCameraIndex]->fGrabberState;
  while (state == GrabberState::kOpening) ki::os::usleep(kOpeningPollMicroseconds);
  if (state <= GrabberState::kClosing) return true;
  state = GrabberState::kClosing;
  if (!xCloseDevice(pCameraIndex)) {
    xLog(kLogError, "xStopFrameGrabber", getName() + ": " + texts::kErrorClosing, texts::kCategory);
    state = GrabberState::kFailed;
    return false;
  }
  state = GrabberState::kStopped;
  ki::os::usleep(kAfterStopMicroseconds);
  return true;
}

}  // namespace OX
