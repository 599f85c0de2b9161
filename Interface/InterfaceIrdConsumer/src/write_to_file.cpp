// Writing frame buffers to files.
#include "write_to_file.h"

#include <algorithm>

namespace vexa {
namespace sensor_access {

namespace {

constexpr int kWriteOk = 0;
constexpr int kWriteFailed = 1;
constexpr int kAllocateFailed = 9;

// Shared geometry of both AllocatePixelDataBuffer forms; false when an NvSciBuf call fails.
bool computeGeometry(PixelDataBuffer1* pixels, const NvSciBufObj& bufObj) {
    NvSciBufAttrKeyValuePair pairs[] = {
        {NvSciBufImageAttrKey_PlaneCount, nullptr, 0},   {NvSciBufImageAttrKey_PlaneColorFormat, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneWidth, nullptr, 0},   {NvSciBufImageAttrKey_PlaneHeight, nullptr, 0},
        {NvSciBufImageAttrKey_PlaneBitsPerPixel, nullptr, 0}};
    NvSciBufAttrList list = nullptr;
    if (pixels == nullptr || NvSciBufObjGetAttrList(bufObj, &list) != NvSciError_Success ||
        NvSciBufAttrListGetAttrs(list, pairs, 5) != NvSciError_Success) {
        return false;
    }
    if (pairs[0].len < sizeof(uint32_t)) return false;
    pixels->planeCount = *static_cast<const uint32_t*>(pairs[0].value);
    if (pixels->planeCount == 0) return true;

    const uint32_t planes = std::min(pixels->planeCount, 3u);
    // A buffer whose attributes cannot describe its planes cannot be written.
    for (int i = 2; i <= 4; ++i) {
        if (pairs[i].len < planes * sizeof(uint32_t)) return false;
    }
    const auto* widths = static_cast<const uint32_t*>(pairs[2].value);
    const auto* heights = static_cast<const uint32_t*>(pairs[3].value);
    const auto* bits = static_cast<const uint32_t*>(pairs[4].value);
    for (uint32_t i = 0; i < planes; ++i) {
        pixels->lineSizes[i] = (widths[i] * bits[i]) >> 3;
        pixels->planeSizes[i] = (widths[i] * bits[i] * heights[i]) >> 3;
    }
    return true;
}

}  // namespace

int AllocatePixelDataBuffer(PixelDataBuffer1* pixels, const NvSciBufObj& bufObj) {
    return computeGeometry(pixels, bufObj) ? kWriteOk : kAllocateFailed;
}

WriteToFile::~WriteToFile() {
    if (m_file != nullptr) std::fclose(m_file);
}

int WriteToFile::AllocatePixelDataBuffer(PixelDataBuffer1* pixels, const NvSciBufObj& bufObj) {
    return computeGeometry(pixels, bufObj) ? kWriteOk : kWriteFailed;
}

int WriteToFile::WriteBufferToFile(const NvSciBufObj& bufObj) {
    PixelDataBuffer1 pixels{};
    if (AllocatePixelDataBuffer(&pixels, bufObj) != kWriteOk) return kWriteFailed;
    m_file = std::fopen(m_fileName.c_str(), "ab+");
    if (m_file == nullptr) return kWriteFailed;
    int result = ReadWritePixelDataLineByLine(bufObj, &pixels, false);
    std::fclose(m_file);
    m_file = nullptr;
    return result == kWriteOk ? kWriteOk : kWriteFailed;
}

int WriteToFile::WriteBufferToFile2(const uint8_t* data, uint64_t length) {
    m_file = std::fopen(m_fileName.c_str(), "ab+");
    if (m_file == nullptr) {
        std::printf("WriteBufferToFile2::Failed to open file %s.\n", m_fileName.c_str());
        return kWriteFailed;
    }
    size_t written = std::fwrite(data, 1, length, m_file);
    std::fclose(m_file);
    m_file = nullptr;
    if (written != length) {
        std::printf("WriteBufferToFile2::Expected to write %lu bytes, did %lu.\n", static_cast<unsigned long>(length),
                    static_cast<unsigned long>(written));
        return kWriteFailed;
    }
    return kWriteOk;
}

int WriteToFile::ReadWritePixelDataLineByLine(const NvSciBufObj& bufObj, PixelDataBuffer1* pixels, bool skip) {
    const void* mapping = nullptr;
    NvSciBufAttrList list = nullptr;
    NvSciBufAttrKeyValuePair pairs[] = {{NvSciBufImageAttrKey_PlaneOffset, nullptr, 0},
                                        {NvSciBufImageAttrKey_PlanePitch, nullptr, 0},
                                        {NvSciBufImageAttrKey_Size, nullptr, 0}};
    if (NvSciBufObjGetConstCpuPtr(bufObj, &mapping) != NvSciError_Success ||
        NvSciBufObjGetAttrList(bufObj, &list) != NvSciError_Success ||
        NvSciBufAttrListGetAttrs(list, pairs, 3) != NvSciError_Success) {
        return kWriteFailed;
    }
    const uint32_t planes = std::min(pixels->planeCount, 3u);
    if (m_file == nullptr && !skip && planes > 0) return kWriteFailed;
    // Offsets and pitches must describe every plane, or the lines would be read from nowhere.
    if (planes > 0 && (pairs[0].len < planes * sizeof(uint64_t) || pairs[1].len < planes * sizeof(uint32_t))) {
        return kWriteFailed;
    }
    const auto* offsets = static_cast<const uint64_t*>(pairs[0].value);
    const auto* pitches = static_cast<const uint32_t*>(pairs[1].value);
    // The buffer's size, when the buffer states it, bounds every line; without it the planes are trusted.
    const bool bounded = pairs[2].len >= sizeof(uint64_t);
    const uint64_t bufferSize = bounded ? *static_cast<const uint64_t*>(pairs[2].value) : 0;
    const auto* base = static_cast<const uint8_t*>(mapping);

    for (uint32_t i = 0; i < planes; ++i) {
        const uint32_t lineSize = pixels->lineSizes[i];
        const uint32_t lines = lineSize == 0 ? 0 : pixels->planeSizes[i] / lineSize;
        if (pixels->planeSizes[i] < lineSize || skip) continue;
        uint32_t lineOffset = 0;  // accumulates in 32 bits
        uint32_t k = 0;
        do {
            if (bounded && offsets[i] + lineOffset + lineSize > bufferSize) return kWriteFailed;
            if (std::fwrite(base + offsets[i] + lineOffset, 1, lineSize, m_file) != lineSize) return kWriteFailed;
            lineOffset += pitches[i];
            ++k;
        } while (k < lines);
    }
    return kWriteOk;
}

}  // namespace sensor_access
}  // namespace vexa
