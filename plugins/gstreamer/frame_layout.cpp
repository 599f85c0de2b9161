// Buffer attributes to video descriptions, checked so that every plane the element hands on or copies
// lies inside the buffer.
#include "frame_layout.h"

#include <nvscibuf.h>

#include <algorithm>

#include "buffer_info.h"

namespace sensoripc {
namespace {

std::string planeText(size_t index, const sensorctl::PlaneInfo& p) {
    return "plane " + std::to_string(index) + " (" + std::to_string(p.width) + "x" +
           std::to_string(p.height) + ", " + std::to_string(p.bitsPerPixel) + " bits, colour format " +
           std::to_string(p.colorFormat) + ", pitch " + std::to_string(p.pitch) + ")";
}

}  // namespace

bool FrameLayout::sameAs(const FrameLayout& other) const {
    if (kind != other.kind || format != other.format || width != other.width || height != other.height ||
        planeCount != other.planeCount)
        return false;
    for (uint32_t i = 0; i < planeCount; ++i) {
        if (strides[i] != other.strides[i] || offsets[i] != other.offsets[i]) return false;
    }
    return true;
}

GstCaps* FrameLayout::caps() const {
    if (kind == MediaKind::Bayer) {
        return gst_caps_new_simple("video/x-bayer", "format", G_TYPE_STRING, "rggb16le", "width", G_TYPE_INT,
                                   gint(width), "height", G_TYPE_INT, gint(height), nullptr);
    }
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, width, height);
    if (GST_VIDEO_FORMAT_INFO_IS_YUV(info.finfo)) {
        // The processed frames are BT.601 with limited range, as the tools convert them.
        gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
    }
    info.fps_n = 0;
    info.fps_d = 1;
    return gst_video_info_to_caps(&info);
}

bool describeFrame(const sensorctl::BufferInfo& info, FrameLayout& layout, std::string& error) {
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
    if (planes.empty()) return unsupported("no planes");
    const sensorctl::PlaneInfo& p0 = planes[0];
    if (p0.width == 0 || p0.height == 0) return unsupported("empty image");
    layout.width = p0.width;
    layout.height = p0.height;

    if (planes.size() == 2 &&
        (p0.colorFormat == NvSciColor_Y8_U8V8 || p0.colorFormat == NvSciColor_Y8_V8U8)) {
        const sensorctl::PlaneInfo& p1 = planes[1];
        if (p0.bitsPerPixel != 8 || p1.bitsPerPixel != 16 || p0.width % 2 != 0 || p0.height % 2 != 0 ||
            p1.width * 2 != p0.width || p1.height * 2 != p0.height)
            return unsupported("two planes that are not 8-bit 4:2:0 with even sizes");
        layout.format = p0.colorFormat == NvSciColor_Y8_U8V8 ? GST_VIDEO_FORMAT_NV12 : GST_VIDEO_FORMAT_NV21;
    } else if (planes.size() == 1 && p0.colorFormat == NvSciColor_Bayer16RGGB) {
        if (p0.bitsPerPixel != 16 || p0.width % 2 != 0 || p0.height % 2 != 0)
            return unsupported("a Bayer mosaic that is not 16-bit with even sizes");
        layout.kind = MediaKind::Bayer;
    } else if (planes.size() == 1 && p0.bitsPerPixel == 8) {
        layout.format = GST_VIDEO_FORMAT_GRAY8;
    } else if (planes.size() == 1 && p0.bitsPerPixel == 16 && p0.colorFormat != NvSciColor_UYVY &&
               p0.colorFormat != NvSciColor_YUYV && p0.colorFormat != NvSciColor_VYUY &&
               p0.colorFormat != NvSciColor_YVYU) {
        layout.format = GST_VIDEO_FORMAT_GRAY16_LE;
    } else {
        return unsupported("no matching video format");
    }

    layout.planeCount = uint32_t(planes.size());
    uint64_t next = 0;  // where a plane without a stated offset starts: after the previous one
    for (size_t i = 0; i < planes.size(); ++i) {
        const sensorctl::PlaneInfo& p = planes[i];
        const uint64_t line = uint64_t(p.width) * p.bitsPerPixel / 8;
        if (p.pitch < line) return unsupported("a pitch below the visible line");
        const uint64_t offset = (i == 0 || p.offset != 0) ? p.offset : next;
        const uint64_t end = offset + uint64_t(p.pitch) * (p.height - 1) + line;
        if (end > info.size) return unsupported("planes beyond the buffer's size");
        layout.strides[i] = p.pitch;
        layout.offsets[i] = offset;
        layout.lineBytes[i] = uint32_t(line);
        layout.lines[i] = p.height;
        layout.span = std::max(layout.span, end);
        next = offset + uint64_t(p.pitch) * p.height;
    }
    return true;
}

}  // namespace sensoripc
