// The colour spaces and sizes of the device as GStreamer caps and enumerations; see oxgstcaps.h.
#include "oxgstcaps.h"

#include <iterator>

#include "oxtypes.h"

namespace oxgst {

namespace {

// The formats whose bytes are exactly those of a GStreamer format: kRGB and kBGR are packed
// 8-bit triples, kYUV422 is Y0 U Y1 V (YUY2), kYuv is the luma plane alone.
constexpr ColorSpaceFormat kColorSpaces[] = {
    {OX::kYuv, "y", "kYuv (0): luma only, caps GRAY8", GST_VIDEO_FORMAT_GRAY8},
    {OX::kHsy, "hue", "kHsy (6): hue only, one byte a pixel, caps video/x-oxvideo",
     GST_VIDEO_FORMAT_UNKNOWN},
    {OX::kYUV422, "yuv422", "kYUV422 (9): Y0 U Y1 V, caps YUY2", GST_VIDEO_FORMAT_YUY2},
    {OX::kYUV, "yuv", "kYUV (10): Y U V per pixel, caps video/x-oxvideo", GST_VIDEO_FORMAT_UNKNOWN},
    {OX::kRGB, "rgb", "kRGB (11): caps RGB", GST_VIDEO_FORMAT_RGB},
    {OX::kHSY, "hsy", "kHSY (12): hue, saturation, luma, caps video/x-oxvideo",
     GST_VIDEO_FORMAT_UNKNOWN},
    {OX::kBGR, "bgr", "kBGR (13): caps BGR", GST_VIDEO_FORMAT_BGR},
    {OX::kYYCbCr, "yycbcr", "kYYCbCr (14): Y0 Y1 U V, caps video/x-oxvideo",
     GST_VIDEO_FORMAT_UNKNOWN},
    {OX::kH2RGB, "h2rgb", "kH2RGB (15): hue as a saturated colour, caps video/x-oxvideo",
     GST_VIDEO_FORMAT_UNKNOWN},
    {OX::kHSMixed, "hsmixed", "kHSMixed (16): H S H per pixel, caps video/x-oxvideo",
     GST_VIDEO_FORMAT_UNKNOWN},
};

struct Size {
  int fResolution;
  int fWidth;
  int fHeight;
};
constexpr Size kSizes[] = {
    {OX::kQQVGA, 160, 120}, {OX::kQVGA, 320, 240}, {OX::kVGA, 640, 480}, {OX::k4VGA, 1280, 960}};

// A GEnumValue table lives as long as its type, that is for ever: built once, never freed.
GType registerColorSpaces() {
  static GEnumValue values[std::size(kColorSpaces) + 1] = {};
  for (std::size_t i = 0; i < std::size(kColorSpaces); ++i) {
    values[i] = {kColorSpaces[i].fId, kColorSpaces[i].fDescription, kColorSpaces[i].fNick};
  }
  return g_enum_register_static("GstOxColorSpace", values);
}

GType registerResolutions() {
  static const GEnumValue values[] = {{OX::kQQVGA, "kQQVGA (0): 160x120", "qqvga"},
                                      {OX::kQVGA, "kQVGA (1): 320x240", "qvga"},
                                      {OX::kVGA, "kVGA (2): 640x480", "vga"},
                                      {OX::k4VGA, "k4VGA (3): 1280x960", "4vga"},
                                      {0, nullptr, nullptr}};
  return g_enum_register_static("GstOxResolution", values);
}

}  // namespace

const ColorSpaceFormat* findColorSpace(int pId) {
  for (const ColorSpaceFormat& entry : kColorSpaces) {
    if (entry.fId == pId) return &entry;
  }
  return nullptr;
}

GType resolutionEnumType() {
  static const GType type = registerResolutions();
  return type;
}

GType colorSpaceEnumType() {
  static const GType type = registerColorSpaces();
  return type;
}

GstCaps* subscriberCaps(int pColorSpace, int pWidth, int pHeight, int pFps) {
  const ColorSpaceFormat* entry = findColorSpace(pColorSpace);
  if (entry == nullptr) return nullptr;
  if (entry->fFormat != GST_VIDEO_FORMAT_UNKNOWN) {
    return gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, gst_video_format_to_string(entry->fFormat), "width",
        G_TYPE_INT, pWidth, "height", G_TYPE_INT, pHeight, "framerate", GST_TYPE_FRACTION, pFps, 1,
        "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
  }
  return gst_caps_new_simple(kOwnMediaType, "color-space", G_TYPE_STRING, entry->fNick,
                             "color-space-id", G_TYPE_INT, entry->fId, "layers", G_TYPE_INT,
                             OX::getNumLayersFromColorSpace(entry->fId), "width", G_TYPE_INT,
                             pWidth, "height", G_TYPE_INT, pHeight, "framerate", GST_TYPE_FRACTION,
                             pFps, 1, nullptr);
}

GstCaps* simulatorCaps(int pFirstResolution) {
  GstCaps* caps = gst_caps_new_empty();
  const auto append = [caps](const Size& pSize) {
    gst_caps_append_structure(
        caps, gst_structure_new("video/x-raw", "format", G_TYPE_STRING, "RGB", "width", G_TYPE_INT,
                                pSize.fWidth, "height", G_TYPE_INT, pSize.fHeight, "framerate",
                                GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr));
  };
  for (const Size& size : kSizes) {
    if (size.fResolution == pFirstResolution) append(size);
  }
  for (const Size& size : kSizes) {
    if (size.fResolution != pFirstResolution) append(size);
  }
  return caps;
}

const char* simulatorSizesText() {
  return "160x120, 320x240, 640x480 or 1280x960";
}

}  // namespace oxgst
