// The vector row kernels, one set per instruction set, each set in a source file of its own
// compiled for that instruction set: only code that has checked the processor may call them.
// Each converts the whole blocks at the start of a row and returns how many macro-pixels (pairs,
// for pairRow) it did, 0 for a step or layout it has no fast path for; the caller finishes the
// row with the reference kernel (pairRows: the pairs done in each row). Their reads and writes
// stay within those of the reference; pairRows prefetches the row after the one it converts,
// which no prefetch can fault on.
#pragma once

namespace OX {
namespace simd {

// The rows of a reduction: row y of fRows has fPairs pairs, the first left pixel at
// fSource + y * fSourceStride, the right pixel of a pair fRight bytes after its left one, pairs
// fStep bytes apart; its target starts at fTarget + (y * fWidth / fRatio) * 2.
struct PairRows {
  const unsigned char* fSource;
  long fSourceStride;
  int fRight, fStep, fPairs, fRows, fWidth, fRatio;
  unsigned char* fTarget;
};

// Runs pRow(left, target, pairs, ahead) on every row of pRows, ahead being the next row, for the
// row to prefetch it (this one again at the end: nothing beyond the frame); returns the pairs
// that the last row did.
template <class Row>
inline int eachPairRow(const PairRows& pRows, Row pRow) {
  int done = 0;
  for (int y = 0; y < pRows.fRows; ++y) {
    const unsigned char* left = pRows.fSource + y * pRows.fSourceStride;
    const unsigned char* ahead = y + 1 < pRows.fRows ? left + pRows.fSourceStride : left;
    unsigned char* target =
        pRows.fTarget + static_cast<unsigned long>(y) * pRows.fWidth / pRows.fRatio * 2;
    done = pRow(left, target, pRows.fPairs, ahead);
  }
  return done;
}

namespace sse41 {
int yuvRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yuv422Row(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yuvPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int bgrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsyRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsyPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsMixedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int h2rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yycbcrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs);
int pairRows(const PairRows& pRows);
}  // namespace sse41

namespace avx2 {
int yuvRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yuv422Row(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yuvPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int bgrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsyRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsyPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int hsMixedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int h2rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int yycbcrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs);
int pairRows(const PairRows& pRows);
}  // namespace avx2

// Ratio 2 only; every other layout goes to the AVX2 kernels.
namespace avx512 {
int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs);
int pairRows(const PairRows& pRows);
}  // namespace avx512

}  // namespace simd
}  // namespace OX
