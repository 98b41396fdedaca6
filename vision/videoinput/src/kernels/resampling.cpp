// Resampling: one pass from an RGB frame to a YUV422 frame, downward by plain decimation, upward by
// pixel replication, no filtering. Row kernels convert; the plane loops pick rows and strides.
// The plain integer kernels are the reference; the vector variants, selected through
// activeKernels(), must match them byte for byte.
#include "kernels/resampling.h"

#include <cstddef>
#include <cstring>

#include "kernels/kernelchoice.h"
#include "kernels/vector.h"

namespace OX {

namespace resamplingkernels {

namespace {

// ITU-R BT.601 studio range, integer coefficients scaled by 256, rounding offset 128. Y adds 16,
// U and V add 128. No clamping: for 8-bit input every value fits a byte.
struct Coefficients {
  int fR;
  int fG;
  int fB;
  int fOffset;
};
constexpr Coefficients kY = {66, 129, 25, 16};
constexpr Coefficients kU = {-38, -74, 112, 128};
constexpr Coefficients kV = {112, -94, -18, 128};
constexpr int kRounding = 128;
constexpr int kShift = 8;

inline int component(const Coefficients& pC, const unsigned char* pRgb) {
  // The shift of a negative sum is arithmetic (C++20 defines it, every compiler does it).
  return ((pC.fR * pRgb[0] + pC.fG * pRgb[1] + pC.fB * pRgb[2] + kRounding) >> kShift) + pC.fOffset;
}

inline unsigned char lumaOf(const unsigned char* pRgb) {
  return static_cast<unsigned char>(component(kY, pRgb));
}
inline unsigned char chromaU(const unsigned char* pRgb) {
  return static_cast<unsigned char>(component(kU, pRgb));
}
inline unsigned char chromaV(const unsigned char* pRgb) {
  return static_cast<unsigned char>(component(kV, pRgb));
}

void pairRowReference(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
                      unsigned char* pTarget, int pPairs) {
  for (int i = 0; i < pPairs; ++i) {
    // The means are of the two 8-bit values, truncating.
    pTarget[0] = lumaOf(pLeft);
    pTarget[1] = static_cast<unsigned char>((chromaU(pLeft) + chromaU(pRight)) >> 1);
    pTarget[2] = lumaOf(pRight);
    pTarget[3] = static_cast<unsigned char>((chromaV(pLeft) + chromaV(pRight)) >> 1);
    pTarget += 4;
    pLeft += pStep;
    pRight += pStep;
  }
}

void replicateRowReference(const unsigned char* pSource, int pWidth, int pRatio,
                           unsigned char* pTarget) {
  for (int x = 0; x < pWidth; ++x, pSource += 3) {
    const unsigned char y = lumaOf(pSource);
    const unsigned char u = chromaU(pSource);
    const unsigned char v = chromaV(pSource);
    for (int pair = 0; pair < pRatio / 2; ++pair) {
      pTarget[0] = y;
      pTarget[1] = u;
      pTarget[2] = y;
      pTarget[3] = v;
      pTarget += 4;
    }
  }
}

unsigned char* targetRow(const simd::PairRows& pRows, int pRow) {
  return pRows.fTarget + static_cast<size_t>(pRow) * pRows.fWidth / pRows.fRatio * 2;
}

const unsigned char* sourceRow(const simd::PairRows& pRows, int pRow) {
  return pRows.fSource + pRow * pRows.fSourceStride;
}

void pairRowsReference(const simd::PairRows& pRows) {
  for (int y = 0; y < pRows.fRows; ++y) {
    const unsigned char* left = sourceRow(pRows, y);
    pairRowReference(left, left + pRows.fRight, pRows.fStep, targetRow(pRows, y), pRows.fPairs);
  }
}

constexpr Kernels kReference = {pairRowReference, replicateRowReference, pairRowsReference};

// A vector kernel on the whole blocks of the row, then the reference on the pairs left. The
// replication stays scalar.
using FastPairs = int (*)(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
                          unsigned char* pTarget, int pPairs);
template <FastPairs kFast>
void vectorPairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
                   unsigned char* pTarget, int pPairs) {
  const int done = kFast(pLeft, pRight, pStep, pTarget, pPairs);
  const ptrdiff_t skipped = ptrdiff_t{pStep} * done;
  pairRowReference(pLeft + skipped, pRight + skipped, pStep, pTarget + ptrdiff_t{4} * done,
                   pPairs - done);
}

// The same for whole frames: the vector kernel does the same pairs in every row.
using FastRows = int (*)(const simd::PairRows& pRows);
template <FastRows kFast>
void vectorPairRows(const simd::PairRows& pRows) {
  const int done = kFast(pRows);
  if (done == pRows.fPairs) return;
  const ptrdiff_t skipped = ptrdiff_t{pRows.fStep} * done;
  for (int y = 0; y < pRows.fRows; ++y) {
    const unsigned char* left = sourceRow(pRows, y) + skipped;
    pairRowReference(left, left + pRows.fRight, pRows.fStep, targetRow(pRows, y) + 4 * done,
                     pRows.fPairs - done);
  }
}

constexpr Kernels kSse41 = {vectorPairRow<simd::sse41::pairRow>, replicateRowReference,
                            vectorPairRows<simd::sse41::pairRows>};
constexpr Kernels kAvx2 = {vectorPairRow<simd::avx2::pairRow>, replicateRowReference,
                           vectorPairRows<simd::avx2::pairRows>};

// AVX-512 only for the reduction by 2; the rest, through its calls, is AVX2's.
constexpr Kernels kAvx512 = {vectorPairRow<simd::avx512::pairRow>, replicateRowReference,
                             vectorPairRows<simd::avx512::pairRows>};

KernelChoice<Kernels> gChoice(kReference, kSse41, kAvx2, &kAvx512);

}  // namespace

const Kernels& referenceKernels() {
  return gChoice.reference();
}

const Kernels& activeKernels() {
  return gChoice.active();
}

bool forceKernelsForTesting(KernelVariant pVariant) {
  return gChoice.force(pVariant);
}

namespace {

bool isHandledRatio(int pRatio) {
  return pRatio == 2 || pRatio == 4 || pRatio == 8;
}

}  // namespace

void sameSize(const unsigned char* pSource, int pPixels, unsigned char* pTarget) {
  if (pPixels > 0)
    activeKernels().fPairRow(pSource, pSource + 3, 6, pTarget, ((pPixels - 1) >> 1) + 1);
}

bool subSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
               unsigned char* pTarget) {
  if (!isHandledRatio(pRatio)) return false;
  const int n = pRatio;
  const int rows = pHeight / n;
  const int cols = pWidth / n;
  if (rows <= 0) return true;
  // The right pixel lies (n / 2) x n pixels right of the left one and pairs are 2 n pixels
  // apart: for n of 4 and 8 the sampling is uneven and the last pairs of a row read into the
  // next row. These strides define the pixels every subscriber below the pushed size gets, and
  // frames are compared byte for byte across the cameras' clients, so they stay; no read leaves
  // the storage, since the rows used stop n - 1 rows short of the frame's end. Target row y
  // starts at (y * pWidth / n) * 2.
  simd::PairRows plan{};
  plan.fSource = pSource;
  plan.fSourceStride = static_cast<long>(pWidth) * n * 3;
  plan.fRight = (n / 2) * n * 3;
  plan.fStep = n * 6;
  plan.fPairs = (cols + 1) / 2;
  plan.fRows = rows;
  plan.fWidth = pWidth;
  plan.fRatio = n;
  plan.fTarget = pTarget;
  activeKernels().fPairRows(plan);
  return true;
}

bool overSample(int pRatio, int pWidth, int pHeight, const unsigned char* pSource,
                unsigned char* pTarget) {
  if (!isHandledRatio(pRatio)) return false;
  const int n = pRatio;
  const ReplicateRow replicateRow = activeKernels().fReplicateRow;
  const size_t targetStride = static_cast<size_t>(2) * n * pWidth;
  for (int y = 0; y < pHeight; ++y) {
    unsigned char* first = pTarget + static_cast<size_t>(y) * n * targetStride;
    replicateRow(pSource + static_cast<size_t>(y) * pWidth * 3, pWidth, n, first);
    // The n target rows of a source row are identical: convert once, copy the rest.
    for (int k = 1; k < n; ++k) std::memcpy(first + k * targetStride, first, targetStride);
  }
  return true;
}

}  // namespace resamplingkernels
}  // namespace OX
