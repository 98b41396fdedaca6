// The device's side of the colour-space conversion: the frame pass ahead of the kernels and the
// dispatcher xConvertImage, which picks the device's kernel method of each colour space (the
// kernels themselves: test_conversion_kernels).
#include <algorithm>
#include <boost/make_shared.hpp>
#include <vector>

#include <gtest/gtest.h>

#include "fakecamera.h"
#include "kerneloracles.h"
#include "oxtypes.h"
#include "testsupport.h"

namespace {

using vitest::Bytes;
using vitest::kSentinel;
using vitest::randomFrame;

// The fake device with the conversion opened for the tests.
class ConvCam : public vitest::FakeCam {
 public:
  using FakeCam::FakeCam;
  using OXVisionVideoInput::xApplyPatchForKernelMemcopy;
  using OXVisionVideoInput::xConvertImage;
};

boost::shared_ptr<ConvCam> makeCam() {
  return OX::OXModule::createModule<ConvCam>(OX::OXBroker::createBroker("test", {}));
}

// Guards the frame pass: whole 32-byte groups, but never past the frame's last byte.
TEST(ConversionDispatch, PatchPassCopiesTheFrameAndStopsAtItsEnd) {
  auto cam = makeCam();
  for (int width : {3, 10, 8}) {  // 6 bytes (one group cut), 80 (three cut), 64 (exact)
    Bytes frame = randomFrame(static_cast<size_t>(width * (width == 3 ? 1 : 4) * 2), width);
    OX::OXImage image(width, width == 3 ? 1 : 4, OX::kYUV422, true);
    image.setData(frame.data());
    std::fill_n(cam->fCopyBuffer.get(), 256, static_cast<char>(kSentinel));
    cam->xApplyPatchForKernelMemcopy(&image);
    const auto* copy = reinterpret_cast<const unsigned char*>(cam->fCopyBuffer.get());
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), copy)) << width;
    EXPECT_EQ(copy[frame.size()], kSentinel) << width;
  }
}

// One single-stream subscriber on camera 0 with one QQVGA buffer of its format.
struct Dispatch {
  boost::shared_ptr<ConvCam> cam = makeCam();
  boost::shared_ptr<OX::VisionModuleInfo> info = boost::make_shared<OX::VisionModuleInfo>();
  Bytes pixels = randomFrame(160 * 120 * 2, 5);
  OX::OXImage raw{160, 120, OX::kYUV422, true, 1.5f, 2.5f, 3.5f, 4.5f};
  explicit Dispatch(int pSpace) {
    for (int i = 0; i < 2; ++i) {
      info->fRequestedProperties.push_back(boost::make_shared<OX::RequestedCameraProperties>());
    }
    info->fRequestedProperties[0]->fResolution = OX::kQQVGA;
    info->fRequestedProperties[0]->fColorSpace = static_cast<uint8_t>(pSpace);
    cam->xCreateBuffersForStoringImages(0, OX::kQQVGA, pSpace);
    std::fill_n(buffer().fImage->fData, 160 * 120 * 3, kSentinel);
    raw.setData(pixels.data());
    raw.fTimeStamp = 123456789;
    raw.fCameraId = 1;
  }
  OX::OXVisionBuffer& buffer() { return *cam->camera(0).fImageBuffers[0]; }
};

// Guards the dispatch: each colour space runs its own kernel (after the frame pass), stamp and
// angles follow, the write hold becomes a read hold. A raw frame that is not kYUV422, or a colour
// space without kernel (logged), converts nothing, yet the old pixels get the new stamp and the
// call completes.
TEST(ConversionDispatch, ConvertImageConvertsStampsAndHandsOverTheHold) {
  struct Case {
    int space, rawSpace;
    bool converts;
  };
  std::vector<Case> cases = {{OX::kRGB, OX::kRGB, false}, {3, OX::kYUV422, false}};
  for (int space : vitest::kAllSpaces) cases.push_back({space, OX::kYUV422, true});
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "space " << c.space << " raw " << c.rawSpace);
    Dispatch d(c.space);
    d.raw.fColorSpace = static_cast<uint8_t>(c.rawSpace);
    vitest::LogCapture capture;
    OX::OXCriticalSectionWrite lock(d.cam->fVisionModulesLock);
    EXPECT_EQ(d.cam->xConvertImage(0, d.info, &d.raw), 0);
    const OX::OXImage& image = *d.buffer().fImage;
    if (c.converts) {
      const Bytes want = vitest::expectedConversion(c.space, d.pixels, 160, 120, 160, 120);
      EXPECT_TRUE(std::equal(want.begin(), want.end(), image.fData));
      EXPECT_TRUE(c.space != OX::kRGB ||
                  std::equal(d.pixels.begin(), d.pixels.end(),
                             reinterpret_cast<unsigned char*>(d.cam->fCopyBuffer.get())));
    } else {
      EXPECT_TRUE(std::all_of(image.fData, image.fData + 160 * 120 * 3,
                              [](int b) { return b == kSentinel; }));
    }
    EXPECT_EQ(capture.has(2, "vision.oxvisionvideoinput", "Unknown colorSpace required"),
              c.space == 3);
    EXPECT_EQ(image.fTimeStamp, 123456789);
    EXPECT_EQ(image.fCameraId, 1);
    EXPECT_EQ(std::vector<float>(
                  {image.fLeftAngle, image.fTopAngle, image.fRightAngle, image.fBottomAngle}),
              std::vector<float>({1.5f, 2.5f, 3.5f, 4.5f}));
    EXPECT_EQ(d.buffer().fReadLockCount, 1);
    EXPECT_EQ(d.buffer().fWriteLockCount, 0);
  }
}

// A pool without a free buffer of the format must not be indexed: a record and -1.
TEST(ConversionDispatch, NoFreeBufferReturnsMinusOne) {
  Dispatch d(OX::kRGB);
  d.info->fRequestedProperties[0]->fResolution = OX::kVGA;
  vitest::LogCapture capture;
  OX::OXCriticalSectionWrite lock(d.cam->fVisionModulesLock);
  EXPECT_EQ(d.cam->xConvertImage(0, d.info, &d.raw), -1);
  EXPECT_EQ(capture.countLevel(2), 1);
  EXPECT_EQ(d.buffer().fImage->fTimeStamp, 0);
}

}  // namespace
