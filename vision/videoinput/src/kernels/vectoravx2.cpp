// The vector kernels for AVX2, with 32-byte registers: two lanes, each on a block of its own.
// Built with -mavx2; only code that has checked the processor calls them.
#include <immintrin.h>

#include "kernels/vector.h"

namespace OX {
namespace simd {
namespace avx2 {

namespace {

using V = __m256i;
constexpr int kLanes = 2;

inline V everyLane(__m128i pValue) {
  // Written as a vector shuffle, which the compiler folds into a 32-byte constant.
  using Q2 = long long __attribute__((vector_size(16)));
  return reinterpret_cast<V>(__builtin_shufflevector(reinterpret_cast<Q2>(pValue),
                                                     reinterpret_cast<Q2>(pValue), 0, 1, 0, 1));
}
// Lane 0 from pAt, lane 1 from pStride bytes on.
inline V lanes(const unsigned char* pAt, int pStride) {
  if (pStride == 16) return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pAt));
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pAt))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(pAt + pStride)), 1);
}
// The low 8 bytes of each lane, lane after lane.
inline void store8(unsigned char* pAt, V pValue) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(pAt),
                   _mm256_castsi256_si128(_mm256_permute4x64_epi64(pValue, 0x08)));
}
inline void store16(unsigned char* pAt, V pValue) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(pAt), pValue);
}
// Per lane 16 bytes of pFirst then the low 8 of pLast8: 24 bytes a lane.
inline void store24(unsigned char* pAt, V pFirst, V pLast8) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(pAt), _mm256_castsi256_si128(pFirst));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(pAt + 16), _mm256_castsi256_si128(pLast8));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(pAt + 24), _mm256_extracti128_si256(pFirst, 1));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(pAt + 40), _mm256_extracti128_si256(pLast8, 1));
}
// Per lane 16 bytes of pFirst then 16 of pSecond: 32 bytes a lane.
inline void store32(unsigned char* pAt, V pFirst, V pSecond) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(pAt),
                      _mm256_permute2x128_si256(pFirst, pSecond, 0x20));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(pAt + 32),
                      _mm256_permute2x128_si256(pFirst, pSecond, 0x31));
}
inline V splat16(short pValue) {
  return _mm256_set1_epi16(pValue);
}
inline V splat32(int pValue) {
  return _mm256_set1_epi32(pValue);
}
inline V shuffle8(V pValue, V pMask) {
  return _mm256_shuffle_epi8(pValue, pMask);
}
// Per lane, dwords 0 and 2 of pA, then 1 and 3 of pB.
inline V evenOddDwords(V pA, V pB) {
  return _mm256_castps_si256(
      _mm256_shuffle_ps(_mm256_castsi256_ps(pA), _mm256_castsi256_ps(pB), _MM_SHUFFLE(3, 1, 2, 0)));
}
inline V maddubs(V pUnsigned, V pSigned) {
  return _mm256_maddubs_epi16(pUnsigned, pSigned);
}
inline V add16(V pA, V pB) {
  return _mm256_add_epi16(pA, pB);
}
inline V or128(V pA, V pB) {
  return _mm256_or_si256(pA, pB);
}
template <int kBits>
inline V srai16(V pValue) {
  return _mm256_srai_epi16(pValue, kBits);
}
template <int kBits>
inline V srli16(V pValue) {
  return _mm256_srli_epi16(pValue, kBits);
}
inline V packus16(V pA, V pB) {
  return _mm256_packus_epi16(pA, pB);
}
inline V unpacklo8(V pA, V pB) {
  return _mm256_unpacklo_epi8(pA, pB);
}
inline V unpacklo16(V pA, V pB) {
  return _mm256_unpacklo_epi16(pA, pB);
}
inline V unpackhi16(V pA, V pB) {
  return _mm256_unpackhi_epi16(pA, pB);
}
inline V unpacklo32(V pA, V pB) {
  return _mm256_unpacklo_epi32(pA, pB);
}
inline V unpacklo64(V pA, V pB) {
  return _mm256_unpacklo_epi64(pA, pB);
}
inline V unpackhi64(V pA, V pB) {
  return _mm256_unpackhi_epi64(pA, pB);
}
// The bytes of pB where pMask's are negative, else those of pA.
inline V blend8(V pA, V pB, V pMask) {
  return _mm256_blendv_epi8(pA, pB, pMask);
}
// (pA pB + 2^14) >> 15 of signed 16-bit lanes: with pB 128, (pA + 128) >> 8.
inline V mulhrs16(V pA, V pB) {
  return _mm256_mulhrs_epi16(pA, pB);
}
// The rounding average of unsigned bytes.
inline V avg8(V pA, V pB) {
  return _mm256_avg_epu8(pA, pB);
}

// --- 32-bit lanes and single-precision floats, for the hue family ---
using F = __m256;
inline V add32(V pA, V pB) {
  return _mm256_add_epi32(pA, pB);
}
inline V sub32(V pA, V pB) {
  return _mm256_sub_epi32(pA, pB);
}
inline V cmpgt32(V pA, V pB) {
  return _mm256_cmpgt_epi32(pA, pB);
}
inline V cmpeq32(V pA, V pB) {
  return _mm256_cmpeq_epi32(pA, pB);
}
inline V min32(V pA, V pB) {
  return _mm256_min_epi32(pA, pB);
}
inline V max32(V pA, V pB) {
  return _mm256_max_epi32(pA, pB);
}
inline V mullo32(V pA, V pB) {
  return _mm256_mullo_epi32(pA, pB);
}
inline V madd16(V pA, V pB) {
  return _mm256_madd_epi16(pA, pB);
}
template <int kBits>
inline V slli32(V pValue) {
  return _mm256_slli_epi32(pValue, kBits);
}
inline V packus32(V pA, V pB) {
  return _mm256_packus_epi32(pA, pB);
}
inline V and128(V pA, V pB) {
  return _mm256_and_si256(pA, pB);
}
inline V andnot128(V pNot, V pB) {
  return _mm256_andnot_si256(pNot, pB);
}
// pB where pMask is set, else pA (masks are whole 32-bit lanes of ones or zeros). The float
// blend, whose mask is the sign of each lane, is taken as it stands by the compiler.
inline V blend(V pA, V pB, V pMask) {
  return _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(pA), _mm256_castsi256_ps(pB),
                                              _mm256_castsi256_ps(pMask)));
}
inline F splatF(float pValue) {
  return _mm256_set1_ps(pValue);
}
inline F toFloat(V pValue) {
  return _mm256_cvtepi32_ps(pValue);
}
inline F mulF(F pA, F pB) {
  return _mm256_mul_ps(pA, pB);
}
inline F divF(F pA, F pB) {
  return _mm256_div_ps(pA, pB);
}
// Towards zero, like an integer division.
inline V truncate(F pValue) {
  return _mm256_cvttps_epi32(pValue);
}

// --- Gathers ---
// Lane 0 as pLoad makes it from pAt, lane 1 from pStride bytes on.
template <class Load>
inline V perLane(const unsigned char* pAt, int pStride, Load pLoad) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(pLoad(pAt)), pLoad(pAt + pStride), 1);
}

// Per lane, the 16 bytes from byte kBytes of pLow on, then pHigh's.
template <int kBytes>
inline V alignr(V pHigh, V pLow) {
  return _mm256_alignr_epi8(pHigh, pLow, kBytes);
}
// The lanes that follow pCurrent's: its lane 1, then lane 0 of pNext.
inline V laterLanes(V pCurrent, V pNext) {
  return _mm256_permute2x128_si256(pCurrent, pNext, 0x21);
}
}  // namespace

#include "kernels/vectorimpl.h"

}  // namespace avx2
}  // namespace simd
}  // namespace OX
