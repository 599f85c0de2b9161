// The CPU copy of a frame against a plain memcpy of the same image bytes (the baseline): what reading
// the attributes, deriving the layout and copying line by line at the destination pitch cost on top.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "ratio_reporter.h"
#include "sensor_ipcclient_impl.h"
#include "sensor_sim/control.h"

namespace {

using vexa::sensor_access::SensorIpcClientImpl;

struct Geometry {
    uint32_t width;
    uint32_t height;
};
const Geometry kSizes[] = {{1280, 800}, {1920, 1080}, {3840, 2160}};

// Baseline: the visible luma bytes copied in one block.
void BM_Memcpy(benchmark::State& state) {
    const Geometry g = kSizes[state.range(0)];
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
    const Geometry g = kSizes[state.range(0)];
    sensor_sim::reset();
    auto buffer = sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(g.width, g.height));
    SensorIpcClientImpl* client =
        SensorIpcClientImpl::getInstance(static_cast<vexa::cameraipcclient::AppType>(900));
    vexa::cameraipcclient::FrameBufObj frame{};
    frame.sensorId = 0;
    frame.objIndex = static_cast<uint32_t>(state.range(0));
    frame.bufObj = reinterpret_cast<NvSciBufObj>(buffer.get());
    for (auto _ : state) {
        if (client->nvBufObjToCpuBuffer(frame) != 0) state.SkipWithError("copy failed");
        benchmark::DoNotOptimize(frame.cpuData);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame.cpuDataSize));
}

BENCHMARK(BM_Memcpy)->DenseRange(0, 2);
BENCHMARK(BM_NvBufObjToCpuBuffer)->DenseRange(0, 2);

}  // namespace

int main(int argc, char** argv) {
    return sipc_bench::runWithRatios(argc, argv, "BM_Memcpy");
}
