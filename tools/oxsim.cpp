// oxsim: feeds the device's simulated camera with frames through its published putImage, at a
// steady rate: a drawn scene a person can recognise, the PNG files of a folder, or any video that
// FFmpeg reads.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxerror.h"
#include "oxtypes.h"
#include "oxvalue.h"
#include "media.h"
#include "recordings.h"
#include "toolcommandline.h"
#include "toolimage.h"
#include "toolsupport.h"

namespace {

using oxtools::RgbImage;
using oxtools::UsageError;
using Clock = std::chrono::steady_clock;

constexpr const char* kProgram = "oxsim";

const char* const kAbout =
    "Pushes frames into camera N of OXVideoDevice with putImage(camera, width, height, rgb)\n"
    "at a steady rate until --frames are sent or Ctrl-C / SIGTERM (exit 0).\n"
    "The default scene: a gradient, a bouncing red disc, a sliding blue square and the frame\n"
    "number in big digits. The device takes 160x120, 320x240, 640x480 and 1280x960 only.\n"
    "With --png-dir, the .png files of DIR are sent in name order, looping; all must have one\n"
    "of those sizes, the same for every file. With --input, the frames of any video FFmpeg\n"
    "reads, scaled to the nearest of those sizes (or --size), at the video's own pace (or\n"
    "--fps), once or with --loop over and over. Prints the frames pushed and the rate achieved\n"
    "every second unless --quiet. Exit status: 0 done or stopped, 1 bad command line or\n"
    "unusable PNG folder, 2 error from the broker or the device, or every frame refused.";

const char* const kEpilog =
    "examples:\n"
    "  oxsim --size 320x240 --fps 15\n"
    "  oxsim --frames 100 --quiet\n"
    "  oxsim --url tcp://robot.local:7761 --camera 1 --png-dir ./frames\n"
    "  oxsim --input walk.mp4 --loop";

void checkAccepted(int pWidth, int pHeight, const std::string& pWhat) {
  // The simulated camera takes exactly the sizes of the four resolutions.
  if (OX::getResolutionFromSize(pWidth, pHeight) >= 0) return;
  throw UsageError(pWhat + " is " + std::to_string(pWidth) + "x" + std::to_string(pHeight) +
                   "; the device takes 160x120, 320x240, 640x480 or 1280x960 only");
}

// 5x7 digits, one byte per row, bit 4 the leftmost column.
constexpr unsigned char kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};

class Scene {
 public:
  Scene(int pWidth, int pHeight) {
    fImage.fWidth = pWidth;
    fImage.fHeight = pHeight;
    fImage.fPixels.resize(static_cast<size_t>(pWidth) * pHeight * 3);
  }

  // The picture at pSeconds of simulated time, showing pNumber.
  const RgbImage& draw(double pSeconds, long long pNumber) {
    const int w = fImage.fWidth;
    const int h = fImage.fHeight;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        set(x, y, 40 + 120 * x / w, 60 + 140 * y / h, 200 - 100 * y / h);
      }
    }
    // A sliding blue square along the bottom, a red disc bouncing in both directions.
    const int side = std::max(4, h / 6);
    const int squareX = static_cast<int>(bounce(pSeconds * w * 0.25, w - side));
    fill(squareX, h - side - h / 20, side, side, 30, 60, 230);
    const int radius = std::max(3, h / 8);
    const double cx = radius + bounce(pSeconds * w * 0.4, w - 2 * radius);
    const double cy = radius + bounce(pSeconds * h * 0.55, h - 2 * radius);
    for (int y = static_cast<int>(cy) - radius; y <= static_cast<int>(cy) + radius; ++y) {
      for (int x = static_cast<int>(cx) - radius; x <= static_cast<int>(cx) + radius; ++x) {
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= radius * radius) set(x, y, 230, 30, 30);
      }
    }
    // The frame number, white with a dark shadow, at the top left.
    const std::string text = std::to_string(pNumber);
    const int scale = std::max(2, h / 48);
    for (size_t i = 0; i < text.size(); ++i) {
      const int left = scale * 2 + static_cast<int>(i) * 6 * scale;
      digit(text[i] - '0', left + scale / 2 + 1, scale * 2 + scale / 2 + 1, scale, 0);
      digit(text[i] - '0', left, scale * 2, scale, 255);
    }
    return fImage;
  }

 private:
  // A position moving at pDistance along 0..pRange and back.
  static double bounce(double pDistance, int pRange) {
    if (pRange <= 0) return 0.0;
    const double phase = std::fmod(pDistance, 2.0 * pRange);
    return phase < pRange ? phase : 2.0 * pRange - phase;
  }

  void set(int pX, int pY, int pR, int pG, int pB) {
    if (pX < 0 || pY < 0 || pX >= fImage.fWidth || pY >= fImage.fHeight) return;
    unsigned char* pixel = &fImage.fPixels[(static_cast<size_t>(pY) * fImage.fWidth + pX) * 3];
    pixel[0] = static_cast<unsigned char>(pR);
    pixel[1] = static_cast<unsigned char>(pG);
    pixel[2] = static_cast<unsigned char>(pB);
  }

  void fill(int pX, int pY, int pW, int pH, int pR, int pG, int pB) {
    for (int y = pY; y < pY + pH; ++y) {
      for (int x = pX; x < pX + pW; ++x) set(x, y, pR, pG, pB);
    }
  }

  void digit(int pDigit, int pX, int pY, int pScale, int pGrey) {
    for (int row = 0; row < 7; ++row) {
      for (int column = 0; column < 5; ++column) {
        if ((kDigits[pDigit][row] >> (4 - column)) & 1) {
          fill(pX + column * pScale, pY + row * pScale, pScale, pScale, pGrey, pGrey, pGrey);
        }
      }
    }
  }

  RgbImage fImage;
};

// The .png files of a folder in name order, all checked for one accepted size up front.
std::vector<std::string> pngFiles(const std::string& pFolder, int& pWidth, int& pHeight) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::is_directory(pFolder, error)) throw UsageError("--png-dir: no folder " + pFolder);
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(pFolder, error)) {
    std::string extension = entry.path().extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (entry.is_regular_file() && extension == ".png") files.push_back(entry.path().string());
  }
  if (error) throw UsageError("--png-dir: cannot list " + pFolder + ": " + error.message());
  if (files.empty()) throw UsageError("--png-dir: no .png file in " + pFolder);
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) {
    int width = 0;
    int height = 0;
    try {
      oxtools::readPngSize(file, width, height);
    } catch (const std::runtime_error& failure) {
      throw UsageError(std::string("--png-dir: ") + failure.what());
    }
    if (&file == &files.front()) {
      checkAccepted(width, height, file);
      pWidth = width;
      pHeight = height;
    } else if (width != pWidth || height != pHeight) {
      throw UsageError(file + " is " + std::to_string(width) + "x" + std::to_string(height) +
                       " but " + files.front() + " is " + std::to_string(pWidth) + "x" +
                       std::to_string(pHeight) + "; every file must have the same size");
    }
  }
  return files;
}

struct Options {
  std::string url = oxtools::kDefaultUrl;
  OX::ConnectOptions keys;  // --server-key, --client-key, --shared-memory
  int camera = 0;
  std::string size = "640x480";
  double fps = 30;
  int frames = 0;  // 0: until stopped
  std::string pngDir;
  std::string input;  // a video file
  bool loop = false;
  bool quiet = false;
  bool sizeGiven = false;  // --size must then match the PNG files, or is the video's size
  bool fpsGiven = false;   // a video then goes at --fps rather than at its own pace
};

void declare(oxtools::CommandLine& pLine, Options& pOptions) {
  pLine.addUrl(pOptions.url);
  pLine.addConnectOptions(pOptions.keys);
  pLine.addNumber("--camera", pOptions.camera, "N", "camera index", 0, 127);
  pLine.add_option("--size", pOptions.size, "frame size of the drawn scene")
      ->type_name("WxH")
      ->capture_default_str()
      ->check(oxtools::kFrameSize);
  pLine.add_option("--fps", pOptions.fps, "frames per second, may be fractional")
      ->type_name("F")
      ->default_str("30")
      ->check(CLI::Validator(
          [](const std::string& pText) -> std::string {
            double value = 0;
            return oxtools::readNumber(pText, value) && value > 0.0 && value <= 1e6
                       ? ""
                       : "expected a positive number, got '" + pText + "'";
          },
          ""));
  pLine
      .addNumber("--frames", pOptions.frames, "N", "stop after N frames", 1,
                 std::numeric_limits<int>::max())
      ->default_str("run until stopped");
  CLI::Option* pngDir = pLine
                            .add_option("--png-dir", pOptions.pngDir,
                                        "send the PNG files of DIR instead of the scene")
                            ->type_name("DIR")
                            ->check(oxtools::kNonEmpty);
  CLI::Option* input =
      pLine
          .add_option("--input", pOptions.input,
                      "send the frames of a video instead of the scene, scaled to the nearest "
                      "size the device takes, at the video's own pace unless --fps is given")
          ->type_name("VIDEO")
          ->check(oxtools::kNonEmpty)
          ->excludes(pngDir);
  pLine.add_flag("--loop", pOptions.loop, "start the video again at its end")->needs(input);
  pLine.add_flag("--quiet", pOptions.quiet, "print nothing but errors");
  pLine.addLogOptions();
}

// The frames of a video, decoded and scaled to the size the device takes that is nearest to the
// video's (or --size), with their times: the video's own, or those of --fps.
class VideoSource {
 public:
  explicit VideoSource(const Options& pOptions)
      : fReader(pOptions.input), fLoop(pOptions.loop), fOwnPace(!pOptions.fpsGiven) {
    if (pOptions.sizeGiven) {
      oxtools::parseSize(pOptions.size, fImage.fWidth, fImage.fHeight);
      checkAccepted(fImage.fWidth, fImage.fHeight, "--size");
    } else {
      OX::setSizeFromResolution(oxmedia::nearestResolution(fReader.width(), fReader.height()),
                                fImage.fWidth, fImage.fHeight);
    }
    fImage.fPixels.resize(
        oxmedia::frameBytes(oxmedia::Layout::kRGB, fImage.fWidth, fImage.fHeight));
  }

  int width() const { return fImage.fWidth; }
  int height() const { return fImage.fHeight; }

  // The next frame, null at the end of a video that does not loop. pSeconds holds the frame's
  // time by --fps; at the video's own pace it becomes the video's time, running on across loops.
  const RgbImage* next(double& pSeconds) {
    int64_t time = 0;
    if (!fReader.next(fImage.fPixels.data(), width(), height(), oxmedia::Layout::kRGB, time)) {
      if (!fLoop || fPerPass == 0) return nullptr;
      // A pass lasts up to its last frame and one interval more.
      fOffset += fLastTime + (fPerPass > 1 ? fLastTime / (fPerPass - 1) : 0);
      fReader.rewind();
      fPerPass = 0;
      if (!fReader.next(fImage.fPixels.data(), width(), height(), oxmedia::Layout::kRGB, time)) {
        return nullptr;
      }
    }
    ++fPerPass;
    fLastTime = time;
    if (fOwnPace) pSeconds = static_cast<double>(fOffset + time) / 1e6;
    return &fImage;
  }

 private:
  oxmedia::VideoReader fReader;
  bool fLoop;
  bool fOwnPace;
  RgbImage fImage;
  int64_t fOffset = 0;    // microseconds of the passes before this one
  int64_t fLastTime = 0;  // time of the last frame read in this pass
  int64_t fPerPass = 0;   // frames read in this pass
};

// The frames to send: the drawn scene, the PNG files of --png-dir in turn, or a video's frames.
class FrameSource {
 public:
  explicit FrameSource(const Options& pOptions) : fRate(pOptions.fps) {
    if (!pOptions.input.empty()) {
      fVideo = std::make_unique<VideoSource>(pOptions);
      fWidth = fVideo->width();
      fHeight = fVideo->height();
    } else if (!pOptions.pngDir.empty()) {
      fFiles = pngFiles(pOptions.pngDir, fWidth, fHeight);
      int width = 0;
      int height = 0;
      oxtools::parseSize(pOptions.size, width, height);
      if (pOptions.sizeGiven && (width != fWidth || height != fHeight)) {
        throw UsageError("--size " + pOptions.size + " differs from the size of the PNG files");
      }
    } else {
      oxtools::parseSize(pOptions.size, fWidth, fHeight);
      checkAccepted(fWidth, fHeight, "--size");
    }
    fScene = std::make_unique<Scene>(fWidth, fHeight);
  }

  int width() const { return fWidth; }
  int height() const { return fHeight; }

  // Frame pNumber and its time in seconds from the first; null when a video has ended.
  const RgbImage* frame(long long pNumber, double& pSeconds) {
    pSeconds = static_cast<double>(pNumber) / fRate;
    if (fVideo) return fVideo->next(pSeconds);
    if (fFiles.empty()) return &fScene->draw(pSeconds, pNumber);
    fLoaded = oxtools::readPng(fFiles[static_cast<size_t>(pNumber) % fFiles.size()]);
    return &fLoaded;
  }

 private:
  double fRate;
  std::unique_ptr<VideoSource> fVideo;
  int fWidth = 0;
  int fHeight = 0;
  std::vector<std::string> fFiles;
  std::unique_ptr<Scene> fScene;
  RgbImage fLoaded;
};

// Pushes frames on the schedule of their times and keeps the numbers of the reports.
class Pusher {
 public:
  Pusher(const Options& pOptions, FrameSource& pSource, boost::shared_ptr<OX::OXProxy> pProxy)
      : fOptions(pOptions), fSource(pSource), fProxy(std::move(pProxy)) {}

  // One frame paced, pushed and reported. False once --frames are sent, the video has ended, or
  // a stop came.
  bool step() {
    double seconds = 0.0;
    const RgbImage* image = fSource.frame(fFrame, seconds);
    if (image == nullptr) return false;
    // The interval since the frame before; after a stall the schedule restarts from now instead
    // of bursting to catch up.
    const Clock::duration interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(0.0, seconds - fLastSeconds)));
    fLastSeconds = seconds;
    fNext += interval;
    if (fNext + interval < Clock::now()) fNext = Clock::now();
    if (!oxtools::sleepUntil(fNext)) return false;
    push(*image);
    const Clock::time_point now = Clock::now();
    if (!fOptions.quiet && now - fLastReport >= std::chrono::seconds(1)) report(now);
    ++fFrame;
    return fOptions.frames == 0 || fFrame < fOptions.frames;
  }

  void printSummary() const {
    if (fOptions.quiet) return;
    const double span = std::chrono::duration<double>(Clock::now() - fStart).count();
    std::printf("%s: done, %lld frames pushed in %.1f s (%.1f fps)%s\n", kProgram, fPushed, span,
                span > 0 ? fPushed / span : 0.0, refusedText().c_str());
  }

  int exitCode() const {
    return fPushed == 0 && fRefused > 0 ? oxtools::kExitFailure : oxtools::kExitOk;
  }

 private:
  void push(const RgbImage& pImage) {
    const OX::OXValue arguments = OX::OXValue::array(
        {fOptions.camera, fSource.width(), fSource.height(),
         OX::OXValue::binary(pImage.fPixels.data(), static_cast<int>(pImage.fPixels.size()))});
    const OX::OXValue accepted = fProxy->genericCall("putImage", arguments);
    if (accepted.isBool() && accepted.asBool()) {
      ++fPushed;
    } else if (fRefused++ == 0) {
      std::cerr << kProgram << ": the device refused a frame (camera " << fOptions.camera << ", "
                << fSource.width() << "x" << fSource.height() << ")\n";
    }
  }

  void report(Clock::time_point pNow) {
    const double span = std::chrono::duration<double>(pNow - fLastReport).count();
    std::printf("%s: %lld frames pushed, %.1f fps%s\n", kProgram, fPushed,
                (fPushed - fPushedAtReport) / span, refusedText().c_str());
    std::fflush(stdout);
    fLastReport = pNow;
    fPushedAtReport = fPushed;
  }

  std::string refusedText() const {
    return fRefused > 0 ? ", " + std::to_string(fRefused) + " refused" : "";
  }

  const Options& fOptions;
  FrameSource& fSource;
  boost::shared_ptr<OX::OXProxy> fProxy;
  double fLastSeconds = 0.0;
  const Clock::time_point fStart = Clock::now();
  Clock::time_point fNext = fStart;
  Clock::time_point fLastReport = fStart;
  long long fFrame = 0;
  long long fPushed = 0;
  long long fRefused = 0;
  long long fPushedAtReport = 0;
};

int run(const Options& pOptions) {
  FrameSource source(pOptions);
  oxtools::installStopHandler();
  Pusher pusher(
      pOptions, source,
      oxtools::connectModule(pOptions.url, oxtools::kDeviceModule, kProgram, pOptions.keys));
  oxtools::repeatUntilStopped([&pusher] { return pusher.step(); });
  pusher.printSummary();
  return pusher.exitCode();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  oxtools::CommandLine line(kProgram, "oxsim [options]", kAbout, kEpilog);
  declare(line, options);
  return line.run(argc, argv, [&] {
    options.sizeGiven = line.count("--size") > 0;
    options.fpsGiven = line.count("--fps") > 0;
    return run(options);
  });
}
