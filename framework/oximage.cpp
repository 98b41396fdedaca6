// OXImage: allocation, format changes and the array form.
#include "oximage.h"

#include <cstring>
#include <new>

#include "oxtypes.h"

namespace OX {

OXImage::OXImage(int pResolution, int pColorSpace, bool pDataAreExternal, float pLeftAngle,
                 float pTopAngle, float pRightAngle, float pBottomAngle)
    : OXImage(0, 0, pColorSpace, pDataAreExternal, pLeftAngle, pTopAngle, pRightAngle,
              pBottomAngle) {
  int width = 0;
  int height = 0;
  setSizeFromResolution(pResolution, width, height);
  if (width > 0 && !pDataAreExternal) reserve(width * height * fNbLayers);
  if (width > 0) {
    fWidth = width;
    fHeight = height;
  }
}

OXImage::OXImage(int pWidth, int pHeight, int pColorSpace, bool pDataAreExternal, float pLeftAngle,
                 float pTopAngle, float pRightAngle, float pBottomAngle)
    : fWidth(pWidth > 0 ? pWidth : 0),
      fHeight(pHeight > 0 ? pHeight : 0),
      fNbLayers(getNumLayersFromColorSpace(pColorSpace)),
      fColorSpace(pColorSpace),
      fTimeStamp(0),
      fData(nullptr),
      fCameraId(0),
      fLeftAngle(pLeftAngle),
      fTopAngle(pTopAngle),
      fRightAngle(pRightAngle),
      fBottomAngle(pBottomAngle),
      fDataAreExternal(pDataAreExternal),
      fAllocatedSize(0) {
  if (!fDataAreExternal && getSize() > 0) reserve(getSize());
}

OXImage::~OXImage() {
  if (!fDataAreExternal) delete[] fData;
}

int OXImage::getSize() const {
  const int64_t size = static_cast<int64_t>(fWidth) * fHeight * fNbLayers;
  return size > 0 && size < (int64_t(1) << 31) ? static_cast<int>(size) : 0;
}

bool OXImage::fits(int pWidth, int pHeight, int pColorSpace) const {
  if (pWidth < 0 || pHeight < 0) return false;
  if (fDataAreExternal) return true;
  const int64_t size =
      static_cast<int64_t>(pWidth) * pHeight * getNumLayersFromColorSpace(pColorSpace);
  return size <= fAllocatedSize;
}

bool OXImage::setResolution(int pResolution) {
  int width = 0;
  int height = 0;
  setSizeFromResolution(pResolution, width, height);
  if (width < 0) return false;
  return setFormat(width, height, fColorSpace);
}

bool OXImage::setColorSpace(int pColorSpace) {
  return setFormat(fWidth, fHeight, pColorSpace);
}

bool OXImage::setFormat(int pWidth, int pHeight, int pColorSpace) {
  if (!fits(pWidth, pHeight, pColorSpace)) return false;
  fWidth = pWidth;
  fHeight = pHeight;
  fColorSpace = pColorSpace;
  fNbLayers = getNumLayersFromColorSpace(pColorSpace);
  return true;
}

bool OXImage::setData(unsigned char* pData) {
  if (!fDataAreExternal) return false;
  fData = pData;
  return true;
}

bool OXImage::reserve(int pSize) {
  if (fDataAreExternal || pSize < 0) return false;
  if (pSize <= fAllocatedSize) return true;
  unsigned char* data = new (std::nothrow) unsigned char[static_cast<size_t>(pSize)];
  if (data == nullptr) return false;
  delete[] fData;
  fData = data;
  fAllocatedSize = pSize;
  return true;
}

OXValue OXImage::toOXValue() const {
  // A remote call's result: when its client reads replies from a shared-memory area, the copy
  // lands there, and the host sends it without copying it again.
  return toOXValue(fData != nullptr ? OXValue::replyBinary(fData, getSize())
                                    : OXValue::binary(nullptr, 0));
}

OXValue OXImage::toOXValue(OXValue&& pPixels) const {
  OXValue value;
  value.arraySetSize(12);
  value[0] = fWidth;
  value[1] = fHeight;
  value[2] = fNbLayers;
  value[3] = fColorSpace;
  value[4] = static_cast<int>(static_cast<uint64_t>(fTimeStamp) >> 32);
  value[5] = static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(fTimeStamp)));
  value[6] = std::move(pPixels);
  value[7] = static_cast<int>(fCameraId);
  value[8] = OXValue(fLeftAngle);
  value[9] = OXValue(fTopAngle);
  value[10] = OXValue(fRightAngle);
  value[11] = OXValue(fBottomAngle);
  return value;
}

bool OXImage::fromOXValue(const OXValue& pValue) {
  if (!pValue.isArray() || pValue.getSize() != 12) return false;
  for (int i : {0, 1, 2, 3, 4, 5, 7}) {
    if (!pValue[i].isInt()) return false;
  }
  for (int i : {8, 9, 10, 11}) {
    if (!pValue[i].isFloat() && !pValue[i].isInt()) return false;
  }
  const int width = pValue[0].asInt();
  const int height = pValue[1].asInt();
  const int colorSpace = pValue[3].asInt();
  if (!pValue[6].isBinary() || width < 0 || height < 0) return false;
  if (pValue[2].asInt() != getNumLayersFromColorSpace(colorSpace)) return false;
  const int64_t size =
      static_cast<int64_t>(width) * height * getNumLayersFromColorSpace(colorSpace);
  if (size != pValue[6].getSize()) return false;
  if (!fDataAreExternal && !reserve(static_cast<int>(size))) return false;
  if (fDataAreExternal && size > 0 && fData == nullptr) return false;
  setFormat(width, height, colorSpace);
  if (size > 0) std::memcpy(fData, pValue[6].GetBinary(), static_cast<size_t>(size));
  const uint64_t high = static_cast<uint32_t>(pValue[4].asInt());
  const uint64_t low = static_cast<uint32_t>(pValue[5].asInt());
  fTimeStamp = static_cast<int64_t>((high << 32) | low);
  fCameraId = static_cast<signed char>(pValue[7].asInt());
  fLeftAngle = pValue[8].asFloat();
  fTopAngle = pValue[9].asFloat();
  fRightAngle = pValue[10].asFloat();
  fBottomAngle = pValue[11].asFloat();
  return true;
}

}  // namespace OX
