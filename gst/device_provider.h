/*
 * device_provider.h - zelispdeviceprovider: the platform's cameras for
 * gst-device-monitor-1.0, GstDeviceMonitor and device pickers, each with the
 * caps its main view can be given and a zelispsrc to capture it.
 */
#ifndef GST_ZELISP_DEVICE_PROVIDER_H
#define GST_ZELISP_DEVICE_PROVIDER_H

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_ZELISP_DEVICE_PROVIDER (gst_zelisp_device_provider_get_type())
G_DECLARE_FINAL_TYPE(GstZelispDeviceProvider, gst_zelisp_device_provider, GST, ZELISP_DEVICE_PROVIDER,
                     GstDeviceProvider)

#define GST_TYPE_ZELISP_DEVICE (gst_zelisp_device_get_type())
G_DECLARE_FINAL_TYPE(GstZelispDevice, gst_zelisp_device, GST, ZELISP_DEVICE, GstDevice)

G_END_DECLS

#endif
