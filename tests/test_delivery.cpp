// Image delivery through the device's published operations, on the simulator camera: sharing of
// converted images, the freshness rules, holds and releases, the joined reply of several streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "kios.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Buffers = std::vector<OX::OXVisionBuffer*>;
using Ints = std::vector<int>;
const char* const kCategory = "vision.oxvisionvideoinput";
const OX::OXValue kEmpty{OX::OXValue::Array{}};
const OX::OXValue kBothTrue{OX::OXValue::Array{OX::OXValue(true), OX::OXValue(true)}};
constexpr int64_t kSecond = 1000000;

class Delivery : public ::testing::Test {
 protected:
  vitest::TestClock clock;
  boost::shared_ptr<OX::OXVisionSimulatorCam> cam = vitest::makeSimulatorCam();
  vitest::LogCapture capture;

  // Moves the clock forward to the next instant that lies pMicroseconds into a second.
  void moveTo(int64_t pMicroseconds) {
    clock.advance(((pMicroseconds - clock.now() % kSecond) + kSecond) % kSecond);
  }
  // Pushes a fresh QVGA frame into a camera.
  void push(int pCamera, uint32_t pSeed) {
    ASSERT_TRUE(cam->putImage(pCamera, 320, 240, vitest::rgbFrame(OX::kQVGA, pSeed)));
  }
  OX::OXVisionBuffer*& held(const std::string& pName, int pCamera) {
    return Hook::info(*cam, pName).fRequestedProperties[pCamera]->fLockedImage;
  }
  // Gets and releases at once; the time stamp of what came.
  int64_t stampOf(const std::string& pName) {
    OX::OXImage* image = cam->getImageLocal(pName);
    EXPECT_NE(image, nullptr);
    const int64_t stamp = image != nullptr ? image->fTimeStamp : -1;
    EXPECT_TRUE(cam->releaseImage(pName));
    return stamp;
  }
  void subscribeMany(const std::string& pName, Ints pCameras, Ints pResolutions, Ints pSpaces) {
    cam->subscribeCameras(pName, OX::OXValue(pCameras), OX::OXValue(pResolutions),
                          OX::OXValue(pSpaces), 30);
  }
  bool holdsNothing(const std::string& pName) {
    return held(pName, 0) == nullptr && held(pName, 1) == nullptr;
  }
  static bool released(const Buffers& pPool) {
    return std::all_of(pPool.begin(), pPool.end(), [](auto* p) { return p->fReadLockCount == 0; });
  }
};

// Guards against a conversion per subscriber: N subscribers of one format within one period
// share one buffer and cost one conversion per frame.
TEST_F(Delivery, SubscribersOfOneFormatShareOneConversion) {
  const char* names[] = {"a", "b", "c", "d"};
  for (const char* name : names) cam->subscribeCamera(name, 0, OX::kQVGA, OX::kRGB, 30);
  clock.advance(1000);
  push(0, 1);
  const int before = cam->conversionCountForTesting();
  OX::OXImage* first = cam->getImageLocal("a");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(cam->getImageLocal("b"), first);
  OX::OXVisionBuffer* buffer = held("a", 0);
  EXPECT_EQ(held("b", 0), buffer);
  EXPECT_EQ(buffer->fReadLockCount, 2);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 1);
  EXPECT_EQ(first->fColorSpace, OX::kRGB);
  EXPECT_EQ(first->fTimeStamp, clock.now());
  EXPECT_TRUE(cam->releaseImage("a"));
  EXPECT_EQ(buffer->fReadLockCount, 1);
  EXPECT_EQ(held("a", 0), nullptr);
  for (int i = 0; i < 2; ++i) {  // the second time nothing is held: still true, nothing changed
    EXPECT_TRUE(cam->releaseImage("b"));
    EXPECT_EQ(buffer->fReadLockCount, 0);
  }
  for (int frame = 0; frame < 3; ++frame) {
    clock.advance(40000);  // more than one period of 30 fps
    push(0, 10 + frame);
    for (const char* name : names) EXPECT_EQ(stampOf(name), clock.now()) << name;
  }
  EXPECT_EQ(cam->conversionCountForTesting(), before + 4);
}

// Guards against a new frame for every request: within a period the same image and time stamp
// come back, and the converted image counts by its whole time (across a second), the raw image
// only within its own second.
TEST_F(Delivery, FreshnessAcrossTheSecondForConvertedAndRawImages) {
  cam->subscribeCamera("conv", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("other", 0, OX::kQVGA, OX::kBGR, 30);
  cam->subscribeCamera("raw", 0, OX::kQVGA, OX::kYUV422, 30);
  // Converted: 999 ms into second s, asked again 1 ms into s + 1: reused, no conversion.
  moveTo(999000);
  push(0, 1);
  const int64_t old = clock.now();
  EXPECT_EQ(stampOf("conv"), old);
  clock.advance(2000);
  push(0, 2);
  const int conversions = cam->conversionCountForTesting();
  EXPECT_EQ(stampOf("conv"), old);
  EXPECT_EQ(cam->conversionCountForTesting(), conversions);
  // Raw: held by another subscriber from 999 ms into s, asked 1 ms into s + 1: not reused.
  moveTo(999000);
  push(0, 3);
  const int64_t rawStamp = clock.now();
  ASSERT_NE(cam->getDirectRawImageLocal("raw"), nullptr);
  clock.advance(2000);
  push(0, 4);
  EXPECT_EQ(stampOf("other"), clock.now());
  EXPECT_NE(clock.now(), rawStamp);
  EXPECT_TRUE(cam->releaseDirectRawImage("raw"));
  // Raw within one second: reused and converted, 2 ms old.
  moveTo(500000);
  push(0, 5);
  const int64_t sameSecond = clock.now();
  ASSERT_NE(cam->getDirectRawImageLocal("raw"), nullptr);
  clock.advance(2000);
  push(0, 6);
  const int before = cam->conversionCountForTesting();
  EXPECT_EQ(stampOf("other"), sameSecond);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 1);
  EXPECT_TRUE(cam->releaseDirectRawImage("raw"));
}

// Guards against rounding the period: 30 fps is 33 ms and 7 fps is 142 ms, to the millisecond.
TEST_F(Delivery, PeriodIsTruncatedToWholeMilliseconds) {
  cam->subscribeCamera("p30", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("p7", 0, OX::kQVGA, OX::kYUV, 7);
  uint32_t seed = 1;
  for (const auto& [name, period] : {std::make_pair("p30", 33), std::make_pair("p7", 142)}) {
    SCOPED_TRACE(name);
    moveTo(100000);
    push(0, seed++);
    const int64_t first = clock.now();
    EXPECT_EQ(stampOf(name), first);
    clock.advance(period * 1000);
    push(0, seed++);
    EXPECT_EQ(stampOf(name), first);
    clock.advance(1000);
    push(0, seed++);
    EXPECT_EQ(stampOf(name), clock.now());
  }
}

// Guards against a second hold on one buffer or a lost first hold, and against a remote reply
// that leaves a hold behind; without a frame, no error and no hold.
TEST_F(Delivery, HoldsAndRemoteReplies) {
  cam->subscribeCamera("a", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("idle", 1, OX::kQVGA, OX::kRGB, 30);
  clock.advance(1000);
  push(0, 1);
  ASSERT_NE(cam->getImageLocal("a"), nullptr);
  OX::OXVisionBuffer* buffer = held("a", 0);
  const OX::OXError error = vitest::raised([&] { cam->getImageLocal("a"); });
  EXPECT_EQ(error.getFunctionName(), "xGetImage");
  EXPECT_EQ(error.getDescription(), "a previous image for camera 0 was not released !");
  EXPECT_TRUE(capture.has(2, kCategory, "a previous image for camera 0 was not released !"));
  EXPECT_EQ(held("a", 0), buffer);
  EXPECT_EQ(buffer->fReadLockCount, 1);
  EXPECT_TRUE(cam->releaseImage("a"));
  // Replies of one frame share one copy of its pixels; a reply kept across the next frame keeps
  // the pixels of its own.
  OX::OXValue kept;
  OX::OXValue keptBytes;
  for (int call = 0; call < 2; ++call) {
    clock.advance(40000);
    push(0, 2 + call);
    // The reply's layout is checked with the published operations; here, the holds.
    const OX::OXValue reply = cam->getImageRemote("a");
    EXPECT_EQ(reply[6].getSize(), 320 * 240 * 3);
    EXPECT_EQ(held("a", 0), nullptr);
    const OX::OXValue again = cam->getImageRemote("a");
    EXPECT_EQ(again[6].GetBinary(), reply[6].GetBinary());
    if (call == 0) {
      kept = reply;
      keptBytes = OX::OXValue::binary(reply[6].GetBinary(), reply[6].getSize());
    } else {
      EXPECT_NE(reply[6], kept[6]);
    }
  }
  EXPECT_EQ(kept[6], keptBytes);
  EXPECT_TRUE(released(Hook::camera(*cam, 0).fImageBuffers));
  capture.clear();
  EXPECT_EQ(cam->getImageLocal("idle"), nullptr);
  EXPECT_FALSE(cam->getImageRemote("idle").isValid());
  EXPECT_TRUE(capture.has(
      4, kCategory, "xGetImage(idle): Failed to get a new raw image for subscriber \"idle\""));
  EXPECT_EQ(held("idle", 1), nullptr);
}

// Guards against serving a camera other than the device's for a subscriber that follows it,
// releasing only one camera on -1, and indexing past the last camera.
TEST_F(Delivery, FollowingTheDeviceCamera) {
  cam->subscribe("f", OX::kQVGA, OX::kRGB, 30);
  ASSERT_EQ(Hook::info(*cam, "f").fActiveCamera, -1);
  ASSERT_TRUE(cam->startFrameGrabber(1));  // an opening forgets the frame pushed before it
  clock.advance(1000);
  push(0, 1);
  push(1, 2);
  Hook::activeCamera(*cam) = 1;
  OX::OXImage* one = cam->getImageLocal("f");
  ASSERT_NE(one, nullptr);
  OX::OXVisionBuffer* first = held("f", 1);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->fImage, one);
  EXPECT_EQ(held("f", 0), nullptr);
  Hook::activeCamera(*cam) = 0;
  ASSERT_NE(cam->getImageLocal("f"), nullptr);  // camera 0 holds nothing yet
  OX::OXVisionBuffer* zero = held("f", 0);
  ASSERT_NE(zero, nullptr);
  // The raw release of camera 0's request left camera 1's hold alone.
  EXPECT_EQ(held("f", 1), first);
  EXPECT_EQ(first->fReadLockCount, 1);
  EXPECT_TRUE(cam->releaseImage("f"));
  EXPECT_TRUE(holdsNothing("f"));
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
TEST_F(Delivery, CameraChangeDuringTheWaitIsRecorded) {
  cam->subscribe("f", OX::kQVGA, OX::kRGB, 30);
  ASSERT_TRUE(cam->startFrameGrabber(1));
  bool switched = false;
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) {
    clock.advance(pMicroseconds);
    if (switched) return;
    switched = true;  // the device moves on while the frame for camera 0 arrives
    Hook::activeCamera(*cam) = 1;
    push(0, 1);
  });
  OX::OXImage* image = cam->getImageLocal("f");
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) { clock.advance(pMicroseconds); });
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(capture.has(2, kCategory, "xGetImage(f): Module active camera change!"));
  ASSERT_NE(held("f", 0), nullptr);
  EXPECT_EQ(held("f", 0)->fImage, image);
  EXPECT_EQ(held("f", 1), nullptr);
  EXPECT_TRUE(released(Hook::camera(*cam, 0).fRawBuffers));
  EXPECT_TRUE(cam->releaseImage("f"));
  EXPECT_EQ(held("f", 0), nullptr);
  Hook::activeCamera(*cam) = 0;
}

// Guards against the texts of the refusals drifting, neighbouring names included: an unknown
// name, then a subscriber of the other family.
TEST_F(Delivery, EveryOperationRefusesUnknownNamesAndTheOtherFamily) {
  cam->subscribeCamera("one", 0, OX::kQVGA, OX::kRGB, 30);
  subscribeMany("many", {0, 1}, {1, 1}, {9, 9});
  const struct {
    std::function<void(const std::string&)> fCall;
    const char *fName, *fMethod, *fUnknown, *fUse;  // fName: a subscriber of the other family
  } rows[] = {
      {[&](auto& p) { cam->getImageLocal(p); }, "many", "getImageLocal()",
       "getImageLocal(x) : module x unknown!", "getImagesLocal instead"},
      {[&](auto& p) { cam->getImageRemote(p); }, "many", "getImageRemote()",
       "getDirectRawImageRemote(x) : module x unknown!", "getDirectRawImagesRemote instead"},
      {[&](auto& p) { cam->releaseImage(p); }, "many", "releaseImage()",
       "releaseImage(x) : module x unknown!", "releaseDirectRawImages instead"},
      {[&](auto& p) { cam->getImagesLocal(p); }, "one", "getImagesLocal()",
       "getDirectRawImagesLocal(x) : module x unknown!", "getImageLocal instead"},
      {[&](auto& p) { cam->getImagesRemote(p); }, "one", "getImagesRemote()",
       "getImagesRemote(x) : module x unknown!", "getImageRemote instead"},
      {[&](auto& p) { cam->releaseImages(p); }, "one", "releaseImages()",
       ": Could not release image for unknown subscriber \"x\"", "releaseImage instead"},
      {[&](auto& p) { cam->getDirectRawImageRemote(p); }, "many", "getDirectRawImageRemote()",
       "getDirectRawImageRemote(x) : module x unknown!", "getDirectRawImagesRemote instead"},
      {[&](auto& p) { cam->getDirectRawImagesLocal(p); }, "one", "getDirectRawImagesLocal()",
       "getDirectRawImagesLocal(x) : module x unknown!", "getDirectRawImageLocal instead\n"},
      {[&](auto& p) { cam->getDirectRawImagesRemote(p); }, "one", "getDirectRawImagesRemote()",
       "getDirectRawImagesLocal(x) : module x unknown!", "getDirectRawImageRemote instead"},
      {[&](auto& p) { cam->releaseDirectRawImages(p); }, "one", "releaseDirectRawImages()",
       "releaseDirectRawImages(x) : module x unknown!", "releaseDirectRawImage instead"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fMethod);
    const std::string wrongFamily = std::string(row.fName[0] == 'm' ? "Multi" : "Mono") +
                                    " stream module can't call this method, use " + row.fUse;
    for (const auto& [name, text] :
         {std::make_pair("x", std::string(row.fUnknown)), std::make_pair(row.fName, wrongFamily)}) {
      capture.clear();
      const OX::OXError error = vitest::raised([&] { row.fCall(name); });
      EXPECT_EQ(error.getFunctionName(), row.fMethod);
      EXPECT_EQ(error.getDescription(), text);
      EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
      EXPECT_TRUE(capture.has(2, kCategory, text));
    }
  }
}

// Guards against a reply that mixes sizes up, a held image that raises or converts again, a
// hold left by a remote reply, and an empty camera list that passes silently.
TEST_F(Delivery, SeveralStreamsJoinedReplyHoldsAndEmptyList) {
  subscribeMany("m", {0, 1}, {OX::kQVGA, OX::kQQVGA}, {OX::kRGB, OX::kYUV422});
  clock.advance(1000);
  push(0, 1);
  push(1, 2);
  const int sizes[] = {320 * 240 * 3, 160 * 120 * 2};
  OX::OXValue reply;
  for (int call = 0; call < 2; ++call) {
    reply = cam->getImagesRemote("m");
    ASSERT_EQ(reply.getSize(), 3);
    EXPECT_EQ(reply[0][0].asInt(), 320);
    EXPECT_EQ(reply[1][0].asInt(), 160);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(reply[i][6], kEmpty) << i;
    ASSERT_EQ(reply[2].getSize(), sizes[0] + sizes[1]);
    EXPECT_TRUE(holdsNothing("m"));
  }
  const int before = cam->conversionCountForTesting();
  EXPECT_EQ(cam->getImagesLocal("m"), kBothTrue);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 2);
  // The same frames give the same pixels: the binary is both images, one after the other.
  const auto* bytes = static_cast<const unsigned char*>(reply[2].GetBinary());
  EXPECT_EQ(0, std::memcmp(bytes, held("m", 0)->fImage->fData, sizes[0]));
  EXPECT_EQ(0, std::memcmp(bytes + sizes[0], held("m", 1)->fImage->fData, sizes[1]));
  OX::OXVisionBuffer* first = held("m", 0);
  EXPECT_EQ(cam->getImagesLocal("m"), kEmpty);
  EXPECT_TRUE(capture.has(2, kCategory, "Previous image 0 was not released"));
  EXPECT_FALSE(cam->getImagesRemote("m").isValid());
  EXPECT_EQ(held("m", 0), first);
  EXPECT_EQ(first->fReadLockCount, 1);
  EXPECT_EQ(cam->conversionCountForTesting(), before + 2);
  EXPECT_EQ(cam->releaseImages("m"), OX::OXValue(Ints{1, 1}));
  EXPECT_EQ(first->fReadLockCount, 0);
  EXPECT_EQ(cam->releaseImages("m"), OX::OXValue(Ints{0, 0}));
  capture.clear();
  Hook::info(*cam, "m").fActiveCameras.clear();
  const OX::OXError error = vitest::raised([&] { cam->getImagesLocal("m"); });
  EXPECT_EQ(error.getFunctionName(), "xGetImages()");
  EXPECT_EQ(error.getDescription(), "m failed to get images from one or several cameras");
  EXPECT_EQ(capture.count("m failed to get images from one or several cameras"), 0);
}

// Guards against raw access that converts, copies into the device's pools or leaves a frame
// lent after a remote reply, and against the hidden interprocess form raising or deadlocking.
TEST_F(Delivery, RawAccessLocalRemoteSeveralAndInterprocess) {
  cam->subscribeCamera("s", 0, OX::kQVGA, OX::kYUV422, 30);
  subscribeMany("m", {1, 0}, {1, 1}, {9, 9});
  clock.advance(1000);
  push(0, 1);
  push(1, 2);
  const auto outputsIdle = [&] {
    return released(Hook::camera(*cam, 0).fRawBuffers) &&
           released(Hook::camera(*cam, 1).fRawBuffers);
  };
  const int conversions = cam->conversionCountForTesting();
  ASSERT_NE(cam->getDirectRawImageLocal("s"), nullptr);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(cam->releaseDirectRawImage("s"));  // then nothing held
  for (int call = 0; call < 2; ++call) {
    const OX::OXValue reply = cam->getDirectRawImageRemote("s");
    ASSERT_EQ(reply.getSize(), 12);
    EXPECT_EQ(reply[6].getSize(), 320 * 240 * 2);
    EXPECT_EQ(reply[4].asInt(), static_cast<int>(clock.now() >> 32));
    EXPECT_TRUE(outputsIdle());
  }
  EXPECT_EQ(cam->getDirectRawImagesLocal("m"), kBothTrue);
  EXPECT_NE(held("m", 0), nullptr);
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(cam->releaseDirectRawImages("m"), OX::OXValue(Ints{1, 1}));
  }
  EXPECT_TRUE(outputsIdle());
  for (int call = 0; call < 2; ++call) {
    const OX::OXValue reply = cam->getDirectRawImagesRemote("m");
    ASSERT_EQ(reply.getSize(), 3);
    EXPECT_EQ(reply[0][6].getSize(), 0);
    EXPECT_EQ(reply[2].getSize(), 2 * 320 * 240 * 2);
    EXPECT_TRUE(holdsNothing("m"));
    EXPECT_TRUE(outputsIdle());
  }
  EXPECT_EQ(cam->getDirectRawImageInterprocess("s"), "lastVideoBuffer");
  EXPECT_TRUE(outputsIdle());
  EXPECT_EQ(cam->getDirectRawImageInterprocess("x"), "");
  EXPECT_TRUE(capture.has(2, kCategory, "getDirectRawImageInterprocess(x) : module x unknown!\n"));
  EXPECT_EQ(cam->conversionCountForTesting(), conversions);
}

}  // namespace
