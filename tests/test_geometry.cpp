// Angular geometry on the simulator camera: the lens model's values bit for bit, round trips,
// the failure texts and the order in which the checks run.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Cam = boost::shared_ptr<OX::OXVisionSimulatorCam>;
using Floats = std::vector<float>;
using Input = OX::OXVisionVideoInput;

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
// alone picks them, OV7670 or any other; half of them from the top left corner, positive to the
// left, negative upwards.
TEST(Geometry, AperturesFollowTheCameraModelBitForBit) {
  Cam cam = vitest::makeSimulatorCam();
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 1.0f}), (Floats{kMtH, kMtV}));
  Hook::camera(*cam, 0).fCameraModel = 7;  // any other model: the second pair
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 0.0f}), (Floats{kMtH, 0.0f}));
  Hook::camera(*cam, 0).fCameraModel = OX::kOV7670;
  EXPECT_EQ(cam->getAngularSizeFromImageSize(0, {1.0f, 1.0f}), (Floats{kOvH, kOvV}));
  EXPECT_EQ(cam->getAngularPositionFromImagePosition(0, {0.0f, 0.0f}),
            (Floats{0.5f * kOvH, -0.5f * kOvV}));
}

// Guards against a wrong sign or order in one of the directions: the centre maps to the axis on
// every camera and every conversion goes back where it came from.
TEST(Geometry, CentreAndRoundTrips) {
  Cam cam = vitest::makeSimulatorCam();
  Hook::camera(*cam, 1).fCameraModel = OX::kOV7670;
  for (int camera = 0; camera < 2; ++camera) {
    SCOPED_TRACE(camera);
    EXPECT_EQ(cam->getAngularPositionFromImagePosition(camera, {0.5f, 0.5f}),
              (Floats{-0.0f, 0.0f}));
    EXPECT_EQ(cam->getImagePositionFromAngularPosition(camera, {0.0f, 0.0f}), (Floats{0.5f, 0.5f}));
    const Floats angles = cam->getAngularPositionFromImagePosition(camera, {0.25f, 0.75f});
    EXPECT_GT(angles[0], 0.0f);  // left of the centre: positive
    EXPECT_GT(angles[1], 0.0f);  // below the centre: positive
    const Floats back = cam->getImagePositionFromAngularPosition(camera, angles);
    const Floats size = cam->getAngularSizeFromImageSize(camera, {0.3f, 0.6f});
    const Floats sizeBack = cam->getImageSizeFromAngularSize(camera, size);
    EXPECT_FLOAT_EQ(back[0], 0.25f);
    EXPECT_FLOAT_EQ(back[1], 0.75f);
    EXPECT_FLOAT_EQ(sizeBack[0], 0.3f);
    EXPECT_FLOAT_EQ(sizeBack[1], 0.6f);
    // Out of the aperture extrapolates; no bound on the reverse size.
    EXPECT_EQ(cam->getImageSizeFromAngularSize(camera, {-8.0f, 8.0f}).size(), 2u);
    const Floats info =
        cam->getImageInfoFromAngularInfo(camera, {angles[0], angles[1], size[0], size[1]});
    EXPECT_EQ(info, (Floats{back[0], back[1], sizeBack[0], sizeBack[1]}));
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
  const OX::OXError error = vitest::raised([&] { cam->getAngPosFromImgPos({0.5f, 0.5f}); });
  EXPECT_EQ(error.getDescription(),
            "getAngularPositionFromImagePosition(2,...) : invalid Camera index");
}

// Guards against a check in the wrong order or a text that clients no longer match: the camera
// first, then the list, the range last; the resolution before the list's length. The method
// named is the text's prefix, with "()" where marked.
TEST(Geometry, FailureTextsAndOrderOfChecks) {
  Cam cam = vitest::makeSimulatorCam();
  vitest::LogCapture capture;
  using Fn = Floats (Input::*)(const int&, const Floats&);
  const struct {
    Fn fn;  // nullptr: getImageInfoFromAngularInfoWithResolution at fResolution
    int camera, resolution;
    bool parens;
    const char* text;
    Floats args = {};
  } rows[] = {
      {&Input::getAngularPositionFromImagePosition, 9, 0, false,
       "getAngularPositionFromImagePosition(9,...) : invalid Camera index", Floats{0.5f, 0.5f}},
      {&Input::getAngularPositionFromImagePosition, 0, 0, false,
       "getAngularPositionFromImagePosition(0,...) : invalid parameter size", Floats{0.5f}},
      {&Input::getImagePositionFromAngularPosition, -1, 0, false,
       "getImagePositionFromAngularPosition(-1,...) : invalid Camera index"},
      {&Input::getImagePositionFromAngularPosition, 1, 0, true,
       "getImagePositionFromAngularPosition(1,...) : invalid parameter size",
       Floats{0.f, 0.f, 0.f}},
      {&Input::getAngularSizeFromImageSize, 2, 0, false,
       "getAngularSizeFromImageSize(2) : invalid Camera index", Floats{2.0f}},
      {&Input::getAngularSizeFromImageSize, 0, 0, true,
       "getAngularSizeFromImageSize(0,...) : invalid parameter size", Floats{1.0f}},
      {&Input::getAngularSizeFromImageSize, 0, 0, true,
       "getAngularSizeFromImageSize(0,...) : invalid parameter size", Floats{1.0000001f, 0.5f}},
      {&Input::getAngularSizeFromImageSize, 0, 0, true,
       "getAngularSizeFromImageSize(0,...) : invalid parameter size", Floats{0.5f, -0.001f}},
      {&Input::getImageSizeFromAngularSize, 5, 0, false,
       "getImageSizeFromAngularSize(5) : invalid Camera index"},
      {&Input::getImageSizeFromAngularSize, 0, 0, true,
       "getImageSizeFromAngularSize(0,...) : invalid parameter size", Floats{1.0f}},
      {&Input::getImageInfoFromAngularInfo, 3, 0, false,
       "getImageInfoFromAngularInfo(3) : invalid Camera index"},
      {&Input::getImageInfoFromAngularInfo, 0, 0, true,
       "getImageInfoFromAngularInfo(0,...) : invalid parameter size", Floats{0.f, 0.f, 0.f}},
      {nullptr, 4, 99, false,
       "getImageInfoFromAngularInfoWithResolution(4) : invalid Camera index"},
      {nullptr, 1, 99, false,
       "getImageInfoFromAngularInfoWithResolution(1) : invalid resolution index"},
      {nullptr, 1, OX::kVGA, true, "getImageInfoFromAngularInfo(1,...) : invalid parameter size",
       Floats{0.f}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    capture.clear();
    const OX::OXError error = vitest::raised([&] {
      if (row.fn != nullptr) {
        (cam.get()->*row.fn)(row.camera, row.args);
      } else {
        cam->getImageInfoFromAngularInfoWithResolution(row.camera, row.args, row.resolution);
      }
    });
    const std::string text = row.text;
    EXPECT_EQ(error.getDescription(), text);
    EXPECT_EQ(error.getFunctionName(), text.substr(0, text.find('(')) + (row.parens ? "()" : ""));
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, "vision.oxvisionvideoinput", text));
  }
}

}  // namespace
