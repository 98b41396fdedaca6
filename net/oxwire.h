// OXValue on the wire: MessagePack with large binaries out of line, one ZeroMQ frame each.
//
// A message is frame 0 (one MessagePack object, the header) followed by the frames of the
// binaries that the header references (ext type 1, a 4-byte big-endian frame index). Nothing here
// knows about sockets, so that the decoder can be fuzzed on its own. See docs/protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "oxvalue.h"

namespace OX {
namespace wire {

constexpr int kProtocolVersion = 1;
// Binaries of at least this many bytes travel in a frame of their own, without being copied into
// the header.
constexpr std::size_t kOutOfLineBinary = 4096;
constexpr std::size_t kDefaultMaxMessageBytes = 64u << 20;
constexpr int kMaxDepth = 64;

// One encoded message. The out-of-line frames point into the encoded value, which must outlive
// the message's use.
struct Encoded {
  std::string fHeader;
  std::vector<const OXValue::Binary*> fFrames;
};

// Where a same-host session's binaries go instead of a frame (oxsharedmemory.h): their place
// travels in the header as ext type 2, a big-endian 8-byte position and 4-byte size.
class BinaryPlacer {
 public:
  virtual ~BinaryPlacer() = default;
  // Copies the bytes into the area and gives their position; false when they travel as a frame.
  virtual bool place(const void* pData, std::size_t pSize, std::uint64_t& pPosition) = 0;
};

// The receiving side of an area: the bytes at a position, or null when it lies outside.
class BinaryResolver {
 public:
  virtual ~BinaryResolver() = default;
  virtual const unsigned char* resolve(std::uint64_t pPosition, std::size_t pSize) = 0;
};

// Bytes read in place, in a received frame or an area.
struct BinaryView {
  const unsigned char* fData;
  std::size_t fSize;
};

// Encodes pValue as a header plus out-of-line frames; with pPlacer, binaries that it takes are
// placed in its area instead of a frame.
void encode(const OXValue& pValue, Encoded& pOut, BinaryPlacer* pPlacer = nullptr);

struct FrameView {
  const void* fData;
  std::size_t fSize;
};

// What decoding one message may allocate. An element costs one byte on the wire and an OXValue
// (40 bytes) in memory, so a header of nils would otherwise grow forty times over; the budget is
// checked before an array is reserved, and decoding stops as soon as it is spent.
struct DecodeBudget {
  std::size_t fElements;
  std::size_t fBytes;  // the elements' OXValues plus the bytes of strings and binaries

  // The budget of a message of pMessageBytes: 4096 elements and 256 KiB whatever its size, plus
  // an element per 32 bytes and twice its size in bytes.
  static DecodeBudget forMessage(std::size_t pMessageBytes);
  // For the replies of a broker, which a client trusts.
  static DecodeBudget unlimited();
};

// Decodes a whole message (header first) within the budget of its size. Throws OXError from the
// module "OXBroker", function "decode", with a text starting "malformed message: " or "message
// too large: ".
OXValue decode(const std::vector<FrameView>& pFrames,
               std::size_t pMaxBytes = kDefaultMaxMessageBytes);
OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes,
               const DecodeBudget& pBudget);
// The same for a client: binaries placed in an area are read through pArea (without one, ext
// type 2 is malformed). With pViews, no binary is copied: each is left empty in the value and its
// bytes are appended to pViews, depth first, pointing into pFrames or the area.
OXValue decode(const std::vector<FrameView>& pFrames, std::size_t pMaxBytes,
               const DecodeBudget& pBudget, BinaryResolver* pArea, std::vector<BinaryView>* pViews);

// The id and the operation of a request, read from the start of its header without decoding the
// rest, so that a request refused before it is decoded is still answered under its own id. An id
// that cannot be read is -1, an operation that cannot be read is empty.
struct RequestStart {
  int fId = -1;
  std::string fOperation;
};
RequestStart peekRequest(const FrameView& pHeader);

// The five fields of an OXError as an array, and back (the reply of a failed request).
OXValue errorToValue(const std::string& pModule, const std::string& pFunction,
                     const std::string& pDescription, const std::string& pFile, int pLine);
[[noreturn]] void throwErrorValue(const OXValue& pFields);

}  // namespace wire
}  // namespace OX
