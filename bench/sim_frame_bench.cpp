// The cost of producing one frame of the default camera stream (1920x1080 4:2:0 with 64 bytes of line
// padding): drawing the moving pattern with its label, and that plus the statistics the live vehicle
// publishes per frame, each against a plain memcpy of the same bytes, the baseline, in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "ratio_reporter.h"
#include "sensor_sim/internal/pattern.h"

namespace {

using sensor_sim::pattern::Format;

struct Frame {
    std::shared_ptr<const sensor_sim::pattern::Strip> strip;
    std::shared_ptr<sensor_sim::Buffer> buffer;
};

Frame frame(Format format) {
    return {sensor_sim::pattern::strip(format, 1920, 1080),
            sensor_sim::makeBuffer(sensor_sim::pattern::bufferSpec(format, 1920, 1080, 64))};
}

// Baseline: copying the buffer's bytes from another buffer of the same size (both larger than the caches,
// as a frame and the pattern strip are).
void BM_MemcpyFrame(benchmark::State& state) {
    Frame f = frame(static_cast<Format>(state.range(0)));
    std::vector<uint8_t> source(f.buffer->size() * 2, 0x5A);  // twice the size, read at alternating halves
    size_t half = 0;
    for (auto _ : state) {
        std::memcpy(f.buffer->data(), source.data() + half * f.buffer->size(), f.buffer->size());
        half ^= 1;
        benchmark::DoNotOptimize(f.buffer->data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.buffer->size()));
}

void BM_RenderFrame(benchmark::State& state) {
    Frame f = frame(static_cast<Format>(state.range(0)));
    uint64_t counter = 0;
    for (auto _ : state) {
        sensor_sim::pattern::render(*f.strip, *f.buffer, 2, ++counter);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.buffer->size()));
}

void BM_RenderFrameWithStatistics(benchmark::State& state) {
    Frame f = frame(static_cast<Format>(state.range(0)));
    uint64_t counter = 0;
    for (auto _ : state) {
        sensor_sim::pattern::render(*f.strip, *f.buffer, 2, ++counter);
        benchmark::DoNotOptimize(sensor_sim::pattern::statistics(*f.buffer, Format::Yuv420));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.buffer->size()));
}

constexpr int kYuv = static_cast<int>(Format::Yuv420);
constexpr int kBayer = static_cast<int>(Format::Bayer16);

BENCHMARK(BM_MemcpyFrame)->Arg(kYuv)->Arg(kBayer)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RenderFrame)->Arg(kYuv)->Arg(kBayer)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RenderFrameWithStatistics)->Arg(kYuv)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return sipc_bench::runWithRatios(argc, argv, "BM_MemcpyFrame");
}
