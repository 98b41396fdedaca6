// The colour-space conversion from kYUV422: the row kernels, the choice of their variant, and the
// plane loops that drive them, one per target colour space. Pure functions on bytes: nothing here
// knows the device, its images or its locks. The plane loop picks rows and clips to the buffers;
// a row kernel only walks the macro-pixels that it is given.
#pragma once

#include "kernels/kernelchoice.h"

namespace OX {
namespace conversionkernels {

// Converts pCount destination macro-pixels of one row. pSource points at the row's first source
// macro-pixel, pStep is the plane's step (source width / destination width), from which each
// kernel derives where in the row it reads; pTarget receives the destination bytes in order.
using Row = void (*)(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);

// One row kernel per target colour space (kYUV422 at step 1 is a plane copy, not a row).
struct Kernels {
  Row fYuv;
  Row fHsy;
  Row fYUV422;
  Row fYUV;
  Row fRGB;
  Row fHSY;
  Row fBGR;
  Row fYYCbCr;
  Row fH2RGB;
  Row fHSMixed;
};

// The plain integer kernels, the oracle of every faster variant.
const Kernels& referenceKernels();
// The kernels in use: the fastest for this processor, or the variant forced.
const Kernels& activeKernels();
// Test hook: forces a variant, or kAutomatic to restore the selection; false, and no change, for
// a variant this processor cannot run (supportedKernelVariants() lists those it can).
bool forceKernelsForTesting(KernelVariant pVariant);

// A frame as the plane loops see it: its first byte and its size in pixels.
struct SourceFrame {
  const unsigned char* fData;
  int fWidth;
  int fHeight;
};
struct TargetFrame {
  unsigned char* fData;
  int fWidth;
  int fHeight;
};

// The plane loops from a kYUV422 source, with the kernels in use. The target's width and height
// say what to produce: the step is the ratio of the widths, truncating; source row y * step and
// source macro-pixel at 4 * step * x feed destination macro-pixel x of row y. Neither the heights
// nor the exactness of the ratio are looked at, but no macro-pixel is read beyond the source's
// width * height * 2 bytes or written beyond the target's width * height * bytes per pixel: the
// pass stops at the first macro-pixel that would. Nothing is done for an empty size or null data.
void yuv422toYuv(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toHsy(const SourceFrame& pSource, const TargetFrame& pTarget);
// At step 1 one copy of whole 8-byte words, at least one, clipped to both buffers.
void yuv422toYUV422(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toYUV(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toRGB(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toHSY(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toBGR(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toYYCbCr(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toH2RGB(const SourceFrame& pSource, const TargetFrame& pTarget);
void yuv422toHSMixed(const SourceFrame& pSource, const TargetFrame& pTarget);

}  // namespace conversionkernels
}  // namespace OX
