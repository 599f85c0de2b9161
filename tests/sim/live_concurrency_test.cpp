// Producer threads against consumer threads that take, hold, release, tear down and come back, while the
// vehicle is restarted: data races (under ThreadSanitizer), lost buffer returns, deadlocks.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>

#include "live_consumer.h"
#include "sim_test.h"

namespace {

namespace rig = sensor_sim::rig;
using namespace std::chrono_literals;
using sipc_test::ImageInfo;
using sipc_test::kCapture;
using sipc_test::kProcessed;
using sipc_test::LiveConsumer;
using sipc_test::OutputType;

const char* const kRig = R"(
[rig]
pool_size = 4
fifo_depth = 2
[[stream]]
id = 2
rate_hz = 200
[stream.processed]
format = "yuv420"
width = 64
height = 16
[stream.capture]
format = "bayer16"
width = 64
height = 16
offset_ms = -1
jitter_ms = 0.5
drop_rate = 0.05
[[stream]]
id = 12
rate_hz = 200
[stream.capture]
format = "grey8"
width = 64
height = 8
)";

// Each consumer takes frames, holds up to two, checks its counters never go back, and releases; one
// of them tears down and re-creates itself in a loop so producers end and start under traffic. Every
// pool buffer must be back when all is released, and stop() must not hang.
TEST(LiveConcurrency, ConsumersChurnAgainstProducers) {
    sensor_sim::reset();
    ASSERT_EQ(rig::load(kRig), "");
    rig::start();
    std::atomic<int> frames{0};
    auto consume = [&](const char* name, unsigned id, std::vector<std::string> names, bool churn) {
        const auto deadline = std::chrono::steady_clock::now() + 1500ms;
        while (std::chrono::steady_clock::now() < deadline) {
            LiveConsumer c(name);
            c.reg(id, names, 50);
            c.start();
            std::deque<std::pair<ImageInfo, OutputType>> held;
            uint64_t last[2] = {0, 0};
            for (int i = 0; i < (churn ? 15 : 1000000) && std::chrono::steady_clock::now() < deadline; ++i) {
                const OutputType out = names.size() == 2 && i % 2 == 1 ? kProcessed : kCapture;
                ImageInfo info{};
                if (c.take(id, out, &info) != 0) continue;
                EXPECT_GT(info.frameCnt, last[out]);
                last[out] = info.frameCnt;
                ++frames;
                held.emplace_back(info, out);
                if (held.size() > 2) {
                    EXPECT_EQ(c.give(id, held.front().second, held.front().first), 0);
                    held.pop_front();
                }
            }
            for (auto& [info, out] : held) EXPECT_EQ(c.give(id, out, info), 0);
            if (!churn) break;
            c.master().deinitStream();
        }
    };
    std::thread a(consume, "PAIR", 2u, std::vector<std::string>{"ipc-camera-wide", "ipc-camera-wide-isp0"},
                  false);
    std::thread b(consume, "CHURN", 12u, std::vector<std::string>{"ipc-sensor-frontslave"}, true);
    std::thread d(consume, "RADAR", 12u, std::vector<std::string>{"ipc-sensor-frontslave"}, false);
    // Traffic flows on every consumer before the restart.
    EXPECT_TRUE(sipc_test::waitFor([&] { return frames.load() > 10; }));
    rig::start();  // a restart under traffic: the old producers are joined, new ones serve the consumers
    a.join();
    b.join();
    d.join();
    EXPECT_GT(frames.load(), 30);  // traffic flowed all along (a slow instrumented build takes fewer)
    rig::stop();
    EXPECT_EQ(rig::producerThreads(), 0u);
    for (auto [id, out] : {std::pair<uint32_t, uint32_t>{2, 0}, {2, 1}, {12, 0}})
        EXPECT_EQ(rig::outputStats(id, out).inUse, 0u) << id << "/" << out;
}

}  // namespace
