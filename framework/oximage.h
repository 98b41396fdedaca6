// OXImage: a plain image record whose fields the code reads and writes directly.
//
// An image is allocated once for the largest format it will hold; setResolution and
// setColorSpace then change its fields, never its allocation.
#pragma once

#include <cstdint>

#include "oxvalue.h"

namespace OX {

class OXImage {
 public:
  // Allocates width x height x layers bytes of that format unless pDataAreExternal.
  OXImage(int pResolution, int pColorSpace, bool pDataAreExternal = false, float pLeftAngle = 0.0f,
          float pTopAngle = 0.0f, float pRightAngle = 0.0f, float pBottomAngle = 0.0f);
  OXImage(int pWidth, int pHeight, int pColorSpace, bool pDataAreExternal, float pLeftAngle = 0.0f,
          float pTopAngle = 0.0f, float pRightAngle = 0.0f, float pBottomAngle = 0.0f);
  ~OXImage();
  OXImage(const OXImage&) = delete;
  OXImage& operator=(const OXImage&) = delete;

  // Change width and height, or colour space and layers, without allocating. An unknown
  // resolution, or a format larger than the image's own pixels, is refused: false, nothing
  // changed. Images with external data are not checked against any size.
  bool setResolution(int pResolution);
  bool setColorSpace(int pColorSpace);
  // Changes width, height and colour space at once, under the same rule.
  bool setFormat(int pWidth, int pHeight, int pColorSpace);

  // Bytes of the current format: width * height * layers.
  int getSize() const;
  // Bytes of the image's own allocation (0 for external data).
  int getAllocatedSize() const { return fAllocatedSize; }
  bool areDataExternal() const { return fDataAreExternal; }

  // Points an image with external data at other pixels; refused (false) for an owning image.
  bool setData(unsigned char* pData);
  // Makes sure an owning image has room for pSize bytes, reallocating (content lost) if needed.
  // Used by readers that fill an image with frames of their own size. False for external data.
  bool reserve(int pSize);

  // The 12-element array: width, height, layers, colour space, time stamp high and low 32 bits,
  // binary copy of the pixels, camera identifier, left, top, right and bottom angles. The copy is
  // made in the reply arena of the remote call being served, if one is set (OXReplyArenaScope):
  // it is a remote result's, handed straight back, and must not be kept.
  OXValue toOXValue() const;
  // The same array around pixels the caller made (a binary of this image's getSize() bytes, as
  // OXValue::replyBinary gives them).
  OXValue toOXValue(OXValue&& pPixels) const;
  // The inverse, for clients: refuses (false, nothing changed) an array of another layout. An
  // owning image grows to hold the pixels; an image with external pixels must point at enough
  // room, which it cannot check.
  bool fromOXValue(const OXValue& pValue);

  int fWidth;
  int fHeight;
  int fNbLayers;
  int fColorSpace;
  int64_t fTimeStamp;
  unsigned char* fData;
  signed char fCameraId;
  float fLeftAngle;
  float fTopAngle;
  float fRightAngle;
  float fBottomAngle;

 private:
  bool fits(int pWidth, int pHeight, int pColorSpace) const;

  bool fDataAreExternal;
  int fAllocatedSize;
};

}  // namespace OX
