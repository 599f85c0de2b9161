// What a frame's buffer says about its image (NvSciBuf attributes), and the layout a front end hands
// on: pixel format, size, each plane's offset, pitch, visible line and samples, checked to lie inside the
// buffer.
#ifndef SENSOR_CONSUMER_GEOMETRY_H
#define SENSOR_CONSUMER_GEOMETRY_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sensor_ipc_types.h"

namespace sensor_consumer {

// The image formats of the vehicle's frames, which are also the layouts of the library's dumps.
enum class PixelFormat {
    Nv12,    // luma plane, then interleaved U,V at half width and height
    Nv21,    // the same with V,U
    Rggb16,  // Bayer RGGB mosaic, one little-endian 16-bit container per sample
    Gray8,   // one 8-bit plane
    Gray16,  // one little-endian 16-bit plane
};

std::optional<PixelFormat> parsePixelFormat(std::string_view name);
const char* pixelFormatName(PixelFormat format);  // "nv12", "rggb16", ...
// The pixel-format name of the common raw-video tools (ffmpeg's -pixel_format).
const char* ffmpegPixelFormat(PixelFormat format);

struct PlaneInfo {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pitch = 0;
    uint32_t bitsPerPixel = 0;
    uint32_t colorFormat = 0;
    uint64_t offset = 0;  // from the buffer's start
};

struct BufferInfo {
    uint64_t size = 0;
    uint32_t layout = 0;
    std::vector<PlaneInfo> planes;

    // Bytes the library's dump writes for one frame: each plane's visible lines, without padding.
    uint64_t dumpBytes() const;
    // The image format, when the planes are one of the vehicle's formats.
    std::optional<PixelFormat> pixelFormat() const;
};

// Reads the attributes of a held frame's buffer; throws Error naming the NvSciBuf call.
BufferInfo readBufferInfo(NvSciBufObj buffer);

std::string colorFormatName(uint32_t format);

struct PlaneLayout {
    uint64_t offset = 0;     // from the buffer's mapped start
    uint32_t pitch = 0;      // bytes from one line to the next
    uint32_t lineBytes = 0;  // visible bytes of one line
    uint32_t lines = 0;
    uint32_t width = 0;        // pixels of a line (chroma: U,V pairs)
    uint32_t channels = 1;     // samples per pixel: 2 for interleaved chroma
    uint32_t sampleBytes = 1;  // bytes per sample: 2 for 16-bit containers
};

// A frame a front end can hand on as it lies in its buffer.
struct FrameLayout {
    PixelFormat format = PixelFormat::Gray8;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t planeCount = 0;
    PlaneLayout planes[3];
    uint64_t span = 0;  // bytes from the buffer's start to the last plane's last visible byte

    // Same format, size, offsets and pitches.
    bool sameAs(const FrameLayout& other) const;
};

// The layout of a frame, or false with an error text naming what cannot be described (a buffer without
// a size, an unknown colour format, a pitch below the line, planes that do not fit the buffer, odd 4:2:0
// sizes...).
bool describeFrame(const BufferInfo& info, FrameLayout& layout, std::string& error);

// A frame buffer described and mapped: what a front end needs to hand its planes on.
struct MappedLayout {
    NvSciBufObj image = nullptr;
    const uint8_t* base = nullptr;  // the buffer's mapped start
    FrameLayout layout;
};

// The descriptions of a stream's buffers, each worked out (attributes, layout, mapping) the first time
// the buffer comes and looked up after: a stream's pool buffers keep their layout, so frames cost no
// layout work. Thread-safe; a description stays valid while its holder keeps it, even once forgotten.
class LayoutCache {
public:
    // Null with `error` when the buffer cannot be described or mapped.
    std::shared_ptr<const MappedLayout> find(NvSciBufObj image, std::string& error);
    void clear();

private:
    std::mutex m_mutex;
    std::vector<std::shared_ptr<const MappedLayout>> m_entries;
};

}  // namespace sensor_consumer

#endif  // SENSOR_CONSUMER_GEOMETRY_H
