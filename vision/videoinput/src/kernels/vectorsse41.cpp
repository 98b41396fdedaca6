// The vector kernels for SSE4.1, with 16-byte registers: one lane. Built with -msse4.1; only
// code that has checked the processor calls them.
#include <immintrin.h>

#include "kernels/vector.h"

namespace OX {
namespace simd {
namespace sse41 {

namespace {

using V = __m128i;
constexpr int kLanes = 1;

inline V everyLane(__m128i pValue) {
  return pValue;
}
inline V lanes(const unsigned char* pAt, int) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pAt));
}
inline void store8(unsigned char* pAt, V pValue) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(pAt), pValue);
}
inline void store16(unsigned char* pAt, V pValue) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(pAt), pValue);
}
inline void store24(unsigned char* pAt, V pFirst, V pLast8) {
  store16(pAt, pFirst);
  store8(pAt + 16, pLast8);
}
inline void store32(unsigned char* pAt, V pFirst, V pSecond) {
  store16(pAt, pFirst);
  store16(pAt + 16, pSecond);
}
inline V splat16(short pValue) {
  return _mm_set1_epi16(pValue);
}
inline V splat32(int pValue) {
  return _mm_set1_epi32(pValue);
}
inline V shuffle8(V pValue, V pMask) {
  return _mm_shuffle_epi8(pValue, pMask);
}
// Dwords 0 and 2 of pA, then 1 and 3 of pB.
inline V evenOddDwords(V pA, V pB) {
  return _mm_castps_si128(
      _mm_shuffle_ps(_mm_castsi128_ps(pA), _mm_castsi128_ps(pB), _MM_SHUFFLE(3, 1, 2, 0)));
}
inline V maddubs(V pUnsigned, V pSigned) {
  return _mm_maddubs_epi16(pUnsigned, pSigned);
}
inline V add16(V pA, V pB) {
  return _mm_add_epi16(pA, pB);
}
inline V or128(V pA, V pB) {
  return _mm_or_si128(pA, pB);
}
template <int kBits>
inline V srai16(V pValue) {
  return _mm_srai_epi16(pValue, kBits);
}
template <int kBits>
inline V srli16(V pValue) {
  return _mm_srli_epi16(pValue, kBits);
}
inline V packus16(V pA, V pB) {
  return _mm_packus_epi16(pA, pB);
}
inline V unpacklo8(V pA, V pB) {
  return _mm_unpacklo_epi8(pA, pB);
}
inline V unpacklo16(V pA, V pB) {
  return _mm_unpacklo_epi16(pA, pB);
}
inline V unpackhi16(V pA, V pB) {
  return _mm_unpackhi_epi16(pA, pB);
}
inline V unpacklo32(V pA, V pB) {
  return _mm_unpacklo_epi32(pA, pB);
}
inline V unpacklo64(V pA, V pB) {
  return _mm_unpacklo_epi64(pA, pB);
}
inline V unpackhi64(V pA, V pB) {
  return _mm_unpackhi_epi64(pA, pB);
}
// The bytes of pB where pMask's are negative, else those of pA.
inline V blend8(V pA, V pB, V pMask) {
  return _mm_blendv_epi8(pA, pB, pMask);
}
// (pA pB + 2^14) >> 15 of signed 16-bit lanes: with pB 128, (pA + 128) >> 8.
inline V mulhrs16(V pA, V pB) {
  return _mm_mulhrs_epi16(pA, pB);
}
// The rounding average of unsigned bytes.
inline V avg8(V pA, V pB) {
  return _mm_avg_epu8(pA, pB);
}

// --- 32-bit lanes and single-precision floats, for the hue family ---
using F = __m128;
inline V add32(V pA, V pB) {
  return _mm_add_epi32(pA, pB);
}
inline V sub32(V pA, V pB) {
  return _mm_sub_epi32(pA, pB);
}
inline V cmpgt32(V pA, V pB) {
  return _mm_cmpgt_epi32(pA, pB);
}
inline V cmpeq32(V pA, V pB) {
  return _mm_cmpeq_epi32(pA, pB);
}
inline V min32(V pA, V pB) {
  return _mm_min_epi32(pA, pB);
}
inline V max32(V pA, V pB) {
  return _mm_max_epi32(pA, pB);
}
inline V mullo32(V pA, V pB) {
  return _mm_mullo_epi32(pA, pB);
}
inline V madd16(V pA, V pB) {
  return _mm_madd_epi16(pA, pB);
}
template <int kBits>
inline V slli32(V pValue) {
  return _mm_slli_epi32(pValue, kBits);
}
inline V packus32(V pA, V pB) {
  return _mm_packus_epi32(pA, pB);
}
inline V and128(V pA, V pB) {
  return _mm_and_si128(pA, pB);
}
inline V andnot128(V pNot, V pB) {
  return _mm_andnot_si128(pNot, pB);
}
// pB where pMask is set, else pA (masks are whole 32-bit lanes of ones or zeros). The float
// blend, whose mask is the sign of each lane, is taken as it stands by the compiler.
inline V blend(V pA, V pB, V pMask) {
  return _mm_castps_si128(
      _mm_blendv_ps(_mm_castsi128_ps(pA), _mm_castsi128_ps(pB), _mm_castsi128_ps(pMask)));
}
inline F splatF(float pValue) {
  return _mm_set1_ps(pValue);
}
inline F toFloat(V pValue) {
  return _mm_cvtepi32_ps(pValue);
}
inline F mulF(F pA, F pB) {
  return _mm_mul_ps(pA, pB);
}
inline F divF(F pA, F pB) {
  return _mm_div_ps(pA, pB);
}
// Towards zero, like an integer division.
inline V truncate(F pValue) {
  return _mm_cvttps_epi32(pValue);
}

// --- Gathers ---
// The lane's 16 bytes as pLoad makes them from pAt.
template <class Load>
inline V perLane(const unsigned char* pAt, int, Load pLoad) {
  return pLoad(pAt);
}

// Per lane, the 16 bytes from byte kBytes of pLow on, then pHigh's.
template <int kBytes>
inline V alignr(V pHigh, V pLow) {
  return _mm_alignr_epi8(pHigh, pLow, kBytes);
}
// The lanes that follow pCurrent's: pNext's, with one lane.
inline V laterLanes(V, V pNext) {
  return pNext;
}
}  // namespace

#include "kernels/vectorimpl.h"

}  // namespace sse41
}  // namespace simd
}  // namespace OX
