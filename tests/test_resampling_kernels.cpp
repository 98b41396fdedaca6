// The resampling kernels, byte for byte against the oracle written from the formulas one pixel at
// a time, independently of the row kernels; each test once per kernel variant this processor runs.
#include <gtest/gtest.h>

#include "kerneloracles.h"
#include "kernels/resampling.h"
#include "testsupport.h"

namespace {

using vitest::Bytes;
using vitest::expectedResampling;
using vitest::putPair;

using Resampling = vitest::KernelVariants<OX::resamplingkernels::forceKernelsForTesting>;

// The hand-checked anchors: black, white and pure red, each in a pair of identical pixels so
// that the means are the pixel's own U and V.
TEST_P(Resampling, AnchorPixels) {
  const Bytes rgb = {0, 0, 0, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 0, 0, 255, 0, 0};
  Bytes out(12);
  OX::resamplingkernels::activeKernels().fPairRow(rgb.data(), rgb.data() + 3, 6, out.data(), 3);
  EXPECT_EQ(out, (Bytes{16, 128, 16, 128, 235, 128, 235, 128, 82, 90, 82, 240}));
}

// The pair kernel straight, in the layouts with a fast path (the same size and ratios 2, 4 and
// 8) and one without: every pair count up to a few blocks, so that every tail is met, from a
// source that ends at the last byte the reference reads.
TEST_P(Resampling, PairRowOnEveryCountAndLayout) {
  const auto& kernels = OX::resamplingkernels::activeKernels();
  // Bytes per pair, right pixel offset.
  const int layouts[][2] = {{6, 3}, {12, 6}, {24, 24}, {48, 96}, {24, 12}};
  for (const auto& layout : layouts) {
    const int step = layout[0], right = layout[1];
    for (int pairs = 1; pairs <= 70; ++pairs) {
      const Bytes rgb =
          vitest::randomBytes(static_cast<size_t>(step) * (pairs - 1) + right + 3, pairs);
      Bytes target(static_cast<size_t>(pairs) * 4), want(target.size());
      kernels.fPairRow(rgb.data(), rgb.data() + right, step, target.data(), pairs);
      for (int i = 0; i < pairs; ++i) putPair(&want[i * 4], &rgb[i * step], &rgb[i * step + right]);
      ASSERT_TRUE(target == want) << "step " << step << " pairs " << pairs;
    }
  }
}

// Every RGB colour, in a frame per red value with each pixel paired with its neighbour, through
// the same-size plane loop against the formulas.
TEST_P(Resampling, EveryColourMatchesTheFormulas) {
  Bytes rgb(256 * 256 * 3);
  Bytes target(256 * 256 * 2);
  for (int red = 0; red < 256; ++red) {
    for (size_t i = 0; i < 256 * 256; ++i) {
      rgb[i * 3] = static_cast<unsigned char>(red);
      rgb[i * 3 + 1] = static_cast<unsigned char>(i >> 8);
      rgb[i * 3 + 2] = static_cast<unsigned char>(i);
    }
    OX::resamplingkernels::sameSize(rgb.data(), 256 * 256, target.data());
    ASSERT_TRUE(target == expectedResampling(rgb, 256, 256, 0)) << "red " << red;
  }
}

// Awkward geometry straight into the plane loops: odd sizes, exact buffers, every ratio; ratios
// other than 2, 4 and 8 refuse at once and write nothing.
TEST_P(Resampling, PlaneLoopsOnAwkwardSizesAndOtherRatios) {
  const Bytes square = vitest::randomBytes(24 * 24 * 3, 1);
  Bytes untouched(24 * 24 * 2 * 9, 0xA5);
  for (int ratio : {3, 0, 1, -2, 16}) {
    EXPECT_FALSE(OX::resamplingkernels::subSample(ratio, 24, 24, square.data(), untouched.data()));
    EXPECT_FALSE(OX::resamplingkernels::overSample(ratio, 24, 24, square.data(), untouched.data()));
  }
  EXPECT_EQ(untouched, Bytes(untouched.size(), 0xA5));
  // Widths are multiples of 16 (pairs of every ratio), from a few pairs to the cameras' widths,
  // where the last pairs of a row read into the next one at ratios 4 and 8; heights are odd or
  // tight.
  const int sizes[][2] = {{16, 9}, {48, 33}, {32, 17}, {64, 8}, {1280, 17}, {656, 9}, {400, 24}};
  for (const auto& size : sizes) {
    const int width = size[0], height = size[1];
    const Bytes rgb = vitest::randomBytes(width * height * 3, width + height);
    for (int n : {2, 4, 8}) {
      const int rows = height / n, cols = width / n;
      Bytes sub(static_cast<size_t>(rows) * cols * 2, 0xA5);
      EXPECT_TRUE(OX::resamplingkernels::subSample(n, width, height, rgb.data(), sub.data()));
      EXPECT_TRUE(sub == expectedResampling(rgb, width, height, n))
          << width << "x" << height << "/" << n;
      Bytes over(static_cast<size_t>(width) * n * height * n * 2);
      EXPECT_TRUE(OX::resamplingkernels::overSample(n, width, height, rgb.data(), over.data()));
      EXPECT_TRUE(over == expectedResampling(rgb, width, height, -n))
          << width << "x" << height << "*" << n;
    }
  }
}

VI_EVERY_KERNEL_VARIANT(Resampling);

}  // namespace
