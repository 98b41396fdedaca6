// MessagePack coding of OXValue; see oxwire.h.
#define MSGPACK_NO_BOOST
#include "oxwire.h"

#include <cstdint>
#include <cstring>
#include <msgpack.hpp>

#include "oxerror.h"

namespace OX {
namespace wire {

namespace {

const char* const kWireFile = "net/oxwire";
constexpr int8_t kFrameExt = 1;
constexpr int8_t kAreaExt = 2;

[[noreturn]] void malformed(const std::string& pWhy) {
  throw OXError("OXBroker", "decode", "malformed message: " + pWhy, kWireFile, 0);
}

// The packer writes straight into the header string.
struct HeaderSink {
  std::string& fBytes;
  void write(const char* pData, std::size_t pSize) { fBytes.append(pData, pSize); }
};
using Packer = msgpack::packer<HeaderSink>;

void pack(Packer& pPacker, const OXValue& pValue, Encoded& pOut, BinaryPlacer* pPlacer) {
  switch (pValue.getType()) {
    case OXValue::TypeInvalid:
      pPacker.pack_nil();
      return;
    case OXValue::TypeBool:
      if (static_cast<bool>(pValue)) {
        pPacker.pack_true();
      } else {
        pPacker.pack_false();
      }
      return;
    case OXValue::TypeInt:
      pPacker.pack_int(static_cast<int>(pValue));
      return;
    case OXValue::TypeFloat: {
      // Always a float 32: the library's pack_float writes whole numbers as integers, which
      // would change the value's kind on the other side.
      const float number = static_cast<float>(pValue);
      uint32_t bits;
      std::memcpy(&bits, &number, 4);
      const char bytes[5] = {static_cast<char>(0xca), static_cast<char>(bits >> 24),
                             static_cast<char>(bits >> 16), static_cast<char>(bits >> 8),
                             static_cast<char>(bits)};
      pOut.fHeader.append(bytes, 5);
      return;
    }
    case OXValue::TypeString: {
      const std::string& text = pValue.asString();
      pPacker.pack_str(static_cast<uint32_t>(text.size()));
      pPacker.pack_str_body(text.data(), static_cast<uint32_t>(text.size()));
      return;
    }
    case OXValue::TypeArray: {
      const int size = pValue.getSize();
      pPacker.pack_array(static_cast<uint32_t>(size));
      for (int i = 0; i < size; ++i) pack(pPacker, pValue[i], pOut, pPlacer);
      return;
    }
    case OXValue::TypeBinary: {
      const std::size_t size = static_cast<std::size_t>(pValue.getSize());
      const auto* bytes = static_cast<const OXValue::Binary::value_type*>(pValue.GetBinary());
      if (size < kOutOfLineBinary) {
        pPacker.pack_bin(static_cast<uint32_t>(size));
        pPacker.pack_bin_body(reinterpret_cast<const char*>(bytes), static_cast<uint32_t>(size));
        return;
      }
      uint64_t position = 0;
      if (pPlacer != nullptr && pPlacer->place(bytes, size, position)) {
        char payload[12];
        for (int i = 0; i < 8; ++i) payload[i] = static_cast<char>(position >> (56 - 8 * i));
        for (int i = 0; i < 4; ++i) payload[8 + i] = static_cast<char>(size >> (24 - 8 * i));
        pPacker.pack_ext(sizeof(payload), kAreaExt);
        pPacker.pack_ext_body(payload, sizeof(payload));
        return;
      }
      // The vector itself is referenced so that the frame can be sent without a copy.
      pOut.fFrames.push_back(&pValue.binaryBytes());
      const uint32_t index = static_cast<uint32_t>(pOut.fFrames.size());
      const char payload[4] = {static_cast<char>(index >> 24), static_cast<char>(index >> 16),
                               static_cast<char>(index >> 8), static_cast<char>(index)};
      pPacker.pack_ext(4, kFrameExt);
      pPacker.pack_ext_body(payload, 4);
      return;
    }
  }
}

// Builds the OXValue of a header as the parser walks it, without the parser's own object tree,
// and charges every element to the budget before it is allocated.
class Builder : public msgpack::null_visitor {
 public:
  Builder(const std::vector<FrameView>& pFrames, const DecodeBudget& pBudget, BinaryResolver* pArea,
          std::vector<BinaryView>* pViews)
      : fFrames(pFrames),
        fUsed(pFrames.size(), false),
        fBudget(pBudget),
        fArea(pArea),
        fViews(pViews) {}

  // The refusal, when decoding stopped early.
  const std::string& error() const { return fError; }
  bool allFramesUsed(std::size_t& pUnused) const {
    for (pUnused = 1; pUnused < fUsed.size(); ++pUnused) {
      if (!fUsed[pUnused]) return false;
    }
    return true;
  }
  OXValue take() { return std::move(fRoot); }

  bool visit_nil() { return add(OXValue()); }
  bool visit_boolean(bool pValue) { return add(OXValue(pValue)); }
  bool visit_positive_integer(uint64_t pValue) {
    if (pValue > static_cast<uint64_t>(INT32_MAX)) {
      return fail("malformed message: integer " + std::to_string(pValue) + " out of range");
    }
    return add(OXValue(static_cast<int>(pValue)));
  }
  bool visit_negative_integer(int64_t pValue) {
    if (pValue < static_cast<int64_t>(INT32_MIN)) {
      return fail("malformed message: integer " + std::to_string(pValue) + " out of range");
    }
    return add(OXValue(static_cast<int>(pValue)));
  }
  bool visit_float32(float pValue) { return add(OXValue(pValue)); }
  bool visit_float64(double pValue) { return add(OXValue(static_cast<float>(pValue))); }
  bool visit_str(const char* pData, uint32_t pSize) {
    return charge(0, pSize) && add(OXValue(std::string(pData, pSize)));
  }
  bool visit_bin(const char* pData, uint32_t pSize) {
    if (pSize > static_cast<uint32_t>(INT32_MAX))
      return fail("malformed message: binary too large");
    return charge(0, pSize) && addBinary(pData, pSize);
  }
  bool visit_ext(const char* pData, uint32_t pSize);
  bool start_array(uint32_t pSize) {
    if (fStack.size() >= static_cast<std::size_t>(kMaxDepth)) {
      return fail("malformed message: nested deeper than " + std::to_string(kMaxDepth));
    }
    if (!charge(pSize, 0)) return false;
    fStack.emplace_back();
    fStack.back().reserve(pSize);
    return true;
  }
  bool end_array() {
    OXValue array(std::move(fStack.back()));
    fStack.pop_back();
    return add(std::move(array));
  }
  bool start_map(uint32_t) { return fail("malformed message: a map, which no OXValue is"); }
  void parse_error(std::size_t, std::size_t) { fError = "malformed message: parse error"; }
  void insufficient_bytes(std::size_t, std::size_t) {
    fError = "malformed message: truncated header";
  }

 private:
  bool fail(const std::string& pWhy) {
    fError = pWhy;
    return false;
  }
  // Charges pElements new elements and pBytes bytes; false, with the refusal, when that would
  // overspend. Every element has at least one byte of the header, so more elements than that is
  // a lie about an array's size.
  bool charge(std::size_t pElements, std::size_t pBytes) {
    fElements += pElements;
    fBytes += pElements * sizeof(OXValue) + pBytes;
    if (fElements > fFrames[0].fSize) {
      return fail("malformed message: " + std::to_string(fElements) + " elements in a header of " +
                  std::to_string(fFrames[0].fSize) + " bytes");
    }
    if (fElements > fBudget.fElements || fBytes > fBudget.fBytes) {
      return fail("message too large: decoding it needs more than its budget of " +
                  std::to_string(fBudget.fElements) + " elements and " +
                  std::to_string(fBudget.fBytes) + " bytes");
    }
    return true;
  }
  // A binary of bytes that are not the builder's own: copied, or only pointed at.
  bool addBinary(const void* pData, std::size_t pSize) {
    if (fViews == nullptr) return add(OXValue::binary(pData, static_cast<int>(pSize)));
    fViews->push_back({static_cast<const unsigned char*>(pData), pSize});
    return add(OXValue::binary(OXValue::Binary()));
  }
  bool areaBinary(const char* pPayload);
  // The top element is charged here; array elements were charged with their array.
  bool add(OXValue&& pValue) {
    if (fStack.empty()) {
      if (!charge(1, 0)) return false;
      fRoot = std::move(pValue);
    } else {
      fStack.back().push_back(std::move(pValue));
    }
    return true;
  }

  const std::vector<FrameView>& fFrames;
  std::vector<bool> fUsed;
  DecodeBudget fBudget;
  BinaryResolver* fArea;
  std::vector<BinaryView>* fViews;
  std::size_t fElements = 0;
  std::size_t fBytes = 0;
  std::vector<OXValue::Array> fStack;
  OXValue fRoot;
  std::string fError;
};

bool Builder::areaBinary(const char* pPayload) {
  const auto* p = reinterpret_cast<const unsigned char*>(pPayload);
  uint64_t position = 0;
  for (int i = 0; i < 8; ++i) position = (position << 8) | p[i];
  uint32_t size = 0;
  for (int i = 8; i < 12; ++i) size = (size << 8) | p[i];
  if (size > static_cast<uint32_t>(INT32_MAX)) return fail("malformed message: binary too large");
  const unsigned char* bytes = fArea->resolve(position, size);
  if (bytes == nullptr) {
    return fail("malformed message: " + std::to_string(size) + " bytes at " +
                std::to_string(position) + " lie outside the shared area");
  }
  return charge(0, size) && addBinary(bytes, size);
}

bool Builder::visit_ext(const char* pData, uint32_t pSize) {
  // The parser hands the type byte first, then the payload.
  if (pSize == 13 && static_cast<int8_t>(pData[0]) == kAreaExt && fArea != nullptr) {
    return areaBinary(pData + 1);
  }
  if (pSize != 5 || static_cast<int8_t>(pData[0]) != kFrameExt) {
    return fail("malformed message: unknown extension type " +
                std::to_string(pSize == 0 ? 0 : static_cast<int8_t>(pData[0])));
  }
  const auto* p = reinterpret_cast<const unsigned char*>(pData + 1);
  const uint32_t index =
      (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
  if (index == 0 || index >= fFrames.size()) {
    return fail("malformed message: frame " + std::to_string(index) + " does not exist");
  }
  if (fUsed[index]) {
    return fail("malformed message: frame " + std::to_string(index) + " referenced twice");
  }
  fUsed[index] = true;
  const FrameView& view = fFrames[index];
  if (view.fSize > static_cast<std::size_t>(INT32_MAX)) {
    return fail("malformed message: binary too large");
  }
  return charge(0, view.fSize) && addBinary(view.fData, view.fSize);
}

// Reads the first three elements of a request header and stops.
class RequestPeek : public msgpack::null_visitor {
 public:
  explicit RequestPeek(RequestStart& pOut) : fOut(pOut) {}
  bool start_array(uint32_t) { return ++fDepth == 1; }  // a nested array: nothing more to learn
  bool start_array_item() { return ++fItem < 3; }
  bool visit_positive_integer(uint64_t pValue) {
    if (fItem == 1 && pValue <= static_cast<uint64_t>(INT32_MAX))
      fOut.fId = static_cast<int>(pValue);
    return true;
  }
  bool visit_negative_integer(int64_t pValue) {
    if (fItem == 1 && pValue >= static_cast<int64_t>(INT32_MIN))
      fOut.fId = static_cast<int>(pValue);
    return true;
  }
  bool visit_str(const char* pData, uint32_t pSize) {
    // Operations are short words; a longer string is no operation, and is not copied.
    if (fItem == 2 && pSize <= 32) fOut.fOperation.assign(pData, pSize);
    return true;
  }

 private:
  RequestStart& fOut;
  int fDepth = 0;
  int fItem = -1;
};

}  // namespace

void encode(const OXValue& pValue, Encoded& pOut, BinaryPlacer* pPlacer) {
  pOut.fFrames.clear();
  pOut.fHeader.clear();
  HeaderSink sink{pOut.fHeader};
  Packer packer(sink);
  pack(packer, pValue, pOut, pPlacer);
}

DecodeBudget DecodeBudget::forMessage(std::size_t pMessageBytes) {
  return {4096 + pMessageBytes / 32, (256u << 10) + 2 * pMessageBytes};
}

DecodeBudget DecodeBudget::unlimited() {
  return {SIZE_MAX, SIZE_MAX};
}

OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes) {
  std::size_t total = 0;
  for (const FrameView& frame : pFrames) total += frame.fSize;
  return decode(pFrames, pMaxBytes, DecodeBudget::forMessage(total));
}

OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes,
               const DecodeBudget& pBudget) {
  return decode(pFrames, pMaxBytes, pBudget, nullptr, nullptr);
}

OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes,
               const DecodeBudget& pBudget, BinaryResolver* pArea,
               std::vector<BinaryView>* pViews) {
  if (pFrames.empty()) malformed("no frames");
  std::size_t total = 0;
  for (const FrameView& frame : pFrames) total += frame.fSize;
  if (total > pMaxBytes) {
    throw OXError("OXBroker", "decode",
                  "message too large: " + std::to_string(total) + " bytes (limit " +
                      std::to_string(pMaxBytes) + ")",
                  kWireFile, 0);
  }
  const FrameView& header = pFrames[0];
  if (header.fSize == 0) malformed("empty header");
  Builder builder(pFrames, pBudget, pArea, pViews);
  std::size_t offset = 0;
  bool parsed = false;
  try {
    parsed = msgpack::parse(static_cast<const char*>(header.fData), header.fSize, offset, builder);
  } catch (const std::exception& error) {
    malformed(error.what());
  }
  if (!parsed) {
    const std::string& why = builder.error();
    throw OXError("OXBroker", "decode", why.empty() ? "malformed message: parse error" : why,
                  kWireFile, 0);
  }
  if (offset != header.fSize) malformed("bytes after the header");
  std::size_t unused = 0;
  if (!builder.allFramesUsed(unused)) {
    malformed("frame " + std::to_string(unused) + " is not referenced");
  }
  return builder.take();
}

RequestStart peekRequest(const FrameView& pHeader) {
  RequestStart start;
  RequestPeek peek(start);
  std::size_t offset = 0;
  try {
    (void)msgpack::parse(static_cast<const char*>(pHeader.fData), pHeader.fSize, offset, peek);
  } catch (const std::exception&) {
    // What was read before the fault stands.
  }
  return start;
}

OXValue errorToValue(const std::string& pModule, const std::string& pFunction,
                     const std::string& pDescription, const std::string& pFile, int pLine) {
  return OXValue::array({pModule, pFunction, pDescription, pFile, pLine});
}

void throwErrorValue(const OXValue& pFields) {
  const bool wellFormed = pFields.isArray() && pFields.getSize() == 5 && pFields[0].isString() &&
                          pFields[1].isString() && pFields[2].isString() && pFields[3].isString() &&
                          pFields[4].isInt();
  if (!wellFormed) malformed("an error reply without its five fields");
  throw OXError(pFields[0].asString(), pFields[1].asString(), pFields[2].asString(),
                pFields[3].asString(), pFields[4].asInt());
}

}  // namespace wire
}  // namespace OX
