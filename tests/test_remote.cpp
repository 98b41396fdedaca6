// The broker host in its own process, driven through the remote OXProxy and through raw
// ZeroMQ messages: results, errors and introspection arrive as they would in-process, over the
// socket and over a shared-memory area alike (its calls over ZeroMQ or over the session's Unix
// socket), every refusal is answered under the request's id, and a client carries on across a
// reconnection. The areas themselves are bounded, single-use and only for this machine, and the
// rooms they lend to the device's copy of an image are never written over while a binary holds
// them; the Unix connections are single-use too, and bounded in time.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "brokerprocess.h"
#include "oxbroker.h"
#include "oxlocalcalls.h"
#include "oxremote.h"
#include "oxsharedmemory.h"
#include "oxwire.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXProxy;
using OX::OXValue;
using vitest::BrokerProcess;
using vitest::RawClient;
using SharedMemory = OX::ConnectOptions::SharedMemory;
namespace net = OX::net;

// Every remote test that carries results runs over every channel: the socket, and an area with
// its calls over ZeroMQ or over the session's Unix socket.
struct Way {
  SharedMemory fSharedMemory;
  bool fUnixSocket;
  const char* fName;
};
void PrintTo(const Way& pWay, std::ostream* pOut) {
  *pOut << pWay.fName;
}
class Channel : public ::testing::TestWithParam<Way> {
 protected:
  boost::shared_ptr<OXProxy> connect(const std::string& pUrl, const std::string& pModule) {
    OX::ConnectOptions options;
    options.fSharedMemory = GetParam().fSharedMemory;
    options.fUnixSocketCalls = GetParam().fUnixSocket;
    boost::shared_ptr<OXProxy> proxy = OXProxy::connect(pUrl, pModule, options);
    expectChannel(*proxy);
    return proxy;
  }
  void expectChannel(OXProxy& pProxy) {
    const auto* connection = dynamic_cast<OX::OXRemoteConnection*>(pProxy.getRemoteChannel());
    EXPECT_EQ(connection->usesSharedMemory(), GetParam().fSharedMemory == SharedMemory::kRequire);
    EXPECT_EQ(connection->usesUnixSocket(), GetParam().fUnixSocket);
  }
};
INSTANTIATE_TEST_SUITE_P(Remote, Channel,
                         ::testing::Values(Way{SharedMemory::kNever, false, "Socket"},
                                           Way{SharedMemory::kRequire, false, "SharedOverZeroMQ"},
                                           Way{SharedMemory::kRequire, true, "SharedMemory"}),
                         [](const auto& pInfo) { return std::string(pInfo.param.fName); });

// Puts the bytes of pViews back into the binaries of pValue, depth first, as callWithViews left
// them.
void fillViews(OXValue& pValue, const std::vector<OX::BinaryView>& pViews, std::size_t& pNext) {
  if (pValue.isBinary()) {
    ASSERT_LT(pNext, pViews.size());
    pValue = OXValue::binary(pViews[pNext].fData, static_cast<int>(pViews[pNext].fSize));
    ++pNext;
  } else if (pValue.isArray()) {
    for (int i = 0; i < pValue.getSize(); ++i) fillViews(pValue[i], pViews, pNext);
  }
}

// Encodes pValue for the client of pArea and decodes it as that client does (into pDecoded, with
// the views of its binaries in pViews if given); returns the frames that travelled.
std::size_t throughArea(const OXValue& pValue, net::SharedArea& pArea, net::AreaClient& pClient,
                        OXValue& pDecoded, std::vector<OX::BinaryView>* pViews = nullptr) {
  OX::wire::Encoded encoded;
  OX::wire::encode(pValue, encoded, &pArea);
  std::vector<OX::wire::FrameView> views = {{encoded.fHeader.data(), encoded.fHeader.size()}};
  for (const OXValue::Binary* frame : encoded.fFrames)
    views.push_back({frame->data(), frame->size()});
  pDecoded =
      OX::wire::decode(views, SIZE_MAX, OX::wire::DecodeBudget::unlimited(), &pClient, pViews);
  return encoded.fFrames.size();
}

// A remote image result, made as the device makes it while the host serves a call.
OXValue replyOf(const std::vector<unsigned char>& pBytes) {
  return OXValue::replyBinary(pBytes.data(), static_cast<int>(pBytes.size()));
}

bool lent(const OXValue& pValue) {
  return pValue.binaryBytes().inArena();
}

OXValue uniformFrame(int pWidth, int pHeight) {
  std::vector<unsigned char> rgb(static_cast<size_t>(pWidth) * pHeight * 3);
  for (size_t i = 0; i < rgb.size(); i += 3) {
    rgb[i] = 200;
    rgb[i + 1] = 100;
    rgb[i + 2] = 50;
  }
  return OXValue::binary(rgb.data(), static_cast<int>(rgb.size()));
}

TEST_P(Channel, CallsErrorsAndIntrospectionMatchInProcess) {
  BrokerProcess broker;
  const boost::shared_ptr<OXProxy> remote = connect(broker.url(), "OXVideoDevice");
  OXProxy& proxy = *remote;
  EXPECT_TRUE(proxy.isRemote());

  // The same device in this process, for comparison.
  boost::shared_ptr<OX::OXBroker> local;
  auto device = vitest::makeSimulatorCam(&local);
  OXProxy localProxy(local, "OXVideoDevice");

  // The pixels arrive exactly as an in-process client gets them.
  OXValue images[2];
  OXProxy* proxies[2] = {&proxy, &localProxy};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(proxies[i]->genericCall("subscribeCamera", OXValue::array({"cpp", 0, 1, 11, 30})),
              OXValue("cpp"));
    EXPECT_EQ(
        proxies[i]->genericCall("putImage", OXValue::array({0, 320, 240, uniformFrame(320, 240)})),
        OXValue(true));
    images[i] = proxies[i]->genericCall("getImageRemote", OXValue::array({"cpp"}));
    proxies[i]->genericCall("unsubscribe", OXValue::array({"cpp"}));
  }
  ASSERT_EQ(images[0].getSize(), 12);
  EXPECT_EQ(images[0][0], OXValue(320));
  EXPECT_EQ(images[0][3], OXValue(11));
  EXPECT_EQ(images[0][6].getSize(), 320 * 240 * 3);
  EXPECT_EQ(images[0][6], images[1][6]);

  // Errors keep their five fields across the wire.
  const OX::OXError missing =
      vitest::raised([&] { proxy.genericCall("getImageRemote", OXValue::array({"nobody"})); });
  EXPECT_EQ(missing.getModuleName(), "OXVideoDevice");
  EXPECT_EQ(missing.getFunctionName(), "getImageRemote()");
  EXPECT_EQ(missing.getDescription(), "getDirectRawImageRemote(nobody) : module nobody unknown!");

  // Both answer questions about themselves in the same words.
  EXPECT_EQ(proxy.getMethodList(), localProxy.getMethodList());
  EXPECT_EQ(proxy.getMethodHelp("putImage"), localProxy.getMethodHelp("putImage"));
  EXPECT_EQ(proxy.describe(), localProxy.describe());
  EXPECT_EQ(proxy.getModuleHelp(), localProxy.getModuleHelp());
  const OX::OXError unknownMethod =
      vitest::raised([&] { proxy.genericCall("noSuchMethod", OXValue()); });
  EXPECT_EQ(unknownMethod.toString(),
            vitest::raised([&] { localProxy.genericCall("noSuchMethod", OXValue()); }).toString());

  EXPECT_EQ(vitest::raised([&] { OXProxy("Nope", "127.0.0.1", broker.port()); }).getDescription(),
            "no module named Nope is registered with broker oxbroker");
}

// A refusal under id -1, or under another request's id, would be taken by a pipelining client
// as the answer to the wrong request; a refusal must also cost the host nothing.
TEST(Remote, EveryRefusalIsAnsweredUnderItsRequestsId) {
  BrokerProcess broker({"--max-message", "100000", "--max-frames", "4", "--max-in-flight", "4"});
  RawClient raw(broker.url());
  auto header = [](const OXValue& pHeader) {
    OX::wire::Encoded encoded;
    OX::wire::encode(pHeader, encoded);
    return encoded.fHeader;
  };
  const std::string big(60000, 'x');
  struct Case {
    std::vector<std::string> frames;
    int id;
    std::string description;
  };
  const std::vector<Case> cases = {
      {{header(OXValue::array({1, 11, "call", "OXMemory", "getData", OXValue::array({"k"})}))},
       11,
       "unknown session: say hello first"},
      {{header(OXValue::array({1, 12, "hello", "raw", OXValue()}))}, 12, ""},
      {{"\x93\x01\x0d"}, 13, "malformed message: truncated header"},
      {{header(OXValue::array({1, 14, "ping"})), "a", "b", "c", "d"},
       14,
       "message too large: more than 4 frames"},
      {{header(OXValue::array({1, 15, "ping"})), big, big},
       15,
       "message too large: more than 100000 bytes (each frame counts 64 more)"},
      {{header(OXValue::array({2, 16, "ping"}))},
       16,
       "unsupported protocol version 2 (this broker speaks 1)"},
      {{header(OXValue::array({1, 17, "dance"}))}, 17, "unknown operation \"dance\""},
      {{header(OXValue::array({1, 18, "call", "OXVideoDevice", "getFrameRate", 5}))},
       18,
       "the arguments of getFrameRate must be an array"},
      {{header(OXValue::array({1, 19, "hello", 3}))}, 19, "operand 0 of hello must be a string"},
  };
  for (const Case& c : cases) {
    raw.sendFrames(c.frames);
    const OXValue reply = raw.receive();
    ASSERT_TRUE(reply.isArray()) << "no reply to request " << c.id;
    EXPECT_EQ(reply[1], OXValue(c.id));
    if (c.description.empty()) {
      EXPECT_EQ(reply[2], OXValue("ok"));
    } else {
      EXPECT_EQ(reply[3][2], OXValue(c.description)) << "request " << c.id;
    }
  }

  // Over the in-flight bound: a call waiting for a first frame that never comes (camera 1 is
  // never fed) holds the connection's lane, three more wait behind it, the fifth is refused.
  raw.send(20, "call",
           {"OXVideoDevice", "subscribeCamera", OXValue::array({"slow", 1, 0, 11, 30})});
  EXPECT_EQ(raw.receive()[3], OXValue("slow"));
  raw.send(21, "call", {"OXVideoDevice", "getImageRemote", OXValue::array({"slow"})});
  for (int id = 22; id <= 25; ++id) raw.send(id, "ping");
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) {
    const OXValue reply = raw.receive();
    ASSERT_TRUE(reply.isArray()) << testing::PrintToString(order);
    order.push_back(reply[1].asInt());
    if (reply[1] == OXValue(25)) {
      EXPECT_EQ(reply[3][2], OXValue("too many requests in flight: at most 4 per connection"));
    }
  }
  EXPECT_EQ(order, (std::vector<int>{25, 21, 22, 23, 24}));  // the refusal first, then in order
}

// A client whose connection was made again (here: the broker restarted on its port) has a new
// routing identity; without a new hello its calls would all fail, or run without a session.
// Over shared memory the device's copy of an image lands in the area: a room read at the wrong
// place, or written over while its reply was on its way, would give other pixels than the socket
// gives for the same frame, once the ring has wrapped a few times; copied and read in place alike,
// and for the one binary behind the images of a subscriber of several cameras. A frame asked for
// again is not copied again into a room that still holds it: one that other bytes have taken
// since must be written anew.
TEST(Remote, ImagesComeBackOverTheAreaAsOverTheSocketAsTheAreaWraps) {
  constexpr int kBytes = 320 * 240 * 3;
  BrokerProcess broker({"--shared-memory-bytes", std::to_string(4096 + 4 * kBytes + 100)});
  boost::shared_ptr<OXProxy> proxies[2];
  for (SharedMemory channel : {SharedMemory::kNever, SharedMemory::kRequire}) {
    OX::ConnectOptions options;
    options.fSharedMemory = channel;
    const int i = channel == SharedMemory::kNever ? 0 : 1;
    proxies[i] = OXProxy::connect(broker.url(), "OXVideoDevice", options);
    const std::string name = i == 0 ? "socket" : "area";
    EXPECT_EQ(proxies[i]->genericCall("subscribeCamera",
                                      OXValue::array({name, 0, OX::kQVGA, OX::kRGB, 30})),
              OXValue(name));
    const std::string many = name + "-many";
    EXPECT_EQ(proxies[i]->genericCall(
                  "subscribeCameras",
                  OXValue::array({many, OXValue::array({0}), OXValue::array({int(OX::kQVGA)}),
                                  OXValue::array({int(OX::kRGB)}), 30})),
              OXValue(many));
  }
  const auto pixels = [](const OXValue& pImage) {
    return pImage.getSize() == 12 ? pImage[6] : OXValue();
  };
  OXValue previous;
  for (uint32_t round = 0; round < 8; ++round) {
    ASSERT_EQ(proxies[0]->genericCall(
                  "putImage", OXValue::array({0, 320, 240, vitest::rgbFrame(OX::kQVGA, round)})),
              OXValue(true));
    // The device takes a new frame for a subscriber of 30 fps once a period is over.
    OXValue bySocket;
    ASSERT_TRUE(vitest::pollUntil(
        [&] {
          bySocket = pixels(proxies[0]->genericCall("getImageRemote", OXValue::array({"socket"})));
          return bySocket != previous;
        },
        2000))
        << round;
    ASSERT_EQ(bySocket.getSize(), kBytes);
    EXPECT_EQ(pixels(proxies[1]->genericCall("getImageRemote", OXValue::array({"area"}))), bySocket)
        << round;
    OX::ViewedResult viewed =
        OX::callWithViews(*proxies[1], "getImageRemote", OXValue::array({"area"}));
    ASSERT_EQ(viewed.fBinaries.size(), 1u);
    EXPECT_EQ(OXValue::binary(viewed.fBinaries[0].fData, int(viewed.fBinaries[0].fSize)), bySocket)
        << round;
    EXPECT_EQ(
        pixels(proxies[1]->genericCall("getDirectRawImageRemote", OXValue::array({"area"}))),
        pixels(proxies[0]->genericCall("getDirectRawImageRemote", OXValue::array({"socket"}))))
        << round;
    // The same frame again: its room was just written over by the raw image.
    EXPECT_EQ(pixels(proxies[1]->genericCall("getImageRemote", OXValue::array({"area"}))), bySocket)
        << round;
    // The images of a subscriber of several cameras come as one binary behind their arrays.
    const OXValue manyBySocket =
        proxies[0]->genericCall("getImagesRemote", OXValue::array({"socket-many"}));
    ASSERT_EQ(manyBySocket.getSize(), 2) << round;
    EXPECT_EQ(manyBySocket[1].getSize(), kBytes) << round;
    EXPECT_EQ(proxies[1]->genericCall("getImagesRemote", OXValue::array({"area-many"}))[1],
              manyBySocket[1])
        << round;
    previous = bySocket;
  }
}

TEST_P(Channel, ClientIntroducesItselfAgainAfterItsConnectionIsMadeAgain) {
  auto broker = std::make_unique<BrokerProcess>();
  const std::string port = std::to_string(broker->port());
  const boost::shared_ptr<OXProxy> remote = connect(broker->url(), "OXMemory");
  OXProxy& proxy = *remote;
  std::vector<unsigned char> large(300000, 9);
  const OXValue image = OXValue::binary(large.data(), static_cast<int>(large.size()));
  proxy.genericCall("insertData", OXValue::array({"key", 1}));
  broker.reset();
  broker = std::make_unique<BrokerProcess>(std::vector<std::string>{"--port", port});
  EXPECT_EQ(proxy.genericCall("getData", OXValue::array({"key"})), OXValue());  // a new memory
  proxy.genericCall("insertData", OXValue::array({"key", image}));
  // The new session has an area of its own, or none, as the first one had.
  EXPECT_EQ(proxy.genericCall("getData", OXValue::array({"key"})), image);
  expectChannel(proxy);
}

// A binary placed in the area but read back wrong (a stale position, a view of the wrong bytes,
// an order mixed up between several binaries) would pass a test of images of one colour: every
// kind of value, binaries of every size among them, must come back byte for byte, copied and read
// in place.
TEST_P(Channel, EveryKindOfValueComesBackByteIdentical) {
  BrokerProcess broker;
  const boost::shared_ptr<OXProxy> proxy = connect(broker.url(), "OXMemory");
  std::vector<unsigned char> bytes(3 * net::kDefaultPlaceThreshold);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
  const auto binary = [&](std::size_t pOffset, std::size_t pSize) {
    return OXValue::binary(bytes.data() + pOffset, static_cast<int>(pSize));
  };
  const OXValue value = OXValue::array(
      {OXValue(), true, -7, 2.5f, "text", OXValue::binary(nullptr, 0), binary(1, 100),
       binary(2, net::kDefaultPlaceThreshold - 1), binary(3, net::kDefaultPlaceThreshold),
       OXValue::array({binary(5, 2 * net::kDefaultPlaceThreshold), OXValue::array({}), "x",
                       binary(0, bytes.size())})});
  proxy->genericCall("insertData", OXValue::array({"all", value}));
  for (int round = 0; round < 3; ++round) {  // the ring is used again, and wraps
    EXPECT_EQ(proxy->genericCall("getData", OXValue::array({"all"})), value);
    OX::ViewedResult viewed = OX::callWithViews(*proxy, "getData", OXValue::array({"all"}));
    std::size_t next = 0;
    fillViews(viewed.fValue, viewed.fBinaries, next);
    EXPECT_EQ(next, viewed.fBinaries.size());
    EXPECT_EQ(viewed.fValue, value);
  }
  OXProxy local(boost::shared_ptr<OX::OXBroker>(), "OXMemory");
  EXPECT_NE(vitest::raised([&] { OX::callWithViews(local, "getData", OXValue()); })
                .getDescription()
                .find("is an in-process proxy"),
            std::string::npos);
}

// An area that grew without bound, or one that a second visitor could fetch with a seen token,
// would let one client exhaust the host or read another's images; an address that is not this
// machine's must get no area, whatever the client asks.
TEST(SharedArea, IsBoundedSingleUseAndOnlyForThisMachine) {
  constexpr std::size_t kPiece = net::kDefaultPlaceThreshold;
  net::SharedAreas areas(net::kAreaHeaderBytes + 3 * kPiece, net::kAreaHeaderBytes + 3 * kPiece);
  areas.start();
  std::shared_ptr<net::SharedArea> area;
  for (const char* peer : {"192.0.2.7", "10.1.2.3", "::ffff:192.0.2.7", "2001:db8::1", "",
                           "::", "localhost", "127.0.0.1.example"}) {
    EXPECT_EQ(areas.offer(peer, area),
              OXValue("shared memory refused: the client is not on this machine"))
        << peer;
    EXPECT_FALSE(area);
  }
  OXValue offer;
  for (const char* peer :
       {"127.0.0.1", "127.9.8.7", "::1", "::ffff:127.0.0.1", "host:1000:1000:42"}) {
    area.reset();  // one area at a time fits the bound
    offer = areas.offer(peer, area);
    EXPECT_TRUE(offer.isArray()) << peer;
  }
  ASSERT_TRUE(area);
  EXPECT_EQ(areas.offer("127.0.0.1", area),
            OXValue("shared memory refused: at most " + std::to_string(areas.heldBytes()) +
                    " bytes of areas for all clients"));
  ASSERT_TRUE(area);
  net::AreaClient client(offer);
  EXPECT_NE(vitest::raised([&] { net::AreaClient again(offer); })
                .getDescription()
                .find("the shared-memory door refused"),
            std::string::npos);

  // Three binaries fill the ring: the fourth travels as a frame, and until the client gives the
  // ring back, everything does.
  std::vector<unsigned char> bytes(kPiece);
  OXValue value = OXValue::array({});
  for (int i = 0; i < 4; ++i) {
    for (std::size_t b = 0; b < bytes.size(); ++b) bytes[b] = static_cast<unsigned char>(b + i);
    value.arrayPush(OXValue::binary(bytes.data(), static_cast<int>(bytes.size())));
  }
  const auto frames = [&] {
    OXValue decoded;
    const std::size_t count = throughArea(value, *area, client, decoded);
    EXPECT_EQ(decoded, value);
    return count;
  };
  EXPECT_EQ(frames(), 1u);
  EXPECT_EQ(frames(), 4u);
  client.releaseAll();
  EXPECT_EQ(frames(), 1u);
  // Once everything is given back, the whole ring is free again, for a larger binary too.
  for (std::size_t size : {kPiece, 2 * kPiece + 100}) {
    client.releaseAll();
    bytes.assign(size, static_cast<unsigned char>(size));
    value = OXValue::array({OXValue::binary(bytes.data(), static_cast<int>(bytes.size()))});
    EXPECT_EQ(frames(), 0u) << size;
  }
  area.reset();
  EXPECT_EQ(areas.heldBytes(), 0u);
}

// The device's copy of an image is made in a room of the area: a result made there outside a
// call (or too small to be placed) would bypass the copy a remote result must be, a copy left in
// the ring would change as the ring is used again, a room written over while a kept binary holds
// it would change that binary, and a room given back wrongly would leave the ring short for good.
TEST(SharedArea, LendsRoomsToTheDevicesCopyThatNothingWritesOver) {
  constexpr std::size_t kPiece = net::kDefaultPlaceThreshold;
  net::SharedAreas areas(net::kAreaHeaderBytes + 4 * kPiece, SIZE_MAX);
  areas.start();
  std::shared_ptr<net::SharedArea> area;
  net::AreaClient client(areas.offer("127.0.0.1", area));
  const auto bytes = [](std::size_t pSize, uint32_t pSeed) {
    return vitest::randomBytes(pSize, pSeed);
  };
  OXValue decoded;
  std::vector<OX::BinaryView> views;

  const std::vector<unsigned char> first = bytes(kPiece, 1);
  EXPECT_FALSE(lent(replyOf(first)));  // no call is served
  auto scope = std::make_unique<OX::OXReplyArenaScope>(area);
  EXPECT_FALSE(lent(replyOf(bytes(kPiece - 1, 2))));
  OXValue image = OXValue::array({1, OXValue()});
  image[1] = replyOf(first);  // a list of values would be copied
  ASSERT_TRUE(lent(image[1]));
  const OXValue copy = image;
  EXPECT_FALSE(lent(copy[1]));
  // Placed without a second copy: the client reads the very room the device wrote.
  EXPECT_EQ(throughArea(image, *area, client, decoded, &views), 0u);
  ASSERT_EQ(views.size(), 1u);
  static_cast<unsigned char*>(image[1].GetBinary())[7] ^= 0xff;
  EXPECT_EQ(views[0].fData[7], image[1].binaryBytes()[7]);
  EXPECT_EQ(
      std::vector<unsigned char>(views[0].fData, views[0].fData + kPiece),
      std::vector<unsigned char>(image[1].binaryBytes().begin(), image[1].binaryBytes().end()));

  // A result kept instead of sent holds its room while the ring wraps around it: what would go
  // there travels as frames instead, and the kept bytes and a copy's stay as they were.
  const std::vector<unsigned char> second = bytes(kPiece, 3);
  OXValue kept = replyOf(second);
  ASSERT_TRUE(lent(kept));
  const OXValue keptCopy = kept;
  std::size_t frames = 0;
  for (uint32_t round = 0; round < 12; ++round) {
    client.releaseAll();
    const OXValue value =
        OXValue::array({OXValue::binary(bytes(kPiece, 10 + round).data(), kPiece)});
    frames += throughArea(value, *area, client, decoded);
    EXPECT_EQ(decoded, value) << round;
  }
  EXPECT_GT(frames, 0u);
  EXPECT_EQ(kept, OXValue::binary(second.data(), kPiece));
  EXPECT_EQ(keptCopy, kept);
  EXPECT_EQ(copy[1], OXValue::binary(first.data(), kPiece));
  kept = OXValue();  // gives its room back

  // A ring too full lends nothing: that result is made on the heap and travels as a frame.
  client.releaseAll();
  OXValue full = OXValue::array({OXValue(), OXValue()});
  full[0] = replyOf(bytes(3 * kPiece, 4));
  full[1] = replyOf(bytes(2 * kPiece, 5));
  EXPECT_TRUE(lent(full[0]));
  EXPECT_FALSE(lent(full[1]));
  EXPECT_EQ(throughArea(full, *area, client, decoded), 1u);
  EXPECT_EQ(decoded, full);

  // A room given back unplaced (a result dropped or overwritten, an error instead) leaves the
  // whole ring to the next reply; moving a result keeps its room, assigning a copy leaves it.
  client.releaseAll();
  OXValue moved = replyOf(bytes(3 * kPiece, 6));
  OXValue dropped = std::move(moved);
  EXPECT_TRUE(lent(dropped));
  dropped = copy[1];
  EXPECT_FALSE(lent(dropped));
  const OXValue whole = OXValue::array({OXValue::binary(bytes(4 * kPiece, 7).data(), 4 * kPiece)});
  EXPECT_EQ(throughArea(whole, *area, client, decoded), 0u);
  EXPECT_EQ(decoded, whole);

  // The session may end while its replies are on the way: the area lives until every room, placed
  // or not, is given back, and no longer.
  client.releaseAll();
  const std::vector<unsigned char> last = bytes(kPiece, 8);
  OXValue late = replyOf(last);
  EXPECT_TRUE(lent(late));
  const std::weak_ptr<net::SharedArea> watch = area;
  scope.reset();
  area.reset();
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(late, OXValue::binary(last.data(), kPiece));
  late = OXValue();
  EXPECT_FALSE(watch.expired());  // the placed results still hold their rooms
  image = OXValue();
  full = OXValue();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(areas.heldBytes(), 0u);
}

// The calls of one session are served at once, and their replies overtake one another: a room
// handed out again because the client released past it while its call was still running, or two
// calls given one room, would mix their pixels; the ring's bookkeeping must hold under every
// order of lending, placing and giving back (and TSan sees the copies into the rooms).
TEST(SharedArea, CallsServedAtOnceNeverShareARoom) {
  constexpr std::size_t kPiece = net::kDefaultPlaceThreshold;
  constexpr uint32_t kThreads = 4;
  net::SharedAreas areas(net::kAreaHeaderBytes + 6 * kPiece, SIZE_MAX);
  areas.start();
  std::shared_ptr<net::SharedArea> area;
  net::AreaClient client(areas.offer("127.0.0.1", area));
  std::mutex replyMutex;  // a reply is placed, read and released before the next one
  std::atomic<int> wrong{0};
  std::atomic<int> lentCount{0};
  std::vector<std::thread> calls;
  for (uint32_t t = 0; t < kThreads; ++t) {
    calls.emplace_back([&, t] {
      OX::OXReplyArenaScope scope(area);
      for (uint32_t call = 0; call < 60; ++call) {
        const std::vector<unsigned char> pixels =
            vitest::randomBytes(kPiece + t * 4096, call * kThreads + t);
        OXValue result = OXValue::array({OXValue()});
        result[0] = replyOf(pixels);
        lentCount += lent(result[0]) ? 1 : 0;
        { const OXValue refused = replyOf(pixels); }  // a call that ends in an error
        std::this_thread::yield();
        std::lock_guard<std::mutex> guard(replyMutex);
        OXValue decoded;
        throughArea(result, *area, client, decoded);
        if (decoded != OXValue::array({OXValue::binary(pixels.data(), int(pixels.size()))}))
          ++wrong;
        client.releaseAll();
      }
    });
  }
  for (std::thread& call : calls) call.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GT(lentCount.load(), 0);
}

// A client that must have an area would otherwise send its hello to a host on another machine
// and learn only there that it gets none.
TEST(SharedArea, RequiringItOfAnotherMachineFailsBeforeConnecting) {
  OX::ConnectOptions options;
  options.fSharedMemory = SharedMemory::kRequire;
  EXPECT_EQ(vitest::raised([&] {
              OXProxy::connect("tcp://192.0.2.1:7761", "OXMemory", options);
            }).getDescription(),
            "shared memory needs a broker host on this machine, not tcp://192.0.2.1:7761");
}

}  // namespace

namespace {

// A Unix socket connected to an abstract address ("@name") that has shown pToken: the door's
// answer in pAnswer ('1' let in, '0' refused, 0 closed without one) unless pToken is empty.
int knock(const std::string& pAddress, const std::string& pToken, char& pAnswer) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, pAddress.data() + 1, pAddress.size() - 1);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + pAddress.size())),
            0);
  const timeval timeout{10 * vitest::kTimeScale, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  pAnswer = 0;
  if (!pToken.empty()) {
    EXPECT_EQ(::send(fd, pToken.data(), pToken.size(), MSG_NOSIGNAL), ssize_t(pToken.size()));
    (void)!recv(fd, &pAnswer, 1, 0);
  }
  return fd;
}

// Whether the host closes pFd within the receive timeout (it reads an end of file).
bool closedByHost(int pFd) {
  char byte = 0;
  const bool closed = recv(pFd, &byte, 1, 0) == 0;
  close(pFd);
  return closed;
}

std::size_t descriptors(pid_t pPid) {
  const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pPid) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(fds), end(fds)));
}

}  // namespace

// A session's Unix socket is a way into the host for any process of its user: it must take only
// the token of a live area, once; refuse what ZeroMQ refuses, in the same words; drop a client
// that stops in the middle of a message or never shows a token, at its deadline; close when the
// session ends, leaving no descriptor behind; and never hold up the host's stop.
TEST(UnixSocket, TakesOneTokenOnceRefusesAsZeroMQAndDropsSilentClients) {
  BrokerProcess broker({"--max-frames", "4", "--heartbeat-timeout", "400"});
  RawClient raw(broker.url());
  const auto hello = [&](int pId, OXValue::Array pAsks) {
    OXValue::Array operands = {"raw", OXValue()};
    operands.insert(operands.end(), pAsks.begin(), pAsks.end());
    raw.send(pId, "hello", operands);
    return raw.receive()[3];
  };
  EXPECT_EQ(hello(1, {false, true}).getSize(), 2);  // no area, so no door either
  const std::size_t before = descriptors(broker.pid());
  const OXValue reply = hello(2, {true, true});
  ASSERT_EQ(reply.getSize(), 4);
  const std::string door = reply[3][0].asString();
  const std::string token(reinterpret_cast<const char*>(reply[2][1].GetBinary()),
                          net::kAreaTokenBytes);
  net::AreaClient area(reply[2]);
  char answer = 0;
  close(knock(door, std::string(net::kAreaTokenBytes, 'x'), answer));
  EXPECT_EQ(answer, '0');  // a guessed token

  {
    net::CallsClient calls(door, token, 2000);
    EXPECT_NE(vitest::raised([&] { net::CallsClient again(door, token, 2000); })
                  .getDescription()
                  .find("the calls door refused"),
              std::string::npos);
    const auto exchange = [&](const OXValue& pMessage, std::vector<std::string> pExtra = {}) {
      OX::wire::Encoded encoded;
      OX::wire::encode(pMessage, encoded);
      std::vector<OXValue::Binary> extra;
      for (const std::string& frame : pExtra)
        extra.emplace_back(reinterpret_cast<const unsigned char*>(frame.data()),
                           reinterpret_cast<const unsigned char*>(frame.data()) + frame.size());
      for (const OXValue::Binary& frame : extra) encoded.fFrames.push_back(&frame);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      EXPECT_EQ(calls.send(encoded, deadline), net::CallsClient::Result::kDone);
      std::vector<OX::wire::FrameView> frames;
      bool started = false;
      EXPECT_EQ(calls.receive(frames, deadline, started), net::CallsClient::Result::kDone);
      return OX::wire::decode(frames, SIZE_MAX, OX::wire::DecodeBudget::unlimited(), &area,
                              nullptr);
    };
    EXPECT_EQ(exchange(OXValue::array({1, 3, "ping"}), {"a", "b", "c", "d"})[3][2],
              OXValue("message too large: more than 4 frames"));
    EXPECT_EQ(exchange(OXValue::array({1, 4, "dance"}))[3][2],
              OXValue("unknown operation \"dance\""));
    EXPECT_EQ(exchange(OXValue::array({1, 5, "modules"}))[2], OXValue("ok"));
    // The session's end closes its connection, and the host keeps no descriptor of it.
    raw.send(6, "bye");
    EXPECT_EQ(raw.receive()[2], OXValue("ok"));
    std::vector<OX::wire::FrameView> frames;
    bool started = true;
    EXPECT_EQ(
        calls.receive(frames, std::chrono::steady_clock::now() + std::chrono::seconds(10), started),
        net::CallsClient::Result::kClosed);
    EXPECT_FALSE(started);
  }
  for (int i = 0; i < 100 * vitest::kTimeScale && descriptors(broker.pid()) != before; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(descriptors(broker.pid()), before);

  // A visitor that never shows its token, and a client that stops in the middle of a message,
  // are dropped at their deadlines; one that is idle between calls is not.
  const OXValue second = hello(7, {true, true});
  net::AreaClient secondArea(second[2]);
  const std::string secondToken(reinterpret_cast<const char*>(second[2][1].GetBinary()),
                                net::kAreaTokenBytes);
  EXPECT_TRUE(closedByHost(knock(second[3][0].asString(), "", answer)));
  const int half = knock(second[3][0].asString(), secondToken, answer);
  EXPECT_EQ(answer, '1');
  EXPECT_EQ(::send(half, "\x40\0\0\0\0\0\0\0\x10", 9, MSG_NOSIGNAL), 9);
  EXPECT_TRUE(closedByHost(half));
  const OXValue third = hello(8, {true, true});
  const int idle = knock(
      third[3][0].asString(),
      std::string(reinterpret_cast<const char*>(third[2][1].GetBinary()), net::kAreaTokenBytes),
      answer);
  EXPECT_EQ(answer, '1');
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  char byte = 0;
  EXPECT_EQ(recv(idle, &byte, 1, MSG_DONTWAIT), -1);  // still open
  // The host's stop does not wait for it.
  const auto start = std::chrono::steady_clock::now();
  const int status = broker.stop({SIGTERM}, std::chrono::seconds(5 * vitest::kTimeScale));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2 * vitest::kTimeScale));
  EXPECT_TRUE(closedByHost(idle));
}
