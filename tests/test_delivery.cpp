// Image delivery through the device's published operations, on the simulator camera: sharing of
// converted images, the freshness rules, holds and releases, the joined reply of several streams.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "kios.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Cam = boost::shared_ptr<OX::OXVisionSimulatorCam>;
const char* const kCategory = "vision.oxvisionvideoinput";
constexpr int64_t kSecond = 1000000;

// Moves the clock forward to the next instant that lies pMicroseconds into a second.
void moveTo(vitest::TestClock& pClock, int64_t pMicroseconds) {
  pClock.advance(((pMicroseconds - pClock.now() % kSecond) + kSecond) % kSecond);
}

// Pushes a fresh QVGA frame into a camera, one microsecond or more after the previous one.
void push(const Cam& pCam, int pCamera, uint32_t pSeed) {
  ASSERT_TRUE(pCam->putImage(pCamera, 320, 240, vitest::rgbFrame(OX::kQVGA, pSeed)));
}

OX::OXVisionBuffer*& held(const Cam& pCam, const std::string& pName, int pCamera) {
  return Hook::info(*pCam, pName).fRequestedProperties[pCamera]->fLockedImage;
}

// Gets and releases at once; the time stamp of what came.
int64_t stampOf(const Cam& pCam, const std::string& pName) {
  OX::OXImage* image = pCam->getImageLocal(pName);
  EXPECT_NE(image, nullptr);
  const int64_t stamp = image != nullptr ? image->fTimeStamp : -1;
  EXPECT_TRUE(pCam->releaseImage(pName));
  return stamp;
}

// Guards against a conversion per subscriber: N subscribers of one format within one period
// share one buffer and cost one conversion per frame.
TEST(DeliveryOneStream, SubscribersOfOneFormatShareOneConversion) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  const char* names[] = {"a", "b", "c", "d"};
  for (const char* name : names) cam->subscribeCamera(name, 0, OX::kQVGA, OX::kRGB, 30);
  vitest::LogCapture capture;
  clock.advance(1000);
  push(cam, 0, 1);
  const int before = cam->conversionCountForTesting();
  OX::OXImage* first = cam->getImageLocal("a");
  OX::OXImage* second = cam->getImageLocal("b");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(held(cam, "a", 0), held(cam, "b", 0));
  EXPECT_EQ(held(cam, "a", 0)->fReadLockCount, 2);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 1);
  EXPECT_EQ(first->fColorSpace, OX::kRGB);
  EXPECT_EQ(first->fTimeStamp, clock.now());
  OX::OXVisionBuffer* buffer = held(cam, "a", 0);
  EXPECT_TRUE(cam->releaseImage("a"));
  EXPECT_EQ(buffer->fReadLockCount, 1);
  EXPECT_EQ(held(cam, "a", 0), nullptr);
  EXPECT_TRUE(cam->releaseImage("b"));
  EXPECT_EQ(buffer->fReadLockCount, 0);
  EXPECT_TRUE(cam->releaseImage("b"));  // nothing held: still true, nothing changed
  EXPECT_EQ(buffer->fReadLockCount, 0);

  for (int frame = 0; frame < 3; ++frame) {
    clock.advance(40000);  // more than one period of 30 fps
    push(cam, 0, 10 + frame);
    for (const char* name : names) EXPECT_EQ(stampOf(cam, name), clock.now()) << name;
  }
  EXPECT_EQ(cam->conversionCountForTesting(), before + 4);
}

// Guards against a new frame for every request: within a period the same image and time stamp
// come back, and the converted image counts by its whole time (across a second), the raw image
// only within its own second.
TEST(DeliveryOneStream, FreshnessAcrossTheSecondForConvertedAndRawImages) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("conv", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("other", 0, OX::kQVGA, OX::kBGR, 30);
  cam->subscribeCamera("raw", 0, OX::kQVGA, OX::kYUV422, 30);
  vitest::LogCapture capture;

  // Converted: 999 ms into second s, asked again 1 ms into s + 1: reused, no conversion.
  moveTo(clock, 999000);
  push(cam, 0, 1);
  const int64_t old = clock.now();
  EXPECT_EQ(stampOf(cam, "conv"), old);
  clock.advance(2000);
  push(cam, 0, 2);
  const int conversions = cam->conversionCountForTesting();
  EXPECT_EQ(stampOf(cam, "conv"), old);
  EXPECT_EQ(cam->conversionCountForTesting(), conversions);

  // Raw: held by another subscriber from 999 ms into s, asked 1 ms into s + 1: not reused.
  moveTo(clock, 999000);
  push(cam, 0, 3);
  const int64_t rawStamp = clock.now();
  ASSERT_NE(cam->getDirectRawImageLocal("raw"), nullptr);
  clock.advance(2000);
  push(cam, 0, 4);
  EXPECT_EQ(stampOf(cam, "other"), clock.now());
  EXPECT_NE(clock.now(), rawStamp);
  EXPECT_TRUE(cam->releaseDirectRawImage("raw"));

  // Raw within one second: reused and converted, 2 ms old.
  moveTo(clock, 500000);
  push(cam, 0, 5);
  const int64_t sameSecond = clock.now();
  ASSERT_NE(cam->getDirectRawImageLocal("raw"), nullptr);
  clock.advance(2000);
  push(cam, 0, 6);
  const int before = cam->conversionCountForTesting();
  EXPECT_EQ(stampOf(cam, "other"), sameSecond);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 1);
  EXPECT_TRUE(cam->releaseDirectRawImage("raw"));
}

// Guards against rounding the period: 30 fps is 33 ms and 7 fps is 142 ms, to the millisecond.
TEST(DeliveryOneStream, PeriodIsTruncatedToWholeMilliseconds) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("p30", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("p7", 0, OX::kQVGA, OX::kYUV, 7);
  vitest::LogCapture capture;
  const struct {
    const char* fName;
    int64_t fPeriod;
  } cases[] = {{"p30", 33}, {"p7", 142}};
  uint32_t seed = 1;
  for (const auto& item : cases) {
    moveTo(clock, 100000);
    push(cam, 0, seed++);
    const int64_t first = clock.now();
    EXPECT_EQ(stampOf(cam, item.fName), first);
    clock.advance(item.fPeriod * 1000);
    push(cam, 0, seed++);
    EXPECT_EQ(stampOf(cam, item.fName), first) << item.fName;
    clock.advance(1000);
    push(cam, 0, seed++);
    EXPECT_EQ(stampOf(cam, item.fName), clock.now()) << item.fName;
  }
}

// Guards against a second hold on one buffer or a lost first hold, and against a remote reply
// that leaves a hold behind; without a frame, no error and no hold.
TEST(DeliveryOneStream, HoldsAndRemoteReplies) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("a", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("idle", 1, OX::kQVGA, OX::kRGB, 30);
  vitest::LogCapture capture;
  clock.advance(1000);
  push(cam, 0, 1);
  OX::OXImage* image = cam->getImageLocal("a");
  ASSERT_NE(image, nullptr);
  OX::OXVisionBuffer* buffer = held(cam, "a", 0);
  const OX::OXError error = vitest::raised([&] { cam->getImageLocal("a"); });
  EXPECT_EQ(error.getFunctionName(), "xGetImage");
  EXPECT_EQ(error.getDescription(), "a previous image for camera 0 was not released !");
  EXPECT_TRUE(capture.has(2, kCategory, "a previous image for camera 0 was not released !"));
  EXPECT_EQ(held(cam, "a", 0), buffer);
  EXPECT_EQ(buffer->fReadLockCount, 1);
  EXPECT_TRUE(cam->releaseImage("a"));

  for (int call = 0; call < 2; ++call) {
    clock.advance(40000);
    push(cam, 0, 2 + call);
    const OX::OXValue reply = cam->getImageRemote("a");
    ASSERT_TRUE(reply.isArray());
    ASSERT_EQ(reply.getSize(), 12);
    EXPECT_EQ(reply[0].asInt(), 320);
    EXPECT_EQ(reply[1].asInt(), 240);
    EXPECT_EQ(reply[6].getSize(), 320 * 240 * 3);
    EXPECT_EQ(held(cam, "a", 0), nullptr);
  }
  for (OX::OXVisionBuffer* each : Hook::camera(*cam, 0).fImageBuffers) {
    EXPECT_EQ(each->fReadLockCount, 0);
  }

  capture.clear();
  EXPECT_EQ(cam->getImageLocal("idle"), nullptr);
  EXPECT_FALSE(cam->getImageRemote("idle").isValid());
  EXPECT_TRUE(capture.has(
      4, kCategory, "xGetImage(idle): Failed to get a new raw image for subscriber \"idle\""));
  EXPECT_EQ(held(cam, "idle", 1), nullptr);
}

// Guards against serving a camera other than the device's for a subscriber that follows it,
// releasing only one camera on -1, and indexing past the last camera.
TEST(DeliveryOneStream, FollowingTheDeviceCamera) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribe("f", OX::kQVGA, OX::kRGB, 30);
  ASSERT_EQ(Hook::info(*cam, "f").fActiveCamera, -1);
  vitest::LogCapture capture;
  ASSERT_TRUE(cam->startFrameGrabber(1));  // an opening forgets the frame pushed before it
  clock.advance(1000);
  push(cam, 0, 1);
  push(cam, 1, 2);
  Hook::activeCamera(*cam) = 1;
  OX::OXImage* one = cam->getImageLocal("f");
  ASSERT_NE(one, nullptr);
  ASSERT_NE(held(cam, "f", 1), nullptr);
  EXPECT_EQ(held(cam, "f", 1)->fImage, one);
  EXPECT_EQ(held(cam, "f", 0), nullptr);
  Hook::activeCamera(*cam) = 0;
  ASSERT_NE(cam->getImageLocal("f"), nullptr);  // camera 0 holds nothing yet
  OX::OXVisionBuffer* zero = held(cam, "f", 0);
  OX::OXVisionBuffer* first = held(cam, "f", 1);
  ASSERT_NE(zero, nullptr);
  ASSERT_NE(first, nullptr);  // the raw release of camera 0's request left camera 1's hold alone
  EXPECT_EQ(first->fImage, one);
  EXPECT_EQ(first->fReadLockCount, 1);
  EXPECT_TRUE(cam->releaseImage("f"));
  EXPECT_EQ(held(cam, "f", 0), nullptr);
  EXPECT_EQ(held(cam, "f", 1), nullptr);
  EXPECT_EQ(zero->fReadLockCount, 0);
  EXPECT_EQ(first->fReadLockCount, 0);

  Hook::activeCamera(*cam) = 2;  // one past the last camera, as the selection allows
  const OX::OXError error = vitest::raised([&] { cam->getImageLocal("f"); });
  EXPECT_EQ(error.getDescription(), "f : invalid camera index 2");
  EXPECT_TRUE(capture.has(2, kCategory, "f : invalid camera index 2"));
  Hook::activeCamera(*cam) = 0;
}

// Guards against a silent switch of camera during the wait for a frame: the change is recorded
// and the image stays on the camera that was asked, with the raw frame given back.
TEST(DeliveryOneStream, CameraChangeDuringTheWaitIsRecorded) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribe("f", OX::kQVGA, OX::kRGB, 30);
  ASSERT_TRUE(cam->startFrameGrabber(1));
  vitest::LogCapture capture;
  bool switched = false;
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) {
    clock.advance(pMicroseconds);
    if (switched) return;
    switched = true;  // the device moves on while the frame for camera 0 arrives
    Hook::activeCamera(*cam) = 1;
    push(cam, 0, 1);
  });
  OX::OXImage* image = cam->getImageLocal("f");
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) { clock.advance(pMicroseconds); });
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(capture.has(2, kCategory, "xGetImage(f): Module active camera change!"));
  ASSERT_NE(held(cam, "f", 0), nullptr);
  EXPECT_EQ(held(cam, "f", 0)->fImage, image);
  EXPECT_EQ(held(cam, "f", 1), nullptr);
  for (OX::OXVisionBuffer* output : Hook::camera(*cam, 0).fRawBuffers) {
    EXPECT_EQ(output->fReadLockCount, 0);
  }
  EXPECT_TRUE(cam->releaseImage("f"));
  EXPECT_EQ(held(cam, "f", 0), nullptr);
  Hook::activeCamera(*cam) = 0;
}

// Guards against the texts of the refusals drifting, neighbouring names included.
TEST(DeliveryRefusals, EveryOperationRefusesUnknownNamesAndTheOtherFamily) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("one", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCameras("many", OX::OXValue(std::vector<int>{0, 1}),
                        OX::OXValue(std::vector<int>{1, 1}), OX::OXValue(std::vector<int>{9, 9}),
                        30);
  vitest::LogCapture capture;
  const struct {
    std::function<void(const std::string&)> fCall;
    const char* fName;
    const char* fMethod;
    const char* fUnknown;
    const char* fWrongFamily;
  } rows[] = {
      {[&](const std::string& p) { cam->getImageLocal(p); }, "many", "getImageLocal()",
       "getImageLocal(x) : module x unknown!",
       "Multi stream module can't call this method, use getImagesLocal instead"},
      {[&](const std::string& p) { cam->getImageRemote(p); }, "many", "getImageRemote()",
       "getDirectRawImageRemote(x) : module x unknown!",
       "Multi stream module can't call this method, use getDirectRawImagesRemote instead"},
      {[&](const std::string& p) { cam->releaseImage(p); }, "many", "releaseImage()",
       "releaseImage(x) : module x unknown!",
       "Multi stream module can't call this method, use releaseDirectRawImages instead"},
      {[&](const std::string& p) { cam->getImagesLocal(p); }, "one", "getImagesLocal()",
       "getDirectRawImagesLocal(x) : module x unknown!",
       "Mono stream module can't call this method, use getImageLocal instead"},
      {[&](const std::string& p) { cam->getImagesRemote(p); }, "one", "getImagesRemote()",
       "getImagesRemote(x) : module x unknown!",
       "Mono stream module can't call this method, use getImageRemote instead"},
      {[&](const std::string& p) { cam->releaseImages(p); }, "one", "releaseImages()",
       ": Could not release image for unknown subscriber \"x\"",
       "Mono stream module can't call this method, use releaseImage instead"},
      {[&](const std::string& p) { cam->getDirectRawImageRemote(p); }, "many",
       "getDirectRawImageRemote()", "getDirectRawImageRemote(x) : module x unknown!",
       "Multi stream module can't call this method, use getDirectRawImagesRemote instead"},
      {[&](const std::string& p) { cam->getDirectRawImagesLocal(p); }, "one",
       "getDirectRawImagesLocal()", "getDirectRawImagesLocal(x) : module x unknown!",
       "Mono stream module can't call this method, use getDirectRawImageLocal instead\n"},
      {[&](const std::string& p) { cam->getDirectRawImagesRemote(p); }, "one",
       "getDirectRawImagesRemote()", "getDirectRawImagesLocal(x) : module x unknown!",
       "Mono stream module can't call this method, use getDirectRawImageRemote instead"},
      {[&](const std::string& p) { cam->releaseDirectRawImages(p); }, "one",
       "releaseDirectRawImages()", "releaseDirectRawImages(x) : module x unknown!",
       "Mono stream module can't call this method, use releaseDirectRawImage instead"},
  };
  for (const auto& row : rows) {
    capture.clear();
    OX::OXError error = vitest::raised([&] { row.fCall("x"); });
    EXPECT_EQ(error.getFunctionName(), row.fMethod);
    EXPECT_EQ(error.getDescription(), row.fUnknown);
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, kCategory, row.fUnknown)) << row.fMethod;
    error = vitest::raised([&] { row.fCall(row.fName); });
    EXPECT_EQ(error.getFunctionName(), row.fMethod);
    EXPECT_EQ(error.getDescription(), row.fWrongFamily);
    EXPECT_TRUE(capture.has(2, kCategory, row.fWrongFamily)) << row.fMethod;
  }
}

// Guards against a reply that mixes sizes up, a held image that raises or converts again, a
// hold left by a remote reply, and an empty camera list that passes silently.
TEST(DeliverySeveralStreams, JoinedReplyHoldsAndEmptyList) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCameras("m", OX::OXValue(std::vector<int>{0, 1}),
                        OX::OXValue(std::vector<int>{OX::kQVGA, OX::kQQVGA}),
                        OX::OXValue(std::vector<int>{OX::kRGB, OX::kYUV422}), 30);
  vitest::LogCapture capture;
  clock.advance(1000);
  push(cam, 0, 1);
  push(cam, 1, 2);
  const int sizes[] = {320 * 240 * 3, 160 * 120 * 2};
  OX::OXValue reply;
  for (int call = 0; call < 2; ++call) {
    reply = cam->getImagesRemote("m");
    ASSERT_TRUE(reply.isArray());
    ASSERT_EQ(reply.getSize(), 3);
    EXPECT_EQ(reply[0][0].asInt(), 320);
    EXPECT_EQ(reply[1][0].asInt(), 160);
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(reply[i][6].isArray());
      EXPECT_EQ(reply[i][6].getSize(), 0);
    }
    ASSERT_EQ(reply[2].getSize(), sizes[0] + sizes[1]);
    EXPECT_EQ(held(cam, "m", 0), nullptr);
    EXPECT_EQ(held(cam, "m", 1), nullptr);
  }

  const int before = cam->conversionCountForTesting();
  const OX::OXValue local = cam->getImagesLocal("m");
  EXPECT_EQ(local, OX::OXValue(OX::OXValue::Array{OX::OXValue(true), OX::OXValue(true)}));
  EXPECT_EQ(cam->conversionCountForTesting(), before + 2);
  // The same frames give the same pixels: the binary is both images, one after the other.
  const auto* bytes = static_cast<const unsigned char*>(reply[2].GetBinary());
  EXPECT_EQ(0, std::memcmp(bytes, held(cam, "m", 0)->fImage->fData, sizes[0]));
  EXPECT_EQ(0, std::memcmp(bytes + sizes[0], held(cam, "m", 1)->fImage->fData, sizes[1]));

  OX::OXVisionBuffer* first = held(cam, "m", 0);
  const OX::OXValue again = cam->getImagesLocal("m");
  EXPECT_TRUE(again.isArray());
  EXPECT_EQ(again.getSize(), 0);
  EXPECT_TRUE(capture.has(2, kCategory, "Previous image 0 was not released"));
  EXPECT_FALSE(cam->getImagesRemote("m").isValid());
  EXPECT_EQ(held(cam, "m", 0), first);
  EXPECT_EQ(first->fReadLockCount, 1);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 2);
  EXPECT_EQ(cam->releaseImages("m"), OX::OXValue(std::vector<int>{1, 1}));
  EXPECT_EQ(first->fReadLockCount, 0);
  EXPECT_EQ(cam->releaseImages("m"), OX::OXValue(std::vector<int>{0, 0}));

  capture.clear();
  Hook::info(*cam, "m").fActiveCameras.clear();
  const OX::OXError error = vitest::raised([&] { cam->getImagesLocal("m"); });
  EXPECT_EQ(error.getFunctionName(), "xGetImages()");
  EXPECT_EQ(error.getDescription(), "m failed to get images from one or several cameras");
  EXPECT_EQ(capture.count("m failed to get images from one or several cameras"), 0);
}

// Guards against raw access that converts, copies into the device's pools or leaves a frame
// lent after a remote reply, and against the hidden interprocess form raising or deadlocking.
TEST(DeliveryRawAccess, LocalRemoteSeveralAndInterprocess) {
  vitest::TestClock clock;
  Cam cam = vitest::makeSimulatorCam();
  cam->subscribeCamera("s", 0, OX::kQVGA, OX::kYUV422, 30);
  cam->subscribeCameras("m", OX::OXValue(std::vector<int>{1, 0}),
                        OX::OXValue(std::vector<int>{1, 1}), OX::OXValue(std::vector<int>{9, 9}),
                        30);
  vitest::LogCapture capture;
  clock.advance(1000);
  push(cam, 0, 1);
  push(cam, 1, 2);
  auto outputsIdle = [&] {
    for (int camera = 0; camera < 2; ++camera) {
      for (OX::OXVisionBuffer* output : Hook::camera(*cam, camera).fRawBuffers) {
        if (output->fReadLockCount != 0) return false;
      }
    }
    return true;
  };
  const int conversions = cam->conversionCountForTesting();

  OX::OXImage* local = cam->getDirectRawImageLocal("s");
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(local->fColorSpace, OX::kYUV422);
  EXPECT_TRUE(cam->releaseDirectRawImage("s"));
  EXPECT_TRUE(cam->releaseDirectRawImage("s"));  // nothing held: the camera says true
  for (int call = 0; call < 2; ++call) {
    const OX::OXValue reply = cam->getDirectRawImageRemote("s");
    ASSERT_EQ(reply.getSize(), 12);
    EXPECT_EQ(reply[6].getSize(), 320 * 240 * 2);
    EXPECT_EQ(reply[4].asInt(), static_cast<int>(clock.now() >> 32));
    EXPECT_TRUE(outputsIdle());
  }

  EXPECT_EQ(cam->getDirectRawImagesLocal("m"),
            OX::OXValue(OX::OXValue::Array{OX::OXValue(true), OX::OXValue(true)}));
  EXPECT_NE(held(cam, "m", 0), nullptr);
  EXPECT_EQ(cam->releaseDirectRawImages("m"), OX::OXValue(std::vector<int>{1, 1}));
  EXPECT_EQ(cam->releaseDirectRawImages("m"), OX::OXValue(std::vector<int>{1, 1}));
  EXPECT_TRUE(outputsIdle());
  for (int call = 0; call < 2; ++call) {
    const OX::OXValue reply = cam->getDirectRawImagesRemote("m");
    ASSERT_EQ(reply.getSize(), 3);
    EXPECT_EQ(reply[0][6].getSize(), 0);
    EXPECT_EQ(reply[2].getSize(), 2 * 320 * 240 * 2);
    EXPECT_EQ(held(cam, "m", 0), nullptr);
    EXPECT_EQ(held(cam, "m", 1), nullptr);
    EXPECT_TRUE(outputsIdle());
  }

  EXPECT_EQ(cam->getDirectRawImageInterprocess("s"), "lastVideoBuffer");
  EXPECT_TRUE(outputsIdle());
  EXPECT_EQ(cam->getDirectRawImageInterprocess("x"), "");
  EXPECT_TRUE(capture.has(2, kCategory, "getDirectRawImageInterprocess(x) : module x unknown!\n"));
  EXPECT_EQ(cam->conversionCountForTesting(), conversions);
}

}  // namespace
