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

const char* const kWireFile = "framework/oxwire";
constexpr int8_t kFrameExt = 1;

[[noreturn]] void malformed(const std::string& pWhy) {
  throw OXError("OXBroker", "decode", "malformed message: " + pWhy, kWireFile, 0);
}

// The packer writes straight into the header string.
struct HeaderSink {
  std::string& fBytes;
  void write(const char* pData, std::size_t pSize) { fBytes.append(pData, pSize); }
};
using Packer = msgpack::packer<HeaderSink>;

void pack(Packer& pPacker, const OXValue& pValue, Encoded& pOut) {
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
      for (int i = 0; i < size; ++i) pack(pPacker, pValue[i], pOut);
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

struct Decoder {
  const std::vector<FrameView>& fFrames;
  std::vector<bool> fUsed;

  OXValue convert(const msgpack::object& pObject, int pDepth) {
    if (pDepth > kMaxDepth) malformed("nested deeper than " + std::to_string(kMaxDepth));
    switch (pObject.type) {
      case msgpack::type::NIL:
        return OXValue();
      case msgpack::type::BOOLEAN:
        return OXValue(pObject.via.boolean);
      case msgpack::type::POSITIVE_INTEGER:
        if (pObject.via.u64 > static_cast<uint64_t>(INT32_MAX)) {
          malformed("integer " + std::to_string(pObject.via.u64) + " out of range");
        }
        return OXValue(static_cast<int>(pObject.via.u64));
      case msgpack::type::NEGATIVE_INTEGER:
        if (pObject.via.i64 < static_cast<int64_t>(INT32_MIN)) {
          malformed("integer " + std::to_string(pObject.via.i64) + " out of range");
        }
        return OXValue(static_cast<int>(pObject.via.i64));
      case msgpack::type::FLOAT32:
      case msgpack::type::FLOAT64:
        return OXValue(static_cast<float>(pObject.via.f64));
      case msgpack::type::STR:
        return OXValue(std::string(pObject.via.str.ptr, pObject.via.str.size));
      case msgpack::type::BIN:
        return OXValue::binary(pObject.via.bin.ptr, static_cast<int>(pObject.via.bin.size));
      case msgpack::type::ARRAY: {
        OXValue::Array elements;
        elements.reserve(pObject.via.array.size);
        for (uint32_t i = 0; i < pObject.via.array.size; ++i) {
          elements.push_back(convert(pObject.via.array.ptr[i], pDepth + 1));
        }
        return OXValue(std::move(elements));
      }
      case msgpack::type::EXT:
        return frame(pObject.via.ext);
      default:
        malformed("a map or an unknown MessagePack type");
    }
  }

  OXValue frame(const msgpack::object_ext& pExt) {
    if (pExt.type() != kFrameExt || pExt.size != 4) {
      malformed("unknown extension type " + std::to_string(pExt.type()));
    }
    const auto* p = reinterpret_cast<const unsigned char*>(pExt.data());
    const uint32_t index =
        (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
    if (index == 0 || index >= fFrames.size()) {
      malformed("frame " + std::to_string(index) + " does not exist");
    }
    if (fUsed[index]) malformed("frame " + std::to_string(index) + " referenced twice");
    fUsed[index] = true;
    const FrameView& view = fFrames[index];
    if (view.fSize > static_cast<std::size_t>(INT32_MAX)) malformed("binary too large");
    return OXValue::binary(view.fData, static_cast<int>(view.fSize));
  }
};

}  // namespace

void encode(const OXValue& pValue, Encoded& pOut) {
  pOut.fFrames.clear();
  pOut.fHeader.clear();
  HeaderSink sink{pOut.fHeader};
  Packer packer(sink);
  pack(packer, pValue, pOut);
}

OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes) {
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
  // No container can hold more elements than the header has bytes, which keeps a few bytes from
  // making the parser reserve a great deal of memory.
  const std::size_t bound = header.fSize;
  const msgpack::unpack_limit limit(bound, 0, bound, bound, bound, kMaxDepth);
  std::size_t offset = 0;
  msgpack::object_handle handle;
  try {
    handle = msgpack::unpack(
        static_cast<const char*>(header.fData), header.fSize, offset,
        [](msgpack::type::object_type, std::size_t, void*) { return true; }, nullptr, limit);
  } catch (const msgpack::insufficient_bytes&) {
    malformed("truncated header");
  } catch (const std::exception& error) {
    malformed(error.what());
  }
  if (offset != header.fSize) malformed("bytes after the header");
  Decoder decoder{pFrames, std::vector<bool>(pFrames.size(), false)};
  OXValue value = decoder.convert(handle.get(), 0);
  for (std::size_t i = 1; i < pFrames.size(); ++i) {
    if (!decoder.fUsed[i]) malformed("frame " + std::to_string(i) + " is not referenced");
  }
  return value;
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
