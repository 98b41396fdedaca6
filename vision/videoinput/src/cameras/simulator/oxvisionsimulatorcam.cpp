// The simulator camera object: its frame store, construction and destruction, the opening and
// closing of a camera and the three validity checks.
#include "cameras/simulator/oxvisionsimulatorcam.h"

#include "oxtypes.h"
#include "cameras/simulator/oxvisionsimulatorcamtexts.h"

namespace OX {

namespace texts = simulatortexts;

namespace {

constexpr int kCameraCount = 2;
constexpr int kDriverBufferCount = 4;
constexpr int kInputBufferCount = 2;
constexpr int kSimulatorCameraModel = kMT9M114;
constexpr int kStartFrameRate = 5;

}  // namespace

CameraDriverBuffer::CameraDriverBuffer()
    : fLastDriverBuffer(-1),
      fLastInputBuffer(-1),
      fInputResolution(kQQVGA),
      fMutex(OXMutex::createOXMutex()) {
  // The largest frame there is, so that no later change of resolution reallocates.
  for (int i = 0; i < kDriverBufferCount; ++i) {
    boost::shared_ptr<OXVisionBuffer> buffer(new OXVisionBuffer(k4VGA, kYUV422, false));
    if (buffer->fImage != nullptr) buffer->fImage->fTimeStamp = -1;
    fDriverBuffers.push_back(buffer);
  }
  for (int i = 0; i < kInputBufferCount; ++i) {
    boost::shared_ptr<OXVisionBuffer> buffer(new OXVisionBuffer(k4VGA, kRGB, false));
    // The input images carry the size of fInputResolution from the start, so that a frame
    // pushed without a declaration is converted at the size it was checked against.
    if (buffer->fImage != nullptr) buffer->fImage->setResolution(fInputResolution);
    fInputBuffers.push_back(buffer);
  }
}

OXVisionSimulatorCam::OXVisionSimulatorCam(boost::shared_ptr<OXBroker> pBroker)
    : OXVisionVideoInput(pBroker, texts::kModuleName) {
  fDefaultResolution = kQVGA;
  fCameraProperties.clear();
  fNbCameras = kCameraCount;
  for (int i = 0; i < fNbCameras; ++i) {
    boost::shared_ptr<RealCameraProperties> camera(new RealCameraProperties());
    camera->fWidth = 320;
    camera->fHeight = 240;
    camera->fResolution = kQVGA;
    camera->fColorSpace = kYUV422;
    camera->fFrameRate = kStartFrameRate;
    fCameraProperties.push_back(camera);
    camera->fCameraModel = kSimulatorCameraModel;
    camera->fBufferCount = kDriverBufferCount;
    fCameraDriverBuffers.push_back(boost::shared_ptr<CameraDriverBuffer>(new CameraDriverBuffer()));
  }
}

OXVisionSimulatorCam::~OXVisionSimulatorCam() {
  stopFrameGrabber();
  for (int i = 0; i < fNbCameras; ++i) xCloseDevice(i);
  fCameraDriverBuffers.clear();
}

CameraDriverBuffer* OXVisionSimulatorCam::xDriverBuffer(int pCamera, const char* pFunction) const {
  if (pCamera >= 0 && pCamera < static_cast<int>(fCameraDriverBuffers.size())) {
    return fCameraDriverBuffers[pCamera].get();
  }
  xLog(kLogError, pFunction, getName() + texts::kCameraOutOfRange + std::to_string(pCamera),
       texts::kCategory);
  return nullptr;
}

bool OXVisionSimulatorCam::xOpenDevice(int pCamera) {
  CameraDriverBuffer* store = xDriverBuffer(pCamera, "xOpenDevice");
  if (store == nullptr) return true;
  OXCriticalSection lock(store->fMutex);
  // A frame pushed before the opening is no longer offered: subscribers wait for the next one.
  store->fLastInputBuffer = -1;
  // fLastDriverBuffer stays: its time stamp is what the next pushed frame is compared with.
  for (const auto& buffer : store->fDriverBuffers) {
    if (buffer->fImage == nullptr) continue;
    buffer->fImage->setResolution(fCameraProperties[pCamera]->fResolution);
    buffer->fImage->setColorSpace(kYUV422);
  }
  return true;
}

bool OXVisionSimulatorCam::xCloseDevice(int) {
  return true;
}

bool OXVisionSimulatorCam::xIsResolutionValid(const int& pResolution,
                                              const int& pCameraIndex) const {
  // A camera outside the table has no model to read: it is judged as the cameras of this class
  // are, so that the caller's own index check is the one that reports it.
  const bool known = pCameraIndex >= 0 && pCameraIndex < static_cast<int>(fCameraProperties.size());
  const int model = known ? fCameraProperties[pCameraIndex]->fCameraModel : kSimulatorCameraModel;
  const unsigned int resolution = static_cast<unsigned int>(pResolution);
  switch (model) {
    case kOV7670:
      return resolution <= static_cast<unsigned int>(kVGA);
    case kMT9M114:
      return resolution <= static_cast<unsigned int>(k4VGA);
    default:
      xLog(kLogError, "xIsResolutionValid", std::to_string(model) + texts::kUnknownModel,
           texts::kAtomCategory);
      return false;
  }
}

bool OXVisionSimulatorCam::xIsFrameRateValid(const int& pFrameRate, const int&) const {
  return pFrameRate >= 1 && pFrameRate <= 30;
}

bool OXVisionSimulatorCam::xIsColorSpaceValid(const int& pColorSpace, const int&) const {
  return static_cast<unsigned int>(pColorSpace) <= static_cast<unsigned int>(kHSMixed);
}

}  // namespace OX
