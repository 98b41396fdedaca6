// Angular geometry on the simulator camera: the lens model's values bit for bit, round trips,
// the failure texts and the order in which the checks run.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Cam = boost::shared_ptr<OX::OXVisionSimulatorCam>;
using Floats = std::vector<float>;
const char* const kCategory = "vision.oxvisionvideoinput";

float fromBits(uint32_t pBits) {
  float value;
  std::memcpy(&value, &pBits, sizeof value);
  return value;
}

const float kOvH = fromBits(0x3F5576D4);
const float kOvV = fromBits(0x3F245733);
const float kMtH = fromBits(0x3F87FBA2);
const float kMtV = fromBits(0x3F54922E);

// Guards against apertures taken from decimal literals or the wrong model: the camera's model
// alone picks them, OV7670 or any other.
TEST(Geometry, AperturesFollowTheCameraModelBitForBit) {
  Cam cam = vitest::makeSimulatorCam();
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 1.0f}), (Floats{kMtH, kMtV}));
  Hook::camera(*cam, 0).fCameraModel = OX::kOV7670;
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 1.0f}), (Floats{kOvH, kOvV}));
  Hook::camera(*cam, 0).fCameraModel = 7;  // any other model: the second pair
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 0.0f}), (Floats{kMtH, 0.0f}));
  // Half the OV7670 apertures from the top left corner, positive to the left, negative upwards.
  Hook::camera(*cam, 0).fCameraModel = OX::kOV7670;
  const Floats corner = cam->getAngularPositionFromImagePosition(0, {0.0f, 0.0f});
  EXPECT_EQ(corner, (Floats{0.5f * kOvH, -0.5f * kOvV}));
  EXPECT_FLOAT_EQ(corner[0], 0.41692221f);
  EXPECT_FLOAT_EQ(corner[1], -0.32097778f);
}

// Guards against a wrong sign or order in one of the directions: the centre maps to the axis on
// every camera and every conversion goes back where it came from.
TEST(Geometry, CentreAndRoundTrips) {
  Cam cam = vitest::makeSimulatorCam();
  Hook::camera(*cam, 1).fCameraModel = OX::kOV7670;
  for (int camera = 0; camera < 2; ++camera) {
    EXPECT_EQ(cam->getAngularPositionFromImagePosition(camera, {0.5f, 0.5f}),
              (Floats{-0.0f, 0.0f}));
    EXPECT_EQ(cam->getImagePositionFromAngularPosition(camera, {0.0f, 0.0f}), (Floats{0.5f, 0.5f}));
    const Floats angles = cam->getAngularPositionFromImagePosition(camera, {0.25f, 0.75f});
    EXPECT_GT(angles[0], 0.0f);  // left of the centre: positive
    EXPECT_GT(angles[1], 0.0f);  // below the centre: positive
    const Floats back = cam->getImagePositionFromAngularPosition(camera, angles);
    EXPECT_FLOAT_EQ(back[0], 0.25f);
    EXPECT_FLOAT_EQ(back[1], 0.75f);
    const Floats size = cam->getAngularSizeFromImageSize(camera, {0.3f, 0.6f});
    const Floats sizeBack = cam->getImageSizeFromAngularSize(camera, size);
    EXPECT_FLOAT_EQ(sizeBack[0], 0.3f);
    EXPECT_FLOAT_EQ(sizeBack[1], 0.6f);
    // Out of the aperture extrapolates; no bound on the reverse size.
    EXPECT_EQ(cam->getImageSizeFromAngularSize(camera, {-8.0f, 8.0f}).size(), 2u);
    const Floats info =
        cam->getImageInfoFromAngularInfo(camera, {angles[0], angles[1], size[0], size[1]});
    ASSERT_EQ(info.size(), 4u);
    EXPECT_EQ(info[0], back[0]);
    EXPECT_EQ(info[3], sizeBack[1]);
  }
}

// Guards against pixels scaled by the wrong side or the short forms ignoring the device's camera.
TEST(Geometry, PixelsAndShortForms) {
  Cam cam = vitest::makeSimulatorCam();
  Hook::camera(*cam, 1).fCameraModel = OX::kOV7670;
  const Floats angular = {0.1f, -0.2f, 0.3f, 0.4f};
  const Floats unit = cam->getImageInfoFromAngularInfo(1, angular);
  const Floats pixels = cam->getImageInfoFromAngularInfoWithResolution(1, angular, OX::kQVGA);
  EXPECT_EQ(pixels,
            (Floats{unit[0] * 320.0f, unit[1] * 240.0f, unit[2] * 320.0f, unit[3] * 240.0f}));
  Hook::activeCamera(*cam) = 1;
  EXPECT_EQ(cam->getImgInfoFromAngInfoWithRes(angular, OX::kQVGA), pixels);
  EXPECT_EQ(cam->getImgInfoFromAngInfo(angular), unit);
  EXPECT_EQ(cam->getAngPosFromImgPos({0.0f, 0.0f}), (Floats{0.5f * kOvH, -0.5f * kOvV}));
  EXPECT_EQ(cam->getImgPosFromAngPos({0.0f, 0.0f}), (Floats{0.5f, 0.5f}));
  EXPECT_EQ(cam->getAngSizeFromImgSize({1.0f, 1.0f}), (Floats{kOvH, kOvV}));
  EXPECT_EQ(cam->getImgSizeFromAngSize({kOvH, kOvV}), (Floats{1.0f, 1.0f}));
  vitest::LogCapture capture;
  Hook::activeCamera(*cam) = 2;  // one past the last camera: refused, not read
  EXPECT_EQ(vitest::raised([&] {
              cam->getAngPosFromImgPos({0.5f, 0.5f});
            }).getDescription(),
            "getAngularPositionFromImagePosition(2,...) : invalid Camera index");
}

struct Failure {
  std::function<void()> call;
  const char* text;
  const char* method;
};

// Guards against a check in the wrong order or a text that clients no longer match: the camera
// first, then the list, the range last; the resolution before the list's length.
TEST(Geometry, FailureTextsAndOrderOfChecks) {
  Cam cam = vitest::makeSimulatorCam();
  vitest::LogCapture capture;
  const Failure failures[] = {
      {[&] {
         cam->getAngularPositionFromImagePosition(9, {0.5f, 0.5f});
       },
       "getAngularPositionFromImagePosition(9,...) : invalid Camera index",
       "getAngularPositionFromImagePosition"},
      {[&] { cam->getAngularPositionFromImagePosition(0, {0.5f}); },
       "getAngularPositionFromImagePosition(0,...) : invalid parameter size",
       "getAngularPositionFromImagePosition"},
      {[&] { cam->getImagePositionFromAngularPosition(-1, {}); },
       "getImagePositionFromAngularPosition(-1,...) : invalid Camera index",
       "getImagePositionFromAngularPosition"},
      {[&] {
         cam->getImagePositionFromAngularPosition(1, {0.f, 0.f, 0.f});
       },
       "getImagePositionFromAngularPosition(1,...) : invalid parameter size",
       "getImagePositionFromAngularPosition()"},
      {[&] { cam->getAngularSizeFromImageSize(2, {2.0f}); },
       "getAngularSizeFromImageSize(2) : invalid Camera index", "getAngularSizeFromImageSize"},
      {[&] { cam->getAngularSizeFromImageSize(0, {1.0f}); },
       "getAngularSizeFromImageSize(0,...) : invalid parameter size",
       "getAngularSizeFromImageSize()"},
      {[&] {
         cam->getAngularSizeFromImageSize(0, {1.0000001f, 0.5f});
       },
       "getAngularSizeFromImageSize(0,...) : invalid parameter size",
       "getAngularSizeFromImageSize()"},
      {[&] {
         cam->getAngularSizeFromImageSize(0, {0.5f, -0.001f});
       },
       "getAngularSizeFromImageSize(0,...) : invalid parameter size",
       "getAngularSizeFromImageSize()"},
      {[&] { cam->getImageSizeFromAngularSize(5, {}); },
       "getImageSizeFromAngularSize(5) : invalid Camera index", "getImageSizeFromAngularSize"},
      {[&] { cam->getImageSizeFromAngularSize(0, {1.0f}); },
       "getImageSizeFromAngularSize(0,...) : invalid parameter size",
       "getImageSizeFromAngularSize()"},
      {[&] { cam->getImageInfoFromAngularInfo(3, {}); },
       "getImageInfoFromAngularInfo(3) : invalid Camera index", "getImageInfoFromAngularInfo"},
      {[&] {
         cam->getImageInfoFromAngularInfo(0, {0.f, 0.f, 0.f});
       },
       "getImageInfoFromAngularInfo(0,...) : invalid parameter size",
       "getImageInfoFromAngularInfo()"},
      {[&] { cam->getImageInfoFromAngularInfoWithResolution(4, {}, 99); },
       "getImageInfoFromAngularInfoWithResolution(4) : invalid Camera index",
       "getImageInfoFromAngularInfoWithResolution"},
      {[&] { cam->getImageInfoFromAngularInfoWithResolution(1, {}, 99); },
       "getImageInfoFromAngularInfoWithResolution(1) : invalid resolution index",
       "getImageInfoFromAngularInfoWithResolution"},
      {[&] { cam->getImageInfoFromAngularInfoWithResolution(1, {0.f}, OX::kVGA); },
       "getImageInfoFromAngularInfo(1,...) : invalid parameter size",
       "getImageInfoFromAngularInfo()"},
  };
  for (const Failure& failure : failures) {
    capture.clear();
    const OX::OXError error = vitest::raised(failure.call);
    EXPECT_EQ(error.getDescription(), failure.text);
    EXPECT_EQ(error.getFunctionName(), failure.method) << failure.text;
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, kCategory, failure.text)) << failure.text;
  }
  // The bounds themselves are accepted: width 1 gives the aperture exactly.
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 0.0f}), (Floats{kMtH, 0.0f}));
}

}  // namespace
