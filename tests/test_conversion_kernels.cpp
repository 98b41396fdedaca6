// Colour-space conversion kernels: every plane loop against the oracle written from the formulas,
// the hand-checked anchor values, the clipping to both buffers; each test once per kernel variant
// this processor runs, and every variant byte for byte against the reference.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "kerneloracles.h"
#include "kernels/conversion.h"
#include "oxtypes.h"

namespace {

using vitest::Bytes;
using vitest::expectedConversion;
using vitest::kAllSpaces;
using vitest::kSentinel;
using vitest::randomFrame;
using vitest::rgbOf;

using Conversion = vitest::KernelVariants<OX::conversionkernels::forceKernelsForTesting>;

// Runs one plane loop from an exactly sized source into an exactly sized, sentinel-filled target,
// so that AddressSanitizer sees any byte outside either.
Bytes run(int pSpace, const Bytes& pSource, int pSw, int pSh, int pDw, int pDh) {
  namespace kernels = OX::conversionkernels;
  using Plane = void (*)(const kernels::SourceFrame&, const kernels::TargetFrame&);
  static const std::map<int, Plane> planes = {
      {OX::kYuv, kernels::yuv422toYuv},       {OX::kHsy, kernels::yuv422toHsy},
      {OX::kYUV422, kernels::yuv422toYUV422}, {OX::kYUV, kernels::yuv422toYUV},
      {OX::kRGB, kernels::yuv422toRGB},       {OX::kHSY, kernels::yuv422toHSY},
      {OX::kBGR, kernels::yuv422toBGR},       {OX::kYYCbCr, kernels::yuv422toYYCbCr},
      {OX::kH2RGB, kernels::yuv422toH2RGB},   {OX::kHSMixed, kernels::yuv422toHSMixed}};
  Bytes source(pSource.begin(), pSource.begin() + pSw * pSh * 2);
  Bytes target(static_cast<size_t>(pDw * pDh * OX::getNumLayersFromColorSpace(pSpace)), kSentinel);
  planes.at(pSpace)({source.data(), pSw, pSh}, {target.data(), pDw, pDh});
  return target;
}

// The hand-checked values: grey is hue case 7, no rounding term, the clamp at 255.
TEST_P(Conversion, AnchorValuesOfGreyBlackWhiteAndClamp) {
  const auto onePair = [&](int pSpace, Bytes pPair) { return run(pSpace, pPair, 2, 1, 2, 1); };
  const Bytes grey = {50, 128, 200, 128};
  EXPECT_EQ(onePair(OX::kHSY, grey), (Bytes{0, 0, 50, 0, 0, 200}));
  EXPECT_EQ(onePair(OX::kH2RGB, grey), (Bytes{0, 0, 255, 0, 0, 255}));
  EXPECT_EQ(onePair(OX::kHSMixed, grey), (Bytes{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(onePair(OX::kRGB, {16, 128, 235, 128}), (Bytes{0, 0, 0, 254, 254, 254}));
  EXPECT_EQ(onePair(OX::kRGB, {255, 128, 255, 128}), Bytes(6, 255));
}

// Pins the oracle's layout rules by hand. The kept quirks: the word copy leaves the tail, kHsy
// writes only over its first row. The step rule at 640 x 480 to 320 x 240: row and macro-pixel
// strides. Step 0: a destination wider than the source repeats the first macro-pixel.
TEST_P(Conversion, HandCheckedLayouts) {
  const Bytes frame = randomFrame(3 * 3 * 2, 3);
  const Bytes copy = run(OX::kYUV422, frame, 3, 3, 3, 3);  // 9 pixels: two words
  EXPECT_TRUE(std::equal(copy.begin(), copy.begin() + 16, frame.begin()));
  EXPECT_EQ(copy[16], kSentinel);
  EXPECT_EQ(copy[17], kSentinel);
  const Bytes hsy = run(OX::kHsy, randomFrame(4 * 4 * 2, 4), 4, 4, 4, 4);
  EXPECT_TRUE(std::all_of(hsy.begin() + 4, hsy.end(), [](int b) { return b == kSentinel; }));
  // Too small for a single word: only what both buffers hold is copied.
  EXPECT_EQ(run(OX::kYUV422, {1, 2}, 1, 1, 1, 1), (Bytes{1, 2}));
  const Bytes big = randomFrame(640 * 480 * 2, 11);
  const Bytes yuv = run(OX::kYuv, big, 640, 480, 320, 240);
  EXPECT_EQ(yuv[320], big[2 * 1280]);
  EXPECT_EQ(yuv[321], big[2 * 1280 + 4]);
  const Bytes small = {10, 20, 30, 40, 1, 2, 3, 4};
  Bytes repeated;
  for (int i = 0; i < 8; ++i) repeated.insert(repeated.end(), {10, 20, 30, 40});
  EXPECT_EQ(run(OX::kYUV422, small, 4, 1, 8, 2), repeated);
  EXPECT_EQ(run(OX::kYuv, small, 4, 1, 8, 2), Bytes(16, 10));
}

// Guards every kernel and its variant selection at steps 1, 2, 4 and 8, over awkward geometry
// (odd widths, sources too short or too wide, a one-pixel target), byte for byte.
TEST_P(Conversion, EveryKernelMatchesTheFormulasAtEveryStep) {
  // Target width and height, extra source width, source height (0: dh * step).
  const int geometries[][4] = {{6, 4, 0, 0}, {5, 3, 0, 0}, {6, 4, 1, 0},
                               {6, 4, 0, 1}, {7, 5, 0, 2}, {1, 1, 0, 0}};
  for (int space : kAllSpaces) {
    for (int step : {1, 2, 4, 8}) {
      for (const auto& [dw, dh, extraWidth, sourceHeight] : geometries) {
        const int sw = dw * step + extraWidth, sh = sourceHeight != 0 ? sourceHeight : dh * step;
        const Bytes frame = randomFrame(static_cast<size_t>(sw * sh * 2), sw * 31 + sh);
        EXPECT_EQ(run(space, frame, sw, sh, dw, dh),
                  expectedConversion(space, frame, sw, sh, dw, dh))
            << "space " << space << " " << dw << "x" << dh << " from " << sw << "x" << sh;
      }
    }
  }
}

// Guards the vector kernels' blocks and their hand-over to the scalar tail: random frames at
// every camera size and at widths that leave many tails, at steps 1 and 2, byte for byte against
// the reference. run()'s buffers end where their allocation does.
TEST_P(Conversion, VariantMatchesTheReferenceOnRandomFrames) {
  const int sizes[][2] = {{160, 120}, {320, 240}, {640, 480}, {1280, 960}, {33, 3}, {37, 5},
                          {39, 3},    {45, 3},    {48, 5},    {62, 3},     {63, 3}};
  for (int space : kAllSpaces) {
    for (const auto& size : sizes) {
      for (int step : {1, 2}) {
        // At odd heights the last row read is the source's last: its end is the buffer's, and at
        // 62 x 3 right after the last macro-pixel read.
        const int sw = size[0], sh = size[1], dw = sw / step, dh = (sh + step - 1) / step;
        const Bytes frame = randomFrame(static_cast<size_t>(sw * sh * 2), sw + sh + space);
        ASSERT_TRUE(OX::conversionkernels::forceKernelsForTesting(OX::KernelVariant::kReference));
        const Bytes want = run(space, frame, sw, sh, dw, dh);
        ASSERT_TRUE(OX::conversionkernels::forceKernelsForTesting(GetParam()));
        EXPECT_TRUE(run(space, frame, sw, sh, dw, dh) == want)
            << "space " << space << " " << sw << "x" << sh << " step " << step;
      }
    }
  }
}

// The row kernels straight, at every count up to a few blocks (so every tail is met), from a
// source that ends at the last byte the reference reads, against the reference.
TEST_P(Conversion, RowKernelsOnEveryCountReadNoFurtherThanTheReference) {
  namespace kernels = OX::conversionkernels;
  using Row = kernels::Row kernels::Kernels::*;
  struct Case {
    Row row;
    int targetBytes, advance, lastRead[2];  // source bytes per macro-pixel and step; the last
  };                                        // byte read of a macro-pixel at step 1, 2
  const Case cases[] = {
      {&kernels::Kernels::fYuv, 2, 4, {2, 4}},   {&kernels::Kernels::fYUV422, 4, 4, {3, 6}},
      {&kernels::Kernels::fYUV, 6, 4, {3, 3}},   {&kernels::Kernels::fRGB, 6, 4, {3, 3}},
      {&kernels::Kernels::fBGR, 6, 4, {3, 3}},   {&kernels::Kernels::fHsy, 2, 2, {3, 3}},
      {&kernels::Kernels::fHSY, 6, 4, {3, 3}},   {&kernels::Kernels::fHSMixed, 6, 4, {3, 3}},
      {&kernels::Kernels::fH2RGB, 6, 4, {3, 3}}, {&kernels::Kernels::fYYCbCr, 4, 4, {3, 3}}};
  for (const Case& c : cases) {
    for (int step : {1, 2}) {
      for (int count = 1; count <= 40; ++count) {
        const Bytes source = randomFrame(
            static_cast<size_t>(c.advance * step * (count - 1) + c.lastRead[step - 1] + 1), count);
        Bytes want(static_cast<size_t>(count * c.targetBytes)), got(want.size());
        (kernels::referenceKernels().*c.row)(source.data(), step, want.data(), count);
        (kernels::activeKernels().*c.row)(source.data(), step, got.data(), count);
        ASSERT_TRUE(got == want) << c.targetBytes << " bytes step " << step << " count " << count;
      }
    }
  }
}

// Every Y, U and V through the kernels that compute: kRGB and kBGR with both clamps, the hue
// family with its seven cases, its clamps and the low byte of a negative hue. One frame per U, a
// row per V, a macro-pixel per pair of Y, against the formulas.
TEST_P(Conversion, EveryYuvTripleMatchesTheFormulas) {
  const int spaces[] = {OX::kRGB, OX::kBGR, OX::kHSY, OX::kHSMixed, OX::kH2RGB};
  Bytes frame(256 * 256 * 2), out[5], hues(256);
  for (int u = 0; u < 256; ++u) {
    for (int v = 0; v < 256; ++v) {
      for (int y = 0; y < 256; y += 2) {
        const int pixels[4] = {y, u, y + 1, v};
        std::copy(pixels, pixels + 4, &frame[(v * 256 + y) * 2]);
      }
    }
    const unsigned char* at[5];
    for (int k = 0; k < 5; ++k) at[k] = (out[k] = run(spaces[k], frame, 256, 256, 256, 256)).data();
    for (int v = 0; v < 256; ++v) {
      // kHsy writes one row: its row kernel, on whole macro-pixels at step 2.
      OX::conversionkernels::activeKernels().fHsy(&frame[v * 512], 2, hues.data(), 128);
      for (int y = 0; y < 256; ++y) {
        const auto p = rgbOf(y, u, v);
        const auto hs = vitest::hueSatOf(y, u, v);
        const auto c = vitest::h2rgbOf(hs[0]);
        const int h = hs[0], s = hs[1];
        // Per pixel, in the order of spaces: three bytes each.
        const int want[15] = {p[0], p[1], p[2], p[2], p[1], p[0], h,   s,
                              y,    h,    s,    h,    c[0], c[1], c[2]};
        const int pixel = (v * 256 + y) * 3;
        bool same = hues[y] == h;
        for (int k = 0; k < 15; ++k) same = same && at[k / 3][pixel + k % 3] == want[k];
        ASSERT_TRUE(same) << "y " << y << " u " << u << " v " << v;
      }
    }
  }
}

VI_EVERY_KERNEL_VARIANT(Conversion);

}  // namespace
