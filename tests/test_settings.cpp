// Subscriber settings on the simulator camera: changes that reformat one buffer, the wait for a
// held image, when the camera follows, the plural forms' per-stream results and every refusal.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kios.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Cam = boost::shared_ptr<OX::OXVisionSimulatorCam>;
using Ints = std::vector<int>;
const char* const kCategory = "vision.oxvisionvideoinput";

OX::OXValue ints(const Ints& pValues) {
  return OX::OXValue(pValues);
}

// Holds an image of "m" on camera 0 (a fresh frame, one conversion).
void hold(const Cam& pCam, vitest::TestClock& pClock) {
  pClock.advance(40000);
  ASSERT_TRUE(pCam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 1)));
  ASSERT_NE(pCam->getImageLocal("m"), nullptr);
}

// Guards against a same-value change doing work (closing a recording, touching buffers) or
// going unlogged, and a real format change leaving its recording open.
TEST(Settings, ChangeToTheValueInForceAndRecordingClose) {
  vitest::TestClock clock;
  vitest::TempDir dir;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("m", 0, OX::kQVGA, OX::kRGB, 15);
  vitest::LogCapture capture;
  ASSERT_TRUE(cam->recordVideo("m", dir.file("r.oxv"), 10, 1));
  EXPECT_TRUE(cam->setResolution("m", OX::kQVGA));
  EXPECT_TRUE(capture.has(4, kCategory,
                          "OXVideoDevice: Changed resolution for subscriber \"m\" from 1 to 1"));
  EXPECT_TRUE(cam->setFrameRate("m", 15));
  EXPECT_TRUE(Hook::info(*cam, "m").fIsRecording);
  EXPECT_TRUE(cam->setColorSpace("m", OX::kBGR));
  EXPECT_TRUE(capture.has(4, kCategory,
                          "OXVideoDevice: Changed color space for subscriber \"m\" from 11 to 13"));
  EXPECT_FALSE(Hook::info(*cam, "m").fIsRecording);
  EXPECT_EQ(cam->getColorSpace("m"), OX::kBGR);
  // The subscriber's buffer was reformatted in place and made the oldest.
  const OX::OXVisionBuffer& buffer = *Hook::camera(*cam, 0).fImageBuffers.at(0);
  EXPECT_EQ(buffer.fImage->fColorSpace, OX::kBGR);
  EXPECT_EQ(buffer.fImage->fTimeStamp, 0);
  EXPECT_TRUE(cam->setResolution("m", OX::kQQVGA));
  EXPECT_EQ(buffer.fImage->fWidth, 160);
  EXPECT_EQ(cam->getResolution("m"), OX::kQQVGA);
}

// Guards against a change under a held image, a wait that sleeps with the lock held (the
// release could never come in), and a give-up that changes something anyway.
TEST(Settings, WaitForAHeldImage) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("m", 0, OX::kQVGA, OX::kRGB, 15);
  hold(cam, clock);
  int passes = 0;
  int releaseAt = 20000;  // -1: never
  bool released = false;
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) {
    clock.advance(pMicroseconds);
    if (++passes == releaseAt) {
      EXPECT_TRUE(cam->releaseImage("m"));
      released = true;
    }
  });
  EXPECT_TRUE(cam->setResolution("m", OX::kVGA));
  EXPECT_TRUE(released);
  EXPECT_EQ(cam->getResolution("m"), OX::kVGA);

  hold(cam, clock);
  releaseAt = -1;
  vitest::LogCapture capture;
  const std::vector<std::pair<std::string, std::function<bool()>>> changes = {
      {"setResolution", [&] { return cam->setResolution("m", OX::kQQVGA); }},
      {"setColorSpace", [&] { return cam->setColorSpace("m", OX::kYUV422); }},
      {"setFrameRate", [&] { return cam->setFrameRate("m", 30); }}};
  for (const auto& change : changes) {
    passes = 0;
    const int64_t start = clock.now();
    EXPECT_FALSE(change.second()) << change.first;
    EXPECT_EQ(passes, 100000) << change.first;
    EXPECT_EQ(clock.now() - start, 5000000) << change.first;
    const std::string text = ": " + change.first +
                             "(m), video module didn't release the image for 5s, so cancel the "
                             "modification!" +
                             (change.first == "setFrameRate" ? "\n" : "");
    EXPECT_TRUE(capture.has(2, kCategory, text)) << text;
  }
  EXPECT_EQ(cam->getResolution("m"), OX::kVGA);
  EXPECT_EQ(cam->getColorSpace("m"), OX::kRGB);
  EXPECT_EQ(cam->getFrameRate("m"), 15);
  EXPECT_TRUE(cam->releaseImage("m"));
}

// Guards against a lost change when no buffer of the old format is free, and the camera being
// raised by a change that reformatted nothing.
TEST(Settings, NoFreeBufferOfTheOldFormat) {
  vitest::TestClock clock;  // grabber restarts poll: no real sleep
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("m", 0, OX::kQVGA, OX::kRGB, 15);
  for (OX::OXVisionBuffer* buffer : Hook::camera(*cam, 0).fImageBuffers) ++buffer->fReadLockCount;
  vitest::LogCapture capture;
  EXPECT_TRUE(cam->setResolution("m", OX::kVGA));
  EXPECT_EQ(cam->getResolution("m"), OX::kVGA);
  EXPECT_EQ(Hook::camera(*cam, 0).fResolution, OX::kQVGA);  // the camera was not touched
  for (OX::OXVisionBuffer* buffer : Hook::camera(*cam, 0).fImageBuffers) --buffer->fReadLockCount;
}

// Guards against the camera following one subscriber instead of all: raised by a higher wish,
// kept by a lower wish of a subscriber below it, lowered (never under the floor) by the one
// that held it.
TEST(Settings, CameraFollowsTwoSubscribersThroughUpdateParam) {
  vitest::TestClock clock;  // grabber restarts poll: no real sleep
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("a", 0, OX::kQVGA, OX::kRGB, 10);
  cam->subscribeCamera("b", 0, OX::kQVGA, OX::kRGB, 10);
  vitest::LogCapture capture;
  const OX::RealCameraProperties& camera = Hook::camera(*cam, 0);
  EXPECT_EQ(camera.fFrameRate, 10);
  struct Step {
    const char* name;
    bool resolution;
    int value;
    int expected;
  };
  const Step steps[] = {{"a", true, OX::kVGA, OX::kVGA},
                        {"b", true, OX::kQQVGA, OX::kVGA},
                        {"a", true, OX::kQQVGA, OX::kQVGA},  // the device's default is the floor
                        {"a", false, 20, 20},
                        {"b", false, 15, 20},
                        {"a", false, 5, 15}};
  for (const Step& step : steps) {
    EXPECT_TRUE(step.resolution ? cam->setResolution(step.name, step.value)
                                : cam->setFrameRate(step.name, step.value));
    EXPECT_EQ(step.resolution ? camera.fResolution : camera.fFrameRate, step.expected)
        << step.name << " " << step.value;
  }
  EXPECT_EQ(cam->getFrameRate("a"), 5);
}

// Guards against a camera switch under a held image, and the switch not reaching either camera.
TEST(Settings, SetActiveCamera) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("m", 0, OX::kVGA, OX::kRGB, 15);
  vitest::LogCapture capture;
  hold(cam, clock);
  EXPECT_FALSE(cam->setActiveCamera("m", 1));
  EXPECT_TRUE(
      capture.has(2, kCategory, "setActiveCamera(): Buffer must release before changing camera"));
  EXPECT_EQ(cam->getActiveCamera("m"), 0);
  EXPECT_TRUE(cam->releaseImage("m"));
  EXPECT_EQ(Hook::camera(*cam, 1).fResolution, OX::kQVGA);
  EXPECT_TRUE(cam->setActiveCamera("m", 1));
  EXPECT_EQ(cam->getActiveCamera("m"), 1);
  EXPECT_EQ(Hook::camera(*cam, 0).fResolution, OX::kVGA);  // the subscriber still asks it
  EXPECT_EQ(Hook::camera(*cam, 1).fResolution, OX::kVGA);  // the new camera follows
}

// Guards against a plural setter stopping at the first refusal, storing a refused value, or
// indexing its result by camera; and the getters reading by position, as clients know them.
TEST(Settings, PluralSettersPerStream) {
  vitest::TestClock clock;  // grabber restarts poll: no real sleep
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCameras("many", ints({0, 1}), ints({OX::kQVGA, OX::kQVGA}),
                        ints({OX::kRGB, OX::kRGB}), 15);
  cam->subscribeCamera("v", 1, OX::kVGA, OX::kRGB, 15);  // a free VGA buffer on camera 1
  vitest::LogCapture capture;
  EXPECT_EQ(cam->setResolutions("many", ints({99, OX::kVGA})), ints({0, 1}));
  EXPECT_EQ(cam->getResolutions("many"), ints({OX::kQVGA, OX::kVGA}));
  // No free buffer of the new size on camera 0: refused, unlike setResolution.
  EXPECT_EQ(cam->setResolutions("many", ints({OX::kQQVGA, OX::kVGA})), ints({0, 1}));
  EXPECT_EQ(cam->getResolutions("many"), ints({OX::kQVGA, OX::kVGA}));
  EXPECT_EQ(cam->setColorSpaces("many", ints({OX::kYUV422, 99})), ints({1, 0}));
  EXPECT_EQ(cam->getColorSpaces("many"), ints({OX::kYUV422, OX::kRGB}));
  EXPECT_TRUE(cam->setFrameRate("many", 20));  // both families
  EXPECT_EQ(cam->getFrameRate("many"), 20);

  EXPECT_EQ(cam->setActiveCameras("many", ints({1, 0})), ints({1, 1}));
  EXPECT_EQ(cam->getActiveCameras("many"), ints({1, 0}));
  EXPECT_EQ(cam->getResolutions("many"), ints({OX::kQVGA, OX::kVGA}));  // by position
  EXPECT_EQ(cam->setResolutions("many", ints({OX::kVGA, OX::kQVGA})), ints({1, 1}));
  EXPECT_EQ(cam->getResolutions("many"), ints({OX::kQVGA, OX::kVGA}));
}

// Guards against texts that clients match changing, the odd ones included, and against an index
// checked only after the subscriber look-up.
TEST(Settings, FailureTexts) {
  vitest::TestClock clock;  // grabber restarts poll: no real sleep
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("one", 0, OX::kQVGA, OX::kRGB, 15);
  cam->subscribeCameras("many", ints({0, 1}), ints({OX::kQVGA, OX::kQVGA}),
                        ints({OX::kRGB, OX::kRGB}), 15);
  using Op = std::function<void(const std::string&, const Ints&)>;
  const std::map<std::string, Op> ops = {
      {"setResolution", [&](auto& n, auto& v) { cam->setResolution(n, v[0]); }},
      {"setColorSpace", [&](auto& n, auto& v) { cam->setColorSpace(n, v[0]); }},
      {"setFrameRate", [&](auto& n, auto& v) { cam->setFrameRate(n, v[0]); }},
      {"setActiveCamera", [&](auto& n, auto& v) { cam->setActiveCamera(n, v[0]); }},
      {"setResolutions", [&](auto& n, auto& v) { cam->setResolutions(n, v); }},
      {"setColorSpaces", [&](auto& n, auto& v) { cam->setColorSpaces(n, v); }},
      {"setActiveCameras", [&](auto& n, auto& v) { cam->setActiveCameras(n, v); }},
      {"getResolution", [&](auto& n, auto&) { cam->getResolution(n); }},
      {"getColorSpace", [&](auto& n, auto&) { cam->getColorSpace(n); }},
      {"getFrameRate", [&](auto& n, auto&) { cam->getFrameRate(n); }},
      {"getActiveCamera", [&](auto& n, auto&) { cam->getActiveCamera(n); }},
      {"getResolutions", [&](auto& n, auto&) { cam->getResolutions(n); }},
      {"getColorSpaces", [&](auto& n, auto&) { cam->getColorSpaces(n); }},
      {"getActiveCameras", [&](auto& n, auto&) { cam->getActiveCameras(n); }},
  };
  const std::string multi = "Multi stream module can't call this method, ";
  const std::string mono = "Mono stream module can't call this method, ";
  struct Refusal {
    std::string method;
    std::string name;
    Ints values;
    std::string text;
  };
  const Refusal refusals[] = {
      {"setResolution", "x", {1}, "setResolution(x) : module x unknown!"},
      {"setColorSpace", "x", {1}, "setColorSpace(x) : module x unknown!"},
      {"setFrameRate", "x", {1}, "setFrameRate(x) : module x unknown!"},
      {"setActiveCamera", "x", {0}, "setActiveCamera(x) : module x unknown!"},
      {"setResolutions", "x", {}, "setResolutions(x, ...) : module x unknown!"},
      {"setColorSpaces", "x", {}, "setColorSpaces(x, ...) : module x unknown!"},
      {"setActiveCameras", "x", {}, "setActiveCameras(x, ...) : module x unknown!"},
      {"getResolution", "x", {}, "GetActiveCamera(x) : module x unknown!"},
      {"getColorSpace", "x", {}, "GetColorSpace(x) : module x unknown!"},
      {"getFrameRate", "x", {}, "GetFrameRate(x) : module x unknown!"},
      {"getActiveCamera", "x", {}, "getActiveCamera(x) : module x unknown!"},
      {"getResolutions", "x", {}, "getResolutions(x, ...) : module x unknown!"},
      {"getColorSpaces", "x", {}, "getColorSpaces(x, ...) : module x unknown!"},
      {"getActiveCameras", "x", {}, "getActiveCameras(x) : module x unknow!"},
      {"setResolution", "many", {1}, multi + "use setResolutions instead"},
      {"setColorSpace", "many", {1}, multi + "use setColorSpaces instead"},
      {"setActiveCamera",
       "many",
       {0},
       "Multi stream module can't call this method use setActiveCameras instead"},
      {"getResolution", "many", {}, multi + "use getResolutions instead"},
      {"getColorSpace", "many", {}, multi + "use getColorSpaces instead"},
      {"getActiveCamera", "many", {}, multi + "use getActiveCameras instead"},
      {"setResolutions", "one", {1}, mono + "use setResolution instead"},
      {"setColorSpaces", "one", {1}, mono + "use setColorSpace instead"},
      {"setActiveCameras", "one", {0}, mono + "use setActiveCamera instead"},
      {"getResolutions", "one", {}, mono + "use getResolutions instead"},
      {"getColorSpaces", "one", {}, mono + "use getColorSpaces instead"},
      {"getActiveCameras", "one", {}, mono + "use getActiveCamera instead"},
      {"setResolution", "one", {9}, ": setResolution(): invalid resolution"},
      {"setColorSpace", "one", {99}, ": setColorSpace(): invalid color space"},
      {"setFrameRate", "one", {31}, "setFrameRate(: setFrameRate(): invalid frame rate"},
      {"setResolutions",
       "many",
       {1},
       "Could not set resolutions to module: many\nInput parameters have the wrong size: 1 "
       "expected size: 2"},
      {"setColorSpaces",
       "many",
       {1, 1, 1},
       "Could not set color spaces to module: many\nInput parameters have the wrong size: 3 "
       "expected size: 2"},
      // Bad indexes are refused before the subscriber is looked up.
      {"setActiveCamera", "nobody", {2}, "setActiveCamera(nobody) : invalid Camera index"},
      {"setActiveCamera", "nobody", {-1}, "setActiveCamera(nobody) : invalid Camera index"},
      {"setActiveCameras",
       "nobody",
       {0, 0},
       "setActiveCameras(nobody, ...) : Invalid input parameters, using several time the same "
       "camera is forbidden"},
      {"setActiveCameras", "many", {0, 2}, "setActiveCameras(many, ...) : invalid Camera index"},
  };
  vitest::LogCapture capture;
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.method + "(" + refusal.name + "): " + refusal.text);
    capture.clear();
    const OX::OXError error =
        vitest::raised([&] { ops.at(refusal.method)(refusal.name, refusal.values); });
    EXPECT_EQ(error.getDescription(), refusal.text);
    EXPECT_EQ(error.getFunctionName(), refusal.method + "()");
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, kCategory, refusal.text));
  }
  EXPECT_EQ(cam->getResolution("one"), OX::kQVGA);
  EXPECT_EQ(cam->getFrameRate("one"), 15);
  EXPECT_EQ(cam->getActiveCameras("many"), ints({0, 1}));
}

}  // namespace
