// Legacy facade: forwards to the client object of its application type.
#include "camera_ipc_client.h"

#include "sensor_ipcclient_impl.h"

namespace vexa {
namespace cameraipcclient {

using sensor_access::SensorIpcClientImpl;

CCameraIpcClient::CCameraIpcClient(AppType appType) : m_appType(appType) {}

int32_t CCameraIpcClient::Init(unsigned short& id, bool rawEnable) {
    unsigned int mask = id;
    int32_t result = SensorIpcClientImpl::getInstance(m_appType)->init(mask, rawEnable);
    id = static_cast<unsigned short>(mask);
    return result;
}

int32_t CCameraIpcClient::Start() { return SensorIpcClientImpl::getInstance(m_appType)->start(); }

int32_t CCameraIpcClient::GetFrame(SensorName name, BufFrameObj* frame) {
    return SensorIpcClientImpl::getInstance(m_appType)->getFrame(name, frame);
}

int32_t CCameraIpcClient::ReleaseFrame(BufFrameObj const* frame) {
    return SensorIpcClientImpl::getInstance(m_appType)->releaseFrame(frame, true);
}

void CCameraIpcClient::Stop() { SensorIpcClientImpl::getInstance(m_appType)->stop(); }

void CCameraIpcClient::DeInit() { SensorIpcClientImpl::getInstance(m_appType)->deInit(); }

int32_t CCameraIpcClient::GetFrameRoiStatsData(BufFrameObj const* frame, CameraFrameRoiStatsData* stats) {
    return SensorIpcClientImpl::getInstance(m_appType)->getFrameRoiStatsData(frame, stats);
}

int32_t CCameraIpcClient::WriteImageToFile(BufFrameObj* frame) {
    return SensorIpcClientImpl::getInstance(m_appType)->writeImageToFile(static_cast<BufFrameObj const*>(frame));
}

int32_t CCameraIpcClient::WriteRawImageToFile(BufFrameObj* frame) {
    return SensorIpcClientImpl::getInstance(m_appType)->writeRawImageToFile(static_cast<BufFrameObj const*>(frame));
}

int32_t CCameraIpcClient::setFsyncDeltaMs(GroupId group, unsigned long deltaMs) {
    return SensorIpcClientImpl::getInstance(m_appType)->setFsyncDeltaMs(group, deltaMs);
}

int32_t CCameraIpcClient::getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list) {
    return SensorIpcClientImpl::getInstance(m_appType)->getAllSensorTypeInfo(list);
}

}  // namespace cameraipcclient
}  // namespace vexa
