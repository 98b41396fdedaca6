// oxvideosrc: a live source that is one subscriber of OXVideoDevice on a broker host.
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define GST_TYPE_OX_VIDEO_SRC (gst_ox_video_src_get_type())
G_DECLARE_FINAL_TYPE(GstOxVideoSrc, gst_ox_video_src, GST, OX_VIDEO_SRC, GstPushSrc)

G_END_DECLS
