// The file camera's remaining driver operations: the return of a held frame, the refusal of
// several streams, and the parameters, of which a recorded video has almost none.
#include "oxerror.h"
#include "cameras/file/oxvisionfilecam.h"

namespace OX {

namespace {
const char* const kCategory = "vision.oxvisionfilecam";
}  // namespace

bool OXVisionFileCam::xReleaseDirectRawImageDeep(const std::string& pId, const int& pCameraIndex) {
  auto found = fVisionModules.find(pId);
  if (found == fVisionModules.end() || !found->second) {
    xLog(2, "xReleaseDirectRawImageDeep",
         "ReleaseDirectRawImage(" + pId + ") : module " + pId + " unknown!", kCategory);
    return false;
  }
  if (pCameraIndex < 0 ||
      pCameraIndex >= static_cast<int>(found->second->fRequestedProperties.size())) {
    return true;  // no such camera: nothing can be held on it
  }
  RequestedCameraProperties& requested = *found->second->fRequestedProperties[pCameraIndex];
  OXVisionBuffer* output = requested.fLockedImage;
  if (output == nullptr) return true;
  ++output->fWriteLockCount;
  if (output->fReadLockCount <= 1 && output->fWriteLockCount <= 1) {
    // The last user: the slot may be read into again.
    CamBuffer* slot = static_cast<CamBuffer*>(output->fRawSource);
    if (slot != nullptr) --slot->fLockCount;
    output->fRawSource = nullptr;
  }
  requested.fLockedImage = nullptr;
  --output->fWriteLockCount;
  --output->fReadLockCount;
  return true;
}

std::vector<OXImage*> OXVisionFileCam::xGetDirectRawImages(const std::string& pId) {
  xLog(2, "xGetDirectRawImages",
       "xGetDirectRawImages(" + pId + ") : FileCam doesn't provide MultiStream Management yet",
       kCategory);
  return {};
}

int OXVisionFileCam::xGetParam(const int& pCameraIndex, const int& pParam) {
  const RealCameraProperties& camera = *fCameraProperties.at(pCameraIndex);
  switch (pParam) {
    case kCameraResolutionID:
      return camera.fResolution;
    case kCameraFrameRateID:
      return camera.fFrameRate;
    case kCameraSelectID:
      return fActiveCamera;
    case kCameraColorSpaceID:
      return camera.fColorSpace;
    default:
      throw OXError("OXVisionMioCam", "getParam()", "pId not handled in fileCam", "", 0);
  }
}

bool OXVisionFileCam::xSetParam(int, int, int, bool) {
  // A recorded video cannot be reconfigured.
  return true;
}

}  // namespace OX
