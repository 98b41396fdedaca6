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

// Decodes a whole message (header first). Throws OXError from the module "OXBroker", function
// "decode", with a text starting "malformed message: " or "message too large: ".
OXValue decode(const std::vector<FrameView>& pFrames,
               std::size_t pMaxBytes = kDefaultMaxMessageBytes);

// The five fields of an OXError as an array, and back (the reply of a failed request).
OXValue errorToValue(const std::string& pModule, const std::string& pFunction,
                     const std::string& pDescription, const std::string& pFile, int pLine);
[[noreturn]] void throwErrorValue(const OXValue& pFields);

}  // namespace wire
}  // namespace OX
