// The row kernels of the colour-space conversion from kYUV422, and the choice of their variant.
// The plane loop of the device picks rows and clips to the buffers; a row kernel only walks the
// macro-pixels that it is given.
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

}  // namespace conversionkernels
}  // namespace OX
