// A console reporter that also prints, at the end, each benchmark's time as a ratio of a baseline
// benchmark measured in the same run. Usage: main() { return runWithRatios(argc, argv, "BM_Baseline"); }
#ifndef SIPC_BENCH_RATIO_REPORTER_H
#define SIPC_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace sipc_bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                m_nsPerIteration[run.benchmark_name()] =
                    run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                    benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Ratio of every benchmark whose name starts with `prefix` to the baseline of the same argument.
    void printRatios(const std::string& baseline) const {
        for (const auto& [name, ns] : m_nsPerIteration) {
            const std::string suffix = name.find('/') == std::string::npos ? "" : name.substr(name.find('/'));
            auto base = m_nsPerIteration.find(baseline + suffix);
            if (base == m_nsPerIteration.end() || name == base->first || base->second <= 0) continue;
            std::printf("ratio %-48s %6.2f x %s\n", name.c_str(), ns / base->second, base->first.c_str());
        }
    }

private:
    std::map<std::string, double> m_nsPerIteration;
};

inline int runWithRatios(int argc, char** argv, const std::string& baseline) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios(baseline);
    benchmark::Shutdown();
    return 0;
}

}  // namespace sipc_bench

#endif  // SIPC_BENCH_RATIO_REPORTER_H
