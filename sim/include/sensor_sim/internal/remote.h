// The attached vehicle: the substitutes' side of sensor-simd. Which vehicle answers is decided once per
// process, at its first platform call: SENSOR_SIM_SERVICE names a socket (or "off"), else the default
// socket is tried, else the in-process vehicle runs. Every call that waits on the service has a bound,
// and a service that is gone or misbehaves makes calls fail with the platform's error statuses.
// Not for tests of the client (they run the in-process vehicle).
#ifndef SENSOR_SIM_INTERNAL_REMOTE_H
#define SENSOR_SIM_INTERNAL_REMOTE_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sensor_sim/internal/wire.h"
#include "sensor_sim/stats.h"
#include "sensor_sim/streams.h"

namespace sensor_sim {
namespace remote {

// Called at the first platform call of a live process; true when this process is now attached (or
// was told to attach and could not: its calls then fail).
bool attachFromEnvironment();
bool attached();
// One line for people: which vehicle this process uses.
std::string vehicleDescription();
// Why the named service cannot serve this process ("" when it can, or when it is not attached).
std::string problem();

// One consumer (ImageStreamMaster object) served by sensor-simd; statuses as the stream model's.
class Consumer {
public:
    Consumer();
    ~Consumer();
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    int initConsumer(const std::string& app, const std::string& channel, unsigned short param);
    int regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs, bool hasCallback);
    int initConsumerDone();
    int getStreamState();
    int deinitStream();
    int getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame);
    int releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// The camera-access calls, with the signatures of the in-process model (camera_internal.h).
namespace camera {
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
uint32_t readI2c(uint32_t id, uint16_t addr, std::vector<uint8_t>& buf, uint16_t& len);
uint32_t writeI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& buf, uint16_t len);
uint32_t setFsyncDelta(uint32_t group, uint64_t deltaMs);
uint64_t fsyncFirstTime();
uint32_t radarInnerState(uint32_t& state);
uint32_t lidarInnerState(uint32_t& state);
int32_t lev2Faults(std::vector<uint16_t>& faults, uint64_t& time);
}  // namespace camera

// The statistics of one frame, as stats_internal.h's lookup.
bool statsLookup(uint16_t sensorId, uint64_t frameId, stats::FrameStats* out);

// Asks the service at `path` for its state (sensorctl service); "" or what went wrong.
std::string queryState(const std::string& path, wire::ServiceState* out);

}  // namespace remote
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_REMOTE_H
