// The subscriber registry through a fake camera: subscribing with one or several cameras, unique
// ids, leaving (also by force and on disconnection), and concurrent use.
#include <gtest/gtest.h>

#include <thread>

#include "fakecamera.h"
#include "oxproxies.h"
#include "testsupport.h"

namespace {

using vitest::FakeCam;
const char* const kCategory = "vision.oxvisionvideoinput";

using vitest::raised;

// Frame-rate clamps, the HD rule and what a mono-stream subscription builds.
TEST(DeviceSubscribers, MonoStreamSubscriptionClampsAndBuilds) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  const std::string slow = cam->subscribeCamera("slow", 1, OX::kQVGA, OX::kRGB, 4);
  EXPECT_TRUE(capture.has(3, kCategory, "Fps must be superior to 5, force fps to 5"));
  EXPECT_EQ(cam->info(slow).fFrameRate, 5);
  EXPECT_EQ(cam->info(slow).fActiveCamera, 1);
  ASSERT_EQ(cam->info(slow).fRequestedProperties.size(), 2u);
  EXPECT_EQ(cam->info(slow).fRequestedProperties[0]->fColorSpace, OX::kRGB);
  // One converted and one raw buffer on every camera; the grabber of the working one started.
  EXPECT_EQ(cam->camera(0).fImageBuffers.size(), 1u);
  EXPECT_EQ(cam->camera(1).fRawBuffers.size(), 1u);
  EXPECT_EQ(cam->fStarts[1], 1);
  capture.clear();
  cam->subscribe("five", OX::kQVGA, OX::kYUV422, 5);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(cam->info("five").fActiveCamera, -1);
  const std::string hd = cam->subscribe("hd", OX::k4VGA, OX::kYUV422, 30);
  EXPECT_TRUE(
      capture.has(4, kCategory, "FPS is decreased to 5 in HD. Use setFrameRate to increase it"));
  EXPECT_EQ(cam->info(hd).fFrameRate, 5);
  EXPECT_EQ(cam->camera(0).fResolution, OX::k4VGA);
  // A failed start leaves the record without buffers; leaving it logs instead of hanging.
  cam->fStartFails[0] = true;
  EXPECT_EQ(raised([&] { cam->subscribeCamera("broken", 0, 1, 9, 5); }).getDescription(),
            "Could not launch the startFrameGrabber function.");
  cam->fStartFails[0] = false;
  EXPECT_EQ(cam->fVisionModules.count("broken"), 1u);
  for (const std::string& name : {slow, std::string("five"), hd, std::string("broken")}) {
    cam->unsubscribe(name);
  }
  EXPECT_TRUE(cam->fVisionModules.empty());
  EXPECT_TRUE(cam->camera(0).fImageBuffers.empty());
  EXPECT_TRUE(capture.has(2, kCategory,
                          "OXVideoDevice: xFindAndEraseTheOldestBuffer(): no buffer to erase, the "
                          "pool is empty."));
}

// Every refusal of both subscribing operations, word for word; only the multi-stream one logs.
TEST(DeviceSubscribers, SubscribeValidationTexts) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  cam->fMaxResolution = OX::kVGA;
  using V = std::vector<int>;
  // One camera entry goes to subscribeCamera, which does not log; lists to subscribeCameras.
  struct Refusal {
    V cameras, resolutions, colorSpaces;
    bool multi;
    bool logged;
    std::string text;
  };
  const std::string m = "Could not subscribe module: m";
  const std::vector<Refusal> refusals = {
      {{0},
       {3},
       {9},
       false,
       false,
       m + "\n3 is an invalid Resolution; current device max resolution is \x01"},
      {{-1}, {1}, {7}, false, false, m + "\n7is not a valid color space"},
      {{2}, {1}, {9}, false, false, m + "\n2is not a valid camera index"},
      {{}, {1}, {9}, true, true, m + "\nSome input parameters are empty"},
      {{0, 1}, {1}, {9, 9}, true, true, m + "\nInput parameters have not the same size"},
      {{0, 0},
       {1, 1},
       {9, 9},
       true,
       true,
       m + "\nInvalid input parameters, list contains 2 elements but only 1 different elements "
           "(using several time the same camera is forbidden)"},
      {{-1}, {1}, {9}, true, false, "Unknown camera ID"},
      {{0, 1}, {1, 3}, {9, 9}, true, true, m + "1 3  is an invalid Resolution; "},
      {{0, 1}, {1, 1}, {9, 8}, true, true, m + "9 8 is not a valid color space"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.text);
    capture.clear();
    const OX::OXError error = raised([&] {
      if (refusal.multi) {
        cam->subscribeCameras("m", refusal.cameras, refusal.resolutions, refusal.colorSpaces, 5);
      } else {
        cam->subscribeCamera("m", refusal.cameras[0], refusal.resolutions[0],
                             refusal.colorSpaces[0], 5);
      }
    });
    EXPECT_EQ(error.getDescription(), refusal.text);
    EXPECT_EQ(error.getFunctionName(), refusal.multi ? "subscribeCameras" : "subscribeCamera");
    EXPECT_EQ(error.getModuleName(), "OXVideoDevice");
    EXPECT_EQ(capture.countLevel(2), refusal.logged ? 1 : 0);
    EXPECT_TRUE(!refusal.logged || capture.has(2, kCategory, refusal.text));
  }
  EXPECT_TRUE(cam->fVisionModules.empty());
  EXPECT_EQ(cam->fStarts[0] + cam->fStarts[1], 0);

  // [1, 0] keeps its order, buffers only on the listed cameras; two HD entries log twice.
  capture.clear();
  cam->fMaxResolution = OX::k4VGA;
  const std::string multi = cam->subscribeCameras("m", V{1, 0}, V{3, 3}, V{9, 11}, 30);
  EXPECT_EQ(capture.count("FPS is decreased to 5 in HD. Use setFrameRate to increase it"), 2);
  const OX::VisionModuleInfo& info = cam->info(multi);
  EXPECT_TRUE(info.fIsMultiStream);
  EXPECT_EQ(info.fActiveCameras, (V{1, 0}));
  EXPECT_EQ(info.fActiveCamera, 1);
  EXPECT_EQ(info.fFrameRate, 5);
  EXPECT_EQ(info.fRequestedProperties[0]->fColorSpace, OX::kRGB);
  EXPECT_EQ(cam->camera(0).fImageBuffers[0]->fImage->fColorSpace, OX::kRGB);
  cam->unsubscribe(multi);
  EXPECT_TRUE(cam->camera(0).fImageBuffers.empty());
  EXPECT_TRUE(cam->camera(1).fRawBuffers.empty());
}

// Eight instances of a name at most, ids reused after leaving, and the _8 left by the clean-up.
TEST(DeviceSubscribers, UniqueIdsAndUnsubscribeAllInstances) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  std::vector<std::string> ids;
  for (int i = 0; i < 8; ++i) ids.push_back(cam->subscribe("vm", 1, 9, 5));
  EXPECT_EQ(ids, (std::vector<std::string>{"vm", "vm_2", "vm_3", "vm_4", "vm_5", "vm_6", "vm_7",
                                           "vm_8"}));
  EXPECT_TRUE(capture.has(4, kCategory,
                          "OXVideoDevice: subscribeVideoModule: Name already in use. Id changed "
                          "to \"vm_8\""));
  const std::string ninth =
      "Could not subscribe module: vm\n8 instance of : vm have already subscribe to the video.\n"
      "Please unsubscribe before subscribing again this module.";
  EXPECT_EQ(raised([&] { cam->subscribe("vm", 1, 9, 5); }).getDescription(), ninth);
  capture.clear();
  EXPECT_EQ(raised([&] {
              cam->subscribeCameras("vm", std::vector<int>{0}, std::vector<int>{1},
                                    std::vector<int>{9}, 5);
            }).getDescription(),
            ninth);
  EXPECT_TRUE(capture.has(2, kCategory, ninth));
  cam->unsubscribe("vm_3");
  EXPECT_EQ(cam->subscribe("vm", 1, 9, 5), "vm_3");
  // A name ending in _2 is a base name of its own.
  EXPECT_EQ(cam->subscribe("vm_2", 1, 9, 5), "vm_2_2");
  EXPECT_EQ(cam->subscribeCameras("vm_2", std::vector<int>{0}, std::vector<int>{1},
                                  std::vector<int>{9}, 5),
            "vm_2_3");
  EXPECT_TRUE(
      capture.has(4, "vision.oxvisionatomcam",
                  "OXVideoDevice: subscribe: Name already in use. Id changed to \"vm_2_3\""));
  cam->unsubscribeAllInstances("vm");
  cam->unsubscribeAllInstances("unknown");
  std::vector<std::string> left;
  for (const auto& entry : cam->fVisionModules) left.push_back(entry.first);
  EXPECT_EQ(left, (std::vector<std::string>{"vm_2_2", "vm_2_3", "vm_8"}));
  const OX::OXError error = raised([&] { cam->unsubscribe("vm"); });
  EXPECT_EQ(error.getModuleName(), "OXVideoDevice");
  EXPECT_EQ(error.getFunctionName(), "unsubscribeVideoModule()");
  EXPECT_EQ(error.getDescription(),
            "Cannot unsubscribe \"vm\": module unknown from OXVideoDevice.");
  for (const std::string& id : left) cam->unsubscribe(id);
}

// A holder that never releases is waited for (fake time), then forced free, and it leaves.
TEST(DeviceSubscribers, UnsubscribeForcesReleaseAfterItsWait) {
  vitest::LogCapture capture;
  vitest::TestClock clock;
  auto cam = vitest::makeFakeCam();
  const std::string holder = cam->subscribeCamera("holder", 0, 1, 9, 5);
  const std::string raw = cam->subscribeCamera("raw", 0, 1, 9, 5);
  OX::OXVisionBuffer* held;
  {
    OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
    held = cam->camera(0).fImageBuffers[1];
    held->fReadLockCount = 1;
    cam->info(holder).fRequestedProperties[0]->fLockedImage = held;
    cam->info(raw).fRequestedProperties[0]->fLockedImage = cam->camera(0).fRawBuffers[0];
  }
  const int64_t start = clock.now();
  cam->unsubscribe(holder);
  EXPECT_EQ(clock.now() - start, 19999 * 500);
  EXPECT_TRUE(capture.has(3, kCategory,
                          "OXVideoDevice: Forced release of image by \"holder\" because it did not "
                          "release the image after one second."));
  EXPECT_EQ(cam->fVisionModules.count(holder), 0u);
  EXPECT_EQ(cam->camera(0).fImageBuffers.size(), 1u);
  // A raw image is given back through the driver.
  cam->unsubscribe(raw);
  EXPECT_EQ(cam->fRawReleases, 1);
  EXPECT_TRUE(cam->fVisionModules.empty());
  // A multi-stream holder leaves at once, without waiting: its hold goes with it.
  const std::string multi = cam->subscribeCameras(
      "multi", std::vector<int>{1, 0}, std::vector<int>{1, 1}, std::vector<int>{9, 9}, 5);
  {
    OX::OXCriticalSectionWrite lock(cam->fVisionModulesLock);
    cam->info(multi).fRequestedProperties[1]->fLockedImage = cam->camera(1).fImageBuffers[0];
  }
  const int64_t before = clock.now();
  cam->unsubscribe(multi);
  EXPECT_EQ(clock.now(), before);
  EXPECT_TRUE(cam->fVisionModules.empty());
  EXPECT_TRUE(cam->camera(0).fImageBuffers.empty());
  EXPECT_TRUE(cam->camera(1).fImageBuffers.empty());
}

// "ClientDisconnected" from the memory service removes the video monitor only.
TEST(DeviceSubscribers, ClientDisconnectedThroughMemoryService) {
  vitest::LogCapture capture;
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFakeCam(&broker);
  OX::OXMemoryProxy memory(broker);
  cam->subscribe("VideoMonitorGestura", 1, 9, 5);
  cam->subscribe("other", 1, 9, 5);
  memory.raiseEvent("ClientDisconnected", OX::OXValue("Choregraphe"));
  EXPECT_EQ(cam->fVisionModules.size(), 2u);
  memory.raiseEvent("ClientDisconnected", OX::OXValue("Gestura"));
  EXPECT_EQ(cam->fVisionModules.count("VideoMonitorGestura"), 0u);
  capture.clear();
  memory.raiseEvent("ClientDisconnected", OX::OXValue("Gestura"));
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 3);
  EXPECT_EQ(records[0].message,
            "Cannot unsubscribe \"VideoMonitorGestura\": module unknown from OXVideoDevice.");
  cam->onClientDisconnected("OtherEvent", OX::OXValue(3), "");
  cam->unsubscribe("other");
}

// Threads subscribing, reading and changing parameters and leaving at once leave a consistent,
// empty registry behind.
TEST(DeviceSubscribers, ConcurrentSubscribeAndUnsubscribe) {
  vitest::LogCapture capture;
  auto cam = vitest::makeFakeCam();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&cam, t] {
      for (int i = 0; i < 10; ++i) {
        const std::string id =
            t % 2 == 0 ? cam->subscribe("module", 1 + i % 2, 9, 5 + i)
                       : cam->subscribeCameras("module", std::vector<int>{1, 0},
                                               std::vector<int>{1, 2}, std::vector<int>{9, 11}, 10);
        cam->getResolution(0);
        if (t % 2 == 0) {
          cam->getCameraParameter(id, 14);
          cam->setCameraParameter(id, 15, 10);
        } else {
          cam->getCamerasParameter(id, 14);
          cam->setCamerasParameter(id, 15, std::vector<int>{10, 15});
        }
        cam->getParam(15);
        cam->unsubscribe(id);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(cam->fVisionModules.empty());
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(cam->camera(i).fImageBuffers.empty());
    EXPECT_TRUE(cam->camera(i).fRawBuffers.empty());
  }
  EXPECT_EQ(capture.countLevel(2), 0);
}

}  // namespace
