// Device queries: what a camera runs at now, its frame grabber, resolution codes and sizes, and
// the operations that only the simulator implements.
#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

template <class Read>
auto OXVisionVideoInput::xReadCamera(const int& pCameraIndex, const CameraCheck& pCheck, int pLine,
                                     Read pRead) {
  OXCriticalSectionRead lock(fVisionModulesLock);
  xCheckCameraIndex(pCameraIndex, pCheck, pLine);
  return pRead(*fCameraProperties[pCameraIndex]);
}

int OXVisionVideoInput::getCameraModel(const int& pCameraIndex) {
  return xReadCamera(pCameraIndex, texts::kGetCameraModel, __LINE__,
                     [](const RealCameraProperties& pCamera) { return pCamera.fCameraModel; });
}

bool OXVisionVideoInput::isFrameGrabberOff(const int& pCameraIndex) {
  return xReadCamera(pCameraIndex, texts::kIsFrameGrabberOff, __LINE__,
                     [](const RealCameraProperties& pCamera) {
                       return pCamera.fGrabberState.load() <= GrabberState::kStopped;
                     });
}

int OXVisionVideoInput::getFrameRate(const int& pCameraIndex) {
  return xReadCamera(
      pCameraIndex, texts::kGetFrameRate, __LINE__,
      [](const RealCameraProperties& pCamera) { return static_cast<int>(pCamera.fFrameRate); });
}

int OXVisionVideoInput::getResolution(const int& pCameraIndex) {
  return xReadCamera(
      pCameraIndex, texts::kGetResolution, __LINE__,
      [](const RealCameraProperties& pCamera) { return static_cast<int>(pCamera.fResolution); });
}

int OXVisionVideoInput::getColorSpace(const int& pCameraIndex) {
  return xReadCamera(
      pCameraIndex, texts::kGetColorSpace, __LINE__,
      [](const RealCameraProperties& pCamera) { return static_cast<int>(pCamera.fColorSpace); });
}

bool OXVisionVideoInput::startFrameGrabber(const int& pCameraIndex) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xCheckCameraIndex(pCameraIndex, texts::kStartFrameGrabber, __LINE__);
  return xStartFrameGrabber(pCameraIndex);
}

bool OXVisionVideoInput::stopFrameGrabber(const int& pCameraIndex) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xCheckCameraIndex(pCameraIndex, texts::kStopFrameGrabber, __LINE__);
  return xStopFrameGrabber(pCameraIndex);
}

int OXVisionVideoInput::getActiveCamera() {
  OXCriticalSectionRead lock(fVisionModulesLock);
  return fActiveCamera;
}

// The device-wide forms read the active camera, which the camera selection may set one past the
// last camera: such an index is refused with the texts of the indexed forms.
int OXVisionVideoInput::getCameraModelID() {
  return xReadCamera(fActiveCamera, texts::kGetCameraModel, __LINE__,
                     [](const RealCameraProperties& pCamera) { return pCamera.fCameraModel; });
}

int OXVisionVideoInput::getResolution() {
  return getResolution(fActiveCamera);
}

int OXVisionVideoInput::getColorSpace() {
  return getColorSpace(fActiveCamera);
}

int OXVisionVideoInput::getFrameRate() {
  return getFrameRate(fActiveCamera);
}

bool OXVisionVideoInput::isFrameGrabberOff() {
  return isFrameGrabberOff(fActiveCamera);
}

// After the first camera that fails no further driver is called; those started stay started.
bool OXVisionVideoInput::startFrameGrabber() {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  bool result = true;
  for (int camera = 0; camera < fNbCameras && result; ++camera) {
    result = xStartFrameGrabber(camera);
  }
  return result;
}

bool OXVisionVideoInput::stopFrameGrabber() {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  bool result = true;
  for (int camera = 0; camera < fNbCameras && result; ++camera) {
    result = xStopFrameGrabber(camera);
  }
  return result;
}

OXValue OXVisionVideoInput::resolutionToSizes(const int& pResolution) {
  int width = -1;
  int height = -1;
  setSizeFromResolution(pResolution, width, height);
  if (width == -1 && height == -1) {
    xThrow("resolutionToSizes()", "Only takes k4VGA, kVGA, kQVGA and kQQVGA as input", __LINE__);
  }
  OXValue sizes;
  sizes.arraySetSize(2);
  sizes[0] = OXValue(width);
  sizes[1] = OXValue(height);
  return sizes;
}

int OXVisionVideoInput::sizesToResolution(const int& pWidth, const int& pHeight) {
  return getResolutionFromSize(pWidth, pHeight);
}

// The simulator overrides these; three of them raise under the label of putImage, the text that
// clients of the other sources already catch.
bool OXVisionVideoInput::putImage(const int&, const int&, const int&, const OXValue&) {
  xThrow("putImage()", texts::kOnlySimulator, __LINE__);
}

bool OXVisionVideoInput::putImage(const OXValue&) {
  xThrow("putImage()", texts::kOnlySimulator, __LINE__);
}

bool OXVisionVideoInput::setSimCamInputSize(const int&, const int&) {
  xThrow("putImage()", texts::kOnlySimulator, __LINE__);
}

OXValue OXVisionVideoInput::getExpectedImageParameters() {
  xThrow("putImage()", texts::kOnlySimulator, __LINE__);
}

OXValue OXVisionVideoInput::getExpectedImageParameters(const int&) {
  xThrow("getExpectedImageParameters()", texts::kOnlySimulator, __LINE__);
}

}  // namespace OX
