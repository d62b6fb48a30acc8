/*
 * device_provider.cpp - the cameras the ISP platform lists, as devices.
 *
 * The platform's valid-camera table names the cameras; each is opened for a
 * moment to read its main view's format and what its node reports (rate,
 * colorimetry, the formats and sizes it can give), so a picker shows what
 * zelispsrc will negotiate. The ISP's video nodes would also appear through
 * the V4L2 provider, once per node and usable only as view 0; that provider
 * is hidden so each camera is listed once (gst-device-monitor-1.0 -i shows
 * it again).
 */
#include "device_provider.h"

#include <string>
#include <vector>

#include "camera_table.h"
#include "caps_negotiation.h"
#include "element_support.h"
#include "formats.h"
#include "library_messages.h"
#include "node_queries.h"
#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelispdeviceprovider_debug);
#define GST_CAT_DEFAULT zelispdeviceprovider_debug

using namespace gstzelisp;

struct _GstZelispDevice {
    GstDevice parent;
    int camera;
};

G_DEFINE_TYPE(GstZelispDevice, gst_zelisp_device, GST_TYPE_DEVICE)

struct _GstZelispDeviceProvider {
    GstDeviceProvider parent;
};

G_DEFINE_TYPE(GstZelispDeviceProvider, gst_zelisp_device_provider, GST_TYPE_DEVICE_PROVIDER)

namespace {

GstElement *create_element(GstDevice *device, const gchar *name)
{
    GstElement *element = gst_element_factory_make("zelispsrc", name);
    if (element)
        g_object_set(element, "camera", GST_ZELISP_DEVICE(device)->camera, nullptr);
    return element;
}

gboolean reconfigure_element(GstDevice *device, GstElement *element)
{
    if (g_strcmp0(GST_OBJECT_NAME(gst_element_get_factory(element)), "zelispsrc") != 0)
        return FALSE;
    g_object_set(element, "camera", GST_ZELISP_DEVICE(device)->camera, nullptr);
    return TRUE;
}

// What zelispsrc camera=N offers on its always pad, read from the open
// camera: NULL when it cannot be opened (it is left out).
GstCaps *camera_caps(int camera)
{
    unsigned long handle = isp_open_video(uint32_t(camera), 1);
    if (handle == 0)
        return nullptr;
    ViewOffer offer;
    int64_t fd = -1;
    GstCaps *caps = nullptr;
    if (isp_get_view_format(handle, 0, &offer.current) == ISP_OK &&
        video_format(offer.current.format) != GST_VIDEO_FORMAT_UNKNOWN &&
        isp_camera_get_native_fd(handle, &fd) == ISP_OK) {
        NodeFacts facts = query_node(int(fd));
        offer.formats = facts.fourccs;
        offer.sizes = facts.sizes;
        offer.driver_colorimetry = facts.colorimetry;
        offer.fps_n = facts.fps_n;
        offer.fps_d = facts.fps_d;
        offer.rate_by_decimation = facts.fps_n > 0;
        offer.rate_n = facts.fps_n;
        offer.rate_d = facts.fps_d;
        caps = offer_caps(offer);
    }
    isp_close_video(handle);
    return caps;
}

GstDevice *camera_device(int camera)
{
    GstCaps *caps = camera_caps(camera);
    if (!caps) {
        GST_WARNING("camera %d is listed by the platform but cannot be opened: left out", camera);
        return nullptr;
    }
    std::string name = "ISP camera " + std::to_string(camera);
    std::string node = "/dev/video" + std::to_string(camera);
    GstStructure *properties = gst_structure_new("zelisp-camera-properties", "device.api", G_TYPE_STRING, "zelisp",
                                                 "device.path", G_TYPE_STRING, node.c_str(), "zelisp.camera",
                                                 G_TYPE_INT, camera, nullptr);
    auto *device = static_cast<GstZelispDevice *>(g_object_new(GST_TYPE_ZELISP_DEVICE, "display-name", name.c_str(),
                                                               "device-class", "Video/Source", "caps", caps,
                                                               "properties", properties, nullptr));
    device->camera = camera;
    gst_caps_unref(caps);
    gst_structure_free(properties);
    return GST_DEVICE(device);
}

GList *probe(GstDeviceProvider *provider)
{
    LibraryCalls calls(GST_OBJECT(provider), false);
    const CameraTable table = read_camera_table();
    GList *devices = nullptr;
    for (int camera : table.cameras)
        if (GstDevice *device = camera_device(camera))
            devices = g_list_append(devices, gst_object_ref_sink(device));
    return devices;
}

} // namespace

static void gst_zelisp_device_class_init(GstZelispDeviceClass *klass)
{
    GstDeviceClass *device_class = GST_DEVICE_CLASS(klass);
    device_class->create_element = create_element;
    device_class->reconfigure_element = reconfigure_element;
}

static void gst_zelisp_device_init(GstZelispDevice *) {}

static void gst_zelisp_device_provider_class_init(GstZelispDeviceProviderClass *klass)
{
    GstDeviceProviderClass *provider_class = GST_DEVICE_PROVIDER_CLASS(klass);
    provider_class->probe = probe;
    gst_device_provider_class_set_static_metadata(provider_class, "ISP camera provider", "Source/Video",
                                                  "Lists the ISP platform's cameras, each captured by zelispsrc",
                                                  "libzelisp developers");
    GST_DEBUG_CATEGORY_INIT(zelispdeviceprovider_debug, "zelispdeviceprovider", 0, "ISP camera device provider");
}

static void gst_zelisp_device_provider_init(GstZelispDeviceProvider *self)
{
    gst_device_provider_hide_provider(GST_DEVICE_PROVIDER(self), "v4l2deviceprovider");
}
