// An application that sees only the installed public headers.
#include <camera_ipc_client.h>
#include <sensor_ipc_client.h>

#include <cstdio>

int main() {
    vexa::sensor_access::SensorIpcClient client(vexa::cameraipcclient::APP_SENSOR_DEMO);
    vexa::cameraipcclient::CCameraIpcClient legacy(vexa::cameraipcclient::APP_CAMERA_DEMO);
    std::vector<vexa::cameraipcclient::SensorTypeInfo> types;
    int32_t result = legacy.getAllSensorTypeInfo(types);
    unsigned char value = 0;
    result |= client.readSensorRegUint8(vexa::cameraipcclient::CAM_WIDE, 0x10, value);
    std::printf("%s %zu\n", vexa::cameraipcclient::resultCodeName(result),
                vexa::sensor_access::g_sensorOrderId.size());
    return 0;
}
