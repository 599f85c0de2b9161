// What the shared-memory substitute reads from the statistics model. Not for tests (they use stats.h).
#ifndef SENSOR_SIM_INTERNAL_STATS_INTERNAL_H
#define SENSOR_SIM_INTERNAL_STATS_INTERNAL_H

#include <cstdint>

#include "sensor_sim/stats.h"

namespace sensor_sim {
namespace stats {
namespace internal {

// Copies the statistics published for that frame into out; false (out untouched) when there are none.
// The copy's data area is always kRegions * kBlockBytes bytes.
bool lookup(uint16_t sensorId, uint64_t frameId, FrameStats* out);

}  // namespace internal
}  // namespace stats
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_STATS_INTERNAL_H
