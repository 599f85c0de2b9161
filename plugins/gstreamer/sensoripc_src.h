// The sensoripcsrc element: a live push source of one sensor's frames through the sensor IPC client.
#ifndef SENSORIPC_SRC_H
#define SENSORIPC_SRC_H

#include <gst/base/gstpushsrc.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_SENSOR_IPC_SRC (gst_sensor_ipc_src_get_type())
G_DECLARE_FINAL_TYPE(GstSensorIpcSrc, gst_sensor_ipc_src, GST, SENSOR_IPC_SRC, GstPushSrc)

// Registers the element with `plugin` (null: statically, for tests and applications that link it).
gboolean gst_sensor_ipc_src_register(GstPlugin* plugin);

G_END_DECLS

#endif  // SENSORIPC_SRC_H
