// The simulator camera's raw acquisition and the raw access of the device, from the module entry
// to the lending of one converted frame to several subscribers.
#include <gtest/gtest.h>

#include <cstring>

#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
const char* const kSimCategory = "vision.oxvisionsimulatorcam";

// Two subscribers share the newest frame, converted once, at the camera's resolution.
TEST(SimulatorCamRaw, TwoSubscribersShareOneConversion) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  const std::string a = cam->subscribe("a", OX::kQVGA, OX::kYUV422, 5);
  const std::string b = cam->subscribe("b", OX::kQVGA, OX::kYUV422, 5);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 1)));
  clock.advance(1000);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 2)));
  OX::OXImage* first = cam->getDirectRawImageLocal(a);
  OX::OXImage* second = cam->getDirectRawImageLocal(b);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ((std::vector<int64_t>{first->fWidth, first->fHeight, first->fColorSpace,
                                  first->fTimeStamp, second->fTimeStamp}),
            (std::vector<int64_t>{320, 240, OX::kYUV422, clock.now(), clock.now()}));
  EXPECT_EQ(first->fData, second->fData);
  // The newest frame, converted as the resampling does it (whose bytes are checked elsewhere).
  OX::CameraDriverBuffer& store = Hook::store(*cam, 0);
  std::vector<unsigned char> yuv(320 * 240 * 2);
  ASSERT_TRUE(Hook::reSize(*cam, 0, *store.fInputBuffers[1]->fImage, yuv.data()));
  EXPECT_EQ(0, std::memcmp(first->fData, yuv.data(), yuv.size()));
  EXPECT_EQ(store.fLastDriverBuffer, 0);
  EXPECT_EQ(store.fDriverBuffers[0]->fReadLockCount, 2);
  EXPECT_EQ(store.fDriverBuffers[0]->fImage->fData, first->fData);

  EXPECT_TRUE(cam->releaseDirectRawImage(a));
  EXPECT_EQ(store.fDriverBuffers[0]->fReadLockCount, 1);
  EXPECT_TRUE(cam->releaseDirectRawImage(b));
  EXPECT_EQ(store.fDriverBuffers[0]->fReadLockCount, 0);
  EXPECT_TRUE(cam->releaseDirectRawImage(b));  // nothing held: true
  // A new frame goes to the lowest free entry again.
  clock.advance(1000);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 3)));
  ASSERT_NE(cam->getDirectRawImageLocal(a), nullptr);
  EXPECT_EQ(store.fLastDriverBuffer, 0);
  EXPECT_EQ(store.fDriverBuffers[0]->fImage->fTimeStamp, clock.now());
  EXPECT_TRUE(cam->releaseDirectRawImage(a));
  cam->unsubscribe(a);
  cam->unsubscribe(b);
}

// Every row of the failure table of one stream, and the holding rules around it.
TEST(SimulatorCamRaw, FailureTableOneStream) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  std::vector<std::string> ids;
  for (const char* name : {"s1", "s2", "s3", "s4", "s5"}) {
    ids.push_back(cam->subscribeCamera(name, 0, OX::kQVGA, OX::kYUV422, 5));
  }
  OX::CameraDriverBuffer& store = Hook::store(*cam, 0);
  vitest::LogCapture capture;

  // No frame within the second: about a second of sleeps, then null.
  const int64_t before = clock.now();
  EXPECT_EQ(Hook::getRaw(*cam, "s1"), nullptr);
  EXPECT_EQ(clock.now() - before, 2000 * 500);
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "OXVideoDevice: Could not get image for subscriber \"s1\". Check that "
                          "the simulator is running."));

  // Four distinct frames held by four subscribers, then a fifth: no raw entry is free.
  for (int i = 0; i < 4; ++i) {
    clock.advance(100);
    ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, i)));
    ASSERT_NE(Hook::getRaw(*cam, ids[i]), nullptr) << i;
    EXPECT_EQ(store.fLastDriverBuffer, i);
  }
  clock.advance(100);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 9)));
  EXPECT_EQ(Hook::getRaw(*cam, "s5"), nullptr);
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "xGetDirectRawImage(s5): no available raw buffer for writing image"));
  EXPECT_EQ(store.fLastDriverBuffer, 3);

  // A second get without a release refuses and leaves the held image alone.
  OX::OXImage* held = Hook::info(*cam, "s1").fRequestedProperties[0]->fLockedImage->fImage;
  unsigned char* heldData = held->fData;
  EXPECT_EQ(Hook::getRaw(*cam, "s1"), nullptr);
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "OXVideoDevice: Previous image for subscriber \"s1\" was  not released. "
                          "Returning null image."));
  EXPECT_EQ(held->fData, heldData);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(Hook::releaseRaw(*cam, ids[i], 0));
  for (const auto& frame : store.fDriverBuffers) EXPECT_EQ(frame->fReadLockCount, 0);

  // The conversion fails: the active camera asks for the pushed size while camera 0 differs.
  capture.clear();
  Hook::camera(*cam, 1).fResolution = OX::kQVGA;
  Hook::camera(*cam, 0).fResolution = OX::kVGA;
  Hook::activeCamera(*cam) = 1;
  EXPECT_EQ(Hook::getRaw(*cam, "s1"), nullptr);
  EXPECT_TRUE(capture.has(2, kSimCategory, "xGetDirectRawImage(s1): resizing error"));
  Hook::activeCamera(*cam) = 0;
  Hook::camera(*cam, 0).fResolution = OX::kQVGA;

  // Every output buffer busy: no lend, and the raw entry's count stays raised.
  for (OX::OXVisionBuffer* output : Hook::camera(*cam, 0).fRawBuffers) ++output->fReadLockCount;
  EXPECT_EQ(Hook::getRaw(*cam, "s1"), nullptr);
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "xGetDirectRawImage(s1): error trying to find available buffer."));
  EXPECT_EQ(store.fDriverBuffers[store.fLastDriverBuffer]->fReadLockCount, 1);
  for (OX::OXVisionBuffer* output : Hook::camera(*cam, 0).fRawBuffers) --output->fReadLockCount;

  // Release of an unknown subscriber.
  EXPECT_FALSE(Hook::releaseRaw(*cam, "nobody", 0));
  EXPECT_TRUE(capture.has(2, kSimCategory, "Module nobody unknown!"));
  for (const std::string& id : ids) cam->unsubscribe(id);
}

// The singular raw access refuses unknown names and the other family with their own texts. The
// plural form: refusal while holding, a camera without a frame ends the loop with what was
// gathered, and a used-up output list gives a null entry and goes on.
TEST(SimulatorCamRaw, RefusalsAndFailureTableSeveralStreams) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  const std::string m = cam->subscribeCameras("m", OX::OXValue(std::vector<int>{0, 1}),
                                              OX::OXValue(std::vector<int>{1, 1}),
                                              OX::OXValue(std::vector<int>{9, 9}), 5);
  vitest::LogCapture capture;
  OX::OXError error = vitest::raised([&] { cam->getDirectRawImageLocal("x"); });
  EXPECT_EQ(error.getFunctionName(), "getDirectRawImageLocal()");
  EXPECT_EQ(error.getDescription(), "getDirectRawImageLocal(x) : module x unknown!");
  error = vitest::raised([&] { cam->releaseDirectRawImage("x"); });
  EXPECT_EQ(error.getFunctionName(), "releaseDirectRawImage()");
  EXPECT_EQ(error.getDescription(), "releaseDirectRawImage(x) : module x unknown!");
  EXPECT_TRUE(
      capture.has(2, "vision.oxvisionvideoinput", "releaseDirectRawImage(x) : module x unknown!"));
  error = vitest::raised([&] { cam->getDirectRawImageLocal(m); });
  EXPECT_EQ(error.getDescription(),
            "Multi stream module can't call this method, use getDirectRawImagesLocal instead");
  error = vitest::raised([&] { cam->releaseDirectRawImage(m); });
  EXPECT_EQ(error.getDescription(),
            "Multi stream module can't call this method use releaseDirectRawImages instead");
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 1)));
  std::vector<OX::OXImage*> images = Hook::getRaws(*cam, m);
  ASSERT_EQ(images.size(), 1u);
  EXPECT_NE(images[0], nullptr);
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "OXVideoDevice: Could not get image for subscriber \"m\". Check that "
                          "the simulator is running."));
  EXPECT_TRUE(Hook::getRaws(*cam, m).empty());
  EXPECT_TRUE(capture.has(2, "vision.oxvisionatomcam", "Previous image 0 was not released"));
  EXPECT_TRUE(Hook::releaseRaw(*cam, m, 0));

  ASSERT_TRUE(cam->putImage(1, 320, 240, vitest::rgbFrame(OX::kQVGA, 2)));
  for (OX::OXVisionBuffer* output : Hook::camera(*cam, 0).fRawBuffers) ++output->fReadLockCount;
  images = Hook::getRaws(*cam, m);
  for (OX::OXVisionBuffer* output : Hook::camera(*cam, 0).fRawBuffers) --output->fReadLockCount;
  ASSERT_EQ(images.size(), 2u);
  EXPECT_EQ(images[0], nullptr);
  EXPECT_NE(images[1], nullptr);
  EXPECT_TRUE(capture.has(
      2, "vision.oxvisionsimulator",
      "OXVisionVideoInput::xGetDirectRawImages(m) : error trying to find available buffer."));
  EXPECT_TRUE(Hook::releaseRaw(*cam, m, 1));

  // Conversion error and missing raw entry end the loop with their own operation's name.
  capture.clear();
  clock.advance(10);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 4)));
  Hook::store(*cam, 0).fInputResolution = 7;
  EXPECT_TRUE(Hook::getRaws(*cam, m).empty());
  EXPECT_TRUE(capture.has(2, kSimCategory, "xGetDirectRawImages(m): resizing error"));
  Hook::store(*cam, 0).fInputResolution = OX::kQVGA;
  for (const auto& frame : Hook::store(*cam, 0).fDriverBuffers) ++frame->fReadLockCount;
  clock.advance(10);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 3)));
  EXPECT_TRUE(Hook::getRaws(*cam, m).empty());
  EXPECT_TRUE(capture.has(2, kSimCategory,
                          "xGetDirectRawImages(m): no available raw buffer for writing image"));
  for (const auto& frame : Hook::store(*cam, 0).fDriverBuffers) --frame->fReadLockCount;
  cam->unsubscribe(m);
}

}  // namespace
