// Raw acquisition: the newest pushed frame is converted once into one of four YUV422 frames and
// lent, without a copy, through the camera's output buffers to every subscriber that asks.
//
// Counters: fReadLockCount of a driver frame counts the subscribers holding it (rewritable at 0
// or less); an output buffer's fWriteLockCount works as a try-lock (2 or more: someone else is
// busy with it). They are plain ints, safe because the callers hold fVisionModulesLock for
// writing; fMutex of the camera covers only the conversion and its bookkeeping.
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

}  // namespace

OXImage* OXVisionSimulatorCam::xTakeRawImage(const std::string& pId, int pCamera,
                                             const char* pOperation, bool pMultiStream,
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
      xLog(2, pOperation, getName() + texts::kNoImageHead + quoted(pId) + texts::kNoImageTail,
           texts::kCategory);
      return nullptr;
    }
  }

  OXVisionBuffer* raw = nullptr;
  {
    OXCriticalSection lock(store->fMutex);
    OXImage& input = *store->fInputBuffers[store->fLastInputBuffer]->fImage;
    std::vector<boost::shared_ptr<OXVisionBuffer>>& frames = store->fDriverBuffers;
    int index = store->fLastDriverBuffer;
    if (index >= 0 && frames[index]->fImage->fTimeStamp == input.fTimeStamp) {
      // Converted already for another subscriber: share it.
      ++frames[index]->fReadLockCount;
    } else {
      // First use takes entry 0; later frames the lowest entry that nobody holds.
      index = -1;
      if (store->fLastDriverBuffer == -1) {
        index = 0;
      } else {
        for (size_t i = 0; i < frames.size() && index < 0; ++i) {
          if (frames[i]->fReadLockCount <= 0) index = static_cast<int>(i);
        }
        if (index < 0) {
          xLog(2, pOperation, head + texts::kNoRawBuffer, texts::kCategory);
          return nullptr;
        }
      }
      OXImage& frame = *frames[index]->fImage;
      if (!xReSize(pCamera, input, frame.fData)) {
        xLog(2, pOperation, head + texts::kResizingError, texts::kCategory);
        return nullptr;
      }
      frame.fTimeStamp = input.fTimeStamp;
      store->fLastDriverBuffer = index;
      ++frames[index]->fReadLockCount;
    }
    raw = frames[index].get();
  }

  pEndsLoop = false;
  // Lend: the first output buffer that is free takes the frame's pixels by pointer.
  for (OXVisionBuffer* output : fCameraProperties[pCamera]->fRawBuffers) {
    ++output->fWriteLockCount;
    if (output->fReadLockCount != 0 || output->fWriteLockCount >= 2) {
      --output->fWriteLockCount;
      continue;
    }
    output->fImage->fData = raw->fImage->fData;
    output->fImage->fTimeStamp = raw->fImage->fTimeStamp;
    output->fRawSource = raw;
    ++output->fReadLockCount;
    --output->fWriteLockCount;
    fVisionModules[pId]->fRequestedProperties[pCamera]->fLockedImage = output;
    return output->fImage;
  }
  // The driver frame's count stays raised on this path: kept as it is.
  if (pMultiStream) {
    xLog(2, pOperation, texts::kNoOutputBufferPluralHead + pId + texts::kNoOutputBufferPlural,
         texts::kSimulatorCategory);
  } else {
    xLog(2, pOperation, head + texts::kNoOutputBuffer, texts::kCategory);
  }
  return nullptr;
}

OXImage* OXVisionSimulatorCam::xGetDirectRawImage(const std::string& pId, bool) {
  // pDeepCopy is not looked at: the image always borrows the driver frame.
  auto found = fVisionModules.find(pId);
  if (found == fVisionModules.end() || !found->second) {
    xLog(2, "xGetDirectRawImage", "Module " + pId + " unknown!", texts::kCategory);
    return nullptr;
  }
  const int camera = xCurrentCamera(*found->second);
  if (xDriverBuffer(camera, "xGetDirectRawImage") == nullptr) return nullptr;
  if (found->second->fRequestedProperties[camera]->fLockedImage != nullptr) {
    xLog(2, "xGetDirectRawImage",
         getName() + texts::kNotReleasedHead + quoted(pId) + texts::kNotReleasedTail,
         texts::kCategory);
    return nullptr;
  }
  bool endsLoop = false;
  return xTakeRawImage(pId, camera, "xGetDirectRawImage", false, endsLoop);
}

std::vector<OXImage*> OXVisionSimulatorCam::xGetDirectRawImages(const std::string& pId) {
  std::vector<OXImage*> images;
  auto found = fVisionModules.find(pId);
  if (found == fVisionModules.end() || !found->second) {
    xLog(2, "xGetDirectRawImages", "Module " + pId + " unknown!", texts::kCategory);
    return images;
  }
  const VisionModuleInfo& info = *found->second;
  for (int camera : info.fActiveCameras) {
    if (xDriverBuffer(camera, "xGetDirectRawImages") == nullptr) return images;
    if (info.fRequestedProperties[camera]->fLockedImage != nullptr) {
      xLog(2, "xGetDirectRawImages",
           texts::kPreviousImage + std::to_string(camera) + texts::kPreviousImageTail,
           texts::kAtomCategory);
      return images;
    }
  }
  for (int camera : info.fActiveCameras) {
    bool endsLoop = false;
    OXImage* image = xTakeRawImage(pId, camera, "xGetDirectRawImages", true, endsLoop);
    if (image == nullptr && endsLoop) break;
    images.push_back(image);
  }
  return images;
}

bool OXVisionSimulatorCam::xReleaseDirectRawImageDeep(const std::string& pId,
                                                      const int& pCameraIndex) {
  auto found = fVisionModules.find(pId);
  if (found == fVisionModules.end()) {
    xLog(2, "xReleaseDirectRawImageDeep", "Module " + pId + " unknown!", texts::kCategory);
    return false;
  }
  CameraDriverBuffer* store = xDriverBuffer(pCameraIndex, "xReleaseDirectRawImageDeep");
  if (store == nullptr) return false;
  RequestedCameraProperties& requested = *found->second->fRequestedProperties[pCameraIndex];
  OXVisionBuffer* output = requested.fLockedImage;
  if (output == nullptr) return true;
  ++output->fWriteLockCount;
  if (output->fReadLockCount < 2 && output->fWriteLockCount < 2) {
    // The last user: the driver frame may be rewritten once every borrower has given it back.
    output->fImage->fTimeStamp = -1;
    for (const auto& frame : store->fDriverBuffers) {
      if (frame.get() == output->fRawSource) --frame->fReadLockCount;
    }
    output->fRawSource = nullptr;
  }
  --output->fWriteLockCount;
  requested.fLockedImage = nullptr;
  --output->fReadLockCount;
  return true;
}

}  // namespace OX
