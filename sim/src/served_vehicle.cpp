// The served vehicle: the choice of vehicle, one connection per consumer (and more while its calls
// overlap), each with its control page for gets and releases without messages, a connection of the
// vehicle's own for camera-access and statistics calls, and the read-only mappings of the service's frame
// buffers, one per buffer and vehicle.
#include "sensor_sim/internal/served_vehicle.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sensor_sim/internal/wire.h"

namespace sensor_sim {
namespace remote {
namespace {

using Clock = wire::Channel::Clock;

// A healthy service answers within microseconds; this bounds every answer but a frame's wait.
constexpr std::chrono::milliseconds kAnswerBound{2000};
constexpr uint32_t kDefaultFrameTimeoutMs = 100;

class ServedVehicle;

// Sends a request and waits for its answer, mapping the buffers announced before it. False when the
// service is gone, too slow, or answers out of turn: the channel is unusable from then on.
template <typename M>
bool call(ServedVehicle& vehicle, wire::Channel& channel, const M& request, typename M::Answer* out,
          Clock::duration bound = kAnswerBound);

std::unique_ptr<wire::Channel> open(const std::string& path, std::string* error);

class ServedVehicle : public vehicle::Vehicle {
public:
    ServedVehicle(std::string path, std::unique_ptr<wire::Channel> general)
        : m_path(std::move(path)), m_general(std::move(general)) {}

    const std::string& path() const { return m_path; }

    std::unique_ptr<vehicle::Consumer> createConsumer() override;

#define SENSOR_SIM_FORWARD(M) \
    msg::M::Answer ask(const msg::M& c) override { return generalCall(c); }
    SENSOR_SIM_VEHICLE_CALLS(SENSOR_SIM_FORWARD)
#undef SENSOR_SIM_FORWARD

    // Maps a buffer the service describes; a buffer seen before keeps its first mapping.
    bool adopt(wire::Channel& channel, const msg::BufferAnswer& a) {
        const int fd = channel.takeFd();
        if (fd < 0) return false;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_buffers.count(a.bufferId) != 0) {
            ::close(fd);
            return true;
        }
        BufferSpec spec;
        if (!msg::bufferSpecOf(a, &spec)) {
            ::close(fd);
            return false;
        }
        try {
            m_buffers[a.bufferId] = std::make_shared<Buffer>(spec, fd);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "sensor_sim: frame buffer from sensor-simd refused: %s\n", e.what());
            return false;
        }
        return true;
    }
    std::shared_ptr<Buffer> bufferOf(uint64_t id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_buffers.find(id);
        return it == m_buffers.end() ? nullptr : it->second;
    }
private:
    // One call on the vehicle's own connection; the call's unanswered() when it fails (the connection is
    // dropped then).
    template <typename M>
    typename M::Answer generalCall(const M& request) {
        std::lock_guard<std::mutex> calls(m_callMutex);  // one call at a time on the one connection
        wire::Channel* channel;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            channel = m_general.get();
        }
        typename M::Answer answer;
        if (channel != nullptr && call(*this, *channel, request, &answer)) return answer;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_general.reset();
        return M::unanswered();
    }

    const std::string m_path;
    std::mutex m_callMutex;
    std::mutex m_mutex;
    std::unique_ptr<wire::Channel> m_general;
    std::map<uint64_t, std::shared_ptr<Buffer>> m_buffers;  // by the service's buffer id
};

template <typename M>
bool call(ServedVehicle& vehicle, wire::Channel& channel, const M& request, typename M::Answer* out,
          Clock::duration bound) {
    const Clock::time_point deadline = Clock::now() + bound;
    if (!channel.send(request, deadline)) return false;
    for (;;) {
        msg::Answer answer;
        if (channel.receive(&answer, deadline) != wire::Channel::Result::Received) return false;
        if (auto* buffer = std::get_if<msg::BufferAnswer>(&answer)) {
            if (!vehicle.adopt(channel, *buffer)) return false;
            continue;
        }
        auto* expected = std::get_if<typename M::Answer>(&answer);
        if (expected == nullptr) return false;
        *out = std::move(*expected);
        return true;
    }
}

// A new connection that has said Hello.
std::unique_ptr<wire::Channel> open(const std::string& path, std::string* error) {
    const int fd = wire::connectTo(path, error);
    if (fd < 0) return nullptr;
    auto channel = std::make_unique<wire::Channel>(fd);
    const Clock::time_point deadline = Clock::now() + kAnswerBound;
    msg::Answer answer;
    if (!channel->send(msg::Hello{msg::kVersion, static_cast<uint32_t>(::getpid())}, deadline) ||
        channel->receive(&answer, deadline) != wire::Channel::Result::Received ||
        !std::holds_alternative<msg::Welcome>(answer)) {
        *error = path + ": no answer from sensor-simd";
        return nullptr;
    }
    return channel;
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
                msg::FrameAnswer* answer) {
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
            const bool valid = wire::takeAnswer(page, answer);
            uint32_t answered = wire::kPageAnswered;
            page.get.compare_exchange_strong(answered, wire::kPageIdle);
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

class ServedConsumer : public vehicle::Consumer {
public:
    explicit ServedConsumer(ServedVehicle& vehicle) : m_vehicle(vehicle) {}
    // Closing the connections ends the consumer in the service.

    int initConsumer(const std::string& app, const std::string& channel, unsigned short param) override {
        msg::Status answer;
        if (!exchange(msg::InitConsumer{param, app, channel}, &answer)) return streams::kNotInitialised;
        if (answer.status == 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_id = answer.value;
            m_torn = false;
        }
        return answer.status;
    }

    int regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs, bool hasCallback,
                          std::optional<int> forced) override {
        if (forced) return *forced;
        if (!initialised()) return streams::kNotInitialised;
        msg::Status answer;
        if (!exchange(msg::RegStream{streamId, hasCallback, configs}, &answer)) return streams::kNotInitialised;
        if (answer.status == 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const auto& c : configs)
                m_timeouts[{streamId, streams::internal::outputOfName(c.name)}] = c.frameTimeout;
        }
        return answer.status;
    }

    int initConsumerDone() override { return simple(msg::InitDone{}, streams::kNotInitialised); }

    int getStreamState() override {
        constexpr int kConnectFailed = 2;
        return simple(msg::GetState{}, kConnectFailed);
    }

    int deinitStream() override {
        const int result = simple(msg::Deinit{}, streams::kNotInitialised);
        if (result == 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_torn = true;
        }
        return result;
    }

    int getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) override;
    int releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) override;

private:
    // A connection of this consumer for one call, or an empty one when the service is gone. Once the
    // consumer exists, the connection has asked for its control page.
    Link acquire() {
        Link link;
        uint64_t consumer;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_broken) return {};
            if (!m_idle.empty()) {
                link = std::move(m_idle.back());
                m_idle.pop_back();
            }
            consumer = m_id;
        }
        if (!link) {
            std::string error;
            link.channel = open(m_vehicle.path(), &error);
            if (!link) return {};
            msg::Status attached;
            if (consumer != 0 && (!call(m_vehicle, *link.channel, msg::Attach{consumer}, &attached) ||
                                  attached.status != 0))
                return {};
        }
        if (consumer != 0 && !link.pageAsked) {
            link.pageAsked = true;
            msg::PageAnswer answer;
            if (!call(m_vehicle, *link.channel, msg::OpenPage{}, &answer)) return fail("no answer to OpenPage");
            if (answer.status == 0) {
                std::string error;
                link.page = wire::PageMapping::map(link.channel->takeFd(), &error);
                if (!link.page) std::fprintf(stderr, "sensor_sim: %s\n", error.c_str());
            }
        }
        return link;
    }
    void giveBack(Link link) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_idle.push_back(std::move(link));
    }
    // The service is gone or out of step: no later call may wait on it. Said once, on standard error, so
    // that an application whose calls all fail from here on can tell why.
    Link fail(const char* why) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_broken)
            std::fprintf(stderr, "sensor_sim: consumer %llu lost sensor-simd: %s\n",
                         static_cast<unsigned long long>(m_id), why);
        m_broken = true;
        m_idle.clear();
        return {};
    }
    // One request; false when the connection failed (the consumer is then unusable).
    template <typename M>
    bool exchange(const M& request, typename M::Answer* answer) {
        Link link = acquire();
        if (!link) return false;
        if (!call(m_vehicle, *link.channel, request, answer)) {
            fail("no answer in time, or one out of turn");
            return false;
        }
        giveBack(std::move(link));
        return true;
    }
    // A stream call answered by a Status: its status, or `failed` before InitConsumer or without answer.
    template <typename M>
    int simple(const M& request, int failed) {
        if (!initialised()) return failed;
        msg::Status answer;
        return exchange(request, &answer) ? answer.status : failed;
    }
    bool initialised() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_id != 0;
    }

    ServedVehicle& m_vehicle;
    std::mutex m_mutex;
    std::vector<Link> m_idle;  // the first one made owns the consumer
    uint64_t m_id = 0;         // the service's consumer id once initialised
    bool m_broken = false;
    bool m_torn = false;  // deinitStream called: gets are answered at once, through the socket
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> m_timeouts;
    // Frames taken and not yet released (stream, output, object index, counter): the service refuses the
    // release of any other, and answers releases with nothing.
    std::multiset<std::tuple<uint32_t, uint32_t, uint16_t, uint64_t>> m_held;
};

int ServedConsumer::getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) {
    if (!initialised()) return streams::kNotInitialised;
    uint32_t waitMs = kDefaultFrameTimeoutMs;
    bool byPage = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_timeouts.find({streamId, output});
        if (it != m_timeouts.end() && it->second != 0) waitMs = it->second;
        // Only a registered, live output is waited for through the page: the service answers any other
        // get at once, which the socket does as fast.
        byPage = it != m_timeouts.end() && !m_torn && streamId < wire::kPageStreams && output <= 1;
    }
    Link link = acquire();
    if (!link) return streams::kNotInitialised;
    msg::FrameAnswer answer;
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
        const auto bound = kAnswerBound + (noWait ? std::chrono::milliseconds(0) : std::chrono::milliseconds(waitMs));
        if (!call(m_vehicle, *link.channel, msg::GetFrame{streamId, static_cast<uint8_t>(output), noWait}, &answer,
                  bound))
            lost = "no answer to a get in time, or one out of turn";
    }
    // A frame answered through the page may lie in a buffer this process has not mapped yet.
    if (lost == nullptr && answer.status == 0 && !m_vehicle.bufferOf(answer.bufferId)) {
        msg::Status mapped;
        if (!call(m_vehicle, *link.channel, msg::MapBuffer{answer.bufferId}, &mapped))
            lost = "no answer to MapBuffer in time, or one out of turn";
    }
    if (lost != nullptr) {
        fail(lost);
        return streams::kNotInitialised;
    }
    giveBack(std::move(link));
    if (answer.status != 0) return answer.status;
    streams::FrameSpec out;
    out.counter = answer.counter;
    out.objIndex = answer.objIndex;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_held.emplace(streamId, output, out.objIndex, out.counter);
    }
    out.sensorId = answer.sensorId;
    out.trailing = answer.trailing;
    out.buffer = m_vehicle.bufferOf(answer.bufferId);
    std::copy(answer.words.begin(), answer.words.end(), out.words);
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

int ServedConsumer::releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) {
    if (!initialised()) return streams::kNotInitialised;
    bool held = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_held.find({streamId, output, objIndex, counter});
        if (it != m_held.end()) {
            m_held.erase(it);
            held = true;
        }
    }
    // Queued even when refused here: the service counts refused releases for `sensorctl service`. A full
    // ring (the service drains it at every frame) sends the release as a message.
    Link link = acquire();
    if (!link) return streams::kNotInitialised;
    const bool queued = link.page && wire::putRelease(link.page->page(), {streamId, output, objIndex, counter});
    if (!queued &&
        !link.channel->send(msg::Release{streamId, static_cast<uint8_t>(output), objIndex, counter},
                            Clock::now() + kAnswerBound)) {
        fail("a release could not be sent");
        return streams::kNotInitialised;
    }
    giveBack(std::move(link));
    return held ? 0 : streams::kNotHeld;
}

std::unique_ptr<vehicle::Consumer> ServedVehicle::createConsumer() {
    return std::make_unique<ServedConsumer>(*this);
}

// --- The process's choice ------------------------------------------------------------------------------

struct Attachment {
    std::mutex mutex;
    ServedVehicle* vehicle = nullptr;  // never destroyed: consumers keep using it until the process ends
    bool attached = false;
    std::string path;
    std::string problem;  // why the named service could not be reached
};

Attachment& attachment() {
    static Attachment* a = new Attachment;
    return *a;
}

// A served vehicle whose service never answered: every call fails as one the service does not answer.
class UnreachableVehicle : public ServedVehicle {
public:
    explicit UnreachableVehicle(std::string path) : ServedVehicle(std::move(path), nullptr) {}
    std::unique_ptr<vehicle::Consumer> createConsumer() override { return std::make_unique<DeadConsumer>(); }

private:
    struct DeadConsumer : vehicle::Consumer {
        int initConsumer(const std::string&, const std::string&, unsigned short) override {
            return streams::kNotInitialised;
        }
        int regConsumerStream(uint32_t, const std::vector<streams::Config>&, bool, std::optional<int> f) override {
            return f.value_or(streams::kNotInitialised);
        }
        int initConsumerDone() override { return streams::kNotInitialised; }
        int getStreamState() override { return 2; }
        int deinitStream() override { return streams::kNotInitialised; }
        int getFrame(uint32_t, uint32_t, streams::FrameSpec*) override { return streams::kNotInitialised; }
        int releaseFrame(uint32_t, uint32_t, uint16_t, uint64_t) override { return streams::kNotInitialised; }
    };
};

void forget() {
    Attachment& a = attachment();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.attached = false;
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
    Attachment& a = attachment();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.attached = true;
    a.path = path;
    if (channel) {
        a.vehicle = new ServedVehicle(path, std::move(channel));
    } else {
        a.vehicle = new UnreachableVehicle(path);
        a.problem = error;
        std::fprintf(stderr, "sensor_sim: SENSOR_SIM_SERVICE: %s; every platform call fails\n", error.c_str());
    }
    return true;
}

vehicle::Vehicle* attachedVehicle() {
    Attachment& a = attachment();
    std::lock_guard<std::mutex> lock(a.mutex);
    return a.attached ? a.vehicle : nullptr;
}

std::string vehicleDescription() {
    Attachment& a = attachment();
    std::lock_guard<std::mutex> lock(a.mutex);
    if (!a.attached) return "in-process simulated vehicle";
    if (!a.problem.empty()) return "sensor-simd at " + a.path + " (not reachable: " + a.problem + ")";
    return "sensor-simd at " + a.path;
}

std::string problem() {
    Attachment& a = attachment();
    std::lock_guard<std::mutex> lock(a.mutex);
    return a.attached ? a.problem : std::string();
}

std::string queryState(const std::string& path, service::State* out) {
    std::string error;
    ServedVehicle asking(path, nullptr);
    auto channel = open(path, &error);
    if (!channel) return error;
    msg::ServiceStateAnswer answer;
    if (!call(asking, *channel, msg::GetServiceState{}, &answer)) return path + ": no valid answer from sensor-simd";
    *out = std::move(answer.state);
    return "";
}

}  // namespace remote

namespace vehicle {
std::unique_ptr<Vehicle> connect(const std::string& path, std::string* error) {
    auto channel = remote::open(path, error);
    if (!channel) return nullptr;
    return std::make_unique<remote::ServedVehicle>(path, std::move(channel));
}
}  // namespace vehicle

}  // namespace sensor_sim
