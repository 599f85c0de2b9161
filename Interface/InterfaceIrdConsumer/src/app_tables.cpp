// The client's constant tables, defined in one unit so that they are built in this order.
#include "app_tables.h"

#include "sensor_ipc_client.h"

namespace vexa {
namespace sensor_access {

using namespace cameraipcclient;

const std::array<std::string, kAppCount + 1> g_appShortNames = {
    "ipc", "SDEMO", "CIRC", "PXE", "PXC", "PXL", "KAE", "KAC", "VIC", "ENC", "SDEMO", "SIRC", "BIRC", "ABS"};

const std::array<std::string, kAppCount> g_appClientChannels = {
    "nvipc-demo-camera",    "nvipc-irc-camera",      "nvipc-pex-enc-camera", "nvipc-pex-cuda-camera",
    "nvipc-pex-ltr-camera", "nvipc-kau-enc-camera",  "nvipc-kau-cuda-camera", "nvipc-vic-camera",
    "nvipc-inenc-camera",   "nvipc-demo-sensor",     "nvipc-irc-sensor",     "nvipc-ircbak-sensor",
    "nvipc-abs-sensor"};

const std::array<std::string, kAppCount> g_appServiceChannels = {
    "nvipc-camera-demo",    "nvipc-camera-irc",      "nvipc-camera-pex-enc", "nvipc-camera-pex-cuda",
    "nvipc-camera-pex-ltr", "nvipc-camera-kau-enc",  "nvipc-camera-kau-cuda", "nvipc-camera-vic",
    "nvipc-camera-inenc",   "nvipc-sensor-demo",     "nvipc-sensor-irc",     "nvipc-sensor-ircbak",
    "nvipc-sensor-abs"};

const std::array<std::string, 8> g_serviceNames = {
    "com.qor.systemd.cameraAccess.service", "pex.vog.merge_sensor.service", "pex.vog.merge_system.service",
    "com.qor.systemd.imageCodec.service",   "kau.nvstream.ipc",             "com.qor.systemd.multicast.service",
    "com.qor.adas.app.perception.service",  "camera.access"};

const std::vector<uint32_t> g_sensorOrderId = {4, 7, 8, 9, 10, 11, 5};

namespace {
// streamParam of each application, in AppType order.
constexpr uint32_t kStreamParams[kAppCount] = {2, 2, 2, 1, 2, 2, 1, 4, 2, 2, 2, 2, 2};

std::unordered_map<AppType, AppRegInfo> buildRegistrationTable() {
    std::unordered_map<AppType, AppRegInfo> table;
    for (size_t i = 0; i < kAppCount; ++i) {
        table.emplace(static_cast<AppType>(i),
                      AppRegInfo{g_appShortNames[i + 1], g_appClientChannels[i], kStreamParams[i]});
    }
    return table;
}
}  // namespace

const std::unordered_map<AppType, AppRegInfo> g_appRegInfoMap = buildRegistrationTable();

const std::map<SensorType, std::string> g_sensorStreamNameMap = {
    {SENSOR_FRONTSLAVE, "ipc-sensor-frontslave"}, {SENSOR_FRONTMASTER, "ipc-sensor-frontmaster"},
    {SENSOR_MIDLIDAR, "ipc-sensor-midlidar"},     {SENSOR_FRONTLEFT, "ipc-sensor-frontleft"},
    {SENSOR_FRONTRIGHT, "ipc-sensor-frontright"}, {SENSOR_REARLEFT, "ipc-sensor-rearleft"},
    {SENSOR_REARRIGHT, "ipc-sensor-rearright"},   {SENSOR_LEFTLIDAR, "ipc-sensor-leftlidar"},
    {SENSOR_RIGHTLIDAR, "ipc-sensor-rightlidar"}};

const std::map<SensorType, std::string> g_cameraIspStreamNameMap = {
    {CAM_WIDELEFT, "ipc-camera-wideleft-isp0"},
    {CAM_REAR, "ipc-camera-rear-isp0"},
    {CAM_WIDE, "ipc-camera-wide-isp0"},
    {CAM_NARROW, "ipc-camera-narrow-isp0"},
    {CAM_SIDELEFTFRONT, "ipc-camera-sideleftfront-isp0"},
    {CAM_SIDERIGHTFRONT, "ipc-camera-siderightfront-isp0"},
    {CAM_SIDERIGHTREAR, "ipc-camera-siderightrear-isp0"},
    {CAM_SIDELEFTREAR, "ipc-camera-sideleftrear-isp0"},
    {CAM_SURROUNDFRONT, "ipc-camera-surroundfront"},
    {CAM_SURROUNDRIGHT, "ipc-camera-surroundright"},
    {CAM_SURROUNDREAR, "ipc-camera-surroundrear"},
    {CAM_SURROUNDLEFT, "ipc-camera-surroundleft"}};

const std::map<SensorType, std::string> g_cameraRawStreamNameMap = {{CAM_WIDE, "ipc-camera-wide"},
                                                                    {CAM_NARROW, "ipc-camera-narrow"}};

}  // namespace sensor_access
}  // namespace vexa
