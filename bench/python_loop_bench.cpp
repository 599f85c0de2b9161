// What the Python module adds to a frame: the sensoripc get / access / release loop in a Python process
// against the library's bare C++ get + release loop, in turns on the same live 1080p stream of
// sensor-simd, frames per second and the consumer process's CPU per frame of each.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdlib>
#include <string>

#include "live_compare.h"
#include "ratio_reporter.h"

namespace {

// The Python consumer: what a user's loop does with each frame (its luma plane as a numpy view, one
// pixel read), the frame released by its with-block; CPU time counted the same way as the bare loop's.
constexpr const char* kPythonLoop = R"(
import os, sys, time
import sensoripc

def cpu():
    total = 0
    for task in os.listdir("/proc/self/task"):
        with open(f"/proc/self/task/{task}/schedstat") as f:
            total += int(f.read().split()[0])
    return total / 1e9

seconds = float(sys.argv[1])
with sensoripc.Consumer(sensors=["wideleft"], app="pex-enc") as consumer:
    warm = time.monotonic() + 0.5
    while time.monotonic() < warm:
        with consumer.get(timeout=5) as frame:
            frame.planes[0][0, 0]
    frames = 0
    cpu0, start = cpu(), time.monotonic()
    while time.monotonic() - start < seconds:
        with consumer.get(timeout=5) as frame:
            frame.planes[0][0, 0]
        frames += 1
    wall, used = time.monotonic() - start, cpu() - cpu0
print(f"frames {frames} cpu {used:.6f} seconds {wall:.6f}")
)";

void BM_PythonLoop(benchmark::State& state) {
    sipc_bench::compareLive(state, "python", [](double seconds) {
        return std::vector<std::string>{SIPC_PYTHON, "-c", kPythonLoop, std::to_string(seconds)};
    });
}
BENCHMARK(BM_PythonLoop)->Iterations(1)->Repetitions(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--live") return sipc_bench::consumeBare(std::atof(argv[3]));
    // The build tree's module, whatever the caller's environment says.
    ::setenv("PYTHONPATH", SIPC_PYTHON_DIR, 1);
    using sipc_bench::Aim;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const std::string live = "BM_PythonLoop/iterations:1/repeats:1/real_time";
    // The same frames per second as the C++ loop, and at most half as much CPU again per frame.
    reporter.printAims("BM_PythonLoop",
                       {Aim{live, "fps_ratio", 0.90, false, "x"}, Aim{live, "cpu_ratio", 1.50, true, "x"}});
    benchmark::Shutdown();
    return 0;
}
