// plugin.cpp - the "zelisp" plugin: zelispsrc and zelispgroupsrc.
#include <gst/gst.h>

#include "zelispgroupsrc.h"
#include "zelispsrc.h"

static gboolean plugin_init(GstPlugin *plugin)
{
    return gst_element_register(plugin, "zelispsrc", GST_RANK_NONE, GST_TYPE_ZELISP_SRC) &&
           gst_element_register(plugin, "zelispgroupsrc", GST_RANK_NONE, GST_TYPE_ZELISP_GROUP_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zelisp,
                  "ISP cameras through libzelisp: one camera or a synchronised camera group", plugin_init, VERSION,
                  "Proprietary", "libzelisp", "libzelisp")

// For programs that link the elements in (the unit tests) rather than load
// the plugin module.
extern "C" gboolean gst_zelisp_register_static(void)
{
    return gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "zelisp",
                                      "ISP cameras through libzelisp: one camera or a synchronised camera group",
                                      plugin_init, VERSION, "Proprietary", "libzelisp", "libzelisp",
                                      "libzelisp");
}
