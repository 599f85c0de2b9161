// NvSciBuf attribute queries on frame buffers, as an application on the vehicle makes them.
#include "buffer_info.h"

#include <fmt/format.h>
#include <nvscibuf.h>

#include <algorithm>
#include <cstring>

#include "errors.h"

namespace sensorctl {
namespace {

constexpr size_t kMaxPlanes = 3;

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

template <typename T>
void copyArray(const NvSciBufAttrKeyValuePair& pair, std::vector<PlaneInfo>& planes, T PlaneInfo::*field) {
    const size_t n = std::min(planes.size(), pair.len / sizeof(T));
    for (size_t i = 0; i < n; ++i)
        std::memcpy(&(planes[i].*field), static_cast<const T*>(pair.value) + i, sizeof(T));
}

}  // namespace

uint64_t BufferInfo::dumpBytes() const {
    uint64_t total = 0;
    for (const auto& p : planes) total += (uint64_t(p.width) * p.bitsPerPixel / 8) * p.height;
    return total;
}

std::optional<PixelFormat> BufferInfo::pixelFormat() const {
    if (planes.size() == 2 && planes[0].bitsPerPixel == 8 && planes[1].bitsPerPixel == 16 &&
        planes[1].width * 2 == planes[0].width && planes[1].height * 2 == planes[0].height) {
        if (planes[0].colorFormat == NvSciColor_Y8_U8V8) return PixelFormat::Nv12;
        if (planes[0].colorFormat == NvSciColor_Y8_V8U8) return PixelFormat::Nv21;
    }
    if (planes.size() == 1) {
        if (planes[0].colorFormat == NvSciColor_Bayer16RGGB && planes[0].bitsPerPixel == 16)
            return PixelFormat::Rggb16;
        if (planes[0].colorFormat == NvSciColor_Bayer16RGGB) return std::nullopt;
        if (planes[0].bitsPerPixel == 8) return PixelFormat::Gray8;
        if (planes[0].bitsPerPixel == 16) return PixelFormat::Gray16;
    }
    return std::nullopt;
}

BufferInfo readBufferInfo(NvSciBufObj buffer) {
    NvSciBufAttrList list = nullptr;
    if (NvSciError e = NvSciBufObjGetAttrList(buffer, &list); e != NvSciError_Success) {
        throw ToolError(kExitLibrary, fmt::format("NvSciBufObjGetAttrList failed: NvSciError {}", int(e)));
    }
    NvSciBufAttrKeyValuePair pairs[] = {
        {NvSciBufImageAttrKey_Size, nullptr, 0},
        {NvSciBufImageAttrKey_Layout, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneCount, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneWidth, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneHeight, nullptr, 0},
        {NvSciBufImageAttrKey_PlanePitch, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneBitsPerPixel, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneColorFormat, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneOffset, nullptr, 0},
    };
    if (NvSciError e = NvSciBufAttrListGetAttrs(list, pairs, std::size(pairs)); e != NvSciError_Success) {
        throw ToolError(kExitLibrary, fmt::format("NvSciBufAttrListGetAttrs failed: NvSciError {}", int(e)));
    }
    BufferInfo info;
    if (pairs[0].len >= sizeof(uint64_t)) std::memcpy(&info.size, pairs[0].value, sizeof(uint64_t));
    if (pairs[1].len >= sizeof(uint32_t)) std::memcpy(&info.layout, pairs[1].value, sizeof(uint32_t));
    uint32_t planeCount = 0;
    if (pairs[2].len >= sizeof(uint32_t)) std::memcpy(&planeCount, pairs[2].value, sizeof(uint32_t));
    info.planes.resize(std::min<size_t>(planeCount, kMaxPlanes));
    copyArray(pairs[3], info.planes, &PlaneInfo::width);
    copyArray(pairs[4], info.planes, &PlaneInfo::height);
    copyArray(pairs[5], info.planes, &PlaneInfo::pitch);
    copyArray(pairs[6], info.planes, &PlaneInfo::bitsPerPixel);
    copyArray(pairs[7], info.planes, &PlaneInfo::colorFormat);
    copyArray(pairs[8], info.planes, &PlaneInfo::offset);
    return info;
}

std::string colorFormatName(uint32_t format) {
    switch (format) {
        case NvSciColor_Bayer16RGGB:
            return "Bayer16RGGB";
        case NvSciColor_A8:
            return "A8";
        case NvSciColor_A16:
            return "A16";
        case NvSciColor_Y8:
            return "Y8";
        case NvSciColor_Y8_U8V8:
            return "Y8_U8V8";
        case NvSciColor_Y8_V8U8:
            return "Y8_V8U8";
        case NvSciColor_Y16_U16V16:
            return "Y16_U16V16";
        case NvSciColor_Y16_V16U16:
            return "Y16_V16U16";
        case NvSciColor_UYVY:
            return "UYVY";
        case NvSciColor_YUYV:
            return "YUYV";
        case NvSciColor_VYUY:
            return "VYUY";
        case NvSciColor_YVYU:
            return "YVYU";
        case NvSciColor_Raw8Packed:
            return "Raw8Packed";
        default:
            return fmt::format("{}", format);
    }
}

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
