// record: every frame of the chosen sensors into an MCAP file. One consumer thread per facade takes the
// frames (cameras through the legacy facade with their raw frames paired, radars and lidars through the
// current one), copies each plane out of its buffer, returns the frame and hands the copy to the
// recorder's writer thread.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "command.h"
#include "errors.h"
#include "interrupt.h"
#include "names.h"
#include "recorder.h"
#include "sensor_consumer/counters.h"
#include "sensor_consumer/geometry.h"
#include "sessions.h"

#if SENSORCTL_SIMULATOR
#include "sensor_sim/service.h"
#endif

namespace sensorctl {
namespace {

using sensor_consumer::FrameCounters;
using sensor_consumer::PixelFormat;
using sensor_recording::ImageFormat;
using vexa::cameraipcclient::BufFrameObj;
using vexa::cameraipcclient::FrameBufObj;
using vexa::cameraipcclient::RESULT_FAILED;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;

constexpr auto kTick = std::chrono::milliseconds(20);
constexpr auto kErrorBackoff = std::chrono::milliseconds(10);

ImageFormat imageFormat(PixelFormat f) {
    switch (f) {
        case PixelFormat::Nv12:
            return ImageFormat::Nv12;
        case PixelFormat::Nv21:
            return ImageFormat::Nv21;
        case PixelFormat::Rggb16:
            return ImageFormat::Rggb16;
        case PixelFormat::Gray8:
            return ImageFormat::Mono8;
        case PixelFormat::Gray16:
            return ImageFormat::Mono16;
    }
    return ImageFormat::Mono8;
}

uint64_t wallNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count());
}

// What one sensor's frames came to.
struct SensorTally {
    uint32_t id = 0;
    uint16_t channel = 0;
    uint16_t rawChannel = 0;
    bool raw = false;
    FrameCounters counters;  // frames taken, and gaps by counter before they reached us
    uint64_t recorded = 0;   // frames handed to the writer
    uint64_t lost = 0;       // frames the writer's queue had no room for
    uint64_t unreadable = 0; // frames whose buffer could not be described
    std::string lastProblem;
};

// Copies a frame's planes (each at its pitch, as they lie in the buffer) into a message's record, after
// the image message's head.
bool copyFrame(sensor_consumer::LayoutCache& cache, NvSciBufObj image, const std::string& sensorName,
               uint64_t stampNs, sensor_recording::OwnedMessage& out, std::string& error) {
    auto mapped = cache.find(image, error);
    if (!mapped) return false;
    const sensor_consumer::FrameLayout& l = mapped->layout;
    std::vector<uint32_t> pitches;
    for (uint32_t p = 0; p < l.planeCount; ++p) pitches.push_back(l.planes[p].pitch);
    auto geometry = sensor_recording::makeGeometry(imageFormat(l.format), l.width, l.height, pitches);
    if (!geometry) {
        error = fmt::format("a {}x{} {} frame has a layout a recording cannot describe", l.width, l.height,
                            sensor_consumer::pixelFormatName(l.format));
        return false;
    }
    sensor_recording::ImageHeader header;
    header.stampNs = stampNs;
    header.frameId = sensorName;
    header.geometry = *geometry;
    const std::vector<uint8_t> head = sensor_recording::encodeImageHead(header);
    constexpr size_t kHeadroom = sensor_recording::OwnedMessage::kMessageHeadroom;
    out.record.resize(kHeadroom + head.size() + geometry->dataBytes());
    std::memcpy(out.record.data() + kHeadroom, head.data(), head.size());
    uint8_t* dst = out.record.data() + kHeadroom + head.size();
    for (uint32_t p = 0; p < l.planeCount; ++p) {
        const sensor_consumer::PlaneLayout& plane = l.planes[p];
        // The last line's padding may lie past the buffer's end: only its visible bytes are read.
        const uint64_t inBuffer = uint64_t(plane.pitch) * (plane.lines - 1) + plane.lineBytes;
        std::memcpy(dst, mapped->base + plane.offset, inBuffer);
        std::memset(dst + inBuffer, 0, plane.pitch - plane.lineBytes);
        dst += uint64_t(plane.pitch) * plane.lines;
    }
    return true;
}

// One facade's consumer loop over its sensors.
class Consumer {
public:
    Consumer(Recorder& recorder, std::vector<SensorTally*> sensors, uint64_t targetFrames)
        : m_recorder(recorder), m_sensors(std::move(sensors)), m_target(targetFrames) {}
    virtual ~Consumer() = default;

    void run(const std::atomic<bool>& stop) {
        try {
            begin(stop);
            size_t remaining = m_sensors.size();
            while (!stop.load() && remaining > 0) {
                for (SensorTally* s : m_sensors) {
                    if (stop.load()) break;
                    if (m_target != 0 && s->recorded + s->lost >= m_target) continue;
                    step(*s);
                    std::lock_guard<std::mutex> lock(m_mutex);
                    if (m_target != 0 && s->recorded + s->lost >= m_target) --remaining;
                }
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_failure = std::current_exception();
        }
        m_finished.store(true);
    }
    bool finished() const { return m_finished.load(); }
    std::exception_ptr failure() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_failure;
    }
    // Frames handed on so far, read by the watching thread.
    uint64_t least() {
        std::lock_guard<std::mutex> lock(m_mutex);
        uint64_t n = UINT64_MAX;
        for (SensorTally* s : m_sensors) n = std::min(n, s->recorded + s->lost);
        return n;
    }

protected:
    virtual void begin(const std::atomic<bool>& stop) = 0;
    virtual void step(SensorTally& s) = 0;

    // Hands a taken frame (and its raw frame) on; called before the frame is released.
    void take(SensorTally& s, uint32_t counter, uint64_t exposureUs, NvSciBufObj image, NvSciBufObj raw) {
        const uint64_t now = wallNs();
        const uint64_t steadyNow = steadyUs();
        // The exposure's time on the wall clock: the stream gives it on the steady clock.
        const uint64_t stamp =
            exposureUs != 0 && exposureUs <= steadyNow ? now - (steadyNow - exposureUs) * 1000u : now;
        std::vector<sensor_recording::OwnedMessage> messages;
        std::string error;
        const std::string name = sensorEntry(s.id).name;
        for (int i = 0; i < (raw != nullptr ? 2 : 1); ++i) {
            sensor_recording::OwnedMessage m;
            m.channel = i == 0 ? s.channel : s.rawChannel;
            m.sequence = counter;
            m.logTimeNs = now;
            m.publishTimeNs = stamp;
            m.record = m_recorder.takeBuffer();
            if (!copyFrame(m_cache, i == 0 ? image : raw, name, stamp, m, error)) break;
            messages.push_back(std::move(m));
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        s.counters.onFrame(counter, steadyNow);
        if (!error.empty()) {
            ++s.unreadable;
            s.lastProblem = error;
        } else if (m_recorder.offer(messages)) {
            ++s.recorded;
        } else {
            ++s.lost;
        }
    }
    void noFrame(SensorTally& s, int32_t result, bool raw) {
        bool failed = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (result == RESULT_STREAM_CODE_9) {
                s.counters.onNoFrame();
            } else if (result == RESULT_FAILED && raw) {
                s.counters.onPairFailure();
            } else {
                s.counters.onError(result);
                failed = true;
            }
        }
        if (failed) std::this_thread::sleep_for(kErrorBackoff);
    }

    Recorder& m_recorder;
    std::vector<SensorTally*> m_sensors;
    uint64_t m_target;
    sensor_consumer::LayoutCache m_cache;
    std::mutex m_mutex;

private:
    std::exception_ptr m_failure;
    std::atomic<bool> m_finished{false};
};

class CameraConsumer : public Consumer {
public:
    CameraConsumer(Recorder& r, std::vector<SensorTally*> s, uint64_t target, CameraSession& session,
                   Millis connect)
        : Consumer(r, std::move(s), target), m_session(session), m_connect(connect) {}

protected:
    void begin(const std::atomic<bool>& stop) override { m_session.start(m_connect, &stop); }
    void step(SensorTally& s) override {
        BufFrameObj frame{};
        const int32_t result = m_session.get(s.id, frame);
        if (result != 0) return noFrame(s, result, s.raw);
        take(s, frame.frameCnt, frame.infoA, frame.bufObj, s.raw ? frame.rawBufObj : nullptr);
        const int32_t released = m_session.release(frame);
        if (released != 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            s.counters.onError(released);
        }
    }

private:
    CameraSession& m_session;
    Millis m_connect;
};

class SensorConsumer : public Consumer {
public:
    SensorConsumer(Recorder& r, std::vector<SensorTally*> s, uint64_t target, SensorSession& session,
                   Millis connect)
        : Consumer(r, std::move(s), target), m_session(session), m_connect(connect) {}

protected:
    void begin(const std::atomic<bool>& stop) override { m_session.start(m_connect, &stop); }
    void step(SensorTally& s) override {
        FrameBufObj frame{};
        const int32_t result = m_session.get(s.id, frame, false);
        if (result != 0) return noFrame(s, result, false);
        take(s, frame.frameCnt, frame.infoA, frame.bufObj, nullptr);
        const int32_t released = m_session.release(frame);
        if (released != 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            s.counters.onError(released);
        }
    }

private:
    SensorSession& m_session;
    Millis m_connect;
};

std::string hexBytes(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += fmt::format("{:02x}", p[i]);
    return s;
}

class RecordCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "record",
            "Record every frame of the chosen sensors into an MCAP file (one channel per stream, the raw "
            "frames of cameras 2 and 3 on channels of their own); Ctrl-C ends the recording with a complete file");
        cmd->add_option("-o,--output", m_output, "The MCAP file to write (replaced when it exists)")->required();
        addSensorListOption(*cmd, m_sensors, m_sensorsGiven);
        auto* frames = addNumberOption(*cmd, "-n,--frames", m_frames, 100000000,
                                       "Stop after N frames of every sensor", 1);
        auto* duration = addSecondsOption(*cmd, "-d,--duration", m_duration, 31536000.0, "Stop after SECONDS");
        frames->excludes(duration);
        cmd->add_option("--compression", m_compression, "Chunk compression: zstd (the default), lz4 or none")
            ->check(CLI::IsMember({"zstd", "lz4", "none"}));
        addNumberOption(*cmd, "--queue-mb", m_queueMb, 65536,
                        "Frames waiting for the writer may take this many MiB (default 512); frames beyond "
                        "it are lost and counted",
                        1);
        addNumberOption(*cmd, "--chunk-kb", m_chunkKb, 1048576, "Chunk size in KiB (default 4096)", 1);
        addNumberOption(*cmd, "--threads", m_threads, 64,
                        "Threads that check and compress chunks (default: one per processor, at most 4)", 1);
        addSecondsOption(*cmd, "--timeout", m_timeout, 31536000.0,
                         "With --frames: give up after SECONDS (exit 4); default 60");
        addSecondsOption(*cmd, "--connect-timeout", m_connectTimeout, 3600.0,
                         "Give up connecting after SECONDS (default 10)");
        addAppOption(*cmd, "--camera-app", m_cameraApp, "legacy (camera) client");
        addAppOption(*cmd, "--sensor-app", m_sensorApp, "current (radar/lidar) client");
        cmd->add_flag("--json", m_json, "Print the summary as JSON");
        return cmd;
    }

    int run(Output& io) override {
        Selection selection = selectSensors(m_sensors, m_sensorsGiven, true, true, m_sensorApp);
        std::vector<uint32_t> absent;
        std::unique_ptr<CameraSession> cameraSession;
        std::unique_ptr<SensorSession> sensorSession;
        if (!selection.cameras.empty()) {
            cameraSession = std::make_unique<CameraSession>(m_cameraApp);
            selection.cameras = keepPresent(selection.cameras, cameraSession->init(selection.cameras, true), absent);
        }
        if (!selection.others.empty()) {
            sensorSession = std::make_unique<SensorSession>(m_sensorApp);
            selection.others = keepPresent(selection.others, sensorSession->init(selection.others, 5), absent);
        }
        for (uint32_t id : absent)
            io.err.print("sensorctl: sensor {} ({}) is not present; skipped\n", id, sensorEntry(id).name);
        if (selection.cameras.empty() && selection.others.empty())
            throw UsageError("none of the chosen sensors is present");

        Recorder recorder(uint64_t(m_queueMb) << 20);
        sensor_recording::WriterOptions options;
        options.compression = *sensor_recording::parseCompression(m_compression);
        options.chunkBytes = uint64_t(m_chunkKb) << 10;
        options.workers = m_threads;
        options.library = std::string("sensorctl ") + SENSORCTL_VERSION;
        auto& writer = recorder.writer();
        if (!writer.open(m_output, options)) throw IoError(writer.error());

        // Channels: one per stream, in sensor order.
        std::vector<uint32_t> ids = selection.cameras;
        ids.insert(ids.end(), selection.others.begin(), selection.others.end());
        std::sort(ids.begin(), ids.end());
        const uint16_t schema = writer.addSchema(sensor_recording::kImageSchemaName,
                                                 sensor_recording::kImageSchemaEncoding,
                                                 sensor_recording::imageSchemaText());
        std::vector<std::unique_ptr<SensorTally>> tallies;
        for (uint32_t id : ids) {
            auto t = std::make_unique<SensorTally>();
            const SensorEntry& e = sensorEntry(id);
            t->id = id;
            t->raw = e.hasRaw;
            auto channel = [&](const char* stream) {
                return writer.addChannel(schema, fmt::format("/{}/{}", e.name, stream),
                                         sensor_recording::kImageMessageEncoding,
                                         {{"sensor_id", std::to_string(id)},
                                          {"sensor", e.name},
                                          {"kind", kindName(e.kind)},
                                          {"stream", stream},
                                          {"counter", "message sequence"}});
            };
            t->channel = channel("image");
            if (t->raw) t->rawChannel = channel("raw");
            tallies.push_back(std::move(t));
        }
        addMetadata(writer, ids);
        if (writer.failed()) throw IoError(writer.error());

        std::vector<SensorTally*> cameraTallies, otherTallies;
        for (auto& t : tallies) (servedByLegacy(t->id) ? cameraTallies : otherTallies).push_back(t.get());
        const Millis connect(static_cast<int64_t>(m_connectTimeout * 1000));
        std::vector<std::unique_ptr<Consumer>> consumers;
        if (!cameraTallies.empty())
            consumers.push_back(
                std::make_unique<CameraConsumer>(recorder, cameraTallies, m_frames, *cameraSession, connect));
        if (!otherTallies.empty())
            consumers.push_back(
                std::make_unique<SensorConsumer>(recorder, otherTallies, m_frames, *sensorSession, connect));

        recorder.start();
        const uint64_t startUs = steadyUs();
        std::string end = "complete";
        {
            std::atomic<bool> stop{false};
            std::vector<std::thread> threads;
            threads.reserve(consumers.size());
            for (auto& c : consumers) threads.emplace_back([&c, &stop] { c->run(stop); });
            end = watch(consumers, recorder, startUs);
            stop.store(true);
            for (auto& t : threads) t.join();
        }
        // The sessions return every frame before the file is ended.
        cameraSession.reset();
        sensorSession.reset();
        const double seconds = double(steadyUs() - startUs) / 1e6;
        const bool written = recorder.finish();
        std::exception_ptr failure;
        for (auto& c : consumers)
            if (auto f = c->failure(); f && !failure) failure = f;

        report(io, tallies, recorder, seconds, end);
        if (!written) throw IoError(fmt::format("the recording stopped: {}", recorder.error()));
        if (failure) std::rethrow_exception(failure);
        if (end == "timed out")
            throw TimeoutError(fmt::format("not every sensor gave {} frames within {} s", m_frames, m_timeout));
        return kExitOk;
    }

private:
    std::string watch(std::vector<std::unique_ptr<Consumer>>& consumers, Recorder& recorder, uint64_t startUs) {
        const double limitS = m_duration > 0 ? m_duration : (m_frames > 0 ? m_timeout : 0.0);
        while (true) {
            std::this_thread::sleep_for(kTick);
            const double elapsed = double(steadyUs() - startUs) / 1e6;
            if (recorder.failed()) return "write failed";
            if (interrupted()) return "interrupted";
            if (std::all_of(consumers.begin(), consumers.end(), [](auto& c) { return c->finished(); }))
                return "complete";
            if (limitS > 0 && elapsed >= limitS) return m_duration > 0 ? "duration reached" : "timed out";
        }
    }

    void addMetadata(sensor_recording::McapWriter& writer, const std::vector<uint32_t>& ids) {
        sensor_recording::StringMap tool = {{"tool", "sensorctl"},
                                            {"version", SENSORCTL_VERSION},
                                            {"compression", m_compression},
                                            {"sensors", formatSensorList(ids)},
                                            {"camera_app", appLabel(m_cameraApp)},
                                            {"sensor_app", appLabel(m_sensorApp)},
                                            {"counter", "each message's sequence is the frame counter"}};
        writer.addMetadata("recorder", tool);
        sensor_recording::StringMap rig;
#if SENSORCTL_SIMULATOR
        rig["vehicle"] = sensor_sim::service::vehicleDescription();
        if (const char* file = std::getenv("SENSOR_SIM_RIG")) rig["rig_file"] = file;
        if (const char* file = std::getenv("SENSOR_SIM_SCENARIO")) rig["scenario_file"] = file;
#else
        rig["vehicle"] = "the vehicle's camera-access service";
#endif
        writer.addMetadata("rig", rig);
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_sensorApp));
        std::vector<vexa::cameraipcclient::SensorInfo> infos;
        std::vector<vexa::cameraipcclient::SensorTypeInfo> types;
        const bool haveInfo = client.getSensorInfo(infos) == 0;
        const bool haveTypes = client.getAllSensorTypeInfo(types) == 0;
        sensor_recording::StringMap sensors;
        for (uint32_t id : ids) {
            const std::string key = fmt::format("{}.", sensorEntry(id).name);
            sensors[key + "id"] = std::to_string(id);
            sensors[key + "kind"] = kindName(sensorEntry(id).kind);
            if (haveTypes && id < types.size()) sensors[key + "type_code"] = std::to_string(types[id].typeCode);
            if (haveInfo && id < infos.size()) {
                const auto& info = infos[id];
                sensors[key + "info"] = hexBytes(info.sensorAttr, 6);
                sensors[key + "version0"] = hexBytes(info.verData0.data(), info.verData0.size());
                sensors[key + "version1"] = hexBytes(info.verData1.data(), info.verData1.size());
            }
        }
        writer.addMetadata("sensors", sensors);
    }

    void report(Output& io, const std::vector<std::unique_ptr<SensorTally>>& tallies, Recorder& recorder,
                double seconds, const std::string& end) {
        if (m_json) {
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const auto& t : tallies) {
                list.push_back({{"id", t->id},
                                {"name", sensorEntry(t->id).name},
                                {"recorded", t->recorded},
                                {"lost", t->lost},
                                {"unreadable", t->unreadable},
                                {"gaps", t->counters.gaps()},
                                {"pairFailures", t->counters.pairFailures()},
                                {"noFrame", t->counters.noFrame()}});
            }
            nlohmann::ordered_json doc = {{"file", m_output},
                                          {"seconds", seconds},
                                          {"end", end},
                                          {"bytes", recorder.bytesWritten()},
                                          {"messages", recorder.messagesWritten()},
                                          {"error", recorder.error()},
                                          {"sensors", list}};
            io.out.write(doc.dump(2) + "\n");
            return;
        }
        std::string text = fmt::format("\nrecorded {:.1f} s into {} ({}), {} messages, {:.1f} MiB\n", seconds,
                                       m_output, end, recorder.messagesWritten(),
                                       double(recorder.bytesWritten()) / (1 << 20));
        text += fmt::format("{:>2} {:<15} {:>9} {:>7} {:>6} {:>10}  {}\n", "ID", "NAME", "RECORDED", "LOST",
                            "GAPS", "PAIR_FAIL", "PROBLEM");
        for (const auto& t : tallies) {
            text += fmt::format("{:>2} {:<15} {:>9} {:>7} {:>6} {:>10}  {}\n", t->id, sensorEntry(t->id).name,
                                t->recorded, t->lost, t->counters.gaps(), t->counters.pairFailures(),
                                t->lastProblem.empty() ? "-" : t->lastProblem);
        }
        uint64_t lost = 0;
        for (const auto& t : tallies) lost += t->lost;
        if (lost > 0 && end == "write failed") {
            text += fmt::format("{} frames were not recorded once writing had failed (see LOST)\n", lost);
        } else if (lost > 0) {
            text += fmt::format("{} frames were lost: the writer could not keep up (see LOST)\n", lost);
        }
        io.out.write(text);
    }

    std::string m_output;
    std::vector<uint32_t> m_sensors;
    bool m_sensorsGiven = false;
    uint64_t m_frames = 0;
    double m_duration = 0;
    double m_timeout = 60;
    double m_connectTimeout = 10;
    std::string m_compression = "zstd";
    uint32_t m_queueMb = 512;
    uint32_t m_chunkKb = 4096;
    uint32_t m_threads = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
    uint32_t m_cameraApp = vexa::cameraipcclient::APP_CAMERA_DEMO;
    uint32_t m_sensorApp = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeRecordCommand() {
    return std::make_unique<RecordCommand>();
}

}  // namespace sensorctl
