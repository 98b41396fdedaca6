// The reduction by 2 for AVX-512 (F, BW and VBMI), with 64-byte registers: sixteen pairs a block.
// Built with those flags alone; only code that has checked the processor and its operating system
// calls it. Everything else, and the other layouts, go to the AVX2 kernels.
//
// The gather is where AVX2 spends its time: per lane it needs insertions, a byte blend and
// shuffles, on the same pipes as the multiplies. A byte permutation across two whole registers
// (vpermt2b) picks the pixels of ten pairs at once; a second one, from a third load, adds the
// last six. The arithmetic is the AVX2 kernel's, word for word (see pairBlock in vectorimpl.h).
#include <immintrin.h>

#include <utility>

#include "kernels/vector.h"

namespace OX {
namespace simd {
namespace avx512 {

namespace {

using V = __m512i;
constexpr int kPairs = 16;      // pairs a block
constexpr int kPairBytes = 12;  // from pair to pair: two pixels, then two skipped
constexpr int kRight = 6;       // from a pair's left pixel to its right one
constexpr int kLastLoad = 125;  // the third load ends at byte 188, the last the pairs read
constexpr int kBlockBytes = kPairs * kPairBytes;

// Red and green (kBlue false) or blue and green of pixel L0 R0 L1 R1 ... in 16-bit lanes: the
// source offsets of the 64 bytes.
constexpr int offsetOf(bool pBlue, int pByte) {
  const int pair = pByte / 4, pixel = pByte % 4 / 2, first = pByte % 2 == 0;
  return pair * kPairBytes + pixel * kRight + (first ? (pBlue ? 2 : 0) : 1);
}

// The index of the first permutation (offsets below 128, in the two loads at 0 and 64) and of the
// second (each byte its own from the first, or from the load at kLastLoad).
template <int... kBytes>
struct Indices {
  static V first(bool pBlue) {
    alignas(64) const char bytes[] = {
        static_cast<char>(offsetOf(pBlue, kBytes) < 128 ? offsetOf(pBlue, kBytes) : 0)...};
    return _mm512_load_si512(bytes);
  }
  static V second(bool pBlue) {
    alignas(64) const char bytes[] = {static_cast<char>(
        offsetOf(pBlue, kBytes) < 128 ? kBytes : 64 + offsetOf(pBlue, kBytes) - kLastLoad)...};
    return _mm512_load_si512(bytes);
  }
};
template <int... kBytes>
Indices<kBytes...> indicesOf(std::integer_sequence<int, kBytes...>);
using Gather = decltype(indicesOf(std::make_integer_sequence<int, 64>()));

// Four signed bytes, repeated: for maddubs, one pair of factors in the even 16-bit lanes and
// another in the odd ones.
inline V quad8(int pEven0, int pEven1, int pOdd0, int pOdd1) {
  return _mm512_set1_epi32(static_cast<int>((static_cast<unsigned>(pEven0) & 0xFFu) |
                                            ((static_cast<unsigned>(pEven1) & 0xFFu) << 8) |
                                            ((static_cast<unsigned>(pOdd0) & 0xFFu) << 16) |
                                            ((static_cast<unsigned>(pOdd1) & 0xFFu) << 24)));
}

// The sums of products without offsets, green's factor split so that no pair leaves 16 bits:
// luma 66 R + 129 G + 25 B, U -38 R - 74 G + 112 B, V 112 R - 94 G - 18 B.
struct Sums {
  int fRed, fGreen1, fBlue, fGreen2;
};
constexpr Sums kY = {66, 62, 25, 67}, kU = {-38, -37, 112, -37}, kV = {112, -47, -18, -47};

inline V sumsOf(const Sums& pEven, const Sums& pOdd, V pRedGreen, V pBlueGreen) {
  return _mm512_add_epi16(
      _mm512_maddubs_epi16(pRedGreen, quad8(pEven.fRed, pEven.fGreen1, pOdd.fRed, pOdd.fGreen1)),
      _mm512_maddubs_epi16(pBlueGreen,
                           quad8(pEven.fBlue, pEven.fGreen2, pOdd.fBlue, pOdd.fGreen2)));
}

struct Constants {
  V fRedGreen1 = Gather::first(false), fRedGreen2 = Gather::second(false);
  V fBlueGreen1 = Gather::first(true), fBlueGreen2 = Gather::second(true);
};

// Sixteen pairs from pLeft, converted as the AVX2 kernel's pairBlock does.
inline void pairBlock(const Constants& pC, const unsigned char* pLeft, unsigned char* pTarget) {
  const V a = _mm512_loadu_si512(pLeft), b = _mm512_loadu_si512(pLeft + 64),
          c = _mm512_loadu_si512(pLeft + kLastLoad);
  const V redGreen =
      _mm512_permutex2var_epi8(_mm512_permutex2var_epi8(a, pC.fRedGreen1, b), pC.fRedGreen2, c);
  const V blueGreen =
      _mm512_permutex2var_epi8(_mm512_permutex2var_epi8(a, pC.fBlueGreen1, b), pC.fBlueGreen2, c);
  const V luma = _mm512_mulhrs_epi16(sumsOf(kY, kY, redGreen, blueGreen), _mm512_set1_epi16(128));
  const V chroma = _mm512_add_epi16(sumsOf(kU, kV, redGreen, blueGreen),
                                    _mm512_set1_epi16(static_cast<short>(128 * 256 + 128)));
  // Each word moved to its partner's lane by a rotation of the dwords, off the shuffle pipes.
  // (The masked form: GCC 12 warns that the plain one's undefined source may be uninitialised.)
  const V sums = _mm512_add_epi16(sumsOf(kV, kU, redGreen, blueGreen),
                                  _mm512_set1_epi16(static_cast<short>(127 * 256 + 128)));
  const V partners = _mm512_mask_rol_epi32(sums, 0xFFFF, sums, 16);
  const V lumaAndMeans =
      _mm512_mask_blend_epi8(0xAAAAAAAAAAAAAAAAull, luma, _mm512_avg_epu8(chroma, partners));
  _mm512_storeu_si512(pTarget, _mm512_add_epi16(lumaAndMeans, _mm512_set1_epi16(16)));
}

// Whole blocks of the row; with kPrefetch, pAhead's pairs are prefetched as far.
template <bool kPrefetch>
int ratio2Row(const unsigned char* pLeft, unsigned char* pTarget, int pPairs,
              const unsigned char* pAhead) {
  const Constants constants;
  const int done = pPairs / kPairs * kPairs;
  for (int i = 0; i < done; i += kPairs) {
    if constexpr (kPrefetch) {
      for (int at = 0; at < kBlockBytes; at += 64) {
        _mm_prefetch(reinterpret_cast<const char*>(pAhead + kPairBytes * i + at), _MM_HINT_T0);
      }
    }
    pairBlock(constants, pLeft + kPairBytes * i, pTarget + 4 * i);
  }
  return done;
}

}  // namespace

int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs) {
  if (pStep != kPairBytes || pRight != pLeft + kRight)
    return avx2::pairRow(pLeft, pRight, pStep, pTarget, pPairs);
  return ratio2Row<false>(pLeft, pTarget, pPairs, pLeft);
}

int pairRows(const PairRows& pRows) {
  if (pRows.fStep != kPairBytes || pRows.fRight != kRight) return avx2::pairRows(pRows);
  return eachPairRow(pRows, ratio2Row<true>);
}

}  // namespace avx512
}  // namespace simd
}  // namespace OX
