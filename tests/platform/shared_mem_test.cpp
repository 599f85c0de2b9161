// The shared-memory substitute: per-frame statistics as published, retention, and "not available".
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "camera_shared_mem.h"
#include "sim_test.h"

namespace {

using vexa::CameraSharedMem::Brightnessdata;
namespace stats = sensor_sim::stats;

using SharedMemTest = sipc_test::SimTest;

int fetch(uint16_t sensor, uint64_t frameId, Brightnessdata& out) {
    return vexa::CameraSharedMem::CameraSharedMemManager::getInstance().get_image_Brightnessdata_C(
        sensor, frameId, out);
}

// Frames never published, removed, of another sensor, past the retention, or answered by an injected
// status must answer non-zero and leave the caller's record untouched.
TEST_F(SharedMemTest, UnavailableFramesLeaveRecordUntouched) {
    auto out = std::make_unique<Brightnessdata>();
    std::memset(out.get(), 0x5A, sizeof(Brightnessdata));
    const auto before = std::make_unique<Brightnessdata>(*out);
    for (uint64_t f = 1; f <= 65; ++f) stats::publish(4, f, stats::FrameStats{});
    stats::remove(4, 30);
    sensor_sim::injectStatus("get_image_Brightnessdata_C", 3);
    EXPECT_EQ(fetch(4, 2, *out), 3);
    EXPECT_NE(fetch(4, 1, *out), 0);  // the 65th publication pushed out the first (64 kept)
    EXPECT_NE(fetch(4, 30, *out), 0);
    EXPECT_NE(fetch(5, 2, *out), 0);
    EXPECT_EQ(std::memcmp(out.get(), before.get(), sizeof(Brightnessdata)), 0);
    EXPECT_EQ(fetch(4, 2, *out), 0);
    stats::setRetention(2);
    EXPECT_NE(fetch(4, 63, *out), 0);
    EXPECT_EQ(fetch(4, 64, *out), 0);
}

}  // namespace
