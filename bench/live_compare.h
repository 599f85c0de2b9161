// A consumer's CPU per frame on a live stream of sensor-simd, against the library's bare get + release
// loop on the same stream: each consumer runs as a process of its own, in turns with the bare loop, and
// the ratios are taken within each pair (a wake-up's cost on a virtual machine moves from run to run by
// more than a consumer adds). Shared by the benchmarks of the GStreamer element and the Python module.
#ifndef SIPC_BENCH_LIVE_COMPARE_H
#define SIPC_BENCH_LIVE_COMPARE_H

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "camera_ipc_client.h"
#include "sim_service.h"

namespace sipc_bench {

// 1080p NV12 at 200 frames/s on camera 0.
constexpr const char* kLiveRig = R"([rig]
pool_size = 9
[[stream]]
id = 0
rate_hz = 200.0
[stream.processed]
format = "yuv420"
width = 1920
height = 1080
)";

inline double cpuSeconds() {
    return double(threadsCpuNs("self")) / 1e9;
}

// What a consumer process prints when it is done: "frames N cpu S seconds W".
inline int reportLive(uint64_t frames, double cpu, double wall) {
    std::printf("frames %llu cpu %.6f seconds %.6f\n", static_cast<unsigned long long>(frames), cpu, wall);
    return frames > 0 ? 0 : 1;
}

// The baseline consumer: after half a second of warm-up, the bare legacy loop on camera 0 (application
// APP_PEX_ENC) for `seconds`.
inline int consumeBare(double seconds) {
    using namespace vexa::cameraipcclient;
    using Clock = std::chrono::steady_clock;
    CCameraIpcClient client(APP_PEX_ENC);
    unsigned short mask = 1u << CAM_WIDELEFT;
    if (client.Init(mask, false) != RESULT_OK || client.Start() != RESULT_OK) return 1;
    auto cycle = [&] {
        BufFrameObj frame{};
        if (client.GetFrame(CAMERA_WIDELEFT, &frame) != RESULT_OK) return false;
        client.ReleaseFrame(&frame);
        return true;
    };
    for (const auto warm = Clock::now() + std::chrono::milliseconds(500); Clock::now() < warm;) cycle();
    uint64_t frames = 0;
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::duration<double>(seconds)) frames += cycle() ? 1 : 0;
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = cpuSeconds() - cpu0;
    client.Stop();
    client.DeInit();
    return reportLive(frames, cpu, wall);
}

struct LiveRun {
    double fps = 0;
    double cpuUsPerFrame = 0;
    std::map<std::string, double> extra;  // other "name value" lines of the consumer
};

// Runs one consumer process (`args`) against the service and reads what it printed.
inline LiveRun runLive(const Service& service, std::vector<std::string> args, const std::string& name) {
    const std::string out = service.dir + "/" + name + ".out";
    reap(spawnWith(std::move(args), out, service.socket));
    std::ifstream in(out);
    LiveRun run;
    for (std::string line; std::getline(in, line);) {
        double frames = 0, cpu = 0, wall = 0, value = 0;
        char key[64] = {};
        if (std::sscanf(line.c_str(), "frames %lf cpu %lf seconds %lf", &frames, &cpu, &wall) == 3) {
            if (frames > 0 && wall > 0) {
                run.fps = frames / wall;
                run.cpuUsPerFrame = cpu * 1e6 / frames;
            }
        } else if (std::sscanf(line.c_str(), "%63s %lf", key, &value) == 2) {
            run.extra[key] = value;
        }
    }
    return run;
}

inline double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? -1 : v[v.size() / 2];
}

// Five pairs of turns, the bare loop (this program with --live bare SECONDS) then `consumer`: the
// medians of both sides' frames per second and CPU per frame and of the per-pair ratios, as counters
// bare_fps, <name>_fps, bare_cpu_us_per_frame, <name>_cpu_us_per_frame, fps_ratio, cpu_ratio (and the
// median of each extra line the consumer printed, as <name>_<key>).
inline void compareLive(benchmark::State& state, const std::string& name,
                        const std::function<std::vector<std::string>(double seconds)>& consumer) {
    Service service(kLiveRig);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    constexpr double kSeconds = 2.0;
    std::vector<double> bareFps, fps, bareCpu, cpu, fpsRatios, cpuRatios;
    std::map<std::string, std::vector<double>> extra;
    for (auto _ : state) {
        for (int pair = 0; pair < 5; ++pair) {
            const LiveRun bare = runLive(service, {self, "--live", "bare", std::to_string(kSeconds)}, "bare");
            const LiveRun other = runLive(service, consumer(kSeconds), name);
            bareFps.push_back(bare.fps);
            fps.push_back(other.fps);
            bareCpu.push_back(bare.cpuUsPerFrame);
            cpu.push_back(other.cpuUsPerFrame);
            for (const auto& [key, value] : other.extra) extra[key].push_back(value);
            if (bare.fps > 0 && bare.cpuUsPerFrame > 0) {
                fpsRatios.push_back(other.fps / bare.fps);
                cpuRatios.push_back(other.cpuUsPerFrame / bare.cpuUsPerFrame);
            }
        }
    }
    state.counters["bare_fps"] = median(bareFps);
    state.counters[name + "_fps"] = median(fps);
    state.counters["bare_cpu_us_per_frame"] = median(bareCpu);
    state.counters[name + "_cpu_us_per_frame"] = median(cpu);
    state.counters["fps_ratio"] = median(fpsRatios);
    state.counters["cpu_ratio"] = median(cpuRatios);
    for (const auto& [key, values] : extra) state.counters[name + "_" + key] = median(values);
}

}  // namespace sipc_bench

#endif  // SIPC_BENCH_LIVE_COMPARE_H
