// The device's status for the host (OXModuleStatus): each camera as it runs, each subscriber with
// its wishes, and what the device counts of every subscriber's service.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "device/oxvisionvideoinputcounts.h"
#include "oxmodulestatus.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using namespace std::chrono;
using Clock = OX::SubscriberCounts::Clock;
using Entries = std::vector<OX::OXStatusEntry>;

const OX::OXStatusEntry* find(const Entries& pEntries, const std::string& pKind,
                              const std::string& pId) {
  for (const OX::OXStatusEntry& entry : pEntries) {
    if (entry.fKind == pKind && entry.fId == pId) return &entry;
  }
  return nullptr;
}

OX::OXValue field(const OX::OXStatusEntry& pEntry, const std::string& pName) {
  for (const auto& item : pEntry.fFields) {
    if (item.first == pName) return item.second;
  }
  ADD_FAILURE() << "no field " << pName << " in " << pEntry.fId;
  return OX::OXValue();
}

double count(const OX::OXStatusEntry& pEntry, const std::string& pName) {
  for (const auto& item : pEntry.fCounts) {
    if (item.fName == pName) return item.fValue;
  }
  ADD_FAILURE() << "no count " << pName << " in " << pEntry.fId;
  return -2;
}

// Guards against a served rate that is off for a steady subscriber, stays up once the subscriber
// stopped asking, or shows before there are two requests to measure between.
TEST(SubscriberCounts, ServedRateAndAgeFollowTheRequests) {
  struct Case {
    const char* fWhat;
    int fDeliveries;
    microseconds fInterval;
    milliseconds fAfter;  // from the last delivery to the reading
    double fRate;
  };
  const Case cases[] = {
      {"none yet", 0, microseconds(66667), milliseconds(0), 0},
      {"a single one", 1, microseconds(66667), milliseconds(0), 0},
      {"15 per second", 10, microseconds(66667), milliseconds(10), 15},
      {"30 per second past the window", 100, microseconds(33333), milliseconds(20), 30},
      // 32 deliveries 0.1 s apart, then a second of silence: 31 intervals over 4.1 s.
      {"stopped a second ago", 40, microseconds(100000), milliseconds(1000), 31 / 4.1},
  };
  for (const Case& c : cases) {
    OX::SubscriberCounts counts;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < c.fDeliveries; ++i) counts.delivered(start + i * c.fInterval);
    const Clock::time_point last = start + (c.fDeliveries - 1) * c.fInterval;
    const Clock::time_point now = last + c.fAfter;
    EXPECT_NEAR(counts.servedRate(now), c.fRate, 0.01) << c.fWhat;
    EXPECT_EQ(counts.images(), static_cast<std::uint64_t>(c.fDeliveries)) << c.fWhat;
    if (c.fDeliveries == 0) {
      EXPECT_EQ(counts.lastImageAge(now), -1) << c.fWhat;
    } else {
      EXPECT_NEAR(counts.lastImageAge(now), duration<double>(c.fAfter).count(), 1e-6) << c.fWhat;
    }
  }
}

class Status : public ::testing::Test {
 protected:
  vitest::TestClock clock;
  boost::shared_ptr<OX::OXBroker> broker;
  boost::shared_ptr<OX::OXVisionSimulatorCam> cam = vitest::makeSimulatorCam(&broker);

  void push(int pCamera, uint32_t pSeed, int pResolution = OX::kQVGA) {
    int width = 0;
    int height = 0;
    OX::setSizeFromResolution(pResolution, width, height);
    ASSERT_TRUE(cam->putImage(pCamera, width, height, vitest::rgbFrame(pResolution, pSeed)));
  }
  // What the host sees: the interface found on the broker's module object.
  Entries status() {
    auto* found = dynamic_cast<OX::OXModuleStatus*>(broker->getModuleCoreByName(cam->getName()).get());
    EXPECT_NE(found, nullptr);
    return found != nullptr ? found->getStatus() : Entries();
  }
};

// Guards against counts that miss a way of being served (converted, shared, raw, several
// streams) or that count a conversion for an image that was only shared.
TEST_F(Status, EachSubscriberCountsWhatItWasServed) {
  cam->subscribeCamera("a", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("b", 0, OX::kQVGA, OX::kRGB, 30);
  cam->subscribeCamera("raw", 0, OX::kQVGA, OX::kYUV422, 30);
  cam->subscribeCameras("many", OX::OXValue(std::vector<int>{0, 1}),
                        OX::OXValue(std::vector<int>{OX::kQVGA, OX::kQQVGA}),
                        OX::OXValue(std::vector<int>{OX::kYuv, OX::kBGR}), 30);
  for (int frame = 0; frame < 3; ++frame) {
    clock.advance(40000);
    push(0, frame);
    push(1, 100 + frame);
    ASSERT_TRUE(cam->getImageRemote("a").isValid());
    ASSERT_TRUE(cam->getImageRemote("b").isValid());  // shares a's conversion
    ASSERT_TRUE(cam->getDirectRawImageRemote("raw").isValid());
    ASSERT_TRUE(cam->getImagesRemote("many").isValid());
  }
  const Entries entries = status();
  struct Expected {
    const char* fId;
    double fImages;
    double fConversions;
  };
  for (const Expected& e : {Expected{"a", 3, 3}, Expected{"b", 3, 0}, Expected{"raw", 3, 0},
                            Expected{"many", 6, 6}}) {
    const OX::OXStatusEntry* entry = find(entries, "subscriber", e.fId);
    ASSERT_NE(entry, nullptr) << e.fId;
    EXPECT_EQ(count(*entry, "images_delivered_total"), e.fImages) << e.fId;
    EXPECT_EQ(count(*entry, "conversions_total"), e.fConversions) << e.fId;
    EXPECT_EQ(count(*entry, "converting_seconds_total") > 0, e.fConversions > 0) << e.fId;
    EXPECT_GE(count(*entry, "last_image_age_seconds"), 0) << e.fId;
  }
  const OX::OXStatusEntry& many = *find(entries, "subscriber", "many");
  EXPECT_EQ(field(many, "streams").asString(), "several");
  EXPECT_EQ(field(many, "cameras").asString(), "0, 1");
  EXPECT_EQ(field(many, "resolutions").asString(), "1, 0");
  EXPECT_EQ(field(many, "colorSpaces").asString(), "0, 13");
  EXPECT_EQ(field(*find(entries, "subscriber", "a"), "fps").asInt(), 30);
}

// Guards against a camera shown with values that the device's own queries would not give.
TEST_F(Status, CamerasShowWhatTheyRunAt) {
  cam->subscribeCamera("a", 1, OX::kVGA, OX::kRGB, 15);
  clock.advance(40000);
  push(1, 1, OX::kVGA);
  ASSERT_TRUE(cam->getImageRemote("a").isValid());
  const Entries entries = status();
  for (int camera : {0, 1}) {
    const OX::OXStatusEntry* entry = find(entries, "camera", std::to_string(camera));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(field(*entry, "resolution").asInt(), cam->getResolution(camera));
    EXPECT_EQ(field(*entry, "frameRate").asInt(), cam->getFrameRate(camera));
    EXPECT_EQ(field(*entry, "colorSpace").asInt(), cam->getColorSpace(camera));
    EXPECT_EQ(field(*entry, "model").asInt(), cam->getCameraModel(camera));
    EXPECT_EQ(field(*entry, "grabber").asString() == "running", !cam->isFrameGrabberOff(camera));
    EXPECT_EQ(field(*entry, "kCameraResolutionID (14)").asInt(), cam->getParam(14, camera));
    EXPECT_EQ(field(*entry, "width").asInt(), camera == 1 ? 640 : 320);
    EXPECT_TRUE(entry->fCounts.empty());
  }
}

// Guards against a data race between the status and the image path: readers of the status run
// beside subscribers that are served, come and go.
TEST_F(Status, ReadsBesideDeliveries) {
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([this, t] {
      const std::string name = "s" + std::to_string(t);
      for (int round = 0; round < 20; ++round) {
        cam->subscribeCamera(name, 0, OX::kQVGA, t == 0 ? OX::kRGB : OX::kYUV, 30);
        clock.advance(40000);
        push(0, static_cast<uint32_t>(round));
        cam->getImageRemote(name);
        cam->unsubscribe(name);
      }
    });
  }
  std::thread reader([this, &done] {
    while (!done) status();
  });
  for (std::thread& thread : threads) thread.join();
  done = true;
  reader.join();
  EXPECT_EQ(find(status(), "subscriber", "s0"), nullptr);
}

}  // namespace
