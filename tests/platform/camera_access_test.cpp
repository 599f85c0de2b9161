// Camera-access substitute and the simulated service behind it.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "camera_access_interface.h"
#include "sensor_sim/control.h"

namespace {

namespace cam = sensor_sim::camera;
using vexa::cameraaccess::CameraAccessInterface;
using vexa::cameraaccess::SensorID;
using vexa::cameraaccess::SensorVerInfo;
using Bytes = std::vector<uint8_t>;
using Faults = std::vector<unsigned short>;
using StatusMap = std::map<unsigned int, unsigned char>;

CameraAccessInterface& service() {
    return CameraAccessInterface::getInstance();
}
bool failed(uint32_t status) {
    return (status & 0xFFFF) != 0;
}

class CameraAccess : public ::testing::Test {
protected:
    void SetUp() override { sensor_sim::reset(); }
};

// Catches a wrong default rig: presence, link and video masks, identity bytes, versions or the type code
// of a sensor kind.
TEST_F(CameraAccess, DefaultRigAnswers) {
    EXPECT_EQ(service().detectAllSensors(), 0x3FFFFFu);
    unsigned int link = 0, video = 0;
    StatusMap status;
    EXPECT_EQ(service().detectLinkAndVideoMask(link, video, status), 0u);
    EXPECT_EQ(link & video, 0x3FFFFFu);
    EXPECT_EQ(status.size(), 22u);

    const std::string typeCodes = "1111111111112234222233";
    for (unsigned int id = 0; id < 22; ++id) {
        unsigned char b[6] = {};
        SensorVerInfo ver;
        bool present = false;
        unsigned char code = 0;
        ASSERT_EQ(service().getSensorInfo(id, b[0], b[1], b[2], b[3], b[4], b[5]), 0u);
        ASSERT_EQ(service().getSensorVerInfo(SensorID(id), ver), 0u);
        ASSERT_EQ(service().getAllSensorTypeInfo(id, present, code), 0u);
        EXPECT_EQ(Bytes(b, b + 6), (Bytes{uint8_t(id), 1, 2, 3, 4, 5}));
        EXPECT_EQ(ver.firstVersion, (Bytes{1, 0, uint8_t(id)}));
        EXPECT_EQ(ver.secondVersion, (Bytes{2, 0, uint8_t(id)}));
        EXPECT_TRUE(present);
        EXPECT_EQ(code, typeCodes[id] - '0') << "sensor " << id;
        EXPECT_EQ(status[id], 1);
    }
}

// Catches an absent, unlinked or video-less sensor still reported, or the detect override ignored.
TEST_F(CameraAccess, AbsentAndUnlinkedSensorsLeaveTheMasks) {
    cam::setPresent(4, false);
    cam::SensorState s7 = cam::sensor(7);
    s7.linked = s7.video = false;
    cam::setSensor(7, s7);
    EXPECT_EQ(service().detectAllSensors(), 0x3FFFFFu & ~(1u << 4));
    unsigned int link = 0, video = 0;
    StatusMap status;
    service().detectLinkAndVideoMask(link, video, status);
    EXPECT_EQ(link, 0x3FFFFFu & ~(1u << 4) & ~(1u << 7));
    EXPECT_EQ(video, link);
    EXPECT_EQ(status.count(4) + status.count(7), 1u);
    bool present = true;
    unsigned char code = 9;
    EXPECT_EQ(service().getAllSensorTypeInfo(4, present, code), 0u);
    EXPECT_FALSE(present);
    EXPECT_EQ(code, 0);

    cam::setDetectAnswer(vexa::cameraaccess::kDetectFailed);
    EXPECT_EQ(service().detectAllSensors(), vexa::cameraaccess::kDetectFailed);
}

// Catches calls on an absent sensor or beyond the service's ids and groups being answered, indexing past
// the model, or overwriting the caller's outputs.
TEST_F(CameraAccess, RefusedCallsLeaveOutputsUntouched) {
    cam::setPresent(4, false);
    for (unsigned int id : {4u, 22u, 0xFFFFFFFFu}) {
        unsigned char b = 0xAA;
        unsigned short w = 0xAAAA, len = 4;
        Bytes buf;
        SensorVerInfo ver{{9}, {9}};
        EXPECT_TRUE(failed(service().getSensorInfo(id, b, b, b, b, b, b)));
        EXPECT_TRUE(failed(service().getSensorVerInfo(SensorID(id), ver)));
        EXPECT_TRUE(failed(service().readSensorRegUint8(id, 0, b)));
        EXPECT_TRUE(failed(service().readSensorRegUint16(id, 0, w)));
        EXPECT_TRUE(failed(service().writeSensorRegUint16(id, 0, 1)));
        EXPECT_TRUE(failed(service().readSensorI2C(id, 0, buf, len)));
        EXPECT_TRUE(failed(service().writeSensorI2C(id, 0, Bytes{1}, 1)));
        EXPECT_EQ(Bytes({b, uint8_t(w), uint8_t(len), uint8_t(buf.size()), ver.firstVersion.at(0)}),
                  (Bytes{0xAA, 0xAA, 4, 0, 9}))
            << "sensor " << id;
    }
    bool present = true;
    unsigned char code = 9;
    EXPECT_TRUE(failed(service().getAllSensorTypeInfo(22, present, code)));
    EXPECT_TRUE(failed(service().setFsyncDeltaMs(8, 5)));
    EXPECT_EQ(service().setFsyncDeltaMs(7, 5), 0u);
    EXPECT_EQ(cam::fsyncDelta(7), 5u);
    EXPECT_THROW(cam::fsyncDelta(8), std::out_of_range);
    EXPECT_THROW(cam::setReg8(22, 0, 0), std::out_of_range);
}

// Catches reset leaving model changes behind.
TEST_F(CameraAccess, ResetRestoresTheDefaultRig) {
    cam::setPresent(0, false);
    cam::setI2c(1, 1, {1});
    cam::setRadarInnerState(3);
    cam::setLev2Faults({1}, 1, 1);
    sensor_sim::reset();
    EXPECT_EQ(service().detectAllSensors(), 0x3FFFFFu);
    EXPECT_EQ(cam::i2c(1, 1, 1), Bytes{0});
    unsigned int state = 9;
    Faults faults{1};
    unsigned long time = 1;
    EXPECT_EQ(service().getRadarInnerParaState(state), 0u);
    EXPECT_EQ(service().getRadarLev2Fault(0, 0, faults, time), 0);
    EXPECT_EQ(state + time + faults.size(), 0u);
}

}  // namespace
