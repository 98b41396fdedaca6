// The simulator camera's resampling (the kernels' plane loops, without the camera) at four
// typical pairs of sizes, against a memcpy of the output (BM_ReSize_Reference), against the plain
// reference kernels (BM_ReSizeVector_Reference) and against libyuv's RGB24 to YUY2 path at the
// output size (BM_ReSizeVsLibyuv_Reference). libyuv is not bit-exact to our formula and does not
// resample here: it is a speed reference only. MB/s are bytes of output. VI_BENCH_ITERATIONS
// fixes the iteration count (scripts/bench-instructions).
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernels/resampling.h"
#include "oxtypes.h"

namespace {

// 0: 640x480 into 640x480, 1: 1280x960 into 160x120, 2: 160x120 into 1280x960, 3: 1280x960
// into 640x480; then the ratio the camera resamples by (positive decimates, negative replicates,
// 0 keeps the size).
constexpr int kCases[][3] = {{OX::kVGA, OX::kVGA, 0},
                             {OX::k4VGA, OX::kQQVGA, 8},
                             {OX::kQQVGA, OX::k4VGA, -8},
                             {OX::k4VGA, OX::kVGA, 2}};
constexpr int kLastCase = 3;

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

// Every case, and a fixed iteration count when VI_BENCH_ITERATIONS is set.
void allCases(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->DenseRange(0, kLastCase);
  if (const char* count = std::getenv("VI_BENCH_ITERATIONS")) {
    pBenchmark->Iterations(std::atol(count));
  }
}

}  // namespace

BENCHMARK(BM_ReSize)->Apply(allCases);
BENCHMARK(BM_ReSize_Reference)->Apply(allCases);
BENCHMARK(BM_ReSizeVector)->Apply(allCases);
BENCHMARK(BM_ReSizeVector_Reference)->Apply(allCases);
BENCHMARK(BM_ReSizeVsLibyuv)->Apply(allCases);
BENCHMARK(BM_ReSizeVsLibyuv_Reference)->Apply(allCases);
BENCHMARK_MAIN();
