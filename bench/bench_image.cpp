// The copy that a remote image reply costs: OXImage::toOXValue against a plain memcpy of the
// same pixels.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "oximage.h"
#include "oxtypes.h"

namespace {

void BM_ToOXValue(benchmark::State& pState) {
  OX::OXImage image(static_cast<int>(pState.range(0)), OX::kRGB);
  std::memset(image.fData, 7, static_cast<size_t>(image.getSize()));
  for (auto _ : pState) {
    OX::OXValue value = image.toOXValue();
    benchmark::DoNotOptimize(value);
  }
  pState.SetBytesProcessed(pState.iterations() * image.getSize());
}

void BM_ToOXValue_Reference(benchmark::State& pState) {
  OX::OXImage image(static_cast<int>(pState.range(0)), OX::kRGB);
  std::memset(image.fData, 7, static_cast<size_t>(image.getSize()));
  for (auto _ : pState) {
    std::vector<unsigned char> copy(image.fData, image.fData + image.getSize());
    benchmark::DoNotOptimize(copy.data());
  }
  pState.SetBytesProcessed(pState.iterations() * image.getSize());
}

}  // namespace

BENCHMARK(BM_ToOXValue)->Arg(OX::kQVGA)->Arg(OX::kVGA)->Arg(OX::k4VGA);
BENCHMARK(BM_ToOXValue_Reference)->Arg(OX::kQVGA)->Arg(OX::kVGA)->Arg(OX::k4VGA);
BENCHMARK_MAIN();
