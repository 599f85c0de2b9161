// Dump-file formats and their conversion to RGB or grey images.
#include "image.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <regex>

#include "errors.h"

namespace sensorctl {
namespace {

constexpr uint32_t kMaxSide = 32768;

uint8_t clamp8(int value) {
    return static_cast<uint8_t>(std::clamp(value, 0, 255));
}

uint16_t sample16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

// Reflects an index across the image border, so that a neighbour outside the mosaic is replaced by the
// one inside at the same distance: it keeps the Bayer colour of the missing neighbour.
int reflect(int i, int n) {
    if (i < 0) return -i;
    if (i >= n) return 2 * n - 2 - i;
    return i;
}

void yuvToRgb(int y, int u, int v, YuvRange range, uint8_t* rgb) {
    const int d = u - 128;
    const int e = v - 128;
    if (range == YuvRange::Limited) {
        const int c = 298 * (y - 16);
        rgb[0] = clamp8((c + 409 * e + 128) >> 8);
        rgb[1] = clamp8((c - 100 * d - 208 * e + 128) >> 8);
        rgb[2] = clamp8((c + 516 * d + 128) >> 8);
    } else {
        rgb[0] = clamp8(y + ((359 * e + 128) >> 8));
        rgb[1] = clamp8(y + ((-88 * d - 183 * e + 128) >> 8));
        rgb[2] = clamp8(y + ((454 * d + 128) >> 8));
    }
}

Image convertYuv420(const uint8_t* data, uint32_t width, uint32_t height, bool vFirst, YuvRange range) {
    Image img{width, height, 3, false, std::vector<uint8_t>(size_t(width) * height * 3)};
    const uint8_t* chroma = data + size_t(width) * height;
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t* luma = data + size_t(y) * width;
        const uint8_t* uv = chroma + size_t(y / 2) * width;
        uint8_t* out = img.pixels.data() + size_t(y) * width * 3;
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t* pair = uv + (x / 2) * 2;
            const int u = vFirst ? pair[1] : pair[0];
            const int v = vFirst ? pair[0] : pair[1];
            yuvToRgb(luma[x], u, v, range, out + size_t(x) * 3);
        }
    }
    return img;
}

Image demosaicRggb(const uint8_t* data, uint32_t width, uint32_t height, uint32_t bayerBits) {
    Image img{width, height, 3, false, std::vector<uint8_t>(size_t(width) * height * 3)};
    const int w = static_cast<int>(width);
    const int h = static_cast<int>(height);
    const uint32_t shift = bayerBits > 8 ? bayerBits - 8 : 0;
    auto at = [&](int x, int y) -> int {
        return sample16(data + (size_t(reflect(y, h)) * width + size_t(reflect(x, w))) * 2);
    };
    auto to8 = [&](int v) { return clamp8(v >> shift); };
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int cross = (at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1) + 2) / 4;
            const int diag =
                (at(x - 1, y - 1) + at(x + 1, y - 1) + at(x - 1, y + 1) + at(x + 1, y + 1) + 2) / 4;
            const int across = (at(x - 1, y) + at(x + 1, y) + 1) / 2;
            const int down = (at(x, y - 1) + at(x, y + 1) + 1) / 2;
            const int self = at(x, y);
            int r, g, b;
            if (y % 2 == 0 && x % 2 == 0) {  // red site
                r = self, g = cross, b = diag;
            } else if (y % 2 == 0) {  // green on a red row
                r = across, g = self, b = down;
            } else if (x % 2 == 0) {  // green on a blue row
                r = down, g = self, b = across;
            } else {  // blue site
                r = diag, g = cross, b = self;
            }
            uint8_t* out = img.pixels.data() + (size_t(y) * width + size_t(x)) * 3;
            out[0] = to8(r);
            out[1] = to8(g);
            out[2] = to8(b);
        }
    }
    return img;
}

std::optional<uint32_t> toU32(const std::string& digits) {
    uint32_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

}  // namespace

uint64_t frameBytes(PixelFormat format, uint32_t width, uint32_t height) {
    if (width == 0 || height == 0) throw UsageError(fmt::format("image size {}x{} is empty", width, height));
    if (width > kMaxSide || height > kMaxSide) {
        throw UsageError(
            fmt::format("image size {}x{} is larger than {} on a side", width, height, kMaxSide));
    }
    const uint64_t pixels = uint64_t(width) * height;
    switch (format) {
        case PixelFormat::Nv12:
        case PixelFormat::Nv21:
            if (width % 2 != 0 || height % 2 != 0) {
                throw UsageError(
                    fmt::format("a 4:2:0 image needs an even width and height, not {}x{}", width, height));
            }
            return pixels + pixels / 2;
        case PixelFormat::Rggb16:
            if (width < 2 || height < 2) {
                throw UsageError(
                    fmt::format("a Bayer mosaic needs at least 2x2 samples, not {}x{}", width, height));
            }
            return pixels * 2;
        case PixelFormat::Gray8:
            return pixels;
        case PixelFormat::Gray16:
            return pixels * 2;
    }
    return 0;
}

std::optional<DumpName> parseDumpName(std::string_view path) {
    const size_t slash = path.find_last_of('/');
    const std::string base(slash == std::string_view::npos ? path : path.substr(slash + 1));
    static const std::regex pattern(
        R"(^(?:([A-Za-z0-9]+)_)?client_cam_([0-9]+)_([0-9]+)_([0-9]+)_X_([0-9]+)\.(yuv|raw)$)");
    std::smatch m;
    if (!std::regex_match(base, m, pattern)) return std::nullopt;
    DumpName name;
    name.app = m[1].str();
    auto sensor = toU32(m[2].str());
    auto frame = toU32(m[3].str());
    auto width = toU32(m[4].str());
    auto height = toU32(m[5].str());
    if (!sensor || !frame || !width || !height) return std::nullopt;
    name.sensorId = *sensor;
    name.frameCnt = *frame;
    name.width = *width;
    name.height = *height;
    name.raw = m[6].str() == "raw";
    return name;
}

Image convertFrame(const uint8_t* data, PixelFormat format, uint32_t width, uint32_t height, YuvRange range,
                   uint32_t bayerBits) {
    switch (format) {
        case PixelFormat::Nv12:
            return convertYuv420(data, width, height, false, range);
        case PixelFormat::Nv21:
            return convertYuv420(data, width, height, true, range);
        case PixelFormat::Rggb16:
            return demosaicRggb(data, width, height, bayerBits);
        case PixelFormat::Gray8:
            return Image{width, height, 1, false, std::vector<uint8_t>(data, data + size_t(width) * height)};
        case PixelFormat::Gray16: {
            Image img{width, height, 1, true, std::vector<uint8_t>(size_t(width) * height * 2)};
            for (size_t i = 0; i < size_t(width) * height; ++i) {
                const uint16_t v = sample16(data + i * 2);
                std::memcpy(img.pixels.data() + i * 2, &v, 2);
            }
            return img;
        }
    }
    return {};
}

}  // namespace sensorctl
