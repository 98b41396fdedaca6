// The oracles of the kernels' tests, written from the formulas one pixel at a time and
// independently of the kernels: the colour-space conversion from kYUV422 and the resampling from
// RGB. Shared by the kernel tests and the device's and camera's tests of their dispatch.
#pragma once

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <ostream>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "kernels/kernelchoice.h"
#include "oxtypes.h"

namespace OX {
// Names the variant in the tests' names and messages.
inline void PrintTo(KernelVariant pVariant, std::ostream* pOut) {
  *pOut << kernelVariantName(pVariant);
}
}  // namespace OX

namespace vitest {

using Bytes = std::vector<unsigned char>;
constexpr unsigned char kSentinel = 0xA5;

// A test of one kernel family that runs with each variant, forced through kForce, in turn.
template <bool (*kForce)(OX::KernelVariant)>
class KernelVariants : public ::testing::TestWithParam<OX::KernelVariant> {
 public:
  // The variants this processor runs that the family has (not every family has AVX-512).
  static std::vector<OX::KernelVariant> variants() {
    std::vector<OX::KernelVariant> variants;
    for (OX::KernelVariant variant : OX::supportedKernelVariants()) {
      if (kForce(variant)) variants.push_back(variant);
    }
    kForce(OX::KernelVariant::kAutomatic);
    return variants;
  }

 protected:
  void SetUp() override { ASSERT_TRUE(kForce(GetParam())); }
  void TearDown() override { kForce(OX::KernelVariant::kAutomatic); }
};
#define VI_EVERY_KERNEL_VARIANT(Suite)                                              \
  INSTANTIATE_TEST_SUITE_P(Variants, Suite, ::testing::ValuesIn(Suite::variants()), \
                           [](const auto& pInfo) { return OX::kernelVariantName(pInfo.param); })
inline constexpr int kAllSpaces[] = {OX::kYuv, OX::kHsy, OX::kYUV422, OX::kYUV,   OX::kRGB,
                                     OX::kHSY, OX::kBGR, OX::kYYCbCr, OX::kH2RGB, OX::kHSMixed};

// Deterministic raw bytes; every fifth macro-pixel is grey (U = V = 128), the hue's last case.
inline Bytes randomFrame(size_t pSize, unsigned pSeed) {
  std::mt19937 random(pSeed);
  Bytes bytes(pSize);
  for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
  for (size_t at = 0; at + 3 < pSize; at += 20) bytes[at + 1] = bytes[at + 3] = 128;
  return bytes;
}

// --- Colour-space conversion ---
inline int clampByte(int pValue) {
  return std::min(255, std::max(0, pValue));
}

inline std::array<int, 3> rgbOf(int pY, int pU, int pV) {
  const int y = 298 * (pY - 16), u = pU - 128, v = pV - 128;
  return {clampByte((y + 409 * v) >> 8), clampByte((y - 100 * u - 208 * v) >> 8),
          clampByte((y + 516 * u) >> 8)};
}

// Hue byte and saturation of one pixel, by the hexagon's seven cases.
inline std::array<int, 2> hueSatOf(int pY, int pU, int pV) {
  const int a = 208 * pU + 509 * pV - 91776, b = -724 * pU - 100 * pV + 105472;
  const int c = -516 * pU + 409 * pV + 13696;
  const int dr = 298 * pY + 409 * pV - 57119, dg = 298 * pY - 208 * pU - 100 * pV + 34657;
  const int db = 298 * pY + 516 * pU - 70815;
  int h = 0, s = 0;  // case 7, grey, when no other case holds
  if (a > 0 && b > 0) h = 85 * b / (2 * c), s = 255 * c / dr;
  if (a > 0 && b <= 0 && c > 0) h = 85 * b / (2 * a) - 1, s = 255 * a / dr;
  if (a > 0 && b <= 0 && c <= 0) h = 85 * a / (-2 * b) - 85, s = -255 * b / db;
  if (a <= 0 && b < 0) h = 85 * a / (-2 * c) - 85, s = -255 * c / db;
  if (a <= 0 && b >= 0 && c > 0) h = -85 * c / (2 * b) + 85, s = 255 * b / dg;
  if (a < 0 && b >= 0 && c <= 0) h = 85 * c / (2 * a) + 85, s = -255 * a / dg;
  return {h & 0xFF, clampByte(s)};
}

inline std::array<int, 3> h2rgbOf(int pH) {
  std::array<int, 3> c = {0, 0, 255};  // 254 and 255
  if (pH <= 253) c = {-6 * pH - 15, 0, 255};
  if (pH <= 210) c = {255, 0, 6 * pH + 10};
  if (pH <= 168) c = {255, -6 * pH - 7, 0};
  if (pH <= 126) c = {6 * pH + 2, 255, 0};
  if (pH <= 84) c = {0, 255, 1 - 6 * pH};
  if (pH <= 42) c = {0, 6 * pH, 255};
  for (int& value : c) value &= 0xFF;
  return c;
}

// The whole expected target: source row y * step, macro-pixel at 4 * step * x (2 * step for
// kHsy); production stops at the first macro-pixel that would leave either buffer.
inline Bytes expectedConversion(int pSpace, const Bytes& pSrc, int pSw, int pSh, int pDw, int pDh) {
  const long bpp = OX::getNumLayersFromColorSpace(pSpace), size = long{pSw} * pSh * 2;
  Bytes out(static_cast<size_t>(pDw * pDh * bpp), kSentinel);
  const long step = pSw / pDw;
  if (pSpace == OX::kYUV422 && step == 1) {
    const long n = std::min({std::max(1L, long{pDw} * pDh / 4) * 8, size, long(out.size())});
    std::copy(pSrc.begin(), pSrc.begin() + n, out.begin());
    return out;
  }
  const bool hsy = pSpace == OX::kHsy;
  const long count = (pSpace == OX::kYUV422 || pSpace == OX::kYYCbCr) ? pDw / 2 : (pDw + 1) / 2;
  const long rowAdvance = pSpace == OX::kYYCbCr ? (pSw / 2) * step * 4
                          : hsy                 ? step * step * pDw
                                                : 2 * step * step * pDw;
  for (long y = 0; y < pDh; ++y) {
    for (long x = 0; x < count; ++x) {
      const long at = y * rowAdvance + (hsy ? 2 : 4) * step * x;
      const long to = (hsy ? 0 : y * count * 2 * bpp) + x * 2 * bpp;
      long furthest = at + 3;
      if (pSpace == OX::kYuv) furthest = at + 2 * step;
      if (pSpace == OX::kYUV422) furthest = std::max(at + 3, at + 2 + 4 * (step / 2));
      if (furthest >= size || to + 2 * bpp > long(out.size())) return out;
      auto byte = [&](long pAt) { return pAt < size ? int{pSrc[pAt]} : 0; };  // 0: not read
      const int y0 = byte(at), u = byte(at + 1), y1 = byte(at + 2), v = byte(at + 3);
      const auto p0 = rgbOf(y0, u, v), p1 = rgbOf(y1, u, v);
      const auto hs0 = hueSatOf(y0, u, v), hs1 = hueSatOf(y1, u, v);
      const int h = hs0[0];
      const auto c = h2rgbOf(h);
      const std::map<int, std::vector<int>> candidates = {
          {OX::kYuv, {y0, byte(at + 2 * step)}},
          {OX::kHsy, {h, h}},
          {OX::kYUV422, {y0, u, byte(at + 2 + 4 * (step / 2)), v}},
          {OX::kYUV, {y0, u, v, y1, u, v}},
          {OX::kRGB, {p0[0], p0[1], p0[2], p1[0], p1[1], p1[2]}},
          {OX::kBGR, {p0[2], p0[1], p0[0], p1[2], p1[1], p1[0]}},
          {OX::kHSY, {h, hs0[1], y0, h, hs1[1], y1}},
          {OX::kYYCbCr, {y0, y1, u, v}},
          {OX::kH2RGB, {c[0], c[1], c[2], c[0], c[1], c[2]}},
          {OX::kHSMixed, {h, hs0[1], h, h, hs1[1], h}}};
      const std::vector<int>& px = candidates.at(pSpace);
      for (size_t k = 0; k < px.size(); ++k) out[to + k] = static_cast<unsigned char>(px[k]);
    }
  }
  return out;
}

// --- Resampling ---

struct Yuv {
  int y, u, v;
};

// BT.601 studio range in 8.8 fixed point, one pixel at a time.
inline Yuv oracle(const unsigned char* pRgb) {
  const int r = pRgb[0], g = pRgb[1], b = pRgb[2];
  return {((66 * r + 129 * g + 25 * b + 128) >> 8) + 16,
          (((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128) & 0xFF,
          (((112 * r - 94 * g - 18 * b + 128) >> 8) + 128) & 0xFF};
}

// One output pair: the Y of each pixel, the means of their U and of their V.
inline void putPair(unsigned char* pOut, const unsigned char* pLeft, const unsigned char* pRight) {
  const Yuv l = oracle(pLeft), r = oracle(pRight);
  pOut[0] = static_cast<unsigned char>(l.y);
  pOut[1] = static_cast<unsigned char>((l.u + r.u) >> 1);
  pOut[2] = static_cast<unsigned char>(r.y);
  pOut[3] = static_cast<unsigned char>((l.v + r.v) >> 1);
}

// The expected YUV422 frame for a source of w x h at ratio n: n > 0 decimates, n < 0 replicates
// (both pixels of a pair come from one source pixel), n == 0 keeps the size. Each output pair is
// computed from the source pixels it comes from.
inline Bytes expectedResampling(const Bytes& pRgb, int pWidth, int pHeight, int pRatio) {
  const int n = std::abs(pRatio);
  const int outWidth = pRatio > 0 ? pWidth / n : pRatio < 0 ? pWidth * n : pWidth;
  const int outHeight = pRatio > 0 ? pHeight / n : pRatio < 0 ? pHeight * n : pHeight;
  Bytes out(static_cast<size_t>(outWidth) * outHeight * 2);
  for (size_t y = 0; y < static_cast<size_t>(outHeight); ++y) {
    for (size_t x = 0; x < static_cast<size_t>(outWidth); x += 2) {
      size_t left = y * pWidth + x, right = left + 1;  // linear pixel indexes
      if (pRatio < 0) left = right = (y / n) * pWidth + x / n;
      if (pRatio > 0) left = y * n * pWidth + x * n, right = left + (n / 2) * n;
      putPair(&out[(y * outWidth + x) * 2], &pRgb[left * 3], &pRgb[right * 3]);
    }
  }
  return out;
}

}  // namespace vitest
