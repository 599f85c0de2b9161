// The vehicle interface's contract, run against both implementations on the small rig: the in-process
// vehicle, and the served vehicle of a sensor-simd started by the test (ended by its pid, its socket in
// a temporary directory removed afterwards). Whatever answers, a caller sees the same vehicle.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "child_process.h"
#include "sensor_sim/internal/vehicle.h"
#include "sensor_sim/rig.h"
#include "sim_test.h"

namespace {

namespace msg = sensor_sim::msg;
namespace streams = sensor_sim::streams;
using namespace std::chrono_literals;
using sipc_test::waitFor;

const std::vector<streams::Config> kWide = {{"ipc-camera-wide-isp0", 0, 2, 16, 200, 0},
                                            {"ipc-camera-wide", 0, 2, 16, 200, 0}};

class VehicleContract : public sipc_test::SimTest, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        SimTest::SetUp();
        const std::string rig = std::string(SIPC_SOURCE_DIR) + "/examples/rigs/small.toml";
        if (served()) {
            char dir[] = "/tmp/sensor-contract-XXXXXX";
            ASSERT_NE(::mkdtemp(dir), nullptr);
            m_dir = dir;
            const std::string socket = m_dir + "/service.sock";
            m_service = sipc_test::startChild({SIPC_SERVICE_BIN, "--rig", rig, "--socket", socket}, {},
                                              m_dir + "/service.out", m_dir + "/service.err");
            std::string error;
            ASSERT_TRUE(waitFor([&] { return (m_served = sensor_sim::vehicle::connect(socket, &error)) != nullptr; }))
                << error;
        } else {
            ASSERT_EQ(sensor_sim::rig::loadFile(rig), "");
            sensor_sim::rig::start();
        }
    }
    void TearDown() override {
        m_served.reset();
        if (served()) {
            // A clean exit: a sanitizer's report in the service would end it otherwise.
            EXPECT_EQ(sipc_test::endChild(m_service, SIGTERM, 10s), 0);
            std::filesystem::remove_all(m_dir);
        } else {
            sensor_sim::rig::stop();
        }
    }
    bool served() const { return std::string(GetParam()) == "served"; }
    sensor_sim::vehicle::Vehicle& vehicle() {
        return served() ? *m_served : sensor_sim::vehicle::inProcess();
    }
    // A started consumer of camera 2's outputs.
    std::unique_ptr<sensor_sim::vehicle::Consumer> started(const std::string& channel) {
        auto c = vehicle().createConsumer();
        EXPECT_EQ(c->initConsumer("SDEMO", channel, 4), 0);
        EXPECT_EQ(c->regConsumerStream(2, kWide, false, std::nullopt), 0);
        EXPECT_EQ(c->initConsumerDone(), 0);
        EXPECT_TRUE(waitFor([&] { return c->getStreamState() == 1; }, 5s));
        return c;
    }

private:
    std::string m_dir;
    pid_t m_service = -1;
    std::unique_ptr<sensor_sim::vehicle::Vehicle> m_served;
};

// Catches a call whose arguments or answers are lost or altered on the way (a field marshalled wrongly,
// an output written on failure).
TEST_P(VehicleContract, CameraAccessAnswersAlike) {
    auto& v = vehicle();
    const uint32_t mask = v.ask(msg::DetectAllSensors{}).mask;
    EXPECT_EQ(mask & (1u << 2 | 1u << 12 | 1u << 14 | 1u << 15), 1u << 2 | 1u << 12 | 1u << 14 | 1u << 15);
    EXPECT_EQ(v.ask(msg::WriteReg16{2, 0x3000, 0xBEEF}).status, 0u);
    const auto reg = v.ask(msg::ReadReg16{2, 0x3000});
    EXPECT_EQ(reg.status, 0u);
    EXPECT_EQ(reg.value, 0xBEEF);
    EXPECT_EQ(v.ask(msg::WriteI2c{15, 0x50, {1, 2, 3}, 3}).status, 0u);
    const auto i2c = v.ask(msg::ReadI2c{15, 0x50, 3});
    EXPECT_EQ(i2c.bytes, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_NE(v.ask(msg::ReadReg8{5, 0x10}).status, 0u) << "an absent sensor answered";
    EXPECT_NE(v.ask(msg::SetFsyncDelta{99, 5}).status, 0u) << "an unknown sync group was accepted";
    const auto link = v.ask(msg::DetectLinkAndVideo{});
    EXPECT_EQ(link.status, 0u);
    EXPECT_NE(link.linkMask & (1u << 2), 0u);
    EXPECT_EQ(v.ask(msg::GetSensorInfo{2}).status, 0u);
    EXPECT_EQ(v.ask(msg::GetRadarInnerState{}).status, 0u);
}

// Catches frames that lose their counter, buffer or pairing on the way, releases that are not checked,
// and statistics that do not reach the caller.
TEST_P(VehicleContract, FramesGetReleaseAndStatistics) {
    auto c = started("nvipc-demo-camera");
    streams::FrameSpec frame;
    ASSERT_EQ(c->getFrame(2, 1, &frame), 0);
    ASSERT_TRUE(frame.buffer);
    EXPECT_EQ(frame.buffer->size(), sensor_sim::bufferBytes(frame.buffer->spec()));
    const uint64_t first = frame.counter;
    EXPECT_EQ(c->releaseFrame(2, 1, frame.objIndex, frame.counter), 0);
    EXPECT_EQ(c->releaseFrame(2, 1, frame.objIndex, frame.counter), streams::kNotHeld);
    ASSERT_EQ(c->getFrame(2, 1, &frame), 0);
    EXPECT_GT(frame.counter, first);
    EXPECT_TRUE(waitFor([&] { return vehicle().ask(msg::GetStats{2, frame.counter}).found; }, 2s));
    EXPECT_EQ(vehicle().ask(msg::GetStats{2, frame.counter}).data.size(),
              sensor_sim::stats::kRegions * sensor_sim::stats::kBlockBytes);
    EXPECT_EQ(c->releaseFrame(2, 1, frame.objIndex, frame.counter), 0);
    streams::FrameSpec raw;
    ASSERT_EQ(c->getFrame(2, 0, &raw), 0);
    EXPECT_EQ(raw.buffer->spec().planes.size(), 1u) << "the raw frame is not the Bayer capture";
    EXPECT_EQ(c->releaseFrame(2, 0, raw.objIndex, raw.counter), 0);
    EXPECT_EQ(c->getFrame(12, 0, &frame), streams::kNotRegistered);
    EXPECT_EQ(c->deinitStream(), 0);
}

// Catches a registration that is not checked against the rig, and calls before initConsumer that are
// answered as if initialised.
TEST_P(VehicleContract, RefusalsAnswerAlike) {
    auto c = vehicle().createConsumer();
    streams::FrameSpec frame;
    EXPECT_EQ(c->getFrame(2, 1, &frame), streams::kNotInitialised);
    EXPECT_EQ(c->getStreamState(), 2);
    ASSERT_EQ(c->initConsumer("SDEMO", "nvipc-demo-sensor", 4), 0);
    EXPECT_EQ(c->regConsumerStream(2, {{"ipc-sensor-nowhere", 0, 2, 16, 100, 0}}, false, std::nullopt),
              streams::kUnknownStream);
    EXPECT_EQ(c->regConsumerStream(2, kWide, false, 6), 6) << "an injected status was not answered";
}

INSTANTIATE_TEST_SUITE_P(Vehicles, VehicleContract, testing::Values("in_process", "served"));

}  // namespace
