// The file camera object: construction and publication of its own methods, setVideo, the opening
// and closing of the file, the replay clock and the three validity checks.
#include "cameras/file/oxvisionfilecam.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <limits>
#include <mutex>

#include "oxerror.h"
#include "oxfilepolicy.h"
#include "oxtypes.h"
#include "oxvalue/detail/oxfunctor.h"

namespace OX {

namespace {

const char* const kCategory = "vision.oxvisionfilecam";
const char* const kClassName = "OXVisionFileCam";

constexpr int kStartWidth = 320;
constexpr int kStartHeight = 240;
constexpr int kStartResolution = 1;
constexpr int kStartColorSpace = 9;
constexpr int kStartFrameRate = 5;
constexpr int kBufferCount = 4;
constexpr int kReplayFrameRate = 30;
constexpr int kUnknownColorSpace = 255;
constexpr int kWholeFileEnd = 2147483647;
// How much of a refused range its error shows.
constexpr size_t kShownRange = 64;

std::mutex& clockMutex() {
  static std::mutex mutex;
  return mutex;
}

std::function<int64_t()>& clockHook() {
  static std::function<int64_t()> hook;
  return hook;
}

// Binds one member function of the camera, as the device does for its own.
template <class M>
void bindTo(OXVisionFileCam& pCam, M pMethod, bool pOverload) {
  detail::completeAndCheck(pMethod, pCam.getCurrentMethodDescription());
  boost::shared_ptr<OXFunctorBase> functor = detail::createFunctor(&pCam, pMethod);
  if (pOverload) {
    pCam.bindMethodOverload(functor);
  } else {
    pCam.bindMethod(functor);
  }
}

}  // namespace

void OXVisionFileCam::setReplayClockForTesting(std::function<int64_t()> pClock) {
  std::lock_guard<std::mutex> lock(clockMutex());
  clockHook() = std::move(pClock);
}

int64_t OXVisionFileCam::replayClock() {
  {
    std::lock_guard<std::mutex> lock(clockMutex());
    if (clockHook()) return clockHook()();
  }
  // Local time, not UTC: only differences of it are ever used.
  namespace pt = boost::posix_time;
  static const pt::ptime epoch(boost::gregorian::date(1970, 1, 1));
  return (pt::microsec_clock::local_time() - epoch).total_microseconds();
}

OXVisionFileCam::OXVisionFileCam(boost::shared_ptr<OXBroker> pBroker)
    : OXVisionVideoInput(pBroker, "OXVideoDevice") {
  fCurrentFrame = 0;
  fNextFrame = 1;
  fImageServed = true;
  xBindFileCamMethods();

  fNbCameras = 1;
  fCameraProperties.clear();
  boost::shared_ptr<RealCameraProperties> camera(new RealCameraProperties());
  camera->fWidth = kStartWidth;
  camera->fHeight = kStartHeight;
  camera->fResolution = kStartResolution;
  camera->fColorSpace = kStartColorSpace;
  camera->fFrameRate = kStartFrameRate;
  fCameraProperties.push_back(camera);
  camera->fCameraModel = 0;
  camera->fBufferCount = kBufferCount;
  camera->fResolution = kStartResolution;
  camera->fColorSpace = kStartColorSpace;
  camera->fFrameRate = kStartFrameRate;

  // Frames are read into these images, which the reader re-dimensions: none is allocated later.
  fFrames = new CamBuffer[kRingSize];
  for (int i = 0; i < kRingSize; ++i) {
    fFrames[i].fLockCount = 0;
    fFrames[i].fImage = new OXImage(640, 480, 11, false, 0, 0, 0, 0);
  }
}

OXVisionFileCam::~OXVisionFileCam() {
  stopFrameGrabber();
  delete[] fFrames;
  fFrames = nullptr;
}

void OXVisionFileCam::xBindFileCamMethods() {
  using Cam = OXVisionFileCam;
  functionName("setVideo", kClassName, "BETA - Set the parameters to play a video.", 0);
  addParam("filePath", " pathToMyFile/filename.oxv");
  addParam("range",
           " determines if we open the whole file (NULL) or just part of a sequence (array with "
           "beginning and end index) ");
  addParam("loop", " controls whether to loop on input sequence or on last image");
  addParam("replayMode",
           " controls replay mode :\n 0 replay at the frame rate defined by the user or image per "
           "image,\n 1 replay tries to comply with original image acquisition timestamp intervals "
           "(GVMs will lose frames if their process is too long),\n ");
  addParam("streamNumber",
           " for multi stream videos, select which stream to play. Default should be 0.");
  bindTo(*this, &Cam::setVideo, false);

  functionName("previousImage", kClassName,
               "BETA - When replaying in mode 0, ask for the previous image.", 0);
  bindTo(*this, &Cam::previousImage, false);

  functionName("nextImage", kClassName, "BETA - When replaying in mode 0, ask for the next image.",
               0);
  bindTo(*this, &Cam::nextImage, false);

  // The description repeats that of nextImage: clients already show this text.
  functionName("replaySpeed", kClassName,
               "BETA - When replaying in mode 0, ask for the next image.", 0);
  addParam("imagesPerSecond", " number of images per second (replay mode 0 only)");
  bindTo(*this, &Cam::replaySpeed, false);

  functionName("getCurrentImageNumber", kClassName,
               "BETA - Ask for the position of the current image.", 0);
  setReturn("return", "Returns the index of the current image.");
  bindTo(*this, &Cam::getCurrentImageNumber, false);

  // Three arguments, two described: the text of the simpler form is what clients know.
  functionName("setParam", kClassName,
               "Sets the value of a specific parameter for the video source.", 0);
  addParam("param", "There is no parameter to set for FileCam currently.\n");
  addParam("newValue", "Parameter's new value.");
  addMethodExample("C++", "  fCamProxy->setParam(pParam, pNewValue);\n");
  bindTo(*this,
         static_cast<void (OXVisionVideoInput::*)(const int&, const int&, const int&)>(
             &OXVisionVideoInput::setParam),
         true);

  // Straight to the driver: a recorded video has only these few parameters to read.
  functionName("getParam", kClassName, "Get the value of a video source specific parameter.", 0);
  addParam("camID", "Index of the camera to set.");
  addParam("pParam", "Parameter's reference among kCameraSelectID,\n kCameraResolutionID");
  setReturn("pVal", "Parameter's value.");
  addMethodExample("C++", "  int value = fCamera->getParam(pParam, pCamID);\n");
  bindTo(*this, &Cam::xGetParam, true);
}

void OXVisionFileCam::xOpenVideoOrThrow() {
  bool opened = false;
  try {
    opened = fVideo.readVideo(fFilePath);
  } catch (...) {
    opened = false;
  }
  if (!opened) xUnableToOpen();
}

void OXVisionFileCam::xUnableToOpen() {
  xLog(kLogError, "setVideo", "Unable to open the video file " + fFilePath, kCategory);
  fVideo.closeVideo();
  throw OXError("VideoDevice", "setVideo", "unable to open the video file", "", 0);
}

void OXVisionFileCam::setVideo(const std::string& pFilePath, const OXValue& pRange,
                               const bool& pLoop, const int& pReplayMode,
                               const int& pStreamNumber) {
  // A remote caller's file lies in the broker's data directory and is a regular one, or nothing
  // changes: the existence of other files is nobody's business. The texts keep the caller's path.
  const std::string path =
      resolveCallerPath(*this, pFilePath, OXFilePolicy::Access::kRead, "setVideo");
  // The grabber is not restarted here: the next subscriber or client does it.
  stopFrameGrabber();
  boost::system::error_code error;
  const boost::filesystem::file_status status = boost::filesystem::status(path, error);
  // A path with a NUL byte names no file: its first part would be asked for instead.
  if (error || status.type() == boost::filesystem::file_not_found ||
      pFilePath.find('\0') != std::string::npos) {
    xLog(kLogError, "setVideo", pFilePath + " file doesn't exist. Return!", kCategory);
    return;
  }
  const bool ranged = pRange.isValid() && pRange.isArray() && pRange.getSize() == 2;
  // Image indexes are 0 or more: the replay steps back from both ends of the range, which from a
  // negative index could go below the smallest int. Refused before anything changes.
  const auto index = [](const OXValue& pIndex) { return pIndex.isInt() && pIndex.asInt() >= 0; };
  if (ranged && !(index(pRange[0]) && index(pRange[1]))) {
    std::string given = pRange.toString();
    if (given.size() > kShownRange) given = given.substr(0, kShownRange) + "...";
    xThrow("setVideo()",
           "range " + given +
               " out of range: [first, last], two image indexes from 0 to 2147483647, or null "
               "for the whole file",
           __LINE__);
  }
  fFilePath = path;
  fLoop = pLoop;
  fReplayMode = pReplayMode;
  fStreamNumber = pStreamNumber;
  if (ranged) {
    fFirstImage = static_cast<int>(pRange[0]);
    fLastImage = static_cast<int>(pRange[1]);
  } else {
    fFirstImage = 0;
    fLastImage = kWholeFileEnd;
  }
  fCurrentImage = fFirstImage;

  xOpenVideoOrThrow();

  int colorSpace = kUnknownColorSpace;
  int resolution = -1;
  if (static_cast<unsigned int>(fStreamNumber) <
      static_cast<unsigned int>(fVideo.getNumberOfStreams())) {
    colorSpace = fVideo.getStreamColorSpace(fStreamNumber);
    resolution = fVideo.getStreamResolution(fStreamNumber);
  }
  RealCameraProperties& camera = *fCameraProperties.at(fActiveCamera);
  camera.fColorSpace = static_cast<uint8_t>(colorSpace);
  camera.fResolution = static_cast<int8_t>(resolution);
  fDefaultResolution = resolution;
  // Whatever the file was recorded at: the replay decides its own pace.
  camera.fFrameRate = kReplayFrameRate;
  fVideo.closeVideo();
  xLog(kLogInfo, "setVideo", "Setting " + pFilePath + " video file.", kCategory);
}

bool OXVisionFileCam::xOpenDevice() {
  xOpenVideoOrThrow();

  fLoopDuration = 0;
  fTimeOffset = 0;
  fImageServed = false;
  fReplayPeriod = std::numeric_limits<int64_t>::max();

  const int count = fVideo.getNumberOfImages();
  if (fFirstImage >= count) {
    xLog(kLogError, "xOpenDevice",
         "Image " + std::to_string(fFirstImage) + " doesn't exist. File has " +
             std::to_string(count) + " images.",
         kCategory);
    return false;
  }
  if (fLastImage >= count) fLastImage = count - 1;

  // The same image in every slot brings each to the video's dimensions.
  bool result = false;
  for (int i = 0; i < kRingSize; ++i) {
    result = fVideo.getFrame(fFrames[i].fImage, fCurrentImage, fStreamNumber, true);
  }
  // previousImage before any opening steps back from the end of the whole file, the largest int:
  // the count stops there, and the read-ahead below brings it back into the range.
  if (fCurrentImage < std::numeric_limits<int>::max()) ++fCurrentImage;

  OXImage& next = xSlot(fNextFrame);
  if (fCurrentImage > fLastImage) {
    fCurrentImage = fLoop ? fFirstImage : fLastImage;
    fVideo.getFrame(&next, fCurrentImage, fStreamNumber, false);
  } else {
    fVideo.getNextFrame(&next, false);
  }
  ++fCurrentImage;

  xAdoptCamera(xSlot(0), "xOpenDevice");
  fFirstTimestamp = xSlot(0).fTimeStamp;
  fStartTime = replayClock();
  return result;
}

bool OXVisionFileCam::xCloseDevice() {
  fVideo.closeVideo();
  fDefaultResolution = -1;
  fCameraProperties.at(fActiveCamera)->fGrabberState = GrabberState::kStopped;
  return true;
}

void OXVisionFileCam::xAdoptCamera(const OXImage& pImage, const char* pFunction) {
  const int camera = pImage.fCameraId;
  if (camera >= 0 && camera < fNbCameras) {
    fActiveCamera = camera;
    return;
  }
  // A camera the device does not have would index past its tables.
  xLog(kLogError, pFunction,
       "Camera " + std::to_string(camera) + " of the video unknown: camera " +
           std::to_string(fActiveCamera.load()) + " kept.",
       kCategory);
}

bool OXVisionFileCam::xIsResolutionValid(const int& pResolution, const int& pCameraIndex) const {
  // A video is served at its own size and the smaller ones.
  if (pCameraIndex < 0 || pCameraIndex >= static_cast<int>(fCameraProperties.size())) {
    return false;
  }
  return pResolution >= 0 && pResolution <= fCameraProperties[pCameraIndex]->fResolution;
}

bool OXVisionFileCam::xIsFrameRateValid(const int& pFrameRate, const int&) const {
  return pFrameRate >= 1 && pFrameRate <= 30;
}

bool OXVisionFileCam::xIsColorSpaceValid(const int& pColorSpace, const int&) const {
  return static_cast<unsigned int>(pColorSpace) <= 16u;
}

}  // namespace OX
