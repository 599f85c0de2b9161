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

// Descriptors, blocks and brightness must land where the client reads them (a shifted or partial copy
// would hand the client other regions' cells).
TEST_F(SharedMemTest, PublishedStatisticsAreCopied) {
    stats::FrameStats s;
    for (uint32_t r = 0; r < stats::kRegions; ++r) {
        for (uint32_t w = 0; w < 8; ++w) s.descriptors[r][w] = r * 10 + w;
        s.data[r * stats::kBlockBytes] = uint8_t(r + 1);
    }
    s.data.back() = 0x99;
    s.brightness = 0.75f;
    stats::publish(2, 1534, s);
    auto out = std::make_unique<Brightnessdata>();
    ASSERT_EQ(fetch(2, 1534, *out), 0);
    EXPECT_EQ(out->roi[1].gridWidth, 12u);
    EXPECT_EQ(out->roi[3].gridHeight, 33u);
    EXPECT_EQ(out->roi[3].reserved1, 37u);
    EXPECT_EQ(out->data[2 * stats::kBlockBytes], 3);
    EXPECT_EQ(out->data[sizeof(out->data) - 1], 0x99);
    EXPECT_FLOAT_EQ(out->brightness, 0.75f);
    EXPECT_EQ(sensor_sim::journalOf("get_image_Brightnessdata_C"), std::vector<std::string>{"2,1534"});
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
