// oxsimsink: connects to a broker host when it starts and pushes every frame into a camera of
// its simulator with putImage. Its caps are RGB at the four sizes that the simulator camera
// takes, the camera's own resolution first, so that videoconvert ! videoscale upstream adapt any
// source. A frame that the host refuses is an element error, never a silent drop.
#include "gstoxsimsink.h"

#include <gst/video/video.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstring>

#include "oxbroker.h"
#include "oxerror.h"
#include "oxgstcaps.h"
#include "oxgsthost.h"
#include "oxtypes.h"

GST_DEBUG_CATEGORY_STATIC(gst_ox_sim_sink_debug);
#define GST_CAT_DEFAULT gst_ox_sim_sink_debug

namespace {

enum : guint { kPropCamera = oxgst::kHostPropertyEnd };

// The C++ side of the element, made in init and deleted in finalize.
struct State {
  // The properties, under the object's lock.
  oxgst::HostSettings fSettings;
  int fCamera = 0;
  // Made by start and dropped by stop; render uses it in between, on the streaming thread.
  boost::shared_ptr<OX::OXProxy> fProxy;
  std::string fUrl;
  // The camera's own resolution, asked at start: the first size offered. Read by caps queries.
  std::atomic<int> fResolution{-1};
  // Between start and stop; read by caps queries, which come from any thread.
  std::atomic<bool> fStarted{false};
  // Whether the refusal of a size was posted already in this run.
  std::atomic<bool> fRefusalPosted{false};
  // The negotiated frames, and the arguments of putImage [camera, width, height, pixels],
  // whose pixels are overwritten by each frame: the push allocates nothing of its own.
  GstVideoInfo fInfo;
  OX::OXValue fArguments;
};

}  // namespace

struct _GstOxSimSink {
  GstBaseSink parent;
  State* state;
};

G_DEFINE_TYPE(GstOxSimSink, gst_ox_sim_sink, GST_TYPE_BASE_SINK)

namespace {

State& state(gpointer pObject) {
  return *GST_OX_SIM_SINK(pObject)->state;
}

GstStaticPadTemplate kSinkTemplate = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) RGB, width = (int) 160, height = (int) 120; "
                    "video/x-raw, format = (string) RGB, width = (int) 320, height = (int) 240; "
                    "video/x-raw, format = (string) RGB, width = (int) 640, height = (int) 480; "
                    "video/x-raw, format = (string) RGB, width = (int) 1280, height = (int) 960"));

gboolean start(GstBaseSink* pSink) {
  State& self = state(pSink);
  GST_OBJECT_LOCK(pSink);
  const oxgst::HostSettings settings = self.fSettings;
  const int camera = self.fCamera;
  GST_OBJECT_UNLOCK(pSink);
  self.fUrl = settings.url();
  self.fRefusalPosted = false;
  try {
    self.fProxy = OX::OXProxy::connect(self.fUrl, oxgst::kModuleName,
                                       settings.connectOptions(settings.fTimeoutMs));
    // [[width, height], frame rate]; refused by a host whose camera is no simulator.
    const OX::OXValue expected =
        self.fProxy->genericCall("getExpectedImageParameters", OX::OXValue::array({camera}));
    self.fResolution = OX::getResolutionFromSize(expected[0][0].asInt(), expected[0][1].asInt());
  } catch (const OX::OXError& error) {
    self.fProxy.reset();
    GST_ELEMENT_ERROR(pSink, RESOURCE, OPEN_WRITE,
                      ("Could not use the simulator camera %d of OXVideoDevice at %s: %s", camera,
                       self.fUrl.c_str(), error.getDescription().c_str()),
                      ("%s", error.toString().c_str()));
    return FALSE;
  }
  GST_INFO_OBJECT(pSink, "pushing into camera %d at %s", camera, self.fUrl.c_str());
  self.fStarted = true;
  return TRUE;
}

gboolean stop(GstBaseSink* pSink) {
  State& self = state(pSink);
  self.fStarted = false;
  self.fProxy.reset();
  self.fArguments = OX::OXValue();
  return TRUE;
}

// Whether every structure of pCaps pins a width and a height: an upstream that has no other
// size to offer.
bool pinsTheSize(const GstCaps* pCaps) {
  for (guint i = 0; i < gst_caps_get_size(pCaps); ++i) {
    const GstStructure* structure = gst_caps_get_structure(pCaps, i);
    int value = 0;
    if (!gst_structure_get_int(structure, "width", &value) ||
        !gst_structure_get_int(structure, "height", &value)) {
      return false;
    }
  }
  return gst_caps_get_size(pCaps) > 0;
}

// Until it starts, the element takes RGB of any size: a size is refused at negotiation, where
// the refusal can say what the camera takes, and not when the pipeline is linked, where
// GStreamer would only say that the link failed.
GstCaps* getCaps(GstBaseSink* pSink, GstCaps* pFilter) {
  State& self = state(pSink);
  const bool started = self.fStarted;
  GstCaps* caps = started
                      ? oxgst::simulatorCaps(self.fResolution)
                      : gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGB", nullptr);
  if (pFilter == nullptr) return caps;
  GstCaps* both = gst_caps_intersect_full(pFilter, caps, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(caps);
  // Upstream has pinned a size that the camera does not take: negotiation is going to fail,
  // and GStreamer alone would only say "not-negotiated". Say once what the camera takes.
  if (started && gst_caps_is_empty(both) && pinsTheSize(pFilter) &&
      !self.fRefusalPosted.exchange(true)) {
    const GstStructure* offered = gst_caps_get_structure(pFilter, 0);
    int width = 0;
    int height = 0;
    gst_structure_get_int(offered, "width", &width);
    gst_structure_get_int(offered, "height", &height);
    gchar* all = gst_caps_to_string(pFilter);
    GST_ELEMENT_ERROR(pSink, CORE, NEGOTIATION,
                      ("The simulator camera takes RGB frames of %s only, not %dx%d; put "
                       "videoconvert ! videoscale before oxsimsink",
                       oxgst::simulatorSizesText(), width, height),
                      ("upstream offers %s", all));
    g_free(all);
  }
  return both;
}

gboolean setCaps(GstBaseSink* pSink, GstCaps* pCaps) {
  State& self = state(pSink);
  if (!gst_video_info_from_caps(&self.fInfo, pCaps)) return FALSE;
  const int width = GST_VIDEO_INFO_WIDTH(&self.fInfo);
  const int height = GST_VIDEO_INFO_HEIGHT(&self.fInfo);
  GST_OBJECT_LOCK(pSink);
  const int camera = self.fCamera;
  GST_OBJECT_UNLOCK(pSink);
  OX::OXValue::Binary pixels(static_cast<std::size_t>(width) * height * 3);
  self.fArguments =
      OX::OXValue::array({camera, width, height, OX::OXValue::binary(std::move(pixels))});
  return TRUE;
}

GstFlowReturn render(GstBaseSink* pSink, GstBuffer* pBuffer) {
  State& self = state(pSink);
  const int width = GST_VIDEO_INFO_WIDTH(&self.fInfo);
  const int height = GST_VIDEO_INFO_HEIGHT(&self.fInfo);
  const std::size_t rowBytes = static_cast<std::size_t>(width) * 3;
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &self.fInfo, pBuffer, GST_MAP_READ)) {
    GST_ELEMENT_ERROR(pSink, RESOURCE, READ, ("Could not map a frame of %dx%d", width, height),
                      (nullptr));
    return GST_FLOW_ERROR;
  }
  const auto* source = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  const std::size_t stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
  auto* target = static_cast<guint8*>(self.fArguments[3].GetBinary());
  if (stride == rowBytes) {
    std::memcpy(target, source, rowBytes * height);
  } else {
    for (int row = 0; row < height; ++row) {
      std::memcpy(target + row * rowBytes, source + row * stride, rowBytes);
    }
  }
  gst_video_frame_unmap(&frame);
  const int camera = self.fArguments[0].asInt();
  try {
    if (self.fProxy->genericCall("putImage", self.fArguments).asBool()) return GST_FLOW_OK;
    GST_ELEMENT_ERROR(pSink, RESOURCE, WRITE,
                      ("The broker host at %s refused a %dx%d frame for camera %d (putImage "
                       "answered false; its log says why)",
                       self.fUrl.c_str(), width, height, camera),
                      (nullptr));
  } catch (const OX::OXError& error) {
    GST_ELEMENT_ERROR(pSink, RESOURCE, WRITE,
                      ("The broker host at %s did not take a frame for camera %d: %s",
                       self.fUrl.c_str(), camera, error.getDescription().c_str()),
                      ("%s", error.toString().c_str()));
  }
  return GST_FLOW_ERROR;
}

void setProperty(GObject* pObject, guint pId, const GValue* pValue, GParamSpec* pSpec) {
  State& self = state(pObject);
  if (oxgst::setHostProperty(GST_OBJECT(pObject), self.fSettings, pId, pValue)) return;
  if (pId != kPropCamera) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(pObject, pId, pSpec);
    return;
  }
  GST_OBJECT_LOCK(pObject);
  self.fCamera = g_value_get_int(pValue);
  GST_OBJECT_UNLOCK(pObject);
}

void getProperty(GObject* pObject, guint pId, GValue* pValue, GParamSpec* pSpec) {
  State& self = state(pObject);
  if (oxgst::getHostProperty(GST_OBJECT(pObject), self.fSettings, pId, pValue)) return;
  if (pId != kPropCamera) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(pObject, pId, pSpec);
    return;
  }
  GST_OBJECT_LOCK(pObject);
  g_value_set_int(pValue, self.fCamera);
  GST_OBJECT_UNLOCK(pObject);
}

void finalize(GObject* pObject) {
  delete GST_OX_SIM_SINK(pObject)->state;
  G_OBJECT_CLASS(gst_ox_sim_sink_parent_class)->finalize(pObject);
}

}  // namespace

static void gst_ox_sim_sink_class_init(GstOxSimSinkClass* pClass) {
  GST_DEBUG_CATEGORY_INIT(gst_ox_sim_sink_debug, "oxsimsink", 0, "OXVideoDevice simulator feed");
  GObjectClass* objectClass = G_OBJECT_CLASS(pClass);
  GstElementClass* elementClass = GST_ELEMENT_CLASS(pClass);
  GstBaseSinkClass* baseClass = GST_BASE_SINK_CLASS(pClass);
  objectClass->set_property = setProperty;
  objectClass->get_property = getProperty;
  objectClass->finalize = finalize;

  oxgst::installHostProperties(objectClass,
                               "Milliseconds to wait for the host to take a frame before an error");
  g_object_class_install_property(
      objectClass, kPropCamera,
      g_param_spec_int("camera", "Camera", "Index of the simulator camera that takes the frames", 0,
                       127, 0,
                       static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                GST_PARAM_MUTABLE_READY)));

  gst_element_class_set_static_metadata(
      elementClass, "OXVideoDevice simulator camera sink", "Sink/Video/Network",
      "Pushes RGB frames into a simulator camera of OXVideoDevice on a broker host (putImage)",
      "libvideoinput");
  gst_element_class_add_static_pad_template(elementClass, &kSinkTemplate);

  baseClass->start = start;
  baseClass->stop = stop;
  baseClass->get_caps = getCaps;
  baseClass->set_caps = setCaps;
  baseClass->render = render;
}

static void gst_ox_sim_sink_init(GstOxSimSink* pSink) {
  pSink->state = new State();
}
