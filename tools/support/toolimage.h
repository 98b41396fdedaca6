// Images for the tools: the device's resolutions and colour spaces by name, conversion of every
// colour space the device delivers to RGB for viewing, and PNG files (libpng).
#pragma once

#include <string>
#include <vector>

namespace oxtools {

// 8-bit RGB, rows top to bottom, no padding.
struct RgbImage {
  int fWidth = 0;
  int fHeight = 0;
  std::vector<unsigned char> fPixels;
};

// A resolution by name (qqvga, qvga, vga, 4vga) or number (0..3); -1 when unknown.
int parseResolution(const std::string& pText);
// A colour space by name (case matters only for yuv/Yuv and hsy/Hsy, see colorSpaceNames) or by
// number; -1 when unknown.
int parseColorSpace(const std::string& pText);
// "kRGB" and the like; "unknown" for other numbers.
std::string colorSpaceName(int pColorSpace);
// The accepted names, for help texts.
std::string colorSpaceNames();

// Converts one image as the device lays it out (see kernels/conversion.cpp of the library) to
// RGB.
// Exact for kRGB, kBGR, kH2RGB and the luma/chroma spaces (BT.601 studio range, as the device
// converts); the hue spaces (kHsy, kHSY, kHSMixed) carry no complete colour and come back
// approximately. False, leaving pOut empty, for an unknown colour space or a buffer of the wrong
// size. pOut's pixels are reused, so that converting a stream of images allocates only once.
bool toRgb(const unsigned char* pData, int pSize, int pWidth, int pHeight, int pColorSpace,
           RgbImage& pOut);

// Throw std::runtime_error with the file's name and libpng's reason.
void writePng(const std::string& pPath, const RgbImage& pImage);
// Any PNG decoded to 8-bit RGB: palettes and grey expanded, alpha dropped, 16 bits reduced.
RgbImage readPng(const std::string& pPath);
// Only the header: width and height.
void readPngSize(const std::string& pPath, int& pWidth, int& pHeight);

}  // namespace oxtools
