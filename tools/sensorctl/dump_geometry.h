// The geometry of a dump file, as `convert` learns it: from the JSON sidecar that `dump` writes beside
// the file, else from the library's file name and the kind of sensor.
#ifndef SENSORCTL_DUMP_GEOMETRY_H
#define SENSORCTL_DUMP_GEOMETRY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "image.h"

namespace sensorctl {

struct Geometry {
    std::optional<uint32_t> width;
    std::optional<uint32_t> height;
    std::optional<PixelFormat> format;
    std::string source;  // where the values came from, for messages; empty when nothing was learnt
};

// A sidecar's text; `path` names it in messages. Throws IoError for text that is not a JSON object
// with the image geometry.
Geometry parseSidecar(std::string_view text, const std::string& path);
// The sidecar beside `file` (FILE.json), when there is one.
Geometry fromSidecar(const std::string& file);
// What the library's file name says; the format follows from the extension and the kind of sensor.
Geometry fromName(const std::string& file);

}  // namespace sensorctl

#endif  // SENSORCTL_DUMP_GEOMETRY_H
