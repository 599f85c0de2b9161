// Shared-memory statistics model: per sensor, the most recently published frames' statistics.
#include "sensor_sim/stats.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/stats_internal.h"

namespace sensor_sim {
namespace stats {
namespace {

constexpr size_t kDefaultRetention = 64;

struct Published {
    uint64_t frameId;
    FrameStats stats;
};

struct Model {
    std::mutex mutex;
    size_t retention = kDefaultRetention;
    std::map<uint16_t, std::deque<Published>> bySensor;  // oldest publication first
};

void resetModel();

// Never destroyed: the substitute may be called while the process exits.
Model& model() {
    static Model* m = [] {
        auto* created = new Model;
        core::onReset(resetModel);
        return created;
    }();
    return *m;
}

void resetModel() {
    Model& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.retention = kDefaultRetention;
    m.bySensor.clear();
}

// Length of data without its trailing zero bytes. Whole chunks are compared against zeros first: an area
// is 64 KiB and mostly zeros, and a byte-by-byte scan of it per frame dominates instrumented builds.
size_t withoutTrailingZeros(const std::vector<uint8_t>& data) {
    constexpr size_t kChunk = 256;
    static const uint8_t zeros[kChunk] = {};
    size_t end = data.size();
    while (end >= kChunk && std::memcmp(data.data() + end - kChunk, zeros, kChunk) == 0) end -= kChunk;
    while (end > 0 && data[end - 1] == 0) --end;
    return end;
}

void trim(std::deque<Published>& frames, size_t retention) {
    while (frames.size() > retention) frames.pop_front();
}

}  // namespace

// Publishing a frame again replaces its statistics and makes it the most recent. A data area of another
// size than four blocks is cut or zero-filled to that size, as the shared memory's area is fixed.
// The stored copy drops trailing zero bytes (lookup restores them): the live producers publish every
// frame of every stream, and their cells fill only the front of each block.
void publish(uint16_t sensorId, uint64_t frameId, const FrameStats& stats) {
    Published entry{frameId, stats};
    auto& data = entry.stats.data;
    data.resize(kRegions * kBlockBytes, 0);
    data.resize(withoutTrailingZeros(data));
    data.shrink_to_fit();
    Model& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto& frames = m.bySensor[sensorId];
    frames.erase(std::remove_if(frames.begin(), frames.end(),
                                [&](const Published& p) { return p.frameId == frameId; }),
                 frames.end());
    frames.push_back(std::move(entry));
    trim(frames, m.retention);
}

void remove(uint16_t sensorId, uint64_t frameId) {
    Model& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto it = m.bySensor.find(sensorId);
    if (it == m.bySensor.end()) return;
    auto& frames = it->second;
    frames.erase(std::remove_if(frames.begin(), frames.end(),
                                [&](const Published& p) { return p.frameId == frameId; }),
                 frames.end());
}

// Retention 0 keeps nothing: every frame then reads as not available.
void setRetention(size_t frames) {
    Model& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.retention = frames;
    for (auto& [sensor, published] : m.bySensor) trim(published, frames);
}

namespace internal {

bool lookup(uint16_t sensorId, uint64_t frameId, FrameStats* out) {
    Model& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto it = m.bySensor.find(sensorId);
    if (it == m.bySensor.end() || out == nullptr) return false;
    for (const Published& p : it->second) {
        if (p.frameId == frameId) {
            *out = p.stats;
            out->data.resize(kRegions * kBlockBytes, 0);
            return true;
        }
    }
    return false;
}

}  // namespace internal
}  // namespace stats
}  // namespace sensor_sim
