// Test fixture and helpers over the simulator's control API.
#ifndef SIPC_TESTS_SIM_TEST_H
#define SIPC_TESTS_SIM_TEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sensor_sim/control.h"
#include "vexa_log.h"
#include "wait_for.h"

namespace sipc_test {

// Every test starts from the simulator's defaults: scripted streams, no injections, empty journal and logs.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { sensor_sim::reset(); }
};

// Records written through the logging substitute, optionally only those of one function.
inline std::vector<sensor_sim::logs::Record> records(const std::string& function = "") {
    std::vector<sensor_sim::logs::Record> out;
    for (auto& r : sensor_sim::logs::records()) {
        if (function.empty() || r.function == function) out.push_back(r);
    }
    return out;
}

// A buffer of the simulated platform holding the test pattern.
inline std::shared_ptr<sensor_sim::Buffer> patterned(const sensor_sim::BufferSpec& spec) {
    auto buffer = sensor_sim::makeBuffer(spec);
    sensor_sim::fillPattern(*buffer);
    return buffer;
}

// A logger of the logging substitute that admits records up to `level`.
inline std::shared_ptr<vexa::vexalog::Logger> makeLogger(vexa::vexalog::LogLevel::Level level,
                                                         const std::string& app = "TEST") {
    vexa::vexalog::CtxFileInfo ctx{0, "%l [%m]%n"};
    return vexa::vexalog::createLogger(app, "con." + app, level, ctx);
}

}  // namespace sipc_test

#endif  // SIPC_TESTS_SIM_TEST_H
