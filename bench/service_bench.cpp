// sensor-simd's frame handoff and its cost. The program starts a sensor-simd of its own (a temporary
// socket, a rig of one fast small stream and one camera), attaches to it as a consumer process does, and
// measures:
//   BM_SocketPairRoundTrip  baseline: a request and an answer of the protocol's sizes over a bare socket
//                           pair between two threads, 500 times a second (what any handoff over a socket
//                           must pay when both sides wake from idle)
//   BM_Handoff              from the service's publication of a frame (its delivery time stamp) to the
//                           return of the consumer's getFrame, at 500 frames per second
//   BM_AddedConsumer        the service's CPU time per frame of one more consumer (one against five
//                           consumers of the small stream), as a share of its CPU time per 1920 x 1080
//                           camera frame with one consumer (rendering the frame)
//   BM_DefaultRigThreeConsumers  the default rig served to three consumer processes for 10 s: cameras
//                           through the legacy API (raw pairing on 2 and 3), radars and lidars through
//                           the current API with CPU copies, and a sensorctl stream of the cameras; the
//                           share of nominal frames each got and the CPU cores of each process
//   BM_FullRegisteredSet    the default rig served to the full registered set for 10 s: thirteen
//                           consumer processes, one per application on its own channel (the camera
//                           applications through the legacy API with raw pairing, the sensor ones through
//                           the current API), the worst share of nominal frames among them, the service's
//                           CPU cores, and the handoff p50/p99 of four more cameras' consumers under that
//                           load (beside BM_Handoff's single consumer in the same run)
// p50 and p99 are counters in microseconds; aims: p50 under 25 us, p99 under 100 us (alone and under the
// full set), added share under 5 %, every consumer at least 95 % of its nominal frames (99 % in the full
// registered set).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "image_stream_master.h"
#include "ratio_reporter.h"
#include "sensor_sim/internal/vehicle.h"
#include "sensor_ipc_client.h"
#include "sim_service.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using vexa::imgstream::ImageInfo;
using vexa::imgstream::ImageStreamMaster;

constexpr const char* kRig = R"([rig]
pool_size = 9
[[stream]]
id = 0
rate_hz = 30.0
[stream.processed]
format = "yuv420"
width = 1920
height = 1080
[[stream]]
id = 12
rate_hz = 500.0
[stream.capture]
format = "grey8"
width = 256
height = 32
)";

// The service of the handoff benchmarks, to which this process attaches.
sipc_bench::Service& service() {
    static sipc_bench::Service s(kRig);
    static const bool attached = ::setenv("SENSOR_SIM_SERVICE", s.socket.c_str(), 1) == 0;
    (void)attached;
    return s;
}

uint64_t nowUs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
}

struct Consumer {
    ImageStreamMaster master;
    uint32_t stream;
    vexa::imgstream::OutputType output;
    Consumer(const std::string& app, uint32_t streamId, const std::string& name,
             vexa::imgstream::OutputType out)
        : stream(streamId), output(out) {
        std::vector<vexa::imgstream::ImageStreamConfig> configs{{name, 0, 2, 16, 500, 0}};
        if (master.initConsumer(app, "nvipc-bench-" + app, nullptr, 4) != 0 ||
            master.regConsumerStream(streamId, configs, nullptr) != 0 || master.initConsumerDone() != 0)
            std::fprintf(stderr, "service_bench: consumer %s not registered\n", app.c_str());
    }
    // Takes and returns one frame; the frame's delivery stamp when it came, and when its get returned.
    bool cycle(uint64_t* stampUs, uint64_t* returnedUs = nullptr) {
        ImageInfo info{};
        if (master.getFrame(stream, output, &info) != 0) return false;
        if (returnedUs != nullptr) *returnedUs = nowUs();
        *stampUs = info.wordB;
        master.releaseFrame(stream, output, &info);
        return true;
    }
};

void percentiles(benchmark::State& state, std::vector<double>& us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[us.size() * 99 / 100];
}

void BM_SocketPairRoundTrip(benchmark::State& state) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([fd = fds[1]] {
        char request[24], answer[128] = {};
        while (::recv(fd, request, sizeof request, MSG_WAITALL) == sizeof request)
            ::send(fd, answer, sizeof answer, MSG_NOSIGNAL);
    });
    std::vector<double> us;
    char request[24] = {}, answer[128];
    // Paced like the handoff's frames: both sides wake from idle each time, as the service's do.
    auto next = Clock::now();
    for (auto _ : state) {
        next += std::chrono::microseconds(2000);
        std::this_thread::sleep_until(next);
        const auto start = Clock::now();
        ::send(fds[0], request, sizeof request, MSG_NOSIGNAL);
        ::recv(fds[0], answer, sizeof answer, MSG_WAITALL);
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    ::shutdown(fds[0], SHUT_RDWR);
    echo.join();
    ::close(fds[0]);
    ::close(fds[1]);
    percentiles(state, us);
}
BENCHMARK(BM_SocketPairRoundTrip)->Iterations(2000)->UseRealTime();

void BM_Handoff(benchmark::State& state) {
    service();
    Consumer consumer("BENCHFAST", 12, "ipc-sensor-frontslave", vexa::imgstream::OUTPUT_TYPE_ICP);
    uint64_t stamp = 0;
    for (int i = 0; i < 50; ++i) consumer.cycle(&stamp);  // the producer has started, buffers are mapped
    std::vector<double> us;
    size_t waited = 0;  // cycles whose get was waiting when the frame came: a wake-up from idle
    for (auto _ : state) {
        const uint64_t before = nowUs();
        uint64_t now = 0;
        if (!consumer.cycle(&stamp, &now)) continue;
        us.push_back(static_cast<double>(now - std::min(now, stamp)));
        waited += stamp > before ? 1 : 0;
    }
    percentiles(state, us);
    state.counters["waited_pct"] = us.empty() ? 0 : 100.0 * double(waited) / double(us.size());
}
BENCHMARK(BM_Handoff)->Iterations(2000)->UseRealTime();

// The service's CPU time per frame of one output while `consumers` consumers take every frame for
// `seconds`: the camera's 1920 x 1080 frames, or the small stream's.
double serviceUsPerFrame(bool camera, int consumers, double seconds) {
    std::vector<std::unique_ptr<Consumer>> all;
    for (int i = 0; i < consumers; ++i) {
        const std::string app = "BENCHADD" + std::to_string(i);
        all.push_back(camera ? std::make_unique<Consumer>(app, 0, "ipc-camera-wideleft-isp0",
                                                          vexa::imgstream::OUTPUT_TYPE_ISP)
                             : std::make_unique<Consumer>(app, 12, "ipc-sensor-frontslave",
                                                          vexa::imgstream::OUTPUT_TYPE_ICP));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // producer started, buffers mapped
    const uint64_t before = service().cpuNs();
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    std::vector<std::thread> threads;
    std::vector<uint64_t> frames(consumers, 0);
    for (int i = 0; i < consumers; ++i) {
        threads.emplace_back([&, i] {
            uint64_t stamp;
            while (Clock::now() < end) frames[i] += all[i]->cycle(&stamp) ? 1 : 0;
        });
    }
    for (auto& t : threads) t.join();
    const uint64_t spent = service().cpuNs() - before;
    return frames[0] == 0 ? 0 : spent / 1000.0 / static_cast<double>(frames[0]);
}

// What one more consumer costs the service per frame, against what rendering a 1920 x 1080 frame costs
// it. Nothing of a frame is copied per consumer, so the added cost is the same for any frame size: it is
// measured on the small 500 Hz stream, whose rendering is cheap and steady, in phases of one and of five
// consumers in turns (the median of five pairs, so that a change of the machine's load between phases
// moves one pair). Rendering is measured with one consumer of the camera, whose cost the memory
// bandwidth of a shared machine moves by a fifth from phase to phase: the median of five phases.
void BM_AddedConsumer(benchmark::State& state) {
    service();
    constexpr int kAdded = 4;
    std::vector<double> renders, added;
    for (auto _ : state) {
        for (int pair = 0; pair < 5; ++pair) {
            renders.push_back(serviceUsPerFrame(true, 1, 1.0));
            const double one = serviceUsPerFrame(false, 1, 1.0),
                         more = serviceUsPerFrame(false, 1 + kAdded, 1.0);
            added.push_back((more - one) / kAdded);
        }
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v.empty() ? -1 : v[v.size() / 2];
    };
    state.counters["render_us_per_frame"] = median(renders);
    state.counters["added_us_per_consumer"] = median(added);
    state.counters["added_share_pct"] = std::max(0.0, median(added) / median(renders) * 100.0);
}
BENCHMARK(BM_AddedConsumer)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- The default rig and three consumer processes --------------------------------------------------

using namespace vexa::cameraipcclient;

struct Group {
    uint32_t app;
    std::vector<uint32_t> sensors;
    bool raw;
    double rate;
};
// One client object and thread per group, as live_rig_bench's application; sensorctl takes app 8.
const std::vector<Group> kCameraGroups = {
    {1, {0, 1}, false, 30}, {2, {2}, true, 30},     {3, {3}, true, 30},      {4, {4, 5}, false, 30},
    {5, {6, 7}, false, 30}, {6, {8, 9}, false, 30}, {7, {10, 11}, false, 30}};
const std::vector<Group> kSensorGroups = {{9, {12, 13}, false, 20},
                                          {10, {16, 17}, false, 20},
                                          {11, {18, 19}, false, 20},
                                          {12, {14, 20, 21}, false, 10}};

// A consumer process: serves its groups for `seconds` and prints "frames RECEIVED due DUE".
int consume(const std::string& kind, int seconds) {
    const bool cameras = kind == "cameras";
    const auto& groups = cameras ? kCameraGroups : kSensorGroups;
    std::atomic<uint64_t> received{0};
    uint64_t due = 0;
    std::vector<std::thread> threads;
    for (const Group& g : groups) {
        due += static_cast<uint64_t>(g.rate * seconds) * g.sensors.size();
        threads.emplace_back([&g, &received, cameras, seconds] {
            const auto end = Clock::now() + std::chrono::seconds(seconds);
            unsigned int mask = 0;
            for (uint32_t sensor : g.sensors) mask |= 1u << sensor;
            if (cameras) {
                CCameraIpcClient client(static_cast<AppType>(g.app));
                unsigned short legacyMask = static_cast<unsigned short>(mask);
                if (client.Init(legacyMask, g.raw) != RESULT_OK || client.Start() != RESULT_OK) return;
                while (Clock::now() < end) {
                    for (uint32_t sensor : g.sensors) {
                        BufFrameObj frame{};
                        if (client.GetFrame(static_cast<SensorName>(sensor), &frame) != RESULT_OK) continue;
                        if (!g.raw || frame.rawBufObj != nullptr) ++received;
                        client.ReleaseFrame(&frame);
                    }
                }
            } else {
                vexa::sensor_access::SensorIpcClient client(static_cast<AppType>(g.app));
                if (client.init(mask, 0, nullptr) != RESULT_OK || client.start() != RESULT_OK) return;
                while (Clock::now() < end) {
                    for (uint32_t sensor : g.sensors) {
                        FrameBufObj frame{};
                        if (client.getFrame(static_cast<SensorType>(sensor), frame, true) != RESULT_OK)
                            continue;
                        if (frame.cpuData != nullptr) ++received;
                        client.releaseFrame(frame);
                    }
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    std::printf("frames %llu due %llu\n", static_cast<unsigned long long>(received.load()),
                static_cast<unsigned long long>(due));
    return 0;
}

// The consumer's "frames N due M" line (the library prints lines of its own before it).
double shareOf(const std::string& file) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        double frames = 0, due = 0;
        if (std::sscanf(line.c_str(), "frames %lf due %lf", &frames, &due) == 2 && due > 0)
            return frames / due;
    }
    return -1;
}

void BM_DefaultRigThreeConsumers(benchmark::State& state) {
    const int seconds = static_cast<int>(state.range(0));
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    for (auto _ : state) {
        sipc_bench::Service rig(nullptr);
        const auto start = Clock::now();
        const uint64_t cpu0 = rig.cpuNs();
        const pid_t cameras = sipc_bench::spawnWith({self, "--consume", "cameras", std::to_string(seconds)},
                                                    rig.dir + "/cameras.out", rig.socket);
        const pid_t sensors = sipc_bench::spawnWith({self, "--consume", "sensors", std::to_string(seconds)},
                                                    rig.dir + "/sensors.out", rig.socket);
        pid_t ctl = -1;
#ifdef SIPC_SENSORCTL_BIN
        ctl = sipc_bench::spawnWith({SIPC_SENSORCTL_BIN, "stream", "--api", "legacy", "--camera-app", "8",
                                     "--sensors", "cameras", "--duration", std::to_string(seconds), "--json"},
                                    rig.dir + "/sensorctl.out", rig.socket);
#endif
        // The service's threads are counted while they live: its producers end with their last consumer.
        std::this_thread::sleep_until(start + std::chrono::milliseconds(seconds * 1000 - 500));
        state.counters["service_cores"] =
            double(rig.cpuNs() - cpu0) / 1e9 / std::chrono::duration<double>(Clock::now() - start).count();
        const double cameraCpu = sipc_bench::reap(cameras), sensorCpu = sipc_bench::reap(sensors),
                     ctlCpu = sipc_bench::reap(ctl);
        const double wall = std::chrono::duration<double>(Clock::now() - start).count();
        state.counters["cameras_cores"] = cameraCpu / wall;
        state.counters["sensors_cores"] = sensorCpu / wall;
        state.counters["sensorctl_cores"] = ctlCpu / wall;
        state.counters["cameras_share"] = shareOf(rig.dir + "/cameras.out");
        state.counters["sensors_share"] = shareOf(rig.dir + "/sensors.out");
    }
}
BENCHMARK(BM_DefaultRigThreeConsumers)->Arg(10)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// --- The full registered set ------------------------------------------------------------------------

double nominalRate(uint32_t sensor) {
    if (sensor < 12) return 30;
    return sensor == 14 || sensor == 20 || sensor == 21 ? 10 : 20;
}

// One application's consumer process: every stream its API serves, from one thread (calls on one client
// object never overlap), for `seconds`; prints "frames RECEIVED due DUE". Each round takes as many frames
// of a sensor as its rate is a multiple of the slowest one's, since a get waits for one frame only.
int consumeApp(uint32_t app, int seconds) {
    const bool legacy = app <= 8;
    std::vector<uint32_t> sensors;
    for (uint32_t s = legacy ? 0 : 12; s < (legacy ? 12u : 22u); ++s) {
        if (s != 15) sensors.push_back(s);
    }
    uint64_t received = 0;
    double due = 0, slowest = 1e9;
    for (uint32_t s : sensors) {
        due += nominalRate(s) * seconds;
        slowest = std::min(slowest, nominalRate(s));
    }
    auto takes = [&](uint32_t s) { return static_cast<int>(nominalRate(s) / slowest + 0.5); };
    unsigned int mask = 0;
    for (uint32_t s : sensors) mask |= 1u << s;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    if (legacy) {
        CCameraIpcClient client(static_cast<AppType>(app));
        unsigned short legacyMask = static_cast<unsigned short>(mask);
        if (client.Init(legacyMask, true) != RESULT_OK || client.Start() != RESULT_OK) return 1;
        while (Clock::now() < end) {
            for (uint32_t s : sensors) {
                for (int n = takes(s); n > 0; --n) {
                    BufFrameObj frame{};
                    if (client.GetFrame(static_cast<SensorName>(s), &frame) != RESULT_OK) continue;
                    ++received;
                    client.ReleaseFrame(&frame);
                }
            }
        }
    } else {
        vexa::sensor_access::SensorIpcClient client(static_cast<AppType>(app));
        if (client.init(mask, 0, nullptr) != RESULT_OK || client.start() != RESULT_OK) return 1;
        while (Clock::now() < end) {
            for (uint32_t s : sensors) {
                for (int n = takes(s); n > 0; --n) {
                    FrameBufObj frame{};
                    if (client.getFrame(static_cast<SensorType>(s), frame, false) != RESULT_OK) continue;
                    ++received;
                    client.releaseFrame(frame);
                }
            }
        }
    }
    std::printf("frames %llu due %.0f\n", static_cast<unsigned long long>(received), due);
    return 0;
}

void BM_FullRegisteredSet(benchmark::State& state) {
    const int seconds = static_cast<int>(state.range(0));
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    for (auto _ : state) {
        sipc_bench::Service rig(nullptr);
        // A vehicle of its own for the handoff consumers: this process's platform calls serve BM_Handoff.
        std::string error;
        const auto vehicle = sensor_sim::vehicle::connect(rig.socket, &error);
        if (!vehicle) {
            state.SkipWithError(error.c_str());
            return;
        }
        std::vector<pid_t> apps;
        for (uint32_t app = 0; app <= 12; ++app)
            apps.push_back(sipc_bench::spawnWith({self, "--consume-app", std::to_string(app), std::to_string(seconds)},
                                                 rig.dir + "/app" + std::to_string(app) + ".out", rig.socket));
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // every consumer started
        const auto start = Clock::now();
        const uint64_t cpu0 = rig.cpuNs();
        // Handoffs of four more cameras' consumers, one thread each, while the thirteen take every frame.
        std::vector<std::vector<double>> us(4);
        std::vector<std::thread> threads;
        const std::vector<std::pair<uint32_t, const char*>> cameras = {
            {0, "ipc-camera-wideleft-isp0"}, {1, "ipc-camera-rear-isp0"}, {4, "ipc-camera-sideleftfront-isp0"},
            {5, "ipc-camera-siderightfront-isp0"}};
        const auto stop = start + std::chrono::milliseconds((seconds - 2) * 1000);
        for (size_t i = 0; i < cameras.size(); ++i) {
            threads.emplace_back([&, i] {
                auto c = vehicle->createConsumer();
                const std::string app = "BENCHLOAD" + std::to_string(i);
                const uint32_t stream = cameras[i].first;
                c->initConsumer(app, "nvipc-bench-" + app, 4);
                c->regConsumerStream(stream, {{cameras[i].second, 0, 2, 16, 500, 0}}, false, std::nullopt);
                c->initConsumerDone();
                for (int warm = 0; warm < 10;) {
                    sensor_sim::streams::FrameSpec f;
                    if (c->getFrame(stream, 1, &f) == 0) {
                        c->releaseFrame(stream, 1, f.objIndex, f.counter);
                        ++warm;
                    }
                    if (Clock::now() > stop) return;
                }
                while (Clock::now() < stop) {
                    sensor_sim::streams::FrameSpec f;
                    if (c->getFrame(stream, 1, &f) != 0) continue;
                    const uint64_t now = nowUs();
                    us[i].push_back(static_cast<double>(now - std::min<uint64_t>(now, f.words[1])));
                    c->releaseFrame(stream, 1, f.objIndex, f.counter);
                }
            });
        }
        for (auto& t : threads) t.join();
        state.counters["service_cores"] =
            double(rig.cpuNs() - cpu0) / 1e9 / std::chrono::duration<double>(Clock::now() - start).count();
        double worst = 1e9;
        for (uint32_t app = 0; app <= 12; ++app) {
            sipc_bench::reap(apps[app]);
            worst = std::min(worst, shareOf(rig.dir + "/app" + std::to_string(app) + ".out"));
        }
        state.counters["worst_share"] = worst;
        std::vector<double> all;
        for (auto& v : us) all.insert(all.end(), v.begin(), v.end());
        percentiles(state, all);
    }
}
BENCHMARK(BM_FullRegisteredSet)->Arg(10)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--consume") return consume(argv[2], std::atoi(argv[3]));
    if (argc == 4 && std::string(argv[1]) == "--consume-app")
        return consumeApp(static_cast<uint32_t>(std::atoi(argv[2])), std::atoi(argv[3]));
    using sipc_bench::Aim;
    const std::string rig = "BM_DefaultRigThreeConsumers/10/iterations:1/real_time";
    const std::string full = "BM_FullRegisteredSet/10/iterations:1/real_time";
    return sipc_bench::runWithRatios(
        argc, argv, "BM_SocketPairRoundTrip",
        {{"BM_Handoff/iterations:2000/real_time", "p50_us", 25, true, "us"},
         {"BM_Handoff/iterations:2000/real_time", "p99_us", 100, true, "us"},
         {"BM_AddedConsumer/iterations:1/real_time", "added_share_pct", 5, true, "%"},
         {rig, "cameras_share", 0.95, false, "of_nominal"},
         {rig, "sensors_share", 0.95, false, "of_nominal"},
         {full, "worst_share", 0.99, false, "of_nominal"},
         {full, "p50_us", 25, true, "us"},
         {full, "p99_us", 100, true, "us"}});
}
