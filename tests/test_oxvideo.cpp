// Tests of OXVideo: .oxv round trips, random access and cursor, damaged files, image formats.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "oximage.h"
#include "oxtypes.h"
#include "oxvideo.h"
#include "testsupport.h"

using OX::OXImage;
using OX::OXVideo;
using OX::streamHeader;

namespace {

constexpr int kQQVGAGrey = 160 * 120;  // bytes of one QQVGA kYuv frame

// Pixels that differ from frame to frame and from byte to byte.
std::vector<char> pixels(int pSize, int pSeed) {
  std::vector<char> data(static_cast<size_t>(pSize));
  for (int i = 0; i < pSize; ++i) data[static_cast<size_t>(i)] = static_cast<char>(i * 7 + pSeed);
  return data;
}

// Writes pCount frames; frame r has pixels(size, r), time stamp 1000 + r, camera r % 5 - 2 and
// angles r, -r, r / 2, -r / 4.
void record(const std::string& pPath, const std::vector<streamHeader>& pStreams, int pCount,
            int pSize = kQQVGAGrey) {
  OXVideo video;
  ASSERT_TRUE(video.recordVideo(pPath, 33, pStreams));
  for (int r = 0; r < pCount; ++r) {
    const std::vector<char> data = pixels(pSize, r);
    const float f = static_cast<float>(r);
    ASSERT_TRUE(video.write(data.data(), pSize, 1000 + r, static_cast<signed char>(r % 5 - 2), f,
                            -f, f / 2, -f / 4));
  }
  EXPECT_EQ(video.getNumberOfImages(), pCount / static_cast<int>(pStreams.size()));
  video.closeVideo();
}

// Checks that pImage holds frame r as record() wrote it.
void expectRecord(const OXImage& pImage, int r, int pSize = kQQVGAGrey) {
  const std::vector<char> data = pixels(pSize, r);
  ASSERT_EQ(pImage.getSize(), pSize);
  EXPECT_EQ(std::memcmp(pImage.fData, data.data(), data.size()), 0) << "frame " << r;
  EXPECT_EQ(pImage.fTimeStamp, 1000 + r);
  EXPECT_EQ(pImage.fCameraId, r % 5 - 2);
  const float f = static_cast<float>(r);
  EXPECT_EQ(pImage.fLeftAngle, f);
  EXPECT_EQ(pImage.fTopAngle, -f);
  EXPECT_EQ(pImage.fRightAngle, f / 2);
  EXPECT_EQ(pImage.fBottomAngle, -f / 4);
}

std::string readBytes(const std::string& pPath) {
  std::ifstream in(pPath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const streamHeader kGrey{160, 120, OX::kYuv, 8};
const streamHeader kColour{160, 120, OX::kRGB, 8};
constexpr int kHeader1 = OXVideo::kFileHeaderFixedSize + 16;  // header of a one-stream file
constexpr int kFrame = OXVideo::kFrameHeaderSize + kQQVGAGrey;

}  // namespace

// Guards against any field of a frame (pixels, time stamp, camera, angles) being lost or mangled.
TEST(OXVideoRoundTrip, FiftyFramesOfOneStreamReplayExactly) {
  vitest::TempDir dir;
  record(dir.file("a.oxv"), {kGrey}, 50);
  EXPECT_EQ(readBytes(dir.file("a.oxv")).size(), static_cast<size_t>(kHeader1 + 50 * kFrame));

  OXVideo video;
  ASSERT_TRUE(video.readVideo(dir.file("a.oxv")));
  EXPECT_TRUE(video.isReading());
  EXPECT_FALSE(video.isRecording());
  EXPECT_EQ(video.getNumberOfImages(), 50);
  EXPECT_EQ(video.getNumberOfStreams(), 1);
  EXPECT_EQ(video.getPeriod(), 33u);
  EXPECT_EQ(video.getStreams()[0].pixelDepth, 8);
  EXPECT_EQ(video.getStreamResolution(0), OX::kQQVGA);
  EXPECT_EQ(video.getStreamColorSpace(0), OX::kYuv);
  EXPECT_EQ(video.getStreamResolution(1), -1);
  EXPECT_EQ(video.getStreamColorSpace(-1), -1);

  OXImage image(OX::kQQVGA, OX::kYuv);
  for (int r = 0; r < 50; ++r) {
    ASSERT_TRUE(video.getNextFrame(&image, false));
    expectRecord(image, r);
  }
  EXPECT_FALSE(video.getNextFrame(&image, false));
  EXPECT_EQ(video.getCurrentImageNumber(), 50);
}

// Guards against frames of interleaved streams being attributed to the wrong stream or image.
TEST(OXVideoRoundTrip, TwoStreamsWrittenAlternatelyReadPerStream) {
  vitest::TempDir dir;
  // 21 frames: the last one has no partner in stream 1, so it makes no image.
  record(dir.file("b.oxv"), {kGrey, kGrey}, 21);
  OXVideo video;
  ASSERT_TRUE(video.readVideo(dir.file("b.oxv")));
  EXPECT_EQ(video.getNumberOfImages(), 10);
  OXImage image(OX::kQQVGA, OX::kYuv);
  for (int stream = 0; stream < 2; ++stream) {
    ASSERT_TRUE(video.getFrame(&image, 0, stream, false));
    expectRecord(image, stream);
    for (int i = 1; i < 10; ++i) {
      ASSERT_TRUE(video.getNextFrame(&image, false));
      expectRecord(image, 2 * i + stream);
    }
    EXPECT_EQ(video.getCurrentStream(), stream);
    EXPECT_FALSE(video.getNextFrame(&image, false));
  }
  EXPECT_FALSE(video.getFrame(&image, 10, 0, false));
}

// Guards against random access depending on the reading order, and against cursor drift.
TEST(OXVideoCursor, RandomAccessAndCursorRules) {
  vitest::TempDir dir;
  record(dir.file("c.oxv"), {kGrey}, 10);
  OXVideo video;
  ASSERT_TRUE(video.readVideo(dir.file("c.oxv")));
  OXImage image(OX::kQQVGA, OX::kYuv);
  EXPECT_FALSE(video.getPrecedingFrame(&image, false));  // nothing read yet
  for (int index : {7, 2, 9, 0, 9, 3}) {
    ASSERT_TRUE(video.getFrame(&image, index, 0, true));
    expectRecord(image, index);
    EXPECT_EQ(video.getCurrentImageNumber(), index + 1);
  }

  ASSERT_TRUE(video.getFrame(&image, 5, 0, false));
  ASSERT_TRUE(video.getNextFrame(&image, false));
  EXPECT_EQ(image.fTimeStamp, 1006);
  EXPECT_EQ(video.getCurrentImageNumber(), 7);
  ASSERT_TRUE(video.getPrecedingFrame(&image, false));
  EXPECT_EQ(image.fTimeStamp, 1005);
  EXPECT_EQ(video.getCurrentImageNumber(), 6);
  ASSERT_TRUE(video.getPrecedingFrame(&image, false));
  EXPECT_EQ(image.fTimeStamp, 1004);
  EXPECT_EQ(video.getCurrentImageNumber(), 5);
  ASSERT_TRUE(video.getNextFrame(&image, false));
  EXPECT_EQ(image.fTimeStamp, 1005);
  EXPECT_EQ(video.getCurrentImageNumber(), 6);

  ASSERT_TRUE(video.getFrame(&image, 0, 0, false));
  EXPECT_FALSE(video.getPrecedingFrame(&image, false));
  EXPECT_EQ(video.getCurrentImageNumber(), 1);
}

// Guards against a failed read moving the cursor or touching the image.
TEST(OXVideoCursor, FailedReadsChangeNothing) {
  vitest::TempDir dir;
  record(dir.file("d.oxv"), {kGrey}, 4);
  OXVideo video;
  OXImage image(OX::kQQVGA, OX::kYuv);
  EXPECT_FALSE(video.getNextFrame(&image, false));  // nothing open
  ASSERT_TRUE(video.readVideo(dir.file("d.oxv")));
  ASSERT_TRUE(video.getFrame(&image, 2, 0, false));
  EXPECT_FALSE(video.getFrame(&image, 4, 0, false));
  EXPECT_FALSE(video.getFrame(&image, -1, 0, false));
  EXPECT_FALSE(video.getFrame(&image, 0, 1, false));
  EXPECT_FALSE(video.getFrame(&image, 0, -1, false));
  EXPECT_FALSE(video.getFrame(nullptr, 0, 0, false));
  EXPECT_FALSE(video.getNextFrame(nullptr, false));
  EXPECT_EQ(video.getCurrentImageNumber(), 3);
  expectRecord(image, 2);
  ASSERT_TRUE(video.getNextFrame(&image, false));
  EXPECT_FALSE(video.getNextFrame(&image, false));  // past the end
  EXPECT_EQ(video.getCurrentImageNumber(), 4);
  expectRecord(image, 3);
}

// Guards against a recording cut short (writer killed) being refused or read past its end.
TEST(OXVideoDamage, FileCutShortReplaysEveryCompleteFrame) {
  vitest::TempDir dir;
  record(dir.file("full.oxv"), {kGrey}, 5);
  const std::string bytes = readBytes(dir.file("full.oxv"));
  ASSERT_EQ(bytes.size(), static_cast<size_t>(kHeader1 + 5 * kFrame));
  vitest::LogCapture log;
  // Cut position -> complete images, or -1 for a refused file.
  const std::vector<std::pair<int, int>> cuts = {{0, -1},
                                                 {3, -1},
                                                 {15, -1},
                                                 {kHeader1 - 1, -1},
                                                 {kHeader1, 0},
                                                 {kHeader1 + 10, 0},
                                                 {kHeader1 + 36, 0},
                                                 {kHeader1 + kFrame + 36 + 100, 1},
                                                 {kHeader1 + 2 * kFrame, 2},
                                                 {kHeader1 + 5 * kFrame - 1, 4}};
  OXImage image(OX::kQQVGA, OX::kYuv);
  for (const auto& cut : cuts) {
    SCOPED_TRACE("cut at " + std::to_string(cut.first));
    dir.write("cut.oxv", bytes.substr(0, static_cast<size_t>(cut.first)));
    OXVideo video;
    ASSERT_EQ(video.readVideo(dir.file("cut.oxv")), cut.second >= 0);
    if (cut.second < 0) {
      EXPECT_FALSE(video.isReading());
      continue;
    }
    EXPECT_EQ(video.getNumberOfImages(), cut.second);
    for (int i = 0; i < cut.second; ++i) {
      ASSERT_TRUE(video.getNextFrame(&image, false));
      expectRecord(image, i);
    }
    EXPECT_FALSE(video.getNextFrame(&image, false));
  }
}

// Guards against reading garbage, empty, foreign or corrupt files as recordings.
TEST(OXVideoDamage, GarbageEmptyAndCorruptFilesAreRefused) {
  vitest::TempDir dir;
  vitest::LogCapture log;
  OXVideo video;
  EXPECT_FALSE(video.readVideo(dir.file("missing.oxv")));
  dir.write("empty.oxv", "");
  EXPECT_FALSE(video.readVideo(dir.file("empty.oxv")));
  std::mt19937 random(42);
  std::string garbage(100000, '\0');
  for (char& c : garbage) c = static_cast<char>(random());
  dir.write("garbage.oxv", garbage);
  EXPECT_FALSE(video.readVideo(dir.file("garbage.oxv")));

  record(dir.file("good.oxv"), {kGrey}, 6);
  const std::string good = readBytes(dir.file("good.oxv"));
  // Offset in the file, replacement byte: version, stream count (0 and 17), stream width, a
  // frame marker in the middle, a frame size made negative and made too large.
  const std::vector<std::pair<int, char>> damages = {{4, 2},
                                                     {12, 0},
                                                     {12, 17},
                                                     {16, 0},
                                                     {kHeader1 + 3 * kFrame + 1, 'Y'},
                                                     {kHeader1 + 2 * kFrame + 7, '\x80'},
                                                     {kHeader1 + 2 * kFrame + 7, '\x10'}};
  for (const auto& damage : damages) {
    std::string bytes = good;
    bytes[static_cast<size_t>(damage.first)] = damage.second;
    dir.write("bad.oxv", bytes);
    EXPECT_FALSE(video.readVideo(dir.file("bad.oxv"))) << "byte " << damage.first;
    EXPECT_FALSE(video.isReading());
    EXPECT_EQ(video.getNumberOfStreams(), 0);
  }
  EXPECT_TRUE(video.readVideo(dir.file("good.oxv")));
  EXPECT_EQ(video.getNumberOfImages(), 6);
}

// Guards against a frame larger than the image overrunning it, and against unusable images.
TEST(OXVideoImage, ImageGrowsForALargerFrame) {
  vitest::TempDir dir;
  const int vgaColour = 640 * 480 * 3;
  record(dir.file("vga.oxv"), {{640, 480, OX::kRGB, 8}}, 2, vgaColour);
  OXVideo video;
  ASSERT_TRUE(video.readVideo(dir.file("vga.oxv")));
  OXImage image(OX::kQQVGA, OX::kYuv);
  ASSERT_TRUE(video.getFrame(&image, 1, 0, false));
  EXPECT_GE(image.getAllocatedSize(), vgaColour);
  EXPECT_EQ(image.fWidth, 640);
  EXPECT_EQ(image.fHeight, 480);
  EXPECT_EQ(image.fColorSpace, OX::kRGB);
  expectRecord(image, 1, vgaColour);

  OXImage external(640, 480, OX::kRGB, true);  // no pixels set yet
  EXPECT_FALSE(video.getFrame(&external, 0, 0, false));
  std::vector<unsigned char> buffer(static_cast<size_t>(vgaColour));
  ASSERT_TRUE(external.setData(buffer.data()));
  ASSERT_TRUE(video.getFrame(&external, 0, 0, false));
  expectRecord(external, 0, vgaColour);
}

// Guards against frames recorded at another resolution than their stream's being misread.
TEST(OXVideoImage, FrameSizeOfAnotherResolutionIsUsed) {
  vitest::TempDir dir;
  OXVideo writer;
  ASSERT_TRUE(writer.recordVideo(dir.file("r.oxv"), 0, {{320, 240, OX::kYUV422, 8}}));
  const std::vector<char> small = pixels(160 * 120 * 2, 1);
  const std::vector<char> odd = pixels(1000, 2);
  ASSERT_TRUE(writer.write(small.data(), static_cast<int>(small.size()), 1, 0, 0, 0, 0, 0));
  ASSERT_TRUE(writer.write(odd.data(), static_cast<int>(odd.size()), 2, 0, 0, 0, 0, 0));
  writer.closeVideo();

  OXVideo video;
  ASSERT_TRUE(video.readVideo(dir.file("r.oxv")));
  EXPECT_EQ(video.getStreamResolution(0), OX::kQVGA);
  OXImage image(OX::kQVGA, OX::kYUV422);
  ASSERT_TRUE(video.getNextFrame(&image, false));
  EXPECT_EQ(image.fWidth, 160);
  EXPECT_EQ(image.fHeight, 120);
  EXPECT_EQ(image.fColorSpace, OX::kYUV422);
  EXPECT_EQ(std::memcmp(image.fData, small.data(), small.size()), 0);
  EXPECT_FALSE(video.getNextFrame(&image, false));  // 1000 bytes fit no resolution
  EXPECT_EQ(image.fTimeStamp, 1);
  EXPECT_EQ(video.getCurrentImageNumber(), 1);
}

// Guards against the writer accepting bad streams or frames, or misbehaving when closed.
TEST(OXVideoWriter, MisuseIsHarmless) {
  vitest::TempDir dir;
  vitest::LogCapture log;
  const char byte = 0;
  OXVideo video;
  video.closeVideo();  // never opened
  EXPECT_FALSE(video.write(&byte, 1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(video.recordVideo(dir.file("w.oxv"), 0, {}));
  EXPECT_FALSE(video.recordVideo(dir.file("w.oxv"), 0, std::vector<streamHeader>(17, kGrey)));
  EXPECT_FALSE(video.recordVideo(dir.file("w.oxv"), 0, {kGrey, {0, 120, OX::kYuv, 8}}));
  EXPECT_FALSE(video.recordVideo(dir.file("w.oxv"), 0, {{1281, 960, OX::kRGB, 8}}));
  EXPECT_FALSE(video.recordVideo(dir.file("no/such/dir.oxv"), 0, {kGrey}));
  EXPECT_FALSE(video.isRecording());
  EXPECT_FALSE(std::ifstream(dir.file("w.oxv")).good());
  EXPECT_FALSE(video.write(&byte, 1, 0, 0, 0, 0, 0, 0));

  ASSERT_TRUE(video.recordVideo(dir.file("w.oxv"), 0, std::vector<streamHeader>(16, kColour)));
  EXPECT_TRUE(video.isRecording());
  EXPECT_FALSE(video.write(nullptr, 1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(video.write(&byte, -1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(video.write(&byte, OXVideo::kMaxFrameSize + 1, 0, 0, 0, 0, 0, 0));
  EXPECT_TRUE(video.write(nullptr, 0, 0, 0, 0, 0, 0, 0));
  video.closeVideo();
  video.closeVideo();
  EXPECT_FALSE(video.isRecording());
  EXPECT_FALSE(video.write(&byte, 1, 0, 0, 0, 0, 0, 0));

  {  // the destructor closes and flushes
    OXVideo scoped;
    ASSERT_TRUE(scoped.recordVideo(dir.file("s.oxv"), 0, {kGrey}));
    const std::vector<char> data = pixels(kQQVGAGrey, 0);
    ASSERT_TRUE(scoped.write(data.data(), kQQVGAGrey, 1000, -2, 0, 0, 0, 0));
  }
  ASSERT_TRUE(video.readVideo(dir.file("s.oxv")));
  EXPECT_EQ(video.getNumberOfImages(), 1);
  video.closeVideo();
  video.closeVideo();
  EXPECT_FALSE(video.isReading());
  EXPECT_EQ(video.getNumberOfImages(), 0);
}
