// The raw-frame protocol between a camera and its subscribers, one version for every camera: a
// camera lends one of its own frames, without copying the pixels, through an output buffer of its
// fRawBuffers, and takes it back when the subscriber releases it.
//
// Counters: an output buffer's fWriteLockCount works as a try-lock (2 or more: someone else is
// busy with it), its fReadLockCount counts its holders, and fRawSource remembers the camera's
// record of the frame while it is lent. They are plain ints, safe because every caller holds
// fVisionModulesLock for writing.
#include "device/oxvisionvideoinput.h"

namespace OX {

OXImage* OXVisionVideoInput::xLendRawFrame(int pCamera, const OXImage& pFrame, void* pSource,
                                           RequestedCameraProperties& pRequested) {
  for (OXVisionBuffer* output : fCameraProperties[pCamera]->fRawBuffers) {
    ++output->fWriteLockCount;
    if (output->fReadLockCount != 0 || output->fWriteLockCount >= 2) {
      --output->fWriteLockCount;
      continue;
    }
    output->fImage->fData = pFrame.fData;
    output->fImage->fTimeStamp = pFrame.fTimeStamp;
    output->fRawSource = pSource;
    ++output->fReadLockCount;
    --output->fWriteLockCount;
    pRequested.fLockedImage = output;
    return output->fImage;
  }
  return nullptr;
}

void* OXVisionVideoInput::xTakeBackRawFrame(RequestedCameraProperties& pRequested,
                                            ReleasedStamp pStamp) {
  OXVisionBuffer* output = pRequested.fLockedImage;
  if (output == nullptr) return nullptr;
  void* lastUse = nullptr;
  ++output->fWriteLockCount;
  if (output->fReadLockCount < 2 && output->fWriteLockCount < 2) {
    // The last user: the camera's frame may be rewritten once every borrower has given it back.
    // The output buffer keeps pointing at the old pixels; a forgotten stamp (-1) keeps the
    // delivery from ever taking it for a recent raw image.
    if (pStamp == ReleasedStamp::kForget) output->fImage->fTimeStamp = -1;
    lastUse = output->fRawSource;
    output->fRawSource = nullptr;
  }
  --output->fWriteLockCount;
  pRequested.fLockedImage = nullptr;
  --output->fReadLockCount;
  return lastUse;
}

}  // namespace OX
