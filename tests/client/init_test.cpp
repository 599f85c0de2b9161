// Both initialisations: which mask bits they narrow, what they register, their failure exits, their
// messages and the logger they set up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "camera_ipc_client.h"
#include "clogger.h"
#include "sensor_ipc_client.h"
#include "sensor_ipcclient_impl.h"
#include "sim_test.h"

namespace {

using namespace vexa::cameraipcclient;
using sipc_test::records;
using testing::ElementsAre;
using testing::IsEmpty;
using vexa::sensor_access::Clogger;
using vexa::sensor_access::SensorIpcClient;
using vexa::sensor_access::SensorIpcClientImpl;
using vexa::vexalog::LogLevel;

// The registrations as the stream substitute journals them: "id,[{name field1 field2 field3 timeout
// field5} ...],cb|nocb".
std::vector<std::string> registrations() {
    return sensor_sim::journalOf("regConsumerStream");
}

class InitTest : public sipc_test::SimTest {};

// Sensor-type init: only radar/lidar bits follow the caller; cameras and bit 15 stay as detected,
// 15 is never registered, and each registration carries its one configuration entry.
TEST_F(InitTest, SensorTypeInitNarrowsOnlyStreamBitsAndRegistersOneEntryEach) {
    sensor_sim::camera::setPresent(13, false);
    auto logger = sipc_test::makeLogger(LogLevel::kVerbose);
    unsigned int mask = (1u << 12) | (1u << 13) | (1u << 15) | (1u << 20);
    ASSERT_EQ(SensorIpcClient(APP_SENSOR_IRC).init(mask, 250, logger), RESULT_OK);
    EXPECT_EQ(mask, 0xFFFu | (1u << 12) | (1u << 15) | (1u << 20));
    EXPECT_THAT(registrations(), ElementsAre("12,[{ipc-sensor-frontslave 0 2 16 250 0}],nocb",
                                             "20,[{ipc-sensor-leftlidar 0 2 16 250 0}],nocb"));
    EXPECT_THAT(sensor_sim::journalOf("initConsumer"), ElementsAre("SIRC,nvipc-irc-sensor,4"));
    EXPECT_THAT(sensor_sim::journalOf("initLogging"), IsEmpty());  // the caller's logger is used
    EXPECT_EQ(Clogger::GetInstance().getIrdlogger(), logger);

    auto info = records("init");
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].text, "---detectAllSensors: 0x109fff, frameTimeout: 250");
    EXPECT_EQ(info[0].level, LogLevel::kInfo);
}

// A mask of 0 registers nothing and still reports the cameras the service detected.
TEST_F(InitTest, SensorTypeInitWithEmptyMask) {
    unsigned int mask = 0;
    ASSERT_EQ(SensorIpcClient(APP_SENSOR_DEMO).init(mask, 0, sipc_test::makeLogger(LogLevel::kInfo)), RESULT_OK);
    EXPECT_EQ(mask, 0xFFFu | (1u << 15));
    EXPECT_THAT(registrations(), IsEmpty());
}

// A failed registration clears its bit through the sensor-type API but not through the sensor-name API.
TEST_F(InitTest, FailedRegistrationIsReportedThroughTheMaskOnlyBySensorTypeInit) {
    auto logger = sipc_test::makeLogger(LogLevel::kInfo);
    Clogger::GetInstance().initIrdLogger(logger);
    sensor_sim::injectStatus("regConsumerStream", 6, 1, 7);  // the eighth registration: sensor 20
    unsigned int mask = 0x3FF000;
    ASSERT_EQ(SensorIpcClient(APP_SENSOR_DEMO).init(mask, 0, logger), RESULT_OK);
    EXPECT_EQ(mask & 0x3FF000u, 0x2FF000u);
    auto failure = records("init");
    ASSERT_EQ(failure.size(), 2u);
    EXPECT_EQ(failure[1].text, "InitSystem sensorId=20 regSource image stream resource failed, result = 6");
    EXPECT_EQ(failure[1].level, LogLevel::kError);

    sensor_sim::logs::clear();
    sensor_sim::injectStatus("regConsumerStream", 6, 1, 4);  // cameras 0..3 pass, 4 fails
    unsigned short cameras = 0x003F;
    ASSERT_EQ(CCameraIpcClient(APP_VIC).Init(cameras, false), RESULT_OK);
    EXPECT_EQ(cameras, 0xF03F);  // bits 12-15 as detected; camera 4 still set
    auto legacy = records("init");
    ASSERT_EQ(legacy.size(), 2u);
    EXPECT_EQ(legacy[1].text, "[VIC]InitSystem sensorId=4 regSource image stream resource failed, result = 6");
}

// Sensor-name init: camera bits follow the caller, bits 12 and up stay as detected; raw entry first for
// cameras 2 and 3; field1 is 1 for cameras 0-7 only; field2 is the application's stream parameter.
TEST_F(InitTest, SensorNameInitRegistrationsAndMask) {
    unsigned short cameras = (1u << 2) | (1u << 3) | (1u << 5) | (1u << 9) | (1u << 12);
    ASSERT_EQ(CCameraIpcClient(APP_PEX_CUDA).Init(cameras, true), RESULT_OK);
    EXPECT_EQ(cameras, (1u << 2) | (1u << 3) | (1u << 5) | (1u << 9) | 0xF000u);
    EXPECT_THAT(registrations(),
                ElementsAre("2,[{ipc-camera-wide 0 1 16 0 0} {ipc-camera-wide-isp0 1 1 16 0 0}],nocb",
                            "3,[{ipc-camera-narrow 0 1 16 0 0} {ipc-camera-narrow-isp0 1 1 16 0 0}],nocb",
                            "5,[{ipc-camera-siderightfront-isp0 1 1 16 0 0}],nocb",
                            "9,[{ipc-camera-surroundright 0 1 16 0 0}],nocb"));
    EXPECT_THAT(sensor_sim::journalOf("initConsumer"), ElementsAre("PXC,nvipc-pex-cuda-camera,4"));
    auto info = records("init");
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].text, "[PXC]detectAllSensors=0x3ff22c, rawEnable=true");

    sensor_sim::reset();
    cameras = 0x0FFF;
    ASSERT_EQ(CCameraIpcClient(APP_PEX_CUDA).Init(cameras, false), RESULT_OK);
    for (auto& r : sensor_sim::streams::registrations()) EXPECT_EQ(r.configs.size(), 1u) << r.streamId;
}

// The registration table is consulted first; an unknown application fails even when the service is down.
TEST_F(InitTest, UnknownApplicationIsRefusedFirst) {
    sensor_sim::camera::setDetectAnswer(0xEFFFFF);
    for (int api = 0; api < 2; ++api) {
        testing::internal::CaptureStdout();
        unsigned int mask = 0xFFFF;
        int32_t result = api == 0 ? SensorIpcClientImpl::getInstance(static_cast<AppType>(13))->init(mask, 0, nullptr)
                                  : SensorIpcClientImpl::getInstance(static_cast<AppType>(13))->init(mask, true);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "SensorIpcClientImpl init param error, appType: 13.\n");
        EXPECT_EQ(result, RESULT_BAD_PARAM);
        EXPECT_EQ(mask, 0xFFFFu);
    }
    EXPECT_TRUE(sensor_sim::journal().empty());
}

// A failed detection ends both inits before any logger or consumer exists.
TEST_F(InitTest, FailedDetectionCreatesNothing) {
    sensor_sim::camera::setDetectAnswer(0xEFFFFF);
    unsigned int mask = 0x3FF000;
    EXPECT_EQ(SensorIpcClient(APP_SENSOR_ABS).init(mask, 0, nullptr), RESULT_SERVICE_FAILED);
    unsigned short cameras = 0xFF;
    EXPECT_EQ(CCameraIpcClient(APP_INENC).Init(cameras, true), RESULT_SERVICE_FAILED);
    EXPECT_EQ(mask, 0x3FF000u);
    EXPECT_EQ(cameras, 0xFF);
    EXPECT_THAT(sensor_sim::journalOf("initLogging"), IsEmpty());
    EXPECT_THAT(sensor_sim::journalOf("createLogger"), IsEmpty());
    EXPECT_TRUE(sensor_sim::streams::consumers().empty());
    EXPECT_TRUE(records().empty());
}

// A refused consumer registration leaves the caller's mask alone but leaves a consumer in place, so that
// start goes on to the stream library instead of answering -9.
TEST_F(InitTest, RefusedConsumerLeavesMaskAndAFreshConsumer) {
    auto logger = sipc_test::makeLogger(LogLevel::kInfo);
    sensor_sim::injectStatus("initConsumer", 7, 2);
    unsigned int mask = 0x3FF000;
    SensorIpcClient client(APP_SENSOR_IRCBAK);
    EXPECT_EQ(client.init(mask, 0, logger), RESULT_ERROR);
    EXPECT_EQ(mask, 0x3FF000u);
    auto failure = records("init");
    ASSERT_EQ(failure.size(), 1u);
    EXPECT_EQ(failure[0].text, "IRD: imagestream master init failed, status: 7");
    EXPECT_EQ(failure[0].level, LogLevel::kError);
    EXPECT_NE(client.start(), RESULT_NOT_INIT);
    EXPECT_EQ(sensor_sim::callCount("initConsumerDone"), 1u);
    EXPECT_EQ(sensor_sim::callCount("getStreamState"), 0u);  // not initialised: no wait

    sensor_sim::logs::clear();
    Clogger::GetInstance().initIrdLogger(logger);
    unsigned short cameras = 0x0004;
    EXPECT_EQ(CCameraIpcClient(APP_KAU_ENC).Init(cameras, true), RESULT_ERROR);
    EXPECT_EQ(cameras, 0x0004);
    auto legacy = records("init");
    ASSERT_EQ(legacy.size(), 1u);
    EXPECT_EQ(legacy[0].text, "[KAE]nvIpcName=nvipc-kau-enc-camera, streamMaster initConusmer failed status = 7");
}

// The library's own logger: the settings it asks for, and each init's standard-output message when the
// logging back end fails (the sensor-type init creates one whenever it gets none).
TEST_F(InitTest, OwnLoggerSettingsAndFailureMessages) {
    sensor_sim::injectStatus("initLogging", 3);
    sensor_sim::injectStatus("createLogger", 1);
    testing::internal::CaptureStdout();
    unsigned int mask = 0;
    EXPECT_EQ(SensorIpcClient(APP_SENSOR_DEMO).init(mask, 0, nullptr), RESULT_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Init log service : exec InitLogging failed, app = SDEMO, logMode = 2, logLevel = 4, result = 3.\n"
              "initLogService : exec CreateLogger failed, module is 'SDEMO'.");
    EXPECT_THAT(sensor_sim::journalOf("initLogging"),
                ElementsAre("SDEMO,con.SDEMO,2,4,/oslog/vexa/file/nvstream,10,5,0"));
    EXPECT_THAT(sensor_sim::journalOf("createLogger"),
                ElementsAre("SDEMO,con.SDEMO,4,0,%M{%Y/%m/%d %H:%M:%S.} %d{%Y/%m/%d %H:%M:%S.} %c %f %L %l [%m]%n"));

    // With the logger now working, a second sensor-type init without a logger creates another one.
    sensor_sim::clearJournal();
    EXPECT_EQ(SensorIpcClient(APP_SENSOR_IRC).init(mask, 0, nullptr), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("createLogger"), 1u);
    EXPECT_NE(Clogger::GetInstance().getIrdlogger(), nullptr);
}

// The sensor-name init creates the library's logger once per process, whatever the application.
TEST_F(InitTest, SensorNameInitCreatesTheLoggerOncePerProcess) {
    const bool created = SensorIpcClientImpl::m_isinitLog.load();
    sensor_sim::injectStatus("initLogging", 9);
    testing::internal::CaptureStdout();
    unsigned short cameras = 0x0001;
    EXPECT_EQ(CCameraIpcClient(APP_CAMERA_IRC).Init(cameras, false), RESULT_OK);
    std::string printed = testing::internal::GetCapturedStdout();
    if (!created) {
        EXPECT_EQ(printed,
                  "initLogService : exec InitLogging failed, app = CIRC, logMode = 2, logLevel = 4, result = 9.\n");
        EXPECT_EQ(sensor_sim::callCount("createLogger"), 1u);
    }
    sensor_sim::clearJournal();
    cameras = 0x0001;
    EXPECT_EQ(CCameraIpcClient(APP_PEX_LTR).Init(cameras, false), RESULT_OK);
    EXPECT_EQ(CCameraIpcClient(APP_CAMERA_IRC).Init(cameras, false), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("initLogging"), 0u);
    EXPECT_EQ(sensor_sim::callCount("createLogger"), 0u);
}

// The legacy facade widens the 16-bit mask and keeps only the low 16 bits of what init wrote.
TEST_F(InitTest, LegacyMaskIsWidenedAndCutBack) {
    sensor_sim::camera::setDetectAnswer(0xABCD0FFF);
    unsigned short cameras = 0x0FFF;
    ASSERT_EQ(CCameraIpcClient(APP_CAMERA_DEMO).Init(cameras, false), RESULT_OK);
    EXPECT_EQ(cameras, 0x0FFF);
    sensor_sim::camera::setDetectAnswer(0x0001F0F0);
    cameras = 0xFFFF;
    ASSERT_EQ(CCameraIpcClient(APP_CAMERA_DEMO).Init(cameras, false), RESULT_OK);
    EXPECT_EQ(cameras, 0xF0F0);
}

}  // namespace
