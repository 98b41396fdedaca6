// The plain records of the video device: image buffers, subscribers, what they ask of a camera
// and what each camera really does. Their fields are written directly, under fVisionModulesLock.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "device/oxvisionvideoinputcounts.h"
#include "oximage.h"
#include "oxvideo.h"

namespace OX {

// One image of a camera's pools. The counters are plain ints: they are only safe because every
// operation that touches them runs with fVisionModulesLock held for writing.
class OXVisionBuffer {
 public:
  // Allocates an image sized for the largest format (k4VGA, three bytes a pixel) so that a later
  // change of format never reallocates, then sets it to the format asked. With pDataAreExternal
  // the image owns no pixels. A failed allocation is logged and leaves fImage null.
  OXVisionBuffer(int pResolution, int pColorSpace, bool pDataAreExternal);
  ~OXVisionBuffer();
  OXVisionBuffer(const OXVisionBuffer&) = delete;
  OXVisionBuffer& operator=(const OXVisionBuffer&) = delete;

  int fReadLockCount;   // subscribers and searches that hold it for reading
  int fWriteLockCount;  // writers and searches that hold it for editing
  OXImage* fImage;      // owned
  void* fRawSource;     // not owned: the driver frame that lent its pixels (concrete sources)
  // Names what the pixels hold (OXBinary::newContentKey): new each time the buffer is locked for
  // editing. Remote replies of the same content share one copy of the pixels, made by the first
  // of them, and are not copied again into a client's shared-memory area that still holds them.
  std::uint64_t fContent;
  OXBinary fRemoteCopy;  // shared, of fContent; empty until a remote reply makes it
};

// What one subscriber asks of one camera.
struct RequestedCameraProperties {
  uint8_t fResolution = 1;                 // kQVGA
  uint8_t fColorSpace = 9;                 // kYUV422
  OXVisionBuffer* fLockedImage = nullptr;  // not owned; not null while the subscriber holds it
};

// One subscriber. fRequestedProperties always has one entry per camera of the device.
struct VisionModuleInfo {
  std::string fName;
  std::vector<boost::shared_ptr<RequestedCameraProperties>> fRequestedProperties;
  bool fIsMultiStream = false;
  std::vector<int> fActiveCameras;  // multi-stream: the cameras in the caller's order
  int fActiveCamera = -1;           // negative: follows the device's active camera
  uint8_t fFrameRate = 0;
  bool fIsRecording = false;
  int fRecordPeriod = 0;
  int fRecordCountdown = 0;
  int fRecordTotal = 0;
  int fRecordedCount = 0;
  OXVideo* fVideo = nullptr;  // owned; closed and freed by xCloseVideo
  SubscriberCounts fCounts;   // what it was served, for the host's pages and metrics
};

// The state of a camera's frame grabber, the same machine for every camera:
//   kStopped or kFailed --start--> kOpening --opened--> kRunning  (--fails--> kFailed, OXError)
//   kRunning --stop--> kClosing --closed--> kStopped               (--fails--> kFailed)
// A start leaves kOpening, kClosing and kRunning alone; a stop waits while kOpening and leaves
// kStopped, kClosing and kFailed alone.
enum class GrabberState : int {
  kFailed = -1,
  kStopped = 0,
  kOpening = 1,
  kClosing = 2,
  kRunning = 3
};

// What one camera really does, and its two pools of buffers. The pools hold their buffers by raw
// pointer and do not free them: a buffer is freed when a subscriber leaves (or at the device's
// destruction).
struct RealCameraProperties {
  int fWidth = 0;
  int fHeight = 0;
  int fReserved1 = 0;  // nothing reads it
  int fReserved2 = 0;  // nothing reads it
  int fCameraModel = 0;
  int8_t fResolution = 0;
  uint8_t fColorSpace = 0;
  uint8_t fFrameRate = 0;
  int fReserved3 = 0;  // nothing reads it
  // Atomic because cameras may poll it outside the device lock.
  std::atomic<GrabberState> fGrabberState{GrabberState::kStopped};
  int fBufferCount = 0;
  int fReserved4 = 0;                          // nothing reads it
  void* fReserved5 = nullptr;                  // nothing reads it
  std::vector<OXVisionBuffer*> fImageBuffers;  // converted images, one per subscriber
  std::vector<OXVisionBuffer*> fRawBuffers;    // raw images lent by the driver, same length
};

// Maps a parameter identifier to a device's own number; kept for cameras that need it.
struct paramIDConvert {
  int32_t fParamID;
  int32_t fDeviceID;
};

}  // namespace OX
