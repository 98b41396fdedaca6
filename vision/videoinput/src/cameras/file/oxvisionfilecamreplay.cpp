// The replay engine: which recorded image a subscriber gets when it asks, the ring of frames read
// one ahead, the rewritten timestamps, the stepping methods and the grabber.
//
// The grabber's states and moves are those of GrabberState (device/oxvisionvideoinputrecords.h).
#include <cmath>
#include <limits>
#include <sstream>

#include "kios.h"
#include "oxerror.h"
#include "cameras/file/oxvisionfilecam.h"

namespace OX {

namespace {

const char* const kCategory = "vision.oxvisionfilecam";

// The wait for a free slot lasts as long as the device's other image waits: one second.
constexpr int kRingWaitPasses = 2000;
constexpr unsigned int kRingWaitMicroseconds = 500;
constexpr unsigned int kAfterStartMicroseconds = 100;
constexpr unsigned int kAfterStopMicroseconds = 500;
constexpr unsigned int kOpeningPollMicroseconds = 500000;
// The source file and line that the error of a failed start names. They are fixed texts, not
// where this code lives: clients compare the whole error, file and line included.
constexpr const char* kGrabberSource = "vision/videoinput/src/oxvisionfilecam";
constexpr int kGrabberLine = 351;
// The longest replay period, in microseconds, and the slowest speed that gives one shorter.
constexpr double kLargestPeriod = 9.2e18;
constexpr double kSlowestSpeed = 1.1e-13;

}  // namespace

bool OXVisionFileCam::xMoveRing(const char* pFunction) {
  const uint32_t current = fCurrentFrame;
  const uint32_t next = fNextFrame;
  fCurrentFrame = fNextFrame;
  // Every release needs the device's write lock, which our callers hold: a wait without end
  // would never see a slot come free. Give up after the device's usual image wait.
  int counter = 0;
  int passes = 0;
  for (;;) {
    fNextFrame = (fNextFrame + 1) % kRingSize;
    if (fFrames[fNextFrame].fLockCount <= 0) return true;
    if (++counter < kRingSize) continue;
    counter = 0;
    if (++passes > kRingWaitPasses) break;
    ki::os::usleep(kRingWaitMicroseconds);
  }
  fCurrentFrame = current;
  fNextFrame = next;
  xLog(kLogError, pFunction, "All the frames of the replay are held: no free frame to read into.",
       kCategory);
  return false;
}

bool OXVisionFileCam::xReadAhead(bool pModeZero) {
  OXImage& current = xSlot(fCurrentFrame);
  OXImage& next = xSlot(fNextFrame);
  if (fCurrentImage > fLastImage && fLoop) {
    if (fLoopDuration == 0) {
      const int64_t count = fVideo.getNumberOfImages();
      if (count > 0) fLoopDuration = (count + 1) * (current.fTimeStamp - fFirstTimestamp) / count;
    }
    fTimeOffset += fLoopDuration;
    fCurrentImage = fFirstImage;
    fVideo.getFrame(&next, fFirstImage, fStreamNumber, false);
    ++fCurrentImage;
    next.fTimeStamp += fTimeOffset;
    return fLoopDuration > 0;
  }
  if (fCurrentImage > fLastImage) {
    fCurrentImage = fLastImage;
    fVideo.getFrame(&next, fLastImage, fStreamNumber, false);
    if (pModeZero) {
      // Each repeat of the last image is one microsecond later than the one before.
      ++fTimeOffset;
      next.fTimeStamp += fTimeOffset;
      ++fCurrentImage;
    } else {
      ++fCurrentImage;
      // Dated just after the present, so that the catching-up of mode 1 ends.
      next.fTimeStamp = fNow + fFirstTimestamp + 1 - fStartTime;
    }
    return true;
  }
  fVideo.getNextFrame(&next, false);
  if (pModeZero) {
    // Timestamps in mode 0 never go backward, also after previousImage.
    if (current.fTimeStamp < fTimeOffset + next.fTimeStamp) {
      next.fTimeStamp += fTimeOffset;
    } else {
      next.fTimeStamp = current.fTimeStamp + 1;
    }
    ++fCurrentImage;
  } else {
    ++fCurrentImage;
    next.fTimeStamp += fTimeOffset;
  }
  return true;
}

CamBuffer* OXVisionFileCam::xServeFrame(const std::string& pId) {
  OXCriticalSection lock(fParametersLock);
  switch (fReplayMode) {
    case 1:
      fNow = replayClock();
      while (xSlot(fNextFrame).fTimeStamp - fFirstTimestamp < fNow - fStartTime) {
        if (!xMoveRing("xGetDirectRawImage")) return nullptr;
        if (!xReadAhead(false)) break;
      }
      break;
    case 0:
      fNow = replayClock();
      if (!(fReplayPeriod > fNow - fStartTime)) fImageServed = false;
      if (!fImageServed) {
        fStartTime = replayClock();
        if (!xMoveRing("xGetDirectRawImage")) return nullptr;
        xReadAhead(true);
        fImageServed = true;
      }
      break;
    case 2:
    case 3:
      xLog(kLogFatal, "xGetDirectRawImage",
           "GetDirectRawImage(" + pId + ") : replay mode " + std::to_string(fReplayMode) +
               " not yet implemented. Launch replay mode 1 (synchronized with the inner "
               "clock)...",
           kCategory);
      fReplayMode = 1;
      break;
    default:
      xLog(kLogError, "xGetDirectRawImage",
           "GetDirectRawImage(" + pId + ") : replay mode " + std::to_string(fReplayMode) +
               " unknown!",
           kCategory);
      return nullptr;
  }
  CamBuffer* slot = &fFrames[fCurrentFrame];
  ++slot->fLockCount;
  return slot;
}

OXImage* OXVisionFileCam::xGetDirectRawImage(const std::string& pId, bool) {
  // pDeepCopy is not looked at: the image always borrows a frame of the ring.
  const boost::shared_ptr<VisionModuleInfo> info = xLookUpSubscriber(
      pId,
      {false, "xGetDirectRawImage", "xGetDirectRawImage(", ") : module ", " unknown!", kCategory});
  if (!info) return nullptr;
  const int camera = xCurrentCamera(*info);
  if (camera < 0 || camera >= static_cast<int>(info->fRequestedProperties.size())) {
    xLog(kLogError, "xGetDirectRawImage",
         "xGetDirectRawImage(" + pId + ") : camera " + std::to_string(camera) + " unknown!",
         kCategory);
    return nullptr;
  }
  RequestedCameraProperties& requested = *info->fRequestedProperties[camera];
  if (requested.fLockedImage != nullptr) {
    xLog(kLogError, "xGetDirectRawImage", "Previous image not released", kCategory);
    return nullptr;
  }
  CamBuffer* slot = xServeFrame(pId);
  if (slot == nullptr) return nullptr;
  // The camera identifier comes from the file: a video may switch cameras image by image.
  xAdoptCamera(*slot->fImage, "xGetDirectRawImage");
  OXImage* lent = xLendRawFrame(fActiveCamera, *slot->fImage, slot, requested);
  if (lent != nullptr) return lent;
  // The slot's count stays raised: nobody gives it back, so the slot leaves the ring, and once
  // every slot is out each request logs that all the frames of the replay are held. A replay
  // stands in for the live camera, whose frames are lost the same way on this path.
  xLog(kLogError, "xGetDirectRawImage",
       "xGetDirectRawImage(" + pId + ") : error trying to find available buffer.", kCategory);
  return nullptr;
}

void OXVisionFileCam::nextImage() {
  fImageServed = false;
}

void OXVisionFileCam::previousImage() {
  OXCriticalSection lock(fParametersLock);
  const int64_t stamp = xSlot(fCurrentFrame).fTimeStamp;
  if (!xMoveRing("previousImage")) return;
  OXImage& current = xSlot(fCurrentFrame);
  OXImage& next = xSlot(fNextFrame);
  if (fCurrentImage > fFirstImage) {
    // Two steps back and one forward leave fCurrentImage one behind the reader: after a step
    // back the replay counts one image less than it serves, so a loop back to the start comes
    // one request late. Users step through recordings by this count, so it stays.
    fVideo.getPrecedingFrame(&current, false);
    fVideo.getPrecedingFrame(&current, false);
    current.fTimeStamp = stamp + 1;
    xAdoptCamera(current, "previousImage");
    fVideo.getNextFrame(&next, false);
    fCurrentImage -= 2;
    next.fTimeStamp = stamp + 2;
  } else if (fLoop) {
    xLog(kLogInfo, "previousImage",
         "Loop from index " + std::to_string(fCurrentImage) + " to index " +
             std::to_string(fLastImage - 1),
         kCategory);
    fCurrentImage = fLastImage - 1;
    fVideo.getFrame(&current, fCurrentImage, fStreamNumber, false);
    current.fTimeStamp = stamp + 1;
    xAdoptCamera(current, "previousImage");
    fVideo.getNextFrame(&next, false);
    ++fCurrentImage;
    next.fTimeStamp = stamp + 2;
  }
}

void OXVisionFileCam::replaySpeed(const float& pImagesPerSecond) {
  if (pImagesPerSecond == 0.0f) {
    fReplayPeriod = std::numeric_limits<int64_t>::max();
    return;
  }
  const double period = 1.0 / static_cast<double>(pImagesPerSecond) * 1000000.0;
  // Not a number, or so slow that the period has no 64-bit count of microseconds: the
  // truncation would be undefined.
  if (!(std::fabs(period) < kLargestPeriod)) {
    std::ostringstream text;
    text << "imagesPerSecond " << pImagesPerSecond
         << " out of range: 0, or a number of images per second of at least " << kSlowestSpeed
         << " in size";
    xThrow("replaySpeed()", text.str(), __LINE__);
  }
  fReplayPeriod = static_cast<int64_t>(period);
}

int OXVisionFileCam::getCurrentImageNumber() {
  return fVideo.getCurrentImageNumber();
}

bool OXVisionFileCam::xStartFrameGrabber(const int& pCameraIndex) {
  std::atomic<GrabberState>& state = fCameraProperties.at(pCameraIndex)->fGrabberState;
  if (state > GrabberState::kStopped) return true;
  state = GrabberState::kOpening;
  bool opened = false;
  try {
    opened = xOpenDevice();
  } catch (...) {
    // Left at "opening", every later stop would poll for ever.
    state = GrabberState::kFailed;
    throw;
  }
  if (!opened) {
    state = GrabberState::kFailed;
    xLog(kLogError, "xStartFrameGrabber", "Can't open video file.", kCategory);
    throw OXError(getName(), "startFrameGrabber", "Can't open video file.", kGrabberSource,
                  kGrabberLine);
  }
  state = GrabberState::kRunning;
  ki::os::usleep(kAfterStartMicroseconds);
  xLog(kLogInfo, "xStartFrameGrabber", "Done", kCategory);
  return true;
}

bool OXVisionFileCam::xStopFrameGrabber(const int& pCameraIndex) {
  std::atomic<GrabberState>& state = fCameraProperties.at(pCameraIndex)->fGrabberState;
  while (state == GrabberState::kOpening) ki::os::usleep(kOpeningPollMicroseconds);
  if (state <= GrabberState::kClosing) return true;
  state = GrabberState::kClosing;
  if (!xCloseDevice()) {
    xLog(kLogError, "xStopFrameGrabber", "Error clothing file", kCategory);
    state = GrabberState::kFailed;
    return false;
  }
  state = GrabberState::kStopped;
  xLog(kLogInfo, "xStopFrameGrabber", "File closed", kCategory);
  ki::os::usleep(kAfterStopMicroseconds);
  return true;
}

}  // namespace OX
