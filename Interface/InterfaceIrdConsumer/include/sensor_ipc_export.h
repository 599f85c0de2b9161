/// @file
/// Marks the symbols that the sensor IPC client library exports; everything else is hidden.
#ifndef SENSOR_IPC_EXPORT_H
#define SENSOR_IPC_EXPORT_H

/// Exported from the shared library (default visibility).
#define SENSOR_IPC_EXPORT __attribute__((visibility("default")))

#endif  // SENSOR_IPC_EXPORT_H
