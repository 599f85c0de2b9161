// Rig and scenario files: refusals that name file, line and problem; the example files; what a loaded
// rig and scenario answer through the camera-access and stream substitutes; the environment's files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "camera_access_interface.h"
#include "image_stream_master.h"
#include "live_consumer.h"
#include "sensor_sim/core.h"
#include "sensor_sim/service.h"
#include "sim_test.h"

namespace {

namespace rig = sensor_sim::rig;
using vexa::cameraaccess::CameraAccessInterface;

struct BadFile {
    const char* text;
    const char* where;
    const char* problem;
    bool scenario = false;  // a scenario file, else a rig file
};

void PrintTo(const BadFile& f, std::ostream* os) {
    *os << f.problem;
}

std::string scratch(const std::string& name) {
    const char* dir = std::getenv("SIPC_TEST_SCRATCH");
    return (dir != nullptr ? std::string(dir) : std::filesystem::current_path().string()) + "/" + name;
}

class BrokenFile : public sipc_test::SimTest, public ::testing::WithParamInterface<BadFile> {};
using RigFiles = sipc_test::SimTest;

// A broken rig or scenario must be refused with its line and problem, and must not replace the loaded
// rig half-way.
TEST_P(BrokenFile, IsRefusedWithLineAndProblem) {
    const std::string before = rig::loadedText();
    const std::string error = GetParam().scenario ? rig::loadScenario(GetParam().text, "bad.toml")
                                                  : rig::load(GetParam().text, "bad.toml");
    EXPECT_NE(error.find(GetParam().where), std::string::npos) << error;
    EXPECT_NE(error.find(GetParam().problem), std::string::npos) << error;
    EXPECT_EQ(rig::loadedText(), before);
}

#define GREY_STREAM "[[stream]]\nid = 12\n[stream.capture]\nformat = \"grey8\"\nwidth = 16\nheight = 4\n"
INSTANTIATE_TEST_SUITE_P(
    Files, BrokenFile,
    ::testing::Values(
        BadFile{"[rig\nfifo_depth = 4\n", "bad.toml:1:", "not valid TOML"},
        BadFile{"# gain in dB\n[[stream]]\nid = 12 \xc2\xb1\n", "bad.toml:3:9",
                "character U+00B1 is not supported"},
        BadFile{"[[stream]]\nid = 12\n[stream.capture]\nformat = \"grey8\"\nwidht = 16\nheight = 4\n",
                "bad.toml:5:1", "unknown key 'widht' in [stream.capture] of stream 12"},
        BadFile{"[[stream]]\nid = 22\n", "bad.toml:2:", "'id' = 22 is out of range 0..21"},
        BadFile{"[[stream]]\nid = 2\n[stream.processed]\nformat = \"yuv420\"\nwidth = 63\nheight = 8\n",
                "bad.toml:3:", "yuv420 needs an even width and height, not 63x8"},
        BadFile{"[[stream]]\nid = 12\n[stream.capture]\nformat = \"rgb\"\nwidth = 8\nheight = 8\n",
                "bad.toml:4:", "unknown format 'rgb'"},
        BadFile{GREY_STREAM GREY_STREAM, "bad.toml:7:", "stream 12 is listed twice (first at line 1)"},
        BadFile{"[[stream]]\nid = 12\nrate_hz = \"fast\"\n",
                "bad.toml:3:", "'rate_hz' must be a number, not a string"},
        BadFile{"[[stream]]\nid = 12\nrate_hz = 100\n[stream.capture]\nformat = \"grey8\"\nwidth = 8\nheight "
                "= 8\n"
                "offset_ms = -8\njitter_ms = 3\n",
                "bad.toml:4:", "below the frame period"},
        BadFile{"[[stream]]\nid = 8\n[stream.capture]\nreplay = \"no_such_dir/client_cam_8_1_64_X_16.yuv\"\n",
                "bad.toml:4:", "cannot open replay file"},
        BadFile{"[[stream]]\nid = 8\n[stream.capture]\nreplay = \"frames.bin\"\n",
                "bad.toml:4:", "'frames.bin' is not a dump file name"},
        BadFile{"[[stream]]\nid = 15\n[stream.capture]\nformat = \"grey8\"\nwidth = 8\nheight = 8\n",
                "bad.toml:3:", "stream 15 has no capture output on the vehicle; give this one a 'name'"},
        BadFile{
            "[[stream]]\nid = 0\n[stream.processed]\nname = \"ipc-camera-x\"\nformat = \"grey8\"\nwidth = 8\n"
            "height = 8\n",
            "bad.toml:3:", "does not fit the processed output"},
        BadFile{"stream = 3\n", "bad.toml:1:", "must be written as [[stream]] sections"},
        BadFile{"[[sensor]]\nid = 3\ninfo = [1, 2, 3]\n", "bad.toml:3:", "'info' must hold 6 values, not 3"},
        BadFile{"[[event]]\nat_s = 1\nkind = \"meteor\"\n", "bad.toml:3:", "unknown kind 'meteor'", true},
        BadFile{"[[event]]\nat_s = 1\nkind = \"sensor_lost\"\n", "bad.toml:1:", "needs a 'sensor'", true},
        BadFile{"[[event]]\nat_s = 1\nkind = \"call_fail\"\ncall = \"reboot\"\n",
                "bad.toml:4:", "'reboot' cannot be failed", true},
        BadFile{"[[event]]\nat_s = 1\nkind = \"call_fail\"\ncall = \"readSensorI2C\"\nstatus = 0x10000\n",
                "bad.toml:5:", "the client would read it as success", true},
        BadFile{"[[event]]\nat_s = -1\nkind = \"detect_fail\"\n",
                "bad.toml:2:", "'at_s' = -1 is out of range", true},
        BadFile{"[[event]]\nat_s = 1\nkind = \"connect_fail\"\nstream = 12\nsensor = 3\n",
                "bad.toml:5:", "'sensor' does not apply to a connect_fail event", true},
        BadFile{"[scenario]\nclock = \"wall\"\n", "bad.toml:2:", "unknown clock 'wall'", true}));

// The example files must stay loadable, and default.toml must be exactly the built-in rig, or the
// documentation would describe a vehicle nobody runs. Unreadable paths must be reported, not crash.
TEST_F(RigFiles, ExamplesLoadAndDefaultMatchesBuiltIn) {
    namespace fs = std::filesystem;
    for (const char* dir : {"/examples/rigs", "/examples/scenarios"}) {
        for (const auto& entry : fs::directory_iterator(std::string(SIPC_SOURCE_DIR) + dir)) {
            const std::string path = entry.path().string();
            EXPECT_EQ(std::string(dir).find("rigs") != std::string::npos ? rig::loadFile(path)
                                                                         : rig::loadScenarioFile(path),
                      "")
                << path;
        }
    }
    ASSERT_EQ(rig::loadFile(SIPC_SOURCE_DIR "/examples/rigs/default.toml"), "");
    EXPECT_EQ(rig::loadedText(), rig::defaultText());
    EXPECT_NE(rig::loadFile(SIPC_SOURCE_DIR "/examples/rigs/missing.toml").find("missing.toml: cannot open"),
              std::string::npos);
    EXPECT_NE(rig::loadScenarioFile(SIPC_SOURCE_DIR "/examples").find("not a regular file"),
              std::string::npos);
}

// A loaded rig must replace the vehicle: only its sensors detected (a stream implies its sensor), its
// answers from the camera-access calls, only its streams registrable; reset() must restore the default.
TEST_F(RigFiles, LoadedRigDrivesCameraAccessAndStreamTable) {
    sipc_test::startRig("[[sensor]]\nid = 15\ninfo = [9, 8, 7, 6, 5, 4]\n" GREY_STREAM);
    auto& cam = CameraAccessInterface::getInstance();
    EXPECT_EQ(cam.detectAllSensors(), (1u << 12) | (1u << 15));
    unsigned char info[6] = {};
    EXPECT_EQ(cam.getSensorInfo(15, info[0], info[1], info[2], info[3], info[4], info[5]), 0u);
    EXPECT_EQ(info[0] + info[5], 9 + 4);
    EXPECT_NE(cam.getSensorInfo(3, info[0], info[1], info[2], info[3], info[4], info[5]), 0u);
    EXPECT_EQ(cam.getSensorInfo(12, info[0], info[1], info[2], info[3], info[4], info[5]), 0u);
    EXPECT_EQ(info[0], 12);  // a sensor implied by its stream answers as the built-in one
    vexa::imgstream::ImageStreamMaster master;
    ASSERT_EQ(master.initConsumer("RIG", "chan", nullptr, 4), 0);
    std::vector<vexa::imgstream::ImageStreamConfig> radar{{"ipc-sensor-frontslave", 0, 2, 16, 0, 0}};
    std::vector<vexa::imgstream::ImageStreamConfig> camera{{"ipc-camera-wideleft-isp0", 1, 2, 16, 0, 0}};
    EXPECT_EQ(master.regConsumerStream(12, radar, nullptr), 0);
    EXPECT_EQ(master.regConsumerStream(0, camera, nullptr), sensor_sim::streams::kUnknownStream);
    sensor_sim::reset();
    EXPECT_FALSE(rig::running());
    EXPECT_EQ(cam.detectAllSensors(), 0x3FFFFFu);
}

// A scripted call fault must fail exactly the named call of the named sensor for its count, and a
// detection fault must answer its value until its window ends (process clock: from the start).
TEST_F(RigFiles, ScenarioCallAndDetectionFaults) {
    sipc_test::startRig(
        GREY_STREAM
        "[[stream]]\nid = 2\n[stream.processed]\nformat = \"yuv420\"\nwidth = 8\n"
        "height = 8\n[[sensor]]\nid = 3\n",
        "[scenario]\nclock = \"process\"\n"
        "[[event]]\nat_s = 0\nkind = \"call_fail\"\ncall = \"readSensorRegUint16\"\nsensor = 2\n"
        "calls = 2\n"
        "[[event]]\nat_s = 0\nkind = \"detect_fail\"\nfor_s = 0.2\n");
    auto& cam = CameraAccessInterface::getInstance();
    EXPECT_EQ(cam.detectAllSensors(), 0xEFFFFFu);
    unsigned short value = 0;
    EXPECT_EQ(cam.readSensorRegUint16(3, 0x10, value), 0u);
    EXPECT_EQ(cam.readSensorRegUint16(2, 0x10, value), 4u);
    EXPECT_EQ(cam.readSensorRegUint16(2, 0x10, value), 4u);
    EXPECT_EQ(cam.readSensorRegUint16(2, 0x10, value), 0u);
    EXPECT_TRUE(
        sipc_test::waitFor([&] { return cam.detectAllSensors() == ((1u << 2) | (1u << 3) | (1u << 12)); }));
}

// A broken SENSOR_SIM_RIG (or an unreadable scenario) must be reported on standard error with file, line
// and problem, kept for tools to report, and never answered with another vehicle: the process runs one
// without sensors. Needs a process that never reset (ctest runs each test in its own process).
TEST(RigEnvironment, BrokenFilesLeaveAVehicleWithoutSensors) {
    if (!sensor_sim::core::live()) GTEST_SKIP() << "needs a process that never called reset()";
    const std::string path = scratch("broken_env_rig.toml");
    std::ofstream(path) << "[[stream]]\nid = 99\n";
    ASSERT_EQ(setenv("SENSOR_SIM_RIG", path.c_str(), 1), 0);
    ASSERT_EQ(setenv("SENSOR_SIM_SCENARIO", scratch("no_such_scenario.toml").c_str(), 1), 0);
    testing::internal::CaptureStderr();
    const uint32_t mask = CameraAccessInterface::getInstance().detectAllSensors();  // the first use
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mask, 0u);
    const std::string problem = sensor_sim::service::vehicleFileProblem();
    for (const std::string& text : {err, problem}) {
        EXPECT_NE(text.find(path + ":2:6: 'id' = 99 is out of range 0..21"), std::string::npos) << text;
        EXPECT_NE(text.find("no_such_scenario.toml: cannot open"), std::string::npos) << text;
    }
    EXPECT_NE(rig::loadedText(), rig::defaultText());
}

}  // namespace
