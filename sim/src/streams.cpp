// The stream model: consumers with their registrations, per-output FIFOs of waiting frames, held frames,
// the scripted connection state and the stream-name table. The model's lock guards the consumers and
// their registrations; each consumer's frames have a mutex of their own. Taking, returning and delivering
// frames share the model's lock, so that the streams of different consumers never wait for each other;
// only changes of consumers, registrations and states take it exclusively.
#include "sensor_sim/streams.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/streams_internal.h"

namespace sensor_sim {
namespace streams {
namespace {

using internal::ConsumerId;
using internal::OutputKey;
using internal::StreamTable;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kDefaultFrameTimeoutMs = 100;
constexpr int kStateConnecting = 0;     // the stream library's STREAM_STATE_CONNECTING
constexpr int kStateConnected = 1;      // its STREAM_STATE_CONNECTED
constexpr int kStateConnectFailed = 2;  // its STREAM_STATE_CONNECT_FAILED
constexpr std::chrono::milliseconds kDefaultConnectDelay{30};

// Runs a producer's callback when the last copy of its frame is dropped.
struct ReturnToken {
    explicit ReturnToken(std::function<void()> fn) : onReturned(std::move(fn)) {}
    ~ReturnToken() { onReturned(); }
    ReturnToken(const ReturnToken&) = delete;
    ReturnToken& operator=(const ReturnToken&) = delete;
    std::function<void()> onReturned;
};

// One consumer's copy of a delivered frame.
struct Copy {
    FrameSpec frame;
    std::shared_ptr<ReturnToken> token;
};

struct HeldCopy {
    Copy copy;
    uint32_t streamId;
    uint32_t output;
    uint64_t seq;  // process-wide order of taking
};

// One consumer's frames: copies waiting per output, copies held, and what wakes a getFrame that waits.
// Shared with a getFrame in progress, which waits without the model's lock.
struct Frames {
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<OutputKey, std::deque<Copy>> waiting;
    std::vector<HeldCopy> held;  // in the order taken
    bool closed = false;         // torn down, destroyed or reset: no frame is taken any more

    // Moves the waiting copies (and the held ones with `held`) out, so that producers' callbacks run
    // after the locks are released, and ends every wait.
    void close(std::vector<Copy>& dropped, bool withHeld) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (auto& [key, queue] : waiting) {
                for (auto& c : queue) dropped.push_back(std::move(c));
            }
            waiting.clear();
            if (withHeld) {
                for (auto& h : held) dropped.push_back(std::move(h.copy));
                held.clear();
            }
            closed = true;
        }
        arrived.notify_all();
    }
};

struct ConsumerState {
    bool alive = true;         // the ImageStreamMaster object exists
    bool initialised = false;  // initConsumer succeeded since creation or reset()
    bool torn = false;         // deinitStream called: no more deliveries
    bool started = false;      // initConsumerDone called: the live producers serve it
    Clock::time_point startedAt{};
    uint64_t order = 0;  // position in consumers()
    std::string name;
    std::string channel;
    unsigned short param = 0;
    int initDoneCalls = 0;
    int deinitCalls = 0;
    std::map<OutputKey, uint32_t> timeoutMs;  // registered outputs and their frame time-outs
    std::shared_ptr<Frames> frames = std::make_shared<Frames>();
};

struct Model {
    std::shared_mutex mutex;
    std::map<ConsumerId, ConsumerState> consumers;
    ConsumerId nextId = 1;
    uint64_t nextOrder = 1;
    std::atomic<uint64_t> nextSeq{1};
    StreamTable table = internal::defaultStreamTable();
    std::vector<int> states{kStateConnected};
    size_t stateStep = 0;
    bool statesScripted = false;  // setStates() called: the script answers even in live mode
    std::chrono::milliseconds connectDelay = kDefaultConnectDelay;
    std::set<uint32_t> failingStreams;
    std::function<void()> demandListener;
    std::shared_ptr<const std::function<void(uint32_t, uint32_t)>> deliveryListener;
    std::shared_ptr<const std::function<void()>> releaseCollector;
    std::vector<Registration> registrations;
};

void resetModel();

// Never destroyed: consumers held by static objects may call in while the process exits.
Model& model() {
    static Model* m = [] {
        auto* created = new Model;
        core::onReset(resetModel);
        return created;
    }();
    return *m;
}

// A consumer whose object still exists, or null.
ConsumerState* liveConsumer(Model& m, ConsumerId id) {
    auto it = m.consumers.find(id);
    return it == m.consumers.end() || !it->second.alive ? nullptr : &it->second;
}

bool receives(const ConsumerState& c, const OutputKey& key) {
    return c.alive && c.initialised && !c.torn && c.timeoutMs.count(key) != 0;
}

// Whether one of the consumer's registered streams is failing to connect: such a consumer is not
// connected, and the live producers serve it nothing.
bool connectFails(const Model& m, const ConsumerState& c) {
    for (const auto& [key, timeout] : c.timeoutMs) {
        if (m.failingStreams.count(key.first) != 0) return true;
    }
    return false;
}

bool receives(const Model& m, const ConsumerState& c, const OutputKey& key, bool startedOnly) {
    return receives(c, key) && (!startedOnly || (c.started && !connectFails(m, c)));
}

// Tells the live vehicle that demand may have changed. Called without the model's lock.
void notifyDemand() {
    Model& m = model();
    std::function<void()> listener;
    {
        std::shared_lock<std::shared_mutex> lock(m.mutex);
        listener = m.demandListener;
    }
    if (listener) listener();
}

// Existing ImageStreamMaster objects survive a reset as fresh consumers that have not called initConsumer.
void resetModel() {
    Model& m = model();
    std::vector<Copy> dropped;
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    for (auto it = m.consumers.begin(); it != m.consumers.end();) {
        it->second.frames->close(dropped, true);
        if (it->second.alive) {
            it->second = ConsumerState{};
            ++it;
        } else {
            it = m.consumers.erase(it);
        }
    }
    m.table = internal::defaultStreamTable();
    m.states = {kStateConnected};
    m.stateStep = 0;
    m.statesScripted = false;
    m.connectDelay = kDefaultConnectDelay;
    m.failingStreams.clear();
    m.registrations.clear();
}

}  // namespace

namespace internal {

StreamTable defaultStreamTable() {
    static const char* const kCameraNames[] = {"wideleft",      "rear",          "wide",
                                               "narrow",        "sideleftfront", "siderightfront",
                                               "siderightrear", "sideleftrear"};
    StreamTable table;
    for (uint32_t id = 0; id < 8; ++id) {
        table[id].push_back({std::string("ipc-camera-") + kCameraNames[id] + "-isp0", 1});
    }
    table[2].push_back({"ipc-camera-wide", 0});
    table[3].push_back({"ipc-camera-narrow", 0});
    table[8].push_back({"ipc-camera-surroundfront", 0});
    table[9].push_back({"ipc-camera-surroundright", 0});
    table[10].push_back({"ipc-camera-surroundrear", 0});
    table[11].push_back({"ipc-camera-surroundleft", 0});
    table[12].push_back({"ipc-sensor-frontslave", 0});
    table[13].push_back({"ipc-sensor-frontmaster", 0});
    table[14].push_back({"ipc-sensor-midlidar", 0});
    table[16].push_back({"ipc-sensor-frontleft", 0});
    table[17].push_back({"ipc-sensor-frontright", 0});
    table[18].push_back({"ipc-sensor-rearleft", 0});
    table[19].push_back({"ipc-sensor-rearright", 0});
    table[20].push_back({"ipc-sensor-leftlidar", 0});
    table[21].push_back({"ipc-sensor-rightlidar", 0});
    return table;
}

uint32_t outputOfName(const std::string& name) {
    static const std::string kProcessedSuffix = "-isp0";
    const bool processed =
        name.size() >= kProcessedSuffix.size() &&
        name.compare(name.size() - kProcessedSuffix.size(), kProcessedSuffix.size(), kProcessedSuffix) == 0;
    return processed ? 1 : 0;
}

void setStreamTable(StreamTable table) {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    m.table = std::move(table);
}

StreamTable streamTable() {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    return m.table;
}

ConsumerId createConsumer() {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    ConsumerId id = m.nextId++;
    m.consumers[id];
    return id;
}

void destroyConsumer(ConsumerId id) {
    Model& m = model();
    {
        std::vector<Copy> dropped;
        std::lock_guard<std::shared_mutex> lock(m.mutex);
        auto it = m.consumers.find(id);
        if (it == m.consumers.end()) return;
        ConsumerState& c = it->second;
        c.frames->close(dropped, true);
        c.timeoutMs.clear();
        if (c.initialised) {
            c.alive = false;  // still listed by consumers() until reset()
        } else {
            m.consumers.erase(it);
        }
    }
    notifyDemand();
}

int initConsumer(ConsumerId id, const std::string& appName, const std::string& channel,
                 unsigned short param) {
    Model& m = model();
    bool resumed = false;  // a started consumer that had torn its stream down wants frames again
    {
        std::lock_guard<std::shared_mutex> lock(m.mutex);
        ConsumerState* c = liveConsumer(m, id);
        if (c == nullptr) return kNotInitialised;
        if (appName.empty() || channel.empty()) return kBadArgument;
        if (!c->initialised) c->order = m.nextOrder++;
        resumed = c->torn && c->started;
        if (c->torn) {
            std::lock_guard<std::mutex> framesLock(c->frames->mutex);
            c->frames->closed = false;
        }
        c->initialised = true;
        c->torn = false;
        c->name = appName;
        c->channel = channel;
        c->param = param;
    }
    if (resumed) notifyDemand();
    return 0;
}

int regConsumerStream(ConsumerId id, uint32_t streamId, const std::vector<Config>& configs, bool hasCallback,
                      std::optional<int> forced) {
    Model& m = model();
    std::unique_lock<std::shared_mutex> lock(m.mutex);
    ConsumerState* c = liveConsumer(m, id);
    int result = 0;
    std::vector<OutputKey> outputs;
    if (forced) {
        result = *forced;
    } else if (c == nullptr || !c->initialised) {
        result = kNotInitialised;
    } else if (configs.empty()) {
        result = kUnknownStream;
    } else {
        // All names are checked before anything is registered: a partly valid vector registers nothing.
        auto published = m.table.find(streamId);
        for (const Config& config : configs) {
            const PublishedStream* match = nullptr;
            if (published != m.table.end()) {
                for (const auto& p : published->second) {
                    if (p.name == config.name) match = &p;
                }
            }
            if (match == nullptr) {
                result = kUnknownStream;
                break;
            }
            outputs.push_back({streamId, match->output});
        }
    }
    if (result == 0 && !forced) {
        for (size_t i = 0; i < configs.size(); ++i) c->timeoutMs[outputs[i]] = configs[i].frameTimeout;
    }
    m.registrations.push_back(
        Registration{c != nullptr ? c->name : std::string(), streamId, configs, hasCallback, result});
    const bool moreDemand = result == 0 && !forced && c->started;
    lock.unlock();
    if (moreDemand) notifyDemand();
    return result;
}

// A repeated initConsumerDone keeps the first start time: the connection is not made again.
int initConsumerDone(ConsumerId id) {
    Model& m = model();
    {
        std::lock_guard<std::shared_mutex> lock(m.mutex);
        ConsumerState* c = liveConsumer(m, id);
        if (c == nullptr || !c->initialised) return kNotInitialised;
        ++c->initDoneCalls;
        if (!c->started) c->startedAt = Clock::now();
        c->started = true;
    }
    notifyDemand();
    return 0;
}

int getStreamState(ConsumerId id) {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    ConsumerState* c = liveConsumer(m, id);
    // A consumer that never initialised cannot connect; answering "connected" would hide the failure.
    if (c == nullptr || !c->initialised) return kStateConnectFailed;
    if (core::live() && !m.statesScripted) {
        if (!c->started) return kStateConnecting;
        if (connectFails(m, *c)) return kStateConnectFailed;
        return Clock::now() - c->startedAt < m.connectDelay ? kStateConnecting : kStateConnected;
    }
    const int state = m.states[m.stateStep];
    if (m.stateStep + 1 < m.states.size()) ++m.stateStep;
    return state;
}

int deinitStream(ConsumerId id) {
    Model& m = model();
    {
        std::vector<Copy> dropped;
        std::lock_guard<std::shared_mutex> lock(m.mutex);
        ConsumerState* c = liveConsumer(m, id);
        if (c == nullptr || !c->initialised) return kNotInitialised;
        ++c->deinitCalls;
        c->torn = true;
        c->frames->close(dropped, false);  // held frames stay held until released
    }
    notifyDemand();
    return 0;
}

namespace {

// getFrame and takeFrame: `allowWait` lets an empty FIFO be waited on (live mode); without it, `waitOut`
// receives the wait that getFrame would have made (zero when it would not wait).
int takeOrWait(ConsumerId id, uint32_t streamId, uint32_t output, FrameSpec* frame, bool allowWait,
               std::chrono::milliseconds* waitOut) {
    if (frame == nullptr) return kBadArgument;
    Model& m = model();
    const OutputKey key{streamId, output};
    std::shared_ptr<Frames> frames;
    bool mayWait = false;
    std::chrono::milliseconds timeout{0};
    {
        std::shared_lock<std::shared_mutex> lock(m.mutex);
        ConsumerState* c = liveConsumer(m, id);
        if (c == nullptr || !c->initialised) return kNotInitialised;
        auto reg = c->timeoutMs.find(key);
        if (reg == c->timeoutMs.end()) return kNotRegistered;
        frames = c->frames;
        mayWait = core::live() && !c->torn;
        timeout = std::chrono::milliseconds(reg->second != 0 ? reg->second : kDefaultFrameTimeoutMs);
    }
    // The consumer may be torn down, destroyed or reset from here on: that closes these frames.
    std::unique_lock<std::mutex> lock(frames->mutex);
    std::deque<Copy>* queue = nullptr;
    auto ready = [&] {
        auto q = frames->waiting.find(key);
        queue = q == frames->waiting.end() || q->second.empty() ? nullptr : &q->second;
        return frames->closed || queue != nullptr;
    };
    if (!ready() && mayWait && allowWait)
        frames->arrived.wait_until(lock, std::chrono::steady_clock::now() + timeout, ready);
    if (waitOut != nullptr) *waitOut = mayWait && !frames->closed ? timeout : std::chrono::milliseconds(0);
    if (frames->closed || queue == nullptr) return kNoFrame;
    Copy copy = std::move(queue->front());
    queue->pop_front();
    *frame = copy.frame;
    frames->held.push_back(HeldCopy{std::move(copy), streamId, output, m.nextSeq.fetch_add(1)});
    return 0;
}

}  // namespace

int getFrame(ConsumerId id, uint32_t streamId, uint32_t output, FrameSpec* frame) {
    return takeOrWait(id, streamId, output, frame, true, nullptr);
}

int takeFrame(ConsumerId id, uint32_t streamId, uint32_t output, FrameSpec* frame,
              std::chrono::milliseconds* wait) {
    return takeOrWait(id, streamId, output, frame, false, wait);
}

int releaseFrame(ConsumerId id, uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) {
    Model& m = model();
    Copy dropped;  // destroyed after the locks are released; one frame needs no list (nor an allocation)
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    ConsumerState* c = liveConsumer(m, id);
    if (c == nullptr || !c->initialised) return kNotInitialised;
    Frames& frames = *c->frames;
    std::lock_guard<std::mutex> framesLock(frames.mutex);
    auto it = std::find_if(frames.held.begin(), frames.held.end(), [&](const HeldCopy& h) {
        return h.streamId == streamId && h.output == output && h.copy.frame.objIndex == objIndex &&
               h.copy.frame.counter == counter;
    });
    if (it == frames.held.end()) return kNotHeld;
    dropped = std::move(it->copy);
    frames.held.erase(it);
    return 0;
}

size_t waitingFrames(ConsumerId id, uint32_t streamId, uint32_t output) {
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    ConsumerState* c = liveConsumer(m, id);
    if (c == nullptr) return 0;
    std::lock_guard<std::mutex> framesLock(c->frames->mutex);
    auto q = c->frames->waiting.find({streamId, output});
    return q == c->frames->waiting.end() ? 0 : q->second.size();
}

size_t deliver(uint32_t streamId, uint32_t output, const FrameSpec& frame, std::function<void()> onReturned,
               DeliveryPolicy policy, size_t* evicted) {
    // Declared before the lock: when no consumer takes a copy, or older copies are evicted, the callbacks
    // run after it is released.
    std::shared_ptr<ReturnToken> token;
    if (onReturned) token = std::make_shared<ReturnToken>(std::move(onReturned));
    std::vector<Copy> dropped;
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    const OutputKey key{streamId, output};
    const std::shared_ptr<const std::function<void(uint32_t, uint32_t)>> listener = m.deliveryListener;
    size_t count = 0;
    for (auto& [id, c] : m.consumers) {
        if (!receives(m, c, key, policy.startedOnly)) continue;
        Frames& frames = *c.frames;
        {
            std::lock_guard<std::mutex> framesLock(frames.mutex);
            auto& queue = frames.waiting[key];
            while (policy.maxWaiting != 0 && queue.size() >= policy.maxWaiting) {
                dropped.push_back(std::move(queue.front()));
                queue.pop_front();
            }
            queue.push_back(Copy{frame, token});
        }
        frames.arrived.notify_all();
        ++count;
    }
    if (evicted != nullptr) *evicted = dropped.size();
    lock.unlock();
    if (listener && count != 0) (*listener)(streamId, output);
    return count;
}

size_t subscribers(uint32_t streamId, uint32_t output, bool startedOnly) {
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    const OutputKey key{streamId, output};
    return static_cast<size_t>(std::count_if(m.consumers.begin(), m.consumers.end(), [&](const auto& entry) {
        return receives(m, entry.second, key, startedOnly);
    }));
}

std::set<OutputKey> demand() {
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    std::set<OutputKey> out;
    for (const auto& [id, c] : m.consumers) {
        if (!c.alive || !c.initialised || c.torn || !c.started || connectFails(m, c)) continue;
        for (const auto& [key, timeout] : c.timeoutMs) out.insert(key);
    }
    return out;
}

void setDeliveryListener(std::function<void(uint32_t streamId, uint32_t output)> listener) {
    Model& m = model();
    std::unique_lock<std::shared_mutex> lock(m.mutex);
    m.deliveryListener =
        listener ? std::make_shared<const std::function<void(uint32_t, uint32_t)>>(std::move(listener))
                 : nullptr;
}

void setReleaseCollector(std::function<void()> collector) {
    Model& m = model();
    std::unique_lock<std::shared_mutex> lock(m.mutex);
    m.releaseCollector =
        collector ? std::make_shared<const std::function<void()>>(std::move(collector)) : nullptr;
}

void collectReleases() {
    Model& m = model();
    std::shared_ptr<const std::function<void()>> collector;
    {
        std::shared_lock<std::shared_mutex> lock(m.mutex);
        collector = m.releaseCollector;
    }
    if (collector) (*collector)();
}

void setDemandListener(std::function<void()> listener) {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    m.demandListener = std::move(listener);
}

void setLiveConnection(std::chrono::milliseconds delay, std::set<uint32_t> failing) {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    m.connectDelay = delay;
    m.failingStreams = std::move(failing);
}

}  // namespace internal

size_t push(uint32_t streamId, uint32_t output, const FrameSpec& frame) {
    return internal::deliver(streamId, output, frame);
}

size_t queued(uint32_t streamId, uint32_t output) {
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    size_t count = 0;
    for (const auto& [id, c] : m.consumers) {
        std::lock_guard<std::mutex> framesLock(c.frames->mutex);
        auto q = c.frames->waiting.find({streamId, output});
        if (c.alive && q != c.frames->waiting.end()) count += q->second.size();
    }
    return count;
}

void setStates(const std::vector<int>& states) {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    m.states = states.empty() ? std::vector<int>{kStateConnected} : states;
    m.stateStep = 0;
    m.statesScripted = true;
}

std::vector<Held> held() {
    Model& m = model();
    std::shared_lock<std::shared_mutex> lock(m.mutex);
    std::vector<std::pair<uint64_t, Held>> ordered;
    for (const auto& [id, c] : m.consumers) {
        if (!c.alive) continue;
        std::lock_guard<std::mutex> framesLock(c.frames->mutex);
        for (const HeldCopy& h : c.frames->held) {
            ordered.push_back(
                {h.seq, Held{c.name, h.streamId, h.output, h.copy.frame.objIndex, h.copy.frame.counter, c.channel}});
        }
    }
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Held> out;
    for (auto& entry : ordered) out.push_back(std::move(entry.second));
    return out;
}

std::vector<Registration> registrations() {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    return m.registrations;
}

std::vector<Consumer> consumers() {
    Model& m = model();
    std::lock_guard<std::shared_mutex> lock(m.mutex);
    std::vector<const ConsumerState*> listed;
    for (const auto& [id, c] : m.consumers) {
        if (c.initialised) listed.push_back(&c);
    }
    std::sort(listed.begin(), listed.end(), [](auto* a, auto* b) { return a->order < b->order; });
    std::vector<Consumer> out;
    for (const ConsumerState* c : listed) {
        out.push_back(Consumer{c->name, c->channel, c->param, c->alive, c->initDoneCalls, c->deinitCalls});
    }
    return out;
}

}  // namespace streams
}  // namespace sensor_sim
