// The client object: registry, lifecycle, frames, buffers and sensor control.
#include "sensor_ipcclient_impl.h"

#include <algorithm>

#include "app_tables.h"
#include "camera_access_interface.h"
#include "clogger.h"

namespace vexa {
namespace sensor_access {

using cameraaccess::CameraAccessInterface;
using cameraipcclient::RESULT_ACCESS_FAILED;
using cameraipcclient::RESULT_BAD_PARAM;
using cameraipcclient::RESULT_ERROR;
using cameraipcclient::RESULT_OK;
using cameraipcclient::RESULT_SERVICE_FAILED;

std::unordered_map<AppType, std::unique_ptr<SensorIpcClientImpl>> SensorIpcClientImpl::m_instanceMap;
std::mutex SensorIpcClientImpl::m_instanceMutex;
std::atomic<bool> SensorIpcClientImpl::m_isinitLog{false};

namespace {

// A camera-access status means success when its low 16 bits are zero; the upper bits are the service's.
bool accessOk(uint32_t status) { return (status & 0xFFFFu) == 0; }

}  // namespace

SensorIpcClientImpl* SensorIpcClientImpl::getInstance(AppType appType) {
    std::lock_guard<std::mutex> lock(m_instanceMutex);
    auto it = m_instanceMap.find(appType);
    if (it == m_instanceMap.end()) {
        it = m_instanceMap.emplace(appType, std::make_unique<SensorIpcClientImpl>(appType)).first;
    }
    return it->second.get();
}

SensorIpcClientImpl::SensorIpcClientImpl(AppType appType) : m_appType(appType) {
    m_rawQueMap.max_load_factor(1.0f);
}

SensorIpcClientImpl::~SensorIpcClientImpl() = default;

// ---------------------------------------------------------------------------------------------------
// Sensor discovery, information and status

int32_t SensorIpcClientImpl::getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                                             std::map<SensorType, unsigned char>& status) {
    std::map<unsigned int, unsigned char> states;
    uint32_t result = CameraAccessInterface::getInstance().detectLinkAndVideoMask(linkMask, videoMask, states);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, "IRD: detectLinkAndVideoMask failed.");
        return RESULT_ERROR;
    }
    for (const auto& entry : states) {
        status[static_cast<SensorType>(entry.first)] = entry.second;
    }
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getSensorInfo(SensorType const& type, SensorInfo& info) {
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    uint8_t* attr = info.sensorAttr;
    if (!accessOk(access.getSensorInfo(type, attr[3], attr[4], attr[5], attr[0], attr[1], attr[2]))) {
        return RESULT_ACCESS_FAILED;
    }
    cameraaccess::SensorVerInfo versions;
    if (!accessOk(access.getSensorVerInfo(static_cast<cameraaccess::SensorID>(type), versions))) {
        return RESULT_ACCESS_FAILED;
    }
    info.verData1 = versions.secondVersion;
    info.verData0 = versions.firstVersion;
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getSensorInfo(std::vector<SensorInfo>& list) {
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    for (uint32_t id = 0; id < kSensorIdCount; ++id) {
        SensorInfo info{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {}, {}};
        uint8_t out[6] = {};
        if (accessOk(access.getSensorInfo(id, out[0], out[1], out[2], out[3], out[4], out[5]))) {
            std::copy(out + 3, out + 6, info.sensorAttr);
            std::copy(out, out + 3, info.sensorAttr + 3);
        }
        cameraaccess::SensorVerInfo versions;
        if (accessOk(access.getSensorVerInfo(static_cast<cameraaccess::SensorID>(id), versions))) {
            info.verData1 = versions.secondVersion;
            info.verData0 = versions.firstVersion;
        }
        list.push_back(std::move(info));
    }
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list) {
    list.resize(kSensorIdCount);
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    for (uint32_t id = 0; id < list.size(); ++id) {
        uint32_t result = access.getAllSensorTypeInfo(id, list[id].present, list[id].typeCode);
        if (!accessOk(result)) {
            SIPC_LOG(kLogError, "sensorId ", id, " getAllSensorTypeInfo error, res = ",
                     static_cast<unsigned short>(result));
        }
    }
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------
// Register and I2C access. The trailing byte of the writes is part of the interface and ignored.

int32_t SensorIpcClientImpl::readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value) {
    return accessOk(CameraAccessInterface::getInstance().readSensorRegUint8(type, reg, value)) ? RESULT_OK
                                                                                              : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                                 unsigned char /*extra*/) {
    return accessOk(CameraAccessInterface::getInstance().writeSensorRegUint8(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::readSensorRegUint16(SensorType const& type, unsigned short reg,
                                                 unsigned short& value) {
    return accessOk(CameraAccessInterface::getInstance().readSensorRegUint16(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeSensorRegUint16(SensorType const& type, unsigned short reg,
                                                  unsigned short value, unsigned char /*extra*/) {
    return accessOk(CameraAccessInterface::getInstance().writeSensorRegUint16(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data,
                                           unsigned short& len) {
    std::vector<unsigned char> buffer(len, 0);
    if (!accessOk(CameraAccessInterface::getInstance().readSensorI2C(type, addr, buffer, len))) {
        return RESULT_ACCESS_FAILED;
    }
    // The service may have changed the vector's size: copy what it holds now.
    std::copy(buffer.begin(), buffer.end(), data);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                                            unsigned short len, unsigned char /*extra*/) {
    std::vector<unsigned char> buffer(data, data + len);
    return accessOk(CameraAccessInterface::getInstance().writeSensorI2C(type, addr, buffer, len))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

// ---------------------------------------------------------------------------------------------------
// Frame sync and radar/lidar diagnostics

int32_t SensorIpcClientImpl::setFsyncDeltaMs(GroupId group, unsigned long deltaMs) {
    uint32_t result = CameraAccessInterface::getInstance().setFsyncDeltaMs(group, deltaMs);
    if (accessOk(result)) return RESULT_OK;
    SIPC_LOG(kLogError, " setFsyncDeltaMs error: ", static_cast<unsigned short>(result));
    return RESULT_SERVICE_FAILED;
}

int32_t SensorIpcClientImpl::getSensorFsyncStartTime(unsigned long& time) {
    time = CameraAccessInterface::getInstance().get_fsync_first_time();
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRadarInnerParaState(InnerParaState& state) {
    unsigned int value = 0;
    uint32_t result = CameraAccessInterface::getInstance().getRadarInnerParaState(value);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, " getRadarInnerParaState error: ", static_cast<unsigned short>(result));
        return RESULT_SERVICE_FAILED;
    }
    state = static_cast<InnerParaState>(value);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getLidarInnerParaState(InnerParaState& state) {
    unsigned int value = 0;
    uint32_t result = CameraAccessInterface::getInstance().getLidarInnerParaState(value);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, " getLidarInnerParaState error: ", static_cast<unsigned short>(result));
        return RESULT_SERVICE_FAILED;
    }
    state = static_cast<InnerParaState>(value);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRadarLev2FaultInfo(unsigned short a, unsigned short b,
                                                   std::vector<unsigned short>& faults, unsigned long& time) {
    // Only 1, 2 and 3 are failures; every other answer of the service counts as success.
    switch (CameraAccessInterface::getInstance().getRadarLev2Fault(a, b, faults, time)) {
        case 1: return RESULT_BAD_PARAM;
        case 2: return RESULT_SERVICE_FAILED;
        case 3: return RESULT_ACCESS_FAILED;
        default: return RESULT_OK;
    }
}

}  // namespace sensor_access
}  // namespace vexa
