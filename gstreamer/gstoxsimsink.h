// oxsimsink: pushes each frame into the simulator camera of OXVideoDevice on a broker host.
#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

#define GST_TYPE_OX_SIM_SINK (gst_ox_sim_sink_get_type())
G_DECLARE_FINAL_TYPE(GstOxSimSink, gst_ox_sim_sink, GST, OX_SIM_SINK, GstBaseSink)

G_END_DECLS
