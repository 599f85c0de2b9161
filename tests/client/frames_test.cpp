// Frame get and release through both APIs: result codes, output selectors, the frame records, the
// sensor-type API's raw follower, and the frames left held.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include "frame_test.h"

namespace {

using namespace vexa::cameraipcclient;
using sipc_test::HeldFrame;
using sipc_test::heldFrames;
using sipc_test::records;
using testing::ElementsAre;
using testing::IsEmpty;
using vexa::sensor_access::SensorIpcClient;
using vexa::vexalog::LogLevel;

class Frames : public sipc_test::FrameTest {};

// Without a consumer nothing reaches the stream library, even with a null record.
TEST_F(Frames, NoConsumerMeansNotInitialised) {
    const auto app = static_cast<AppType>(977);
    FrameBufObj frame{};
    EXPECT_EQ(SensorIpcClient(app).getFrame(SENSOR_MIDLIDAR, frame, false), RESULT_NOT_INIT);
    EXPECT_EQ(SensorIpcClient(app).releaseFrame(frame), RESULT_NOT_INIT);
    EXPECT_EQ(CCameraIpcClient(app).GetFrame(CAMERA_WIDE, nullptr), RESULT_NOT_INIT);
    EXPECT_EQ(CCameraIpcClient(app).ReleaseFrame(nullptr), RESULT_NOT_INIT);
    EXPECT_TRUE(sensor_sim::journal().empty());
    EXPECT_EQ(SensorIpcClient(app).getFrame(static_cast<SensorType>(22), frame, false), RESULT_BAD_PARAM);
}

// The two APIs map the stream library's answers differently (10 is -8 only for the sensor-type API).
TEST_F(Frames, ResultCodesOfEachApi) {
    SensorIpcClient sensors = current(APP_SENSOR_DEMO, 1u << 14);
    auto cameras = legacy(APP_CAMERA_DEMO, 1u << 1, false);
    FrameBufObj frame{};
    BufFrameObj obj{};
    EXPECT_EQ(sensors.getFrame(SENSOR_MIDLIDAR, frame, false), RESULT_STREAM_CODE_9);  // nothing waiting
    EXPECT_EQ(cameras.GetFrame(CAMERA_REAR, &obj), RESULT_STREAM_CODE_9);
    const std::pair<int, std::pair<int32_t, int32_t>> cases[] = {
        {9, {RESULT_STREAM_CODE_9, RESULT_STREAM_CODE_9}},
        {10, {RESULT_STREAM_CODE_10, RESULT_ERROR}},
        {3, {RESULT_ERROR, RESULT_ERROR}}};
    for (auto& [stream, expected] : cases) {
        sensor_sim::injectStatus("getFrame", stream, 2);
        EXPECT_EQ(sensors.getFrame(SENSOR_MIDLIDAR, frame, false), expected.first) << stream;
        EXPECT_EQ(cameras.GetFrame(CAMERA_REAR, &obj), expected.second) << stream;
    }
    EXPECT_TRUE(records().empty());
    EXPECT_THAT(heldFrames(), IsEmpty());
}

// Sensor ids up to 7 use the processed output, 8 and above the capture output, on get and on release,
// in both APIs; failed releases are reported with their own texts.
TEST_F(Frames, OutputSelectorOnGetAndRelease) {
    auto cameras = legacy(APP_INENC, (1u << 7) | (1u << 8), false);
    SensorIpcClient sameApp(APP_INENC);
    push(7, 1, 40, 2);
    push(8, 0, 41, 3);
    push(7, 1, 42, 4);
    push(8, 0, 43, 5);
    BufFrameObj seven{}, eight{};
    FrameBufObj cur7{}, cur8{};
    ASSERT_EQ(cameras.GetFrame(CAMERA_SIDELEFTREAR, &seven), RESULT_OK);
    ASSERT_EQ(cameras.GetFrame(CAMERA_SURROUNDFRONT, &eight), RESULT_OK);
    ASSERT_EQ(sameApp.getFrame(CAM_SIDELEFTREAR, cur7, false), RESULT_OK);
    ASSERT_EQ(sameApp.getFrame(CAM_SURROUNDFRONT, cur8, false), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("getFrame"), ElementsAre("7,1", "8,0", "7,1", "8,0"));

    EXPECT_EQ(cameras.ReleaseFrame(&seven), RESULT_OK);
    EXPECT_EQ(sameApp.releaseFrame(cur8), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("7,1,2,40", "8,0,5,43"));
    auto released = records("releaseFrame");
    ASSERT_EQ(released.size(), 2u);
    EXPECT_EQ(released[0].text, "[ENC]ReleaseFrame sensorId=7 frame_index: 40 obj_index: 2 Success!");
    EXPECT_EQ(released[0].level, LogLevel::kDebug);

    sensor_sim::logs::clear();
    sensor_sim::injectStatus("releaseFrame", 5, 2);
    EXPECT_EQ(cameras.ReleaseFrame(&eight), RESULT_ACCESS_FAILED);
    EXPECT_EQ(sameApp.releaseFrame(cur7), RESULT_ACCESS_FAILED);
    auto failed = records("releaseFrame");
    ASSERT_EQ(failed.size(), 2u);
    EXPECT_EQ(failed[0].text, "[ENC]sensorId=8, outPutType=0, releaseFrame failed ret=5");
    EXPECT_EQ(failed[1].text, "[ENC]ReleaseFrame failed sensorId=7, objIndex: 4, frameIndex: 42");
    EXPECT_EQ(failed[1].level, LogLevel::kError);
    // A refused release leaves the frame held.
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{8, 0, 3, 41}, HeldFrame{7, 1, 4, 42}));
}

// Each record copies its own selection of the stream words; the time stamp is the wall clock at the get.
TEST_F(Frames, FrameRecordsCarryTheirWords) {
    auto cameras = legacy(APP_VIC, 1u << 9, false);
    SensorIpcClient sameApp(APP_VIC);
    sensor_sim::streams::FrameSpec spec;
    spec.counter = 0x1234567890ull;
    spec.objIndex = 6;
    for (int i = 0; i < 9; ++i) spec.words[i] = 0x1000 + i;
    spec.words[8] = 0xAAAABBBBCCCCDDDDull;
    spec.trailing = 77;
    ASSERT_EQ(sensor_sim::streams::push(9, 0, spec), 1u);
    ASSERT_EQ(sensor_sim::streams::push(9, 0, spec), 1u);

    timeval before{};
    gettimeofday(&before, nullptr);
    FrameBufObj frame{};
    ASSERT_EQ(sameApp.getFrame(CAM_SURROUNDRIGHT, frame, false), RESULT_OK);
    timeval after{};
    gettimeofday(&after, nullptr);
    // sensorId, frameType, objIndex, frameCnt, infoA, infoB, infoC, infoI, infoTail
    EXPECT_THAT((std::vector<uint64_t>{frame.sensorId, frame.frameType, frame.objIndex, frame.frameCnt,
                                       frame.infoA, frame.infoB, frame.infoC, frame.infoI, frame.infoTail}),
                ElementsAre(9, 9, 6, 0x34567890u, 0x1000, 0x1001, 0x1002, 0xCCCCDDDDu, 77));
    EXPECT_GE(frame.timestampMs, uint64_t(before.tv_sec) * 1000 + before.tv_usec / 1000);
    EXPECT_LE(frame.timestampMs, uint64_t(after.tv_sec) * 1000 + after.tv_usec / 1000);

    BufFrameObj obj{};
    obj.rawObjIndex = 0xDEAD;
    ASSERT_EQ(cameras.GetFrame(CAMERA_SURROUNDRIGHT, &obj), RESULT_OK);
    // frameCnt, infoA, infoB, infoD, infoE, infoH, rawObjIndex (left alone)
    EXPECT_THAT((std::vector<uint64_t>{obj.frameCnt, obj.infoA, obj.infoB, obj.infoD, obj.infoE, obj.infoH,
                                       obj.rawObjIndex}),
                ElementsAre(0x34567890u, 0x1000, 0x1001, 0x1003, 0x1004, 0x1007, 0xDEAD));
}

// Legacy argument errors: a null record is refused (after the consumer check) with its own texts.
TEST_F(Frames, LegacyNullRecords) {
    auto cameras = legacy(APP_CAMERA_IRC, 1u << 2, true);
    EXPECT_EQ(cameras.GetFrame(CAMERA_WIDE, nullptr), RESULT_BAD_PARAM);
    EXPECT_EQ(cameras.ReleaseFrame(nullptr), RESULT_BAD_PARAM);
    std::vector<std::string> texts;
    for (auto& r : records()) texts.push_back(r.text);
    EXPECT_THAT(texts, ElementsAre("[CIRC]****: GetFrame Param Error : 2frameobj == nullptr",
                                   "[CIRC]ReleaseFrame Param Error"));
    EXPECT_TRUE(sensor_sim::journal().empty());
}

// Raw frames enabled: a camera without a raw stream pairs nothing, and its release returns one frame;
// a client without raw frames never releases a raw frame.
TEST_F(Frames, RawEnabledCameraWithoutRawStream) {
    auto cameras = legacy(APP_PEX_ENC, 1u << 0, true);
    push(0, 1, 5, 1);
    BufFrameObj obj{};
    obj.rawObjIndex = 99;
    ASSERT_EQ(cameras.GetFrame(CAMERA_WIDELEFT, &obj), RESULT_OK);
    EXPECT_EQ(obj.rawObjIndex, 99u);
    EXPECT_EQ(obj.rawBufObj, nullptr);
    EXPECT_EQ(cameras.ReleaseFrame(&obj), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("getFrame"), ElementsAre("0,1"));
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("0,1,1,5"));

    auto plain = legacy(APP_PEX_LTR, 1u << 2, false);
    push(2, 1, 8, 2);
    ASSERT_EQ(plain.GetFrame(CAMERA_WIDE, &obj), RESULT_OK);
    EXPECT_EQ(plain.ReleaseFrame(&obj), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("2,1,2,8"));
    EXPECT_THAT(heldFrames(), IsEmpty());
}

// The sensor-type API's raw follower: at most six capture frames, older ones released, newer and equal
// ones left held, the six-miss record without an application name; cameras 2 and 3 are skipped.
TEST_F(Frames, SensorTypeRawFollower) {
    legacy(APP_KAU_ENC, (1u << 2) | (1u << 8), true);
    SensorIpcClient client(APP_KAU_ENC);
    // Stream 8 delivers processed frames on its capture output, so the follower reads the same queue.
    push(8, 0, 10, 0);
    for (uint16_t i = 0; i < 6; ++i) push(8, 0, 4 + i, 1 + i);
    FrameBufObj frame{};
    frame.rawObjIndex = 33;
    ASSERT_EQ(client.getFrame(CAM_SURROUNDFRONT, frame, false), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("getFrame"), 7u);
    EXPECT_EQ(sensor_sim::callCount("releaseFrame"), 6u);
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{8, 0, 0, 10}));
    auto missed = records("getRawFrame");
    ASSERT_EQ(missed.size(), 1u);
    EXPECT_EQ(missed[0].text, "****: GetFrame rawCout: 9, rawObjId: 33, yuvCount: 10, yuvObjId: 0");
    EXPECT_EQ(missed[0].level, LogLevel::kError);

    // A newer frame stays held, then an equal one ends the search and stays held too.
    sensor_sim::clearJournal();
    push(8, 0, 20, 2);
    push(8, 0, 21, 3);
    push(8, 0, 20, 4);
    ASSERT_EQ(client.getFrame(CAM_SURROUNDFRONT, frame, false), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("getFrame"), 3u);
    EXPECT_EQ(sensor_sim::callCount("releaseFrame"), 0u);
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{8, 0, 0, 10}, HeldFrame{8, 0, 2, 20}, HeldFrame{8, 0, 3, 21},
                                          HeldFrame{8, 0, 4, 20}));

    sensor_sim::clearJournal();
    push(2, 1, 30, 1);
    ASSERT_EQ(client.getFrame(CAM_WIDE, frame, false), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("getFrame"), ElementsAre("2,1"));
}

}  // namespace
