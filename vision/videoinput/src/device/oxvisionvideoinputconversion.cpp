// The device's side of the colour-space conversion: the dispatch of a raw frame to the kernel of
// the subscriber's colour space (xConvertImage), the frame pass ahead of the kernels, and the
// device's kernel methods, which hand the two images to the plane loops of kernels/conversion.h.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "device/oxvisionvideoinput.h"
#include "device/oxvisionvideoinputtexts.h"
#include "kernels/conversion.h"
#include "oxtypes.h"

namespace OX {

namespace {

namespace kernels = conversionkernels;
namespace texts = videoinputtexts;

constexpr const char* kUnknownColorSpace = "Unknown colorSpace required";
constexpr const char* kNoBufferTail = ": xConvertImage(): no free buffer of the requested format.";

kernels::SourceFrame sourceOf(const OXImage* pImage) {
  return {pImage->fData, pImage->fWidth, pImage->fHeight};
}

kernels::TargetFrame targetOf(OXImage* pImage) {
  return {pImage->fData, pImage->fWidth, pImage->fHeight};
}

}  // namespace

void OXVisionVideoInput::xYUV422toYuv(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toYuv(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toHsy(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toHsy(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toYUV422(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toYUV422(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toYUV(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toYUV(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toRGB(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toRGB(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toHSY(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toHSY(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toBGR(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toBGR(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toYYCbCr(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toYYCbCr(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toH2RGB(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toH2RGB(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xYUV422toHSMixed(const OXImage* pSource, OXImage* pDestination) {
  kernels::yuv422toHSMixed(sourceOf(pSource), targetOf(pDestination));
}

void OXVisionVideoInput::xApplyPatchForKernelMemcopy(const OXImage* pSource) {
  if (pSource->fData == nullptr || pSource->fWidth <= 0 || pSource->fHeight <= 0) return;
  // Whole groups of four 8-byte words, at least one, covering n / 4 words of an n-pixel frame;
  // the pass stops at the end of the frame and of the copy buffer.
  constexpr int64_t kWordsPerGroup = 4;
  const int64_t pixels = int64_t{pSource->fWidth} * pSource->fHeight;
  const int64_t groups = std::max<int64_t>(1, (pixels / 4 + kWordsPerGroup - 1) / kWordsPerGroup);
  const int64_t bytes =
      std::min({groups * kWordsPerGroup * 8, pixels * 2, int64_t{kCopyBufferSize}});
  const unsigned char* from = pSource->fData;
  char* to = fCopyBuffer.get();
  int64_t done = 0;
  for (; done + 8 <= bytes; done += 8) {
    uint64_t word;
    std::memcpy(&word, from + done, sizeof word);
    std::memcpy(to + done, &word, sizeof word);
  }
  std::memcpy(to + done, from + done, static_cast<size_t>(bytes - done));
  // Nothing reads the copy: the barrier keeps the compiler from dropping the pass.
  asm volatile("" : : "r"(to) : "memory");
}

int OXVisionVideoInput::xConvertImage(int pCameraIndex,
                                      boost::shared_ptr<VisionModuleInfo>& pModule,
                                      const OXImage* pRawImage) {
  using Kernel = void (OXVisionVideoInput::*)(const OXImage*, OXImage*);
  // The colour spaces with a kernel, and whether the frame gets its sequential pass first.
  struct Conversion {
    int fColorSpace;
    Kernel fKernel;
    bool fPatchFirst;
  };
  static const Conversion kConversions[] = {
      {kYuv, &OXVisionVideoInput::xYUV422toYuv, false},
      {kHsy, &OXVisionVideoInput::xYUV422toHsy, true},
      {kYUV422, &OXVisionVideoInput::xYUV422toYUV422, false},
      {kYUV, &OXVisionVideoInput::xYUV422toYUV, true},
      {kRGB, &OXVisionVideoInput::xYUV422toRGB, true},
      {kHSY, &OXVisionVideoInput::xYUV422toHSY, true},
      {kBGR, &OXVisionVideoInput::xYUV422toBGR, true},
      {kYYCbCr, &OXVisionVideoInput::xYUV422toYYCbCr, true},
      {kH2RGB, &OXVisionVideoInput::xYUV422toH2RGB, true},
      {kHSMixed, &OXVisionVideoInput::xYUV422toHSMixed, true},
  };

  const RequestedCameraProperties& wanted = *pModule->fRequestedProperties.at(pCameraIndex);
  const int colorSpace = wanted.fColorSpace;
  int width = 0;
  int height = 0;
  setSizeFromResolution(wanted.fResolution, width, height);
  const int8_t camera = static_cast<int8_t>(pCameraIndex);
  const int index = xLockTheOldestBufferForEditing(camera, width, height, colorSpace);
  if (index < 0) {
    xLog(kLogError, "xConvertImage", getName() + kNoBufferTail);
    return -1;
  }
  OXVisionBuffer& buffer = *fCameraProperties[pCameraIndex]->fImageBuffers[index];
  OXImage* target = buffer.fImage;
  // Before the conversion: the file gets the raw frame, in the camera's format.
  if (pModule->fIsRecording) xRecordStep(pModule, pRawImage, true);

  // A raw frame of another format is not converted: the buffer keeps its pixels.
  if (pRawImage->fColorSpace == kYUV422) {
    const Conversion* conversion = std::find_if(
        std::begin(kConversions), std::end(kConversions),
        [&](const Conversion& pConversion) { return pConversion.fColorSpace == colorSpace; });
    if (conversion == std::end(kConversions)) {
      xLog(kLogError, "xConvertImage", kUnknownColorSpace, texts::kCategory);
    } else {
      if (conversion->fPatchFirst) xApplyPatchForKernelMemcopy(pRawImage);
      (this->*conversion->fKernel)(pRawImage, target);
    }
  }

  target->fTimeStamp = pRawImage->fTimeStamp;
  target->fCameraId = pRawImage->fCameraId;
  target->fLeftAngle = pRawImage->fLeftAngle;
  target->fTopAngle = pRawImage->fTopAngle;
  target->fRightAngle = pRawImage->fRightAngle;
  target->fBottomAngle = pRawImage->fBottomAngle;
  // The write hold of the search becomes the caller's read hold.
  ++buffer.fReadLockCount;
  --buffer.fWriteLockCount;
  return index;
}

}  // namespace OX
