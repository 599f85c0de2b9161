// How a frame's layout (the consumer library's description of its buffer) becomes GStreamer caps: raw
// video keeps the buffer's own strides and offsets in a video meta; Bayer caps have no stride.
#ifndef SENSORIPC_FRAME_LAYOUT_H
#define SENSORIPC_FRAME_LAYOUT_H

#include <gst/video/video.h>

#include "sensor_consumer/geometry.h"

namespace sensoripc {

inline bool isBayer(const sensor_consumer::FrameLayout& layout) {
    return layout.format == sensor_consumer::PixelFormat::Rggb16;
}
// The raw-video format of a layout (GST_VIDEO_FORMAT_UNKNOWN for Bayer).
GstVideoFormat videoFormat(const sensor_consumer::FrameLayout& layout);
// Caps without a framerate (the caller adds it).
GstCaps* layoutCaps(const sensor_consumer::FrameLayout& layout);

}  // namespace sensoripc

#endif  // SENSORIPC_FRAME_LAYOUT_H
