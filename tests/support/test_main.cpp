// Main of every test executable: log files of the logging substitute go to the build's scratch
// directory (unless VEXALOG_DIR says otherwise), never to the vehicle's log directory, and a sensor-simd
// that a developer runs at the default socket never serves the tests (unless SENSOR_SIM_SERVICE says so).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    setenv("VEXALOG_DIR", (std::string(SIPC_TEST_SCRATCH) + "/logs").c_str(), 0);
    setenv("SENSOR_SIM_SERVICE", "off", 0);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
