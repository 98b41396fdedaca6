// Angular geometry: a linear lens model that maps normalised image positions and sizes to angles
// seen from the camera and back. Everything is single precision, in the order written, so that
// results are the same bit for bit on every build; no lock is taken and no subscriber is read.
#include <cstdint>
#include <cstring>

#include "oxtypes.h"
#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"

namespace OX {

namespace {

using FloatList = std::vector<float>;

// The apertures are fixed by their bit patterns: a decimal literal could round differently.
float fromBits(uint32_t pBits) {
  float value;
  std::memcpy(&value, &pBits, sizeof value);
  return value;
}

constexpr uint32_t kOV7670HorizontalBits = 0x3F5576D4;  // 0.83384442 rad
constexpr uint32_t kOV7670VerticalBits = 0x3F245733;    // 0.64195555 rad
constexpr uint32_t kOtherHorizontalBits = 0x3F87FBA2;   // 1.0623667 rad
constexpr uint32_t kOtherVerticalBits = 0x3F54922E;     // 0.83035553 rad

constexpr const char* kInvalidCamera = ") : invalid Camera index";
constexpr const char* kInvalidCameraList = ",...) : invalid Camera index";
constexpr const char* kInvalidSize = ",...) : invalid parameter size";
constexpr const char* kInvalidResolution = ") : invalid resolution index";

}  // namespace

void OXVisionVideoInput::xCheckGeometryCamera(const char* pOperation, int pCameraIndex,
                                              const char* pTail, int pLine) const {
  if (pCameraIndex >= 0 && pCameraIndex < fNbCameras) return;
  xThrow(pOperation, std::string(pOperation) + "(" + std::to_string(pCameraIndex) + pTail, pLine);
}

float OXVisionVideoInput::xHorizontalApertureRad(int pCameraIndex) {
  // Only the camera's model matters; an index without a camera counts as "any other model".
  const bool ov7670 = pCameraIndex >= 0 && pCameraIndex < fNbCameras &&
                      fCameraProperties[pCameraIndex]->fCameraModel == kOV7670;
  return fromBits(ov7670 ? kOV7670HorizontalBits : kOtherHorizontalBits);
}

float OXVisionVideoInput::xVerticalApertureRad(int pCameraIndex) {
  const bool ov7670 = pCameraIndex >= 0 && pCameraIndex < fNbCameras &&
                      fCameraProperties[pCameraIndex]->fCameraModel == kOV7670;
  return fromBits(ov7670 ? kOV7670VerticalBits : kOtherVerticalBits);
}

FloatList OXVisionVideoInput::getAngularPositionFromImagePosition(const int& pCameraIndex,
                                                                  const FloatList& pPosition) {
  const char* operation = "getAngularPositionFromImagePosition";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCameraList, __LINE__);
  if (pPosition.size() != 2) {
    xThrow(operation, std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidSize,
           __LINE__);
  }
  const float h = xHorizontalApertureRad(pCameraIndex);
  const float v = xVerticalApertureRad(pCameraIndex);
  // The horizontal angle grows towards the image's left, the way the head turns.
  return {-(pPosition[0] - 0.5f) * h, (pPosition[1] - 0.5f) * v};
}

FloatList OXVisionVideoInput::getImagePositionFromAngularPosition(const int& pCameraIndex,
                                                                  const FloatList& pAngles) {
  const char* operation = "getImagePositionFromAngularPosition";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCameraList, __LINE__);
  if (pAngles.size() != 2) {
    xThrow(std::string(operation) + "()",
           std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidSize, __LINE__);
  }
  const float h = xHorizontalApertureRad(pCameraIndex);
  const float v = xVerticalApertureRad(pCameraIndex);
  return {(-pAngles[0]) / h + 0.5f, 0.5f + pAngles[1] / v};
}

FloatList OXVisionVideoInput::getAngularSizeFromImageSize(const int& pCameraIndex,
                                                          const FloatList& pSize) {
  const char* operation = "getAngularSizeFromImageSize";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCamera, __LINE__);
  const auto outside = [](float pValue) { return !(pValue >= 0.0f && pValue <= 1.0f); };
  if (pSize.size() != 2 || outside(pSize[0]) || outside(pSize[1])) {
    xThrow(std::string(operation) + "()",
           std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidSize, __LINE__);
  }
  return {pSize[0] * xHorizontalApertureRad(pCameraIndex),
          pSize[1] * xVerticalApertureRad(pCameraIndex)};
}

FloatList OXVisionVideoInput::getImageSizeFromAngularSize(const int& pCameraIndex,
                                                          const FloatList& pAngles) {
  const char* operation = "getImageSizeFromAngularSize";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCamera, __LINE__);
  if (pAngles.size() != 2) {
    xThrow(std::string(operation) + "()",
           std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidSize, __LINE__);
  }
  return {pAngles[0] / xHorizontalApertureRad(pCameraIndex),
          pAngles[1] / xVerticalApertureRad(pCameraIndex)};
}

FloatList OXVisionVideoInput::getImageInfoFromAngularInfo(const int& pCameraIndex,
                                                          const FloatList& pInfo) {
  const char* operation = "getImageInfoFromAngularInfo";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCamera, __LINE__);
  if (pInfo.size() != 4) {
    xThrow(std::string(operation) + "()",
           std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidSize, __LINE__);
  }
  // Through the virtual table: an override of either half governs this one too.
  FloatList result = getImagePositionFromAngularPosition(pCameraIndex, {pInfo[0], pInfo[1]});
  const FloatList size = getImageSizeFromAngularSize(pCameraIndex, {pInfo[2], pInfo[3]});
  result.insert(result.end(), size.begin(), size.end());
  return result;
}

FloatList OXVisionVideoInput::getImageInfoFromAngularInfoWithResolution(const int& pCameraIndex,
                                                                        const FloatList& pInfo,
                                                                        const int& pResolution) {
  const char* operation = "getImageInfoFromAngularInfoWithResolution";
  xCheckGeometryCamera(operation, pCameraIndex, kInvalidCamera, __LINE__);
  if (!xIsResolutionValid(pResolution, pCameraIndex)) {
    xThrow(operation,
           std::string(operation) + "(" + std::to_string(pCameraIndex) + kInvalidResolution,
           __LINE__);
  }
  int width = 0;
  int height = 0;
  setSizeFromResolution(pResolution, width, height);
  // The list's length is checked by the call: camera and resolution failures come first.
  FloatList result = getImageInfoFromAngularInfo(pCameraIndex, pInfo);
  result[0] *= static_cast<float>(width);
  result[2] *= static_cast<float>(width);
  result[1] *= static_cast<float>(height);
  result[3] *= static_cast<float>(height);
  return result;
}

// The short forms follow the device's camera and go through the virtual table, so that an
// override of a long form governs its short form too.
FloatList OXVisionVideoInput::getAngPosFromImgPos(const FloatList& pPosition) {
  return getAngularPositionFromImagePosition(fActiveCamera.load(), pPosition);
}
FloatList OXVisionVideoInput::getImgPosFromAngPos(const FloatList& pAngles) {
  return getImagePositionFromAngularPosition(fActiveCamera.load(), pAngles);
}
FloatList OXVisionVideoInput::getAngSizeFromImgSize(const FloatList& pSize) {
  return getAngularSizeFromImageSize(fActiveCamera.load(), pSize);
}
FloatList OXVisionVideoInput::getImgSizeFromAngSize(const FloatList& pAngles) {
  return getImageSizeFromAngularSize(fActiveCamera.load(), pAngles);
}
FloatList OXVisionVideoInput::getImgInfoFromAngInfo(const FloatList& pInfo) {
  return getImageInfoFromAngularInfo(fActiveCamera.load(), pInfo);
}
FloatList OXVisionVideoInput::getImgInfoFromAngInfoWithRes(const FloatList& pInfo,
                                                           const int& pResolution) {
  return getImageInfoFromAngularInfoWithResolution(fActiveCamera.load(), pInfo, pResolution);
}

}  // namespace OX
