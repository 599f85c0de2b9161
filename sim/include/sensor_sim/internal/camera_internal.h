// The camera-access model's answers, one function per camera-access call: each writes the call's
// outputs from the model and returns the status the service gives. The substitute adds the journal and
// injected statuses around them. Not for tests (they use camera.h).
#ifndef SENSOR_SIM_INTERNAL_CAMERA_INTERNAL_H
#define SENSOR_SIM_INTERNAL_CAMERA_INTERNAL_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sensor_sim/camera.h"

namespace sensor_sim {
namespace camera {
namespace internal {

constexpr uint32_t kStatusOk = 0;
constexpr uint32_t kStatusBadArgument = 0x0002;  // sensor id above 21, unknown sync group
constexpr uint32_t kStatusNotPresent = 0x0003;   // the sensor is not connected
constexpr uint32_t kStatusLinkError = 0x0004;    // the default status of a scripted call fault

constexpr uint32_t kFsyncGroups = 8;

// The built-in rig's answers for one sensor (what reset() restores).
SensorState defaultSensor(uint32_t id);
// Whether the sensor is present, without copying its state (producers ask once per frame).
bool present(uint32_t id);

// A scripted failure of one camera-access call: while it lasts, the call answers `status` without
// touching its outputs. `fn` is one of the register, I2C and information calls by their platform names
// ("readSensorRegUint8", "writeSensorRegUint8", "readSensorRegUint16", "writeSensorRegUint16",
// "readSensorI2C", "writeSensorI2C", "getSensorInfo", "getSensorVerInfo").
struct CallFault {
    uint64_t tag;  // identifies the fault for removeCallFault
    std::string fn;
    std::optional<uint32_t> sensor;  // nullopt: every sensor
    uint32_t status;
    int calls;  // calls it still fails; < 0: until removed
};
bool faultableCall(const std::string& fn);
void addCallFault(const CallFault& fault);
void removeCallFault(uint64_t tag);
void clearCallFaults();

uint32_t detectAllSensors();
uint32_t detectLinkAndVideoMask(uint32_t& linkMask, uint32_t& videoMask,
                                std::map<unsigned int, unsigned char>& status);
uint32_t sensorInfo(uint32_t id, std::array<uint8_t, 6>& info);
uint32_t sensorVersions(uint32_t id, std::vector<uint8_t>& first, std::vector<uint8_t>& second);
uint32_t sensorType(uint32_t id, bool& present, uint8_t& typeCode);

uint32_t readReg8(uint32_t id, uint16_t reg, uint8_t& value);
uint32_t writeReg8(uint32_t id, uint16_t reg, uint8_t value);
uint32_t readReg16(uint32_t id, uint16_t reg, uint16_t& value);
uint32_t writeReg16(uint32_t id, uint16_t reg, uint16_t value);
// Reads min(len, read limit) bytes: `buf` is resized to that count and `len` set to it.
uint32_t readI2c(uint32_t id, uint16_t addr, std::vector<uint8_t>& buf, uint16_t& len);
// Writes min(len, buf.size()) bytes.
uint32_t writeI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& buf, uint16_t len);

uint32_t setFsyncDelta(uint32_t group, uint64_t deltaMs);
uint64_t fsyncFirstTime();
uint32_t radarInnerState(uint32_t& state);
uint32_t lidarInnerState(uint32_t& state);
// Replaces the content of `faults`.
int32_t lev2Faults(std::vector<uint16_t>& faults, uint64_t& time);

}  // namespace internal
}  // namespace camera
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_CAMERA_INTERNAL_H
