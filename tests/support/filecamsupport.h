// Helpers of the file camera's tests: the friend hook that opens the camera's internals, a camera
// on a fresh broker, recordings with known bytes and timestamps, and a replay clock moved by hand.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxtypes.h"
#include "oxvideo.h"
#include "cameras/file/oxvisionfilecam.h"

namespace OX {

// Declared a friend by OXVisionFileCam: each function opens one member for the tests.
struct FileCamTestHook {
  using Cam = OXVisionFileCam;
  static RealCameraProperties& camera(Cam& pCam) { return *pCam.fCameraProperties.at(0); }
  static int defaultResolution(Cam& pCam) { return pCam.fDefaultResolution; }
  static bool isResolutionValid(Cam& pCam, int pResolution, int pCamera) {
    return pCam.xIsResolutionValid(pResolution, pCamera);
  }
  static bool isFrameRateValid(Cam& pCam, int pRate) { return pCam.xIsFrameRateValid(pRate, 0); }
  static bool isColorSpaceValid(Cam& pCam, int pSpace) {
    return pCam.xIsColorSpaceValid(pSpace, 0);
  }
  static int firstImage(Cam& pCam) { return pCam.fFirstImage; }
  static int lastImage(Cam& pCam) { return pCam.fLastImage; }
  static int currentImage(Cam& pCam) { return pCam.fCurrentImage; }
  static int replayMode(Cam& pCam) { return pCam.fReplayMode; }
  static int64_t replayPeriod(Cam& pCam) { return pCam.fReplayPeriod; }
  static int64_t loopDuration(Cam& pCam) { return pCam.fLoopDuration; }
  static const std::string& filePath(Cam& pCam) { return pCam.fFilePath; }
  static CamBuffer& slot(Cam& pCam, int pIndex) { return pCam.fFrames[pIndex]; }
  static uint32_t currentFrame(Cam& pCam) { return pCam.fCurrentFrame; }
  static int getParam(Cam& pCam, int pParam) { return pCam.xGetParam(0, pParam); }
  static bool setParam(Cam& pCam, int pParam, int pValue) {
    return pCam.xSetParam(0, pParam, pValue, false);
  }
  static std::vector<OXImage*> getRaws(Cam& pCam, const std::string& pId) {
    OXCriticalSectionWrite lock(pCam.fVisionModulesLock);
    return pCam.xGetDirectRawImages(pId);
  }
};

}  // namespace OX

namespace vitest {

using FileHook = OX::FileCamTestHook;

// A file camera on a fresh broker of its own (kept alive through pBroker when given).
inline boost::shared_ptr<OX::OXVisionFileCam> makeFileCam(
    boost::shared_ptr<OX::OXBroker>* pBroker = nullptr) {
  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("file-test", {});
  if (pBroker != nullptr) *pBroker = broker;
  return OX::OXModule::createModule<OX::OXVisionFileCam>(broker);
}

// Frame i of a recording: every byte is i + 1, its timestamp pStart + i x pStep.
inline bool writeRecording(const std::string& pPath, int pImages, int pResolution = OX::kQQVGA,
                           int64_t pStart = 1000000, int64_t pStep = 100000) {
  int width = 0;
  int height = 0;
  OX::setSizeFromResolution(pResolution, width, height);
  OX::OXVideo video;
  if (!video.recordVideo(pPath, 1, {{width, height, OX::kYUV422, 2}})) return false;
  std::vector<char> bytes(static_cast<size_t>(width) * height * 2);
  for (int i = 0; i < pImages; ++i) {
    std::fill(bytes.begin(), bytes.end(), static_cast<char>(i + 1));
    if (!video.write(bytes.data(), static_cast<int>(bytes.size()), pStart + i * pStep, 0, 0, 0, 0,
                     0)) {
      return false;
    }
  }
  video.closeVideo();
  return true;
}

// The replay clock of the file camera, moved by hand while it lives.
class ReplayClock {
 public:
  ReplayClock() {
    OX::OXVisionFileCam::setReplayClockForTesting([this] { return fNow; });
  }
  ~ReplayClock() { OX::OXVisionFileCam::setReplayClockForTesting(nullptr); }
  ReplayClock(const ReplayClock&) = delete;
  ReplayClock& operator=(const ReplayClock&) = delete;
  void advance(int64_t pMicroseconds) { fNow += pMicroseconds; }

 private:
  int64_t fNow = 5000000000;
};

}  // namespace vitest
