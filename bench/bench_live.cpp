// What a VGA live view of the host's pages costs, beside what the device's conversion costs
// anyway. The reference is one remote subscriber's frame: a new frame converted into the
// subscriber's colour space and copied out (getImageRemote). The live view adds, per frame, the
// conversion to RGB for viewing (none for kRGB), the JPEG encoding and the write of the part to a
// socket; BM_LiveView reports that share alone as "live_ms" and, at 30 frames per second, as
// "core_at_30fps" (0.10 is a tenth of one core). The clock is the test clock, moved one frame
// period per iteration, so that every request finds a new frame to convert.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kios.h"
#include "oxbroker.h"
#include "oxlive.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;

// A device with a camera fed by hand, on a clock of its own.
class Bench {
 public:
  Bench() {
    ki::os::setClockForTesting([this] { return fNow.load(); });
    OX::OXModule::createModule<OX::OXVisionSimulatorCam>(fBroker);
    fDevice.reset(new OX::OXProxy(fBroker, "OXVideoDevice"));
    std::vector<unsigned char> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<unsigned char>((i * 7) % 251);
    fFrame = OX::OXValue::array(
        {0, kWidth, kHeight, OX::OXValue::binary(rgb.data(), static_cast<int>(rgb.size()))});
  }
  ~Bench() {
    fDevice.reset();
    fBroker->removeAllModules();
    ki::os::restoreRealClock();
  }
  // One frame period later, a new frame.
  void nextFrame() {
    fNow += 40000;
    fDevice->genericCall("putImage", fFrame);
  }
  boost::shared_ptr<OX::OXProxy> fDevice;

 private:
  std::atomic<int64_t> fNow{1700000000000000};
  boost::shared_ptr<OX::OXBroker> fBroker = OX::OXBroker::createBroker("bench", {});
  OX::OXValue fFrame;
};

// A socket whose other end is read and thrown away, as a viewer would.
class Drain {
 public:
  Drain() {
    socketpair(AF_UNIX, SOCK_STREAM, 0, fEnds);
    fReader = std::thread([this] {
      std::vector<char> buffer(1 << 16);
      while (read(fEnds[1], buffer.data(), buffer.size()) > 0) {
      }
    });
  }
  ~Drain() {
    shutdown(fEnds[0], SHUT_RDWR);
    fReader.join();
    close(fEnds[0]);
    close(fEnds[1]);
  }
  bool write(const char* pData, std::size_t pSize) {
    while (pSize > 0) {
      const ssize_t sent = send(fEnds[0], pData, pSize, MSG_NOSIGNAL);
      if (sent <= 0) return false;
      pData += sent;
      pSize -= static_cast<std::size_t>(sent);
    }
    return true;
  }

 private:
  int fEnds[2] = {-1, -1};
  std::thread fReader;
};

void BM_LiveView_Reference(benchmark::State& pState) {
  Bench bench;
  const int colorSpace = static_cast<int>(pState.range(0));
  bench.fDevice->genericCall("subscribeCamera", OX::OXValue::array({"ref", 0, 2, colorSpace, 30}));
  const OX::OXValue arguments = OX::OXValue::array({"ref"});
  for (auto _ : pState) {
    pState.PauseTiming();
    bench.nextFrame();
    pState.ResumeTiming();
    OX::OXValue image = bench.fDevice->genericCall("getImageRemote", arguments);
    if (!image.isValid()) {
      pState.SkipWithError("no image");
      break;
    }
    benchmark::DoNotOptimize(image);
  }
  bench.fDevice->genericCall("unsubscribe", arguments);
}
BENCHMARK(BM_LiveView_Reference)->Arg(11)->Arg(9)->Arg(12)->Unit(benchmark::kMillisecond);

void BM_LiveView(benchmark::State& pState) {
  Bench bench;
  Drain viewer;
  oxhttp::LiveViews views(1);
  oxhttp::LiveRequest request;
  request.fResolution = 2;
  request.fColorSpace = static_cast<int>(pState.range(0));
  request.fFps = 30;
  oxhttp::LiveStream stream(bench.fDevice, views, views.open(request, "bench"));
  const OX::OXValue arguments = OX::OXValue::array({views.list().front()->fSubscriber});
  const oxhttp::LiveStream::Write write = [&viewer](const char* pData, std::size_t pSize) {
    return viewer.write(pData, pSize);
  };
  std::chrono::steady_clock::duration live{};
  for (auto _ : pState) {
    pState.PauseTiming();
    bench.nextFrame();
    pState.ResumeTiming();
    OX::OXValue image = bench.fDevice->genericCall("getImageRemote", arguments);
    const auto start = std::chrono::steady_clock::now();
    if (!stream.sendImage(image, write)) {
      pState.SkipWithError("no part written");
      break;
    }
    live += std::chrono::steady_clock::now() - start;
  }
  const double perFrame =
      std::chrono::duration<double>(live).count() / static_cast<double>(pState.iterations());
  pState.counters["live_ms"] = perFrame * 1e3;
  pState.counters["core_at_30fps"] = perFrame * 30;
}
BENCHMARK(BM_LiveView)->Arg(11)->Arg(9)->Arg(12)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
