// libFuzzer target of the published methods: each input is a short session of calls, each call a
// publication chosen from a device's own method table with arguments made from the input, made
// through the broker's call glue on an in-process simulator camera or file camera. Every call must
// end in a value or in an OXError in our words; a crash, a sanitizer report, a library's text or
// any other exception is a finding.
//
// Input, read front to back (missing bytes read as 0): per call one byte (bit 0 the camera, bits
// 1-2 one argument fewer or more when 2 or 3), one byte (the publication, modulo the table), then
// per argument one selector byte: below 200 a value of the declared type from the table of edges
// below, 200 to 239 a value of that type made from the following bytes, 240 and up a value of any
// kind made from the following bytes.
//
// The working directory is a fresh one under /tmp: directories given to libFuzzer and to
// FUZZ_CALLS_SEEDS must be absolute. FUZZ_CALLS_SEEDS=DIR fuzz_calls writes the publication sweep's
// calls as seeds into DIR: for every publication of both cameras, each argument in turn at each
// edge, the others at edge 0.
#include <unistd.h>

#include <atomic>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <boost/filesystem.hpp>
#include <fstream>
#include <string>
#include <vector>

#include "cameras/file/oxvisionfilecam.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"
#include "kilog.h"
#include "kios.h"
#include "oxbroker.h"
#include "oxerror.h"
#include "oxtypes.h"
#include "oxvideo.h"

namespace {

using OX::OXValue;

// Texts of the standard library or the compiler's runtime: none may reach a caller.
const char* const kForeignTexts[] = {
    "vector::",     "basic_string",     "_M_",    "std::",        "bad_alloc",
    "bad_function", "__n (which is",    "stoi",   "out_of_range", "invalid_argument",
    "length_error", "filesystem error", "map::at"};

constexpr int kCallsPerInput = 8;
constexpr int kFrameBytes = 160 * 120 * 3;
const std::string kVideo = "v.oxv";

// The file camera's video: three QQVGA kYUV422 images.
constexpr uintmax_t kVideoBytes = 32 + 3 * (36 + 160 * 120 * 2);
void writeVideo() {
  OX::OXVideo video;
  const std::vector<char> image(160 * 120 * 2, 0x40);
  bool written = video.recordVideo(kVideo, 1, {{160, 120, OX::kYUV422, 8}});
  for (int i = 0; i < 3; ++i) {
    written =
        written && video.write(image.data(), static_cast<int>(image.size()), i, 0, 0, 0, 0, 0);
  }
  video.closeVideo();
  if (!written) {
    std::fprintf(stderr, "fuzz_calls: cannot write %s\n", kVideo.c_str());
    std::abort();
  }
}

// A QQVGA frame as the simulator pushes it.
const OXValue& frame() {
  static const OXValue bytes =
      OXValue::binary(std::vector<unsigned char>(static_cast<size_t>(kFrameBytes), 0x80));
  return bytes;
}

// The values of the sweep, by declared type; entry 0 is a value that the device accepts. Names:
// "m" is a mono-stream subscriber and "s" a multi-stream one, as each input finds them.
const std::vector<OXValue>& edges(int pType) {
  static const std::vector<OXValue> ints = {0,  -1, 1,  2,  3,  4,  5,   14,      15,     16,
                                            17, 18, 20, 21, 30, 31, 255, INT_MIN, INT_MAX};
  static const std::vector<OXValue> bools = {true, false, INT_MIN};
  static const std::vector<OXValue> floats = {0.5f,    NAN,      INFINITY, -INFINITY,
                                              FLT_MAX, -FLT_MAX, 0.0f,     1e-20f};
  static const std::vector<OXValue> strings = {"m",
                                               "s",
                                               "",
                                               std::string(4096, 'x'),
                                               std::string("m\0.oxv", 6),
                                               "\xff\xfe.oxv",
                                               "r.oxv",
                                               kVideo,
                                               "no/such/dir/r.oxv",
                                               "ClientDisconnected",
                                               "Gestura"};
  static const std::vector<OXValue> lists = {OXValue(std::vector<float>{0.5f, 0.5f}),
                                             OXValue(std::vector<float>{0.5f, 0.5f, 0.1f, 0.1f}),
                                             OXValue::array({}),
                                             OXValue::array({OXValue::array({1.0f})}),
                                             OXValue(std::vector<float>(10000, 0.5f)),
                                             OXValue(std::vector<float>{NAN, -1.0f})};
  static const std::vector<OXValue> values = [] {
    std::vector<OXValue> all = {OXValue(),
                                -1,
                                INT_MIN,
                                INT_MAX,
                                "",
                                OXValue::array({}),
                                OXValue::array({OXValue::array({OXValue::array({})})}),
                                OXValue(std::vector<int>(10000, 0)),
                                OXValue(std::vector<int>{INT_MIN, INT_MAX}),
                                OXValue(std::vector<int>{INT_MAX, INT_MIN}),
                                OXValue(std::vector<int>{-1, -1}),
                                OXValue(std::vector<int>{0, 1}),
                                OXValue(std::vector<int>{1, 2, 3}),
                                OXValue::binary("\xff\xff\xff\xff\xff\xff\xff", 7)};
    all.push_back(frame());
    for (int size : {320 * 240 * 3, 1280 * 960 * 3 + 1}) {
      all.push_back(OXValue::binary(std::vector<unsigned char>(static_cast<size_t>(size), 0x80)));
    }
    return all;
  }();
  switch (pType) {
    case 2:
      return bools;
    case 3:
      return ints;
    case 4:
      return floats;
    case 5:
      return strings;
    case 24:
      return lists;
    default:
      return values;
  }
}

class Input {
 public:
  Input(const uint8_t* pData, size_t pSize) : fData(pData), fLeft(pSize) {}
  bool empty() const { return fLeft == 0; }
  uint8_t byte() {
    if (fLeft == 0) return 0;
    --fLeft;
    return *fData++;
  }
  uint32_t word() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value << 8 | byte();
    return value;
  }

 private:
  const uint8_t* fData;
  size_t fLeft;
};

OXValue anyValue(Input& pInput, int pDepth);

// A value of the declared type made from the input. Strings are short and of an alphabet without
// '.' and '/', so that a recording made from them stays in the working directory.
OXValue madeValue(Input& pInput, int pType, int pDepth) {
  switch (pType) {
    case 2:
      return (pInput.byte() & 1) != 0;
    case 3:
      return static_cast<int>(pInput.word());
    case 4: {
      const uint32_t bits = pInput.word();
      float value;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
    case 5: {
      static const char kAlphabet[] = {'m', 's', '_', '2', '\0', '\xff'};
      std::string text;
      for (int length = pInput.byte() % 4; length > 0; --length) {
        text += kAlphabet[pInput.byte() % sizeof kAlphabet];
      }
      return text;
    }
    case 24: {
      OXValue list = OXValue::array({});
      for (int count = pInput.byte() % 6; count > 0; --count)
        list.arrayPush(madeValue(pInput, 4, 0));
      return list;
    }
    default:
      return anyValue(pInput, pDepth);
  }
}

// A value of any kind: a scalar, a short binary, or an array of up to five such values.
OXValue anyValue(Input& pInput, int pDepth) {
  const int kind = pInput.byte() % 7;
  switch (kind) {
    case 0:
      return OXValue();
    case 1:
      return madeValue(pInput, 2, pDepth);
    case 2:
      return madeValue(pInput, 3, pDepth);
    case 3:
      return madeValue(pInput, 4, pDepth);
    case 4:
      return madeValue(pInput, 5, pDepth);
    case 5: {
      std::vector<unsigned char> bytes(pInput.byte() % 32);
      for (unsigned char& b : bytes) b = pInput.byte();
      return OXValue::binary(std::move(bytes));
    }
    default: {
      OXValue array = OXValue::array({});
      if (pDepth < 3) {
        for (int count = pInput.byte() % 6; count > 0; --count) {
          array.arrayPush(anyValue(pInput, pDepth + 1));
        }
      }
      return array;
    }
  }
}

OXValue argument(Input& pInput, int pType) {
  const uint8_t selector = pInput.byte();
  if (selector < 200) {
    const std::vector<OXValue>& table = edges(pType);
    return table[selector % table.size()];
  }
  if (selector < 240) return madeValue(pInput, pType, 0);
  return anyValue(pInput, 0);
}

// One camera on a broker of its own, and the publications it offers.
struct Device {
  boost::shared_ptr<OX::OXBroker> fBroker;
  boost::shared_ptr<OX::OXVisionVideoInput> fCamera;
  boost::shared_ptr<OX::OXProxy> fProxy;
  std::vector<OX::OXMethodInfo> fTable;
  std::vector<std::string> fMade;  // subscriber ids made by the current input
};

[[noreturn]] void finding(const std::string& pWhat) {
  std::fprintf(stderr, "fuzz_calls: %s\n", pWhat.c_str());
  std::abort();
}

OXValue call(Device& pDevice, const std::string& pMethod, const OXValue& pArgs) {
  try {
    OXValue result = pDevice.fProxy->genericCall(pMethod, pArgs);
    if (pMethod.rfind("subscribe", 0) == 0 && result.isString()) {
      pDevice.fMade.push_back(result.asString());
    }
    return result;
  } catch (const OX::OXError& error) {
    const std::string text = error.getDescription();
    for (const char* foreign : kForeignTexts) {
      if (text.find(foreign) != std::string::npos) {
        finding(pMethod + ": a library's text reached the caller: " + error.toString());
      }
    }
    if (text.empty()) finding(pMethod + ": an error without a description");
    return OXValue();
  }
}

// Whether "m" and "s" are as made: mono-stream QQVGA kRGB at 30 on camera 0, and multi-stream
// on every camera. Making them costs their buffers, so they are made again only when an input
// changed them.
bool fixtureIntact(Device& pDevice, int pCameras) {
  const auto asked = [&](const char* pMethod, const char* pName) {
    return call(pDevice, pMethod, OXValue::array({pName}));
  };
  std::vector<int> all;
  for (int camera = 0; camera < pCameras; ++camera) all.push_back(camera);
  return asked("getResolution", "m") == OXValue(OX::kQQVGA) &&
         asked("getColorSpace", "m") == OXValue(OX::kRGB) &&
         asked("getFrameRate", "m") == OXValue(30) && asked("getActiveCamera", "m") == OXValue(0) &&
         asked("getActiveCameras", "s") == OXValue(all) &&
         asked("getResolutions", "s") == OXValue(std::vector<int>(all.size(), OX::kQQVGA)) &&
         asked("getColorSpaces", "s") == OXValue(std::vector<int>(all.size(), OX::kRGB));
}

// Every input starts from the same state: its own subscribers gone, nothing held or recorded by
// "m" and "s", the device on camera 0, the simulator running with a fresh frame on each camera,
// the file camera stopped on its video (rewritten when an input recorded over it).
void reset(Device& pDevice, bool pSimulator) {
  std::vector<std::string> made;
  made.swap(pDevice.fMade);
  for (const std::string& id : made) {
    if (id != "m" && id != "s") call(pDevice, "unsubscribe", OXValue::array({id}));
  }
  for (const char* release : {"releaseImage", "releaseDirectRawImage", "stopVideo"}) {
    call(pDevice, release, OXValue::array({"m"}));
  }
  for (const char* release : {"releaseImages", "releaseDirectRawImages"}) {
    call(pDevice, release, OXValue::array({"s"}));
  }
  call(pDevice, "setActiveCamera", OXValue::array({0}));
  const int cameras = pSimulator ? 2 : 1;
  if (!pSimulator) {
    boost::system::error_code error;
    if (boost::filesystem::file_size(kVideo, error) != kVideoBytes) writeVideo();
    call(pDevice, "setVideo", OXValue::array({kVideo, OXValue(), true, 0, 0}));
  }
  if (!fixtureIntact(pDevice, cameras)) {
    call(pDevice, "unsubscribeAllInstances", OXValue::array({"m"}));
    call(pDevice, "unsubscribeAllInstances", OXValue::array({"s"}));
    std::vector<int> all;
    for (int camera = 0; camera < cameras; ++camera) all.push_back(camera);
    call(pDevice, "subscribeCamera", OXValue::array({"m", 0, OX::kQQVGA, OX::kRGB, 30}));
    call(pDevice, "subscribeCameras",
         OXValue::array({"s", OXValue(all), OXValue(std::vector<int>(all.size(), OX::kQQVGA)),
                         OXValue(std::vector<int>(all.size(), OX::kRGB)), 30}));
    pDevice.fMade.clear();  // "m" and "s" are reset by name
  }
  if (pSimulator) {
    // What the subscribers make of the cameras, also when an input set them otherwise, and
    // running grabbers whatever an input stopped.
    for (int camera = 0; camera < cameras; ++camera) {
      call(pDevice, "setParam", OXValue::array({OX::kCameraResolutionID, OX::kQVGA, camera}));
      call(pDevice, "setParam", OXValue::array({OX::kCameraFrameRateID, 30, camera}));
    }
    call(pDevice, "startFrameGrabber", OXValue::array({}));
    for (int camera = 0; camera < cameras; ++camera) {
      call(pDevice, "putImage", OXValue::array({camera, 160, 120, frame()}));
    }
  } else {
    // Stopped, on the whole video from its first image, whether or not "m" and "s" were made.
    call(pDevice, "setVideo", OXValue::array({kVideo, OXValue(), true, 0, 0}));
  }
}

std::vector<Device>& devices() {
  static std::vector<Device> all;
  return all;
}

std::atomic<int64_t> gNow{1700000000000000};

void setUp() {
  // The recordings of the session and the video of the file camera live in a directory of their
  // own; the clocks are ours, so that the waits for a frame cost no time.
  static char directory[] = "/tmp/fuzz_calls.XXXXXX";
  if (mkdtemp(directory) == nullptr || chdir(directory) != 0) finding("no working directory");
  std::atexit([] { boost::filesystem::remove_all(directory); });
  ki::os::setClockForTesting([] { return gNow.load(); });
  ki::os::setSleepForTesting([](unsigned int pMicroseconds) { gNow += pMicroseconds; });
  OX::OXVisionFileCam::setReplayClockForTesting([] { return gNow.load(); });
  ki::log::setStderrThreshold(-1);
  writeVideo();

  for (bool simulator : {true, false}) {
    Device device;
    device.fBroker = OX::OXBroker::createBroker(simulator ? "fuzz-sim" : "fuzz-file", {});
    if (simulator) {
      device.fCamera = OX::OXModule::createModule<OX::OXVisionSimulatorCam>(device.fBroker);
    } else {
      device.fCamera = OX::OXModule::createModule<OX::OXVisionFileCam>(device.fBroker);
    }
    device.fProxy = device.fBroker->getProxy(device.fCamera->getName());
    device.fTable = device.fCamera->getMethodTable();
    devices().push_back(device);
  }
}

// The sweep's calls as seeds, in the input format above.
void writeSeeds(const std::string& pDirectory) {
  int count = 0;
  for (size_t camera = 0; camera < devices().size(); ++camera) {
    const std::vector<OX::OXMethodInfo>& table = devices()[camera].fTable;
    for (size_t index = 0; index < table.size(); ++index) {
      const std::vector<int>& types = table[index].argumentTypes;
      for (size_t position = 0; position < types.size() || position == 0; ++position) {
        const size_t edgeCount = types.empty() ? 1 : edges(types[position]).size();
        for (size_t edge = 0; edge < edgeCount; ++edge) {
          std::string seed = {static_cast<char>(camera), static_cast<char>(index)};
          for (size_t k = 0; k < types.size(); ++k)
            seed += static_cast<char>(k == position ? edge : 0);
          std::ofstream(pDirectory + "/sweep-" + std::to_string(count++), std::ios::binary) << seed;
        }
      }
    }
  }
  std::fprintf(stderr, "fuzz_calls: %d seeds written to %s\n", count, pDirectory.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* seeds = std::getenv("FUZZ_CALLS_SEEDS");
  const std::string seedDirectory = seeds != nullptr ? seeds : "";
  setUp();
  if (!seedDirectory.empty()) {
    writeSeeds(seedDirectory);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t pSize) {
  Input input(pData, pSize);
  for (size_t camera = 0; camera < devices().size(); ++camera)
    reset(devices()[camera], camera == 0);
  for (int calls = 0; calls < kCallsPerInput && !input.empty(); ++calls) {
    const uint8_t head = input.byte();
    Device& device = devices()[head & 1];
    const OX::OXMethodInfo& method = device.fTable[input.byte() % device.fTable.size()];
    OXValue args = OXValue::array({});
    for (int type : method.argumentTypes) args.arrayPush(argument(input, type));
    const int arity = (head >> 1) & 3;
    if (arity == 2 && args.getSize() > 0) args.arraySetSize(args.getSize() - 1);
    if (arity == 3) args.arrayPush(argument(input, 6));
    gNow += 40000;  // a frame period at 30 fps between calls
    call(device, method.name, args);
  }
  return 0;
}
