// libFuzzer target of what the broker host does with a message, frames and header together: the
// frame bounds, the decoder and the request handler end in a reply under the id that the
// request's start shows (-1 when it shows none), or an OXError, never a crash or an allocation
// out of proportion; and a decoded value encodes and decodes back to the same bytes.
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "oxbounds.h"
#include "oxbroker.h"
#include "oxerror.h"
#include "oxrequests.h"
#include "oxsessions.h"
#include "oxwire.h"

namespace {

using OX::OXValue;
namespace wire = OX::wire;
namespace net = OX::net;

// A module whose methods cost nothing and keep nothing: "subscribe" answers its first argument,
// so that the host's tracking of subscribers is driven too, "fail" raises, anything else echoes.
class FuzzModule : public OX::OXModuleCore {
 public:
  explicit FuzzModule(boost::shared_ptr<OX::OXBroker> pBroker) : OXModuleCore(pBroker, "Fuzz") {}
  void execute(const std::string& pMethod, const OXValue& pArguments, OXValue& pResult) override {
    if (pMethod == "fail") throw OX::OXError("Fuzz", pMethod, "asked to fail", "fuzz", 0);
    pResult = pMethod == "subscribe" && pArguments.getSize() > 0 ? pArguments[0] : pArguments;
  }
};

// A broker with that module only: the services could keep what the fuzzer sends, or read files.
boost::shared_ptr<OX::OXBroker> fuzzBroker() {
  static boost::shared_ptr<OX::OXBroker> sBroker = [] {
    boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("fuzz", {});
    for (const std::string& name : broker->getModuleNames()) broker->unregisterModule(name);
    boost::shared_ptr<FuzzModule> module(new FuzzModule(broker));
    module->initModule();
    return broker;
  }();
  return sBroker;
}

void checkRoundTrip(const std::vector<wire::FrameView>& pFrames) {
  try {
    const OXValue value = wire::decode(pFrames, 1 << 20);
    wire::Encoded encoded;
    wire::encode(value, encoded);
    std::vector<wire::FrameView> again = {{encoded.fHeader.data(), encoded.fHeader.size()}};
    for (const OXValue::Binary* frame : encoded.fFrames) {
      again.push_back({frame->data(), frame->size()});
    }
    // Compared as bytes, since a NaN is not equal to itself.
    const OXValue back = wire::decode(again, SIZE_MAX, wire::DecodeBudget::unlimited());
    wire::Encoded twice;
    wire::encode(back, twice);
    if (twice.fHeader != encoded.fHeader || twice.fFrames.size() != encoded.fFrames.size()) {
      __builtin_trap();
    }
    for (size_t i = 0; i < twice.fFrames.size(); ++i) {
      if (*twice.fFrames[i] != *encoded.fFrames[i]) __builtin_trap();
    }
  } catch (const OX::OXError&) {
    // Refused: that is the point.
  }
}

// What the listener and a worker do with the message, as one connection with or without a
// session: the reply must be well formed and carry the id that the request's start shows.
void checkHandling(const std::vector<wire::FrameView>& pFrames, bool pSession) {
  net::HostLimits limits;
  limits.fMaxMessageBytes = 1 << 16;
  limits.fMaxFrames = 3;
  net::FrameTally tally(limits);
  for (const wire::FrameView& frame : pFrames) tally.add(frame.fSize);
  const wire::RequestStart start = wire::peekRequest(pFrames[0]);
  if (tally.over()) return;  // answered with start.fId by the listener, undecoded
  net::SessionTable sessions(4, [](net::Farewell&&) {});
  if (pSession) sessions.begin("peer", "client");
  net::RequestHandler handler(fuzzBroker(), sessions, limits.fMaxMessageBytes);
  OXValue reply = handler.handle("peer", pFrames);
  wire::Encoded encoded;
  net::encodeReply(start.fId, reply, encoded);
  const bool wellFormed = reply.isArray() && reply.getSize() == 4 && reply[1].isInt() &&
                          reply[2].isString() &&
                          (reply[2].asString() == "ok" || reply[2].asString() == "error");
  if (!wellFormed || reply[1].asInt() != start.fId) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t pSize) {
  if (pSize == 0) return 0;
  // The first byte says how many frames follow the header (bits 0 and 1: 0 to 3) and whether
  // the connection has a session (bit 2); the next bytes give the length of each of those frames,
  // the rest of the input being the header.
  const size_t extra = pData[0] % 4;
  const bool session = (pData[0] & 4) != 0;
  if (pSize < 1 + extra) return 0;
  std::vector<size_t> lengths;
  for (size_t i = 0; i < extra; ++i) lengths.push_back(pData[1 + i]);
  const uint8_t* cursor = pData + 1 + extra;
  size_t left = pSize - 1 - extra;
  std::vector<wire::FrameView> frames;
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
  checkRoundTrip(frames);
  checkHandling(frames, session);
  return 0;
}
