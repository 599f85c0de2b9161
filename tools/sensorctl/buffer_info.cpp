// Dump sidecars and viewer command lines from a frame buffer's geometry.
#include "buffer_info.h"

#include <fmt/format.h>
#include <nvscibuf.h>

namespace sensorctl {
namespace {

// Shell quoting of a file name for the printed command lines.
std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

}  // namespace

nlohmann::ordered_json bufferJson(const BufferInfo& info) {
    nlohmann::ordered_json planes = nlohmann::ordered_json::array();
    for (const auto& p : info.planes) {
        planes.push_back({{"width", p.width},
                          {"height", p.height},
                          {"pitch", p.pitch},
                          {"lineBytes", uint64_t(p.width) * p.bitsPerPixel / 8},
                          {"bitsPerPixel", p.bitsPerPixel},
                          {"colorFormat", p.colorFormat},
                          {"colorFormatName", colorFormatName(p.colorFormat)}});
    }
    const auto format = info.pixelFormat();
    return {{"format",
             format ? nlohmann::ordered_json(pixelFormatName(*format)) : nlohmann::ordered_json(nullptr)},
            {"frameBytes", info.dumpBytes()},
            {"bufferSize", info.size},
            {"layout", info.layout == NvSciBufImage_PitchLinearType ? "pitch-linear" : "block-linear"},
            {"planeCount", info.planes.size()},
            {"planes", planes}};
}

std::string viewerCommand(const std::string& file, const BufferInfo& info) {
    const auto format = info.pixelFormat();
    if (!format || info.planes.empty()) return {};
    return fmt::format("ffplay -f rawvideo -pixel_format {} -video_size {}x{} {}", ffmpegPixelFormat(*format),
                       info.planes[0].width, info.planes[0].height, quoted(file));
}

std::string converterCommand(const std::string& file, const BufferInfo& info) {
    const auto format = info.pixelFormat();
    if (!format || info.planes.empty()) return {};
    return fmt::format("ffmpeg -f rawvideo -pixel_format {} -video_size {}x{} -i {} -frames:v 1 {}",
                       ffmpegPixelFormat(*format), info.planes[0].width, info.planes[0].height, quoted(file),
                       quoted(file + ".png"));
}

}  // namespace sensorctl
