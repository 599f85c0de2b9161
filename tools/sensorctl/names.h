// The one table of sensor and application names, and the sensor-list syntax of --sensors.
#ifndef SENSORCTL_NAMES_H
#define SENSORCTL_NAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sensorctl {

constexpr uint32_t kSensorCount = 22;  // sensor ids 0 to 21

enum class SensorKind { Camera, Radar, Lidar, Other };

struct SensorEntry {
    uint32_t id;
    const char* name;
    SensorKind kind;
    bool hasStream;  // id 15 has none
    bool hasRaw;     // cameras 2 and 3 also publish raw frames
};

const SensorEntry& sensorEntry(uint32_t id);  // id below kSensorCount
const char* sensorName(uint32_t id);          // "unknown" for an id above 21
const char* kindName(SensorKind kind);
// The legacy API serves the cameras 0 to 11, the current API the radars and lidars.
inline bool servedByLegacy(uint32_t id) {
    return id < 12;
}
inline bool servedByCurrent(uint32_t id) {
    return id >= 12 && id < kSensorCount && id != 15;
}

// One sensor given by id ("3") or name ("narrow"); throws UsageError otherwise.
uint32_t parseSensor(std::string_view text);
// A comma-separated list of ids, ranges ("0-7"), names and groups ("cameras", "radars", "lidars",
// "all"): sorted, without repeats; throws UsageError for anything else or an empty list.
std::vector<uint32_t> parseSensorList(std::string_view text);
// "0-7,12,14" style rendering of a sorted id list.
std::string formatSensorList(const std::vector<uint32_t>& ids);

struct AppEntry {
    uint32_t value;
    const char* enumerator;  // "APP_CAMERA_DEMO"
    const char* shortName;   // "SDEMO": the prefix of the library's processed-image dump names
};
// The registered applications 0 to 12.
const std::vector<AppEntry>& appTable();
const AppEntry* findApp(uint32_t value);
// A number (any 32-bit value: unregistered ones reach the library, which refuses them) or an
// enumerator name with or without "APP_", any case, '-' for '_'; throws UsageError otherwise.
uint32_t parseApp(std::string_view text);
std::string appLabel(uint32_t value);  // "APP_CAMERA_DEMO (0)" or "13"

}  // namespace sensorctl

#endif  // SENSORCTL_NAMES_H
