// The simulator camera's resampling (the kernels' plane loops, without the camera) at five
// typical pairs of sizes, against a memcpy of the output (BM_ReSize_Reference), against the plain
// reference kernels (BM_ReSizeVector_Reference), against libyuv's RGB24 to YUY2 path at the
// output size (BM_ReSizeVsLibyuv_Reference, colour conversion without resampling), and against
// libyuv's scaler between the same sizes (BM_ReSizeVsLibyuvScale_Reference: ARGBScale with
// kFilterNone, point sampling from an ARGB frame of the input size into one of the output size,
// with no colour conversion, so strictly less work than ours; BM_ReSizeVsLibyuvScaleYuy2_Reference:
// the same, then ARGBToYUY2 at the output size, the same work as ours). libyuv is not bit-exact to
// our formula: it is a speed reference only. MB/s are bytes of output. VI_BENCH_ITERATIONS fixes
// the iteration count (scripts/bench-instructions).
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernels/resampling.h"
#include "oxtypes.h"

namespace {

// 0: 640x480 into 640x480, 1: 1280x960 into 160x120, 2: 160x120 into 1280x960, 3: 1280x960
// into 640x480, 4: 1280x960 into 320x240; then the ratio the camera resamples by (positive
// decimates, negative replicates, 0 keeps the size).
constexpr int kCases[][3] = {{OX::kVGA, OX::kVGA, 0},
                             {OX::k4VGA, OX::kQQVGA, 8},
                             {OX::kQQVGA, OX::k4VGA, -8},
                             {OX::k4VGA, OX::kVGA, 2},
                             {OX::k4VGA, OX::kQVGA, 4}};
constexpr int kLastCase = 4;

struct Sizes {
  int fInWidth, fInHeight, fOutWidth, fOutHeight;
  size_t outBytes() const { return static_cast<size_t>(fOutWidth) * fOutHeight * 2; }
};

Sizes sizesOf(int pCase) {
  Sizes sizes{};
  OX::setSizeFromResolution(kCases[pCase][0], sizes.fInWidth, sizes.fInHeight);
  OX::setSizeFromResolution(kCases[pCase][1], sizes.fOutWidth, sizes.fOutHeight);
  return sizes;
}

// One pushed frame of the case's input size, and the camera's resampling of it.
struct Fixture {
  explicit Fixture(int pCase)
      : fSizes(sizesOf(pCase)),
        fRatio(kCases[pCase][2]),
        fSource(static_cast<size_t>(fSizes.fInWidth) * fSizes.fInHeight * 3),
        fTarget(1280 * 960 * 2) {
    for (size_t i = 0; i < fSource.size(); ++i) {
      fSource[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
    }
  }
  bool reSize() {
    namespace kernels = OX::resamplingkernels;
    const int width = fSizes.fInWidth, height = fSizes.fInHeight;
    if (fRatio == 0) {
      kernels::sameSize(fSource.data(), width * height, fTarget.data());
      return true;
    }
    if (fRatio > 0)
      return kernels::subSample(fRatio, width, height, fSource.data(), fTarget.data());
    return kernels::overSample(-fRatio, width, height, fSource.data(), fTarget.data());
  }
  Sizes fSizes;
  int fRatio;
  std::vector<unsigned char> fSource;
  std::vector<unsigned char> fTarget;
};

void runReSize(benchmark::State& pState) {
  Fixture fixture(static_cast<int>(pState.range(0)));
  for (auto _ : pState) {
    if (!fixture.reSize()) {
      pState.SkipWithError("the resampling refused the case");
      break;
    }
    benchmark::DoNotOptimize(fixture.fTarget.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(static_cast<int64_t>(pState.iterations() * fixture.fSizes.outBytes()));
}

void BM_ReSize(benchmark::State& pState) {
  runReSize(pState);
}

// The same kernel again, paired with libyuv for the ratio script.
void BM_ReSizeVsLibyuv(benchmark::State& pState) {
  runReSize(pState);
}

// The kernels in use against the reference kernels.
void BM_ReSizeVector(benchmark::State& pState) {
  runReSize(pState);
}

void BM_ReSizeVector_Reference(benchmark::State& pState) {
  OX::resamplingkernels::forceKernelsForTesting(OX::KernelVariant::kReference);
  runReSize(pState);
  OX::resamplingkernels::forceKernelsForTesting(OX::KernelVariant::kAutomatic);
}

void BM_ReSize_Reference(benchmark::State& pState) {
  const Sizes sizes = sizesOf(static_cast<int>(pState.range(0)));
  std::vector<unsigned char> source(sizes.outBytes(), 7);
  std::vector<unsigned char> target(sizes.outBytes());
  for (auto _ : pState) {
    std::memcpy(target.data(), source.data(), target.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(static_cast<int64_t>(pState.iterations() * sizes.outBytes()));
}

// libyuv has no direct RGB24 to YUY2: RGB24ToARGB then ARGBToYUY2, at the output size.
void BM_ReSizeVsLibyuv_Reference(benchmark::State& pState) {
  const Sizes sizes = sizesOf(static_cast<int>(pState.range(0)));
  const int width = sizes.fOutWidth;
  const int height = sizes.fOutHeight;
  std::vector<unsigned char> rgb(static_cast<size_t>(width) * height * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
  std::vector<unsigned char> argb(static_cast<size_t>(width) * height * 4);
  std::vector<unsigned char> yuy2(sizes.outBytes());
  for (auto _ : pState) {
    libyuv::RGB24ToARGB(rgb.data(), width * 3, argb.data(), width * 4, width, height);
    libyuv::ARGBToYUY2(argb.data(), width * 4, yuy2.data(), width * 2, width, height);
    benchmark::DoNotOptimize(yuy2.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(static_cast<int64_t>(pState.iterations() * sizes.outBytes()));
}

// The same kernel again, paired with libyuv's scaler for the ratio script.
void BM_ReSizeVsLibyuvScale(benchmark::State& pState) {
  runReSize(pState);
}

// Point sampling (kFilterNone) between the case's sizes, ARGB to ARGB, and with pConvert the
// conversion of the result to YUY2 after it: libyuv scales neither RGB24 nor YUY2 without a
// conversion of the whole input frame first.
void runArgbScale(benchmark::State& pState, bool pConvert) {
  const Sizes sizes = sizesOf(static_cast<int>(pState.range(0)));
  std::vector<unsigned char> source(static_cast<size_t>(sizes.fInWidth) * sizes.fInHeight * 4);
  for (size_t i = 0; i < source.size(); ++i) {
    source[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
  }
  std::vector<unsigned char> argb(static_cast<size_t>(sizes.fOutWidth) * sizes.fOutHeight * 4);
  std::vector<unsigned char> yuy2(sizes.outBytes());
  for (auto _ : pState) {
    libyuv::ARGBScale(source.data(), sizes.fInWidth * 4, sizes.fInWidth, sizes.fInHeight,
                      argb.data(), sizes.fOutWidth * 4, sizes.fOutWidth, sizes.fOutHeight,
                      libyuv::kFilterNone);
    if (pConvert) {
      libyuv::ARGBToYUY2(argb.data(), sizes.fOutWidth * 4, yuy2.data(), sizes.fOutWidth * 2,
                         sizes.fOutWidth, sizes.fOutHeight);
    }
    benchmark::DoNotOptimize(argb.data());
    benchmark::DoNotOptimize(yuy2.data());
    benchmark::ClobberMemory();
  }
  pState.SetBytesProcessed(static_cast<int64_t>(pState.iterations() * sizes.outBytes()));
}

void BM_ReSizeVsLibyuvScale_Reference(benchmark::State& pState) {
  runArgbScale(pState, false);
}

// The same kernel again, paired with libyuv's scaler and its conversion to YUY2: the same work.
void BM_ReSizeVsLibyuvScaleYuy2(benchmark::State& pState) {
  runReSize(pState);
}

void BM_ReSizeVsLibyuvScaleYuy2_Reference(benchmark::State& pState) {
  runArgbScale(pState, true);
}

void fixedIterations(benchmark::internal::Benchmark* pBenchmark) {
  if (const char* count = std::getenv("VI_BENCH_ITERATIONS")) {
    pBenchmark->Iterations(std::atol(count));
  }
}

// Every case, and a fixed iteration count when VI_BENCH_ITERATIONS is set.
void allCases(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->DenseRange(0, kLastCase);
  fixedIterations(pBenchmark);
}

// The cases that change the size.
void resizingCases(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->DenseRange(1, kLastCase);
  fixedIterations(pBenchmark);
}

}  // namespace

BENCHMARK(BM_ReSize)->Apply(allCases);
BENCHMARK(BM_ReSize_Reference)->Apply(allCases);
BENCHMARK(BM_ReSizeVector)->Apply(allCases);
BENCHMARK(BM_ReSizeVector_Reference)->Apply(allCases);
BENCHMARK(BM_ReSizeVsLibyuv)->Apply(allCases);
BENCHMARK(BM_ReSizeVsLibyuv_Reference)->Apply(allCases);
BENCHMARK(BM_ReSizeVsLibyuvScale)->Apply(resizingCases);
BENCHMARK(BM_ReSizeVsLibyuvScale_Reference)->Apply(resizingCases);
BENCHMARK(BM_ReSizeVsLibyuvScaleYuy2)->Apply(resizingCases);
BENCHMARK(BM_ReSizeVsLibyuvScaleYuy2_Reference)->Apply(resizingCases);
BENCHMARK_MAIN();
