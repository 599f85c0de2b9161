// What sensoripcsrc adds to a frame: `sensoripcsrc ! fakesink` in zero-copy mode (and with every frame
// copied) against the library's bare get + release loop on the same scripted 1080p NV12 frames, the
// baseline. Each iteration is a batch of frames queued with the timer stopped; times are the process's
// CPU time (the pipeline runs on its own streaming thread), reported per frame with frames per second.
#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "camera_ipc_client.h"
#include "ratio_reporter.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/control.h"
#include "sensor_sim/streams.h"
#include "sensoripc_src.h"

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

}  // namespace

int main(int argc, char** argv) {
    using sipc_bench::Aim;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios("BM_LibraryGetRelease");
    reporter.printAims("BM_LibraryGetRelease", {Aim{"BM_SensorIpcSrcFakesink/4/process_time", "", 1.10}});
    benchmark::Shutdown();
    return 0;
}
