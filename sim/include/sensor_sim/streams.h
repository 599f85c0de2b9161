// Control of the simulated stream service: consumers and their stream registrations, frames waiting per
// stream output, frames held by consumers, and the connection state.
//
// Each ImageStreamMaster object of the stream substitute is one consumer. A stream registration names
// its outputs by stream name: the raw names ("ipc-camera-wide", "ipc-camera-narrow") and every name
// without "-isp0" are capture outputs (0), the "-isp0" names processed outputs (1). A name the rig does
// not publish for that stream id is refused (regConsumerStream answers 2).
//
// Stream substitute statuses: getFrame answers 9 when no frame is waiting (in scripted mode at once, in
// live mode after the stream's frame time-out) and 3 for a stream output the consumer did not register;
// releaseFrame answers 5 for a frame the consumer does not hold; every call answers 1 before
// initConsumer succeeded (getStreamState, which answers a state, answers 2 "connect failed" then).
// A null record, an empty application or channel name, or an empty configuration vector is refused
// (4, 4 and 2). An injected status answers without taking or returning a frame.
//
// Held frames stay held until released: deinitStream drops only the waiting frames and stops delivery to
// that consumer (a later initConsumer on the same object resumes it); destroying the ImageStreamMaster
// forgets its waiting and held frames. reset() forgets every consumer's frames and registrations; an
// ImageStreamMaster that still exists then behaves as a new one that has not called initConsumer.
// A repeated initConsumer replaces the names and keeps the registrations; registering an output again
// replaces its frame time-out. Frame callbacks given to regConsumerStream are recorded, never called.
#ifndef SENSOR_SIM_STREAMS_H
#define SENSOR_SIM_STREAMS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sensor_sim/buffers.h"

namespace sensor_sim {
namespace streams {

constexpr int kNoFrame = 9;
constexpr int kNotRegistered = 3;
constexpr int kNotHeld = 5;
constexpr int kNotInitialised = 1;
constexpr int kUnknownStream = 2;
constexpr int kBadArgument = 4;

struct FrameSpec {
    uint64_t counter = 0;
    uint16_t objIndex = 0;
    std::shared_ptr<Buffer> buffer;  // may be null
    int32_t sensorId = -1;           // the record's sensor id; -1: the stream id
    uint64_t words[9] = {};          // stream words A to I
    uint32_t trailing = 0;
};

// Queues a frame on one stream output of every consumer that registered it; returns how many got it.
size_t push(uint32_t streamId, uint32_t output, const FrameSpec& frame);
// Frames waiting on one stream output, summed over consumers.
size_t queued(uint32_t streamId, uint32_t output);

// getStreamState answers these in order, the last one repeating (default {1}: connected at once).
// In live mode, until a script is set, it answers 0 "connecting" for about 30 ms after the consumer's
// initConsumerDone and then 1, or 2 while a registered stream is scripted to fail to connect (rig.h).
void setStates(const std::vector<int>& states);

struct Held {
    std::string consumer;  // the consumer's application name
    uint32_t streamId;
    uint32_t output;
    uint16_t objIndex;
    uint64_t counter;
    std::string channel;  // the consumer's channel
};
// Frames taken by a consumer and not yet released, in the order they were taken.
std::vector<Held> held();

struct Config {
    std::string name;
    uint32_t field1;
    uint32_t field2;
    uint32_t field3;
    uint32_t frameTimeout;
    uint32_t field5;
};

struct Registration {
    std::string consumer;
    uint32_t streamId;
    std::vector<Config> configs;
    bool hasCallback;
    int result;
};
// Every regConsumerStream call since reset(), in order.
std::vector<Registration> registrations();

struct Consumer {
    std::string name;
    std::string channel;
    unsigned short param;
    bool alive;  // the ImageStreamMaster object still exists
    int initDoneCalls;
    int deinitCalls;
};
// Every consumer that called initConsumer since reset(), in order.
std::vector<Consumer> consumers();

}  // namespace streams
}  // namespace sensor_sim

#endif  // SENSOR_SIM_STREAMS_H
