// The video device: construction, destruction and the helpers that every part of it shares.
#include "device/oxvisionvideoinput.h"

#include "kilog.h"
#include "oxproxies.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace texts = videoinputtexts;

namespace {

template <size_t N>
std::string joinLines(const char* const (&pLines)[N]) {
  std::string text;
  for (size_t i = 0; i < N; ++i) {
    if (i > 0) text += "\n";
    text += pLines[i];
  }
  return text;
}

// The function name of a record: the method text without its "()".
std::string functionOf(const std::string& pMethod) {
  const size_t parenthesis = pMethod.find('(');
  return parenthesis == std::string::npos ? pMethod : pMethod.substr(0, parenthesis);
}

}  // namespace

OXVisionVideoInput::OXVisionVideoInput(boost::shared_ptr<OXBroker> pBroker, std::string pName)
    : OXModule(pBroker, pName),
      fActiveCamera(0),
      fDefaultResolution(-1),
      fNbCameras(0),
      fVisionModulesLock(OXMutexRW::createOXMutexRW()),
      fParametersLock(OXMutex::createOXMutex()) {
  // Without the memory service the device works; only the clean-up on disconnection is absent.
  try {
    boost::shared_ptr<OXMemoryProxy> memory =
        getParentBroker()->getSpecialisedProxy<OXMemoryProxy>("OXMemory");
    if (memory) memory->subscribeToEvent("ClientDisconnected", pName, "onClientDisconnected");
  } catch (const OXError&) {
    xLog(kLogError, "OXVisionVideoInput", getName() + ": Could not connect to Memory.");
  }
  setModuleDescription(texts::kModuleDescription);
  addModuleExample("C++", joinLines(texts::kCppExample));
  addModuleExample("Python", joinLines(texts::kPythonExample));
  xBindMethods();
  xBindDeprecatedMethods();
  // Sized once for the largest image, so that the image path never allocates.
  fCopyBuffer.reset(new char[kCopyBufferSize]);
  fBinaryBuffer.reset(new char[kBinaryBufferSize]);
}

OXVisionVideoInput::~OXVisionVideoInput() {
  for (auto& entry : fVisionModules) {
    if (entry.second->fIsRecording) xCloseVideo(entry.second);
  }
  fCopyBuffer.reset();
  fBinaryBuffer.reset();
  // Buffers still in the pools belong to nobody once the device goes: free them here rather
  // than leak them. No call can arrive any more, so no holder can still use them.
  for (auto& camera : fCameraProperties) {
    if (!camera) continue;
    for (OXVisionBuffer* buffer : camera->fImageBuffers) delete buffer;
    for (OXVisionBuffer* buffer : camera->fRawBuffers) delete buffer;
    camera->fImageBuffers.clear();
    camera->fRawBuffers.clear();
  }
}

int OXVisionVideoInput::xCurrentCamera(const VisionModuleInfo& pInfo) const {
  return pInfo.fActiveCamera >= 0 ? pInfo.fActiveCamera : fActiveCamera.load();
}

void OXVisionVideoInput::xLog(int pLevel, const std::string& pFunction, const std::string& pMessage,
                              const char* pCategory) const {
  ki::log::LogStream(pLevel, pCategory != nullptr ? pCategory : texts::kCategory, "", pFunction, 0)
      << pMessage;
}

void OXVisionVideoInput::xThrow(const std::string& pMethod, const std::string& pMessage,
                                int pLine) const {
  xLog(kLogError, functionOf(pMethod), pMessage);
  xRaise(pMethod, pMessage, pLine);
}

void OXVisionVideoInput::xRaise(const std::string& pMethod, const std::string& pMessage,
                                int pLine) const {
  throw OXError(getName(), pMethod, pMessage, texts::kSourceFile, pLine);
}

boost::shared_ptr<VisionModuleInfo> OXVisionVideoInput::xLookUpSubscriber(
    const std::string& pName, const UnknownSubscriber& pUnknown, int pLine) const {
  auto found = fVisionModules.find(pName);
  if (found != fVisionModules.end() && found->second) return found->second;
  std::string text = pUnknown.fHead + pName;
  if (pUnknown.fMiddle != nullptr) text += pUnknown.fMiddle + pName;
  text += pUnknown.fTail;
  if (pUnknown.fRaises) xThrow(pUnknown.fFunction, text, pLine);
  xLog(kLogError, pUnknown.fFunction, text, pUnknown.fCategory);
  return nullptr;
}

boost::shared_ptr<VisionModuleInfo> OXVisionVideoInput::xFindSubscriber(
    const std::string& pName, const SubscriberCheck& pCheck) const {
  const boost::shared_ptr<VisionModuleInfo> info = xLookUpSubscriber(
      pName,
      {true, pCheck.fMethod, pCheck.fUnknownPiece, texts::kModuleMiddle, texts::kUnknownTail},
      __LINE__);
  if (info->fIsMultiStream != pCheck.fMultiStream) {
    xThrow(
        pCheck.fMethod,
        std::string(pCheck.fMultiStream ? texts::kMonoStreamRefused : texts::kMultiStreamRefused) +
            pCheck.fWrongFamilyTail,
        __LINE__);
  }
  return info;
}

void OXVisionVideoInput::xCheckCameraIndex(const int& pCameraIndex, const CameraCheck& pCheck,
                                           int pLine) const {
  if (pCameraIndex < 0 || pCameraIndex >= fNbCameras) {
    xThrow(pCheck.fMethod,
           pCheck.fPiece + std::to_string(pCameraIndex) + ") : invalid Camera index", pLine);
  }
}

void OXVisionVideoInput::xCheckCameraArgument(int pCameraIndex, const std::string& pMethod,
                                              int pLine) const {
  const int cameras = fNbCameras;
  if (pCameraIndex >= 0 && pCameraIndex < cameras) return;
  xThrow(pMethod,
         "camera index " + std::to_string(pCameraIndex) + " out of range: this device has " +
             (cameras == 1
                  ? std::string("1 camera, index 0")
                  : std::to_string(cameras) + " cameras, 0 to " + std::to_string(cameras - 1)),
         pLine);
}

bool OXVisionVideoInput::xIsInParams(std::vector<paramIDConvert> pList, int pParamID) {
  for (const paramIDConvert& entry : pList) {
    if (entry.fParamID == pParamID) return true;
  }
  return false;
}

}  // namespace OX
