// OXVisionSimulatorCam: the video device fed by a simulator. Frames are pushed in as RGB through
// putImage and converted to YUV422 at the camera's resolution only when a subscriber asks.
//
// Locking: fVisionModulesLock (the device's) comes first, then fMutex of one camera's
// CameraDriverBuffer. Each declaration says what it takes or expects held, as in the base.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxmutex.h"
#include "device/oxvisionvideoinput.h"

namespace OX {

// The frames of one simulated camera: two RGB input frames that the pusher writes in turn, and
// four YUV422 frames converted for the subscribers. All storage is sized for k4VGA once, so that
// neither a push, nor a conversion, nor a change of resolution allocates.
struct CameraDriverBuffer {
  CameraDriverBuffer();
  CameraDriverBuffer(const CameraDriverBuffer&) = delete;
  CameraDriverBuffer& operator=(const CameraDriverBuffer&) = delete;

  std::vector<boost::shared_ptr<OXVisionBuffer>> fDriverBuffers;  // YUV422, lent to subscribers
  int fLastDriverBuffer;  // newest converted entry, -1 before the first conversion; fMutex held
  std::vector<boost::shared_ptr<OXVisionBuffer>> fInputBuffers;  // RGB, written by the pusher
  // Newest complete input entry, -1 when none since the opening. Polled without any lock by a
  // subscriber waiting for a first frame, hence atomic; written under fMutex.
  std::atomic<int> fLastInputBuffer;
  int fInputResolution;  // resolution of the pushed frames; fMutex held
  boost::shared_ptr<OXMutex> fMutex;
};

struct SimulatorCamTestHook;

class OXVisionSimulatorCam : public OXSingleton<OXVisionSimulatorCam>, public OXVisionVideoInput {
 public:
  explicit OXVisionSimulatorCam(boost::shared_ptr<OXBroker> pBroker);
  // Stops every grabber (takes W through stopFrameGrabber) and closes the cameras.
  ~OXVisionSimulatorCam() override;

  // --- Push (oxvisionsimulatorcampush.cpp) ---
  // Declares the size and pushes into the camera named; takes fMutex only.
  bool putImage(const int& pCameraIndex, const int& pWidth, const int& pHeight,
                const OXValue& pImage) override;
  // Pushes a frame of the size last declared into the device's active camera; takes fMutex.
  bool putImage(const OXValue& pImage) override;
  // Declares the size for the active camera; takes W, then fMutex.
  bool setSimCamInputSize(const int& pWidth, const int& pHeight) override;
  // [[width, height], frame rate] of a camera; takes R.
  OXValue getExpectedImageParameters(const int& pCameraIndex) override;
  // The same for the active camera; takes R and re-enters it through the form above.
  OXValue getExpectedImageParameters() override;

 protected:
  // --- Object (oxvisionsimulatorcam.cpp); no lock, any camera index ---
  bool xIsResolutionValid(const int& pResolution, const int& pCameraIndex) const override;
  bool xIsFrameRateValid(const int& pFrameRate, const int& pCameraIndex) const override;
  bool xIsColorSpaceValid(const int& pColorSpace, const int& pCameraIndex) const override;

  // --- Raw acquisition (oxvisionsimulatorcamraw.cpp); W held, fMutex taken inside ---
  OXImage* xGetDirectRawImage(const std::string& pId, bool pDeepCopy) override;
  std::vector<OXImage*> xGetDirectRawImages(const std::string& pId) override;
  bool xReleaseDirectRawImageDeep(const std::string& pId, const int& pCameraIndex) override;

  // --- Parameters and grabber (oxvisionsimulatorcamparameters.cpp); R or W held ---
  int xGetParam(const int& pCameraIndex, const int& pParam) override;
  bool xSetParam(int pCameraIndex, int pParam, int pValue, bool pSetDefault) override;
  bool xStartFrameGrabber(const int& pCameraIndex) override;
  bool xStopFrameGrabber(const int& pCameraIndex) override;

 private:
  friend struct SimulatorCamTestHook;

  bool xOpenDevice(int pCamera);   // takes fMutex; always true
  bool xCloseDevice(int pCamera);  // nothing to do; always true
  // The frame store of a camera, or null (with a record naming pFunction) for an index outside
  // the cameras: the device's active camera may be fNbCameras (see xSetParam).
  CameraDriverBuffer* xDriverBuffer(int pCamera, const char* pFunction) const;
  // The record of a camera that a parameter operation names; raises for an index out of range.
  RealCameraProperties& xCameraOf(int pCameraIndex, const char* pMethod);

  bool xPutImage(const OXValue& pImage, const int& pCameraIndex);  // fMutex held
  bool xSetSimCamInputSize(const int& pWidth, const int& pHeight,
                           const int& pCameraIndex);  // fMutex held

  // --- Resampling (oxvisionsimulatorcamresize.cpp); fMutex held, no allocation ---
  // RGB pSource into YUV422 pTarget at the resolution the camera asks; false when the pair of
  // sizes is not handled.
  bool xReSize(int pCamera, OXImage& pSource, unsigned char* pTarget);
  // Decimation and replication by pRatio 2, 4 or 8; pWidth and pHeight are the source's.
  static bool xSubSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
                         unsigned char* pTarget);
  static bool xOverSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
                          unsigned char* pTarget);

  // The shared body of the two get operations for one camera of subscriber pInfo (steps from
  // the wait to the lend). pOperation names the operation in the records. On failure sets
  // pEndsLoop for the failures that end the plural form, and returns null.
  OXImage* xTakeRawImage(const std::string& pId, VisionModuleInfo& pInfo, int pCamera,
                         const char* pOperation, bool pMultiStream, bool& pEndsLoop);
  // The newest pushed frame converted for pCamera, once however many subscribers ask, with its
  // count raised for the caller; null (logged with pHead for pOperation) when no entry is free
  // or the conversion fails. Takes fMutex of pStore.
  OXVisionBuffer* xNewestFrame(CameraDriverBuffer& pStore, int pCamera, const std::string& pHead,
                               const char* pOperation);

  std::vector<boost::shared_ptr<CameraDriverBuffer>> fCameraDriverBuffers;
};

}  // namespace OX
