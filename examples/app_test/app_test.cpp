// Tests of the example application against the simulated vehicle of the installed SDK: the control API
// (sensor_sim/control.h) scripts the faults, and the tests check how the application reacts.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "consumer.h"
#include "sensor_sim/control.h"

namespace {

using namespace vexa::cameraipcclient;
namespace sim = sensor_sim;

constexpr uint32_t kRadar = SENSOR_FRONTSLAVE;
constexpr uint32_t kLidar = SENSOR_MIDLIDAR;

class AppTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Scripted mode: no producer runs; the test pushes every frame. The first initLogging of the
        // process decides where records go: standard error, not the vehicle's log directory.
        sim::reset();
        vexa::vexalog::initLogging("APPTEST", "con.APPTEST", vexa::vexalog::LogMode::kConsole,
                                   vexa::vexalog::LogLevel::kWarn, "/tmp", {10, 5, 0});
    }

    // An application consuming the radar and the lidar, and camera 2 with its raw frames.
    example::Consumer& started() {
        m_app = std::make_unique<example::Consumer>(1u << kRadar | 1u << kLidar, 1u << CAMERA_WIDE, nullptr);
        EXPECT_EQ(m_app->init(), RESULT_OK);
        EXPECT_TRUE(m_app->start());
        return *m_app;
    }

    static void push(uint32_t stream, uint32_t output, uint64_t counter, uint16_t index = 0) {
        sim::streams::FrameSpec frame;
        frame.counter = counter;
        frame.objIndex = index;
        frame.buffer = sim::makeBuffer(sim::BufferSpec::single(64, 4, 8, sim::kColorY8));
        ASSERT_EQ(sim::streams::push(stream, output, frame), 1u);
    }

    std::unique_ptr<example::Consumer> m_app;
};

// Frames of every API come, are used and all go back to the stream; camera 2 comes with its raw frame.
TEST_F(AppTest, ConsumesAndReturnsEveryFrame) {
    auto& app = started();
    for (uint64_t n = 1; n <= 3; ++n) {
        push(kRadar, 0, n);
        push(kLidar, 0, n);
        push(CAMERA_WIDE, 0, n);  // raw (capture output) ...
        push(CAMERA_WIDE, 1, n);  // ... and processed frame of the same exposure
        EXPECT_TRUE(app.pollSensors());
        EXPECT_TRUE(app.pollCameras());
    }
    EXPECT_EQ(app.counters().at(kRadar).frames, 3u);
    EXPECT_EQ(app.counters().at(kLidar).frames, 3u);
    EXPECT_EQ(app.counters().at(CAMERA_WIDE).paired, 3u);
    app.shutdown();
    EXPECT_TRUE(sim::streams::held().empty());
}

// A sensor that disappears is reported lost after a few silent rounds; the others go on.
TEST_F(AppTest, SensorDisappears) {
    auto& app = started();
    sim::camera::setPresent(kRadar, false);
    for (uint64_t n = 1; n <= 6; ++n) {
        push(kLidar, 0, n);
        app.pollSensors();
    }
    EXPECT_TRUE(app.counters().at(kRadar).lost);
    EXPECT_EQ(app.counters().at(kLidar).frames, 6u);
    EXPECT_FALSE(app.counters().at(kLidar).lost);
    // Back again: its next frame clears the mark.
    sim::camera::setPresent(kRadar, true);
    for (uint64_t n = 1; n <= 5; ++n) push(kRadar, 0, n, static_cast<uint16_t>(n));
    for (int round = 0; round < 5; ++round) app.pollSensors();
    EXPECT_FALSE(app.counters().at(kRadar).lost);
    EXPECT_GT(app.counters().at(kRadar).frames, 0u);
}

// Faults on one frame of the radar: what the application counts and which frames stay held.
TEST_F(AppTest, FrameFaults) {
    struct Case {
        const char* fn;
        int status;
        int count;
        uint64_t frames, lostFrames, retries, leaked;
        size_t held;
    };
    const Case cases[] = {
        {"releaseFrame", 5, 1, 1, 0, 1, 0, 0},           // refused once: the retry returns it
        {"releaseFrame", 5, 2, 1, 0, 1, 1, 1},           // refused twice: counted as leaked, still held
        {"NvSciBufObjGetPixels", 1, 1, 0, 1, 0, 0, 0},   // the CPU copy fails: the library returned it
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.fn) + " x" + std::to_string(c.count));
        sim::reset();
        auto& app = started();
        push(kRadar, 0, 1);
        sim::injectStatus(c.fn, c.status, c.count);
        app.pollSensors();
        const auto& radar = app.counters().at(kRadar);
        EXPECT_EQ(radar.frames, c.frames);
        EXPECT_EQ(radar.lostFrames, c.lostFrames);
        EXPECT_EQ(radar.releaseRetries, c.retries);
        EXPECT_EQ(radar.leaked, c.leaked);
        EXPECT_EQ(sim::streams::held().size(), c.held);
    }
}

// A stop request (the application's signal) ends a start that waits for a connection that never comes.
TEST_F(AppTest, StopEndsAWaitingStart) {
    sim::streams::setStates({0});  // connecting, for ever
    example::Consumer app(1u << kRadar, 0, nullptr);
    ASSERT_EQ(app.init(), RESULT_OK);
    auto started = std::async(std::launch::async, [&] { return app.start(); });
    EXPECT_EQ(started.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    app.requestStop();
    ASSERT_EQ(started.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_FALSE(started.get());
    EXPECT_FALSE(app.pollSensors());
}

}  // namespace
