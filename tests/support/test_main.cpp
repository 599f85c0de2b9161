// Main of every test executable: log files of the logging substitute go to the build's scratch
// directory (unless VEXALOG_DIR says otherwise), never to the vehicle's log directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    setenv("VEXALOG_DIR", (std::string(SIPC_TEST_SCRATCH) + "/logs").c_str(), 0);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
