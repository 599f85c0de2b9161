// Frame layouts to GStreamer caps.
#include "frame_layout.h"

namespace sensoripc {

using sensor_consumer::PixelFormat;

GstVideoFormat videoFormat(const sensor_consumer::FrameLayout& layout) {
    switch (layout.format) {
        case PixelFormat::Nv12:
            return GST_VIDEO_FORMAT_NV12;
        case PixelFormat::Nv21:
            return GST_VIDEO_FORMAT_NV21;
        case PixelFormat::Gray8:
            return GST_VIDEO_FORMAT_GRAY8;
        case PixelFormat::Gray16:
            return GST_VIDEO_FORMAT_GRAY16_LE;
        case PixelFormat::Rggb16:
            break;
    }
    return GST_VIDEO_FORMAT_UNKNOWN;
}

GstCaps* layoutCaps(const sensor_consumer::FrameLayout& layout) {
    if (isBayer(layout)) {
        return gst_caps_new_simple("video/x-bayer", "format", G_TYPE_STRING, "rggb16le", "width", G_TYPE_INT,
                                   gint(layout.width), "height", G_TYPE_INT, gint(layout.height), nullptr);
    }
    GstVideoInfo info;
    gst_video_info_set_format(&info, videoFormat(layout), layout.width, layout.height);
    if (GST_VIDEO_FORMAT_INFO_IS_YUV(info.finfo)) {
        // The processed frames are BT.601 with limited range, as the tools convert them.
        gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
    }
    info.fps_n = 0;
    info.fps_d = 1;
    return gst_video_info_to_caps(&info);
}

}  // namespace sensoripc
