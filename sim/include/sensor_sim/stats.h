// Control of the simulated shared-memory statistics: per sensor and frame, the brightness value and the
// four regions' cell blocks. Frames without published statistics answer "not available" (non-zero).
#ifndef SENSOR_SIM_STATS_H
#define SENSOR_SIM_STATS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace sensor_sim {
namespace stats {

constexpr uint32_t kRegions = 4;
constexpr uint32_t kBlockBytes = 16384;

struct FrameStats {
    // Eight words per region; word 2 is the grid width in cells, word 3 the grid height.
    std::array<std::array<uint32_t, 8>, kRegions> descriptors{};
    std::vector<uint8_t> data = std::vector<uint8_t>(kRegions * kBlockBytes);  // four 16384-byte blocks
    float brightness = 0.0f;
};

void publish(uint16_t sensorId, uint64_t frameId, const FrameStats& stats);
void remove(uint16_t sensorId, uint64_t frameId);
// Published frames kept per sensor; older ones are dropped (default 64).
void setRetention(size_t frames);

}  // namespace stats
}  // namespace sensor_sim

#endif  // SENSOR_SIM_STATS_H
