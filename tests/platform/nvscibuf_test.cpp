// The NvSciBuf substitute over simulated buffers: layout and attributes, pixel copies, handle checks.
#include "nvscibuf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sim_test.h"

namespace {

using sensor_sim::Attr;
using sensor_sim::Buffer;
using sensor_sim::BufferSpec;
using U32 = std::vector<uint32_t>;
using U64 = std::vector<uint64_t>;
using Bytes = std::vector<uint8_t>;

using NvSciBufTest = sipc_test::SimTest;

NvSciBufObj handle(const std::shared_ptr<Buffer>& b) {
    return reinterpret_cast<NvSciBufObj>(b.get());
}

// One attribute of a buffer, read through the substitute as the client reads it.
template <typename T>
std::vector<T> attr(const std::shared_ptr<Buffer>& b, NvSciBufAttrKey key) {
    NvSciBufAttrList list = nullptr;
    EXPECT_EQ(NvSciBufObjGetAttrList(handle(b), &list), NvSciError_Success);
    NvSciBufAttrKeyValuePair pair{key, nullptr, 0};
    EXPECT_EQ(NvSciBufAttrListGetAttrs(list, &pair, 1), NvSciError_Success);
    std::vector<T> out(pair.len / sizeof(T));
    if (!out.empty()) std::memcpy(out.data(), pair.value, out.size() * sizeof(T));
    return out;
}

// A pitch rule that ignores the padding, or offsets that are not cumulative, misplace every plane copied.
TEST_F(NvSciBufTest, Yuv420LayoutAndAttributes) {
    auto b = sensor_sim::makeBuffer(BufferSpec::yuv420(1920, 1080));
    EXPECT_EQ(attr<uint32_t>(b, NvSciBufImageAttrKey_PlaneCount), U32{2});
    EXPECT_EQ(attr<uint32_t>(b, NvSciBufImageAttrKey_PlaneHeight), (U32{1080, 540}));
    EXPECT_EQ(attr<uint32_t>(b, NvSciBufImageAttrKey_PlanePitch), (U32{1984, 1984}));
    EXPECT_EQ(attr<uint64_t>(b, NvSciBufImageAttrKey_PlaneAlignedSize), (U64{2142720, 1071360}));
    EXPECT_EQ(attr<uint64_t>(b, NvSciBufImageAttrKey_PlaneOffset), (U64{0, 2142720}));
    EXPECT_EQ(attr<uint8_t>(b, NvSciBufImageAttrKey_PlaneChannelCount), (Bytes{1, 2}));
    EXPECT_EQ(attr<uint64_t>(b, NvSciBufImageAttrKey_Size), U64{3214080});
    // 150 visible bytes round up to 192, plus the padding.
    EXPECT_EQ(sensor_sim::makeBuffer(BufferSpec::single(100, 4, 12, sensor_sim::kColorBayer16, 8))->pitch(0),
              200u);
}

// Absent attributes must read as length 0, a claimed plane count beyond the real planes must give zero
// entries rather than reading past the arrays, and malformed queries must be refused without answers.
TEST_F(NvSciBufTest, AbsentAttributesClaimedPlanesAndBadQueries) {
    BufferSpec spec = BufferSpec::yuv420(64, 16);
    spec.absent = {Attr::PlaneWidth};
    spec.claimedPlaneCount = 3;
    auto b = sensor_sim::makeBuffer(spec);
    EXPECT_TRUE(attr<uint32_t>(b, NvSciBufImageAttrKey_PlaneWidth).empty());
    EXPECT_EQ(attr<uint32_t>(b, NvSciBufImageAttrKey_PlaneHeight), (U32{16, 8, 0}));
    EXPECT_EQ(attr<uint64_t>(b, NvSciBufImageAttrKey_PlaneOffset), (U64{0, 2048, 0}));

    auto list = reinterpret_cast<NvSciBufAttrList>(b.get());
    NvSciBufAttrKeyValuePair pairs[2] = {{NvSciBufImageAttrKey_Size, nullptr, 0},
                                         {NvSciBufAttrKey_UpperBound, nullptr, 0}};
    EXPECT_EQ(NvSciBufAttrListGetAttrs(list, pairs, 2), NvSciError_BadParameter);
    EXPECT_EQ(pairs[0].len, 0u);
    EXPECT_EQ(NvSciBufAttrListGetAttrs(list, nullptr, 1), NvSciError_BadParameter);
}

// Null, made-up or stale handles must be caught by every call instead of being dereferenced.
TEST_F(NvSciBufTest, BadHandlesAreRefusedEverywhere) {
    int notABuffer = 0;
    auto stale = sensor_sim::makeBuffer(BufferSpec::yuv420(64, 16));
    NvSciBufObj staleHandle = handle(stale);
    stale.reset();
    for (NvSciBufObj obj : {NvSciBufObj(nullptr), reinterpret_cast<NvSciBufObj>(&notABuffer), staleHandle}) {
        NvSciBufAttrList list = nullptr;
        NvSciBufAttrKeyValuePair pair{NvSciBufImageAttrKey_Size, nullptr, 0};
        const void* ptr = nullptr;
        uint8_t dst[16];
        void* dstPtr[3] = {dst, nullptr, nullptr};
        uint32_t size[3] = {16, 0, 0}, pitch[3] = {16, 0, 0};
        EXPECT_EQ(NvSciBufObjGetAttrList(obj, &list), NvSciError_BadParameter);
        EXPECT_EQ(NvSciBufAttrListGetAttrs(reinterpret_cast<NvSciBufAttrList>(obj), &pair, 1),
                  NvSciError_BadParameter);
        EXPECT_EQ(NvSciBufObjGetPixels(obj, nullptr, dstPtr, size, pitch), NvSciError_BadParameter);
        EXPECT_EQ(NvSciBufObjFlushCpuCacheRange(obj, 0, 1), NvSciError_BadParameter);
        EXPECT_EQ(NvSciBufObjGetConstCpuPtr(obj, &ptr), NvSciError_BadParameter);
    }
}

// One plane of 3 lines x 10 visible bytes (source pitch 64, padding 0xEE) copied at a destination pitch
// and size: the ranges (offset, bytes) that must hold lines 0, 1, 2; all other bytes stay untouched.
struct CopyCase {
    uint32_t pitch;
    uint32_t size;
    std::vector<std::pair<uint32_t, uint32_t>> lines;
};

void PrintTo(const CopyCase& c, std::ostream* os) {
    *os << "pitch " << c.pitch << " size " << c.size;
}

class GetPixelsCopy : public NvSciBufTest, public ::testing::WithParamInterface<CopyCase> {};

// Catches copies that use the source pitch, copy padding, overrun the size or drop a final partial line.
TEST_P(GetPixelsCopy, HonoursPitchAndSize) {
    const CopyCase& c = GetParam();
    auto b = sipc_test::patterned(BufferSpec::single(10, 3, 8, sensor_sim::kColorY8, 0));
    Bytes dst(96, 0xAA), expected(dst);
    for (uint32_t y = 0; y < c.lines.size(); ++y) {
        for (uint32_t x = 0; x < c.lines[y].second; ++x) expected[c.lines[y].first + x] = uint8_t(y * 7 + x);
    }
    void* dstPtr[3] = {dst.data(), nullptr, nullptr};
    uint32_t size[3] = {c.size, 0, 0}, pitch[3] = {c.pitch, 0, 0};
    ASSERT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_Success);
    EXPECT_EQ(dst, expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, GetPixelsCopy,
                         ::testing::Values(CopyCase{16, 48, {{0, 10}, {16, 10}, {32, 10}}},  // wider pitch
                                           CopyCase{4, 12, {{0, 4}, {4, 4}, {8, 4}}},        // narrower pitch
                                           CopyCase{10, 25, {{0, 10}, {10, 10}, {20, 5}}},   // partial last
                                           CopyCase{16, 20, {{0, 10}, {16, 4}}}),  // size ends early
                         [](const auto& info) {
                             return "Pitch" + std::to_string(info.param.pitch) + "Size" +
                                    std::to_string(info.param.size);
                         });

// Catches a large plane's copy (the path that bypasses the cache) losing an unaligned head, a tail shorter
// than a block, or the bytes between the destination's lines.
TEST_F(NvSciBufTest, LargePlaneCopiesEveryLineAtAnyAlignment) {
    constexpr uint32_t kWidth = 1001, kHeight = 600, kPitch = 1013, kShift = 5;
    auto b = sipc_test::patterned(BufferSpec::single(kWidth, kHeight, 8, sensor_sim::kColorY8, 0));
    Bytes dst(kShift + size_t(kPitch) * kHeight, 0xAA);
    void* dstPtr[3] = {dst.data() + kShift, nullptr, nullptr};
    uint32_t size[3] = {kPitch * kHeight, 0, 0}, pitch[3] = {kPitch, 0, 0};
    ASSERT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_Success);
    for (uint32_t y = 0; y < kHeight; ++y) {
        const uint8_t* line = dst.data() + kShift + size_t(y) * kPitch;
        ASSERT_EQ(std::memcmp(line, b->line(0, y), kWidth), 0) << "line " << y;
        ASSERT_EQ(Bytes(line + kWidth, line + kPitch), Bytes(kPitch - kWidth, 0xAA)) << "line " << y;
    }
}

// A zero size must skip its plane even with a null pointer (the client passes 0 for YUV chroma); bad
// destinations and injected statuses must answer before any plane is written; the journal must show the
// sizes, pitches and destination offsets the client passed.
TEST_F(NvSciBufTest, ZeroSizeSkipsBadDestinationsRefused) {
    auto b = sipc_test::patterned(BufferSpec::yuv420(8, 2, 0));
    Bytes luma(16, 0xAA);
    void* dstPtr[3] = {luma.data(), nullptr, nullptr};
    uint32_t size[3] = {16, 16, 0}, pitch[3] = {8, 8, 0};
    NvSciBufRect rect{0, 0, 8, 2};
    EXPECT_EQ(NvSciBufObjGetPixels(handle(b), &rect, dstPtr, size, pitch), NvSciError_NotSupported);
    EXPECT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_BadParameter);
    dstPtr[1] = luma.data();
    pitch[1] = 0;
    EXPECT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_BadParameter);
    size[1] = 0;
    dstPtr[1] = nullptr;
    sensor_sim::injectStatus("NvSciBufObjGetPixels", NvSciError_ResourceError);  // answers, copies nothing
    EXPECT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_ResourceError);
    EXPECT_EQ(luma, Bytes(16, 0xAA));
    EXPECT_EQ(NvSciBufObjGetPixels(handle(b), nullptr, dstPtr, size, pitch), NvSciError_Success);
    EXPECT_EQ(luma[9], 7 + 1);
    EXPECT_EQ(sensor_sim::journalOf("NvSciBufObjGetPixels").back(), "ptr,null,ptr,[16 0],[8 0],[0 null]");
}

// A range check that wraps around or accepts one byte past the end would pass bad flushes.
TEST_F(NvSciBufTest, FlushRangeIsChecked) {
    auto b = sensor_sim::makeBuffer(BufferSpec::single(64, 2, 8, sensor_sim::kColorY8, 0));
    EXPECT_EQ(NvSciBufObjFlushCpuCacheRange(handle(b), 0, 129), NvSciError_BadParameter);
    EXPECT_EQ(NvSciBufObjFlushCpuCacheRange(handle(b), UINT64_MAX, 2), NvSciError_BadParameter);
    EXPECT_EQ(NvSciBufObjFlushCpuCacheRange(handle(b), 0, 128), NvSciError_Success);
    EXPECT_EQ(b->flushCount(), 1u);
    EXPECT_EQ(NvSciBufObjGetConstCpuPtr(handle(b), nullptr), NvSciError_BadParameter);
}

}  // namespace
