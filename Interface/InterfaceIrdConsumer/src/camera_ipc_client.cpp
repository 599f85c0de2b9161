// Legacy facade: forwards to the client object of its application type.
#include "camera_ipc_client.h"

#include "sensor_ipcclient_impl.h"

namespace vexa {
namespace cameraipcclient {

using sensor_access::SensorIpcClientImpl;

CCameraIpcClient::CCameraIpcClient(AppType appType) : m_appType(appType) {}

int32_t CCameraIpcClient::setFsyncDeltaMs(GroupId group, unsigned long deltaMs) {
    return SensorIpcClientImpl::getInstance(m_appType)->setFsyncDeltaMs(group, deltaMs);
}

int32_t CCameraIpcClient::getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list) {
    return SensorIpcClientImpl::getInstance(m_appType)->getAllSensorTypeInfo(list);
}

}  // namespace cameraipcclient
}  // namespace vexa
