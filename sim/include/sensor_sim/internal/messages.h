// Every message between sensor-simd and the processes it serves, each declared once with its fields, its
// bounds and, for a request, its answer. codec.h encodes and decodes them; docs/simulator.md lists them.
//
// A connection starts with Hello (answered by Welcome). A consumer's connection then sends InitConsumer
// (or Attach, for a further connection of the same consumer) and the stream calls; any connection may
// send the camera-access calls, GetStats and GetServiceState. Each request has exactly one answer, but
// Release (none) and MapBuffer (a BufferAnswer with its descriptor, then a Status). A GetFrame's answer
// is preceded by a BufferAnswer for every buffer the connection has not been sent yet.
#ifndef SENSOR_SIM_INTERNAL_MESSAGES_H
#define SENSOR_SIM_INTERNAL_MESSAGES_H

#include <array>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "sensor_sim/buffers.h"
#include "sensor_sim/internal/codec.h"
#include "sensor_sim/service.h"
#include "sensor_sim/stats.h"
#include "sensor_sim/streams.h"

namespace sensor_sim {

// Structs declared elsewhere that messages carry (found by argument-dependent lookup).
namespace streams {
inline auto fieldsOf(Config& c) {
    return std::tie(c.name, c.field1, c.field2, c.field3, c.frameTimeout, c.field5);
}
inline auto fieldsOf(const Config& c) {
    return std::tie(c.name, c.field1, c.field2, c.field3, c.frameTimeout, c.field5);
}
}  // namespace streams
inline auto fieldsOf(PlaneSpec& p) {
    return std::tie(p.width, p.height, p.bitsPerPixel, p.colorFormat, p.pitch, p.alignedHeight, p.channelCount,
                    p.topPadding, p.bottomPadding);
}
inline auto fieldsOf(const PlaneSpec& p) {
    return std::tie(p.width, p.height, p.bitsPerPixel, p.colorFormat, p.pitch, p.alignedHeight, p.channelCount,
                    p.topPadding, p.bottomPadding);
}
namespace service {
inline auto fieldsOf(ConsumerState& c) {
    return std::tie(c.pid, c.app, c.channel, c.streams, c.received, c.held, c.refused);
}
inline auto fieldsOf(const ConsumerState& c) {
    return std::tie(c.pid, c.app, c.channel, c.streams, c.received, c.held, c.refused);
}
inline auto fieldsOf(OutputState& o) {
    return std::tie(o.streamId, o.output, o.poolSize, o.inUse, o.poolDrops, o.produced, o.delivered);
}
inline auto fieldsOf(const OutputState& o) {
    return std::tie(o.streamId, o.output, o.poolSize, o.inUse, o.poolDrops, o.produced, o.delivered);
}
inline auto fieldsOf(Refusals& r) {
    return std::tie(r.connections, r.protocolErrors, r.timeouts);
}
inline auto fieldsOf(const Refusals& r) {
    return std::tie(r.connections, r.protocolErrors, r.timeouts);
}
inline auto fieldsOf(State& s) {
    return std::tie(s.consumers, s.outputs, s.refusals, s.maxClients, s.clients);
}
inline auto fieldsOf(const State& s) {
    return std::tie(s.consumers, s.outputs, s.refusals, s.maxClients, s.clients);
}
}  // namespace service

namespace msg {

constexpr uint32_t kVersion = 4;
constexpr size_t kMaxName = 255;
constexpr size_t kMaxConfigs = 64;
constexpr uint32_t kMaxPlanes = 3;
// The largest buffer a consumer maps: twice an 8K frame of 16-bit raw pixels. sensor-simd refuses a rig
// whose buffers are larger.
constexpr uint64_t kMaxBufferBytes = 128ull << 20;
// Camera-access statuses a served call answers when the service does not.
constexpr uint32_t kLinkError = 0x0004;
constexpr uint32_t kDetectFailed = 0xEFFFFF;
constexpr int32_t kLev2ServiceFailure = 2;
// The service's own refusal of InitConsumer: another consumer holds the channel.
constexpr int32_t kChannelBusy = 7;

inline bool validName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxName && name.find('\0') == std::string::npos;
}

// --- Answers ---------------------------------------------------------------------------------------

struct Welcome {
    uint32_t version = kVersion;
    SENSOR_SIM_FIELDS(version)
    bool valid() const { return version == kVersion; }
};

// A stream call's status; `value` is the consumer id after InitConsumer.
struct Status {
    int32_t status = 0;
    uint64_t value = 0;
    SENSOR_SIM_FIELDS(status, value)
};

// A shared-memory buffer, with its descriptor: enough to rebuild its geometry on the other side.
struct BufferAnswer {
    static constexpr bool kCarriesFd = true;
    uint64_t bufferId = 0;
    uint64_t size = 0;
    uint32_t layout = 0;
    bool swCache = false;
    std::vector<PlaneSpec> planes;
    SENSOR_SIM_FIELDS(bufferId, size, layout, swCache, planes)
    bool valid() const { return !planes.empty() && planes.size() <= kMaxPlanes && size <= kMaxBufferBytes; }
};

// A frame, or the status of a get without one. Also written into the control page, so fixed in size.
struct FrameAnswer {
    int32_t status = 0;
    uint64_t counter = 0;
    uint16_t objIndex = 0;
    int32_t sensorId = -1;
    uint32_t trailing = 0;
    uint64_t bufferId = 0;
    std::array<uint64_t, 9> words{};  // stream words A to I
    SENSOR_SIM_FIELDS(status, counter, objIndex, sensorId, trailing, bufferId, words)
};

// The control page, with its descriptor when `status` is 0 (the service could make none otherwise).
struct PageAnswer {
    static constexpr bool kCarriesFd = true;
    int32_t status = 0;
    uint32_t bytes = 0;
    SENSOR_SIM_FIELDS(status, bytes)
};

struct CameraStatus {
    uint32_t status = 0;
    SENSOR_SIM_FIELDS(status)
};
struct SensorMask {
    uint32_t mask = 0;
    SENSOR_SIM_FIELDS(mask)
};
struct LinkState {
    uint8_t sensor = 0;
    uint8_t state = 0;
    SENSOR_SIM_FIELDS(sensor, state)
};
struct LinkAndVideoAnswer {
    static constexpr uint32_t kMaxBytes = 4096;
    uint32_t status = 0;
    uint32_t linkMask = 0;
    uint32_t videoMask = 0;
    std::vector<LinkState> states;
    SENSOR_SIM_FIELDS(status, linkMask, videoMask, states)
};
struct SensorInfoAnswer {
    uint32_t status = 0;
    std::array<uint8_t, 6> info{};
    SENSOR_SIM_FIELDS(status, info)
};
struct VersionsAnswer {
    static constexpr uint32_t kMaxBytes = 4096;
    uint32_t status = 0;
    std::vector<uint8_t> first;
    std::vector<uint8_t> second;
    SENSOR_SIM_FIELDS(status, first, second)
};
struct SensorTypeAnswer {
    uint32_t status = 0;
    bool present = false;
    uint8_t typeCode = 0;
    SENSOR_SIM_FIELDS(status, present, typeCode)
};
struct Reg8Answer {
    uint32_t status = 0;
    uint8_t value = 0;
    SENSOR_SIM_FIELDS(status, value)
};
struct Reg16Answer {
    uint32_t status = 0;
    uint16_t value = 0;
    SENSOR_SIM_FIELDS(status, value)
};
struct I2cAnswer {
    static constexpr uint32_t kMaxBytes = 8 + 0xFFFF;
    uint32_t status = 0;
    std::vector<uint8_t> bytes;
    SENSOR_SIM_FIELDS(status, bytes)
};
struct FsyncTime {
    uint64_t time = 0;
    SENSOR_SIM_FIELDS(time)
};
struct InnerState {
    uint32_t status = 0;
    uint32_t state = 0;
    SENSOR_SIM_FIELDS(status, state)
};
struct Lev2FaultsAnswer {
    static constexpr uint32_t kMaxBytes = 16 + 2 * 0xFFFF;
    int32_t result = 0;
    uint64_t time = 0;
    std::vector<uint16_t> faults;
    SENSOR_SIM_FIELDS(result, time, faults)
};
// One frame's statistics; `data` holds the four regions' blocks when found, nothing otherwise.
struct StatsAnswer {
    static constexpr uint32_t kMaxBytes = 16 + stats::kRegions * (32 + stats::kBlockBytes);
    bool found = false;
    float brightness = 0;
    std::array<std::array<uint32_t, 8>, stats::kRegions> descriptors{};
    std::vector<uint8_t> data;
    SENSOR_SIM_FIELDS(found, brightness, descriptors, data)
    bool valid() const { return data.size() == (found ? stats::kRegions * stats::kBlockBytes : 0u); }
};
struct ServiceStateAnswer {
    static constexpr uint32_t kMaxBytes = 256 * 1024;
    service::State state;
    SENSOR_SIM_FIELDS(state)
};

// --- Requests --------------------------------------------------------------------------------------

struct Hello {
    using Answer = Welcome;
    uint32_t version = kVersion;
    uint32_t pid = 0;
    SENSOR_SIM_FIELDS(version, pid)
    bool valid() const { return version == kVersion && pid <= 0x7FFFFFFF; }
};
// A further connection of a consumer this process owns.
struct Attach {
    using Answer = Status;
    uint64_t consumer = 0;
    SENSOR_SIM_FIELDS(consumer)
};
struct InitConsumer {
    using Answer = Status;
    uint16_t param = 0;
    std::string app;
    std::string channel;
    SENSOR_SIM_FIELDS(param, app, channel)
    bool valid() const { return validName(app) && validName(channel); }
};
struct RegStream {
    using Answer = Status;
    static constexpr uint32_t kMaxBytes = 16 + kMaxConfigs * (4 + kMaxName + 20);
    uint32_t streamId = 0;
    bool hasCallback = false;
    std::vector<streams::Config> configs;
    SENSOR_SIM_FIELDS(streamId, hasCallback, configs)
    bool valid() const {
        if (configs.empty() || configs.size() > kMaxConfigs) return false;
        for (const auto& c : configs) {
            if (!validName(c.name)) return false;
        }
        return true;
    }
};
struct InitDone {
    using Answer = Status;
    SENSOR_SIM_FIELDS()
};
struct GetState {
    using Answer = Status;
    SENSOR_SIM_FIELDS()
};
struct Deinit {
    using Answer = Status;
    SENSOR_SIM_FIELDS()
};
// `noWait`: answer at once, with or without a frame.
struct GetFrame {
    using Answer = FrameAnswer;
    uint32_t streamId = 0;
    uint8_t output = 0;
    bool noWait = false;
    SENSOR_SIM_FIELDS(streamId, output, noWait)
    bool valid() const { return output <= 1; }
};
// Not answered: the client knows which frames it holds.
struct Release {
    uint32_t streamId = 0;
    uint8_t output = 0;
    uint16_t objIndex = 0;
    uint64_t counter = 0;
    SENSOR_SIM_FIELDS(streamId, output, objIndex, counter)
    bool valid() const { return output <= 1; }
};
struct OpenPage {
    using Answer = PageAnswer;
    SENSOR_SIM_FIELDS()
};
// The buffer of a frame answered through the control page: a BufferAnswer, then Status 0 (1: gone).
struct MapBuffer {
    using Answer = Status;
    uint64_t bufferId = 0;
    SENSOR_SIM_FIELDS(bufferId)
};

// The camera-access calls and the statistics: each names its answer and the answer a client gives its
// caller when the service does not answer.
struct DetectAllSensors {
    using Answer = SensorMask;
    static Answer unanswered() { return {kDetectFailed}; }
    SENSOR_SIM_FIELDS()
};
struct DetectLinkAndVideo {
    using Answer = LinkAndVideoAnswer;
    static Answer unanswered() { return {kLinkError, 0, 0, {}}; }
    SENSOR_SIM_FIELDS()
};
struct GetSensorInfo {
    using Answer = SensorInfoAnswer;
    static Answer unanswered() { return {kLinkError, {}}; }
    uint32_t id = 0;
    SENSOR_SIM_FIELDS(id)
};
struct GetSensorVersions {
    using Answer = VersionsAnswer;
    static Answer unanswered() { return {kLinkError, {}, {}}; }
    uint32_t id = 0;
    SENSOR_SIM_FIELDS(id)
};
struct GetSensorType {
    using Answer = SensorTypeAnswer;
    static Answer unanswered() { return {kLinkError, false, 0}; }
    uint32_t id = 0;
    SENSOR_SIM_FIELDS(id)
};
struct ReadReg8 {
    using Answer = Reg8Answer;
    static Answer unanswered() { return {kLinkError, 0}; }
    uint32_t id = 0;
    uint16_t reg = 0;
    SENSOR_SIM_FIELDS(id, reg)
};
struct WriteReg8 {
    using Answer = CameraStatus;
    static Answer unanswered() { return {kLinkError}; }
    uint32_t id = 0;
    uint16_t reg = 0;
    uint8_t value = 0;
    SENSOR_SIM_FIELDS(id, reg, value)
};
struct ReadReg16 {
    using Answer = Reg16Answer;
    static Answer unanswered() { return {kLinkError, 0}; }
    uint32_t id = 0;
    uint16_t reg = 0;
    SENSOR_SIM_FIELDS(id, reg)
};
struct WriteReg16 {
    using Answer = CameraStatus;
    static Answer unanswered() { return {kLinkError}; }
    uint32_t id = 0;
    uint16_t reg = 0;
    uint16_t value = 0;
    SENSOR_SIM_FIELDS(id, reg, value)
};
struct ReadI2c {
    using Answer = I2cAnswer;
    static Answer unanswered() { return {kLinkError, {}}; }
    uint32_t id = 0;
    uint16_t addr = 0;
    uint16_t len = 0;
    SENSOR_SIM_FIELDS(id, addr, len)
};
struct WriteI2c {
    using Answer = CameraStatus;
    static Answer unanswered() { return {kLinkError}; }
    static constexpr uint32_t kMaxBytes = 16 + 0xFFFF;
    uint32_t id = 0;
    uint16_t addr = 0;
    std::vector<uint8_t> bytes;
    uint16_t len = 0;
    SENSOR_SIM_FIELDS(id, addr, bytes, len)
};
struct SetFsyncDelta {
    using Answer = CameraStatus;
    static Answer unanswered() { return {kLinkError}; }
    uint32_t group = 0;
    uint64_t deltaMs = 0;
    SENSOR_SIM_FIELDS(group, deltaMs)
};
struct GetFsyncFirstTime {
    using Answer = FsyncTime;
    static Answer unanswered() { return {0}; }
    SENSOR_SIM_FIELDS()
};
struct GetRadarInnerState {
    using Answer = InnerState;
    static Answer unanswered() { return {kLinkError, 0}; }
    SENSOR_SIM_FIELDS()
};
struct GetLidarInnerState {
    using Answer = InnerState;
    static Answer unanswered() { return {kLinkError, 0}; }
    SENSOR_SIM_FIELDS()
};
struct GetLev2Faults {
    using Answer = Lev2FaultsAnswer;
    static Answer unanswered() { return {kLev2ServiceFailure, 0, {}}; }
    SENSOR_SIM_FIELDS()
};
struct GetStats {
    using Answer = StatsAnswer;
    static Answer unanswered() { return {}; }
    uint16_t sensorId = 0;
    uint64_t frameId = 0;
    SENSOR_SIM_FIELDS(sensorId, frameId)
};
struct GetServiceState {
    using Answer = ServiceStateAnswer;
    SENSOR_SIM_FIELDS()
};

// The vehicle's calls that any connection may make, answered from the vehicle alone (no consumer).
#define SENSOR_SIM_VEHICLE_CALLS(X)                                                                          \
    X(DetectAllSensors)                                                                                      \
    X(DetectLinkAndVideo)                                                                                    \
    X(GetSensorInfo) X(GetSensorVersions) X(GetSensorType) X(ReadReg8) X(WriteReg8) X(ReadReg16) X(WriteReg16) \
        X(ReadI2c) X(WriteI2c) X(SetFsyncDelta) X(GetFsyncFirstTime) X(GetRadarInnerState)                   \
            X(GetLidarInnerState) X(GetLev2Faults) X(GetStats)

#define SENSOR_SIM_LIST_ITEM(M) , M
using Request = std::variant<Hello, Attach, InitConsumer, RegStream, InitDone, GetState, Deinit, GetFrame, Release,
                             OpenPage, MapBuffer, GetServiceState SENSOR_SIM_VEHICLE_CALLS(SENSOR_SIM_LIST_ITEM)>;
#undef SENSOR_SIM_LIST_ITEM
using Answer = std::variant<Welcome, Status, BufferAnswer, FrameAnswer, PageAnswer, CameraStatus, SensorMask,
                            LinkAndVideoAnswer, SensorInfoAnswer, VersionsAnswer, SensorTypeAnswer, Reg8Answer,
                            Reg16Answer, I2cAnswer, FsyncTime, InnerState, Lev2FaultsAnswer, StatsAnswer,
                            ServiceStateAnswer>;

// Requests are numbered from 1, answers from 128, so that neither side mistakes one for the other.
using Requests = codec::Messages<Request, 1>;
using Answers = codec::Messages<Answer, 128>;

template <typename M>
inline constexpr bool kIsVehicleCall = false;
#define SENSOR_SIM_MARK_CALL(M) \
    template <>                 \
    inline constexpr bool kIsVehicleCall<M> = true;
SENSOR_SIM_VEHICLE_CALLS(SENSOR_SIM_MARK_CALL)
#undef SENSOR_SIM_MARK_CALL

// A BufferAnswer for a buffer, and the buffer spec of one; the spec is refused (false) for geometry that
// does not make exactly the announced size, or that could overflow on the way.
BufferAnswer describeBuffer(uint64_t id, const Buffer& buffer);
bool bufferSpecOf(const BufferAnswer& answer, BufferSpec* spec);

}  // namespace msg
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_MESSAGES_H
