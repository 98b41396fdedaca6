// The GStreamer elements oxvideosrc and oxsimsink through real pipelines, against the broker host
// program: videotestsrc feeds the simulator camera through oxsimsink, oxvideosrc takes the
// subscriber's images into an appsink.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "brokerprocess.h"
#include "kernels/conversion.h"
#include "kernels/resampling.h"
#include "oxbroker.h"
#include "oxerror.h"
#include "oxtypes.h"
#include "testsupport.h"

namespace {

using vitest::BrokerProcess;
using vitest::kTimeScale;
using Clock = std::chrono::steady_clock;

constexpr int kWidth = 320;
constexpr int kHeight = 240;
// Long enough for a frame on a loaded machine, short enough that a fault ends the test soon.
constexpr GstClockTime kFrameWait = 5 * GST_SECOND * kTimeScale;

// A pipeline of gst_parse_launch, stopped and freed at the end.
class Pipeline {
 public:
  explicit Pipeline(const std::string& pDescription) {
    GError* error = nullptr;
    fPipeline = gst_parse_launch(pDescription.c_str(), &error);
    EXPECT_EQ(error, nullptr) << pDescription << ": " << (error ? error->message : "");
    if (error != nullptr) g_error_free(error);
  }
  ~Pipeline() {
    if (fPipeline == nullptr) return;
    gst_element_set_state(fPipeline, GST_STATE_NULL);
    gst_object_unref(fPipeline);
  }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  void play() { gst_element_set_state(fPipeline, GST_STATE_PLAYING); }
  // Stops it; the elements have stopped when this returns.
  void stop() { gst_element_set_state(fPipeline, GST_STATE_NULL); }
  GstElement* element(const char* pName) {
    GstElement* found = gst_bin_get_by_name(GST_BIN(fPipeline), pName);
    fFound.emplace_back(found, gst_object_unref);
    return found;
  }
  // The next sample of the appsink "out", or null at its end or after kFrameWait.
  GstSample* pull() {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(element("out")), kFrameWait);
    if (sample != nullptr) fSamples.emplace_back(sample, gst_sample_unref);
    return sample;
  }
  // The text of the first error on the bus within pWait, "" when none came.
  std::string error(GstClockTime pWait) {
    GstBus* bus = gst_element_get_bus(fPipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, pWait, GST_MESSAGE_ERROR);
    gst_object_unref(bus);
    if (message == nullptr) return "";
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::string text = error->message;
    g_error_free(error);
    gst_message_unref(message);
    return text;
  }

 private:
  GstElement* fPipeline = nullptr;
  std::vector<std::unique_ptr<GstElement, void (*)(gpointer)>> fFound;
  std::vector<std::unique_ptr<GstSample, void (*)(GstSample*)>> fSamples;
};

// A still pattern, so that every frame can be compared with one reference.
constexpr const char* kPattern = "videotestsrc pattern=colors";

std::string feedPipeline(int pPort) {
  return std::string(kPattern) +
         " is-live=true ! video/x-raw,format=RGB,width=" + std::to_string(kWidth) +
         ",height=" + std::to_string(kHeight) +
         ",framerate=30/1 ! oxsimsink port=" + std::to_string(pPort);
}

std::vector<guint8> bytesOf(GstSample* pSample) {
  GstMapInfo map;
  GstBuffer* buffer = gst_sample_get_buffer(pSample);
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return {};
  std::vector<guint8> bytes(map.data, map.data + map.size);
  gst_buffer_unmap(buffer, &map);
  return bytes;
}

// What a subscriber in kRGB receives of an RGB frame pushed at its own size: the simulator's
// conversion to YUV422, then the device's back to RGB.
std::vector<guint8> throughTheDevice(const std::vector<guint8>& pRgb) {
  std::vector<guint8> yuv(kWidth * kHeight * 2);
  std::vector<guint8> rgb(pRgb.size());
  OX::resamplingkernels::sameSize(pRgb.data(), kWidth * kHeight, yuv.data());
  OX::conversionkernels::yuv422toRGB({yuv.data(), kWidth, kHeight}, {rgb.data(), kWidth, kHeight});
  return rgb;
}

class GStreamer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The plugin of this build and the few system plugins that the pipelines use, in a registry
    // of this test's own made anew in this process: the helper that would scan the plugins is
    // not built with this program's sanitizers, a registry kept from a run that could not load
    // the plugin would not try it again, and loading every plugin of the system would be slow
    // under the sanitizers (and leaves GLib's first table of names behind, which they report).
    sFolder = new vitest::TempDir;
    const std::filesystem::path system = sFolder->file("plugins");
    std::filesystem::create_directory(system);
    for (const char* name : {"libgstcoreelements.so", "libgstvideotestsrc.so",
                             "libgstvideoconvertscale.so", "libgstapp.so"}) {
      std::filesystem::create_symlink(std::filesystem::path(VI_GST_PLUGINS_DIR) / name,
                                      system / name);
    }
    setenv("GST_PLUGIN_SYSTEM_PATH", system.c_str(), 1);
    setenv("GST_PLUGIN_PATH", VI_LIBRARY_DIR "/gstreamer-1.0", 1);
    setenv("GST_REGISTRY", sFolder->file("registry.bin").c_str(), 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
    gst_init(nullptr, nullptr);
  }
  static void TearDownTestSuite() { delete sFolder; }
  static vitest::TempDir* sFolder;
  std::string source(const std::string& pOptions) {
    return "oxvideosrc port=" + std::to_string(fBroker->port()) + " " + pOptions;
  }

  std::unique_ptr<BrokerProcess> fBroker = std::make_unique<BrokerProcess>();
};
vitest::TempDir* GStreamer::sFolder = nullptr;

// Guards against frames that are lost, repeated, reordered or altered on their way from a
// GStreamer source through oxsimsink, the host and oxvideosrc, and against a subscriber left
// behind by a pipeline that stopped.
TEST_F(GStreamer, PatternArrivesPixelExactInOrderAndTheSubscriberGoesWithThePipeline) {
  Pipeline pattern(
      std::string(kPattern) +
      " num-buffers=1 ! video/x-raw,format=RGB,width=320,height=240 ! appsink name=out");
  pattern.play();
  GstSample* reference = pattern.pull();
  ASSERT_NE(reference, nullptr);
  const std::vector<guint8> expected = throughTheDevice(bytesOf(reference));

  Pipeline feed(feedPipeline(fBroker->port()));
  feed.play();
  constexpr int kFrames = 20;
  auto device = OX::OXProxy::connect(fBroker->url(), "OXVideoDevice");
  const OX::OXValue name = OX::OXValue::array({"gsttest"});
  for (const char* channel : {"never", "require"}) {
    SCOPED_TRACE(std::string("shared-memory=") + channel);
    Pipeline pipeline(source(std::string("name=src client-name=gsttest shared-memory=") + channel +
                             " num-buffers=" + std::to_string(kFrames) +
                             " ! appsink name=out sync=false"));
    pipeline.play();
    GstClockTime last = GST_CLOCK_TIME_NONE;
    for (int i = 0; i < kFrames; ++i) {
      GstSample* sample = pipeline.pull();
      ASSERT_NE(sample, nullptr) << "frame " << i;
      gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
      EXPECT_NE(std::string(caps).find("format=(string)RGB, width=(int)320, height=(int)240"),
                std::string::npos)
          << caps;
      g_free(caps);
      EXPECT_TRUE(bytesOf(sample) == expected) << "frame " << i << " differs from the pattern";
      const GstClockTime pts = GST_BUFFER_PTS(gst_sample_get_buffer(sample));
      ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(pts));
      if (GST_CLOCK_TIME_IS_VALID(last)) {
        EXPECT_GT(pts, last) << "frame " << i;
      }
      last = pts;
    }
    EXPECT_EQ(pipeline.pull(), nullptr);
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(pipeline.element("out"))));

    gchar* id = nullptr;
    g_object_get(pipeline.element("src"), "subscriber", &id, nullptr);
    ASSERT_NE(id, nullptr);
    EXPECT_STREQ(id, "gsttest");
    g_free(id);
    EXPECT_EQ(device->genericCall("getResolution", name).asInt(), OX::kQVGA);
    pipeline.stop();
    EXPECT_THROW(device->genericCall("getResolution", name), OX::OXError);
  }
  EXPECT_EQ(feed.error(0), "") << "the feed failed";
}

// Guards against caps that do not describe the bytes: the mapped colour spaces as GStreamer
// video formats, the others under our own media type with their colour space and layers.
TEST_F(GStreamer, CapsSayWhatEveryColourSpaceHolds) {
  struct Case {
    const char* fNick;
    const char* fCaps;
    int fLayers;
  };
  const Case cases[] = {
      {"rgb", "video/x-raw, format=(string)RGB", 3},
      {"bgr", "video/x-raw, format=(string)BGR", 3},
      {"yuv422", "video/x-raw, format=(string)YUY2", 2},
      {"y", "video/x-raw, format=(string)GRAY8", 1},
      {"hue", "video/x-oxvideo, color-space=(string)hue, color-space-id=(int)6, layers=(int)1", 1},
      {"yuv", "video/x-oxvideo, color-space=(string)yuv, color-space-id=(int)10, layers=(int)3", 3},
      {"hsy", "video/x-oxvideo, color-space=(string)hsy, color-space-id=(int)12, layers=(int)3", 3},
      {"yycbcr",
       "video/x-oxvideo, color-space=(string)yycbcr, color-space-id=(int)14, layers=(int)2", 2},
      {"h2rgb", "video/x-oxvideo, color-space=(string)h2rgb, color-space-id=(int)15, layers=(int)3",
       3},
      {"hsmixed",
       "video/x-oxvideo, color-space=(string)hsmixed, color-space-id=(int)16, layers=(int)3", 3},
  };
  Pipeline feed(feedPipeline(fBroker->port()));
  feed.play();
  for (const Case& c : cases) {
    Pipeline pipeline(source(std::string("resolution=qqvga num-buffers=1 color-space=") + c.fNick +
                             " ! appsink name=out sync=false"));
    pipeline.play();
    GstSample* sample = pipeline.pull();
    ASSERT_NE(sample, nullptr) << c.fNick;
    gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
    EXPECT_EQ(std::string(caps).rfind(c.fCaps, 0), 0u) << c.fNick << ": " << caps;
    EXPECT_NE(std::string(caps).find("width=(int)160, height=(int)120"), std::string::npos) << caps;
    g_free(caps);
    EXPECT_EQ(bytesOf(sample).size(), 160u * 120 * c.fLayers) << c.fNick;
  }
}

// Guards against a source that hangs or fails at once when its host goes: one that comes back
// within the timeout is joined again, one that stays away gives an error naming its address
// within the timeout.
TEST_F(GStreamer, HostThatComesBackIsRejoinedHostThatStaysAwayIsAnError) {
  const std::string port = std::to_string(fBroker->port());
  auto feed = std::make_unique<Pipeline>(feedPipeline(fBroker->port()));
  feed->play();
  // Each feed stops before its host goes: a sink waits for the host's answer to a frame.
  constexpr int kTimeoutMs = 2000 * kTimeScale;
  Pipeline pipeline(source("timeout=" + std::to_string(kTimeoutMs) + " ! appsink name=out " +
                           "sync=false max-buffers=2 drop=true"));
  pipeline.play();
  ASSERT_NE(pipeline.pull(), nullptr);

  feed.reset();
  fBroker->stop({SIGKILL}, std::chrono::seconds(5));
  fBroker = std::make_unique<BrokerProcess>(std::vector<std::string>{"--port", port});
  Pipeline again(feedPipeline(fBroker->port()));
  again.play();
  for (int i = 0; i < 5; ++i) ASSERT_NE(pipeline.pull(), nullptr) << "no frame after the return";
  EXPECT_EQ(pipeline.error(0), "");
  again.stop();

  const auto killed = Clock::now();
  fBroker->stop({SIGKILL}, std::chrono::seconds(5));
  const std::string error = pipeline.error(GST_MSECOND * (kTimeoutMs + 2000 * kTimeScale));
  EXPECT_NE(error.find("tcp://127.0.0.1:" + port), std::string::npos) << error;
  EXPECT_LT(Clock::now() - killed, std::chrono::milliseconds(kTimeoutMs + 1000 * kTimeScale));
  fBroker.reset();
}

// Guards against frames that the simulator camera cannot take going unnoticed: a size it refuses
// fails negotiation saying which sizes it takes, and the host's own refusal reaches the bus.
TEST_F(GStreamer, SinkRefusalsAreErrorsWithTheirReason) {
  const std::string sink = " ! oxsimsink port=" + std::to_string(fBroker->port());
  const std::pair<std::string, std::string> cases[] = {
      {"videotestsrc ! video/x-raw,width=300,height=200 ! videoconvert" + sink,
       "The simulator camera takes RGB frames of 160x120, 320x240, 640x480 or 1280x960 only, not "
       "300x200; put videoconvert ! videoscale before oxsimsink"},
      {"videotestsrc ! videoconvert ! videoscale" + sink + " camera=5",
       "camera index 5 out of range: this device has 2 cameras, 0 to 1"},
  };
  for (const auto& [description, reason] : cases) {
    Pipeline pipeline(description);
    pipeline.play();
    const std::string error = pipeline.error(kFrameWait);
    EXPECT_NE(error.find(reason), std::string::npos) << description << ": " << error;
  }
}

}  // namespace
