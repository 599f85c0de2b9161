// sensorctl's pieces that need no service: pixel conversions, dump names, number syntax.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "errors.h"
#include "image.h"
#include "numbers.h"

namespace sensorctl {
namespace {

using Rgb = std::array<uint8_t, 3>;

Rgb pixel(const Image& img, uint32_t x, uint32_t y) {
    const uint8_t* p = img.pixels.data() + (size_t(y) * img.width + x) * 3;
    return {p[0], p[1], p[2]};
}

// BT.601 limited-range codes of pure red and pure blue.
constexpr uint8_t kRedY = 81, kRedU = 90, kRedV = 240;
constexpr uint8_t kBlueY = 41, kBlueU = 240, kBlueV = 110;

// A 4x4 4:2:0 frame whose 2x2 quadrants are red, blue / blue, red; chroma pairs U,V (or V,U).
std::vector<uint8_t> quadrants(bool vFirst) {
    std::vector<uint8_t> f;
    for (int y = 0; y < 4; ++y) {
        const bool top = y < 2;
        for (int x = 0; x < 4; ++x) f.push_back((x < 2) == top ? kRedY : kBlueY);
    }
    auto pair = [&](bool red) {
        const uint8_t u = red ? kRedU : kBlueU, v = red ? kRedV : kBlueV;
        f.push_back(vFirst ? v : u);
        f.push_back(vFirst ? u : v);
    };
    pair(true), pair(false);  // chroma row 0: red, blue
    pair(false), pair(true);  // chroma row 1: blue, red
    return f;
}

// Would catch chroma taken from the wrong pair or row, swapped U/V, or a wrong colour matrix.
TEST(SensorctlYuv, QuadrantsConvertToTheirColoursInBothChromaOrders) {
    for (PixelFormat format : {PixelFormat::Nv12, PixelFormat::Nv21}) {
        const auto data = quadrants(format == PixelFormat::Nv21);
        ASSERT_EQ(data.size(), frameBytes(format, 4, 4));
        const Image img = convertFrame(data.data(), format, 4, 4, YuvRange::Limited, 12);
        ASSERT_EQ(img.channels, 3u);
        for (uint32_t y = 0; y < 4; ++y) {
            for (uint32_t x = 0; x < 4; ++x) {
                const Rgb expected = (x < 2) == (y < 2) ? Rgb{255, 0, 0} : Rgb{0, 0, 255};
                EXPECT_EQ(pixel(img, x, y), expected) << pixelFormatName(format) << " at " << x << "," << y;
            }
        }
    }
}

// Would catch limited-range scaling applied to full-range data (or the reverse).
TEST(SensorctlYuv, BlackAndWhiteLevelsFollowTheRange) {
    const std::vector<uint8_t> limited = {16, 235, 16, 235, 128, 128};  // 2x2 luma, one chroma pair
    Image img = convertFrame(limited.data(), PixelFormat::Nv12, 2, 2, YuvRange::Limited, 12);
    EXPECT_EQ(pixel(img, 0, 0), (Rgb{0, 0, 0}));
    EXPECT_EQ(pixel(img, 1, 0), (Rgb{255, 255, 255}));
    const std::vector<uint8_t> full = {0, 255, 128, 128, 128, 128};
    img = convertFrame(full.data(), PixelFormat::Nv12, 2, 2, YuvRange::Full, 12);
    EXPECT_EQ(pixel(img, 0, 0), (Rgb{0, 0, 0}));
    EXPECT_EQ(pixel(img, 1, 0), (Rgb{255, 255, 255}));
    EXPECT_EQ(pixel(img, 0, 1), (Rgb{128, 128, 128}));
}

std::vector<uint8_t> mosaic(uint32_t w, uint32_t h, uint16_t r, uint16_t g, uint16_t b) {
    std::vector<uint8_t> out;
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            const uint16_t v = (y % 2 == 0) ? (x % 2 == 0 ? r : g) : (x % 2 == 0 ? g : b);
            out.push_back(static_cast<uint8_t>(v & 0xFF));
            out.push_back(static_cast<uint8_t>(v >> 8));
        }
    }
    return out;
}

// Would catch border pixels interpolated from neighbours of the wrong colour (clamping instead of
// reflecting), a wrong RGGB phase on odd sizes, or a wrong scaling of 12-bit samples.
TEST(SensorctlDemosaic, UniformColourStaysUniformUpToTheBorders) {
    for (auto [w, h] : {std::pair{5u, 3u}, std::pair{2u, 2u}, std::pair{6u, 4u}}) {
        const auto data = mosaic(w, h, 1024, 2048, 3072);
        const Image img = convertFrame(data.data(), PixelFormat::Rggb16, w, h, YuvRange::Limited, 12);
        for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x)
                EXPECT_EQ(pixel(img, x, y), (Rgb{64, 128, 192})) << w << "x" << h << " at " << x << "," << y;
        }
    }
    const auto bright = mosaic(2, 2, 4095, 0xFFFF, 0);
    const Image img = convertFrame(bright.data(), PixelFormat::Rggb16, 2, 2, YuvRange::Limited, 12);
    EXPECT_EQ(pixel(img, 1, 1), (Rgb{255, 255, 0}));  // full scale, and beyond 12 bits clamped
}

// Would catch 16-bit grey samples read big-endian or narrowed to 8 bits.
TEST(SensorctlGrey, SixteenBitSamplesStayLittleEndianValues) {
    const std::vector<uint8_t> data = {0x34, 0x12, 0xFF, 0x00};
    const Image img = convertFrame(data.data(), PixelFormat::Gray16, 2, 1, YuvRange::Limited, 12);
    ASSERT_TRUE(img.sixteenBit);
    uint16_t v[2];
    std::memcpy(v, img.pixels.data(), 4);
    EXPECT_EQ(v[0], 0x1234);
    EXPECT_EQ(v[1], 0x00FF);
}

// Would catch frame sizes that disagree with the library's dump layout, or geometries accepted that
// would make the conversion read out of bounds.
TEST(SensorctlGeometry, FrameBytesFollowTheDumpLayoutAndRefuseImpossibleSizes) {
    EXPECT_EQ(frameBytes(PixelFormat::Nv12, 1920, 1080), 3110400u);
    EXPECT_EQ(frameBytes(PixelFormat::Rggb16, 1920, 1080), 4147200u);
    EXPECT_EQ(frameBytes(PixelFormat::Gray8, 1024, 64), 65536u);
    EXPECT_EQ(frameBytes(PixelFormat::Gray16, 1800, 32), 115200u);
    EXPECT_THROW(frameBytes(PixelFormat::Nv12, 3, 2), UsageError);
    EXPECT_THROW(frameBytes(PixelFormat::Rggb16, 1, 8), UsageError);
    EXPECT_THROW(frameBytes(PixelFormat::Gray8, 0, 8), UsageError);
    EXPECT_THROW(frameBytes(PixelFormat::Gray8, 100000, 1), UsageError);
}

// Would catch dump names misread (prefix, order of fields, directories) or numbers that wrap.
TEST(SensorctlGeometry, DumpNamesGiveSensorFrameAndSize) {
    auto n = parseDumpName("out/dir/SDEMO_client_cam_2_1534_1920_X_1080.yuv");
    ASSERT_TRUE(n);
    EXPECT_EQ(n->app, "SDEMO");
    EXPECT_EQ(n->sensorId, 2u);
    EXPECT_EQ(n->frameCnt, 1534u);
    EXPECT_EQ(n->width, 1920u);
    EXPECT_EQ(n->height, 1080u);
    EXPECT_FALSE(n->raw);
    n = parseDumpName("client_cam_3_7_1920_X_1080.raw");
    ASSERT_TRUE(n);
    EXPECT_EQ(n->app, "");
    EXPECT_TRUE(n->raw);
    for (const char* bad :
         {"client_cam_2_1534_1920x1080.yuv", "client_cam_2_1_1920_X_1080.png", "cam_2_1_4_X_2.yuv",
          "client_cam_2_1_99999999999_X_2.yuv", "client_cam_2_1_4_X_2.yuv/x"}) {
        EXPECT_FALSE(parseDumpName(bad)) << bad;
    }
}

// Would catch octal or signed readings, silent wrap-around, or I2C bytes split wrongly.
TEST(SensorctlArguments, NumbersAndHexBytes) {
    EXPECT_EQ(parseUnsigned("0x10", 0xFFFF, "--reg"), 16u);
    EXPECT_EQ(parseUnsigned("010", 0xFFFF, "--reg"), 10u);
    for (const char* bad : {"-1", "0x", "12a", "65536", "99999999999999999999999", ""}) {
        EXPECT_THROW(parseUnsigned(bad, 0xFFFF, "--reg"), UsageError) << bad;
    }
    const std::vector<uint8_t> expected = {0x01, 0x02, 0xFF};
    for (const char* text : {"01 02 ff", "01,02,0xFF", "01:02:ff", "0102ff"})
        EXPECT_EQ(parseHexBytes(text, 16), expected) << text;
    for (const char* bad : {"1", "0g", " ", "01 2"}) EXPECT_THROW(parseHexBytes(bad, 16), UsageError) << bad;
    EXPECT_THROW(parseHexBytes("010203", 2), UsageError);
}

}  // namespace
}  // namespace sensorctl
