// stream: takes frames from the chosen sensors and shows live counters per sensor, then a summary.
// Cameras go through the legacy facade and radars/lidars through the current one, each client on its
// own thread (calls on one client must not overlap), round-robin over that client's sensors.
#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "command.h"
#include "errors.h"
#include "sensor_consumer/counters.h"
#include "interrupt.h"
#include "names.h"
#include "sessions.h"

#if SENSORCTL_SIMULATOR
#include "sensor_sim/service.h"
#endif

namespace sensorctl {
namespace {

using vexa::cameraipcclient::BufFrameObj;
using vexa::cameraipcclient::FrameBufObj;
using vexa::cameraipcclient::RESULT_FAILED;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;

constexpr auto kRefresh = std::chrono::milliseconds(500);
constexpr auto kTick = std::chrono::milliseconds(20);
// How often a consumer of sensor-simd may ask whether the service is still there.
constexpr auto kProbe = std::chrono::milliseconds(400);
// After a failed get (other than "no frame yet") a sensor waits this long, so that a broken stream does
// not spin the thread.
constexpr auto kErrorBackoff = std::chrono::milliseconds(10);

struct Slot {
    uint32_t id;
    FrameCounters counters;
    bool done = false;
};

struct Snapshot {
    uint32_t id;
    const char* api;
    FrameCounters counters;
};

// One client's loop over its sensors. Counters are written under the worker's mutex so that the display
// thread can copy them at any time; the library calls themselves run without it.
class Worker {
public:
    Worker(const char* api, std::vector<uint32_t> ids, uint64_t targetFrames, Millis hold)
        : m_api(api), m_target(targetFrames), m_hold(hold) {
        for (uint32_t id : ids) m_slots.push_back(Slot{id, {}, false});
    }
    virtual ~Worker() = default;

    // Starts the client (each on its own thread, so that one client's frames do not wait for the other's
    // connection) and then takes frames until stopped or every sensor has the frames asked for.
    void run(const std::atomic<bool>& stop) {
        try {
            begin(stop);
            size_t remaining = m_slots.size();
            while (!stop.load() && remaining > 0) {
                for (Slot& slot : m_slots) {
                    if (stop.load()) break;
                    if (slot.done) continue;
                    step(slot);
                    std::lock_guard<std::mutex> lock(m_mutex);
                    if (m_target != 0 && slot.counters.frames() >= m_target) {
                        slot.done = true;
                        --remaining;
                    }
                }
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_failure = std::current_exception();
        }
        m_finished.store(true);
    }

    void snapshot(std::vector<Snapshot>& out) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Slot& s : m_slots) out.push_back(Snapshot{s.id, m_api, s.counters});
    }
    bool finished() const { return m_finished.load(); }
    std::exception_ptr failure() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_failure;
    }

protected:
    virtual void begin(const std::atomic<bool>& stop) = 0;
    virtual void step(Slot& slot) = 0;

    // Records the outcome of one get (t0 before it, t1 after it, t2 after the release of its frame).
    // `raw`: the frame should have come with its raw frame; `paired`: it did.
    void record(Slot& slot, int32_t result, uint32_t frameCnt, uint64_t t0, uint64_t t1, uint64_t t2,
                bool raw, bool paired, int32_t releaseResult) {
        bool failed = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            FrameCounters& c = slot.counters;
            if (result == 0) {
                c.onFrame(frameCnt, t1, t1 - t0, t2 - t1);
                if (raw) paired ? c.onPaired() : c.onPairFailure();
                if (releaseResult != 0) c.onError(releaseResult);
            } else if (result == RESULT_STREAM_CODE_9) {
                c.onNoFrame();
            } else if (result == RESULT_FAILED && raw) {
                c.onPairFailure();  // the library has already returned the processed frame
            } else {
                c.onError(result);
                failed = true;
            }
        }
        if (failed) std::this_thread::sleep_for(kErrorBackoff);
    }

    void holdFrame() const {
        if (m_hold.count() > 0) std::this_thread::sleep_for(m_hold);
    }

private:
    const char* m_api;
    uint64_t m_target;
    Millis m_hold;
    std::vector<Slot> m_slots;
    std::mutex m_mutex;
    std::exception_ptr m_failure;
    std::atomic<bool> m_finished{false};
};

class CameraWorker : public Worker {
public:
    CameraWorker(CameraSession& session, std::vector<uint32_t> ids, uint64_t target, Millis hold,
                 Millis connect)
        : Worker("legacy", std::move(ids), target, hold), m_session(session), m_connect(connect) {}

protected:
    void begin(const std::atomic<bool>& stop) override { m_session.start(m_connect, &stop); }
    void step(Slot& slot) override {
        BufFrameObj frame{};
        const bool raw = m_session.raw() && sensorEntry(slot.id).hasRaw;
        const uint64_t t0 = steadyUs();
        const int32_t result = m_session.get(slot.id, frame);
        const uint64_t t1 = steadyUs();
        int32_t released = 0;
        if (result == 0) {
            holdFrame();
            released = m_session.release(frame);
        }
        record(slot, result, frame.frameCnt, t0, t1, steadyUs(), raw, frame.rawBufObj != nullptr, released);
    }

private:
    CameraSession& m_session;
    Millis m_connect;
};

class SensorWorker : public Worker {
public:
    SensorWorker(SensorSession& session, std::vector<uint32_t> ids, uint64_t target, Millis hold,
                 Millis connect, bool cpu)
        : Worker("current", std::move(ids), target, hold),
          m_session(session),
          m_connect(connect),
          m_cpu(cpu) {}

protected:
    void begin(const std::atomic<bool>& stop) override { m_session.start(m_connect, &stop); }
    void step(Slot& slot) override {
        FrameBufObj frame{};
        const uint64_t t0 = steadyUs();
        const int32_t result = m_session.get(slot.id, frame, m_cpu);
        const uint64_t t1 = steadyUs();
        int32_t released = 0;
        if (result == 0) {
            holdFrame();
            released = m_session.release(frame);
        }
        record(slot, result, frame.frameCnt, t0, t1, steadyUs(), false, false, released);
    }

private:
    SensorSession& m_session;
    Millis m_connect;
    bool m_cpu;
};

// The workers' threads; leaving the scope (normally or by an exception) stops and joins them.
class Threads {
public:
    explicit Threads(std::vector<std::unique_ptr<Worker>>& workers) {
        for (auto& w : workers) m_threads.emplace_back([&w, this] { w->run(m_stop); });
    }
    ~Threads() {
        m_stop.store(true);
        for (auto& t : m_threads) t.join();
    }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

std::string errorsText(const FrameCounters& c) {
    std::string out;
    for (const auto& [code, n] : c.errors()) {
        out += fmt::format("{}{}x{}", out.empty() ? "" : " ", n, vexa::cameraipcclient::resultCodeName(code));
    }
    return out;
}

std::string pairingText(const Snapshot& s) {
    const uint64_t tries = s.counters.paired() + s.counters.pairFailures();
    if (tries == 0) return "-";
    return fmt::format("{}/{}", s.counters.paired(), tries);
}

class StreamCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "stream",
            "Take frames and show live counters per sensor (frames, rate, gaps, pairing, latency); "
            "Ctrl-C ends the run with the summary");
        cmd->add_option("--api", m_api,
                        "legacy: cameras 0-11; current: radars and lidars; both: each through its own API")
            ->check(CLI::IsMember({"legacy", "current", "both"}))
            ->default_str("both");
        addSensorListOption(*cmd, m_sensors, m_sensorsGiven);
        addSwitch(*cmd, "raw", m_raw, "Pair the raw frames of cameras 2 and 3 (the default)",
                  "Take cameras 2 and 3 without their raw frames");
        addSwitch(*cmd, "cpu", m_cpu, "Copy radar and lidar frames into CPU memory",
                  "Do not copy them (the default)");
        auto* frames = addNumberOption(*cmd, "-n,--frames", m_frames, 100000000,
                                       "Stop after N frames of every sensor", 1);
        auto* duration =
            addSecondsOption(*cmd, "-d,--duration", m_duration, 31536000.0, "Stop after SECONDS");
        frames->excludes(duration);
        addSecondsOption(*cmd, "--timeout", m_timeout, 31536000.0,
                         "With --frames: give up after SECONDS (exit 4); default 60");
        addNumberOption(*cmd, "--hold-ms", m_holdMs, 10000, "Hold each frame this long before releasing it");
        addNumberOption(*cmd, "--frame-timeout", m_frameTimeoutMs, 10000,
                        "Frame time-out of the current API's streams in ms (default 5): the wait of one get",
                        1);
        addSecondsOption(*cmd, "--connect-timeout", m_connectTimeout, 3600.0,
                         "Give up connecting after SECONDS (default 10)");
        addAppOption(*cmd, "--camera-app", m_cameraApp, "legacy (camera) client");
        addAppOption(*cmd, "--sensor-app", m_sensorApp, "current (radar/lidar) client");
        cmd->add_flag("--json", m_json,
                      "Print the summary as JSON (live counters go to a terminal's stderr only)");
        return cmd;
    }

    int run(Output& io) override {
        const bool useLegacy = m_api != "current";
        const bool useCurrent = m_api != "legacy";
        Selection selection = selectSensors(m_sensors, m_sensorsGiven, useLegacy, useCurrent, m_sensorApp);
        std::vector<uint32_t>& cameras = selection.cameras;
        std::vector<uint32_t>& others = selection.others;

        std::vector<uint32_t> absent;
        std::unique_ptr<CameraSession> cameraSession;
        std::unique_ptr<SensorSession> sensorSession;
        if (!cameras.empty()) {
            cameraSession = std::make_unique<CameraSession>(m_cameraApp);
            cameras = keepPresent(cameras, cameraSession->init(cameras, m_raw), absent);
        }
        if (!others.empty()) {
            sensorSession = std::make_unique<SensorSession>(m_sensorApp);
            others = keepPresent(others, sensorSession->init(others, m_frameTimeoutMs), absent);
        }
        for (uint32_t id : absent)
            io.err.print("sensorctl: sensor {} ({}) is not present; skipped\n", id, sensorEntry(id).name);
        if (cameras.empty() && others.empty()) throw UsageError("none of the chosen sensors is present");
        // Initialisations run one after the other on this thread (the first ones of a process set up the
        // library's logger); starts and frames then run on the workers' threads.
        const Millis connect(static_cast<int64_t>(m_connectTimeout * 1000));
        const Millis hold(m_holdMs);
        std::vector<std::unique_ptr<Worker>> workers;
        if (!cameras.empty()) {
            workers.push_back(
                std::make_unique<CameraWorker>(*cameraSession, cameras, m_frames, hold, connect));
        }
        if (!others.empty()) {
            workers.push_back(
                std::make_unique<SensorWorker>(*sensorSession, others, m_frames, hold, connect, m_cpu));
        }

        const uint64_t startUs = steadyUs();
        End end = End::Complete;
        {
            Threads threads(workers);
            end = watch(io, workers, startUs);
        }
        const double seconds = double(steadyUs() - startUs) / 1e6;
        // A client that failed (to connect, say) ends only its own sensors; the others ran on, so the
        // summary comes first and the failure decides the exit status after it.
        std::exception_ptr failure;
        std::vector<std::string> failures;
        for (auto& w : workers) {
            if (auto f = w->failure()) {
                try {
                    std::rethrow_exception(f);
                } catch (const InterruptedError&) {
                    throw;
                } catch (const std::exception& e) {
                    failures.push_back(e.what());
                }
                if (!failure) failure = f;
            }
        }

        std::vector<Snapshot> all;
        for (auto& w : workers) w->snapshot(all);
        std::sort(all.begin(), all.end(), [](const Snapshot& a, const Snapshot& b) { return a.id < b.id; });
        if (m_json) {
            printJson(io, all, absent, failures, seconds, end);
        } else {
            printSummary(io, all, seconds, end);
        }
        if (end == End::ServiceLost) throw UnavailableError(m_serviceLost);
        if (failure) std::rethrow_exception(failure);
        if (end == End::TimedOut) {
            throw TimeoutError(
                fmt::format("not every sensor gave {} frames within {} s", m_frames, m_timeout));
        }
        return kExitOk;
    }

private:
    enum class End { Complete, Duration, Interrupted, TimedOut, ServiceLost };

    // A consumer of sensor-simd whose gets all fail, or that sees no frame for a while, asks whether the
    // service still answers: one that went away ends the run (within a second or two) rather than count
    // errors until its duration. Sets m_serviceLost and returns true when it is gone.
    static bool probeDue(std::chrono::steady_clock::time_point& next) {
        const auto now = std::chrono::steady_clock::now();
        if (now < next) return false;
        next = now + kProbe;
        return true;
    }
    bool serviceGone(std::vector<std::unique_ptr<Worker>>& workers) {
#if SENSORCTL_SIMULATOR
        if (m_socket.empty()) return false;
        std::vector<Snapshot> now;
        for (auto& w : workers) w->snapshot(now);
        uint64_t frames = 0, errors = 0;
        for (const Snapshot& s : now) {
            frames += s.counters.frames();
            for (const auto& entry : s.counters.errors()) errors += entry.second;
        }
        const bool suspicious = errors != m_probeErrors || frames == m_probeFrames;
        m_probeErrors = errors;
        m_probeFrames = frames;
        if (!suspicious) return false;
        sensor_sim::service::State state;
        const std::string error = sensor_sim::service::queryState(m_socket, &state);
        if (error.empty()) return false;
        m_serviceLost = "the service went away: " + serviceProblem(m_socket, error);
        return true;
#else
        (void)workers;
        return false;
#endif
    }

    // Refreshes the live lines until the run ends; returns why it ended.
    End watch(Output& io, std::vector<std::unique_ptr<Worker>>& workers, uint64_t startUs) {
        Sink* live = !m_json ? &io.out : (io.err.isTerminal() ? &io.err : nullptr);
        const bool terminal = live != nullptr && live->isTerminal();
        const double limitS = m_duration > 0 ? m_duration : (m_frames > 0 ? m_timeout : 0.0);
        auto nextRefresh = std::chrono::steady_clock::now() + kRefresh;
        auto nextProbe = std::chrono::steady_clock::now() + kProbe;
#if SENSORCTL_SIMULATOR
        m_socket = sensor_sim::service::servingSocket();
#endif
        size_t drawn = 0;
        std::vector<Snapshot> previous;
        uint64_t previousUs = startUs;
        End end = End::Complete;
        while (true) {
            std::this_thread::sleep_for(kTick);
            const double elapsed = double(steadyUs() - startUs) / 1e6;
            const bool allFinished =
                std::all_of(workers.begin(), workers.end(), [](auto& w) { return w->finished(); });
            if (interrupted()) {
                end = End::Interrupted;
            } else if (allFinished) {
                end = End::Complete;
            } else if (limitS > 0 && elapsed >= limitS) {
                end = m_duration > 0 ? End::Duration : End::TimedOut;
            } else if (probeDue(nextProbe) && serviceGone(workers)) {
                end = End::ServiceLost;
            } else if (std::chrono::steady_clock::now() < nextRefresh) {
                continue;
            } else {
                nextRefresh += kRefresh;
                if (live != nullptr)
                    drawn = draw(*live, terminal, workers, previous, previousUs, elapsed, limitS, drawn);
                continue;
            }
            return end;
        }
    }

    size_t draw(Sink& live, bool terminal, std::vector<std::unique_ptr<Worker>>& workers,
                std::vector<Snapshot>& previous, uint64_t& previousUs, double elapsed, double limitS,
                size_t drawn) {
        std::vector<Snapshot> now;
        for (auto& w : workers) w->snapshot(now);
        std::sort(now.begin(), now.end(), [](const Snapshot& a, const Snapshot& b) { return a.id < b.id; });
        const uint64_t nowUs = steadyUs();
        const double interval = double(nowUs - previousUs) / 1e6;
        std::string text;
        if (terminal && drawn > 0) text += fmt::format("\x1b[{}A", drawn);
        size_t lines = 0;
        auto line = [&](const std::string& s) {
            text += terminal ? "\r\x1b[2K" + s + "\n" : s + "\n";
            ++lines;
        };
        uint64_t least = UINT64_MAX;
        for (size_t i = 0; i < now.size(); ++i) {
            const Snapshot& s = now[i];
            const uint64_t before = i < previous.size() ? previous[i].counters.frames() : 0;
            const double rate = interval > 0 ? double(s.counters.frames() - before) / interval : 0.0;
            least = std::min(least, s.counters.frames());
            line(fmt::format(
                "{}{:>2} {:<15} frames {:>7}  {:6.1f} fps  gaps {:>5}  paired {:>11}  get {:>7.0f} us  "
                "hold {:>6.0f} us{}{}",
                terminal ? "" : fmt::format("[{:7.1f}s] ", elapsed), s.id, sensorEntry(s.id).name,
                s.counters.frames(), rate, s.counters.gaps(), pairingText(s), s.counters.meanGetUs(),
                s.counters.meanHoldUs(), s.counters.errors().empty() ? "" : "  errors ",
                errorsText(s.counters)));
        }
        if (terminal) {
            double fraction = -1.0;
            if (m_duration > 0) fraction = elapsed / limitS;
            if (m_frames > 0) fraction = double(least) / double(m_frames);
            if (fraction >= 0) {
                const int width = 40;
                const int filled = std::clamp(static_cast<int>(fraction * width), 0, width);
                line(fmt::format("[{}{}] {:3.0f}%  {:.1f} s", std::string(filled, '#'),
                                 std::string(width - filled, '.'), std::min(fraction, 1.0) * 100.0, elapsed));
            } else {
                line(fmt::format("{:.1f} s (Ctrl-C ends the run)", elapsed));
            }
        }
        live.write(text);
        previous = std::move(now);
        previousUs = nowUs;
        return lines;
    }

    void printSummary(Output& io, const std::vector<Snapshot>& all, double seconds, End end) {
        static const std::map<End, const char*> kEnds = {{End::Complete, "every sensor has its frames"},
                                                         {End::Duration, "duration reached"},
                                                         {End::Interrupted, "interrupted"},
                                                         {End::TimedOut, "timed out"},
                                                         {End::ServiceLost, "the service went away"}};
        std::string text = fmt::format("\nstreamed {:.1f} s, {}\n", seconds, kEnds.at(end));
        text += fmt::format("{:>2} {:<15} {:<7} {:>8} {:>7} {:>6} {:>11} {:>9} {:>9}  {}\n", "ID", "NAME",
                            "API", "FRAMES", "FPS", "GAPS", "PAIRED", "GET_US", "HOLD_US", "ERRORS");
        for (const Snapshot& s : all) {
            text += fmt::format("{:>2} {:<15} {:<7} {:>8} {:>7.2f} {:>6} {:>11} {:>9.0f} {:>9.0f}  {}\n",
                                s.id, sensorEntry(s.id).name, s.api, s.counters.frames(), s.counters.fps(),
                                s.counters.gaps(), pairingText(s), s.counters.meanGetUs(),
                                s.counters.meanHoldUs(),
                                s.counters.errors().empty() ? "-" : errorsText(s.counters));
        }
        io.out.write(text);
    }

    void printJson(Output& io, const std::vector<Snapshot>& all, const std::vector<uint32_t>& absent,
                   const std::vector<std::string>& failures, double seconds, End end) {
        nlohmann::ordered_json sensors = nlohmann::ordered_json::array();
        for (const Snapshot& s : all) {
            nlohmann::ordered_json errors = nlohmann::ordered_json::object();
            for (const auto& [code, n] : s.counters.errors())
                errors[vexa::cameraipcclient::resultCodeName(code)] = n;
            sensors.push_back({{"id", s.id},
                               {"name", sensorEntry(s.id).name},
                               {"api", s.api},
                               {"frames", s.counters.frames()},
                               {"fps", s.counters.fps()},
                               {"gaps", s.counters.gaps()},
                               {"outOfOrder", s.counters.outOfOrder()},
                               {"noFrame", s.counters.noFrame()},
                               {"paired", s.counters.paired()},
                               {"pairFailures", s.counters.pairFailures()},
                               {"getLatencyUs", s.counters.meanGetUs()},
                               {"holdUs", s.counters.meanHoldUs()},
                               {"errors", errors}});
        }
        nlohmann::ordered_json doc = {{"api", m_api},         {"raw", m_raw},        {"cpu", m_cpu},
                                      {"seconds", seconds},   {"end", endText(end)}, {"notPresent", absent},
                                      {"failures", failures}, {"sensors", sensors}};
        io.out.write(doc.dump(2) + "\n");
    }

    static const char* endText(End end) {
        switch (end) {
            case End::Complete:
                return "complete";
            case End::Duration:
                return "duration";
            case End::Interrupted:
                return "interrupted";
            case End::TimedOut:
                return "timed out";
            case End::ServiceLost:
                return "service lost";
        }
        return "";
    }

    std::string m_api = "both";
    std::vector<uint32_t> m_sensors;
    bool m_sensorsGiven = false;
    bool m_raw = true;
    bool m_cpu = false;
    uint64_t m_frames = 0;
    double m_duration = 0;
    double m_timeout = 60;
    uint32_t m_holdMs = 0;
    uint32_t m_frameTimeoutMs = 5;
    double m_connectTimeout = 10;
    uint32_t m_cameraApp = vexa::cameraipcclient::APP_CAMERA_DEMO;
    uint32_t m_sensorApp = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
    std::string m_socket;  // the serving sensor-simd's, "" for the in-process vehicle
    uint64_t m_probeErrors = 0;
    uint64_t m_probeFrames = 0;
    std::string m_serviceLost;
};

}  // namespace

std::unique_ptr<Command> makeStreamCommand() {
    return std::make_unique<StreamCommand>();
}

}  // namespace sensorctl
