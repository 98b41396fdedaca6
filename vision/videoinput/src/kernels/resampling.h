// The resampling from RGB to YUV422 at another size: the row kernels, the choice of their variant,
// and the plane loops that drive them. Pure functions on bytes: nothing here knows the camera.
#pragma once

#include "kernels/kernelchoice.h"
#include "kernels/vector.h"

namespace OX {
namespace resamplingkernels {

// A row kernel that converts pPairs pixel pairs to YUV422: the left pixel of each pair at
// pLeft, the right at pRight, both advancing pStep bytes per pair; 4 bytes written per pair.
using PairRow = void (*)(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
                         unsigned char* pTarget, int pPairs);
// A row kernel that converts pWidth RGB pixels to YUV422, each repeated pRatio times (pRatio
// even): 2 x pRatio x pWidth bytes written.
using ReplicateRow = void (*)(const unsigned char* pSource, int pWidth, int pRatio,
                              unsigned char* pTarget);

// The rows of a reduction (see simd::PairRows), each through the pair kernel.
using PairRows = void (*)(const simd::PairRows& pRows);

struct Kernels {
  PairRow fPairRow;
  ReplicateRow fReplicateRow;
  PairRows fPairRows;
};

// The plain integer kernels, the oracle of every faster variant.
const Kernels& referenceKernels();
// The kernels in use: the fastest for this processor, or the variant forced.
const Kernels& activeKernels();
// Test hook: forces a variant, or kAutomatic to restore the selection; false, and no change, for
// a variant this processor cannot run (supportedKernelVariants() lists those it can).
bool forceKernelsForTesting(KernelVariant pVariant);

// The plane loops, with the kernels in use; pWidth and pHeight are the source's, in pixels, and
// the source is packed RGB. None allocates.
// The same size: pPixels pixels, each even pixel paired with the next one; for an odd count the
// last pixel is paired with the one after it, which the source's storage must hold.
void sameSize(const unsigned char* pSource, int pPixels, unsigned char* pTarget);
// Decimation by pRatio 2, 4 or 8 into (pWidth / pRatio) x (pHeight / pRatio) pixels: the rows
// 0, n, 2n... of the source, pairs 2n pixels apart, whose right pixel lies (n / 2) x n pixels
// right of the left one. False, and nothing written, for any other ratio.
bool subSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
               unsigned char* pTarget);
// Replication by pRatio 2, 4 or 8: every source pixel becomes a block of n x n target pixels.
// False, and nothing written, for any other ratio.
bool overSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
                unsigned char* pTarget);

}  // namespace resamplingkernels
}  // namespace OX
