// The live vehicle: the rig it runs, the scenario that scripts faults in time, and its producers.
//
// A process that never calls reset() runs the live vehicle from its first platform call on: the rig named
// by the environment variable SENSOR_SIM_RIG (else the built-in default rig) and the scenario named by
// SENSOR_SIM_SCENARIO (else none), each read once then. A file that cannot be used is reported on standard
// error with its name, line and problem, and the vehicle then has no sensor (never another rig): tools
// read why from service::vehicleFileProblem().
// Frames are produced, at each stream's rate from one producer thread per stream, only for the stream
// outputs that some consumer has registered and started (initConsumerDone, not torn down); producer
// threads end when no consumer wants their stream, and all of them are stopped and joined by stop(),
// reset() and at process exit. docs/simulator.md describes the rig and scenario files.
//
// Tests run in scripted mode (after reset()); to run producers, load a rig (and a scenario), then start().
// reset() stops the vehicle and forgets the loaded rig and scenario.
#ifndef SENSOR_SIM_RIG_H
#define SENSOR_SIM_RIG_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace sensor_sim {
namespace rig {

// Reads a rig; it becomes the rig that the next start() runs. Returns "" on success, otherwise
// "<source>:<line>:<column>: <problem>" (or "<path>: <problem>" for a file that cannot be read), and the
// loaded rig stays as it was. Relative replay paths are resolved against the rig file's directory, or
// the working directory for text.
std::string load(const std::string& text, const std::string& source = "rig");
std::string loadFile(const std::string& path);
// Reads a scenario for the next start(), likewise; clearScenario() drops it.
std::string loadScenario(const std::string& text, const std::string& source = "scenario");
std::string loadScenarioFile(const std::string& path);
void clearScenario();

// The built-in default rig, and the loaded one, as complete rig-file text (equal rigs, equal text).
std::string defaultText();
std::string loadedText();

// Starts the live vehicle with the loaded rig and scenario: applies the rig's sensors to the camera-access
// model and its streams to the stream table, and switches to live mode (core::live()). A running vehicle
// is stopped first. Consumers already started get producers at once.
void start();
// Stops and joins every producer and the scenario clock and returns to scripted mode. Frames held or
// waiting stay where they are; their buffers return to their pools when released.
void stop();
bool running();

// What one stream output's producer did since start().
struct OutputStats {
    uint64_t produced = 0;     // frames drawn and handed to the stream model
    uint64_t delivered = 0;    // of those, frames at least one consumer received
    uint64_t poolDrops = 0;    // exposures lost because every pool buffer was held or queued
    uint64_t randomDrops = 0;  // exposures lost to the output's drop rate
    uint64_t fifoDrops = 0;    // waiting frames pushed out of a consumer's full FIFO
    uint64_t lateSkips = 0;    // exposures skipped because the producer fell behind (stream-wide)
    uint32_t inUse = 0;        // pool buffers now held or queued
    uint32_t poolSize = 0;
};
// Zeros for an output the running rig does not have.
OutputStats outputStats(uint32_t streamId, uint32_t output);
// Producer threads now running (not yet ended for lack of consumers).
size_t producerThreads();

}  // namespace rig
}  // namespace sensor_sim

#endif  // SENSOR_SIM_RIG_H
