// Subscriber settings on the simulator camera: changes that reformat one buffer, the wait for a
// held image, when the camera follows, the plural forms' per-stream results and every refusal.
#include <gtest/gtest.h>

#include <functional>
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
void hold(const Cam& pCam, vitest::TestClock& pClock, const std::string& pName = "m") {
  pClock.advance(40000);
  ASSERT_TRUE(pCam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 1)));
  ASSERT_NE(pCam->getImageLocal(pName), nullptr);
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
  EXPECT_FALSE(Hook::info(*cam, "m").fIsRecording);  // a format change ends the recording
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
  // The subscriber gives its image back during the 20000th pause of the wait.
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
  const int64_t start = clock.now();
  vitest::LogCapture capture;
  for (const auto& change :
       std::vector<std::function<bool()>>{[&] { return cam->setResolution("m", OX::kQQVGA); },
                                          [&] { return cam->setColorSpace("m", OX::kYUV422); },
                                          [&] { return cam->setFrameRate("m", 30); }}) {
    passes = 0;
    EXPECT_FALSE(change());
    EXPECT_EQ(passes, 100000);
  }
  EXPECT_EQ(clock.now() - start, 3 * 5000000);
  EXPECT_TRUE(
      capture.has(2, kCategory,
                  ": setResolution(m), video module didn't release the image for 5s, so cancel the "
                  "modification!"));
  EXPECT_TRUE(
      capture.has(2, kCategory,
                  ": setColorSpace(m), video module didn't release the image for 5s, so cancel the "
                  "modification!"));
  EXPECT_TRUE(
      capture.has(2, kCategory,
                  ": setFrameRate(m), video module didn't release the image for 5s, so cancel the "
                  "modification!\n"));
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
  EXPECT_TRUE(cam->setResolution("a", OX::kVGA));
  EXPECT_EQ(camera.fResolution, OX::kVGA);
  EXPECT_TRUE(cam->setResolution("b", OX::kQQVGA));
  EXPECT_EQ(camera.fResolution, OX::kVGA);
  EXPECT_TRUE(cam->setResolution("a", OX::kQQVGA));
  EXPECT_EQ(camera.fResolution, OX::kQVGA);  // the device's default is the floor

  EXPECT_TRUE(cam->setFrameRate("a", 20));
  EXPECT_EQ(camera.fFrameRate, 20);
  EXPECT_TRUE(cam->setFrameRate("b", 15));
  EXPECT_EQ(camera.fFrameRate, 20);
  EXPECT_TRUE(cam->setFrameRate("a", 5));
  EXPECT_EQ(camera.fFrameRate, 15);
  EXPECT_EQ(cam->getFrameRate("a"), 5);
}

// Guards against the index being checked after the look-up, a camera switch under a held
// image, and the switch not reaching either camera.
TEST(Settings, SetActiveCamera) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("m", 0, OX::kVGA, OX::kRGB, 15);
  vitest::LogCapture capture;
  for (int index : {2, -1}) {
    const OX::OXError error = vitest::raised([&] { cam->setActiveCamera("nobody", index); });
    EXPECT_EQ(error.getDescription(), "setActiveCamera(nobody) : invalid Camera index");
    EXPECT_EQ(error.getFunctionName(), "setActiveCamera()");
  }
  hold(cam, clock);
  EXPECT_FALSE(cam->setActiveCamera("m", 1));
  EXPECT_TRUE(
      capture.has(2, kCategory, "setActiveCamera(): Buffer must release before changing camera"));
  EXPECT_EQ(cam->getActiveCamera("m"), 0);
  EXPECT_TRUE(cam->releaseImage("m"));
  EXPECT_EQ(Hook::camera(*cam, 0).fResolution, OX::kVGA);
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
  EXPECT_EQ(vitest::raised([&] {
              cam->setActiveCameras("nobody", ints({0, 0}));
            }).getDescription(),
            "setActiveCameras(nobody, ...) : Invalid input parameters, using several time the "
            "same camera is forbidden");
  EXPECT_EQ(vitest::raised([&] {
              cam->setActiveCameras("many", ints({0, 2}));
            }).getDescription(),
            "setActiveCameras(many, ...) : invalid Camera index");
}

struct Refusal {
  std::function<void()> call;
  std::string text;
  const char* method;
};

// Guards against texts that clients match changing, the odd ones included.
TEST(Settings, FailureTexts) {
  vitest::TestClock clock;  // grabber restarts poll: no real sleep
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("one", 0, OX::kQVGA, OX::kRGB, 15);
  cam->subscribeCameras("many", ints({0, 1}), ints({OX::kQVGA, OX::kQVGA}),
                        ints({OX::kRGB, OX::kRGB}), 15);
  const std::string multi = "Multi stream module can't call this method, ";
  const std::string mono = "Mono stream module can't call this method, ";
  const Refusal refusals[] = {
      {[&] { cam->setResolution("x", 1); }, "setResolution(x) : module x unknown!",
       "setResolution()"},
      {[&] { cam->setColorSpace("x", 1); }, "setColorSpace(x) : module x unknown!",
       "setColorSpace()"},
      {[&] { cam->setFrameRate("x", 1); }, "setFrameRate(x) : module x unknown!", "setFrameRate()"},
      {[&] { cam->setActiveCamera("x", 0); }, "setActiveCamera(x) : module x unknown!",
       "setActiveCamera()"},
      {[&] { cam->setResolutions("x", ints({})); }, "setResolutions(x, ...) : module x unknown!",
       "setResolutions()"},
      {[&] { cam->setColorSpaces("x", ints({})); }, "setColorSpaces(x, ...) : module x unknown!",
       "setColorSpaces()"},
      {[&] { cam->setActiveCameras("x", ints({})); },
       "setActiveCameras(x, ...) : module x unknown!", "setActiveCameras()"},
      {[&] { cam->getResolution("x"); }, "GetActiveCamera(x) : module x unknown!",
       "getResolution()"},
      {[&] { cam->getColorSpace("x"); }, "GetColorSpace(x) : module x unknown!", "getColorSpace()"},
      {[&] { cam->getFrameRate("x"); }, "GetFrameRate(x) : module x unknown!", "getFrameRate()"},
      {[&] { cam->getActiveCamera("x"); }, "getActiveCamera(x) : module x unknown!",
       "getActiveCamera()"},
      {[&] { cam->getResolutions("x"); }, "getResolutions(x, ...) : module x unknown!",
       "getResolutions()"},
      {[&] { cam->getColorSpaces("x"); }, "getColorSpaces(x, ...) : module x unknown!",
       "getColorSpaces()"},
      {[&] { cam->getActiveCameras("x"); }, "getActiveCameras(x) : module x unknow!",
       "getActiveCameras()"},
      {[&] { cam->setResolution("many", 1); }, multi + "use setResolutions instead",
       "setResolution()"},
      {[&] { cam->setColorSpace("many", 1); }, multi + "use setColorSpaces instead",
       "setColorSpace()"},
      {[&] { cam->setActiveCamera("many", 0); },
       "Multi stream module can't call this method use setActiveCameras instead",
       "setActiveCamera()"},
      {[&] { cam->getResolution("many"); }, multi + "use getResolutions instead",
       "getResolution()"},
      {[&] { cam->getColorSpace("many"); }, multi + "use getColorSpaces instead",
       "getColorSpace()"},
      {[&] { cam->getActiveCamera("many"); }, multi + "use getActiveCameras instead",
       "getActiveCamera()"},
      {[&] { cam->setResolutions("one", ints({1})); }, mono + "use setResolution instead",
       "setResolutions()"},
      {[&] { cam->setColorSpaces("one", ints({1})); }, mono + "use setColorSpace instead",
       "setColorSpaces()"},
      {[&] { cam->setActiveCameras("one", ints({0})); }, mono + "use setActiveCamera instead",
       "setActiveCameras()"},
      {[&] { cam->getResolutions("one"); }, mono + "use getResolutions instead",
       "getResolutions()"},
      {[&] { cam->getColorSpaces("one"); }, mono + "use getColorSpaces instead",
       "getColorSpaces()"},
      {[&] { cam->getActiveCameras("one"); }, mono + "use getActiveCamera instead",
       "getActiveCameras()"},
      {[&] { cam->setResolution("one", 9); }, ": setResolution(): invalid resolution",
       "setResolution()"},
      {[&] { cam->setColorSpace("one", 99); }, ": setColorSpace(): invalid color space",
       "setColorSpace()"},
      {[&] { cam->setFrameRate("one", 31); }, "setFrameRate(: setFrameRate(): invalid frame rate",
       "setFrameRate()"},
      {[&] { cam->setResolutions("many", ints({1})); },
       "Could not set resolutions to module: many\nInput parameters have the wrong size: 1 "
       "expected size: 2",
       "setResolutions()"},
      {[&] {
         cam->setColorSpaces("many", ints({1, 1, 1}));
       },
       "Could not set color spaces to module: many\nInput parameters have the wrong size: 3 "
       "expected size: 2",
       "setColorSpaces()"},
  };
  vitest::LogCapture capture;
  for (const Refusal& refusal : refusals) {
    capture.clear();
    const OX::OXError error = vitest::raised(refusal.call);
    EXPECT_EQ(error.getDescription(), refusal.text);
    EXPECT_EQ(error.getFunctionName(), refusal.method) << refusal.text;
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, kCategory, refusal.text)) << refusal.text;
  }
  EXPECT_EQ(cam->getResolution("one"), OX::kQVGA);
  EXPECT_EQ(cam->getFrameRate("one"), 15);
}

}  // namespace
