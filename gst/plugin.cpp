// plugin.cpp - the "zelisp" plugin: zelispsrc, zelispgroupsrc and the
// device provider that lists the cameras.
#include <gst/gst.h>

#include "device_provider.h"
#include "library_messages.h"
#include "zelispgroupsrc.h"
#include "zelispsrc.h"

#define ZELISP_PLUGIN_DESCRIPTION "ISP cameras through libzelisp: one camera or a synchronised camera group"
// GStreamer's name for the LGPL (version 2.1 or later).
#define ZELISP_PLUGIN_LICENCE "LGPL"
#define ZELISP_PLUGIN_PACKAGE "libzelisp"
#define ZELISP_PLUGIN_ORIGIN "https://github.com/libzelisp/libzelisp"

static gboolean plugin_init(GstPlugin *plugin)
{
    // Before any element calls the library: none of its lines may reach
    // standard output, which may carry the video.
    gstzelisp::route_library_messages();
    // Above v4l2src's primary rank, which would otherwise be tried first
    // (ranks tie, then names sort) and open the ISP's nodes as plain V4L2
    // devices. Where no camera exists zelispsrc fails on its way to READY and
    // autovideosrc moves on.
    return gst_element_register(plugin, "zelispsrc", GST_RANK_PRIMARY + 1, GST_TYPE_ZELISP_SRC) &&
           gst_element_register(plugin, "zelispgroupsrc", GST_RANK_NONE, GST_TYPE_ZELISP_GROUP_SRC) &&
           gst_device_provider_register(plugin, "zelispdeviceprovider", GST_RANK_PRIMARY,
                                        GST_TYPE_ZELISP_DEVICE_PROVIDER);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zelisp, ZELISP_PLUGIN_DESCRIPTION, plugin_init, VERSION,
                  ZELISP_PLUGIN_LICENCE, ZELISP_PLUGIN_PACKAGE, ZELISP_PLUGIN_ORIGIN)

// For programs that link the elements in (the unit tests) rather than load
// the plugin module.
extern "C" gboolean gst_zelisp_register_static(void)
{
    return gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "zelisp", ZELISP_PLUGIN_DESCRIPTION,
                                      plugin_init, VERSION, ZELISP_PLUGIN_LICENCE, "libzelisp",
                                      ZELISP_PLUGIN_PACKAGE, ZELISP_PLUGIN_ORIGIN);
}
