// What a VGA live view of the host's pages costs, and whether it slows the device's other
// subscribers.
//
// BM_LiveView_Reference is one remote subscriber's frame: a new frame converted into the
// subscriber's colour space and copied out (getImageRemote), the work any subscriber causes. The
// live view adds, per frame, the conversion to RGB for viewing (none for kRGB; timed alone by
// BM_ViewConversion), the JPEG encoding and the write of the part to a socket; BM_LiveView
// reports that share alone as "live_ms" and, at 30 frames per second, as "core_at_30fps" (0.10
// is a tenth of one core).
//
// BM_SubscriberBesideLiveView times another subscriber's getImageRemote (QVGA kRGB, a new frame
// each time) while a VGA live view streams at 30 frames per second on a thread of its own; its
// reference runs the same beside an ordinary remote subscriber of the same format and rate. The
// ratio says what the live view costs the others beyond being one more subscriber.
//
// The device's clock is the test clock, moved one frame period per iteration, so that every
// request finds a new frame to convert.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kios.h"
#include "oxbroker.h"
#include "oxtypes.h"
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

// The conversion to RGB for viewing alone, as the live view runs it on a VGA image.
void BM_ViewConversion(benchmark::State& pState) {
  Bench bench;
  const int colorSpace = static_cast<int>(pState.range(0));
  bench.fDevice->genericCall("subscribeCamera", OX::OXValue::array({"ref", 0, 2, colorSpace, 30}));
  bench.nextFrame();
  OX::OXImage image(1, 1, OX::kRGB, false);
  if (!image.fromOXValue(
          bench.fDevice->genericCall("getImageRemote", OX::OXValue::array({"ref"})))) {
    pState.SkipWithError("no image");
    return;
  }
  oxtools::RgbImage rgb;
  for (auto _ : pState) {
    oxtools::toRgb(image.fData, image.getSize(), image.fWidth, image.fHeight, image.fColorSpace,
                   rgb);
    benchmark::DoNotOptimize(rgb.fPixels.data());
  }
}
BENCHMARK(BM_ViewConversion)->Arg(9)->Arg(12)->Unit(benchmark::kMillisecond);

// A neighbour of the measured subscriber: a VGA kYUV422 view at 30 frames per second, streamed as
// the pages do (pLive) or taken by an ordinary remote subscriber, on a thread of its own, until
// destroyed.
class Neighbour {
 public:
  Neighbour(Bench& pBench, bool pLive)
      : fThread([this, &pBench, pLive] { pLive ? stream(pBench) : subscribe(pBench); }) {}
  ~Neighbour() {
    fStop = true;
    fThread.join();
  }

 private:
  static constexpr auto kPeriod = std::chrono::microseconds(33333);

  void stream(Bench& pBench) {
    Drain viewer;
    oxhttp::LiveViews views(1);
    oxhttp::LiveRequest request;
    request.fResolution = 2;
    request.fColorSpace = 9;
    request.fFps = 30;
    oxhttp::LiveStream live(pBench.fDevice, views, views.open(request, "bench"));
    std::string part;
    const oxhttp::LiveStream::Write write = [&part](const char* pData, std::size_t pSize) {
      part.append(pData, pSize);
      return true;
    };
    while (!fStop) {
      part.clear();
      if (live.step(write) == oxhttp::LiveStream::Step::kWrite) {
        viewer.write(part.data(), part.size());
      } else {
        std::this_thread::sleep_until(live.wakeAt());
      }
    }
  }
  void subscribe(Bench& pBench) {
    const OX::OXValue name =
        pBench.fDevice->genericCall("subscribeCamera", OX::OXValue::array({"other", 0, 2, 9, 30}));
    const OX::OXValue arguments = OX::OXValue::array({name});
    for (auto next = std::chrono::steady_clock::now(); !fStop; next += kPeriod) {
      benchmark::DoNotOptimize(pBench.fDevice->genericCall("getImageRemote", arguments));
      std::this_thread::sleep_until(next);
    }
    pBench.fDevice->genericCall("unsubscribe", arguments);
  }

  std::atomic<bool> fStop{false};
  std::thread fThread;
};

void besideNeighbour(benchmark::State& pState, bool pLive) {
  Bench bench;
  bench.fDevice->genericCall("subscribeCamera", OX::OXValue::array({"measured", 0, 1, 11, 30}));
  const OX::OXValue arguments = OX::OXValue::array({"measured"});
  bench.nextFrame();
  Neighbour neighbour(bench, pLive);
  for (auto _ : pState) {
    pState.PauseTiming();
    bench.nextFrame();
    pState.ResumeTiming();
    benchmark::DoNotOptimize(bench.fDevice->genericCall("getImageRemote", arguments));
  }
}

void BM_SubscriberBesideLiveView(benchmark::State& pState) {
  besideNeighbour(pState, true);
}
void BM_SubscriberBesideLiveView_Reference(benchmark::State& pState) {
  besideNeighbour(pState, false);
}
BENCHMARK(BM_SubscriberBesideLiveView_Reference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SubscriberBesideLiveView)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
