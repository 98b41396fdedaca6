// The simulator camera's resampling: which resampling turns the pushed frame into one of the
// size asked, and the camera's resampling methods, thin callers of kernels/resampling.h.
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "cameras/simulator/oxvisionsimulatorcamtexts.h"
#include "kernels/resampling.h"
#include "oxtypes.h"

namespace OX {

namespace texts = simulatortexts;

namespace {

// Which resampling turns a frame of resolution `in` into one of resolution `out`: a positive
// ratio subsamples, a negative one oversamples, 0 is not handled.
constexpr int kResampling[4][4] = {
    {0, -2, -4, -8},
    {2, 0, -2, -4},
    {4, 2, 0, -2},
    {8, 4, 2, 0},
};

}  // namespace

bool OXVisionSimulatorCam::xReSize(int pCamera, OXImage& pSource, unsigned char* pTarget) {
  const int in = fCameraDriverBuffers[pCamera]->fInputResolution;
  const int width = pSource.fWidth;
  const int height = pSource.fHeight;
  if (in == fCameraProperties[pCamera]->fResolution) {
    resamplingkernels::sameSize(pSource.fData, width * height, pTarget);
    return true;
  }
  if (in < kQQVGA || in > k4VGA) {
    xLog(kLogError, "xReSize", texts::kNativeUnsupported, texts::kCategory);
    return false;
  }
  // The size asked is that of the device's active camera, not of pCamera: with two cameras at
  // different resolutions, the other camera's frames come at the active camera's size, and a
  // frame pushed at pCamera's own size but another than the active camera's is refused (a
  // "resizing error" for the caller). The simulator's clients drive both cameras at one size,
  // as the robot's driver requires, so this stays. An active camera outside the table has no
  // resolution, like an unknown one (docs/deviations.md, "A camera index outside the cameras").
  const int active = fActiveCamera;
  if (active < 0 || active >= static_cast<int>(fCameraProperties.size())) return false;
  const int out = fCameraProperties[active]->fResolution;
  if (out < kQQVGA || out > k4VGA) return false;
  const int ratio = kResampling[in][out];
  if (ratio > 0) return xSubSample(ratio, width, height, pSource.fData, pTarget);
  if (ratio < 0) return xOverSample(-ratio, width, height, pSource.fData, pTarget);
  return false;
}

bool OXVisionSimulatorCam::xSubSample(int pRatio, int pWidth, int pHeight,
                                      const unsigned char* pSource, unsigned char* pTarget) {
  return resamplingkernels::subSample(pRatio, pWidth, pHeight, pSource, pTarget);
}

bool OXVisionSimulatorCam::xOverSample(int pRatio, int pWidth, int pHeight,
                                       const unsigned char* pSource, unsigned char* pTarget) {
  return resamplingkernels::overSample(pRatio, pWidth, pHeight, pSource, pTarget);
}

}  // namespace OX
