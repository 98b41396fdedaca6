// The colour-space conversion of a 640x480 raw frame into each colour space at step 1 (640x480)
// and step 2 (320x240), in MB/s of output, against a memcpy of the output (BM_Convert_Reference)
// and, for the colour spaces with vector kernels, against the plain reference kernels
// (BM_ConvertVector_Reference). kRGB at step 1 is also measured against OpenCV's
// cvtColor(COLOR_YUV2RGB_YUY2), on one thread and on all, and libyuv's two YUY2 to RGB24 routes
// (through ARGB, and through I422: libyuv has no direct one); neither library is bit-exact to our
// formulas, so they are speed references only. VI_BENCH_ITERATIONS fixes the iteration count
// (scripts/bench-instructions).
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdlib>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "oxbroker.h"
#include "oxtypes.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "kernels/conversion.h"

namespace {

// The simulator camera with its conversion kernels opened for the benchmark.
class BenchCam : public OX::OXVisionSimulatorCam {
 public:
  explicit BenchCam(boost::shared_ptr<OX::OXBroker> pBroker) : OXVisionSimulatorCam(pBroker) {}
  using Kernel = void (OX::OXVisionVideoInput::*)(const OX::OXImage*, OX::OXImage*);
  static Kernel kernelFor(int pColorSpace) {
    switch (pColorSpace) {
      case OX::kYuv:
        return &BenchCam::xYUV422toYuv;
      case OX::kHsy:
        return &BenchCam::xYUV422toHsy;
      case OX::kYUV422:
        return &BenchCam::xYUV422toYUV422;
      case OX::kYUV:
        return &BenchCam::xYUV422toYUV;
      case OX::kRGB:
        return &BenchCam::xYUV422toRGB;
      case OX::kHSY:
        return &BenchCam::xYUV422toHSY;
      case OX::kBGR:
        return &BenchCam::xYUV422toBGR;
      case OX::kYYCbCr:
        return &BenchCam::xYUV422toYYCbCr;
      case OX::kH2RGB:
        return &BenchCam::xYUV422toH2RGB;
      default:
        return &BenchCam::xYUV422toHSMixed;
    }
  }
  void convert(Kernel pKernel, const OX::OXImage* pSource, OX::OXImage* pTarget) {
    (this->*pKernel)(pSource, pTarget);
  }
};

constexpr int kColorSpaces[] = {OX::kYuv, OX::kHsy, OX::kYUV422, OX::kYUV,   OX::kRGB,
                                OX::kHSY, OX::kBGR, OX::kYYCbCr, OX::kH2RGB, OX::kHSMixed};

// A 640x480 raw frame of varied content and the camera that converts it.
struct Fixture {
  Fixture() : fRaw(OX::kVGA, OX::kYUV422) {
    for (int i = 0; i < fRaw.getSize(); ++i) {
      fRaw.fData[i] = static_cast<unsigned char>(i * 13 + (i >> 10));
    }
    fBroker = OX::OXBroker::createBroker("bench", {});
    fCam = OX::OXModule::createModule<BenchCam>(fBroker);
  }
  OX::OXImage fRaw;
  boost::shared_ptr<OX::OXBroker> fBroker;
  boost::shared_ptr<BenchCam> fCam;
};

Fixture& fixture() {
  static Fixture sFixture;
  return sFixture;
}

// Arguments: colour space, step.
void BM_Convert(benchmark::State& pState) {
  const int colorSpace = static_cast<int>(pState.range(0));
  const int step = static_cast<int>(pState.range(1));
  OX::OXImage target(640 / step, 480 / step, colorSpace, false);
  const BenchCam::Kernel kernel = BenchCam::kernelFor(colorSpace);
  for (auto _ : pState) {
    fixture().fCam->convert(kernel, &fixture().fRaw, &target);
    benchmark::DoNotOptimize(target.fData);
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * target.getSize());
}

void BM_Convert_Reference(benchmark::State& pState) {
  const int colorSpace = static_cast<int>(pState.range(0));
  const int step = static_cast<int>(pState.range(1));
  OX::OXImage target(640 / step, 480 / step, colorSpace, false);
  // A source as large as the output: the output may be larger than the raw frame.
  const std::vector<unsigned char> source(static_cast<size_t>(target.getSize()), 7);
  for (auto _ : pState) {
    std::memcpy(target.fData, source.data(), source.size());
    benchmark::DoNotOptimize(target.fData);
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * target.getSize());
}

// The kernels in use against the reference kernels, on the colour spaces with vector kernels.
void BM_ConvertVector(benchmark::State& pState) {
  BM_Convert(pState);
}

void BM_ConvertVector_Reference(benchmark::State& pState) {
  OX::conversionkernels::forceKernelsForTesting(OX::KernelVariant::kReference);
  BM_Convert(pState);
  OX::conversionkernels::forceKernelsForTesting(OX::KernelVariant::kAutomatic);
}

void BM_ConvertRGBVsOpenCV(benchmark::State& pState) {
  BM_Convert(pState);
}

// cvtColor on pThreads threads, 0 for OpenCV's own choice (every core).
void runCvtColor(benchmark::State& pState, int pThreads) {
  const int threads = cv::getNumThreads();
  if (pThreads > 0) cv::setNumThreads(pThreads);
  const cv::Mat source(480, 640, CV_8UC2, fixture().fRaw.fData);
  cv::Mat target(480, 640, CV_8UC3);
  for (auto _ : pState) {
    cv::cvtColor(source, target, cv::COLOR_YUV2RGB_YUY2);
    benchmark::DoNotOptimize(target.data);
    benchmark::ClobberMemory();
  }
  cv::setNumThreads(threads);
  pState.SetBytesProcessed(pState.iterations() * 640 * 480 * 3);
}

// On one thread, like our kernels: the cost per frame.
void BM_ConvertRGBVsOpenCV_Reference(benchmark::State& pState) {
  runCvtColor(pState, 1);
}

void BM_ConvertRGBVsOpenCVThreads(benchmark::State& pState) {
  BM_Convert(pState);
}

// On every core: the latency OpenCV offers.
void BM_ConvertRGBVsOpenCVThreads_Reference(benchmark::State& pState) {
  runCvtColor(pState, 0);
}

void BM_ConvertRGBVsLibyuv(benchmark::State& pState) {
  BM_Convert(pState);
}

void BM_ConvertRGBVsLibyuv_Reference(benchmark::State& pState) {
  std::vector<uint8_t> argb(640 * 480 * 4);
  std::vector<uint8_t> rgb(640 * 480 * 3);
  for (auto _ : pState) {
    libyuv::YUY2ToARGB(fixture().fRaw.fData, 640 * 2, argb.data(), 640 * 4, 640, 480);
    libyuv::ARGBToRGB24(argb.data(), 640 * 4, rgb.data(), 640 * 3, 640, 480);
    benchmark::DoNotOptimize(rgb.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * 640 * 480 * 3);
}

void BM_ConvertRGBVsLibyuvI422(benchmark::State& pState) {
  BM_Convert(pState);
}

void BM_ConvertRGBVsLibyuvI422_Reference(benchmark::State& pState) {
  std::vector<uint8_t> y(640 * 480), u(320 * 480), v(320 * 480);
  std::vector<uint8_t> rgb(640 * 480 * 3);
  for (auto _ : pState) {
    libyuv::YUY2ToI422(fixture().fRaw.fData, 640 * 2, y.data(), 640, u.data(), 320, v.data(), 320,
                       640, 480);
    libyuv::I422ToRGB24(y.data(), 640, u.data(), 320, v.data(), 320, rgb.data(), 640 * 3, 640, 480);
    benchmark::DoNotOptimize(rgb.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * 640 * 480 * 3);
}

// A fixed iteration count when VI_BENCH_ITERATIONS is set, for instruction counts.
void iterations(benchmark::internal::Benchmark* pBenchmark) {
  if (const char* count = std::getenv("VI_BENCH_ITERATIONS")) {
    pBenchmark->Iterations(std::atol(count));
  }
}

void allSpaces(benchmark::internal::Benchmark* pBenchmark) {
  for (int colorSpace : kColorSpaces) {
    for (int step : {1, 2}) pBenchmark->Args({colorSpace, step});
  }
  iterations(pBenchmark);
}

void vectorSpaces(benchmark::internal::Benchmark* pBenchmark) {
  for (int colorSpace : {OX::kYuv, OX::kYUV422, OX::kYUV, OX::kRGB, OX::kBGR}) {
    for (int step : {1, 2}) pBenchmark->Args({colorSpace, step});
  }
  iterations(pBenchmark);
}

void rgbAtStep1(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->Args({OX::kRGB, 1});
  iterations(pBenchmark);
}

}  // namespace

BENCHMARK(BM_Convert)->Apply(allSpaces);
BENCHMARK(BM_Convert_Reference)->Apply(allSpaces);
BENCHMARK(BM_ConvertVector)->Apply(vectorSpaces);
BENCHMARK(BM_ConvertVector_Reference)->Apply(vectorSpaces);
BENCHMARK(BM_ConvertRGBVsOpenCV)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCV_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCVThreads)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCVThreads_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuv)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuv_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuvI422)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuvI422_Reference)->Apply(rgbAtStep1);
BENCHMARK_MAIN();
