// The one table of sensor and application names every front end accepts, the sensor-list syntax
// ("0-7,wide,radars"), and which facade serves which sensor.
#ifndef SENSOR_CONSUMER_NAMES_H
#define SENSOR_CONSUMER_NAMES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sensor_consumer {

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
// The names of every sensor, in id order (the list a NameError carries).
std::vector<std::string> sensorNames();

// The facade that takes a sensor's frames: the legacy one serves the cameras 0 to 11, the current one
// the radars and lidars.
enum class Api { Legacy, Current };
inline bool servedByLegacy(uint32_t id) {
    return id < 12;
}
inline bool servedByCurrent(uint32_t id) {
    return id >= 12 && id < kSensorCount && id != 15;
}
inline bool servedBy(Api api, uint32_t id) {
    return api == Api::Legacy ? servedByLegacy(id) : servedByCurrent(id);
}
inline Api apiFor(uint32_t id) {
    return servedByLegacy(id) ? Api::Legacy : Api::Current;
}
const char* apiName(Api api);  // "legacy", "current"
// The application a front end uses when none is given: APP_CAMERA_DEMO (legacy), APP_SENSOR_DEMO (current).
uint32_t defaultApp(Api api);

// One sensor given by id ("3") or name ("narrow"), any case; throws NameError otherwise.
uint32_t parseSensor(std::string_view text);
// A comma-separated list of ids, ranges ("0-7"), names and groups ("cameras", "radars", "lidars",
// "all"): sorted, without repeats; throws NameError for anything else or an empty list.
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
// The names parseApp accepts for the registered applications ("camera-demo", ...).
std::vector<std::string> appNames();
// A number (any 32-bit value: unregistered ones reach the library, which refuses them) or an
// enumerator name with or without "APP_", any case, '-' for '_'; throws NameError otherwise.
uint32_t parseApp(std::string_view text);
std::string appLabel(uint32_t value);  // "APP_CAMERA_DEMO (0)" or "13"

}  // namespace sensor_consumer

#endif  // SENSOR_CONSUMER_NAMES_H
