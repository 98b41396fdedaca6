// The plugin oxvideo (libgstoxvideo.so): registers oxvideosrc and oxsimsink.
#include <gst/gst.h>

#include "gstoxsimsink.h"
#include "gstoxvideosrc.h"

#define PACKAGE "libvideoinput"

namespace {

gboolean pluginInit(GstPlugin* pPlugin) {
  return gst_element_register(pPlugin, "oxvideosrc", GST_RANK_NONE, GST_TYPE_OX_VIDEO_SRC) &&
         gst_element_register(pPlugin, "oxsimsink", GST_RANK_NONE, GST_TYPE_OX_SIM_SINK);
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, oxvideo,
                  "Video of OXVideoDevice in GStreamer pipelines: a subscriber as a source, the "
                  "simulator camera as a sink",
                  pluginInit, VI_VERSION, "Proprietary", "libvideoinput", "libvideoinput")
