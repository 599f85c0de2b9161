// What a tool may ask of the simulated vehicle beside the platform calls: which vehicle serves this
// process, and the state of a running sensor-simd (its consumers, pools and refusals).
#ifndef SENSOR_SIM_SERVICE_H
#define SENSOR_SIM_SERVICE_H

#include <cstdint>
#include <string>
#include <vector>

namespace sensor_sim {
namespace service {

// One consumer of sensor-simd as `sensorctl service` shows it.
struct ConsumerState {
    uint64_t pid = 0;
    std::string app;
    std::string channel;
    std::vector<uint32_t> streams;
    uint64_t received = 0;
    uint64_t held = 0;
    uint64_t refused = 0;  // releases of frames the consumer did not hold
};

// One stream output's pool.
struct OutputState {
    uint32_t streamId = 0;
    uint32_t output = 0;
    uint64_t poolSize = 0;
    uint64_t inUse = 0;
    uint64_t poolDrops = 0;
    uint64_t produced = 0;
    uint64_t delivered = 0;
};

// Clients the service turned away or disconnected since it started.
struct Refusals {
    uint64_t connections = 0;     // over the connection cap, or no descriptor left to accept them
    uint64_t protocolErrors = 0;  // malformed, out-of-turn or oversized messages, stray descriptors
    uint64_t timeouts = 0;        // no handshake in time
};

struct State {
    std::vector<ConsumerState> consumers;
    std::vector<OutputState> outputs;
    Refusals refusals;
    uint32_t maxClients = 0;
    uint32_t clients = 0;  // connections open now
};

// $XDG_RUNTIME_DIR/sensor-sim/service.sock, or /tmp/sensor-sim-<uid>/service.sock without it.
std::string defaultSocketPath();
// The socket SENSOR_SIM_SERVICE names, else the default one ("" when it says "off").
std::string socketFromEnvironment();

// Asks the service at `path` for its state: "" or what went wrong.
std::string queryState(const std::string& path, State* out);

// Decides now, if no platform call has yet, which vehicle serves this process.
void chooseVehicle();
// One line for people: which vehicle this process uses.
std::string vehicleDescription();
// Why the sensor-simd that SENSOR_SIM_SERVICE names cannot serve this process ("" when it can, or when
// the in-process vehicle runs). Every platform call fails while this is set.
std::string vehicleProblem();
// Why the rig or scenario file that SENSOR_SIM_RIG or SENSOR_SIM_SCENARIO names could not be used ("" when
// it could, or none is named, or sensor-simd serves this process): the in-process vehicle then has no
// sensor rather than another rig.
std::string vehicleFileProblem();
// The socket of the sensor-simd that serves this process ("" when the in-process vehicle runs).
std::string servingSocket();

// The version of the protocol between sensor-simd and its clients; both ends must have the same.
uint32_t protocolVersion();

}  // namespace service
}  // namespace sensor_sim

#endif  // SENSOR_SIM_SERVICE_H
