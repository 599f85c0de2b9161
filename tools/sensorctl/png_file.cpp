// PNG output through libpng's simplified interface, which reports errors in the image record instead of
// jumping out of the caller.
#include "png_file.h"

#include <fmt/format.h>
#include <png.h>

#include <cstring>

#include "errors.h"

namespace sensorctl {

void writePng(const std::string& path, const Image& image) {
    png_image png;
    std::memset(&png, 0, sizeof(png));
    png.version = PNG_IMAGE_VERSION;
    png.width = image.width;
    png.height = image.height;
    // 16-bit samples go through the "linear" formats, the only 16-bit ones of this interface.
    if (image.sixteenBit) {
        png.format = PNG_FORMAT_LINEAR_Y;
    } else {
        png.format = image.channels == 3 ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
    }
    const png_int_32 stride = static_cast<png_int_32>(image.width * image.channels);
    if (png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), stride, nullptr) == 0) {
        const std::string reason = png.message;
        png_image_free(&png);
        throw IoError(fmt::format("cannot write {}: {}", path, reason));
    }
}

}  // namespace sensorctl
