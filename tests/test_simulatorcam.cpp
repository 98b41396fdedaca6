// The simulator camera: its object and validity checks, its parameters and grabber, and the push.
#include <gtest/gtest.h>

#include <cstring>

#include "kios.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXValue;
using vitest::Hook;
const char* const kSimCategory = "vision.oxvisionsimulatorcam";

// Every field of a raised error: the device's errors carry neither file nor line.
void expectError(const OX::OXError& pError, const char* pModule, const char* pFunction,
                 const char* pDescription) {
  EXPECT_EQ(pError.getModuleName(), pModule);
  EXPECT_EQ(pError.getFunctionName(), pFunction);
  EXPECT_EQ(pError.getDescription(), pDescription);
  EXPECT_EQ(pError.getFileName(), "");
  EXPECT_EQ(pError.getLine(), 0);
}

// A wrong default (cameras, resolutions, model, frame store sizes) would change every later frame.
TEST(SimulatorCamObject, NewInstanceHasTwoCamerasWithTheirDefaults) {
  vitest::LogCapture capture;
  auto cam = vitest::makeSimulatorCam();
  EXPECT_EQ(Hook::nbCameras(*cam), 2);
  EXPECT_EQ(Hook::defaultResolution(*cam), OX::kQVGA);
  ASSERT_EQ(Hook::storeCount(*cam), 2u);
  for (int c = 0; c < 2; ++c) {
    const OX::RealCameraProperties& p = Hook::camera(*cam, c);
    // Width, height, resolution, colour space, rate, model, buffer count, grabber state.
    EXPECT_EQ((std::vector<int>{p.fWidth, p.fHeight, p.fResolution, p.fColorSpace, p.fFrameRate,
                                p.fCameraModel, p.fBufferCount,
                                static_cast<int>(p.fGrabberState.load())}),
              (std::vector<int>{320, 240, OX::kQVGA, OX::kYUV422, 5, 2, 4, 0}))
        << c;
    OX::CameraDriverBuffer& store = Hook::store(*cam, c);
    EXPECT_EQ(
        (std::vector<int>{store.fInputResolution, store.fLastInputBuffer, store.fLastDriverBuffer,
                          int(store.fDriverBuffers.size()), int(store.fInputBuffers.size())}),
        (std::vector<int>{OX::kQQVGA, -1, -1, 4, 2}))
        << c;
    for (const auto& buffer : store.fDriverBuffers) {
      EXPECT_EQ(buffer->fImage->fTimeStamp, -1);
      EXPECT_GE(buffer->fImage->getAllocatedSize(), 1280 * 960 * 2);
    }
    for (const auto& buffer : store.fInputBuffers) {
      EXPECT_GE(buffer->fImage->getAllocatedSize(), 1280 * 960 * 3);
    }
  }
  EXPECT_TRUE(capture.records().empty());
}

// The limits of the three checks are easy to get wrong by one, or to compare signed. Model 1
// stops at resolution 2; a camera outside the table is left to the caller's own index check.
TEST(SimulatorCamObject, ValidityChecksAcceptExactlyTheirRanges) {
  auto cam = vitest::makeSimulatorCam();
  using Check = bool (*)(Hook::Cam&, int, int);
  const Check res = &Hook::isResolutionValid, rate = &Hook::isFrameRateValid,
              space = &Hook::isColorSpaceValid;
  const struct {
    int model;
    Check check;
    int value, camera;
    bool valid;
  } cases[] = {{2, res, 3, 0, true},     {2, res, 4, 0, false},    {2, res, -1, 0, false},
               {2, rate, 0, 1, false},   {2, rate, 1, 1, true},    {2, rate, 30, 1, true},
               {2, rate, 31, 1, false},  {2, space, 0, 0, true},   {2, space, 16, 0, true},
               {2, space, 17, 0, false}, {2, space, -1, 0, false}, {1, res, 2, 1, true},
               {1, res, 3, 1, false},    {7, res, 1, 5, true}};
  for (const auto& c : cases) {
    Hook::camera(*cam, 1).fCameraModel = c.model;
    EXPECT_EQ(c.check(*cam, c.value, c.camera), c.valid)
        << "model " << c.model << ", value " << c.value << ", camera " << c.camera;
  }
  // An unknown model refuses with its record in another category.
  vitest::LogCapture capture;
  EXPECT_FALSE(Hook::isResolutionValid(*cam, 0, 1));
  EXPECT_TRUE(capture.has(2, "vision.oxvisionatomcam", "7 unknow camera model ID."));
  Hook::camera(*cam, 1).fCameraModel = 2;
}

// Each identifier must read its own field, and the unknown ones must raise with their texts.
TEST(SimulatorCamParameters, ReadsTheFiveIdentifiersAndRefusesTheOthers) {
  auto cam = vitest::makeSimulatorCam();
  Hook::camera(*cam, 1).fResolution = -1;  // sign-extended when read
  EXPECT_EQ(Hook::getParam(*cam, 1, 14), -1);
  for (const auto& [id, value] : {std::pair{14, 1}, {15, 5}, {16, 4}, {18, 0}, {20, 9}}) {
    EXPECT_EQ(Hook::getParam(*cam, 0, id), value) << id;
  }
  for (int id : {17, 19, 13, 21, -1}) {
    expectError(vitest::raised([&] { Hook::getParam(*cam, 0, id); }), "Camera", "getParam()",
                "Bad input parameter ID");
  }
}

// A refused or unchanged resolution must not touch the grabber; a change restarts it, even a
// stopped one, and the opening makes subscribers wait for the next push, keeps the last raw entry
// and re-dimensions the raw frames.
TEST(SimulatorCamParameters, ResolutionRules) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  {
    vitest::LogCapture capture;
    EXPECT_FALSE(Hook::setParam(*cam, 0, 14, 4, false));
    EXPECT_FALSE(Hook::setParam(*cam, 0, 14, -1, false));
    EXPECT_EQ(capture.count("xSetParam() Invalid camera resolution input parameter."), 2);
    EXPECT_TRUE(capture.has(2, "vision.oxvisionsimulator",
                            "xSetParam() Invalid camera resolution input parameter."));
  }
  EXPECT_TRUE(Hook::setParam(*cam, 0, 14, 1, false));
  EXPECT_EQ(Hook::camera(*cam, 0).fGrabberState, OX::GrabberState::kStopped);

  ASSERT_TRUE(cam->putImage(0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)));
  OX::CameraDriverBuffer& store = Hook::store(*cam, 0);
  store.fLastDriverBuffer = 2;
  EXPECT_TRUE(Hook::setParam(*cam, 0, 14, 2, false));
  EXPECT_EQ(Hook::camera(*cam, 0).fResolution, 2);
  EXPECT_EQ(Hook::camera(*cam, 0).fGrabberState, OX::GrabberState::kRunning);
  EXPECT_EQ(store.fLastInputBuffer, -1);
  EXPECT_EQ(store.fLastDriverBuffer, 2);
  for (const auto& buffer : store.fDriverBuffers) {
    EXPECT_EQ(buffer->fImage->fWidth, 640);
    EXPECT_EQ(buffer->fImage->fHeight, 480);
    EXPECT_EQ(buffer->fImage->fColorSpace, OX::kYUV422);
  }
  // Width and height of the camera are the callers' business.
  EXPECT_EQ(Hook::camera(*cam, 0).fWidth, 320);
  EXPECT_TRUE(Hook::setParam(*cam, 0, 14, 99, true));
  EXPECT_EQ(Hook::camera(*cam, 0).fResolution, 1);
}

// The frame rate is brought to one of the four known rates; the default is 5.
TEST(SimulatorCamParameters, FrameRateRules) {
  auto cam = vitest::makeSimulatorCam();
  const std::pair<int, int> cases[] = {{7, 10}, {12, 15}, {16, 30}, {0, 5},   {-3, 5},
                                       {6, 10}, {10, 10}, {11, 15}, {15, 15}, {5, 5}};
  for (const auto& [asked, stored] : cases) {
    EXPECT_TRUE(Hook::setParam(*cam, 1, 15, asked, false));
    EXPECT_EQ(Hook::camera(*cam, 1).fFrameRate, stored) << asked;
  }
  EXPECT_TRUE(Hook::setParam(*cam, 1, 15, 30, false));
  EXPECT_TRUE(Hook::setParam(*cam, 1, 15, 99, true));
  EXPECT_EQ(Hook::camera(*cam, 1).fFrameRate, 5);
  EXPECT_EQ(Hook::camera(*cam, 0).fFrameRate, 5);
}

// The selection accepts one past the last camera, compares with the camera argument, and the
// identifiers that cannot be written raise with the texts of the device.
TEST(SimulatorCamParameters, CameraSelectionAndUnwritableIdentifiers) {
  auto cam = vitest::makeSimulatorCam();
  {
    vitest::LogCapture capture;
    Hook::activeCamera(*cam) = 1;
    EXPECT_TRUE(Hook::setParam(*cam, 0, 18, 0, false));
    EXPECT_EQ(Hook::activeCamera(*cam), 1);
    EXPECT_TRUE(capture.has(4, kSimCategory, "Same camera selected."));
  }
  EXPECT_TRUE(Hook::setParam(*cam, 0, 18, 2, false));
  EXPECT_EQ(Hook::activeCamera(*cam), 2);
  {
    // One past the last camera: the operations that use it refuse instead of reading past the
    // cameras, and a subscriber that follows the device can still leave.
    vitest::LogCapture capture;
    EXPECT_FALSE(cam->putImage(vitest::rgbFrame(OX::kQQVGA, 1)));
    EXPECT_FALSE(cam->setSimCamInputSize(160, 120));
    EXPECT_FALSE(cam->getExpectedImageParameters().isValid());
    EXPECT_EQ(capture.count("OXVideoDevice: camera index out of range: 2"), 3);
    EXPECT_EQ(vitest::raised([&] { cam->getResolution(); }).getDescription(),
              "getResolution(2) : invalid Camera index");
    EXPECT_EQ(vitest::raised([&] { cam->isFrameGrabberOff(); }).getDescription(),
              "stopFrameGrabber(2) : invalid Camera index");
    const std::string follower = cam->subscribeCamera("follower", 0, 1, 9, 5);
    Hook::info(*cam, follower).fActiveCamera = -1;
    cam->unsubscribe(follower);
  }
  for (int value : {3, -1}) {
    expectError(vitest::raised([&] { Hook::setParam(*cam, 0, 18, value, false); }), "Camera",
                "setParam()", "Invalid camera parameter input reference.");
  }
  EXPECT_TRUE(Hook::setParam(*cam, 1, 18, 5, true));
  EXPECT_EQ(Hook::activeCamera(*cam), 0);
  EXPECT_TRUE(Hook::setParam(*cam, 0, 18, 1, false));
  EXPECT_EQ(Hook::activeCamera(*cam), 1);
  for (int id : {20, 16, 17, 0}) {
    expectError(vitest::raised([&] { Hook::setParam(*cam, 0, id, 9, false); }), "OXVideoInput",
                "xSetParam()", "Invalid parameter input reference.");
  }
}

// Every state of the grabber, operation by operation: start and stop leave the states they do
// not own alone, and a stop during an opening waits for it.
TEST(SimulatorCamGrabber, TransitionsFromEveryState) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  std::atomic<OX::GrabberState>& state = Hook::camera(*cam, 0).fGrabberState;
  using S = OX::GrabberState;
  const struct {
    S from;
    bool start;
    S to;
  } cases[] = {{S::kStopped, true, S::kRunning},  {S::kFailed, true, S::kRunning},
               {S::kOpening, true, S::kOpening},  {S::kClosing, true, S::kClosing},
               {S::kRunning, true, S::kRunning},  {S::kRunning, false, S::kStopped},
               {S::kStopped, false, S::kStopped}, {S::kClosing, false, S::kClosing},
               {S::kFailed, false, S::kFailed}};
  for (const auto& c : cases) {
    const int from = static_cast<int>(c.from);
    state = c.from;
    EXPECT_TRUE(c.start ? Hook::startGrabber(*cam, 0) : Hook::stopGrabber(*cam, 0)) << from;
    EXPECT_EQ(state, c.to) << from << (c.start ? " start" : " stop");
  }
  // A start opens the device: a stored frame is no longer offered.
  state = S::kStopped;
  ASSERT_TRUE(cam->putImage(0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)));
  Hook::startGrabber(*cam, 0);
  EXPECT_EQ(Hook::store(*cam, 0).fLastInputBuffer, -1);

  // Stop while opening: polls every half second until the opening is over, then closes.
  state = S::kOpening;
  int sleeps = 0;
  ki::os::setSleepForTesting([&](unsigned int pMicroseconds) {
    if (pMicroseconds == 500000 && ++sleeps == 3) state = S::kRunning;
  });
  EXPECT_TRUE(Hook::stopGrabber(*cam, 0));
  EXPECT_EQ(sleeps, 3);
  EXPECT_EQ(state, S::kStopped);
  ki::os::restoreRealSleep();
}

// The sizes and the double buffer are the contract with the simulator; the stamp is the clock's.
TEST(SimulatorCamPush, SizesAndDoubleBuffer) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  OX::CameraDriverBuffer& store = Hook::store(*cam, 0);
  // Without a declaration a frame is 160 x 120.
  EXPECT_TRUE(cam->putImage(vitest::rgbFrame(OX::kQQVGA, 1)));
  EXPECT_EQ(store.fLastInputBuffer, 0);
  EXPECT_EQ(store.fInputBuffers[0]->fImage->fTimeStamp, clock.now());

  EXPECT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 2)));
  EXPECT_EQ(store.fInputResolution, OX::kQVGA);
  EXPECT_EQ(store.fLastInputBuffer, 1);
  EXPECT_EQ(store.fInputBuffers[1]->fImage->fWidth, 320);
  clock.advance(1000);
  std::vector<unsigned char> bytes;
  EXPECT_TRUE(cam->putImage(vitest::rgbFrame(OX::kQVGA, 3, &bytes)));
  EXPECT_EQ(store.fLastInputBuffer, 0);
  EXPECT_EQ(store.fInputBuffers[0]->fImage->fTimeStamp, clock.now());
  EXPECT_EQ(0, std::memcmp(store.fInputBuffers[0]->fImage->fData, bytes.data(), bytes.size()));
  // Camera 1 was never touched.
  EXPECT_EQ(Hook::store(*cam, 1).fLastInputBuffer, -1);
  EXPECT_EQ(Hook::store(*cam, 1).fInputResolution, OX::kQQVGA);

  EXPECT_TRUE(cam->setSimCamInputSize(640, 480));
  EXPECT_EQ(store.fInputResolution, OX::kVGA);
  EXPECT_EQ(store.fInputBuffers[1]->fImage->fHeight, 480);

  // The stamp is split into 32-bit seconds and microseconds as the clock gives them.
  ki::os::setClockForTesting([] { return int64_t{5000000007} * 1000000 + 42; });
  EXPECT_TRUE(cam->putImage(vitest::rgbFrame(OX::kVGA, 4)));
  EXPECT_EQ(store.fInputBuffers[1]->fImage->fTimeStamp,
            int64_t{static_cast<int32_t>(5000000007LL)} * 1000000 + 42);
}

// The size pair, the binary rule and the string high-water mark: each row of the failure table
// refuses and changes nothing.
TEST(SimulatorCamPush, FailureTable) {
  vitest::TestClock clock;
  auto cam = vitest::makeSimulatorCam();
  OX::CameraDriverBuffer& store = Hook::store(*cam, 0);
  ASSERT_TRUE(cam->putImage(vitest::rgbFrame(OX::kQQVGA, 1)));
  const int64_t stamp = store.fInputBuffers[0]->fImage->fTimeStamp;
  clock.advance(10);
  auto unchanged = [&] {
    EXPECT_EQ(store.fLastInputBuffer, 0);
    EXPECT_EQ(store.fInputBuffers[0]->fImage->fTimeStamp, stamp);
  };
  vitest::LogCapture capture;
  // Unknown size pair, also a known width with the wrong height; the image is not looked at.
  EXPECT_FALSE(cam->setSimCamInputSize(640, 240));
  EXPECT_FALSE(cam->putImage(0, 320, 120, OXValue(3)));
  EXPECT_EQ(capture.count("Unknown resolution from simulator!"), 2);
  EXPECT_TRUE(capture.has(2, kSimCategory, "Unknown resolution from simulator!"));
  EXPECT_EQ(store.fInputResolution, OX::kQQVGA);
  unchanged();
  capture.clear();

  // Binary of the wrong size.
  EXPECT_FALSE(cam->putImage(vitest::rgbFrame(OX::kQVGA, 2)));
  EXPECT_TRUE(capture.has(2, kSimCategory, "SIMCAM_ERROR_WRONGDATASIZE"));
  // A good size declared, then a bad image: the declaration stays in force.
  EXPECT_FALSE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQQVGA, 2)));
  EXPECT_EQ(store.fInputResolution, OX::kQVGA);
  EXPECT_EQ(capture.count("SIMCAM_ERROR_WRONGDATASIZE"), 2);
  unchanged();
  capture.clear();

  // Neither binary nor string.
  EXPECT_FALSE(cam->putImage(OXValue(12)));
  EXPECT_FALSE(cam->putImage(OXValue()));
  EXPECT_EQ(capture.count("xPutImage: Buffer is not a binary nor a string"), 2);
  unchanged();
  capture.clear();

  // Strings: the high-water mark, shared by the cameras, and no size check at all.
  EXPECT_TRUE(cam->putImage(OXValue(std::string(1000, 'a'))));
  EXPECT_EQ(capture.count("Image updated"), 1);
  EXPECT_EQ(store.fLastInputBuffer, 1);
  EXPECT_FALSE(cam->putImage(0, 320, 240, OXValue(std::string(999, 'b'))));
  EXPECT_FALSE(cam->putImage(1, 160, 120, OXValue(std::string(999, 'b'))));
  EXPECT_EQ(capture.records().size(), 1u);
  EXPECT_TRUE(cam->putImage(1, 160, 120, OXValue(std::string(1000, 'c'))));
  EXPECT_EQ(capture.count("Image updated"), 2);
  // Longer than an input buffer holds: refused instead of overrunning it.
  EXPECT_FALSE(cam->putImage(OXValue(std::string(1280 * 960 * 3 + 1, 'd'))));
  EXPECT_TRUE(
      capture.has(2, kSimCategory, "xPutImage: string larger than the input buffer, refused"));
  EXPECT_TRUE(cam->putImage(OXValue(std::string(1280 * 960 * 3, 'e'))));
  EXPECT_EQ(store.fLastInputBuffer, 0);
  capture.clear();

  // The target image has no data.
  ASSERT_TRUE(cam->setSimCamInputSize(160, 120));
  unsigned char* data = store.fInputBuffers[1]->fImage->fData;
  store.fInputBuffers[1]->fImage->fData = nullptr;
  EXPECT_FALSE(cam->putImage(vitest::rgbFrame(OX::kQQVGA, 5)));
  store.fInputBuffers[1]->fImage->fData = data;
  EXPECT_TRUE(capture.has(2, kSimCategory, "xPutImage: memcopy failed"));
  EXPECT_EQ(store.fLastInputBuffer, 0);
}

// What the simulator is told to render follows the camera, not the pushed size; the
// argument-less form re-enters the read lock and follows the active camera.
TEST(SimulatorCamPush, ExpectedImageParameters) {
  auto cam = vitest::makeSimulatorCam();
  Hook::camera(*cam, 1).fResolution = OX::kVGA;
  Hook::camera(*cam, 1).fFrameRate = 15;
  auto read = [](const OXValue& pValue) {
    return std::vector<int>{pValue[0][0].asInt(), pValue[0][1].asInt(), pValue[1].asInt()};
  };
  EXPECT_EQ(read(cam->getExpectedImageParameters(1)), (std::vector<int>{640, 480, 15}));
  EXPECT_EQ(read(cam->getExpectedImageParameters()), (std::vector<int>{320, 240, 5}));
  Hook::activeCamera(*cam) = 1;
  EXPECT_EQ(read(cam->getExpectedImageParameters()), (std::vector<int>{640, 480, 15}));
}

}  // namespace
