// Arguments checked before use, through the broker's glue on both cameras: each fault that the
// publication sweep found, pinned by a test named after it.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <cmath>
#include <limits>
#include <string>

#include "filecamsupport.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXValue;
constexpr int kIntMin = std::numeric_limits<int>::min();
constexpr int kIntMax = std::numeric_limits<int>::max();
const std::string kTwo = "2 cameras, 0 to 1";

OXValue args(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

// Both cameras, each on a broker of its own; the file camera replays three QQVGA images.
struct Cameras {
  Cameras() {
    EXPECT_TRUE(vitest::writeRecording(video, 3));
    file->setVideo(video, OXValue(), true, 0, 0);
  }
  vitest::TestClock clock;
  vitest::TempDir directory;
  std::string video = directory.file("replayed.oxv");
  boost::shared_ptr<OX::OXBroker> simulatorBroker, fileBroker;
  boost::shared_ptr<OX::OXVisionSimulatorCam> simulator =
      vitest::makeSimulatorCam(&simulatorBroker);
  boost::shared_ptr<OX::OXVisionFileCam> file = vitest::makeFileCam(&fileBroker);
  boost::shared_ptr<OX::OXProxy> sim = simulatorBroker->getProxy("OXVideoDevice");
  boost::shared_ptr<OX::OXProxy> rec = fileBroker->getProxy("OXVideoDevice");
};

// The call raises our own error naming the camera index and the cameras, logged at level 2, from
// pFunction (the method itself when empty).
void expectCameraRefused(OX::OXProxy& pProxy, const std::string& pMethod, const OXValue& pArgs,
                         int pCamera, const std::string& pCameras,
                         const std::string& pFunction = "") {
  SCOPED_TRACE(pMethod + pArgs.toString());
  vitest::LogCapture capture;
  const OX::OXError error = vitest::raised([&] { pProxy.genericCall(pMethod, pArgs); });
  const std::string text =
      "camera index " + std::to_string(pCamera) + " out of range: this device has " + pCameras;
  EXPECT_EQ(error.getModuleName() + "::" + error.getFunctionName(),
            "OXVideoDevice::" + (pFunction.empty() ? pMethod + "()" : pFunction));
  EXPECT_EQ(error.getDescription(), text);
  EXPECT_EQ(capture.count(text), 1);
}

// setParam(1, 1, -1) and getParam(1, -1) read past the simulator's camera table (a heap
// overflow), and so did cameras 255, INT_MIN and INT_MAX, whatever the parameter.
TEST(ArgumentFaults, SetParamAndGetParamWithCameraMinusOne255IntMinIntMaxOnTheSimulator) {
  Cameras cameras;
  for (int camera : {-1, 255, kIntMin, kIntMax}) {
    for (int param : {1, 14, 18}) {
      expectCameraRefused(*cameras.sim, "setParam", args({param, 1, camera}), camera, kTwo);
      expectCameraRefused(*cameras.sim, "getParam", args({param, camera}), camera, kTwo);
    }
  }
  EXPECT_EQ(vitest::Hook::activeCamera(*cameras.simulator), 0);
}

// A camera index past the last, also one that the camera selection itself accepts: refused in our
// words where the caller or the device names it, and the device can be brought back.
TEST(ArgumentFaults, CameraIndexPastTheLast) {
  Cameras cameras;
  OX::OXProxy& sim = *cameras.sim;
  const OXValue frame = vitest::rgbFrame(OX::kQQVGA, 1);
  expectCameraRefused(sim, "putImage", args({2, 160, 120, frame}), 2, kTwo);
  expectCameraRefused(sim, "getExpectedImageParameters", args({2}), 2, kTwo);
  sim.genericCall("setParam", args({OX::kCameraSelectID, 2}));
  // The driver refuses the device's camera, naming the operation that it implements.
  expectCameraRefused(sim, "getParam", args({OX::kCameraFrameRateID}), 2, kTwo);
  expectCameraRefused(sim, "setParamDefault", args({OX::kCameraFrameRateID}), 2, kTwo,
                      "setParam()");
  EXPECT_TRUE(sim.genericCall("setActiveCamera", args({0})).asBool());
  EXPECT_EQ(sim.genericCall("getParam", args({OX::kCameraFrameRateID})).asInt(), 5);
}

// The file camera's getParam(camID, pParam) answered 16 out of range with the standard library's
// "vector::_M_range_check: __n (which is 16) >= this->size() (which is 1)".
TEST(ArgumentFaults, FileCamGetParamOutOfRangeIsOurErrorNotTheLibrarysRangeCheck) {
  Cameras cameras;
  for (int camera : {16, 1, -1, kIntMin, kIntMax})
    expectCameraRefused(*cameras.rec, "getParam", args({camera, 14}), camera, "1 camera, index 0");
  EXPECT_EQ(cameras.rec->genericCall("getParam", args({0, OX::kCameraFrameRateID})).asInt(), 30);
}

// recordVideo(id, "x.oxv", 1, INT_MIN) computed its countdown as INT_MIN - 1, a signed overflow,
// on both cameras. It now stays at INT_MIN and runs down without overflow: nothing is written.
TEST(ArgumentFaults, RecordVideoWithPeriodIntMinOnBothCameras) {
  Cameras cameras;
  for (OX::OXProxy* device : {cameras.sim.get(), cameras.rec.get()}) {
    const std::string path =
        cameras.directory.file(device == cameras.sim.get() ? "s.oxv" : "f.oxv");
    const OXValue id = device->genericCall("subscribeCamera", args({"r", 0, 0, OX::kYUV422, 30}));
    EXPECT_TRUE(device->genericCall("recordVideo", args({id, path, 1, kIntMin})).asBool());
    for (int request = 0; request < 3; ++request) {
      cameras.clock.advance(40000);
      if (device == cameras.sim.get()) {
        device->genericCall("putImage", args({0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)}));
      }
      EXPECT_TRUE(device->genericCall("getDirectRawImageRemote", args({id})).isArray());
    }
    EXPECT_TRUE(device->genericCall("stopVideo", args({id})).asBool());
    OX::OXVideo written;
    ASSERT_TRUE(written.readVideo(path));
    EXPECT_EQ(written.getNumberOfImages(), 0) << path;
    // A path with a NUL byte names no file, not even its first part.
    const std::string cut = cameras.directory.file("cut");
    EXPECT_FALSE(
        device->genericCall("recordVideo", args({id, cut + '\0' + ".oxv", 1, 1})).asBool());
    EXPECT_FALSE(boost::filesystem::exists(cut));
  }
}

// Values that the replay would take below the smallest int or into an undefined conversion are
// refused before anything changes: a negative or mistyped range, a path with a NUL byte, a speed
// that is not a number or too slow for a period in microseconds. A negative speed keeps its
// arithmetic.
TEST(ArgumentFaults, FileCamRangeAndSpeedThatWouldOverflow) {
  Cameras cameras;
  OX::OXProxy& rec = *cameras.rec;
  for (const OXValue& range : {args({0, kIntMin}), args({-1, 2}), args({"0", 2})}) {
    const OX::OXError error = vitest::raised([&] {
      rec.genericCall("setVideo", args({cameras.video, range, true, 0, 0}));
    });
    EXPECT_EQ(error.getDescription(), "range " + range.toString() +
                                          " out of range: [first, last], two image indexes from "
                                          "0 to 2147483647, or null for the whole file");
  }
  rec.genericCall("setVideo", args({cameras.video + '\0' + "x", args({1, 1}), true, 0, 0}));
  EXPECT_EQ(vitest::FileHook::lastImage(*cameras.file), 2147483647);
  EXPECT_EQ(vitest::FileHook::filePath(*cameras.file), cameras.video);
  for (float speed : {std::nanf(""), 1e-20f, -1e-20f}) {
    const OX::OXError error =
        vitest::raised([&] { rec.genericCall("replaySpeed", args({speed})); });
    EXPECT_EQ(error.getDescription().rfind("imagesPerSecond ", 0), 0u) << error.getDescription();
  }
  rec.genericCall("replaySpeed", args({-4.0f}));
  EXPECT_EQ(vitest::FileHook::replayPeriod(*cameras.file), -250000);
}

// previousImage before any opening stepped back from the end of the whole file (the largest
// int), and the next start of the grabber counted one image past it: a signed overflow (found by
// the call fuzzer). That start fails, as for any image beyond the file; the next one replays.
TEST(ArgumentFaults, FileCamPreviousImageBeforeTheFirstOpeningThenStart) {
  Cameras cameras;
  cameras.rec->genericCall("previousImage", args({}));
  const OX::OXError error =
      vitest::raised([&] { cameras.rec->genericCall("startFrameGrabber", args({})); });
  EXPECT_EQ(error.getDescription(), "Can't open video file.");
  EXPECT_TRUE(cameras.rec->genericCall("startFrameGrabber", args({})).asBool());
}

}  // namespace
