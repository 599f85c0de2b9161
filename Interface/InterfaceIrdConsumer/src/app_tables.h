// Constant tables of the client: application registration rows, IPC channel names, sensor stream names.
// Built during static initialisation and never changed, so they need no lock.
#ifndef SENSOR_IPC_APP_TABLES_H
#define SENSOR_IPC_APP_TABLES_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

#include "sensor_ipc_types.h"

namespace vexa {
namespace sensor_access {

using cameraipcclient::AppType;
using cameraipcclient::SensorType;

// Registration of one application with the stream service.
struct AppRegInfo {
    std::string name;       // consumer name; also the logging application id
    std::string channel;    // client-side IPC channel endpoint
    uint32_t streamParam;   // field2 of every stream the sensor-name init registers
};

constexpr size_t kAppCount = 13;

// "ipc" first (no application), then the short name of each application in AppType order.
extern const std::array<std::string, kAppCount + 1> g_appShortNames;
// Client-side and service-side channel endpoints, in AppType order. Only the client side is used.
extern const std::array<std::string, kAppCount> g_appClientChannels;
extern const std::array<std::string, kAppCount> g_appServiceChannels;
// Names of the platform's services; kept for reference, used by no operation.
extern const std::array<std::string, 8> g_serviceNames;

extern const std::unordered_map<AppType, AppRegInfo> g_appRegInfoMap;
extern const std::map<SensorType, std::string> g_sensorStreamNameMap;     // radars and lidars
extern const std::map<SensorType, std::string> g_cameraIspStreamNameMap;  // cameras 0 to 11
extern const std::map<SensorType, std::string> g_cameraRawStreamNameMap;  // cameras 2 and 3

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPC_APP_TABLES_H
