// What a frame buffer says about its image (NvSciBuf attributes), the dump-file layout that follows from
// it, and the command lines of common raw-video tools that open such a file.
#ifndef SENSORCTL_BUFFER_INFO_H
#define SENSORCTL_BUFFER_INFO_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "image.h"
#include "sensor_ipc_types.h"

namespace sensorctl {

struct PlaneInfo {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pitch = 0;
    uint32_t bitsPerPixel = 0;
    uint32_t colorFormat = 0;
    uint64_t offset = 0;  // from the buffer's start; the GStreamer element places planes by it
};

struct BufferInfo {
    uint64_t size = 0;
    uint32_t layout = 0;
    std::vector<PlaneInfo> planes;

    // Bytes the library's dump writes for one frame: each plane's visible lines, without padding.
    uint64_t dumpBytes() const;
    // The dump layout, when it is one that `convert` and the raw-video tools know.
    std::optional<PixelFormat> pixelFormat() const;
};

// Reads the attributes of a held frame's buffer; throws LibraryError naming the NvSciBuf call.
BufferInfo readBufferInfo(NvSciBufObj buffer);

std::string colorFormatName(uint32_t format);

// The buffer as JSON (planes with geometry, colour formats, pitches, bits per pixel).
nlohmann::ordered_json bufferJson(const BufferInfo& info);

// "ffplay -f rawvideo -pixel_format nv12 -video_size 1920x1080 'FILE'" and the ffmpeg command that turns
// the first frame into a PNG; empty when the format is not known.
std::string viewerCommand(const std::string& file, const BufferInfo& info);
std::string converterCommand(const std::string& file, const BufferInfo& info);

}  // namespace sensorctl

#endif  // SENSORCTL_BUFFER_INFO_H
