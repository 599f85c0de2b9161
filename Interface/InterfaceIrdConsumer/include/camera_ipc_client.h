// Legacy facade of the sensor IPC client: the sensor-name API. A copyable value that holds only its
// application type; every call goes to the one client object of that application in the process.
#ifndef CAMERA_IPC_CLIENT_H
#define CAMERA_IPC_CLIENT_H

#include <cstdint>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace cameraipcclient {

class SENSOR_IPC_EXPORT CCameraIpcClient {
public:
    explicit CCameraIpcClient(AppType appType);

    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

private:
    AppType m_appType;
};

}  // namespace cameraipcclient
}  // namespace vexa

#endif  // CAMERA_IPC_CLIENT_H
