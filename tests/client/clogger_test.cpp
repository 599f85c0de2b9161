// The library's logger singleton: replacement rules and the empty logger.
#include <gtest/gtest.h>

#include "clogger.h"
#include "sensor_ipc_client.h"
#include "sim_test.h"

namespace {

using vexa::sensor_access::Clogger;
using vexa::vexalog::LogLevel;

class CloggerTest : public sipc_test::SimTest {};

// Writing records before anyone set a logger must work (records are offered with an empty logger).
TEST_F(CloggerTest, RecordsBeforeAnyLoggerDoNotFail) {
    if (Clogger::GetInstance().getIrdlogger()) GTEST_SKIP() << "a logger was set earlier in this process";
    sensor_sim::logs::setEmptyLoggerLevel(LogLevel::kError);
    sensor_sim::injectStatus("setFsyncDeltaMs", 1);
    vexa::sensor_access::SensorIpcClient client(vexa::cameraipcclient::APP_SENSOR_ABS);
    EXPECT_EQ(client.setFsyncDeltaMs(vexa::cameraipcclient::FSYNC_GROUP_0, 1),
              vexa::cameraipcclient::RESULT_SERVICE_FAILED);
    auto written = sipc_test::records();
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].logger, nullptr);
}

// An empty logger must not replace a real one; a real one replaces whatever was held.
TEST_F(CloggerTest, ReplacementRules) {
    auto first = sipc_test::makeLogger(LogLevel::kInfo, "ONE");
    auto second = sipc_test::makeLogger(LogLevel::kInfo, "TWO");
    Clogger& clogger = Clogger::GetInstance();
    EXPECT_TRUE(clogger.initIrdLogger(first));
    EXPECT_FALSE(clogger.initIrdLogger(nullptr));
    EXPECT_EQ(clogger.getIrdlogger(), first);
    EXPECT_TRUE(clogger.initIrdLogger(second));
    EXPECT_EQ(clogger.getIrdlogger(), second);

    sensor_sim::injectStatus("setFsyncDeltaMs", 1);
    vexa::sensor_access::SensorIpcClient(vexa::cameraipcclient::APP_CAMERA_DEMO)
        .setFsyncDeltaMs(vexa::cameraipcclient::FSYNC_GROUP_0, 1);
    auto written = sipc_test::records();
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].logger, static_cast<const void*>(second.get()));
    EXPECT_EQ(written[0].appId, "TWO");
}

}  // namespace
