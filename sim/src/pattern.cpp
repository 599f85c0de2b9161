// The moving test pattern of the live vehicle: one scene (colour bars across, saturation growing
// downwards, diagonal stripes and a grid), sampled once per format into a strip, then copied per frame.
#include "sensor_sim/internal/pattern.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace sensor_sim {
namespace pattern {

struct Strip {
    struct Plane {
        std::vector<uint8_t> bytes;
        size_t stride = 0;  // bytes per strip row
        uint32_t rows = 0;
        uint32_t lineBytes = 0;     // visible bytes per frame line
        uint32_t bytesPerStep = 0;  // bytes per pattern pixel of the luma/main plane
    };
    Format format;
    uint32_t width;
    uint32_t height;
    std::vector<Plane> planes;
};

namespace {

struct Rgb {
    float r, g, b;
};

// The scene at pattern column xs (0..kPeriod) and row y of an image `height` rows high.
Rgb scene(uint32_t xs, uint32_t y, uint32_t height) {
    if (xs % 64 < 2 || y % 64 < 2) return {1.0f, 1.0f, 1.0f};
    const float hue = static_cast<float>(xs) / kPeriod * 6.0f;
    const float sat = 0.25f + 0.65f * static_cast<float>(y) / static_cast<float>(std::max(height, 1u));
    const float val = ((xs + y) / 32) % 2 == 0 ? 0.85f : 0.55f;
    const int sector = static_cast<int>(hue) % 6;
    const float f = hue - std::floor(hue);
    const float p = val * (1 - sat), q = val * (1 - sat * f), t = val * (1 - sat * (1 - f));
    switch (sector) {
        case 0:
            return {val, t, p};
        case 1:
            return {q, val, p};
        case 2:
            return {p, val, t};
        case 3:
            return {p, q, val};
        case 4:
            return {t, p, val};
        default:
            return {val, p, q};
    }
}

float luma(const Rgb& c) {
    return 0.299f * c.r + 0.587f * c.g + 0.114f * c.b;
}

uint8_t clamp8(float v) {
    return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L));
}

void put16(uint8_t* at, uint16_t v) {
    at[0] = static_cast<uint8_t>(v & 0xFF);
    at[1] = static_cast<uint8_t>(v >> 8);
}

uint32_t bitsOfMainPlane(Format f) {
    return f == Format::Bayer16 || f == Format::Grey16 ? 16 : 8;
}

// Each strip row is one period of the scene, computed once and repeated across the row.
std::shared_ptr<Strip> build(Format format, uint32_t width, uint32_t height) {
    auto s = std::make_shared<Strip>();
    s->format = format;
    s->width = width;
    s->height = height;
    const uint32_t span = width + kPeriod;  // strip columns of the main plane
    const uint32_t bpp = bitsOfMainPlane(format) / 8;
    auto repeat = [](uint8_t* row, size_t rowBytes, size_t periodBytes) {
        for (size_t done = periodBytes; done < rowBytes; done += periodBytes)
            std::memcpy(row + done, row, std::min(periodBytes, rowBytes - done));
    };
    Strip::Plane main;
    main.stride = size_t(span) * bpp;
    main.rows = height;
    main.lineBytes = width * bpp;
    main.bytesPerStep = bpp;
    main.bytes.resize(main.stride * height);
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = main.bytes.data() + size_t(y) * main.stride;
        for (uint32_t x = 0; x < kPeriod; ++x) {
            const Rgb c = scene(x, y, height);
            switch (format) {
                case Format::Yuv420:
                    row[x] = clamp8(16 + 219 * luma(c));
                    break;
                case Format::Grey8:
                    row[x] = clamp8(255 * luma(c));
                    break;
                case Format::Grey16:
                    put16(row + 2 * x, static_cast<uint16_t>(std::lround(65535 * luma(c))));
                    break;
                case Format::Bayer16: {
                    // RGGB: red on even rows and columns, blue on odd ones, green elsewhere.
                    const float v = (y % 2 == 0) ? (x % 2 == 0 ? c.r : c.g) : (x % 2 == 0 ? c.g : c.b);
                    put16(row + 2 * x, static_cast<uint16_t>(64 + std::lround(v * 4000)));
                    break;
                }
            }
        }
        repeat(row, main.stride, size_t(kPeriod) * bpp);
    }
    s->planes.push_back(std::move(main));
    if (format == Format::Yuv420) {
        Strip::Plane chroma;
        chroma.stride = size_t(span / 2) * 2;
        chroma.rows = height / 2;
        chroma.lineBytes = (width / 2) * 2;
        chroma.bytesPerStep = 1;  // one chroma byte per luma pixel of offset (offsets are even)
        chroma.bytes.resize(chroma.stride * chroma.rows);
        for (uint32_t cy = 0; cy < chroma.rows; ++cy) {
            uint8_t* row = chroma.bytes.data() + size_t(cy) * chroma.stride;
            for (uint32_t cx = 0; cx < kPeriod / 2; ++cx) {
                const Rgb c = scene(2 * cx, 2 * cy, height);
                row[2 * cx] = clamp8(128 + 224 * (-0.168736f * c.r - 0.331264f * c.g + 0.5f * c.b));
                row[2 * cx + 1] = clamp8(128 + 224 * (0.5f * c.r - 0.418688f * c.g - 0.081312f * c.b));
            }
            repeat(row, chroma.stride, kPeriod);
        }
        s->planes.push_back(std::move(chroma));
    }
    return s;
}

// 5x7 glyphs, one byte per row, bit 4 the leftmost column: digits 0-9, then ':'.
constexpr std::array<std::array<uint8_t, 7>, 11> kGlyphs{{
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E},
    {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F},
    {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02},
    {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E},
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E},
    {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00},
}};

std::string labelText(uint32_t sensorId, uint64_t counter) {
    std::string id = std::to_string(sensorId);
    std::string count = std::to_string(counter);
    if (id.size() < 2) id.insert(0, 2 - id.size(), '0');
    if (count.size() < 8) count.insert(0, 8 - count.size(), '0');
    return id + ":" + count;
}

// Whether the label box covers pixel (x, y) with ink; the box starts at (origin, origin).
struct Label {
    std::string text;
    uint32_t scale, origin, width, height;
    bool ink(uint32_t bx, uint32_t by) const {  // box coordinates
        const uint32_t gx = bx / scale, gy = by / scale;
        if (gx < 1 || gy < 2 || gy >= 9) return false;
        const uint32_t slot = (gx - 1) / 6, col = (gx - 1) % 6;
        if (slot >= text.size() || col >= 5) return false;
        const char ch = text[slot];
        const auto& glyph = kGlyphs[ch == ':' ? 10 : static_cast<size_t>(ch - '0')];
        return (glyph[gy - 2] >> (4 - col)) & 1;
    }
};

Label makeLabel(uint32_t width, uint32_t height, uint32_t sensorId, uint64_t counter) {
    Label l;
    l.text = labelText(sensorId, counter);
    l.scale = std::clamp(std::min(height / 28, width / 240), 1u, 8u);
    l.origin = 2 * l.scale;
    const uint32_t w = (uint32_t(l.text.size()) * 6 + 1) * l.scale;
    const uint32_t h = 11 * l.scale;
    l.width = l.origin < width ? std::min(w, width - l.origin) : 0;
    l.height = l.origin < height ? std::min(h, height - l.origin) : 0;
    return l;
}

}  // namespace

const char* formatName(Format format) {
    switch (format) {
        case Format::Yuv420:
            return "yuv420";
        case Format::Bayer16:
            return "bayer16";
        case Format::Grey8:
            return "grey8";
        case Format::Grey16:
            return "grey16";
    }
    return "?";
}

bool formatFromName(const std::string& name, Format* out) {
    for (Format f : {Format::Yuv420, Format::Bayer16, Format::Grey8, Format::Grey16}) {
        if (name == formatName(f)) {
            *out = f;
            return true;
        }
    }
    return false;
}

uint32_t colorFormat(Format format) {
    switch (format) {
        case Format::Yuv420:
            return kColorY8U8V8;
        case Format::Bayer16:
            return kColorBayer16;
        case Format::Grey8:
            return kColorA8;
        case Format::Grey16:
            return kColorA16;
    }
    return 0;
}

bool needsEvenSize(Format format) {
    return format == Format::Yuv420 || format == Format::Bayer16;
}

BufferSpec bufferSpec(Format format, uint32_t width, uint32_t height, uint32_t pitchPadding) {
    switch (format) {
        case Format::Yuv420:
            return BufferSpec::yuv420(width, height, pitchPadding);
        case Format::Bayer16:
            return BufferSpec::single(width, height, 16, kColorBayer16, pitchPadding);
        case Format::Grey8:
            return BufferSpec::single(width, height, 8, kColorA8, pitchPadding);
        case Format::Grey16:
            return BufferSpec::single(width, height, 16, kColorA16, pitchPadding);
    }
    return {};
}

uint64_t frameBytes(Format format, uint32_t width, uint32_t height) {
    const uint64_t pixels = uint64_t(width) * height;
    switch (format) {
        case Format::Yuv420:
            return pixels + pixels / 2;
        case Format::Bayer16:
        case Format::Grey16:
            return pixels * 2;
        case Format::Grey8:
            return pixels;
    }
    return 0;
}

// Strips are kept for the life of the process: a rig has a handful of distinct formats and sizes.
std::shared_ptr<const Strip> strip(Format format, uint32_t width, uint32_t height) {
    static std::mutex* mutex = new std::mutex;
    static auto* cache = new std::map<std::tuple<Format, uint32_t, uint32_t>, std::shared_ptr<const Strip>>;
    std::lock_guard<std::mutex> lock(*mutex);
    auto& entry = (*cache)[{format, width, height}];
    if (!entry) entry = build(format, width, height);
    return entry;
}

uint32_t offsetOf(uint32_t sensorId, uint64_t counter) {
    return static_cast<uint32_t>((counter * kSpeed + uint64_t(sensorId) * 40) % kPeriod);
}

void render(const Strip& strip, Buffer& buffer, uint32_t sensorId, uint64_t counter) {
    const uint32_t offset = offsetOf(sensorId, counter);
    const size_t planes = std::min(strip.planes.size(), buffer.spec().planes.size());
    for (size_t p = 0; p < planes; ++p) {
        const Strip::Plane& sp = strip.planes[p];
        const size_t line = std::min<size_t>(sp.lineBytes, buffer.lineBytes(p));
        const uint32_t rows = std::min(sp.rows, buffer.spec().planes[p].height);
        const uint8_t* src = sp.bytes.data() + size_t(offset) * sp.bytesPerStep;
        for (uint32_t y = 0; y < rows; ++y) std::memcpy(buffer.line(p, y), src + y * sp.stride, line);
    }
    drawLabel(buffer, strip.format, sensorId, counter);
}

void drawLabel(Buffer& buffer, Format format, uint32_t sensorId, uint64_t counter) {
    if (buffer.spec().planes.empty()) return;
    const PlaneSpec& main = buffer.spec().planes[0];
    const Label label = makeLabel(main.width, main.height, sensorId, counter);
    // The box has 11 distinct rows of glyph cells; each is laid out once and copied `scale` times.
    const uint32_t bytesPer = bitsOfMainPlane(format) / 8;
    std::vector<uint8_t> row(size_t(label.width) * bytesPer);
    uint32_t built = UINT32_MAX;
    for (uint32_t by = 0; by < label.height; ++by) {
        if (by / label.scale != built) {
            built = by / label.scale;
            for (uint32_t bx = 0; bx < label.width; ++bx) {
                const bool ink = label.ink(bx, by);
                switch (format) {
                    case Format::Yuv420:
                        row[bx] = ink ? 235 : 16;
                        break;
                    case Format::Grey8:
                        row[bx] = ink ? 255 : 0;
                        break;
                    case Format::Grey16:
                        put16(&row[2 * bx], ink ? 65535 : 0);
                        break;
                    case Format::Bayer16:
                        put16(&row[2 * bx], ink ? 3900 : 64);
                        break;
                }
            }
        }
        std::memcpy(buffer.line(0, label.origin + by) + size_t(label.origin) * bytesPer, row.data(),
                    row.size());
    }
    if (format == Format::Yuv420 && buffer.spec().planes.size() > 1) {
        // Neutral chroma under the box, so the label reads white on black in any converter.
        const PlaneSpec& chroma = buffer.spec().planes[1];
        const uint32_t y0 = label.origin / 2,
                       y1 = std::min((label.origin + label.height + 1) / 2, chroma.height);
        const uint32_t x0 = label.origin / 2,
                       x1 = std::min((label.origin + label.width + 1) / 2, chroma.width);
        for (uint32_t y = y0; y < y1; ++y) {
            if (x1 > x0) std::memset(buffer.line(1, y) + 2 * x0, 128, 2 * (x1 - x0));
        }
    }
}

stats::FrameStats statistics(const Buffer& buffer, Format format) {
    stats::FrameStats out;
    if (buffer.spec().planes.empty()) return out;
    const PlaneSpec& main = buffer.spec().planes[0];
    const uint32_t w = main.width, h = main.height;
    const bool wide = bitsOfMainPlane(format) == 16;
    const uint32_t shift = format == Format::Bayer16 ? 4 : 8;  // 12-bit or 16-bit values to 8 bits
    auto sample = [&](const uint8_t* row, uint32_t x) -> uint32_t {
        if (!wide) return row[x];
        return std::min<uint32_t>(255, uint32_t(row[2 * x] | (row[2 * x + 1] << 8)) >> shift);
    };
    struct Region {
        uint32_t x, y, w, h, gridW, gridH;
    };
    const Region regions[stats::kRegions] = {{0, 0, w, h, 16, 16},
                                             {w / 4, h / 4, w / 2, h / 2, 8, 8},
                                             {0, h - h / 3, w, h / 3, 16, 4},
                                             {0, 0, w / 2, h / 2, 4, 4}};
    constexpr uint32_t kSamples = 4;  // per cell and direction
    uint64_t wholeSum = 0, wholeCount = 0;
    std::vector<uint32_t> xs, ys;
    for (uint32_t r = 0; r < stats::kRegions; ++r) {
        const Region& reg = regions[r];
        out.descriptors[r] = {reg.x, reg.y, reg.gridW, reg.gridH, reg.w, reg.h, 0, 0};
        // Sample coordinates, evenly spread: kSamples per cell in each direction.
        xs.resize(reg.gridW * kSamples);
        ys.resize(reg.gridH * kSamples);
        for (size_t i = 0; i < xs.size(); ++i)
            xs[i] = reg.x + static_cast<uint32_t>(uint64_t(i) * reg.w / xs.size());
        for (size_t i = 0; i < ys.size(); ++i)
            ys[i] = reg.y + static_cast<uint32_t>(uint64_t(i) * reg.h / ys.size());
        const bool empty = reg.w == 0 || reg.h == 0;
        uint8_t* block = out.data.data() + size_t(r) * stats::kBlockBytes;
        for (uint32_t cy = 0; cy < reg.gridH; ++cy) {
            for (uint32_t cx = 0; cx < reg.gridW; ++cx) {
                uint32_t sum = 0, lo = 255, hi = 0, count = 0;
                for (uint32_t sy = 0; sy < kSamples && !empty; ++sy) {
                    const uint8_t* row = buffer.line(0, ys[cy * kSamples + sy]);
                    for (uint32_t sx = 0; sx < kSamples; ++sx) {
                        const uint32_t v = sample(row, xs[cx * kSamples + sx]);
                        sum += v;
                        lo = std::min(lo, v);
                        hi = std::max(hi, v);
                        ++count;
                    }
                }
                const uint32_t cell[4] = {count ? sum / count : 0, count ? lo : 0, hi, count};
                std::memcpy(block + (size_t(cy) * reg.gridW + cx) * 16, cell, sizeof cell);
                if (r == 0) {
                    wholeSum += sum;
                    wholeCount += count;
                }
            }
        }
    }
    out.brightness = wholeCount ? static_cast<float>(wholeSum) / static_cast<float>(wholeCount) : 0.0f;
    return out;
}

}  // namespace pattern
}  // namespace sensor_sim
