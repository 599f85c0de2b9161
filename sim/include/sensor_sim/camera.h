// Control of the simulated camera-access service: which sensors are present and what each call answers.
//
// Defaults after reset() (the built-in rig): sensors 0 to 21 present (detectAllSensors answers 0x3FFFFF),
// each with info bytes {id, 1, 2, 3, 4, 5}, versions {1, 0, id} and {2, 0, id}, type record
// {true, type code of its kind}, linked with video and state byte 1; registers read as 0 until written;
// I2C spaces read as 0 until written; fsync deltas 0; first sync time 0; radar and lidar inner states 0;
// no level-2 faults (result 0, time 0).
//
// An injected status (control.h) makes a camera-access call write its outputs as usual and then answer
// that status, so "whatever the service wrote" is observable. detectAllSensors answers the injected value
// as its mask.
#ifndef SENSOR_SIM_CAMERA_H
#define SENSOR_SIM_CAMERA_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace sensor_sim {
namespace camera {

constexpr uint32_t kSensorCount = 22;

struct SensorState {
    bool present = true;
    std::array<uint8_t, 6> info{};  // getSensorInfo's six outputs, in call order
    std::vector<uint8_t> version0;  // first vector of the version record
    std::vector<uint8_t> version1;  // second vector
    bool typePresent = true;
    uint8_t typeCode = 0;
    bool linked = true;   // bit in detectLinkAndVideoMask's link mask
    bool video = true;    // bit in its video mask
    uint8_t stateByte = 1;  // entry of its status map (reported for present sensors only)
};

SensorState sensor(uint32_t id);
void setSensor(uint32_t id, const SensorState& state);
void setPresent(uint32_t id, bool present);

// detectAllSensors answers this value instead of the presence mask (e.g. 0xEFFFFF); nullopt restores.
void setDetectAnswer(std::optional<uint32_t> value);

uint8_t reg8(uint32_t id, uint16_t reg);
void setReg8(uint32_t id, uint16_t reg, uint8_t value);
uint16_t reg16(uint32_t id, uint16_t reg);
void setReg16(uint32_t id, uint16_t reg, uint16_t value);

// I2C space of a sensor: bytes at consecutive addresses.
std::vector<uint8_t> i2c(uint32_t id, uint16_t addr, size_t len);
void setI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& bytes);
// A read returns at most this many bytes (shrinking the caller's vector and length); nullopt = no limit.
void setI2cReadLimit(uint32_t id, std::optional<uint16_t> limit);

uint64_t fsyncDelta(uint32_t group);
void setFsyncFirstTime(uint64_t time);

void setRadarInnerState(uint32_t state);
void setLidarInnerState(uint32_t state);

// getRadarLev2Fault fills the vector and time and answers result.
void setLev2Faults(const std::vector<uint16_t>& faults, uint64_t time, int32_t result = 0);

}  // namespace camera
}  // namespace sensor_sim

#endif  // SENSOR_SIM_CAMERA_H
