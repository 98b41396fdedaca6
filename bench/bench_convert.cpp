// The colour-space conversion (the kernels' plane loops, without the device) of a 640x480 raw
// frame into each colour space at step 1 (640x480) and step 2 (320x240), in MB/s of output, against
// a memcpy of the output (BM_Convert_Reference) and against the plain reference kernels
// (BM_ConvertVector_Reference). kRGB at step 1 is also measured
// against OpenCV's cvtColor(COLOR_YUV2RGB_YUY2), on one thread and on all, and libyuv's two YUY2 to
// RGB24 routes (through ARGB, and through I422: libyuv has no direct one); neither library is
// bit-exact to our formulas, so they are speed references only. VI_BENCH_ITERATIONS fixes the
// iteration count (scripts/bench-instructions).
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdlib>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "kernels/conversion.h"
#include "oxtypes.h"

namespace {

namespace kernels = OX::conversionkernels;
using Plane = void (*)(const kernels::SourceFrame&, const kernels::TargetFrame&);

Plane planeFor(int pColorSpace) {
  switch (pColorSpace) {
    case OX::kYuv:
      return kernels::yuv422toYuv;
    case OX::kHsy:
      return kernels::yuv422toHsy;
    case OX::kYUV422:
      return kernels::yuv422toYUV422;
    case OX::kYUV:
      return kernels::yuv422toYUV;
    case OX::kRGB:
      return kernels::yuv422toRGB;
    case OX::kHSY:
      return kernels::yuv422toHSY;
    case OX::kBGR:
      return kernels::yuv422toBGR;
    case OX::kYYCbCr:
      return kernels::yuv422toYYCbCr;
    case OX::kH2RGB:
      return kernels::yuv422toH2RGB;
    default:
      return kernels::yuv422toHSMixed;
  }
}

constexpr int kColorSpaces[] = {OX::kYuv, OX::kHsy, OX::kYUV422, OX::kYUV,   OX::kRGB,
                                OX::kHSY, OX::kBGR, OX::kYYCbCr, OX::kH2RGB, OX::kHSMixed};

// A 640x480 raw frame of varied content.
const std::vector<unsigned char>& raw() {
  static const std::vector<unsigned char> sRaw = [] {
    std::vector<unsigned char> bytes(640 * 480 * 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<unsigned char>(i * 13 + (i >> 10));
    }
    return bytes;
  }();
  return sRaw;
}

// Bytes of a frame of this size in this colour space.
int64_t sizeOf(int pWidth, int pHeight, int pColorSpace) {
  return int64_t{pWidth} * pHeight * OX::getNumLayersFromColorSpace(pColorSpace);
}

// Arguments: colour space, step.
void BM_Convert(benchmark::State& pState) {
  const int colorSpace = static_cast<int>(pState.range(0));
  const int step = static_cast<int>(pState.range(1));
  const int width = 640 / step, height = 480 / step;
  std::vector<unsigned char> target(static_cast<size_t>(sizeOf(width, height, colorSpace)));
  const Plane plane = planeFor(colorSpace);
  for (auto _ : pState) {
    plane({raw().data(), 640, 480}, {target.data(), width, height});
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * static_cast<int64_t>(target.size()));
}

void BM_Convert_Reference(benchmark::State& pState) {
  const int colorSpace = static_cast<int>(pState.range(0));
  const int step = static_cast<int>(pState.range(1));
  std::vector<unsigned char> target(
      static_cast<size_t>(sizeOf(640 / step, 480 / step, colorSpace)));
  // A source as large as the output: the output may be larger than the raw frame.
  const std::vector<unsigned char> source(target.size(), 7);
  for (auto _ : pState) {
    std::memcpy(target.data(), source.data(), source.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(pState.iterations() * static_cast<int64_t>(target.size()));
}

// The kernels in use against the reference kernels.
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
  const cv::Mat source(480, 640, CV_8UC2, const_cast<unsigned char*>(raw().data()));
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
    libyuv::YUY2ToARGB(raw().data(), 640 * 2, argb.data(), 640 * 4, 640, 480);
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
    libyuv::YUY2ToI422(raw().data(), 640 * 2, y.data(), 640, u.data(), 320, v.data(), 320, 640,
                       480);
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

void rgbAtStep1(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->Args({OX::kRGB, 1});
  iterations(pBenchmark);
}

}  // namespace

BENCHMARK(BM_Convert)->Apply(allSpaces);
BENCHMARK(BM_Convert_Reference)->Apply(allSpaces);
BENCHMARK(BM_ConvertVector)->Apply(allSpaces);
BENCHMARK(BM_ConvertVector_Reference)->Apply(allSpaces);
BENCHMARK(BM_ConvertRGBVsOpenCV)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCV_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCVThreads)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsOpenCVThreads_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuv)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuv_Reference)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuvI422)->Apply(rgbAtStep1);
BENCHMARK(BM_ConvertRGBVsLibyuvI422_Reference)->Apply(rgbAtStep1);
BENCHMARK_MAIN();
