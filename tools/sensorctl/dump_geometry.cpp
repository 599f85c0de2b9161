// Reading a dump file's geometry from its sidecar or its name.
#include "dump_geometry.h"

#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "names.h"

namespace sensorctl {

namespace {

// A side length: a whole number that fits 32 bits (a float or a negative number is not converted).
uint32_t side(const nlohmann::ordered_json& value, const std::string& path, const char* what) {
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX)
        throw IoError(
            fmt::format("{}: the {} of the first plane is not a whole number below 2^32", path, what));
    return static_cast<uint32_t>(value.get<uint64_t>());
}

}  // namespace

Geometry parseSidecar(std::string_view text, const std::string& path) {
    Geometry g;
    const nlohmann::ordered_json doc = nlohmann::ordered_json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) throw IoError(fmt::format("{} is not a JSON sidecar", path));
    try {
        const auto& plane = doc.at("planes").at(0);
        g.width = side(plane.at("width"), path, "width");
        g.height = side(plane.at("height"), path, "height");
        if (doc.at("format").is_string()) g.format = parsePixelFormat(doc.at("format").get<std::string>());
    } catch (const nlohmann::ordered_json::exception& e) {
        throw IoError(fmt::format("{} lacks the image geometry: {}", path, e.what()));
    }
    g.source = path;
    return g;
}

Geometry fromSidecar(const std::string& file) {
    const std::string path = file + ".json";
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) return {};
    std::ifstream in(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    return parseSidecar(text, path);
}

Geometry fromName(const std::string& file) {
    Geometry g;
    const auto name = parseDumpName(file);
    if (!name) return g;
    g.width = name->width;
    g.height = name->height;
    if (name->raw) {
        g.format = PixelFormat::Rggb16;
    } else if (name->sensorId < kSensorCount) {
        switch (sensorEntry(name->sensorId).kind) {
            case SensorKind::Camera:
                g.format = PixelFormat::Nv12;
                break;
            case SensorKind::Radar:
                g.format = PixelFormat::Gray8;
                break;
            case SensorKind::Lidar:
                g.format = PixelFormat::Gray16;
                break;
            case SensorKind::Other:
                break;
        }
    }
    g.source = "the file name";
    return g;
}

}  // namespace sensorctl
