// OXVisionVideoInput: the abstract video device. It owns the cameras' records, the subscribers
// and the image pools; a concrete source supplies the ten driver operations.
//
// Locking: fVisionModulesLock (re-entrant for its writer) guards subscribers, cameras and
// buffers; it comes before any lock of a concrete source. Each declaration says what it takes
// ("takes W/R": takes the lock for writing/reading) or expects held ("W held").
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device/ivideoinput.h"
#include "oxbroker.h"
#include "oxmodulestatus.h"
#include "oxmutex.h"
#include "device/oxvisionvideoinputrecords.h"
#include "kilog.h"

namespace OX {

// The log levels, by name, for the device and its cameras.
using ki::log::kLogError;
using ki::log::kLogFatal;
using ki::log::kLogInfo;
using ki::log::kLogVerbose;
using ki::log::kLogWarning;

namespace videoinputtexts {
struct SubscriberCheck;
struct CameraCheck;
struct SettingCheck;
}  // namespace videoinputtexts

// An image's time stamp as (seconds, microseconds), by truncating division: the freshness rules
// of the delivery compare these parts.
std::pair<int64_t, int64_t> getTimeStamp(const OXImage& pImage);

// What a lookup says of a subscriber that it does not know, at level 2: the text
// "<head><name><tail>", or "<head><name><middle><name><tail>" when fMiddle is set. A raising
// lookup logs it for fFunction without "()" in the device's category, then raises it as OXError
// with the method fFunction; any other logs it for fFunction in fCategory (null: the device's).
struct UnknownSubscriber {
  bool fRaises;
  const char* fFunction;
  const char* fHead;
  const char* fMiddle;
  const char* fTail;
  const char* fCategory = nullptr;
};

// Parameter identifiers that the core knows by number; all others pass through to the driver.
enum : int {
  kCameraResolutionID = 14,
  kCameraFrameRateID = 15,
  kCameraBufferSizeID = 16,
  kCameraSelectID = 18,
  kCameraColorSpaceID = 20
};

class OXVisionVideoInput : public OXModule, public IVideoInput, public OXModuleStatus {
 public:
  ~OXVisionVideoInput() override;  // no lock: runs after the last call

  // --- Published operations of IVideoInput, in slot order ---
  void unsubscribe(const std::string& pName) override;       // takes W per pass; waits for a holder
  int getCameraModel(const int& pCameraIndex) override;      // takes R
  bool startFrameGrabber(const int& pCameraIndex) override;  // takes W
  bool stopFrameGrabber(const int& pCameraIndex) override;   // takes W
  bool isFrameGrabberOff(const int& pCameraIndex) override;  // takes R
  int getFrameRate(const int& pCameraIndex) override;        // takes R
  int getResolution(const int& pCameraIndex) override;       // takes R
  int getColorSpace(const int& pCameraIndex) override;       // takes R
  // Checks under R, then registers under W.
  std::string subscribeCamera(const std::string& pName, const int& pCameraIndex,
                              const int& pResolution, const int& pColorSpace,
                              const int& pFps) override;
  int getFrameRate(const std::string& pName) override;                               // settings
  bool setFrameRate(const std::string& pName, const int& pFrameRate) override;       // settings
  int getActiveCamera(const std::string& pName) override;                            // settings
  bool setActiveCamera(const std::string& pName, const int& pCameraIndex) override;  // settings
  int getResolution(const std::string& pName) override;                              // settings
  bool setResolution(const std::string& pName, const int& pResolution) override;     // settings
  int getColorSpace(const std::string& pName) override;                              // settings
  bool setColorSpace(const std::string& pName, const int& pColorSpace) override;     // settings
  int getCameraParameter(const std::string& pName, const int& pParam) override;      // takes R
  bool setCameraParameter(const std::string& pName, const int& pParam,
                          const int& pValue) override;  // takes W
  bool setCameraParameterToDefault(const std::string& pName,
                                   const int& pParam) override;        // takes W
  OXImage* getDirectRawImageLocal(const std::string& pName) override;  // takes W
  // Takes W for the request, copies outside it, then releases (takes W again).
  OXValue getDirectRawImageRemote(const std::string& pName) override;
  bool releaseDirectRawImage(const std::string& pName) override;  // takes W (re-entered)
  OXImage* getImageLocal(const std::string& pName) override;      // takes W
  // Takes W for the request, copies outside it, then releases (takes W again).
  OXValue getImageRemote(const std::string& pName) override;
  bool releaseImage(const std::string& pName) override;  // takes W
  // Checks under R, then registers under W.
  std::string subscribeCameras(const std::string& pName, const OXValue& pCameraIndexes,
                               const OXValue& pResolutions, const OXValue& pColorSpaces,
                               const int& pFps) override;
  OXValue getActiveCameras(const std::string& pName) override;  // settings
  OXValue setActiveCameras(const std::string& pName, const OXValue& pCameraIndexes) override;
  OXValue getResolutions(const std::string& pName) override;  // settings
  OXValue setResolutions(const std::string& pName, const OXValue& pResolutions) override;
  OXValue getColorSpaces(const std::string& pName) override;  // settings
  OXValue setColorSpaces(const std::string& pName, const OXValue& pColorSpaces) override;
  OXValue getCamerasParameter(const std::string& pName, const int& pParam) override;  // takes R
  OXValue setCamerasParameter(const std::string& pName, const int& pParam,
                              const OXValue& pValues) override;  // takes W
  OXValue setCamerasParameterToDefault(const std::string& pName,
                                       const int& pParam) override;    // takes W
  OXValue getDirectRawImagesLocal(const std::string& pName) override;  // takes W
  // Takes W for the request, fills fBinaryBuffer under fBinaryBufferLock, takes W to release.
  OXValue getDirectRawImagesRemote(const std::string& pName) override;
  OXValue releaseDirectRawImages(const std::string& pName) override;  // takes W
  OXValue getImagesLocal(const std::string& pName) override;          // takes W
  // Takes W for the request, fills fBinaryBuffer under fBinaryBufferLock, then releases.
  OXValue getImagesRemote(const std::string& pName) override;
  OXValue releaseImages(const std::string& pName) override;  // takes W
  bool recordVideo(const std::string& pName, const std::string& pPath, const int& pTotalNumber,
                   const int& pPeriod) override;      // takes W
  bool stopVideo(const std::string& pName) override;  // takes W
  // Refused here ("Only implemented for simulator"); no lock.
  bool putImage(const int& pCameraIndex, const int& pWidth, const int& pHeight,
                const OXValue& pImage) override;
  OXValue getExpectedImageParameters(const int& pCameraIndex) override;  // refused; no lock
  std::vector<float> getAngularPositionFromImagePosition(
      const int& pCameraIndex, const std::vector<float>& pImagePosition) override;  // no lock
  std::vector<float> getImagePositionFromAngularPosition(
      const int& pCameraIndex, const std::vector<float>& pAngularPosition) override;  // no lock
  std::vector<float> getAngularSizeFromImageSize(
      const int& pCameraIndex, const std::vector<float>& pImageSize) override;  // no lock
  std::vector<float> getImageSizeFromAngularSize(
      const int& pCameraIndex, const std::vector<float>& pAngularSize) override;  // no lock
  std::vector<float> getImageInfoFromAngularInfo(
      const int& pCameraIndex, const std::vector<float>& pAngularInfo) override;  // no lock
  std::vector<float> getImageInfoFromAngularInfoWithResolution(
      const int& pCameraIndex, const std::vector<float>& pAngularInfo,
      const int& pResolution) override;  // no lock

 protected:
  OXVisionVideoInput(boost::shared_ptr<OXBroker> pBroker, std::string pName);

  // --- The ten driver operations, supplied by a concrete source ---
  // The three checks are called without any lock and with any camera index, out of range too.
  virtual bool xIsResolutionValid(const int& pResolution, const int& pCameraIndex) const = 0;
  virtual bool xIsFrameRateValid(const int& pFrameRate, const int& pCameraIndex) const = 0;
  virtual bool xIsColorSpaceValid(const int& pColorSpace, const int& pCameraIndex) const = 0;
  virtual OXImage* xGetDirectRawImage(const std::string& pName, bool pDeepCopy) = 0;  // W held
  virtual std::vector<OXImage*> xGetDirectRawImages(const std::string& pName) = 0;    // W held
  virtual bool xReleaseDirectRawImageDeep(const std::string& pName,
                                          const int& pCameraIndex) = 0;  // W held
  // R or W held; concurrent calls under R must be safe in the camera.
  virtual int xGetParam(const int& pCameraIndex, const int& pParam) = 0;
  virtual bool xSetParam(int pCameraIndex, int pParam, int pValue, bool pSetDefault) = 0;  // W
  virtual bool xStartFrameGrabber(const int& pCameraIndex) = 0;  // W held; true when running
  virtual bool xStopFrameGrabber(const int& pCameraIndex) = 0;   // W held

  virtual OXImage* xGetImage(const std::string& pName);                // W held
  virtual std::vector<OXImage*> xGetImages(const std::string& pName);  // W held

 public:
  // Same as subscribeCamera with camera -1 (follows the device's active camera).
  std::string subscribe(const std::string& pName, const int& pResolution, const int& pColorSpace,
                        const int& pFps) override;
  // Takes W for the whole walk (unsubscribe re-enters it). Leaves the instance with suffix 8.
  void unsubscribeAllInstances(const std::string& pName) override;
  // Takes and gives back a raw image without handing it over; "lastVideoBuffer", or "" for an
  // unknown subscriber. Takes W and re-enters it through releaseDirectRawImage.
  std::string getDirectRawImageInterprocess(const std::string& pName);
  // Callback of "ClientDisconnected"; takes R to look, then unsubscribe.
  void onClientDisconnected(const std::string& pEventName, const OXValue& pValue,
                            const std::string& pSubscriberId) override;

  // --- Device-wide forms, on the device's active camera ---
  int getActiveCamera() override;                                                        // takes R
  int getResolution() override;                                                          // takes R
  int getColorSpace() override;                                                          // takes R
  int getFrameRate() override;                                                           // takes R
  int getCameraModelID() override;                                                       // takes R
  virtual void setParam(const int& pParam, const int& pValue, const int& pCameraIndex);  // W
  void setParam(const int& pParam, const int& pValue) override;  // no lock of its own
  int getParam(const int& pParam) override;                      // takes R
  int getParam(const int& pParam, const int& pCameraIndex);      // takes R
  void setParamDefault(const int& pParam) override;              // takes W
  bool startFrameGrabber() override;  // takes W; stops at the first camera that fails
  bool stopFrameGrabber() override;   // takes W; stops at the first camera that fails
  bool isFrameGrabberOff() override;  // takes R
  OXValue resolutionToSizes(const int& pResolution) override;             // no lock
  int sizesToResolution(const int& pWidth, const int& pHeight) override;  // no lock

  std::vector<float> getAngPosFromImgPos(const std::vector<float>& pImagePosition) override;
  std::vector<float> getImgPosFromAngPos(const std::vector<float>& pAngularPosition) override;
  std::vector<float> getAngSizeFromImgSize(const std::vector<float>& pImageSize) override;
  std::vector<float> getImgSizeFromAngSize(const std::vector<float>& pAngularSize) override;
  std::vector<float> getImgInfoFromAngInfo(const std::vector<float>& pAngularInfo) override;
  std::vector<float> getImgInfoFromAngInfoWithRes(const std::vector<float>& pAngularInfo,
                                                  const int& pResolution) override;

  OXValue getExpectedImageParameters() override;                            // refused; no lock
  bool setSimCamInputSize(const int& pWidth, const int& pHeight) override;  // refused; no lock
  bool putImage(const OXValue& pImage) override;                            // refused; no lock

  // Deprecated: changes the device's active camera through the driver; logs its deprecation on
  // every call and raises for a camera the device does not have. Takes W.
  bool setActiveCamera(const int& pCameraIndex);

  // Each camera and each subscriber with what it was served, for the host's pages and metrics.
  // Not published: the method table stays as it is. Takes R.
  std::vector<OXStatusEntry> getStatus() override;

  // Conversions run by the delivery paths since construction: lets tests count work, not time.
  int conversionCountForTesting() const { return fConversionCount.load(); }

  // What a camera must run at, from every subscriber's wishes. W held; takes no lock.
  bool xUpdateParam(const int& pCameraIndex);

 protected:
  // By the camera's model only; no lock.
  virtual float xHorizontalApertureRad(int pCameraIndex);
  virtual float xVerticalApertureRad(int pCameraIndex);

  // --- Buffer pool (W held for all of them) ---
  // One converted buffer in the subscriber's format and one raw buffer in the camera's.
  bool xCreateBuffersForStoringImages(const int& pCameraIndex, const int& pResolution,
                                      const int& pColorSpace);
  // The searches leave the counter of the returned buffer raised: the caller holds it then.
  int xLockTheOldestBufferForEditing(const int8_t& pCameraIndex, const int& pWidth,
                                     const int& pHeight, const int& pColorSpace);
  int xLockTheOldestBufferForEditing(const int8_t& pCameraIndex);
  int xLockTheNewestBufferForReading(const int8_t& pCameraIndex, const int& pWidth,
                                     const int& pHeight, const int& pColorSpace);
  int xLockTheNewestBufferForReading(const int8_t& pCameraIndex);
  // Frees the oldest free buffer of a pool (of the subscriber's format in the second form).
  void xFindAndEraseTheOldestBuffer(std::vector<OXVisionBuffer*>& pPool);
  void xFindAndEraseTheOldestBuffer(std::vector<OXVisionBuffer*>& pPool,
                                    const boost::shared_ptr<VisionModuleInfo>& pInfo);
  // Takes back every image that a subscriber holds.
  void xForceReleaseBuffer(const std::string& pName);

  // --- Colour-space conversion (W held for all of them) ---
  // Converts the raw image for stream pCameraIndex of pModule into the oldest free buffer of the
  // subscriber's format and returns its index, which the caller then holds for reading; -1 (and
  // a record) when the pool has no such buffer.
  int xConvertImage(int pCameraIndex, boost::shared_ptr<VisionModuleInfo>& pModule,
                    const OXImage* pRawImage);
  // One sequential pass over the raw frame into fCopyBuffer, ahead of the kernels.
  void xApplyPatchForKernelMemcopy(const OXImage* pSource);
  // The kernels from kYUV422: the destination's width and height say what to produce (source
  // rows and macro-pixels are skipped by the ratio of the widths); its format is not looked at.
  // The test hook conversionkernels::forceKernelsForTesting picks their variant.
  void xYUV422toYuv(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toHsy(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toYUV422(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toYUV(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toRGB(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toHSY(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toBGR(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toYYCbCr(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toH2RGB(const OXImage* pSource, OXImage* pDestination);
  void xYUV422toHSMixed(const OXImage* pSource, OXImage* pDestination);

  // Whether a record of the list has this identifier.
  static bool xIsInParams(std::vector<paramIDConvert> pList, int pParamID);

  // The camera a subscriber works on: its own, or the device's when its own is negative.
  int xCurrentCamera(const VisionModuleInfo& pInfo) const;  // R or W held
  // The subscriber's record; for a name it does not know, what pUnknown says and null, or the
  // raised error, reported from pLine. R or W held.
  boost::shared_ptr<VisionModuleInfo> xLookUpSubscriber(const std::string& pName,
                                                        const UnknownSubscriber& pUnknown,
                                                        int pLine = 0) const;

  // --- Raw frames lent to subscribers (oxvisionvideoinputrawframes.cpp); W held ---
  // Lends pFrame's pixels and stamp, without a copy, through the first free output buffer of
  // pCamera's fRawBuffers, which remembers pSource, the camera's own record of the frame. The
  // buffer becomes pRequested's fLockedImage and its image is returned; null when every output
  // buffer is busy (the caller logs; the camera's count of pSource is its own business).
  OXImage* xLendRawFrame(int pCamera, const OXImage& pFrame, void* pSource,
                         RequestedCameraProperties& pRequested);
  // What the return of its last user does to an output buffer's stamp.
  enum class ReleasedStamp { kKeep, kForget };
  // Takes back what pRequested holds, if anything. Returns the camera's record of the frame
  // (the pSource of the lend) when this subscriber was the output buffer's last user, so that the
  // camera lowers its own count of the frame; null otherwise.
  void* xTakeBackRawFrame(RequestedCameraProperties& pRequested, ReleasedStamp pStamp);

  // Logs pMessage at level 2 and raises OXError(getName(), pMethod, pMessage, file, pLine).
  [[noreturn]] void xThrow(const std::string& pMethod, const std::string& pMessage,
                           int pLine) const;
  // Raises the same OXError without a record, for failures that are not logged.
  [[noreturn]] void xRaise(const std::string& pMethod, const std::string& pMessage,
                           int pLine) const;
  // Raises (logged) for a camera index that no camera has, where the operation has no text of
  // its own for it: "camera index <n> out of range: this device has <N> cameras, 0 to <N-1>".
  void xCheckCameraArgument(int pCameraIndex, const std::string& pMethod, int pLine) const;
  // One record for the device's category (vision.oxvisionvideoinput unless told otherwise).
  void xLog(int pLevel, const std::string& pFunction, const std::string& pMessage,
            const char* pCategory = nullptr) const;

  // Atomic: the simulator's push reads it without the device lock.
  std::atomic<int> fActiveCamera;
  int fDefaultResolution;
  int fNbCameras;
  std::vector<boost::shared_ptr<RealCameraProperties>> fCameraProperties;
  boost::shared_ptr<OXMutexRW> fVisionModulesLock;
  boost::shared_ptr<OXMutex> fParametersLock;  // taken by the concrete sources only
  std::map<std::string, boost::shared_ptr<VisionModuleInfo>> fVisionModules;
  std::vector<paramIDConvert> fParamIDs;
  std::vector<paramIDConvert> fDeviceParamIDs;
  std::unique_ptr<char[]> fCopyBuffer;    // kCopyBufferSize bytes, allocated once
  std::unique_ptr<char[]> fBinaryBuffer;  // kBinaryBufferSize bytes, allocated once
  // The remote replies fill fBinaryBuffer outside fVisionModulesLock: this keeps each reply whole.
  boost::shared_ptr<OXMutex> fBinaryBufferLock = OXMutex::createOXMutex();

  // No camera runs, and no subscriber is served, below this frame rate.
  static constexpr int kLowestFrameRate = 5;
  static constexpr int kCopyBufferSize = 1280 * 960 * 2;
  static constexpr int kBinaryBufferSize = 1280 * 960 * 3 * 2;

  // Publication of the methods; filled by the change that publishes the interface.
  void xBindMethods();
  void xBindDeprecatedMethods();

 private:
  // Looks a subscriber up for an operation of one family; raises (logged) as the checks say.
  using SubscriberCheck = videoinputtexts::SubscriberCheck;
  using CameraCheck = videoinputtexts::CameraCheck;
  boost::shared_ptr<VisionModuleInfo> xFindSubscriber(const std::string& pName,
                                                      const SubscriberCheck& pCheck) const;
  // Raises (logged) for a camera index out of range, with the texts of that operation.
  void xCheckCameraIndex(const int& pCameraIndex, const CameraCheck& pCheck, int pLine) const;
  // Lock, check the index, read a camera's field (the seven operations with a camera index).
  template <class Read>
  auto xReadCamera(const int& pCameraIndex, const CameraCheck& pCheck, int pLine, Read pRead);
  // Finds the unique id for pName in fVisionModules; W held.
  std::string xUniqueId(const std::string& pName, bool pMultiStream);
  // The frame rate a new subscriber gets: at least kLowestFrameRate, and that in HD (k4VGA),
  // with a record for each raise, for pFunction. No lock.
  int xSubscribedFrameRate(const char* pFunction, int pFps,
                           const std::vector<int>& pResolutions) const;
  // The checks of each stream of subscribeCameras: a camera of the device, a resolution and a
  // colour space that it takes; raises (logged but for the camera) at the first that fails.
  void xCheckStreams(const std::string& pHead, const std::vector<int>& pCameras,
                     const std::vector<int>& pResolutions,
                     const std::vector<int>& pColorSpaces) const;
  // The two subscribing operations end here; W held.
  [[noreturn]] void xSubscribeFailed(bool pMultiStream, const std::string& pMessage,
                                     int pLine) const;
  // A multi-stream subscriber leaves one of its cameras: lowers the camera if it was the one
  // keeping it high, then frees one buffer of each pool of that camera. W held.
  void xLeaveStreamCamera(const boost::shared_ptr<VisionModuleInfo>& pInfo, int pCamera);
  bool xCloseVideo(const boost::shared_ptr<VisionModuleInfo>& pInfo);  // W held
  // A mono-stream subscriber for recordVideo/stopVideo; raises (logged) otherwise.
  boost::shared_ptr<VisionModuleInfo> xFindRecorder(const std::string& pName,
                                                    const UnknownSubscriber& pUnknown,
                                                    int pLine) const;
  // One request of a recording subscriber: close after the last image, else count down and
  // write the raw frame when its turn comes (patch pass first when pPatch). Null and
  // non-recording subscribers are skipped. W held.
  void xRecordStep(const boost::shared_ptr<VisionModuleInfo>& pInfo, const OXImage* pRawImage,
                   bool pPatch);
  // Counts pImages images (the non-null ones of the list) handed to a subscriber by one request
  // for its status. W held.
  void xCountDelivery(VisionModuleInfo& pInfo, int pImages);
  void xCountDelivery(VisionModuleInfo& pInfo, const std::vector<OXImage*>& pImages);
  // xConvertImage, counted for conversionCountForTesting and timed for the subscriber; W held.
  int xConvertCounted(int pCameraIndex, boost::shared_ptr<VisionModuleInfo>& pModule,
                      const OXImage* pRawImage);
  // Raises (logged) when a delivery would index a camera that the device does not have.
  void xCheckDeliveryCamera(const std::string& pName, int pCameraIndex, const char* pMethod,
                            const VisionModuleInfo& pInfo, int pLine) const;
  // The first two choices of xGetImage: a converted image of the subscriber's format, then a raw
  // image, recent enough for its frame rate. True when one served the request, with pImage the
  // image held, or null when the raw image's conversion found no free buffer (the request ends
  // there); false when nothing was recent. W held.
  bool xServeRecentImage(boost::shared_ptr<VisionModuleInfo>& pSubscriber, int pCamera,
                         OXImage*& pImage);
  // Gives back the raw frames a subscriber of one stream holds after a conversion on pCamera: on
  // its own camera, or, following the device, on every camera up to the first refusal. W held.
  bool xGiveRawFramesBack(const std::string& pName, const VisionModuleInfo& pSubscriber,
                          int pCamera);
  // Whether the subscriber's hold on that camera is a converted image of the device's pool.
  bool xHoldsConvertedImage(const VisionModuleInfo& pInfo, int pCameraIndex) const;
  // The converted buffer of the pool through which the subscriber holds pImage, or null.
  OXVisionBuffer* xHeldBuffer(const VisionModuleInfo& pInfo, const OXImage* pImage) const;
  // Keeps the shared copy of a buffer's pixels that a remote reply made, unless the buffer has
  // been edited (or freed) since. W held.
  void xKeepRemoteCopy(const OXVisionBuffer* pBuffer, std::uint64_t pContent,
                       const OXBinary& pCopy);
  // The reply of the plural remote forms: one array per image, element 6 emptied, and all pixels
  // joined in one trailing binary. Invalid (and a record) when they would not fit fBinaryBuffer.
  OXValue xJoinedReply(const std::vector<OXImage*>& pImages, const char* pFunction);
  std::atomic<int> fConversionCount{0};
  // Raises (logged) "<operation>(<index><pTail>" for a camera the device does not have.
  void xCheckGeometryCamera(const char* pOperation, int pCameraIndex, const char* pTail,
                            int pLine) const;
  // Settings (W or R held as each says).
  // Looks a subscriber up for a setting or getter; raises (logged) with that operation's texts.
  boost::shared_ptr<VisionModuleInfo> xFindForSetting(const std::string& pName,
                                                      const videoinputtexts::SettingCheck& pCheck,
                                                      int pLine) const;
  // The subscriber's current camera, or -1 (and a record) when the device has no such camera.
  int xSettingCamera(const VisionModuleInfo& pInfo, const char* pFunction) const;
  // The three singular setters: checks under R, then per pass under W until the subscriber holds
  // nothing on its camera, then xApplySetting under W. False after the last pass.
  enum class Setting { kResolution, kColorSpace, kFrameRate };
  bool xChangeSetting(const std::string& pName, int pValue, Setting pSetting);
  bool xApplySetting(const std::string& pName, const boost::shared_ptr<VisionModuleInfo>& pInfo,
                     int pCamera, int pValue, Setting pSetting);
  // setResolutions and setColorSpaces: one result per stream, no wait.
  OXValue xChangeStreams(const std::string& pName, const OXValue& pValues, bool pResolution);
};

}  // namespace OX
