// NvSciBuf substitute (libnvscibuf.so.1) over the simulator's buffers. An object handle, and its attribute
// list handle, is the address of a sensor_sim::Buffer; every handle is checked against the registry of
// live buffers before use, so a stale or made-up handle answers NvSciError_BadParameter.
#include "nvscibuf.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "sensor_sim/buffers.h"
#include "sensor_sim/core.h"

namespace {

using sensor_sim::Attr;
using sensor_sim::Buffer;
using sensor_sim::core::Args;

constexpr size_t kMaxPlanes = 3;

// Key values as raw numbers: a caller may put any value into the key field, and reading an enum object
// holding a value outside its range would be undefined.
uint32_t rawKey(const NvSciBufAttrKeyValuePair& pair) {
    static_assert(sizeof(pair.key) == sizeof(uint32_t), "attribute keys are 32-bit");
    uint32_t raw;
    std::memcpy(&raw, &pair.key, sizeof raw);
    return raw;
}

// The keys the client reads, and the attribute each one names.
bool attrOfKey(uint32_t key, Attr* attr) {
    switch (key) {
        case NvSciBufImageAttrKey_Size:
            *attr = Attr::Size;
            return true;
        case NvSciBufImageAttrKey_Layout:
            *attr = Attr::Layout;
            return true;
        case NvSciBufImageAttrKey_PlaneCount:
            *attr = Attr::PlaneCount;
            return true;
        case NvSciBufImageAttrKey_PlaneWidth:
            *attr = Attr::PlaneWidth;
            return true;
        case NvSciBufImageAttrKey_PlaneHeight:
            *attr = Attr::PlaneHeight;
            return true;
        case NvSciBufImageAttrKey_PlanePitch:
            *attr = Attr::PlanePitch;
            return true;
        case NvSciBufImageAttrKey_PlaneBitsPerPixel:
            *attr = Attr::PlaneBitsPerPixel;
            return true;
        case NvSciBufImageAttrKey_PlaneAlignedHeight:
            *attr = Attr::PlaneAlignedHeight;
            return true;
        case NvSciBufImageAttrKey_PlaneAlignedSize:
            *attr = Attr::PlaneAlignedSize;
            return true;
        case NvSciBufImageAttrKey_PlaneChannelCount:
            *attr = Attr::PlaneChannelCount;
            return true;
        case NvSciBufImageAttrKey_PlaneOffset:
            *attr = Attr::PlaneOffset;
            return true;
        case NvSciBufImageAttrKey_PlaneColorFormat:
            *attr = Attr::PlaneColorFormat;
            return true;
        case NvSciBufImageAttrKey_TopPadding:
            *attr = Attr::TopPadding;
            return true;
        case NvSciBufImageAttrKey_BottomPadding:
            *attr = Attr::BottomPadding;
            return true;
        case NvSciBufGeneralAttrKey_CpuNeedSwCacheCoherency:
            *attr = Attr::NeedSwCacheCoherency;
            return true;
        default:
            return false;
    }
}

size_t realPlanes(const Buffer& buffer) {
    return std::min(buffer.spec().planes.size(), kMaxPlanes);
}

// Per-plane destination arrays appear in the journal as lists when they can be read safely.
void addPlaneList(Args& args, const Buffer* buffer, const uint32_t* values) {
    if (buffer == nullptr || values == nullptr) {
        args.addPtr(values);
        return;
    }
    args.addList(std::vector<uint32_t>(values, values + realPlanes(*buffer)));
}

// Where each plane's destination lies relative to the first ("null" for none), so that the journal
// shows how a caller laid its planes out in one block.
void addDestinationOffsets(Args& args, const Buffer* buffer, void* const* dstPtr) {
    if (buffer == nullptr || dstPtr == nullptr) {
        args.addPtr(dstPtr);
        return;
    }
    std::string list = "[";
    for (size_t p = 0; p < realPlanes(*buffer); ++p) {
        if (p != 0) list += ' ';
        if (dstPtr[p] == nullptr || dstPtr[0] == nullptr) {
            list += "null";
        } else {
            list += std::to_string(static_cast<const char*>(dstPtr[p]) - static_cast<const char*>(dstPtr[0]));
        }
    }
    args.add(list + "]");
}

// Planes from this size up (a core's second-level cache on the PCs we build on) are copied with stores
// that bypass the cache: they would leave it anyway, and a store that first reads its cache line in costs
// half as much traffic again. A single large memcpy gets the same effect from the processor's string
// copy, which lines a few kilobytes long do not. Smaller planes stay in the cache, where ordinary stores
// are the faster ones and where the caller reads the copy next.
constexpr uint64_t kStreamingCopyBytes = 512u << 10;

// Copies `lines` lines of `bytes` each from `src` at `srcPitch` to `dst` at `dstPitch`.
void copyLines(uint8_t* dst, uint64_t dstPitch, const uint8_t* src, uint64_t srcPitch, uint64_t bytes,
               uint64_t lines) {
#if defined(__SSE2__)
    if (bytes * lines >= kStreamingCopyBytes) {
        for (uint64_t y = 0; y < lines; ++y) {
            uint8_t* d = dst + y * dstPitch;
            const uint8_t* s = src + y * srcPitch;
            // The unaligned head by memcpy, whole 16-byte blocks streamed, the tail by memcpy.
            const uint64_t head = std::min<uint64_t>(bytes, (16 - (reinterpret_cast<uintptr_t>(d) & 15)) & 15);
            std::memcpy(d, s, head);
            uint64_t at = head;
            for (; at + 64 <= bytes; at += 64) {
                const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + at));
                const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + at + 16));
                const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + at + 32));
                const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + at + 48));
                _mm_stream_si128(reinterpret_cast<__m128i*>(d + at), a);
                _mm_stream_si128(reinterpret_cast<__m128i*>(d + at + 16), b);
                _mm_stream_si128(reinterpret_cast<__m128i*>(d + at + 32), c);
                _mm_stream_si128(reinterpret_cast<__m128i*>(d + at + 48), e);
            }
            for (; at + 16 <= bytes; at += 16) {
                _mm_stream_si128(reinterpret_cast<__m128i*>(d + at),
                                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + at)));
            }
            std::memcpy(d + at, s + at, bytes - at);
        }
        _mm_sfence();  // the streamed stores are visible before the call returns
        return;
    }
#endif
    for (uint64_t y = 0; y < lines; ++y) std::memcpy(dst + y * dstPitch, src + y * srcPitch, bytes);
}

}  // namespace

extern "C" {

NvSciError NvSciBufObjGetAttrList(NvSciBufObj bufObj, NvSciBufAttrList* bufAttrList) {
    sensor_sim::core::record("NvSciBufObjGetAttrList", Args().addPtr(bufObj).addPtr(bufAttrList));
    if (auto s = sensor_sim::core::enter("NvSciBufObjGetAttrList")) return NvSciError(*s);
    if (sensor_sim::findBuffer(bufObj) == nullptr || bufAttrList == nullptr) return NvSciError_BadParameter;
    *bufAttrList = reinterpret_cast<NvSciBufAttrList>(bufObj);
    return NvSciError_Success;
}

NvSciError NvSciBufAttrListGetAttrs(NvSciBufAttrList attrList, NvSciBufAttrKeyValuePair* pairArray,
                                    size_t pairCount) {
    sensor_sim::core::record("NvSciBufAttrListGetAttrs",
                             Args().addPtr(attrList).addPtr(pairArray).add(static_cast<uint64_t>(pairCount)));
    if (auto s = sensor_sim::core::enter("NvSciBufAttrListGetAttrs")) return NvSciError(*s);
    const Buffer* buffer = sensor_sim::findBuffer(attrList);
    if (buffer == nullptr || (pairArray == nullptr && pairCount > 0)) return NvSciError_BadParameter;
    // Every key is checked before any pair is written, so a refused query leaves the pairs as they were.
    Attr attr;
    for (size_t i = 0; i < pairCount; ++i) {
        if (!attrOfKey(rawKey(pairArray[i]), &attr)) return NvSciError_BadParameter;
    }
    for (size_t i = 0; i < pairCount; ++i) {
        attrOfKey(rawKey(pairArray[i]), &attr);
        pairArray[i].value = buffer->attrValue(attr, &pairArray[i].len);
    }
    return NvSciError_Success;
}

NvSciError NvSciBufObjGetPixels(NvSciBufObj bufObj, const NvSciBufRect* rect, void** dstPtr,
                                const uint32_t* dstSize, const uint32_t* dstPitch) {
    const Buffer* buffer = sensor_sim::findBuffer(bufObj);
    Args args;
    if (args.on()) {  // the lists cost allocations that a live application's copy must not pay
        args.addPtr(bufObj).addPtr(rect).addPtr(dstPtr);
        addPlaneList(args, buffer, dstSize);
        addPlaneList(args, buffer, dstPitch);
        addDestinationOffsets(args, buffer, dstPtr);
    }
    sensor_sim::core::record("NvSciBufObjGetPixels", args);
    if (auto s = sensor_sim::core::enter("NvSciBufObjGetPixels")) return NvSciError(*s);
    if (buffer == nullptr) return NvSciError_BadParameter;
    if (rect != nullptr) return NvSciError_NotSupported;
    if (dstPtr == nullptr || dstSize == nullptr || dstPitch == nullptr) return NvSciError_BadParameter;

    const size_t planes = realPlanes(*buffer);
    // All destinations are checked first: a refused copy writes nothing.
    for (size_t p = 0; p < planes; ++p) {
        if (dstSize[p] != 0 && (dstPtr[p] == nullptr || dstPitch[p] == 0)) return NvSciError_BadParameter;
    }
    for (size_t p = 0; p < planes; ++p) {
        if (dstSize[p] == 0) continue;
        // The plane's geometry is read once: per line only the two addresses advance.
        auto* dst = static_cast<uint8_t*>(dstPtr[p]);
        const uint8_t* src = buffer->line(p, 0);
        const uint64_t srcPitch = buffer->pitch(p);
        const uint64_t pitch = dstPitch[p];
        const uint64_t size = dstSize[p];
        const uint64_t lineCopy = std::min<uint64_t>(buffer->lineBytes(p), pitch);
        const uint32_t height = buffer->spec().planes[p].height;
        if (lineCopy == 0 || src == nullptr) continue;  // an empty plane has no storage to copy from
        // Whole lines first, then the last one cut at the destination's size.
        const uint64_t whole = std::min<uint64_t>(height, size >= lineCopy ? (size - lineCopy) / pitch + 1 : 0);
        copyLines(dst, pitch, src, srcPitch, lineCopy, whole);
        if (whole < height && whole * pitch < size) {
            std::memcpy(dst + whole * pitch, src + whole * srcPitch, size - whole * pitch);
        }
    }
    return NvSciError_Success;
}

NvSciError NvSciBufObjFlushCpuCacheRange(NvSciBufObj bufObj, uint64_t offset, uint64_t len) {
    sensor_sim::core::record("NvSciBufObjFlushCpuCacheRange", Args().addPtr(bufObj).add(offset).add(len));
    if (auto s = sensor_sim::core::enter("NvSciBufObjFlushCpuCacheRange")) return NvSciError(*s);
    Buffer* buffer = sensor_sim::findBuffer(bufObj);
    if (buffer == nullptr) return NvSciError_BadParameter;
    if (offset > buffer->size() || len > buffer->size() - offset) return NvSciError_BadParameter;
    buffer->noteFlush();
    return NvSciError_Success;
}

NvSciError NvSciBufObjGetConstCpuPtr(NvSciBufObj bufObj, const void** ptr) {
    sensor_sim::core::record("NvSciBufObjGetConstCpuPtr", Args().addPtr(bufObj).addPtr(ptr));
    if (auto s = sensor_sim::core::enter("NvSciBufObjGetConstCpuPtr")) return NvSciError(*s);
    const Buffer* buffer = sensor_sim::findBuffer(bufObj);
    if (buffer == nullptr || ptr == nullptr) return NvSciError_BadParameter;
    *ptr = buffer->data();
    return NvSciError_Success;
}

}  // extern "C"
