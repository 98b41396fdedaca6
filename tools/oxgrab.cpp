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
#include "toolimage.h"
#include "toolsupport.h"

namespace {

using oxtools::UsageError;
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

int run(int pArgc, char** pArgv) {
  std::string url = oxtools::kDefaultUrl;
  std::string name = kProgram;
  std::string camera = "0";
  std::string resolutionText = "qvga";
  std::string colorSpaceText = "rgb";
  std::string fpsText = "15";
  std::string countText = "10";
  std::string out = "out";
  std::string prefix;
  std::string timeoutText = "5000";
  oxtools::CommandLine line(kProgram, "oxgrab [options]", kAbout);
  line.addValue("--url", "URL", &url,
                std::string("broker address (default ") + oxtools::kDefaultUrl + ")");
  line.addValue("--name", "NAME", &name, "subscriber name (default oxgrab)");
  line.addValue("--camera", "N", &camera, "camera index (default 0)");
  line.addValue("--resolution", "RES", &resolutionText,
                "qqvga, qvga, vga, 4vga or 0..3 (default qvga)");
  line.addValue("--colorspace", "CS", &colorSpaceText,
                "name or id (default rgb = 11): " + oxtools::colorSpaceNames());
  line.addValue("--fps", "N", &fpsText, "frames per second asked and paced (default 15)");
  line.addValue("--count", "N", &countText, "images to take (default 10)");
  line.addValue("--out", "DIR", &out, "folder of the PNG files, made if needed (default out)");
  line.addValue("--prefix", "P", &prefix, "file name prefix (default: NAME, made file-safe)");
  line.addValue("--timeout", "MS", &timeoutText,
                "longest wait for one image, in milliseconds (default 5000)");
  line.setEpilog(
      "resolutions: qqvga (0, 160x120), qvga (1, 320x240), vga (2, 640x480), 4vga (3, "
      "1280x960)\n"
      "examples:\n"
      "  oxgrab --count 5 --out /tmp/shots\n"
      "  oxgrab --resolution vga --colorspace yuv422 --fps 30 --count 100 --prefix run1");
  if (!line.parse(pArgc, pArgv).empty()) throw UsageError("oxgrab takes no positional argument");

  oxtools::checkUrl(url);
  if (name.empty()) throw UsageError("--name: empty name");
  const int cameraIndex = oxtools::parseInt(camera, "--camera", 0, 127);
  const int resolution = oxtools::parseResolution(resolutionText);
  if (resolution < 0) {
    throw UsageError("--resolution: unknown '" + resolutionText +
                     "' (qqvga, qvga, vga, 4vga, 0..3)");
  }
  const int colorSpace = oxtools::parseColorSpace(colorSpaceText);
  if (colorSpace < 0) {
    throw UsageError("--colorspace: unknown '" + colorSpaceText +
                     "'; known: " + oxtools::colorSpaceNames());
  }
  const int fps = oxtools::parseInt(fpsText, "--fps", 1, 1000);
  const int count = oxtools::parseInt(countText, "--count", 1, std::numeric_limits<int>::max());
  const int timeoutMs =
      oxtools::parseInt(timeoutText, "--timeout", 1, std::numeric_limits<int>::max());
  if (prefix.empty()) prefix = defaultPrefix(name);
  if (out.empty()) throw UsageError("--out: empty folder name");
  std::error_code error;
  std::filesystem::create_directories(out, error);
  if (error || !std::filesystem::is_directory(out)) {
    throw std::runtime_error("cannot make folder " + out + ": " + error.message());
  }

  oxtools::installStopHandler();
  const boost::shared_ptr<OX::OXProxy> proxy =
      oxtools::connectModule(url, oxtools::kDeviceModule, name);
  // The device may answer with another id (a second subscriber of the same name gets a suffix).
  const std::string id =
      proxy
          ->genericCall("subscribeCamera",
                        OX::OXValue::array({name, cameraIndex, resolution, colorSpace, fps}))
          .asString();
  Subscription subscription(proxy, id);
  std::printf(
      "%s: subscribed as %s (camera %d, resolution %d, %s, %d fps); ages use the wall "
      "clock shared by the processes of this machine\n",
      kProgram, id.c_str(), cameraIndex, resolution, oxtools::colorSpaceName(colorSpace).c_str(),
      fps);
  std::fflush(stdout);

  const auto period = std::chrono::microseconds(1000000 / fps);
  OX::OXImage image(1, 1, OX::kRGB, false);
  int taken = 0;
  int distinct = 0;
  int64_t lastStamp = std::numeric_limits<int64_t>::min();
  Clock::time_point first;
  Clock::time_point last;
  Clock::time_point next = Clock::now();
  try {
    while (taken < count && !oxtools::stopRequested()) {
      const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
      OX::OXValue reply = proxy->genericCall("getImageRemote", OX::OXValue::array({id}));
      // No image yet (the camera starts, or nothing was pushed): ask again shortly.
      while (!reply.isValid() && !oxtools::stopRequested()) {
        if (Clock::now() >= deadline) {
          throw std::runtime_error("no image within " + std::to_string(timeoutMs) +
                                   " ms; is a camera or oxsim delivering frames? (a simulated "
                                   "camera drops what was pushed before its first subscriber)");
        }
        oxtools::sleepUntil(Clock::now() + std::chrono::milliseconds(10));
        reply = proxy->genericCall("getImageRemote", OX::OXValue::array({id}));
      }
      if (!reply.isValid()) break;
      const int64_t now = ki::os::nowMicroseconds();
      if (!image.fromOXValue(reply)) {
        throw std::runtime_error("getImageRemote returned no image array: " +
                                 reply.toString().substr(0, 200));
      }
      last = Clock::now();
      if (taken == 0) first = last;
      const bool repeated = image.fTimeStamp == lastStamp;
      if (!repeated) ++distinct;
      lastStamp = image.fTimeStamp;

      oxtools::RgbImage rgb;
      if (!oxtools::toRgb(image.fData, image.getSize(), image.fWidth, image.fHeight,
                          image.fColorSpace, rgb)) {
        throw std::runtime_error("cannot convert an image of colour space " +
                                 std::to_string(image.fColorSpace) + " to RGB");
      }
      char file[32];
      std::snprintf(file, sizeof file, "_%04d.png", taken);
      const std::string path = (std::filesystem::path(out) / (prefix + file)).string();
      oxtools::writePng(path, rgb);
      std::printf("%s: %s %dx%d %s camera %d age %.1f ms%s\n", kProgram, path.c_str(), image.fWidth,
                  image.fHeight, oxtools::colorSpaceName(image.fColorSpace).c_str(),
                  static_cast<int>(image.fCameraId), (now - image.fTimeStamp) / 1000.0,
                  repeated ? " (same frame as before)" : "");
      std::fflush(stdout);
      // Pacing starts from the first image: the camera's start-up is no debt to catch up on.
      if (taken++ == 0) next = Clock::now();
      next += period;
      if (next < Clock::now()) next = Clock::now();
      if (taken < count) oxtools::sleepUntil(next);
    }
  } catch (const std::exception&) {
    // A signal may cut a call short (the remote proxy then throws zmq's "Interrupted system
    // call"); stopping is what was asked for.
    if (!oxtools::stopRequested()) throw;
  }
  const double span = std::chrono::duration<double>(last - first).count();
  if (taken > 1 && span > 0) {
    std::printf("%s: %d images (%d distinct frames) at %.1f images/s\n", kProgram, taken, distinct,
                (taken - 1) / span);
  } else {
    std::printf("%s: %d images (%d distinct frames)\n", kProgram, taken, distinct);
  }
  if (oxtools::stopRequested())
    std::printf("%s: stopped, unsubscribing %s\n", kProgram, id.c_str());
  return oxtools::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  return oxtools::runTool(kProgram, [&] { return run(argc, argv); });
}
