// The texts of the video device, kept as data in one place: the module's description and
// examples, and the message pieces of the checks that several operations share.
#pragma once

#include "device/oxvisionvideoinput.h"

namespace OX {
namespace videoinputtexts {

constexpr const char* kCategory = "vision.oxvisionvideoinput";
constexpr const char* kBufferCategory = "vision.oxvisionbuffer";
// The one notice of subscribeCameras that goes to another camera's category.
constexpr const char* kMultiStreamNoticeCategory = "vision.oxvisionatomcam";
// The source name carried by every OXError of the device.
constexpr const char* kSourceFile = "oxvisionvideoinput";

constexpr const char* kModuleDescription =
    "OXVideoDevice, formerly called Video Input systemis architectured in order to provide every "
    "module related to vision, called vision module, a direct access to raw images from video "
    "source, or an access to images transformed in the requested format.\n"
    "  Extension name of the methods providing images depends on wether modules are local "
    "(dynamic library) or remote (executable).";

// The examples of the module, one entry per line; they are joined with line ends.
constexpr const char* kCppExample[] = {
    "  #Create a proxy on the video input system",
    "  boost::shared_ptr<OXProxy> fCamera = getParentBroker()->getProxy( \"OXVideoDevice\" );",
    "  fCameraProxy = boost::shared_ptr<OX::OXVideoDeviceProxy>(new "
    "OX::OXVideoDeviceProxy(getParentBroker()));",
    "  #Register a vision module to the system",
    "  std::string pNameId = \"myModule\";",
    "  pNameId = fCamProxy->subscribe(pNameId , pCameraIndex, pResolution, pColorSpace, pFps);",
    "  #Get a pointer to the video source image and release the image when process is finished",
    "  OXImage *pointer = (OXImage*)fCameraProxy->getImageLocal(pNameId);",
    "  ...process...",
    "  fCameraProxy->releaseImage(pNameId);",
    "  #Unregister the vision module",
    "  fCameraProxy->unsubscribe(pNameId);",
};

constexpr const char* kPythonExample[] = {
    "  #Create a proxy on the video input module (V.I.M.)",
    "  cameraProxy = OXProxy(\"OXVideoDevice\", \"127.0.0.1\", 7761)",
    "  #Register a vision module to the system",
    "  nameId = cameraProxy.subscribe(\"pythonModule\", cameraIndex, resolution, colorSpace, fps)",
    "  #Get a pointer to the video source image and release the image when process is finished",
    "  cameraProxy.getImageLocal(nameId)",
    "  ...process...",
    "  cameraProxy.releaseImage(nameId)",
    "  #Unregister the vision module",
    "  cameraProxy.unsubscribe(nameId)",
};

// How a subscriber operation refuses an unknown name and the other family's subscribers.
struct SubscriberCheck {
  const char* fMethod;           // the function of the OXError, with "()"
  const char* fUnknownPiece;     // first piece of "<piece><name>) : module <name> unknown!"
  bool fMultiStream;             // the family the operation serves
  const char* fWrongFamilyTail;  // second piece of the wrong-family text
};

// How an operation with a camera index refuses an index out of range.
struct CameraCheck {
  const char* fPiece;   // text begins: "<piece><index>) : invalid Camera index"
  const char* fMethod;  // the function of the OXError
};

using Subscriber = SubscriberCheck;
using Camera = CameraCheck;

constexpr const char* kMultiStreamRefused = "Multi stream module can't call this method, ";
constexpr const char* kMonoStreamRefused = "Mono stream module can't call this method, ";

// The plural operations share the "get" piece: clients match these texts as they read.
constexpr Subscriber kGetCameraParameter = {"getCameraParameter()", "getCameraParameter(", false,
                                            "use getCamerasParameter instead"};
constexpr Subscriber kSetCameraParameter = {"setCameraParameter()", "setCameraParameter(", false,
                                            "use setCamerasParameter instead"};
constexpr Subscriber kSetCameraParameterToDefault = {"setCameraParameterToDefault()",
                                                     "SetCameraParameterToDefault(", false,
                                                     "use setCamerasParameterToDefault instead"};
constexpr Subscriber kGetCamerasParameter = {"getCamerasParameter()", "getCamerasParameter(", true,
                                             "use getCameraParameter instead"};
constexpr Subscriber kSetCamerasParameter = {"setCamerasParameter()", "getCamerasParameter(", true,
                                             "use setCameraParameter instead"};
constexpr Subscriber kSetCamerasParameterToDefault = {"setCamerasParameterToDefault()",
                                                      "getCamerasParameter(", true,
                                                      "use setCameraParameterToDefault instead"};

// isFrameGrabberOff reports with the words of stopFrameGrabber: clients match the text as it
// reads.
constexpr Camera kGetCameraModel = {"getCameraModel(", "getCameraModel()"};
constexpr Camera kIsFrameGrabberOff = {"stopFrameGrabber(", "isFrameGrabberOff()"};
constexpr Camera kGetFrameRate = {"getFrameRate(", "getFrameRate()"};
constexpr Camera kGetResolution = {"getResolution(", "getResolution()"};
constexpr Camera kGetColorSpace = {"getColorSpace(", "getColorSpace()"};
constexpr Camera kStartFrameGrabber = {"startFrameGrabber(", "startFrameGrabber()"};
constexpr Camera kStopFrameGrabber = {"stopFrameGrabber(", "stopFrameGrabber()"};

constexpr const char* kOnlySimulator = "Only implemented for simulator";

// Delivery and raw access. Several texts name a neighbouring operation on purpose: they are the
// texts that clients match, and stay as they are.
constexpr Subscriber kGetImageLocal = {"getImageLocal()", "getImageLocal(", false,
                                       "use getImagesLocal instead"};
constexpr Subscriber kGetImageRemote = {"getImageRemote()", "getDirectRawImageRemote(", false,
                                        "use getDirectRawImagesRemote instead"};
constexpr Subscriber kReleaseImage = {"releaseImage()", "releaseImage(", false,
                                      "use releaseDirectRawImages instead"};
constexpr Subscriber kGetImagesLocal = {"getImagesLocal()", "getDirectRawImagesLocal(", true,
                                        "use getImageLocal instead"};
constexpr Subscriber kGetImagesRemote = {"getImagesRemote()", "getImagesRemote(", true,
                                         "use getImageRemote instead"};
// releaseImages has a text of its own for an unknown name; only its wrong-family text is here.
constexpr const char* kReleaseImagesMethod = "releaseImages()";
constexpr const char* kReleaseImagesUnknown = ": Could not release image for unknown subscriber \"";
constexpr const char* kReleaseImagesWrongFamily = "use releaseImage instead";
constexpr Subscriber kGetDirectRawImageRemote = {"getDirectRawImageRemote()",
                                                 "getDirectRawImageRemote(", false,
                                                 "use getDirectRawImagesRemote instead"};
constexpr Subscriber kGetDirectRawImagesLocal = {"getDirectRawImagesLocal()",
                                                 "getDirectRawImagesLocal(", true,
                                                 "use getDirectRawImageLocal instead\n"};
constexpr Subscriber kGetDirectRawImagesRemote = {"getDirectRawImagesRemote()",
                                                  "getDirectRawImagesLocal(", true,
                                                  "use getDirectRawImageRemote instead"};
constexpr Subscriber kReleaseDirectRawImages = {"releaseDirectRawImages()",
                                                "releaseDirectRawImages(", true,
                                                "use releaseDirectRawImage instead"};
constexpr const char* kInterprocessName = "lastVideoBuffer";

// Subscriber settings. Their texts differ from the shared check in the middle and last pieces,
// and several name a neighbouring operation or lack a letter: clients match them as they are.
struct SettingCheck {
  const char* fMethod;       // the function of the OXError, with "()"
  const char* fUnknownHead;  // "<head><name><middle><name><tail>" for an unknown name
  const char* fUnknownMiddle;
  const char* fUnknownTail;
  int fFamily;  // kAnyFamily, kMonoOnly or kMultiOnly
  const char* fWrongFamilyHead;
  const char* fWrongFamilyTail;
};

constexpr int kAnyFamily = 0;
constexpr int kMonoOnly = 1;
constexpr int kMultiOnly = 2;

constexpr const char* kModuleMiddle = ") : module ";
constexpr const char* kModuleListMiddle = ", ...) : module ";
constexpr const char* kUnknownTail = " unknown!";

constexpr SettingCheck kSetResolution = {"setResolution()",
                                         "setResolution(",
                                         kModuleMiddle,
                                         kUnknownTail,
                                         kMonoOnly,
                                         kMultiStreamRefused,
                                         "use setResolutions instead"};
constexpr SettingCheck kSetColorSpace = {"setColorSpace()",
                                         "setColorSpace(",
                                         kModuleMiddle,
                                         kUnknownTail,
                                         kMonoOnly,
                                         kMultiStreamRefused,
                                         "use setColorSpaces instead"};
constexpr SettingCheck kSetFrameRate = {
    "setFrameRate()", "setFrameRate(", kModuleMiddle, kUnknownTail, kAnyFamily, "", ""};
constexpr SettingCheck kSetActiveCamera = {"setActiveCamera()",
                                           "setActiveCamera(",
                                           kModuleMiddle,
                                           kUnknownTail,
                                           kMonoOnly,
                                           "Multi stream module can't call this method ",
                                           "use setActiveCameras instead"};
constexpr SettingCheck kSetResolutions = {
    "setResolutions()", "setResolutions(",  kModuleListMiddle,          kUnknownTail,
    kMultiOnly,         kMonoStreamRefused, "use setResolution instead"};
constexpr SettingCheck kSetColorSpaces = {
    "setColorSpaces()", "setColorSpaces(",  kModuleListMiddle,          kUnknownTail,
    kMultiOnly,         kMonoStreamRefused, "use setColorSpace instead"};
// The second look-up of setColorSpaces speaks of setResolutions.
constexpr SettingCheck kSetColorSpacesAgain = {
    "setColorSpaces()", "setResolutions(",  kModuleListMiddle,          kUnknownTail,
    kMultiOnly,         kMonoStreamRefused, "use setColorSpace instead"};
constexpr SettingCheck kSetActiveCameras = {
    "setActiveCameras()", "setActiveCameras(",          kModuleListMiddle, kUnknownTail, kMultiOnly,
    kMonoStreamRefused,   "use setActiveCamera instead"};
constexpr SettingCheck kGetResolutionOf = {
    "getResolution()",   "GetActiveCamera(",          kModuleMiddle, kUnknownTail, kMonoOnly,
    kMultiStreamRefused, "use getResolutions instead"};
constexpr SettingCheck kGetColorSpaceOf = {"getColorSpace()",
                                           "GetColorSpace(",
                                           kModuleMiddle,
                                           kUnknownTail,
                                           kMonoOnly,
                                           kMultiStreamRefused,
                                           "use getColorSpaces instead"};
constexpr SettingCheck kGetFrameRateOf = {
    "getFrameRate()", "GetFrameRate(", kModuleMiddle, kUnknownTail, kAnyFamily, "", ""};
constexpr SettingCheck kGetActiveCamera = {"getActiveCamera()",
                                           "getActiveCamera(",
                                           kModuleMiddle,
                                           kUnknownTail,
                                           kMonoOnly,
                                           kMultiStreamRefused,
                                           "use getActiveCameras instead"};
// getResolutions and getColorSpaces advise themselves.
constexpr SettingCheck kGetResolutions = {
    "getResolutions()", "getResolutions(",  kModuleListMiddle,           kUnknownTail,
    kMultiOnly,         kMonoStreamRefused, "use getResolutions instead"};
constexpr SettingCheck kGetColorSpaces = {
    "getColorSpaces()", "getColorSpaces(",  kModuleListMiddle,           kUnknownTail,
    kMultiOnly,         kMonoStreamRefused, "use getColorSpaces instead"};
constexpr SettingCheck kGetActiveCameras = {
    "getActiveCameras()", "getActiveCameras(",          kModuleMiddle, " unknow!", kMultiOnly,
    kMonoStreamRefused,   "use getActiveCamera instead"};

}  // namespace videoinputtexts
}  // namespace OX
