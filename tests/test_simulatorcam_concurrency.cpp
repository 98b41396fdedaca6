// The simulator camera under concurrent use: a pusher against subscribers taking and giving back
// raw frames. Meant to run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;

// A frame seen half written, a counter changed outside its lock, or a raw frame rewritten while
// lent would show as a race, a wrong byte or a count that does not return to zero.
TEST(SimulatorCamConcurrency, PushWhileTwoSubscribersTakeAndRelease) {
  auto cam = vitest::makeSimulatorCam();
  const std::string a = cam->subscribe("a", OX::kQVGA, OX::kYUV422, 5);
  const std::string b = cam->subscribe("b", OX::kQVGA, OX::kYUV422, 5);
  // A black first frame, so that every frame a subscriber can see is uniform.
  const std::vector<unsigned char> black(160 * 120 * 3, 0);
  ASSERT_TRUE(cam->putImage(0, 160, 120, OX::OXValue::binary(black.data(), black.size())));
  std::atomic<bool> stop{false};
  std::atomic<int> taken{0};
  std::atomic<int> failures{0};

  std::thread pusher([&] {
    // Uniform frames: every byte of a converted frame must then be one of a few values.
    std::vector<unsigned char> rgb(160 * 120 * 3);
    // Goes on past 300 frames until the subscribers have taken some: on a loaded machine their
    // threads may not have started before the first 300 are pushed.
    for (int i = 0; (i < 300 || taken < 2) && i < 1000000 && failures == 0; ++i) {
      std::fill(rgb.begin(), rgb.end(), static_cast<unsigned char>(i % 2 == 0 ? 0 : 255));
      if (!cam->putImage(0, 160, 120, OX::OXValue::binary(rgb.data(), rgb.size()))) ++failures;
      std::this_thread::yield();
    }
    stop = true;
  });
  auto subscriber = [&](const std::string& pId) {
    while (!stop) {
      OX::OXImage* image = cam->getDirectRawImageLocal(pId);
      if (image == nullptr) {
        ++failures;
        break;
      }
      // Black (16 128 16 128) or white (235 128 235 128), never a mix within one pair.
      const unsigned char first = image->fData[0];
      if ((first != 16 && first != 235) || image->fData[2] != first || image->fData[1] != 128) {
        ++failures;
      }
      ++taken;
      if (!cam->releaseDirectRawImage(pId)) ++failures;
    }
  };
  std::thread first(subscriber, a);
  std::thread second(subscriber, b);
  pusher.join();
  first.join();
  second.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GT(taken, 0);
  for (const auto& frame : Hook::store(*cam, 0).fDriverBuffers) {
    EXPECT_EQ(frame->fReadLockCount, 0);
  }
  cam->unsubscribe(a);
  cam->unsubscribe(b);
}

}  // namespace
