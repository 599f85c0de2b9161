// What sensoripcsrc adds to a frame: `sensoripcsrc ! fakesink` in zero-copy mode (and with every frame
// copied) against the library's bare get + release loop on the same scripted 1080p NV12 frames, the
// baseline. Each iteration is a batch of frames queued with the timer stopped; times are the process's
// CPU time (the pipeline runs on its own streaming thread), reported per frame with frames per second.
// Frames queued in memory make the bare loop almost free (a tenth of a microsecond), so that comparison
// shows the element's own cost per buffer; BM_LiveStream compares the two where frames really come from:
// a sensor-simd serving 1080p NV12 at 200 frames/s to a consumer process that runs the bare loop or the
// pipeline in turns, frames per second and the consumer's CPU per frame of each.
#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "ratio_reporter.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/control.h"
#include "sensor_sim/streams.h"
#include "sensoripc_src.h"
#include "live_compare.h"

namespace {

using namespace vexa::cameraipcclient;

constexpr uint32_t kBatch = 1024;
constexpr uint32_t kProcessed = 1;
constexpr uint32_t kElementCamera = CAM_WIDELEFT;  // the element's stream
constexpr uint32_t kBareCamera = CAM_REAR;         // the bare loop's stream

// 1080p NV12 with the pitch GStreamer assumes, so that a plain fakesink takes the frames without a copy.
std::shared_ptr<sensor_sim::Buffer> frameBuffer() {
    static auto buffer = sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(1920, 1080, 0));
    return buffer;
}

void refill(uint32_t camera, uint64_t& counter) {
    for (uint32_t i = 0; i < kBatch; ++i) {
        sensor_sim::streams::FrameSpec frame;
        frame.counter = counter++;
        frame.objIndex = uint16_t(i % 9);
        frame.buffer = frameBuffer();
        sensor_sim::streams::push(camera, kProcessed, frame);
    }
}

void setUp() {
    static bool done = [] {
        sensor_sim::reset();
        sensor_sim::setJournal(false);
        gst_init(nullptr, nullptr);
        return gst_sensor_ipc_src_register(nullptr) != FALSE;
    }();
    (void)done;
}

void BM_LibraryGetRelease(benchmark::State& state) {
    setUp();
    CCameraIpcClient client(APP_PEX_ENC);
    unsigned short mask = 1u << kBareCamera;
    if (client.Init(mask, false) != RESULT_OK || client.Start() != RESULT_OK) {
        state.SkipWithError("set-up failed");
        return;
    }
    uint64_t counter = 1;
    for (auto _ : state) {
        state.PauseTiming();
        refill(kBareCamera, counter);
        state.ResumeTiming();
        for (uint32_t i = 0; i < kBatch; ++i) {
            BufFrameObj frame{};
            if (client.GetFrame(CAMERA_REAR, &frame) != RESULT_OK) {
                state.SkipWithError("no frame");
                break;
            }
            client.ReleaseFrame(&frame);
        }
    }
    client.Stop();
    client.DeInit();
    state.SetItemsProcessed(int64_t(state.iterations()) * kBatch);
    state.counters["frames_per_s"] =
        benchmark::Counter(double(state.iterations()) * kBatch, benchmark::Counter::kIsRate);
}

// Counts the buffers reaching the sink and wakes the benchmark once, when its batch is through: a wake-up
// per buffer would charge the element a context switch per frame that no pipeline pays.
struct SinkCounter {
    std::mutex mutex;
    std::condition_variable cv;
    std::atomic<uint64_t> seen{0};
    std::atomic<uint64_t> target{0};

    static GstPadProbeReturn probe(GstPad*, GstPadProbeInfo*, gpointer data) {
        auto* self = static_cast<SinkCounter*>(data);
        if (self->seen.fetch_add(1) + 1 == self->target.load()) {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->cv.notify_all();
        }
        return GST_PAD_PROBE_OK;
    }
    bool waitFor(uint64_t until) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), [&] { return seen.load() >= until; });
    }
};

// state.range(0): max-held (0: every frame copied).
void BM_SensorIpcSrcFakesink(benchmark::State& state) {
    setUp();
    const std::string description =
        "sensoripcsrc name=src sensor=wideleft max-held=" + std::to_string(state.range(0)) +
        " ! fakesink name=sink sync=false";
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    SinkCounter counter;
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, SinkCounter::probe, &counter, nullptr);
    // Live sources do not produce in PAUSED: frames are queued there, with the timer stopped.
    gst_element_set_state(pipeline, GST_STATE_PAUSED);
    uint64_t frameCounter = 1, target = 0;
    for (auto _ : state) {
        state.PauseTiming();
        gst_element_set_state(pipeline, GST_STATE_PAUSED);
        gst_element_get_state(pipeline, nullptr, nullptr, GST_CLOCK_TIME_NONE);
        refill(kElementCamera, frameCounter);
        target += kBatch;
        counter.target = target;
        state.ResumeTiming();
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        if (!counter.waitFor(target)) {
            state.SkipWithError("the batch did not pass within 10 s");
            break;
        }
    }
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    GstStructure* stats = nullptr;
    g_object_get(src, "stats", &stats, nullptr);
    guint64 copies = 0, frames = 0;
    gst_structure_get_uint64(stats, "copies", &copies);
    gst_structure_get_uint64(stats, "frames", &frames);
    gst_structure_free(stats);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(pad);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    state.counters["copied_share"] = frames == 0 ? 0.0 : double(copies) / double(frames);
    state.SetItemsProcessed(int64_t(state.iterations()) * kBatch);
    state.counters["frames_per_s"] =
        benchmark::Counter(double(state.iterations()) * kBatch, benchmark::Counter::kIsRate);
}

// The baseline under both arguments, so that each element figure has its own of the same run.
BENCHMARK(BM_LibraryGetRelease)->Arg(4)->Arg(0)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SensorIpcSrcFakesink)->Arg(4)->Arg(0)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond);

// --- A live stream from sensor-simd -------------------------------------------------------------------

// The element's consumer process (attached to the service through SENSOR_SIM_SERVICE): after half a
// second of warm-up, `sensoripcsrc ! fakesink` on camera 0 for `seconds`.
int consumeElement(double seconds) {
    using Clock = std::chrono::steady_clock;
    using sipc_bench::cpuSeconds;
    gst_init(nullptr, nullptr);
    if (gst_sensor_ipc_src_register(nullptr) == FALSE) return 1;
    GstElement* pipeline = gst_parse_launch(
        "sensoripcsrc name=src sensor=wideleft app=pex-enc ! fakesink name=sink sync=false", nullptr);
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    // The live frames have padded lines: the element wraps them only for a sink that reads the strides
    // from a video meta, as encoders and display sinks do. This fakesink says it does.
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM,
        [](GstPad*, GstPadProbeInfo* info, gpointer) {
            GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
            if (GST_QUERY_TYPE(query) == GST_QUERY_ALLOCATION)
                gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
            return GST_PAD_PROBE_OK;
        },
        nullptr, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
    auto statOf = [src](const char* name) {
        GstStructure* stats = nullptr;
        g_object_get(src, "stats", &stats, nullptr);
        guint64 value = 0;
        gst_structure_get_uint64(stats, name, &value);
        gst_structure_free(stats);
        return value;
    };
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const guint64 frames0 = statOf("frames");
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const guint64 frames = statOf("frames") - frames0;
    const double cpu = cpuSeconds() - cpu0;
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const guint64 copies = statOf("copies");
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(pipeline);
    std::printf("copies %llu\n", static_cast<unsigned long long>(copies));
    return sipc_bench::reportLive(frames, cpu, wall);
}

// The element and the bare loop in turns on a live 1080p stream of sensor-simd.
void BM_LiveStream(benchmark::State& state) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    sipc_bench::compareLive(state, "element", [&](double seconds) {
        return std::vector<std::string>{self, "--live", "element", std::to_string(seconds)};
    });
}
BENCHMARK(BM_LiveStream)->Iterations(1)->Repetitions(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--live") {
        const double seconds = std::atof(argv[3]);
        return std::string(argv[2]) == "bare" ? sipc_bench::consumeBare(seconds) : consumeElement(seconds);
    }
    using sipc_bench::Aim;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios("BM_LibraryGetRelease");
    const std::string live = "BM_LiveStream/iterations:1/repeats:1/real_time";
    // The element against the bare loop where frames come from a service: the same frames per second,
    // and at most a quarter more CPU per frame. The scripted rows above show its own cost per buffer.
    reporter.printAims("BM_LibraryGetRelease",
                       {Aim{live, "fps_ratio", 0.90, false, "x"}, Aim{live, "cpu_ratio", 1.25, true, "x"}});
    benchmark::Shutdown();
    return 0;
}
