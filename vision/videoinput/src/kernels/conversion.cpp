// Colour-space conversion from a raw kYUV422 frame to a subscriber's colour space and size, in
// one pass that skips source pixels (no filtering). Row kernels convert; one plane loop picks the
// rows, applies the step rule and clips to both buffers. The plain integer kernels are the
// reference; the vector variants, selected through activeKernels(), must match byte for byte.
#include "kernels/conversion.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kernels/kernelchoice.h"
#include "kernels/vector.h"

namespace OX {
namespace conversionkernels {

namespace {

// A raw macro-pixel: two pixels sharing one chroma pair.
enum : int { kY0 = 0, kU = 1, kY1 = 2, kV = 3 };

// ITU-R BT.601 studio range to RGB, scaled by 256: luma 298 * (Y - 16), chroma centred on 128.
// No rounding term is added before the shift.
constexpr int kLumaScale = 298;
constexpr int kLumaOffset = 16;
constexpr int kChromaOffset = 128;
constexpr int kRedFromV = 409;
constexpr int kGreenFromU = -100;
constexpr int kGreenFromV = -208;
constexpr int kBlueFromU = 516;
constexpr int kShift = 8;

// The channel differences of the hue, scaled by 256, on the raw bytes with the bias folded in.
// Green has its U and V coefficients swapped against the RGB kernels, so the hue of a colour
// does not agree exactly with its RGB conversion. Vision modules that take kHsy, kHSY, kH2RGB or
// kHSMixed images are tuned to these hues, so the coefficients stay.
struct Linear {
  int fU;
  int fV;
  int fOffset;
  int of(int pU, int pV) const { return fU * pU + fV * pV + fOffset; }
};
constexpr Linear kRedMinusGreen = {208, 509, -91776};
constexpr Linear kGreenMinusBlue = {-724, -100, 105472};
constexpr Linear kRedMinusBlue = {-516, 409, 13696};
// The channels of a pixel scaled by 256, plus 1 so that no saturation divides by zero; the
// luma term kLumaScale * Y is added per pixel.
constexpr Linear kRedChannel = {0, 409, -57119};
constexpr Linear kGreenChannel = {-208, -100, 34657};
constexpr Linear kBlueChannel = {516, 0, -70815};
// The hue hexagon has 255 steps: 0 red, 85 green, -85 (171 as a byte) blue.
constexpr int kHueThird = 85;
constexpr int kSaturationScale = 255;

inline unsigned char clampByte(int pValue) {
  return static_cast<unsigned char>(pValue > 255 ? 255 : (pValue < 0 ? 0 : pValue));
}

// The hue of one macro-pixel and what its saturation needs. The branches and their order are
// those of the hexagon; every division truncates towards zero.
struct Hue {
  int fHue;
  int fNumerator;
  int fDenominator;  // without the luma term
  bool fHasSaturation;
};

inline Hue hueOf(int pU, int pV) {
  const int a = kRedMinusGreen.of(pU, pV);
  const int b = kGreenMinusBlue.of(pU, pV);
  const int c = kRedMinusBlue.of(pU, pV);
  const int red = kRedChannel.of(pU, pV);
  const int green = kGreenChannel.of(pU, pV);
  const int blue = kBlueChannel.of(pU, pV);
  if (a > 0) {
    if (b > 0) return {kHueThird * b / (2 * c), kSaturationScale * c, red, true};
    if (c > 0) return {kHueThird * b / (2 * a) - 1, kSaturationScale * a, red, true};
    return {kHueThird * a / (-2 * b) - kHueThird, -kSaturationScale * b, blue, true};
  }
  if (b < 0) return {kHueThird * a / (-2 * c) - kHueThird, -kSaturationScale * c, blue, true};
  if (c > 0) return {-kHueThird * c / (2 * b) + kHueThird, kSaturationScale * b, green, true};
  if (a < 0) return {kHueThird * c / (2 * a) + kHueThird, -kSaturationScale * a, green, true};
  return {0, 0, 0, false};  // grey: no hue, no saturation
}

inline unsigned char saturationOf(const Hue& pHue, int pLuma) {
  if (!pHue.fHasSaturation) return 0;
  return clampByte(pHue.fNumerator / (kLumaScale * pLuma + pHue.fDenominator));
}

// A fully saturated colour per hue byte: on each stretch every channel is slope * H + offset,
// taken modulo 256. Read as a pixel, c0 is blue, c1 green and c2 red.
struct HueStretch {
  int fLast;
  int fSlope[3];
  int fOffset[3];
};
constexpr HueStretch kHueStretches[] = {
    {42, {0, 6, 0}, {0, 0, 255}},   {84, {0, 0, -6}, {0, 255, 1}},
    {126, {6, 0, 0}, {2, 255, 0}},  {168, {0, -6, 0}, {255, -7, 0}},
    {210, {0, 0, 6}, {255, 0, 10}}, {253, {-6, 0, 0}, {-15, 0, 255}},
    {255, {0, 0, 0}, {0, 0, 255}},
};

void yuvRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  // The second pixel is Y0 of the macro-pixel step pixels on, not Y1, once the step is above 1.
  const int second = 2 * pStep;
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 2) {
    pTarget[0] = pSource[kY0];
    pTarget[1] = pSource[second];
  }
}

void hsyRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  // Advances half a macro-pixel per step: every second read at step 1 lies mid macro-pixel.
  for (int i = 0; i < pCount; ++i, pSource += 2 * pStep, pTarget += 2) {
    const unsigned char hue = static_cast<unsigned char>(hueOf(pSource[kU], pSource[kV]).fHue);
    pTarget[0] = hue;
    pTarget[1] = hue;
  }
}

void yuv422Row(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  // Y1 comes from the macro-pixel step / 2 on; U and V stay with Y0.
  const int second = kY1 + 4 * (pStep / 2);
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 4) {
    pTarget[0] = pSource[kY0];
    pTarget[1] = pSource[kU];
    pTarget[2] = pSource[second];
    pTarget[3] = pSource[kV];
  }
}

void yuvPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 6) {
    pTarget[0] = pSource[kY0];
    pTarget[1] = pSource[kU];
    pTarget[2] = pSource[kV];
    pTarget[3] = pSource[kY1];
    pTarget[4] = pSource[kU];
    pTarget[5] = pSource[kV];
  }
}

// RGB (pRed 0, pBlue 2) or BGR (pRed 2, pBlue 0).
template <int pRed, int pBlue>
void rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep) {
    const int u = pSource[kU] - kChromaOffset;
    const int v = pSource[kV] - kChromaOffset;
    const int red = kRedFromV * v;
    const int green = kGreenFromU * u + kGreenFromV * v;
    const int blue = kBlueFromU * u;
    for (int luma : {pSource[kY0], pSource[kY1]}) {
      const int y = kLumaScale * (luma - kLumaOffset);
      pTarget[pRed] = clampByte((y + red) >> kShift);
      pTarget[1] = clampByte((y + green) >> kShift);
      pTarget[pBlue] = clampByte((y + blue) >> kShift);
      pTarget += 3;
    }
  }
}

// The hue kernels that store six bytes per macro-pixel; pWrite places them.
template <class Write>
inline void hueRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount,
                   Write pWrite) {
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 6) {
    const Hue hue = hueOf(pSource[kU], pSource[kV]);
    pWrite(static_cast<unsigned char>(hue.fHue), saturationOf(hue, pSource[kY0]),
           saturationOf(hue, pSource[kY1]), pSource, pTarget);
  }
}

void hsyPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  hueRow(pSource, pStep, pTarget, pCount,
         [](unsigned char pH, unsigned char pS0, unsigned char pS1, const unsigned char* pIn,
            unsigned char* pOut) {
           const unsigned char out[6] = {pH, pS0, pIn[kY0], pH, pS1, pIn[kY1]};
           std::memcpy(pOut, out, sizeof out);
         });
}

void hsMixedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  hueRow(pSource, pStep, pTarget, pCount,
         [](unsigned char pH, unsigned char pS0, unsigned char pS1, const unsigned char*,
            unsigned char* pOut) {
           const unsigned char out[6] = {pH, pS0, pH, pH, pS1, pH};
           std::memcpy(pOut, out, sizeof out);
         });
}

void h2rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 6) {
    const int hue = static_cast<unsigned char>(hueOf(pSource[kU], pSource[kV]).fHue);
    const HueStretch* stretch = kHueStretches;
    while (hue > stretch->fLast) ++stretch;
    for (int c = 0; c < 3; ++c) {
      const unsigned char value =
          static_cast<unsigned char>((stretch->fSlope[c] * hue + stretch->fOffset[c]) & 0xFF);
      pTarget[c] = value;
      pTarget[c + 3] = value;
    }
  }
}

void yycbcrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  for (int i = 0; i < pCount; ++i, pSource += 4 * pStep, pTarget += 4) {
    pTarget[0] = pSource[kY0];
    pTarget[1] = pSource[kY1];
    pTarget[2] = pSource[kU];
    pTarget[3] = pSource[kV];
  }
}

constexpr Kernels kReference = {yuvRow,       hsyRow,       yuv422Row, yuvPackedRow, rgbRow<0, 2>,
                                hsyPackedRow, rgbRow<2, 0>, yycbcrRow, h2rgbRow,     hsMixedRow};

// A vector kernel on the whole blocks of the row, then the reference on the macro-pixels left; a
// macro-pixel advances kSourceBytes * step source bytes.
using Fast = int (*)(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount);
template <Fast kFast, Row kScalar, int kTargetBytes, int kSourceBytes = 4>
void vectorRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  const int done = kFast(pSource, pStep, pTarget, pCount);
  kScalar(pSource + ptrdiff_t{kSourceBytes} * pStep * done, pStep,
          pTarget + ptrdiff_t{kTargetBytes} * done, pCount - done);
}

// The kernels of one instruction set, in the order of Kernels.
template <Fast kYuv, Fast kHsy, Fast kYUV422, Fast kYUV, Fast kRGB, Fast kHSY, Fast kBGR,
          Fast kYYCbCr, Fast kH2RGB, Fast kHSMixed>
constexpr Kernels vectorKernels() {
  return {vectorRow<kYuv, yuvRow, 2>,       vectorRow<kHsy, hsyRow, 2, 2>,
          vectorRow<kYUV422, yuv422Row, 4>, vectorRow<kYUV, yuvPackedRow, 6>,
          vectorRow<kRGB, rgbRow<0, 2>, 6>, vectorRow<kHSY, hsyPackedRow, 6>,
          vectorRow<kBGR, rgbRow<2, 0>, 6>, vectorRow<kYYCbCr, yycbcrRow, 4>,
          vectorRow<kH2RGB, h2rgbRow, 6>,   vectorRow<kHSMixed, hsMixedRow, 6>};
}

namespace sse41 = simd::sse41;
namespace avx2 = simd::avx2;
constexpr Kernels kSse41 =
    vectorKernels<sse41::yuvRow, sse41::hsyRow, sse41::yuv422Row, sse41::yuvPackedRow,
                  sse41::rgbRow, sse41::hsyPackedRow, sse41::bgrRow, sse41::yycbcrRow,
                  sse41::h2rgbRow, sse41::hsMixedRow>();
constexpr Kernels kAvx2 =
    vectorKernels<avx2::yuvRow, avx2::hsyRow, avx2::yuv422Row, avx2::yuvPackedRow, avx2::rgbRow,
                  avx2::hsyPackedRow, avx2::bgrRow, avx2::yycbcrRow, avx2::h2rgbRow,
                  avx2::hsMixedRow>();

KernelChoice<Kernels> gChoice(kReference, kSse41, kAvx2);

// How far the source moves per destination row.
enum class RowAdvance {
  kFromTarget,  // 2 * step * step * destination width bytes: step source rows when in ratio
  kFromSource,  // (source width / 2) * step macro-pixels
  kHalf         // step * step * destination width bytes, half the usual advance
};

// How a row kernel walks the two planes.
struct Shape {
  Row Kernels::*fRow;
  int fSourceAdvance;  // source bytes per destination macro-pixel, per unit of step
  int fTargetBytes;    // destination bytes per macro-pixel (two pixels)
  bool fRoundUp;       // (width + 1) / 2 macro-pixels per row, else width / 2
  RowAdvance fRows;
  bool fTargetAdvances;         // false: every row is written over the first one
  int (*fLastRead)(int pStep);  // the furthest byte read from a macro-pixel's start
};

constexpr int lastOfMacroPixel(int) {
  return 3;
}

constexpr Shape kYuvShape = {
    &Kernels::fYuv, 4, 2, true, RowAdvance::kFromTarget, true, [](int pStep) {
      return std::max(0, 2 * pStep);
    }};
constexpr Shape kHsyShape = {&Kernels::fHsy,  2, 2, true, RowAdvance::kHalf, false,
                             lastOfMacroPixel};
constexpr Shape kYUV422Shape = {
    &Kernels::fYUV422, 4, 4, false, RowAdvance::kFromTarget, true, [](int pStep) {
      return std::max(3, 2 + 4 * (pStep / 2));
    }};
constexpr Shape kYYCbCrShape = {&Kernels::fYYCbCr, 4, 4, false, RowAdvance::kFromSource, true,
                                lastOfMacroPixel};
constexpr Shape sixBytes(Row Kernels::*pRow) {
  return {pRow, 4, 6, true, RowAdvance::kFromTarget, true, lastOfMacroPixel};
}

// How many macro-pixels x >= 0 have pAdvance * x + pLast inside pAvailable bytes.
int64_t fitting(int64_t pAvailable, int64_t pAdvance, int64_t pLast) {
  if (pAvailable - pLast <= 0) return 0;
  if (pAdvance == 0) return std::numeric_limits<int64_t>::max();
  return (pAvailable - pLast - 1) / pAdvance + 1;
}

// The plane loop of every kernel, by the step rule and the clipping that conversion.h states.
void convertPlane(const SourceFrame& pSource, const TargetFrame& pDestination,
                  const Shape& pShape) {
  const int width = pDestination.fWidth;
  const int height = pDestination.fHeight;
  if (width <= 0 || height <= 0 || pSource.fWidth <= 0 || pSource.fHeight <= 0) return;
  if (pSource.fData == nullptr || pDestination.fData == nullptr) return;
  const int step = pSource.fWidth / width;
  const int64_t sourceSize = int64_t{pSource.fWidth} * pSource.fHeight * 2;
  const int64_t targetSize = int64_t{width} * height * (pShape.fTargetBytes / 2);
  const int64_t count = pShape.fRoundUp ? (width + 1) / 2 : width / 2;
  const int64_t sourceAdvance = int64_t{pShape.fSourceAdvance} * step;
  int64_t sourceRow = 0;
  switch (pShape.fRows) {
    case RowAdvance::kFromTarget:
      sourceRow = int64_t{2} * step * step * width;
      break;
    case RowAdvance::kFromSource:
      sourceRow = int64_t{4} * (pSource.fWidth / 2) * step;
      break;
    case RowAdvance::kHalf:
      sourceRow = int64_t{step} * step * width;
      break;
  }
  const int64_t targetRow = pShape.fTargetAdvances ? count * pShape.fTargetBytes : 0;
  const int64_t lastRead = pShape.fLastRead(step);
  const Row row = activeKernels().*pShape.fRow;
  const auto fitOf = [&](int64_t pY) {
    return std::min(
        {count, fitting(sourceSize - pY * sourceRow, sourceAdvance, lastRead),
         fitting(targetSize - pY * targetRow, pShape.fTargetBytes, pShape.fTargetBytes - 1)});
  };
  // Macro-pixels pFrom to pTo of row pY.
  const auto run = [&](int64_t pY, int64_t pFrom, int64_t pTo) {
    if (pTo > pFrom) {
      row(pSource.fData + pY * sourceRow + pFrom * sourceAdvance, step,
          pDestination.fData + pY * targetRow + pFrom * pShape.fTargetBytes,
          static_cast<int>(pTo - pFrom));
    }
  };
  if (targetRow == 0) {
    // Every row is written over the first: what is left there is the last row that runs (the
    // first that does not fit whole, or the last), and beyond its end the row before it. Only
    // those are converted; the bytes are the same.
    int64_t last = fitOf(0) < count ? 0 : height - 1;
    if (last > 0 && sourceRow > 0) {
      // Rows fit whole while the source holds their last macro-pixel's reads.
      const int64_t room = sourceSize - (lastRead + 1 + (count - 1) * sourceAdvance);
      last = std::min(last, room / sourceRow + 1);
    }
    const int64_t fit = fitOf(last);
    if (last > 0) run(last - 1, fit, count);
    run(last, 0, fit);
    return;
  }
  for (int64_t y = 0; y < height; ++y) {
    const int64_t fit = fitOf(y);
    run(y, 0, fit);
    if (fit < count) break;
  }
}

}  // namespace

const Kernels& referenceKernels() {
  return gChoice.reference();
}

const Kernels& activeKernels() {
  return gChoice.active();
}

bool forceKernelsForTesting(KernelVariant pVariant) {
  return gChoice.force(pVariant);
}

void yuv422toYuv(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, kYuvShape);
}

void yuv422toHsy(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, kHsyShape);
}

void yuv422toYUV422(const SourceFrame& pSource, const TargetFrame& pTarget) {
  const int width = pTarget.fWidth;
  const int height = pTarget.fHeight;
  if (width <= 0 || height <= 0 || pSource.fWidth / width != 1) {
    convertPlane(pSource, pTarget, kYUV422Shape);
    return;
  }
  if (pSource.fData == nullptr || pTarget.fData == nullptr) return;
  // At the camera's resolution one copy of whole 8-byte words, at least one: the last
  // (width * height) mod 4 pixels stay as they were. Clipped to both buffers.
  const int64_t words = std::max<int64_t>(1, int64_t{width} * height / 4);
  const int64_t sourceSize = int64_t{pSource.fWidth} * std::max(0, pSource.fHeight) * 2;
  const int64_t bytes = std::min({words * 8, sourceSize, int64_t{width} * height * 2});
  std::memcpy(pTarget.fData, pSource.fData, static_cast<size_t>(bytes));
}

void yuv422toYUV(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fYUV));
}

void yuv422toRGB(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fRGB));
}

void yuv422toHSY(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fHSY));
}

void yuv422toBGR(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fBGR));
}

void yuv422toYYCbCr(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, kYYCbCrShape);
}

void yuv422toH2RGB(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fH2RGB));
}

void yuv422toHSMixed(const SourceFrame& pSource, const TargetFrame& pTarget) {
  convertPlane(pSource, pTarget, sixBytes(&Kernels::fHSMixed));
}

}  // namespace conversionkernels
}  // namespace OX
