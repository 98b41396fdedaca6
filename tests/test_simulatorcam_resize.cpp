// The simulator camera's resampling, byte for byte against a per-pixel computation written here
// independently of the row kernels; each test once per kernel variant this processor runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "kernels/kernelchoice.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace OX {
// Names the variant in the tests' names and messages.
void PrintTo(KernelVariant pVariant, std::ostream* pOut) {
  *pOut << kernelVariantName(pVariant);
}
}  // namespace OX

namespace {

using vitest::Hook;
using Bytes = std::vector<unsigned char>;

struct Yuv {
  int y, u, v;
};

// BT.601 studio range in 8.8 fixed point, one pixel at a time.
Yuv oracle(const unsigned char* pRgb) {
  const int r = pRgb[0], g = pRgb[1], b = pRgb[2];
  return {((66 * r + 129 * g + 25 * b + 128) >> 8) + 16,
          (((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128) & 0xFF,
          (((112 * r - 94 * g - 18 * b + 128) >> 8) + 128) & 0xFF};
}

// One output pair: the Y of each pixel, the means of their U and of their V.
void putPair(unsigned char* pOut, const unsigned char* pLeft, const unsigned char* pRight) {
  const Yuv l = oracle(pLeft), r = oracle(pRight);
  pOut[0] = static_cast<unsigned char>(l.y);
  pOut[1] = static_cast<unsigned char>((l.u + r.u) >> 1);
  pOut[2] = static_cast<unsigned char>(r.y);
  pOut[3] = static_cast<unsigned char>((l.v + r.v) >> 1);
}

// The expected YUV422 frame for a source of w x h at ratio n: n > 0 decimates, n < 0 replicates
// (both pixels of a pair come from one source pixel), n == 0 keeps the size. Each output pair is
// computed from the source pixels it comes from.
Bytes expected(const Bytes& pRgb, int pWidth, int pHeight, int pRatio) {
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

// Every test runs with each kernel variant forced in turn.
class SimulatorCamResize : public ::testing::TestWithParam<OX::KernelVariant> {
 protected:
  void SetUp() override { ASSERT_TRUE(OX::simulatorkernels::forceKernelsForTesting(GetParam())); }
  void TearDown() override {
    OX::simulatorkernels::forceKernelsForTesting(OX::KernelVariant::kAutomatic);
  }
};

int sizeOf(int pResolution) {
  int width = 0, height = 0;
  OX::setSizeFromResolution(pResolution, width, height);
  return width * height * 2;
}

// The hand-checked anchors: black, white and pure red, each in a pair of identical pixels so
// that the means are the pixel's own U and V.
TEST_P(SimulatorCamResize, AnchorPixels) {
  const Bytes rgb = {0, 0, 0, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 0, 0, 255, 0, 0};
  Bytes out(12);
  OX::simulatorkernels::activeKernels().fPairRow(rgb.data(), rgb.data() + 3, 6, out.data(), 3);
  EXPECT_EQ(out, (Bytes{16, 128, 16, 128, 235, 128, 235, 128, 82, 90, 82, 240}));
}

// Every input size into every camera resolution: a wrong stride, row, mean or ratio shows as a
// byte that differs; buffers of exactly the output size let an overrun trip the sanitizer.
TEST_P(SimulatorCamResize, EveryInputSizeIntoEveryResolution) {
  auto cam = vitest::makeSimulatorCam();
  for (int in = 0; in < 4; ++in) {
    int width = 0, height = 0;
    OX::setSizeFromResolution(in, width, height);
    Bytes rgb;
    ASSERT_TRUE(cam->putImage(0, width, height, vitest::rgbFrame(in, 100 + in, &rgb)));
    OX::OXImage& source =
        *Hook::store(*cam, 0).fInputBuffers[Hook::store(*cam, 0).fLastInputBuffer]->fImage;
    for (int out = 0; out < 4; ++out) {
      Hook::camera(*cam, 0).fResolution = static_cast<int8_t>(out);
      Bytes target(sizeOf(out), 0xA5);
      ASSERT_TRUE(Hook::reSize(*cam, 0, source, target.data())) << in << "->" << out;
      const int ratio = in == out ? 0 : (in > out ? 1 << (in - out) : -(1 << (out - in)));
      EXPECT_TRUE(target == expected(rgb, width, height, ratio)) << in << "->" << out;
    }
  }
}

// The pair kernel straight, in both layouts with a fast path (touching pairs, and every second
// pixel skipped as at ratio 2) and one without: every pair count up to a few blocks, so that
// every tail is met, from a source that ends at the last byte the reference reads.
TEST_P(SimulatorCamResize, PairRowOnEveryCountAndLayout) {
  const auto& kernels = OX::simulatorkernels::activeKernels();
  const int layouts[][2] = {{6, 3}, {12, 6}, {24, 12}};  // bytes per pair, right pixel offset
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
// the same-size resampling against the formulas.
TEST_P(SimulatorCamResize, EveryColourMatchesTheFormulas) {
  Bytes rgb(256 * 256 * 3);
  Bytes target(256 * 256 * 2);
  for (int red = 0; red < 256; ++red) {
    for (size_t i = 0; i < 256 * 256; ++i) {
      rgb[i * 3] = static_cast<unsigned char>(red);
      rgb[i * 3 + 1] = static_cast<unsigned char>(i >> 8);
      rgb[i * 3 + 2] = static_cast<unsigned char>(i);
    }
    OX::simulatorkernels::activeKernels().fPairRow(rgb.data(), rgb.data() + 3, 6, target.data(),
                                                   256 * 128);
    ASSERT_TRUE(target == expected(rgb, 256, 256, 0)) << "red " << red;
  }
}

// The size asked for is that of the device's active camera: with the active camera at the
// pushed size and pCamera elsewhere, the diagonal cell refuses.
TEST_P(SimulatorCamResize, ActiveCameraDecidesTheSize) {
  vitest::LogCapture capture;
  auto cam = vitest::makeSimulatorCam();
  ASSERT_TRUE(cam->putImage(1, 320, 240, vitest::rgbFrame(OX::kQVGA, 1)));
  OX::OXImage& source = *Hook::store(*cam, 1).fInputBuffers[0]->fImage;
  Hook::camera(*cam, 1).fResolution = OX::kVGA;
  Bytes target(sizeOf(OX::k4VGA), 0xA5);
  EXPECT_FALSE(Hook::reSize(*cam, 1, source, target.data()));
  EXPECT_EQ(target[0], 0xA5);
  // The active camera at resolution 0: camera 1 gets a frame of 160 x 120 although it is at 2.
  Hook::camera(*cam, 0).fResolution = OX::kQQVGA;
  EXPECT_TRUE(Hook::reSize(*cam, 1, source, target.data()));
  Bytes rgb;
  vitest::rgbFrame(OX::kQVGA, 1, &rgb);
  const Bytes half = expected(rgb, 320, 240, 2);
  EXPECT_TRUE(std::equal(half.begin(), half.end(), target.begin()));
  EXPECT_EQ(target[half.size()], 0xA5);
  // An unknown pushed resolution is logged; an active camera outside the table refuses.
  Hook::store(*cam, 1).fInputResolution = 7;
  EXPECT_FALSE(Hook::reSize(*cam, 1, source, target.data()));
  EXPECT_TRUE(
      capture.has(2, "vision.oxvisionsimulatorcam", "Simulator native resolution unsupported"));
  Hook::store(*cam, 1).fInputResolution = OX::kQVGA;
  Hook::activeCamera(*cam) = 2;
  EXPECT_FALSE(Hook::reSize(*cam, 1, source, target.data()));
  Hook::activeCamera(*cam) = 0;
}

// Awkward geometry straight into the plane loops: odd sizes, exact buffers, every ratio; ratios
// other than 2, 4 and 8 refuse at once and write nothing.
TEST_P(SimulatorCamResize, PlaneLoopsOnAwkwardSizesAndOtherRatios) {
  const Bytes square = vitest::randomBytes(24 * 24 * 3, 1);
  Bytes untouched(24 * 24 * 2 * 9, 0xA5);
  for (int ratio : {3, 0, 1, -2, 16}) {
    EXPECT_FALSE(Hook::subSample(ratio, 24, 24, square.data(), untouched.data()));
    EXPECT_FALSE(Hook::overSample(ratio, 24, 24, square.data(), untouched.data()));
  }
  EXPECT_EQ(untouched, Bytes(untouched.size(), 0xA5));
  // Widths are multiples of 16 (pairs of every ratio); heights are odd or tight.
  const int sizes[][2] = {{16, 9}, {48, 33}, {32, 17}, {64, 8}};
  for (const auto& size : sizes) {
    const int width = size[0], height = size[1];
    const Bytes rgb = vitest::randomBytes(width * height * 3, width + height);
    for (int n : {2, 4, 8}) {
      const int rows = height / n, cols = width / n;
      Bytes sub(static_cast<size_t>(rows) * cols * 2, 0xA5);
      EXPECT_TRUE(Hook::subSample(n, width, height, rgb.data(), sub.data()));
      EXPECT_TRUE(sub == expected(rgb, width, height, n)) << width << "x" << height << "/" << n;
      Bytes over(static_cast<size_t>(width) * n * height * n * 2);
      EXPECT_TRUE(Hook::overSample(n, width, height, rgb.data(), over.data()));
      EXPECT_TRUE(over == expected(rgb, width, height, -n)) << width << "x" << height << "*" << n;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Variants, SimulatorCamResize,
                         ::testing::ValuesIn(OX::supportedKernelVariants()),
                         [](const auto& pInfo) { return OX::kernelVariantName(pInfo.param); });

}  // namespace
