// Host substitute of the camera-access library: every call is journaled, answered from the simulated
// service's model (in this process, or in sensor-simd when the process is attached to it), and then replaced
// by an injected status if a test asked for one. Outputs are written before the injected status is applied,
// as a service that filled them and then reported a fault would.
#include "camera_access_interface.h"

#include <array>
#include <utility>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/remote.h"

namespace vexa {
namespace cameraaccess {

namespace core = sensor_sim::core;
namespace local = sensor_sim::camera::internal;
namespace served = sensor_sim::remote::camera;

namespace {

// The injected status, if any, in place of the model's answer.
template <typename T>
T answer(const char* fn, T normal) {
    if (auto s = core::enter(fn)) return static_cast<T>(*s);
    return normal;
}

// The model of the vehicle that serves this process: in-process, or sensor-simd's.
template <typename Local, typename Served, typename... Args>
auto route(Local local, Served served, Args&&... args) {
    return sensor_sim::remote::attached() ? served(std::forward<Args>(args)...)
                                          : local(std::forward<Args>(args)...);
}

}  // namespace

CameraAccessInterface& CameraAccessInterface::getInstance() {
    static CameraAccessInterface instance;
    return instance;
}

uint32_t CameraAccessInterface::detectAllSensors() {
    core::record("detectAllSensors", core::Args());
    return answer("detectAllSensors", route(local::detectAllSensors, served::detectAllSensors));
}

uint32_t CameraAccessInterface::detectLinkAndVideoMask(unsigned int& linkMask, unsigned int& videoMask,
                                                       std::map<unsigned int, unsigned char>& status) {
    core::record("detectLinkAndVideoMask", core::Args());
    return answer(
        "detectLinkAndVideoMask",
        route(local::detectLinkAndVideoMask, served::detectLinkAndVideoMask, linkMask, videoMask, status));
}

uint32_t CameraAccessInterface::getSensorInfo(unsigned int id, unsigned char& info0, unsigned char& info1,
                                              unsigned char& info2, unsigned char& info3,
                                              unsigned char& info4, unsigned char& info5) {
    core::record("getSensorInfo", core::Args().add(id));
    std::array<uint8_t, 6> info{};
    const uint32_t status = route(local::sensorInfo, served::sensorInfo, id, info);
    if (status == local::kStatusOk) {
        info0 = info[0];
        info1 = info[1];
        info2 = info[2];
        info3 = info[3];
        info4 = info[4];
        info5 = info[5];
    }
    return answer("getSensorInfo", status);
}

uint32_t CameraAccessInterface::getSensorVerInfo(SensorID id, SensorVerInfo& info) {
    core::record("getSensorVerInfo", core::Args().add(static_cast<uint32_t>(id)));
    const uint32_t status =
        route(local::sensorVersions, served::sensorVersions, id, info.firstVersion, info.secondVersion);
    return answer("getSensorVerInfo", status);
}

uint32_t CameraAccessInterface::getAllSensorTypeInfo(unsigned int id, bool& present,
                                                     unsigned char& typeCode) {
    core::record("getAllSensorTypeInfo", core::Args().add(id));
    return answer("getAllSensorTypeInfo",
                  route(local::sensorType, served::sensorType, id, present, typeCode));
}

uint32_t CameraAccessInterface::readSensorRegUint8(unsigned int id, unsigned short reg,
                                                   unsigned char& value) {
    core::record("readSensorRegUint8", core::Args().add(id).add(reg));
    return answer("readSensorRegUint8", route(local::readReg8, served::readReg8, id, reg, value));
}

uint32_t CameraAccessInterface::writeSensorRegUint8(unsigned int id, unsigned short reg,
                                                    unsigned char value) {
    core::record("writeSensorRegUint8", core::Args().add(id).add(reg).add(value));
    return answer("writeSensorRegUint8", route(local::writeReg8, served::writeReg8, id, reg, value));
}

uint32_t CameraAccessInterface::readSensorRegUint16(unsigned int id, unsigned short reg,
                                                    unsigned short& value) {
    core::record("readSensorRegUint16", core::Args().add(id).add(reg));
    return answer("readSensorRegUint16", route(local::readReg16, served::readReg16, id, reg, value));
}

uint32_t CameraAccessInterface::writeSensorRegUint16(unsigned int id, unsigned short reg,
                                                     unsigned short value) {
    core::record("writeSensorRegUint16", core::Args().add(id).add(reg).add(value));
    return answer("writeSensorRegUint16", route(local::writeReg16, served::writeReg16, id, reg, value));
}

uint32_t CameraAccessInterface::readSensorI2C(unsigned int id, unsigned short addr,
                                              std::vector<unsigned char>& buf, unsigned short& len) {
    core::record("readSensorI2C", core::Args().add(id).add(addr).add(len));
    return answer("readSensorI2C", route(local::readI2c, served::readI2c, id, addr, buf, len));
}

uint32_t CameraAccessInterface::writeSensorI2C(unsigned int id, unsigned short addr,
                                               std::vector<unsigned char> const& buf, unsigned short len) {
    core::record("writeSensorI2C", core::Args().add(id).add(addr).addList(buf).add(len));
    return answer("writeSensorI2C", route(local::writeI2c, served::writeI2c, id, addr, buf, len));
}

uint32_t CameraAccessInterface::setFsyncDeltaMs(unsigned int group, unsigned long deltaMs) {
    core::record("setFsyncDeltaMs", core::Args().add(group).add(static_cast<uint64_t>(deltaMs)));
    return answer("setFsyncDeltaMs", route(local::setFsyncDelta, served::setFsyncDelta, group, deltaMs));
}

unsigned long CameraAccessInterface::get_fsync_first_time() {
    core::record("get_fsync_first_time", core::Args());
    return answer("get_fsync_first_time",
                  static_cast<unsigned long>(route(local::fsyncFirstTime, served::fsyncFirstTime)));
}

uint32_t CameraAccessInterface::getRadarInnerParaState(unsigned int& state) {
    core::record("getRadarInnerParaState", core::Args());
    return answer("getRadarInnerParaState", route(local::radarInnerState, served::radarInnerState, state));
}

uint32_t CameraAccessInterface::getLidarInnerParaState(unsigned int& state) {
    core::record("getLidarInnerParaState", core::Args());
    return answer("getLidarInnerParaState", route(local::lidarInnerState, served::lidarInnerState, state));
}

int32_t CameraAccessInterface::getRadarLev2Fault(unsigned short a, unsigned short b,
                                                 std::vector<unsigned short>& faults, unsigned long& time) {
    core::record("getRadarLev2Fault", core::Args().add(a).add(b));
    uint64_t t = 0;
    const int32_t result = route(local::lev2Faults, served::lev2Faults, faults, t);
    time = static_cast<unsigned long>(t);
    return answer("getRadarLev2Fault", result);
}

}  // namespace cameraaccess
}  // namespace vexa
