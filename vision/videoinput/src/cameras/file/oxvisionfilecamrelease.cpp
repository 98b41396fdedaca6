// The file camera's remaining driver operations: the return of a held frame, the refusal of
// several streams, and the parameters, of which a recorded video has almost none.
#include "oxerror.h"
#include "cameras/file/oxvisionfilecam.h"

namespace OX {

namespace {
const char* const kCategory = "vision.oxvisionfilecam";
}  // namespace

bool OXVisionFileCam::xReleaseDirectRawImageDeep(const std::string& pId, const int& pCameraIndex) {
  const boost::shared_ptr<VisionModuleInfo> info =
      xLookUpSubscriber(pId, {false, "xReleaseDirectRawImageDeep", "ReleaseDirectRawImage(",
                              ") : module ", " unknown!", kCategory});
  if (!info) return false;
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(info->fRequestedProperties.size())) {
    return true;  // no such camera: nothing can be held on it
  }
  // The released output buffer keeps its stamp, unlike the simulator's: a subscriber asking within
  // its period may be served from it by the delivery, without a replay step, and so gets the
  // slot's pixels again (or, once the ring has read another image into the slot, that image
  // under the old stamp). Which image a replay serves is what its users compare against the
  // recording, so the file camera keeps serving as it always has.
  auto* slot = static_cast<CamBuffer*>(
      xTakeBackRawFrame(*info->fRequestedProperties[pCameraIndex], ReleasedStamp::kKeep));
  // The last user gone, the slot may be read into again.
  if (slot != nullptr) --slot->fLockCount;
  return true;
}

std::vector<OXImage*> OXVisionFileCam::xGetDirectRawImages(const std::string& pId) {
  xLog(kLogError, "xGetDirectRawImages",
       "xGetDirectRawImages(" + pId + ") : FileCam doesn't provide MultiStream Management yet",
       kCategory);
  return {};
}

// Published as getParam(camID, pParam) straight from here, so the caller's index is checked
// first, whatever the identifier.
int OXVisionFileCam::xGetParam(const int& pCameraIndex, const int& pParam) {
  xCheckCameraArgument(pCameraIndex, "getParam()", __LINE__);
  const RealCameraProperties& camera = *fCameraProperties[pCameraIndex];
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
