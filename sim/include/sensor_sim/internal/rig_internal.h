// What the live vehicle runs: the rig (sensors, streams, outputs, pools, timing, static faults) and the
// scenario (faults scripted in time), the built-in default rig, and the TOML readers of both files.
// docs/simulator.md documents the file formats. Not for tests (they use rig.h).
#ifndef SENSOR_SIM_INTERNAL_RIG_INTERNAL_H
#define SENSOR_SIM_INTERNAL_RIG_INTERNAL_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sensor_sim/camera.h"
#include "sensor_sim/internal/pattern.h"
#include "sensor_sim/internal/replay.h"

namespace sensor_sim {
namespace rig {
namespace internal {

constexpr uint32_t kCapture = 0;
constexpr uint32_t kProcessed = 1;
constexpr uint32_t kMaxPool = 32;  // pool slots are bits of one word

// One output of a stream: its published name, image, buffer pool and delivery timing.
struct OutputSpec {
    std::string name;
    pattern::Format format = pattern::Format::Yuv420;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pitchPadding = 64;  // bytes after the visible line rounded up to 64
    uint32_t poolSize = 9;
    double offsetMs = 0;  // delivery relative to the exposure's nominal time; negative = earlier
    double jitterMs = 0;  // uniform in [-jitter, +jitter]
    double dropRate = 0;  // probability that a frame is lost on this output
    std::shared_ptr<const replay::Source> replay;  // frames from a dump instead of the test pattern
};

struct StreamSpec {
    double rateHz = 30;
    bool connectFails = false;
    std::optional<OutputSpec> outputs[2];  // by output number: 0 capture, 1 processed
};

struct Rig {
    std::string source = "built-in default rig";
    uint32_t fifoDepth = 4;        // frames waiting per consumer and output
    uint32_t connectDelayMs = 30;  // "connecting" after initConsumerDone
    uint32_t statsFrames = 16;     // statistics kept per sensor
    uint64_t seed = 1;             // jitter and drops
    std::optional<uint32_t> detectAnswer;
    std::array<camera::SensorState, camera::kSensorCount> sensors;
    std::map<uint32_t, StreamSpec> streams;
    // An MCAP recording played into the streams of the sensors it holds (see applyRecording).
    std::shared_ptr<const replay::Recording> recording;
    double replayRate = 1.0;  // recorded time divided by this
    bool replayLoop = false;  // start again after the last frame
    bool replayOthersAbsent = false;  // sensors the recording lacks: absent, rather than their patterns
};

// Plays `recording` into the rig: each recorded sensor's outputs take the recorded format and size (its
// outputs the recording lacks go), and the sensors it lacks keep their patterns or, with `othersAbsent`,
// are absent. Returns "" or what cannot be played.
std::string applyRecording(Rig& rig, std::shared_ptr<const replay::Recording> recording, double rate, bool loop,
                           bool othersAbsent);
// Plays the recording at `path` into the loaded rig (sensor-simd --replay); "" or why it cannot.
std::string playRecording(const std::string& path, double rate, bool loop, bool othersAbsent);

Rig defaultRig();

// Reads a rig file's text. `baseDir` resolves relative replay paths ("" = the working directory).
// Returns "" and fills `out`, or "<source>:<line>:<column>: <problem>" and leaves `out` alone.
std::string parseRig(const std::string& text, const std::string& source, const std::string& baseDir,
                     Rig* out);
// The rig as rig-file text, every value written out: equal rigs give equal text.
std::string canonicalText(const Rig& rig);

enum class EventKind { SensorLost, ConnectFail, CallFail, DetectFail };

struct Event {
    EventKind kind = EventKind::SensorLost;
    double atS = 0;
    std::optional<double> forS;      // reverted after this long; nullopt: for good
    std::optional<uint32_t> sensor;  // SensorLost; CallFail (nullopt: every sensor)
    uint32_t stream = 0;             // ConnectFail
    std::string call;                // CallFail
    uint32_t status = 0;             // CallFail: the status; DetectFail: the detection answer
    int calls = -1;                  // CallFail: failing calls; < 0 every call while active
};

struct Scenario {
    std::string source;
    bool processClock = false;  // times from the live vehicle's start instead of the first stream start
    std::vector<Event> events;
};

std::string parseScenario(const std::string& text, const std::string& source, Scenario* out);

// Pool buffers in shared memory (sensor-simd turns this on before it starts the vehicle).
void setSharedMemoryPools(bool on);
bool sharedMemoryPools();
// Why the file SENSOR_SIM_RIG or SENSOR_SIM_SCENARIO names could not be used at the first platform call
// ("" when it could, or none was named); the vehicle then has no sensor.
std::string environmentProblem();
// Why the loaded rig cannot be shared with other processes ("" when it can): the stream whose buffer
// is larger than `maxBufferBytes`, or pools that hold more than `maxBuffers` buffers in all.
std::string unservable(uint64_t maxBufferBytes, uint64_t maxBuffers);

// Reads a whole file; false with "<path>: <reason>" in `error`.
bool readFile(const std::string& path, std::string* text, std::string* error);

}  // namespace internal
}  // namespace rig
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_RIG_INTERNAL_H
