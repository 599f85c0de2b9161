// start, stop and deInit: the -9 before any init, the polling of the stream state, the records, and
// the consumer that survives deInit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

std::vector<std::string> texts(const std::string& function) {
    std::vector<std::string> out;
    for (auto& r : records(function)) out.push_back(r.text);
    return out;
}

class Lifecycle : public sipc_test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        Clogger::GetInstance().initIrdLogger(sipc_test::makeLogger(LogLevel::kVerbose));
        sensor_sim::clearJournal();
    }
    // A sensor-type client initialised with the current logger (its records show the default name).
    SensorIpcClient initialised(AppType app) {
        SensorIpcClient client(app);
        unsigned int mask = 1u << 12;
        EXPECT_EQ(client.init(mask, 0, Clogger::GetInstance().getIrdlogger()), RESULT_OK);
        sensor_sim::clearJournal();
        sensor_sim::logs::clear();
        return client;
    }
};

// Before any init there is no consumer: start answers -9 and writes nothing; stop only logs.
TEST_F(Lifecycle, FreshObjectHasNoConsumer) {
    SensorIpcClient client(static_cast<AppType>(4711));
    EXPECT_EQ(client.start(), RESULT_NOT_INIT);
    client.deInit();
    client.stop();
    EXPECT_TRUE(sensor_sim::journal().empty());
    EXPECT_THAT(texts(""), ElementsAre("[null]stop stream Success"));
}

// The state is asked until it is decided; undecided answers are waited out.
TEST_F(Lifecycle, StartPollsUntilConnected) {
    SensorIpcClient client = initialised(APP_SENSOR_DEMO);
    sensor_sim::streams::setStates({0, 0, 1});
    EXPECT_EQ(client.start(), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("initConsumerDone"), 1u);
    EXPECT_EQ(sensor_sim::callCount("getStreamState"), 3u);
    EXPECT_THAT(texts("start"),
                ElementsAre("[null]StartStream Start", "[null]ImageStreamMaster connect success.",
                            "[null]StartStream Success"));
    for (auto& r : records("start")) EXPECT_EQ(r.level, LogLevel::kInfo);
}

// A failed connection or a failed set-up ends start with -2 and no success record.
TEST_F(Lifecycle, StartFailures) {
    SensorIpcClient client = initialised(APP_SENSOR_IRC);
    sensor_sim::streams::setStates({2});
    EXPECT_EQ(client.start(), RESULT_ERROR);
    EXPECT_THAT(texts("start"), ElementsAre("[null]StartStream Start", "[null]ImageStreamMaster connect failed."));
    EXPECT_EQ(records("start")[1].level, LogLevel::kError);

    sensor_sim::logs::clear();
    sensor_sim::injectStatus("initConsumerDone", 7);
    EXPECT_EQ(client.start(), RESULT_ERROR);
    EXPECT_THAT(texts("start"), ElementsAre("[null]StartStream Start", "[null]Start failed.7"));
}

// deInit keeps the consumer: it can be repeated, and a later start reaches the stream library again
// (without waiting, since the init flag is down).
TEST_F(Lifecycle, DeInitKeepsTheConsumer) {
    SensorIpcClient client = initialised(APP_SENSOR_ABS);
    client.deInit();
    client.deInit();
    EXPECT_EQ(sensor_sim::callCount("deinitStream"), 2u);
    EXPECT_THAT(texts("deInit"), ElementsAre("[null]deInit stream Success", "[null]deInit stream Success"));
    EXPECT_EQ(client.start(), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("initConsumerDone"), 1u);
    EXPECT_EQ(sensor_sim::callCount("getStreamState"), 0u);
}

// Both facades of one application type drive the same object; the legacy init names it.
TEST_F(Lifecycle, FacadesOfOneAppTypeShareTheObject) {
    unsigned short cameras = 0x0001;
    ASSERT_EQ(CCameraIpcClient(APP_KAU_CUDA).Init(cameras, false), RESULT_OK);
    sensor_sim::logs::clear();
    Clogger::GetInstance().initIrdLogger(sipc_test::makeLogger(LogLevel::kVerbose));
    EXPECT_EQ(SensorIpcClient(APP_KAU_CUDA).start(), RESULT_OK);
    SensorIpcClient(APP_KAU_CUDA).stop();
    CCameraIpcClient(APP_KAU_CUDA).Stop();
    EXPECT_THAT(texts("stop"), ElementsAre("[KAC]stop stream Success", "[KAC]stop stream Success"));
}

}  // namespace
