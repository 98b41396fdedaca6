// Helpers of the simulator camera's tests: the friend hook that opens the camera's internals, a
// camera on a fresh broker, deterministic RGB frames and a checker for raised OXError.
#pragma once

#include <atomic>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxerror.h"
#include "oxtypes.h"
#include "testsupport.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"

namespace OX {

// Declared a friend by OXVisionSimulatorCam: each function opens one member for the tests.
struct SimulatorCamTestHook {
  using Cam = OXVisionSimulatorCam;
  static CameraDriverBuffer& store(Cam& pCam, int pCamera) {
    return *pCam.fCameraDriverBuffers.at(pCamera);
  }
  static size_t storeCount(Cam& pCam) { return pCam.fCameraDriverBuffers.size(); }
  static RealCameraProperties& camera(Cam& pCam, int pCamera) {
    return *pCam.fCameraProperties.at(pCamera);
  }
  static std::atomic<int>& activeCamera(Cam& pCam) { return pCam.fActiveCamera; }
  static int nbCameras(Cam& pCam) { return pCam.fNbCameras; }
  static int defaultResolution(Cam& pCam) { return pCam.fDefaultResolution; }
  static VisionModuleInfo& info(Cam& pCam, const std::string& pName) {
    return *pCam.fVisionModules.at(pName);
  }
  static bool isResolutionValid(Cam& pCam, int pResolution, int pCamera) {
    return pCam.xIsResolutionValid(pResolution, pCamera);
  }
  static bool isFrameRateValid(Cam& pCam, int pFrameRate, int pCamera) {
    return pCam.xIsFrameRateValid(pFrameRate, pCamera);
  }
  static bool isColorSpaceValid(Cam& pCam, int pColorSpace, int pCamera) {
    return pCam.xIsColorSpaceValid(pColorSpace, pCamera);
  }
  static bool openDevice(Cam& pCam, int pCamera) { return pCam.xOpenDevice(pCamera); }
  static bool closeDevice(Cam& pCam, int pCamera) { return pCam.xCloseDevice(pCamera); }
  static int getParam(Cam& pCam, int pCamera, int pParam) {
    return pCam.xGetParam(pCamera, pParam);
  }
  static bool setParam(Cam& pCam, int pCamera, int pParam, int pValue, bool pDefault) {
    return pCam.xSetParam(pCamera, pParam, pValue, pDefault);
  }
  static bool startGrabber(Cam& pCam, int pCamera) { return pCam.xStartFrameGrabber(pCamera); }
  static bool stopGrabber(Cam& pCam, int pCamera) { return pCam.xStopFrameGrabber(pCamera); }
  static bool reSize(Cam& pCam, int pCamera, OXImage& pSource, unsigned char* pTarget) {
    return pCam.xReSize(pCamera, pSource, pTarget);
  }
  static OXImage* getRaw(Cam& pCam, const std::string& pId) {
    OXCriticalSectionWrite lock(pCam.fVisionModulesLock);
    return pCam.xGetDirectRawImage(pId, false);
  }
  static std::vector<OXImage*> getRaws(Cam& pCam, const std::string& pId) {
    OXCriticalSectionWrite lock(pCam.fVisionModulesLock);
    return pCam.xGetDirectRawImages(pId);
  }
  static bool releaseRaw(Cam& pCam, const std::string& pId, int pCamera) {
    OXCriticalSectionWrite lock(pCam.fVisionModulesLock);
    return pCam.xReleaseDirectRawImageDeep(pId, pCamera);
  }
};

}  // namespace OX

namespace vitest {

using Hook = OX::SimulatorCamTestHook;

// A simulator camera on a fresh broker of its own (kept alive through pBroker when given).
inline boost::shared_ptr<OX::OXVisionSimulatorCam> makeSimulatorCam(
    boost::shared_ptr<OX::OXBroker>* pBroker = nullptr) {
  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("sim-test", {});
  if (pBroker != nullptr) *pBroker = broker;
  return OX::OXModule::createModule<OX::OXVisionSimulatorCam>(broker);
}

// An RGB frame of a resolution as the simulator sends it: a binary of width x 3 x height bytes.
inline OX::OXValue rgbFrame(int pResolution, uint32_t pSeed,
                            std::vector<unsigned char>* pBytes = nullptr) {
  int width = 0;
  int height = 0;
  OX::setSizeFromResolution(pResolution, width, height);
  const std::vector<unsigned char> bytes =
      randomBytes(static_cast<size_t>(width) * height * 3, pSeed);
  if (pBytes != nullptr) *pBytes = bytes;
  return OX::OXValue::binary(bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace vitest
