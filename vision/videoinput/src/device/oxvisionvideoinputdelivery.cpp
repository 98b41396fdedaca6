// Image delivery, one stream and several: a subscriber gets a converted image, in its own process
// as a pointer into the device's buffers or across processes as a copy, and gives it back.
//
// A request does not always cost a conversion: a converted image of the subscriber's format that
// is young enough for its frame rate is shared, then a recent raw image is converted, and only
// then is the camera asked for a new frame.
#include <algorithm>
#include <cstring>

#include "kios.h"
#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

// One period of the frame rate in whole milliseconds, truncated (30 fps: 33, 7 fps: 142). A rate
// of 0 never passes the checks of subscribing; should one slip through, nothing counts as fresh.
int64_t periodMilliseconds(uint8_t pFrameRate) {
  return pFrameRate > 0 ? 1000 / int64_t{pFrameRate} : -1;
}

}  // namespace

std::pair<int64_t, int64_t> getTimeStamp(const OXImage& pImage) {
  return {pImage.fTimeStamp / 1000000, pImage.fTimeStamp % 1000000};
}

void OXVisionVideoInput::xCheckDeliveryCamera(const std::string& pName, int pCameraIndex,
                                              const char* pMethod, const VisionModuleInfo& pInfo,
                                              int pLine) const {
  // The device's active camera may stand one past the last camera: no pool exists there.
  if (pCameraIndex < 0 || pCameraIndex >= fNbCameras ||
      pCameraIndex >= static_cast<int>(pInfo.fRequestedProperties.size()) ||
      pCameraIndex >= static_cast<int>(fCameraProperties.size())) {
    xThrow(pMethod, pName + " : invalid camera index " + std::to_string(pCameraIndex), pLine);
  }
}

bool OXVisionVideoInput::xHoldsConvertedImage(const VisionModuleInfo& pInfo,
                                              int pCameraIndex) const {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(pInfo.fRequestedProperties.size()) ||
      pCameraIndex >= static_cast<int>(fCameraProperties.size())) {
    return false;
  }
  const OXVisionBuffer* locked = pInfo.fRequestedProperties[pCameraIndex]->fLockedImage;
  const std::vector<OXVisionBuffer*>& pool = fCameraProperties[pCameraIndex]->fImageBuffers;
  return locked != nullptr && std::find(pool.begin(), pool.end(), locked) != pool.end();
}

OXImage* OXVisionVideoInput::getImageLocal(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xFindSubscriber(pName, texts::kGetImageLocal);
  return xGetImage(pName);
}

OXVisionBuffer* OXVisionVideoInput::xHeldBuffer(const VisionModuleInfo& pInfo,
                                                const OXImage* pImage) const {
  for (size_t camera = 0; camera < pInfo.fRequestedProperties.size(); ++camera) {
    OXVisionBuffer* held = pInfo.fRequestedProperties[camera]->fLockedImage;
    if (held != nullptr && held->fImage == pImage &&
        xHoldsConvertedImage(pInfo, static_cast<int>(camera))) {
      return held;
    }
  }
  return nullptr;
}

void OXVisionVideoInput::xKeepRemoteCopy(const OXVisionBuffer* pBuffer, std::uint64_t pContent,
                                         const OXBinary& pCopy) {
  for (const boost::shared_ptr<RealCameraProperties>& camera : fCameraProperties) {
    for (OXVisionBuffer* buffer : camera->fImageBuffers) {
      if (buffer == pBuffer && buffer->fContent == pContent) buffer->fRemoteCopy = pCopy;
    }
  }
}

OXValue OXVisionVideoInput::getImageRemote(const std::string& pName) {
  OXImage* image = nullptr;
  const OXVisionBuffer* buffer = nullptr;
  std::uint64_t content = 0;
  OXBinary copy;
  {
    OXCriticalSectionWrite lock(fVisionModulesLock);
    const boost::shared_ptr<VisionModuleInfo> info = xFindSubscriber(pName, texts::kGetImageRemote);
    image = xGetImage(pName);
    buffer = image != nullptr ? xHeldBuffer(*info, image) : nullptr;
    if (buffer != nullptr) {
      content = buffer->fContent;
      copy = buffer->fRemoteCopy;
    }
  }
  if (image == nullptr) return OXValue();
  // Outside the lock: the subscriber's read count keeps the buffer from being rewritten. Every
  // reply of the same frame shares one copy of its pixels.
  if (buffer == nullptr || image->fData == nullptr) {
    OXValue reply = image->toOXValue();
    releaseImage(pName);
    return reply;
  }
  const bool known = copy.isShared();
  OXValue reply =
      image->toOXValue(OXValue::replyBinary(image->fData, image->getSize(), content, copy));
  if (!known && copy.isShared()) {
    OXCriticalSectionWrite lock(fVisionModulesLock);
    xKeepRemoteCopy(buffer, content, copy);
  }
  releaseImage(pName);
  return reply;
}

bool OXVisionVideoInput::releaseImage(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  const boost::shared_ptr<VisionModuleInfo> info = xFindSubscriber(pName, texts::kReleaseImage);
  auto releaseOn = [&](int pCamera) {
    if (pCamera < 0 || pCamera >= static_cast<int>(info->fRequestedProperties.size())) {
      xLog(kLogError, "releaseImage",
           "releaseImage(" + pName + ") : no camera " + std::to_string(pCamera) + " to release");
      return;
    }
    RequestedCameraProperties& requested = *info->fRequestedProperties[pCamera];
    if (requested.fLockedImage != nullptr) --requested.fLockedImage->fReadLockCount;
    requested.fLockedImage = nullptr;
  };
  // Exactly -1 means every camera here, while a delivery takes any negative value for the
  // device's camera.
  if (info->fActiveCamera == -1) {
    for (int camera = 0; camera < fNbCameras; ++camera) releaseOn(camera);
  } else {
    releaseOn(info->fActiveCamera);
  }
  return true;
}

bool OXVisionVideoInput::xServeRecentImage(boost::shared_ptr<VisionModuleInfo>& pSubscriber,
                                           int pCamera, OXImage*& pImage) {
  RequestedCameraProperties& wanted = *pSubscriber->fRequestedProperties[pCamera];
  ki::os::timeval now;
  ki::os::gettimeofday(&now);
  const int64_t nowSeconds = now.tv_sec;
  const int64_t nowMilliseconds = now.tv_usec / 1000;
  const int64_t period = periodMilliseconds(pSubscriber->fFrameRate);
  RealCameraProperties& real = *fCameraProperties[pCamera];
  const int8_t cameraIndex = static_cast<int8_t>(pCamera);

  // First choice: a converted image of this format, no older than one period.
  int width = 0;
  int height = 0;
  setSizeFromResolution(wanted.fResolution, width, height);
  int index = xLockTheNewestBufferForReading(cameraIndex, width, height, wanted.fColorSpace);
  if (index >= 0) {
    OXVisionBuffer* buffer = real.fImageBuffers[index];
    const std::pair<int64_t, int64_t> stamp = getTimeStamp(*buffer->fImage);
    if (stamp.first * 1000 - nowSeconds * 1000 + stamp.second / 1000 - nowMilliseconds + period >=
        0) {
      wanted.fLockedImage = buffer;  // the raised read count is the subscriber's hold
      pImage = buffer->fImage;
      return true;
    }
    --buffer->fReadLockCount;
  }

  // Second choice: a raw image of this very second, no older than one period. Unlike the first
  // choice, a raw image of the end of the previous second never counts as recent.
  index = xLockTheNewestBufferForReading(cameraIndex);
  if (index >= 0) {
    OXVisionBuffer* raw = real.fRawBuffers[index];
    const std::pair<int64_t, int64_t> stamp = getTimeStamp(*raw->fImage);
    if (raw->fImage->fData != nullptr && stamp.first == nowSeconds &&
        stamp.second / 1000 - nowMilliseconds + period >= 0) {
      const int converted = xConvertCounted(pCamera, pSubscriber, raw->fImage);
      --raw->fReadLockCount;
      if (converted >= 0) {
        wanted.fLockedImage = real.fImageBuffers[converted];
        pImage = wanted.fLockedImage->fImage;
      }
      return true;  // no image when xConvertImage found no free buffer: it has said why
    }
    --raw->fReadLockCount;
  }
  return false;
}

bool OXVisionVideoInput::xGiveRawFramesBack(const std::string& pName,
                                            const VisionModuleInfo& pSubscriber, int pCamera) {
  if (pSubscriber.fActiveCamera != -1) {
    return xReleaseDirectRawImageDeep(pName, pSubscriber.fActiveCamera);
  }
  bool released = true;
  for (int i = 0; i < fNbCameras && released; ++i) {
    // The camera would take a converted image still held on another camera for its own raw
    // frame and end that hold: such a camera has no raw frame out and is left alone.
    if (i != pCamera && xHoldsConvertedImage(pSubscriber, i)) continue;
    released = xReleaseDirectRawImageDeep(pName, i);
  }
  return released;
}

OXImage* OXVisionVideoInput::xGetImage(const std::string& pName) {
  // Held for the whole call, whatever happens to the map meanwhile.
  boost::shared_ptr<VisionModuleInfo> subscriber = xLookUpSubscriber(
      pName, {false, "xGetImage", "xGetImage(", texts::kModuleMiddle, texts::kUnknownTail});
  if (!subscriber) return nullptr;
  const int camera = xCurrentCamera(*subscriber);
  xCheckDeliveryCamera(pName, camera, "xGetImage", *subscriber, __LINE__);
  RequestedCameraProperties& wanted = *subscriber->fRequestedProperties[camera];
  if (wanted.fLockedImage != nullptr) {
    xThrow("xGetImage",
           pName + " previous image for camera " + std::to_string(camera) + " was not released !",
           __LINE__);
  }
  xStartFrameGrabber(camera);
  OXImage* recent = nullptr;
  if (xServeRecentImage(subscriber, camera, recent)) {
    xCountDelivery(*subscriber, recent != nullptr ? 1 : 0);
    return recent;
  }

  // Third choice: a new frame from the camera.
  OXImage* rawImage = xGetDirectRawImage(pName, true);
  if (rawImage == nullptr) {
    xLog(
        kLogInfo, "xGetImage",
        "xGetImage(" + pName + "): Failed to get a new raw image for subscriber \"" + pName + "\"");
    return nullptr;
  }
  const int converted = xConvertCounted(camera, subscriber, rawImage);
  if (xCurrentCamera(*subscriber) != camera) {
    xLog(kLogError, "xGetImage", "xGetImage(" + pName + "): Module active camera change!");
  }
  // The raw frame goes back either way: the converted image no longer needs it.
  if (!xGiveRawFramesBack(pName, *subscriber, camera)) {
    xLog(kLogError, "xGetImage", "xGetImage(" + pName + "): Unable to release raw image(s).");
  }
  if (converted < 0) return nullptr;  // xConvertImage has said why
  wanted.fLockedImage = fCameraProperties[camera]->fImageBuffers[converted];
  xCountDelivery(*subscriber, 1);
  return wanted.fLockedImage->fImage;
}

std::vector<OXImage*> OXVisionVideoInput::xGetImages(const std::string& pName) {
  std::vector<OXImage*> images;
  boost::shared_ptr<VisionModuleInfo> subscriber = xLookUpSubscriber(
      pName, {false, "xGetImages", "xGetImages(", texts::kModuleMiddle, texts::kUnknownTail});
  if (!subscriber) return images;
  for (int camera : subscriber->fActiveCameras) {
    xCheckDeliveryCamera(pName, camera, "xGetImages()", *subscriber, __LINE__);
    if (subscriber->fRequestedProperties[camera]->fLockedImage != nullptr) {
      xLog(kLogError, "xGetImages",
           "Previous image " + std::to_string(camera) + " was not released");
      return images;
    }
    xStartFrameGrabber(camera);
  }

  images = xGetDirectRawImages(pName);
  if (images.empty()) {
    xRaise("xGetImages()", pName + " failed to get images from one or several cameras", __LINE__);
  }
  const size_t count = std::min(images.size(), subscriber->fActiveCameras.size());
  images.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const int camera = subscriber->fActiveCameras[i];
    // A camera that failed leaves a null entry: nothing to convert, and the entry stays null.
    const int converted =
        images[i] != nullptr ? xConvertCounted(camera, subscriber, images[i]) : -1;
    if (!xReleaseDirectRawImageDeep(pName, camera)) {
      xLog(kLogError, "xGetImages", "xGetImage(" + pName + "): Unable to release raw image.");
    }
    RequestedCameraProperties& wanted = *subscriber->fRequestedProperties[camera];
    if (converted < 0) {
      images[i] = nullptr;
      continue;
    }
    wanted.fLockedImage = fCameraProperties[camera]->fImageBuffers[converted];
    images[i] = wanted.fLockedImage->fImage;
  }
  xCountDelivery(*subscriber, images);
  return images;
}

OXValue OXVisionVideoInput::getImagesLocal(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xFindSubscriber(pName, texts::kGetImagesLocal);
  const std::vector<OXImage*> images = xGetImages(pName);
  OXValue result;
  result.arrayReserve(static_cast<int>(images.size()));
  for (size_t i = 0; i < images.size(); ++i) {
    result[static_cast<int>(i)] = OXValue(images[i] != nullptr);
  }
  return result;
}

OXValue OXVisionVideoInput::getImagesRemote(const std::string& pName) {
  std::vector<OXImage*> images;
  {
    OXCriticalSectionWrite lock(fVisionModulesLock);
    xFindSubscriber(pName, texts::kGetImagesRemote);
    images = xGetImages(pName);
  }
  if (images.empty()) return OXValue();
  OXValue reply = xJoinedReply(images, "getImagesRemote");
  releaseImages(pName);
  return reply;
}

OXValue OXVisionVideoInput::releaseImages(const std::string& pName) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  VisionModuleInfo& info = *xLookUpSubscriber(
      pName, {true, texts::kReleaseImagesMethod, texts::kReleaseImagesUnknown, nullptr, "\""},
      __LINE__);
  if (!info.fIsMultiStream) {
    xThrow(texts::kReleaseImagesMethod,
           std::string(texts::kMonoStreamRefused) + texts::kReleaseImagesWrongFamily, __LINE__);
  }
  std::vector<int> released;
  for (int camera : info.fActiveCameras) {
    if (camera < 0 || camera >= static_cast<int>(info.fRequestedProperties.size())) {
      released.push_back(0);
      continue;
    }
    RequestedCameraProperties& requested = *info.fRequestedProperties[camera];
    released.push_back(requested.fLockedImage != nullptr ? 1 : 0);
    if (requested.fLockedImage != nullptr) --requested.fLockedImage->fReadLockCount;
    requested.fLockedImage = nullptr;
  }
  return OXValue(released);
}

OXValue OXVisionVideoInput::xJoinedReply(const std::vector<OXImage*>& pImages,
                                         const char* pFunction) {
  const int count = static_cast<int>(pImages.size());
  OXValue reply;
  reply.arraySetSize(count + 1);
  const OXValue empty{OXValue::Array{}};
  // One array per device: the lock keeps a second reply from mixing its pixels into this one.
  OXCriticalSection guard(fBinaryBufferLock);
  int64_t total = 0;
  for (const OXImage* image : pImages) {
    if (image != nullptr) total += int64_t{image->fWidth} * image->fNbLayers * image->fHeight;
  }
  if (total > kBinaryBufferSize) {
    xLog(kLogError, pFunction,
         std::string(pFunction) + ": " + std::to_string(total) + " bytes of images exceed the " +
             std::to_string(kBinaryBufferSize) + " bytes of the reply buffer");
    return OXValue();
  }
  char* position = fBinaryBuffer.get();
  for (int i = 0; i < count; ++i) {
    const OXImage* image = pImages[i];
    if (image == nullptr) {
      reply[i] = empty;
      continue;
    }
    reply[i] = image->toOXValue(OXValue(empty));
    const size_t size = static_cast<size_t>(image->fWidth) * image->fNbLayers * image->fHeight;
    if (size > 0) std::memcpy(position, image->fData, size);
    position += size;
  }
  // Straight back to the caller: for a client that reads its replies from a shared-memory area
  // the pixels land there, and the host sends them without copying them again.
  reply[count] = OXValue::replyBinary(fBinaryBuffer.get(), static_cast<int>(total));
  return reply;
}

}  // namespace OX
