// How soon deInit from another thread ends a start that waits for a connection that never comes: the
// 50th and 99th percentile over many trials (1000 by default), each deInit at a random moment of the
// wait. The baseline is the same wait without the library: a thread that sleeps 15 ms between tests of
// an atomic flag, ended by clearing the flag, measured the same way in the same run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "ratio_reporter.h"
#include "sensor_ipc_client.h"
#include "sensor_sim/control.h"
#include "vexa_log.h"

namespace {

using namespace vexa::cameraipcclient;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::microseconds kMinOffset{1000};  // start has polled at least once by then
constexpr int kOffsetSpreadUs = 15000;                  // then up to one more poll period

// Runs `trials` trials: `prepare`, then `begin` on a thread of its own until it returns, ended by `end`
// at a random moment; reports the percentiles of the time from `end` to the return, in milliseconds.
template <typename Prepare, typename Begin, typename End>
void measure(benchmark::State& state, Prepare prepare, Begin begin, End end) {
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> offsetUs(0, kOffsetSpreadUs);
    std::vector<double> latenciesMs;
    for (auto _ : state) {
        for (int64_t trial = 0; trial < state.range(0); ++trial) {
            prepare();
            std::atomic<int64_t> returnedNs{0};
            std::thread waiter([&] {
                begin();
                returnedNs = Clock::now().time_since_epoch().count();
            });
            std::this_thread::sleep_for(kMinOffset + std::chrono::microseconds(offsetUs(random)));
            const int64_t endedNs = Clock::now().time_since_epoch().count();
            end();
            waiter.join();
            latenciesMs.push_back(double(returnedNs - endedNs) / 1e6);
        }
    }
    std::sort(latenciesMs.begin(), latenciesMs.end());
    auto percentile = [&](double p) {
        return latenciesMs.empty() ? 0.0 : latenciesMs[size_t(p * double(latenciesMs.size() - 1))];
    };
    state.counters["p50_ms"] = percentile(0.50);
    state.counters["p99_ms"] = percentile(0.99);
    state.counters["max_ms"] = latenciesMs.empty() ? 0.0 : latenciesMs.back();
    state.counters["trials"] = double(latenciesMs.size());
}

// Baseline: the bare wait, 15 ms sleeps between tests of a flag.
void BM_BareFlagWait(benchmark::State& state) {
    std::atomic<bool> running{true};
    measure(
        state, [&] { running = true; },
        [&] {
            while (running.load(std::memory_order_acquire)) std::this_thread::sleep_for(std::chrono::milliseconds(15));
        },
        [&] { running.store(false, std::memory_order_release); });
}

void BM_DeInitEndsStart(benchmark::State& state) {
    sensor_sim::reset();
    sensor_sim::setJournal(false);
    sensor_sim::streams::setStates({0});  // "connecting" for ever: only deInit ends the wait
    const auto logger = vexa::vexalog::createLogger("BENCH", "con.BENCH", vexa::vexalog::LogLevel::kWarn,
                                                    vexa::vexalog::CtxFileInfo{0, "%l [%m]%n"});
    vexa::sensor_access::SensorIpcClient client(APP_SENSOR_DEMO);
    bool failed = false;
    measure(
        state,
        [&] {
            unsigned int mask = 1u << SENSOR_FRONTSLAVE;
            failed = failed || client.init(mask, 0, logger) != RESULT_OK;
        },
        [&] { failed = failed || client.start() != RESULT_OK; },
        [&] { client.deInit(); });
    if (failed) state.SkipWithError("init or start failed");
}

BENCHMARK(BM_BareFlagWait)->Arg(1000)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeInitEndsStart)->Arg(1000)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    using sipc_bench::Aim;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    sipc_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // Times per run mean nothing here: the latencies are compared, percentile against percentile.
    const std::string suffix = "/1000/iterations:1/real_time";
    const double bare = reporter.counter("BM_BareFlagWait" + suffix, "p99_ms");
    const double library = reporter.counter("BM_DeInitEndsStart" + suffix, "p99_ms");
    if (bare > 0 && library >= 0) {
        std::printf("ratio %-48s %6.2f x %s  (%+.2f ms)\n", ("BM_DeInitEndsStart" + suffix + ":p99_ms").c_str(),
                    library / bare, ("BM_BareFlagWait" + suffix + ":p99_ms").c_str(), library - bare);
    }
    reporter.printAims("BM_BareFlagWait", {Aim{"BM_DeInitEndsStart" + suffix, "p99_ms", 20.0, true, "ms"}});
    benchmark::Shutdown();
    return 0;
}
