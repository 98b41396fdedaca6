// oxvideosrc: subscribes to a camera of OXVideoDevice when it starts, pushes each new image of
// the subscriber once, stamped in running time from the image's own time stamp, and
// unsubscribes when it stops. The waiting and the re-joining are oxgst::Subscriber's.
#include "gstoxvideosrc.h"

#include <gst/video/video.h>

#include <cstring>
#include <memory>

#include "kios.h"
#include "oxerror.h"
#include "oxgstcaps.h"
#include "oxgstsubscriber.h"

GST_DEBUG_CATEGORY_STATIC(gst_ox_video_src_debug);
#define GST_CAT_DEFAULT gst_ox_video_src_debug

namespace {

enum : guint {
  kPropCamera = oxgst::kHostPropertyEnd,
  kPropResolution,
  kPropColorSpace,
  kPropFps,
  kPropClientName,
  kPropSubscriber
};

// An image stamp further from our clock than this comes from a host whose wall clock is not
// ours: its buffers are stamped with their arrival instead.
constexpr GstClockTime kMaxImageAge = 10 * GST_SECOND;

// The C++ side of the element, made in init and deleted in finalize.
struct State {
  // The properties, under the object's lock.
  oxgst::SubscriberSettings fSettings;
  // Made by start and dropped by stop, under the object's lock; the streaming thread uses it in
  // between, while unlock may interrupt it from another thread.
  std::unique_ptr<oxgst::Subscriber> fSubscriber;
  // The negotiated images: their size, their bytes a row, and the format when it is a video
  // format (otherwise the rows are packed).
  int fWidth = 0;
  int fHeight = 0;
  int fRowBytes = 0;
  std::size_t fFrameBytes = 0;
  bool fIsVideoFormat = false;
  GstVideoInfo fInfo;
  GstClockTime fPeriod = GST_CLOCK_TIME_NONE;
  guint64 fFrames = 0;
  GstClockTime fLastPts = GST_CLOCK_TIME_NONE;
};

}  // namespace

struct _GstOxVideoSrc {
  GstPushSrc parent;
  State* state;
};

namespace {
State& state(gpointer pObject) {
  return *GST_OX_VIDEO_SRC(pObject)->state;
}
}  // namespace

G_DEFINE_TYPE(GstOxVideoSrc, gst_ox_video_src, GST_TYPE_PUSH_SRC)

namespace {

GstStaticPadTemplate kSrcTemplate = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) { RGB, BGR, YUY2, GRAY8 }, "
                    "width = (int) [ 160, 1280 ], height = (int) [ 120, 960 ], "
                    "framerate = (fraction) [ 5/1, 30/1 ], pixel-aspect-ratio = (fraction) 1/1; "
                    "video/x-oxvideo, width = (int) [ 160, 1280 ], height = (int) [ 120, 960 ], "
                    "framerate = (fraction) [ 5/1, 30/1 ]"));

// The caps of the subscriber: after start with the frame rate that the host stored, before it
// with the one the host will store (it raises a rate below 5 and keeps 5 in 4VGA).
GstCaps* currentCaps(GstOxVideoSrc* pSource) {
  State& self = *pSource->state;
  GST_OBJECT_LOCK(pSource);
  const oxgst::SubscriberSettings settings = self.fSettings;
  int fps = self.fSubscriber ? self.fSubscriber->frameRate() : 0;
  GST_OBJECT_UNLOCK(pSource);
  if (fps <= 0) fps = settings.fResolution == OX::k4VGA ? 5 : std::max(5, settings.fFps);
  int width = 0;
  int height = 0;
  OX::setSizeFromResolution(settings.fResolution, width, height);
  return oxgst::subscriberCaps(settings.fColorSpace, width, height, fps);
}

gboolean start(GstBaseSrc* pSource) {
  State& self = state(pSource);
  GST_OBJECT_LOCK(pSource);
  auto subscriber = std::make_unique<oxgst::Subscriber>(self.fSettings);
  GST_OBJECT_UNLOCK(pSource);
  try {
    subscriber->start();
  } catch (const OX::OXError& error) {
    GST_ELEMENT_ERROR(pSource, RESOURCE, OPEN_READ,
                      ("Could not subscribe to OXVideoDevice at %s: %s", subscriber->url().c_str(),
                       error.getDescription().c_str()),
                      ("%s", error.toString().c_str()));
    return FALSE;
  }
  GST_INFO_OBJECT(pSource, "subscribed to %s as %s", subscriber->url().c_str(),
                  subscriber->id().c_str());
  GST_OBJECT_LOCK(pSource);
  self.fSubscriber = std::move(subscriber);
  self.fFrames = 0;
  self.fLastPts = GST_CLOCK_TIME_NONE;
  GST_OBJECT_UNLOCK(pSource);
  g_object_notify(G_OBJECT(pSource), "subscriber");
  return TRUE;
}

gboolean stop(GstBaseSrc* pSource) {
  State& self = state(pSource);
  GST_OBJECT_LOCK(pSource);
  std::unique_ptr<oxgst::Subscriber> subscriber = std::move(self.fSubscriber);
  GST_OBJECT_UNLOCK(pSource);
  if (subscriber) subscriber->stop();
  return TRUE;
}

// Before the subscription, what the element can make: links are not refused on the colour
// space's account before negotiation can say why.
GstCaps* getCaps(GstBaseSrc* pSource, GstCaps* pFilter) {
  State& self = state(pSource);
  GST_OBJECT_LOCK(pSource);
  const bool subscribed = self.fSubscriber != nullptr;
  GST_OBJECT_UNLOCK(pSource);
  GstCaps* caps = subscribed ? currentCaps(GST_OX_VIDEO_SRC(pSource))
                             : gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(pSource));
  if (pFilter != nullptr) {
    GstCaps* both = gst_caps_intersect_full(pFilter, caps, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(caps);
    caps = both;
  }
  return caps;
}

// The caps are fixed by the subscription; what the next element does not take is refused here
// with a message that says what to change, rather than a bare "not-negotiated".
gboolean negotiate(GstBaseSrc* pSource) {
  GstCaps* caps = currentCaps(GST_OX_VIDEO_SRC(pSource));
  GstCaps* accepted = gst_pad_peer_query_caps(GST_BASE_SRC_PAD(pSource), caps);
  const bool ok = accepted != nullptr && !gst_caps_is_empty(accepted);
  if (accepted != nullptr) gst_caps_unref(accepted);
  if (!ok) {
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    gchar* text = gst_caps_to_string(caps);
    if (gst_structure_has_name(structure, oxgst::kOwnMediaType)) {
      GST_ELEMENT_ERROR(pSource, CORE, NEGOTIATION,
                        ("The colour space %s has no GStreamer video format, and the next "
                         "element does not take its caps %s; for video elements choose "
                         "color-space rgb, bgr, yuv422 or y",
                         gst_structure_get_string(structure, "color-space"), text),
                        (nullptr));
    } else {
      GST_ELEMENT_ERROR(pSource, CORE, NEGOTIATION,
                        ("The next element does not take the subscriber's images %s", text),
                        (nullptr));
    }
    g_free(text);
    gst_caps_unref(caps);
    return FALSE;
  }
  const gboolean set = gst_base_src_set_caps(pSource, caps);
  gst_caps_unref(caps);
  return set;
}

gboolean setCaps(GstBaseSrc* pSource, GstCaps* pCaps) {
  State& self = state(pSource);
  const GstStructure* structure = gst_caps_get_structure(pCaps, 0);
  gint fpsNumerator = 0;
  gint fpsDenominator = 1;
  if (!gst_structure_get_int(structure, "width", &self.fWidth) ||
      !gst_structure_get_int(structure, "height", &self.fHeight) ||
      !gst_structure_get_fraction(structure, "framerate", &fpsNumerator, &fpsDenominator) ||
      fpsNumerator <= 0) {
    return FALSE;
  }
  self.fIsVideoFormat = gst_structure_has_name(structure, "video/x-raw");
  int layers = 0;
  if (self.fIsVideoFormat) {
    if (!gst_video_info_from_caps(&self.fInfo, pCaps)) return FALSE;
    layers = GST_VIDEO_INFO_COMP_PSTRIDE(&self.fInfo, 0);
    self.fFrameBytes = GST_VIDEO_INFO_SIZE(&self.fInfo);
  } else {
    if (!gst_structure_get_int(structure, "layers", &layers)) return FALSE;
    self.fFrameBytes = static_cast<std::size_t>(self.fWidth) * self.fHeight * layers;
  }
  self.fRowBytes = self.fWidth * layers;
  self.fPeriod = gst_util_uint64_scale_int(GST_SECOND, fpsDenominator, fpsNumerator);
  return TRUE;
}

// Buffers come from a pool of frames of the negotiated size: downstream's, or one of ours.
gboolean decideAllocation(GstBaseSrc* pSource, GstQuery* pQuery) {
  State& self = state(pSource);
  GstCaps* caps = nullptr;
  gst_query_parse_allocation(pQuery, &caps, nullptr);
  GstBufferPool* pool = nullptr;
  guint size = 0;
  guint min = 0;
  guint max = 0;
  const bool update = gst_query_get_n_allocation_pools(pQuery) > 0;
  if (update) gst_query_parse_nth_allocation_pool(pQuery, 0, &pool, &size, &min, &max);
  size = std::max<guint>(size, static_cast<guint>(self.fFrameBytes));
  if (pool == nullptr)
    pool = self.fIsVideoFormat ? gst_video_buffer_pool_new() : gst_buffer_pool_new();
  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_set_params(config, caps, size, min, max);
  if (self.fIsVideoFormat &&
      gst_query_find_allocation_meta(pQuery, GST_VIDEO_META_API_TYPE, nullptr)) {
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
  }
  gst_buffer_pool_set_config(pool, config);
  if (update) {
    gst_query_set_nth_allocation_pool(pQuery, 0, pool, size, min, max);
  } else {
    gst_query_add_allocation_pool(pQuery, pool, size, min, max);
  }
  gst_object_unref(pool);
  return GST_BASE_SRC_CLASS(gst_ox_video_src_parent_class)->decide_allocation(pSource, pQuery);
}

// The running time at which the image was taken: its age by the wall clock, which the host
// stamped it with, taken back from the pipeline clock's now. Strictly increasing.
GstClockTime runningTimeOf(GstOxVideoSrc* pSource, int64_t pStamp) {
  State& self = *pSource->state;
  GstClock* clock = gst_element_get_clock(GST_ELEMENT(pSource));
  GstClockTime pts = 0;
  if (clock != nullptr) {
    const GstClockTime now = gst_clock_get_time(clock);
    const GstClockTime base = gst_element_get_base_time(GST_ELEMENT(pSource));
    gst_object_unref(clock);
    const GstClockTime running = now > base ? now - base : 0;
    const int64_t ageUs = ki::os::nowMicroseconds() - pStamp;
    GstClockTime age = ageUs > 0 ? static_cast<GstClockTime>(ageUs) * GST_USECOND : 0;
    if (age > kMaxImageAge) age = 0;
    pts = running > age ? running - age : 0;
  }
  if (GST_CLOCK_TIME_IS_VALID(self.fLastPts) && pts <= self.fLastPts) pts = self.fLastPts + 1;
  self.fLastPts = pts;
  return pts;
}

GstFlowReturn fill(GstPushSrc* pSource, GstBuffer* pBuffer) {
  GstOxVideoSrc* source = GST_OX_VIDEO_SRC(pSource);
  State& self = *source->state;
  oxgst::Subscriber& subscriber = *self.fSubscriber;
  oxgst::Image image;
  switch (subscriber.next(image)) {
    case oxgst::Subscriber::Result::kImage:
      break;
    case oxgst::Subscriber::Result::kInterrupted:
      return GST_FLOW_FLUSHING;
    case oxgst::Subscriber::Result::kGone:
      GST_ELEMENT_ERROR(source, RESOURCE, READ, ("%s", subscriber.message().c_str()), (nullptr));
      return GST_FLOW_ERROR;
    case oxgst::Subscriber::Result::kFailed:
      GST_ELEMENT_ERROR(source, RESOURCE, FAILED, ("%s", subscriber.message().c_str()), (nullptr));
      return GST_FLOW_ERROR;
  }
  if (image.fWidth != self.fWidth || image.fHeight != self.fHeight ||
      image.fSize != static_cast<std::size_t>(self.fRowBytes) * self.fHeight) {
    // Another client changed the subscriber's wishes (setResolution, setColorSpace).
    GST_ELEMENT_ERROR(source, STREAM, FORMAT,
                      ("The broker host at %s sent a %dx%d image of colour space %d (%zu bytes), "
                       "not the negotiated %dx%d; was the subscriber %s changed by another client?",
                       subscriber.url().c_str(), image.fWidth, image.fHeight, image.fColorSpace,
                       image.fSize, self.fWidth, self.fHeight, subscriber.id().c_str()),
                      (nullptr));
    return GST_FLOW_ERROR;
  }
  // The one copy of the image: from the reply into the pool's buffer, row by row where the
  // buffer's rows are padded.
  if (self.fIsVideoFormat) {
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &self.fInfo, pBuffer, GST_MAP_WRITE)) {
      GST_ELEMENT_ERROR(source, RESOURCE, WRITE, ("Could not map a buffer of the pool"), (nullptr));
      return GST_FLOW_ERROR;
    }
    auto* target = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    if (stride == self.fRowBytes) {
      std::memcpy(target, image.fData, image.fSize);
    } else {
      for (int row = 0; row < self.fHeight; ++row) {
        std::memcpy(target + static_cast<std::size_t>(row) * stride,
                    image.fData + static_cast<std::size_t>(row) * self.fRowBytes, self.fRowBytes);
      }
    }
    gst_video_frame_unmap(&frame);
  } else {
    gst_buffer_fill(pBuffer, 0, image.fData, image.fSize);
    gst_buffer_set_size(pBuffer, static_cast<gssize>(image.fSize));
  }
  GST_BUFFER_PTS(pBuffer) = runningTimeOf(source, image.fTimeStamp);
  GST_BUFFER_DTS(pBuffer) = GST_CLOCK_TIME_NONE;
  GST_BUFFER_DURATION(pBuffer) = self.fPeriod;
  GST_BUFFER_OFFSET(pBuffer) = self.fFrames++;
  GST_BUFFER_OFFSET_END(pBuffer) = self.fFrames;
  return GST_FLOW_OK;
}

gboolean unlock(GstBaseSrc* pSource) {
  State& self = state(pSource);
  GST_OBJECT_LOCK(pSource);
  if (self.fSubscriber) self.fSubscriber->interrupt();
  GST_OBJECT_UNLOCK(pSource);
  return TRUE;
}

gboolean unlockStop(GstBaseSrc* pSource) {
  State& self = state(pSource);
  GST_OBJECT_LOCK(pSource);
  if (self.fSubscriber) self.fSubscriber->resume();
  GST_OBJECT_UNLOCK(pSource);
  return TRUE;
}

// Latency: the device hands out an image for up to one period of the frame rate after it was
// taken, so an image is one period old at most when it leaves; nothing is queued beyond it.
gboolean query(GstBaseSrc* pSource, GstQuery* pQuery) {
  State& self = state(pSource);
  if (GST_QUERY_TYPE(pQuery) == GST_QUERY_LATENCY) {
    GST_OBJECT_LOCK(pSource);
    const int fps = self.fSubscriber ? self.fSubscriber->frameRate() : 0;
    GST_OBJECT_UNLOCK(pSource);
    if (fps <= 0) return FALSE;
    const GstClockTime period = gst_util_uint64_scale_int(GST_SECOND, 1, fps);
    gst_query_set_latency(pQuery, TRUE, period, period);
    return TRUE;
  }
  return GST_BASE_SRC_CLASS(gst_ox_video_src_parent_class)->query(pSource, pQuery);
}

void setProperty(GObject* pObject, guint pId, const GValue* pValue, GParamSpec* pSpec) {
  State& self = state(pObject);
  if (oxgst::setHostProperty(GST_OBJECT(pObject), self.fSettings.fHost, pId, pValue)) return;
  GST_OBJECT_LOCK(pObject);
  switch (pId) {
    case kPropCamera:
      self.fSettings.fCamera = g_value_get_int(pValue);
      break;
    case kPropResolution:
      self.fSettings.fResolution = g_value_get_enum(pValue);
      break;
    case kPropColorSpace:
      self.fSettings.fColorSpace = g_value_get_enum(pValue);
      break;
    case kPropFps:
      self.fSettings.fFps = g_value_get_int(pValue);
      break;
    case kPropClientName:
      self.fSettings.fName = oxgst::stringOf(pValue);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(pObject, pId, pSpec);
  }
  GST_OBJECT_UNLOCK(pObject);
}

void getProperty(GObject* pObject, guint pId, GValue* pValue, GParamSpec* pSpec) {
  State& self = state(pObject);
  if (oxgst::getHostProperty(GST_OBJECT(pObject), self.fSettings.fHost, pId, pValue)) return;
  GST_OBJECT_LOCK(pObject);
  switch (pId) {
    case kPropCamera:
      g_value_set_int(pValue, self.fSettings.fCamera);
      break;
    case kPropResolution:
      g_value_set_enum(pValue, self.fSettings.fResolution);
      break;
    case kPropColorSpace:
      g_value_set_enum(pValue, self.fSettings.fColorSpace);
      break;
    case kPropFps:
      g_value_set_int(pValue, self.fSettings.fFps);
      break;
    case kPropClientName:
      g_value_set_string(pValue, self.fSettings.fName.c_str());
      break;
    case kPropSubscriber: {
      const std::string id = self.fSubscriber ? self.fSubscriber->id() : std::string();
      g_value_set_string(pValue, id.empty() ? nullptr : id.c_str());
      break;
    }
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(pObject, pId, pSpec);
  }
  GST_OBJECT_UNLOCK(pObject);
}

void finalize(GObject* pObject) {
  delete GST_OX_VIDEO_SRC(pObject)->state;
  G_OBJECT_CLASS(gst_ox_video_src_parent_class)->finalize(pObject);
}

}  // namespace

static void gst_ox_video_src_class_init(GstOxVideoSrcClass* pClass) {
  GST_DEBUG_CATEGORY_INIT(gst_ox_video_src_debug, "oxvideosrc", 0, "OXVideoDevice subscriber");
  GObjectClass* objectClass = G_OBJECT_CLASS(pClass);
  GstElementClass* elementClass = GST_ELEMENT_CLASS(pClass);
  GstBaseSrcClass* baseClass = GST_BASE_SRC_CLASS(pClass);
  objectClass->set_property = setProperty;
  objectClass->get_property = getProperty;
  objectClass->finalize = finalize;

  oxgst::installHostProperties(
      objectClass,
      "Milliseconds without an answer after which the host counts as gone: an error on the "
      "bus; a host that answers again before is joined again");
  const oxgst::SubscriberSettings defaults;
  constexpr auto kFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                   GST_PARAM_MUTABLE_READY);
  g_object_class_install_property(
      objectClass, kPropCamera,
      g_param_spec_int("camera", "Camera",
                       "Camera index of the subscription; -1 follows the device's active camera",
                       -1, 127, defaults.fCamera, kFlags));
  g_object_class_install_property(
      objectClass, kPropResolution,
      g_param_spec_enum("resolution", "Resolution", "Size of the images",
                        oxgst::resolutionEnumType(), defaults.fResolution, kFlags));
  g_object_class_install_property(
      objectClass, kPropColorSpace,
      g_param_spec_enum("color-space", "Colour space",
                        "Colour space of the images, and so the caps: RGB, BGR, YUY2 and GRAY8 "
                        "for rgb, bgr, yuv422 and y, video/x-oxvideo for the others",
                        oxgst::colorSpaceEnumType(), defaults.fColorSpace, kFlags));
  g_object_class_install_property(
      objectClass, kPropFps,
      g_param_spec_int("fps", "Frames per second",
                       "Frame rate of the subscription (the host keeps 5 in 4vga)", 5, 30,
                       defaults.fFps, kFlags));
  g_object_class_install_property(
      objectClass, kPropClientName,
      g_param_spec_string("client-name", "Client name",
                          "Name of the subscriber; the host adds _2 to _8 to a name in use",
                          defaults.fName.c_str(), kFlags));
  g_object_class_install_property(
      objectClass, kPropSubscriber,
      g_param_spec_string("subscriber", "Subscriber",
                          "Id of the subscriber that the host gave, while subscribed", nullptr,
                          static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

  gst_element_class_set_static_metadata(
      elementClass, "OXVideoDevice subscriber source", "Source/Video/Network",
      "Subscribes to a camera of OXVideoDevice on a broker host and pushes its images",
      "libvideoinput");
  gst_element_class_add_static_pad_template(elementClass, &kSrcTemplate);

  baseClass->start = start;
  baseClass->stop = stop;
  baseClass->get_caps = getCaps;
  baseClass->negotiate = negotiate;
  baseClass->set_caps = setCaps;
  baseClass->decide_allocation = decideAllocation;
  baseClass->unlock = unlock;
  baseClass->unlock_stop = unlockStop;
  baseClass->query = query;
  GST_PUSH_SRC_CLASS(pClass)->fill = fill;
  gst_type_mark_as_plugin_api(oxgst::resolutionEnumType(), static_cast<GstPluginAPIFlags>(0));
  gst_type_mark_as_plugin_api(oxgst::colorSpaceEnumType(), static_cast<GstPluginAPIFlags>(0));
}

static void gst_ox_video_src_init(GstOxVideoSrc* pSource) {
  pSource->state = new State();
  gst_base_src_set_live(GST_BASE_SRC(pSource), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(pSource), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(pSource), FALSE);
}
