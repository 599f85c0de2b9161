// Fixture for frame tests: connected clients of both APIs over scripted streams, frames pushed with
// chosen counters, and the frames the stream substitute still counts as held.
#ifndef SIPC_TESTS_FRAME_TEST_H
#define SIPC_TESTS_FRAME_TEST_H

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "camera_ipc_client.h"
#include "clogger.h"
#include "sensor_ipc_client.h"
#include "sim_test.h"

namespace sipc_test {

// stream id, output, object index, counter
using HeldFrame = std::tuple<uint32_t, uint32_t, uint16_t, uint64_t>;

inline std::vector<HeldFrame> heldFrames() {
    std::vector<HeldFrame> out;
    for (auto& h : sensor_sim::streams::held()) out.emplace_back(h.streamId, h.output, h.objIndex, h.counter);
    return out;
}

inline NvSciBufObj handle(const std::shared_ptr<sensor_sim::Buffer>& buffer) {
    return reinterpret_cast<NvSciBufObj>(buffer.get());
}

class FrameTest : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        vexa::sensor_access::Clogger::GetInstance().initIrdLogger(makeLogger(vexa::vexalog::LogLevel::kVerbose));
        sensor_sim::clearJournal();
    }

    // A legacy client of `app` connected to the cameras of `mask`.
    vexa::cameraipcclient::CCameraIpcClient legacy(vexa::cameraipcclient::AppType app, unsigned short mask,
                                                   bool raw) {
        vexa::cameraipcclient::CCameraIpcClient client(app);
        EXPECT_EQ(client.Init(mask, raw), vexa::cameraipcclient::RESULT_OK);
        EXPECT_EQ(client.Start(), vexa::cameraipcclient::RESULT_OK);
        settle();
        return client;
    }

    // A current-API client of `app` connected to the sensors of `mask` (radars and lidars).
    vexa::sensor_access::SensorIpcClient current(vexa::cameraipcclient::AppType app, unsigned int mask) {
        vexa::sensor_access::SensorIpcClient client(app);
        EXPECT_EQ(client.init(mask, 0, vexa::sensor_access::Clogger::GetInstance().getIrdlogger()),
                  vexa::cameraipcclient::RESULT_OK);
        EXPECT_EQ(client.start(), vexa::cameraipcclient::RESULT_OK);
        settle();
        return client;
    }

    // Forget what set-up did: journal and log records.
    void settle() {
        vexa::sensor_access::Clogger::GetInstance().initIrdLogger(makeLogger(vexa::vexalog::LogLevel::kVerbose));
        sensor_sim::clearJournal();
        sensor_sim::logs::clear();
    }

    static void push(uint32_t stream, uint32_t output, uint64_t counter, uint16_t objIndex,
                     std::shared_ptr<sensor_sim::Buffer> buffer = nullptr) {
        sensor_sim::streams::FrameSpec frame;
        frame.counter = counter;
        frame.objIndex = objIndex;
        frame.buffer = std::move(buffer);
        ASSERT_EQ(sensor_sim::streams::push(stream, output, frame), 1u);
    }
};

}  // namespace sipc_test

#endif  // SIPC_TESTS_FRAME_TEST_H
