// libFuzzer target of the wire decoder: whatever arrives, decoding ends in a value or an OXError,
// and a decoded value encodes and decodes back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "oxerror.h"
#include "oxwire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t pSize) {
  if (pSize == 0) return 0;
  // The first byte says how many frames follow the header (0 to 3); the next bytes give the
  // length of each of those frames, the rest of the input being the header.
  const size_t extra = pData[0] % 4;
  if (pSize < 1 + extra) return 0;
  std::vector<size_t> lengths;
  for (size_t i = 0; i < extra; ++i) lengths.push_back(pData[1 + i]);
  const uint8_t* cursor = pData + 1 + extra;
  size_t left = pSize - 1 - extra;
  std::vector<OX::wire::FrameView> frames;
  size_t tail = 0;
  for (size_t length : lengths) tail += length;
  const size_t headerSize = left > tail ? left - tail : left;
  frames.push_back({cursor, headerSize});
  cursor += headerSize;
  left -= headerSize;
  for (size_t length : lengths) {
    const size_t take = length < left ? length : left;
    frames.push_back({cursor, take});
    cursor += take;
    left -= take;
  }
  try {
    const OX::OXValue value = OX::wire::decode(frames, 1 << 20);
    OX::wire::Encoded encoded;
    OX::wire::encode(value, encoded);
    std::vector<OX::wire::FrameView> again = {{encoded.fHeader.data(), encoded.fHeader.size()}};
    for (const OX::OXValue::Binary* frame : encoded.fFrames) {
      again.push_back({frame->data(), frame->size()});
    }
    // Compared as bytes, since a NaN is not equal to itself.
    const OX::OXValue back = OX::wire::decode(again);
    OX::wire::Encoded twice;
    OX::wire::encode(back, twice);
    if (twice.fHeader != encoded.fHeader || twice.fFrames.size() != encoded.fFrames.size()) {
      __builtin_trap();
    }
    for (size_t i = 0; i < twice.fFrames.size(); ++i) {
      if (*twice.fFrames[i] != *encoded.fFrames[i]) __builtin_trap();
    }
  } catch (const OX::OXError&) {
    // Refused: that is the point.
  }
  return 0;
}
