// Does the live vehicle keep its rates while an application takes and copies every frame? The program
// runs as an application does: the rig of SENSOR_SIM_RIG or the default one, consumers through the
// shipped library's public API, one thread per client object. Cameras come through the legacy API (with
// raw pairing on cameras 2 and 3, both frames copied through NvSciBuf), radars and lidars through the
// current API with its CPU copy. The baseline is the rig's nominal rate: each counter is the ratio of
// frames received to frames due in the run, and cpu_cores the process's CPU time over the wall time.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "nvscibuf.h"
#include "ratio_reporter.h"
#include "sensor_ipc_client.h"
#include "sensor_sim/rig.h"

namespace {

using namespace vexa::cameraipcclient;
using Clock = std::chrono::steady_clock;

// Copies the visible lines of every plane into `dst`, packed, as an application's CPU copy does.
bool copyImage(NvSciBufObj obj, std::vector<uint8_t>& dst) {
    NvSciBufAttrList list = nullptr;
    NvSciBufAttrKeyValuePair pairs[] = {{NvSciBufImageAttrKey_PlaneCount, nullptr, 0},
                                        {NvSciBufImageAttrKey_PlaneWidth, nullptr, 0},
                                        {NvSciBufImageAttrKey_PlaneHeight, nullptr, 0},
                                        {NvSciBufImageAttrKey_PlaneBitsPerPixel, nullptr, 0}};
    if (obj == nullptr || NvSciBufObjGetAttrList(obj, &list) != NvSciError_Success ||
        NvSciBufAttrListGetAttrs(list, pairs, 4) != NvSciError_Success || pairs[0].len == 0) {
        return false;
    }
    const uint32_t planes = std::min(*static_cast<const uint32_t*>(pairs[0].value), 3u);
    void* ptrs[3] = {};
    uint32_t sizes[3] = {}, pitches[3] = {};
    size_t total = 0;
    for (uint32_t p = 0; p < planes; ++p) {
        pitches[p] = static_cast<const uint32_t*>(pairs[1].value)[p] *
                     static_cast<const uint32_t*>(pairs[3].value)[p] / 8;
        sizes[p] = pitches[p] * static_cast<const uint32_t*>(pairs[2].value)[p];
        total += sizes[p];
    }
    dst.resize(total);
    size_t offset = 0;
    for (uint32_t p = 0; p < planes; ++p) {
        ptrs[p] = dst.data() + offset;
        offset += sizes[p];
    }
    return NvSciBufObjGetPixels(obj, nullptr, ptrs, sizes, pitches) == NvSciError_Success;
}

struct Group {
    AppType app;
    std::vector<uint32_t> sensors;
    bool legacy;
    bool raw;
    double rate;          // nominal frames per second of each sensor
    const char* counter;  // the class it counts into
};

struct Tally {
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> due{0};
};

// The group's sensors that the init's mask kept (a rig may lack some).
std::vector<uint32_t> present(const std::vector<uint32_t>& sensors, unsigned int mask) {
    std::vector<uint32_t> out;
    for (uint32_t s : sensors) {
        if ((mask & (1u << s)) != 0) out.push_back(s);
    }
    return out;
}

void runLegacy(const Group& g, std::chrono::seconds length, Tally& tally) {
    CCameraIpcClient client(g.app);
    unsigned short mask = 0;
    for (uint32_t s : g.sensors) mask = static_cast<unsigned short>(mask | (1u << s));
    if (client.Init(mask, g.raw) != RESULT_OK || client.Start() != RESULT_OK) return;
    const std::vector<uint32_t> sensors = present(g.sensors, mask);
    std::vector<uint8_t> image, raw;
    const auto end = Clock::now() + length;
    while (!sensors.empty() && Clock::now() < end) {
        for (uint32_t s : sensors) {
            BufFrameObj frame{};
            if (client.GetFrame(static_cast<SensorName>(s), &frame) != RESULT_OK) continue;
            bool copied = copyImage(frame.bufObj, image);
            if (g.raw) copied = copied && copyImage(frame.rawBufObj, raw);
            client.ReleaseFrame(&frame);
            if (copied) ++tally.frames;
        }
    }
    client.DeInit();
}

void runCurrent(const Group& g, std::chrono::seconds length, Tally& tally) {
    vexa::sensor_access::SensorIpcClient client(g.app);
    unsigned int mask = 0;
    for (uint32_t s : g.sensors) mask |= 1u << s;
    if (client.init(mask, 0, nullptr) != RESULT_OK || client.start() != RESULT_OK) return;
    const std::vector<uint32_t> sensors = present(g.sensors, mask);
    const auto end = Clock::now() + length;
    while (!sensors.empty() && Clock::now() < end) {
        for (uint32_t s : sensors) {
            FrameBufObj frame{};
            if (client.getFrame(static_cast<SensorType>(s), frame, true) != RESULT_OK) continue;
            if (frame.cpuData != nullptr) ++tally.frames;
            client.releaseFrame(frame);
        }
    }
    client.deInit();
}

double cpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// The default rig's consumers; each group is one client object served by one thread, and the sensors of
// a group share a rate, so serving them in turn keeps up with all of them.
const std::vector<Group> kGroups = {
    {AppType(1), {0, 1}, true, false, 30, "cam_1080p"},    {AppType(2), {2}, true, true, 30, "cam_pair"},
    {AppType(3), {3}, true, true, 30, "cam_pair"},         {AppType(4), {4, 5}, true, false, 30, "cam_1080p"},
    {AppType(5), {6, 7}, true, false, 30, "cam_1080p"},    {AppType(6), {8, 9}, true, false, 30, "surround"},
    {AppType(7), {10, 11}, true, false, 30, "surround"},   {AppType(9), {12, 13}, false, false, 20, "radar"},
    {AppType(10), {16, 17}, false, false, 20, "radar"},    {AppType(11), {18, 19}, false, false, 20, "radar"},
    {AppType(12), {14, 20, 21}, false, false, 10, "lidar"}};

void BM_DefaultRigWithCopyingConsumer(benchmark::State& state) {
    const std::chrono::seconds length(state.range(0));
    std::map<std::string, Tally> tallies;
    double cpu = 0, wall = 0;
    for (auto _ : state) {
        const double cpu0 = cpuSeconds();
        const auto t0 = Clock::now();
        std::vector<std::thread> threads;
        for (const Group& g : kGroups) {
            Tally& t = tallies[g.counter];
            t.due += static_cast<uint64_t>(g.rate * double(length.count()) * double(g.sensors.size()));
            threads.emplace_back(
                [&g, &t, length] { g.legacy ? runLegacy(g, length, t) : runCurrent(g, length, t); });
        }
        for (auto& t : threads) t.join();
        wall = std::chrono::duration<double>(Clock::now() - t0).count();
        cpu = cpuSeconds() - cpu0;
    }
    for (auto& [name, t] : tallies)
        state.counters[name] = double(t.frames) / double(std::max<uint64_t>(t.due, 1));
    state.counters["cpu_cores"] = cpu / wall;
    uint64_t pool = 0, fifo = 0, late = 0;
    for (uint32_t id = 0; id < 22; ++id) {
        for (uint32_t out : {0u, 1u}) {
            const auto st = sensor_sim::rig::outputStats(id, out);
            pool += st.poolDrops;
            fifo += st.fifoDrops;
            if (out == 0) late += st.lateSkips;
        }
    }
    state.counters["pool_drops"] = double(pool);
    state.counters["fifo_drops"] = double(fifo);
    state.counters["late_skips"] = double(late);
}

BENCHMARK(BM_DefaultRigWithCopyingConsumer)->Arg(10)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    // No time baseline: the rates are already ratios of the nominal ones. cpu_cores is bounded at one
    // core so that a regression of the whole frame path shows in the table.
    using sipc_bench::Aim;
    const std::string run = "BM_DefaultRigWithCopyingConsumer/10/iterations:1/real_time";
    std::vector<Aim> aims;
    for (const char* group : {"cam_1080p", "cam_pair", "surround", "radar", "lidar"})
        aims.push_back(Aim{run, group, 0.95, false, "of_nominal"});
    aims.push_back(Aim{run, "cpu_cores", 1.0, true, "cores"});
    aims.push_back(Aim{run, "pool_drops", 0, true, "frames"});
    return sipc_bench::runWithRatios(argc, argv, "", aims);
}
