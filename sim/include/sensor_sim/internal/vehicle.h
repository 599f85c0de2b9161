// The vehicle behind the host substitutes: its streams and frames, its camera-access calls and its
// statistics, as one interface with two implementations: the in-process vehicle (the simulator's models
// in this process) and the served vehicle (sensor-simd's, reached through its socket). The substitutes
// call only this interface; which implementation answers is decided once per process.
#ifndef SENSOR_SIM_INTERNAL_VEHICLE_H
#define SENSOR_SIM_INTERNAL_VEHICLE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sensor_sim/internal/messages.h"
#include "sensor_sim/streams.h"

namespace sensor_sim {
namespace vehicle {

// One consumer of the vehicle's streams (an ImageStreamMaster object); statuses as streams.h gives them.
class Consumer {
public:
    virtual ~Consumer() = default;
    virtual int initConsumer(const std::string& app, const std::string& channel, unsigned short param) = 0;
    // `forced`: an injected status, answered instead (the in-process vehicle records the registration).
    virtual int regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs, bool hasCallback,
                                  std::optional<int> forced) = 0;
    virtual int initConsumerDone() = 0;
    virtual int getStreamState() = 0;
    virtual int deinitStream() = 0;
    virtual int getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) = 0;
    virtual int releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) = 0;
};

class Vehicle {
public:
    virtual ~Vehicle() = default;
    virtual std::unique_ptr<Consumer> createConsumer() = 0;
    // The camera-access calls and the statistics, one per message of messages.h.
#define SENSOR_SIM_DECLARE_ASK(M) virtual msg::M::Answer ask(const msg::M& call) = 0;
    SENSOR_SIM_VEHICLE_CALLS(SENSOR_SIM_DECLARE_ASK)
#undef SENSOR_SIM_DECLARE_ASK
};

// The in-process vehicle's consumer, with what sensor-simd needs beyond the interface: a get that never
// waits, and the frames waiting for it.
class LocalConsumer : public Consumer {
public:
    LocalConsumer();
    ~LocalConsumer() override;
    uint64_t id() const { return m_id; }
    int initConsumer(const std::string& app, const std::string& channel, unsigned short param) override;
    int regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs, bool hasCallback,
                          std::optional<int> forced) override;
    int initConsumerDone() override;
    int getStreamState() override;
    int deinitStream() override;
    int getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) override;
    int releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) override;
    // getFrame that never waits: kNoFrame at once, with `wait` set to how long getFrame would wait.
    int takeFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame, std::chrono::milliseconds* wait);
    size_t waitingFrames(uint32_t streamId, uint32_t output) const;

private:
    uint64_t m_id;
};

// The simulator's models in this process.
Vehicle& inProcess();
// The vehicle that serves this process's substitutes.
Vehicle& current();

// A served vehicle of its own at `path` (the contract tests run both implementations side by side);
// null with `error` set when no sensor-simd answers there.
std::unique_ptr<Vehicle> connect(const std::string& path, std::string* error);

}  // namespace vehicle
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_VEHICLE_H
