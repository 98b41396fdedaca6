// The file camera against real recordings: files the reader refuses, ranges beyond the file, a
// start before any file, and a simulator recording that replays as it was seen live.
#include <gtest/gtest.h>

#include <map>

#include "filecamsupport.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using Bytes = std::vector<unsigned char>;
using vitest::FileHook;
const char* const kCategory = "vision.oxvisionfilecam";
const int kColorSpaces[] = {OX::kYuv, OX::kHsy, OX::kYUV422, OX::kYUV,   OX::kRGB,
                            OX::kHSY, OX::kBGR, OX::kYYCbCr, OX::kH2RGB, OX::kHSMixed};

Bytes bytesOf(const OX::OXImage* pImage) {
  if (pImage == nullptr) return {};
  return Bytes(pImage->fData, pImage->fData + pImage->getSize());
}

}  // namespace

// A file that is no recording is refused with the reader's error texts.
TEST(FileCamFiles, GarbageFileThrows) {
  vitest::TempDir directory;
  directory.write("garbage.oxv", "this is no video");
  auto cam = vitest::makeFileCam();
  vitest::LogCapture capture;
  const std::string path = directory.file("garbage.oxv");
  const OX::OXError error = vitest::raised([&] { cam->setVideo(path, OX::OXValue(), 0, 0, 0); });
  EXPECT_TRUE(capture.has(2, kCategory, "Unable to open the video file " + path));
  EXPECT_NE(error.toString().find("unable to open the video file"), std::string::npos);
  EXPECT_NE(error.toString().find("setVideo"), std::string::npos);
}

// A start before any file fails, and leaves the grabber in a state that a stop does not wait on.
// A first image beyond the file passes setVideo and fails the start of the grabber.
TEST(FileCamFiles, StartBeforeAnyFileOrBeyondTheFileFails) {
  vitest::TempDir directory;
  const std::string path = directory.file("short.oxv");
  ASSERT_TRUE(vitest::writeRecording(path, 3));
  auto cam = vitest::makeFileCam();
  {
    vitest::LogCapture capture;
    vitest::raised([&] { cam->startFrameGrabber(0); });
    EXPECT_EQ(FileHook::camera(*cam).fGrabberState, OX::GrabberState::kFailed);
    EXPECT_TRUE(cam->stopFrameGrabber(0));
  }
  cam->setVideo(path, OX::OXValue(std::vector<int>{5, 6}), false, 0, 0);
  vitest::LogCapture capture;
  const OX::OXError error = vitest::raised([&] { cam->startFrameGrabber(0); });
  EXPECT_TRUE(capture.has(2, kCategory, "Image 5 doesn't exist. File has 3 images."));
  EXPECT_TRUE(capture.has(2, kCategory, "Can't open video file."));
  EXPECT_NE(error.toString().find("Can't open video file."), std::string::npos);
  EXPECT_EQ(FileHook::camera(*cam).fGrabberState, OX::GrabberState::kFailed);
}

// A simulator recording replays raw byte for byte, and its conversions equal the live ones.
TEST(FileCamFiles, SimulatorRecordingReplaysAsSeenLive) {
  vitest::TestClock clock;
  vitest::TempDir directory;
  const std::string path = directory.file("live.oxv");
  std::vector<Bytes> raws;
  std::map<int, std::vector<Bytes>> converted;
  {
    auto sim = vitest::makeSimulatorCam();
    sim->subscribeCamera("m", 0, OX::kQVGA, OX::kYUV422, 30);
    for (int space : kColorSpaces) {
      sim->subscribeCamera("c" + std::to_string(space), 0, OX::kQVGA, space, 30);
    }
    ASSERT_TRUE(sim->recordVideo("m", path, 3, 1));
    for (uint32_t seed = 1; seed <= 3; ++seed) {
      clock.advance(40000);
      ASSERT_TRUE(sim->putImage(0, 320, 240, vitest::rgbFrame(OX::kQVGA, seed)));
      raws.push_back(bytesOf(sim->getDirectRawImageLocal("m")));
      EXPECT_TRUE(sim->releaseDirectRawImage("m"));
      for (int space : kColorSpaces) {
        const std::string name = "c" + std::to_string(space);
        converted[space].push_back(bytesOf(sim->getImageLocal(name)));
        EXPECT_TRUE(sim->releaseImage(name));
      }
    }
    EXPECT_TRUE(sim->stopVideo("m"));
  }

  auto cam = vitest::makeFileCam();
  cam->setVideo(path, OX::OXValue(), false, 0, 0);
  const std::string raw = cam->subscribeCamera("r", 0, OX::kQVGA, OX::kYUV422, 30);
  std::map<int, std::string> names;
  for (int space : kColorSpaces) {
    names[space] = cam->subscribeCamera("f" + std::to_string(space), 0, OX::kQVGA, space, 30);
  }
  // Mode 0 serves the image read ahead first: images 1 and 2 of the recording.
  for (size_t index = 1; index < raws.size(); ++index) {
    clock.advance(40000);
    ASSERT_EQ(raws[index].size(), 320u * 240u * 2u);
    EXPECT_NE(raws[index], raws[index - 1]);
    EXPECT_EQ(bytesOf(cam->getDirectRawImageLocal(raw)), raws[index]) << index;
    EXPECT_TRUE(cam->releaseDirectRawImage(raw));
    for (int space : kColorSpaces) {
      EXPECT_FALSE(converted[space][index].empty()) << space;
      EXPECT_EQ(bytesOf(cam->getImageLocal(names[space])), converted[space][index])
          << "colour space " << space << ", image " << index;
      EXPECT_TRUE(cam->releaseImage(names[space]));
    }
    cam->nextImage();
  }
}
