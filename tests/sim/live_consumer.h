// Helpers of the live-vehicle tests: a consumer over the stream substitute and bounded waits.
#ifndef SIPC_TESTS_SIM_LIVE_CONSUMER_H
#define SIPC_TESTS_SIM_LIVE_CONSUMER_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image_stream_master.h"
#include "sensor_sim/control.h"
#include "sim_test.h"

namespace sipc_test {

using vexa::imgstream::ImageInfo;
using vexa::imgstream::OutputType;
constexpr OutputType kCapture = vexa::imgstream::OUTPUT_TYPE_ICP;
constexpr OutputType kProcessed = vexa::imgstream::OUTPUT_TYPE_ISP;

// One consumer of the stream substitute. Every get waits at most the registration's frame time-out.
class LiveConsumer {
public:
    explicit LiveConsumer(const std::string& name = "LIVE") {
        EXPECT_EQ(m_master.initConsumer(name, "nvipc-live-test", nullptr, 4), 0);
    }
    void reg(unsigned id, const std::vector<std::string>& names, uint32_t timeoutMs = 0) {
        std::vector<vexa::imgstream::ImageStreamConfig> configs;
        for (const auto& n : names) configs.push_back({n, 0, 2, 16, timeoutMs, 0});
        EXPECT_EQ(m_master.regConsumerStream(id, configs, nullptr), 0) << id;
    }
    void start() { EXPECT_EQ(m_master.initConsumerDone(), 0); }
    int take(unsigned id, OutputType out, ImageInfo* info) {
        *info = ImageInfo{};
        return m_master.getFrame(id, out, info);
    }
    // A frame within `tries` time-outs.
    bool takeWithin(unsigned id, OutputType out, ImageInfo* info, int tries = 50) {
        for (int i = 0; i < tries; ++i) {
            if (take(id, out, info) == 0) return true;
        }
        return false;
    }
    int give(unsigned id, OutputType out, const ImageInfo& info) {
        ImageInfo copy = info;
        return m_master.releaseFrame(id, out, &copy);
    }
    vexa::imgstream::ImageStreamMaster& master() { return m_master; }

private:
    vexa::imgstream::ImageStreamMaster m_master;
};

inline sensor_sim::Buffer* bufferOf(const ImageInfo& info) {
    return sensor_sim::findBuffer(info.bufObj);
}

// Loads a rig and starts the vehicle; fails the test with the loader's message.
inline void startRig(const std::string& rig, const std::string& scenario = "") {
    ASSERT_EQ(sensor_sim::rig::load(rig, "test-rig"), "");
    if (!scenario.empty()) {
        ASSERT_EQ(sensor_sim::rig::loadScenario(scenario, "test-scenario"), "");
    }
    sensor_sim::rig::start();
}

}  // namespace sipc_test

#endif  // SIPC_TESTS_SIM_LIVE_CONSUMER_H
