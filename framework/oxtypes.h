// Shared enumerations of the framework (resolutions, colour spaces, camera models) and the small
// free functions that convert between them.
#pragma once

#include <string>

namespace OX {

// Resolutions.
enum : int { kQQVGA = 0, kQVGA = 1, kVGA = 2, k4VGA = 3 };

// Colour spaces, by identifier.
enum : int {
  kYuv = 0,
  kHsy = 6,
  kYUV422 = 9,
  kYUV = 10,
  kRGB = 11,
  kHSY = 12,
  kBGR = 13,
  kYYCbCr = 14,
  kH2RGB = 15,
  kHSMixed = 16
};

// Camera models.
enum : int { kOV7670 = 1, kMT9M114 = 2 };

// Writes the width and height of a resolution, or -1 into both for an unknown resolution.
void setSizeFromResolution(int pResolution, int& pWidth, int& pHeight);
// The resolution of exactly these sizes, or -1.
int getResolutionFromSize(int pWidth, int pHeight);
// Bytes per pixel of a colour space: 1 for kYuv and kHsy, 2 for kYUV422 and kYYCbCr, else 3.
int getNumLayersFromColorSpace(int pColorSpace);

// The decimal text of a number.
std::string DecToString(int pValue);
// The name of a value-type code of the call glue (1 void, 2 bool, 3 int, 4 float, 5 string,
// 6 OXValue, 24 list of floats, 27 OXImage pointer).
std::string getTypeString(int pTypeCode);

}  // namespace OX
