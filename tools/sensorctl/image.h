// Pixel formats of dump files, their geometry (from the library's dump names or given), and the
// conversions to 8-bit RGB or grey images that the PNG writer takes.
#ifndef SENSORCTL_IMAGE_H
#define SENSORCTL_IMAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sensor_consumer/geometry.h"

namespace sensorctl {

// Layouts of the library's dump files (headerless, planes one after another, no line padding): the
// frames' own formats, with their names.
using sensor_consumer::ffmpegPixelFormat;
using sensor_consumer::parsePixelFormat;
using sensor_consumer::PixelFormat;
using sensor_consumer::pixelFormatName;

// Bytes of one frame; throws UsageError for a geometry the format cannot have (odd 4:2:0 sizes,
// a Bayer mosaic below 2x2, zero sizes).
uint64_t frameBytes(PixelFormat format, uint32_t width, uint32_t height);

// What a dump file's name says: "[APP_]client_cam_S_F_W_X_H.yuv|raw", with or without a directory.
struct DumpName {
    std::string app;  // empty without an application prefix
    uint32_t sensorId = 0;
    uint32_t frameCnt = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    bool raw = false;  // ".raw" (Bayer capture) rather than ".yuv" (processed image)
};
std::optional<DumpName> parseDumpName(std::string_view path);

// An 8-bit image, interleaved RGB (3 channels) or grey (1), or a 16-bit grey image.
struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 0;
    bool sixteenBit = false;
    std::vector<uint8_t> pixels;  // rows of width * channels samples, 16-bit samples in native order
};

enum class YuvRange { Limited, Full };

// Frame bytes to image. `data` holds exactly frameBytes(format, width, height) bytes.
// Nv12/Nv21 use BT.601 coefficients; Rggb16 is demosaiced bilinearly, its samples of `bayerBits`
// significant bits scaled to 8 bits; Gray16 stays 16-bit.
Image convertFrame(const uint8_t* data, PixelFormat format, uint32_t width, uint32_t height, YuvRange range,
                   uint32_t bayerBits);

}  // namespace sensorctl

#endif  // SENSORCTL_IMAGE_H
