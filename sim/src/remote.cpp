// Client of sensor-simd behind the substitutes: the choice of vehicle, one connection per consumer (and
// more while its calls overlap), each with its control page for gets and releases without messages, a
// process-wide connection for camera-access and statistics calls, and the read-only mappings of the
// service's frame buffers, one per buffer and process.
#include "sensor_sim/internal/remote.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/streams_internal.h"

namespace sensor_sim {
namespace remote {
namespace {

using Clock = wire::Channel::Clock;
using wire::Message;
using wire::Type;

// A healthy service answers within microseconds; this bounds every answer but a frame's wait.
constexpr std::chrono::milliseconds kAnswerBound{2000};
constexpr uint32_t kDefaultFrameTimeoutMs = 100;
constexpr uint32_t kLinkError = sensor_sim::camera::internal::kStatusLinkError;
constexpr int32_t kLev2ServiceFailure = 2;

struct Process {
    std::mutex mutex;
    bool attached = false;
    std::string path;
    std::string problem;  // why the named service could not be reached
    std::unique_ptr<wire::Channel> general;
    std::map<uint64_t, std::shared_ptr<Buffer>> buffers;  // by the service's buffer id
};

// Never destroyed: consumers in static objects may still call while the process exits.
Process& process() {
    static Process* p = new Process;
    return *p;
}

Message request(Type type, std::initializer_list<uint64_t> words, std::string tail = {}) {
    Message m;
    m.type = type;
    size_t i = 0;
    for (uint64_t w : words) m.words[i++] = w;
    m.tail = std::move(tail);
    return m;
}

// Maps a buffer the service describes; a buffer seen before keeps its first mapping.
bool adoptBuffer(wire::Channel& channel, const Message& m) {
    const int fd = channel.takeFd();
    if (fd < 0) return false;
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    if (p.buffers.count(m.words[0]) != 0) {
        ::close(fd);
        return true;
    }
    BufferSpec spec;
    if (!wire::bufferSpecOf(m, &spec)) {
        ::close(fd);
        return false;
    }
    try {
        p.buffers[m.words[0]] = std::make_shared<Buffer>(spec, fd);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "sensor_sim: frame buffer from sensor-simd refused: %s\n", e.what());
        return false;
    }
    return true;
}

std::shared_ptr<Buffer> bufferOf(uint64_t id) {
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    auto it = p.buffers.find(id);
    return it == p.buffers.end() ? nullptr : it->second;
}

// Sends a request and waits for its answer, mapping the buffers announced before it. False when the
// service is gone, too slow, or answers out of turn: the channel is unusable from then on.
bool call(wire::Channel& channel, const Message& req, Message* answer, Clock::duration bound) {
    const Clock::time_point deadline = Clock::now() + bound;
    if (!channel.send(req, -1, deadline)) return false;
    for (;;) {
        if (channel.receive(answer, deadline) != wire::Channel::Result::Received) return false;
        if (answer->type != Type::Buffer) return true;
        if (!adoptBuffer(channel, *answer)) return false;
    }
}

std::unique_ptr<wire::Channel> open(const std::string& path, std::string* error) {
    const int fd = wire::connectTo(path, error);
    if (fd < 0) return nullptr;
    auto channel = std::make_unique<wire::Channel>(fd);
    Message welcome;
    if (!call(*channel, request(Type::Hello, {wire::kVersion, static_cast<uint64_t>(::getpid())}), &welcome,
              kAnswerBound) ||
        welcome.type != Type::Welcome) {
        *error = path + ": no answer from sensor-simd";
        return nullptr;
    }
    return channel;
}

// One call on the process-wide connection; false (and the connection dropped) when it fails.
bool generalCall(const Message& req, Type expected, Message* answer) {
    Process& p = process();
    static std::mutex callMutex;  // one call at a time on the one connection
    std::lock_guard<std::mutex> calls(callMutex);
    wire::Channel* channel;
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        channel = p.general.get();
    }
    if (channel == nullptr) return false;
    if (call(*channel, req, answer, kAnswerBound) && answer->type == expected) return true;
    std::lock_guard<std::mutex> lock(p.mutex);
    p.general.reset();
    return false;
}

void forget() {
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.attached = false;
    p.general.reset();
}

[[maybe_unused]] const bool kResetHook = [] {
    core::onReset(forget);  // scripted tests always run the in-process vehicle
    return true;
}();

}  // namespace

bool attachFromEnvironment() {
    const char* named = std::getenv("SENSOR_SIM_SERVICE");
    if (named != nullptr && std::strcmp(named, "off") == 0) return false;
    const bool explicitly = named != nullptr && *named != '\0';
    const std::string path = explicitly ? named : service::defaultSocketPath();
    std::string error;
    std::unique_ptr<wire::Channel> channel = open(path, &error);
    if (!channel && !explicitly) return false;
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.attached = true;
    p.path = path;
    p.general = std::move(channel);
    if (!p.general) {
        p.problem = error;
        std::fprintf(stderr, "sensor_sim: SENSOR_SIM_SERVICE: %s; every platform call fails\n",
                     error.c_str());
    }
    return true;
}

bool attached() {
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.attached;
}

std::string vehicleDescription() {
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    if (!p.attached) return "in-process simulated vehicle";
    if (!p.problem.empty()) return "sensor-simd at " + p.path + " (not reachable: " + p.problem + ")";
    return "sensor-simd at " + p.path;
}

std::string problem() {
    Process& p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.attached ? p.problem : std::string();
}

// --- Consumers ---------------------------------------------------------------------------------------

// A connection of a consumer and its control page (none before OpenPage, or when the service made none).
struct Link {
    std::unique_ptr<wire::Channel> channel;
    std::unique_ptr<wire::PageMapping> page;
    bool pageAsked = false;
    explicit operator bool() const { return channel != nullptr; }
};

// How a get through the control page ended. The last three make the consumer unusable.
enum class PageGet { Answered, FrameWaiting, TimedOut, Closed, OutOfStep, Stalled };

// Announces a get of (stream, output) on the page and waits for the service's answer until `deadline`.
// FrameWaiting: frames wait already (take one through the socket); TimedOut: none came in time (ask the
// socket for the answer at once); Closed: the service stopped; OutOfStep: the page holds what neither
// side writes; Stalled: the service claimed the get and did not answer it.
PageGet pageGet(wire::ControlPage& page, uint32_t streamId, uint32_t output, Clock::time_point deadline,
                Message* answer) {
    const uint32_t waiting = wire::pageWaiting(streamId, output);
    uint32_t idle = wire::kPageIdle;
    if (!page.get.compare_exchange_strong(idle, waiting))
        return idle == wire::kPageClosed ? PageGet::Closed : PageGet::OutOfStep;
    if (page.available[streamId * 2 + output].load() != 0) {
        uint32_t expected = waiting;
        if (page.get.compare_exchange_strong(expected, wire::kPageIdle)) return PageGet::FrameWaiting;
    }
    // While the service holds the get claimed it is writing the answer: that must not take long, whatever
    // the frame time-out, and one that never finishes it is gone.
    std::optional<Clock::time_point> claimedAt;
    for (;;) {
        const uint32_t now = page.get.load(std::memory_order_acquire);
        if (now == wire::kPageAnswered) {
            answer->type = Type::Frame;
            std::memcpy(answer->words.data(), page.answer, sizeof page.answer);
            uint32_t answered = wire::kPageAnswered;
            page.get.compare_exchange_strong(answered, wire::kPageIdle);
            // The same ranges as a Frame message's.
            const bool valid = answer->words[2] <= 0xFFFF && answer->words[4] <= 0xFFFFFFFF;
            return valid ? PageGet::Answered : PageGet::OutOfStep;
        }
        if (now == wire::kPageClosed) return PageGet::Closed;
        if (now == wire::kPageClaimed) {
            if (!claimedAt) claimedAt = Clock::now();
            if (Clock::now() - *claimedAt >= kAnswerBound) return PageGet::Stalled;
            wire::waitPage(page, now, *claimedAt + kAnswerBound);
            continue;
        }
        if (now != waiting) return PageGet::OutOfStep;
        claimedAt.reset();  // claimed and given back: the frame went to another get of the consumer
        if (Clock::now() >= deadline) {
            uint32_t expected = waiting;
            if (page.get.compare_exchange_strong(expected, wire::kPageIdle)) return PageGet::TimedOut;
            continue;  // the service claimed it just now
        }
        wire::waitPage(page, now, deadline);
    }
}

struct Consumer::Impl {
    std::mutex mutex;
    std::vector<Link> idle;  // the first one made owns the consumer
    uint64_t id = 0;         // the service's consumer id once initialised
    bool broken = false;
    bool torn = false;  // deinitStream called: gets are answered at once, through the socket
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> timeouts;
    // Frames taken and not yet released (stream, output, object index, counter): the service refuses the
    // release of any other, and answers releases with nothing.
    std::multiset<std::tuple<uint32_t, uint32_t, uint16_t, uint64_t>> held;

    // A connection of this consumer for one call, or an empty one when the service is gone. Once the
    // consumer exists, the connection has asked for its control page.
    Link acquire() {
        Link link;
        uint64_t consumer;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (broken) return {};
            if (!idle.empty()) {
                link = std::move(idle.back());
                idle.pop_back();
            }
            consumer = id;
        }
        if (!link) {
            std::string path, error;
            {
                Process& p = process();
                std::lock_guard<std::mutex> lock(p.mutex);
                if (!p.attached || !p.problem.empty()) return {};
                path = p.path;
            }
            link.channel = open(path, &error);
            if (!link) return {};
            if (consumer != 0) {
                Message answer;
                if (!call(*link.channel, request(Type::Attach, {consumer}), &answer, kAnswerBound) ||
                    answer.type != Type::Status || answer.words[0] != 0)
                    return {};
            }
        }
        if (consumer != 0 && !link.pageAsked) {
            link.pageAsked = true;
            Message answer;
            if (!call(*link.channel, request(Type::OpenPage, {}), &answer, kAnswerBound))
                return fail("no answer to OpenPage");
            if (answer.type == Type::Page) {
                std::string error;
                link.page = wire::PageMapping::map(link.channel->takeFd(), &error);
                if (!link.page) std::fprintf(stderr, "sensor_sim: %s\n", error.c_str());
            } else if (answer.type != Type::Status) {
                return fail("OpenPage answered out of turn");
            }
        }
        return link;
    }
    void giveBack(Link link) {
        std::lock_guard<std::mutex> lock(mutex);
        idle.push_back(std::move(link));
    }
    // The service is gone or out of step: no later call may wait on it. Said once, on standard error, so
    // that an application whose calls all fail from here on can tell why.
    Link fail(const char* why) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!broken)
            std::fprintf(stderr, "sensor_sim: consumer %llu lost sensor-simd: %s\n",
                         static_cast<unsigned long long>(id), why);
        broken = true;
        idle.clear();
        return {};
    }
    // One request; false when the connection failed (the consumer is then unusable).
    bool exchange(const Message& req, Type expected, Message* answer, Clock::duration bound = kAnswerBound) {
        Link link = acquire();
        if (!link) return false;
        if (!call(*link.channel, req, answer, bound) || answer->type != expected) {
            fail("no answer in time, or one out of turn");
            return false;
        }
        giveBack(std::move(link));
        return true;
    }
    bool initialised() {
        std::lock_guard<std::mutex> lock(mutex);
        return id != 0;
    }
};

Consumer::Consumer() : m_impl(new Impl) {}
Consumer::~Consumer() = default;  // closing the connections ends the consumer in the service

int Consumer::initConsumer(const std::string& app, const std::string& channel, unsigned short param) {
    std::string names = app;
    names += '\0';
    names += channel;
    Message answer;
    if (!m_impl->exchange(request(Type::InitConsumer, {param}, names), Type::Status, &answer))
        return streams::kNotInitialised;
    if (answer.words[0] == 0) {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->id = answer.words[1];
        m_impl->torn = false;
    }
    return static_cast<int>(answer.words[0]);
}

int Consumer::regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs,
                                bool hasCallback) {
    if (!m_impl->initialised()) return streams::kNotInitialised;
    Message answer;
    if (!m_impl->exchange(request(Type::RegStream, {streamId, hasCallback ? 1u : 0u, configs.size()},
                                  wire::encodeConfigs(configs)),
                          Type::Status, &answer))
        return streams::kNotInitialised;
    if (answer.words[0] == 0) {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        for (const auto& c : configs)
            m_impl->timeouts[{streamId, streams::internal::outputOfName(c.name)}] = c.frameTimeout;
    }
    return static_cast<int>(answer.words[0]);
}

int Consumer::initConsumerDone() {
    if (!m_impl->initialised()) return streams::kNotInitialised;
    Message answer;
    if (!m_impl->exchange(request(Type::InitDone, {}), Type::Status, &answer))
        return streams::kNotInitialised;
    return static_cast<int>(answer.words[0]);
}

int Consumer::getStreamState() {
    constexpr int kConnectFailed = 2;
    if (!m_impl->initialised()) return kConnectFailed;
    Message answer;
    if (!m_impl->exchange(request(Type::GetState, {}), Type::Status, &answer)) return kConnectFailed;
    return static_cast<int>(answer.words[0]);
}

int Consumer::deinitStream() {
    if (!m_impl->initialised()) return streams::kNotInitialised;
    Message answer;
    if (!m_impl->exchange(request(Type::Deinit, {}), Type::Status, &answer)) return streams::kNotInitialised;
    if (answer.words[0] == 0) {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->torn = true;
    }
    return static_cast<int>(answer.words[0]);
}

int Consumer::getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) {
    if (!m_impl->initialised()) return streams::kNotInitialised;
    uint32_t waitMs = kDefaultFrameTimeoutMs;
    bool byPage = false;
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        auto it = m_impl->timeouts.find({streamId, output});
        if (it != m_impl->timeouts.end() && it->second != 0) waitMs = it->second;
        // Only a registered, live output is waited for through the page: the service answers any other
        // get at once, which the socket does as fast.
        byPage =
            it != m_impl->timeouts.end() && !m_impl->torn && streamId < wire::kPageStreams && output <= 1;
    }
    Link link = m_impl->acquire();
    if (!link) return streams::kNotInitialised;
    Message answer;
    PageGet got = PageGet::FrameWaiting;
    if (byPage && link.page)
        got = pageGet(link.page->page(), streamId, output, Clock::now() + std::chrono::milliseconds(waitMs),
                      &answer);
    const char* lost = got == PageGet::Closed      ? "it stopped"
                       : got == PageGet::OutOfStep ? "the control page is out of step"
                       : got == PageGet::Stalled   ? "a get it claimed was not answered"
                                                   : nullptr;
    if (got == PageGet::FrameWaiting || got == PageGet::TimedOut) {
        const bool noWait = got == PageGet::TimedOut;
        if (!call(
                *link.channel, request(Type::GetFrame, {streamId, output, noWait ? 1u : 0u}), &answer,
                kAnswerBound + (noWait ? std::chrono::milliseconds(0) : std::chrono::milliseconds(waitMs))) ||
            answer.type != Type::Frame)
            lost = "no answer to a get in time, or one out of turn";
    }
    // A frame answered through the page may lie in a buffer this process has not mapped yet.
    if (lost == nullptr && answer.words[0] == 0 && !bufferOf(answer.words[5])) {
        Message mapped;
        if (!call(*link.channel, request(Type::MapBuffer, {answer.words[5]}), &mapped, kAnswerBound) ||
            mapped.type != Type::Status)
            lost = "no answer to MapBuffer in time, or one out of turn";
    }
    if (lost != nullptr) {
        m_impl->fail(lost);
        return streams::kNotInitialised;
    }
    m_impl->giveBack(std::move(link));
    if (answer.words[0] != 0) return static_cast<int>(answer.words[0]);
    streams::FrameSpec out;
    out.counter = answer.words[1];
    out.objIndex = static_cast<uint16_t>(answer.words[2]);
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->held.emplace(streamId, output, out.objIndex, out.counter);
    }
    out.sensorId = static_cast<int32_t>(static_cast<int64_t>(answer.words[3]));
    out.trailing = static_cast<uint32_t>(answer.words[4]);
    out.buffer = bufferOf(answer.words[5]);
    for (size_t i = 0; i < 9; ++i) out.words[i] = answer.words[6 + i];
    if (!out.buffer) {
        // A frame whose buffer was never announced: give it back rather than hand out a dangling handle.
        std::fprintf(stderr, "sensor_sim: frame %llu of stream %u came in a buffer this process cannot map\n",
                     static_cast<unsigned long long>(out.counter), streamId);
        releaseFrame(streamId, output, out.objIndex, out.counter);
        return streams::kNotInitialised;
    }
    *frame = std::move(out);
    return 0;
}

int Consumer::releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) {
    if (!m_impl->initialised()) return streams::kNotInitialised;
    bool held = false;
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        auto it = m_impl->held.find({streamId, output, objIndex, counter});
        if (it != m_impl->held.end()) {
            m_impl->held.erase(it);
            held = true;
        }
    }
    // Queued even when refused here: the service counts refused releases for `sensorctl service`. A full
    // ring (the service drains it at every frame) sends the release as a message.
    Link link = m_impl->acquire();
    if (!link) return streams::kNotInitialised;
    const bool queued =
        link.page && wire::putRelease(link.page->page(), {streamId, output, objIndex, counter});
    if (!queued && !link.channel->send(request(Type::Release, {streamId, output, objIndex, counter}), -1,
                                       Clock::now() + kAnswerBound)) {
        m_impl->fail("a release could not be sent");
        return streams::kNotInitialised;
    }
    m_impl->giveBack(std::move(link));
    return held ? 0 : streams::kNotHeld;
}

// --- Camera access and statistics -------------------------------------------------------------------

namespace camera {
namespace {

using wire::CameraCall;

// One camera-access call; false when the service did not answer (the caller answers its failure status).
bool ask(CameraCall c, uint64_t id, uint64_t a, uint64_t b, uint64_t len, Message* answer,
         std::string tail = {}) {
    return generalCall(request(Type::Camera, {static_cast<uint64_t>(c), id, a, b, len}, std::move(tail)),
                       Type::CameraAnswer, answer);
}

uint32_t status(const Message& m) {
    return static_cast<uint32_t>(m.words[0]);
}

}  // namespace

uint32_t detectAllSensors() {
    Message m;
    return ask(CameraCall::DetectAll, 0, 0, 0, 0, &m) ? status(m) : 0xEFFFFF;
}

uint32_t detectLinkAndVideoMask(uint32_t& linkMask, uint32_t& videoMask,
                                std::map<unsigned int, unsigned char>& states) {
    Message m;
    if (!ask(CameraCall::LinkAndVideo, 0, 0, 0, 0, &m) || m.tail.size() % 2 != 0) return kLinkError;
    linkMask = static_cast<uint32_t>(m.words[1]);
    videoMask = static_cast<uint32_t>(m.words[2]);
    for (size_t i = 0; i + 1 < m.tail.size(); i += 2)
        states[static_cast<uint8_t>(m.tail[i])] = static_cast<unsigned char>(m.tail[i + 1]);
    return status(m);
}

uint32_t sensorInfo(uint32_t id, std::array<uint8_t, 6>& info) {
    Message m;
    if (!ask(CameraCall::Info, id, 0, 0, 0, &m)) return kLinkError;
    for (size_t i = 0; i < 6; ++i) info[i] = static_cast<uint8_t>(m.words[1 + i]);
    return status(m);
}

uint32_t sensorVersions(uint32_t id, std::vector<uint8_t>& first, std::vector<uint8_t>& second) {
    Message m;
    if (!ask(CameraCall::Versions, id, 0, 0, 0, &m) || m.words[1] > m.tail.size()) return kLinkError;
    first.assign(m.tail.begin(), m.tail.begin() + static_cast<std::ptrdiff_t>(m.words[1]));
    second.assign(m.tail.begin() + static_cast<std::ptrdiff_t>(m.words[1]), m.tail.end());
    return status(m);
}

uint32_t sensorType(uint32_t id, bool& present, uint8_t& typeCode) {
    Message m;
    if (!ask(CameraCall::TypeInfo, id, 0, 0, 0, &m)) return kLinkError;
    present = m.words[1] != 0;
    typeCode = static_cast<uint8_t>(m.words[2]);
    return status(m);
}

uint32_t readReg8(uint32_t id, uint16_t reg, uint8_t& value) {
    Message m;
    if (!ask(CameraCall::ReadReg8, id, reg, 0, 0, &m)) return kLinkError;
    value = static_cast<uint8_t>(m.words[1]);
    return status(m);
}

uint32_t writeReg8(uint32_t id, uint16_t reg, uint8_t value) {
    Message m;
    return ask(CameraCall::WriteReg8, id, reg, value, 0, &m) ? status(m) : kLinkError;
}

uint32_t readReg16(uint32_t id, uint16_t reg, uint16_t& value) {
    Message m;
    if (!ask(CameraCall::ReadReg16, id, reg, 0, 0, &m)) return kLinkError;
    value = static_cast<uint16_t>(m.words[1]);
    return status(m);
}

uint32_t writeReg16(uint32_t id, uint16_t reg, uint16_t value) {
    Message m;
    return ask(CameraCall::WriteReg16, id, reg, value, 0, &m) ? status(m) : kLinkError;
}

uint32_t readI2c(uint32_t id, uint16_t addr, std::vector<uint8_t>& buf, uint16_t& len) {
    Message m;
    if (!ask(CameraCall::ReadI2c, id, addr, 0, len, &m) || m.tail.size() > len) return kLinkError;
    if (status(m) == 0) {
        buf.assign(m.tail.begin(), m.tail.end());
        len = static_cast<uint16_t>(m.tail.size());
    }
    return status(m);
}

uint32_t writeI2c(uint32_t id, uint16_t addr, const std::vector<uint8_t>& buf, uint16_t len) {
    Message m;
    const size_t count = std::min<size_t>(len, buf.size());
    return ask(CameraCall::WriteI2c, id, addr, 0, len, &m, std::string(buf.begin(), buf.begin() + count))
               ? status(m)
               : kLinkError;
}

uint32_t setFsyncDelta(uint32_t group, uint64_t deltaMs) {
    Message m;
    return ask(CameraCall::SetFsyncDelta, group, 0, deltaMs, 0, &m) ? status(m) : kLinkError;
}

uint64_t fsyncFirstTime() {
    Message m;
    return ask(CameraCall::FsyncFirstTime, 0, 0, 0, 0, &m) ? m.words[1] : 0;
}

uint32_t radarInnerState(uint32_t& state) {
    Message m;
    if (!ask(CameraCall::RadarInner, 0, 0, 0, 0, &m)) return kLinkError;
    state = static_cast<uint32_t>(m.words[1]);
    return status(m);
}

uint32_t lidarInnerState(uint32_t& state) {
    Message m;
    if (!ask(CameraCall::LidarInner, 0, 0, 0, 0, &m)) return kLinkError;
    state = static_cast<uint32_t>(m.words[1]);
    return status(m);
}

int32_t lev2Faults(std::vector<uint16_t>& faults, uint64_t& time) {
    Message m;
    if (!ask(CameraCall::Lev2Faults, 0, 0, 0, 0, &m) || m.tail.size() % 2 != 0) return kLev2ServiceFailure;
    faults.resize(m.tail.size() / 2);
    if (!faults.empty()) std::memcpy(faults.data(), m.tail.data(), m.tail.size());
    time = m.words[1];
    return static_cast<int32_t>(static_cast<int64_t>(m.words[0]));
}

}  // namespace camera

bool statsLookup(uint16_t sensorId, uint64_t frameId, stats::FrameStats* out) {
    Message m;
    if (!generalCall(request(Type::Stats, {sensorId, frameId}), Type::StatsAnswer, &m) || m.words[0] != 0)
        return false;
    constexpr size_t kDescriptorBytes = stats::kRegions * 8 * sizeof(uint32_t);
    if (m.tail.size() != kDescriptorBytes + stats::kRegions * stats::kBlockBytes) return false;
    for (uint32_t r = 0; r < stats::kRegions; ++r)
        std::memcpy(out->descriptors[r].data(), m.tail.data() + r * 32, 32);
    out->data.assign(m.tail.begin() + kDescriptorBytes, m.tail.end());
    uint32_t bits = static_cast<uint32_t>(m.words[1]);
    std::memcpy(&out->brightness, &bits, sizeof bits);
    return true;
}

std::string queryState(const std::string& path, wire::ServiceState* out) {
    std::string error;
    auto channel = open(path, &error);
    if (!channel) return error;
    Message m;
    if (!call(*channel, request(Type::ServiceState, {}), &m, kAnswerBound) || !wire::decodeState(m, out))
        return path + ": no valid answer from sensor-simd";
    return "";
}

}  // namespace remote
}  // namespace sensor_sim
