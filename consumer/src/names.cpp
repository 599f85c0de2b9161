// Sensor and application tables and the sensor-list syntax.
#include "sensor_consumer/names.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <set>

#include "sensor_consumer/errors.h"

namespace sensor_consumer {
namespace {

constexpr SensorEntry kSensors[kSensorCount] = {
    {0, "wideleft", SensorKind::Camera, true, false},
    {1, "rear", SensorKind::Camera, true, false},
    {2, "wide", SensorKind::Camera, true, true},
    {3, "narrow", SensorKind::Camera, true, true},
    {4, "sideleftfront", SensorKind::Camera, true, false},
    {5, "siderightfront", SensorKind::Camera, true, false},
    {6, "siderightrear", SensorKind::Camera, true, false},
    {7, "sideleftrear", SensorKind::Camera, true, false},
    {8, "surroundfront", SensorKind::Camera, true, false},
    {9, "surroundright", SensorKind::Camera, true, false},
    {10, "surroundrear", SensorKind::Camera, true, false},
    {11, "surroundleft", SensorKind::Camera, true, false},
    {12, "frontslave", SensorKind::Radar, true, false},
    {13, "frontmaster", SensorKind::Radar, true, false},
    {14, "midlidar", SensorKind::Lidar, true, false},
    {15, "sensor15", SensorKind::Other, false, false},
    {16, "frontleft", SensorKind::Radar, true, false},
    {17, "frontright", SensorKind::Radar, true, false},
    {18, "rearleft", SensorKind::Radar, true, false},
    {19, "rearright", SensorKind::Radar, true, false},
    {20, "leftlidar", SensorKind::Lidar, true, false},
    {21, "rightlidar", SensorKind::Lidar, true, false},
};

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

std::optional<uint32_t> parseId(std::string_view text) {
    uint32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const auto& n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
}

NameError sensorError(const std::string& message) {
    return NameError(message, sensorNames());
}

}  // namespace

const SensorEntry& sensorEntry(uint32_t id) {
    return kSensors[id];
}

const char* sensorName(uint32_t id) {
    return id < kSensorCount ? kSensors[id].name : "unknown";
}

std::vector<std::string> sensorNames() {
    std::vector<std::string> names;
    for (const auto& s : kSensors) names.emplace_back(s.name);
    return names;
}

const char* apiName(Api api) {
    return api == Api::Legacy ? "legacy" : "current";
}

uint32_t defaultApp(Api api) {
    return api == Api::Legacy ? 0u : 9u;  // APP_CAMERA_DEMO, APP_SENSOR_DEMO
}

const char* kindName(SensorKind kind) {
    switch (kind) {
        case SensorKind::Camera:
            return "camera";
        case SensorKind::Radar:
            return "radar";
        case SensorKind::Lidar:
            return "lidar";
        case SensorKind::Other:
            return "other";
    }
    return "other";
}

uint32_t parseSensor(std::string_view text) {
    text = trim(text);
    if (auto id = parseId(text)) {
        if (*id >= kSensorCount)
            throw sensorError("sensor id " + std::to_string(*id) + " is out of range (0-21)");
        return *id;
    }
    const std::string name = lower(text);
    for (const auto& s : kSensors) {
        if (name == s.name) return s.id;
    }
    throw sensorError("unknown sensor '" + std::string(text) + "' (ids 0-21 or names: " + joined(sensorNames()) +
                      ")");
}

std::vector<uint32_t> parseSensorList(std::string_view text) {
    std::set<uint32_t> ids;
    std::string_view rest = text;
    while (true) {
        const size_t comma = rest.find(',');
        const std::string_view token = trim(rest.substr(0, comma));
        if (token.empty()) throw sensorError("empty entry in sensor list '" + std::string(text) + "'");
        const std::string group = lower(token);
        auto addKind = [&](SensorKind kind) {
            for (const auto& s : kSensors)
                if (s.kind == kind) ids.insert(s.id);
        };
        if (group == "all") {
            for (const auto& s : kSensors) ids.insert(s.id);
        } else if (group == "cameras") {
            addKind(SensorKind::Camera);
        } else if (group == "radars") {
            addKind(SensorKind::Radar);
        } else if (group == "lidars") {
            addKind(SensorKind::Lidar);
        } else if (const size_t dash = token.find('-'); dash != std::string_view::npos) {
            const uint32_t first = parseSensor(token.substr(0, dash));
            const uint32_t last = parseSensor(token.substr(dash + 1));
            if (first > last) throw sensorError("sensor range '" + std::string(token) + "' runs backwards");
            for (uint32_t id = first; id <= last; ++id) ids.insert(id);
        } else {
            ids.insert(parseSensor(token));
        }
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return {ids.begin(), ids.end()};
}

std::string formatSensorList(const std::vector<uint32_t>& ids) {
    std::string out;
    for (size_t i = 0; i < ids.size();) {
        size_t j = i;
        while (j + 1 < ids.size() && ids[j + 1] == ids[j] + 1) ++j;
        if (!out.empty()) out += ',';
        out += j == i ? std::to_string(ids[i]) : std::to_string(ids[i]) + "-" + std::to_string(ids[j]);
        i = j + 1;
    }
    return out;
}

const std::vector<AppEntry>& appTable() {
    static const std::vector<AppEntry> table = {
        {0, "APP_CAMERA_DEMO", "SDEMO"}, {1, "APP_CAMERA_IRC", "CIRC"},  {2, "APP_PEX_ENC", "PXE"},
        {3, "APP_PEX_CUDA", "PXC"},      {4, "APP_PEX_LTR", "PXL"},      {5, "APP_KAU_ENC", "KAE"},
        {6, "APP_KAU_CUDA", "KAC"},      {7, "APP_VIC", "VIC"},          {8, "APP_INENC", "ENC"},
        {9, "APP_SENSOR_DEMO", "SDEMO"}, {10, "APP_SENSOR_IRC", "SIRC"}, {11, "APP_SENSOR_IRCBAK", "BIRC"},
        {12, "APP_SENSOR_ABS", "ABS"},
    };
    return table;
}

std::vector<std::string> appNames() {
    std::vector<std::string> names;
    for (const auto& a : appTable()) {
        std::string name = lower(std::string_view(a.enumerator).substr(4));
        std::replace(name.begin(), name.end(), '_', '-');
        names.push_back(name);
    }
    return names;
}

const AppEntry* findApp(uint32_t value) {
    for (const auto& a : appTable()) {
        if (a.value == value) return &a;
    }
    return nullptr;
}

uint32_t parseApp(std::string_view text) {
    text = trim(text);
    if (auto value = parseId(text)) return *value;
    std::string name = lower(text);
    std::replace(name.begin(), name.end(), '-', '_');
    if (name.rfind("app_", 0) != 0) name = "app_" + name;
    for (const auto& a : appTable()) {
        if (name == lower(a.enumerator)) return a.value;
    }
    throw NameError("unknown application '" + std::string(text) + "' (a number, or one of: " + joined(appNames()) +
                        ")",
                    appNames());
}

std::string appLabel(uint32_t value) {
    if (const AppEntry* a = findApp(value)) return std::string(a->enumerator) + " (" + std::to_string(value) + ")";
    return std::to_string(value);
}

}  // namespace sensor_consumer
