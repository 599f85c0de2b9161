// The buffer attribute model: absent attributes, the three-plane bound, and the surface parameters
// derived from the colour format.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "buffer_attrs.h"
#include "frame_test.h"

namespace {

using namespace vexa::sensor_access;
using sensor_sim::Attr;
using sensor_sim::BufferSpec;
using testing::ElementsAre;

class BufferAttrsTest : public sipc_test::SimTest {
protected:
    // Reads the attributes of a buffer built from spec into a record pre-filled with `fill` bytes.
    BufferAttrs read(const BufferSpec& spec, uint8_t fill = 0) {
        buffer = sensor_sim::makeBuffer(spec);
        BufferAttrs attrs;
        std::memset(&attrs, fill, sizeof(attrs));
        EXPECT_EQ(PopulateBufAttr(sipc_test::handle(buffer), attrs), kBufAttrOk);
        return attrs;
    }
    std::shared_ptr<sensor_sim::Buffer> buffer;
};

// Every attribute lands in its field; the copies follow the plane count.
TEST_F(BufferAttrsTest, PopulatesEveryField) {
    BufferSpec spec = BufferSpec::yuv420(1920, 1080);
    spec.needSwCacheCoherency = true;
    BufferAttrs attrs = read(spec, 0x5A);
    EXPECT_EQ(attrs.planeCount, 2u);
    EXPECT_EQ(attrs.size, buffer->size());
    EXPECT_EQ(attrs.layout, NvSciBufImage_PitchLinearType);
    EXPECT_THAT(attrs.planeWidths, ElementsAre(1920, 960, 0x5A5A5A5Au));
    EXPECT_THAT(attrs.planeHeights, ElementsAre(1080, 540, 0x5A5A5A5Au));
    EXPECT_EQ(attrs.planePitches[0], buffer->pitch(0));
    EXPECT_THAT(attrs.planeBitsPerPixels, ElementsAre(8, 16, 0x5A5A5A5Au));
    EXPECT_EQ(attrs.planeOffsets[1], buffer->offset(1));
    EXPECT_EQ(attrs.planeColorFormats[0], 84);
    EXPECT_TRUE(attrs.needSwCacheCoherency);
}

// A missing attribute is reported on standard output and its field keeps the caller's value.
TEST_F(BufferAttrsTest, AbsentAttributeKeepsTheCallersValue) {
    BufferSpec spec = BufferSpec::yuv420(64, 32);
    spec.absent = {Attr::PlaneWidth, Attr::NeedSwCacheCoherency};
    testing::internal::CaptureStdout();
    BufferAttrs attrs = read(spec, 0x11);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Skipped populating needSwCacheCoherency as length of attribute was 0\n"
              "Skipped populating planeWidths as length of attribute was 0\n");
    EXPECT_THAT(attrs.planeWidths, ElementsAre(0x11111111u, 0x11111111u, 0x11111111u));
    EXPECT_THAT(attrs.planeHeights, ElementsAre(32, 16, 0x11111111u));
}

// A buffer claiming more than three planes must not write past the record's three-entry arrays.
TEST_F(BufferAttrsTest, MoreThanThreePlanesAreCutToThree) {
    BufferSpec spec = BufferSpec::yuv420(64, 32);
    spec.claimedPlaneCount = 7;
    spec.absent = {Attr::PlaneHeight};
    BufferAttrs attrs = read(spec, 0x22);
    EXPECT_EQ(attrs.planeCount, 7u);
    EXPECT_THAT(attrs.planeWidths, ElementsAre(64, 32, 0));
    EXPECT_THAT(attrs.planeHeights, ElementsAre(0x22222222u, 0x22222222u, 0x22222222u));
}

// A failing NvSciBuf call is the only failure.
TEST_F(BufferAttrsTest, NvSciBufFailureIsTen) {
    auto b = sensor_sim::makeBuffer(BufferSpec::yuv420(64, 32));
    BufferAttrs attrs{};
    sensor_sim::injectStatus("NvSciBufAttrListGetAttrs", NvSciError_BadParameter);
    EXPECT_EQ(PopulateBufAttr(sipc_test::handle(b), attrs), kBufAttrFailed);
    EXPECT_EQ(PopulateBufAttr(nullptr, attrs), kBufAttrFailed);
}

// Surface parameters per format and geometry.
struct ParamCase {
    const char* name;
    uint32_t planeCount;
    uint32_t format;
    uint32_t w0, h0, w1, h1, bits;
    int32_t result;
    const char* printed;
    float widthFactor1;
    uint32_t surfaces;
    uint32_t bytes0;
    bool packed;
};

class GetBuffParamsTest : public testing::TestWithParam<ParamCase> {};

TEST_P(GetBuffParamsTest, Answers) {
    const ParamCase& c = GetParam();
    BufferAttrs attrs{};
    attrs.planeCount = c.planeCount;
    attrs.planeColorFormats[0] = static_cast<NvSciBufAttrValColorFmt>(c.format);
    attrs.planeWidths[0] = c.w0;
    attrs.planeHeights[0] = c.h0;
    attrs.planeWidths[1] = c.w1;
    attrs.planeHeights[1] = c.h1;
    attrs.planeBitsPerPixels[0] = c.bits;
    const float* widths = nullptr;
    const float* heights = nullptr;
    uint32_t* bytes = nullptr;
    uint32_t storage[3] = {9, 9, 9};
    uint32_t surfaces = 4294967295u;
    bool packed = false;
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetBuffParams(attrs, &widths, &heights, &bytes, &surfaces, &packed, storage), c.result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
    EXPECT_EQ(packed, c.packed);
    if (c.result != kBufAttrOk) return;
    EXPECT_EQ(surfaces, c.surfaces);
    EXPECT_FLOAT_EQ(widths[1], c.widthFactor1);
    EXPECT_THAT(storage, ElementsAre(c.bytes0, 0, 0));
    EXPECT_EQ(bytes, storage);
    // Null outputs other than the packed flag are skipped.
    EXPECT_EQ(GetBuffParams(attrs, nullptr, nullptr, nullptr, nullptr, &packed, nullptr), kBufAttrOk);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, GetBuffParamsTest,
    testing::Values(
        ParamCase{"yuv420", 2, 84, 1920, 1080, 960, 540, 8, 0, "", 0.5f, 3, 1, false},
        ParamCase{"yuv444", 2, 85, 64, 32, 64, 32, 8, 0, "", 1.0f, 3, 1, false},
        ParamCase{"yuv422", 2, 86, 64, 32, 32, 32, 16, 0, "", 0.5f, 3, 2, false},
        ParamCase{"yuv440", 2, 84, 64, 32, 64, 16, 8, 2, "Unsupported channel count\n", 0, 0, 0, false},
        ParamCase{"oddChroma", 2, 84, 64, 32, 20, 10, 8, 2, "Unsupported channel count\n", 0, 0, 0, false},
        ParamCase{"threePlanes", 3, 84, 64, 32, 32, 16, 8, 2, "Unsupported plane format\n", 0, 0, 0, false},
        ParamCase{"packed", 1, 96, 64, 32, 0, 0, 16, 0, "", 0.0f, 1, 2, true},
        ParamCase{"packedBadBits", 1, 97, 64, 32, 0, 0, 24, 10, "Invalid planeBitsPerPixels 24\n", 0, 0, 0, false},
        ParamCase{"raw8Packed", 1, 113, 64, 32, 0, 0, 10, 0, "", 0.0f, 1, 1, false},
        ParamCase{"bayer16", 1, 16, 64, 32, 0, 0, 16, 0, "", 0.0f, 1, 2, false},
        ParamCase{"highFormat", 1, 120, 64, 32, 0, 0, 32, 0, "", 0.0f, 1, 4, false},
        ParamCase{"singleBadBits", 1, 64, 64, 32, 0, 0, 24, 10, "Invalid planeBitsPerPixels 24\n", 0, 0, 0, false},
        ParamCase{"singleSemiPlanar", 1, 84, 64, 32, 0, 0, 8, 2, "Unsupported plane format\n", 0, 0, 0, false},
        ParamCase{"yuvBadBits", 2, 84, 64, 32, 32, 16, 24, 10, "Invalid planeBitsPerPixels 24\n", 0, 0, 0, false}),
    [](const testing::TestParamInfo<ParamCase>& info) { return std::string(info.param.name); });

}  // namespace
