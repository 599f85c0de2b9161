// PNG files of converted images.
#ifndef SENSORCTL_PNG_FILE_H
#define SENSORCTL_PNG_FILE_H

#include <string>

#include "image.h"

namespace sensorctl {

// Writes an RGB or grey image (8-bit, or 16-bit grey); throws IoError with libpng's reason.
void writePng(const std::string& path, const Image& image);

}  // namespace sensorctl

#endif  // SENSORCTL_PNG_FILE_H
