/*
 * NvSciBuf: the platform's image buffer objects, as far as the sensor IPC client uses them.
 * On the vehicle the vendor's header takes this one's place; names, signatures and the numbers
 * that the client compares (colour-format ranges, success status) stay compatible with it.
 */
#ifndef NVSCIBUF_H
#define NVSCIBUF_H

#include <stddef.h>
#include <stdint.h>
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque handles. */
typedef struct NvSciBufObjRefRec* NvSciBufObj;
typedef struct NvSciBufAttrListRec* NvSciBufAttrList;

typedef enum {
    NvSciError_Success = 0,
    NvSciError_BadParameter = 1,
    NvSciError_NotSupported = 2,
    NvSciError_InsufficientMemory = 3,
    NvSciError_ResourceError = 4,
    NvSciError_InvalidState = 5,
} NvSciError;

/* Attribute keys. Only the image keys and the one general key the client reads are listed. */
typedef enum {
    NvSciBufAttrKey_LowerBound = 0,
    NvSciBufGeneralAttrKey_CpuNeedSwCacheCoherency = 16,
    NvSciBufImageAttrKey_Layout = 64,
    NvSciBufImageAttrKey_TopPadding,
    NvSciBufImageAttrKey_BottomPadding,
    NvSciBufImageAttrKey_PlaneCount,
    NvSciBufImageAttrKey_PlaneColorFormat,
    NvSciBufImageAttrKey_PlaneWidth,
    NvSciBufImageAttrKey_PlaneHeight,
    NvSciBufImageAttrKey_PlaneBitsPerPixel,
    NvSciBufImageAttrKey_PlaneOffset,
    NvSciBufImageAttrKey_PlanePitch,
    NvSciBufImageAttrKey_PlaneAlignedHeight,
    NvSciBufImageAttrKey_PlaneAlignedSize,
    NvSciBufImageAttrKey_PlaneChannelCount,
    NvSciBufImageAttrKey_Size,
    NvSciBufAttrKey_UpperBound
} NvSciBufAttrKey;

/* One key/value pair of an attribute query: the query fills value and len; len 0 = absent. */
typedef struct {
    NvSciBufAttrKey key;
    const void* value;
    size_t len;
} NvSciBufAttrKeyValuePair;

typedef enum {
    NvSciBufImage_BlockLinearType = 0,
    NvSciBufImage_PitchLinearType = 1,
} NvSciBufAttrValImageLayoutType;

/*
 * Colour formats. The client only compares these as numbers against fixed ranges:
 * below 74 and 117..149 single-plane formats with a bits-per-pixel conversion, 84..87 two-plane
 * (semi-planar) YUV, 96..101 packed formats, 87/104..106/113 single-plane formats copied at one
 * byte per pixel. The named values are the ones the host platform produces.
 */
typedef enum {
    NvSciColor_LowerBound = 0,
    NvSciColor_Bayer16RGGB = 16,  /* raw Bayer, 16-bit containers */
    NvSciColor_A8 = 60,           /* single 8-bit channel (radar and lidar data) */
    NvSciColor_A16 = 61,          /* single 16-bit channel */
    NvSciColor_Y8 = 64,           /* luma only */
    NvSciColor_Y8_U8V8 = 84,      /* two planes: luma, interleaved chroma */
    NvSciColor_Y8_V8U8 = 85,
    NvSciColor_Y16_U16V16 = 86,
    NvSciColor_Y16_V16U16 = 87,
    NvSciColor_UYVY = 96,         /* packed 4:2:2 */
    NvSciColor_YUYV = 97,
    NvSciColor_VYUY = 98,
    NvSciColor_YVYU = 99,
    NvSciColor_Raw8Packed = 113,  /* opaque bytes, one byte per pixel whatever the bit depth */
    NvSciColor_UpperBound = 150,
} NvSciBufAttrValColorFmt;

/* Rectangle of a pixel copy; a null rectangle means the whole image. */
typedef struct {
    uint64_t x0;
    uint64_t y0;
    uint64_t x1;
    uint64_t y1;
} NvSciBufRect;

/* The reconciled attribute list of an object; it lives as long as the object. */
NvSciError NvSciBufObjGetAttrList(NvSciBufObj bufObj, NvSciBufAttrList* bufAttrList);

/* Fills value and len of each pair; a key the list does not hold gets len 0. */
NvSciError NvSciBufAttrListGetAttrs(NvSciBufAttrList attrList, NvSciBufAttrKeyValuePair* pairArray,
                                    size_t pairCount);

/*
 * Copies every plane of the image (rect null) into dstPtr[plane], line by line at dstPitch[plane],
 * at most dstSize[plane] bytes; a zero size copies nothing for that plane.
 */
NvSciError NvSciBufObjGetPixels(NvSciBufObj bufObj, const NvSciBufRect* rect, void** dstPtr,
                                const uint32_t* dstSize, const uint32_t* dstPitch);

NvSciError NvSciBufObjFlushCpuCacheRange(NvSciBufObj bufObj, uint64_t offset, uint64_t len);

/* Read-only CPU mapping of the whole buffer. */
NvSciError NvSciBufObjGetConstCpuPtr(NvSciBufObj bufObj, const void** ptr);

#ifdef __cplusplus
}
#endif

#endif /* NVSCIBUF_H */
