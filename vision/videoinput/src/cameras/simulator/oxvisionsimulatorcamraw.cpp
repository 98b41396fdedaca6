// Raw acquisition: the newest pushed frame is converted once into one of four YUV422 frames and
// lent, without a copy, through the camera's output buffers to every subscriber that asks.
//
// Counters: fReadLockCount of a driver frame counts the subscribers holding it (rewritable at 0
// or less). It is a plain int, safe because the callers hold fVisionModulesLock for writing;
// fMutex of the camera covers only the conversion and its bookkeeping. The lending through the
// output buffers and their return are the device's (xLendRawFrame, xTakeBackRawFrame).
#include "kios.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "cameras/simulator/oxvisionsimulatorcamtexts.h"

namespace OX {

namespace texts = simulatortexts;

namespace {

// The wait for a first frame: one second in all.
constexpr int kFirstFramePasses = 2000;
constexpr unsigned int kFirstFrameMicroseconds = 500;

std::string quoted(const std::string& pText) {
  return "\"" + pText + "\"";
}

// The record of a lookup of a name that is not subscribed.
constexpr UnknownSubscriber unknownTo(const char* pFunction) {
  return {false, pFunction, "Module ", nullptr, " unknown!", texts::kCategory};
}

}  // namespace

OXVisionBuffer* OXVisionSimulatorCam::xNewestFrame(CameraDriverBuffer& pStore, int pCamera,
                                                   const std::string& pHead,
                                                   const char* pOperation) {
  OXCriticalSection lock(pStore.fMutex);
  OXImage& input = *pStore.fInputBuffers[pStore.fLastInputBuffer]->fImage;
  std::vector<boost::shared_ptr<OXVisionBuffer>>& frames = pStore.fDriverBuffers;
  int index = pStore.fLastDriverBuffer;
  if (index >= 0 && frames[index]->fImage->fTimeStamp == input.fTimeStamp) {
    // Converted already for another subscriber: share it.
    ++frames[index]->fReadLockCount;
    return frames[index].get();
  }
  // First use takes entry 0; later frames the lowest entry that nobody holds.
  index = -1;
  if (pStore.fLastDriverBuffer == -1) {
    index = 0;
  } else {
    for (size_t i = 0; i < frames.size() && index < 0; ++i) {
      if (frames[i]->fReadLockCount <= 0) index = static_cast<int>(i);
    }
    if (index < 0) {
      xLog(kLogError, pOperation, pHead + texts::kNoRawBuffer, texts::kCategory);
      return nullptr;
    }
  }
  OXImage& frame = *frames[index]->fImage;
  if (!xReSize(pCamera, input, frame.fData)) {
    xLog(kLogError, pOperation, pHead + texts::kResizingError, texts::kCategory);
    return nullptr;
  }
  frame.fTimeStamp = input.fTimeStamp;
  pStore.fLastDriverBuffer = index;
  ++frames[index]->fReadLockCount;
  return frames[index].get();
}

OXImage* OXVisionSimulatorCam::xTakeRawImage(const std::string& pId, VisionModuleInfo& pInfo,
                                             int pCamera, const char* pOperation, bool pMultiStream,
                                             bool& pEndsLoop) {
  pEndsLoop = true;
  const std::string head = std::string(pOperation) + "(" + pId;
  CameraDriverBuffer* store = xDriverBuffer(pCamera, pOperation);
  if (store == nullptr) return nullptr;

  // No lock here: the pusher must be able to deliver meanwhile.
  if (store->fLastInputBuffer == -1) {
    for (int pass = 0; pass < kFirstFramePasses && store->fLastInputBuffer == -1; ++pass) {
      ki::os::usleep(kFirstFrameMicroseconds);
    }
    if (store->fLastInputBuffer == -1) {
      xLog(kLogError, pOperation,
           getName() + texts::kNoImageHead + quoted(pId) + texts::kNoImageTail, texts::kCategory);
      return nullptr;
    }
  }
  OXVisionBuffer* raw = xNewestFrame(*store, pCamera, head, pOperation);
  if (raw == nullptr) return nullptr;

  pEndsLoop = false;
  OXImage* lent = xLendRawFrame(pCamera, *raw->fImage, raw, *pInfo.fRequestedProperties[pCamera]);
  if (lent != nullptr) return lent;
  // The frame's count stays raised: nobody gives it back, so the entry leaves the rotation, and
  // after four such failures every request logs "no available raw buffer". The simulator stands
  // in for the robot's camera driver, which loses the frame the same way: a client meets the
  // same failures here as on the robot.
  if (pMultiStream) {
    xLog(kLogError, pOperation,
         texts::kNoOutputBufferPluralHead + pId + texts::kNoOutputBufferPlural,
         texts::kSimulatorCategory);
  } else {
    xLog(kLogError, pOperation, head + texts::kNoOutputBuffer, texts::kCategory);
  }
  return nullptr;
}

OXImage* OXVisionSimulatorCam::xGetDirectRawImage(const std::string& pId, bool) {
  // pDeepCopy is not looked at: the image always borrows the driver frame.
  const boost::shared_ptr<VisionModuleInfo> info =
      xLookUpSubscriber(pId, unknownTo("xGetDirectRawImage"));
  if (!info) return nullptr;
  const int camera = xCurrentCamera(*info);
  if (xDriverBuffer(camera, "xGetDirectRawImage") == nullptr) return nullptr;
  if (info->fRequestedProperties[camera]->fLockedImage != nullptr) {
    xLog(kLogError, "xGetDirectRawImage",
         getName() + texts::kNotReleasedHead + quoted(pId) + texts::kNotReleasedTail,
         texts::kCategory);
    return nullptr;
  }
  bool endsLoop = false;
  return xTakeRawImage(pId, *info, camera, "xGetDirectRawImage", false, endsLoop);
}

std::vector<OXImage*> OXVisionSimulatorCam::xGetDirectRawImages(const std::string& pId) {
  std::vector<OXImage*> images;
  const boost::shared_ptr<VisionModuleInfo> info =
      xLookUpSubscriber(pId, unknownTo("xGetDirectRawImages"));
  if (!info) return images;
  for (int camera : info->fActiveCameras) {
    if (xDriverBuffer(camera, "xGetDirectRawImages") == nullptr) return images;
    if (info->fRequestedProperties[camera]->fLockedImage != nullptr) {
      xLog(kLogError, "xGetDirectRawImages",
           texts::kPreviousImage + std::to_string(camera) + texts::kPreviousImageTail,
           texts::kAtomCategory);
      return images;
    }
  }
  for (int camera : info->fActiveCameras) {
    bool endsLoop = false;
    OXImage* image = xTakeRawImage(pId, *info, camera, "xGetDirectRawImages", true, endsLoop);
    if (image == nullptr && endsLoop) break;
    images.push_back(image);
  }
  return images;
}

bool OXVisionSimulatorCam::xReleaseDirectRawImageDeep(const std::string& pId,
                                                      const int& pCameraIndex) {
  const boost::shared_ptr<VisionModuleInfo> info =
      xLookUpSubscriber(pId, unknownTo("xReleaseDirectRawImageDeep"));
  if (!info) return false;
  CameraDriverBuffer* store = xDriverBuffer(pCameraIndex, "xReleaseDirectRawImageDeep");
  if (store == nullptr) return false;
  // The released output buffer forgets its stamp: the delivery never takes it for a recent raw
  // image, since the simulator may rewrite the frame as soon as its last borrower is gone.
  const void* frame =
      xTakeBackRawFrame(*info->fRequestedProperties[pCameraIndex], ReleasedStamp::kForget);
  for (const auto& entry : store->fDriverBuffers) {
    if (entry.get() == frame) --entry->fReadLockCount;
  }
  return true;
}

}  // namespace OX
