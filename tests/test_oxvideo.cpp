// Tests of OXVideo: .oxv round trips, random access and cursor, damaged files, image formats.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
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

using P = std::pair<int, int>;
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
  const float f = static_cast<float>(r);
  EXPECT_EQ(std::make_tuple(pImage.fTimeStamp, int(pImage.fCameraId), pImage.fLeftAngle,
                            pImage.fTopAngle, pImage.fRightAngle, pImage.fBottomAngle),
            std::make_tuple(int64_t(1000 + r), r % 5 - 2, f, -f, f / 2, -f / 4))
      << "frame " << r;
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

class OXVideoTest : public ::testing::Test {
 protected:
  // Records pCount frames of pStreams under pName and opens the file for reading.
  void open(const std::string& pName, const std::vector<streamHeader>& pStreams, int pCount) {
    record(fDir.file(pName), pStreams, pCount);
    ASSERT_TRUE(fVideo.readVideo(fDir.file(pName)));
  }
  // Reads the next frame, which must be frame pR as record() wrote it.
  void expectNext(int pR) {
    ASSERT_TRUE(fVideo.getNextFrame(&fImage, false)) << "frame " << pR;
    expectRecord(fImage, pR);
  }

  vitest::TempDir fDir;
  OXVideo fVideo;
  OXImage fImage{OX::kQQVGA, OX::kYuv};
};

// Guards against any field of a frame (pixels, time stamp, camera, angles) being lost or mangled.
TEST_F(OXVideoTest, FiftyFramesOfOneStreamReplayExactly) {
  open("a.oxv", {kGrey}, 50);
  EXPECT_FALSE(fVideo.isRecording());
  EXPECT_EQ(std::make_tuple(fVideo.getNumberOfImages(), fVideo.getNumberOfStreams(),
                            fVideo.getPeriod(), int(fVideo.getStreams()[0].pixelDepth),
                            fVideo.getStreamResolution(0), fVideo.getStreamColorSpace(0),
                            fVideo.getStreamResolution(1), fVideo.getStreamColorSpace(-1)),
            std::make_tuple(50, 1, 33u, 8, int(OX::kQQVGA), int(OX::kYuv), -1, -1));
  for (int r = 0; r < 50; ++r) expectNext(r);
  EXPECT_FALSE(fVideo.getNextFrame(&fImage, false));
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 50);
  // Frame headers alone, without moving the cursor.
  OXVideo::FrameInfo info{};
  ASSERT_TRUE(fVideo.getFrameInfo(7, 0, info));
  EXPECT_EQ(std::make_tuple(info.fSize, info.fTimeStamp, int(info.fCameraId)),
            std::make_tuple(kQQVGAGrey, int64_t(1007), 0));
  EXPECT_FALSE(fVideo.getFrameInfo(50, 0, info));
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 50);
}

// Guards against frames of interleaved streams being attributed to the wrong stream or image.
TEST_F(OXVideoTest, TwoStreamsWrittenAlternatelyReadPerStream) {
  // 21 frames: the last one has no partner in stream 1, so it makes no image.
  open("b.oxv", {kGrey, kGrey}, 21);
  EXPECT_EQ(fVideo.getNumberOfImages(), 10);
  for (int stream = 0; stream < 2; ++stream) {
    ASSERT_TRUE(fVideo.getFrame(&fImage, 0, stream, false));
    expectRecord(fImage, stream);
    for (int i = 1; i < 10; ++i) expectNext(2 * i + stream);
    EXPECT_EQ(fVideo.getCurrentStream(), stream);
    EXPECT_FALSE(fVideo.getNextFrame(&fImage, false));
  }
  EXPECT_FALSE(fVideo.getFrame(&fImage, 10, 0, false));
}

// Guards against random access depending on the reading order, against cursor drift, and against
// a failed read moving the cursor or touching the image.
TEST_F(OXVideoTest, RandomAccessCursorAndFailedReads) {
  EXPECT_FALSE(fVideo.getNextFrame(&fImage, false));  // nothing open
  open("c.oxv", {kGrey}, 10);
  EXPECT_FALSE(fVideo.getPrecedingFrame(&fImage, false));  // nothing read yet
  for (int index : {7, 2, 9, 0, 9, 3}) {
    ASSERT_TRUE(fVideo.getFrame(&fImage, index, 0, true));
    expectRecord(fImage, index);
    EXPECT_EQ(fVideo.getCurrentImageNumber(), index + 1);
  }

  // From frame 5: forward, back, back, forward.
  ASSERT_TRUE(fVideo.getFrame(&fImage, 5, 0, false));
  for (const auto& [forward, frame] : {P{1, 6}, P{0, 5}, P{0, 4}, P{1, 5}}) {
    SCOPED_TRACE(frame);
    ASSERT_TRUE(forward ? fVideo.getNextFrame(&fImage, false)
                        : fVideo.getPrecedingFrame(&fImage, false));
    EXPECT_EQ(fImage.fTimeStamp, 1000 + frame);
    EXPECT_EQ(fVideo.getCurrentImageNumber(), frame + 1);
  }
  ASSERT_TRUE(fVideo.getFrame(&fImage, 0, 0, false));
  EXPECT_FALSE(fVideo.getPrecedingFrame(&fImage, false));
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 1);

  ASSERT_TRUE(fVideo.getFrame(&fImage, 8, 0, false));
  for (const auto& [index, stream] : {P{10, 0}, P{-1, 0}, P{0, 1}, P{0, -1}}) {
    EXPECT_FALSE(fVideo.getFrame(&fImage, index, stream, false)) << index << " " << stream;
  }
  EXPECT_FALSE(fVideo.getFrame(nullptr, 0, 0, false));
  EXPECT_FALSE(fVideo.getNextFrame(nullptr, false));
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 9);
  expectRecord(fImage, 8);
  expectNext(9);
  EXPECT_FALSE(fVideo.getNextFrame(&fImage, false));  // past the end
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 10);
  expectRecord(fImage, 9);
}

// Guards against a recording cut short (writer killed) being refused or read past its end.
TEST_F(OXVideoTest, FileCutShortReplaysEveryCompleteFrame) {
  record(fDir.file("full.oxv"), {kGrey}, 5);
  const std::string bytes = readBytes(fDir.file("full.oxv"));
  ASSERT_EQ(bytes.size(), static_cast<size_t>(kHeader1 + 5 * kFrame));
  vitest::LogCapture log;
  // Cut position -> complete images, or -1 for a refused file.
  for (const auto& [cut, images] :
       {P{0, -1}, P{3, -1}, P{15, -1}, P{kHeader1 - 1, -1}, P{kHeader1, 0}, P{kHeader1 + 10, 0},
        P{kHeader1 + 36, 0}, P{kHeader1 + kFrame + 36 + 100, 1}, P{kHeader1 + 2 * kFrame, 2},
        P{kHeader1 + 5 * kFrame - 1, 4}}) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    fDir.write("cut.oxv", bytes.substr(0, static_cast<size_t>(cut)));
    OXVideo video;
    ASSERT_EQ(video.readVideo(fDir.file("cut.oxv")), images >= 0);
    EXPECT_EQ(video.isReading(), images >= 0);
    for (int i = 0; i < images; ++i) {
      ASSERT_TRUE(video.getNextFrame(&fImage, false));
      expectRecord(fImage, i);
    }
    EXPECT_EQ(video.getNumberOfImages(), std::max(images, 0));
    EXPECT_FALSE(video.getNextFrame(&fImage, false));
    // What was left out is told, so that tools can report a damaged file.
    const int64_t unread = images < 0 ? 0 : cut - kHeader1 - images * kFrame;
    EXPECT_EQ(video.getUnreadBytes(), unread);
    EXPECT_EQ(video.getProblem().empty(), images >= 0 && unread == 0) << video.getProblem();
  }
}

// Guards against reading garbage, empty, foreign or corrupt files as recordings.
TEST_F(OXVideoTest, GarbageEmptyAndCorruptFilesAreRefused) {
  vitest::LogCapture log;
  std::mt19937 random(42);
  std::string garbage(100000, '\0');
  for (char& c : garbage) c = static_cast<char>(random());
  fDir.write("garbage.oxv", garbage);
  fDir.write("empty.oxv", "");
  for (const char* name : {"missing.oxv", "empty.oxv", "garbage.oxv"}) {
    EXPECT_FALSE(fVideo.readVideo(fDir.file(name))) << name;
  }

  record(fDir.file("good.oxv"), {kGrey}, 6);
  const std::string good = readBytes(fDir.file("good.oxv"));
  // Offset in the file, replacement byte: version, stream count (0 and 17), stream width, a
  // frame marker in the middle, a frame size made negative and made too large. Damage to a frame
  // leaves the images before it to readVideoUpToDamage.
  for (const auto& [offset, byte] :
       {P{4, 2}, P{12, 0}, P{12, 17}, P{16, 0}, P{kHeader1 + 3 * kFrame + 1, 'Y'},
        P{kHeader1 + 2 * kFrame + 7, '\x80'}, P{kHeader1 + 2 * kFrame + 7, '\x10'}}) {
    std::string bytes = good;
    bytes[static_cast<size_t>(offset)] = static_cast<char>(byte);
    fDir.write("bad.oxv", bytes);
    EXPECT_FALSE(fVideo.readVideo(fDir.file("bad.oxv"))) << "byte " << offset;
    EXPECT_FALSE(fVideo.isReading());
    EXPECT_EQ(fVideo.getNumberOfStreams(), 0);
    EXPECT_FALSE(fVideo.getProblem().empty());
    const int damaged = offset < kHeader1 ? -1 : (offset - kHeader1) / kFrame;
    EXPECT_EQ(fVideo.readVideoUpToDamage(fDir.file("bad.oxv")), damaged >= 0);
    if (damaged < 0) continue;
    EXPECT_EQ(fVideo.getNumberOfImages(), damaged);
    EXPECT_EQ(fVideo.getProblem(),
              "corrupt frame at byte " + std::to_string(kHeader1 + damaged * kFrame));
    ASSERT_TRUE(fVideo.getFrame(&fImage, damaged - 1, 0, false));
    expectRecord(fImage, damaged - 1);
  }
  EXPECT_TRUE(fVideo.readVideo(fDir.file("good.oxv")));
  EXPECT_EQ(fVideo.getNumberOfImages(), 6);
}

// Guards against a frame larger than the fImage overrunning it, and against unusable images.
TEST_F(OXVideoTest, ImageGrowsForALargerFrame) {
  const int vgaColour = 640 * 480 * 3;
  record(fDir.file("vga.oxv"), {{640, 480, OX::kRGB, 8}}, 2, vgaColour);
  ASSERT_TRUE(fVideo.readVideo(fDir.file("vga.oxv")));
  ASSERT_TRUE(fVideo.getFrame(&fImage, 1, 0, false));
  EXPECT_GE(fImage.getAllocatedSize(), vgaColour);
  EXPECT_EQ(std::make_tuple(fImage.fWidth, fImage.fHeight, fImage.fColorSpace),
            std::make_tuple(640, 480, int(OX::kRGB)));
  expectRecord(fImage, 1, vgaColour);

  OXImage external(640, 480, OX::kRGB, true);  // no pixels set yet
  EXPECT_FALSE(fVideo.getFrame(&external, 0, 0, false));
  std::vector<unsigned char> buffer(static_cast<size_t>(vgaColour));
  ASSERT_TRUE(external.setData(buffer.data()));
  ASSERT_TRUE(fVideo.getFrame(&external, 0, 0, false));
  expectRecord(external, 0, vgaColour);
}

// Guards against frames recorded at another resolution than their stream's being misread.
TEST_F(OXVideoTest, FrameSizeOfAnotherResolutionIsUsed) {
  OXVideo writer;
  ASSERT_TRUE(writer.recordVideo(fDir.file("r.oxv"), 0, {{320, 240, OX::kYUV422, 8}}));
  const std::vector<char> small = pixels(160 * 120 * 2, 1);
  const std::vector<char> odd = pixels(1000, 2);
  ASSERT_TRUE(writer.write(small.data(), static_cast<int>(small.size()), 1, 0, 0, 0, 0, 0));
  ASSERT_TRUE(writer.write(odd.data(), static_cast<int>(odd.size()), 2, 0, 0, 0, 0, 0));
  writer.closeVideo();

  ASSERT_TRUE(fVideo.readVideo(fDir.file("r.oxv")));
  EXPECT_EQ(fVideo.getStreamResolution(0), OX::kQVGA);
  OXImage image(OX::kQVGA, OX::kYUV422);
  ASSERT_TRUE(fVideo.getNextFrame(&image, false));
  EXPECT_EQ(std::make_tuple(image.fWidth, image.fHeight, image.fColorSpace),
            std::make_tuple(160, 120, int(OX::kYUV422)));
  EXPECT_EQ(std::memcmp(image.fData, small.data(), small.size()), 0);
  EXPECT_FALSE(fVideo.getNextFrame(&image, false));  // 1000 bytes fit no resolution
  EXPECT_EQ(image.fTimeStamp, 1);
  EXPECT_EQ(fVideo.getCurrentImageNumber(), 1);
}

// Guards against the writer accepting bad streams or frames, or misbehaving when closed.
TEST_F(OXVideoTest, MisuseIsHarmless) {
  vitest::LogCapture log;
  const char byte = 0;
  fVideo.closeVideo();  // never opened
  EXPECT_FALSE(fVideo.write(&byte, 1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(fVideo.recordVideo(fDir.file("w.oxv"), 0, {}));
  EXPECT_FALSE(fVideo.recordVideo(fDir.file("w.oxv"), 0, std::vector<streamHeader>(17, kGrey)));
  EXPECT_FALSE(fVideo.recordVideo(fDir.file("w.oxv"), 0, {kGrey, {0, 120, OX::kYuv, 8}}));
  EXPECT_FALSE(fVideo.recordVideo(fDir.file("w.oxv"), 0, {{1281, 960, OX::kRGB, 8}}));
  EXPECT_FALSE(fVideo.recordVideo(fDir.file("no/such/fDir.oxv"), 0, {kGrey}));
  EXPECT_FALSE(fVideo.isRecording());
  EXPECT_FALSE(std::ifstream(fDir.file("w.oxv")).good());
  EXPECT_FALSE(fVideo.write(&byte, 1, 0, 0, 0, 0, 0, 0));

  ASSERT_TRUE(fVideo.recordVideo(fDir.file("w.oxv"), 0, std::vector<streamHeader>(16, kColour)));
  EXPECT_TRUE(fVideo.isRecording());
  EXPECT_FALSE(fVideo.write(nullptr, 1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(fVideo.write(&byte, -1, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(fVideo.write(&byte, OXVideo::kMaxFrameSize + 1, 0, 0, 0, 0, 0, 0));
  EXPECT_TRUE(fVideo.write(nullptr, 0, 0, 0, 0, 0, 0, 0));
  fVideo.closeVideo();
  fVideo.closeVideo();
  EXPECT_FALSE(fVideo.isRecording());
  EXPECT_FALSE(fVideo.write(&byte, 1, 0, 0, 0, 0, 0, 0));

  {  // the destructor closes and flushes
    OXVideo scoped;
    ASSERT_TRUE(scoped.recordVideo(fDir.file("s.oxv"), 0, {kGrey}));
    const std::vector<char> data = pixels(kQQVGAGrey, 0);
    ASSERT_TRUE(scoped.write(data.data(), kQQVGAGrey, 1000, -2, 0, 0, 0, 0));
  }
  ASSERT_TRUE(fVideo.readVideo(fDir.file("s.oxv")));
  EXPECT_EQ(fVideo.getNumberOfImages(), 1);
  fVideo.closeVideo();
  fVideo.closeVideo();
  EXPECT_FALSE(fVideo.isReading());
  EXPECT_EQ(fVideo.getNumberOfImages(), 0);
}
