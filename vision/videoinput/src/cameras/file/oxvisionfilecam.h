// OXVisionFileCam: the video device that replays a recorded .oxv file instead of a live source.
// Subscribers use the ordinary device interface; clients choose the file and step through it
// with the camera's own published methods.
//
// There is no replay thread: time only advances when a subscriber asks for an image. The file is
// read one image ahead into a ring of five frames, and timestamps are rewritten on the way so
// that they keep rising across loops and repeats.
//
// Locking: the device's fVisionModulesLock (W) is held by the callers of the driver operations;
// fParametersLock guards the ring, the replay fields and the reader during a request.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxvideo.h"
#include "device/oxvisionvideoinput.h"

namespace OX {

// One slot of the ring: a frame read from the file and the number of subscribers holding it.
struct CamBuffer {
  CamBuffer() = default;
  ~CamBuffer() { delete fImage; }
  CamBuffer(const CamBuffer&) = delete;
  CamBuffer& operator=(const CamBuffer&) = delete;

  int32_t fLockCount = 0;
  OXImage* fImage = nullptr;  // owned
};

struct FileCamTestHook;

class OXVisionFileCam : public OXSingleton<OXVisionFileCam>, public OXVisionVideoInput {
 public:
  explicit OXVisionFileCam(boost::shared_ptr<OXBroker> pBroker);
  // Stops the grabber (takes W through stopFrameGrabber), then frees the ring.
  ~OXVisionFileCam() override;

  // --- Published methods of the file camera ---
  // Stops the grabber, checks the file and reads its description; throws OXError when the
  // reader refuses the file. Takes W only through stopFrameGrabber.
  void setVideo(const std::string& pFilePath, const OXValue& pRange, const bool& pLoop,
                const int& pReplayMode, const int& pStreamNumber);
  void previousImage();                             // takes fParametersLock
  void nextImage();                                 // no lock: one flag
  void replaySpeed(const float& pImagesPerSecond);  // no lock: one field
  int getCurrentImageNumber();                      // no lock: the reader's cursor

  // The replay clock, microseconds of local time since 1970-01-01; tests replace it (an empty
  // function restores the real clock).
  static void setReplayClockForTesting(std::function<int64_t()> pClock);
  static int64_t replayClock();

  static constexpr int kRingSize = 5;

 protected:
  bool xIsResolutionValid(const int& pResolution, const int& pCameraIndex) const override;
  bool xIsFrameRateValid(const int& pFrameRate, const int& pCameraIndex) const override;
  bool xIsColorSpaceValid(const int& pColorSpace, const int& pCameraIndex) const override;

  // --- Replay (oxvisionfilecamreplay.cpp); W held ---
  OXImage* xGetDirectRawImage(const std::string& pId, bool pDeepCopy) override;
  bool xStartFrameGrabber(const int& pCameraIndex) override;
  bool xStopFrameGrabber(const int& pCameraIndex) override;

  // --- Release and parameters (oxvisionfilecamrelease.cpp); R or W held ---
  std::vector<OXImage*> xGetDirectRawImages(const std::string& pId) override;
  bool xReleaseDirectRawImageDeep(const std::string& pId, const int& pCameraIndex) override;
  int xGetParam(const int& pCameraIndex, const int& pParam) override;
  bool xSetParam(int pCameraIndex, int pParam, int pValue, bool pSetDefault) override;

 private:
  friend struct FileCamTestHook;

  bool xOpenDevice();   // opens the file and fills the ring; throws when the reader refuses
  bool xCloseDevice();  // always true
  // Logs and throws the failure to open fFilePath.
  // Opens fFilePath for reading; a refusal or an exception of the reader ends in xUnableToOpen.
  void xOpenVideoOrThrow();
  [[noreturn]] void xUnableToOpen();
  void xBindFileCamMethods();

  // The ring moves on: fNextFrame becomes current and a free slot is looked for. False (logged
  // for pFunction, ring unchanged) when no slot came free within the device's image wait.
  bool xMoveRing(const char* pFunction);
  // Reads the image after the current one into fNextFrame, by the rules of mode 0 or 1. Returns
  // false when a loop back to the start did not move time forward (mode 1 then stops catching
  // up, or it would never end).
  bool xReadAhead(bool pModeZero);
  // One step of the replay for a request of pId, by the replay mode: the slot to serve, with its
  // count raised for the caller; null (logged) when the ring is stuck or the mode is unknown.
  // Takes fParametersLock.
  CamBuffer* xServeFrame(const std::string& pId);
  // Adopts the camera identifier of a frame as the device's active camera, when the device has it.
  void xAdoptCamera(const OXImage& pImage, const char* pFunction);
  OXImage& xSlot(uint32_t pIndex) { return *fFrames[pIndex].fImage; }

  std::string fFilePath;
  OXVideo fVideo;
  int32_t fCurrentImage = 0;
  int32_t fFirstImage = 0;
  int32_t fLastImage = 0;
  int32_t fStreamNumber = 0;
  int32_t fReplayMode = 0;
  bool fLoop = false;
  CamBuffer* fFrames = nullptr;  // kRingSize slots, owned
  int64_t fStartTime = 0;
  int64_t fFirstTimestamp = 0;
  int64_t fLoopDuration = 0;
  int64_t fTimeOffset = 0;
  // Written by replaySpeed without the lock while a request reads it.
  std::atomic<int64_t> fReplayPeriod{0};
  int64_t fNow = 0;
  uint32_t fCurrentFrame = 0;
  uint32_t fNextFrame = 1;
  std::atomic<bool> fImageServed{true};  // written by nextImage without the lock
};

}  // namespace OX
