// The live vehicle's images: pixel formats, a moving test pattern with the frame counter drawn into it,
// and cheap per-frame statistics. Not for tests of the client (they see frames through the streams).
//
// The pattern is periodic across the image (kPeriod pixels). Each format's strip holds one period more
// than the image is wide; a frame copies every line from the strip at an offset that advances kSpeed
// pixels per frame, then draws the label box ("<sensor id>:<counter>") over its top-left corner. So a
// frame costs about one copy of its visible bytes, and nothing is computed per pixel.
#ifndef SENSOR_SIM_INTERNAL_PATTERN_H
#define SENSOR_SIM_INTERNAL_PATTERN_H

#include <cstdint>
#include <memory>
#include <string>

#include "sensor_sim/buffers.h"
#include "sensor_sim/stats.h"

namespace sensor_sim {
namespace pattern {

enum class Format {
    Yuv420,   // two planes: 8-bit luma, interleaved 8-bit U/V at half width and height (colour format 84)
    Bayer16,  // one plane, RGGB mosaic, 12-bit values in 16-bit little-endian containers (format 16)
    Grey8,    // one plane, 8 bits (format 60): radar data
    Grey16,   // one plane, 16 bits (format 61): lidar data
};

constexpr uint32_t kPeriod = 256;  // pixels; a multiple of 64 so the diagonal stripes repeat too
constexpr uint32_t kSpeed = 4;     // pixels per frame; even, so Bayer phase and chroma sites stay aligned

const char* formatName(Format format);
// Format by its rig-file name ("yuv420", "bayer16", "grey8", "grey16"); false when unknown.
bool formatFromName(const std::string& name, Format* out);
uint32_t colorFormat(Format format);
// Whether width and height must be even (two-plane 4:2:0 and Bayer quads).
bool needsEvenSize(Format format);
// The buffer layout of a frame: pitch = visible line bytes rounded up to 64, plus pitchPadding.
BufferSpec bufferSpec(Format format, uint32_t width, uint32_t height, uint32_t pitchPadding);
// Visible bytes of one frame without padding, summed over planes (what a dump file holds per frame).
uint64_t frameBytes(Format format, uint32_t width, uint32_t height);

// The pattern of one format and size, built once and shared (read-only) by every stream that uses it.
struct Strip;
std::shared_ptr<const Strip> strip(Format format, uint32_t width, uint32_t height);

// The pattern's offset in frame `counter` of sensor `sensorId` (sensors start at different phases).
uint32_t offsetOf(uint32_t sensorId, uint64_t counter);
// Draws frame `counter` into `buffer`, whose planes must have the strip's format and size.
void render(const Strip& strip, Buffer& buffer, uint32_t sensorId, uint64_t counter);
// Draws only the label box; render() calls it, replayed frames do not.
void drawLabel(Buffer& buffer, Format format, uint32_t sensorId, uint64_t counter);

// Statistics of a rendered frame, from a sparse sample of its first plane: four regions (whole image
// 16x16 cells, centre half 8x8, bottom third 16x4, top-left quarter 4x4); each cell holds four 32-bit
// values: mean, minimum and maximum sample on an 8-bit scale, and the sample count; brightness is the
// mean of the whole-image samples on the same 8-bit scale.
stats::FrameStats statistics(const Buffer& buffer, Format format);

}  // namespace pattern
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_PATTERN_H
