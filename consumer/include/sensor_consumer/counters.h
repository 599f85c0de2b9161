// Per-sensor counters of a stream: frames, loss by frame counter (gaps, counters out of order),
// pairing, latencies and errors.
#ifndef SENSOR_CONSUMER_COUNTERS_H
#define SENSOR_CONSUMER_COUNTERS_H

#include <cstdint>
#include <map>
#include <optional>

namespace sensor_consumer {

class FrameCounters {
public:
    // A frame got at `atUs` (steady clock) with its counter, the get's duration and how long it was held.
    // True when it does not follow the previous frame's counter (a gap, or a counter out of order).
    bool onFrame(uint32_t frameCnt, uint64_t atUs = 0, uint64_t getUs = 0, uint64_t holdUs = 0);
    void onNoFrame() { ++m_noFrame; }
    void onPaired() { ++m_paired; }
    void onPairFailure() { ++m_pairFailures; }
    void onError(int32_t result) { ++m_errors[result]; }

    uint64_t frames() const { return m_frames; }
    // Frames missing between consecutive counters (the counter may wrap at 2^32).
    uint64_t gaps() const { return m_gaps; }
    // Counters that repeated or went backwards.
    uint64_t outOfOrder() const { return m_outOfOrder; }
    // Frames that did not follow their predecessor: after a gap or out of order.
    uint64_t discontinuities() const { return m_discontinuities; }
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
    std::optional<uint32_t> lastCounter() const { return m_lastCnt; }

private:
    uint64_t m_frames = 0;
    uint64_t m_gaps = 0;
    uint64_t m_outOfOrder = 0;
    uint64_t m_discontinuities = 0;
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

}  // namespace sensor_consumer

#endif  // SENSOR_CONSUMER_COUNTERS_H
