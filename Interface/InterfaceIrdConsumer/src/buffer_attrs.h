// Image layout of a frame buffer, read from its NvSciBuf attributes, and the per-surface factors that
// the CPU copy derives from the colour format. Diagnostics of these utilities go to standard output.
#ifndef SENSOR_IPC_BUFFER_ATTRS_H
#define SENSOR_IPC_BUFFER_ATTRS_H

#include <cstdint>

#include "nvscibuf.h"

namespace vexa {
namespace sensor_access {

constexpr uint32_t kMaxPlanes = 3;

struct BufferAttrs {
    uint32_t reserved;  // never read or written by the library
    uint64_t size;
    uint32_t planeCount;
    NvSciBufAttrValImageLayoutType layout;
    uint32_t planeWidths[kMaxPlanes];
    uint32_t planeHeights[kMaxPlanes];
    uint32_t planePitches[kMaxPlanes];
    uint32_t planeBitsPerPixels[kMaxPlanes];
    uint32_t planeAlignedHeights[kMaxPlanes];
    uint64_t planeAlignedSizes[kMaxPlanes];
    uint8_t planeChannelCounts[kMaxPlanes];
    uint64_t planeOffsets[kMaxPlanes];
    uint64_t topPadding[kMaxPlanes];
    uint64_t bottomPadding[kMaxPlanes];
    bool needSwCacheCoherency;
    NvSciBufAttrValColorFmt planeColorFormats[kMaxPlanes];
};

// Height factors, width factors (one per surface) and the surface count of a colour layout.
struct BufSurfParams {
    float heightFactors[kMaxPlanes];
    float widthFactors[kMaxPlanes];
    uint32_t surfaceCount;
};
static_assert(sizeof(BufSurfParams) == 7 * 4, "a surface row is seven 32-bit words");

// Rows: 4:2:0, 4:4:4, 4:2:2.
extern const BufSurfParams BufSurfParamsTable_YUV[3];
extern const BufSurfParams BufSurfParamsTable_Default;

constexpr int kBufAttrOk = 0;
constexpr int kBufAttrUnsupported = 2;
constexpr int kBufAttrFailed = 10;

// Fills attrs from the object's attribute list; absent attributes leave their fields as they were.
// 0, or 10 when an NvSciBuf call fails.
int PopulateBufAttr(const NvSciBufObj& bufObj, BufferAttrs& attrs);

// Bytes per pixel of a bit depth; false (with a message for an unknown depth) on failure.
bool GetBpp(uint32_t bitsPerPixel, uint32_t* bytesPerPixel);

// Surface factors, bytes per pixel, surface count and packed flag of the layout in attrs. Outputs
// other than packed may be null. The width and height outputs point into the constant tables; the
// bytes-per-pixel output points at bppStorage (three entries the caller owns). 0, 2 (unsupported
// format or chroma geometry) or 10 (invalid bits per pixel).
int32_t GetBuffParams(BufferAttrs attrs, const float** widthFactors, const float** heightFactors,
                      uint32_t** bytesPerPixel, uint32_t* surfaceCount, bool* packed, uint32_t* bppStorage);

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPC_BUFFER_ATTRS_H
