// Per-sensor counters of a stream run: frames, gaps by frame counter, pairing, latencies and errors.
#ifndef SENSORCTL_FRAME_COUNTERS_H
#define SENSORCTL_FRAME_COUNTERS_H

#include <cstdint>
#include <map>
#include <optional>

namespace sensorctl {

class FrameCounters {
public:
    // A frame got at `atUs` (steady clock) with its counter, the get's duration and how long it was held.
    void onFrame(uint32_t frameCnt, uint64_t atUs, uint64_t getUs, uint64_t holdUs);
    void onNoFrame() { ++m_noFrame; }
    void onPaired() { ++m_paired; }
    void onPairFailure() { ++m_pairFailures; }
    void onError(int32_t result) { ++m_errors[result]; }

    uint64_t frames() const { return m_frames; }
    // Frames missing between consecutive counters (the counter may wrap at 2^32).
    uint64_t gaps() const { return m_gaps; }
    // Counters that repeated or went backwards.
    uint64_t outOfOrder() const { return m_outOfOrder; }
    uint64_t noFrame() const { return m_noFrame; }
    uint64_t paired() const { return m_paired; }
    uint64_t pairFailures() const { return m_pairFailures; }
    const std::map<int32_t, uint64_t>& errors() const { return m_errors; }
    double meanGetUs() const { return m_frames == 0 ? 0.0 : double(m_getUs) / double(m_frames); }
    double meanHoldUs() const { return m_frames == 0 ? 0.0 : double(m_holdUs) / double(m_frames); }
    // Frames per second between the first and the last frame; 0 with fewer than two frames.
    double fps() const;
    std::optional<uint64_t> lastFrameUs() const {
        return m_frames == 0 ? std::nullopt : std::optional(m_lastUs);
    }

private:
    uint64_t m_frames = 0;
    uint64_t m_gaps = 0;
    uint64_t m_outOfOrder = 0;
    uint64_t m_noFrame = 0;
    uint64_t m_paired = 0;
    uint64_t m_pairFailures = 0;
    uint64_t m_getUs = 0;
    uint64_t m_holdUs = 0;
    uint64_t m_firstUs = 0;
    uint64_t m_lastUs = 0;
    std::optional<uint32_t> m_lastCnt;
    std::map<int32_t, uint64_t> m_errors;
};

}  // namespace sensorctl

#endif  // SENSORCTL_FRAME_COUNTERS_H
