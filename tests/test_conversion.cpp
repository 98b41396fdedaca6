// Colour-space conversion: every kernel against a per-pixel computation written here from the
// formulas, the hand-checked anchor values, the clipping to both buffers, the frame pass and the
// dispatcher xConvertImage; each test once per kernel variant this processor runs, and every
// variant byte for byte against the reference.
#include <algorithm>
#include <array>
#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "fakecamera.h"
#include "oxtypes.h"
#include "kernels/kernelchoice.h"
#include "kernels/conversion.h"
#include "testsupport.h"

namespace OX {
// Names the variant in the tests' names and messages.
void PrintTo(KernelVariant pVariant, std::ostream* pOut) {
  *pOut << kernelVariantName(pVariant);
}
}  // namespace OX

namespace {

using Bytes = std::vector<unsigned char>;
constexpr unsigned char kSentinel = 0xA5;
const int kAllSpaces[] = {OX::kYuv, OX::kHsy, OX::kYUV422, OX::kYUV,   OX::kRGB,
                          OX::kHSY, OX::kBGR, OX::kYYCbCr, OX::kH2RGB, OX::kHSMixed};

// The fake device with the conversion opened for the tests.
class ConvCam : public vitest::FakeCam {
 public:
  using FakeCam::FakeCam;
  using OXVisionVideoInput::xApplyPatchForKernelMemcopy;
  using OXVisionVideoInput::xConvertImage;
  using Kernel = void (OX::OXVisionVideoInput::*)(const OX::OXImage*, OX::OXImage*);
  static Kernel kernel(int pColorSpace) {
    static const std::map<int, Kernel> kernels = {
        {OX::kYuv, &ConvCam::xYUV422toYuv},       {OX::kHsy, &ConvCam::xYUV422toHsy},
        {OX::kYUV422, &ConvCam::xYUV422toYUV422}, {OX::kYUV, &ConvCam::xYUV422toYUV},
        {OX::kRGB, &ConvCam::xYUV422toRGB},       {OX::kHSY, &ConvCam::xYUV422toHSY},
        {OX::kBGR, &ConvCam::xYUV422toBGR},       {OX::kYYCbCr, &ConvCam::xYUV422toYYCbCr},
        {OX::kH2RGB, &ConvCam::xYUV422toH2RGB},   {OX::kHSMixed, &ConvCam::xYUV422toHSMixed}};
    return kernels.at(pColorSpace);
  }
};

boost::shared_ptr<ConvCam> makeCam() {
  return OX::OXModule::createModule<ConvCam>(OX::OXBroker::createBroker("test", {}));
}

// Every test runs with each kernel variant forced in turn.
class Conversion : public ::testing::TestWithParam<OX::KernelVariant> {
 protected:
  boost::shared_ptr<ConvCam> cam = makeCam();
  void SetUp() override { ASSERT_TRUE(OX::conversionkernels::forceKernelsForTesting(GetParam())); }
  void TearDown() override {
    OX::conversionkernels::forceKernelsForTesting(OX::KernelVariant::kAutomatic);
  }
};

// Deterministic raw bytes; every fifth macro-pixel is grey (U = V = 128), the hue's last case.
Bytes randomFrame(size_t pSize, unsigned pSeed) {
  std::mt19937 random(pSeed);
  Bytes bytes(pSize);
  for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
  for (size_t at = 0; at + 3 < pSize; at += 20) bytes[at + 1] = bytes[at + 3] = 128;
  return bytes;
}

// Runs one kernel from an exactly sized source into an exactly sized, sentinel-filled target,
// so that AddressSanitizer sees any byte outside either.
Bytes run(ConvCam& pCam, int pSpace, const Bytes& pSource, int pSw, int pSh, int pDw, int pDh) {
  Bytes source(pSource.begin(), pSource.begin() + pSw * pSh * 2);
  Bytes target(static_cast<size_t>(pDw * pDh * OX::getNumLayersFromColorSpace(pSpace)), kSentinel);
  OX::OXImage in(pSw, pSh, OX::kYUV422, true);
  OX::OXImage out(pDw, pDh, pSpace, true);
  in.setData(source.data());
  out.setData(target.data());
  (pCam.*ConvCam::kernel(pSpace))(&in, &out);
  return target;
}

// --- The oracle, from the formulas, one pixel at a time ---
int clampByte(int pValue) {
  return std::min(255, std::max(0, pValue));
}

std::array<int, 3> rgbOf(int pY, int pU, int pV) {
  const int y = 298 * (pY - 16), u = pU - 128, v = pV - 128;
  return {clampByte((y + 409 * v) >> 8), clampByte((y - 100 * u - 208 * v) >> 8),
          clampByte((y + 516 * u) >> 8)};
}

// Hue byte and saturation of one pixel, by the hexagon's seven cases.
std::array<int, 2> hueSatOf(int pY, int pU, int pV) {
  const int a = 208 * pU + 509 * pV - 91776, b = -724 * pU - 100 * pV + 105472;
  const int c = -516 * pU + 409 * pV + 13696;
  const int dr = 298 * pY + 409 * pV - 57119, dg = 298 * pY - 208 * pU - 100 * pV + 34657;
  const int db = 298 * pY + 516 * pU - 70815;
  int h = 0, s = 0;  // case 7, grey, when no other case holds
  if (a > 0 && b > 0) h = 85 * b / (2 * c), s = 255 * c / dr;
  if (a > 0 && b <= 0 && c > 0) h = 85 * b / (2 * a) - 1, s = 255 * a / dr;
  if (a > 0 && b <= 0 && c <= 0) h = 85 * a / (-2 * b) - 85, s = -255 * b / db;
  if (a <= 0 && b < 0) h = 85 * a / (-2 * c) - 85, s = -255 * c / db;
  if (a <= 0 && b >= 0 && c > 0) h = -85 * c / (2 * b) + 85, s = 255 * b / dg;
  if (a < 0 && b >= 0 && c <= 0) h = 85 * c / (2 * a) + 85, s = -255 * a / dg;
  return {h & 0xFF, clampByte(s)};
}

std::array<int, 3> h2rgbOf(int pH) {
  std::array<int, 3> c = {0, 0, 255};  // 254 and 255
  if (pH <= 253) c = {-6 * pH - 15, 0, 255};
  if (pH <= 210) c = {255, 0, 6 * pH + 10};
  if (pH <= 168) c = {255, -6 * pH - 7, 0};
  if (pH <= 126) c = {6 * pH + 2, 255, 0};
  if (pH <= 84) c = {0, 255, 1 - 6 * pH};
  if (pH <= 42) c = {0, 6 * pH, 255};
  for (int& value : c) value &= 0xFF;
  return c;
}

// The whole expected target: source row y * step, macro-pixel at 4 * step * x (2 * step for
// kHsy); production stops at the first macro-pixel that would leave either buffer.
Bytes expected(int pSpace, const Bytes& pSrc, int pSw, int pSh, int pDw, int pDh) {
  const long bpp = OX::getNumLayersFromColorSpace(pSpace), size = long{pSw} * pSh * 2;
  Bytes out(static_cast<size_t>(pDw * pDh * bpp), kSentinel);
  const long step = pSw / pDw;
  if (pSpace == OX::kYUV422 && step == 1) {
    const long n = std::min({std::max(1L, long{pDw} * pDh / 4) * 8, size, long(out.size())});
    std::copy(pSrc.begin(), pSrc.begin() + n, out.begin());
    return out;
  }
  const bool hsy = pSpace == OX::kHsy;
  const long count = (pSpace == OX::kYUV422 || pSpace == OX::kYYCbCr) ? pDw / 2 : (pDw + 1) / 2;
  const long rowAdvance = pSpace == OX::kYYCbCr ? (pSw / 2) * step * 4
                          : hsy                 ? step * step * pDw
                                                : 2 * step * step * pDw;
  for (long y = 0; y < pDh; ++y) {
    for (long x = 0; x < count; ++x) {
      const long at = y * rowAdvance + (hsy ? 2 : 4) * step * x;
      const long to = (hsy ? 0 : y * count * 2 * bpp) + x * 2 * bpp;
      long furthest = at + 3;
      if (pSpace == OX::kYuv) furthest = at + 2 * step;
      if (pSpace == OX::kYUV422) furthest = std::max(at + 3, at + 2 + 4 * (step / 2));
      if (furthest >= size || to + 2 * bpp > long(out.size())) return out;
      auto byte = [&](long pAt) { return pAt < size ? int{pSrc[pAt]} : 0; };  // 0: not read
      const int y0 = byte(at), u = byte(at + 1), y1 = byte(at + 2), v = byte(at + 3);
      const auto p0 = rgbOf(y0, u, v), p1 = rgbOf(y1, u, v);
      const auto hs0 = hueSatOf(y0, u, v), hs1 = hueSatOf(y1, u, v);
      const int h = hs0[0];
      const auto c = h2rgbOf(h);
      const std::map<int, std::vector<int>> candidates = {
          {OX::kYuv, {y0, byte(at + 2 * step)}},
          {OX::kHsy, {h, h}},
          {OX::kYUV422, {y0, u, byte(at + 2 + 4 * (step / 2)), v}},
          {OX::kYUV, {y0, u, v, y1, u, v}},
          {OX::kRGB, {p0[0], p0[1], p0[2], p1[0], p1[1], p1[2]}},
          {OX::kBGR, {p0[2], p0[1], p0[0], p1[2], p1[1], p1[0]}},
          {OX::kHSY, {h, hs0[1], y0, h, hs1[1], y1}},
          {OX::kYYCbCr, {y0, y1, u, v}},
          {OX::kH2RGB, {c[0], c[1], c[2], c[0], c[1], c[2]}},
          {OX::kHSMixed, {h, hs0[1], h, h, hs1[1], h}}};
      const std::vector<int>& px = candidates.at(pSpace);
      for (size_t k = 0; k < px.size(); ++k) out[to + k] = static_cast<unsigned char>(px[k]);
    }
  }
  return out;
}

// The hand-checked values: grey is hue case 7, no rounding term, the clamp at 255.
TEST_P(Conversion, AnchorValuesOfGreyBlackWhiteAndClamp) {
  const auto onePair = [&](int pSpace, Bytes pPair) {
    return run(*cam, pSpace, pPair, 2, 1, 2, 1);
  };
  const Bytes grey = {50, 128, 200, 128};
  EXPECT_EQ(onePair(OX::kHSY, grey), (Bytes{0, 0, 50, 0, 0, 200}));
  EXPECT_EQ(onePair(OX::kH2RGB, grey), (Bytes{0, 0, 255, 0, 0, 255}));
  EXPECT_EQ(onePair(OX::kHSMixed, grey), (Bytes{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(onePair(OX::kRGB, {16, 128, 235, 128}), (Bytes{0, 0, 0, 254, 254, 254}));
  EXPECT_EQ(onePair(OX::kRGB, {255, 128, 255, 128}), Bytes(6, 255));
}

// Pins the oracle's layout rules by hand. The kept quirks: the word copy leaves the tail, kHsy
// writes only over its first row. The step rule at 640 x 480 to 320 x 240: row and macro-pixel
// strides. Step 0: a destination wider than the source repeats the first macro-pixel.
TEST_P(Conversion, HandCheckedLayouts) {
  const Bytes frame = randomFrame(3 * 3 * 2, 3);
  const Bytes copy = run(*cam, OX::kYUV422, frame, 3, 3, 3, 3);  // 9 pixels: two words
  EXPECT_TRUE(std::equal(copy.begin(), copy.begin() + 16, frame.begin()));
  EXPECT_EQ(copy[16], kSentinel);
  EXPECT_EQ(copy[17], kSentinel);
  const Bytes hsy = run(*cam, OX::kHsy, randomFrame(4 * 4 * 2, 4), 4, 4, 4, 4);
  EXPECT_TRUE(std::all_of(hsy.begin() + 4, hsy.end(), [](int b) { return b == kSentinel; }));
  // Too small for a single word: only what both buffers hold is copied.
  EXPECT_EQ(run(*cam, OX::kYUV422, {1, 2}, 1, 1, 1, 1), (Bytes{1, 2}));
  const Bytes big = randomFrame(640 * 480 * 2, 11);
  const Bytes yuv = run(*cam, OX::kYuv, big, 640, 480, 320, 240);
  EXPECT_EQ(yuv[320], big[2 * 1280]);
  EXPECT_EQ(yuv[321], big[2 * 1280 + 4]);
  const Bytes small = {10, 20, 30, 40, 1, 2, 3, 4};
  Bytes repeated;
  for (int i = 0; i < 8; ++i) repeated.insert(repeated.end(), {10, 20, 30, 40});
  EXPECT_EQ(run(*cam, OX::kYUV422, small, 4, 1, 8, 2), repeated);
  EXPECT_EQ(run(*cam, OX::kYuv, small, 4, 1, 8, 2), Bytes(16, 10));
}

// Guards every kernel and its variant selection at steps 1, 2, 4 and 8, over awkward geometry
// (odd widths, sources too short or too wide, a one-pixel target), byte for byte.
TEST_P(Conversion, EveryKernelMatchesTheFormulasAtEveryStep) {
  // Target width and height, extra source width, source height (0: dh * step).
  const int geometries[][4] = {{6, 4, 0, 0}, {5, 3, 0, 0}, {6, 4, 1, 0},
                               {6, 4, 0, 1}, {7, 5, 0, 2}, {1, 1, 0, 0}};
  for (int space : kAllSpaces) {
    for (int step : {1, 2, 4, 8}) {
      for (const auto& [dw, dh, extraWidth, sourceHeight] : geometries) {
        const int sw = dw * step + extraWidth, sh = sourceHeight != 0 ? sourceHeight : dh * step;
        const Bytes frame = randomFrame(static_cast<size_t>(sw * sh * 2), sw * 31 + sh);
        EXPECT_EQ(run(*cam, space, frame, sw, sh, dw, dh), expected(space, frame, sw, sh, dw, dh))
            << "space " << space << " " << dw << "x" << dh << " from " << sw << "x" << sh;
      }
    }
  }
}

// Guards the vector kernels' blocks and their hand-over to the scalar tail: random frames at
// every camera size and at widths that leave many tails, at steps 1 and 2, byte for byte against
// the reference. run()'s buffers end where their allocation does.
TEST_P(Conversion, VariantMatchesTheReferenceOnRandomFrames) {
  const int sizes[][2] = {{160, 120}, {320, 240}, {640, 480}, {1280, 960}, {33, 3}, {37, 5},
                          {39, 3},    {45, 3},    {48, 5},    {62, 3},     {63, 3}};
  for (int space : {OX::kYuv, OX::kYUV422, OX::kYUV, OX::kRGB, OX::kBGR}) {
    for (const auto& size : sizes) {
      for (int step : {1, 2}) {
        // At odd heights the last row read is the source's last: its end is the buffer's, and at
        // 62 x 3 right after the last macro-pixel read.
        const int sw = size[0], sh = size[1], dw = sw / step, dh = (sh + step - 1) / step;
        const Bytes frame = randomFrame(static_cast<size_t>(sw * sh * 2), sw + sh + space);
        ASSERT_TRUE(OX::conversionkernels::forceKernelsForTesting(OX::KernelVariant::kReference));
        const Bytes want = run(*cam, space, frame, sw, sh, dw, dh);
        ASSERT_TRUE(OX::conversionkernels::forceKernelsForTesting(GetParam()));
        EXPECT_TRUE(run(*cam, space, frame, sw, sh, dw, dh) == want)
            << "space " << space << " " << sw << "x" << sh << " step " << step;
      }
    }
  }
}

// The row kernels straight, at every count up to a few blocks (so every tail is met), from a
// source that ends at the last byte the reference reads, against the reference.
TEST_P(Conversion, RowKernelsOnEveryCountReadNoFurtherThanTheReference) {
  namespace kernels = OX::conversionkernels;
  using Row = kernels::Row kernels::Kernels::*;
  struct Case {
    Row row;
    int targetBytes, lastRead[2];  // the last byte read of a macro-pixel at step 1, 2
  };
  const Case cases[] = {{&kernels::Kernels::fYuv, 2, {2, 4}},
                        {&kernels::Kernels::fYUV422, 4, {3, 6}},
                        {&kernels::Kernels::fYUV, 6, {3, 3}},
                        {&kernels::Kernels::fRGB, 6, {3, 3}},
                        {&kernels::Kernels::fBGR, 6, {3, 3}}};
  for (const Case& c : cases) {
    for (int step : {1, 2}) {
      for (int count = 1; count <= 40; ++count) {
        const Bytes source = randomFrame(
            static_cast<size_t>(4 * step * (count - 1) + c.lastRead[step - 1] + 1), count);
        Bytes want(static_cast<size_t>(count * c.targetBytes)), got(want.size());
        (kernels::referenceKernels().*c.row)(source.data(), step, want.data(), count);
        (kernels::activeKernels().*c.row)(source.data(), step, got.data(), count);
        ASSERT_TRUE(got == want) << c.targetBytes << " bytes step " << step << " count " << count;
      }
    }
  }
}

// Every Y, U and V through kRGB and kBGR, both clamps included: one frame per U, a row per V, a
// macro-pixel per pair of Y, against the formulas.
TEST_P(Conversion, EveryYuvTripleMatchesTheFormulas) {
  Bytes frame(256 * 256 * 2);
  for (int u = 0; u < 256; ++u) {
    for (int v = 0; v < 256; ++v) {
      for (int y = 0; y < 256; y += 2) {
        unsigned char* at = &frame[(v * 256 + y) * 2];
        at[0] = static_cast<unsigned char>(y), at[1] = static_cast<unsigned char>(u);
        at[2] = static_cast<unsigned char>(y + 1), at[3] = static_cast<unsigned char>(v);
      }
    }
    const Bytes rgb = run(*cam, OX::kRGB, frame, 256, 256, 256, 256);
    const Bytes bgr = run(*cam, OX::kBGR, frame, 256, 256, 256, 256);
    for (int v = 0; v < 256; ++v) {
      for (int y = 0; y < 256; ++y) {
        const auto want = rgbOf(y, u, v);
        const size_t at = static_cast<size_t>(v * 256 + y) * 3;
        ASSERT_TRUE(rgb[at] == want[0] && rgb[at + 1] == want[1] && rgb[at + 2] == want[2] &&
                    bgr[at] == want[2] && bgr[at + 1] == want[1] && bgr[at + 2] == want[0])
            << "y " << y << " u " << u << " v " << v;
      }
    }
  }
}

// Guards the frame pass: whole 32-byte groups, but never past the frame's last byte.
TEST_P(Conversion, PatchPassCopiesTheFrameAndStopsAtItsEnd) {
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

// Guards the dispatch: the kernel runs after the frame pass, stamp and angles follow, the write
// hold becomes a read hold. A raw frame that is not kYUV422, or a colour space without kernel
// (logged), converts nothing, yet the old pixels get the new stamp and the call completes.
TEST_P(Conversion, ConvertImageConvertsStampsAndHandsOverTheHold) {
  const struct {
    int space, rawSpace;
    bool converts;
  } cases[] = {{OX::kRGB, OX::kYUV422, true}, {OX::kRGB, OX::kRGB, false}, {3, OX::kYUV422, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "space " << c.space << " raw " << c.rawSpace);
    Dispatch d(c.space);
    d.raw.fColorSpace = static_cast<uint8_t>(c.rawSpace);
    vitest::LogCapture capture;
    OX::OXCriticalSectionWrite lock(d.cam->fVisionModulesLock);
    EXPECT_EQ(d.cam->xConvertImage(0, d.info, &d.raw), 0);
    const OX::OXImage& image = *d.buffer().fImage;
    if (c.converts) {
      const Bytes want = expected(OX::kRGB, d.pixels, 160, 120, 160, 120);
      EXPECT_TRUE(std::equal(want.begin(), want.end(), image.fData));
      EXPECT_TRUE(std::equal(d.pixels.begin(), d.pixels.end(),
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
TEST_P(Conversion, NoFreeBufferReturnsMinusOne) {
  Dispatch d(OX::kRGB);
  d.info->fRequestedProperties[0]->fResolution = OX::kVGA;
  vitest::LogCapture capture;
  OX::OXCriticalSectionWrite lock(d.cam->fVisionModulesLock);
  EXPECT_EQ(d.cam->xConvertImage(0, d.info, &d.raw), -1);
  EXPECT_EQ(capture.countLevel(2), 1);
  EXPECT_EQ(d.buffer().fImage->fTimeStamp, 0);
}

INSTANTIATE_TEST_SUITE_P(Variants, Conversion, ::testing::ValuesIn(OX::supportedKernelVariants()),
                         [](const auto& pInfo) { return OX::kernelVariantName(pInfo.param); });

}  // namespace
