// The simulated camera-access service: sensor presence and identity, registers, I2C spaces, frame sync
// and radar/lidar diagnostics. All state sits behind one mutex; the camera.h control functions are the
// only way to change it, so tests, rig files and scenarios all drive the same model.
#include "sensor_sim/camera.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/camera_internal.h"

namespace sensor_sim {
namespace camera {
namespace {

using internal::kFsyncGroups;
using internal::kStatusBadArgument;
using internal::kStatusNotPresent;
using internal::kStatusOk;

using internal::CallFault;
using internal::defaultSensor;

struct SensorModel {
    SensorState state;
    std::map<uint16_t, uint8_t> reg8;
    std::map<uint16_t, uint16_t> reg16;
    std::map<uint16_t, uint8_t> i2c;  // only written bytes; the rest read as 0
    std::optional<uint16_t> i2cReadLimit;
};

struct Model {
    std::array<SensorModel, kSensorCount> sensors;
    std::optional<uint32_t> detectAnswer;
    std::array<uint64_t, kFsyncGroups> fsyncDelta{};
    uint64_t fsyncFirstTime = 0;
    uint32_t radarInner = 0;
    uint32_t lidarInner = 0;
    std::vector<uint16_t> faults;
    uint64_t faultTime = 0;
    int32_t faultResult = 0;
    std::vector<CallFault> callFaults;

    Model() {
        for (uint32_t id = 0; id < kSensorCount; ++id) sensors[id].state = defaultSensor(id);
    }
};

struct Service {
    std::mutex mutex;
    Model model;
};

// Never destroyed: the substitute may still be called while the process exits.
Service& service() {
    static Service* s = new Service;
    return *s;
}

[[maybe_unused]] const bool kResetRegistered = [] {
    core::onReset([] {
        Service& s = service();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.model = Model();
    });
    return true;
}();

// Control functions refuse ids the service does not have: a test or rig naming sensor 22 is a mistake.
void checkId(const char* fn, uint32_t id) {
    if (id >= kSensorCount) {
        throw std::out_of_range(std::string("sensor_sim::camera::") + fn + ": sensor id " +
                                std::to_string(id) + " is not in 0.." + std::to_string(kSensorCount - 1));
    }
}

// The sensor a call addresses, or the status that refuses it. Needs the lock.
SensorModel* target(Model& m, uint32_t id, uint32_t& status) {
    if (id >= kSensorCount) {
        status = kStatusBadArgument;
        return nullptr;
    }
    if (!m.sensors[id].state.present) {
        status = kStatusNotPresent;
        return nullptr;
    }
    status = kStatusOk;
    return &m.sensors[id];
}

const char* const kFaultableCalls[] = {"readSensorRegUint8",   "writeSensorRegUint8", "readSensorRegUint16",
                                       "writeSensorRegUint16", "readSensorI2C",       "writeSensorI2C",
                                       "getSensorInfo",        "getSensorVerInfo"};

// The status of a scripted fault of this call on this sensor, consuming one of its calls. Needs the lock.
std::optional<uint32_t> takeFault(Model& m, const char* fn, uint32_t id) {
    for (auto it = m.callFaults.begin(); it != m.callFaults.end(); ++it) {
        if (it->fn != fn || (it->sensor && *it->sensor != id)) continue;
        const uint32_t status = it->status;
        if (it->calls > 0 && --it->calls == 0) m.callFaults.erase(it);
        return status;
    }
    return std::nullopt;
}

template <typename Fn>
auto locked(Fn fn) {
    Service& s = service();
    std::lock_guard<std::mutex> lock(s.mutex);
    return fn(s.model);
}

}  // namespace

SensorState sensor(uint32_t id) {
    checkId("sensor", id);
    return locked([id](Model& m) { return m.sensors[id].state; });
}

void setSensor(uint32_t id, const SensorState& state) {
    checkId("setSensor", id);
    locked([&](Model& m) { m.sensors[id].state = state; });
}

void setPresent(uint32_t id, bool present) {
    checkId("setPresent", id);
    locked([&](Model& m) { m.sensors[id].state.present = present; });
}

void setDetectAnswer(std::optional<uint32_t> value) {
    locked([&](Model& m) { m.detectAnswer = value; });
}

uint8_t reg8(uint32_t id, uint16_t reg) {
    checkId("reg8", id);
    return locked([&](Model& m) -> uint8_t {
        auto it = m.sensors[id].reg8.find(reg);
        return it == m.sensors[id].reg8.end() ? 0 : it->second;
    });
}

void setReg8(uint32_t id, uint16_t reg, uint8_t value) {
    checkId("setReg8", id);
    locked([&](Model& m) { m.sensors[id].reg8[reg] = value; });
}

uint16_t reg16(uint32_t id, uint16_t reg) {
    checkId("reg16", id);
    return locked([&](Model& m) -> uint16_t {
        auto it = m.sensors[id].reg16.find(reg);
        return it == m.sensors[id].reg16.end() ? 0 : it->second;
    });
}

void setReg16(uint32_t id, uint16_t reg, uint16_t value) {
    checkId("setReg16", id);
    locked([&](Model& m) { m.sensors[id].reg16[reg] = value; });
}

// Addresses wrap at 0xFFFF, as a 16-bit auto-incrementing address counter does.
std::vector<uint8_t> i2c(uint32_t id, uint16_t addr, size_t len) {
    checkId("i2c", id);
    return locked([&](Model& m) {
        const auto& space = m.sensors[id].i2c;
        std::vector<uint8_t> out(len, 0);
        for (size_t i = 0; i < len; ++i) {
            auto it = space.find(static_cast<uint16_t>(addr + i));
            if (it != space.end()) out[i] = it->second;
        }
        return out;
    });
}

void setI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& bytes) {
    checkId("setI2c", id);
    locked([&](Model& m) {
        for (size_t i = 0; i < bytes.size(); ++i)
            m.sensors[id].i2c[static_cast<uint16_t>(addr + i)] = bytes[i];
    });
}

void setI2cReadLimit(uint32_t id, std::optional<uint16_t> limit) {
    checkId("setI2cReadLimit", id);
    locked([&](Model& m) { m.sensors[id].i2cReadLimit = limit; });
}

uint64_t fsyncDelta(uint32_t group) {
    if (group >= kFsyncGroups) {
        throw std::out_of_range("sensor_sim::camera::fsyncDelta: sync group " + std::to_string(group) +
                                " is not in 0.." + std::to_string(kFsyncGroups - 1));
    }
    return locked([&](Model& m) { return m.fsyncDelta[group]; });
}

void setFsyncFirstTime(uint64_t time) {
    locked([&](Model& m) { m.fsyncFirstTime = time; });
}

void setRadarInnerState(uint32_t state) {
    locked([&](Model& m) { m.radarInner = state; });
}

void setLidarInnerState(uint32_t state) {
    locked([&](Model& m) { m.lidarInner = state; });
}

void setLev2Faults(const std::vector<uint16_t>& faults, uint64_t time, int32_t result) {
    locked([&](Model& m) {
        m.faults = faults;
        m.faultTime = time;
        m.faultResult = result;
    });
}

namespace internal {

// Type codes of the built-in rig by sensor id: 1 camera, 2 radar, 3 lidar, 4 the remaining sensor.
constexpr char kDefaultTypeCodes[kSensorCount + 1] = "1111111111112234222233";

SensorState defaultSensor(uint32_t id) {
    checkId("defaultSensor", id);
    SensorState s;
    const auto b = static_cast<uint8_t>(id);
    s.info = {b, 1, 2, 3, 4, 5};
    s.version0 = {1, 0, b};
    s.version1 = {2, 0, b};
    s.typeCode = static_cast<uint8_t>(kDefaultTypeCodes[id] - '0');
    return s;
}

bool present(uint32_t id) {
    return id < kSensorCount && locked([id](Model& m) { return m.sensors[id].state.present; });
}

bool faultableCall(const std::string& fn) {
    return std::find(std::begin(kFaultableCalls), std::end(kFaultableCalls), fn) != std::end(kFaultableCalls);
}

void addCallFault(const CallFault& fault) {
    locked([&](Model& m) { m.callFaults.push_back(fault); });
}

void removeCallFault(uint64_t tag) {
    locked([&](Model& m) {
        m.callFaults.erase(std::remove_if(m.callFaults.begin(), m.callFaults.end(),
                                          [tag](const CallFault& f) { return f.tag == tag; }),
                           m.callFaults.end());
    });
}

void clearCallFaults() {
    locked([](Model& m) { m.callFaults.clear(); });
}

uint32_t detectAllSensors() {
    return locked([](Model& m) {
        if (m.detectAnswer) return *m.detectAnswer;
        uint32_t mask = 0;
        for (uint32_t id = 0; id < kSensorCount; ++id) {
            if (m.sensors[id].state.present) mask |= 1u << id;
        }
        return mask;
    });
}

uint32_t detectLinkAndVideoMask(uint32_t& linkMask, uint32_t& videoMask,
                                std::map<unsigned int, unsigned char>& status) {
    return locked([&](Model& m) {
        linkMask = 0;
        videoMask = 0;
        status.clear();
        for (uint32_t id = 0; id < kSensorCount; ++id) {
            const SensorState& s = m.sensors[id].state;
            if (!s.present) continue;
            if (s.linked) linkMask |= 1u << id;
            if (s.video) videoMask |= 1u << id;
            status[id] = s.stateByte;
        }
        return kStatusOk;
    });
}

uint32_t sensorInfo(uint32_t id, std::array<uint8_t, 6>& info) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "getSensorInfo", id)) return *f;
        if (SensorModel* s = target(m, id, status)) info = s->state.info;
        return status;
    });
}

uint32_t sensorVersions(uint32_t id, std::vector<uint8_t>& first, std::vector<uint8_t>& second) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "getSensorVerInfo", id)) return *f;
        if (SensorModel* s = target(m, id, status)) {
            first = s->state.version0;
            second = s->state.version1;
        }
        return status;
    });
}

// An absent sensor is a valid answer here (not present, no type), not a failure.
uint32_t sensorType(uint32_t id, bool& present, uint8_t& typeCode) {
    return locked([&](Model& m) {
        if (id >= kSensorCount) return kStatusBadArgument;
        const SensorState& s = m.sensors[id].state;
        present = s.present && s.typePresent;
        typeCode = s.present ? s.typeCode : 0;
        return kStatusOk;
    });
}

uint32_t readReg8(uint32_t id, uint16_t reg, uint8_t& value) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "readSensorRegUint8", id)) return *f;
        if (SensorModel* s = target(m, id, status)) {
            auto it = s->reg8.find(reg);
            value = it == s->reg8.end() ? 0 : it->second;
        }
        return status;
    });
}

uint32_t writeReg8(uint32_t id, uint16_t reg, uint8_t value) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "writeSensorRegUint8", id)) return *f;
        if (SensorModel* s = target(m, id, status)) s->reg8[reg] = value;
        return status;
    });
}

uint32_t readReg16(uint32_t id, uint16_t reg, uint16_t& value) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "readSensorRegUint16", id)) return *f;
        if (SensorModel* s = target(m, id, status)) {
            auto it = s->reg16.find(reg);
            value = it == s->reg16.end() ? 0 : it->second;
        }
        return status;
    });
}

uint32_t writeReg16(uint32_t id, uint16_t reg, uint16_t value) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "writeSensorRegUint16", id)) return *f;
        if (SensorModel* s = target(m, id, status)) s->reg16[reg] = value;
        return status;
    });
}

uint32_t readI2c(uint32_t id, uint16_t addr, std::vector<uint8_t>& buf, uint16_t& len) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "readSensorI2C", id)) return *f;
        if (SensorModel* s = target(m, id, status)) {
            uint16_t count = len;
            if (s->i2cReadLimit && *s->i2cReadLimit < count) count = *s->i2cReadLimit;
            buf.assign(count, 0);
            for (uint16_t i = 0; i < count; ++i) {
                auto it = s->i2c.find(static_cast<uint16_t>(addr + i));
                if (it != s->i2c.end()) buf[i] = it->second;
            }
            len = count;
        }
        return status;
    });
}

uint32_t writeI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& buf, uint16_t len) {
    return locked([&](Model& m) {
        uint32_t status;
        if (auto f = takeFault(m, "writeSensorI2C", id)) return *f;
        if (SensorModel* s = target(m, id, status)) {
            const size_t count = std::min<size_t>(len, buf.size());
            for (size_t i = 0; i < count; ++i) s->i2c[static_cast<uint16_t>(addr + i)] = buf[i];
        }
        return status;
    });
}

uint32_t setFsyncDelta(uint32_t group, uint64_t deltaMs) {
    return locked([&](Model& m) {
        if (group >= kFsyncGroups) return kStatusBadArgument;
        m.fsyncDelta[group] = deltaMs;
        return kStatusOk;
    });
}

uint64_t fsyncFirstTime() {
    return locked([](Model& m) { return m.fsyncFirstTime; });
}

uint32_t radarInnerState(uint32_t& state) {
    return locked([&](Model& m) {
        state = m.radarInner;
        return kStatusOk;
    });
}

uint32_t lidarInnerState(uint32_t& state) {
    return locked([&](Model& m) {
        state = m.lidarInner;
        return kStatusOk;
    });
}

int32_t lev2Faults(std::vector<uint16_t>& faults, uint64_t& time) {
    return locked([&](Model& m) {
        faults = m.faults;
        time = m.faultTime;
        return m.faultResult;
    });
}

}  // namespace internal
}  // namespace camera
}  // namespace sensor_sim
