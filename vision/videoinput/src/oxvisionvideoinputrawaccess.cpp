// Raw image access, one stream: a subscriber borrows the camera's raw frame without conversion
// and without a copy in the device, and gives it back. The holding is the camera's business.
#include "oxvisionvideoinput.h"
#include "oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

constexpr texts::SubscriberCheck kGetDirectRawImageLocal = {"getDirectRawImageLocal()",
                                                            "getDirectRawImageLocal(", false,
                                                            "use getDirectRawImagesLocal instead"};

// releaseDirectRawImage refuses the other family without the comma of its neighbours: kept.
constexpr const char* kReleaseMethod = "releaseDirectRawImage()";
constexpr const char* kReleaseWrongFamily =
    "Multi stream module can't call this method use releaseDirectRawImages instead";

}  // namespace

OXImage* OXVisionVideoInput::getDirectRawImageLocal(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xFindSubscriber(pName, kGetDirectRawImageLocal);
  // No grabber is started and no frame rate looked at: a request always goes to the camera.
  OXImage* image = xGetDirectRawImage(pName, false);
  // The recording step (without the patch) goes here once recording exists.
  return image;
}

bool OXVisionVideoInput::releaseDirectRawImage(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  auto found = fVisionModules.find(pName);
  if (found == fVisionModules.end()) {
    xThrow(kReleaseMethod, "releaseDirectRawImage(" + pName + ") : module " + pName + " unknown!",
           __LINE__);
  }
  const VisionModuleInfo& info = *found->second;
  if (info.fIsMultiStream) xThrow(kReleaseMethod, kReleaseWrongFamily, __LINE__);
  if (info.fActiveCamera != -1) return xReleaseDirectRawImageDeep(pName, info.fActiveCamera);
  // Following the device: every camera, up to the first that refuses.
  for (int camera = 0; camera < fNbCameras; ++camera) {
    if (!xReleaseDirectRawImageDeep(pName, camera)) return false;
  }
  return true;
}

}  // namespace OX
