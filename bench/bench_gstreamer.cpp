// oxvideosrc ! fakesink beside the project's own C++ client, each a subscriber at VGA in kRGB of
// one broker host whose simulator camera is fed at 30 frames per second, over TCP and over the
// shared-memory channel. One iteration is one new frame delivered: to fakesink by the element,
// into a buffer of the client's by getImageRemote read in place.
// Their ratio is the element's rate against the client's; the device shares a frame for one
// period of the subscriber's frame rate, so both are bound to about 30 frames per second and the
// ratio shows whether the element loses frames on the way.
#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <algorithm>
#include <condition_variable>
#include <ctime>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxconnectoptions.h"
#include "oxremote.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr size_t kImageBytes = static_cast<size_t>(kWidth) * kHeight * 3;
constexpr int kFrames = 150;  // five seconds of frames per benchmark

// A broker host in this process with a simulator camera that a thread feeds at 30 frames a
// second, as a simulator would.
class FedHost {
 public:
  FedHost() : fBroker(OX::OXBroker::createBroker("bench", {})) {
    OX::OXModule::createModule<OX::OXVisionSimulatorCam>(fBroker);
    OX::OXBrokerHost::Options options;
    options.fPort = 0;
    fHost.reset(new OX::OXBrokerHost(fBroker, options));
    fHost->start();
    fFeeder = std::thread([this] {
      OX::OXProxy local(fBroker, "OXVideoDevice");
      std::vector<unsigned char> rgb(kImageBytes, 90);
      const OX::OXValue frame = OX::OXValue::array(
          {0, kWidth, kHeight, OX::OXValue::binary(rgb.data(), static_cast<int>(rgb.size()))});
      auto next = std::chrono::steady_clock::now();
      while (!fStop) {
        local.genericCall("putImage", frame);
        next += std::chrono::microseconds(33333);
        std::this_thread::sleep_until(next);
      }
    });
  }
  ~FedHost() {
    fStop = true;
    fFeeder.join();
    fHost->stop();
    fBroker->removeAllModules();
  }
  std::string url() const { return fHost->getUrl(); }

 private:
  boost::shared_ptr<OX::OXBroker> fBroker;
  std::unique_ptr<OX::OXBrokerHost> fHost;
  std::atomic<bool> fStop{false};
  std::thread fFeeder;
};

// The process's processor time, host and feeder included, from the start of the frames: both
// sides run the same host, so the difference is the subscriber's own cost.
class ProcessTime {
 public:
  ProcessTime() : fStart(std::clock()) {}
  void report(benchmark::State& pState) const {
    const double seconds = static_cast<double>(std::clock() - fStart) / CLOCKS_PER_SEC;
    pState.counters["cpu_ms_per_frame"] =
        1000.0 * seconds /
        static_cast<double>(std::max<benchmark::IterationCount>(1, pState.iterations()));
  }

 private:
  std::clock_t fStart;
};

// Counts the buffers that reach fakesink, from its streaming thread.
class Handoffs {
 public:
  static void onHandoff(GstElement*, GstBuffer*, GstPad*, gpointer pSelf) {
    auto* self = static_cast<Handoffs*>(pSelf);
    std::lock_guard<std::mutex> guard(self->fMutex);
    ++self->fCount;
    self->fArrived.notify_all();
  }
  // Waits for buffer number pCount; false after 10 s without it.
  bool waitFor(long pCount) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fArrived.wait_for(lock, std::chrono::seconds(10), [&] { return fCount >= pCount; });
  }
  long count() {
    std::lock_guard<std::mutex> guard(fMutex);
    return fCount;
  }

 private:
  std::mutex fMutex;
  std::condition_variable fArrived;
  long fCount = 0;
};

using SharedMemory = OX::ConnectOptions::SharedMemory;

void oxVideoSrc(benchmark::State& pState, SharedMemory pChannel) {
  FedHost host;
  GError* error = nullptr;
  const std::string channel = pChannel == SharedMemory::kNever ? "never" : "require";
  GstElement* pipeline = gst_parse_launch(
      ("oxvideosrc url=" + host.url() + " shared-memory=" + channel +
       " resolution=vga color-space=rgb fps=30 ! fakesink name=out sync=false signal-handoffs=true")
          .c_str(),
      &error);
  if (pipeline == nullptr || error != nullptr) {
    pState.SkipWithError(error != nullptr ? error->message : "no pipeline");
    if (error != nullptr) g_error_free(error);
    return;
  }
  Handoffs handoffs;
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
  g_signal_connect(sink, "handoff", G_CALLBACK(Handoffs::onHandoff), &handoffs);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  long next = 1;
  bool ok = handoffs.waitFor(next);
  next = handoffs.count();
  const ProcessTime time;
  for (auto _ : pState) {
    if (!ok || !(ok = handoffs.waitFor(++next))) break;
  }
  time.report(pState);
  if (!ok) pState.SkipWithError("no frame from oxvideosrc within 10 s");
  pState.counters["fps"] =
      benchmark::Counter(static_cast<double>(pState.iterations()), benchmark::Counter::kIsRate);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
}

// The same subscriber by hand: getImageRemote, read in place, until the time stamp changes, and
// one copy of the new frame, as the element makes into its buffer.
void client(benchmark::State& pState, SharedMemory pChannel) {
  FedHost host;
  OX::ConnectOptions options;
  options.fSharedMemory = pChannel;
  boost::shared_ptr<OX::OXProxy> proxy = OX::OXProxy::connect(host.url(), "OXVideoDevice", options);
  const OX::OXValue id =
      proxy->genericCall("subscribeCamera", OX::OXValue::array({"bench", 0, 2, 11, 30}));
  const OX::OXValue arguments = OX::OXValue::array({id});
  std::vector<unsigned char> frame(kImageBytes);
  int lastStamp = -1;
  const auto next = [&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      const OX::ViewedResult image = OX::callWithViews(*proxy, "getImageRemote", arguments);
      if (!image.fValue.isValid() || image.fValue[5].asInt() == lastStamp) continue;
      lastStamp = image.fValue[5].asInt();
      std::memcpy(frame.data(), image.fBinaries.at(0).fData, kImageBytes);
      return true;
    }
    return false;
  };
  bool ok = next();
  const ProcessTime time;
  for (auto _ : pState) {
    if (!ok || !(ok = next())) break;
    benchmark::DoNotOptimize(frame.data());
  }
  time.report(pState);
  if (!ok) pState.SkipWithError("no frame from getImageRemote within 10 s");
  pState.counters["fps"] =
      benchmark::Counter(static_cast<double>(pState.iterations()), benchmark::Counter::kIsRate);
  proxy->genericCall("unsubscribe", arguments);
}

void BM_OxVideoSrcTcp(benchmark::State& pState) {
  oxVideoSrc(pState, SharedMemory::kNever);
}
void BM_OxVideoSrcTcp_Reference(benchmark::State& pState) {
  client(pState, SharedMemory::kNever);
}
void BM_OxVideoSrcShm(benchmark::State& pState) {
  oxVideoSrc(pState, SharedMemory::kRequire);
}
void BM_OxVideoSrcShm_Reference(benchmark::State& pState) {
  client(pState, SharedMemory::kRequire);
}
BENCHMARK(BM_OxVideoSrcTcp)->UseRealTime()->Iterations(kFrames)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OxVideoSrcTcp_Reference)
    ->UseRealTime()
    ->Iterations(kFrames)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OxVideoSrcShm)->UseRealTime()->Iterations(kFrames)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OxVideoSrcShm_Reference)
    ->UseRealTime()
    ->Iterations(kFrames)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int pArgc, char** pArgv) {
  // The plugin of this build, and a registry of this program's own.
  setenv("GST_PLUGIN_PATH", VI_LIBRARY_DIR "/gstreamer-1.0", 1);
  setenv("GST_REGISTRY", VI_LIBRARY_DIR "/gst-registry.bin", 1);
  gst_init(&pArgc, &pArgv);
  benchmark::Initialize(&pArgc, pArgv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
