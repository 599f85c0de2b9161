// What the library adds to a frame's way through the stream library: the facades' get + release (registry
// look-up, time of day, record filling, release record, filtered log records) against the bare stream
// calls of a consumer of our own on the same scripted frames, the baseline; the legacy get + release with
// raw pairing against the bare gets and releases of both outputs; and the heap allocations of each per
// frame, counted by the program's own operator new.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <cstdio>
#include <vector>

#include "alloc_counter.h"
#include "camera_ipc_client.h"
#include "image_stream_master.h"
#include "ratio_reporter.h"
#include "sensor_ipc_client.h"
#include "sensor_sim/control.h"
#include "vexa_log.h"

namespace {

using namespace vexa::cameraipcclient;
using vexa::imgstream::ImageInfo;
using vexa::imgstream::ImageStreamMaster;
using vexa::imgstream::OUTPUT_TYPE_ICP;
using vexa::imgstream::OUTPUT_TYPE_ISP;

constexpr uint32_t kBatch = 1024;  // frames queued at a time, outside the timed region
constexpr uint32_t kCurrentSensor = SENSOR_FRONTSLAVE;  // the facade's stream (capture output)
constexpr uint32_t kBareSensor = SENSOR_FRONTLEFT;      // the bare consumer's stream
constexpr uint32_t kLegacyCamera = CAM_WIDE;            // the legacy facade's camera, with raw frames
constexpr uint32_t kBareCamera = CAM_NARROW;            // the bare consumer's camera

// Scripted streams without the journal: what a live application pays, with frames we choose.
struct Rig {
    Rig() {
        sensor_sim::reset();
        sensor_sim::setJournal(false);
        unsigned int mask = 1u << kCurrentSensor;
        const auto logger = vexa::vexalog::createLogger("BENCH", "con.BENCH", vexa::vexalog::LogLevel::kInfo,
                                                        vexa::vexalog::CtxFileInfo{0, "%l [%m]%n"});
        ok = current.init(mask, 0, logger) == RESULT_OK && current.start() == RESULT_OK;
        unsigned short cameras = 1u << kLegacyCamera;
        ok = ok && legacy.Init(cameras, true) == RESULT_OK && legacy.Start() == RESULT_OK;
        std::vector<vexa::imgstream::ImageStreamConfig> sensor{{"ipc-sensor-frontleft", 0, 2, 16, 0, 0}};
        std::vector<vexa::imgstream::ImageStreamConfig> camera{{"ipc-camera-narrow", 0, 2, 16, 0, 0},
                                                               {"ipc-camera-narrow-isp0", 1, 2, 16, 0, 0}};
        ok = ok && bare.initConsumer("BARE", "bare_channel", nullptr, 4) == 0 &&
             bare.regConsumerStream(kBareSensor, sensor, nullptr) == 0 &&
             bare.regConsumerStream(kBareCamera, camera, nullptr) == 0 && bare.initConsumerDone() == 0;
    }

    vexa::sensor_access::SensorIpcClient current{APP_SENSOR_DEMO};
    CCameraIpcClient legacy{APP_PEX_ENC};
    ImageStreamMaster bare;
    bool ok = false;
};

Rig& rig() {
    static Rig r;
    return r;
}

// Runs `frame` once per iteration; every kBatch iterations the next frames are queued by `refill` with
// the timer and the allocation count stopped. Reports allocations per frame.
template <typename Refill, typename Frame>
void run(benchmark::State& state, Refill refill, Frame frame) {
    if (!rig().ok) {
        state.SkipWithError("set-up failed");
        return;
    }
    uint64_t counter = 1000, frames = 0;
    uint32_t left = 0;
    // Allocations are counted while the timer runs: the refills are left out.
    sipc_bench::AllocationScope scope;
    uint64_t allocations = 0;
    for (auto _ : state) {
        if (left == 0) {
            state.PauseTiming();
            allocations += scope.stop();
            refill(counter);
            scope.start();
            state.ResumeTiming();
            left = kBatch;
        }
        if (!frame()) {
            state.SkipWithError("frame failed");
            break;
        }
        --left;
        ++frames;
    }
    allocations += scope.stop();
    // Frames queued and not taken stay queued; the next benchmark's counters start above them.
    state.counters["allocs_per_frame"] = frames == 0 ? 0 : double(allocations) / double(frames);
}

void pushBatch(uint32_t stream, std::vector<uint32_t> outputs, uint64_t& counter) {
    for (uint32_t i = 0; i < kBatch; ++i, ++counter) {
        sensor_sim::streams::FrameSpec spec;
        spec.counter = counter;
        spec.objIndex = static_cast<uint16_t>(counter % 8);
        for (uint32_t output : outputs) sensor_sim::streams::push(stream, output, spec);
    }
}

// Baseline: the stream library's get and release of one frame, as a consumer of its own calls them.
void BM_BareGetRelease(benchmark::State& state) {
    run(state, [](uint64_t& c) { pushBatch(kBareSensor, {0}, c); },
        [] {
            ImageInfo info{};
            if (rig().bare.getFrame(kBareSensor, OUTPUT_TYPE_ICP, &info) != 0) return false;
            ImageInfo back{};
            back.objIndex = info.objIndex;
            back.frameCnt = info.frameCnt;
            return rig().bare.releaseFrame(kBareSensor, OUTPUT_TYPE_ICP, &back) == 0;
        });
}

void BM_FacadeGetRelease(benchmark::State& state) {
    run(state, [](uint64_t& c) { pushBatch(kCurrentSensor, {0}, c); },
        [] {
            FrameBufObj frame{};
            if (rig().current.getFrame(static_cast<SensorType>(kCurrentSensor), frame, false) != RESULT_OK)
                return false;
            return rig().current.releaseFrame(frame) == RESULT_OK;
        });
}

// Baseline of the pairing: the processed and the raw frame of one counter taken and returned.
void BM_BarePairGetRelease(benchmark::State& state) {
    run(state, [](uint64_t& c) { pushBatch(kBareCamera, {0, 1}, c); },
        [] {
            ImageInfo yuv{}, raw{};
            if (rig().bare.getFrame(kBareCamera, OUTPUT_TYPE_ISP, &yuv) != 0 ||
                rig().bare.getFrame(kBareCamera, OUTPUT_TYPE_ICP, &raw) != 0 || raw.frameCnt != yuv.frameCnt)
                return false;
            ImageInfo back{};
            back.objIndex = raw.objIndex;
            back.frameCnt = raw.frameCnt;
            if (rig().bare.releaseFrame(kBareCamera, OUTPUT_TYPE_ICP, &back) != 0) return false;
            back.objIndex = yuv.objIndex;
            back.frameCnt = yuv.frameCnt;
            return rig().bare.releaseFrame(kBareCamera, OUTPUT_TYPE_ISP, &back) == 0;
        });
}

void BM_LegacyPairGetRelease(benchmark::State& state) {
    run(state, [](uint64_t& c) { pushBatch(kLegacyCamera, {0, 1}, c); },
        [] {
            BufFrameObj frame{};
            if (rig().legacy.GetFrame(static_cast<SensorName>(kLegacyCamera), &frame) != RESULT_OK) return false;
            return rig().legacy.ReleaseFrame(&frame) == RESULT_OK;
        });
}

// The time of day that every frame record carries, read alone: the part of the facade's cost that the
// record requires and no implementation can leave out.
void BM_TimeOfDay(benchmark::State& state) {
    for (auto _ : state) {
        timeval now{};
        gettimeofday(&now, nullptr);
        benchmark::DoNotOptimize(now);
    }
}

BENCHMARK(BM_TimeOfDay);
BENCHMARK(BM_BareGetRelease);
BENCHMARK(BM_FacadeGetRelease);
BENCHMARK(BM_BarePairGetRelease);
BENCHMARK(BM_LegacyPairGetRelease);

}  // namespace

int main(int argc, char** argv) {
    // The pairing's baseline is its own bare pair; the ratio table compares each to its baseline.
    using sipc_bench::Aim;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios("BM_BareGetRelease", {"BM_FacadeGetRelease"});
    reporter.printRatios("BM_BarePairGetRelease", {"BM_LegacyPairGetRelease"});
    const double bare = reporter.ns("BM_BareGetRelease"), clock = reporter.ns("BM_TimeOfDay");
    const double facade = reporter.ns("BM_FacadeGetRelease");
    if (bare > 0 && clock >= 0 && facade >= 0) {
        std::printf("ratio %-48s %6.2f x %s  (%+.0f ns besides the time of day, %.0f ns)\n",
                    "BM_FacadeGetRelease-BM_TimeOfDay", (facade - clock) / bare, "BM_BareGetRelease",
                    facade - clock - bare, clock);
    }
    reporter.printAims("BM_BareGetRelease", {Aim{"BM_FacadeGetRelease", "", 1.10},
                                             Aim{"BM_FacadeGetRelease", "allocs_per_frame", 0, true, "allocs"}});
    reporter.printAims("BM_BarePairGetRelease",
                       {Aim{"BM_LegacyPairGetRelease", "", 1.10},
                        Aim{"BM_LegacyPairGetRelease", "allocs_per_frame", 0, true, "allocs"}});
    benchmark::Shutdown();
    return 0;
}
