// The image pools of the cameras: buffers are born with a subscriber and die with it, and each
// delivery picks the oldest free buffer to write or the newest finished one to read.
#include <algorithm>
#include <new>
#include <thread>

#include "kilog.h"
#include "kios.h"
#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

OXVisionBuffer::OXVisionBuffer(int pResolution, int pColorSpace, bool pDataAreExternal)
    : fReadLockCount(0),
      fWriteLockCount(0),
      fImage(nullptr),
      fRawSource(nullptr),
      fContent(OXBinary::newContentKey()) {
  // Sized for the largest format so that a later change of format never reallocates. A fresh
  // image has time stamp 0, older than any real frame: a new buffer is written first.
  fImage = new (std::nothrow) OXImage(k4VGA, kYUV, pDataAreExternal, 0.0f, 0.0f, 0.0f, 0.0f);
  if (fImage == nullptr) {
    ki::log::LogStream(ki::log::kLogError, texts::kBufferCategory, "", "OXVisionCameraBuffer()", 0)
        << "Image buffer not created : fImage = NULL";
    return;
  }
  fImage->setResolution(pResolution);
  fImage->setColorSpace(pColorSpace);
}

OXVisionBuffer::~OXVisionBuffer() {
  delete fImage;
}

namespace {

enum class Age { kOldest, kNewest };

// The one search pattern: raise the buffer's own counter first, then check; keep the counter of
// the best buffer raised and lower every other. Ties keep the lower index, since only a strictly
// older (or newer) time stamp wins. pCount is how many entries of the pool to walk.
template <class Fits>
int lockBest(std::vector<OXVisionBuffer*>& pPool, size_t pCount, int OXVisionBuffer::*pCounter,
             Age pAge, Fits pFits) {
  int best = -1;
  for (size_t i = 0; i < pCount; ++i) {
    OXVisionBuffer& buffer = *pPool[i];
    ++(buffer.*pCounter);
    if (buffer.fImage == nullptr || !pFits(buffer)) {
      --(buffer.*pCounter);
      continue;
    }
    if (best < 0) {
      best = static_cast<int>(i);
      continue;
    }
    OXVisionBuffer& current = *pPool[best];
    const bool wins = pAge == Age::kOldest ? buffer.fImage->fTimeStamp < current.fImage->fTimeStamp
                                           : buffer.fImage->fTimeStamp > current.fImage->fTimeStamp;
    if (wins) {
      --(current.*pCounter);
      best = static_cast<int>(i);
    } else {
      --(buffer.*pCounter);
    }
  }
  return best;
}

bool freeForEditing(const OXVisionBuffer& pBuffer) {
  return pBuffer.fReadLockCount == 0 && pBuffer.fWriteLockCount <= 1;
}

bool freeForReading(const OXVisionBuffer& pBuffer) {
  return pBuffer.fWriteLockCount == 0;
}

bool hasFormat(const OXVisionBuffer& pBuffer, int pWidth, int pHeight, int pColorSpace) {
  return pBuffer.fImage->fWidth == pWidth && pBuffer.fImage->fHeight == pHeight &&
         pBuffer.fImage->fColorSpace == pColorSpace;
}

// Passes of the erase before it gives up. A buffer can still come free meanwhile when its
// reader copies it outside the device lock (a remote reply); a release through the lock cannot,
// since the caller holds it. The thread yields between passes so that such a copy can end.
constexpr int kErasePasses = 100000;

}  // namespace

bool OXVisionVideoInput::xCreateBuffersForStoringImages(const int& pCameraIndex,
                                                        const int& pResolution,
                                                        const int& pColorSpace) {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) return false;
  RealCameraProperties& camera = *fCameraProperties[pCameraIndex];
  OXVisionBuffer* converted = new (std::nothrow) OXVisionBuffer(pResolution, pColorSpace, false);
  if (converted == nullptr || converted->fImage == nullptr) {
    delete converted;
    xLog(kLogError, "xCreateBuffersForStoringImages",
         "xCreateBuffersForStoringImages(): Could not allocate memory for OXVisionBuffer.");
    return false;
  }
  camera.fImageBuffers.push_back(converted);
  OXVisionBuffer* raw =
      new (std::nothrow) OXVisionBuffer(camera.fResolution, camera.fColorSpace, true);
  if (raw == nullptr || raw->fImage == nullptr) {
    delete raw;
    xLog(kLogError, "xCreateBuffersForStoringImages",
         "xCreateBuffersForStoringImages(): Could not allocate memory for OXVisionBuffer.");
    return false;
  }
  camera.fRawBuffers.push_back(raw);
  return true;
}

int OXVisionVideoInput::xLockTheOldestBufferForEditing(const int8_t& pCameraIndex,
                                                       const int& pWidth, const int& pHeight,
                                                       const int& pColorSpace) {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) return -1;
  std::vector<OXVisionBuffer*>& pool = fCameraProperties[pCameraIndex]->fImageBuffers;
  const int best =
      lockBest(pool, pool.size(), &OXVisionBuffer::fWriteLockCount, Age::kOldest,
               [&](const OXVisionBuffer& pBuffer) {
                 return freeForEditing(pBuffer) && hasFormat(pBuffer, pWidth, pHeight, pColorSpace);
               });
  // Whoever edits may change the pixels: what remote replies knew of them is stale.
  if (best >= 0) {
    pool[best]->fContent = OXBinary::newContentKey();
    pool[best]->fRemoteCopy = OXBinary();
  }
  return best;
}

int OXVisionVideoInput::xLockTheOldestBufferForEditing(const int8_t& pCameraIndex) {
  int best = -1;
  if (pCameraIndex >= 0 && pCameraIndex < static_cast<int>(fCameraProperties.size())) {
    std::vector<OXVisionBuffer*>& pool = fCameraProperties[pCameraIndex]->fRawBuffers;
    best =
        lockBest(pool, pool.size(), &OXVisionBuffer::fWriteLockCount, Age::kOldest, freeForEditing);
  }
  if (best < 0) {
    xLog(kLogError, "xLockTheOldestBufferForEditing",
         getName() + ": error searching for the oldest" +
             " buffer to edit, please verify that release method has been call.");
  }
  return best;
}

int OXVisionVideoInput::xLockTheNewestBufferForReading(const int8_t& pCameraIndex,
                                                       const int& pWidth, const int& pHeight,
                                                       const int& pColorSpace) {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) return -1;
  std::vector<OXVisionBuffer*>& pool = fCameraProperties[pCameraIndex]->fImageBuffers;
  return lockBest(pool, pool.size(), &OXVisionBuffer::fReadLockCount, Age::kNewest,
                  [&](const OXVisionBuffer& pBuffer) {
                    return freeForReading(pBuffer) &&
                           hasFormat(pBuffer, pWidth, pHeight, pColorSpace);
                  });
}

int OXVisionVideoInput::xLockTheNewestBufferForReading(const int8_t& pCameraIndex) {
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) return -1;
  RealCameraProperties& camera = *fCameraProperties[pCameraIndex];
  // The pools have the same length; the shorter one bounds the walk should an allocation have
  // failed half-way.
  const size_t count = std::min(camera.fImageBuffers.size(), camera.fRawBuffers.size());
  return lockBest(camera.fRawBuffers, count, &OXVisionBuffer::fReadLockCount, Age::kNewest,
                  freeForReading);
}

namespace {

// Walks pPool for the oldest buffer that may be edited, erases it and returns true; false when
// none could be had after the passes allowed.
template <class Fits>
bool eraseOldest(std::vector<OXVisionBuffer*>& pPool, Fits pFits) {
  for (int pass = 0; pass < kErasePasses; ++pass) {
    const int best = lockBest(
        pPool, pPool.size(), &OXVisionBuffer::fWriteLockCount, Age::kOldest,
        [&](const OXVisionBuffer& pBuffer) { return freeForEditing(pBuffer) && pFits(pBuffer); });
    if (best >= 0) {
      delete pPool[best];
      pPool.erase(pPool.begin() + best);
      return true;
    }
    std::this_thread::yield();
  }
  return false;
}

}  // namespace

void OXVisionVideoInput::xFindAndEraseTheOldestBuffer(std::vector<OXVisionBuffer*>& pPool) {
  if (pPool.empty()) {
    xLog(kLogError, "xFindAndEraseTheOldestBuffer",
         getName() + ": xFindAndEraseTheOldestBuffer(): no buffer to erase, the pool is empty.");
    return;
  }
  if (!eraseOldest(pPool, [](const OXVisionBuffer&) { return true; })) {
    xLog(kLogError, "xFindAndEraseTheOldestBuffer",
         getName() + ": xFindAndEraseTheOldestBuffer(): every buffer is held, none erased.");
  }
}

void OXVisionVideoInput::xFindAndEraseTheOldestBuffer(
    std::vector<OXVisionBuffer*>& pPool, const boost::shared_ptr<VisionModuleInfo>& pInfo) {
  if (pPool.empty()) {
    xLog(kLogError, "xFindAndEraseTheOldestBuffer",
         getName() + ": xFindAndEraseTheOldestBuffer(): no buffer to erase, the pool is empty.");
    return;
  }
  const int camera = xCurrentCamera(*pInfo);
  int width = -1;
  int height = -1;
  int colorSpace = -1;
  if (camera >= 0 && camera < static_cast<int>(pInfo->fRequestedProperties.size())) {
    const RequestedCameraProperties& requested = *pInfo->fRequestedProperties[camera];
    setSizeFromResolution(requested.fResolution, width, height);
    colorSpace = requested.fColorSpace;
  }
  if (!eraseOldest(pPool, [&](const OXVisionBuffer& pBuffer) {
        return hasFormat(pBuffer, width, height, colorSpace);
      })) {
    xLog(kLogError, "xFindAndEraseTheOldestBuffer",
         getName() + ": xFindAndEraseTheOldestBuffer(): no free buffer of the format of " +
             pInfo->fName + ", none erased.");
  }
}

void OXVisionVideoInput::xForceReleaseBuffer(const std::string& pName) {
  const boost::shared_ptr<VisionModuleInfo> found =
      xLookUpSubscriber(pName, {false, "xForceReleaseBuffer", "xForceReleaseBuffer(",
                                texts::kModuleMiddle, texts::kUnknownTail});
  if (!found) return;
  VisionModuleInfo& info = *found;
  for (int i = 0; i < fNbCameras && i < static_cast<int>(info.fRequestedProperties.size()); ++i) {
    RequestedCameraProperties& requested = *info.fRequestedProperties[i];
    OXVisionBuffer* held = requested.fLockedImage;
    if (held == nullptr) continue;
    const std::vector<OXVisionBuffer*>& converted = fCameraProperties[i]->fImageBuffers;
    if (std::find(converted.begin(), converted.end(), held) != converted.end()) {
      requested.fLockedImage = nullptr;
      --held->fReadLockCount;
    } else {
      // A raw image: the driver takes it back and clears the hold on its side.
      xReleaseDirectRawImageDeep(pName, i);
    }
  }
}

}  // namespace OX
