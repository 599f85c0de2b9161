// The CPU copy of a frame against a plain memcpy of the same image bytes (the baseline): what reading
// the attributes, deriving the layout and copying line by line at the destination pitch cost on top,
// and the heap allocations of each copy once its buffer has grown (none are expected).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "ratio_reporter.h"
#include "sensor_ipcclient_impl.h"
#include "sensor_sim/control.h"

namespace {

using vexa::sensor_access::SensorIpcClientImpl;

struct Geometry {
    uint32_t width;
    uint32_t height;
};

// The benchmarks' arguments are width and height, so that their names say the size.
Geometry geometry(const benchmark::State& state) {
    return Geometry{static_cast<uint32_t>(state.range(0)), static_cast<uint32_t>(state.range(1))};
}

// Baseline: the visible luma bytes copied in one block.
void BM_Memcpy(benchmark::State& state) {
    const Geometry g = geometry(state);
    std::vector<uint8_t> source(size_t(g.width) * g.height, 0x5A), target(source.size());
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(source.size()));
}

// The library's copy of a two-plane 4:2:0 frame with padded lines into its CPU buffer.
void BM_NvBufObjToCpuBuffer(benchmark::State& state) {
    const Geometry g = geometry(state);
    auto buffer = sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(g.width, g.height));
    SensorIpcClientImpl* client =
        SensorIpcClientImpl::getInstance(static_cast<vexa::cameraipcclient::AppType>(900));
    vexa::cameraipcclient::FrameBufObj frame{};
    frame.sensorId = 0;
    frame.objIndex = g.width % 9;  // a CPU buffer of its own per size (1280, 1920, 3840: 2, 3, 6)
    frame.bufObj = reinterpret_cast<NvSciBufObj>(buffer.get());
    // The first copy grows the buffer of this sensor and index; the steady state starts after it.
    if (client->nvBufObjToCpuBuffer(frame) != 0) return state.SkipWithError("copy failed");
    sipc_bench::AllocationScope allocations;
    for (auto _ : state) {
        if (client->nvBufObjToCpuBuffer(frame) != 0) state.SkipWithError("copy failed");
        benchmark::DoNotOptimize(frame.cpuData);
        benchmark::ClobberMemory();
    }
    state.counters["allocs_per_frame"] = double(allocations.stop()) / double(std::max<int64_t>(state.iterations(), 1));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame.cpuDataSize));
}

// The copy and the memcpy taken in turns, each timed on its own (the first of the two alternating): a
// change of the machine's load or of the other processes' use of the shared cache meets both alike,
// which separate benchmarks minutes apart on a shared machine do not give. Reports the median of the
// per-pair ratios, the ratio of the summed times, and the nanoseconds the copy adds per call.
void BM_CopyInTurnWithMemcpy(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const Geometry g = geometry(state);
    auto buffer = sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(g.width, g.height));
    std::vector<uint8_t> source(size_t(g.width) * g.height, 0x5A), target(source.size());
    SensorIpcClientImpl* client =
        SensorIpcClientImpl::getInstance(static_cast<vexa::cameraipcclient::AppType>(900));
    vexa::cameraipcclient::FrameBufObj frame{};
    frame.sensorId = 1;  // buffers of their own, apart from BM_NvBufObjToCpuBuffer's
    frame.objIndex = g.width % 9;
    frame.bufObj = reinterpret_cast<NvSciBufObj>(buffer.get());
    if (client->nvBufObjToCpuBuffer(frame) != 0) return state.SkipWithError("copy failed");
    std::vector<double> ratios;
    ratios.reserve(1u << 16);
    double copyNs = 0, memcpyNs = 0;
    bool copyFirst = false;
    for (auto _ : state) {
        double ns[2] = {0, 0};  // copy, memcpy
        for (int k = 0; k < 2; ++k) {
            const bool copy = (k == 0) == copyFirst;
            const auto t0 = Clock::now();
            if (copy) {
                if (client->nvBufObjToCpuBuffer(frame) != 0) state.SkipWithError("copy failed");
                benchmark::DoNotOptimize(frame.cpuData);
            } else {
                std::memcpy(target.data(), source.data(), source.size());
                benchmark::DoNotOptimize(target.data());
            }
            benchmark::ClobberMemory();
            ns[copy ? 0 : 1] = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
        }
        copyFirst = !copyFirst;
        copyNs += ns[0];
        memcpyNs += ns[1];
        if (ratios.size() < ratios.capacity() && ns[1] > 0) ratios.push_back(ns[0] / ns[1]);
    }
    if (ratios.empty() || memcpyNs <= 0) return;
    std::nth_element(ratios.begin(), ratios.begin() + long(ratios.size() / 2), ratios.end());
    state.counters["ratio_median"] = ratios[ratios.size() / 2];
    state.counters["ratio_sum"] = copyNs / memcpyNs;
    state.counters["added_ns"] = (copyNs - memcpyNs) / double(state.iterations());
}

#define SIPC_COPY_SIZES MinWarmUpTime(0.1)->ArgNames({"w", "h"})->Args({1280, 800})->Args({1920, 1080})->Args({3840, 2160})
BENCHMARK(BM_Memcpy)->SIPC_COPY_SIZES;
BENCHMARK(BM_NvBufObjToCpuBuffer)->SIPC_COPY_SIZES;
BENCHMARK(BM_CopyInTurnWithMemcpy)->SIPC_COPY_SIZES;

}  // namespace

int main(int argc, char** argv) {
    using sipc_bench::Aim;
    std::vector<Aim> aims;
    for (const char* size : {"/w:1280/h:800", "/w:1920/h:1080", "/w:3840/h:2160"}) {
        const std::string suffix = std::string(size) + "/min_warmup_time:0.100";
        aims.push_back(Aim{"BM_CopyInTurnWithMemcpy" + suffix, "ratio_median", 1.10});
        aims.push_back(Aim{"BM_NvBufObjToCpuBuffer" + suffix, "", 1.10});
        aims.push_back(Aim{"BM_NvBufObjToCpuBuffer" + suffix, "allocs_per_frame", 0, true, "allocs"});
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // The benchmark in turns is its own baseline: its ratios are counters, not times against BM_Memcpy.
    std::vector<std::string> separate;
    for (const char* size : {"/w:1280/h:800", "/w:1920/h:1080", "/w:3840/h:2160"})
        separate.push_back(std::string("BM_NvBufObjToCpuBuffer") + size + "/min_warmup_time:0.100");
    reporter.printRatios("BM_Memcpy", separate);
    reporter.printAims("BM_Memcpy", aims);
    benchmark::Shutdown();
    return 0;
}
