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
  return _mm256_broadcastsi128_si256(pValue);
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
inline V evenDwords(V pA, V pB) {
  return _mm256_castps_si256(
      _mm256_shuffle_ps(_mm256_castsi256_ps(pA), _mm256_castsi256_ps(pB), _MM_SHUFFLE(2, 0, 2, 0)));
}
inline V maddubs(V pUnsigned, V pSigned) {
  return _mm256_maddubs_epi16(pUnsigned, pSigned);
}
inline V mullo16(V pA, V pB) {
  return _mm256_mullo_epi16(pA, pB);
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
template <int kBits>
inline V slli16(V pValue) {
  return _mm256_slli_epi16(pValue, kBits);
}
inline V packus16(V pA, V pB) {
  return _mm256_packus_epi16(pA, pB);
}
inline V unpacklo8(V pA, V pB) {
  return _mm256_unpacklo_epi8(pA, pB);
}
inline V unpackhi8(V pA, V pB) {
  return _mm256_unpackhi_epi8(pA, pB);
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
inline V unpackhi32(V pA, V pB) {
  return _mm256_unpackhi_epi32(pA, pB);
}
inline V unpacklo64(V pA, V pB) {
  return _mm256_unpacklo_epi64(pA, pB);
}

}  // namespace

#include "kernels/vectorimpl.h"

}  // namespace avx2
}  // namespace simd
}  // namespace OX
