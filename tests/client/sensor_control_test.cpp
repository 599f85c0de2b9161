// Sensor control through the facades: argument checks, the camera-access status rule, the layout of
// the sensor records, I2C copies, the level-2 fault list and the records written on failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "camera_ipc_client.h"
#include "clogger.h"
#include "sensor_ipc_client.h"
#include "sim_test.h"

namespace {

using namespace vexa::cameraipcclient;
using sipc_test::records;
using testing::ElementsAre;
using vexa::sensor_access::Clogger;
using vexa::sensor_access::SensorIpcClient;
using vexa::vexalog::LogLevel;

class SensorControl : public sipc_test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        Clogger::GetInstance().initIrdLogger(sipc_test::makeLogger(LogLevel::kVerbose));
        sensor_sim::clearJournal();
    }
    SensorIpcClient client{APP_SENSOR_DEMO};
};

// Every camera-access call: the code its failure maps to, and whether the facade range-checks the type.
struct ControlOp {
    const char* fn;
    int32_t failure;
    bool rangeChecked;
    std::function<int32_t(SensorIpcClient&, SensorType)> call;
};

void PrintTo(const ControlOp& op, std::ostream* os) {
    *os << op.fn;
}

unsigned char g_byte;
unsigned short g_word;
unsigned char g_data[8] = {1, 2, 3, 4, 5, 6, 7, 8};

const ControlOp kControlOps[] = {
    {"detectLinkAndVideoMask", RESULT_ERROR, false,
     [](SensorIpcClient& c, SensorType) {
         unsigned int link = 0, video = 0;
         std::map<SensorType, unsigned char> status;
         return c.getSensorStatus(link, video, status);
     }},
    {"getSensorInfo", RESULT_ACCESS_FAILED, false,
     [](SensorIpcClient& c, SensorType t) {
         SensorInfo info{};
         return c.getSensorInfo(t, info);
     }},
    {"getSensorVerInfo", RESULT_ACCESS_FAILED, false,
     [](SensorIpcClient& c, SensorType t) {
         SensorInfo info{};
         return c.getSensorInfo(t, info);
     }},
    {"readSensorRegUint8", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) { return c.readSensorRegUint8(t, 1, g_byte); }},
    {"writeSensorRegUint8", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) { return c.writeSensorRegUint8(t, 1, 2, 0); }},
    {"readSensorRegUint16", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) { return c.readSensorRegUint16(t, 1, g_word); }},
    {"writeSensorRegUint16", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) { return c.writeSensorRegUint16(t, 1, 2, 0); }},
    {"readSensorI2C", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) {
         unsigned short len = 2;
         return c.readSensorI2C(t, 0x50, g_data, len);
     }},
    {"writeSensorI2C", RESULT_ACCESS_FAILED, true,
     [](SensorIpcClient& c, SensorType t) { return c.writeSensorI2C(t, 0x50, g_data, 2, 0); }},
    {"setFsyncDeltaMs", RESULT_SERVICE_FAILED, false,
     [](SensorIpcClient& c, SensorType) { return c.setFsyncDeltaMs(FSYNC_GROUP_1, 5); }},
    {"getRadarInnerParaState", RESULT_SERVICE_FAILED, false,
     [](SensorIpcClient& c, SensorType) {
         InnerParaState state{};
         return c.getRadarInnerParaState(state);
     }},
    {"getLidarInnerParaState", RESULT_SERVICE_FAILED, false, [](SensorIpcClient& c, SensorType) {
         InnerParaState state{};
         return c.getLidarInnerParaState(state);
     }}};

// The facade's range check: 21 reaches the service, 22 is refused before any platform call.
TEST_F(SensorControl, RangeCheckedCallsPassTwentyOneAndRefuseTwentyTwo) {
    for (const ControlOp& op : kControlOps) {
        if (!op.rangeChecked) continue;
        SCOPED_TRACE(op.fn);
        sensor_sim::clearJournal();
        EXPECT_EQ(op.call(client, static_cast<SensorType>(22)), RESULT_BAD_PARAM);
        EXPECT_TRUE(sensor_sim::journal().empty());
        op.call(client, SENSOR_TYPE_MAX);
        EXPECT_EQ(sensor_sim::callCount(op.fn), 1u);
    }
}

class ControlCall : public SensorControl, public testing::WithParamInterface<ControlOp> {};

// Success is decided by the low 16 bits of the status only; each operation maps failure to its own code.
TEST_P(ControlCall, UpperStatusBitsAloneAreSuccess) {
    sensor_sim::injectStatus(GetParam().fn, 0x10000);
    EXPECT_EQ(GetParam().call(client, CAM_WIDE), RESULT_OK);
    sensor_sim::injectStatus(GetParam().fn, 0x20001);
    EXPECT_EQ(GetParam().call(client, CAM_WIDE), GetParam().failure);
    sensor_sim::injectStatus(GetParam().fn, 0x0001);
    EXPECT_EQ(GetParam().call(client, CAM_WIDE), GetParam().failure);
}

INSTANTIATE_TEST_SUITE_P(CameraAccessCalls, ControlCall, testing::ValuesIn(kControlOps),
                         [](const testing::TestParamInfo<ControlOp>& info) {
                             return std::string(info.param.fn);
                         });

// The single-sensor information query is not range-checked: the service decides.
TEST_F(SensorControl, SingleSensorInfoOfTypeTwentyTwoGoesToTheService) {
    SensorInfo info{};
    EXPECT_EQ(client.getSensorInfo(static_cast<SensorType>(22), info), RESULT_ACCESS_FAILED);
    EXPECT_THAT(sensor_sim::journalOf("getSensorInfo"), ElementsAre("22"));
}

// The service's 1st-3rd outputs belong in elements 3-5, its 4th-6th in elements 0-2, in both forms.
TEST_F(SensorControl, SensorInfoBytesAreRotatedAndVersionsCopied) {
    auto state = sensor_sim::camera::sensor(5);
    state.info = {10, 11, 12, 13, 14, 15};
    state.version0 = {1, 2};
    state.version1 = {3};
    sensor_sim::camera::setSensor(5, state);

    SensorInfo single{};
    ASSERT_EQ(client.getSensorInfo(CAM_SIDERIGHTFRONT, single), RESULT_OK);
    EXPECT_THAT(single.sensorAttr, ElementsAre(13, 14, 15, 10, 11, 12));
    EXPECT_THAT(single.verData0, ElementsAre(1, 2));
    EXPECT_THAT(single.verData1, ElementsAre(3));

    std::vector<SensorInfo> list(3);
    ASSERT_EQ(client.getSensorInfo(list), RESULT_OK);
    ASSERT_EQ(list.size(), 25u);  // appended, not cleared
    EXPECT_THAT(list[3 + 5].sensorAttr, ElementsAre(13, 14, 15, 10, 11, 12));
    EXPECT_THAT(list[3 + 5].verData0, ElementsAre(1, 2));
    EXPECT_THAT(list[3 + 5].verData1, ElementsAre(3));
}

// Failures: the list form shows 0xFF bytes / empty vectors per failed call; the single form reports -6
// and keeps what the service wrote.
TEST_F(SensorControl, SensorInfoFailuresDifferBetweenListAndSingleForm) {
    sensor_sim::camera::setPresent(7, false);
    sensor_sim::injectStatus("getSensorVerInfo", 0x0004);  // hits sensor 0, the first one asked
    std::vector<SensorInfo> list;
    ASSERT_EQ(client.getSensorInfo(list), RESULT_OK);
    ASSERT_EQ(list.size(), 22u);
    EXPECT_THAT(list[0].sensorAttr, ElementsAre(3, 4, 5, 0, 1, 2));
    EXPECT_TRUE(list[0].verData0.empty());
    EXPECT_TRUE(list[0].verData1.empty());
    EXPECT_THAT(list[7].sensorAttr, ElementsAre(0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF));
    EXPECT_THAT(list[1].verData0, ElementsAre(1, 0, 1));

    SensorInfo single{{9, 9, 9, 9, 9, 9}, {42}, {43}};
    sensor_sim::injectStatus("getSensorVerInfo", 0x0004);
    EXPECT_EQ(client.getSensorInfo(CAM_WIDE, single), RESULT_ACCESS_FAILED);
    EXPECT_THAT(single.sensorAttr, ElementsAre(3, 4, 5, 2, 1, 2));
    EXPECT_THAT(single.verData0, ElementsAre(42));
    EXPECT_THAT(single.verData1, ElementsAre(43));
    EXPECT_TRUE(records().empty());
}

// The type list always has 22 entries, whatever it held, and the service writes straight into them.
TEST_F(SensorControl, AllSensorTypeInfoResizesToTwentyTwo) {
    CCameraIpcClient legacy(APP_CAMERA_DEMO);
    for (size_t initial : {0u, 30u}) {
        std::vector<SensorTypeInfo> list(initial, SensorTypeInfo{false, 99});
        ASSERT_EQ(legacy.getAllSensorTypeInfo(list), RESULT_OK);
        ASSERT_EQ(list.size(), 22u);
        EXPECT_TRUE(list[0].present);
        EXPECT_EQ(list[0].typeCode, 1);
        EXPECT_EQ(list[14].typeCode, 3);
        EXPECT_EQ(list[21].typeCode, 3);
    }
    std::vector<SensorTypeInfo> list;
    sensor_sim::injectStatus("getAllSensorTypeInfo", 0x30007, -1);
    EXPECT_EQ(client.getAllSensorTypeInfo(list), RESULT_OK);
    auto failures = records("getAllSensorTypeInfo");
    ASSERT_EQ(failures.size(), 22u);
    EXPECT_EQ(failures[21].text, "sensorId 21 getAllSensorTypeInfo error, res = 7");
    EXPECT_EQ(failures[21].level, LogLevel::kError);
    EXPECT_EQ(failures[21].file, "sensor_ipcclient_impl.cpp");
}

// Register access: values pass through; a failed read keeps what the service wrote; extra is ignored.
TEST_F(SensorControl, RegistersPassThroughAndExtraIsIgnored) {
    sensor_sim::camera::setReg16(3, 0x3000, 0xBEEF);
    unsigned short word = 0;
    EXPECT_EQ(client.readSensorRegUint16(CAM_NARROW, 0x3000, word), RESULT_OK);
    EXPECT_EQ(word, 0xBEEF);

    EXPECT_EQ(client.writeSensorRegUint8(CAM_NARROW, 0x10, 7, 0), RESULT_OK);
    EXPECT_EQ(client.writeSensorRegUint8(CAM_NARROW, 0x11, 7, 255), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("writeSensorRegUint8"), ElementsAre("3,16,7", "3,17,7"));
    EXPECT_EQ(sensor_sim::camera::reg8(3, 0x11), 7);

    sensor_sim::camera::setReg8(3, 0x20, 0x5A);
    unsigned char byte = 0;
    sensor_sim::injectStatus("readSensorRegUint8", 0x0009);
    EXPECT_EQ(client.readSensorRegUint8(CAM_NARROW, 0x20, byte), RESULT_ACCESS_FAILED);
    EXPECT_EQ(byte, 0x5A);
}

// I2C: facade checks, only the bytes the service returned are copied, nothing on failure.
TEST_F(SensorControl, I2cLengthAndCopyRules) {
    unsigned char data[4] = {0xAA, 0xAA, 0xAA, 0xAA};
    unsigned short len = 0;
    EXPECT_EQ(client.readSensorI2C(CAM_WIDE, 0x50, data, len), RESULT_BAD_PARAM);
    len = 4;
    EXPECT_EQ(client.readSensorI2C(CAM_WIDE, 0x50, nullptr, len), RESULT_BAD_PARAM);
    EXPECT_EQ(client.writeSensorI2C(CAM_WIDE, 0x50, data, 0, 0), RESULT_BAD_PARAM);
    EXPECT_EQ(client.writeSensorI2C(CAM_WIDE, 0x50, nullptr, 2, 0), RESULT_BAD_PARAM);
    EXPECT_TRUE(sensor_sim::journal().empty());

    const unsigned char written[3] = {1, 2, 3};
    EXPECT_EQ(client.writeSensorI2C(CAM_WIDE, 0x50, written, 3, 0xFF), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("writeSensorI2C"), ElementsAre("2,80,[1 2 3],3"));

    sensor_sim::camera::setI2cReadLimit(2, 2);
    len = 4;
    EXPECT_EQ(client.readSensorI2C(CAM_WIDE, 0x50, data, len), RESULT_OK);
    EXPECT_EQ(len, 2);
    EXPECT_THAT(data, ElementsAre(1, 2, 0xAA, 0xAA));

    unsigned char untouched[2] = {0xCC, 0xCC};
    len = 2;
    sensor_sim::injectStatus("readSensorI2C", 0x0003);
    EXPECT_EQ(client.readSensorI2C(CAM_WIDE, 0x50, untouched, len), RESULT_ACCESS_FAILED);
    EXPECT_THAT(untouched, ElementsAre(0xCC, 0xCC));
}

// Level-2 faults: the service's full result is mapped (only 1, 2, 3 fail) and the caller's capacity is
// honoured exactly.
TEST_F(SensorControl, Lev2FaultResultMappingAndCapacity) {
    unsigned short faults[4] = {7, 7, 7, 7};
    unsigned short count = 4;
    unsigned long time = 0;
    EXPECT_EQ(client.getRadarLev2FaultInfo(1, 2, nullptr, count, time), RESULT_ACCESS_FAILED);
    EXPECT_EQ(sensor_sim::callCount("getRadarLev2Fault"), 0u);

    sensor_sim::camera::setLev2Faults({11, 12, 13}, 555);
    count = 3;
    EXPECT_EQ(client.getRadarLev2FaultInfo(1, 2, faults, count, time), RESULT_OK);
    EXPECT_EQ(count, 3);
    EXPECT_THAT(faults, ElementsAre(11, 12, 13, 7));
    EXPECT_EQ(time, 555u);
    EXPECT_THAT(sensor_sim::journalOf("getRadarLev2Fault"), ElementsAre("1,2"));

    unsigned short small[2] = {9, 9};
    count = 2;
    EXPECT_EQ(client.getRadarLev2FaultInfo(1, 2, small, count, time), RESULT_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2);
    EXPECT_THAT(small, ElementsAre(9, 9));

    sensor_sim::camera::setLev2Faults({}, 0);
    count = 2;
    EXPECT_EQ(client.getRadarLev2FaultInfo(1, 2, small, count, time), RESULT_OK);
    EXPECT_EQ(count, 0);

    const std::pair<int32_t, int32_t> mapping[] = {{1, RESULT_BAD_PARAM}, {2, RESULT_SERVICE_FAILED},
                                                   {3, RESULT_ACCESS_FAILED}, {4, RESULT_OK},
                                                   {0x10001, RESULT_OK}};
    for (auto [service, expected] : mapping) {
        sensor_sim::camera::setLev2Faults({21}, 1, service);
        count = 0;
        EXPECT_EQ(client.getRadarLev2FaultInfo(1, 2, small, count, time),
                  expected == RESULT_OK ? RESULT_BUFFER_TOO_SMALL : expected)
            << "service result " << service;
    }
}

// Status and fsync: stale map entries stay, the start time is passed through, a failed state query
// leaves the caller's value.
TEST_F(SensorControl, StatusMapFsyncTimeAndInnerStates) {
    sensor_sim::camera::setPresent(6, false);
    std::map<SensorType, unsigned char> status{{CAM_SIDERIGHTREAR, 77}};
    unsigned int link = 0, video = 0;
    ASSERT_EQ(client.getSensorStatus(link, video, status), RESULT_OK);
    EXPECT_EQ(link, 0x3FFFFFu & ~(1u << 6));
    EXPECT_EQ(status.size(), 22u);
    EXPECT_EQ(status[CAM_SIDERIGHTREAR], 77);

    sensor_sim::camera::setFsyncFirstTime(123456789);
    unsigned long time = 0;
    EXPECT_EQ(client.getSensorFsyncStartTime(time), RESULT_OK);
    EXPECT_EQ(time, 123456789u);

    EXPECT_EQ(client.setFsyncDeltaMs(FSYNC_GROUP_2, 33), RESULT_OK);
    EXPECT_EQ(sensor_sim::camera::fsyncDelta(2), 33u);

    sensor_sim::camera::setLidarInnerState(2);
    InnerParaState state = INNER_PARA_STATE_1;
    EXPECT_EQ(client.getLidarInnerParaState(state), RESULT_OK);
    EXPECT_EQ(state, INNER_PARA_STATE_2);
    state = INNER_PARA_STATE_1;
    sensor_sim::injectStatus("getRadarInnerParaState", 0x0009);
    EXPECT_EQ(client.getRadarInnerParaState(state), RESULT_SERVICE_FAILED);
    EXPECT_EQ(state, INNER_PARA_STATE_1);
}

// The failure records, word for word, at error level, with file, function and line.
TEST_F(SensorControl, FailureRecordsAreExact) {
    sensor_sim::injectStatus("setFsyncDeltaMs", 0x10005);
    sensor_sim::injectStatus("getRadarInnerParaState", 0xFFFF);
    sensor_sim::injectStatus("getLidarInnerParaState", 0x0003);
    sensor_sim::injectStatus("detectLinkAndVideoMask", 0x0001);
    CCameraIpcClient legacy(APP_CAMERA_IRC);
    EXPECT_EQ(legacy.setFsyncDeltaMs(FSYNC_GROUP_0, 10), RESULT_SERVICE_FAILED);
    InnerParaState state{};
    client.getRadarInnerParaState(state);
    client.getLidarInnerParaState(state);
    unsigned int link = 0, video = 0;
    std::map<SensorType, unsigned char> status;
    client.getSensorStatus(link, video, status);

    auto all = records();
    ASSERT_EQ(all.size(), 4u);
    const std::pair<const char*, const char*> expected[] = {
        {"setFsyncDeltaMs", " setFsyncDeltaMs error: 5"},
        {"getRadarInnerParaState", " getRadarInnerParaState error: 65535"},
        {"getLidarInnerParaState", " getLidarInnerParaState error: 3"},
        {"getSensorStatus", "IRD: detectLinkAndVideoMask failed."}};
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].function, expected[i].first);
        EXPECT_EQ(all[i].text, expected[i].second);
        EXPECT_EQ(all[i].level, LogLevel::kError);
        EXPECT_EQ(all[i].file, "sensor_ipcclient_impl.cpp");
        EXPECT_GT(all[i].line, 0);
    }
}

// A logger that refuses the level gets no record, and no record is even built or formatted.
TEST_F(SensorControl, RefusedLevelBuildsAndFormatsNothing) {
    Clogger::GetInstance().initIrdLogger(sipc_test::makeLogger(LogLevel::kFatal));
    sensor_sim::injectStatus("setFsyncDeltaMs", 5);
    sensor_sim::injectStatus("getAllSensorTypeInfo", 5, -1);
    sensor_sim::injectStatus("detectLinkAndVideoMask", 5);
    EXPECT_EQ(client.setFsyncDeltaMs(FSYNC_GROUP_0, 1), RESULT_SERVICE_FAILED);
    std::vector<SensorTypeInfo> list;
    client.getAllSensorTypeInfo(list);
    unsigned int link = 0, video = 0;
    std::map<SensorType, unsigned char> status;
    client.getSensorStatus(link, video, status);

    auto counters = sensor_sim::logs::counters();
    EXPECT_EQ(counters.filterCalls, 24u);
    EXPECT_EQ(counters.events, 0u);
    EXPECT_EQ(counters.insertions, 0u);
    EXPECT_TRUE(records().empty());
}

}  // namespace
