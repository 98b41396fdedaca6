// OXValue on the wire: MessagePack with large binaries out of line, one ZeroMQ frame each.
//
// A message is frame 0 (one MessagePack object, the header) followed by the frames of the
// binaries that the header references (ext type 1, a 4-byte big-endian frame index). Nothing here
// knows about sockets, so that the decoder can be fuzzed on its own. See docs/protocol.md.
#pragma once

#include <cstddef>
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

// Encodes pValue as a header plus out-of-line frames.
void encode(const OXValue& pValue, Encoded& pOut);

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
