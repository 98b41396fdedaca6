// The simulator camera's resampling: which plane loop and ratio xReSize picks for each pair of
// sizes, against the oracle (the plane loops themselves: test_resampling_kernels).
#include <gtest/gtest.h>

#include <algorithm>

#include "kerneloracles.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Bytes;
using vitest::expectedResampling;
using vitest::Hook;

int sizeOf(int pResolution) {
  int width = 0, height = 0;
  OX::setSizeFromResolution(pResolution, width, height);
  return width * height * 2;
}

// Every input size into every camera resolution: a wrong stride, row, mean or ratio shows as a
// byte that differs; buffers of exactly the output size let an overrun trip the sanitizer.
TEST(SimulatorCamResize, EveryInputSizeIntoEveryResolution) {
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
      EXPECT_TRUE(target == expectedResampling(rgb, width, height, ratio)) << in << "->" << out;
    }
  }
}

// The size asked for is that of the device's active camera: with the active camera at the
// pushed size and pCamera elsewhere, the diagonal cell refuses.
TEST(SimulatorCamResize, ActiveCameraDecidesTheSize) {
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
  const Bytes half = expectedResampling(rgb, 320, 240, 2);
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

}  // namespace
