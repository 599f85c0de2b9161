// The view's pictures: a held frame scaled or converted into a small owned image while the frame is
// held (the fast part), then compressed to JPEG after it is let go. Processed camera frames stay in
// YUV 4:2:0 all the way to the JPEG; raw Bayer frames are demosaiced; single-plane radar and lidar
// frames become false colour.
#ifndef SENSORCTL_VIEW_PICTURE_H
#define SENSORCTL_VIEW_PICTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "view/frames.h"

namespace sensorctl::view {

enum class PictureKind {
    Tile,  // processed image (or plane) scaled to the tile's width
    Full,  // processed image at full resolution
    Raw,   // the paired raw frame, demosaiced, at full resolution
};

// An image taken out of a frame, not yet compressed.
struct Extract {
    enum class Form { None, Yuv420, Gray8, Gray16, Bayer16 } form = Form::None;
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> y, u, v;  // Yuv420 planes, packed; Gray8 in y
    std::vector<uint16_t> wide;    // Gray16 and Bayer16 samples, packed
};

// Copies (and for tiles scales) what `kind` asks of the held frame into `out`; false with `error` when
// the frame has no such image (a raw picture of a sensor without raw frames).
bool extractPicture(const HeldView& frame, PictureKind kind, uint32_t tileWidth, Extract& out,
                    std::string& error);

// The JPEG of an extracted image; false with `error` when the encoder refuses.
bool encodeJpeg(const Extract& image, int quality, std::string& jpeg, std::string& error);

}  // namespace sensorctl::view

#endif  // SENSORCTL_VIEW_PICTURE_H
