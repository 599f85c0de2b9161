// How a frame's buffer attributes become a GStreamer video description: format, size, the real strides
// and plane offsets, and whether the mapped planes can be handed downstream as they are.
#ifndef SENSORIPC_FRAME_LAYOUT_H
#define SENSORIPC_FRAME_LAYOUT_H

#include <gst/video/video.h>

#include <cstdint>
#include <string>

namespace sensorctl {
struct BufferInfo;  // read by sensorctl's readBufferInfo, which the element shares
}

namespace sensoripc {

enum class MediaKind { Raw, Bayer };

// A frame the element can describe. Raw video (NV12, NV21, GRAY8, GRAY16_LE) keeps the buffer's own
// strides and offsets in a video meta; Bayer caps have no stride, so a padded mosaic is repacked.
struct FrameLayout {
    MediaKind kind = MediaKind::Raw;
    GstVideoFormat format = GST_VIDEO_FORMAT_UNKNOWN;  // for Raw
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t planeCount = 0;
    uint32_t strides[GST_VIDEO_MAX_PLANES] = {};
    uint64_t offsets[GST_VIDEO_MAX_PLANES] = {};
    uint32_t lineBytes[GST_VIDEO_MAX_PLANES] = {};  // visible bytes of one line
    uint32_t lines[GST_VIDEO_MAX_PLANES] = {};
    uint64_t span = 0;  // bytes from the first plane's start to the last plane's last visible byte

    // Same format, size and strides: the caps and meta of one stay right for the other.
    bool sameAs(const FrameLayout& other) const;
    // Caps without a framerate (the caller adds it).
    GstCaps* caps() const;
};

// The layout of a frame, or an error text naming what cannot be described (a buffer without a size, an
// unknown colour format, planes that do not fit the buffer, odd 4:2:0 sizes...).
bool describeFrame(const sensorctl::BufferInfo& info, FrameLayout& layout, std::string& error);

}  // namespace sensoripc

#endif  // SENSORIPC_FRAME_LAYOUT_H
