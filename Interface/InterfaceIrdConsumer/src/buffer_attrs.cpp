// Reading a frame buffer's image attributes and deriving the CPU copy's surface parameters.
#include "buffer_attrs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vexa {
namespace sensor_access {

const BufSurfParams BufSurfParamsTable_YUV[3] = {
    {{1.0f, 0.5f, 0.5f}, {1.0f, 0.5f, 0.5f}, 3},  // 4:2:0
    {{1.0f, 1.0f, 1.0f}, {1.0f, 1.0f, 1.0f}, 3},  // 4:4:4
    {{1.0f, 1.0f, 1.0f}, {1.0f, 0.5f, 0.5f}, 3},  // 4:2:2
};

const BufSurfParams BufSurfParamsTable_Default = {{1.0f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f}, 1};

namespace {

// The 15 attributes asked for, in this key order.
constexpr NvSciBufAttrKey kKeys[] = {
    NvSciBufImageAttrKey_Size,           NvSciBufImageAttrKey_Layout,
    NvSciBufImageAttrKey_PlaneCount,     NvSciBufImageAttrKey_PlaneWidth,
    NvSciBufImageAttrKey_PlaneHeight,    NvSciBufImageAttrKey_PlanePitch,
    NvSciBufImageAttrKey_PlaneBitsPerPixel, NvSciBufImageAttrKey_PlaneAlignedHeight,
    NvSciBufImageAttrKey_PlaneAlignedSize,  NvSciBufImageAttrKey_PlaneChannelCount,
    NvSciBufImageAttrKey_PlaneOffset,    NvSciBufImageAttrKey_PlaneColorFormat,
    NvSciBufImageAttrKey_TopPadding,     NvSciBufImageAttrKey_BottomPadding,
    NvSciBufGeneralAttrKey_CpuNeedSwCacheCoherency,
};
enum KeyIndex {
    kSize, kLayout, kPlaneCount, kWidth, kHeight, kPitch, kBpp, kAlignedHeight, kAlignedSize, kChannels,
    kOffset, kColorFormat, kTopPadding, kBottomPadding, kSwCache, kKeyCount
};
static_assert(sizeof(kKeys) / sizeof(kKeys[0]) == kKeyCount, "one index per key");

// Copies `bytes` from an attribute that is present; otherwise says so and leaves the field.
void copyAttr(const NvSciBufAttrKeyValuePair& pair, void* field, size_t bytes, const char* name) {
    if (pair.len == 0) {
        std::printf("Skipped populating %s as length of attribute was 0\n", name);
        return;
    }
    std::memcpy(field, pair.value, bytes);
}

}  // namespace

int PopulateBufAttr(const NvSciBufObj& bufObj, BufferAttrs& attrs) {
    NvSciBufAttrKeyValuePair pairs[kKeyCount];
    for (int i = 0; i < kKeyCount; ++i) pairs[i] = NvSciBufAttrKeyValuePair{kKeys[i], nullptr, 0};

    NvSciBufAttrList list = nullptr;
    if (NvSciBufObjGetAttrList(bufObj, &list) != NvSciError_Success) return kBufAttrFailed;
    if (NvSciBufAttrListGetAttrs(list, pairs, kKeyCount) != NvSciError_Success) return kBufAttrFailed;

    copyAttr(pairs[kSize], &attrs.size, sizeof(attrs.size), "size");
    copyAttr(pairs[kLayout], &attrs.layout, sizeof(attrs.layout), "layout");
    copyAttr(pairs[kPlaneCount], &attrs.planeCount, sizeof(attrs.planeCount), "planeCount");
    copyAttr(pairs[kSwCache], &attrs.needSwCacheCoherency, sizeof(attrs.needSwCacheCoherency),
             "needSwCacheCoherency");

    // Per-plane arrays follow the plane count as it now stands; the record holds three planes at most.
    const size_t planes = std::min(attrs.planeCount, kMaxPlanes);
    copyAttr(pairs[kWidth], attrs.planeWidths, planes * 4, "planeWidths");
    copyAttr(pairs[kHeight], attrs.planeHeights, planes * 4, "planeHeights");
    copyAttr(pairs[kPitch], attrs.planePitches, planes * 4, "planePitches");
    copyAttr(pairs[kBpp], attrs.planeBitsPerPixels, planes * 4, "planeBitsPerPixels");
    copyAttr(pairs[kAlignedHeight], attrs.planeAlignedHeights, planes * 4, "planeAlignedHeights");
    copyAttr(pairs[kAlignedSize], attrs.planeAlignedSizes, planes * 8, "planeAlignedSizes");
    copyAttr(pairs[kChannels], attrs.planeChannelCounts, planes * 1, "planeChannelCounts");
    copyAttr(pairs[kOffset], attrs.planeOffsets, planes * 8, "planeOffsets");
    copyAttr(pairs[kColorFormat], attrs.planeColorFormats, planes * 4, "planeColorFormats");
    copyAttr(pairs[kTopPadding], attrs.topPadding, planes * 8, "topPadding");
    copyAttr(pairs[kBottomPadding], attrs.bottomPadding, planes * 8, "bottomPadding");
    return kBufAttrOk;
}

bool GetBpp(uint32_t bitsPerPixel, uint32_t* bytesPerPixel) {
    if (bytesPerPixel == nullptr) return false;
    switch (bitsPerPixel) {
        case 8: *bytesPerPixel = 1; return true;
        case 10:
        case 12:
        case 14:
        case 16: *bytesPerPixel = 2; return true;
        case 20: *bytesPerPixel = 3; return true;
        case 32: *bytesPerPixel = 4; return true;
        case 64: *bytesPerPixel = 8; return true;
        default:
            std::printf("Invalid planeBitsPerPixels %u\n", bitsPerPixel);
            return false;
    }
}

int32_t GetBuffParams(BufferAttrs attrs, const float** widthFactors, const float** heightFactors,
                      uint32_t** bytesPerPixel, uint32_t* surfaceCount, bool* packed, uint32_t* bppStorage) {
    // Only surface 0's bytes per pixel is ever derived; the others stay 0.
    uint32_t bpp[kMaxPlanes] = {1, 0, 0};
    const uint32_t format = static_cast<uint32_t>(attrs.planeColorFormats[0]);
    const BufSurfParams* row = &BufSurfParamsTable_Default;

    if (format >= 96 && format <= 101) {  // packed formats
        if (!GetBpp(attrs.planeBitsPerPixels[0], &bpp[0])) return kBufAttrFailed;
        if (packed != nullptr) *packed = true;
    } else if (attrs.planeCount == 1) {
        const bool oneBytePerPixel = format == 87 || (format >= 104 && format <= 106) || format == 113;
        const bool converted = format < 74 || format >= 2147483648u || (format >= 117 && format <= 149);
        if (!oneBytePerPixel) {
            if (!converted) {
                std::printf("Unsupported plane format\n");
                return kBufAttrUnsupported;
            }
            if (!GetBpp(attrs.planeBitsPerPixels[0], &bpp[0])) return kBufAttrFailed;
        }
    } else if (attrs.planeCount == 2 && format >= 84 && format <= 87) {  // semi-planar YUV
        const uint32_t w0 = attrs.planeWidths[0], w1 = attrs.planeWidths[1];
        const uint32_t h0 = attrs.planeHeights[0], h1 = attrs.planeHeights[1];
        if (h0 == h1 && w0 == w1) {
            row = &BufSurfParamsTable_YUV[1];
        } else if (h0 == 2 * h1) {
            if (w0 != 2 * w1) {  // 4:4:0 and the like
                std::printf("Unsupported channel count\n");
                return kBufAttrUnsupported;
            }
            row = &BufSurfParamsTable_YUV[0];
        } else if (h0 == h1 && w0 == 2 * w1) {
            row = &BufSurfParamsTable_YUV[2];
        } else {
            std::printf("Unsupported channel count\n");
            return kBufAttrUnsupported;
        }
        if (!GetBpp(attrs.planeBitsPerPixels[0], &bpp[0])) return kBufAttrFailed;
    } else {
        std::printf("Unsupported plane format\n");
        return kBufAttrUnsupported;
    }

    if (widthFactors != nullptr) *widthFactors = row->widthFactors;
    if (heightFactors != nullptr) *heightFactors = row->heightFactors;
    if (bytesPerPixel != nullptr && bppStorage != nullptr) {
        std::copy(bpp, bpp + kMaxPlanes, bppStorage);
        *bytesPerPixel = bppStorage;
    }
    if (surfaceCount != nullptr) *surfaceCount = row->surfaceCount;
    return kBufAttrOk;
}

}  // namespace sensor_access
}  // namespace vexa
