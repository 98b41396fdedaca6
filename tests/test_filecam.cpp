// The file camera: setVideo, the replay modes with a clock moved by hand, the ring of frames and
// their release, and the module entry that builds the camera.
#include <gtest/gtest.h>

#include <limits>

#include "filecamsupport.h"
#include "testsupport.h"

namespace {

using vitest::FileHook;
const char* const kCategory = "vision.oxvisionfilecam";

// A camera replaying a recording of pImages QQVGA images, with one subscriber "a".
struct Replay {
  Replay(int pImages, bool pLoop, int pMode, const OX::OXValue& pRange = OX::OXValue()) {
    path = directory.file("video.oxv");
    EXPECT_TRUE(vitest::writeRecording(path, pImages));
    cam = vitest::makeFileCam(&broker);
    cam->setVideo(path, pRange, pLoop, pMode, 0);
    id = cam->subscribe("a", OX::kQQVGA, OX::kYUV422, 5);
  }
  ~Replay() { cam->unsubscribe(id); }
  // The first byte of the image served (image i holds i + 1), and its timestamp; -1 for none.
  int take(int64_t* pStamp = nullptr) {
    OX::OXImage* image = cam->getDirectRawImageLocal(id);
    if (image == nullptr) return -1;
    const int byte = image->fData[0];
    if (pStamp != nullptr) *pStamp = image->fTimeStamp;
    EXPECT_TRUE(cam->releaseDirectRawImage(id));
    return byte;
  }
  vitest::TempDir directory;
  vitest::ReplayClock clock;
  std::string path;
  boost::shared_ptr<OX::OXBroker> broker;
  boost::shared_ptr<OX::OXVisionFileCam> cam;
  std::string id;
};

// Resolution, colour space and frame rate of the camera, and the default resolution.
std::vector<int> settings(OX::OXVisionFileCam& pCam) {
  const OX::RealCameraProperties& camera = FileHook::camera(pCam);
  return {camera.fResolution, camera.fColorSpace, camera.fFrameRate,
          FileHook::defaultResolution(pCam)};
}

// A range that is not a pair plays the whole file, cut to its last image at the opening.
TEST(FileCamSetVideo, RangeOfThreeElementsPlaysTheWholeFile) {
  Replay replay(4, false, 0, OX::OXValue(std::vector<int>{1, 2, 3}));
  auto range = [&] {
    return std::pair{FileHook::firstImage(*replay.cam), FileHook::lastImage(*replay.cam)};
  };
  EXPECT_EQ(range(), std::pair(0, 3));
  replay.cam->setVideo(replay.path, OX::OXValue(std::vector<int>{1, 2}), false, 0, 0);
  EXPECT_EQ(range(), std::pair(1, 2));
  replay.cam->setVideo(replay.path, OX::OXValue(5), false, 0, 0);
  EXPECT_EQ(range(), std::pair(0, 2147483647));
}

// A VGA kYUV422 stream sets the camera to VGA at 30 images a second, and bounds the validity; a
// missing file is logged and leaves every earlier setting as it was.
TEST(FileCamSetVideo, VgaStreamSetsTheCameraAndMissingFileChangesNothing) {
  vitest::TempDir directory;
  const std::string path = directory.file("vga.oxv");
  ASSERT_TRUE(vitest::writeRecording(path, 2, OX::kVGA));
  auto cam = vitest::makeFileCam();
  EXPECT_EQ(settings(*cam), (std::vector<int>{1, OX::kYUV422, 5, -1}));
  vitest::LogCapture capture;
  cam->setVideo(path, OX::OXValue(), false, 0, 0);
  EXPECT_TRUE(capture.has(4, kCategory, "Setting " + path + " video file."));
  EXPECT_EQ(settings(*cam), (std::vector<int>{2, OX::kYUV422, 30, 2}));
  const std::string missing = directory.file("none.oxv");
  cam->setVideo(missing, OX::OXValue(), true, 0, 0);
  EXPECT_TRUE(capture.has(2, kCategory, missing + " file doesn't exist. Return!"));
  EXPECT_EQ(FileHook::filePath(*cam), path);
  EXPECT_EQ(settings(*cam), (std::vector<int>{2, OX::kYUV422, 30, 2}));
  for (const auto& [value, valid] : {std::pair{3, false}, {0, true}, {2, true}}) {
    EXPECT_EQ(FileHook::isResolutionValid(*cam, value, 0), valid) << value;
  }
  EXPECT_TRUE(FileHook::isFrameRateValid(*cam, 30));
  EXPECT_FALSE(FileHook::isFrameRateValid(*cam, 31));
  for (const auto& [value, valid] : {std::pair{16, true}, {17, false}, {-1, false}}) {
    EXPECT_EQ(FileHook::isColorSpaceValid(*cam, value), valid) << value;
  }
  // A stream the file does not have leaves no format.
  cam->setVideo(path, OX::OXValue(), false, 0, 3);
  EXPECT_EQ(FileHook::camera(*cam).fColorSpace, 255);
  EXPECT_EQ(FileHook::defaultResolution(*cam), -1);
}

// Mode 0 serves the image read ahead first, then the same image until nextImage or a period.
TEST(FileCamReplay, ModeZeroStepsOnRequest) {
  Replay replay(4, false, 0);
  int64_t first = 0, again = 0;
  EXPECT_EQ(replay.take(&first), 2);
  EXPECT_EQ(replay.take(&again), 2);
  EXPECT_EQ(first, again);
  replay.cam->nextImage();
  EXPECT_EQ(replay.take(), 3);
  replay.cam->replaySpeed(10.0f);
  EXPECT_EQ(FileHook::replayPeriod(*replay.cam), 100000);
  replay.clock.advance(99999);
  EXPECT_EQ(replay.take(), 3);
  replay.clock.advance(1);
  EXPECT_EQ(replay.take(), 4);
  // At the end without loop the last image repeats, one microsecond later each time.
  replay.cam->nextImage();
  EXPECT_EQ(replay.take(&first), 4);
  replay.cam->nextImage();
  EXPECT_EQ(replay.take(&again), 4);
  EXPECT_EQ(again, first + 1);
  replay.cam->replaySpeed(0.0f);
  EXPECT_EQ(FileHook::replayPeriod(*replay.cam), std::numeric_limits<int64_t>::max());
  replay.clock.advance(100000000);
  EXPECT_EQ(replay.take(&again), 4);
  EXPECT_EQ(again, first + 1);
}

// previousImage at the first image of the range reads nothing without loop, and jumps near the
// end with it.
TEST(FileCamReplay, PreviousImageAtTheStart) {
  for (const bool loop : {false, true}) {
    Replay replay(4, loop, 0);
    replay.cam->previousImage();  // back from image 2 to image 0
    EXPECT_EQ(FileHook::currentImage(*replay.cam), 0);
    const int cursor = replay.cam->getCurrentImageNumber();
    vitest::LogCapture capture;
    replay.cam->previousImage();
    OX::CamBuffer& current = FileHook::slot(*replay.cam, FileHook::currentFrame(*replay.cam));
    if (loop) {
      EXPECT_TRUE(capture.has(4, kCategory, "Loop from index 0 to index 2"));
      EXPECT_EQ(FileHook::currentImage(*replay.cam), 3);
      EXPECT_EQ(current.fImage->fData[0], 3);
    } else {
      EXPECT_EQ(capture.records().size(), 0u);
      EXPECT_EQ(FileHook::currentImage(*replay.cam), 0);
      EXPECT_EQ(replay.cam->getCurrentImageNumber(), cursor);
      EXPECT_EQ(current.fImage->fData[0], 2);  // the image read ahead before
    }
  }
}

// Mode 1 skips the images whose moment has passed and loops with timestamps one pass later.
TEST(FileCamReplay, ModeOneFollowsTheClockAndLoops) {
  Replay replay(5, true, 1);
  int64_t stamp = 0;
  EXPECT_EQ(replay.take(&stamp), 1);
  EXPECT_EQ(stamp, 1000000);
  replay.clock.advance(250000);
  EXPECT_EQ(replay.take(), 3);  // image 1 skipped
  EXPECT_EQ(FileHook::currentImage(*replay.cam), 4);
  replay.clock.advance(200000);
  EXPECT_EQ(replay.take(), 5);
  EXPECT_EQ(FileHook::loopDuration(*replay.cam), 6 * 400000 / 5);
  replay.clock.advance(100000);
  EXPECT_EQ(replay.take(&stamp), 1);
  EXPECT_EQ(stamp, 1000000 + FileHook::loopDuration(*replay.cam));
}

// Modes 2 and 3 turn into mode 1 at their first request, which without loop stays on the last
// image, dated anew at each request; mode 7 fails at every request.
TEST(FileCamReplay, ModesTwoThreeAndUnknown) {
  for (const int mode : {2, 3}) {
    Replay replay(3, false, mode);
    vitest::LogCapture capture;
    EXPECT_EQ(replay.take(), 1);
    EXPECT_TRUE(capture.has(1, kCategory,
                            "GetDirectRawImage(" + replay.id + ") : replay mode " +
                                std::to_string(mode) +
                                " not yet implemented. Launch replay mode 1 (synchronized with "
                                "the inner clock)..."));
    EXPECT_EQ(FileHook::replayMode(*replay.cam), 1);
    int64_t first = 0, again = 0;
    replay.clock.advance(10000000);
    EXPECT_EQ(replay.take(&first), 3);
    replay.clock.advance(1000000);
    EXPECT_EQ(replay.take(&again), 3);
    EXPECT_GT(again, first);
  }
  Replay replay(3, false, 7);
  vitest::LogCapture capture;
  EXPECT_EQ(replay.cam->getDirectRawImageLocal(replay.id), nullptr);
  EXPECT_EQ(replay.cam->getDirectRawImageLocal(replay.id), nullptr);
  EXPECT_EQ(capture.count("GetDirectRawImage(" + replay.id + ") : replay mode 7 unknown!"), 2);
}

// A held frame counts in its slot until released; five held slots fail a sixth request in time.
TEST(FileCamRelease, HeldSlotsAndTheBoundedWait) {
  vitest::TestClock sleeps;  // the bounded wait's sleeps pass at once
  Replay replay(8, false, 0);
  std::vector<std::string> ids{replay.id};
  for (int i = 1; i < 6; ++i) ids.push_back(replay.cam->subscribe("s", OX::kQQVGA, 9, 5));
  for (int i = 0; i < 5; ++i) {
    replay.cam->nextImage();
    ASSERT_NE(replay.cam->getDirectRawImageLocal(ids[i]), nullptr);
  }
  EXPECT_EQ(FileHook::slot(*replay.cam, FileHook::currentFrame(*replay.cam)).fLockCount, 1);
  vitest::LogCapture capture;
  replay.cam->nextImage();
  EXPECT_EQ(replay.cam->getDirectRawImageLocal(ids[5]), nullptr);
  EXPECT_EQ(capture.count("All the frames of the replay are held: no free frame to read into."), 1);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(replay.cam->releaseDirectRawImage(ids[i]));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(FileHook::slot(*replay.cam, i).fLockCount, 0);
  EXPECT_TRUE(replay.cam->releaseDirectRawImage(ids[0]));  // nothing held: true
  EXPECT_NE(replay.cam->getDirectRawImageLocal(ids[5]), nullptr);
  EXPECT_TRUE(replay.cam->releaseDirectRawImage(ids[5]));
  for (size_t i = 1; i < ids.size(); ++i) replay.cam->unsubscribe(ids[i]);
}

// Several streams are refused, and the parameters are read but never set.
TEST(FileCamRelease, ParametersAndSeveralStreams) {
  Replay replay(2, false, 0);
  vitest::LogCapture capture;
  EXPECT_TRUE(FileHook::getRaws(*replay.cam, replay.id).empty());
  EXPECT_EQ(capture.count("xGetDirectRawImages(" + replay.id +
                          ") : FileCam doesn't provide MultiStream Management yet"),
            1);
  for (const auto& [id, value] : {std::pair{14, 0}, {15, 30}, {18, 0}, {20, 9}}) {
    EXPECT_EQ(FileHook::getParam(*replay.cam, id), value) << id;
  }
  const OX::OXError error = vitest::raised([&] { FileHook::getParam(*replay.cam, 16); });
  EXPECT_NE(error.toString().find("pId not handled in fileCam"), std::string::npos);
  EXPECT_TRUE(FileHook::setParam(*replay.cam, 14, 3));
  EXPECT_EQ(FileHook::getParam(*replay.cam, 14), 0);
}

// Guards against the file camera's own publications losing a text or their binding: they follow
// the device's, in order (that its getParam wins over the device's: test_arguments).
TEST(FileCamPublication, SevenMethodsWithTheirTextsAfterTheDevice) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFileCam(&broker);
  const std::vector<OX::OXMethodInfo> table = cam->getMethodTable();
  ASSERT_EQ(table.size(), 52u + 32u + 7u);
  const std::vector<std::string> names = {"setVideo",    "previousImage",         "nextImage",
                                          "replaySpeed", "getCurrentImageNumber", "setParam",
                                          "getParam"};
  for (size_t i = 0; i < names.size(); ++i) {
    const OX::OXMethodInfo& info = table[84 + i];
    EXPECT_EQ(info.name, names[i]);
    EXPECT_EQ(info.className, "OXVisionFileCam");
    const bool overload = names[i] == "setParam" || names[i] == "getParam";
    EXPECT_EQ(info.binding,
              overload ? OX::OXMethodInfo::kBindMethodOverload : OX::OXMethodInfo::kBindMethod)
        << names[i];
  }
  EXPECT_EQ(table[84].parameters.size(), 5u);
  EXPECT_EQ(table[84].parameters[1].description,
            " determines if we open the whole file (NULL) or just part of a sequence (array with "
            "beginning and end index) ");
  EXPECT_EQ(table[87].description, "BETA - When replaying in mode 0, ask for the next image.");
  EXPECT_EQ(table[88].returnName, "return");
  // Three arguments, two described: the third is completed by the signature.
  ASSERT_EQ(table[89].parameters.size(), 3u);
  EXPECT_EQ(table[89].parameters[2].name, "arg3");
  EXPECT_EQ(table[90].examples.at(0).text, "  int value = fCamera->getParam(pParam, pCamID);\n");
}

}  // namespace
