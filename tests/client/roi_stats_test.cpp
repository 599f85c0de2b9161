// ROI statistics: the packing of the four regions' blocks, "not available", the legacy null frame, a
// null area and regions larger than their block.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "frame_test.h"
#include "sensor_ipcclient_impl.h"

namespace {

using namespace vexa::cameraipcclient;
using vexa::sensor_access::SensorIpcClientImpl;

sensor_sim::stats::FrameStats statsWithRegions(std::array<std::pair<uint32_t, uint32_t>, 4> grids) {
    sensor_sim::stats::FrameStats stats;
    for (size_t i = 0; i < 4; ++i) {
        stats.descriptors[i][2] = grids[i].first;
        stats.descriptors[i][3] = grids[i].second;
    }
    for (size_t i = 0; i < stats.data.size(); ++i) stats.data[i] = static_cast<uint8_t>(i / 16384 + 1 + i % 7);
    stats.brightness = 0.75f;
    return stats;
}

class RoiStats : public sipc_test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        vexa::sensor_access::Clogger::GetInstance().initIrdLogger(
            sipc_test::makeLogger(vexa::vexalog::LogLevel::kInfo));
        sensor_sim::clearJournal();
        area.assign(65536 + 64, 0xCD);
        out.roiData = area.data();
    }
    std::vector<uint8_t> area;
    CameraFrameRoiStatsData out{};
};

// Regions of 8x8, 16x16, 0x0 and 4x4 cells are packed one after another.
TEST_F(RoiStats, RegionsArePackedWithoutGaps) {
    auto published = statsWithRegions({{{8, 8}, {16, 16}, {0, 0}, {4, 4}}});
    sensor_sim::stats::publish(5, 1234, published);
    BufFrameObj frame{};
    frame.sensorId = 5;
    frame.frameCnt = 1234;
    ASSERT_EQ(CCameraIpcClient(APP_CAMERA_DEMO).GetFrameRoiStatsData(&frame, &out), RESULT_OK);
    EXPECT_EQ(out.valid, 1u);
    EXPECT_FLOAT_EQ(out.brightness, 0.75f);
    EXPECT_EQ(out.roiDataSize, 5376u);
    EXPECT_EQ(out.roiCount, 4u);
    EXPECT_EQ(out.roiCellCount, 64u);
    EXPECT_EQ(out.cellValueCount, 4u);
    EXPECT_EQ(out.frameId, 1234u);
    EXPECT_EQ(out.roiData, area.data());
    EXPECT_TRUE(std::equal(area.begin(), area.begin() + 1024, published.data.begin()));
    EXPECT_TRUE(std::equal(area.begin() + 1024, area.begin() + 5120, published.data.begin() + 16384));
    EXPECT_TRUE(std::equal(area.begin() + 5120, area.begin() + 5376, published.data.begin() + 3 * 16384));
    EXPECT_EQ(area[5376], 0xCD);
    EXPECT_THAT(sensor_sim::journalOf("get_image_Brightnessdata_C"), testing::ElementsAre("5,1234"));
}

// Statistics that are not available: -5, the record cleared (valid 0), the caller's area untouched.
TEST_F(RoiStats, NotAvailable) {
    FrameBufObj frame{};
    frame.sensorId = 2;
    frame.frameCnt = 99;
    out.valid = 7;
    out.brightness = 3.0f;
    out.roiDataSize = 12;
    ASSERT_EQ(SensorIpcClientImpl::getInstance(APP_VIC)->getFrameRoiStatsData(frame, &out), RESULT_BAD_PARAM);
    EXPECT_EQ(out.valid, 0u);
    EXPECT_EQ(out.brightness, 0.0f);
    EXPECT_EQ(out.roiDataSize, 0u);
    EXPECT_EQ(out.roiData, area.data());
    EXPECT_EQ(std::count(area.begin(), area.end(), 0xCD), static_cast<long>(area.size()));
    auto failure = sipc_test::records("getFrameRoiStatsData");
    ASSERT_EQ(failure.size(), 1u);
    EXPECT_EQ(failure[0].text, "CameraSharedMem get imageSubMetaData Failed");
    EXPECT_EQ(failure[0].level, vexa::vexalog::LogLevel::kError);
}

// The legacy form refuses a null frame without touching the record.
TEST_F(RoiStats, LegacyNullFrame) {
    out.valid = 7;
    out.roiDataSize = 12;
    ASSERT_EQ(CCameraIpcClient(APP_CAMERA_DEMO).GetFrameRoiStatsData(nullptr, &out), RESULT_BAD_PARAM);
    EXPECT_EQ(out.valid, 7u);
    EXPECT_EQ(out.roiDataSize, 12u);
    auto failure = sipc_test::records("getFrameRoiStatsData");
    ASSERT_EQ(failure.size(), 1u);
    EXPECT_EQ(failure[0].text, "frameobj is nullptr.");

    // A null record is refused before the service is asked, instead of crashing.
    BufFrameObj frame{};
    EXPECT_EQ(CCameraIpcClient(APP_CAMERA_DEMO).GetFrameRoiStatsData(&frame, nullptr), RESULT_BAD_PARAM);
    EXPECT_TRUE(sensor_sim::journal().empty());
}

// A null area is only refused where a block would be copied into it: statistics that are not available
// still ask the service and log its failure, and four empty regions copy nothing and succeed.
TEST_F(RoiStats, NullAreaFailsOnlyWhereACopyWouldFault) {
    out.roiData = nullptr;
    FrameBufObj frame{};
    frame.sensorId = 3;
    frame.frameCnt = 40;
    auto* client = SensorIpcClientImpl::getInstance(APP_VIC);
    ASSERT_EQ(client->getFrameRoiStatsData(frame, &out), RESULT_BAD_PARAM);
    EXPECT_THAT(sensor_sim::journalOf("get_image_Brightnessdata_C"), testing::ElementsAre("3,40"));
    ASSERT_EQ(sipc_test::records("getFrameRoiStatsData").size(), 1u);
    EXPECT_EQ(sipc_test::records("getFrameRoiStatsData")[0].text, "CameraSharedMem get imageSubMetaData Failed");

    sensor_sim::stats::publish(3, 40, statsWithRegions({{{0, 0}, {0, 0}, {0, 0}, {0, 0}}}));
    ASSERT_EQ(client->getFrameRoiStatsData(frame, &out), RESULT_OK);
    EXPECT_EQ(out.valid, 1u);
    EXPECT_FLOAT_EQ(out.brightness, 0.75f);
    EXPECT_EQ(out.roiDataSize, 0u);
    EXPECT_EQ(out.roiData, nullptr);

    sensor_sim::stats::publish(3, 41, statsWithRegions({{{0, 0}, {1, 1}, {0, 0}, {0, 0}}}));
    frame.frameCnt = 41;
    EXPECT_EQ(client->getFrameRoiStatsData(frame, &out), RESULT_BAD_PARAM);
    EXPECT_EQ(out.valid, 0u);
}

// A region larger than its block reads on into the next blocks; one that would read past the data
// area is refused with the record cleared.
TEST_F(RoiStats, OversizedRegions) {
    auto published = statsWithRegions({{{64, 32}, {0, 0}, {0, 0}, {32, 32}}});
    sensor_sim::stats::publish(0, 1, published);
    FrameBufObj frame{};
    frame.frameCnt = 1;
    auto* client = SensorIpcClientImpl::getInstance(APP_VIC);
    ASSERT_EQ(client->getFrameRoiStatsData(frame, &out), RESULT_OK);
    EXPECT_EQ(out.roiDataSize, 32768u + 16384u);
    EXPECT_TRUE(std::equal(area.begin(), area.begin() + 32768, published.data.begin()));
    EXPECT_TRUE(std::equal(area.begin() + 32768, area.begin() + 49152, published.data.begin() + 3 * 16384));
    EXPECT_EQ(out.roiCellCount, 64u * 32u);

    for (auto grids : {std::array<std::pair<uint32_t, uint32_t>, 4>{{{0, 0}, {0, 0}, {0, 0}, {32, 33}}},
                       std::array<std::pair<uint32_t, uint32_t>, 4>{{{134217728, 1}, {0, 0}, {0, 0}, {0, 0}}}}) {
        sensor_sim::stats::publish(0, 2, statsWithRegions(grids));
        frame.frameCnt = 2;
        std::fill(area.begin(), area.end(), 0xCD);
        EXPECT_EQ(client->getFrameRoiStatsData(frame, &out), RESULT_BAD_PARAM);
        EXPECT_EQ(out.valid, 0u);
        EXPECT_EQ(out.roiDataSize, 0u);
        EXPECT_EQ(std::count(area.begin(), area.end(), 0xCD), static_cast<long>(area.size()));
    }
}

}  // namespace
