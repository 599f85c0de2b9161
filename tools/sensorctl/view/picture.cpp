// Scaling and conversion with libyuv, compression with TurboJPEG.
#include "view/picture.h"

#include <libyuv/convert.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "image.h"

namespace sensorctl::view {

using sensor_consumer::MappedLayout;
using sensor_consumer::PixelFormat;

namespace {

int asInt(uint64_t v) {
    return static_cast<int>(v);
}

// Tile sizes keep the aspect of camera images; single planes (range bins x beams) keep their lines and
// only lose columns, since the browser stretches them.
void tileSize(uint32_t width, uint32_t height, uint32_t tileWidth, bool keepAspect, uint32_t& w, uint32_t& h) {
    w = std::min(width, tileWidth) & ~1u;
    if (w < 2) w = 2;
    h = keepAspect ? std::max<uint32_t>(2, uint32_t(uint64_t(height) * w / width) & ~1u) : height;
}

bool extractYuv(const MappedLayout& m, PictureKind kind, uint32_t tileWidth, Extract& out) {
    const auto& l = m.layout;
    const uint8_t* y = m.base + l.planes[0].offset;
    const uint8_t* uv = m.base + l.planes[1].offset;
    uint32_t w = l.width, h = l.height;
    if (kind == PictureKind::Tile) tileSize(l.width, l.height, tileWidth, true, w, h);
    out.form = Extract::Form::Yuv420;
    out.width = w;
    out.height = h;
    out.y.resize(size_t(w) * h);
    out.u.resize(size_t(w / 2) * (h / 2));
    out.v.resize(out.u.size());
    const bool nv21 = l.format == PixelFormat::Nv21;
    uint8_t* u = nv21 ? out.v.data() : out.u.data();
    uint8_t* v = nv21 ? out.u.data() : out.v.data();
    if (w == l.width && h == l.height) {
        return libyuv::NV12ToI420(y, asInt(l.planes[0].pitch), uv, asInt(l.planes[1].pitch), out.y.data(), asInt(w),
                                  u, asInt(w / 2), v, asInt(w / 2), asInt(w), asInt(h)) == 0;
    }
    std::vector<uint8_t> smallUv(size_t(w) * (h / 2));
    if (libyuv::NV12Scale(y, asInt(l.planes[0].pitch), uv, asInt(l.planes[1].pitch), asInt(l.width),
                          asInt(l.height), out.y.data(), asInt(w), smallUv.data(), asInt(w), asInt(w), asInt(h),
                          libyuv::kFilterBilinear) != 0)
        return false;
    libyuv::SplitUVPlane(smallUv.data(), asInt(w), u, asInt(w / 2), v, asInt(w / 2), asInt(w / 2), asInt(h / 2));
    return true;
}

bool extractPlane(const MappedLayout& m, PictureKind kind, uint32_t tileWidth, Extract& out) {
    const auto& l = m.layout;
    const auto& p = l.planes[0];
    uint32_t w = l.width, h = l.height;
    if (kind == PictureKind::Tile) tileSize(l.width, l.height, tileWidth, false, w, h);
    out.width = w;
    out.height = h;
    if (l.format == PixelFormat::Gray8) {
        out.form = Extract::Form::Gray8;
        out.y.resize(size_t(w) * h);
        libyuv::ScalePlane(m.base + p.offset, asInt(p.pitch), asInt(l.width), asInt(l.height), out.y.data(),
                           asInt(w), asInt(w), asInt(h), libyuv::kFilterBilinear);
        return true;
    }
    // 16-bit samples: copied line by line (a pitch need not be a whole number of samples).
    std::vector<uint16_t> full(size_t(l.width) * l.height);
    for (uint32_t row = 0; row < l.height; ++row)
        std::memcpy(&full[size_t(row) * l.width], m.base + p.offset + uint64_t(row) * p.pitch, size_t(l.width) * 2);
    if (l.format == PixelFormat::Rggb16 || (w == l.width && h == l.height)) {
        out.form = l.format == PixelFormat::Rggb16 ? Extract::Form::Bayer16 : Extract::Form::Gray16;
        out.width = l.width;
        out.height = l.height;
        out.wide = std::move(full);
        return true;
    }
    out.form = Extract::Form::Gray16;
    out.wide.resize(size_t(w) * h);
    libyuv::ScalePlane_16(full.data(), asInt(l.width), asInt(l.width), asInt(l.height), out.wide.data(), asInt(w),
                          asInt(w), asInt(h), libyuv::kFilterBilinear);
    return true;
}

// A blue-to-red scale for single-plane sensors: near values read apart at a glance.
void falseColour(uint8_t value, uint8_t* rgb) {
    const float x = float(value) / 255.0f;
    auto channel = [](float t) { return uint8_t(std::clamp(1.5f - std::abs(t), 0.0f, 1.0f) * 255.0f); };
    rgb[0] = channel(4.0f * x - 3.0f);
    rgb[1] = channel(4.0f * x - 2.0f);
    rgb[2] = channel(4.0f * x - 1.0f);
}

struct Compressor {
    tjhandle handle = tjInitCompress();
    ~Compressor() {
        if (handle != nullptr) tjDestroy(handle);
    }
};

bool compress(const std::function<int(tjhandle, unsigned char**, unsigned long*)>& call, std::string& jpeg,
              std::string& error) {
    thread_local Compressor compressor;
    if (compressor.handle == nullptr) {
        error = "the JPEG encoder cannot start";
        return false;
    }
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    const int status = call(compressor.handle, &buffer, &size);
    if (status != 0) {
        error = std::string("JPEG encoder: ") + tjGetErrorStr2(compressor.handle);
        tjFree(buffer);
        return false;
    }
    jpeg.assign(reinterpret_cast<const char*>(buffer), size);
    tjFree(buffer);
    return true;
}

}  // namespace

bool extractPicture(const HeldView& frame, PictureKind kind, uint32_t tileWidth, Extract& out, std::string& error) {
    const MappedLayout* m = kind == PictureKind::Raw ? frame.raw : frame.image;
    if (m == nullptr) {
        error = kind == PictureKind::Raw ? "this sensor's frames come without raw frames" : "no image";
        return false;
    }
    switch (m->layout.format) {
        case PixelFormat::Nv12:
        case PixelFormat::Nv21:
            if (extractYuv(*m, kind, tileWidth, out)) return true;
            error = "the image cannot be scaled";
            return false;
        case PixelFormat::Gray8:
        case PixelFormat::Gray16:
        case PixelFormat::Rggb16:
            return extractPlane(*m, kind, tileWidth, out);
    }
    error = "unknown image format";
    return false;
}

bool encodeJpeg(const Extract& image, int quality, std::string& jpeg, std::string& error) {
    const int w = int(image.width), h = int(image.height);
    if (image.form == Extract::Form::Yuv420) {
        const unsigned char* planes[3] = {image.y.data(), image.u.data(), image.v.data()};
        int strides[3] = {w, w / 2, w / 2};
        return compress(
            [&](tjhandle t, unsigned char** buf, unsigned long* size) {
                return tjCompressFromYUVPlanes(t, planes, w, strides, h, TJSAMP_420, buf, size, quality,
                                               TJFLAG_FASTDCT);
            },
            jpeg, error);
    }
    std::vector<uint8_t> rgb;
    if (image.form == Extract::Form::Bayer16) {
        // 12-bit samples in 16-bit containers, as the vehicle's raw captures carry them.
        std::vector<uint8_t> bytes(image.wide.size() * 2);
        std::memcpy(bytes.data(), image.wide.data(), bytes.size());
        Image picture = convertFrame(bytes.data(), PixelFormat::Rggb16, image.width, image.height,
                                     YuvRange::Limited, 12);
        rgb = std::move(picture.pixels);
    } else {
        std::vector<uint8_t> grey;
        if (image.form == Extract::Form::Gray16) {
            // Spread the frame's own range over the colour scale: the planes' values are distances or
            // intensities of any size.
            const uint16_t top = image.wide.empty() ? 1 : std::max<uint16_t>(1, *std::max_element(image.wide.begin(), image.wide.end()));
            grey.resize(image.wide.size());
            for (size_t i = 0; i < grey.size(); ++i) grey[i] = uint8_t(uint32_t(image.wide[i]) * 255u / top);
        }
        const std::vector<uint8_t>& src = image.form == Extract::Form::Gray16 ? grey : image.y;
        rgb.resize(src.size() * 3);
        for (size_t i = 0; i < src.size(); ++i) falseColour(src[i], &rgb[i * 3]);
    }
    return compress(
        [&](tjhandle t, unsigned char** buf, unsigned long* size) {
            return tjCompress2(t, rgb.data(), w, 0, h, TJPF_RGB, buf, size, TJSAMP_444, quality, TJFLAG_FASTDCT);
        },
        jpeg, error);
}

}  // namespace sensorctl::view
