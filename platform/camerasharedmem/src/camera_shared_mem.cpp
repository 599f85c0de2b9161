// Shared-memory substitute (libCameraSharedMem.so.3): serves the statistics the simulator publishes per
// sensor and frame (in this process, or in sensor-simd when the process is attached to it).
#include "camera_shared_mem.h"

#include <cstring>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/vehicle.h"

namespace vexa {
namespace CameraSharedMem {

namespace {
constexpr int kNotAvailable = 1;
static_assert(kRoiCount == sensor_sim::stats::kRegions && kRoiBlockBytes == sensor_sim::stats::kBlockBytes,
              "the model's statistics have the shared memory's shape");
}  // namespace

CameraSharedMemManager& CameraSharedMemManager::getInstance() {
    static CameraSharedMemManager instance;
    return instance;
}

int CameraSharedMemManager::get_image_Brightnessdata_C(unsigned short sensorId, unsigned long frameId,
                                                       Brightnessdata& out) {
    sensor_sim::core::record("get_image_Brightnessdata_C",
                             sensor_sim::core::Args().add(sensorId).add(static_cast<uint64_t>(frameId)));
    if (auto s = sensor_sim::core::enter("get_image_Brightnessdata_C")) return static_cast<int>(*s);
    const auto stats = sensor_sim::vehicle::current().ask(
        sensor_sim::msg::GetStats{sensorId, static_cast<uint64_t>(frameId)});
    if (!stats.found) return kNotAvailable;
    for (uint32_t i = 0; i < kRoiCount; ++i) {
        const auto& d = stats.descriptors[i];
        out.roi[i] = RoiDescriptor{d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]};
    }
    static_assert(sizeof out.data == kRoiCount * kRoiBlockBytes, "four blocks");
    std::memcpy(out.data, stats.data.data(), sizeof out.data);
    out.brightness = stats.brightness;
    return 0;
}

}  // namespace CameraSharedMem
}  // namespace vexa
