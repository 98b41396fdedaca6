// Export and import of a VGA recording (tools/media, as oxv runs them) on one core, per output
// format: 0 .mp4, 1 .mkv, 2 .avi, 3 .y4m. Each iteration converts one second of video at 30 fps;
// the counter "x_realtime" is seconds of video converted per second, the target being 10 or
// more. BM_Export_Reference reads the same frames without converting them, the floor of any
// export; BM_Import_Reference writes the recording's frames without decoding anything.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "oximage.h"
#include "oxtypes.h"
#include "oxvideo.h"
#include "recordings.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kFrames = 30;  // one second at 30 fps
constexpr int64_t kPeriod = 33333;
const char* const kExtensions[] = {".mp4", ".mkv", ".avi", ".y4m"};

// A folder of its own for the benchmark's files, removed at exit.
struct Folder {
  Folder() {
    path = (std::filesystem::temp_directory_path() /
            ("bench_media-" + std::to_string(static_cast<long>(getpid()))))
               .string();
    std::filesystem::create_directories(path);
  }
  ~Folder() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  std::string file(const std::string& pName) const { return path + "/" + pName; }
  std::string path;
};

Folder& folder() {
  static Folder instance;
  return instance;
}

// What a camera gives: smooth light, a square moving across, and sensor noise of a few levels.
std::vector<char> cameraFrame(int pIndex, uint32_t& pNoise) {
  std::vector<char> yuyv(static_cast<size_t>(kWidth) * kHeight * 2);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; x += 2) {
      const bool square = x >= pIndex * 16 && x < pIndex * 16 + 96 && y >= 160 && y < 256;
      char* pixel = &yuyv[(static_cast<size_t>(y) * kWidth + x) * 2];
      for (int i = 0; i < 2; ++i) {
        pNoise = pNoise * 1664525u + 1013904223u;
        const int noise = static_cast<int>(pNoise >> 29) - 4;  // -4 to 3
        const int luma = square ? 210 : 40 + 150 * (x + y) / (kWidth + kHeight);
        pixel[i * 2] = static_cast<char>(luma + noise);
      }
      pixel[1] = static_cast<char>(square ? 90 : 110 + 30 * x / kWidth);
      pixel[3] = static_cast<char>(square ? 160 : 140 - 30 * y / kHeight);
    }
  }
  return yuyv;
}

// The VGA kYUV422 recording of one second that every benchmark starts from.
const std::string& recording() {
  static const std::string path = [] {
    const std::string file = folder().file("camera.oxv");
    OX::OXVideo video;
    video.recordVideo(file, 0, {{kWidth, kHeight, OX::kYUV422, 8}});
    uint32_t noise = 12345;
    for (int i = 0; i < kFrames; ++i) {
      const std::vector<char> frame = cameraFrame(i, noise);
      video.write(frame.data(), static_cast<int>(frame.size()), 1700000000000000 + i * kPeriod, 0,
                  0, 0, 0, 0);
    }
    video.closeVideo();
    return file;
  }();
  return path;
}

void report(benchmark::State& pState) {
  pState.counters["x_realtime"] =
      benchmark::Counter(static_cast<double>(pState.iterations()) * kFrames * kPeriod / 1e6,
                         benchmark::Counter::kIsRate);
  pState.SetItemsProcessed(pState.iterations() * kFrames);
}

void BM_Export(benchmark::State& pState) {
  const std::string extension = kExtensions[pState.range(0)];
  const std::string output = folder().file("export" + extension);
  oxmedia::ExportOptions options;
  options.fThreads = 1;
  for (auto _ : pState) oxmedia::exportRecording(recording(), output, options, {});
  pState.SetLabel(extension);
  report(pState);
}

void BM_Export_Reference(benchmark::State& pState) {
  OX::OXImage image(kWidth, kHeight, OX::kYUV422, false);
  for (auto _ : pState) {
    OX::OXVideo video;
    video.readVideo(recording());
    for (int i = 0; i < kFrames; ++i) benchmark::DoNotOptimize(video.getFrame(&image, i, 0, false));
  }
  report(pState);
}

void BM_Import(benchmark::State& pState) {
  const std::string extension = kExtensions[pState.range(0)];
  const std::string source = folder().file("source" + extension);
  oxmedia::ExportOptions exportOptions;
  exportOptions.fThreads = 1;
  oxmedia::exportRecording(recording(), source, exportOptions, {});
  oxmedia::ImportOptions options;
  options.fThreads = 1;
  for (auto _ : pState) oxmedia::importVideo(source, folder().file("import.oxv"), options, {});
  pState.SetLabel(extension);
  report(pState);
}

void BM_Import_Reference(benchmark::State& pState) {
  for (auto _ : pState)
    oxmedia::cutRecording(recording(), folder().file("copy.oxv"), {}, false, {});
  report(pState);
}

}  // namespace

BENCHMARK(BM_Export)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Export_Reference)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Import)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Import_Reference)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
