// PNG output through libpng's simplified interface, which reports errors in the image record instead of
// jumping out of the caller.
#include "png_file.h"

#include <fmt/format.h>
#include <png.h>
#include <unistd.h>

#include <cerrno>
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
    errno = 0;
    if (png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), stride, nullptr) == 0) {
        const int error = errno;
        std::string reason = png.message;
        png_image_free(&png);
        // libpng's own words ("Write Error") do not say why; the system's do.
        if (error != 0 && reason != std::strerror(error))
            reason = std::strerror(error) + (" (" + reason + ")");
        ::unlink(path.c_str());  // libpng removes it too; a partial picture must not stay in any case
        throw IoError(fmt::format("cannot write {}: {}", path, reason));
    }
}

}  // namespace sensorctl
