// The device core through a fake camera: records, image pools, camera parameters, device queries
// and construction.
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "fakecamera.h"
#include "oxproxies.h"
#include "testsupport.h"

namespace {

using vitest::FakeCam;
using Pool = std::vector<OX::OXVisionBuffer*>;
const char* const kCategory = "vision.oxvisionvideoinput";

using vitest::raised;

std::vector<int> counts(const Pool& pPool, int OX::OXVisionBuffer::*pCounter) {
  std::vector<int> result;
  for (const OX::OXVisionBuffer* buffer : pPool) result.push_back(buffer->*pCounter);
  return result;
}

// A fresh device has the documented defaults, its scratch areas, texts and the memory hook.
TEST(DeviceCore, ConstructionAndRecordDefaults) {
  vitest::LogCapture capture;
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFakeCam(&broker);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_NE(cam->fCopyBuffer, nullptr);
  EXPECT_NE(cam->fBinaryBuffer, nullptr);
  const OX::OXValue help = cam->getModuleHelp();
  EXPECT_EQ(help[1].asString().substr(0, 44), "OXVideoDevice, formerly called Video Input s");
  EXPECT_EQ(help[2][0][0].asString(), "C++");
  EXPECT_NE(help[2][1][1].asString().find(
                "  cameraProxy = OXProxy(\"OXVideoDevice\", \"127.0.0.1\", 7761)\n"),
            std::string::npos);

  OX::RequestedCameraProperties requested;
  EXPECT_EQ(requested.fResolution, OX::kQVGA);
  EXPECT_EQ(requested.fColorSpace, OX::kYUV422);

  OX::OXVisionBuffer owned(OX::kQQVGA, OX::kRGB, false);
  ASSERT_NE(owned.fImage, nullptr);
  EXPECT_EQ(owned.fImage->getAllocatedSize(), 1280 * 960 * 3);
  EXPECT_EQ(owned.fImage->fWidth, 160);
  EXPECT_EQ(owned.fImage->fColorSpace, OX::kRGB);
  EXPECT_EQ(owned.fReadLockCount + owned.fWriteLockCount, 0);
  OX::OXVisionBuffer external(OX::kVGA, OX::kYUV422, true);
  EXPECT_EQ(external.fImage->getAllocatedSize(), 0);
  EXPECT_EQ(external.fImage->fWidth, 640);

  EXPECT_FALSE(FakeCam::xIsInParams({}, 14));
  EXPECT_TRUE(FakeCam::xIsInParams({{15, 0}, {14, 3}}, 14));
}

// The memory service may be absent (silent) or broken (one level-2 record); both still build.
TEST(DeviceCore, MemoryServiceAbsentOrFailing) {
  struct Mute : OX::OXModule {
    explicit Mute(boost::shared_ptr<OX::OXBroker> pBroker) : OXModule(pBroker, "OXMemory") {}
  };
  for (bool absent : {true, false}) {
    vitest::LogCapture capture;
    auto broker = OX::OXBroker::createBroker("test", {});
    broker->unregisterModule("OXMemory");
    if (!absent) OX::OXModule::createModule<Mute>(broker);
    auto cam = OX::OXModule::createModule<FakeCam>(broker);
    const auto records = capture.records();
    if (absent) {
      EXPECT_TRUE(records.empty());
    } else {
      ASSERT_EQ(records.size(), 1u);
      EXPECT_EQ(records[0].level, 2);
      EXPECT_EQ(records[0].category, kCategory);
      EXPECT_EQ(records[0].message, "OXVideoDevice: Could not connect to Memory.");
    }
    EXPECT_EQ(broker->getModuleByName("OXVideoDevice"), cam);
  }
}

// The four searches: raise first, then check; lower index wins ties; only the winner stays raised.
TEST(DeviceCore, BufferSearchesCountersAndTies) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0, 320, 240, OX::kYUV422), -1);  // empty pool
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(cam->xCreateBuffersForStoringImages(0, 1, 9));
  Pool& images = cam->camera(0).fImageBuffers;
  Pool& raws = cam->camera(0).fRawBuffers;
  ASSERT_EQ(images.size(), 3u);
  ASSERT_EQ(raws.size(), 3u);
  EXPECT_TRUE(raws[0]->fImage->areDataExternal());

  // Never-written buffers (time stamp 0) tie: the lowest index is oldest and newest.
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0, 320, 240, 9), 0);
  EXPECT_EQ(counts(images, &OX::OXVisionBuffer::fWriteLockCount), (std::vector<int>{1, 0, 0}));
  images[0]->fWriteLockCount = 0;
  images[0]->fImage->fTimeStamp = 30;
  images[1]->fImage->fTimeStamp = 10;
  images[2]->fImage->fTimeStamp = 30;
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0, 320, 240, 9), 1);
  EXPECT_EQ(counts(images, &OX::OXVisionBuffer::fWriteLockCount), (std::vector<int>{0, 1, 0}));
  // Buffer 1 is being written: passed over by the readers; newest tie keeps index 0.
  EXPECT_EQ(cam->xLockTheNewestBufferForReading(0, 320, 240, 9), 0);
  EXPECT_EQ(cam->xLockTheNewestBufferForReading(0, 320, 240, 9), 0);
  EXPECT_EQ(counts(images, &OX::OXVisionBuffer::fReadLockCount), (std::vector<int>{2, 0, 0}));
  // A read-held and a written buffer leave only buffer 2 for editing.
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0, 320, 240, 9), 2);
  // A format that nothing has: -1 and no counter changed.
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0, 640, 480, 9), -1);
  EXPECT_EQ(cam->xLockTheNewestBufferForReading(0, 320, 240, OX::kRGB), -1);
  EXPECT_EQ(counts(images, &OX::OXVisionBuffer::fWriteLockCount), (std::vector<int>{0, 1, 1}));
  EXPECT_EQ(counts(images, &OX::OXVisionBuffer::fReadLockCount), (std::vector<int>{2, 0, 0}));

  // Raw pool, no format.
  raws[2]->fImage->fTimeStamp = 50;
  EXPECT_EQ(cam->xLockTheNewestBufferForReading(0), 2);
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0), 0);
  raws[1]->fWriteLockCount = 1;
  capture.clear();
  EXPECT_EQ(cam->xLockTheOldestBufferForEditing(0), -1);
  EXPECT_TRUE(capture.has(2, kCategory,
                          "OXVideoDevice: error searching for the oldest buffer to edit, please "
                          "verify that release method has been call."));
  EXPECT_EQ(counts(raws, &OX::OXVisionBuffer::fWriteLockCount), (std::vector<int>{1, 1, 0}));
}

// Erasing keeps the order of the others; held or empty pools give a record instead of a hang.
TEST(DeviceCore, EraseAndForcedRelease) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
  for (int i = 0; i < 3; ++i) cam->xCreateBuffersForStoringImages(0, 1, 9);
  Pool& raws = cam->camera(0).fRawBuffers;
  const Pool before = raws;
  for (int i = 0; i < 3; ++i) raws[i]->fImage->fTimeStamp = 10 * (3 - i);
  cam->xFindAndEraseTheOldestBuffer(raws);
  EXPECT_EQ(raws, (Pool{before[0], before[1]}));
  raws[0]->fReadLockCount = 1;
  raws[1]->fReadLockCount = 1;
  cam->xFindAndEraseTheOldestBuffer(raws);
  EXPECT_EQ(raws.size(), 2u);
  EXPECT_TRUE(capture.has(2, kCategory,
                          "OXVideoDevice: xFindAndEraseTheOldestBuffer(): every buffer is held, "
                          "none erased."));
  Pool empty;
  cam->xFindAndEraseTheOldestBuffer(empty);
  EXPECT_TRUE(capture.has(2, kCategory,
                          "OXVideoDevice: xFindAndEraseTheOldestBuffer(): no buffer to erase, the "
                          "pool is empty."));

  // The format form erases only the subscriber's format.
  cam->xCreateBuffersForStoringImages(0, 2, OX::kRGB);
  auto info = boost::make_shared<OX::VisionModuleInfo>();
  info->fName = "m";
  info->fActiveCamera = 0;
  for (int i = 0; i < 2; ++i) {
    info->fRequestedProperties.push_back(boost::make_shared<OX::RequestedCameraProperties>());
  }
  info->fRequestedProperties[0]->fResolution = 2;
  info->fRequestedProperties[0]->fColorSpace = OX::kRGB;
  Pool& images = cam->camera(0).fImageBuffers;
  OX::OXVisionBuffer* rgb = images[3];
  cam->xFindAndEraseTheOldestBuffer(images, info);
  EXPECT_EQ(images.size(), 3u);
  EXPECT_EQ(std::count(images.begin(), images.end(), rgb), 0);

  // Forced release: unknown name logs; a converted hold is lowered here, a raw one by the driver.
  capture.clear();
  cam->xForceReleaseBuffer("nobody");
  EXPECT_TRUE(capture.has(2, kCategory, "xForceReleaseBuffer(nobody) : module nobody unknown!"));
  cam->fVisionModules["m"] = info;
  images[1]->fReadLockCount = 1;
  info->fRequestedProperties[0]->fLockedImage = images[1];
  info->fRequestedProperties[1]->fLockedImage = raws[0];
  cam->xForceReleaseBuffer("m");
  EXPECT_EQ(images[1]->fReadLockCount, 0);
  EXPECT_EQ(info->fRequestedProperties[0]->fLockedImage, nullptr);
  EXPECT_EQ(info->fRequestedProperties[1]->fLockedImage, nullptr);
  EXPECT_EQ(cam->fRawReleases, 1);
  cam->fVisionModules.clear();
}

// xUpdateParam follows the highest wish of every subscriber, and the default when none is left.
TEST(DeviceCore, UpdateParamRaisesAndLowersTheCamera) {
  vitest::LogCapture capture;
  vitest::TestClock clock;
  auto cam = vitest::makeFakeCam();
  using Call = FakeCam::SetCall;
  cam->subscribeCamera("fast", 0, OX::kVGA, OX::kYUV422, 30);
  cam->subscribeCamera("slow", 0, OX::kQVGA, OX::kYUV422, 5);
  EXPECT_EQ(cam->setCalls(), (std::vector<Call>{{0, 14, 2, false}, {0, 15, 30, false}}));
  EXPECT_EQ(cam->getResolution(0), OX::kVGA);
  EXPECT_EQ(cam->getFrameRate(0), 30);
  EXPECT_TRUE(capture.has(4, kCategory, "OXVideoDevice: New resolution changed to 2"));
  EXPECT_TRUE(capture.has(4, kCategory, "OXVideoDevice: New framerate: 30"));
  cam->clearSetCalls();
  {
    OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
    // A subscriber on camera 1 counts for camera 0 too; lowering "fast" then lowers the camera.
    cam->info("fast").fRequestedProperties[0]->fResolution = OX::kQQVGA;
    cam->xUpdateParam(0);
    EXPECT_EQ(cam->camera(0).fResolution, OX::kQVGA);  // never below the default
    for (auto* raw : cam->camera(0).fRawBuffers) EXPECT_EQ(raw->fImage->fWidth, 320);
    cam->info("fast").fFrameRate = 5;
    cam->xUpdateParam(0);
    EXPECT_EQ(cam->setCalls(), (std::vector<Call>{{0, 14, 1, false}, {0, 15, 5, false}}));
    // A raw buffer read and written by others: the bounded wait gives up and says so.
    cam->info("slow").fRequestedProperties[0]->fResolution = OX::kVGA;
    cam->camera(0).fRawBuffers[0]->fReadLockCount = 1;
    cam->camera(0).fRawBuffers[0]->fWriteLockCount = 1;
    const int64_t start = clock.now();
    cam->xUpdateParam(0);
    EXPECT_EQ(clock.now() - start, 2000 * 500);
    EXPECT_TRUE(capture.has(2, kCategory,
                            "OXVideoDevice: raw buffer 0 is still being written, its resolution "
                            "is left unchanged."));
    EXPECT_EQ(cam->camera(0).fRawBuffers[0]->fImage->fWidth, 320);
    EXPECT_EQ(cam->camera(0).fRawBuffers[1]->fImage->fWidth, 640);
    cam->camera(0).fRawBuffers[0]->fReadLockCount = 0;
    cam->camera(0).fRawBuffers[0]->fWriteLockCount = 0;
  }
  cam->unsubscribe("fast");
  cam->unsubscribe("slow");
  cam->clearSetCalls();
  // No subscriber: restart at the default values, without the driver's setter; then nothing.
  {
    OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
    cam->camera(1).fFrameRate = 30;
    const int starts = cam->fStarts[1];
    cam->xUpdateParam(1);
    EXPECT_EQ(cam->fStops[1], 1);
    EXPECT_EQ(cam->fStarts[1], starts + 1);
    EXPECT_EQ(cam->camera(1).fFrameRate, 5);
    EXPECT_EQ(cam->camera(1).fResolution, OX::kQVGA);
    cam->xUpdateParam(1);
    EXPECT_EQ(cam->fStops[1], 1);
  }
  EXPECT_TRUE(cam->setCalls().empty());
}

// Parameter operations and queries reach the right camera with the right value, and refuse with
// their own (sometimes borrowed) words.
TEST(DeviceCore, ParametersQueriesAndRefusals) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  EXPECT_EQ(cam->getCameraModel(1), OX::kMT9M114);
  EXPECT_EQ(cam->getCameraModelID(), OX::kOV7670);
  EXPECT_EQ(cam->getColorSpace(1), OX::kYUV422);
  EXPECT_EQ(cam->getActiveCamera(), 0);
  EXPECT_TRUE(cam->isFrameGrabberOff());
  cam->camera(1).fGrabberState = OX::GrabberState::kFailed;
  EXPECT_TRUE(cam->isFrameGrabberOff(1));
  EXPECT_TRUE(cam->startFrameGrabber(1));
  EXPECT_FALSE(cam->isFrameGrabberOff(1));
  cam->fStopFails[0] = true;
  EXPECT_FALSE(cam->stopFrameGrabber());
  EXPECT_EQ(cam->fStops[1], 0);
  EXPECT_EQ(cam->resolutionToSizes(3), OX::OXValue(std::vector<int>{1280, 960}));
  EXPECT_EQ(cam->sizesToResolution(640, 480), OX::kVGA);
  EXPECT_EQ(cam->sizesToResolution(641, 480), -1);

  using Call = FakeCam::SetCall;
  const std::string mono = cam->subscribeCamera("mono", 1, 1, 9, 5);
  const std::string multi = cam->subscribeCameras(
      "multi", std::vector<int>{1, 0}, std::vector<int>{1, 1}, std::vector<int>{9, 9}, 5);
  cam->clearSetCalls();
  EXPECT_EQ(cam->getCameraParameter(mono, 14), 101);
  EXPECT_TRUE(cam->setCameraParameter(mono, 20, 3));
  EXPECT_TRUE(cam->setCameraParameterToDefault(mono, 20));
  EXPECT_EQ(cam->getCamerasParameter(multi, 15), OX::OXValue(std::vector<int>{105, 5}));
  EXPECT_EQ(cam->setCamerasParameter(multi, 16, std::vector<int>{99, 7}),
            OX::OXValue(std::vector<int>{0, 1}));
  EXPECT_EQ(cam->setCamerasParameterToDefault(multi, 16), OX::OXValue(std::vector<int>{1, 1}));
  cam->setParam(16, 8);
  cam->setParam(16, 9, 1);
  cam->setParamDefault(16);
  EXPECT_EQ(cam->getParam(14), 1);
  EXPECT_EQ(cam->getParam(14, 1), 101);
  EXPECT_EQ(cam->setCalls(), (std::vector<Call>{{1, 20, 3, false},
                                                {1, 20, -1, true},
                                                {1, 16, 99, false},
                                                {0, 16, 7, false},
                                                {1, 16, -1, true},
                                                {0, 16, -1, true},
                                                {0, 16, 8, false},
                                                {1, 16, 9, false},
                                                {0, 16, 0, true}}));
  // What the driver raises passes through.
  EXPECT_EQ(raised([&] { cam->getCameraParameter(mono, 3); }).getDescription(),
            "Bad input parameter ID");
  EXPECT_EQ(raised([&] { cam->getParam(3); }).getDescription(), "Bad input parameter ID");

  struct Refusal {
    std::function<void()> call;
    std::string method;
    std::string text;
  };
  const std::vector<Refusal> refusals = {
      {[&] { cam->getCameraParameter("x", 14); }, "getCameraParameter()",
       "getCameraParameter(x) : module x unknown!"},
      {[&] { cam->setCameraParameterToDefault("x", 14); }, "setCameraParameterToDefault()",
       "SetCameraParameterToDefault(x) : module x unknown!"},
      {[&] { cam->setCamerasParameter("x", 14, std::vector<int>{}); }, "setCamerasParameter()",
       "getCamerasParameter(x) : module x unknown!"},
      {[&] { cam->setCameraParameter(multi, 14, 1); }, "setCameraParameter()",
       "Multi stream module can't call this method, use setCamerasParameter instead"},
      {[&] { cam->setCamerasParameterToDefault(mono, 14); }, "setCamerasParameterToDefault()",
       "Mono stream module can't call this method, use setCameraParameterToDefault instead"},
      {[&] { cam->setCamerasParameter(multi, 14, std::vector<int>{}); }, "setCamerasParameter()",
       "Could not set cameras parameter to module: multi\nInput parameters have the wrong size: "
       "0 expected size: 2"},
      {[&] { cam->getResolution(-1); }, "getResolution()",
       "getResolution(-1) : invalid Camera index"},
      {[&] { cam->getResolution(2); }, "getResolution()",
       "getResolution(2) : invalid Camera index"},
      {[&] { cam->isFrameGrabberOff(5); }, "isFrameGrabberOff()",
       "stopFrameGrabber(5) : invalid Camera index"},
      {[&] { cam->getCameraModel(2); }, "getCameraModel()",
       "getCameraModel(2) : invalid Camera index"},
      {[&] { cam->getFrameRate(2); }, "getFrameRate()", "getFrameRate(2) : invalid Camera index"},
      {[&] { cam->getColorSpace(2); }, "getColorSpace()",
       "getColorSpace(2) : invalid Camera index"},
      {[&] { cam->startFrameGrabber(2); }, "startFrameGrabber()",
       "startFrameGrabber(2) : invalid Camera index"},
      {[&] { cam->stopFrameGrabber(-3); }, "stopFrameGrabber()",
       "stopFrameGrabber(-3) : invalid Camera index"},
      {[&] { cam->resolutionToSizes(7); }, "resolutionToSizes()",
       "Only takes k4VGA, kVGA, kQVGA and kQQVGA as input"},
      {[&] { cam->putImage(0, 1, 1, OX::OXValue()); }, "putImage()",
       "Only implemented for simulator"},
      {[&] { cam->putImage(OX::OXValue()); }, "putImage()", "Only implemented for simulator"},
      {[&] { cam->setSimCamInputSize(1, 1); }, "putImage()", "Only implemented for simulator"},
      {[&] { cam->getExpectedImageParameters(); }, "putImage()", "Only implemented for simulator"},
      {[&] { cam->getExpectedImageParameters(0); }, "getExpectedImageParameters()",
       "Only implemented for simulator"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.text);
    capture.clear();
    const OX::OXError error = raised(refusal.call);
    EXPECT_EQ(error.getDescription(), refusal.text);
    EXPECT_EQ(error.getFunctionName(), refusal.method);
    EXPECT_EQ(error.getModuleName(), "OXVideoDevice");
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
    EXPECT_TRUE(capture.has(2, kCategory, refusal.text));
  }
  cam->unsubscribe(mono);
  cam->unsubscribe(multi);
}

}  // namespace
