// FakeCam: a two-camera device for the tests of the device core, with driver operations whose
// behaviour the test controls and counts.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "oxbroker.h"
#include "oxvalue/detail/oxfunctor.h"
#include "device/oxvisionvideoinput.h"

namespace vitest {

class FakeCam : public OX::OXVisionVideoInput {
 public:
  struct SetCall {
    int camera;
    int param;
    int value;
    bool setDefault;
    bool operator==(const SetCall& pOther) const {
      return std::tie(camera, param, value, setDefault) ==
             std::tie(pOther.camera, pOther.param, pOther.value, pOther.setDefault);
    }
  };

  explicit FakeCam(boost::shared_ptr<OX::OXBroker> pBroker)
      : OXVisionVideoInput(pBroker, "OXVideoDevice") {
    fNbCameras = 2;
    fDefaultResolution = OX::kQVGA;
    for (int model : {OX::kOV7670, OX::kMT9M114}) {
      boost::shared_ptr<OX::RealCameraProperties> camera(new OX::RealCameraProperties());
      camera->fWidth = 320;
      camera->fHeight = 240;
      camera->fCameraModel = model;
      camera->fResolution = OX::kQVGA;
      camera->fColorSpace = OX::kYUV422;
      camera->fFrameRate = 5;
      camera->fBufferCount = 4;
      fCameraProperties.push_back(camera);
    }
  }

  // The core's members and pool operations, opened for the tests.
  using OXVisionVideoInput::fActiveCamera;
  using OXVisionVideoInput::fBinaryBuffer;
  using OXVisionVideoInput::fCameraProperties;
  using OXVisionVideoInput::fCopyBuffer;
  using OXVisionVideoInput::fDefaultResolution;
  using OXVisionVideoInput::fNbCameras;
  using OXVisionVideoInput::fParamIDs;
  using OXVisionVideoInput::fVisionModules;
  using OXVisionVideoInput::fVisionModulesLock;
  using OXVisionVideoInput::xCreateBuffersForStoringImages;
  using OXVisionVideoInput::xFindAndEraseTheOldestBuffer;
  using OXVisionVideoInput::xForceReleaseBuffer;
  using OXVisionVideoInput::xIsInParams;
  using OXVisionVideoInput::xLockTheNewestBufferForReading;
  using OXVisionVideoInput::xLockTheOldestBufferForEditing;

  OX::RealCameraProperties& camera(int pIndex) { return *fCameraProperties.at(pIndex); }
  OX::VisionModuleInfo& info(const std::string& pName) { return *fVisionModules.at(pName); }

  // Controls, set before the calls.
  std::atomic<int> fMaxResolution{OX::k4VGA};
  std::atomic<bool> fStartFails[2] = {false, false};
  std::atomic<bool> fStopFails[2] = {false, false};
  // What the driver saw.
  std::atomic<int> fStarts[2] = {0, 0};
  std::atomic<int> fStops[2] = {0, 0};
  std::atomic<int> fRawReleases{0};

  std::vector<SetCall> setCalls() const {
    std::lock_guard<std::mutex> guard(fMutex);
    return fSetCalls;
  }
  void clearSetCalls() {
    std::lock_guard<std::mutex> guard(fMutex);
    fSetCalls.clear();
  }

 protected:
  // Validity does not depend on the camera, so that a camera out of range reaches its own check.
  bool xIsResolutionValid(const int& pResolution, const int&) const override {
    return pResolution >= OX::kQQVGA && pResolution <= fMaxResolution;
  }
  bool xIsFrameRateValid(const int& pFrameRate, const int&) const override {
    return pFrameRate >= 5 && pFrameRate <= 30;
  }
  bool xIsColorSpaceValid(const int& pColorSpace, const int&) const override {
    static const std::set<int> valid = {OX::kYuv, OX::kYUV422, OX::kYUV,
                                        OX::kRGB, OX::kHSY,    OX::kBGR};
    return valid.count(pColorSpace) != 0;
  }
  OX::OXImage* xGetDirectRawImage(const std::string&, bool) override { return nullptr; }
  std::vector<OX::OXImage*> xGetDirectRawImages(const std::string&) override { return {}; }
  bool xReleaseDirectRawImageDeep(const std::string& pName, const int& pCameraIndex) override {
    ++fRawReleases;
    auto found = fVisionModules.find(pName);
    if (found != fVisionModules.end()) {
      found->second->fRequestedProperties[pCameraIndex]->fLockedImage = nullptr;
    }
    return true;
  }
  int xGetParam(const int& pCameraIndex, const int& pParam) override {
    std::lock_guard<std::mutex> guard(fMutex);
    auto found = fParams.find(pParam);
    if (found == fParams.end()) {
      throw OX::OXError(getName(), "xGetParam()", "Bad input parameter ID", "fakecamera", 0);
    }
    return found->second + 100 * pCameraIndex;
  }
  bool xSetParam(int pCameraIndex, int pParam, int pValue, bool pSetDefault) override {
    std::lock_guard<std::mutex> guard(fMutex);
    if (fParams.count(pParam) == 0) {
      throw OX::OXError(getName(), "xSetParam()", "Bad input parameter ID", "fakecamera", 0);
    }
    fSetCalls.push_back({pCameraIndex, pParam, pValue, pSetDefault});
    return pValue != 99;  // 99 is refused, to show a false result
  }
  bool xStartFrameGrabber(const int& pCameraIndex) override {
    ++fStarts[pCameraIndex];
    camera(pCameraIndex).fGrabberState = OX::GrabberState::kRunning;
    return !fStartFails[pCameraIndex];
  }
  bool xStopFrameGrabber(const int& pCameraIndex) override {
    ++fStops[pCameraIndex];
    camera(pCameraIndex).fGrabberState = OX::GrabberState::kStopped;
    return !fStopFails[pCameraIndex];
  }

 private:
  mutable std::mutex fMutex;
  std::map<int, int> fParams = {{14, 1}, {15, 5}, {16, 4}, {18, 0}, {20, 9}};
  std::vector<SetCall> fSetCalls;
};

// A device on a fresh broker of its own.
inline boost::shared_ptr<FakeCam> makeFakeCam(boost::shared_ptr<OX::OXBroker>* pBroker = nullptr) {
  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("test", {});
  if (pBroker != nullptr) *pBroker = broker;
  return OX::OXModule::createModule<FakeCam>(broker);
}

}  // namespace vitest
