// Current facade of the sensor IPC client: the sensor-type API. A copyable value that holds only its
// application type; every call goes to the one client object of that application in the process.
#ifndef SENSOR_IPC_CLIENT_H
#define SENSOR_IPC_CLIENT_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace vexalog {
class Logger;
}

namespace sensor_access {

using cameraipcclient::AppType;
using cameraipcclient::FrameBufObj;
using cameraipcclient::GroupId;
using cameraipcclient::InnerParaState;
using cameraipcclient::SensorInfo;
using cameraipcclient::SensorType;
using cameraipcclient::SensorTypeInfo;

// Sensor ids in the order applications present them (public data; the library does not read it).
SENSOR_IPC_EXPORT extern const std::vector<uint32_t> g_sensorOrderId;

class SENSOR_IPC_EXPORT SensorIpcClient {
public:
    explicit SensorIpcClient(AppType appType);

    // Registers the application for the wanted radar and lidar streams (bit n = sensor n); id receives
    // the sensors present and registered. An empty logger makes the library create its own.
    int32_t init(unsigned int& id, unsigned int frameTimeout, std::shared_ptr<vexa::vexalog::Logger> logger);
    // Blocks until the stream connection is made or failed (or deInit ends the wait).
    int32_t start();
    // With toCpu the image is also copied into a CPU buffer (frame.cpuData, frame.cpuDataSize) that the
    // library owns and reuses for the next frame of the same sensor and buffer; a failed copy returns
    // the frame at once.
    int32_t getFrame(SensorType const& type, FrameBufObj& frame, bool toCpu);
    int32_t releaseFrame(FrameBufObj const& frame);
    void stop();
    void deInit();

    int32_t getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                            std::map<SensorType, unsigned char>& status);
    int32_t getSensorInfo(std::vector<SensorInfo>& list);
    int32_t getSensorInfo(SensorType const& type, SensorInfo& info);
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

    int32_t readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value);
    // extra is accepted for interface compatibility and ignored.
    int32_t writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                unsigned char extra);
    int32_t readSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short& value);
    int32_t writeSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short value,
                                 unsigned char extra);
    // data must hold as many bytes as the service returns; len may be changed by the service.
    int32_t readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data, unsigned short& len);
    int32_t writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                           unsigned short len, unsigned char extra);

    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    int32_t getSensorFsyncStartTime(unsigned long& time);
    int32_t getRadarInnerParaState(InnerParaState& state);
    int32_t getLidarInnerParaState(InnerParaState& state);
    // count: in, the capacity of faults in elements; out, the number of faults copied.
    int32_t getRadarLev2FaultInfo(unsigned short a, unsigned short b, unsigned short* faults, unsigned short& count,
                                  unsigned long& time);

private:
    AppType m_appType;
};

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPC_CLIENT_H
