// The plugin libgstsensoripc: its one element, sensoripcsrc.
#include "sensoripc_src.h"

#ifndef PACKAGE
#define PACKAGE "sensor_ipcclient"
#endif
#ifndef SENSORIPC_VERSION
#define SENSORIPC_VERSION "3.0.0"
#endif

static gboolean pluginInit(GstPlugin* plugin) {
    return gst_sensor_ipc_src_register(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, sensoripc,
                  "Frames of the vehicle's cameras, radars and lidars through the sensor IPC client",
                  pluginInit, SENSORIPC_VERSION, "Proprietary", "sensor_ipcclient",
                  "https://localhost/sensor_ipcclient")
