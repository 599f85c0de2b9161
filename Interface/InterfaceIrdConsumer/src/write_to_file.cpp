// Writing frame buffers to files.
#include "write_to_file.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

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

// Lines of a dump handed to the kernel in batches, straight from the frame buffer: written one by one
// through the stream's buffer, each line would be copied once more and every two lines would cost a system
// call. The stream is only the file's owner here; nothing is ever left in its buffer.
class LineBatch {
public:
    explicit LineBatch(FILE* file) : m_file(file) {}

    bool add(const uint8_t* line, size_t size) {
        if (size == 0) return true;  // an empty line writes nothing, and writev would report it as 0 bytes
        m_lines[m_count++] = iovec{const_cast<uint8_t*>(line), size};
        return m_count < kLines || flush();
    }

    // Writes every line added so far; false when the file refuses (a short write that cannot go on).
    bool flush() {
        if (m_count == 0) return true;
        if (std::fflush(m_file) != 0) return false;
        iovec* next = m_lines;
        int left = static_cast<int>(m_count);
        m_count = 0;
        while (left > 0) {
            const ssize_t written = ::writev(fileno(m_file), next, left);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return false;
            // Skip the lines written whole, then the written part of the next one.
            size_t done = static_cast<size_t>(written);
            while (left > 0 && done >= next->iov_len) {
                done -= next->iov_len;
                ++next;
                --left;
            }
            if (left > 0) {
                next->iov_base = static_cast<uint8_t*>(next->iov_base) + done;
                next->iov_len -= done;
            }
        }
        return true;
    }

private:
    static constexpr size_t kLines = 512;  // below every system's IOV_MAX
    FILE* m_file;
    iovec m_lines[kLines];
    size_t m_count = 0;
};

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
    LineBatch batch(m_file);

    for (uint32_t i = 0; i < planes; ++i) {
        const uint32_t lineSize = pixels->lineSizes[i];
        const uint32_t lines = lineSize == 0 ? 0 : pixels->planeSizes[i] / lineSize;
        if (pixels->planeSizes[i] < lineSize || skip) continue;
        uint32_t lineOffset = 0;  // accumulates in 32 bits
        uint32_t k = 0;
        do {
            // The lines before one outside the buffer stay written, as they would have one by one.
            if (bounded && offsets[i] + lineOffset + lineSize > bufferSize) {
                batch.flush();
                return kWriteFailed;
            }
            if (!batch.add(base + offsets[i] + lineOffset, lineSize)) return kWriteFailed;
            lineOffset += pitches[i];
            ++k;
        } while (k < lines);
    }
    return batch.flush() ? kWriteOk : kWriteFailed;
}

}  // namespace sensor_access
}  // namespace vexa
