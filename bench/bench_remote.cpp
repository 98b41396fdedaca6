// A remote subscriber's round trip: getImageRemote at VGA in kRGB through the broker host, beside
// a plain ZeroMQ request and reply that carries the same number of bytes over the same loopback.
// Both report frames per second; the ratio of their times is the broker's overhead. The device
// converts each new frame once and shares it with requests within the same frame period, so with
// a simulator feeding it at 30 frames per second the loop mostly measures the transport.
// BM_GetImageRemoteVGACurve is the same round trip encrypted with CURVE, beside the plain one as
// its reference: their ratio is the price of encryption.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxconnectoptions.h"
#include "oxkeys.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr size_t kImageBytes = static_cast<size_t>(kWidth) * kHeight * 3;

// Key files of a broker and of its one client, in a directory removed at the end.
struct BenchKeys {
  BenchKeys() {
    char pattern[] = "/tmp/bench-keys-XXXXXX";
    fDirectory = mkdtemp(pattern);
    OX::writeCurveKeyPair(fDirectory, "broker", OX::makeCurveKeyPair());
    OX::writeCurveKeyPair(fDirectory, "client", OX::makeCurveKeyPair());
  }
  ~BenchKeys() { boost::filesystem::remove_all(fDirectory); }
  std::string file(const char* pName) const { return fDirectory + "/" + pName; }
  std::string fDirectory;
};

void getImageRemoteVGA(benchmark::State& pState, bool pCurve) {
  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("bench", {});
  OX::OXModule::createModule<OX::OXVisionSimulatorCam>(broker);
  OX::OXBrokerHost::Options options;
  options.fPort = 0;
  OX::ConnectOptions connection;
  std::unique_ptr<BenchKeys> keys;
  if (pCurve) {
    keys.reset(new BenchKeys);
    options.fCurveSecretKey = OX::readCurveKey(keys->file("broker.key"));
    options.fAllowedClientKeys = {OX::readCurveKey(keys->file("client.pub"))};
    connection = {keys->file("broker.pub"), keys->file("client.key")};
  }
  OX::OXBrokerHost host(broker, options);
  host.start();
  boost::shared_ptr<OX::OXProxy> proxy =
      OX::OXProxy::connect(host.getUrl(), "OXVideoDevice", connection);
  proxy->genericCall("subscribeCamera", OX::OXValue::array({"bench", 0, 2, 11, 30}));
  // A simulator feeds the camera at 30 frames per second meanwhile, as it would in use: the
  // subscriber then shares each converted frame for one period, as the device intends.
  std::atomic<bool> stop{false};
  std::thread simulator([&] {
    OX::OXProxy local(broker, "OXVideoDevice");
    std::vector<unsigned char> rgb(kImageBytes, 90);
    const OX::OXValue frame = OX::OXValue::array(
        {0, kWidth, kHeight, OX::OXValue::binary(rgb.data(), static_cast<int>(rgb.size()))});
    auto next = std::chrono::steady_clock::now();
    while (!stop) {
      local.genericCall("putImage", frame);
      next += std::chrono::milliseconds(33);
      std::this_thread::sleep_until(next);
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const OX::OXValue arguments = OX::OXValue::array({"bench"});
  for (auto _ : pState) {
    OX::OXValue image = proxy->genericCall("getImageRemote", arguments);
    if (image.getSize() != 12 || image[6].getSize() != static_cast<int>(kImageBytes)) {
      pState.SkipWithError("no image");
      break;
    }
    benchmark::DoNotOptimize(image);
  }
  pState.counters["fps"] =
      benchmark::Counter(static_cast<double>(pState.iterations()), benchmark::Counter::kIsRate);
  stop = true;
  simulator.join();
  proxy->genericCall("unsubscribe", arguments);
  proxy.reset();
  host.stop();
  broker->removeAllModules();
}

void BM_GetImageRemoteVGA(benchmark::State& pState) {
  getImageRemoteVGA(pState, false);
}
BENCHMARK(BM_GetImageRemoteVGA)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_GetImageRemoteVGACurve(benchmark::State& pState) {
  getImageRemoteVGA(pState, true);
}
BENCHMARK(BM_GetImageRemoteVGACurve)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_GetImageRemoteVGACurve_Reference(benchmark::State& pState) {
  getImageRemoteVGA(pState, false);
}
BENCHMARK(BM_GetImageRemoteVGACurve_Reference)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The same exchange without a broker: a small request, a reply of the image's size.
void BM_GetImageRemoteVGA_Reference(benchmark::State& pState) {
  zmq::context_t context(1);
  zmq::socket_t server(context, zmq::socket_type::router);
  server.set(zmq::sockopt::linger, 0);
  server.bind("tcp://127.0.0.1:*");
  const std::string url = server.get(zmq::sockopt::last_endpoint);
  std::atomic<bool> stop{false};
  std::thread serving([&] {
    std::vector<unsigned char> payload(kImageBytes, 90);
    std::vector<zmq::pollitem_t> items = {{server.handle(), 0, ZMQ_POLLIN, 0}};
    while (!stop) {
      if (zmq::poll(items, std::chrono::milliseconds(20)) == 0) continue;
      zmq::message_t identity, request;
      (void)server.recv(identity);
      (void)server.recv(request);
      server.send(identity, zmq::send_flags::sndmore);
      server.send(zmq::buffer(payload), zmq::send_flags::none);
    }
  });
  zmq::socket_t client(context, zmq::socket_type::dealer);
  client.set(zmq::sockopt::linger, 0);
  client.connect(url);
  for (auto _ : pState) {
    client.send(zmq::str_buffer("getImageRemote bench"), zmq::send_flags::none);
    zmq::message_t reply;
    (void)client.recv(reply);
    benchmark::DoNotOptimize(reply.data());
  }
  pState.counters["fps"] =
      benchmark::Counter(static_cast<double>(pState.iterations()), benchmark::Counter::kIsRate);
  stop = true;
  serving.join();
}
BENCHMARK(BM_GetImageRemoteVGA_Reference)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
