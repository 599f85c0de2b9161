// One minute of the full default vehicle with every frame taken and CPU-copied (and cameras 2 and 3
// also paired with their raw frames): the rates hold, memory stays flat, and after deInit no frame is
// held beyond the raw frames that the pairing queue keeps on purpose.
#include <gmock/gmock.h>
#include <gtest/gtest.h>


#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "resident_memory.h"
#include "sensor_ipc_client.h"
#include "sensor_sim/control.h"
#include "sensor_sim/rig.h"

namespace {

using namespace vexa::cameraipcclient;
using vexa::sensor_access::SensorIpcClient;
using Clock = std::chrono::steady_clock;

struct Counts {
    std::mutex mutex;
    std::map<uint32_t, uint64_t> frames;  // per sensor id
    uint64_t paired = 0;
    uint64_t pairFailures = 0;
    void add(uint32_t sensor) {
        std::lock_guard<std::mutex> lock(mutex);
        ++frames[sensor];
    }
};

double soakSeconds() {
    const char* value = std::getenv("SIPC_SOAK_SECONDS");
    return value != nullptr ? std::atof(value) : 60.0;
}

TEST(Soak, FullDefaultRigWithEveryFrameCopied) {
    sensor_sim::reset();
    ASSERT_EQ(sensor_sim::rig::load(sensor_sim::rig::defaultText()), "");
    sensor_sim::rig::start();

    // Cameras 2 and 3 paired through the legacy API; every camera copied through the current API on a
    // second application; every radar and lidar copied on a third.
    CCameraIpcClient pairing(APP_PEX_ENC);
    unsigned short pairedMask = (1u << 2) | (1u << 3);
    ASSERT_EQ(pairing.Init(pairedMask, true), RESULT_OK);
    CCameraIpcClient cameras(APP_CAMERA_IRC);
    unsigned short cameraMask = 0x0FFF;
    ASSERT_EQ(cameras.Init(cameraMask, false), RESULT_OK);
    SensorIpcClient copier(APP_CAMERA_IRC);
    SensorIpcClient sensors(APP_SENSOR_DEMO);
    unsigned int sensorMask = 0x3F7000;
    ASSERT_EQ(sensors.init(sensorMask, 5, nullptr), RESULT_OK);
    ASSERT_EQ(pairing.Start(), RESULT_OK);
    ASSERT_EQ(cameras.Start(), RESULT_OK);
    ASSERT_EQ(sensors.start(), RESULT_OK);

    const double seconds = soakSeconds();
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    std::atomic<bool> failed{false};
    Counts counts;

    std::thread pairThread([&] {
        while (Clock::now() < end && !failed) {
            for (SensorName name : {CAMERA_WIDE, CAMERA_NARROW}) {
                BufFrameObj frame{};
                int32_t result = pairing.GetFrame(name, &frame);
                if (result == RESULT_OK) {
                    std::lock_guard<std::mutex> lock(counts.mutex);
                    ++counts.paired;
                } else if (result == RESULT_FAILED) {
                    std::lock_guard<std::mutex> lock(counts.mutex);
                    ++counts.pairFailures;
                    continue;
                } else {
                    continue;  // nothing waiting yet
                }
                if (pairing.ReleaseFrame(&frame) != RESULT_OK) failed = true;
            }
        }
    });
    auto copyLoop = [&](SensorIpcClient& client, std::vector<SensorType> types) {
        while (Clock::now() < end && !failed) {
            for (SensorType type : types) {
                FrameBufObj frame{};
                int32_t result = client.getFrame(type, frame, true);
                if (result == RESULT_STREAM_CODE_9) continue;
                if (result != RESULT_OK || frame.cpuDataSize == 0) {
                    failed = true;
                    return;
                }
                counts.add(type);
                if (client.releaseFrame(frame) != RESULT_OK) failed = true;
            }
        }
    };
    std::vector<SensorType> cameraTypes, sensorTypes;
    for (uint32_t id = 0; id < 12; ++id) cameraTypes.push_back(static_cast<SensorType>(id));
    for (uint32_t id = 12; id < 22; ++id) {
        if (id != 15) sensorTypes.push_back(static_cast<SensorType>(id));
    }
    std::thread cameraThread(copyLoop, std::ref(copier), cameraTypes);
    std::thread sensorThread(copyLoop, std::ref(sensors), sensorTypes);

    // Memory is sampled once everything runs and again at the end.
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds / 3));
    const size_t warm = sipc_test::residentBytes();
    pairThread.join();
    cameraThread.join();
    sensorThread.join();
    const size_t final = sipc_test::residentBytes();
    ASSERT_FALSE(failed);

    pairing.Stop();
    cameras.Stop();
    sensors.stop();
    pairing.DeInit();
    cameras.DeInit();
    sensors.deInit();

    std::printf("soak: %.0f s, resident %zu -> %zu KiB, paired %llu, pairing failures %llu\n", seconds,
                warm / 1024, final / 1024, static_cast<unsigned long long>(counts.paired),
                static_cast<unsigned long long>(counts.pairFailures));
    for (auto& [id, frames] : counts.frames) {
        std::printf("soak: sensor %2u %6llu frames copied, %.1f fps\n", id, static_cast<unsigned long long>(frames),
                    double(frames) / seconds);
    }

    // Rates: 30 fps cameras, 20 Hz radars, 10 Hz lidars, at least 90 % of every stream arrived.
    const std::map<uint32_t, double> rates = {{0, 30},  {1, 30},  {2, 30},  {3, 30},  {4, 30},  {5, 30},
                                              {6, 30},  {7, 30},  {8, 30},  {9, 30},  {10, 30}, {11, 30},
                                              {12, 20}, {13, 20}, {14, 10}, {16, 20}, {17, 20}, {18, 20},
                                              {19, 20}, {20, 10}, {21, 10}};
    for (auto [id, rate] : rates) {
        EXPECT_GE(double(counts.frames[id]), 0.9 * rate * seconds) << "sensor " << id;
    }
    EXPECT_GE(double(counts.paired), 0.95 * 2 * 30 * seconds * 0.9);
    EXPECT_LE(double(counts.pairFailures), 0.02 * double(counts.paired));
    EXPECT_LE(final, warm + 16u * 1024 * 1024) << "resident memory grew from " << warm << " to " << final;

    // Only raw frames queued for a later processed frame may stay held: at most one per raw camera.
    std::map<uint32_t, int> rawHeld;
    for (auto& h : sensor_sim::streams::held()) {
        EXPECT_EQ(h.consumer, "PXE") << "stream " << h.streamId;
        EXPECT_EQ(h.output, 0u) << "stream " << h.streamId;
        EXPECT_TRUE(h.streamId == 2 || h.streamId == 3) << "stream " << h.streamId;
        ++rawHeld[h.streamId];
    }
    for (auto& [stream, held] : rawHeld) EXPECT_LE(held, 1) << "stream " << stream;
    sensor_sim::rig::stop();
}

}  // namespace
