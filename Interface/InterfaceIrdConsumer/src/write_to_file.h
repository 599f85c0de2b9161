// Appending the visible pixels of a frame buffer to a file, plane by plane and line by line (the
// pitch padding and aligned rows are left out).
#ifndef SENSOR_IPC_WRITE_TO_FILE_H
#define SENSOR_IPC_WRITE_TO_FILE_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "nvscibuf.h"

namespace vexa {
namespace sensor_access {

// Plane geometry for writing.
struct PixelDataBuffer1 {
    uint32_t planeCount;
    uint8_t* planes[3];  // not used by the writer
    uint32_t planeSizes[3];
    uint32_t lineSizes[3];
};

// Fills the geometry of up to three planes: line size = width * bits / 8 and plane size =
// width * bits * height / 8, in 32-bit arithmetic. 0, or 9 when an NvSciBuf call fails.
int AllocatePixelDataBuffer(PixelDataBuffer1* pixels, const NvSciBufObj& bufObj);

class WriteToFile {
public:
    explicit WriteToFile(std::string fileName) : m_fileName(std::move(fileName)) {}
    ~WriteToFile();
    WriteToFile(const WriteToFile&) = delete;
    WriteToFile& operator=(const WriteToFile&) = delete;

    // Appends every plane of the buffer; 0 on success, 1 on failure.
    int WriteBufferToFile(const NvSciBufObj& bufObj);
    // Appends a plain byte block; 0 on success, 1 on failure.
    int WriteBufferToFile2(const uint8_t* data, uint64_t length);
    // As the free AllocatePixelDataBuffer, but 1 on failure.
    int AllocatePixelDataBuffer(PixelDataBuffer1* pixels, const NvSciBufObj& bufObj);
    // Writes the planes of the buffer into the open file; skip writes nothing. 0 on success, 1 on failure.
    int ReadWritePixelDataLineByLine(const NvSciBufObj& bufObj, PixelDataBuffer1* pixels, bool skip);

    const std::string& fileName() const { return m_fileName; }

private:
    std::string m_fileName;
    FILE* m_file = nullptr;
};

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPC_WRITE_TO_FILE_H
