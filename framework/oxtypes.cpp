// Free functions over the shared enumerations.
#include "oxtypes.h"

namespace OX {

void setSizeFromResolution(int pResolution, int& pWidth, int& pHeight) {
  switch (pResolution) {
    case kQQVGA:
      pWidth = 160;
      pHeight = 120;
      return;
    case kQVGA:
      pWidth = 320;
      pHeight = 240;
      return;
    case kVGA:
      pWidth = 640;
      pHeight = 480;
      return;
    case k4VGA:
      pWidth = 1280;
      pHeight = 960;
      return;
    default:
      pWidth = -1;
      pHeight = -1;
      return;
  }
}

int getResolutionFromSize(int pWidth, int pHeight) {
  for (int resolution = kQQVGA; resolution <= k4VGA; ++resolution) {
    int width = 0;
    int height = 0;
    setSizeFromResolution(resolution, width, height);
    if (width == pWidth && height == pHeight) return resolution;
  }
  return -1;
}

int getNumLayersFromColorSpace(int pColorSpace) {
  switch (pColorSpace) {
    case kYuv:
    case kHsy:
      return 1;
    case kYUV422:
    case kYYCbCr:
      return 2;
    default:
      return 3;
  }
}

std::string DecToString(int pValue) {
  return std::to_string(pValue);
}

std::string getTypeString(int pTypeCode) {
  switch (pTypeCode) {
    case 1:
      return "void";
    case 2:
      return "bool";
    case 3:
      return "int";
    case 4:
      return "float";
    case 5:
      return "string";
    case 6:
      return "OXValue";
    case 24:
      return "std::vector<float>";
    case 27:
      return "OXImage*";
    default:
      return "unknown";
  }
}

}  // namespace OX
