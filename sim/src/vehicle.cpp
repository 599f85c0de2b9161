// The live vehicle: one producer thread per wanted stream draws frames into finite buffer pools at the
// stream's rate, a scenario clock applies scripted faults, and the rig.h control API starts and stops
// it all. Producers start when a consumer starts a stream output and end when none wants it any more.
//
// Locks: `control` serialises load/start/stop; `mutex` guards the running state and is the only lock a
// producer takes itself (to sleep). With `mutex` held the vehicle calls into the camera-access and
// stream models (taking their locks); those models never call back while holding theirs, so the order
// is always vehicle first.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/pattern.h"
#include "sensor_sim/internal/served_vehicle.h"
#include "sensor_sim/internal/rig_internal.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sensor_sim/rig.h"
#include "sensor_sim/stats.h"
#include "sensor_sim/streams.h"

namespace sensor_sim {
namespace rig {
namespace {

using Clock = std::chrono::steady_clock;
using internal::Event;
using internal::EventKind;
using internal::OutputSpec;
using internal::Rig;
using internal::Scenario;

// The buffers of one stream output. Slot i is object index i; a slot is busy from the producer's
// acquire until the stream model returns the last copy of its frame.
class Pool {
public:
    Pool(BufferSpec spec, uint32_t size) : m_spec(std::move(spec)), m_size(size), m_buffers(size) {}

    std::optional<uint32_t> acquire() {
        uint32_t busy = m_busy.load(std::memory_order_acquire);
        for (;;) {
            const uint32_t freeSlots = ~busy & mask();
            if (freeSlots == 0) return std::nullopt;
            const uint32_t slot = static_cast<uint32_t>(__builtin_ctz(freeSlots));
            if (m_busy.compare_exchange_weak(busy, busy | (1u << slot), std::memory_order_acquire))
                return slot;
        }
    }
    void release(uint32_t slot) { m_busy.fetch_and(~(1u << slot), std::memory_order_release); }
    // The buffer of an acquired slot, allocated on first use: a consumer that keeps up touches only a few.
    // In sensor-simd the buffers live in shared memory, which consumer processes map. Null when the system
    // refuses the memory (no descriptor or memory left): that exposure is lost, said once per pool.
    std::shared_ptr<Buffer> buffer(uint32_t slot) {
        if (!m_buffers[slot]) {
            std::string error;
            if (internal::sharedMemoryPools()) {
                m_buffers[slot] = Buffer::createShared(m_spec, error);
            } else {
                try {
                    m_buffers[slot] = makeBuffer(m_spec);
                } catch (const std::bad_alloc&) {
                    error = "out of memory";
                }
            }
            if (!m_buffers[slot]) {
                if (!m_refusedOnce)
                    std::fprintf(stderr, "sensor_sim: a pool buffer could not be made (%s): frames are lost\n",
                                 error.c_str());
                m_refusedOnce = true;
                return nullptr;
            }
        }
        return m_buffers[slot];
    }
    uint32_t inUse() const { return static_cast<uint32_t>(__builtin_popcount(m_busy.load())); }
    uint32_t size() const { return m_size; }

private:
    uint32_t mask() const { return m_size >= 32 ? ~0u : (1u << m_size) - 1; }
    BufferSpec m_spec;
    uint32_t m_size;
    std::vector<std::shared_ptr<Buffer>> m_buffers;  // touched by the stream's producer thread only
    bool m_refusedOnce = false;
    std::atomic<uint32_t> m_busy{0};
};

struct OutputRuntime {
    uint32_t output = 0;
    OutputSpec spec;
    std::shared_ptr<Pool> pool;
    std::shared_ptr<const pattern::Strip> strip;  // producer thread only
    Clock::duration drawTime{};                   // how long the last frame took to draw (producer only)
    std::atomic<uint64_t> produced{0}, delivered{0}, poolDrops{0}, randomDrops{0}, fifoDrops{0};
};

struct StreamRuntime {
    uint32_t id = 0;
    Clock::duration period{};
    uint64_t counterBase = 0;              // the last counter of this stream in earlier runs
    std::atomic<uint64_t> lastCounter{0};  // the last exposure this run's producers reached
    uint32_t fifoDepth = 4;
    uint64_t seed = 0;
    std::vector<std::unique_ptr<OutputRuntime>> outputs;  // capture first
    OutputRuntime* statsSource = nullptr;  // the processed output if any: statistics describe that image
    std::atomic<uint64_t> lateSkips{0};
    // A recording played into this stream (its outputs' tracks).
    std::shared_ptr<const replay::Recording> recording;
    double replayRate = 1.0;
    bool replayLoop = false;
    std::thread thread;
    bool alive = false;   // the thread runs its loop (guarded by Vehicle::mutex)
    bool wanted = false;  // some started consumer registered an output (guarded by Vehicle::mutex)
};

struct Action {
    double atS;
    size_t event;
    bool revert;
};

struct Vehicle {
    std::mutex control;
    Rig loaded = internal::defaultRig();
    std::optional<Scenario> loadedScenario;
    std::string fileProblem;  // why SENSOR_SIM_RIG or SENSOR_SIM_SCENARIO could not be used
    bool atExitRegistered = false;
    bool configured = false;  // started or reset: the environment's files are not read any more

    std::mutex mutex;
    std::condition_variable wake;
    bool running = false;
    bool stopping = false;
    Clock::time_point epoch;
    std::shared_ptr<const Rig> rig;
    std::map<uint32_t, std::unique_ptr<StreamRuntime>> streams;
    uint64_t runId = 0;
    Scenario scenario;
    std::vector<Action> actions;
    size_t nextAction = 0;
    bool clockStarted = false;
    Clock::time_point clockBase;
    std::thread clockThread;
    std::map<uint32_t, int> scenarioFailing;  // stream id -> active connect_fail events
    // Counters continue across restarts of the vehicle (a consumer may span one); reset() forgets them.
    std::map<uint32_t, uint64_t> lastCounters;
};

// Never destroyed: consumers destroyed during static destruction still notify it.
Vehicle& vehicle() {
    static Vehicle* v = new Vehicle;
    return *v;
}

std::atomic<bool> g_sharedMemoryPools{false};

uint64_t micros(Clock::time_point t) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count());
}

// --- Producers ------------------------------------------------------------------------------------------

// Sleeps until `t`; false when the thread must end (vehicle stopping, or nobody wants the stream).
bool sleepUntil(Vehicle& v, StreamRuntime& s, Clock::time_point t) {
    std::unique_lock<std::mutex> lock(v.mutex);
    v.wake.wait_until(lock, t, [&] { return v.stopping || !s.wanted; });
    if (v.stopping) return false;
    if (!s.wanted) {
        s.alive = false;
        return false;
    }
    return true;
}

// A frame drawn and waiting for its delivery time.
struct Prepared {
    uint32_t slot;
    std::shared_ptr<Buffer> buffer;
};

// Draws frame `counter` of an output into a free pool buffer, unless nobody would receive it, the sensor
// is gone, the drop rate hits or the pool is exhausted (the counter advances all the same).
std::optional<Prepared> prepare(StreamRuntime& s, OutputRuntime& o, uint64_t counter, std::mt19937_64& rng,
                                const replay::Recording::Frame* recorded = nullptr) {
    if (!camera::internal::present(s.id)) return std::nullopt;
    if (streams::internal::subscribers(s.id, o.output, true) == 0) return std::nullopt;
    if (o.spec.dropRate > 0 && std::uniform_real_distribution<double>(0, 1)(rng) < o.spec.dropRate) {
        ++o.randomDrops;
        return std::nullopt;
    }
    streams::internal::collectReleases();  // releases a server queued in shared memory free their buffers
    const std::optional<uint32_t> slot = o.pool->acquire();
    if (!slot) {
        ++o.poolDrops;
        return std::nullopt;
    }
    const std::shared_ptr<Buffer> buffer = o.pool->buffer(*slot);
    if (!buffer) {
        o.pool->release(*slot);
        ++o.poolDrops;
        return std::nullopt;
    }
    if (recorded != nullptr) {
        if (!s.recording->copyFrame(*recorded, *buffer)) {
            o.pool->release(*slot);
            ++o.poolDrops;
            return std::nullopt;
        }
    } else if (o.spec.replay) {
        o.spec.replay->copyFrame(counter, *buffer);
    } else {
        pattern::render(*o.strip, *buffer, s.id, counter);
    }
    if (&o == s.statsSource) {
        stats::publish(static_cast<uint16_t>(s.id), counter, pattern::statistics(*buffer, o.spec.format));
    }
    return Prepared{*slot, buffer};
}

void send(StreamRuntime& s, OutputRuntime& o, const Prepared& p, uint64_t counter,
          Clock::time_point exposure) {
    streams::FrameSpec frame;
    frame.counter = counter;
    frame.objIndex = static_cast<uint16_t>(p.slot);
    frame.buffer = p.buffer;
    frame.words[0] = micros(exposure);      // nominal exposure time, steady clock
    frame.words[1] = micros(Clock::now());  // delivery time, steady clock
    size_t evicted = 0;
    std::shared_ptr<Pool> pool = o.pool;
    const uint32_t index = p.slot;
    const size_t receivers = streams::internal::deliver(
        s.id, o.output, frame, [pool, index] { pool->release(index); },
        streams::internal::DeliveryPolicy{true, s.fifoDepth}, &evicted);
    ++o.produced;
    if (receivers != 0) ++o.delivered;
    o.fifoDrops += evicted;
}

// Exposures are due one period apart from the run's epoch; their outputs are delivered at their own offsets
// (plus jitter) from that time, in time order, so a raw frame set earlier arrives first. Each frame is
// drawn ahead of its delivery time by the time its last drawing took, so deliveries keep the schedule.
// A recorded stream: each recorded frame of each output is delivered at its recorded time (divided by the
// rate) from the moment a consumer is connected to the stream, with its recorded counter, so that a
// consumer receives the recording from its first frame; a loop starts again after the last frame with
// counters that go on from the last one, so that they never repeat.
void replayRecorded(Vehicle* v, StreamRuntime* s) {
    auto connected = [&] {
        for (auto& o : s->outputs)
            if (streams::internal::subscribers(s->id, o->output, true) != 0) return true;
        return false;
    };
    while (!connected()) {
        if (!sleepUntil(*v, *s, Clock::now() + std::chrono::milliseconds(5))) return;
    }
    const Clock::time_point start = Clock::now();
    std::mt19937_64 rng(s->seed);
    struct Item {
        uint64_t timeNs;
        OutputRuntime* out;
        const replay::Recording::Frame* frame;
    };
    std::vector<Item> items;
    uint32_t firstCounter = UINT32_MAX, lastCounter = 0;
    for (auto& o : s->outputs) {
        const replay::Recording::Track* t = s->recording->track(s->id, o->output);
        if (t == nullptr) continue;
        for (const auto& f : t->frames) {
            items.push_back({f.timeNs, o.get(), &f});
            firstCounter = std::min(firstCounter, f.counter);
            lastCounter = std::max(lastCounter, f.counter);
        }
    }
    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.timeNs < b.timeNs; });
    const auto spanNs = static_cast<double>(s->recording->spanNs()) + 1e9 / 30.0;
    for (uint64_t loop = 0;; ++loop) {
        const uint64_t counterShift = loop * (uint64_t(lastCounter) - firstCounter + 1);
        for (const Item& item : items) {
            const Clock::time_point at =
                start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::nano>(
                                     (static_cast<double>(item.timeNs) + spanNs * double(loop)) / s->replayRate));
            // A late frame (an overloaded machine) still comes, at once: a recording's frames are all played.
            const uint64_t counter = item.frame->counter + counterShift;
            if (!sleepUntil(*v, *s, at)) return;
            s->lastCounter.store(counter, std::memory_order_relaxed);
            const std::optional<Prepared> p = prepare(*s, *item.out, counter, rng, item.frame);
            if (p) send(*s, *item.out, *p, counter, at);
        }
        if (!s->replayLoop) break;
    }
    // The recording has ended: the stream stays connected and silent.
    while (sleepUntil(*v, *s, Clock::now() + std::chrono::seconds(1))) {
    }
}

void produce(Vehicle* v, StreamRuntime* s, Clock::time_point epoch) {
    if (s->recording) return replayRecorded(v, s);
    std::mt19937_64 rng(s->seed * 1000003u + s->id);
    for (auto& o : s->outputs) {
        if (!o->spec.replay && !o->strip)
            o->strip = pattern::strip(o->spec.format, o->spec.width, o->spec.height);
    }
    // Exposure n (counted from counterBase) is due at epoch + (n - counterBase) * period.
    auto exposureAt = [&](Clock::time_point t) -> uint64_t {
        return s->counterBase + (t <= epoch ? 0 : static_cast<uint64_t>((t - epoch) / s->period));
    };
    uint64_t n = exposureAt(Clock::now()) + 1;
    struct Due {
        Clock::time_point at;
        OutputRuntime* out;
    };
    std::vector<Due> due;
    for (;;) {
        const Clock::time_point exposure = epoch + s->period * static_cast<int64_t>(n - s->counterBase);
        s->lastCounter.store(n, std::memory_order_relaxed);
        due.clear();
        for (auto& o : s->outputs) {
            double ms = o->spec.offsetMs;
            if (o->spec.jitterMs > 0)
                ms += std::uniform_real_distribution<double>(-1, 1)(rng) * o->spec.jitterMs;
            due.push_back({exposure + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double, std::milli>(ms)),
                           o.get()});
        }
        std::sort(due.begin(), due.end(), [](const Due& a, const Due& b) { return a.at < b.at; });
        for (const Due& d : due) {
            if (!sleepUntil(*v, *s, d.at - d.out->drawTime)) return;
            const Clock::time_point drawStart = Clock::now();
            const std::optional<Prepared> p = prepare(*s, *d.out, n, rng);
            if (!p) continue;
            d.out->drawTime = std::min<Clock::duration>(Clock::now() - drawStart, s->period / 4);
            if (!sleepUntil(*v, *s, d.at)) {
                d.out->pool->release(p->slot);
                return;
            }
            send(*s, *d.out, *p, n, exposure);
        }
        ++n;
        // More than a frame behind (an overloaded machine): skip to the present, as a sensor does not wait.
        const uint64_t now = exposureAt(Clock::now());
        if (now > n) {
            s->lateSkips += now - n;
            n = now;
        }
    }
}

// --- Scenario clock -------------------------------------------------------------------------------------

void applyConnectionLocked(Vehicle& v) {
    std::set<uint32_t> failing;
    for (const auto& [id, s] : v.rig->streams) {
        if (s.connectFails) failing.insert(id);
    }
    for (const auto& [id, count] : v.scenarioFailing) {
        if (count > 0) failing.insert(id);
    }
    streams::internal::setLiveConnection(std::chrono::milliseconds(v.rig->connectDelayMs),
                                         std::move(failing));
}

void onDemandLocked(Vehicle& v);

void applyLocked(Vehicle& v, const Action& a) {
    const Event& e = v.scenario.events[a.event];
    const uint64_t tag = (v.runId << 32) | a.event;
    switch (e.kind) {
        case EventKind::SensorLost:
            camera::setPresent(*e.sensor, a.revert ? v.rig->sensors[*e.sensor].present : false);
            break;
        case EventKind::ConnectFail:
            v.scenarioFailing[e.stream] += a.revert ? -1 : 1;
            applyConnectionLocked(v);
            onDemandLocked(v);  // its consumers stop or start being served
            break;
        case EventKind::CallFail:
            if (a.revert) {
                camera::internal::removeCallFault(tag);
            } else {
                camera::internal::addCallFault({tag, e.call, e.sensor, e.status, e.calls});
            }
            break;
        case EventKind::DetectFail:
            camera::setDetectAnswer(a.revert ? v.rig->detectAnswer : std::optional<uint32_t>(e.status));
            break;
    }
}

void applyDueLocked(Vehicle& v) {
    const Clock::time_point now = Clock::now();
    while (v.nextAction < v.actions.size()) {
        const Action& a = v.actions[v.nextAction];
        if (v.clockBase + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(a.atS)) >
            now)
            break;
        applyLocked(v, a);
        ++v.nextAction;
    }
}

void clockLoop(Vehicle* v) {
    std::unique_lock<std::mutex> lock(v->mutex);
    while (!v->stopping && v->nextAction < v->actions.size()) {
        const auto at = v->clockBase + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(v->actions[v->nextAction].atS));
        if (v->wake.wait_until(lock, at, [&] { return v->stopping; })) return;
        applyDueLocked(*v);
    }
}

// Events already due are applied before this returns, so a fault at time 0 holds from the first call on.
void startClockLocked(Vehicle& v, Clock::time_point base) {
    v.clockStarted = true;
    v.clockBase = base;
    applyDueLocked(v);
    if (v.nextAction >= v.actions.size()) return;
    try {
        v.clockThread = std::thread(clockLoop, &v);
    } catch (const std::system_error& e) {
        std::fprintf(stderr, "sensor_sim: cannot start the scenario clock: %s\n", e.what());
    }
}

// --- Demand, start and stop -----------------------------------------------------------------------------

// Starts producers for streams some consumer now wants; the others end at their next wake.
void onDemandLocked(Vehicle& v) {
    if (!v.running) return;
    std::set<streams::internal::OutputKey> wanted = streams::internal::demand();
    if (!wanted.empty() && !v.clockStarted) {
        startClockLocked(v, Clock::now());
        wanted = streams::internal::demand();  // the faults due at once may have changed it
    }
    for (auto& [id, s] : v.streams) {
        bool want = false;
        for (const auto& o : s->outputs) want = want || wanted.count({id, o->output}) != 0;
        s->wanted = want;
        if (!want || s->alive) continue;
        // A thread that ended for lack of consumers has left its loop; joining it is immediate.
        if (s->thread.joinable()) s->thread.join();
        try {
            s->thread = std::thread(produce, &v, s.get(), v.epoch);
            s->alive = true;
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "sensor_sim: cannot start the producer of stream %u: %s\n", id, e.what());
        }
    }
    v.wake.notify_all();
}

void onDemand() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> lock(v.mutex);
    onDemandLocked(v);
}

void stopLocked(Vehicle& v) {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(v.mutex);
        v.running = false;
        v.stopping = true;
        for (auto& [id, s] : v.streams) {
            if (s->thread.joinable()) threads.push_back(std::move(s->thread));
            s->alive = false;
            s->wanted = false;
        }
        if (v.clockThread.joinable()) threads.push_back(std::move(v.clockThread));
        v.wake.notify_all();
    }
    for (std::thread& t : threads) t.join();
    {
        std::lock_guard<std::mutex> lock(v.mutex);
        v.stopping = false;
        for (auto& [id, s] : v.streams)
            v.lastCounters[id] = std::max(v.lastCounters[id], s->lastCounter.load());
    }
    core::setLive(false);
}

std::unique_ptr<StreamRuntime> makeRuntime(uint32_t id, const internal::StreamSpec& spec, const Rig& rig,
                                           uint64_t counterBase) {
    auto s = std::make_unique<StreamRuntime>();
    s->id = id;
    s->counterBase = counterBase;
    s->lastCounter = counterBase;
    s->period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / spec.rateHz));
    s->fifoDepth = rig.fifoDepth;
    s->seed = rig.seed;
    if (rig.recording && (rig.recording->track(id, internal::kCapture) || rig.recording->track(id, internal::kProcessed))) {
        s->recording = rig.recording;
        s->replayRate = rig.replayRate;
        s->replayLoop = rig.replayLoop;
    }
    for (uint32_t out : {internal::kCapture, internal::kProcessed}) {
        if (!spec.outputs[out]) continue;
        auto o = std::make_unique<OutputRuntime>();
        o->output = out;
        o->spec = *spec.outputs[out];
        o->pool = std::make_shared<Pool>(
            pattern::bufferSpec(o->spec.format, o->spec.width, o->spec.height, o->spec.pitchPadding),
            o->spec.poolSize);
        s->statsSource = o.get();  // the processed output when there is one (it comes last)
        s->outputs.push_back(std::move(o));
    }
    return s;
}

void startLocked(Vehicle& v) {
    stopLocked(v);
    v.configured = true;
    auto rig = std::make_shared<const Rig>(v.loaded);
    for (uint32_t id = 0; id < camera::kSensorCount; ++id) camera::setSensor(id, rig->sensors[id]);
    camera::setDetectAnswer(rig->detectAnswer);
    camera::internal::clearCallFaults();  // an earlier run's scenario faults
    streams::internal::StreamTable table;
    for (const auto& [id, s] : rig->streams) {
        for (uint32_t out : {internal::kCapture, internal::kProcessed}) {
            if (s.outputs[out]) table[id].push_back({s.outputs[out]->name, out});
        }
    }
    streams::internal::setStreamTable(std::move(table));
    stats::setRetention(rig->statsFrames);
    {
        std::lock_guard<std::mutex> lock(v.mutex);
        v.rig = rig;
        v.streams.clear();
        for (const auto& [id, spec] : rig->streams)
            v.streams[id] = makeRuntime(id, spec, *rig, v.lastCounters[id]);
        v.epoch = Clock::now();
        v.running = true;
        ++v.runId;
        v.scenario = v.loadedScenario.value_or(Scenario{});
        v.actions.clear();
        for (size_t i = 0; i < v.scenario.events.size(); ++i) {
            const Event& e = v.scenario.events[i];
            v.actions.push_back({e.atS, i, false});
            if (e.forS) v.actions.push_back({e.atS + *e.forS, i, true});
        }
        std::stable_sort(v.actions.begin(), v.actions.end(),
                         [](const Action& a, const Action& b) { return a.atS < b.atS; });
        v.nextAction = 0;
        v.clockStarted = false;
        v.scenarioFailing.clear();
        applyConnectionLocked(v);
        if (v.scenario.processClock) startClockLocked(v, v.epoch);
    }
    core::setLive(true);
    streams::internal::setDemandListener(onDemand);
    if (!v.atExitRegistered) {
        v.atExitRegistered = true;
        std::atexit([] {
            Vehicle& vv = vehicle();
            std::lock_guard<std::mutex> control(vv.control);
            stopLocked(vv);
        });
    }
    onDemand();  // consumers started before this start
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Runs once, at the first platform call of a process that has not reset: the environment's files, then go.
void onFirstUse() {
    {
        Vehicle& v = vehicle();
        std::lock_guard<std::mutex> control(v.control);
        if (v.configured || !core::live()) return;
    }
    // An attached process leaves the vehicle to sensor-simd: no rig of its own, no producers.
    if (remote::attachFromEnvironment()) return;
    // A file the user named and that cannot be used is never replaced by another vehicle: the vehicle
    // then has no sensor, the problem is said here and kept for tools (service::vehicleFileProblem()).
    std::string problem;
    if (const char* path = std::getenv("SENSOR_SIM_RIG"); path != nullptr && *path != '\0') {
        const std::string error = loadFile(path);
        if (!error.empty()) problem = "SENSOR_SIM_RIG: " + error;
    }
    if (const char* path = std::getenv("SENSOR_SIM_SCENARIO"); path != nullptr && *path != '\0') {
        const std::string error = loadScenarioFile(path);
        if (!error.empty()) problem += (problem.empty() ? "" : "; ") + ("SENSOR_SIM_SCENARIO: " + error);
    }
    if (!problem.empty()) {
        std::fprintf(stderr, "sensor_sim: %s; the vehicle has no sensor\n", problem.c_str());
        load("[rig]\nbase = \"empty\"\n", "no vehicle");
        clearScenario();
        Vehicle& v = vehicle();
        std::lock_guard<std::mutex> control(v.control);
        v.fileProblem = problem;
    }
    start();
}

void onReset() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    stopLocked(v);
    v.configured = true;
    v.loaded = internal::defaultRig();
    v.loadedScenario.reset();
    v.fileProblem.clear();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.lastCounters.clear();
}

[[maybe_unused]] const bool kHooksRegistered = [] {
    core::onReset(onReset);
    core::onFirstUse(onFirstUse);
    return true;
}();

}  // namespace

namespace internal {
std::string playRecording(const std::string& path, double rate, bool loop, bool othersAbsent) {
    std::string error;
    auto recording = replay::Recording::open(path, &error);
    if (!recording) return error;
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    return applyRecording(v.loaded, recording, rate, loop, othersAbsent);
}
void setSharedMemoryPools(bool on) {
    g_sharedMemoryPools.store(on);
}
bool sharedMemoryPools() {
    return g_sharedMemoryPools.load();
}
std::string environmentProblem() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    return v.fileProblem;
}
std::string unservable(uint64_t maxBufferBytes, uint64_t maxBuffers) {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    uint64_t buffers = 0;
    for (const auto& [id, stream] : v.loaded.streams) {
        for (uint32_t output = 0; output < 2; ++output) {
            const auto& o = stream.outputs[output];
            if (!o) continue;
            const uint64_t bytes =
                bufferBytes(pattern::bufferSpec(o->format, o->width, o->height, o->pitchPadding));
            if (bytes > maxBufferBytes)
                return "stream " + std::to_string(id) + " (" + o->name + "): a buffer of " + std::to_string(bytes) +
                       " bytes exceeds the " + std::to_string(maxBufferBytes >> 20) + " MiB a consumer maps";
            buffers += o->poolSize;
        }
    }
    if (buffers > maxBuffers)
        return "the rig's pools hold " + std::to_string(buffers) + " buffers, more than the " +
               std::to_string(maxBuffers) + " that sensor-simd shares";
    return "";
}
}  // namespace internal

std::string load(const std::string& text, const std::string& source) {
    Rig rig;
    std::string error = internal::parseRig(text, source, "", &rig);
    if (!error.empty()) return error;
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    v.loaded = std::move(rig);
    return "";
}

std::string loadFile(const std::string& path) {
    std::string text, error;
    if (!internal::readFile(path, &text, &error)) return error;
    Rig rig;
    error = internal::parseRig(text, path, directoryOf(path), &rig);
    if (!error.empty()) return error;
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    v.loaded = std::move(rig);
    return "";
}

std::string loadScenario(const std::string& text, const std::string& source) {
    Scenario sc;
    std::string error = internal::parseScenario(text, source, &sc);
    if (!error.empty()) return error;
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    v.loadedScenario = std::move(sc);
    return "";
}

std::string loadScenarioFile(const std::string& path) {
    std::string text, error;
    if (!internal::readFile(path, &text, &error)) return error;
    return loadScenario(text, path);
}

void clearScenario() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    v.loadedScenario.reset();
}

std::string defaultText() {
    return internal::canonicalText(internal::defaultRig());
}

std::string loadedText() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    return internal::canonicalText(v.loaded);
}

void start() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    startLocked(v);
}

void stop() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> control(v.control);
    stopLocked(v);
}

bool running() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> lock(v.mutex);
    return v.running;
}

OutputStats outputStats(uint32_t streamId, uint32_t output) {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> lock(v.mutex);
    OutputStats out;
    auto it = v.streams.find(streamId);
    if (it == v.streams.end()) return out;
    for (const auto& o : it->second->outputs) {
        if (o->output != output) continue;
        out.produced = o->produced;
        out.delivered = o->delivered;
        out.poolDrops = o->poolDrops;
        out.randomDrops = o->randomDrops;
        out.fifoDrops = o->fifoDrops;
        out.lateSkips = it->second->lateSkips;
        out.inUse = o->pool->inUse();
        out.poolSize = o->pool->size();
    }
    return out;
}

size_t producerThreads() {
    Vehicle& v = vehicle();
    std::lock_guard<std::mutex> lock(v.mutex);
    return static_cast<size_t>(
        std::count_if(v.streams.begin(), v.streams.end(), [](const auto& e) { return e.second->alive; }));
}

}  // namespace rig
}  // namespace sensor_sim
