// Raw/processed pairing of cameras 2 and 3 through the legacy API: the per-sensor raw queue, every
// branch of the search, the order of releases and exactly which frames stay held afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frame_test.h"

namespace {

using namespace vexa::cameraipcclient;
using sipc_test::HeldFrame;
using sipc_test::heldFrames;
using sipc_test::records;
using testing::ElementsAre;
using testing::IsEmpty;
using vexa::vexalog::LogLevel;

constexpr uint32_t kYuv = 1;
constexpr uint32_t kRaw = 0;

class Pairing : public sipc_test::FrameTest {
protected:
    void SetUp() override {
        FrameTest::SetUp();
        client = legacy(APP_CAMERA_DEMO, (1u << 2) | (1u << 3), true);
    }
    std::vector<std::string> texts() {
        std::vector<std::string> out;
        for (auto& r : records()) out.push_back(std::to_string(r.level) + " " + r.text);
        return out;
    }
    CCameraIpcClient client{APP_CAMERA_DEMO};
};

// A raw frame of the same counter is attached; the release returns the raw frame first.
TEST_F(Pairing, MatchingRawFrameIsAttachedAndReleasedFirst) {
    auto raw = sensor_sim::makeBuffer(sensor_sim::BufferSpec::single(64, 4, 16, sensor_sim::kColorBayer16));
    push(2, kYuv, 10, 3);
    push(2, kRaw, 10, 7, raw);
    BufFrameObj obj{};
    ASSERT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_OK);
    EXPECT_EQ(obj.rawObjIndex, 7u);
    EXPECT_EQ(obj.rawBufObj, sipc_test::handle(raw));
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{2, kYuv, 3, 10}, HeldFrame{2, kRaw, 7, 10}));

    ASSERT_EQ(client.ReleaseFrame(&obj), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("2,0,7,10", "2,1,3,10"));
    EXPECT_THAT(texts(), ElementsAre("5 [SDEMO]ReleaseRawFrame sensorId=2 frame_index: 10 raw_obj_index: 7 Success!",
                                     "5 [SDEMO]ReleaseFrame sensorId=2 frame_index: 10 obj_index: 3 Success!"));
    EXPECT_THAT(heldFrames(), IsEmpty());
}

// A newer raw frame is queued and the processed frame dropped; an older processed frame then fails at
// once without fetching; the processed frame of the queued counter takes it without fetching.
TEST_F(Pairing, NewerRawFrameIsQueuedForItsProcessedFrame) {
    push(3, kYuv, 10, 1);
    push(3, kRaw, 12, 5);
    BufFrameObj obj{};
    EXPECT_EQ(client.GetFrame(CAMERA_NARROW, &obj), RESULT_FAILED);
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{3, kRaw, 5, 12}));
    EXPECT_THAT(texts(),
                ElementsAre("3 [SDEMO]sensorId=3, GetFrame diff rawCnt=12, Id=0, yuvCnt=10, Id=1, rawCnt is larger to "
                            "enqueue, rawQueSize=1",
                            "5 [SDEMO]ReleaseFrame sensorId=3 frame_index: 10 obj_index: 1 Success!"));

    settle();
    push(3, kYuv, 11, 2);
    EXPECT_EQ(client.GetFrame(CAMERA_NARROW, &obj), RESULT_FAILED);
    EXPECT_THAT(sensor_sim::journalOf("getFrame"), ElementsAre("3,1"));
    EXPECT_THAT(texts(), ElementsAre("2 [SDEMO]sensorId=3, curYuvCnt=11, minRawCnt=12, yuvCnt is smaller not to get raw, "
                                     "rawQueSize=1",
                                     "5 [SDEMO]ReleaseFrame sensorId=3 frame_index: 11 obj_index: 2 Success!"));

    settle();
    push(3, kYuv, 12, 4);
    ASSERT_EQ(client.GetFrame(CAMERA_NARROW, &obj), RESULT_OK);
    EXPECT_EQ(obj.rawObjIndex, 5u);
    EXPECT_THAT(sensor_sim::journalOf("getFrame"), ElementsAre("3,1"));
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{3, kRaw, 5, 12}, HeldFrame{3, kYuv, 4, 12}));
    ASSERT_EQ(client.ReleaseFrame(&obj), RESULT_OK);
    EXPECT_THAT(heldFrames(), IsEmpty());
}

// A queued raw frame older than the processed frame is released before the search goes on.
TEST_F(Pairing, StaleQueuedRawFrameIsReleased) {
    push(2, kYuv, 3, 1);
    push(2, kRaw, 5, 2);
    BufFrameObj obj{};
    ASSERT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_FAILED);  // raw 5 queued
    settle();
    push(2, kYuv, 7, 3);
    push(2, kRaw, 7, 4);
    ASSERT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_OK);
    EXPECT_EQ(obj.rawObjIndex, 4u);
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("2,0,2,5"));
    EXPECT_THAT(texts(), ElementsAre("3 [SDEMO]sensorId=2, curYuvCnt=7, rawQueFrontCnt=5, rawQueSize=1, rawQuePop and "
                                     "releaseRaw"));
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{2, kYuv, 3, 7}, HeldFrame{2, kRaw, 4, 7}));
}

// Older raw frames are released one by one until the matching one arrives, nine at most.
TEST_F(Pairing, OlderRawFramesAreReleasedUpToNineTries) {
    push(2, kYuv, 10, 1);
    push(2, kRaw, 8, 2);
    push(2, kRaw, 9, 3);
    push(2, kRaw, 10, 4);
    BufFrameObj obj{};
    ASSERT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_OK);
    EXPECT_EQ(obj.rawObjIndex, 4u);
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("2,0,2,8", "2,0,3,9"));
    ASSERT_EQ(client.ReleaseFrame(&obj), RESULT_OK);

    settle();
    push(2, kYuv, 20, 5);
    for (uint16_t i = 0; i < 10; ++i) push(2, kRaw, 1 + i, i % 9);
    obj.rawObjIndex = 6;
    EXPECT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_FAILED);
    EXPECT_EQ(sensor_sim::callCount("getFrame"), 1u + 9u);
    EXPECT_EQ(sensor_sim::callCount("releaseFrame"), 9u + 1u);  // nine stale raws, then the processed frame
    auto all = records();
    ASSERT_EQ(all.size(), 9u + 1u + 1u);
    EXPECT_EQ(all[0].text, "[SDEMO]sensorId=2, rawCnt=1, Id=6, yuvCnt=20, Id=5, rawCnt is smaller to releaseRaw");
    EXPECT_EQ(all[9].text, "[SDEMO]sensorId=2GetRawFrame failed rawCnt=9, Id=6, yuvCnt=20, Id=5");
    EXPECT_EQ(all[9].level, LogLevel::kWarn);
    EXPECT_THAT(heldFrames(), IsEmpty());
    EXPECT_EQ(sensor_sim::streams::queued(2, kRaw), 1u);  // the tenth raw frame was never fetched
}

// A failed raw fetch drops the processed frame; the caller gets -1 and holds nothing.
TEST_F(Pairing, FailedRawFetchDropsTheProcessedFrame) {
    push(2, kYuv, 10, 1);
    BufFrameObj obj{};
    EXPECT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_FAILED);
    EXPECT_THAT(texts(), ElementsAre("2 [SDEMO]sensorId=2, outPutType=ICP, getFrame failed ret=9, tryCnt=0",
                                     "5 [SDEMO]ReleaseFrame sensorId=2 frame_index: 10 obj_index: 1 Success!"));
    EXPECT_THAT(heldFrames(), IsEmpty());

    // If dropping the processed frame fails too, that is reported with a fixed 0.
    settle();
    push(2, kYuv, 11, 2);
    sensor_sim::injectStatus("releaseFrame", 5);
    EXPECT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_FAILED);
    auto all = records();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].text, "[SDEMO]sensorId=2, release yuvFrame failed ret=0");
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{2, kYuv, 2, 11}));
}

// A refused raw release is reported but does not keep the processed frame held.
TEST_F(Pairing, RefusedRawReleaseStillReleasesTheProcessedFrame) {
    push(2, kYuv, 10, 1);
    push(2, kRaw, 10, 2);
    BufFrameObj obj{};
    ASSERT_EQ(client.GetFrame(CAMERA_WIDE, &obj), RESULT_OK);
    sensor_sim::injectStatus("releaseFrame", 5);
    EXPECT_EQ(client.ReleaseFrame(&obj), RESULT_OK);
    auto all = records();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0].text, "[SDEMO]sensorId=2, outPutType=ICP, ReleaseFrame failed ret=5");
    EXPECT_EQ(all[1].text, "[SDEMO]sensorId=2, releaseRawFrame failed ret=-6");
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{2, kRaw, 2, 10}));
}

// Over a long run with late, early and missing raw frames, the queue keeps at most one raw frame per
// camera and every frame the caller did not receive goes back to the stream.
TEST_F(Pairing, LongRunLeavesOnlyTheQueuedRawFrameHeld) {
    uint16_t obj = 0;
    int paired = 0;
    for (uint64_t counter = 1; counter <= 200; ++counter) {
        push(2, kYuv, counter, obj++ % 9);
        if (counter % 5 == 0) push(2, kRaw, counter - 1, obj++ % 9);  // a stale duplicate first
        if (counter % 7 != 0) {                                        // else the raw frame is lost
            push(2, kRaw, counter + (counter % 11 == 0 ? 1 : 0), obj++ % 9);  // sometimes one ahead
        }
        BufFrameObj frame{};
        int32_t result = client.GetFrame(CAMERA_WIDE, &frame);
        if (result == RESULT_OK) {
            ++paired;
            ASSERT_EQ(client.ReleaseFrame(&frame), RESULT_OK);
        }
        ASSERT_LE(heldFrames().size(), 1u) << counter;
    }
    EXPECT_GT(paired, 120);
    for (auto& [stream, output, index, count] : heldFrames()) {
        EXPECT_EQ(output, kRaw);
    }
}

}  // namespace
