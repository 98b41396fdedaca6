// The wire codec: every kind round-trips, large binaries travel out of line, and anything
// malformed is refused with an error rather than a crash.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "oxwire.h"
#include "testsupport.h"

namespace {

using namespace std::string_literals;
using OX::OXValue;
namespace wire = OX::wire;

OXValue roundTrip(const OXValue& pValue, std::size_t* pFrames = nullptr) {
  wire::Encoded encoded;
  wire::encode(pValue, encoded);
  if (pFrames) *pFrames = encoded.fFrames.size();
  std::vector<wire::FrameView> views = {{encoded.fHeader.data(), encoded.fHeader.size()}};
  for (const OXValue::Binary* frame : encoded.fFrames)
    views.push_back({frame->data(), frame->size()});
  return wire::decode(views);
}

std::string decodeError(const std::string& pHeader, std::vector<std::string> pFrames = {},
                        std::size_t pLimit = wire::kDefaultMaxMessageBytes) {
  pFrames.insert(pFrames.begin(), pHeader);
  std::vector<wire::FrameView> views;
  for (const std::string& frame : pFrames) views.push_back({frame.data(), frame.size()});
  return vitest::raised([&] { wire::decode(views, pLimit); }).getDescription();
}

TEST(Wire, EveryKindRoundTrips) {
  std::vector<unsigned char> big(wire::kOutOfLineBinary + 7);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 31);
  const OXValue value = OXValue::array(
      {OXValue(), true, false, 0, -1, 2147483647, -2147483647 - 1, 1.5f, -0.0f, 2.0f, "", "text",
       std::string("nul\0inside", 10), OXValue::binary("ab", 2), OXValue::binary(nullptr, 0),
       OXValue::binary(big.data(), static_cast<int>(big.size())),
       OXValue::array({OXValue::array({}), OXValue::array({1, "x"})}),
       OXValue::binary(big.data(), static_cast<int>(big.size()))});
  std::size_t frames = 0;
  const OXValue back = roundTrip(value, &frames);
  EXPECT_EQ(back, value);
  EXPECT_EQ(frames, 2u);  // the two large binaries, nothing else
  EXPECT_TRUE(back[1].isBool());
  EXPECT_TRUE(back[3].isInt());
  EXPECT_TRUE(back[7].isFloat());
  EXPECT_TRUE(back[9].isFloat());  // a whole number stays a float
  EXPECT_EQ(roundTrip(OXValue()), OXValue());
}

TEST(Wire, MalformedMessagesAreRefused) {
  const std::string ext1 = "\xd6\x01\x00\x00\x00\x01"s;  // frame 1
  struct Case {
    std::string header;
    std::vector<std::string> frames;
    std::string error;
  };
  const std::vector<Case> cases = {
      {""s, {}, "malformed message: empty header"},
      {"\xc1"s, {}, "malformed message: parse error"},
      {"\x92\x01"s, {}, "malformed message: truncated header"},
      {"\x01\x02"s, {}, "malformed message: bytes after the header"},
      {"\x81\x01\x02"s, {}, "malformed message: a map, which no OXValue is"},
      {"\xce\x80\x00\x00\x00"s, {}, "malformed message: integer 2147483648 out of range"},
      {"\xd3\xff\xff\xff\xff\x7f\xff\xff\xff"s,
       {},
       "malformed message: integer -2147483649 out of range"},
      {ext1, {}, "malformed message: frame 1 does not exist"},
      {"\x92" + ext1 + ext1, {"x"}, "malformed message: frame 1 referenced twice"},
      {"\x01"s, {"x"}, "malformed message: frame 1 is not referenced"},
      {"\xd6\x02\x00\x00\x00\x01"s, {"x"}, "malformed message: unknown extension type 2"},
      // An array that claims more elements than the header has bytes.
      {"\xdd\x00\x10\x00\x00\x01"s,
       {},
       "malformed message: 1048576 elements in a header of 6 bytes"},
      {std::string(200, '\x91') + "\x01"s, {}, "malformed message: nested deeper than 64"},
      // Nils cost a byte each on the wire but an OXValue each decoded: past the budget of the
      // message's size, nothing is allocated.
      {"\xdd\x00\x00\x20\x00"s + std::string(8192, '\xc0'),
       {},
       "message too large: decoding it needs more than its budget of 4352 elements and 278538 "
       "bytes"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(decodeError(c.header, c.frames), c.error) << testing::PrintToString(c.header);
  }
  EXPECT_EQ(decodeError("\x01", {}, 0), "message too large: 1 bytes (limit 0)");
  EXPECT_EQ(vitest::raised([] { wire::decode({}); }).getDescription(),
            "malformed message: no frames");
}

// A request refused before it is decoded must still be answered under its own id.
TEST(Wire, RequestStartIsReadWithoutDecodingTheRest) {
  struct Case {
    std::string header;
    int id;
    std::string operation;
  };
  const std::vector<Case> cases = {
      {"\x94\x01\x07\xa4" "call\xc1"s, 7, "call"},  // the rest is not even MessagePack
      {"\x93\x01\xd2\xff\xff\xff\xfe\xa5hello"s, -2, "hello"},
      {"\x93\x01\xce\x80\x00\x00\x00\xa4ping"s, -1, "ping"},  // an id out of range
      {"\x93\x91\x01\x07\xa4ping"s, -1, ""},                  // a nested array first
      {"\x92\x01"s, -1, ""},
      {"\x07"s, -1, ""},
  };
  for (const Case& c : cases) {
    const wire::RequestStart start = wire::peekRequest({c.header.data(), c.header.size()});
    EXPECT_EQ(start.fId, c.id) << testing::PrintToString(c.header);
    EXPECT_EQ(start.fOperation, c.operation) << testing::PrintToString(c.header);
  }
}

TEST(Wire, ErrorRepliesCarryTheFiveFields) {
  const OX::OXError error = vitest::raised([] {
    wire::throwErrorValue(roundTrip(wire::errorToValue("Mod", "fn()", "why", "file", 12)));
  });
  EXPECT_EQ(error.toString(), OX::OXError("Mod", "fn()", "why", "file", 12).toString());
  EXPECT_EQ(vitest::raised([] {
              wire::throwErrorValue(OXValue::array({1, 2}));
            }).getDescription(),
            "malformed message: an error reply without its five fields");
}

}  // namespace
