// Publication of the device's methods in the broker's method table: xBindMethods (the current
// interface), xBindDeprecatedMethods (the older V.I.M./G.V.M. vocabulary) and the one deprecated
// operation that lives here, setActiveCamera(int).
//
// Every publication is one record of the tables below: its name, flags, binding, description,
// parameter texts, return text, example lines and the member function that it binds. The texts
// are what the broker's introspection shows to a user and stand as they are, spelling included.

// GCC 12 at -O3 takes the strings of these large constant tables for uninitialised (a known
// false positive of its inliner); every member is initialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <string>
#include <vector>

#include "oxvalue/detail/oxfunctor.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace {

using Device = OXVisionVideoInput;

enum class Bind { kMethod, kOverload };

struct Text {
  const char* fName;
  std::string fText;
};

struct Publication {
  const char* fName;
  int fFlags;
  Bind fBinding;
  std::string fDescription;
  std::vector<Text> fParams;          // in the order of the arguments
  Text fReturn;                       // no setReturn when fName is null
  std::vector<const char*> fExample;  // lines of the one C++ example; none when empty
  void (*fBind)(Device&, Bind);       // completeAndCheck, createFunctor, bind
};

// Steps 3 to 5 of a publication, for the member function M.
template <auto M>
void bindTo(Device& pDevice, Bind pBinding) {
  detail::completeAndCheck(M, pDevice.getCurrentMethodDescription());
  boost::shared_ptr<OXFunctorBase> functor = detail::createFunctor(&pDevice, M);
  if (pBinding == Bind::kMethod) {
    pDevice.bindMethod(functor);
  } else {
    pDevice.bindMethodOverload(functor);
  }
}

void publish(Device& pDevice, const Publication& pPublication) {
  pDevice.functionName(pPublication.fName, "OXVisionVideoInput", pPublication.fDescription,
                       pPublication.fFlags);
  for (const Text& param : pPublication.fParams) pDevice.addParam(param.fName, param.fText);
  if (pPublication.fReturn.fName != nullptr) {
    pDevice.setReturn(pPublication.fReturn.fName, pPublication.fReturn.fText);
  }
  if (!pPublication.fExample.empty()) {
    std::string example;
    for (const char* line : pPublication.fExample) {
      if (!example.empty()) example += "\n";
      example += line;
    }
    pDevice.addMethodExample("C++", example);
  }
  pPublication.fBind(pDevice, pPublication.fBinding);
}

// The overloaded operations, by signature.
using IntByIndex = int (Device::*)(const int&);
using IntByName = int (Device::*)(const std::string&);
using IntOfDevice = int (Device::*)();
using BoolByIndex = bool (Device::*)(const int&);
using BoolOfDevice = bool (Device::*)();
using ValueByIndex = OXValue (Device::*)(const int&);
using ValueOfDevice = OXValue (Device::*)();

constexpr Bind M = Bind::kMethod;
constexpr Bind O = Bind::kOverload;
constexpr int kSameProcess = 4;  // pointers valid in the caller's process only
const Text kNoReturn = {nullptr, ""};

// --- Texts of the current interface ---
const Text kName = {"name", "Name of the subscribing vision module"};
const Text kCameraIndex = {"cameraIndex", "Camera requested."};
const Text kParameterId = {"parameterId", "Camera parameter requested."};
const Text kNameIdReturn = {"nameId",
                            "Name under which the vision module is known from OXVideoDevice"};
const Text kSuccess = {"success", "true if success"};
const std::string kImageArray =
    "Array containing image informations : \n"
    "    [0] : width;\n"
    "    [1] : height;\n"
    "    [2] : number of layers;\n"
    "    [3] : ColorSpace;\n"
    "    [4] : time stamp (highest 32 bits);\n"
    "    [5] : time stamp (lowest 32 bits);\n"
    "    [6] : array of size height * width * nblayers containing image data;\n"
    "    [7] : cameraID;\n"
    "    [8] : left angle;\n"
    "    [9] : top angle;\n"
    "    [10] : right angle;\n"
    "    [11] : bottom angle;\n";
const Text kResult = {"result", kImageArray};
const char* const kImageData =
    "  const unsigned char* imageData =  static_cast<const unsigned "
    "char*>(results[6].GetBinary());";

const std::string kDirectRawLocalText =
    "Retrieves the latest image from the video source and returns a pointer to the locked "
    "OXImage, with data array pointing directly to raw data. There is no format conversion and no "
    "copy of the raw buffer.\n"
    "Warning: When image is not necessary anymore, a call to releaseDirectRawImage() is "
    "requested.\n"
    "Warning: When using this mode for several vision module, if they need raw data for more than "
    "25ms check that you have strictly less modules in this mode than the amount of kernel "
    "buffers!!\n"
    "Warning: Release all kernel buffers before any action requesting a modification in camera "
    "running mode (e.g. resolution, switch between cameras).";
const std::string kDirectRawRemoteText =
    "Fills an OXValue with data coming directly from raw buffer (no format conversion).\n";
const std::string kImageLocalText =
    "Applies transformations to the last image from video source and returns a pointer to a "
    "locked OXImage.\n"
    "When image is not necessary anymore, a call to releaseImage() is requested.\n";
const std::string kImageRemoteText =
    "Applies transformations to the last image from video source and fills pFrameOut.\n";
const std::string kReleaseImageText =
    "Release image buffer locked by getImageLocal().\n"
    "If G.V.M. had no locked image buffer, does nothing.";
const std::string kExpectedParametersText =
    "called by the simulator to know expected image parameters";
const Text kParamReturn = {"param",
                           "OXValue of expected parameters, [int resolution, int framerate]"};
const Text kWidth = {"width", "int width of image among 1280*960, 640*480, 320*240, 240*160"};
const Text kImageBuffer = {"imageBuffer", "Image buffer in bitmap form"};
const Text kPutSuccess = {"success", "true if the put succeeded"};

// clang-format off
const std::vector<Publication>& currentPublications() {
  static const std::vector<Publication> table = {
    // Group 1: by camera index, and subscription to one stream.
    {"unsubscribe", 0, M, "",
     {{"nameId", "Name under which the vision module is known from OXVideoDevice."}}, kNoReturn,
     {"  cameraProxy->unsubscribe(nameId);"},
     &bindTo<&Device::unsubscribe>},
    {"getCameraModel", 0, O, "", {kCameraIndex},
     {"cameraModel", " 1(kOV7670): VGA camera - 2(kMT9M114): HD camera"},
     {"  int cameraModel = cameraProxy->getCameraModel(cameraIndex);"},
     &bindTo<&Device::getCameraModel>},
    {"startFrameGrabber", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  cameraProxy->startFrameGrabber(cameraIndex);"},
     &bindTo<static_cast<BoolByIndex>(&Device::startFrameGrabber)>},
    {"stopFrameGrabber", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  cameraProxy->stopFrameGrabber(cameraIndex);"},
     &bindTo<static_cast<BoolByIndex>(&Device::stopFrameGrabber)>},
    {"isFrameGrabberOff", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  bool isOff = cameraProxy->isFrameGrabberOff(cameraIndex);"},
     &bindTo<static_cast<BoolByIndex>(&Device::isFrameGrabberOff)>},
    {"getFrameRate", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  int frameRate = cameraProxy->getFrameRate(cameraIndex);"},
     &bindTo<static_cast<IntByIndex>(&Device::getFrameRate)>},
    {"getResolution", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  int resolution = cameraProxy->getResolution(cameraIndex);"},
     &bindTo<static_cast<IntByIndex>(&Device::getResolution)>},
    {"getColorSpace", 0, O, "", {kCameraIndex}, kNoReturn,
     {"  int colorSpace = cameraProxy->getColorSpace(cameraIndex);"},
     &bindTo<static_cast<IntByIndex>(&Device::getColorSpace)>},
    {"subscribeCamera", 0, O, "",
     {kName, kCameraIndex,
      {"resolution", "Resolution requested.{0=kQQVGA, 1=kQVGA, 2=kVGA, 3=k4VGA}"},
      {"colorSpace",
       "Colorspace requested." "{0=kYuv, 9=kYUV422, 10=kYUV, 11=kRGB, 12=kHSY, 13=kBGR}"},
      {"fps", "Fps (frames per second) requested.{5, 10, 15, 30}"}},
     kNameIdReturn,
     {"  std::string nameId, name = \"myModule\";",
      "  nameId = cameraProxy->subscribe(name , cameraIndex, resolution, colorSpace, fps);"},
     &bindTo<&Device::subscribeCamera>},

    // Group 2: settings of a mono-stream subscriber.
    {"getFrameRate", 0, O, "", {kName}, kNoReturn,
     {"  int frameRate = cameraProxy->getFrameRate(name);"},
     &bindTo<static_cast<IntByName>(&Device::getFrameRate)>},
    {"setFrameRate", 0, O, "", {kName, {"frameRate", "Frame Rate requested."}}, kNoReturn,
     {"  cameraProxy->setFrameRate(name, frameRate);"},
     &bindTo<&Device::setFrameRate>},
    {"getActiveCamera", 0, O, "", {kName}, kNoReturn,
     {"  int cameraIndex = cameraProxy->getActiveCamera(name);"},
     &bindTo<static_cast<IntByName>(&Device::getActiveCamera)>},
    {"setActiveCamera", 0, O, "", {kName, kCameraIndex}, kNoReturn,
     {"  cameraProxy->setActiveCamera(name, cameraIndex);"},
     &bindTo<static_cast<bool (Device::*)(const std::string&, const int&)>(
         &Device::setActiveCamera)>},
    {"getResolution", 0, O, "", {kName}, kNoReturn,
     {"  int resolution = cameraProxy->getResolution(name);"},
     &bindTo<static_cast<IntByName>(&Device::getResolution)>},
    {"setResolution", 0, O, "", {kName, {"resolution", "Resolution requested."}}, kNoReturn,
     {"  cameraProxy->setResolution(name, resolution);"},
     &bindTo<&Device::setResolution>},
    {"getColorSpace", 0, O, "", {kName}, kNoReturn,
     {"  int colorSpace = cameraProxy->getColorSpace(name);"},
     &bindTo<static_cast<IntByName>(&Device::getColorSpace)>},
    {"setColorSpace", 0, O, "", {kName, {"colorSpace", "Color Space requested."}}, kNoReturn,
     {"  cameraProxy->setColorSpace(name, colorSpace);"},
     &bindTo<&Device::setColorSpace>},
    {"getCameraParameter", 0, O, "", {kName, kParameterId}, kNoReturn,
     {"  int cameraParameter = cameraProxy->getCameraParameter(name, parameterId);"},
     &bindTo<&Device::getCameraParameter>},
    {"setCameraParameter", 0, O, "", {kName, kParameterId, {"value", "value requested."}},
     kNoReturn,
     {"  cameraProxy->setCameraParameter(name, parameterId, value);"},
     &bindTo<&Device::setCameraParameter>},
    {"setCameraParameterToDefault", 0, O, "", {kName, kParameterId}, kNoReturn,
     {"  cameraProxy->setCameraParameterToDefault(name, parameterId);"},
     &bindTo<&Device::setCameraParameterToDefault>},

    // Group 3: images of a mono-stream subscriber.
    {"getDirectRawImageLocal", kSameProcess, M, kDirectRawLocalText, {kName},
     {"image", "Pointer to the locked image buffer, NULL if error.\n"
               "Warning, image pointer is valid only for C++ dynamic library."},
     {"  OXImage *image = cameraProxy->getDirectRawImageLocal(name);"},
     &bindTo<&Device::getDirectRawImageLocal>},
    {"getDirectRawImageRemote", 0, M, kDirectRawRemoteText, {kName}, kResult,
     {"  OXValue result = cameraProxy->getDirectRawImageRemote(name);", kImageData},
     &bindTo<&Device::getDirectRawImageRemote>},
    {"releaseDirectRawImage", kSameProcess, M,
     "Release image buffer locked by getDirectRawImageLocal().\n", {kName}, kSuccess,
     {" cameraProxy->releaseDirectRawImage(name);"},
     &bindTo<&Device::releaseDirectRawImage>},
    {"getImageLocal", kSameProcess, M, kImageLocalText, {kName},
     {"image", "Pointer of the locked image buffer, NULL if error.Warning, image pointer is valid "
               "only for C++ dynamic library."},
     {"  OXImage *image = cameraProxy->getImageLocal(name);"},
     &bindTo<&Device::getImageLocal>},
    {"getImageRemote", 0, M, kImageRemoteText, {kName}, kResult,
     {"  OXValue result = cameraProxy->getImageRemote(name);", kImageData},
     &bindTo<&Device::getImageRemote>},
    {"releaseImage", 0, M, kReleaseImageText, {kName}, kSuccess,
     {"  cameraProxy->releaseImage(name);"},
     &bindTo<&Device::releaseImage>},

    // Group 4: subscription to several streams, and its settings.
    {"subscribeCameras", 0, O, "",
     {kName, {"cameraIndexes", "Cameras requested."},
      {"resolutions", "Resolutions requested.{0=kQQVGA, 1=kQVGA, 2=kVGA, 3=k4VGA}"},
      {"colorSpaces",
       "Colorspaces requested.{0=kYuv, 9=kYUV422, 10=kYUV, 11=kRGB, 12=kHSY, 13=kBGR}"},
      {"fps", "Fps (frames per second) requested.{5, 10, 15, 30}"}},
     kNameIdReturn,
     {"  std::string nameId, name = \"myModule\";",
      "  nameId = cameraProxy->subscribe(name , cameraIndexes, resolutions, colorSpaces, fps);"},
     &bindTo<&Device::subscribeCameras>},
    {"getActiveCameras", 0, O, "", {kName}, kNoReturn,
     {"  std::vector<int> cameraIndexes = cameraProxy->getActiveCameras(name);"},
     &bindTo<&Device::getActiveCameras>},
    {"setActiveCameras", 0, O, "", {kName, {"cameraIndexes", "Cameras requested."}}, kNoReturn,
     {"  cameraProxy->setActiveCameras(name, cameraIndexes);"},
     &bindTo<&Device::setActiveCameras>},
    {"getResolutions", 0, O, "", {kName}, kNoReturn,
     {"  std::vector<int> resolutions = cameraProxy->getResolutions(name);"},
     &bindTo<&Device::getResolutions>},
    {"setResolutions", 0, O, "", {kName, {"resolutions", "Resolutions requested."}}, kNoReturn,
     {"  cameraProxy->setResolutions(name, resolutions);"},
     &bindTo<&Device::setResolutions>},
    {"getColorSpaces", 0, O, "", {kName}, kNoReturn,
     {"  std::vector<int> colorSpaces = cameraProxy->getColorSpaces(name);"},
     &bindTo<&Device::getColorSpaces>},
    {"setColorSpaces", 0, O, "", {kName, {"colorSpaces", "Color Spaces requested."}}, kNoReturn,
     {"  cameraProxy->setColorSpaces(name, colorSpaces);"},
     &bindTo<&Device::setColorSpaces>},
    {"getCamerasParameter", 0, O, "", {kName, kParameterId}, kNoReturn,
     {"  std::vector<int> camerasParameter = cameraProxy->getCamerasParameter(name, parameterId);"},
     &bindTo<&Device::getCamerasParameter>},
    {"setCamerasParameter", 0, O, "", {kName, kParameterId, {"values", "values requested."}},
     kNoReturn,
     {"  cameraProxy->setCamerasParameter(name, parameterId, values);"},
     &bindTo<&Device::setCamerasParameter>},
    {"setCamerasParameterToDefault", 0, O, "", {kName, kParameterId}, kNoReturn,
     {"  cameraProxy->setCamerasParameterToDefault(name, parameterId);"},
     &bindTo<&Device::setCamerasParameterToDefault>},

    // Group 5: images of a multi-stream subscriber (the texts of the singular forms).
    {"getDirectRawImagesLocal", kSameProcess, M, kDirectRawLocalText, {kName},
     {"images", "Array of pointer to the locked image buffer, NULL if error.\n"
                "Warning, image pointer is valid only for C++ dynamic library."},
     {"  std::vector<OXImage *> images = cameraProxy->getDirectRawImagesLocal(name);"},
     &bindTo<&Device::getDirectRawImagesLocal>},
    {"getDirectRawImagesRemote", 0, M, kDirectRawRemoteText, {kName}, kResult,
     {"  OXValue result = cameraProxy->getDirectRawImagesRemote(name);", kImageData},
     &bindTo<&Device::getDirectRawImagesRemote>},
    {"releaseDirectRawImages", kSameProcess, M,
     "Release image buffer locked by getDirectRawImagesLocal().\n", {kName}, kSuccess,
     {" cameraProxy->releaseDirectRawImages(name);"},
     &bindTo<&Device::releaseDirectRawImages>},
    {"getImagesLocal", kSameProcess, M, kImageLocalText, {kName},
     {"images", "Array of pointer of the locked image buffer, NULL if error.Warning, image "
                "pointer is valid only for C++ dynamic library."},
     {"  std::vector<OXImage *> images = cameraProxy->getImagesLocal(name);"},
     &bindTo<&Device::getImagesLocal>},
    {"getImagesRemote", 0, M, kImageRemoteText, {kName}, kResult,
     {"  OXValue result = cameraProxy->getImagesRemote(name);", kImageData},
     &bindTo<&Device::getImagesRemote>},
    {"releaseImages", 0, M, kReleaseImageText, {kName}, kSuccess,
     {"  cameraProxy->releaseImages(name);"},
     &bindTo<&Device::releaseImages>},

    // Group 6: recording.
    {"recordVideo", 0, M,
     "Background record of an .oxv raw format video from the images processed by a vision "
     "module\n"
     "Actualy it take picture each time the vision module call getDirectRawImageRemote().",
     {{"id", "Name under which the G.V.M. is known from the V.I.M."},
      {"path", "path/name of the video to be recorded"},
      {"totalNumber", "number of images to be recorded. 0xFFFFFFFF for \"unlimited\""},
      {"period", "one image recorded every pPeriod images"}},
     kSuccess, {},
     &bindTo<&Device::recordVideo>},
    {"stopVideo", 0, M, "Stop writing the video sequence",
     {{"id", "Name under which the G.V.M. is known from OXVideoDevice."}}, kSuccess, {},
     &bindTo<&Device::stopVideo>},

    // Group 7: angular geometry; completeAndCheck names the arguments.
    {"getAngularPositionFromImagePosition", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getAngularPositionFromImagePosition>},
    {"getImagePositionFromAngularPosition", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImagePositionFromAngularPosition>},
    {"getAngularSizeFromImageSize", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getAngularSizeFromImageSize>},
    {"getImageSizeFromAngularSize", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImageSizeFromAngularSize>},
    {"getImageInfoFromAngularInfo", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImageInfoFromAngularInfo>},
    {"getImageInfoFromAngularInfoWithResolution", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImageInfoFromAngularInfoWithResolution>},

    // Group 8: for the simulator.
    {"putImage", 0, O, "Allow image buffer pushing",
     {kCameraIndex, kWidth, {"height", "int height of image"}, kImageBuffer}, kPutSuccess, {},
     &bindTo<static_cast<bool (Device::*)(const int&, const int&, const int&, const OXValue&)>(
         &Device::putImage)>},
    {"getExpectedImageParameters", 0, O, kExpectedParametersText, {kCameraIndex}, kParamReturn,
     {},
     &bindTo<static_cast<ValueByIndex>(&Device::getExpectedImageParameters)>},
  };
  return table;
}

// --- Texts of the deprecated interface ---
const Text kActiveCamera = {"activeCamera", " 0: top camera - 1: bottom camera"};
const Text kParam = {"pParam", "Camera parameter requested."};
const Text kNewValue = {"pNewValue", "value requested."};
const Text kParamCamera = {"pCameraIndex", "Camera requested."};

const std::vector<Publication>& deprecatedPublications() {
  static const std::vector<Publication> table = {
    {"onClientDisconnected", 0, M, "Callback when client is disconnected",
     {{"eventName", "The echoed event name"},
      {"eventContents", "The name of the client that has disconnected"},
      {"message", "The message give when subscribing."}},
     kNoReturn, {},
     &bindTo<&Device::onClientDisconnected>},
    {"subscribe", 0, O,
     "Register to OXVideoDevice (formerly Video Input Module/V.I.M.). When a General Video "
     "Module(G.V.M.) registers to OXVideoDevice, a buffer of the requested image format is added "
     "to the buffers list.\n"
     "Returns the name under which the G.V.M. is registered to OXVideoDevice (useful when two "
     "G.V.M. try to register using the same name",
     {{"gvmName", "Name of the subscribing G.V.M."},
      {"resolution", "Resolution requested. { 0 = kQQVGA, 1 = kQVGA, 2 = kVGA } "},
      {"colorSpace",
       "Colorspace requested."
       " { 0 = kYuv, 9 = kYUV422, 10 = kYUV, 11 = kRGB, 12 = kHSY, 13 = kBGR } "},
      {"fps", "Fps (frames per second) requested. { 5, 10, 15, 30 } "}},
     {"gvmNameId", "Name under which the G.V.M. is known from OXVideoDevice, 0 if failed."},
     {"  #Register a G.V.M. to OXVideoDevice, starting the frame grabber if it was not started "
      "before.",
      "  std::string pId, pGVMName = \"my_GVM\";",
      "  pId = fCamProxy->subscribe( pGVMName , pResolution, pColorSpace, pFps );"},
     &bindTo<&Device::subscribe>},
    {"unsubscribeAllInstances", 0, M,
     "Used to unsubscribe all instances for a given G.V.M. (e.g. VisionModule and VisionModule_5) "
     "from OXVideoDevice.",
     {{"id", "Root name of the G.V.M. (e.g. with the example above this will be VisionModule)."}},
     kNoReturn,
     {"  fCamProxy->unsubscribeAllInstances( pId );"},
     &bindTo<&Device::unsubscribeAllInstances>},
    {"_getDirectRawImageInterprocess", 0, M,
     "Retrieves a raw image into shared memory and returns the name of the shared memory region "
     "where it is stored.This method no longer works !",
     {}, {"uname", "Shared memory unique name identifier."}, {},
     &bindTo<&Device::getDirectRawImageInterprocess>},
    {"getActiveCamera", 0, O, "Tells if top camera is active", {}, kActiveCamera, {},
     &bindTo<static_cast<IntOfDevice>(&Device::getActiveCamera)>},
    {"setActiveCamera", 0, O, "Set the active camera", {kActiveCamera}, kNoReturn,
     {"  fCamera->setActiveCamera(activeCamera);"},
     &bindTo<static_cast<BoolByIndex>(&Device::setActiveCamera)>},
    {"getVIMResolution", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntOfDevice>(&Device::getResolution)>},
    {"getVIMColorSpace", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntOfDevice>(&Device::getColorSpace)>},
    {"getVIMFrameRate", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntOfDevice>(&Device::getFrameRate)>},
    {"getGVMResolution", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntByName>(&Device::getResolution)>},
    {"getGVMColorSpace", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntByName>(&Device::getColorSpace)>},
    {"getGVMFrameRate", 0, O, "", {}, kNoReturn, {},
     &bindTo<static_cast<IntByName>(&Device::getFrameRate)>},
    {"getCameraModelID", 0, O, "", {}, kNoReturn, {},
     &bindTo<&Device::getCameraModelID>},
    {"setParam", 0, O, "Sets the value of a specific parameter for the video source.",
     {kParam, kNewValue, kParamCamera}, kNoReturn,
     {"  cameraProxy->setParam(pParam, pNewValue, pCameraIndex);"},
     &bindTo<static_cast<void (Device::*)(const int&, const int&, const int&)>(
         &Device::setParam)>},
    {"setParam", 0, O, "Sets the value of a specific parameter for the video source.",
     {kParam, kNewValue}, kNoReturn,
     {"  cameraProxy->setParam(pParam, pNewValue);"},
     &bindTo<static_cast<void (Device::*)(const int&, const int&)>(&Device::setParam)>},
    {"getParam", 0, O, "", {kParam, kParamCamera}, kNoReturn,
     {"  cameraProxy->getParam(pParam, pCameraIndex);"},
     &bindTo<static_cast<int (Device::*)(const int&, const int&)>(&Device::getParam)>},
    {"getParam", 0, O, "", {kParam}, kNoReturn,
     {"  cameraProxy->getParam(pParam);"},
     &bindTo<static_cast<IntByIndex>(&Device::getParam)>},
    {"setParamDefault", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::setParamDefault>},
    {"getAngPosFromImgPos", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getAngPosFromImgPos>},
    {"getImgPosFromAngPos", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImgPosFromAngPos>},
    {"getAngSizeFromImgSize", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getAngSizeFromImgSize>},
    {"getImgSizeFromAngSize", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImgSizeFromAngSize>},
    {"getImgInfoFromAngInfo", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImgInfoFromAngInfo>},
    {"getImgInfoFromAngInfoWithRes", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::getImgInfoFromAngInfoWithRes>},
    {"resolutionToSizes", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::resolutionToSizes>},
    {"sizesToResolution", 0, M, "", {}, kNoReturn, {},
     &bindTo<&Device::sizesToResolution>},
    {"getExpectedImageParameters", 0, O, kExpectedParametersText, {}, kParamReturn, {},
     &bindTo<static_cast<ValueOfDevice>(&Device::getExpectedImageParameters)>},
    {"setSimCamInputSize", 0, O, kExpectedParametersText,
     {kWidth, {"height", "int height of image among 1280*960, 640*480, 320*240, 240*160"}},
     {"success", "true if setSize worked"}, {},
     &bindTo<&Device::setSimCamInputSize>},
    {"putImage", 0, O, "Allow image buffer pushing", {kImageBuffer}, kPutSuccess, {},
     &bindTo<static_cast<bool (Device::*)(const OXValue&)>(&Device::putImage)>},
    {"startFrameGrabber", 0, O,
     "Advanced method that opens and initialize video source device if it was not before.\n"
     "Note that the first module subscribing to OXVideoDevice will launch it automatically.",
     {}, kSuccess,
     {"  #Create a proxy on the video input module (V.I.M.)",
      "  boost::shared_ptr<OXProxy> fCamera = getParentBroker()->getProxy( \"OXVideoDevice\" );",
      "  fCamProxy = boost::shared_ptr<OX::OXVideoDeviceProxy>( new "
      "OX::OXVideoDeviceProxy(getParentBroker()));",
      "  #Start the frame grabber in the default mode.",
      "  fCamProxy->startFrameGrabber();"},
     &bindTo<static_cast<BoolOfDevice>(&Device::startFrameGrabber)>},
    {"stopFrameGrabber", 0, O,
     "Advanced method that close video source device.\n"
     "Note that the last module unsubscribing to OXVideoDevice will launch it automatically.",
     {}, kSuccess,
     {"  fCamProxy->stopFrameGrabber();"},
     &bindTo<static_cast<BoolOfDevice>(&Device::stopFrameGrabber)>},
    {"isFrameGrabberOff", 0, O, "Advanced method that asks if the framegrabber is off.", {},
     {"success", "true if off"}, {},
     &bindTo<static_cast<BoolOfDevice>(&Device::isFrameGrabberOff)>},
  };
  return table;
}
// clang-format on

}  // namespace

void OXVisionVideoInput::xBindMethods() {
  for (const Publication& publication : currentPublications()) publish(*this, publication);
}

void OXVisionVideoInput::xBindDeprecatedMethods() {
  for (const Publication& publication : deprecatedPublications()) publish(*this, publication);
}

bool OXVisionVideoInput::setActiveCamera(const int& pCameraIndex) {
  OXCriticalSectionWrite lock(fVisionModulesLock);
  xLog(kLogInfo, "setActiveCamera",
       "setActiveCamera(pCamID) is deprecated, use setActiveCamera(subscriber_name, pCamID) in "
       "order to change camera only for the specified subscriber.\n");
  if (pCameraIndex >= 0 && pCameraIndex < fNbCameras) {
    // The driver changes the device's active camera; no subscriber's record is touched.
    return xSetParam(fActiveCamera.load(), kCameraSelectID, pCameraIndex, false);
  }
  xRaise("setActiveCamera()", "Invalid camera parameter input reference.", __LINE__);
}

}  // namespace OX
