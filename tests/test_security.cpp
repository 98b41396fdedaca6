// Who gets into the broker host and what its remote callers may touch: CURVE keys judged by the
// ZAP handler, the data directory of the file policy, publications for the broker's process
// only, the broker's events, and the bounds of the services. Each test runs a real host on
// loopback in this process, so that its log can be captured.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <fstream>
#include <string>
#include <vector>

#include "brokerprocess.h"
#include "filecamsupport.h"
#include "oxbrokerhost.h"
#include "oxconnectoptions.h"
#include "oxfilepolicy.h"
#include "oxkeys.h"
#include "oxproxies.h"
#include "oxservices.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

namespace fs = boost::filesystem;
using OX::OXBroker;
using OX::OXProxy;
using OX::OXValue;
using vitest::RawClient;

// A host on a free loopback port for pBroker, stopped at the end.
struct Host {
  explicit Host(boost::shared_ptr<OXBroker> pBroker, OX::OXBrokerHost::Options pOptions = {})
      : fHost(pBroker, [&] {
          pOptions.fPort = 0;
          return pOptions;
        }()) {
    fHost.start();
  }
  boost::shared_ptr<OXProxy> connect(const std::string& pModule,
                                     const OX::ConnectOptions& pOptions = {}) {
    return OXProxy::connect(fHost.getUrl(), pModule, pOptions);
  }
  OX::OXBrokerHost fHost;
};

// The description of the OXError that pCall raises.
template <class F>
std::string refusal(F pCall) {
  return vitest::raised(pCall).getDescription();
}

// Key pairs as oxkeygen writes them: the broker's and a stranger's in own/, an allowed client's
// in allowed/.
struct Keys {
  Keys() {
    for (const char* name : {"broker", "stranger"}) {
      OX::writeCurveKeyPair(fDir.file("own"), name, OX::makeCurveKeyPair());
    }
    OX::writeCurveKeyPair(fDir.file("allowed"), "friend", OX::makeCurveKeyPair());
  }
  std::string file(const std::string& pName, const char* pExtension) const {
    return fDir.file(std::string(pName == "friend" ? "allowed/" : "own/") + pName + pExtension);
  }
  OX::ConnectOptions client(const std::string& pServer, const std::string& pClient) const {
    return {file(pServer, ".pub"), file(pClient, ".key")};
  }
  vitest::TempDir fDir;
};

// A client without a key, with a key not allowed, or with the wrong broker key must get no answer
// to anything (the host logs one refusal per connection, not one per request); a key file made
// readable by others would give the broker's identity away.
TEST(Security, OnlyAllowedKeysGetAnswersAndEachRefusedConnectionIsLoggedOnce) {
  Keys keys;
  struct stat secret {};
  ASSERT_EQ(stat(keys.file("broker", ".key").c_str(), &secret), 0);
  EXPECT_EQ(secret.st_mode & 0777, 0600u);
  EXPECT_THROW(OX::writeCurveKeyPair(keys.fDir.file("own"), "broker", OX::makeCurveKeyPair()),
               OX::OXError);

  OX::OXBrokerHost::Options options;
  options.fCurveSecretKey = OX::readCurveKey(keys.file("broker", ".key"));
  options.fAllowedClientKeys = OX::readAllowedKeys(keys.fDir.file("allowed"));
  vitest::LogCapture log;
  Host host(OXBroker::createBroker("secure", {}), options);
  const std::string stranger = OX::readCurveKey(keys.file("stranger", ".pub"));
  // Which side of a keyless connection notices first varies, and with it the record's words.
  struct Case {
    OX::ConnectOptions keys;
    std::string logged;  // empty: any refusal
  };
  const std::vector<Case> cases = {
      {{}, ""},
      {keys.client("broker", "stranger"), "refused a connection from 127.0.0.1: its CURVE key " +
                                              stranger + " is not among the allowed keys"},
      {keys.client("stranger", "friend"),
       "refused a connection: the CURVE handshake failed (the client's server key is not this "
       "broker's)"},
  };
  for (const Case& c : cases) {
    log.clear();
    {
      // One connection (no new attempt within the test), three requests.
      RawClient raw(host.fHost.getUrl(), false, [&](zmq::socket_t& pSocket) {
        pSocket.set(zmq::sockopt::reconnect_ivl, 60000);
        if (c.keys.fServerKey.empty()) return;
        pSocket.set(zmq::sockopt::curve_serverkey, OX::readCurveKey(c.keys.fServerKey));
        const std::string secret = OX::readCurveKey(c.keys.fClientKey);
        pSocket.set(zmq::sockopt::curve_secretkey, secret);
        pSocket.set(zmq::sockopt::curve_publickey, OX::curvePublicKey(secret));
      });
      raw.send(1, "hello", {"raw", OXValue()});
      raw.send(2, "call", {"OXMemory", "getData", OXValue::array({"k"})});
      raw.send(3, "ping");
      EXPECT_FALSE(raw.receive(500 * vitest::kTimeScale).isValid()) << c.logged;
    }
    const std::vector<ki::log::Record> records = log.records();
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const ki::log::Record& pRecord) {
                              return pRecord.message.rfind("refused a connection", 0) == 0;
                            }),
              1)
        << c.logged;
    if (!c.logged.empty()) {
      EXPECT_EQ(log.count(c.logged), 1);
    }
  }

  // The C++ proxy: refused the same way; an allowed key gets in.
  OXProxy::setRemoteTimeout(300 * vitest::kTimeScale);
  EXPECT_EQ(refusal([&] {
              host.connect("OXMemory", keys.client("broker", "stranger"));
            }).rfind("no reply from", 0),
            0u);
  OXProxy::setRemoteTimeout(30000);
  boost::shared_ptr<OXProxy> allowed = host.connect("OXMemory", keys.client("broker", "friend"));
  allowed->genericCall("insertData", OXValue::array({"k", 7}));
  EXPECT_EQ(allowed->genericCall("getData", OXValue::array({"k"})), OXValue(7));
  EXPECT_EQ(refusal([&] {
              host.connect("OXMemory", {keys.file("broker", ".pub"), ""});
            }),
            "CURVE needs both keys: the broker's public key and this client's secret key");
}

// A remote caller could otherwise write any file the broker's user may write (through "..", an
// absolute path or a symbolic link), overwrite one, learn whether a path exists, or block a
// worker for ever on a FIFO. A plain name must still record and replay.
TEST(Security, RemoteFilesStayInTheDataDirectory) {
  vitest::TempDir dir;
  const fs::path data = fs::path(dir.path()) / "data";  // made by the first file of a client
  const fs::path outside = fs::path(dir.path()) / "outside";
  fs::create_directories(outside);
  dir.write("outside/victim.oxv", "keep");
  const auto policy = boost::make_shared<OX::OXFilePolicy>(data.string());

  boost::shared_ptr<OXBroker> simulatorBroker;
  auto simulator = vitest::makeSimulatorCam(&simulatorBroker);
  simulatorBroker->setFilePolicy(policy);
  Host simulatorHost(simulatorBroker);
  boost::shared_ptr<OXProxy> camera = simulatorHost.connect("OXVideoDevice");
  camera->genericCall("subscribeCamera", OXValue::array({"rec", 0, OX::kQQVGA, OX::kYUV422, 30}));
  camera->genericCall("putImage", OXValue::array({0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 1)}));
  const auto record = [&](const std::string& pPath) {
    return camera->genericCall("recordVideo", OXValue::array({"rec", pPath, 3, 1}));
  };
  EXPECT_EQ(record("clip.oxv"), OXValue(true));
  for (int i = 0; i < 4; ++i)
    camera->genericCall("getDirectRawImageRemote", OXValue::array({"rec"}));

  boost::shared_ptr<OXBroker> fileBroker;
  auto fileCam = vitest::makeFileCam(&fileBroker);
  fileBroker->setFilePolicy(policy);
  Host fileHost(fileBroker);
  boost::shared_ptr<OXProxy> replay = fileHost.connect("OXVideoDevice");
  const auto setVideo = [&](const std::string& pPath) {
    replay->genericCall("setVideo", OXValue::array({pPath, OXValue(), false, 0, 0}));
  };
  setVideo("clip.oxv");
  replay->genericCall("subscribeCamera", OXValue::array({"play", 0, OX::kQQVGA, OX::kYUV422, 5}));
  EXPECT_EQ(replay->genericCall("getImageRemote", OXValue::array({"play"})).getSize(), 12);

  fs::create_symlink(outside, data / "out");
  fs::create_symlink(outside / "victim.oxv", data / "link.oxv");
  ASSERT_EQ(mkfifo((data / "pipe.oxv").c_str(), 0644), 0);
  const std::string beyond = " is outside the data directory";
  struct Case {
    std::string path;
    std::string recordRefusal;
    std::string setVideoRefusal;  // empty: accepted
  };
  const std::vector<Case> cases = {
      {(outside / "new.oxv").string(), beyond, beyond},
      {"../outside/new.oxv", beyond, beyond},
      {"out/new.oxv", beyond, beyond},
      {"link.oxv", beyond, beyond},
      {"pipe.oxv", " is not a regular file", " is not a regular file"},
      {"clip.oxv", " names an existing file, which is never overwritten", ""},
  };
  for (const Case& c : cases) {
    const std::string quoted = "the path \"" + c.path + "\"";
    EXPECT_EQ(refusal([&] { record(c.path); }), quoted + c.recordRefusal);
    if (!c.setVideoRefusal.empty()) {
      EXPECT_EQ(refusal([&] { setVideo(c.path); }), quoted + c.setVideoRefusal);
    }
  }
  // Nothing changed outside, the recording is whole, and the replay goes on.
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
  std::ifstream victim((outside / "victim.oxv").string());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(victim), {}), "keep");
  OX::OXVideo video;
  ASSERT_TRUE(video.readVideo((data / "clip.oxv").string()));
  EXPECT_EQ(video.getNumberOfImages(), 3);
  EXPECT_EQ(replay->genericCall("getImageRemote", OXValue::array({"play"})).getSize(), 12);

  // In the broker's process paths are as they always were.
  EXPECT_TRUE(simulator->recordVideo("rec", (outside / "local.oxv").string(), 1, 1));
  simulator->stopVideo("rec");
}

// A remote getImageLocal left the image locked and answered nothing usable; a remote caller
// raising "ClientDisconnected" for someone else unsubscribed that client; a remote client could
// fill the broker's memory through OXMemory, or read a file through a link among the preferences.
TEST(Security, RemoteCallersKeepToWhatIsTheirs) {
  const auto gvm = OXValue::array({"gvm"});
  boost::shared_ptr<OXBroker> simulatorBroker;
  auto simulator = vitest::makeSimulatorCam(&simulatorBroker);
  Host simulatorHost(simulatorBroker);
  boost::shared_ptr<OXProxy> camera = simulatorHost.connect("OXVideoDevice");
  camera->genericCall("subscribeCamera", OXValue::array({"gvm", 0, OX::kQQVGA, OX::kRGB, 30}));
  camera->genericCall("putImage", OXValue::array({0, 160, 120, vitest::rgbFrame(OX::kQQVGA, 2)}));
  for (const char* method : {"getImageLocal", "getDirectRawImageLocal", "releaseDirectRawImage"}) {
    EXPECT_EQ(refusal([&] { camera->genericCall(method, gvm); }),
              std::string(method) +
                  " is for the broker's process only: it deals in pointers valid there, not in "
                  "another process");
  }
  EXPECT_EQ(camera->genericCall("getImageRemote", gvm).getSize(), 12);

  const std::string events = "events are the broker's own: a remote caller may not use ";
  const std::string allow = " (a broker started with --allow-remote-events lets them)";
  EXPECT_EQ(refusal([&] {
              camera->genericCall("onClientDisconnected",
                                  OXValue::array({"ClientDisconnected", "gvm", "OXVideoDevice"}));
            }),
            events + "OXVideoDevice.onClientDisconnected" + allow);
  EXPECT_EQ(camera->genericCall("getImageRemote", gvm).getSize(), 12);  // still subscribed

  vitest::TempDir prefs;
  fs::create_directories(prefs.file("own"));
  prefs.write("own/Plain.xml", "<ModulePreference/>");
  prefs.write("Elsewhere.xml", "<ModulePreference/>");
  fs::create_symlink(prefs.file("Elsewhere.xml"), prefs.file("own/Link.xml"));
  boost::shared_ptr<OXBroker> broker = OXBroker::createBroker("services", {prefs.file("own")});
  Host host(broker);
  boost::shared_ptr<OXProxy> memory = host.connect("OXMemory");
  EXPECT_EQ(refusal([&] {
              memory->genericCall("raiseEvent", OXValue::array({"ClientDisconnected", "x"}));
            }),
            events + "OXMemory.raiseEvent" + allow);

  boost::shared_ptr<OXProxy> preferences = host.connect("OXPreferences");
  const auto read = [&](const char* pName) {
    return preferences->genericCall("readPrefFile", OXValue::array({pName, true}));
  };
  EXPECT_EQ(read("Plain").getSize(), 0);
  EXPECT_NE(refusal([&] { read("Link"); }).find("leads outside its directory"), std::string::npos);
  EXPECT_EQ(refusal([&] { read("..Plain"); }), "Invalid preference file name \"..Plain\"");
  EXPECT_EQ(OX::OXPreferencesProxy(broker).readPrefFile("Link", true).getSize(), 0);

  auto service = boost::dynamic_pointer_cast<OX::OXMemory>(broker->getModuleCoreByName("OXMemory"));
  service->setRemoteDataLimit(64 << 10);
  const auto store = [&](const char* pKey, const OXValue& pValue) {
    memory->genericCall("insertData", OXValue::array({pKey, pValue}));
  };
  const std::vector<unsigned char> bytes(40 << 10);
  const OXValue block = OXValue::binary(bytes.data(), static_cast<int>(bytes.size()));
  store("a", block);
  EXPECT_EQ(refusal([&] { store("b", block); }),
            "the stored data would take more than 65536 bytes, the most that callers in other "
            "processes may fill (an invalid value removes a key)");
  store("a", OXValue());
  store("b", block);
  OX::OXMemoryProxy(broker).insertData("local", block);  // the broker's own modules are not bound
}

}  // namespace
