// Arguments checked before use, through the published interface of both cameras: the faults
// that the publication sweep found, each pinned by its own test.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "filecamsupport.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXValue;
constexpr int kIntMin = std::numeric_limits<int>::min();
constexpr int kIntMax = std::numeric_limits<int>::max();

OXValue args(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

// The call raises our own error for the camera index, logged at level 2, from pFunction (the
// method itself when empty).
void expectCameraRefused(OX::OXProxy& pProxy, const std::string& pMethod, const OXValue& pArgs,
                         int pCamera, const std::string& pCameras,
                         const std::string& pFunction = "") {
  SCOPED_TRACE(pMethod + OXValue(pArgs).toString());
  vitest::LogCapture capture;
  const OX::OXError error = vitest::raised([&] { pProxy.genericCall(pMethod, pArgs); });
  const std::string text =
      "camera index " + std::to_string(pCamera) + " out of range: this device has " + pCameras;
  EXPECT_EQ(error.getModuleName(), "OXVideoDevice");
  EXPECT_EQ(error.getFunctionName(), pFunction.empty() ? pMethod + "()" : pFunction);
  EXPECT_EQ(error.getDescription(), text);
  EXPECT_EQ(capture.count(text), 1);
}

// setParam(1, 1, -1) and getParam(1, -1) read past the simulator's camera table (a heap
// overflow), and so did cameras 255, INT_MIN and INT_MAX, whatever the parameter.
TEST(ArgumentFaults, SetParamAndGetParamWithCameraMinusOne255IntMinIntMaxOnTheSimulator) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeSimulatorCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  for (int camera : {-1, 255, kIntMin, kIntMax}) {
    for (int param : {1, 14, 18}) {
      expectCameraRefused(*proxy, "setParam", args({param, 1, camera}), camera,
                          "2 cameras, 0 to 1");
      expectCameraRefused(*proxy, "getParam", args({param, camera}), camera, "2 cameras, 0 to 1");
    }
  }
  EXPECT_EQ(vitest::Hook::activeCamera(*cam), 0);
}

// A camera index past the last, which the camera selection itself accepts: the operations that
// take the index from their caller or from the device refuse it in our words, and the device can
// still be brought back to a camera it has.
TEST(ArgumentFaults, CameraIndexPastTheLast) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeSimulatorCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  const std::string two = "2 cameras, 0 to 1";
  expectCameraRefused(*proxy, "putImage", args({2, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)}), 2,
                      two);
  expectCameraRefused(*proxy, "getExpectedImageParameters", args({2}), 2, two);
  proxy->genericCall("setParam", args({OX::kCameraSelectID, 2}));
  expectCameraRefused(*proxy, "getParam", args({OX::kCameraFrameRateID}), 2, two);
  // The driver names the operation it implements.
  expectCameraRefused(*proxy, "setParamDefault", args({OX::kCameraFrameRateID}), 2, two,
                      "setParam()");
  EXPECT_TRUE(proxy->genericCall("setActiveCamera", args({0})).asBool());
  EXPECT_EQ(proxy->genericCall("getParam", args({OX::kCameraFrameRateID})).asInt(), 5);
}

// The file camera's getParam(camID, pParam) answered 16 out of range with the standard library's
// "vector::_M_range_check: __n (which is 16) >= this->size() (which is 1)".
TEST(ArgumentFaults, FileCamGetParamOutOfRangeIsOurErrorNotTheLibrarysRangeCheck) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFileCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  for (int camera : {16, 1, -1, kIntMin, kIntMax}) {
    expectCameraRefused(*proxy, "getParam", args({camera, OX::kCameraResolutionID}), camera,
                        "1 camera, index 0");
  }
  EXPECT_EQ(proxy->genericCall("getParam", args({0, OX::kCameraFrameRateID})).asInt(), 5);
}

// recordVideo(id, "x.oxv", 1, INT_MIN) computed the countdown as INT_MIN - 1, a signed overflow,
// on both cameras. It now stays at INT_MIN and runs down without overflow: nothing is written.
TEST(ArgumentFaults, RecordVideoWithPeriodIntMinOnBothCameras) {
  vitest::TestClock clock;
  vitest::TempDir directory;
  const std::string video = directory.file("replayed.oxv");
  ASSERT_TRUE(vitest::writeRecording(video, 3));
  boost::shared_ptr<OX::OXBroker> simulatorBroker;
  boost::shared_ptr<OX::OXBroker> fileBroker;
  auto simulator = vitest::makeSimulatorCam(&simulatorBroker);
  auto file = vitest::makeFileCam(&fileBroker);
  file->setVideo(video, OXValue(), true, 0, 0);
  for (const auto& broker : {simulatorBroker, fileBroker}) {
    auto proxy = broker->getProxy("OXVideoDevice");
    const std::string id =
        proxy->genericCall("subscribeCamera", args({"r", 0, OX::kQQVGA, OX::kYUV422, 30}))
            .asString();
    const std::string path = directory.file(broker->getName() + ".oxv");
    EXPECT_TRUE(proxy->genericCall("recordVideo", args({id, path, 1, kIntMin})).asBool());
    for (int request = 0; request < 3; ++request) {
      if (broker == simulatorBroker) {
        clock.advance(40000);
        proxy->genericCall("putImage", args({0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)}));
      }
      EXPECT_TRUE(proxy->genericCall("getDirectRawImageRemote", args({id})).isArray());
    }
    EXPECT_TRUE(proxy->genericCall("stopVideo", args({id})).asBool());
    OX::OXVideo written;
    ASSERT_TRUE(written.readVideo(path));
    EXPECT_EQ(written.getNumberOfImages(), 0) << broker->getName();
  }
}

// Values that the file camera's replay would take below the smallest int or into an undefined
// conversion are refused before anything changes: a negative or mistyped range, a speed that is
// not a number or too slow for a period of microseconds.
TEST(ArgumentFaults, FileCamRangeAndSpeedThatWouldOverflow) {
  vitest::TempDir directory;
  const std::string video = directory.file("replayed.oxv");
  ASSERT_TRUE(vitest::writeRecording(video, 3));
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFileCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  const std::string range =
      " out of range: [first, last], two image indexes from 0 to 2147483647, or null for the "
      "whole file";
  for (const OXValue& refused : {args({0, kIntMin}), args({-1, 2}), args({"0", 2})}) {
    vitest::LogCapture capture;
    const OX::OXError error = vitest::raised([&] {
      proxy->genericCall("setVideo", args({video, refused, true, 0, 0}));
    });
    EXPECT_EQ(error.getDescription(), "range " + refused.toString() + range);
    EXPECT_EQ(vitest::FileHook::filePath(*cam), "");
  }
  for (float speed : {std::nanf(""), 1e-20f, -1e-20f}) {
    const OX::OXError error =
        vitest::raised([&] { proxy->genericCall("replaySpeed", args({speed})); });
    EXPECT_EQ(error.getFunctionName(), "replaySpeed()");
    EXPECT_EQ(error.getDescription().find("imagesPerSecond "), 0u) << error.getDescription();
  }
  proxy->genericCall("replaySpeed", args({-4.0f}));
  EXPECT_EQ(vitest::FileHook::replayPeriod(*cam), -250000);
}

}  // namespace
