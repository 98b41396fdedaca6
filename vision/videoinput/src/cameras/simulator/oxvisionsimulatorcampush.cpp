// The push: the simulator declares the size of its frames and copies each RGB frame into the
// idle half of a camera's double buffer, stamped with its arrival time.
#include <cstring>

#include "kios.h"
#include "oxtypes.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "cameras/simulator/oxvisionsimulatorcamtexts.h"

namespace OX {

namespace texts = simulatortexts;

namespace {

// The four frame sizes a simulator may push, and their resolutions.
struct InputSize {
  int fWidth;
  int fHeight;
  int fResolution;
};
constexpr InputSize kInputSizes[] = {
    {160, 120, kQQVGA}, {320, 240, kQVGA}, {640, 480, kVGA}, {1280, 960, k4VGA}};

// What an input buffer holds: a k4VGA frame of three bytes a pixel.
constexpr int kInputCapacity = 1280 * 960 * 3;

// The longest frame received as a string so far, by any camera. Strings shorter than it are
// dropped. Atomic because pushers into two cameras update it under different mutexes.
std::atomic<uint32_t> maxReceivedData{0};

}  // namespace

bool OXVisionSimulatorCam::putImage(const OXValue& pImage) {
  const int camera = fActiveCamera;
  CameraDriverBuffer* store = xDriverBuffer(camera, "putImage");
  if (store == nullptr) return false;
  OXCriticalSection lock(store->fMutex);
  return xPutImage(pImage, camera);
}

// Takes no device lock, unlike setSimCamInputSize: kept so that a pusher never waits on
// subscribers. A camera that the caller names and that does not exist is refused with an error;
// the forms that follow the device's active camera answer false instead.
bool OXVisionSimulatorCam::putImage(const int& pCameraIndex, const int& pWidth, const int& pHeight,
                                    const OXValue& pImage) {
  xCheckCameraArgument(pCameraIndex, "putImage()", __LINE__);
  CameraDriverBuffer* store = xDriverBuffer(pCameraIndex, "putImage");
  OXCriticalSection lock(store->fMutex);
  if (!xSetSimCamInputSize(pWidth, pHeight, pCameraIndex)) return false;
  return xPutImage(pImage, pCameraIndex);
}

bool OXVisionSimulatorCam::setSimCamInputSize(const int& pWidth, const int& pHeight) {
  OXCriticalSectionWrite deviceLock(fVisionModulesLock);
  const int camera = fActiveCamera;
  CameraDriverBuffer* store = xDriverBuffer(camera, "setSimCamInputSize");
  if (store == nullptr) return false;
  OXCriticalSection lock(store->fMutex);
  return xSetSimCamInputSize(pWidth, pHeight, camera);
}

OXValue OXVisionSimulatorCam::getExpectedImageParameters(const int& pCameraIndex) {
  xCheckCameraArgument(pCameraIndex, "getExpectedImageParameters()", __LINE__);
  OXCriticalSectionRead lock(fVisionModulesLock);
  const RealCameraProperties& camera = *fCameraProperties[pCameraIndex];
  OXValue parameters;
  parameters.arraySetSize(2);
  parameters[0] = resolutionToSizes(camera.fResolution);
  parameters[1] = OXValue(static_cast<int>(camera.fFrameRate));
  return parameters;
}

OXValue OXVisionSimulatorCam::getExpectedImageParameters() {
  // The lock is taken twice for reading by this thread: the lock allows it.
  OXCriticalSectionRead lock(fVisionModulesLock);
  const int camera = fActiveCamera;
  if (xDriverBuffer(camera, "getExpectedImageParameters") == nullptr) return OXValue();
  return getExpectedImageParameters(camera);
}

bool OXVisionSimulatorCam::xSetSimCamInputSize(const int& pWidth, const int& pHeight,
                                               const int& pCameraIndex) {
  int resolution = -1;
  for (const InputSize& size : kInputSizes) {
    if (size.fWidth == pWidth && size.fHeight == pHeight) resolution = size.fResolution;
  }
  if (resolution < 0) {
    xLog(kLogError, "xSetSimCamInputSize", texts::kUnknownResolution, texts::kCategory);
    return false;
  }
  CameraDriverBuffer& store = *fCameraDriverBuffers[pCameraIndex];
  for (const auto& buffer : store.fInputBuffers) {
    if (buffer->fImage != nullptr) buffer->fImage->setResolution(resolution);
  }
  store.fInputResolution = resolution;
  return true;
}

bool OXVisionSimulatorCam::xPutImage(const OXValue& pImage, const int& pCameraIndex) {
  // First of all, so that the stamp is the moment of arrival and not that of the end of the copy.
  ki::os::timeval now;
  ki::os::gettimeofday(&now);
  const boost::shared_ptr<CameraDriverBuffer> store = fCameraDriverBuffers[pCameraIndex];

  int width = -1;
  int height = -1;
  setSizeFromResolution(store->fInputResolution, width, height);
  const void* source = nullptr;
  // Only binaries and strings have a size; anything else is refused below.
  const int size = pImage.isBinary() || pImage.isString() ? pImage.getSize() : 0;
  if (pImage.isBinary()) {
    if (size != width * 3 * height) {
      xLog(kLogError, "xPutImage", texts::kWrongDataSize, texts::kCategory);
      return false;
    }
    source = pImage.GetBinary();
  } else if (pImage.isString()) {
    // A string is measured only against the longest one accepted so far, not against the size
    // declared: a pusher sees a shorter string refused (false, no record). Simulators that send
    // strings send one size for a whole run, which is the contract they are written against.
    const uint32_t length = static_cast<uint32_t>(size);
    if (length < maxReceivedData) return false;
    if (length > static_cast<uint32_t>(kInputCapacity)) {
      xLog(kLogError, "xPutImage", texts::kStringTooLong, texts::kCategory);
      return false;
    }
    xLog(kLogError, "xPutImage", texts::kImageUpdated, texts::kCategory);
    maxReceivedData = length;
    source = static_cast<const std::string&>(pImage).data();
  } else {
    xLog(kLogError, "xPutImage", texts::kNotBinaryNorString, texts::kCategory);
    return false;
  }

  // The idle half: the first frame after an opening (-1) goes to entry 0.
  const int target = store->fLastInputBuffer == 0 ? 1 : 0;
  OXImage* image = store->fInputBuffers[target]->fImage;
  if (image == nullptr || image->fData == nullptr) {
    xLog(kLogError, "xPutImage", texts::kMemcopyFailed, texts::kCategory);
    return false;
  }
  std::memcpy(image->fData, source, static_cast<size_t>(size));
  store->fLastInputBuffer = target;
  image->fTimeStamp = static_cast<int64_t>(static_cast<int32_t>(now.tv_sec)) * 1000000 +
                      static_cast<int32_t>(now.tv_usec);
  return true;
}

}  // namespace OX
