// Raw image access, one stream and several: a subscriber borrows the camera's raw frame without
// conversion and without a copy in the device, and gives it back. The holding is the camera's
// business: nothing here touches fLockedImage or the device's pools.
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

constexpr texts::SubscriberCheck kGetDirectRawImageLocal = {"getDirectRawImageLocal()",
                                                            "getDirectRawImageLocal(", false,
                                                            "use getDirectRawImagesLocal instead"};

// releaseDirectRawImage refuses the other family without the comma of its neighbours: clients
// match the texts as they read, so this one keeps its own.
constexpr const char* kReleaseMethod = "releaseDirectRawImage()";
constexpr const char* kReleaseWrongFamily =
    "Multi stream module can't call this method use releaseDirectRawImages instead";

}  // namespace

OXImage* OXVisionVideoInput::getDirectRawImageLocal(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info = xFindSubscriber(pName, kGetDirectRawImageLocal);
  // No grabber is started and no frame rate looked at: a request always goes to the camera.
  OXImage* image = xGetDirectRawImage(pName, false);
  xRecordStep(info, image, false);
  xCountDelivery(*info, image != nullptr ? 1 : 0);
  return image;
}

bool OXVisionVideoInput::releaseDirectRawImage(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const VisionModuleInfo& info = *xLookUpSubscriber(
      pName,
      {true, kReleaseMethod, "releaseDirectRawImage(", texts::kModuleMiddle, texts::kUnknownTail},
      __LINE__);
  if (info.fIsMultiStream) xThrow(kReleaseMethod, kReleaseWrongFamily, __LINE__);
  if (info.fActiveCamera != -1) return xReleaseDirectRawImageDeep(pName, info.fActiveCamera);
  // Following the device: every camera, up to the first that refuses.
  for (int camera = 0; camera < fNbCameras; ++camera) {
    if (!xReleaseDirectRawImageDeep(pName, camera)) return false;
  }
  return true;
}

OXValue OXVisionVideoInput::getDirectRawImageRemote(const std::string& pName) {
  OXImage* image = nullptr;
  {
    OXCriticalSectionWrite lock(fVisionModulesLock);
    const boost::shared_ptr<VisionModuleInfo> info =
        xFindSubscriber(pName, texts::kGetDirectRawImageRemote);
    image = xGetDirectRawImage(pName, false);
    xRecordStep(info, image, false);
    xCountDelivery(*info, image != nullptr ? 1 : 0);
  }
  if (image == nullptr) return OXValue();
  // Outside the lock: the camera keeps a lent frame until it is given back.
  OXValue reply = image->toOXValue();
  releaseDirectRawImage(pName);
  return reply;
}

OXValue OXVisionVideoInput::getDirectRawImagesLocal(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindSubscriber(pName, texts::kGetDirectRawImagesLocal);
  // No recording step: a subscriber of several streams cannot record.
  const std::vector<OXImage*> images = xGetDirectRawImages(pName);
  xCountDelivery(*info, images);
  OXValue result;
  result.arrayReserve(static_cast<int>(images.size()));
  for (size_t i = 0; i < images.size(); ++i) {
    result[static_cast<int>(i)] = OXValue(images[i] != nullptr);
  }
  return result;
}

OXValue OXVisionVideoInput::getDirectRawImagesRemote(const std::string& pName) {
  std::vector<OXImage*> images;
  {
    OXCriticalSectionWrite lock(fVisionModulesLock);
    const boost::shared_ptr<VisionModuleInfo> info =
        xFindSubscriber(pName, texts::kGetDirectRawImagesRemote);
    images = xGetDirectRawImages(pName);
    xCountDelivery(*info, images);
  }
  if (images.empty()) return OXValue();
  OXValue reply = xJoinedReply(images, "getDirectRawImagesRemote");
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xLookUpSubscriber(pName,
                    {true, "getDirectRawImagesRemote()", "getDirectRawImagesRemote(",
                     texts::kModuleMiddle, texts::kUnknownTail},
                    __LINE__);
  // Every camera of the device, not only the subscriber's: what it holds nowhere stays held.
  for (int camera = 0; camera < fNbCameras; ++camera) xReleaseDirectRawImageDeep(pName, camera);
  return reply;
}

OXValue OXVisionVideoInput::releaseDirectRawImages(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info =
      xFindSubscriber(pName, texts::kReleaseDirectRawImages);
  // No stop at the first refusal: each camera gets its chance.
  std::vector<int> results;
  for (int camera : info->fActiveCameras) {
    results.push_back(xReleaseDirectRawImageDeep(pName, camera) ? 1 : 0);
  }
  return OXValue(results);
}

std::string OXVisionVideoInput::getDirectRawImageInterprocess(const std::string& pName) {
  // releaseDirectRawImage below takes this lock again on this thread: its writer may re-enter.
  OXCriticalSectionWrite lock(fVisionModulesLock);
  if (!xLookUpSubscriber(pName,
                         {false, "getDirectRawImageInterprocess", "getDirectRawImageInterprocess(",
                          texts::kModuleMiddle, " unknown!\n"})) {
    return std::string();
  }
  xGetDirectRawImage(pName, false);
  releaseDirectRawImage(pName);
  return texts::kInterprocessName;
}

}  // namespace OX
