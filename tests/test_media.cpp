// Recordings as video files (tools/media): a device recording exported to every format and
// imported again replays through the file camera as the original did; a video generated with
// FFmpeg's test source imports and replays with its frame count and duration; every colour
// space a recording may hold exports in its own colours.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "filecamsupport.h"
#include "oxvideo.h"
#include "recordings.h"
#include "simulatorsupport.h"
#include "testsupport.h"
#include "toolimage.h"

namespace {

using Bytes = std::vector<unsigned char>;
struct Served {
  int64_t fStamp;
  Bytes fBytes;
};

// A picture a codec can compress as it would a camera's: gradients and a square that moves.
std::vector<unsigned char> scene(int pWidth, int pHeight, int pSeed) {
  std::vector<unsigned char> rgb(static_cast<size_t>(pWidth) * pHeight * 3);
  for (int y = 0; y < pHeight; ++y) {
    for (int x = 0; x < pWidth; ++x) {
      unsigned char* pixel = &rgb[(static_cast<size_t>(y) * pWidth + x) * 3];
      const bool square = x >= pSeed * 20 && x < pSeed * 20 + 40 && y >= 60 && y < 100;
      pixel[0] = static_cast<unsigned char>(square ? 240 : 255 * x / pWidth);
      pixel[1] = static_cast<unsigned char>(square ? 40 : 255 * y / pHeight);
      pixel[2] = static_cast<unsigned char>((pSeed * 40 + x / 4) % 256);
    }
  }
  return rgb;
}

// Records pCount QVGA frames of the simulator camera at uneven intervals.
void recordOnDevice(const std::string& pPath, int pCount, vitest::TestClock& pClock) {
  auto sim = vitest::makeSimulatorCam();
  sim->subscribeCamera("m", 0, OX::kQVGA, OX::kYUV422, 30);
  ASSERT_TRUE(sim->recordVideo("m", pPath, pCount, 1));
  for (int i = 0; i < pCount; ++i) {
    pClock.advance(33000 + 1237 * (i % 3));
    const std::vector<unsigned char> rgb = scene(320, 240, i);
    ASSERT_TRUE(sim->putImage(0, 320, 240, OX::OXValue::binary(rgb.data(), int(rgb.size()))));
    ASSERT_NE(sim->getDirectRawImageLocal("m"), nullptr);
    EXPECT_TRUE(sim->releaseDirectRawImage("m"));
  }
  EXPECT_TRUE(sim->stopVideo("m"));
}

// What the file camera serves of a recording, image by image in mode 0, pRequests times.
std::vector<Served> replay(const std::string& pPath, int pRequests) {
  auto cam = vitest::makeFileCam();
  cam->setVideo(pPath, OX::OXValue(), false, 0, 0);
  const std::string raw = cam->subscribeCamera("r", 0, OX::kQVGA, OX::kYUV422, 30);
  std::vector<Served> served;
  for (int i = 0; i < pRequests; ++i) {
    const OX::OXImage* image = cam->getDirectRawImageLocal(raw);
    if (image == nullptr) break;
    served.push_back({image->fTimeStamp, Bytes(image->fData, image->fData + image->getSize())});
    EXPECT_TRUE(cam->releaseDirectRawImage(raw));
    cam->nextImage();
  }
  return served;
}

double psnr(const Bytes& pA, const Bytes& pB) {
  if (pA.size() != pB.size() || pA.empty()) return 0.0;
  double squares = 0.0;
  for (size_t i = 0; i < pA.size(); ++i) squares += (pA[i] - pB[i]) * (pA[i] - pB[i]);
  return squares == 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * pA.size() / squares);
}

std::vector<int64_t> stampsOf(const std::string& pPath) {
  OX::OXVideo video;
  EXPECT_TRUE(video.readVideo(pPath));
  std::vector<int64_t> stamps;
  OX::OXVideo::FrameInfo info{};
  for (int i = 0; i < video.getNumberOfImages() && video.getFrameInfo(i, 0, info); ++i) {
    stamps.push_back(info.fTimeStamp);
  }
  return stamps;
}

}  // namespace

// Guards against an export or import that loses or adds frames, shifts time stamps (where the
// format keeps them) or damages pixels beyond the codec's loss, seen through the file camera.
TEST(MediaRoundTrip, DeviceRecordingExportedAndImportedReplaysAsTheOriginal) {
  vitest::TestClock clock;
  vitest::TempDir dir;
  const std::string original = dir.file("device.oxv");
  constexpr int kFrames = 6;
  recordOnDevice(original, kFrames, clock);
  const std::vector<int64_t> stamps = stampsOf(original);
  ASSERT_EQ(stamps.size(), size_t(kFrames));
  const std::vector<Served> expected = replay(original, kFrames);
  ASSERT_EQ(expected.size(), size_t(kFrames));

  // Extension, time stamps kept to within (-1: evenly spaced only), smallest PSNR of the pixels.
  const struct {
    const char* fExtension;
    int64_t fTimeTolerance;
    double fMinPsnr;
  } kCases[] = {{".y4m", -1, 99.0}, {".mkv", 500, 99.0}, {".mp4", 0, 38.0}, {".avi", -1, 35.0}};
  for (const auto& format : kCases) {
    SCOPED_TRACE(format.fExtension);
    const std::string video = dir.file(std::string("export") + format.fExtension);
    const std::string back = dir.file(std::string("back") + format.fExtension + ".oxv");
    oxmedia::exportRecording(original, video, {}, {});
    oxmedia::importVideo(video, back, {}, {});
    const std::vector<int64_t> imported = stampsOf(back);
    ASSERT_EQ(imported.size(), stamps.size());
    const std::vector<Served> served = replay(back, kFrames);
    ASSERT_EQ(served.size(), expected.size());
    for (size_t i = 0; i < served.size(); ++i) {
      EXPECT_GE(psnr(served[i].fBytes, expected[i].fBytes), format.fMinPsnr) << "request " << i;
    }
    if (format.fTimeTolerance < 0) {
      const int64_t step = imported[1] - imported[0];
      for (size_t i = 1; i < imported.size(); ++i) {
        EXPECT_LE(std::llabs(imported[i] - imported[i - 1] - step), 1) << i;
      }
      continue;
    }
    for (size_t i = 0; i < served.size(); ++i) {
      EXPECT_LE(std::llabs(served[i].fStamp - expected[i].fStamp), format.fTimeTolerance) << i;
      EXPECT_LE(std::llabs(imported[i] - stamps[i]), format.fTimeTolerance) << i;
    }
  }
}

// Guards against an import that miscounts frames, loses the source's timing or picks a size the
// file camera cannot serve; the nearest size of the table is chosen by area.
TEST(MediaRoundTrip, GeneratedVideoImportsAndReplaysWithItsFrameCountAndDuration) {
  for (const auto& [size, resolution] : {std::pair<std::pair<int, int>, int>{{320, 240}, OX::kQVGA},
                                         {{400, 300}, OX::kQVGA},
                                         {{1280, 720}, OX::k4VGA},
                                         {{1920, 1080}, OX::k4VGA},
                                         {{176, 144}, OX::kQQVGA},
                                         {{640, 360}, OX::kVGA}}) {
    EXPECT_EQ(oxmedia::nearestResolution(size.first, size.second), resolution)
        << size.first << "x" << size.second;
  }
  if (std::system("ffmpeg -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg command";
  vitest::TempDir dir;
  const std::string source = dir.file("testsrc.mkv");
  // 15 frames at 10 fps, 1.5 s, 400x300 (no size of the table).
  const std::string command =
      "ffmpeg -nostdin -loglevel error -f lavfi -i "
      "testsrc=size=400x300:rate=10:duration=1.5 -c:v ffv1 '" +
      source + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const oxmedia::FileSummary probed = oxmedia::inspect(source);
  ASSERT_EQ(probed.fStreams.size(), 1u);
  EXPECT_EQ(probed.fStreams[0].fTimes.fCount, 15);
  EXPECT_EQ(probed.fStreams[0].fTimes.duration(), 1500000);

  const std::string imported = dir.file("testsrc.oxv");
  oxmedia::importVideo(source, imported, {}, {});
  const oxmedia::FileSummary summary = oxmedia::inspect(imported);
  ASSERT_TRUE(summary.fReadable) << summary.fProblem;
  ASSERT_EQ(summary.fStreams.size(), 1u);
  const oxmedia::StreamSummary& stream = summary.fStreams[0];
  EXPECT_EQ(std::make_tuple(stream.fWidth, stream.fHeight, stream.fColorSpace),
            std::make_tuple(320, 240, int(OX::kYUV422)));
  EXPECT_EQ(stream.fTimes.fCount, 15);
  EXPECT_EQ(stream.fTimes.duration(), 1500000);
  EXPECT_DOUBLE_EQ(stream.fTimes.fMeanInterval, 100000.0);

  // The file camera takes it at its size and serves its images 100 ms apart.
  const std::vector<Served> served = replay(imported, 15);
  ASSERT_EQ(served.size(), 15u);
  for (size_t i = 1; i + 1 < served.size(); ++i) {
    EXPECT_EQ(served[i].fStamp - served[i - 1].fStamp, 100000) << i;
    EXPECT_EQ(served[i].fBytes.size(), 320u * 240u * 2u);
  }
}

// Guards against the repacking of colour spaces other than kYUV422 mixing up planes or bytes:
// each exports losslessly and comes back looking as it did.
TEST(MediaRoundTrip, EveryColourSpaceExportsInItsOwnColours) {
  vitest::TempDir dir;
  // Colour space, largest difference per RGB byte after the round trip.
  for (const auto& [space, tolerance] : {std::pair<int, int>{OX::kYuv, 1},
                                         {OX::kYUV, 1},
                                         {OX::kYYCbCr, 1},
                                         {OX::kRGB, 3},
                                         {OX::kBGR, 3},
                                         {OX::kHSY, 4}}) {
    SCOPED_TRACE("colour space " + std::to_string(space));
    const int layers = OX::getNumLayersFromColorSpace(space);
    // Bytes that change slowly, and alike for both pixels of a pair, so that 4:2:2 keeps them.
    std::vector<char> bytes(160 * 120 * layers);
    for (size_t i = 0; i < bytes.size(); ++i) {
      const size_t pixel = i / layers;
      const size_t x = pixel % 160 / 2;
      const size_t y = pixel / 160;
      bytes[i] = static_cast<char>(layers == 2 ? (i % 4 < 2 ? 60 + x : 100 + y)
                                               : 40 + x + (i % layers) * 30 + y / 2);
    }
    const std::string path = dir.file("space.oxv");
    {
      OX::OXVideo video;
      ASSERT_TRUE(video.recordVideo(path, 0, {{160, 120, space, 8}}));
      ASSERT_TRUE(video.write(bytes.data(), int(bytes.size()), 1000, 0, 0, 0, 0, 0));
      ASSERT_TRUE(video.closeVideo());
    }
    oxmedia::exportRecording(path, dir.file("space.mkv"), {}, {});
    oxmedia::importVideo(dir.file("space.mkv"), dir.file("back.oxv"), {}, {});
    OX::OXVideo back;
    ASSERT_TRUE(back.readVideo(dir.file("back.oxv")));
    OX::OXImage image(1, 1, OX::kYuv, false);
    ASSERT_TRUE(back.getFrame(&image, 0, 0, false));
    oxtools::RgbImage before;
    oxtools::RgbImage after;
    ASSERT_TRUE(oxtools::toRgb(reinterpret_cast<unsigned char*>(bytes.data()), int(bytes.size()),
                               160, 120, space, before));
    ASSERT_TRUE(oxtools::toRgb(image.fData, image.getSize(), 160, 120, OX::kYUV422, after));
    int worst = 0;
    for (size_t i = 0; i < before.fPixels.size(); ++i) {
      worst = std::max(worst, std::abs(before.fPixels[i] - after.fPixels[i]));
    }
    EXPECT_LE(worst, tolerance);
  }
}
