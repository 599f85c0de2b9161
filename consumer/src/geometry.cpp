// NvSciBuf attribute queries on frame buffers, as an application on the vehicle makes them, and the
// plane layout that follows from them.
#include "sensor_consumer/geometry.h"

#include <nvscibuf.h>

#include <algorithm>
#include <cstring>

#include "sensor_consumer/errors.h"

namespace sensor_consumer {
namespace {

constexpr size_t kMaxPlanes = 3;

struct FormatName {
    PixelFormat format;
    const char* name;
    const char* ffmpeg;
};

constexpr FormatName kFormats[] = {
    {PixelFormat::Nv12, "nv12", "nv12"},
    {PixelFormat::Nv21, "nv21", "nv21"},
    {PixelFormat::Rggb16, "rggb16", "bayer_rggb16le"},
    {PixelFormat::Gray8, "gray8", "gray"},
    {PixelFormat::Gray16, "gray16", "gray16le"},
};

const FormatName& formatEntry(PixelFormat format) {
    for (const auto& f : kFormats)
        if (f.format == format) return f;
    return kFormats[0];
}

template <typename T>
void copyArray(const NvSciBufAttrKeyValuePair& pair, std::vector<PlaneInfo>& planes, T PlaneInfo::*field) {
    const size_t n = std::min(planes.size(), pair.len / sizeof(T));
    for (size_t i = 0; i < n; ++i)
        std::memcpy(&(planes[i].*field), static_cast<const T*>(pair.value) + i, sizeof(T));
}

bool packed422(uint32_t colorFormat) {
    return colorFormat == NvSciColor_UYVY || colorFormat == NvSciColor_YUYV || colorFormat == NvSciColor_VYUY ||
           colorFormat == NvSciColor_YVYU;
}

std::string planeText(size_t index, const PlaneInfo& p) {
    return "plane " + std::to_string(index) + " (" + std::to_string(p.width) + "x" + std::to_string(p.height) +
           ", " + std::to_string(p.bitsPerPixel) + " bits, colour format " + std::to_string(p.colorFormat) +
           ", pitch " + std::to_string(p.pitch) + ")";
}

// The format the planes are, or a reason why they are none of the vehicle's.
std::optional<PixelFormat> classify(const std::vector<PlaneInfo>& planes, std::string& why) {
    if (planes.empty()) {
        why = "no planes";
        return std::nullopt;
    }
    const PlaneInfo& p0 = planes[0];
    if (planes.size() == 2 && (p0.colorFormat == NvSciColor_Y8_U8V8 || p0.colorFormat == NvSciColor_Y8_V8U8)) {
        const PlaneInfo& p1 = planes[1];
        if (p0.bitsPerPixel != 8 || p1.bitsPerPixel != 16 || p0.width % 2 != 0 || p0.height % 2 != 0 ||
            p1.width * 2 != p0.width || p1.height * 2 != p0.height) {
            why = "two planes that are not 8-bit 4:2:0 with even sizes";
            return std::nullopt;
        }
        return p0.colorFormat == NvSciColor_Y8_U8V8 ? PixelFormat::Nv12 : PixelFormat::Nv21;
    }
    if (planes.size() == 1 && p0.colorFormat == NvSciColor_Bayer16RGGB) {
        if (p0.bitsPerPixel != 16 || p0.width % 2 != 0 || p0.height % 2 != 0) {
            why = "a Bayer mosaic that is not 16-bit with even sizes";
            return std::nullopt;
        }
        return PixelFormat::Rggb16;
    }
    if (planes.size() == 1 && p0.bitsPerPixel == 8) return PixelFormat::Gray8;
    if (planes.size() == 1 && p0.bitsPerPixel == 16 && !packed422(p0.colorFormat)) return PixelFormat::Gray16;
    why = "no matching image format";
    return std::nullopt;
}

}  // namespace

std::optional<PixelFormat> parsePixelFormat(std::string_view name) {
    for (const auto& f : kFormats)
        if (name == f.name) return f.format;
    return std::nullopt;
}

const char* pixelFormatName(PixelFormat format) {
    return formatEntry(format).name;
}

const char* ffmpegPixelFormat(PixelFormat format) {
    return formatEntry(format).ffmpeg;
}

uint64_t BufferInfo::dumpBytes() const {
    uint64_t total = 0;
    for (const auto& p : planes) total += (uint64_t(p.width) * p.bitsPerPixel / 8) * p.height;
    return total;
}

std::optional<PixelFormat> BufferInfo::pixelFormat() const {
    std::string why;
    return classify(planes, why);
}

BufferInfo readBufferInfo(NvSciBufObj buffer) {
    NvSciBufAttrList list = nullptr;
    if (NvSciError e = NvSciBufObjGetAttrList(buffer, &list); e != NvSciError_Success) {
        throw Error::withMessage(vexa::cameraipcclient::RESULT_ACCESS_FAILED, "NvSciBufObjGetAttrList",
                                 "NvSciBufObjGetAttrList failed: NvSciError " + std::to_string(int(e)));
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
        throw Error::withMessage(vexa::cameraipcclient::RESULT_ACCESS_FAILED, "NvSciBufAttrListGetAttrs",
                                 "NvSciBufAttrListGetAttrs failed: NvSciError " + std::to_string(int(e)));
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
            return std::to_string(format);
    }
}

bool FrameLayout::sameAs(const FrameLayout& other) const {
    if (format != other.format || width != other.width || height != other.height || planeCount != other.planeCount)
        return false;
    for (uint32_t i = 0; i < planeCount; ++i) {
        if (planes[i].pitch != other.planes[i].pitch || planes[i].offset != other.planes[i].offset) return false;
    }
    return true;
}

bool describeFrame(const BufferInfo& info, FrameLayout& layout, std::string& error) {
    layout = FrameLayout{};
    if (info.size == 0) {
        error = "the buffer states no size";
        return false;
    }
    const auto& planes = info.planes;
    auto unsupported = [&](const std::string& why) {
        std::string text = "unsupported frame layout: " + why;
        for (size_t i = 0; i < planes.size(); ++i) text += "; " + planeText(i, planes[i]);
        error = text;
        return false;
    };
    if (!planes.empty() && (planes[0].width == 0 || planes[0].height == 0)) return unsupported("empty image");
    std::string why;
    const auto format = classify(planes, why);
    if (!format) return unsupported(why);
    layout.format = *format;
    layout.width = planes[0].width;
    layout.height = planes[0].height;
    layout.planeCount = uint32_t(planes.size());
    uint64_t next = 0;  // where a plane without a stated offset starts: after the previous one
    for (size_t i = 0; i < planes.size(); ++i) {
        const PlaneInfo& p = planes[i];
        const uint64_t line = uint64_t(p.width) * p.bitsPerPixel / 8;
        if (p.pitch < line) return unsupported("a pitch below the visible line");
        const uint64_t offset = (i == 0 || p.offset != 0) ? p.offset : next;
        const uint64_t end = offset + uint64_t(p.pitch) * (p.height - 1) + line;
        if (end > info.size) return unsupported("planes beyond the buffer's size");
        PlaneLayout& out = layout.planes[i];
        out.offset = offset;
        out.pitch = p.pitch;
        out.lineBytes = uint32_t(line);
        out.lines = p.height;
        out.width = p.width;
        const bool chroma = i == 1;  // the interleaved U,V plane of a 4:2:0 frame
        out.channels = chroma ? 2 : 1;
        out.sampleBytes = (*format == PixelFormat::Rggb16 || *format == PixelFormat::Gray16) ? 2 : 1;
        layout.span = std::max(layout.span, end);
        next = offset + uint64_t(p.pitch) * p.height;
    }
    return true;
}

std::shared_ptr<const MappedLayout> LayoutCache::find(NvSciBufObj image, std::string& error) {
    // Scripted streams may bring a new buffer with every frame: past this many, the cache starts over.
    constexpr size_t kMaxEntries = 64;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& e : m_entries)
            if (e->image == image) return e;
    }
    auto entry = std::make_shared<MappedLayout>();
    entry->image = image;
    try {
        if (!describeFrame(readBufferInfo(image), entry->layout, error)) return nullptr;
    } catch (const Error& e) {
        error = e.what();
        return nullptr;
    }
    const void* base = nullptr;
    if (NvSciBufObjGetConstCpuPtr(image, &base) != NvSciError_Success || base == nullptr) {
        error = "the frame's buffer cannot be mapped";
        return nullptr;
    }
    entry->base = static_cast<const uint8_t*>(base);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_entries.size() >= kMaxEntries) m_entries.clear();
    m_entries.push_back(entry);
    return entry;
}

void LayoutCache::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
}

}  // namespace sensor_consumer
