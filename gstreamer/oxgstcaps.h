// What the elements say to GStreamer about images: the enumerations behind the resolution and
// color-space properties, and the caps of each colour space and of the simulator camera's frames.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

namespace oxgst {

// The media type of the colour spaces that have no GStreamer video format. Its caps name the
// colour space (color-space, color-space-id) and its bytes per pixel (layers).
constexpr const char* kOwnMediaType = "video/x-oxvideo";

// One colour space of the device: its identifier, the nick of the color-space property, and
// the GStreamer format of its bytes, GST_VIDEO_FORMAT_UNKNOWN when there is none.
struct ColorSpaceFormat {
  int fId;
  const char* fNick;
  const char* fDescription;
  GstVideoFormat fFormat;
};

// The entry of a colour space identifier, or null.
const ColorSpaceFormat* findColorSpace(int pId);

// GEnum types of the properties: the values are the device's identifiers.
GType resolutionEnumType();
GType colorSpaceEnumType();

// Fixed caps of the images a subscriber receives: video/x-raw in the mapped formats, our own
// media type otherwise. pFps is the subscriber's frame rate as the host stored it.
GstCaps* subscriberCaps(int pColorSpace, int pWidth, int pHeight, int pFps);

// video/x-raw RGB at each size the simulator camera takes, pFirstResolution first (so that a
// scaler upstream that takes the first choice feeds the camera at its own resolution), any
// frame rate. pFirstResolution out of range: the sizes in increasing order.
GstCaps* simulatorCaps(int pFirstResolution);
// The sizes of simulatorCaps as text, "160x120, 320x240, 640x480 or 1280x960".
const char* simulatorSizesText();

}  // namespace oxgst
