// A remote subscriber's round trip: getImageRemote through the broker host, beside a plain ZeroMQ
// request and reply that carries the same number of bytes over the same loopback (the
// reference). Formats: VGA kRGB (921,600 bytes) and 4VGA kYUV422 (2,457,600 bytes). Channels: the
// socket, a shared-memory area with the result copied into an OXValue as genericCall gives it,
// and the area read in place (callWithViews), the calls of both over the session's Unix socket;
// then the same two with the calls over ZeroMQ, as before that socket. All report frames per
// second; scripts/bench prints each one's time over the reference's. The device converts each new
// frame once and shares it with requests within the same frame period, so with a simulator feeding
// it at 30 frames per second the loop mostly measures the transport. BM_GetImageRemoteVGACurve is
// the socket channel at VGA encrypted with CURVE, beside the plain one as its reference: their
// ratio is the price of encryption.
//
// `bench_remote --plain-server BYTES` serves the reference's replies on a loopback port instead
// (printing "listening on URL"), for the Python client's benchmark (bench/bench_client.py),
// until its standard input closes.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxconnectoptions.h"
#include "oxkeys.h"
#include "oxremote.h"
#include "oxtypes.h"

namespace {

struct Format {
  int fResolution;
  int fColorSpace;
  int fWidth;
  int fHeight;
  int fLayers;
  std::size_t bytes() const { return static_cast<std::size_t>(fWidth) * fHeight * fLayers; }
};
const Format kFormats[] = {{OX::kVGA, OX::kRGB, 640, 480, 3},
                           {OX::k4VGA, OX::kYUV422, 1280, 960, 2}};
enum Channel {
  kSocket = 0,
  kSharedCopy = 1,
  kSharedViews = 2,
  kSharedCopyOverZeroMQ = 3,
  kSharedViewsOverZeroMQ = 4
};

// Answers every request on pSocket with pBytes bytes, as a minimal server would, until pStop.
void servePlain(zmq::socket_t& pSocket, std::size_t pBytes, const std::atomic<bool>& pStop) {
  std::vector<unsigned char> payload(pBytes, 90);
  std::vector<zmq::pollitem_t> items = {{pSocket.handle(), 0, ZMQ_POLLIN, 0}};
  while (!pStop) {
    if (zmq::poll(items, std::chrono::milliseconds(20)) == 0) continue;
    zmq::message_t identity, request;
    (void)pSocket.recv(identity);
    (void)pSocket.recv(request);
    pSocket.send(identity, zmq::send_flags::sndmore);
    pSocket.send(zmq::buffer(payload), zmq::send_flags::none);
  }
}

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

void getImageRemote(benchmark::State& pState, const Format& format, Channel channel, bool pCurve) {
  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker("bench", {});
  OX::OXModule::createModule<OX::OXVisionSimulatorCam>(broker);
  OX::OXBrokerHost::Options options;
  options.fPort = 0;
  OX::ConnectOptions connect;
  std::unique_ptr<BenchKeys> keys;
  if (pCurve) {
    keys.reset(new BenchKeys);
    options.fCurveSecretKey = OX::readCurveKey(keys->file("broker.key"));
    options.fAllowedClientKeys = {OX::readCurveKey(keys->file("client.pub"))};
    connect.fServerKey = keys->file("broker.pub");
    connect.fClientKey = keys->file("client.key");
  }
  OX::OXBrokerHost host(broker, options);
  host.start();
  connect.fSharedMemory = channel == kSocket ? OX::ConnectOptions::SharedMemory::kNever
                                             : OX::ConnectOptions::SharedMemory::kRequire;
  connect.fUnixSocketCalls = channel == kSharedCopy || channel == kSharedViews;
  const bool views = channel == kSharedViews || channel == kSharedViewsOverZeroMQ;
  boost::shared_ptr<OX::OXProxy> proxy =
      OX::OXProxy::connect(host.getUrl(), "OXVideoDevice", connect);
  proxy->genericCall("subscribeCamera",
                     OX::OXValue::array({"bench", 0, format.fResolution, format.fColorSpace, 30}));
  // A simulator feeds the camera at 30 frames per second meanwhile, as it would in use: the
  // subscriber then shares each converted frame for one period, as the device intends.
  std::atomic<bool> stop{false};
  std::thread simulator([&] {
    OX::OXProxy local(broker, "OXVideoDevice");
    std::vector<unsigned char> rgb(static_cast<std::size_t>(format.fWidth) * format.fHeight * 3,
                                   90);
    const OX::OXValue frame =
        OX::OXValue::array({0, format.fWidth, format.fHeight,
                            OX::OXValue::binary(rgb.data(), static_cast<int>(rgb.size()))});
    auto next = std::chrono::steady_clock::now();
    while (!stop) {
      local.genericCall("putImage", frame);
      next += std::chrono::milliseconds(33);
      std::this_thread::sleep_until(next);
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const OX::OXValue arguments = OX::OXValue::array({"bench"});
  const int expected = static_cast<int>(format.bytes());
  for (auto _ : pState) {
    if (views) {
      const OX::ViewedResult image = OX::callWithViews(*proxy, "getImageRemote", arguments);
      if (image.fValue.getSize() != 12 || image.fBinaries.size() != 1 ||
          image.fBinaries[0].fSize != format.bytes()) {
        pState.SkipWithError("no image");
        break;
      }
      benchmark::DoNotOptimize(image.fBinaries[0].fData[0]);
    } else {
      OX::OXValue image = proxy->genericCall("getImageRemote", arguments);
      if (image.getSize() != 12 || image[6].getSize() != expected) {
        pState.SkipWithError("no image");
        break;
      }
      benchmark::DoNotOptimize(image);
    }
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

void BM_GetImageRemote(benchmark::State& pState) {
  getImageRemote(pState, kFormats[pState.range(0)], static_cast<Channel>(pState.range(1)), false);
}
BENCHMARK(BM_GetImageRemote)
    ->ArgsProduct({{0, 1},
                   {kSocket, kSharedCopy, kSharedViews, kSharedCopyOverZeroMQ,
                    kSharedViewsOverZeroMQ}})
    ->ArgNames({"format", "channel"})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void BM_GetImageRemoteVGACurve(benchmark::State& pState) {
  getImageRemote(pState, kFormats[0], kSocket, true);
}
BENCHMARK(BM_GetImageRemoteVGACurve)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_GetImageRemoteVGACurve_Reference(benchmark::State& pState) {
  getImageRemote(pState, kFormats[0], kSocket, false);
}
BENCHMARK(BM_GetImageRemoteVGACurve_Reference)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The same exchange without a broker: a small request, a reply of the image's size.
void BM_GetImageRemote_Reference(benchmark::State& pState) {
  const Format& format = kFormats[pState.range(0)];
  zmq::context_t context(1);
  zmq::socket_t server(context, zmq::socket_type::router);
  server.set(zmq::sockopt::linger, 0);
  server.bind("tcp://127.0.0.1:*");
  const std::string url = server.get(zmq::sockopt::last_endpoint);
  std::atomic<bool> stop{false};
  std::thread serving([&] { servePlain(server, format.bytes(), stop); });
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
BENCHMARK(BM_GetImageRemote_Reference)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("format")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// The reference's server in a process of its own, until standard input closes.
int servePlainUntilStdinCloses(std::size_t pBytes) {
  zmq::context_t context(1);
  zmq::socket_t server(context, zmq::socket_type::router);
  server.set(zmq::sockopt::linger, 0);
  server.bind("tcp://127.0.0.1:*");
  std::cout << "listening on " << server.get(zmq::sockopt::last_endpoint) << std::endl;
  std::atomic<bool> stop{false};
  std::thread serving([&] { servePlain(server, pBytes, stop); });
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  stop = true;
  serving.join();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--plain-server") == 0) {
    return servePlainUntilStdinCloses(std::strtoull(argv[2], nullptr, 10));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
