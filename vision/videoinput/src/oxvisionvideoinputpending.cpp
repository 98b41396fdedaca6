// TEMPORARY: the operations of the device that later changes implement (settings, recording,
// geometry). Each refuses with a logged OXError until then. Delete each body
// from here as its real one lands.
#include "oxvisionvideoinput.h"

namespace OX {

void OXVisionVideoInput::xPending(const std::string& pOperation, int pLine) const {
  xThrow(pOperation + "()", pOperation + " is not available yet", pLine);
}

using FloatList = std::vector<float>;
using Name = const std::string&;

int OXVisionVideoInput::getFrameRate(Name) {
  xPending("getFrameRate", __LINE__);
}
bool OXVisionVideoInput::setFrameRate(Name, const int&) {
  xPending("setFrameRate", __LINE__);
}
int OXVisionVideoInput::getActiveCamera(Name) {
  xPending("getActiveCamera", __LINE__);
}
bool OXVisionVideoInput::setActiveCamera(Name, const int&) {
  xPending("setActiveCamera", __LINE__);
}
int OXVisionVideoInput::getResolution(Name) {
  xPending("getResolution", __LINE__);
}
bool OXVisionVideoInput::setResolution(Name, const int&) {
  xPending("setResolution", __LINE__);
}
int OXVisionVideoInput::getColorSpace(Name) {
  xPending("getColorSpace", __LINE__);
}
bool OXVisionVideoInput::setColorSpace(Name, const int&) {
  xPending("setColorSpace", __LINE__);
}
OXValue OXVisionVideoInput::getActiveCameras(Name) {
  xPending("getActiveCameras", __LINE__);
}
OXValue OXVisionVideoInput::setActiveCameras(Name, const OXValue&) {
  xPending("setActiveCameras", __LINE__);
}
OXValue OXVisionVideoInput::getResolutions(Name) {
  xPending("getResolutions", __LINE__);
}
OXValue OXVisionVideoInput::setResolutions(Name, const OXValue&) {
  xPending("setResolutions", __LINE__);
}
OXValue OXVisionVideoInput::getColorSpaces(Name) {
  xPending("getColorSpaces", __LINE__);
}
OXValue OXVisionVideoInput::setColorSpaces(Name, const OXValue&) {
  xPending("setColorSpaces", __LINE__);
}
bool OXVisionVideoInput::recordVideo(Name, Name, const int&, const int&) {
  xPending("recordVideo", __LINE__);
}
bool OXVisionVideoInput::stopVideo(Name) {
  xPending("stopVideo", __LINE__);
}
FloatList OXVisionVideoInput::getAngularPositionFromImagePosition(const int&, const FloatList&) {
  xPending("getAngularPositionFromImagePosition", __LINE__);
}
FloatList OXVisionVideoInput::getImagePositionFromAngularPosition(const int&, const FloatList&) {
  xPending("getImagePositionFromAngularPosition", __LINE__);
}
FloatList OXVisionVideoInput::getAngularSizeFromImageSize(const int&, const FloatList&) {
  xPending("getAngularSizeFromImageSize", __LINE__);
}
FloatList OXVisionVideoInput::getImageSizeFromAngularSize(const int&, const FloatList&) {
  xPending("getImageSizeFromAngularSize", __LINE__);
}
FloatList OXVisionVideoInput::getImageInfoFromAngularInfo(const int&, const FloatList&) {
  xPending("getImageInfoFromAngularInfo", __LINE__);
}
FloatList OXVisionVideoInput::getImageInfoFromAngularInfoWithResolution(const int&,
                                                                        const FloatList&,
                                                                        const int&) {
  xPending("getImageInfoFromAngularInfoWithResolution", __LINE__);
}
FloatList OXVisionVideoInput::getAngPosFromImgPos(const FloatList&) {
  xPending("getAngPosFromImgPos", __LINE__);
}
FloatList OXVisionVideoInput::getImgPosFromAngPos(const FloatList&) {
  xPending("getImgPosFromAngPos", __LINE__);
}
FloatList OXVisionVideoInput::getAngSizeFromImgSize(const FloatList&) {
  xPending("getAngSizeFromImgSize", __LINE__);
}
FloatList OXVisionVideoInput::getImgSizeFromAngSize(const FloatList&) {
  xPending("getImgSizeFromAngSize", __LINE__);
}
FloatList OXVisionVideoInput::getImgInfoFromAngInfo(const FloatList&) {
  xPending("getImgInfoFromAngInfo", __LINE__);
}
FloatList OXVisionVideoInput::getImgInfoFromAngInfoWithRes(const FloatList&, const int&) {
  xPending("getImgInfoFromAngInfoWithRes", __LINE__);
}
float OXVisionVideoInput::xHorizontalApertureRad(int) {
  xPending("xHorizontalApertureRad", __LINE__);
}
float OXVisionVideoInput::xVerticalApertureRad(int) {
  xPending("xVerticalApertureRad", __LINE__);
}

}  // namespace OX
