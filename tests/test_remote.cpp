// The broker host in its own process, driven through the remote OXProxy and through raw
// ZeroMQ messages: results, errors and introspection arrive as they would in-process, every
// refusal is answered under the request's id, and a client carries on across a reconnection.
#include <memory>
#include <string>
#include <vector>

#include "brokerprocess.h"
#include "oxbroker.h"
#include "oxwire.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXProxy;
using OX::OXValue;
using vitest::BrokerProcess;
using vitest::RawClient;

OXValue uniformFrame(int pWidth, int pHeight) {
  std::vector<unsigned char> rgb(static_cast<size_t>(pWidth) * pHeight * 3);
  for (size_t i = 0; i < rgb.size(); i += 3) {
    rgb[i] = 200;
    rgb[i + 1] = 100;
    rgb[i + 2] = 50;
  }
  return OXValue::binary(rgb.data(), static_cast<int>(rgb.size()));
}

TEST(Remote, CallsErrorsAndIntrospectionMatchInProcess) {
  BrokerProcess broker;
  OXProxy proxy("OXVideoDevice", "127.0.0.1", broker.port());
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
TEST(Remote, ClientIntroducesItselfAgainAfterItsConnectionIsMadeAgain) {
  auto broker = std::make_unique<BrokerProcess>();
  const std::string port = std::to_string(broker->port());
  OXProxy proxy("OXMemory", "127.0.0.1", broker->port());
  proxy.genericCall("insertData", OXValue::array({"key", 1}));
  broker.reset();
  broker = std::make_unique<BrokerProcess>(std::vector<std::string>{"--port", port});
  EXPECT_EQ(proxy.genericCall("getData", OXValue::array({"key"})), OXValue());  // a new memory
  proxy.genericCall("insertData", OXValue::array({"key", 2}));
  EXPECT_EQ(proxy.genericCall("getData", OXValue::array({"key"})), OXValue(2));
}

}  // namespace
