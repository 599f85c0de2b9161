// One client object per application type, whichever facade or thread asks first.
#include <gtest/gtest.h>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"
#include "sensor_ipcclient_impl.h"

namespace {

using vexa::cameraipcclient::AppType;
using vexa::sensor_access::SensorIpcClientImpl;

// A registry keyed by something other than the application type would hand two objects out.
TEST(Registry, OneObjectPerAppTypeWhateverTheFacade) {
    SensorIpcClientImpl* first = SensorIpcClientImpl::getInstance(vexa::cameraipcclient::APP_PEX_ENC);
    EXPECT_EQ(first, SensorIpcClientImpl::getInstance(vexa::cameraipcclient::APP_PEX_ENC));
    EXPECT_NE(first, SensorIpcClientImpl::getInstance(vexa::cameraipcclient::APP_PEX_CUDA));
}

// An unregistered application type must still get an object (only init refuses it).
TEST(Registry, UnregisteredAppTypeGetsAnObject) {
    EXPECT_NE(SensorIpcClientImpl::getInstance(static_cast<AppType>(13)), nullptr);
    EXPECT_NE(SensorIpcClientImpl::getInstance(static_cast<AppType>(0xFFFFFFFFu)), nullptr);
}

}  // namespace
