#include "toolimage.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

#include "oxtypes.h"

namespace oxtools {

namespace {

struct Named {
  const char* fName;
  int fValue;
};

constexpr Named kResolutions[] = {
    {"qqvga", OX::kQQVGA}, {"qvga", OX::kQVGA}, {"vga", OX::kVGA}, {"4vga", OX::k4VGA}};

// The device's names, plus short forms. "Yuv" (grey, one layer) and "yuv" (three layers) differ by
// case only, as do "Hsy" and "hsy"; every other name is matched without regard to case.
constexpr Named kExactNames[] = {{"Yuv", OX::kYuv},  {"y", OX::kYuv},   {"Y", OX::kYuv},
                                 {"kYuv", OX::kYuv}, {"Hsy", OX::kHsy}, {"kHsy", OX::kHsy},
                                 {"yuv", OX::kYUV},  {"YUV", OX::kYUV}, {"kYUV", OX::kYUV},
                                 {"hsy", OX::kHSY},  {"HSY", OX::kHSY}, {"kHSY", OX::kHSY}};
constexpr Named kColorSpaces[] = {
    {"grey", OX::kYuv},        {"gray", OX::kYuv},        {"yuv422", OX::kYUV422},
    {"kYUV422", OX::kYUV422},  {"rgb", OX::kRGB},         {"kRGB", OX::kRGB},
    {"bgr", OX::kBGR},         {"kBGR", OX::kBGR},        {"yycbcr", OX::kYYCbCr},
    {"kYYCbCr", OX::kYYCbCr},  {"h2rgb", OX::kH2RGB},     {"kH2RGB", OX::kH2RGB},
    {"hsmixed", OX::kHSMixed}, {"kHSMixed", OX::kHSMixed}};

std::string lower(std::string pText) {
  for (char& c : pText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return pText;
}

bool isNumber(const std::string& pText) {
  return !pText.empty() && pText.size() < 4 && std::all_of(pText.begin(), pText.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

unsigned char clampByte(int pValue) {
  return static_cast<unsigned char>(pValue > 255 ? 255 : (pValue < 0 ? 0 : pValue));
}

// BT.601 studio range, with the device's integer coefficients, so that kYUV422, kYUV and
// kYYCbCr give the pixels the device's own kRGB conversion gives.
void yuvPixel(int pY, int pU, int pV, unsigned char* pOut) {
  const int y = 298 * (pY - 16);
  const int u = pU - 128;
  const int v = pV - 128;
  pOut[0] = clampByte((y + 409 * v) >> 8);
  pOut[1] = clampByte((y - 100 * u - 208 * v) >> 8);
  pOut[2] = clampByte((y + 516 * u) >> 8);
}

// The device's hue byte turns once in 255 steps: 0 red, 85 green, 171 blue. Returns the fully
// saturated colour of that hue, channels 0..1.
void hueColour(int pHue, double pRgb[3]) {
  const double h = (pHue % 255) * 6.0 / 255.0;
  const int sector = static_cast<int>(h);
  const double f = h - sector;
  const double rising = f;
  const double falling = 1.0 - f;
  const double table[6][3] = {{1, rising, 0},  {falling, 1, 0}, {0, 1, rising},
                              {0, falling, 1}, {rising, 0, 1},  {1, 0, falling}};
  for (int c = 0; c < 3; ++c) pRgb[c] = table[sector % 6][c];
}

// Hue, saturation (max - min) / max as the device computes it, and a luma; pLuma < 0 means
// none is known and the colour is shown at full value. Approximate: the device's hue has its
// own rounding and green coefficients.
void hsyPixel(int pHue, int pSaturation, int pLuma, unsigned char* pOut) {
  double pure[3];
  hueColour(pHue, pure);
  const double s = pSaturation / 255.0;
  double value = 1.0;
  if (pLuma >= 0) {
    // Choose the value that gives this hue and saturation the luma that was measured.
    const double luma = std::clamp(298 * (pLuma - 16) / 256.0 / 255.0, 0.0, 1.0);
    const double pureLuma = 0.299 * pure[0] + 0.587 * pure[1] + 0.114 * pure[2];
    const double relative = 1.0 - s * (1.0 - pureLuma);
    value = relative > 0.0 ? luma / relative : 0.0;
  }
  for (int c = 0; c < 3; ++c) {
    pOut[c] = clampByte(static_cast<int>(255.0 * value * (1.0 - s * (1.0 - pure[c])) + 0.5));
  }
}

}  // namespace

int parseResolution(const std::string& pText) {
  if (isNumber(pText)) {
    const int value = std::atoi(pText.c_str());
    return value <= OX::k4VGA ? value : -1;
  }
  for (const Named& entry : kResolutions) {
    if (lower(pText) == entry.fName) return entry.fValue;
  }
  return -1;
}

int parseColorSpace(const std::string& pText) {
  if (isNumber(pText)) {
    const int value = std::atoi(pText.c_str());
    return colorSpaceName(value) == "unknown" ? -1 : value;
  }
  for (const Named& entry : kExactNames) {
    if (pText == entry.fName) return entry.fValue;
  }
  for (const Named& entry : kColorSpaces) {
    if (lower(pText) == lower(entry.fName)) return entry.fValue;
  }
  return -1;
}

std::string colorSpaceName(int pColorSpace) {
  switch (pColorSpace) {
    case OX::kYuv:
      return "kYuv";
    case OX::kHsy:
      return "kHsy";
    case OX::kYUV422:
      return "kYUV422";
    case OX::kYUV:
      return "kYUV";
    case OX::kRGB:
      return "kRGB";
    case OX::kHSY:
      return "kHSY";
    case OX::kBGR:
      return "kBGR";
    case OX::kYYCbCr:
      return "kYYCbCr";
    case OX::kH2RGB:
      return "kH2RGB";
    case OX::kHSMixed:
      return "kHSMixed";
    default:
      return "unknown";
  }
}

std::string colorSpaceNames() {
  return "rgb (11), bgr (13), yuv422 (9), yuv (10, Y U V per pixel), Yuv or y (0, luma only), "
         "hsy (12), Hsy (6, hue only), yycbcr (14), h2rgb (15), hsmixed (16)";
}

bool toRgb(const unsigned char* pData, int pSize, int pWidth, int pHeight, int pColorSpace,
           RgbImage& pOut) {
  const long long pixels = static_cast<long long>(pWidth) * pHeight;
  if (colorSpaceName(pColorSpace) == "unknown" || pWidth <= 0 || pHeight <= 0 ||
      pSize != pixels * OX::getNumLayersFromColorSpace(pColorSpace)) {
    pOut = RgbImage();
    return false;
  }
  // The pixels of the previous image are reused: a stream of images allocates once.
  std::vector<unsigned char>& rgb = pOut.fPixels;
  rgb.resize(static_cast<size_t>(pixels) * 3);
  const unsigned char* in = pData;
  // Two-byte spaces come in macro-pixels of two pixels that share one chroma pair: the pixels
  // of the image are taken as one stream, as the device writes them.
  for (long long i = 0; i < pixels; ++i) {
    unsigned char* out = &rgb[static_cast<size_t>(i) * 3];
    const unsigned char* pixel3 = in + i * 3;
    const unsigned char* macro = in + (i / 2) * 4;
    const bool second = (i % 2) != 0;
    switch (pColorSpace) {
      case OX::kYuv: {
        const unsigned char grey = clampByte((298 * (in[i] - 16)) >> 8);
        out[0] = out[1] = out[2] = grey;
        break;
      }
      case OX::kHsy:  // hue alone
        hsyPixel(in[i], 255, -1, out);
        break;
      case OX::kYUV422:  // Y0 U Y1 V
        yuvPixel(macro[second ? 2 : 0], macro[1], macro[3], out);
        break;
      case OX::kYYCbCr:  // Y0 Y1 Cb Cr
        yuvPixel(macro[second ? 1 : 0], macro[2], macro[3], out);
        break;
      case OX::kYUV:  // Y U V per pixel
        yuvPixel(pixel3[0], pixel3[1], pixel3[2], out);
        break;
      case OX::kRGB:
        std::copy(pixel3, pixel3 + 3, out);
        break;
      case OX::kBGR:
      case OX::kH2RGB:  // the device stores blue, green, red
        out[0] = pixel3[2];
        out[1] = pixel3[1];
        out[2] = pixel3[0];
        break;
      case OX::kHSY:  // hue, saturation, luma
        hsyPixel(pixel3[0], pixel3[1], pixel3[2], out);
        break;
      case OX::kHSMixed:  // hue, saturation, hue: no luma
        hsyPixel(pixel3[0], pixel3[1], -1, out);
        break;
      default:
        pOut = RgbImage();
        return false;
    }
  }
  pOut.fWidth = pWidth;
  pOut.fHeight = pHeight;
  return true;
}

void writePng(const std::string& pPath, const RgbImage& pImage) {
  if (pImage.fPixels.size() != static_cast<size_t>(pImage.fWidth) * pImage.fHeight * 3) {
    throw std::runtime_error(pPath + ": image of inconsistent size");
  }
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(pImage.fWidth);
  image.height = static_cast<png_uint_32>(pImage.fHeight);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&image, pPath.c_str(), 0, pImage.fPixels.data(), 0, nullptr)) {
    const std::string reason = image.message;
    png_image_free(&image);
    throw std::runtime_error("cannot write " + pPath + ": " + reason);
  }
}

namespace {

void beginRead(const std::string& pPath, png_image& pImage) {
  pImage = {};
  pImage.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&pImage, pPath.c_str())) {
    const std::string reason = pImage.message;
    png_image_free(&pImage);
    throw std::runtime_error("cannot read " + pPath + ": " + reason);
  }
}

}  // namespace

RgbImage readPng(const std::string& pPath) {
  png_image image;
  beginRead(pPath, image);
  // Read with alpha, then drop it: libpng would otherwise blend it into a background.
  image.format = PNG_FORMAT_RGBA;
  std::vector<unsigned char> rgba(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr)) {
    const std::string reason = image.message;
    png_image_free(&image);
    throw std::runtime_error("cannot decode " + pPath + ": " + reason);
  }
  RgbImage result;
  result.fWidth = static_cast<int>(image.width);
  result.fHeight = static_cast<int>(image.height);
  const size_t pixels = static_cast<size_t>(image.width) * image.height;
  result.fPixels.resize(pixels * 3);
  for (size_t i = 0; i < pixels; ++i) {
    std::copy(&rgba[i * 4], &rgba[i * 4] + 3, &result.fPixels[i * 3]);
  }
  return result;
}

void readPngSize(const std::string& pPath, int& pWidth, int& pHeight) {
  png_image image;
  beginRead(pPath, image);
  pWidth = static_cast<int>(image.width);
  pHeight = static_cast<int>(image.height);
  png_image_free(&image);
}

}  // namespace oxtools
