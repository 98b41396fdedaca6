// IVideoInput: the operations that the video device offers, without data and without code.
#pragma once

#include <string>
#include <vector>

#include "oximage.h"
#include "oxvalue.h"

namespace OX {

class IVideoInput {
 public:
  virtual ~IVideoInput() = default;

  virtual void unsubscribe(const std::string& pName) = 0;
  virtual int getCameraModel(const int& pCameraIndex) = 0;
  virtual bool startFrameGrabber(const int& pCameraIndex) = 0;
  virtual bool stopFrameGrabber(const int& pCameraIndex) = 0;
  virtual bool isFrameGrabberOff(const int& pCameraIndex) = 0;
  virtual int getFrameRate(const int& pCameraIndex) = 0;
  virtual int getResolution(const int& pCameraIndex) = 0;
  virtual int getColorSpace(const int& pCameraIndex) = 0;
  virtual std::string subscribeCamera(const std::string& pName, const int& pCameraIndex,
                                      const int& pResolution, const int& pColorSpace,
                                      const int& pFps) = 0;
  virtual int getFrameRate(const std::string& pName) = 0;
  virtual bool setFrameRate(const std::string& pName, const int& pFrameRate) = 0;
  virtual int getActiveCamera(const std::string& pName) = 0;
  virtual bool setActiveCamera(const std::string& pName, const int& pCameraIndex) = 0;
  virtual int getResolution(const std::string& pName) = 0;
  virtual bool setResolution(const std::string& pName, const int& pResolution) = 0;
  virtual int getColorSpace(const std::string& pName) = 0;
  virtual bool setColorSpace(const std::string& pName, const int& pColorSpace) = 0;
  virtual int getCameraParameter(const std::string& pName, const int& pParam) = 0;
  virtual bool setCameraParameter(const std::string& pName, const int& pParam,
                                  const int& pValue) = 0;
  virtual bool setCameraParameterToDefault(const std::string& pName, const int& pParam) = 0;
  virtual OXImage* getDirectRawImageLocal(const std::string& pName) = 0;
  virtual OXValue getDirectRawImageRemote(const std::string& pName) = 0;
  virtual bool releaseDirectRawImage(const std::string& pName) = 0;
  virtual OXImage* getImageLocal(const std::string& pName) = 0;
  virtual OXValue getImageRemote(const std::string& pName) = 0;
  virtual bool releaseImage(const std::string& pName) = 0;
  virtual std::string subscribeCameras(const std::string& pName, const OXValue& pCameraIndexes,
                                       const OXValue& pResolutions, const OXValue& pColorSpaces,
                                       const int& pFps) = 0;
  virtual OXValue getActiveCameras(const std::string& pName) = 0;
  virtual OXValue setActiveCameras(const std::string& pName, const OXValue& pCameraIndexes) = 0;
  virtual OXValue getResolutions(const std::string& pName) = 0;
  virtual OXValue setResolutions(const std::string& pName, const OXValue& pResolutions) = 0;
  virtual OXValue getColorSpaces(const std::string& pName) = 0;
  virtual OXValue setColorSpaces(const std::string& pName, const OXValue& pColorSpaces) = 0;
  virtual OXValue getCamerasParameter(const std::string& pName, const int& pParam) = 0;
  virtual OXValue setCamerasParameter(const std::string& pName, const int& pParam,
                                      const OXValue& pValues) = 0;
  virtual OXValue setCamerasParameterToDefault(const std::string& pName, const int& pParam) = 0;
  virtual OXValue getDirectRawImagesLocal(const std::string& pName) = 0;
  virtual OXValue getDirectRawImagesRemote(const std::string& pName) = 0;
  virtual OXValue releaseDirectRawImages(const std::string& pName) = 0;
  virtual OXValue getImagesLocal(const std::string& pName) = 0;
  virtual OXValue getImagesRemote(const std::string& pName) = 0;
  virtual OXValue releaseImages(const std::string& pName) = 0;
  virtual bool recordVideo(const std::string& pName, const std::string& pPath,
                           const int& pTotalNumber, const int& pPeriod) = 0;
  virtual bool stopVideo(const std::string& pName) = 0;
  virtual bool putImage(const int& pCameraIndex, const int& pWidth, const int& pHeight,
                        const OXValue& pImage) = 0;
  virtual OXValue getExpectedImageParameters(const int& pCameraIndex) = 0;
  virtual std::vector<float> getAngularPositionFromImagePosition(
      const int& pCameraIndex, const std::vector<float>& pImagePosition) = 0;
  virtual std::vector<float> getImagePositionFromAngularPosition(
      const int& pCameraIndex, const std::vector<float>& pAngularPosition) = 0;
  virtual std::vector<float> getAngularSizeFromImageSize(const int& pCameraIndex,
                                                         const std::vector<float>& pImageSize) = 0;
  virtual std::vector<float> getImageSizeFromAngularSize(
      const int& pCameraIndex, const std::vector<float>& pAngularSize) = 0;
  virtual std::vector<float> getImageInfoFromAngularInfo(
      const int& pCameraIndex, const std::vector<float>& pAngularInfo) = 0;
  virtual std::vector<float> getImageInfoFromAngularInfoWithResolution(
      const int& pCameraIndex, const std::vector<float>& pAngularInfo, const int& pResolution) = 0;
  virtual std::string subscribe(const std::string& pName, const int& pResolution,
                                const int& pColorSpace, const int& pFps) = 0;
  virtual void onClientDisconnected(const std::string& pEventName, const OXValue& pValue,
                                    const std::string& pSubscriberId) = 0;
  virtual void unsubscribeAllInstances(const std::string& pName) = 0;
  virtual int getActiveCamera() = 0;
  virtual int getCameraModelID() = 0;
  virtual int getResolution() = 0;
  virtual int getColorSpace() = 0;
  virtual int getFrameRate() = 0;
  virtual int getParam(const int& pParam) = 0;
  virtual void setParam(const int& pParam, const int& pValue) = 0;
  virtual void setParamDefault(const int& pParam) = 0;
  virtual bool startFrameGrabber() = 0;
  virtual bool stopFrameGrabber() = 0;
  virtual bool isFrameGrabberOff() = 0;
  virtual OXValue getExpectedImageParameters() = 0;
  virtual bool setSimCamInputSize(const int& pWidth, const int& pHeight) = 0;
  virtual bool putImage(const OXValue& pImage) = 0;
  virtual std::vector<float> getAngPosFromImgPos(const std::vector<float>& pImagePosition) = 0;
  virtual std::vector<float> getAngSizeFromImgSize(const std::vector<float>& pImageSize) = 0;
  virtual std::vector<float> getImgInfoFromAngInfo(const std::vector<float>& pAngularInfo) = 0;
  virtual std::vector<float> getImgInfoFromAngInfoWithRes(const std::vector<float>& pAngularInfo,
                                                          const int& pResolution) = 0;
  virtual std::vector<float> getImgPosFromAngPos(const std::vector<float>& pAngularPosition) = 0;
  virtual std::vector<float> getImgSizeFromAngSize(const std::vector<float>& pAngularSize) = 0;
  virtual OXValue resolutionToSizes(const int& pResolution) = 0;
  virtual int sizesToResolution(const int& pWidth, const int& pHeight) = 0;
};

}  // namespace OX
