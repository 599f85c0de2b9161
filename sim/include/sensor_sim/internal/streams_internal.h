// The stream model behind the stream substitute, and the hooks a frame producer uses. The substitute adds
// the journal and injected statuses around these calls. Not for tests of the client (they use streams.h).
//
// Producer contract: a producer owns a finite pool of buffers per stream output. It hands a frame to the
// model with deliver(), passing a callback; the model keeps a copy of the frame per receiving consumer
// (waiting in its FIFO, then held after getFrame) and runs the callback once every copy is gone:
// released by its consumer, dropped by deinitStream, forgotten with a destroyed consumer, or cleared by
// reset(). Then the buffer is free again. A frame no consumer receives is returned at once. Callbacks run
// on whichever thread drops the last copy, never under the model's lock, so they may call into the model.
#ifndef SENSOR_SIM_INTERNAL_STREAMS_INTERNAL_H
#define SENSOR_SIM_INTERNAL_STREAMS_INTERNAL_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sensor_sim/streams.h"

namespace sensor_sim {
namespace streams {
namespace internal {

// --- The stream names each stream id publishes -----------------------------------------------------

struct PublishedStream {
    std::string name;
    uint32_t output;  // 0 capture, 1 processed
};
using StreamTable = std::map<uint32_t, std::vector<PublishedStream>>;

// The vehicle's streams: processed outputs of cameras 0..7, raw outputs of cameras 2 and 3, the surround
// cameras 8..11 and the radars and lidars 12..21 (15 has none).
StreamTable defaultStreamTable();
// The output a stream name selects: names ending in "-isp0" are processed outputs (1), others capture (0).
uint32_t outputOfName(const std::string& name);
// Replaces the table (a rig file does this); reset() restores the default. Existing registrations stay.
void setStreamTable(StreamTable table);
StreamTable streamTable();

// --- One consumer per ImageStreamMaster object ------------------------------------------------------

using ConsumerId = uint64_t;

ConsumerId createConsumer();
// Marks the consumer not alive and forgets its waiting and held frames.
void destroyConsumer(ConsumerId id);

int initConsumer(ConsumerId id, const std::string& appName, const std::string& channel, unsigned short param);
// `forced`: an injected status; the call is recorded among the registrations with it and registers nothing.
int regConsumerStream(ConsumerId id, uint32_t streamId, const std::vector<Config>& configs, bool hasCallback,
                      std::optional<int> forced = std::nullopt);
int initConsumerDone(ConsumerId id);
int getStreamState(ConsumerId id);
int deinitStream(ConsumerId id);
// 0 and the front frame of that output (now held), or a status of streams.h. In live mode an empty FIFO
// is waited on, up to the registration's frame time-out.
int getFrame(ConsumerId id, uint32_t streamId, uint32_t output, FrameSpec* frame);
// getFrame that never waits: kNoFrame at once on an empty FIFO, with `wait` set to how long getFrame
// would have waited there (zero when it would not: scripted mode, torn down, closed).
int takeFrame(ConsumerId id, uint32_t streamId, uint32_t output, FrameSpec* frame,
              std::chrono::milliseconds* wait);
int releaseFrame(ConsumerId id, uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter);
// Frames of that output waiting in the consumer's FIFO (0 for an unknown, torn down or closed consumer).
size_t waitingFrames(ConsumerId id, uint32_t streamId, uint32_t output);

// --- Producer side ---------------------------------------------------------------------------------

// How deliver() hands a frame out. The live producers reach only started consumers (initConsumerDone
// called, stream not torn down) and keep each consumer's FIFO at most `maxWaiting` frames long by
// dropping the oldest waiting copy first; test pushes reach every registered consumer, unbounded.
struct DeliveryPolicy {
    bool startedOnly = false;
    size_t maxWaiting = 0;  // 0: unbounded
};

// Queues a copy of the frame for every live consumer that registered the output (and has not torn its
// stream down); returns how many. `onReturned` runs once when the last copy is gone (see above).
// `evicted`, when given, receives the number of older copies dropped to respect policy.maxWaiting.
size_t deliver(uint32_t streamId, uint32_t output, const FrameSpec& frame,
               std::function<void()> onReturned = {}, DeliveryPolicy policy = {}, size_t* evicted = nullptr);
// Called after every deliver() that reached a consumer, on the producer's thread and outside the model's
// lock, so that a server can hand the frame on without a thread of its own waking first. One listener;
// empty removes it.
void setDeliveryListener(std::function<void(uint32_t streamId, uint32_t output)> listener);
// Called by a producer before it takes a buffer from its pool, outside the model's lock, so that a server
// that keeps consumers' releases in shared memory applies them first. One collector; empty removes it.
void setReleaseCollector(std::function<void()> collector);
void collectReleases();
// Consumers a deliver() would reach right now.
size_t subscribers(uint32_t streamId, uint32_t output, bool startedOnly = false);

// Stream outputs that some started consumer has registered, leaving out consumers that fail to connect:
// what the live producers must produce.
using OutputKey = std::pair<uint32_t, uint32_t>;  // stream id, output
std::set<OutputKey> demand();
// Called, outside the model's lock, whenever demand() may have changed (a consumer started, registered
// an output after starting, tore its stream down or was destroyed). One listener; empty removes it.
void setDemandListener(std::function<void()> listener);

// The live connection: getStreamState answers "connecting" (0) until `delay` after the consumer's
// initConsumerDone, then "connected" (1); "connect failed" (2) while one of its registered streams is
// in `failing`. Used while core::live() and no script was set with setStates(). reset() restores
// 30 ms and no failing streams. A consumer that fails to connect gets no frames from the producers.
// This does not call the demand listener: the live vehicle re-evaluates demand itself after a change.
void setLiveConnection(std::chrono::milliseconds delay, std::set<uint32_t> failing);

}  // namespace internal
}  // namespace streams
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_STREAMS_INTERNAL_H
