// Current facade: checks arguments, then forwards to the client object of its application type.
#include "sensor_ipc_client.h"

#include <algorithm>

#include "sensor_ipcclient_impl.h"

namespace vexa {
namespace sensor_access {

using cameraipcclient::RESULT_ACCESS_FAILED;
using cameraipcclient::RESULT_BAD_PARAM;
using cameraipcclient::RESULT_BUFFER_TOO_SMALL;
using cameraipcclient::RESULT_OK;
using cameraipcclient::SENSOR_TYPE_MAX;

namespace {
SensorIpcClientImpl* impl(AppType appType) { return SensorIpcClientImpl::getInstance(appType); }
bool badType(SensorType type) { return type > SENSOR_TYPE_MAX; }
}  // namespace

SensorIpcClient::SensorIpcClient(AppType appType) : m_appType(appType) {}

int32_t SensorIpcClient::init(unsigned int& id, unsigned int frameTimeout,
                              std::shared_ptr<vexa::vexalog::Logger> logger) {
    return impl(m_appType)->init(id, frameTimeout, logger);
}

int32_t SensorIpcClient::start() { return impl(m_appType)->start(); }

int32_t SensorIpcClient::getFrame(SensorType const& type, FrameBufObj& frame, bool toCpu) {
    if (badType(type)) return RESULT_BAD_PARAM;
    SensorIpcClientImpl* client = impl(m_appType);
    int32_t result = client->getFrame(type, frame);
    if (result != RESULT_OK || !toCpu) return result;
    result = client->nvBufObjToCpuBuffer(frame);
    if (result == RESULT_OK) return RESULT_OK;
    // The caller never holds a frame whose copy failed.
    client->releaseFrame(frame);
    return result;
}

int32_t SensorIpcClient::releaseFrame(FrameBufObj const& frame) { return impl(m_appType)->releaseFrame(frame); }

void SensorIpcClient::stop() { impl(m_appType)->stop(); }

void SensorIpcClient::deInit() { impl(m_appType)->deInit(); }

int32_t SensorIpcClient::getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                                         std::map<SensorType, unsigned char>& status) {
    return impl(m_appType)->getSensorStatus(linkMask, videoMask, status);
}

int32_t SensorIpcClient::getSensorInfo(std::vector<SensorInfo>& list) { return impl(m_appType)->getSensorInfo(list); }

int32_t SensorIpcClient::getSensorInfo(SensorType const& type, SensorInfo& info) {
    return impl(m_appType)->getSensorInfo(type, info);
}

int32_t SensorIpcClient::getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list) {
    return impl(m_appType)->getAllSensorTypeInfo(list);
}

int32_t SensorIpcClient::readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value) {
    if (badType(type)) return RESULT_BAD_PARAM;
    return impl(m_appType)->readSensorRegUint8(type, reg, value);
}

int32_t SensorIpcClient::writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                             unsigned char extra) {
    if (badType(type)) return RESULT_BAD_PARAM;
    return impl(m_appType)->writeSensorRegUint8(type, reg, value, extra);
}

int32_t SensorIpcClient::readSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short& value) {
    if (badType(type)) return RESULT_BAD_PARAM;
    return impl(m_appType)->readSensorRegUint16(type, reg, value);
}

int32_t SensorIpcClient::writeSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short value,
                                              unsigned char extra) {
    if (badType(type)) return RESULT_BAD_PARAM;
    return impl(m_appType)->writeSensorRegUint16(type, reg, value, extra);
}

int32_t SensorIpcClient::readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data,
                                       unsigned short& len) {
    if (data == nullptr || badType(type)) return RESULT_BAD_PARAM;
    if (len == 0) return RESULT_BAD_PARAM;
    return impl(m_appType)->readSensorI2C(type, addr, data, len);
}

int32_t SensorIpcClient::writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                                        unsigned short len, unsigned char extra) {
    if (badType(type) || data == nullptr || len == 0) return RESULT_BAD_PARAM;
    return impl(m_appType)->writeSensorI2C(type, addr, data, len, extra);
}

int32_t SensorIpcClient::setFsyncDeltaMs(GroupId group, unsigned long deltaMs) {
    return impl(m_appType)->setFsyncDeltaMs(group, deltaMs);
}

int32_t SensorIpcClient::getSensorFsyncStartTime(unsigned long& time) {
    return impl(m_appType)->getSensorFsyncStartTime(time);
}

int32_t SensorIpcClient::getRadarInnerParaState(InnerParaState& state) {
    return impl(m_appType)->getRadarInnerParaState(state);
}

int32_t SensorIpcClient::getLidarInnerParaState(InnerParaState& state) {
    return impl(m_appType)->getLidarInnerParaState(state);
}

int32_t SensorIpcClient::getRadarLev2FaultInfo(unsigned short a, unsigned short b, unsigned short* faults,
                                               unsigned short& count, unsigned long& time) {
    if (faults == nullptr) return RESULT_ACCESS_FAILED;
    std::vector<unsigned short> list;
    int32_t result = impl(m_appType)->getRadarLev2FaultInfo(a, b, list, time);
    if (result != RESULT_OK) return result;
    // count is the caller's capacity; a list that does not fit leaves count and faults as they were.
    if (count < list.size()) return RESULT_BUFFER_TOO_SMALL;
    count = static_cast<unsigned short>(list.size());
    std::copy(list.begin(), list.end(), faults);
    return RESULT_OK;
}

}  // namespace sensor_access
}  // namespace vexa
