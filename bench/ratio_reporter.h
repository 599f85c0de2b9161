// A console reporter that also prints, at the end, each benchmark's time as a ratio of a baseline
// benchmark measured in the same run, and one "result" line per aim the program declares, which
// scripts/bench gathers into its table. Usage:
//   main() { return runWithRatios(argc, argv, "BM_Baseline", {aims...}); }
// With --benchmark_repetitions the medians are compared. Times are CPU times (on a shared machine they
// move less with other processes' load than wall time), but for benchmarks declared with UseRealTime():
// those measure work spread over threads, or waits, and compare wall times.
#ifndef SIPC_BENCH_RATIO_REPORTER_H
#define SIPC_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace sipc_bench {

// One promise checked at the end of a run. With a counter name it bounds that counter of `benchmark`;
// without one it bounds the ratio of `benchmark`'s time to the time of the baseline of the same argument.
struct Aim {
    std::string benchmark;
    std::string counter;  // empty: the time ratio against the baseline
    double limit;
    bool atMost = true;  // false: the value must be at least the limit
    std::string unit = "x";
};

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal: scripts/bench reads the output from files.
    RatioReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration && run.iterations > 0;
            if (!median && !single) continue;
            const std::string name = run.run_name.str();
            // A median, once seen, is not replaced by a later repetition's single run.
            if (single && m_fromMedian.count(name) != 0) continue;
            if (median) m_fromMedian[name] = true;
            Result& r = m_results[name];
            const bool wall = run.run_name.time_type.find("real_time") != std::string::npos;
            const double time = wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
            r.ns = time * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                   benchmark::GetTimeUnitMultiplier(run.time_unit);
            for (const auto& [counter, value] : run.counters) r.counters[counter] = value.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Ratio of every benchmark (or of those named in `only`) to the baseline of the same argument.
    void printRatios(const std::string& baseline, const std::vector<std::string>& only = {}) const {
        for (const auto& [name, result] : m_results) {
            if (!only.empty() && std::find(only.begin(), only.end(), name) == only.end()) continue;
            const double base = baselineNs(name, baseline);
            if (base <= 0 || name == baselineName(name, baseline)) continue;
            std::printf("ratio %-48s %6.2f x %s  (%+.0f ns)\n", name.c_str(), result.ns / base,
                        baselineName(name, baseline).c_str(), result.ns - base);
        }
    }

    // One line per aim: "result <name> <value> <unit> aim <= <limit> ok|MISSED" (or ">="), a time ratio
    // followed by the nanoseconds added to the baseline. Returns whether every aim was met; a benchmark
    // that did not run is reported as not run, and counts as missed.
    bool printAims(const std::string& baseline, const std::vector<Aim>& aims) const {
        bool allMet = true;
        for (const Aim& aim : aims) {
            auto it = m_results.find(aim.benchmark);
            double value = -1;
            std::string added;
            if (it != m_results.end()) {
                if (aim.counter.empty()) {
                    const double base = baselineNs(aim.benchmark, baseline);
                    if (base > 0) value = it->second.ns / base;
                    added = " " + std::to_string(static_cast<long long>(it->second.ns - base)) + "ns";
                } else if (it->second.counters.count(aim.counter) != 0) {
                    value = it->second.counters.at(aim.counter);
                }
            }
            const std::string label = aim.benchmark + (aim.counter.empty() ? "" : ":" + aim.counter);
            if (value < 0) {
                std::printf("result %s - %s aim %s %g not-run\n", label.c_str(), aim.unit.c_str(),
                            aim.atMost ? "<=" : ">=", aim.limit);
                allMet = false;
                continue;
            }
            const bool met = aim.atMost ? value <= aim.limit : value >= aim.limit;
            allMet = allMet && met;
            std::printf("result %s %.3f %s aim %s %g %s%s\n", label.c_str(), value, aim.unit.c_str(),
                        aim.atMost ? "<=" : ">=", aim.limit, met ? "ok" : "MISSED", added.c_str());
        }
        return allMet;
    }

    // Time of one benchmark in nanoseconds (CPU, or wall for real-time benchmarks), or -1 when it did not run.
    double ns(const std::string& benchmark) const {
        auto it = m_results.find(benchmark);
        return it == m_results.end() ? -1 : it->second.ns;
    }

    // A counter of one benchmark, or -1 when that benchmark or counter did not run.
    double counter(const std::string& benchmark, const std::string& name) const {
        auto it = m_results.find(benchmark);
        if (it == m_results.end() || it->second.counters.count(name) == 0) return -1;
        return it->second.counters.at(name);
    }

private:
    struct Result {
        double ns = 0;
        std::map<std::string, double> counters;
    };

    static std::string baselineName(const std::string& name, const std::string& baseline) {
        const size_t slash = name.find('/');
        return baseline + (slash == std::string::npos ? "" : name.substr(slash));
    }

    double baselineNs(const std::string& name, const std::string& baseline) const {
        auto base = m_results.find(baselineName(name, baseline));
        return base == m_results.end() ? 0 : base->second.ns;
    }

    std::map<std::string, Result> m_results;
    std::map<std::string, bool> m_fromMedian;
};

inline int runWithRatios(int argc, char** argv, const std::string& baseline, const std::vector<Aim>& aims = {}) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios(baseline);
    reporter.printAims(baseline, aims);
    benchmark::Shutdown();
    return 0;
}

}  // namespace sipc_bench

#endif  // SIPC_BENCH_RATIO_REPORTER_H
