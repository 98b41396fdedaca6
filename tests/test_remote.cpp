// The broker host in its own process, driven through the remote OXProxy and through raw
// ZeroMQ messages: results, errors and introspection arrive as they would in-process, calls run
// concurrently, and nothing a client sends brings the host down.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "oxbroker.h"
#include "oxwire.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using OX::OXProxy;
using OX::OXValue;

// oxbroker started on a free loopback port; stopped with SIGTERM, which must end it cleanly.
class BrokerProcess {
 public:
  explicit BrokerProcess(std::vector<std::string> pOptions = {}) {
    std::vector<std::string> args = {std::string(VI_PROGRAM_DIR) + "/oxbroker", "--port", "0",
                                     "--log-level", "-1"};
    args.insert(args.end(), pOptions.begin(), pOptions.end());
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    EXPECT_EQ(pipe(pipeFds), 0);
    const pid_t parent = getpid();
    fPid = fork();
    if (fPid == 0) {
      // The broker must not outlive a test that dies: it would keep the test's output open.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      dup2(pipeFds[1], 1);
      close(pipeFds[0]);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(pipeFds[1]);
    fOutput = pipeFds[0];
    // The first line says where it listens.
    std::string line;
    char c;
    pollfd ready{fOutput, POLLIN, 0};
    while (line.find('\n') == std::string::npos && poll(&ready, 1, 10000) > 0 &&
           read(fOutput, &c, 1) == 1) {
      line += c;
    }
    const std::string prefix = "oxbroker: listening on tcp://127.0.0.1:";
    EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
    fPort = std::atoi(line.c_str() + prefix.size());
  }
  ~BrokerProcess() {
    kill(fPid, SIGTERM);
    int status = 0;
    waitpid(fPid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    close(fOutput);
  }
  int port() const { return fPort; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(fPort); }

 private:
  pid_t fPid = -1;
  int fOutput = -1;
  int fPort = 0;
};

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

TEST(Remote, SlowCallsHoldOneWorkerOnly) {
  BrokerProcess broker;
  OXProxy setup("OXVideoDevice", "127.0.0.1", broker.port());
  // Camera 1 never gets a frame: asking for one waits for the first frame until it gives up.
  setup.genericCall("subscribeCamera", OXValue::array({"slow", 1, 0, 11, 30}));

  std::atomic<bool> slowDone{false};
  std::thread slow([&] {
    OXProxy proxy("OXVideoDevice", "127.0.0.1", broker.port());
    proxy.genericCall("getImageRemote", OXValue::array({"slow"}));
    slowDone = true;
  });
  // Meanwhile other clients are served by other workers.
  std::vector<std::thread> fast;
  std::atomic<int> served{0};
  for (int t = 0; t < 4; ++t) {
    fast.emplace_back([&] {
      OXProxy proxy("OXMemory", "127.0.0.1", broker.port());
      for (int i = 0; i < 5; ++i) {
        proxy.genericCall("insertData", OXValue::array({"key", i}));
        if (proxy.genericCall("getData", OXValue::array({"key"})).isInt()) ++served;
      }
    });
  }
  for (std::thread& thread : fast) thread.join();
  EXPECT_EQ(served, 20);
  EXPECT_FALSE(slowDone) << "the fast calls waited for the slow one";
  slow.join();
}

TEST(Remote, BadInputGetsAnErrorReplyAndHarmsNobody) {
  BrokerProcess broker({"--max-message", "100000"});
  zmq::context_t context;
  zmq::socket_t raw(context, zmq::socket_type::dealer);
  raw.set(zmq::sockopt::linger, 0);
  raw.set(zmq::sockopt::rcvtimeo, 10000);
  raw.connect(broker.url());
  auto answer = [&](std::vector<std::string> pFrames) {
    for (size_t i = 0; i < pFrames.size(); ++i) {
      raw.send(zmq::buffer(pFrames[i]),
               i + 1 < pFrames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
    std::vector<zmq::message_t> reply;
    do {
      reply.emplace_back();
      EXPECT_TRUE(raw.recv(reply.back()).has_value());
    } while (reply.back().more());
    const OXValue value = OX::wire::decode({{reply[0].data(), reply[0].size()}});
    EXPECT_EQ(value[2], OXValue("error"));
    return value[3][2].asString();
  };
  EXPECT_EQ(answer({"\x92\x01"}), "malformed message: truncated header");
  EXPECT_EQ(answer({std::string(200000, 'x')}), "message too large: more than 100000 bytes");
  OX::wire::Encoded encoded;
  OX::wire::encode(OXValue::array({1, 7, "hello"}), encoded);
  EXPECT_EQ(answer({encoded.fHeader}), "operand 0 of hello must be a string");
  OX::wire::encode(OXValue::array({2, 7, "ping"}), encoded);
  EXPECT_EQ(answer({encoded.fHeader}), "unsupported protocol version 2 (this broker speaks 1)");
  OX::wire::encode(OXValue::array({1, 7, "dance"}), encoded);
  EXPECT_EQ(answer({encoded.fHeader}), "unknown operation \"dance\"");
  OX::wire::encode(OXValue::array({1, 7, "call", "OXVideoDevice", "getFrameRate", 5}), encoded);
  EXPECT_EQ(answer({encoded.fHeader}), "the arguments of getFrameRate must be an array");

  // A client that never reads its replies, and one that vanishes mid-message, stall nobody.
  {
    zmq::socket_t deaf(context, zmq::socket_type::dealer);
    deaf.set(zmq::sockopt::linger, 0);
    deaf.connect(broker.url());
    OX::wire::encode(OXValue::array({1, 1, "ping"}), encoded);
    for (int i = 0; i < 200; ++i)
      deaf.send(zmq::buffer(encoded.fHeader), zmq::send_flags::dontwait);
    deaf.send(zmq::str_buffer("partial"), zmq::send_flags::sndmore);
  }
  OXProxy proxy("OXVideoDevice", "127.0.0.1", broker.port());
  EXPECT_EQ(proxy.genericCall("getActiveCamera", OXValue()), OXValue(0));
}

}  // namespace
