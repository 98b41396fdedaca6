// oxgrab: a sample vision module. It subscribes to a camera of OXVideoDevice, takes a number of
// images with getImageRemote, converts each to RGB and writes it as a PNG file, then
// unsubscribes, also when stopped by Ctrl-C or SIGTERM.
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include "kios.h"
#include "oxbroker.h"
#include "oxerror.h"
#include "oximage.h"
#include "oxtypes.h"
#include "oxvalue.h"
#include "toolcommandline.h"
#include "toolimage.h"
#include "toolsupport.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kProgram = "oxgrab";

const char* const kAbout =
    "Subscribes NAME to camera N of OXVideoDevice (subscribeCamera), takes COUNT images with\n"
    "getImageRemote at about FPS images a second, converts each to RGB and writes it as\n"
    "DIR/<prefix>_<NNNN>.png, then unsubscribes (also on Ctrl-C / SIGTERM).\n"
    "For each image it prints its size, colour space and age: now minus the image's time stamp.\n"
    "The device stamps frames with the wall clock (gettimeofday, via ki::os), which every\n"
    "process of one machine shares, so the age is meaningful on the broker's machine only (and\n"
    "is off while the clock is being stepped). At the end it prints the rate achieved.\n"
    "The hue colour spaces (Hsy, hsy, hsmixed) carry no complete colour: their PNG is an\n"
    "approximation. Exit status: 0 success or stopped, 1 bad command line, 2 error from the\n"
    "broker or the device, or no image within the timeout.";

const char* const kEpilog =
    "resolutions: qqvga (0, 160x120), qvga (1, 320x240), vga (2, 640x480), 4vga (3, 1280x960)\n"
    "examples:\n"
    "  oxgrab --count 5 --out /tmp/shots\n"
    "  oxgrab --resolution vga --colorspace yuv422 --fps 30 --count 100 --prefix run1";

std::string defaultPrefix(const std::string& pName) {
  std::string prefix = pName;
  for (char& c : prefix) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
  }
  return prefix;
}

class Subscription {
 public:
  Subscription(boost::shared_ptr<OX::OXProxy> pProxy, std::string pId)
      : fProxy(std::move(pProxy)), fId(std::move(pId)) {}
  ~Subscription() {
    // Whatever ended the run: leaving a subscriber behind would keep the device busy for it.
    try {
      fProxy->genericCall("unsubscribe", OX::OXValue::array({fId}));
    } catch (const std::exception& error) {
      std::cerr << kProgram << ": could not unsubscribe " << fId << ": " << error.what() << "\n";
    }
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

 private:
  boost::shared_ptr<OX::OXProxy> fProxy;
  std::string fId;
};

struct Options {
  std::string url = oxtools::kDefaultUrl;
  OX::ConnectOptions keys;  // --server-key, --client-key, --shared-memory
  std::string name = kProgram;
  int camera = 0;
  int resolution = OX::kQVGA;
  int colorSpace = OX::kRGB;
  int fps = 15;
  int count = 10;
  std::string out = "out";
  std::string prefix;
  int timeoutMs = 5000;
};

// Accepts a name or a number as pParse does and hands the number on, so that the option's value
// is the device's id.
CLI::Validator byName(int (*pParse)(const std::string&), const std::string& pKnown) {
  return CLI::Validator(
      [pParse, pKnown](std::string& pText) -> std::string {
        const int value = pParse(pText);
        if (value < 0) return "unknown '" + pText + "'; known: " + pKnown;
        pText = std::to_string(value);
        return "";
      },
      "");
}

void declare(oxtools::CommandLine& pLine, Options& pOptions) {
  constexpr int kMax = std::numeric_limits<int>::max();
  pLine.addUrl(pOptions.url);
  pLine.addConnectOptions(pOptions.keys);
  pLine.addClientName(pOptions.name, "subscriber name");
  pLine.addNumber("--camera", pOptions.camera, "N", "camera index", 0, 127);
  pLine.add_option("--resolution", pOptions.resolution, "qqvga, qvga, vga, 4vga or 0..3")
      ->type_name("RES")
      ->default_str("qvga")
      ->transform(byName(oxtools::parseResolution, "qqvga, qvga, vga, 4vga, 0..3"));
  pLine
      .add_option("--colorspace", pOptions.colorSpace, "name or id: " + oxtools::colorSpaceNames())
      ->type_name("CS")
      ->default_str("rgb = 11")
      ->transform(byName(oxtools::parseColorSpace, oxtools::colorSpaceNames()));
  pLine.addNumber("--fps", pOptions.fps, "N", "frames per second asked and paced", 1, 1000);
  pLine.addNumber("--count", pOptions.count, "N", "images to take", 1, kMax);
  pLine.add_option("--out", pOptions.out, "folder of the PNG files, made if needed")
      ->type_name("DIR")
      ->capture_default_str()
      ->check(oxtools::kNonEmpty);
  pLine.add_option("--prefix", pOptions.prefix, "file name prefix")
      ->type_name("P")
      ->default_str("NAME, made file-safe");
  pLine.addNumber("--timeout", pOptions.timeoutMs, "MS",
                  "longest wait for one image, in milliseconds", 1, kMax);
  pLine.addLogOptions();
}

// Takes images, saves them and keeps the numbers of the summary.
class Grabber {
 public:
  Grabber(const Options& pOptions, boost::shared_ptr<OX::OXProxy> pProxy, std::string pId)
      : fOptions(pOptions), fProxy(std::move(pProxy)), fId(std::move(pId)) {}

  // One image: fetched, saved and paced. False once the count is reached or a stop came.
  bool step() {
    if (!fetch()) return false;
    const int64_t now = ki::os::nowMicroseconds();
    fLast = Clock::now();
    if (fTaken == 0) fFirst = fLast;
    const bool repeated = fImage.fTimeStamp == fLastStamp;
    if (!repeated) ++fDistinct;
    fLastStamp = fImage.fTimeStamp;
    save(now, repeated);
    // Pacing starts from the first image: the camera's start-up is no debt to catch up on.
    if (fTaken++ == 0) fNext = Clock::now();
    fNext += std::chrono::microseconds(1000000 / fOptions.fps);
    if (fNext < Clock::now()) fNext = Clock::now();
    return fTaken < fOptions.count && oxtools::sleepUntil(fNext);
  }

  void printSummary() const {
    const double span = std::chrono::duration<double>(fLast - fFirst).count();
    if (fTaken > 1 && span > 0) {
      std::printf("%s: %d images (%d distinct frames) at %.1f images/s\n", kProgram, fTaken,
                  fDistinct, (fTaken - 1) / span);
    } else {
      std::printf("%s: %d images (%d distinct frames)\n", kProgram, fTaken, fDistinct);
    }
  }

 private:
  // The next image into fImage; false when a stop came first. An invalid answer means no image
  // yet (the camera starts, or nothing was pushed): ask again shortly, up to the timeout.
  bool fetch() {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(fOptions.timeoutMs);
    OX::OXValue reply = fProxy->genericCall("getImageRemote", OX::OXValue::array({fId}));
    while (!reply.isValid() && !oxtools::stopRequested()) {
      if (Clock::now() >= deadline) {
        throw std::runtime_error("no image within " + std::to_string(fOptions.timeoutMs) +
                                 " ms; is a camera or oxsim delivering frames? (a simulated "
                                 "camera drops what was pushed before its first subscriber)");
      }
      oxtools::sleepUntil(Clock::now() + std::chrono::milliseconds(10));
      reply = fProxy->genericCall("getImageRemote", OX::OXValue::array({fId}));
    }
    if (!reply.isValid()) return false;
    if (!fImage.fromOXValue(reply)) {
      throw std::runtime_error("getImageRemote returned no image array: " +
                               reply.toString().substr(0, 200));
    }
    return true;
  }

  // Converts fImage to RGB, writes it as the next PNG file and prints one line about it.
  void save(int64_t pNow, bool pRepeated) {
    oxtools::RgbImage rgb;
    if (!oxtools::toRgb(fImage.fData, fImage.getSize(), fImage.fWidth, fImage.fHeight,
                        fImage.fColorSpace, rgb)) {
      throw std::runtime_error("cannot convert an image of colour space " +
                               std::to_string(fImage.fColorSpace) + " to RGB");
    }
    char file[32];
    std::snprintf(file, sizeof file, "_%04d.png", fTaken);
    const std::string path =
        (std::filesystem::path(fOptions.out) / (fOptions.prefix + file)).string();
    oxtools::writePng(path, rgb);
    std::printf("%s: %s %dx%d %s camera %d age %.1f ms%s\n", kProgram, path.c_str(), fImage.fWidth,
                fImage.fHeight, oxtools::colorSpaceName(fImage.fColorSpace).c_str(),
                static_cast<int>(fImage.fCameraId), (pNow - fImage.fTimeStamp) / 1000.0,
                pRepeated ? " (same frame as before)" : "");
    std::fflush(stdout);
  }

  const Options& fOptions;
  boost::shared_ptr<OX::OXProxy> fProxy;
  std::string fId;
  OX::OXImage fImage{1, 1, OX::kRGB, false};
  int fTaken = 0;
  int fDistinct = 0;
  int64_t fLastStamp = std::numeric_limits<int64_t>::min();
  Clock::time_point fFirst;
  Clock::time_point fLast;
  Clock::time_point fNext;
};

int run(Options& pOptions) {
  if (pOptions.prefix.empty()) pOptions.prefix = defaultPrefix(pOptions.name);
  std::error_code error;
  std::filesystem::create_directories(pOptions.out, error);
  if (error || !std::filesystem::is_directory(pOptions.out)) {
    throw std::runtime_error("cannot make folder " + pOptions.out + ": " + error.message());
  }

  oxtools::installStopHandler();
  const boost::shared_ptr<OX::OXProxy> proxy =
      oxtools::connectModule(pOptions.url, oxtools::kDeviceModule, pOptions.name, pOptions.keys);
  // The device may answer with another id (a second subscriber of the same name gets a suffix).
  const std::string id =
      proxy
          ->genericCall("subscribeCamera",
                        OX::OXValue::array({pOptions.name, pOptions.camera, pOptions.resolution,
                                            pOptions.colorSpace, pOptions.fps}))
          .asString();
  Subscription subscription(proxy, id);
  std::printf(
      "%s: subscribed as %s (camera %d, resolution %d, %s, %d fps); ages use the wall "
      "clock shared by the processes of this machine\n",
      kProgram, id.c_str(), pOptions.camera, pOptions.resolution,
      oxtools::colorSpaceName(pOptions.colorSpace).c_str(), pOptions.fps);
  std::fflush(stdout);

  Grabber grabber(pOptions, proxy, id);
  oxtools::repeatUntilStopped([&grabber] { return grabber.step(); });
  grabber.printSummary();
  if (oxtools::stopRequested())
    std::printf("%s: stopped, unsubscribing %s\n", kProgram, id.c_str());
  return oxtools::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  oxtools::CommandLine line(kProgram, "oxgrab [options]", kAbout, kEpilog);
  declare(line, options);
  return line.run(argc, argv, [&options] { return run(options); });
}
