// Video recording on the simulator camera, read back with OXVideo: which requests write, what
// they write, when the file closes, and the refusals of recordVideo and stopVideo.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "oxvideo.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using vitest::Hook;
using Cam = boost::shared_ptr<OX::OXVisionSimulatorCam>;
using Bytes = std::vector<unsigned char>;
const char* const kCategory = "vision.oxvisionvideoinput";

struct Frame {
  Bytes bytes;
  int64_t stamp;
  int cameraId;
  bool operator==(const Frame& pOther) const {
    return bytes == pOther.bytes && stamp == pOther.stamp && cameraId == pOther.cameraId;
  }
};

std::vector<Frame> readBack(const std::string& pPath, OX::streamHeader* pHeader = nullptr) {
  OX::OXVideo video;
  std::vector<Frame> frames;
  EXPECT_TRUE(video.readVideo(pPath));
  EXPECT_EQ(video.getNumberOfStreams(), 1);
  if (pHeader != nullptr && video.getNumberOfStreams() == 1) *pHeader = video.getStreams()[0];
  OX::OXImage image(OX::k4VGA, OX::kRGB);
  for (int i = 0; i < video.getNumberOfImages(); ++i) {
    EXPECT_TRUE(video.getFrame(&image, i, 0, false));
    frames.push_back(
        {Bytes(image.fData, image.fData + image.getSize()), image.fTimeStamp, image.fCameraId});
  }
  return frames;
}

// "m" converts to RGB; "w" takes the raw frames, to show what the camera made.
class Recording : public ::testing::Test {
 protected:
  Recording() {
    cam->subscribeCamera("m", 0, OX::kQVGA, OX::kRGB, 30);
    cam->subscribeCamera("w", 0, OX::kQVGA, OX::kYUV422, 30);
  }
  OX::VisionModuleInfo& info() { return Hook::info(*cam, "m"); }

  // One converting request of "m": a fresh frame, an image got and given back, and the raw frame
  // that the camera made of it, as "w" sees it.
  Frame request(uint32_t pSeed) {
    clock.advance(40000);  // more than one period at 30 fps: nothing is fresh any more
    EXPECT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, pSeed)));
    const int before = cam->conversionCountForTesting();
    EXPECT_NE(cam->getImageLocal("m"), nullptr);
    EXPECT_TRUE(cam->releaseImage("m"));
    EXPECT_EQ(cam->conversionCountForTesting(), before + 1);
    Frame frame{{}, 0, 0};
    OX::OXImage* raw = Hook::getRaw(*cam, "w");
    EXPECT_NE(raw, nullptr);
    if (raw == nullptr) return frame;
    frame.bytes.assign(raw->fData, raw->fData + raw->getSize());
    frame.stamp = raw->fTimeStamp;
    frame.cameraId = raw->fCameraId;
    Hook::releaseRaw(*cam, "w", 0);
    return frame;
  }

  vitest::TestClock clock;
  vitest::TempDir dir;
  Cam cam = vitest::makeSimulatorCam();
};

// Guards against writing the wrong requests, the converted image instead of the raw one, or a
// close at the last frame instead of the request after it.
TEST_F(Recording, PeriodTwoWritesRequestsTwoFourSixAndClosesAtTheSeventh) {
  const std::string path = dir.file("three.oxv");
  ASSERT_TRUE(cam->recordVideo("m", path, 3, 2));
  std::vector<Frame> made;
  for (int k = 1; k <= 6; ++k) {
    made.push_back(request(static_cast<uint32_t>(k)));
    EXPECT_TRUE(info().fIsRecording) << k;
  }
  EXPECT_EQ(info().fRecordedCount, 3);
  request(7);
  EXPECT_FALSE(info().fIsRecording);
  EXPECT_EQ(info().fVideo, nullptr);
  OX::streamHeader header{};
  const std::vector<Frame> frames = readBack(path, &header);
  EXPECT_TRUE(frames == (std::vector<Frame>{made[1], made[3], made[5]}));  // requests 2, 4, 6
  // The camera's format, not the subscriber's RGB.
  EXPECT_EQ(header.width, 320);
  EXPECT_EQ(header.height, 240);
  EXPECT_EQ(header.colorSpace, OX::kYUV422);
  EXPECT_EQ(header.pixelDepth, 8);
}

// Guards against an "unlimited" total that never ends and a period of 0 that writes every time.
TEST_F(Recording, UnlimitedTotalRecordsOneAndPeriodZeroRecordsNothing) {
  ASSERT_TRUE(cam->recordVideo("m", dir.file("one.oxv"), static_cast<int>(0xFFFFFFFFu), 1));
  EXPECT_EQ(info().fRecordTotal, 1);
  const Frame first = request(1);
  EXPECT_TRUE(info().fIsRecording);
  request(2);
  EXPECT_FALSE(info().fIsRecording);
  const std::vector<Frame> one = readBack(dir.file("one.oxv"));
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].bytes, first.bytes);

  ASSERT_TRUE(cam->recordVideo("m", dir.file("none.oxv"), 5, 0));
  EXPECT_EQ(info().fRecordPeriod, 1);
  EXPECT_EQ(info().fRecordCountdown, -1);
  for (int k = 0; k < 5; ++k) request(static_cast<uint32_t>(10 + k));
  EXPECT_TRUE(info().fIsRecording);
  EXPECT_EQ(info().fRecordedCount, 0);
  EXPECT_TRUE(cam->stopVideo("m"));
  EXPECT_TRUE(readBack(dir.file("none.oxv")).empty());
}

// Guards against the raw paths skipping the step, or counting a request that got no frame.
TEST_F(Recording, DirectRawRequestsRecordAndNullIsSkipped) {
  vitest::LogCapture capture;
  ASSERT_TRUE(cam->recordVideo("m", dir.file("raw.oxv"), 2, 1));
  // No frame was pushed yet: nothing comes, nothing is counted.
  EXPECT_EQ(cam->getDirectRawImageLocal("m"), nullptr);
  EXPECT_EQ(info().fRecordCountdown, 0);
  clock.advance(1000);
  ASSERT_TRUE(cam->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, 3)));
  const int64_t pushed = clock.now();
  OX::OXImage* raw = cam->getDirectRawImageLocal("m");
  ASSERT_NE(raw, nullptr);
  const Bytes expected(raw->fData, raw->fData + raw->getSize());
  EXPECT_TRUE(cam->releaseDirectRawImage("m"));
  EXPECT_TRUE(cam->getDirectRawImageRemote("m").isArray());
  EXPECT_EQ(info().fRecordedCount, 2);
  EXPECT_TRUE(cam->stopVideo("m"));
  const std::vector<Frame> frames = readBack(dir.file("raw.oxv"));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].bytes, expected);
  EXPECT_EQ(frames[1].bytes, expected);
  EXPECT_EQ(frames[0].stamp, pushed);
}

// Guards against a recording outliving its subscriber, or a restart keeping the old counters.
TEST_F(Recording, RestartUnsubscribeAndUnopenableFile) {
  ASSERT_TRUE(cam->recordVideo("m", dir.file("a.oxv"), 3, 1));
  request(1);
  ASSERT_TRUE(cam->recordVideo("m", dir.file("b.oxv"), 3, 1));
  EXPECT_EQ(info().fRecordedCount, 0);
  EXPECT_EQ(readBack(dir.file("a.oxv")).size(), 1u);  // the first file keeps what it had
  request(2);
  cam->unsubscribe("m");
  EXPECT_EQ(readBack(dir.file("b.oxv")).size(), 1u);
  cam->subscribeCamera("m", 0, OX::kQVGA, OX::kRGB, 30);
  vitest::LogCapture capture;
  // A file that cannot be opened: false, and still a recording whose writes do nothing.
  EXPECT_FALSE(cam->recordVideo("m", dir.file("missing/dir/c.oxv"), 3, 1));
  EXPECT_TRUE(info().fIsRecording);
  request(3);
  EXPECT_TRUE(cam->stopVideo("m"));
  EXPECT_TRUE(cam->stopVideo("m"));  // nothing recording: true all the same
  EXPECT_FALSE(info().fIsRecording);
}

// Guards against texts that clients match changing, and the other family recording.
TEST_F(Recording, Refusals) {
  cam->subscribeCameras("many", OX::OXValue(std::vector<int>{0, 1}),
                        OX::OXValue(std::vector<int>{OX::kQVGA, OX::kQVGA}),
                        OX::OXValue(std::vector<int>{OX::kRGB, OX::kRGB}), 30);
  vitest::LogCapture capture;
  const std::string multi = "Multi stream module can't call this method";
  struct Refusal {
    std::string method, name, text;
  };
  const std::vector<Refusal> refusals = {
      {"recordVideo", "x", "recordVideo(x) : module x unknown!"},
      {"recordVideo", "many", multi},
      {"stopVideo", "x", "stopVideo(x, ...) : module x unknown!"},
      {"stopVideo", "many", multi}};
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.method + "(" + refusal.name + ")");
    capture.clear();
    const OX::OXError error = vitest::raised([&] {
      if (refusal.method == "recordVideo") {
        cam->recordVideo(refusal.name, dir.file("x.oxv"), 1, 1);
      } else {
        cam->stopVideo(refusal.name);
      }
    });
    EXPECT_EQ(error.getDescription(), refusal.text);
    EXPECT_EQ(error.getFunctionName(), refusal.method + "()");
    EXPECT_TRUE(capture.has(2, kCategory, refusal.text));
  }
  EXPECT_FALSE(info().fIsRecording);
}

}  // namespace
