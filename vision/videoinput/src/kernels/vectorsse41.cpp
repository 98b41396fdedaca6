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
inline V evenDwords(V pA, V pB) {
  return _mm_castps_si128(
      _mm_shuffle_ps(_mm_castsi128_ps(pA), _mm_castsi128_ps(pB), _MM_SHUFFLE(2, 0, 2, 0)));
}
inline V maddubs(V pUnsigned, V pSigned) {
  return _mm_maddubs_epi16(pUnsigned, pSigned);
}
inline V mullo16(V pA, V pB) {
  return _mm_mullo_epi16(pA, pB);
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
template <int kBits>
inline V slli16(V pValue) {
  return _mm_slli_epi16(pValue, kBits);
}
inline V packus16(V pA, V pB) {
  return _mm_packus_epi16(pA, pB);
}
inline V unpacklo8(V pA, V pB) {
  return _mm_unpacklo_epi8(pA, pB);
}
inline V unpackhi8(V pA, V pB) {
  return _mm_unpackhi_epi8(pA, pB);
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
inline V unpackhi32(V pA, V pB) {
  return _mm_unpackhi_epi32(pA, pB);
}
inline V unpacklo64(V pA, V pB) {
  return _mm_unpacklo_epi64(pA, pB);
}

}  // namespace

#include "kernels/vectorimpl.h"

}  // namespace sse41
}  // namespace simd
}  // namespace OX
