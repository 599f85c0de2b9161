// Current facade of the sensor IPC client: the sensor-type API. A copyable value that holds only its
// application type; every call goes to the one client object of that application in the process.
#ifndef SENSOR_IPC_CLIENT_H
#define SENSOR_IPC_CLIENT_H

#include <cstdint>
#include <map>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace sensor_access {

using cameraipcclient::AppType;
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
