// Host substitute of the camera-access library: every call is journaled, answered by the vehicle that
// serves the process (in-process, or sensor-simd's), and then replaced by an injected status if a test
// asked for one. Outputs are written before the injected status is applied, as a service that filled them
// and then reported a fault would; a failed call leaves them as they were.
#include "camera_access_interface.h"

#include "sensor_sim/core.h"
#include "sensor_sim/internal/vehicle.h"

namespace vexa {
namespace cameraaccess {

namespace core = sensor_sim::core;
namespace msg = sensor_sim::msg;

namespace {

// The injected status, if any, in place of the vehicle's answer.
template <typename T>
T answer(const char* fn, T normal) {
    if (auto s = core::enter(fn)) return static_cast<T>(*s);
    return normal;
}

template <typename M>
typename M::Answer ask(const M& call) {
    return sensor_sim::vehicle::current().ask(call);
}

}  // namespace

CameraAccessInterface& CameraAccessInterface::getInstance() {
    static CameraAccessInterface instance;
    return instance;
}

uint32_t CameraAccessInterface::detectAllSensors() {
    core::record("detectAllSensors", core::Args());
    return answer("detectAllSensors", ask(msg::DetectAllSensors{}).mask);
}

uint32_t CameraAccessInterface::detectLinkAndVideoMask(unsigned int& linkMask, unsigned int& videoMask,
                                                       std::map<unsigned int, unsigned char>& status) {
    core::record("detectLinkAndVideoMask", core::Args());
    const auto a = ask(msg::DetectLinkAndVideo{});
    if (a.status == 0) {
        linkMask = a.linkMask;
        videoMask = a.videoMask;
        status.clear();
        for (const auto& s : a.states) status[s.sensor] = s.state;
    }
    return answer("detectLinkAndVideoMask", a.status);
}

uint32_t CameraAccessInterface::getSensorInfo(unsigned int id, unsigned char& info0, unsigned char& info1,
                                              unsigned char& info2, unsigned char& info3,
                                              unsigned char& info4, unsigned char& info5) {
    core::record("getSensorInfo", core::Args().add(id));
    const auto a = ask(msg::GetSensorInfo{id});
    if (a.status == 0) {
        info0 = a.info[0];
        info1 = a.info[1];
        info2 = a.info[2];
        info3 = a.info[3];
        info4 = a.info[4];
        info5 = a.info[5];
    }
    return answer("getSensorInfo", a.status);
}

uint32_t CameraAccessInterface::getSensorVerInfo(SensorID id, SensorVerInfo& info) {
    core::record("getSensorVerInfo", core::Args().add(static_cast<uint32_t>(id)));
    auto a = ask(msg::GetSensorVersions{static_cast<uint32_t>(id)});
    if (a.status == 0) {
        info.firstVersion = std::move(a.first);
        info.secondVersion = std::move(a.second);
    }
    return answer("getSensorVerInfo", a.status);
}

uint32_t CameraAccessInterface::getAllSensorTypeInfo(unsigned int id, bool& present,
                                                     unsigned char& typeCode) {
    core::record("getAllSensorTypeInfo", core::Args().add(id));
    const auto a = ask(msg::GetSensorType{id});
    if (a.status == 0) {
        present = a.present;
        typeCode = a.typeCode;
    }
    return answer("getAllSensorTypeInfo", a.status);
}

uint32_t CameraAccessInterface::readSensorRegUint8(unsigned int id, unsigned short reg,
                                                   unsigned char& value) {
    core::record("readSensorRegUint8", core::Args().add(id).add(reg));
    const auto a = ask(msg::ReadReg8{id, reg});
    if (a.status == 0) value = a.value;
    return answer("readSensorRegUint8", a.status);
}

uint32_t CameraAccessInterface::writeSensorRegUint8(unsigned int id, unsigned short reg,
                                                    unsigned char value) {
    core::record("writeSensorRegUint8", core::Args().add(id).add(reg).add(value));
    return answer("writeSensorRegUint8", ask(msg::WriteReg8{id, reg, value}).status);
}

uint32_t CameraAccessInterface::readSensorRegUint16(unsigned int id, unsigned short reg,
                                                    unsigned short& value) {
    core::record("readSensorRegUint16", core::Args().add(id).add(reg));
    const auto a = ask(msg::ReadReg16{id, reg});
    if (a.status == 0) value = a.value;
    return answer("readSensorRegUint16", a.status);
}

uint32_t CameraAccessInterface::writeSensorRegUint16(unsigned int id, unsigned short reg,
                                                     unsigned short value) {
    core::record("writeSensorRegUint16", core::Args().add(id).add(reg).add(value));
    return answer("writeSensorRegUint16", ask(msg::WriteReg16{id, reg, value}).status);
}

uint32_t CameraAccessInterface::readSensorI2C(unsigned int id, unsigned short addr,
                                              std::vector<unsigned char>& buf, unsigned short& len) {
    core::record("readSensorI2C", core::Args().add(id).add(addr).add(len));
    auto a = ask(msg::ReadI2c{id, addr, len});
    if (a.status == 0) {
        len = static_cast<unsigned short>(std::min<size_t>(a.bytes.size(), len));
        a.bytes.resize(len);
        buf = std::move(a.bytes);
    }
    return answer("readSensorI2C", a.status);
}

uint32_t CameraAccessInterface::writeSensorI2C(unsigned int id, unsigned short addr,
                                               std::vector<unsigned char> const& buf, unsigned short len) {
    core::record("writeSensorI2C", core::Args().add(id).add(addr).addList(buf).add(len));
    // Only the bytes the call writes travel: min(len, buf.size()).
    const size_t count = std::min<size_t>(len, buf.size());
    msg::WriteI2c call{id, addr, std::vector<uint8_t>(buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(count)), len};
    return answer("writeSensorI2C", ask(call).status);
}

uint32_t CameraAccessInterface::setFsyncDeltaMs(unsigned int group, unsigned long deltaMs) {
    core::record("setFsyncDeltaMs", core::Args().add(group).add(static_cast<uint64_t>(deltaMs)));
    return answer("setFsyncDeltaMs", ask(msg::SetFsyncDelta{group, static_cast<uint64_t>(deltaMs)}).status);
}

unsigned long CameraAccessInterface::get_fsync_first_time() {
    core::record("get_fsync_first_time", core::Args());
    return answer("get_fsync_first_time", static_cast<unsigned long>(ask(msg::GetFsyncFirstTime{}).time));
}

uint32_t CameraAccessInterface::getRadarInnerParaState(unsigned int& state) {
    core::record("getRadarInnerParaState", core::Args());
    const auto a = ask(msg::GetRadarInnerState{});
    if (a.status == 0) state = a.state;
    return answer("getRadarInnerParaState", a.status);
}

uint32_t CameraAccessInterface::getLidarInnerParaState(unsigned int& state) {
    core::record("getLidarInnerParaState", core::Args());
    const auto a = ask(msg::GetLidarInnerState{});
    if (a.status == 0) state = a.state;
    return answer("getLidarInnerParaState", a.status);
}

int32_t CameraAccessInterface::getRadarLev2Fault(unsigned short a, unsigned short b,
                                                 std::vector<unsigned short>& faults, unsigned long& time) {
    core::record("getRadarLev2Fault", core::Args().add(a).add(b));
    auto r = ask(msg::GetLev2Faults{});
    faults = std::move(r.faults);
    time = static_cast<unsigned long>(r.time);
    return answer("getRadarLev2Fault", r.result);
}

}  // namespace cameraaccess
}  // namespace vexa
