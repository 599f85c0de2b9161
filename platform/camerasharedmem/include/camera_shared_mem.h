// The maker's shared-memory library (libCameraSharedMem.so.3): per-frame brightness and ROI statistics
// published by the camera pipeline. On the vehicle the vendor's header replaces this one.
#ifndef CAMERA_SHARED_MEM_H
#define CAMERA_SHARED_MEM_H

#include <cstddef>
#include <cstdint>

namespace vexa {
namespace CameraSharedMem {

constexpr uint32_t kRoiCount = 4;
constexpr uint32_t kRoiBlockBytes = 16384;
constexpr uint32_t kRoiCellBytes = 16;

// One region of interest: a grid of cells over the image.
struct RoiDescriptor {
    uint32_t startX;
    uint32_t startY;
    uint32_t gridWidth;   // cells across
    uint32_t gridHeight;  // cells down
    uint32_t cellWidth;   // pixels
    uint32_t cellHeight;  // pixels
    uint32_t reserved0;
    uint32_t reserved1;
};

struct Brightnessdata {
    RoiDescriptor roi[kRoiCount];
    // Block i (kRoiBlockBytes) holds region i's cells, kRoiCellBytes per cell.
    uint8_t data[kRoiCount * kRoiBlockBytes];
    float brightness;
};

static_assert(sizeof(RoiDescriptor) == 32, "region descriptors are eight 32-bit words");
static_assert(offsetof(Brightnessdata, data) == 128, "data area follows the four descriptors");
static_assert(offsetof(Brightnessdata, brightness) == 128 + 65536, "brightness follows the data area");

class CameraSharedMemManager {
public:
    static CameraSharedMemManager& getInstance();

    // Fills out with the statistics of that frame; 0 on success, non-zero when they are not available.
    int get_image_Brightnessdata_C(unsigned short sensorId, unsigned long frameId, Brightnessdata& out);

private:
    CameraSharedMemManager() = default;
};

}  // namespace CameraSharedMem
}  // namespace vexa

#endif  // CAMERA_SHARED_MEM_H
