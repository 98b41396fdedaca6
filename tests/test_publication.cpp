// The device's published interface: the method table as the broker shows it, calls through
// OXProxy::genericCall alone, and the deprecated device-wide setActiveCamera.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "fakecamera.h"
#include "oxbroker.h"
#include "oxtypes.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXValue;
using vitest::Hook;

constexpr const char* kCategory = "vision.oxvisionvideoinput";
constexpr const char* kDeprecation =
    "setActiveCamera(pCamID) is deprecated, use setActiveCamera(subscriber_name, pCamID) in order "
    "to change camera only for the specified subscriber.\n";

// Line ends and tabs of the texts are written as \n and \t, so that a publication is one line.
std::string escape(const std::string& pText) {
  std::string out;
  for (char c : pText) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out += c;
    }
  }
  return out;
}

// One record of getMethodHelp as a line of the listing (format told in the data file).
std::string listingLine(const OXValue& pRecord) {
  std::string line = pRecord[0].asString() + "\t" + pRecord[1].asString() +
                     "\tflags=" + std::to_string(pRecord[3].asInt()) + "\t" +
                     pRecord[7].asString() + "\tdescription=" + escape(pRecord[2].asString());
  const OXValue& params = pRecord[4];
  for (int k = 0; k < params.getSize(); ++k) {
    line += "\tparam=" + params[k][0].asString() + "|" + params[k][2].asString() + "|" +
            escape(params[k][1].asString());
  }
  const OXValue& result = pRecord[5];
  line += "\treturn=" + result[0].asString() + "|" + result[2].asString() + "|" +
          escape(result[1].asString());
  const OXValue& examples = pRecord[6];
  for (int k = 0; k < examples.getSize(); ++k) {
    line += "\texample=" + examples[k][0].asString() + "|" + escape(examples[k][1].asString());
  }
  return line;
}

std::vector<std::string> expectedListing() {
  std::ifstream in(std::string(VI_SOURCE_DIR) + "/tests/data/method_table.txt");
  EXPECT_TRUE(in.good()) << "tests/data/method_table.txt not found";
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    lines.push_back(line);
  }
  return lines;
}

OXValue args(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

std::string nameOf(const std::string& pLine) {
  return pLine.substr(0, pLine.find('\t'));
}

}  // namespace

// Guards against a publication missing, moved, doubled, bound the wrong way or given a text that
// differs by one character from what introspection must show.
TEST(Publication, MethodTableMatchesTheListing) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeSimulatorCam(&broker);
  auto proxy = broker->getProxy(cam->getName());

  // The whole table in order, each record read back through the proxy's getMethodHelp.
  std::vector<std::string> actual;
  std::map<std::string, int> seen;
  for (const OX::OXMethodInfo& info : cam->getMethodTable()) {
    const OXValue help = proxy->getMethodHelp(info.name);
    const int index = seen[info.name]++;
    ASSERT_LT(index, help.getSize()) << info.name;
    actual.push_back(listingLine(help[index]));
  }
  if (const char* out = std::getenv("VI_METHOD_TABLE_OUT")) {
    std::ofstream file(out);
    for (const std::string& line : actual) file << line << "\n";
  }

  const std::vector<std::string> expected = expectedListing();
  EXPECT_EQ(expected.size(), 52u + 32u);
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(actual[i], expected[i]) << "publication " << i + 1;
  }
  for (const auto& entry : seen) {
    EXPECT_EQ(proxy->getMethodHelp(entry.first).getSize(), entry.second) << entry.first;
  }

  // getMethodList: each name once, in the order of its first publication.
  std::vector<std::string> names;
  for (const std::string& line : expected) {
    const std::string name = nameOf(line);
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  EXPECT_EQ(proxy->getMethodList(), names);
}

// Guards against the broker reaching the wrong overload or arity: by camera index the camera's
// values, by name the subscriber's; setParam/getParam with a camera or on the active one; and a
// wrongly typed argument entering the operation instead of being refused by the conversion.
TEST(Publication, GenericCallPicksTheOverload) {
  vitest::TestClock clock;
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeSimulatorCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  const std::string slow =
      proxy->genericCall("subscribeCamera", args({"slow", 0, OX::kQQVGA, OX::kRGB, 5})).asString();
  proxy->genericCall("subscribeCamera", args({"fast", 0, OX::kVGA, OX::kYUV422, 15}));
  const std::vector<std::tuple<const char*, int, int>> overloads = {
      {"getFrameRate", 5, cam->getFrameRate(0)},
      {"getResolution", OX::kQQVGA, cam->getResolution(0)},
      {"getColorSpace", OX::kRGB, cam->getColorSpace(0)}};
  for (const auto& [name, bySubscriber, byCamera] : overloads) {
    EXPECT_NE(bySubscriber, byCamera) << name;
    EXPECT_EQ(proxy->genericCall(name, args({slow})).asInt(), bySubscriber) << name;
    EXPECT_EQ(proxy->genericCall(name, args({0})).asInt(), byCamera) << name;
  }
  // The deprecated names split the same overloads.
  EXPECT_EQ(proxy->genericCall("getGVMResolution", args({slow})).asInt(), OX::kQQVGA);
  EXPECT_EQ(proxy->genericCall("getVIMResolution", OXValue()).asInt(), cam->getResolution());

  const int frameRate = OX::kCameraFrameRateID;
  EXPECT_FALSE(proxy->genericCall("setParam", args({frameRate, 10, 1})).isValid());
  EXPECT_FALSE(proxy->genericCall("setParam", args({frameRate, 30})).isValid());
  EXPECT_EQ(Hook::camera(*cam, 1).fFrameRate, 10);
  EXPECT_EQ(Hook::camera(*cam, 0).fFrameRate, 30);
  EXPECT_EQ(proxy->genericCall("getParam", args({frameRate, 1})).asInt(), 10);
  EXPECT_EQ(proxy->genericCall("getParam", args({frameRate})).asInt(), 30);

  const std::vector<std::pair<const char*, OXValue>> mistyped = {
      {"getParam", args({"x"})},
      {"getParam", args({frameRate, "one"})},
      {"setParam", args({frameRate, "ten", 1})}};
  for (const auto& call : mistyped) {
    EXPECT_EQ(vitest::raised([&] { proxy->genericCall(call.first, call.second); }).getDescription(),
              "Parameter type is string instead of int")
        << call.first;
  }
  EXPECT_EQ(Hook::camera(*cam, 1).fFrameRate, 10);  // the operation was not entered
}

// Guards against a client that knows only the broker being unable to run a whole session:
// subscribe, push, images in every published colour space, settings, parameters, geometry.
TEST(Publication, ClientSessionThroughGenericCallAlone) {
  vitest::TestClock clock;
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeSimulatorCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  const std::string id =
      proxy->genericCall("subscribeCamera", args({"client", 0, OX::kQVGA, OX::kYUV422, 15}))
          .asString();
  int seed = 1;
  const auto push = [&] {
    clock.advance(40000);
    ASSERT_TRUE(
        proxy->genericCall("putImage", args({0, 320, 240, vitest::rgbFrame(OX::kQVGA, seed++)}))
            .asBool());
  };

  const std::map<int, int> layers = {{OX::kYuv, 1}, {OX::kYUV422, 2}, {OX::kYUV, 3},
                                     {OX::kRGB, 3}, {OX::kHSY, 3},    {OX::kBGR, 3}};
  for (const auto& space : layers) {
    EXPECT_TRUE(proxy->genericCall("setColorSpace", args({id, space.first})).asBool());
    push();
    const OXValue image = proxy->genericCall("getImageRemote", args({id}));
    ASSERT_TRUE(image.isArray()) << space.first;
    ASSERT_EQ(image.getSize(), 12);
    EXPECT_EQ(image[0].asInt(), 320);
    EXPECT_EQ(image[1].asInt(), 240);
    EXPECT_EQ(image[2].asInt(), space.second);
    EXPECT_EQ(image[3].asInt(), space.first);
    EXPECT_EQ(image[6].getSize(), 320 * 240 * space.second);
    EXPECT_EQ(image[7].asInt(), 0);
  }

  EXPECT_TRUE(proxy->genericCall("setFrameRate", args({id, 30})).asBool());
  EXPECT_EQ(proxy->genericCall("getFrameRate", args({id})).asInt(), 30);
  EXPECT_TRUE(proxy->genericCall("setResolution", args({id, OX::kQQVGA})).asBool());
  EXPECT_EQ(proxy->genericCall("getResolution", args({id})).asInt(), OX::kQQVGA);
  EXPECT_EQ(proxy->genericCall("getCameraParameter", args({id, OX::kCameraFrameRateID})).asInt(),
            cam->getCameraParameter(id, OX::kCameraFrameRateID));
  EXPECT_EQ(proxy->genericCall("getActiveCamera", args({id})).asInt(), 0);

  const std::vector<float> position = {0.25f, 0.75f};
  const OXValue angles =
      proxy->genericCall("getAngularPositionFromImagePosition", args({0, OXValue(position)}));
  EXPECT_EQ(angles, OXValue(cam->getAngularPositionFromImagePosition(0, position)));
  EXPECT_EQ(proxy->genericCall("getAngPosFromImgPos", args({OXValue(position)})), angles);

  vitest::LogCapture capture;  // the refused call below is logged
  EXPECT_FALSE(proxy->genericCall("unsubscribe", args({id})).isValid());
  const OX::OXError error =
      vitest::raised([&] { proxy->genericCall("getImageRemote", args({id})); });
  EXPECT_NE(error.getDescription().find("unknown"), std::string::npos);
}

// Guards against the device-wide setActiveCamera skipping its deprecation record, bypassing the
// driver for a valid index, reaching it for an invalid one, or touching a subscriber's record.
TEST(Publication, DeprecatedSetActiveCamera) {
  boost::shared_ptr<OX::OXBroker> broker;
  auto cam = vitest::makeFakeCam(&broker);
  auto proxy = broker->getProxy(cam->getName());
  vitest::LogCapture capture;
  const std::string own = cam->subscribeCamera("own", 0, OX::kQVGA, OX::kYUV422, 5);
  const std::string follower = cam->subscribe("follower", OX::kQVGA, OX::kYUV422, 5);
  cam->clearSetCalls();

  EXPECT_TRUE(proxy->genericCall("setActiveCamera", args({1})).asBool());
  EXPECT_EQ(cam->setCalls(), (std::vector<vitest::FakeCam::SetCall>{{0, 18, 1, false}}));
  EXPECT_TRUE(capture.has(4, kCategory, kDeprecation));
  EXPECT_EQ(cam->info(own).fActiveCamera, 0);
  EXPECT_EQ(cam->info(follower).fActiveCamera, -1);
  EXPECT_TRUE(cam->setActiveCamera(0));
  EXPECT_EQ(capture.count(kDeprecation), 2);

  cam->clearSetCalls();
  capture.clear();
  for (int index : {2, -1}) {
    const OX::OXError error =
        vitest::raised([&] { proxy->genericCall("setActiveCamera", args({index})); });
    EXPECT_EQ(error.getModuleName(), cam->getName());
    EXPECT_EQ(error.getFunctionName(), "setActiveCamera()");
    EXPECT_EQ(error.getDescription(), "Invalid camera parameter input reference.");
    EXPECT_EQ(error.getFileName(), "oxvisionvideoinput");
  }
  EXPECT_TRUE(cam->setCalls().empty());
  EXPECT_EQ(capture.count(kDeprecation), 2);
  EXPECT_EQ(capture.countLevel(2), 0);  // the refusal itself is not logged
  cam->unsubscribe(own);
  cam->unsubscribe(follower);
}
